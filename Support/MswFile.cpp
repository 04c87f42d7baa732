// MswFile.cpp - the XML results file of statistical analyses: writing, reading (with appended files),
// run labels, and adding a merit function to a stored file.
#include "FileReplace.h"
#include "FileReplace_p.h"
#include "FileServices.h"
#include "Options.h"
#include "QtSupport.h"
#include "TextServices.h"
#include "XMLReport.h"
#include "XMLReport_p.h"
#include "MswScanner_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace {

// The results namespace; written with a trailing slash in "xmlns" and without it in the schema
// location, on purpose.
const char kNamespace[] = "http://results.example.net/schemas/application/msw/";
const char kSchemaLocation[] =
    "http://results.example.net/schemas/application/msw https://results.example.net/schemas/application/msw.xsd";
const int kMaxAppendDepth = 5;
// A dense table of up to this many values is made without asking; beyond it, only when it is at most
// kMaxDenseFactor times the values and runs the files hold.
const long long kDenseWithoutQuestion = 4 * 1000 * 1000;
const long long kMaxDenseFactor = 64;

bool nameIs(const YRef<YDomElement>& element, const char* name) { return element->tagName().equalsNoCase(name); }
bool nameIs(const xmlreport::ScannedTag& tag, const char* name) { return tag.nameIs(name); }

// What one compile has read so far: the depth of the file being read, the files read (each is read
// once, so that files appending each other cannot multiply the work), the chain of files that append
// the one being read, the merit values met, and the records of small case numbers by number.
struct ReadContext {
    // A merit value kept aside until the whole compile is read (see readMeritValue).
    struct Deferred {
        XMLReportInfo* record;
        int index;
        double value;
    };
    int depth = 0;
    std::unordered_set<std::string> files;
    std::vector<std::string> met; // the keys of `files`, in the order met
    std::vector<std::string> chain;
    long long values = 0; // the values read
    long long held = 0;   // the values the table's records held before the read, empty ones included
    long long width = 0; // the most values any record has, or will have once the deferred ones are in
    long long cells = 0; // the values the records hold, those that stand empty before a set one included
    std::vector<Deferred> deferred;
    std::vector<XMLReportInfo*> byCase;
};

// The record of `caseNumber`, created when missing. Case numbers up to four times the runs read (and
// 4096) are looked up in a plain array first: a probe of the hash table reads the record itself, a cache
// miss for every value of a large run set, which made reading grow faster than the file.
XMLReportInfo* recordOf(YHashTable<XMLReportInfo>* table, int caseNumber, ReadContext* context)
{
    const size_t slot = static_cast<size_t>(caseNumber);
    const bool direct = caseNumber >= 0 && slot < 4 * static_cast<size_t>(table->count()) + 4096;
    if (direct && slot < context->byCase.size() && context->byCase[slot])
        return context->byCase[slot];
    XMLReportInfo probe;
    probe.caseNumber = caseNumber;
    XMLReportInfo* record = table->find(probe);
    if (!record)
        record = table->insert(XMLReportInfo(caseNumber));
    if (direct) {
        if (slot >= context->byCase.size())
            context->byCase.resize(slot + 1, nullptr);
        context->byCase[slot] = record; // records keep their address: the table owns each one apart
    }
    return record;
}

// The rules for each element of a results file, written once for both ways of reading it: `Element` is
// a `YRef<YDomElement>` of the parsed tree or an `xmlreport::ScannedTag` read straight from the bytes.

template <class Element>
bool versionIsKnown(const Element& root)
{
    const YString version = root->hasAttribute("version") ? root->getAttribute("version") : YString("1.0");
    return version.equalsNoCase("1.0");
}


// The element name of the runs inside a child of the root ("sensval" in a merit function, "step" in
// "steps"), or null for children that hold no runs.
template <class Element>
const char* runElementOf(const Element& child)
{
    return nameIs(child, "meritfunction") ? "sensval" : nameIs(child, "steps") ? "step" : nullptr;
}

