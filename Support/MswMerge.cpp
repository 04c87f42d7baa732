// MswMerge.cpp - merging results files: each shard is loaded on its own, its merit values and steps are
// copied into two temporary files, and the output is put together from them at the end, so memory holds
// one shard and the per-merit summaries. Two files, not one per merit function, so that any number of
// merit functions merges within the limit of open files.
#include "MswMerge.h"

#include "FileReplace.h"
#include "FileReplace_p.h"
#include "FileServices.h"
#include "QtSupport.h"
#include "TextServices.h"
#include "XMLReport.h"
#include "XMLReport_p.h"
#include "YDom.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace {

// The reader follows appended files to this depth (the root file is depth 0).
constexpr int kMaxAppendDepth = 5;

bool nameIs(const YRef<YDomElement>& element, const char* name) { return element->tagName().equalsNoCase(name); }

// Attribute text escaped for a double-quoted attribute; tabs and line ends are kept as character
// references, which attribute normalisation would otherwise turn into blanks, and other control
// characters, which XML cannot hold, are left out as the results file's writer leaves them out. A byte
// that is no UTF-8, and the characters U+FFFE and U+FFFF, become U+FFFD, as they do there too.
std::string attr(const char* name, const YString& value)
{
    std::string out = " ";
    out += name;
    out += "=\"";
    for (char32_t c : sp_DecodeUtf8(value.c_str(), static_cast<size_t>(value.length()))) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\t': out += "&#9;"; break;
        case '\n': out += "&#10;"; break;
        case '\r': out += "&#13;"; break;
        default:
            if (c == 0xFFFE || c == 0xFFFF)
                c = 0xFFFD;
            if (c < 0x80) {
                if (c >= 32)
                    out += static_cast<char>(c);
            } else {
                // UTF-8 of a character that decoding found well-formed: two to four bytes.
                static const unsigned char kLead[] = {0, 0xC0, 0xE0, 0xF0};
                const int extra = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
                out += static_cast<char>(kLead[extra] | (c >> (6 * extra)));
                for (int k = extra - 1; k >= 0; --k)
                    out += static_cast<char>(0x80 | ((c >> (6 * k)) & 0x3F));
            }
        }
    }
    out += '"';
    return out;
}

std::string attr(const char* name, long long value) { return attr(name, YString(std::to_string(value).c_str())); }

// The elements of one shard that matter, in the order the reader meets them (appended files in place).
struct Shard {
    std::vector<YRef<YDomElement>> headers;
    std::vector<YRef<YDomElement>> merits;
    std::vector<YRef<YDomElement>> steps; // "step" elements
};

// The files a shard's read took, in the order met: their keys and places (xmlreport::readFileKey).
struct FilesRead {
    std::unordered_set<std::string> keys;
    std::vector<xmlreport::ReadFileKey> inOrder;
};

// As the reader does: a file that appends itself (through any chain) fails, a file appended twice (by any
// of its names) is read once, and a file with a run whose case number an int does not hold fails.
bool collect(const YString& path, int depth, std::unordered_set<std::string>* chain, FilesRead* read, Shard* shard)
{
    const xmlreport::ReadFileKey file = xmlreport::readFileKey(path);
    const std::string& key = file.key;
    if (chain->count(key))
        return false;
    if (!read->keys.insert(key).second)
        return true;
    read->inOrder.push_back(file);
    chain->insert(key);
    YRef<YDomDocument> document = YXML_Factory::Make_RapidXML_DOM_Document();
    YRef<YDomElement> root;
    bool ok = document->load(path.c_str()) && (root = document->getRoot()) && sp_TestMswVersion(root);
    for (YRef<YDomElement> child = ok ? root->firstChildElement() : YRef<YDomElement>(); child && ok;
         child = child->nextSiblingElement()) {
        if (nameIs(child, "append")) {
            for (YRef<YDomElement> file = child->firstChildElement(); file && ok; file = file->nextSiblingElement())
                if (nameIs(file, "file"))
                    ok = depth + 1 < kMaxAppendDepth && collect(file->getAttribute("path"), depth + 1, chain, read, shard);
        } else if (nameIs(child, "header")) {
            shard->headers.push_back(child);
        } else if (nameIs(child, "meritfunction")) {
            shard->merits.push_back(child);
            for (YRef<YDomElement> v = child->firstChildElement(); v && ok; v = v->nextSiblingElement())
                ok = !nameIs(v, "sensval") || xmlreport::caseFits(v);
        } else if (nameIs(child, "steps")) {
            for (YRef<YDomElement> step = child->firstChildElement(); step && ok; step = step->nextSiblingElement()) {
                if (nameIs(step, "step"))
                    shard->steps.push_back(step);
                ok = !nameIs(step, "step") || xmlreport::caseFits(step);
            }
        }
    }
    chain->erase(key);
    return ok;
}

