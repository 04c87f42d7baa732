// MswScanner_p.h - the elements of a results file read straight from its bytes, a window at a time, so
// that reading a large file needs no tree of it in memory.
#pragma once

#include "TextServices.h"
#include "YDom.h"
#include "YString.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace xmlreport {

/// The start tag of one element as it stands in the text: its name and attributes, valid until the
/// scanner moves on. Its getters follow `YDomElement`'s rules (the first attribute of a name, compared
/// exactly; numbers read as the DOM reads them), so that one reading function serves both.
class ScannedTag {
public:
    struct Attribute {
        std::string_view name;
        std::string_view value;
    };
    std::string_view name;
    std::vector<Attribute> attributes;

    /// Lets code written for `YRef<YDomElement>` (`element->getAttribute(...)`) take a tag as it is.
    const ScannedTag* operator->() const { return this; }

    bool nameIs(const char* other) const
    {
        const size_t n = std::strlen(other);
        if (n != name.size())
            return false;
        for (size_t i = 0; i < n; ++i)
            if (lower(name[i]) != lower(other[i]))
                return false;
        return true;
    }
    bool hasAttribute(const char* attribute) const { return find(attribute) != nullptr; }
    YString getAttribute(const char* attribute) const
    {
        const Attribute* a = find(attribute);
        return a ? YString(a->value.data(), static_cast<int>(a->value.size())) : YString();
    }
    long long getAttributeInt64(const char* attribute, long long defaultValue) const
    {
        long long value = 0;
        return withText(attribute, [&](const char* text) { return YDomElement::textToInt64(text, &value); })
                   ? value
                   : defaultValue;
    }
    int getAttributeInt(const char* attribute, int defaultValue) const
    {
        return static_cast<int>(std::clamp<long long>(getAttributeInt64(attribute, defaultValue), INT_MIN, INT_MAX));
    }
    double getAttributeDouble(const char* attribute, double defaultValue) const
    {
        double value = 0.0;
        return withText(attribute, [&](const char* text) { return sp_TextToReal(text, &value); }) ? value
                                                                                                  : defaultValue;
    }

private:
    static char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

    const Attribute* find(const char* attribute) const
    {
        const std::string_view wanted(attribute);
        for (const Attribute& a : attributes)
            if (a.name == wanted)
                return &a;
        return nullptr;
    }

    // Calls `read` with the attribute's value as NUL-terminated text; false when the attribute is absent.
    template <class Read>
    bool withText(const char* attribute, Read read) const
    {
        const Attribute* a = find(attribute);
        if (!a)
            return false;
        char small[64];
        if (a->value.size() < sizeof small) {
            std::memcpy(small, a->value.data(), a->value.size());
            small[a->value.size()] = '\0';
            return read(small);
        }
        const std::string text(a->value);
        return read(text.c_str());
    }
};

/// Walks the elements of an XML file in the plain form the results writer produces: UTF-8 (a byte-order
/// mark and an XML declaration allowed), elements with quoted attributes whose values hold no "&", "<",
/// tab or line end, and text between elements. Anything else (comments, CDATA, processing instructions,
/// entity references in values, another encoding, NUL bytes, a second root, a malformed tag) makes it
/// answer `Unsupported`, so that the caller reads the file with the full XML parser instead, which then
/// decides alone what the file holds.
class MswScanner {
public:
    enum Event { StartTag, EndTag, Finished, Unsupported };

    /// Reads from `file`, which the caller owns and keeps open while the scanner is used.
    explicit MswScanner(FILE* file) : m_file(file), m_buffer(kWindow) {}

    /// The next start tag (filled into `*tag`), end tag, the end of a well-formed document, or
    /// `Unsupported`, after which it answers `Unsupported` for ever. An empty element gives a start tag
    /// and then an end tag.
    Event next(ScannedTag* tag)
    {
        if (m_failed)
            return Unsupported;
        if (m_pendingEnd) {
            m_pendingEnd = false;
            m_open.pop_back();
            return EndTag;
        }
        for (;;) {
            const Lexed lexed = lex(tag);
            if (lexed == NeedMore) {
                if (fill())
                    continue;
                // The input ended: a document is complete when its root was closed.
                if (!m_failed && m_rootSeen && m_open.empty() && m_pos == m_end)
                    return Finished;
                return fail();
            }
            if (lexed == Bad)
                return fail();
            if (lexed == Skipped)
                continue;
            return lexed == Start ? StartTag : EndTag;
        }
    }

    /// Elements open after the last event: 1 for the root itself after its start tag.
    int depth() const { return static_cast<int>(m_open.size()); }

private:
    enum Lexed { Start, End, Skipped, NeedMore, Bad };
    static constexpr size_t kWindow = 256 * 1024;