template <class Element>
void readHeader(const Element& element, XMLReportHeader* header)
{
    // A header written by one core of a multi-core run changes nothing.
    if (element->getAttributeInt("coreid", 0) != 0)
        return;
    header->numCores = element->getAttributeInt("numcores", 0);
    auto textOr = [&](const char* name) {
        return element->hasAttribute(name) ? element->getAttribute(name) : YString("unknown");
    };
    header->date = textOr("date");
    header->title = textOr("title");
    header->analysis = textOr("analysis");
    header->group = textOr("group");
}

// Adds a merit function to the header; returns its index for the values that follow.
template <class Element>
int beginMeritFunction(const Element& element, XMLReportHeader* header)
{
    const int index = header->meritFunctions.count();
    header->meritFunctions.append(XMLMeritFunction{element->getAttribute("value"), element->getAttribute("name")});
    return index;
}

template <class Element>
void readMeritValue(const Element& sensval, int index, YHashTable<XMLReportInfo>* table, ReadContext* context)
{
    XMLReportInfo* record = recordOf(table, sensval->getAttributeInt("case", 0), context);
    const double value = sensval->getAttributeDouble("value", 0.0);
    ++context->values;
    context->width = std::max<long long>(context->width, index + 1LL);
    // A value that would widen its record past the dense table's bound (a sparse file makes every record
    // as wide as its last merit function) is kept aside, and so is every later one, to go in, in order,
    // once the whole table is known to pass; so memory grows with the file, never with its square.
    const long long growth = index + 1LL - record->values.count();
    if (context->deferred.empty() &&
        (growth <= 0 || context->cells + growth <= kDenseWithoutQuestion ||
         context->cells - context->held + growth <= kMaxDenseFactor * (context->values + table->count()))) {
        context->cells += std::max(growth, 0LL);
        record->values.at(index).value = value;
        return;
    }
    context->deferred.push_back(ReadContext::Deferred{record, index, value});
}

// Takes a step's attributes into its run's record and returns the record for the step's parameters.
template <class Element>
XMLReportInfo* readStep(const Element& step, YHashTable<XMLReportInfo>* table, ReadContext* context)
{
    YString name = step->getAttribute("name");
    YString description = step->getAttribute("description");
    XMLReportInfo* record = recordOf(table, step->getAttributeInt("case", 0), context);
    if (step->hasAttribute("seed")) {
        record->seed = step->getAttributeInt64("seed", 0);
        record->hasSeed = true;
    }
    // A name wins over a description, which is then not stored (on purpose).
    if (!name.isEmpty()) {
        record->name = std::move(name);
        record->hasName = true;
    } else if (!description.isEmpty()) {
        record->description = std::move(description);
        record->hasDescription = true;
    } else {
        record->description = YString("Run=");
        record->description += YString(record->caseNumber);
        record->hasDescription = true;
    }
    return record;
}

template <class Element>
void readParameter(const Element& p, XMLReportInfo* record)
{
    XMLParameterValue parameter;
    parameter.name = p->getAttribute("name");
    parameter.nominal = p->getAttributeDouble("nom", 0.0);
    parameter.usedValue = p->getAttributeDouble("usedvalue", 0.0);
    parameter.hasTolerance = p->hasAttribute("tol");
    parameter.tolerance = parameter.hasTolerance ? p->getAttributeDouble("tol", 0.0) : 0.0;
    record->parameters.append(std::move(parameter));
}

bool readMswFileOnce(const YString& path, YHashTable<XMLReportInfo>* table, XMLReportHeader* header,
                     ReadContext* context);

} // namespace

xmlreport::ReadFileKey xmlreport::readFileKey(const YString& path)
{
    const QFileInfo file(toQs(path));
    ReadFileKey result;
    result.place = (file.exists() ? file.canonicalFilePath() : file.absoluteFilePath()).toStdString();
    result.key = filereplace::fileKey(path);
    if (result.key.empty())
        result.key = result.place;
    return result;
}