// Reads a shard; `read` (when not null) gets the files it took.
bool loadShard(const YString& path, Shard* shard, FilesRead* read = nullptr)
{
    std::unordered_set<std::string> chain;
    FilesRead files;
    return collect(path, 0, &chain, read ? read : &files, shard);
}

// The case numbers of a shard, each once, in the order met.
std::vector<int> casesOf(const Shard& shard)
{
    std::vector<int> cases;
    std::unordered_set<int> seen;
    for (const YRef<YDomElement>& merit : shard.merits)
        for (YRef<YDomElement> v = merit->firstChildElement(); v; v = v->nextSiblingElement())
            if (nameIs(v, "sensval") && seen.insert(v->getAttributeInt("case", 0)).second)
                cases.push_back(v->getAttributeInt("case", 0));
    for (const YRef<YDomElement>& step : shard.steps)
        if (seen.insert(step->getAttributeInt("case", 0)).second)
            cases.push_back(step->getAttributeInt("case", 0));
    return cases;
}

struct HeaderFields {
    bool seen = false;
    YString analysis, date, title, group;
    int numCores = 0;
};

bool fail(YString* message, const std::string& text)
{
    if (message)
        *message = YString(text.c_str());
    return false;
}

// Copies `length` bytes of `part` from `offset` on to `out`.
bool copyInto(QIODevice& out, QTemporaryFile& part, qint64 offset, qint64 length)
{
    if (!part.flush() || !part.seek(offset))
        return false;
    char buffer[1 << 16];
    while (length > 0) {
        const qint64 n = part.read(buffer, std::min<qint64>(length, sizeof buffer));
        if (n <= 0 || out.write(buffer, n) != n)
            return false;
        length -= n;
    }
    return true;
}

// Where one shard's values of one merit function stand in the merit functions' temporary file.
struct Chunk {
    qint64 offset;
    qint64 length;
};

bool writeText(QIODevice& device, const std::string& text)
{
    return device.write(text.data(), static_cast<qint64>(text.size())) == static_cast<qint64>(text.size());
}

} // namespace

