// YDom.cpp - the DOM over pugixml.
#include "YDom.h"
#include "FileServices.h"
#include "Platform_p.h"
#include "TextServices.h"

#include <pugixml.hpp>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <new>
#include <cstdio>
#include <string>
#include <vector>

struct YDomDocumentData {
    pugi::xml_document document;
    std::vector<char> source; // parsed in place; must outlive the document's nodes
    std::atomic<int> refs{1};

    void incRef() { refs.fetch_add(1, std::memory_order_relaxed); }
    void decRef()
    {
        if (refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
};

namespace {

inline pugi::xml_node nodeOf(void* node) { return pugi::xml_node(static_cast<pugi::xml_node_struct*>(node)); }

class StringWriter : public pugi::xml_writer {
public:
    void write(const void* data, size_t size) override { text.append(static_cast<const char*>(data), size); }
    std::string text;
};

// A control character that XML 1.0 cannot hold, not even as a character reference: below 32, other
// than tab, line feed and carriage return.
inline bool unwritable(char c)
{
    const unsigned char u = static_cast<unsigned char>(c);
    return u < 32 && u != 9 && u != 10 && u != 13;
}

// The length of the character XML can hold that starts at `p` (a NUL-terminated text): 1 for a byte
// below 128 that is not unwritable, 2 to 4 for a well-formed UTF-8 sequence of a character other than a
// surrogate, U+FFFE and U+FFFF; 0 for anything else.
size_t xmlCharacter(const char* p)
{
    const unsigned char c = static_cast<unsigned char>(*p);
    if (c < 0x80)
        return unwritable(*p) ? 0 : 1;
    const size_t length = c >= 0xC2 && c < 0xE0 ? 2 : c >= 0xE0 && c < 0xF0 ? 3 : c >= 0xF0 && c < 0xF5 ? 4 : 0;
    unsigned long code = length == 2 ? c & 0x1F : length == 3 ? c & 0x0F : c & 0x07;
    for (size_t k = 1; k < length; ++k) {
        const unsigned char next = static_cast<unsigned char>(p[k]);
        if ((next & 0xC0) != 0x80)
            return 0; // also at the terminating NUL
        code = (code << 6) | (next & 0x3F);
    }
    const unsigned long least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (length == 0 || code < least[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF) || code == 0xFFFE ||
        code == 0xFFFF)
        return 0;
    return length;
}

bool holdsUnwritable(const char* text)
{
    for (size_t n; *text; text += n)
        if ((n = xmlCharacter(text)) == 0)
            return true;
    return false;
}

// Whether `name` can name an element or an attribute: a letter, "_" or ":" first, then letters, digits,
// "-", "." and those; characters beyond ASCII count as letters when they are well-formed UTF-8.
bool isXmlName(const char* name)
{
    if (!name || !*name)
        return false;
    for (const char* p = name; *p;) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c >= 0x80) {
            const size_t n = xmlCharacter(p);
            if (n == 0)
                return false;
            p += n;
            continue;
        }
        const bool start = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':';
        const bool later = (c >= '0' && c <= '9') || c == '-' || c == '.';
        if (!start && !(later && p != name))
            return false;
        ++p;
    }
    return true;
}

// Leaves the unwritable characters out of the text of `node` and of its attributes; true when any
// stands in them.
template <bool Strip>
bool unwritableIn(pugi::xml_node node)
{
    bool found = false;
    const auto check = [&found](const char* text, auto set) {
        if (!holdsUnwritable(text))
            return;
        found = true;
        if (Strip) {
            // Control characters are left out; any other byte that is no character becomes U+FFFD.
            std::string kept;
            for (size_t n; *text; text += n) {
                n = xmlCharacter(text);
                if (n > 0)
                    kept.append(text, n);
                else if (!unwritable(*text))
                    kept += "\xEF\xBF\xBD";
                n = n > 0 ? n : 1;
            }
            set(kept.c_str());
        }
    };
    check(node.value(), [&node](const char* v) { node.set_value(v); });
    for (pugi::xml_attribute a = node.first_attribute(); a; a = a.next_attribute())
        check(a.value(), [&a](const char* v) { a.set_value(v); });
    return found;
}

// Visits every node below a document (pugixml's walk needs no recursion, however deep the document):
// with `Strip`, leaves the unwritable characters out of each; without, stops at the first that has any.
// Either way it notes the deepest level it met.
template <bool Strip>
class UnwritableWalker : public pugi::xml_tree_walker {
public:
    bool found = false;
    int deepest = 0;
    bool for_each(pugi::xml_node& node) override
    {
        deepest = std::max(deepest, depth());
        found = unwritableIn<Strip>(node) || found;
        return Strip || !found;
    }
};

// Deeper documents are written without indentation: a tab per level on every line would make the text
// grow with the square of the depth (some 47000 levels would take gigabytes).
constexpr int kMaxIndentedDepth = 256;

void save(const pugi::xml_document& document, int deepest, StringWriter& writer)
{
    const unsigned format = deepest > kMaxIndentedDepth ? pugi::format_raw : pugi::format_default;
    document.save(writer, "\t", format, pugi::encoding_utf8);
}

// The document's text as written. Control characters that XML cannot hold are left out (of a copy, when
// the document has any), so that every document written is well-formed.
std::string written(const pugi::xml_document& document)
{
    StringWriter writer;
    UnwritableWalker<false> check;
    pugi::xml_node(document).traverse(check);
    if (!check.found) {
        save(document, check.deepest, writer);
        return std::move(writer.text);
    }
    pugi::xml_document copy;
    copy.reset(document);
    UnwritableWalker<true> strip;
    copy.traverse(strip);
    save(copy, strip.deepest, writer);
    return std::move(writer.text);
}


} // namespace