namespace {

bool readMswFile(const YString& path, YHashTable<XMLReportInfo>* table, XMLReportHeader* header, ReadContext* context)
{
    // A file that appends itself, directly or through others, fails as the depth rule would make it
    // fail; a file already read elsewhere in this compile, by any of its names, is not read again (its
    // runs and merit functions are in).
    const xmlreport::ReadFileKey file = xmlreport::readFileKey(path);
    const std::string& key = file.key;
    if (std::find(context->chain.begin(), context->chain.end(), key) != context->chain.end())
        return false;
    if (!context->files.insert(key).second)
        return true;
    context->met.push_back(file.place);
    context->chain.push_back(key);
    const bool ok = readMswFileOnce(path, table, header, context);
    context->chain.pop_back();
    return ok;
}

// Reads the files an "append" element names, in order; `ok` turns false at the first that fails or lies
// too deep, and no later one is read.
void readAppended(const YString& appended, YHashTable<XMLReportInfo>* table, XMLReportHeader* header,
                  ReadContext* context, bool* ok)
{
    ++context->depth;
    if (context->depth < kMaxAppendDepth && *ok)
        *ok = readMswFile(appended, table, header, context);
    else
        *ok = false;
    --context->depth;
}

bool readParsedTree(const YRef<YDomElement>& root, YHashTable<XMLReportInfo>* table, XMLReportHeader* header,
                    ReadContext* context)
{
    if (!versionIsKnown(root))
        return false;
    for (YRef<YDomElement> child = root->firstChildElement(); child; child = child->nextSiblingElement()) {
        const char* runs = runElementOf(child);
        if (!runs)
            continue;
        for (YRef<YDomElement> run = child->firstChildElement(); run; run = run->nextSiblingElement())
            if (nameIs(run, runs) && !xmlreport::caseFits(run))
                return false;
    }
    bool ok = true;
    for (YRef<YDomElement> child = root->firstChildElement(); child; child = child->nextSiblingElement()) {
        if (nameIs(child, "append")) {
            for (YRef<YDomElement> file = child->firstChildElement(); file; file = file->nextSiblingElement())
                if (nameIs(file, "file"))
                    readAppended(file->getAttribute("path"), table, header, context, &ok);
        } else if (nameIs(child, "header")) {
            readHeader(child, header);
        } else if (nameIs(child, "meritfunction")) {
            const int index = beginMeritFunction(child, header);
            for (YRef<YDomElement> sensval = child->firstChildElement(); sensval; sensval = sensval->nextSiblingElement())
                if (nameIs(sensval, "sensval"))
                    readMeritValue(sensval, index, table, context);
        } else if (nameIs(child, "steps")) {
            for (YRef<YDomElement> step = child->firstChildElement(); step; step = step->nextSiblingElement()) {
                if (!nameIs(step, "step"))
                    continue;
                XMLReportInfo* record = readStep(step, table, context);
                for (YRef<YDomElement> p = step->firstChildElement(); p; p = p->nextSiblingElement())
                    if (nameIs(p, "parameter"))
                        readParameter(p, record);
            }
        }
    }
    return ok;
}

// How a file in the writer's plain form was read straight from its bytes.
enum class ScanOutcome { Read, Refused, NotPlain };

// Reads a results file in the writer's plain form without building its tree: a first pass checks that
// the whole file has that form and that its version and case numbers are accepted, before anything
// changes; a second pass reads it. Memory is the table's and one window of the file. A file in any other
// form is left to the tree (NotPlain), which reads every well-formed file the same way.
ScanOutcome scanMswFile(FILE* file, YHashTable<XMLReportInfo>* table, XMLReportHeader* header, ReadContext* context,
                        bool* ok)
{
    using xmlreport::MswScanner;
    xmlreport::ScannedTag tag;
    {
        MswScanner scanner(file);
        const char* runs = nullptr; // the run element of the root's child being read
        for (;;) {
            const MswScanner::Event event = scanner.next(&tag);
            if (event == MswScanner::Unsupported)
                return ScanOutcome::NotPlain;
            if (event == MswScanner::Finished)
                break;
            if (event != MswScanner::StartTag)
                continue;
            if (scanner.depth() == 1 && !versionIsKnown(tag))
                return ScanOutcome::Refused;
            if (scanner.depth() == 2)
                runs = runElementOf(tag);
            else if (scanner.depth() == 3 && runs && nameIs(tag, runs) && !xmlreport::caseFits(tag))
                return ScanOutcome::Refused;
        }
    }
    std::rewind(file);
    MswScanner scanner(file);
    enum { Other, Append, Merit, Steps } section = Other;
    int meritIndex = 0;
    XMLReportInfo* step = nullptr;
    *ok = true;
    for (;;) {
        const MswScanner::Event event = scanner.next(&tag);
        if (event == MswScanner::Finished)
            return ScanOutcome::Read;
        if (event == MswScanner::Unsupported) {
            *ok = false; // the file changed between the passes
            return ScanOutcome::Read;
        }
        if (event != MswScanner::StartTag)
            continue;
        switch (scanner.depth()) {
        case 2:
            section = Other;
            step = nullptr;
            if (nameIs(tag, "append")) {
                section = Append;
            } else if (nameIs(tag, "header")) {
                readHeader(tag, header);
            } else if (nameIs(tag, "meritfunction")) {
                section = Merit;
                meritIndex = beginMeritFunction(tag, header);
            } else if (nameIs(tag, "steps")) {
                section = Steps;
            }
            break;
        case 3:
            step = nullptr;
            if (section == Append && nameIs(tag, "file"))
                readAppended(tag.getAttribute("path"), table, header, context, ok);
            else if (section == Merit && nameIs(tag, "sensval"))
                readMeritValue(tag, meritIndex, table, context);
            else if (section == Steps && nameIs(tag, "step"))
                step = readStep(tag, table, context);
            break;
        case 4:
            if (step && nameIs(tag, "parameter"))
                readParameter(tag, step);
            break;
        default:
            break;
        }
    }
}

bool readMswFileOnce(const YString& path, YHashTable<XMLReportInfo>* table, XMLReportHeader* header,
                     ReadContext* context)
{
    long long size = 0;
    FILE* file = sp_OpenRegularFile(path.c_str(), YDomDocument::kMaxFileBytes, &size);
    if (!file)
        return false;
    bool ok = false;
    const ScanOutcome outcome = scanMswFile(file, table, header, context, &ok);
    std::fclose(file);
    if (outcome == ScanOutcome::Read)
        return ok;
    if (outcome == ScanOutcome::Refused)
        return false;
    YRef<YDomDocument> document = YXML_Factory::Make_RapidXML_DOM_Document();
    if (!document->load(path.c_str()))
        return false;
    YRef<YDomElement> root = document->getRoot();
    return root && readParsedTree(root, table, header, context);
}

// The items of a run name that a label uses, found once: "key:value" items split at "/" (an item
// without exactly one ":" is ignored; keys compare ignoring case; as in every parameter list, the
// first item of a key wins). Each value is kept as its place in the name, not copied. The items are
// looked for up to the name's first NUL, as in the name's C text.
struct NameItems {
    enum Key { Lot, DevParam, Tol, Refdes, Pdf, Term, Param, KeyCount };
    static constexpr uint32_t kAbsent = 0xFFFFFFFFu;
    uint32_t at[KeyCount];
    uint32_t length[KeyCount];