    Event fail()
    {
        m_failed = true;
        return Unsupported;
    }

    // Classes of bytes, looked up in one table instead of compared with each member of a class.
    enum ByteClass : unsigned char { kSpace = 1, kNameStart = 2, kNameChar = 4 };
    struct ByteClasses {
        unsigned char of[256];
    };
    static constexpr ByteClasses byteClasses()
    {
        ByteClasses t{};
        for (const char c : {' ', '\t', '\n', '\r'})
            t.of[static_cast<unsigned char>(c)] = kSpace;
        for (int c = 0; c < 256; ++c) {
            const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
            if (letter)
                t.of[c] = kNameStart | kNameChar;
            else if ((c >= '0' && c <= '9') || c == '-' || c == '.')
                t.of[c] = kNameChar;
        }
        return t;
    }
    static bool is(char c, ByteClass k)
    {
        static constexpr ByteClasses kClasses = byteClasses();
        return (kClasses.of[static_cast<unsigned char>(c)] & k) != 0;
    }
    static bool isSpace(char c) { return is(c, kSpace); }

    // The bytes that end an attribute value, for each quote: the quote itself, or a byte the plain form
    // never holds in a value ("&", "<", tab, line ends), which leaves the file to the full parser.
    struct ValueStops {
        bool at[2][256]; // [0] for values in double quotes, [1] in single quotes
    };
    static constexpr ValueStops valueStops()
    {
        ValueStops t{};
        for (int k = 0; k < 2; ++k) {
            t.at[k][static_cast<unsigned char>(k == 0 ? '"' : '\'')] = true;
            for (const char c : {'&', '<', '\t', '\n', '\r'})
                t.at[k][static_cast<unsigned char>(c)] = true;
        }
        return t;
    }

    // The first byte of [p, end) that ends a value quoted by `quote`, or end: one pass finds the quote
    // and checks the bytes before it, a table look-up a byte.
    static const char* valueEnd(const char* p, const char* end, char quote)
    {
        static constexpr ValueStops kStops = valueStops();
        const bool* stop = kStops.at[quote == '\'' ? 1 : 0];
        while (end - p >= 4) {
            if (stop[static_cast<unsigned char>(p[0])])
                return p;
            if (stop[static_cast<unsigned char>(p[1])])
                return p + 1;
            if (stop[static_cast<unsigned char>(p[2])])
                return p + 2;
            if (stop[static_cast<unsigned char>(p[3])])
                return p + 3;
            p += 4;
        }
        while (p < end && !stop[static_cast<unsigned char>(*p)])
            ++p;
        return p;
    }

    static bool isNameStart(char c) { return is(c, kNameStart); }
    static bool isNameChar(char c) { return is(c, kNameChar); }

    // Keeps the unread bytes, moved to the front, and reads more behind them; false at the end of input
    // or on a read error. The window at least doubles when one step needs more than half of it, so that
    // a step taken again after each fill costs linear time in all.
    bool fill()
    {
        if (m_eof)
            return false;
        const size_t kept = m_end - m_pos;
        std::memmove(m_buffer.data(), m_buffer.data() + m_pos, kept);
        m_pos = 0;
        m_end = kept;
        const size_t wanted = std::max(kept + kWindow, 2 * kept);
        if (m_buffer.size() < wanted)
            m_buffer.resize(wanted);
        const size_t got = std::fread(m_buffer.data() + kept, 1, m_buffer.size() - kept, m_file);
        // A NUL byte ends the text for the full parser: such a file is left to it.
        if (std::ferror(m_file) || (got != 0 && std::memchr(m_buffer.data() + kept, '\0', got))) {
            m_eof = m_failed = true;
            return false;
        }
        if (got == 0) {
            m_eof = true;
            return false;
        }
        m_end = kept + got;
        if (!m_started) {
            // A UTF-8 byte-order mark is the only one taken here; the full parser converts the others.
            m_started = true;
            if (m_end >= 3 && std::memcmp(m_buffer.data(), "\xEF\xBB\xBF", 3) == 0)
                m_pos = 3;
        }
        return true;
    }

    // One step over the window: text is skipped, a tag is taken whole or not at all. Nothing is changed
    // when the window ends before the step does (NeedMore), so the step is taken again after a fill.
    Lexed lex(ScannedTag* tag)
    {
        const char* const base = m_buffer.data();
        const char* p = base + m_pos;
        const char* const end = base + m_end;
        if (p == end)
            return NeedMore;
        if (*p != '<') {
            const char* lt = static_cast<const char*>(std::memchr(p, '<', static_cast<size_t>(end - p)));
            const char* stop = lt ? lt : end;
            // Outside the root only blanks may stand.
            if (m_open.empty())
                for (const char* q = p; q < stop; ++q)
                    if (!isSpace(*q))
                        return Bad;
            m_pos = static_cast<size_t>(stop - base);
            m_afterStart = true;
            return Skipped;
        }
        if (end - p < 2)
            return NeedMore;
        if (p[1] == '/')
            return lexEndTag(p, end);
        if (p[1] == '?')
            return lexDeclaration(p, end);
        if (!isNameStart(p[1]) || (m_rootSeen && m_open.empty()))
            return Bad;
        return lexStartTag(p, end, tag);
    }