bool sp_MergeMswFiles(const std::vector<YString>& shards, const YString& output, bool renumber, YString* message,
                      MswMergeSummary* summary, int* outputReadBy)
{
    if (outputReadBy)
        *outputReadBy = -1;
    try {
        if (shards.empty())
            return fail(message, "no results file to merge");
        const auto shardName = [&shards](size_t i) { return std::string(shards[i].c_str()); };

        // With renumbering, new numbers go above every case number of every shard: a first pass finds it.
        long long nextCase = 1;
        if (renumber) {
            for (size_t i = 0; i < shards.size(); ++i) {
                Shard shard;
                if (!loadShard(shards[i], &shard))
                    return fail(message, "cannot read the results file " + shardName(i));
                for (int c : casesOf(shard))
                    nextCase = std::max(nextCase, static_cast<long long>(c) + 1);
            }
        }

        std::vector<XMLMeritFunction> merits;
        // The merit functions' values, shard after shard, and where each merit function's are.
        QTemporaryFile meritsPart;
        std::vector<std::vector<Chunk>> meritChunks;
        QTemporaryFile stepsPart;
        if (!meritsPart.open() || !stepsPart.open())
            return fail(message, "cannot create a temporary file");
        std::unordered_map<int, size_t> owner; // case number -> the shard that has it
        HeaderFields header;
        long long totalCores = 0;
        MswMergeSummary result;
        std::string shardsElement;
        // What the reader's density rule weighs: the values written, and one past the last merit function
        // that has any.
        long long valuesWritten = 0;
        long long width = 0;

        const std::string outputKey = xmlreport::readFileKey(output).key;
        const bool outputExists = QFileInfo::exists(toQs(output));
        std::unordered_map<std::string, size_t> firstReadBy; // a file's key -> the first shard that read it
        for (size_t i = 0; i < shards.size(); ++i) {
            Shard shard;
            FilesRead read;
            if (!loadShard(shards[i], &shard, &read))
                return fail(message, "cannot read the results file " + shardName(i));
            // Replacing a file that a shard reads would change that shard, or a file it appends, under it;
            // a hard link is the same file by another name.
            if (read.keys.count(outputKey) || (outputExists && std::any_of(read.inOrder.begin(), read.inOrder.end(), [&](const auto& file) {
                                                   return filereplace::sameFile(output, YString(file.place.c_str()));
                                               }))) {
                if (outputReadBy)
                    *outputReadBy = static_cast<int>(i);
                return fail(message, "the output " + std::string(output.c_str()) + " is a file that " + shardName(i) +
                                         " reads; name another");
            }
            // A file that two shards read (one appends the other, or both append it) would have its runs
            // in the output twice, and renumbering would hide it. The first such file met is named.
            for (const xmlreport::ReadFileKey& file : read.inOrder) {
                const auto [first, fresh] = firstReadBy.emplace(file.key, i);
                if (!fresh)
                    return fail(message, "the results file " + file.place + " is read by both " + shardName(first->second) +
                                             " and " + shardName(i) + ": its runs would be merged twice");
            }
            if (i == 0) {
                for (const YRef<YDomElement>& m : shard.merits)
                    merits.push_back({m->getAttribute("value"), m->getAttribute("name")});
                meritChunks.resize(merits.size());
                result.merits.resize(merits.size());
            } else {
                bool same = shard.merits.size() == merits.size();
                for (size_t m = 0; same && m < merits.size(); ++m)
                    same = shard.merits[m]->getAttribute("value") == merits[m].value &&
                           shard.merits[m]->getAttribute("name") == merits[m].name;
                if (!same)
                    return fail(message, "the results file " + shardName(i) + " has other merit functions than " +
                                             shardName(0));
            }
            int shardCores = 0;
            for (const YRef<YDomElement>& h : shard.headers) {
                if (h->getAttributeInt("coreid", 0) != 0)
                    continue;
                const auto textOr = [&h](const char* name) {
                    return h->hasAttribute(name) ? h->getAttribute(name) : YString("unknown");
                };
                header.seen = true;
                header.analysis = textOr("analysis");
                header.date = textOr("date");
                header.title = textOr("title");
                header.group = textOr("group");
                shardCores = h->getAttributeInt("numcores", 0);
            }
            totalCores += shardCores;

            // Case numbers: kept, or renumbered when an earlier shard has them.
            std::unordered_map<int, long long> renumbered;
            const std::vector<int> cases = casesOf(shard);
            for (int c : cases) {
                auto it = owner.find(c);
                if (it == owner.end()) {
                    owner.emplace(c, i);
                    continue;
                }
                if (!renumber)
                    return fail(message, "case " + std::to_string(c) + " is in both " + shardName(it->second) + " and " +
                                             shardName(i) + " (merge with renumbering to keep both)");
                if (nextCase > INT_MAX)
                    return fail(message, "no case number is left for renumbering");
                renumbered.emplace(c, nextCase++);
            }
            const auto caseOf = [&renumbered](int c) {
                auto it = renumbered.find(c);
                return it == renumbered.end() ? static_cast<long long>(c) : it->second;
            };
            result.renumbered += static_cast<long long>(renumbered.size());
            result.runs += static_cast<long long>(cases.size());
            result.shardRuns.push_back(static_cast<long long>(cases.size()));
            shardsElement += "\t\t<shard" + attr("index", static_cast<long long>(i + 1)) + attr("path", shards[i]) +
                             attr("runs", static_cast<long long>(cases.size())) + "/>\n";

            for (size_t m = 0; m < merits.size(); ++m) {
                std::string text;
                std::vector<double> values;
                std::vector<int> valueCases;
                for (YRef<YDomElement> v = shard.merits[m]->firstChildElement(); v; v = v->nextSiblingElement()) {
                    if (!nameIs(v, "sensval"))
                        continue;
                    const int c = v->getAttributeInt("case", 0);
                    text += "\t\t<sensval" + attr("case", caseOf(c)) + attr("value", v->getAttribute("value"));
                    if (v->hasAttribute("value_ascii"))
                        text += attr("value_ascii", v->getAttribute("value_ascii"));
                    text += "/>\n";
                    values.push_back(v->getAttributeDouble("value", 0.0));
                    valueCases.push_back(static_cast<int>(caseOf(c)));
                }
                valuesWritten += static_cast<long long>(values.size());
                if (!values.empty())
                    width = std::max(width, static_cast<long long>(m) + 1);
                // A case given twice is read with its last value: the summary takes that one only.
                std::unordered_map<int, size_t> firstAt;
                size_t kept = 0;
                for (size_t k = 0; k < values.size(); ++k) {
                    const auto [at, fresh] = firstAt.emplace(valueCases[k], kept);
                    if (fresh) {
                        values[kept] = values[k];
                        valueCases[kept++] = valueCases[k];
                    } else {
                        values[at->second] = values[k];
                    }
                }
                values.resize(kept);
                valueCases.resize(kept);
                MomentSummary part;
                part.addBlock(values.data(), valueCases.data(), values.size());
                result.merits[m].merge(part);
                if (text.empty())
                    continue;
                meritChunks[m].push_back({meritsPart.pos(), static_cast<qint64>(text.size())});
                if (!writeText(meritsPart, text))
                    return fail(message, "cannot write a temporary file");
            }

            std::string text;
            std::unordered_set<int> stepped;
            for (const YRef<YDomElement>& step : shard.steps) {
                const int c = step->getAttributeInt("case", 0);
                stepped.insert(c);
                const bool moved = renumbered.count(c) != 0;
                text += "\t\t<step";
                if (step->hasAttribute("name"))
                    text += attr("name", step->getAttribute("name"));
                text += attr("case", caseOf(c));
                if (step->hasAttribute("seed"))
                    text += attr("seed", step->getAttribute("seed"));
                YString description = step->getAttribute("description");
                if (moved) {
                    if (description.isEmpty())
                        description = YString(("Run=" + std::to_string(c)).c_str());
                    description += YString((" (shard " + std::to_string(i + 1) + " case " + std::to_string(c) + ")").c_str());
                }
                if (step->hasAttribute("description") || moved)
                    text += attr("description", description);
                text += attr("shard", static_cast<long long>(i + 1));
                if (moved)
                    text += attr("shardcase", static_cast<long long>(c));
                text += ">\n";
                for (YRef<YDomElement> p = step->firstChildElement(); p; p = p->nextSiblingElement()) {
                    if (!nameIs(p, "parameter"))
                        continue;
                    text += "\t\t\t<parameter";
                    for (const char* a : {"name", "nom", "nom_ascii", "usedvalue", "usedvalue_ascii", "tol", "tol_ascii"})
                        if (p->hasAttribute(a))
                            text += attr(a, p->getAttribute(a));
                    text += "/>\n";
                }
                text += "\t\t</step>\n";
            }
            // A renumbered run that has values but no step gets one, which records where it came from.
            for (int c : cases) {
                if (renumbered.count(c) == 0 || stepped.count(c) != 0)
                    continue;
                const std::string from = "shard " + std::to_string(i + 1) + " case " + std::to_string(c);
                text += "\t\t<step" + attr("case", caseOf(c)) +
                        attr("description", YString(("Run=" + std::to_string(c) + " (" + from + ")").c_str())) +
                        attr("shard", static_cast<long long>(i + 1)) + attr("shardcase", static_cast<long long>(c)) +
                        ">\n\t\t</step>\n";
            }
            if (!writeText(stepsPart, text))
                return fail(message, "cannot write a temporary file");
        }

        // Shards that each load may together make a table the reader refuses: one with a value of a late
        // merit function beside another with many runs that have only early ones.
        if (xmlreport::tooSparse(width, result.runs, valuesWritten))
            return fail(message, "the merged file would hold " + std::to_string(valuesWritten) + " values for a table of " +
                                     std::to_string(result.runs) + " runs by " + std::to_string(width) +
                                     " merit functions, too few for the reader to load it");

        // The root's attributes as the writer sets them.
        YRef<YDomDocument> decorated = YXML_Factory::Make_RapidXML_DOM_Document();
        YRef<YDomElement> root = decorated->createRoot("msw");
        sp_DecorateMswRoot(root);
        std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<msw";
        for (const char* a : {"xmlns", "xmlns:xsi", "xsi:schemaLocation", "version", "rev"})
            text += attr(a, root->getAttribute(a));
        text += ">\n";
        // No header at all when no shard has one that the reader takes, so that the output reads the same.
        if (header.seen) {
            text += "\t<header" + attr("analysis", header.analysis) + attr("date", header.date);
            if (totalCores > 0)
                text += attr("numcores", std::min<long long>(totalCores, INT_MAX));
            text += attr("title", header.title) + attr("group", header.group) + "/>\n";
        }
        text += "\t<shards>\n" + shardsElement + "\t</shards>\n";

        // The reader takes files of at most YDomDocument::kMaxFileBytes: a larger output could not be read.
        long long total = static_cast<long long>(text.size()) + stepsPart.size() + 64;
        total += meritsPart.size();
        for (size_t m = 0; m < merits.size(); ++m)
            total += 64 + static_cast<long long>(merits[m].value.length() + merits[m].name.length()) * 6;
        if (total > YDomDocument::kMaxFileBytes)
            return fail(message, "the merged file would be larger than " + std::to_string(YDomDocument::kMaxFileBytes) +
                                     " bytes, the most a results file can be read from");

        // Written as every results file is: complete or not at all, keeping the old file's permissions.
        // (Opened by the C runtime, which opens a device such as NUL on Windows where Qt cannot.)
        const bool written = sp_ReplaceFileWith(output, [&](const YString& pathToWrite) {
            FILE* const stream = fopen_utf8(pathToWrite.c_str(), "wb");
            if (!stream)
                return false;
            QFile out;
            bool ok = out.open(stream, QIODevice::WriteOnly) && writeText(out, text);
            for (size_t m = 0; ok && m < merits.size(); ++m) {
                ok = writeText(out, "\t<meritfunction" + attr("value", merits[m].value) + attr("name", merits[m].name) +
                                        ">\n");
                for (size_t k = 0; ok && k < meritChunks[m].size(); ++k)
                    ok = copyInto(out, meritsPart, meritChunks[m][k].offset, meritChunks[m][k].length);
                ok = ok && writeText(out, "\t</meritfunction>\n");
            }
            ok = ok && writeText(out, "\t<steps>\n") && copyInto(out, stepsPart, 0, stepsPart.size()) &&
                 writeText(out, "\t</steps>\n</msw>\n") && out.flush();
            out.close();
            return std::fclose(stream) == 0 && ok;
        });
        if (!written)
            return fail(message, "cannot write " + std::string(output.c_str()));
        result.meritFunctions = merits;
        if (summary)
            *summary = std::move(result);
        return true;
    } catch (...) {
        return fail(message, "out of memory");
    }
}

bool sp_CompileMswWithSources(const YString& path, YHashTable<XMLReportInfo>* table, XMLReportHeader* header,
                              std::vector<YString>* sources)
{
    return xmlreport::compileResults(path, table, header, sources);
}