    explicit NameItems(std::string_view name)
    {
        static const char* const kKeys[KeyCount] = {"lot", "devparam", "tol", "refdes", "pdf", "term", "param"};
        std::fill(at, at + KeyCount, kAbsent);
        std::fill(length, length + KeyCount, 0u);
        size_t item = 0;
        for (;;) {
            const size_t end = name.find('/', item);
            const size_t stop = end == std::string_view::npos ? name.size() : end;
            // The colons are looked for within the item only, so that a name of many items is read in
            // linear time.
            const std::string_view text = name.substr(item, stop - item);
            const size_t colon = text.find(':'); // within the item: the key's length
            if (colon != std::string_view::npos && text.find(':', colon + 1) == std::string_view::npos) {
                for (int k = 0; k < KeyCount; ++k) {
                    if (std::strlen(kKeys[k]) == colon && equalsAsciiNoCase(text.data(), kKeys[k], colon)) {
                        if (at[k] == kAbsent) {
                            at[k] = static_cast<uint32_t>(item + colon + 1);
                            length[k] = static_cast<uint32_t>(text.size() - colon - 1);
                        }
                        break;
                    }
                }
            }
            if (end == std::string_view::npos)
                break;
            item = end + 1;
        }
    }

    bool has(Key k) const { return at[k] != kAbsent; }
    std::string_view value(std::string_view name, Key k) const { return name.substr(at[k], length[k]); }