// ---------------------------------------------------------------- YDomElement

bool YDomElement::textToInt64(const char* text, long long* value)
{
    const char* p = text;
    while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r')
        ++p;
    const char* q = p;
    if (*q == '+' || *q == '-')
        ++q;
    if (*q < '0' || *q > '9')
        return false;
    *value = sp_atoi64(p);
    return true;
}

YDomElement::YDomElement(YDomDocumentData* doc, void* node) : m_doc(doc), m_node(node) { m_doc->incRef(); }

YDomElement::~YDomElement() { m_doc->decRef(); }

YString YDomElement::tagName() const { return YString(nodeOf(m_node).name()); }

void YDomElement::childElements(YArray<YRef<YDomElement>>* children) const
{
    if (!children)
        return;
    for (pugi::xml_node child = nodeOf(m_node).first_child(); child; child = child.next_sibling())
        if (child.type() == pugi::node_element)
            children->append(YRef<YDomElement>(new YDomElement(m_doc, child.internal_object())));
}

YArray<YRef<YDomElement>> YDomElement::childElements() const
{
    YArray<YRef<YDomElement>> children;
    childElements(&children);
    return children;
}

YRef<YDomElement> YDomElement::firstChildElement() const
{
    for (pugi::xml_node child = nodeOf(m_node).first_child(); child; child = child.next_sibling())
        if (child.type() == pugi::node_element)
            return YRef<YDomElement>(new YDomElement(m_doc, child.internal_object()));
    return YRef<YDomElement>();
}

YRef<YDomElement> YDomElement::nextSiblingElement() const
{
    for (pugi::xml_node sibling = nodeOf(m_node).next_sibling(); sibling; sibling = sibling.next_sibling())
        if (sibling.type() == pugi::node_element)
            return YRef<YDomElement>(new YDomElement(m_doc, sibling.internal_object()));
    return YRef<YDomElement>();
}

YRef<YDomElement> YDomElement::appendChild(const char* name)
{
    if (!isXmlName(name))
        return YRef<YDomElement>();
    pugi::xml_node child = nodeOf(m_node).append_child(name);
    if (!child)
        return YRef<YDomElement>();
    return YRef<YDomElement>(new YDomElement(m_doc, child.internal_object()));
}

bool YDomElement::hasAttribute(const char* name) const
{
    return name && nodeOf(m_node).attribute(name);
}

YString YDomElement::getAttribute(const char* name) const
{
    if (!name)
        return YString();
    return YString(nodeOf(m_node).attribute(name).value());
}

double YDomElement::getAttributeDouble(const char* name, double defaultValue) const
{
    if (!name)
        return defaultValue;
    pugi::xml_attribute a = nodeOf(m_node).attribute(name);
    double value = 0.0;
    if (!a || !sp_TextToReal(a.value(), &value))
        return defaultValue;
    return value;
}