    Lexed lexStartTag(const char* p, const char* end, ScannedTag* tag)
    {
        const char* q = p + 1;
        while (q < end && isNameChar(*q))
            ++q;
        if (q == end)
            return NeedMore;
        tag->name = std::string_view(p + 1, static_cast<size_t>(q - p - 1));
        tag->attributes.clear();
        bool empty = false;
        for (;;) {
            const bool spaced = q < end && isSpace(*q);
            while (q < end && isSpace(*q))
                ++q;
            if (q == end)
                return NeedMore;
            if (*q == '>') {
                ++q;
                break;
            }
            if (*q == '/') {
                if (end - q < 2)
                    return NeedMore;
                if (q[1] != '>')
                    return Bad;
                q += 2;
                empty = true;
                break;
            }
            if (!spaced || !isNameStart(*q))
                return Bad;
            const char* name = q;
            while (q < end && isNameChar(*q))
                ++q;
            const std::string_view attribute(name, static_cast<size_t>(q - name));
            while (q < end && isSpace(*q))
                ++q;
            if (q == end)
                return NeedMore;
            if (*q != '=')
                return Bad;
            ++q;
            while (q < end && isSpace(*q))
                ++q;
            if (q == end)
                return NeedMore;
            const char quote = *q;
            if (quote != '"' && quote != '\'')
                return Bad;
            const char* value = ++q;
            const char* close = valueEnd(q, end, quote);
            if (close == end)
                return NeedMore;
            if (*close != quote)
                return Bad;
            tag->attributes.push_back({attribute, std::string_view(value, static_cast<size_t>(close - value))});
            q = close + 1;
            if (q == end)
                return NeedMore;
            if (!isSpace(*q) && *q != '>' && *q != '/')
                return Bad;
        }
        m_open.emplace_back(tag->name);
        m_rootSeen = true;
        m_pendingEnd = empty;
        m_pos = static_cast<size_t>(q - m_buffer.data());
        return Start;
    }

    Lexed lexEndTag(const char* p, const char* end)
    {
        const char* q = p + 2;
        while (q < end && isNameChar(*q))
            ++q;
        const char* nameEnd = q;
        while (q < end && isSpace(*q))
            ++q;
        if (q == end)
            return NeedMore;
        if (*q != '>' || m_open.empty() || m_open.back() != std::string_view(p + 2, static_cast<size_t>(nameEnd - p - 2)))
            return Bad;
        m_open.pop_back();
        m_pos = static_cast<size_t>(q + 1 - m_buffer.data());
        return End;
    }

    // The XML declaration, at the very start; it may name UTF-8 as its encoding and no other.
    Lexed lexDeclaration(const char* p, const char* end)
    {
        if (m_rootSeen || m_afterStart)
            return Bad;
        const std::string_view rest(p, static_cast<size_t>(end - p));
        const size_t close = rest.find("?>");
        if (close == std::string_view::npos)
            return NeedMore;
        const std::string_view declaration = rest.substr(0, close);
        if (declaration.size() < 6 || declaration.substr(0, 5) != "<?xml" || !isSpace(declaration[5]))
            return Bad;
        const size_t encoding = declaration.find("encoding");
        if (encoding != std::string_view::npos) {
            const size_t open = declaration.find_first_of("\"'", encoding);
            if (open == std::string_view::npos)
                return Bad;
            const size_t shut = declaration.find(declaration[open], open + 1);
            if (shut == std::string_view::npos)
                return Bad;
            const std::string_view name = declaration.substr(open + 1, shut - open - 1);
            if (name.size() != 5 || !YString(std::string(name).c_str()).equalsNoCase("utf-8"))
                return Bad;
        }
        m_afterStart = true;
        m_pos = static_cast<size_t>(p - m_buffer.data()) + close + 2;
        return Skipped;
    }

    FILE* m_file;
    std::vector<char> m_buffer;
    size_t m_pos = 0;
    size_t m_end = 0;
    std::vector<std::string> m_open; // names of the open elements, root first
    bool m_eof = false;
    bool m_failed = false;
    bool m_started = false;
    bool m_rootSeen = false;
    bool m_afterStart = false; // anything was read (the declaration must come first)
    bool m_pendingEnd = false;
};

} // namespace xmlreport