    // Appends the label of `name` at a detail level from 1 to 5 to `out`: from the items below 5, the name
    // itself at 5 or when it has none of the label's keys.
    void appendLabel(std::string_view name, int detail, std::string* out) const
    {
        const size_t start = out->size();
        if (detail < 5) {
            if (has(Lot)) {
                append(out, "Lot: ", value(name, Lot));
                if (detail >= 2) {
                    if (has(DevParam))
                        append(out, ".", value(name, DevParam));
                    if (has(Tol))
                        append(out, " (TOL=", value(name, Tol), ")");
                }
            } else if (has(Refdes)) {
                append(out, "Ref: ", value(name, Refdes));
                if (detail >= 2 && has(DevParam))
                    append(out, ".", value(name, DevParam));
                if (detail >= 3 && has(Pdf))
                    append(out, " (", value(name, Pdf), ")");
                if (detail >= 4 && has(Term))
                    append(out, " (term ", value(name, Term), ")");
            } else if (has(Param)) {
                append(out, "Var: ", value(name, Param));
                if (detail >= 3 && has(Pdf))
                    append(out, " (", value(name, Pdf), ")");
            }
        }
        if (out->size() == start)
            out->append(name.data(), name.size());
    }

    static void append(std::string* out, const char* before, std::string_view value, const char* after = "")
    {
        out->append(before);
        out->append(value.data(), value.size());
        out->append(after);
    }

    static bool equalsAsciiNoCase(const char* a, const char* lowerB, size_t n)
    {
        for (size_t i = 0; i < n; ++i) {
            char c = a[i];
            if (c >= 'A' && c <= 'Z')
                c = static_cast<char>(c - 'A' + 'a');
            if (c != lowerB[i])
                return false;
        }
        return true;
    }
};

} // namespace

YString xmlreport::makeRunLabel(const YString& name, int detail)
{
    std::string label;
    NameItems(name.c_str()).appendLabel(name.str(), detail, &label);
    return YString(label.c_str(), static_cast<int>(label.size()));
}