int YDomElement::getAttributeInt(const char* name, int defaultValue) const
{
    long long value = getAttributeInt64(name, defaultValue);
    return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX));
}

long long YDomElement::getAttributeInt64(const char* name, long long defaultValue) const
{
    if (!name)
        return defaultValue;
    pugi::xml_attribute a = nodeOf(m_node).attribute(name);
    long long value = 0;
    if (!a || !textToInt64(a.value(), &value))
        return defaultValue;
    return value;
}

void YDomElement::setAttribute(const char* name, const char* value)
{
    if (!isXmlName(name))
        return;
    pugi::xml_node node = nodeOf(m_node);
    pugi::xml_attribute a = node.attribute(name);
    if (!a)
        a = node.append_attribute(name);
    a.set_value(value ? value : "");
}

void YDomElement::setAttribute(const char* name, int value) { setAttribute(name, YString(value).c_str()); }

void YDomElement::setAttribute(const char* name, long long value) { setAttribute(name, YString(value).c_str()); }

void YDomElement::setAttribute(const char* name, double value) { setAttribute(name, sp_RealToShortestText(value).c_str()); }

YString YDomElement::text() const
{
    YString result;
    for (pugi::xml_node child = nodeOf(m_node).first_child(); child; child = child.next_sibling())
        if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata)
            result.append(child.value());
    return result;
}

void YDomElement::setText(const char* text) { nodeOf(m_node).text().set(text ? text : ""); }

// ---------------------------------------------------------------- YDomDocument

namespace {

// The document's tree is about to be replaced. Elements still held keep the old one, and with it their
// nodes: the document takes a new tree of its own instead of emptying theirs. False when memory runs out.
bool ownTree(YDomDocumentData*& data)
{
    if (data->refs.load(std::memory_order_acquire) > 1) {
        auto* fresh = new (std::nothrow) YDomDocumentData;
        if (!fresh)
            return false;
        data->decRef();
        data = fresh;
    }
    return true;
}

} // namespace

YDomDocument::YDomDocument() : m_data(new YDomDocumentData) {}

YDomDocument::~YDomDocument() { m_data->decRef(); }

bool YDomDocument::load(const char* path)
{
    // A whole document is read into memory: only regular files of a bounded size, asked before the
    // open (which would wait on a FIFO) and again of the open file.
    long long size = 0;
    FILE* f = sp_OpenRegularFile(path, kMaxFileBytes, &size);
    if (!f)
        return false;
    std::vector<char> bytes;
    try {
        bytes.reserve(static_cast<size_t>(size) + 4); // and the end mark that parse adds
        char chunk[65536];
        size_t n;
        while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
            if (static_cast<long long>(bytes.size() + n) > kMaxFileBytes) {
                std::fclose(f);
                return false; // it grew while it was read
            }
            bytes.insert(bytes.end(), chunk, chunk + n);
        }
    } catch (const std::bad_alloc&) {
        std::fclose(f);
        return false;
    }
    bool readError = std::ferror(f) != 0;
    std::fclose(f);
    if (readError)
        return false;
    return parse(std::move(bytes));
}