namespace {

// How many of the labels are equal to each (itself included), and the first of them in order: by their
// 64-bit hashes the labels are spread, texts and all, into parts small enough for the processor's cache,
// and each part counts its labels in a small table, comparing the texts of labels whose hashes are
// equal. Linear in the labels, with no allocation per label and no look-up that strays over the whole set.
struct LabelGroups {
    std::vector<uint32_t> count; // per label: the labels equal to it
    std::vector<uint32_t> first; // per label: the first label equal to it (when asked for)
};

LabelGroups groupLabels(const std::vector<std::string_view>& labels, const std::vector<uint64_t>& hashes, bool firsts)
{
    const size_t count = hashes.size();
    LabelGroups groups;
    groups.count.resize(count);
    if (firsts)
        groups.first.resize(count);
    int bits = 0;
    while ((size_t(4096) << bits) < count && bits < 16)
        ++bits;
    const size_t parts = size_t(1) << bits;
    const auto partOf = [bits](uint64_t h) { return bits == 0 ? size_t(0) : static_cast<size_t>(h >> (64 - bits)); };
    // Where each part's labels and their texts begin.
    std::vector<size_t> begin(parts + 1, 0), textBegin(parts + 1, 0);
    for (size_t i = 0; i < count; ++i) {
        const size_t p = partOf(hashes[i]);
        ++begin[p + 1];
        textBegin[p + 1] += labels[i].size();
    }
    for (size_t p = 0; p < parts; ++p) {
        begin[p + 1] += begin[p];
        textBegin[p + 1] += textBegin[p];
    }
    struct Spread {
        uint64_t hash;
        uint32_t label;  // its index among the labels
        uint32_t length;
        size_t text;     // where its text begins in `texts`
    };
    std::vector<Spread> spread(count);
    std::string texts(textBegin[parts], '\0');
    {
        std::vector<size_t> next(begin.begin(), begin.end() - 1), nextText(textBegin.begin(), textBegin.end() - 1);
        for (size_t i = 0; i < count; ++i) {
            const size_t p = partOf(hashes[i]);
            const std::string_view label = labels[i];
            spread[next[p]++] = Spread{hashes[i], static_cast<uint32_t>(i), static_cast<uint32_t>(label.size()), nextText[p]};
            if (!label.empty())
                std::memcpy(&texts[nextText[p]], label.data(), label.size());
            nextText[p] += label.size();
        }
    }
    const auto same = [&](const Spread& a, const Spread& b) {
        return a.hash == b.hash && a.length == b.length &&
               std::memcmp(texts.data() + a.text, texts.data() + b.text, a.length) == 0;
    };
    constexpr uint32_t kEmpty = 0xFFFFFFFFu;
    struct Entry {
        uint32_t first; // the group's first label, as its place in the part (labels keep their order there)
        uint32_t count;
    };
    std::vector<Entry> table;
    std::vector<uint32_t> entryOf;
    for (size_t p = 0; p < parts; ++p) {
        const Spread* part = spread.data() + begin[p];
        const size_t n = begin[p + 1] - begin[p];
        size_t size = 16;
        while (size < 2 * n)
            size *= 2;
        table.assign(size, Entry{kEmpty, 0});
        entryOf.resize(n);
        for (size_t k = 0; k < n; ++k) {
            size_t slot = static_cast<size_t>(part[k].hash) & (size - 1);
            while (table[slot].first != kEmpty && !same(part[table[slot].first], part[k]))
                slot = (slot + 1) & (size - 1);
            if (table[slot].first == kEmpty)
                table[slot].first = static_cast<uint32_t>(k);
            ++table[slot].count;
            entryOf[k] = static_cast<uint32_t>(slot);
        }
        for (size_t k = 0; k < n; ++k) {
            const Entry& entry = table[entryOf[k]];
            groups.count[part[k].label] = entry.count;
            if (firsts)
                groups.first[part[k].label] = static_cast<uint32_t>(part[entry.first].label);
        }
    }
    return groups;
}

// The 64-bit FNV-1a hash of a text.
uint64_t hashText(std::string_view text)
{
    uint64_t hash = 14695981039346656037ull;
    for (char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    return hash;
}

// Gives every named run the shortest label that no other undescribed run shares. Runs of the same
// name, byte for byte, have the same label at every level, so none of them is ever described, though
// their label still stands against the others': each name is therefore taken once, marked when other
// runs share it. Names are parsed once; at each detail level the labels of the names still undescribed
// are written one after another into one buffer, folded, and grouped by groupLabels.
void describeNamedRuns(YHashTable<XMLReportInfo>* table)
{
    std::vector<XMLReportInfo*> pending;
    std::vector<std::string_view> names; // the runs' own names, which the levels below leave unchanged
    for (XMLReportInfo& record : *table) {
        if (record.description.isEmpty()) {
            pending.push_back(&record);
            names.emplace_back(record.name.str());
        }
    }
    std::vector<uint64_t> hashes(pending.size());
    for (size_t i = 0; i < pending.size(); ++i)
        hashes[i] = hashText(names[i]);
    std::vector<char> shared;
    {
        const LabelGroups sameName = groupLabels(names, hashes, true);
        size_t kept = 0;
        for (size_t i = 0; i < pending.size(); ++i) {
            if (sameName.first[i] != i)
                continue;
            pending[kept] = pending[i];
            names[kept] = names[i];
            shared.push_back(sameName.count[i] > 1);
            ++kept;
        }
        pending.resize(kept);
        names.resize(kept);
    }
    std::vector<NameItems> items;
    items.reserve(pending.size());
    for (const std::string_view name : names)
        items.emplace_back(name.substr(0, name.find('\0'))); // the items end at a NUL, as in C text
    // Whether a name held by a single run is still undescribed: the levels stop when none is.
    const auto anyDescribable = [&] { return std::find(shared.begin(), shared.end(), 0) != shared.end(); };
    std::string arena, label;
    std::vector<std::string_view> labels;
    for (int detail = 1; detail <= 5 && anyDescribable(); ++detail) {
        arena.clear();
        std::vector<size_t> ends(pending.size());
        for (size_t i = 0; i < pending.size(); ++i) {
            items[i].appendLabel(names[i], detail, &arena);
            ends[i] = arena.size();
        }
        // Labels compare ignoring case: they are grouped folded.
        for (char& c : arena)
            if (c >= 'A' && c <= 'Z')
                c = static_cast<char>(c - 'A' + 'a');
        labels.resize(pending.size());
        hashes.resize(pending.size());
        for (size_t i = 0, start = 0; i < pending.size(); start = ends[i++]) {
            labels[i] = std::string_view(arena.data() + start, ends[i] - start);
            hashes[i] = hashText(labels[i]);
        }
        const std::vector<uint32_t> held = groupLabels(labels, hashes, false).count;
        size_t kept = 0;
        for (size_t i = 0; i < pending.size(); ++i) {
            if (held[i] == 1 && !shared[i]) {
                label.clear();
                items[i].appendLabel(names[i], detail, &label);
                pending[i]->description = YString(label.c_str(), static_cast<int>(label.size()));
                pending[i]->hasDescription = true;
                // A run without a name has an empty label at every level, held by no other: it keeps an
                // empty description, which the levels after would only give it again.
                continue;
            }
            if (kept != i) {
                pending[kept] = pending[i];
                items[kept] = items[i];
                names[kept] = names[i];
                shared[kept] = shared[i];
            }
            ++kept;
        }
        pending.resize(kept);
        items.resize(kept, NameItems(std::string_view()));
        names.resize(kept);
        shared.resize(kept);
    }
}

// Saves the document as an editor saves a file: beside `path`, renamed over it only once complete (a
// failed write leaves the previous file as it was), through links, keeping the old permissions.
bool saveReplacing(const YRef<YDomDocument>& document, const YString& path)
{
    return sp_ReplaceFileWith(path, [&](const YString& pathToWrite) { return document->save(pathToWrite.c_str(), 0); });
}

} // namespace

void sp_DecorateMswRoot(YRef<YDomElement> root)
{
    if (!root)
        return;
    root->setAttribute("xmlns", kNamespace);
    root->setAttribute("xmlns:xsi", "http://www.w3.org/2001/XMLSchema-instance");
    root->setAttribute("xsi:schemaLocation", kSchemaLocation);
    root->setAttribute("version", "1.0");
    root->setAttribute("rev", "1");
}

bool sp_TestMswVersion(YRef<YDomElement> root)
{
    return root && versionIsKnown(root);
}

namespace {

// A real attribute, with its "_ascii" twin when `twins` is set.
void writeReal(const YRef<YDomElement>& element, const char* name, double value, bool twins)
{
    element->setAttribute(name, value);
    if (twins) {
        const std::string twin = std::string(name) + "_ascii";
        element->setAttribute(twin.c_str(), sp_ConvertRealToJSEng(value, 10, true).c_str());
    }
}

bool writesTwins() { return sp_GetBoolOption("WriteXMLAsciiReals", nullptr); }

} // namespace

void sp_WriteElemRealValue(YRef<YDomElement> element, const YString& name, double value)
{
    if (element)
        writeReal(element, name.c_str(), value, writesTwins());
}

bool sp_WriteMswFile(const YString& path, const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header)
{
    try {
        // The option is read once for the whole file.
        const bool twins = writesTwins();
        YRef<YDomDocument> document = YXML_Factory::Make_RapidXML_DOM_Document();
        YRef<YDomElement> root = document->createRoot("msw");
        sp_DecorateMswRoot(root);
        YRef<YDomElement> head = root->appendChild("header");
        if (!header.analysis.isEmpty())
            head->setAttribute("analysis", header.analysis.c_str());
        if (!header.date.isEmpty())
            head->setAttribute("date", header.date.c_str());
        if (header.numCores > 0)
            head->setAttribute("numcores", header.numCores);
        if (!header.title.isEmpty())
            head->setAttribute("title", header.title.c_str());
        if (!header.group.isEmpty())
            head->setAttribute("group", header.group.c_str());
        for (int i = 0; i < header.meritFunctions.count(); ++i) {
            YRef<YDomElement> merit = root->appendChild("meritfunction");
            merit->setAttribute("value", header.meritFunctions[i].value.c_str());
            merit->setAttribute("name", header.meritFunctions[i].name.c_str());
            for (const XMLReportInfo& record : table) {
                YRef<YDomElement> sensval = merit->appendChild("sensval");
                sensval->setAttribute("case", record.caseNumber);
                writeReal(sensval, "value", record.values[i].value, twins);
            }
        }
        if (!table.isEmpty()) {
            YRef<YDomElement> steps = root->appendChild("steps");
            for (const XMLReportInfo& record : table) {
                YRef<YDomElement> step = steps->appendChild("step");
                if (record.hasName)
                    step->setAttribute("name", record.name.c_str());
                step->setAttribute("case", record.caseNumber);
                if (record.hasSeed)
                    step->setAttribute("seed", record.seed);
                if (record.hasDescription)
                    step->setAttribute("description", record.description.c_str());
                for (int k = 0; k < record.parameters.count(); ++k) {
                    const XMLParameterValue& p = record.parameters[k];
                    YRef<YDomElement> parameter = step->appendChild("parameter");
                    parameter->setAttribute("name", p.name.c_str());
                    writeReal(parameter, "nom", p.nominal, twins);
                    writeReal(parameter, "usedvalue", p.usedValue, twins);
                    if (p.hasTolerance)
                        writeReal(parameter, "tol", p.tolerance, twins);
                }
            }
        }
        return saveReplacing(document, path);
    } catch (...) {
        return false;
    }
}

bool sp_CompileSensReportData(const YString& path, YHashTable<XMLReportInfo>* table, XMLReportHeader* header)
{
    return xmlreport::compileResults(path, table, header, nullptr);
}

bool xmlreport::compileResults(const YString& path, YHashTable<XMLReportInfo>* table, XMLReportHeader* header,
                               std::vector<YString>* sources)
{
    if (!table || !header)
        return false;
    try {
        ReadContext context;
        // The widest record is followed while reading (only values make a record wider), so that no
        // pass over the table is needed for it; records the table held before start the count. What they
        // held is memory the caller has already given: the bound is on what this read adds.
        for (const XMLReportInfo& record : *table) {
            context.width = std::max<long long>(context.width, record.values.count());
            context.cells += record.values.count();
        }
        context.held = context.cells;
        const bool ok = readMswFile(path, table, header, &context);
        // Listed whether or not the read succeeded: a caller guards these files against being overwritten.
        if (sources)
            for (const std::string& key : context.met)
                sources->push_back(YString(key.c_str(), static_cast<int>(key.size())));
        // Deltas make the table dense (every run gets a value of every merit function): refused when
        // that would be far larger than what the files hold, as a sparse file crafted to exhaust memory
        // would make it.
        if (xmlreport::tooSparse(context.width, table->count(), context.values, context.held))
            return false;
        for (const ReadContext::Deferred& d : context.deferred)
            d.record->values.at(d.index).value = d.value;
        computeSensitivityDeltas(*table);
        describeNamedRuns(table);
        return ok;
    } catch (...) {
        // Memory ran out after all: a result, as every failure is, never an exception.
        return false;
    }
}

bool xmlreport::tooSparse(long long width, long long runs, long long values, long long held)
{
    const long long dense = width * runs;
    return dense > kDenseWithoutQuestion && dense - held > kMaxDenseFactor * (values + runs);
}

bool sp_AppendMeritData(const YString& path, const YString& value, const YString& name, const YVector<double>& values,
                        const YVector<int>& cases)
{
    if (values.count() != cases.count())
        return false;
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    if (!sp_CompileSensReportData(path, &table, &header))
        return false;
    header.meritFunctions.append(XMLMeritFunction{value, name});
    const int n = header.meritFunctions.count();
    for (int k = 0; k < cases.count(); ++k) {
        XMLReportInfo probe;
        probe.caseNumber = cases[k];
        XMLReportInfo* record = table.find(probe);
        // Each run must hold exactly one value per earlier merit function.
        if (!record || record->values.count() != n - 1)
            return false;
        record->values.at(n - 1).value = values[k];
    }
    return sp_WriteMswFile(path, table, header);
}