bool YDomDocument::loadText(const char* text, size_t length)
{
    std::vector<char> bytes;
    try {
        bytes.reserve(length + 4); // and the end mark that parse adds
        bytes.assign(text ? text : "", text ? text + length : nullptr);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return parse(std::move(bytes));
}

namespace {
// The width in bytes of the text's characters (1, 2 or 4), from its first four bytes, as the parser's
// automatic detection decides it: a byte-order mark, or the first "<" in UTF-16 or UTF-32.
size_t unitWidth(const std::vector<char>& bytes)
{
    if (bytes.size() < 4)
        return 1;
    const unsigned char* d = reinterpret_cast<const unsigned char*>(bytes.data());
    if ((d[0] == 0 && d[1] == 0 && ((d[2] == 0xFE && d[3] == 0xFF) || (d[2] == 0 && d[3] == '<'))) ||
        (d[2] == 0 && d[3] == 0 && ((d[0] == 0xFF && d[1] == 0xFE) || (d[0] == '<' && d[1] == 0))))
        return 4;
    if ((d[0] == 0xFE && d[1] == 0xFF) || (d[0] == 0xFF && d[1] == 0xFE) || (d[0] == 0 && d[1] == '<') ||
        (d[0] == '<' && d[1] == 0))
        return 2;
    return 1;
}

size_t unitWidth(pugi::xml_encoding encoding)
{
    switch (encoding) {
    case pugi::encoding_utf16_le:
    case pugi::encoding_utf16_be:
        return 2;
    case pugi::encoding_utf32_le:
    case pugi::encoding_utf32_be:
        return 4;
    default:
        return 1;
    }
}

// Whether the text holds a NUL character in characters of `width` bytes. The parser would take one as
// the end of the text, and never see what follows it.
bool holdsNul(const std::vector<char>& bytes, size_t width)
{
    if (width == 1)
        return std::memchr(bytes.data(), 0, bytes.size()) != nullptr;
    static const char kZeros[4] = {0, 0, 0, 0};
    for (size_t i = 0; i + width <= bytes.size(); i += width)
        if (std::memcmp(bytes.data() + i, kZeros, width) == 0)
            return true;
    return false;
}

// Whether a text parsed as a fragment is one document: a single element at the top, with nothing but
// markup and blanks around it. A document parse would take a second element or text around the first
// without a word; a fragment parse keeps them as nodes.
bool isOneDocument(const pugi::xml_document& document)
{
    int elements = 0;
    for (const pugi::xml_node node : document.children()) {
        if (node.type() == pugi::node_element)
            ++elements;
        else if (node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata)
            return false;
    }
    return elements == 1;
}
} // namespace

bool YDomDocument::parse(std::vector<char> bytes)
{
    if (!ownTree(m_data))
        return false;
    m_data->document.reset();
    m_data->source.clear();
    if (bytes.empty())
        return false;
    // The parser takes the text's last character for its own end mark, and would drop it unread: a NUL
    // character of the text's width is added for it to take. A NUL within the text is no XML, and nor is
    // a text cut short inside a character, whose stray bytes would join the mark.
    const size_t width = unitWidth(bytes);
    if (bytes.size() % width != 0 || holdsNul(bytes, width))
        return false;
    try {
        bytes.insert(bytes.end(), width, '\0');
    } catch (const std::bad_alloc&) {
        return false;
    }
    m_data->source = std::move(bytes);
    pugi::xml_parse_result result = m_data->document.load_buffer_inplace(
        m_data->source.data(), m_data->source.size(), pugi::parse_default | pugi::parse_fragment, pugi::encoding_auto);
    if (!result || unitWidth(result.encoding) != width || !isOneDocument(m_data->document)) {
        m_data->document.reset();
        m_data->source.clear();
        return false;
    }
    return true;
}

YString YDomDocument::toText() const
{
    // A string holds at most INT_MAX bytes: a longer text, or one that memory cannot hold, is none.
    try {
        const std::string text = written(m_data->document);
        if (text.size() <= static_cast<size_t>(INT_MAX))
            return YString(text.data(), static_cast<int>(text.size()));
    } catch (const std::bad_alloc&) {
    }
    return YString();
}

bool YDomDocument::save(const char* path, int) const
{
    if (!path)
        return false;
    std::string text;
    try {
        text = written(m_data->document);
    } catch (const std::bad_alloc&) {
        return false; // nothing is opened, so nothing is lost
    }
    FILE* f = fopen_utf8(path, "wb");
    if (!f)
        return false;
    bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    ok = (std::fflush(f) == 0) && ok;
    ok = (std::fclose(f) == 0) && ok;
    return ok;
}

YRef<YDomElement> YDomDocument::createRoot(const char* name)
{
    if (!isXmlName(name) || !ownTree(m_data))
        return YRef<YDomElement>();
    m_data->document.reset();
    m_data->source.clear();
    pugi::xml_node root = m_data->document.append_child(name ? name : "");
    if (!root)
        return YRef<YDomElement>();
    return YRef<YDomElement>(new YDomElement(m_data, root.internal_object()));
}

YRef<YDomElement> YDomDocument::getRoot() const
{
    pugi::xml_node root = m_data->document.document_element();
    if (!root)
        return YRef<YDomElement>();
    return YRef<YDomElement>(new YDomElement(m_data, root.internal_object()));
}

YRef<YDomDocument> YXML_Factory::Make_RapidXML_DOM_Document() { return YRef<YDomDocument>(new YDomDocument); }
