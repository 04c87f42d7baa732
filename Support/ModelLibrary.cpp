// ModelLibrary.cpp - the model-library index: one pass over a library's bytes with the netlist readers'
// line rules, section resolution across files, checks, comparison and extraction.
#include "ModelLibrary.h"
#include "FileReplace.h"
#include "NetlistFilter_p.h"
#include "TextFile_p.h"

#include "FileServices.h"
#include "QtSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace {

constexpr long long kMaxPosition = INT_MAX;

std::string lower(std::string_view s)
{
    std::string out(s);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return out;
}

YString ys(std::string_view s) { return YString(s.data(), static_cast<int>(s.size())); }

// A word of a logical line, and whether an "=" follows it (NAME=VALUE).
struct Word {
    std::string_view text;
    bool assigned = false;
};

// The bytes " =(),\t" that split the words of a line, as a table: the word loops test every byte.
struct DelimiterTable {
    bool is[256] = {};
    constexpr DelimiterTable()
    {
        for (const char* d = netlist::kTokenDelimiters; *d; ++d)
            is[static_cast<unsigned char>(*d)] = true;
    }
};
constexpr DelimiterTable kDelimiters;

bool isDelimiter(char c) { return kDelimiters.is[static_cast<unsigned char>(c)]; }

unsigned char lowerByte(unsigned char c) { return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c - 'A' + 'a') : c; }

bool equalsNoCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (lowerByte(static_cast<unsigned char>(a[i])) != lowerByte(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

// The next word of a line at or after `*p`, split at " =(),\t" as LibraryStream splits the name off a
// definition line, and whether an "=" follows it; `*p` moves past it. False at the line's end.
inline bool nextWord(const char** p, const char* end, Word* word)
{
    const char* q = *p;
    while (q < end && isDelimiter(*q))
        ++q;
    *p = q;
    if (q == end)
        return false;
    const char* const b = q;
    while (q < end && !isDelimiter(*q))
        ++q;
    const char* j = q;
    while (j < end && (*j == ' ' || *j == '\t'))
        ++j;
    *word = {std::string_view(b, static_cast<size_t>(q - b)), j < end && *j == '='};
    *p = q;
    return true;
}

// The words of a logical line, at most `limit` of them, into `out`, which is reused so that a line
// costs no allocation.
void words(std::string_view line, std::vector<Word>* out, size_t limit = SIZE_MAX)
{
    out->clear();
    const char* p = line.data();
    const char* const end = p + line.size();
    Word word;
    while (out->size() < limit && nextWord(&p, end, &word))
        out->push_back(word);
}

// The instances and uses of the subcircuit being read, each listed once ignoring case: an
// open-addressing table over the two lists, so that an element line costs a hash and a probe per word.
// Emptied for each subcircuit and kept for the next one; the lists go to the definition, sized
// exactly, when it closes.
class SeenWords {
public:
    enum Kind { Instance = 0, Use = 1 };

    void clear()
    {
        if (m_slots.size() == kInitialSlots)
            std::fill(m_slots.begin(), m_slots.end(), Slot());
        else
            m_slots.assign(kInitialSlots, Slot());
        m_count = 0;
        m_lists[Instance].clear();
        m_lists[Use].clear();
    }

    // Lists `word` unless it is listed already, ignoring case. The 16 bytes from the word's start may
    // be read when they end before `readable`.
    void add(std::string_view word, Kind kind, const char* readable)
    {
        std::vector<YString>& list = m_lists[kind];
        // A word of up to 16 bytes is its own key, lowered and packed: two compares find it. The words
        // hold no byte 0 (the filter drops it) and no 0xFF (it ends the text), so no key is ambiguous.
        unsigned long long key[2] = {kLongWord, kLongWord};
        unsigned h;
        const size_t n = word.size();
        if (n <= 16) {
            if (readable - word.data() >= 16) {
                std::memcpy(key, word.data(), 16);
                if (n < 8) {
                    key[0] &= (1ull << (8 * n)) - 1;
                    key[1] = 0;
                } else if (n < 16) {
                    key[1] &= n == 8 ? 0 : (1ull << (8 * (n - 8))) - 1;
                }
                key[0] = lowerAscii(key[0]);
                key[1] = lowerAscii(key[1]);
            } else {
                key[0] = key[1] = 0;
                for (size_t i = 0; i < n; ++i)
                    key[i / 8] |= static_cast<unsigned long long>(lowerByte(static_cast<unsigned char>(word[i]))) << (8 * (i % 8));
            }
            const unsigned long long mixed = (key[0] * 0x9E3779B97F4A7C15ull) ^ ((key[1] ^ kind) * 0xC2B2AE3D27D4EB4Full);
            h = static_cast<unsigned>((mixed ^ (mixed >> 29)) >> 16);
        } else {
            h = hash(word) ^ static_cast<unsigned>(kind);
        }
        const size_t mask = m_slots.size() - 1;
        for (size_t i = h & mask;; i = (i + 1) & mask) {
            Slot& s = m_slots[i];
            if (s.entry < 0) {
                s.key[0] = key[0];
                s.key[1] = key[1];
                s.hash = h;
                s.entry = static_cast<int>(list.size()) * 2 + kind;
                list.push_back(ys(word));
                if (++m_count * 2 > m_slots.size())
                    grow();
                return;
            }
            if (s.hash != h || s.key[0] != key[0] || s.key[1] != key[1] || (s.entry & 1) != kind)
                continue;
            if (key[0] != kLongWord || equalsNoCase(word, list[static_cast<size_t>(s.entry >> 1)].str()))
                return;
        }
    }

    void moveTo(ModelLibDefinition* d) const
    {
        d->instances.assign(m_lists[Instance].begin(), m_lists[Instance].end());
        d->uses.assign(m_lists[Use].begin(), m_lists[Use].end());
    }

private:
    struct Slot {
        unsigned long long key[2] = {0, 0}; ///< a short word packed, else kLongWord twice
        unsigned hash = 0;
        int entry = -1; ///< index in the list times two, plus the kind; -1 when free
    };
    static constexpr size_t kInitialSlots = 32;
    static constexpr unsigned long long kLongWord = ~0ull;

    // The bytes A to Z of eight packed bytes (little-endian) lowered, the others unchanged.
    static unsigned long long lowerAscii(unsigned long long v)
    {
        constexpr unsigned long long ones = 0x0101010101010101ull;
        const unsigned long long low7 = v & (0x7F * ones);
        const unsigned long long atLeastA = low7 + (0x80 - 'A') * ones; // high bit: byte >= 'A'
        const unsigned long long beyondZ = low7 + (0x80 - 'Z' - 1) * ones; // high bit: byte > 'Z'
        const unsigned long long upper = atLeastA & ~beyondZ & ~v & (0x80 * ones);
        return v | (upper >> 2);
    }

    static unsigned hash(std::string_view word)
    {
        unsigned h = 2166136261u;
        for (char c : word)
            h = (h ^ lowerByte(static_cast<unsigned char>(c))) * 16777619u;
        h ^= h >> 15;
        h *= 0x2c1b3c6du;
        h ^= h >> 12;
        return h;
    }

    void grow()
    {
        std::vector<Slot> old(m_slots.size() * 2);
        old.swap(m_slots);
        const size_t mask = m_slots.size() - 1;
        for (const Slot& s : old) {
            if (s.entry < 0)
                continue;
            size_t i = s.hash & mask;
            while (m_slots[i].entry >= 0)
                i = (i + 1) & mask;
            m_slots[i] = s;
        }
    }

    std::vector<Slot> m_slots;
    size_t m_count = 0;
    std::vector<YString> m_lists[2];
};

// The position of the next byte that needs a look of its own in a line: a line end, a byte that the
// readers' filter drops, or the end mark 0xFF.
const char* nextSpecial(const char* p, const char* end)
{
#if defined(__SSE2__) || defined(_M_X64)
    const __m128i minusTwo = _mm_set1_epi8(-2);
    const __m128i space = _mm_set1_epi8(32);
    const __m128i tab = _mm_set1_epi8(9);
    while (end - p >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        // Signed -1 to 31 are the bytes 0xFF and 0 to 31; the tab is kept.
        const __m128i low = _mm_and_si128(_mm_cmpgt_epi8(v, minusTwo), _mm_cmplt_epi8(v, space));
        const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_andnot_si128(_mm_cmpeq_epi8(v, tab), low)));
        if (mask)
            return p + netlist::lowestBit(mask);
        p += 16;
    }
#endif
    while (p < end) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if ((c < 32 && c != 9) || c == 0xFF)
            return p;
        ++p;
    }
    return end;
}

// One pass over the text, a physical line at a time; a statement is processed once the next line that
// is neither blank, a comment nor a "+" continuation shows that it has ended.
class Scanner {
public:
    Scanner(const char* text, size_t size, ModelLibIndex* index) : m_text(text), m_size(size), m_index(index)
    {
        m_icc = index->language == SpiceLanguageHspice ? '$' : ';';
    }

    void run()
    {
        const char* const begin = m_text;
        const char* end = m_text + m_size;
        const char* p = begin;
        int line = 0;
        while (p < end) {
            ++line;
            const char* lineStart = p;
            const char* q = nextSpecial(p, end);
            bool dirty = false;
            const char* contentEnd;
            const char* next;
            for (;;) {
                if (q >= end) {
                    contentEnd = next = end;
                    break;
                }
                if (*q == '\n') {
                    contentEnd = q;
                    next = q + 1;
                    break;
                }
                if (*q == '\r') {
                    contentEnd = q;
                    next = q + 1 < end && q[1] == '\n' ? q + 2 : q + 1;
                    break;
                }
                if (static_cast<unsigned char>(*q) == 0xFF) {
                    // The end mark: the text ends here, as SpiceStream's input does.
                    end = q;
                    m_size = static_cast<size_t>(q - begin);
                    m_index->size = static_cast<long long>(m_size);
                    contentEnd = next = end;
                    break;
                }
                dirty = true;
                q = nextSpecial(q + 1, end);
            }
            if (lineStart == end) {
                --line; // the text ended where this line would have begun
                break;
            }
            p = next;
            // The first byte that the readers see on the line.
            const char* s = lineStart;
            while (s < contentEnd && (*s == ' ' || *s == '\t' || !netlist::keeps(static_cast<unsigned char>(*s))))
                ++s;
            if (s == contentEnd)
                continue; // blank
            const char c = *s;
            if (c == '*' || c == m_icc) {
                if (!m_sawStatement && c == '*')
                    directive(s, contentEnd);
                continue;
            }
            const size_t nextPos = static_cast<size_t>(next - begin);
            if (c == '+' && m_sawStatement) {
                m_segments.push_back({static_cast<size_t>(s + 1 - begin), static_cast<size_t>(contentEnd - begin), dirty});
                m_stmtEnd = nextPos;
                m_stmtLastLine = line;
                continue;
            }
            if (m_sawStatement)
                finishStatement();
            m_sawStatement = true;
            m_segments.clear();
            m_segments.push_back({static_cast<size_t>(s - begin), static_cast<size_t>(contentEnd - begin), dirty});
            m_stmtLine = m_stmtLastLine = line;
            m_stmtEnd = nextPos;
        }
        if (m_sawStatement)
            finishStatement();
        m_index->lines = line;
        finishFile(line);
    }

private:
    struct Segment {
        size_t begin, end;
        bool dirty;
    };

    // A "*#" comment before the first statement may set the dialect, as SpiceStream's directives do.
    void directive(const char* s, const char* end)
    {
        if (end - s < 2 || s[1] != '#')
            return;
        words(std::string_view(s + 2, static_cast<size_t>(end - s - 2)), &m_words, 1);
        if (m_words.empty())
            return;
        if (equalsNoCase(m_words[0].text, "hspice")) {
            m_index->language = SpiceLanguageHspice;
            m_icc = '$';
        } else if (equalsNoCase(m_words[0].text, "pspice")) {
            m_index->language = SpiceLanguagePspice;
            m_icc = ';';
        } else if (equalsNoCase(m_words[0].text, "kalvonta")) {
            m_index->language = SpiceLanguageNative;
            m_icc = ';';
        }
    }

    // The statement's logical line as SpiceStream joins it: each physical line up to its comment
    // character, dropped bytes left out, a blank for each "+". `maxSegments` limits the lines joined.
    // A single line without dropped bytes is the text itself, not a copy.
    std::string_view logical(size_t maxSegments = SIZE_MAX)
    {
        const Segment& first = m_segments.front();
        if ((m_segments.size() == 1 || maxSegments == 1) && !first.dirty) {
            const char* b = m_text + first.begin;
            const size_t n = first.end - first.begin;
            const char* cut = static_cast<const char*>(std::memchr(b, m_icc, n));
            m_joined = false;
            return std::string_view(b, cut ? static_cast<size_t>(cut - b) : n);
        }
        m_joined = true;
        m_line.clear();
        size_t n = 0;
        for (const Segment& seg : m_segments) {
            if (n++ == maxSegments)
                break;
            if (n > 1)
                m_line.push_back(' ');
            const char* b = m_text + seg.begin;
            const char* e = m_text + seg.end;
            const char* cut = static_cast<const char*>(std::memchr(b, m_icc, static_cast<size_t>(e - b)));
            if (cut)
                e = cut;
            if (!seg.dirty) {
                m_line.append(b, static_cast<size_t>(e - b));
            } else {
                for (const char* x = b; x < e; ++x)
                    if (netlist::keeps(static_cast<unsigned char>(*x)))
                        m_line.push_back(*x);
            }
        }
        return m_line;
    }

    std::string_view firstWord() const
    {
        const Segment& seg = m_segments.front();
        const char* b = m_text + seg.begin;
        const char* e = m_text + seg.end;
        const char* x = b;
        while (x < e && !isDelimiter(*x) && *x != m_icc && static_cast<unsigned char>(*x) >= 32)
            ++x;
        return std::string_view(b, static_cast<size_t>(x - b));
    }

    void diagnose(int line, const std::string& message) { m_index->diagnostics.push_back({line, YString(message.c_str())}); }

    // The file name of an ".include" or ".lib" line after the keyword: quoted, or up to a blank.
    static std::string_view fileArgument(std::string_view rest, std::string_view* after)
    {
        size_t i = 0;
        while (i < rest.size() && (rest[i] == ' ' || rest[i] == '\t'))
            ++i;
        if (i == rest.size()) {
            *after = std::string_view();
            return std::string_view();
        }
        if (rest[i] == '"' || rest[i] == '\'') {
            const char quote = rest[i];
            const size_t close = rest.find(quote, i + 1);
            const size_t e = close == std::string_view::npos ? rest.size() : close;
            *after = rest.substr(e == rest.size() ? e : e + 1);
            return rest.substr(i + 1, e - i - 1);
        }
        size_t e = i;
        while (e < rest.size() && rest[e] != ' ' && rest[e] != '\t')
            ++e;
        *after = rest.substr(e);
        return rest.substr(i, e - i);
    }

    void addReference(ModelLibReference::Kind kind, std::string_view target, std::string_view section)
    {
        ModelLibReference ref;
        ref.kind = kind;
        ref.target = ys(target);
        ref.section = ys(section);
        ref.line = m_stmtLine;
        ref.inSection = m_section;
        const QString t = QString::fromUtf8(target.data(), static_cast<int>(target.size()));
        if (QDir::isAbsolutePath(t) || m_index->fileName.isEmpty())
            ref.path = toYs(QDir::cleanPath(t));
        else
            ref.path = toYs(QDir::cleanPath(QFileInfo(toQs(m_index->fileName)).absolutePath() + QLatin1Char('/') + t));
        const int at = static_cast<int>(m_index->references.size());
        m_index->references.push_back(ref);
        if (m_section >= 0)
            m_index->sections[static_cast<size_t>(m_section)].references.push_back(at);
    }

    void finishStatement()
    {
        // The statement starts with a byte the readers keep that is no blank and no comment character:
        // its first word is empty only when that byte is one of "=(),".
        const char first = m_text[m_segments.front().begin];
        if (first != '.') {
            if (!m_subckts.empty() && !isDelimiter(first))
                element(first);
            return;
        }
        // The keyword lowered, when it is short enough to be one.
        const std::string_view keyword = firstWord();
        char k[8];
        if (keyword.size() > sizeof k)
            return;
        for (size_t i = 0; i < keyword.size(); ++i)
            k[i] = static_cast<char>(lowerByte(static_cast<unsigned char>(keyword[i])));
        const std::string_view key(k, keyword.size());
        if (key == ".model")
            model();
        else if (key == ".subckt")
            subckt();
        else if (key == ".ends")
            ends();
        else if (key == ".lib")
            lib();
        else if (key == ".endl")
            endl();
        else if (key == ".include" || key == ".inc" || key == ".incl")
            include();
        else if (key == ".param" && m_subckts.empty())
            param();
    }

    // The room to give the list of definitions when it is full: the count so far extrapolated over
    // the rest of the text (at most 16 times the room so far), so that a large library moves its
    // definitions once or twice instead of at each doubling.
    size_t definitionRoom(size_t count) const
    {
        if (count < 1024)
            return std::max<size_t>(16, count * 2);
        const double done = static_cast<double>(m_segments.front().begin + 1);
        const double estimate = static_cast<double>(count) * (static_cast<double>(m_size) / done) * 1.05 + 16;
        return std::min(count * 16, std::max(count * 2, static_cast<size_t>(estimate)));
    }

    // A new definition of the statement, built in place at the end of the index's list.
    ModelLibDefinition& addDefinition(ModelLibDefinition::Kind kind, std::string_view name)
    {
        std::vector<ModelLibDefinition>& list = m_index->definitions;
        if (list.size() == list.capacity())
            list.reserve(definitionRoom(list.size()));
        const int at = static_cast<int>(list.size());
        ModelLibDefinition& d = list.emplace_back();
        d.kind = kind;
        d.name = ys(name);
        d.section = m_subckts.empty() ? m_section : -1;
        d.parent = m_subckts.empty() ? -1 : m_subckts.back();
        d.location.fileName = m_index->fileName;
        d.location.symbolName = d.name;
        d.location.kind = kind;
        d.location.start = static_cast<int>(m_segments.front().begin);
        d.location.end = static_cast<int>(m_stmtEnd);
        d.location.lineOffset = m_stmtLine - 1;
        d.line = m_stmtLine;
        d.lastLine = m_stmtLastLine;
        if (d.parent < 0 && m_section >= 0)
            m_index->sections[static_cast<size_t>(m_section)].definitions.push_back(at);
        return d;
    }

    static bool isParamsWord(std::string_view w) { return equalsNoCase(w, "params:") || equalsNoCase(w, "param:"); }

    void model()
    {
        // The name, type and AKO base stand on the first line nearly always: the rest is joined only
        // when they do not.
        std::vector<Word>& w = m_words;
        words(logical(1), &w, 5);
        if (w.size() < 4 && m_segments.size() > 1)
            words(logical(), &w, 5);
        if (w.size() < 2) {
            diagnose(m_stmtLine, ".model without a name");
            return;
        }
        ModelLibDefinition& d = addDefinition(ModelLibDefinition::Model, w[1].text);
        size_t typeAt = 2;
        if (w.size() > 2 && w[2].text.size() >= 4 && equalsNoCase(w[2].text.substr(0, 4), "ako:")) {
            if (w[2].text.size() > 4) {
                d.akoBase = ys(w[2].text.substr(4));
                typeAt = 3;
            } else if (w.size() > 3) {
                d.akoBase = ys(w[3].text);
                typeAt = 4;
            }
        }
        if (w.size() > typeAt && !w[typeAt].assigned)
            d.type = ys(w[typeAt].text);
    }

    void subckt()
    {
        std::vector<Word>& w = m_words;
        words(logical(), &w);
        if (w.size() < 2) {
            diagnose(m_stmtLine, ".subckt without a name");
            return;
        }
        ModelLibDefinition& d = addDefinition(ModelLibDefinition::Subckt, w[1].text);
        size_t ports = 2;
        while (ports < w.size() && !w[ports].assigned && !isParamsWord(w[ports].text))
            ++ports;
        d.ports.reserve(ports - 2);
        for (size_t i = 2; i < ports; ++i)
            d.ports.push_back(ys(w[i].text));
        d.location.end = static_cast<int>(m_size); // until its .ends is met
        m_subckts.push_back(static_cast<int>(m_index->definitions.size()) - 1);
        if (m_seen.size() < m_subckts.size())
            m_seen.emplace_back();
        m_seen[m_subckts.size() - 1].clear();
    }

    void closeSubckt(int end, int lastLine)
    {
        ModelLibDefinition& d = m_index->definitions[static_cast<size_t>(m_subckts.back())];
        d.location.end = end;
        d.lastLine = lastLine;
        m_seen[m_subckts.size() - 1].moveTo(&d);
        m_subckts.pop_back();
    }

    void ends()
    {
        if (m_subckts.empty()) {
            diagnose(m_stmtLine, ".ends without a .subckt");
            return;
        }
        closeSubckt(static_cast<int>(m_stmtEnd), m_stmtLastLine);
    }

    // An element line of a subcircuit: its words after the first that are neither NAME= nor start with
    // a digit are uses; on an "X" line the last word before the parameters (the first NAME= or
    // "params:") is the instance's subcircuit instead. One pass: a word waits until the next one shows
    // whether it was that last one.
    void element(char first)
    {
        SeenWords& seen = m_seen[m_subckts.size() - 1];
        const std::string_view line = logical();
        const char* p = line.data();
        const char* const end = p + line.size();
        // A line of the text may be read up to the text's end, a joined one up to its own.
        const char* const readable = m_joined ? end : m_text + m_size;
        bool bounded = first != 'x' && first != 'X'; // no instance to look for, or found
        std::string_view pending;
        Word next;
        for (size_t index = 0; nextWord(&p, end, &next); ++index) {
            const bool assigned = next.assigned;
            const std::string_view word = next.text;
            if (index == 0)
                continue;
            if (!bounded) {
                if (!assigned && !isParamsWord(word)) {
                    if (!pending.empty())
                        addUse(seen, pending, readable);
                    pending = word;
                    continue;
                }
                bounded = true;
                if (!pending.empty())
                    seen.add(pending, SeenWords::Instance, readable);
                pending = std::string_view();
            }
            if (!assigned)
                addUse(seen, word, readable);
        }
        if (!pending.empty())
            seen.add(pending, SeenWords::Instance, readable);
    }

    static void addUse(SeenWords& seen, std::string_view word, const char* readable)
    {
        if (word[0] < '0' || word[0] > '9')
            seen.add(word, SeenWords::Use, readable);
    }

    void lib()
    {
        const std::string_view text = logical();
        const std::string_view rest = text.substr(std::min(text.size(), firstWord().size()));
        std::string_view after;
        const std::string_view first = fileArgument(rest, &after);
        std::string_view afterSecond;
        const std::string_view second = fileArgument(after, &afterSecond);
        if (first.empty()) {
            diagnose(m_stmtLine, ".lib without a section name or file");
            return;
        }
        if (!second.empty()) {
            addReference(ModelLibReference::LibSection, first, second);
            return;
        }
        if (!m_subckts.empty())
            diagnose(m_stmtLine, "section " + std::string(first) + " opens inside a subcircuit");
        if (m_section >= 0) {
            ModelLibSection& open = m_index->sections[static_cast<size_t>(m_section)];
            diagnose(m_stmtLine, "section " + std::string(first) + " opens inside section " + open.name.str() +
                                     ", which ends there");
            open.end = static_cast<int>(m_segments.front().begin);
            open.endLine = m_stmtLine - 1;
        }
        ModelLibSection s;
        s.name = ys(first);
        s.line = m_stmtLine;
        s.start = static_cast<int>(m_segments.front().begin);
        m_section = static_cast<int>(m_index->sections.size());
        m_index->sections.push_back(s);
    }

    void endl()
    {
        if (m_section < 0) {
            diagnose(m_stmtLine, ".endl without a .lib");
            return;
        }
        ModelLibSection& s = m_index->sections[static_cast<size_t>(m_section)];
        words(logical(), &m_words, 2);
        if (m_words.size() > 1 && lower(m_words[1].text) != lower(s.name.str()))
            diagnose(m_stmtLine, ".endl " + std::string(m_words[1].text) + " ends section " + s.name.str());
        s.end = static_cast<int>(m_stmtEnd);
        s.endLine = m_stmtLastLine;
        s.closed = true;
        m_section = -1;
    }

    void include()
    {
        const std::string_view text = logical();
        std::string_view after;
        const std::string_view file = fileArgument(text.substr(std::min(text.size(), firstWord().size())), &after);
        if (file.empty()) {
            diagnose(m_stmtLine, ".include without a file");
            return;
        }
        addReference(ModelLibReference::Include, file, std::string_view());
    }

    void param()
    {
        std::vector<Word>& w = m_words;
        words(logical(), &w);
        std::vector<YString>& names = m_section >= 0 ? m_index->sections[static_cast<size_t>(m_section)].params : m_index->params;
        for (size_t i = 1; i < w.size(); ++i) {
            if (!w[i].assigned)
                continue;
            names.push_back(ys(w[i].text));
            ++i; // the value; a value with delimiters inside adds words that are not followed by "="
        }
    }

    void finishFile(int lines)
    {
        while (!m_subckts.empty()) {
            const ModelLibDefinition& d = m_index->definitions[static_cast<size_t>(m_subckts.back())];
            diagnose(d.line, "subcircuit " + d.name.str() + " is not closed by .ends");
            closeSubckt(static_cast<int>(m_size), lines);
        }
        if (m_section >= 0) {
            ModelLibSection& s = m_index->sections[static_cast<size_t>(m_section)];
            diagnose(s.line, "section " + s.name.str() + " is not closed by .endl");
            s.end = static_cast<int>(m_size);
            s.endLine = lines;
        }
    }

    const char* m_text;
    size_t m_size;
    ModelLibIndex* m_index;
    char m_icc = ';';
    bool m_sawStatement = false;
    std::vector<Segment> m_segments;
    size_t m_stmtEnd = 0;
    int m_stmtLine = 0;
    int m_stmtLastLine = 0;
    int m_section = -1;
    std::vector<int> m_subckts;
    std::vector<SeenWords> m_seen; ///< one table per open subcircuit level, kept when the level closes
    std::vector<Word> m_words;
    std::string m_line;
    bool m_joined = false; ///< whether the last `logical` line is `m_line` rather than the text itself
};

// The bytes of a library as the readers read them: a plain file read whole into memory (not mapped: a
// file cut short by someone else while it is mapped would end the process), a UTF-16 file through its
// UTF-8 copy. Only a regular file is opened, so that a FIFO cannot stall the caller and a device such as
// /dev/zero cannot fill its memory.
struct LibraryBytes {
    QByteArray copy;
    const char* data = nullptr;
    size_t size = 0;
};

ModelLibStatus readLibrary(const YString& path, LibraryBytes* bytes, bool* wide)
{
    long long size = 0;
    FILE* file = path.isEmpty() ? nullptr : sp_OpenRegularFile(path.c_str(), LLONG_MAX, &size);
    if (!file)
        return ModelLibStatus::Unreadable;
    if (size > kMaxPosition) {
        std::fclose(file);
        return ModelLibStatus::TooLarge;
    }
    YString temp;
    QByteArray decoded;
    *wide = textfile::convertWide(path, &temp, &decoded);
    if (*wide) {
        std::fclose(file);
        if (temp.isEmpty()) {
            bytes->copy = decoded;
        } else {
            QFile copy(toQs(temp));
            const bool opened = copy.open(QIODevice::ReadOnly);
            if (opened && copy.size() <= kMaxPosition)
                bytes->copy = copy.readAll();
            const bool tooLarge = opened && copy.size() > kMaxPosition;
            copy.close();
            (void)unlink_utf8(temp.c_str()); // the UTF-8 copy is scratch: a failed removal changes nothing
            if (!opened)
                return ModelLibStatus::Unreadable;
            if (tooLarge)
                return ModelLibStatus::TooLarge;
        }
    } else {
        // The size asked at the open bounds the read: a file that grows meanwhile is read as it was.
        bytes->copy.resize(static_cast<int>(size));
        const size_t got = size > 0 ? std::fread(bytes->copy.data(), 1, static_cast<size_t>(size), file) : 0;
        const bool failed = std::ferror(file) != 0;
        std::fclose(file);
        if (failed)
            return ModelLibStatus::Unreadable;
        bytes->copy.resize(static_cast<int>(got));
    }
    bytes->data = bytes->copy.constData();
    bytes->size = static_cast<size_t>(bytes->copy.size());
    return static_cast<long long>(bytes->size) > kMaxPosition ? ModelLibStatus::TooLarge : ModelLibStatus::Ok;
}

std::string key(const YString& name) { return lower(name.str()); }

std::string where(const ModelLibIndex& file, int line) { return file.fileName.str() + ":" + std::to_string(line); }

const char* kindWord(ModelLibDefinition::Kind kind) { return kind == ModelLibDefinition::Subckt ? ".subckt" : ".model"; }

ModelLibProblem problem(ModelLibProblem::Kind kind, const YString& name, const YString& file, int line, const std::string& message)
{
    ModelLibProblem p;
    p.kind = kind;
    p.name = name;
    p.file = file;
    p.line = line;
    p.message = YString(message.c_str());
    return p;
}

// Resolves sections over a cache of indexed files.
class Resolver {
public:
    Resolver(SpiceLanguage language, ModelLibResolution* r) : m_language(language), m_r(r)
    {
        for (size_t i = 0; i < r->files.size(); ++i)
            m_byPath[canonical(r->files[i].fileName)] = static_cast<int>(i);
    }

    static std::string canonical(const YString& path)
    {
        const QFileInfo info(toQs(path));
        const QString c = info.canonicalFilePath();
        return (c.isEmpty() ? QDir::cleanPath(info.absoluteFilePath()) : c).toUtf8().toStdString();
    }

    // Index of the file in the cache, indexing it first; -1 with the status when it cannot be indexed.
    int load(const YString& path, ModelLibStatus* status)
    {
        const std::string c = canonical(path);
        const auto found = m_byPath.find(c);
        if (found != m_byPath.end()) {
            *status = m_failed.count(c) ? m_failed[c] : ModelLibStatus::Ok;
            return *status == ModelLibStatus::Ok ? found->second : -1;
        }
        ModelLibIndex index;
        *status = sp_IndexModelLibrary(path, m_language, &index);
        if (*status != ModelLibStatus::Ok) {
            m_byPath[c] = -1;
            m_failed[c] = *status;
            return -1;
        }
        m_r->files.push_back(std::move(index));
        const int at = static_cast<int>(m_r->files.size()) - 1;
        m_byPath[c] = at;
        return at;
    }

    // Adds what (file, section) reaches; false when the file has no such section.
    bool visit(int file, const std::string& section, int viaFile, int viaReference)
    {
        const std::pair<int, std::string> unit(file, section);
        if (m_done.count(unit))
            return true;
        const ModelLibIndex* f = &m_r->files[static_cast<size_t>(file)];
        int sectionIndex = -1;
        if (!section.empty()) {
            for (size_t i = 0; i < f->sections.size() && sectionIndex < 0; ++i)
                if (key(f->sections[i].name) == section)
                    sectionIndex = static_cast<int>(i);
            if (sectionIndex < 0)
                return false;
        }
        m_done.insert(unit);
        m_stack.push_back(unit);
        // Definitions and references in line order, as a simulator reads them.
        std::vector<std::pair<int, int>> items; // (line, index): definitions as index, references as ~index
        if (sectionIndex >= 0) {
            for (int d : f->sections[static_cast<size_t>(sectionIndex)].definitions)
                items.push_back({f->definitions[static_cast<size_t>(d)].line, d});
            for (int r : f->sections[static_cast<size_t>(sectionIndex)].references)
                items.push_back({f->references[static_cast<size_t>(r)].line, ~r});
        } else {
            for (size_t d = 0; d < f->definitions.size(); ++d)
                if (f->definitions[d].parent < 0 && f->definitions[d].section < 0)
                    items.push_back({f->definitions[d].line, static_cast<int>(d)});
            for (size_t r = 0; r < f->references.size(); ++r)
                if (f->references[r].inSection < 0)
                    items.push_back({f->references[r].line, ~static_cast<int>(r)});
        }
        std::stable_sort(items.begin(), items.end(),
                         [](const std::pair<int, int>& a, const std::pair<int, int>& b) { return a.first < b.first; });
        for (const auto& item : items) {
            if (item.second >= 0) {
                m_r->definitions.push_back({file, item.second, viaFile, viaReference});
                continue;
            }
            const int r = ~item.second;
            // The cache may grow while references are followed: the file and reference are looked up anew.
            const ModelLibReference ref = m_r->files[static_cast<size_t>(file)].references[static_cast<size_t>(r)];
            const YString from = m_r->files[static_cast<size_t>(file)].fileName;
            ModelLibStatus status = ModelLibStatus::Ok;
            const int target = load(ref.path, &status);
            if (target < 0) {
                if (status == ModelLibStatus::TooLarge)
                    m_r->problems.push_back(problem(ModelLibProblem::TooLargeFile, ref.path, from, ref.line,
                                                    where(m_r->files[static_cast<size_t>(file)], ref.line) + ": " +
                                                        ref.path.str() + " is larger than 2147483647 bytes"));
                else
                    m_r->problems.push_back(problem(ModelLibProblem::MissingFile, ref.path, from, ref.line,
                                                    where(m_r->files[static_cast<size_t>(file)], ref.line) + ": " +
                                                        ref.target.str() + " does not exist or cannot be read (" +
                                                        ref.path.str() + ")"));
                continue;
            }
            const std::string wanted = ref.kind == ModelLibReference::LibSection ? key(ref.section) : std::string();
            if (std::find(m_stack.begin(), m_stack.end(), std::make_pair(target, wanted)) != m_stack.end()) {
                const std::string what = m_r->files[static_cast<size_t>(target)].fileName.str() +
                                         (wanted.empty() ? std::string() : " section " + ref.section.str());
                m_r->problems.push_back(problem(ModelLibProblem::ReferenceCycle, ref.kind == ModelLibReference::LibSection ? ref.section : ref.path,
                                                from, ref.line,
                                                where(m_r->files[static_cast<size_t>(file)], ref.line) +
                                                    ": reference cycle: " + what + " is being read already; not followed"));
                continue;
            }
            if (!visit(target, wanted, file, r))
                m_r->problems.push_back(problem(ModelLibProblem::MissingSection, ref.section, from, ref.line,
                                                where(m_r->files[static_cast<size_t>(file)], ref.line) + ": " +
                                                    ref.target.str() + " has no section " + ref.section.str()));
        }
        m_stack.pop_back();
        return true;
    }

private:
    SpiceLanguage m_language;
    ModelLibResolution* m_r;
    std::map<std::string, int> m_byPath;
    std::map<std::string, ModelLibStatus> m_failed;
    std::set<std::pair<int, std::string>> m_done;
    std::vector<std::pair<int, std::string>> m_stack;
};

const ModelLibDefinition& defOf(const ModelLibResolution& r, const ModelLibReached& reached)
{
    return r.files[static_cast<size_t>(reached.file)].definitions[static_cast<size_t>(reached.definition)];
}

// The first reached definition of each kind and name, with its position in the reaching order.
struct NameTable {
    std::unordered_map<std::string, size_t> models, subckts;
    explicit NameTable(const ModelLibResolution& r)
    {
        for (size_t i = 0; i < r.definitions.size(); ++i) {
            const ModelLibDefinition& d = defOf(r, r.definitions[i]);
            (d.kind == ModelLibDefinition::Subckt ? subckts : models).emplace(key(d.name), i);
        }
    }
    const size_t* find(ModelLibDefinition::Kind kind, const YString& name) const
    {
        const auto& table = kind == ModelLibDefinition::Subckt ? subckts : models;
        const auto it = table.find(key(name));
        return it == table.end() ? nullptr : &it->second;
    }
};

// Names defined inside a subcircuit (its local models and subcircuits), which its lines may use.
std::set<std::string> localNames(const ModelLibIndex& file, int subckt)
{
    std::set<std::string> names;
    for (size_t i = static_cast<size_t>(subckt) + 1; i < file.definitions.size(); ++i) {
        int p = file.definitions[i].parent;
        while (p >= 0 && p != subckt)
            p = file.definitions[static_cast<size_t>(p)].parent;
        if (p == subckt)
            names.insert(std::string(kindWord(file.definitions[i].kind)) + key(file.definitions[i].name));
        else if (file.definitions[i].line > file.definitions[static_cast<size_t>(subckt)].lastLine)
            break;
    }
    return names;
}

void checkResolution(const ModelLibResolution& r, std::vector<ModelLibProblem>* out)
{
    std::unordered_map<std::string, size_t> first;
    const NameTable names(r);
    for (size_t i = 0; i < r.definitions.size(); ++i) {
        const ModelLibReached& reached = r.definitions[i];
        const ModelLibIndex& file = r.files[static_cast<size_t>(reached.file)];
        const ModelLibDefinition& d = defOf(r, reached);
        const auto inserted = first.emplace(std::string(kindWord(d.kind)) + key(d.name), i);
        if (!inserted.second) {
            const ModelLibReached& other = r.definitions[inserted.first->second];
            const ModelLibIndex& otherFile = r.files[static_cast<size_t>(other.file)];
            const ModelLibDefinition& o = defOf(r, other);
            ModelLibProblem p = problem(ModelLibProblem::Duplicate, d.name, file.fileName, d.line,
                                        where(file, d.line) + ": duplicate " + kindWord(d.kind) + " " + d.name.str() +
                                            ", first defined at " + where(otherFile, o.line));
            p.otherFile = otherFile.fileName;
            p.otherLine = o.line;
            out->push_back(p);
        }
        if (!d.akoBase.isEmpty()) {
            const size_t* base = names.find(ModelLibDefinition::Model, d.akoBase);
            if (!base) {
                out->push_back(problem(ModelLibProblem::UnresolvedAkoBase, d.name, file.fileName, d.line,
                                       where(file, d.line) + ": AKO model " + d.name.str() + " has no base model " + d.akoBase.str()));
            } else if (*base > i) {
                const ModelLibReached& b = r.definitions[*base];
                ModelLibProblem p = problem(ModelLibProblem::AkoBaseAfter, d.name, file.fileName, d.line,
                                            where(file, d.line) + ": AKO model " + d.name.str() + " comes before its base " +
                                                d.akoBase.str() + " at " + where(r.files[static_cast<size_t>(b.file)], defOf(r, b).line));
                p.otherFile = r.files[static_cast<size_t>(b.file)].fileName;
                p.otherLine = defOf(r, b).line;
                out->push_back(p);
            }
        }
        if (!d.instances.empty()) {
            const std::set<std::string> local = localNames(file, reached.definition);
            for (const YString& x : d.instances)
                if (!names.find(ModelLibDefinition::Subckt, x) && !local.count(".subckt" + key(x)))
                    out->push_back(problem(ModelLibProblem::UnresolvedInstance, x, file.fileName, d.line,
                                           where(file, d.line) + ": subcircuit " + d.name.str() + " instantiates " + x.str() +
                                               ", which is defined nowhere it reaches"));
        }
    }
}

void structureProblems(const ModelLibResolution& r, std::vector<ModelLibProblem>* out)
{
    for (const ModelLibIndex& f : r.files)
        for (const ModelLibDiagnostic& d : f.diagnostics)
            out->push_back(problem(ModelLibProblem::Structure, f.fileName, f.fileName, d.line, where(f, d.line) + ": " + d.message.str()));
}

void appendLines(const ModelLibDefinition& d, const YString& rename, std::vector<YString>* lines)
{
    LibraryStream stream(d.location, rename);
    YString line;
    int number = 0;
    while (stream.gets(&line, &number))
        if (!line.isEmpty())
            lines->push_back(line);
}

// `line` with every whole word OLD (ignoring case) of `renames` written as NEW.
YString renameWords(const YString& line, const std::vector<std::pair<std::string, std::string>>& renames)
{
    if (renames.empty())
        return line;
    const std::string& s = line.str();
    std::string out;
    size_t i = 0;
    while (i < s.size()) {
        if (isDelimiter(s[i])) {
            out.push_back(s[i++]);
            continue;
        }
        size_t e = i;
        while (e < s.size() && !isDelimiter(s[e]))
            ++e;
        std::string w = s.substr(i, e - i);
        std::string k = lower(w);
        // "AKO:BASE" names its base after the colon.
        std::string prefix;
        if (k.size() > 4 && k.compare(0, 4, "ako:") == 0) {
            prefix = w.substr(0, 4);
            w = w.substr(4);
            k = k.substr(4);
        }
        for (const auto& rn : renames)
            if (k == rn.first) {
                w = rn.second;
                break;
            }
        out += prefix + w;
        i = e;
    }
    return YString(out.c_str());
}

} // namespace

void sp_IndexModelLibraryText(const char* text, size_t size, const YString& fileName, SpiceLanguage language,
                              ModelLibIndex* index)
{
    *index = ModelLibIndex();
    index->fileName = fileName;
    index->language = language;
    if (!text)
        size = 0;
    if (size > static_cast<size_t>(kMaxPosition))
        size = static_cast<size_t>(kMaxPosition);
    // A byte 0xFF ends the text, as it ends SpiceStream's input: the scan stops there and cuts `size`.
    index->size = static_cast<long long>(size);
    try {
        Scanner(text, size, index).run();
    } catch (...) {
        const void* ff = size ? std::memchr(text, 0xFF, size) : nullptr;
        if (ff)
            index->size = static_cast<const char*>(ff) - text;
        index->diagnostics.push_back({0, YString("out of memory while indexing")});
    }
}

ModelLibStatus sp_IndexModelLibrary(const YString& path, SpiceLanguage language, ModelLibIndex* index)
{
    *index = ModelLibIndex();
    index->fileName = path;
    try {
        LibraryBytes bytes;
        bool wide = false;
        const ModelLibStatus status = readLibrary(path, &bytes, &wide);
        if (status != ModelLibStatus::Ok)
            return status;
        sp_IndexModelLibraryText(bytes.data, bytes.size, path, language, index);
        index->wide = wide;
        return ModelLibStatus::Ok;
    } catch (...) {
        return ModelLibStatus::Unreadable;
    }
}

ModelLibStatus sp_ResolveModelSection(const YString& path, const YString& section, SpiceLanguage language,
                                      ModelLibResolution* resolution)
{
    resolution->definitions.clear();
    resolution->problems.clear();
    resolution->section = section;
    resolution->root = -1;
    try {
        Resolver resolver(language, resolution);
        ModelLibStatus status = ModelLibStatus::Ok;
        const int root = resolver.load(path, &status);
        if (root < 0)
            return status;
        resolution->root = root;
        if (!resolver.visit(root, key(section), -1, -1))
            return ModelLibStatus::NoSuchSection;
        return ModelLibStatus::Ok;
    } catch (...) {
        return ModelLibStatus::Unreadable;
    }
}

ModelLibStatus sp_CheckModelLibrary(const YString& path, const YString& section, SpiceLanguage language,
                                    std::vector<ModelLibProblem>* problems)
{
    try {
        ModelLibResolution r;
        ModelLibStatus status = sp_ResolveModelSection(path, section, language, &r);
        if (status != ModelLibStatus::Ok)
            return status;
        problems->insert(problems->end(), r.problems.begin(), r.problems.end());
        checkResolution(r, problems);
        const int root = r.root;
        const std::vector<ModelLibSection> sections = r.files[static_cast<size_t>(root)].sections;
        if (section.isEmpty() && !sections.empty()) {
            std::set<std::pair<int, int>> reached;
            std::set<std::string> done;
            for (const ModelLibSection& s : sections) {
                if (!done.insert(key(s.name)).second)
                    continue;
                sp_ResolveModelSection(path, s.name, language, &r);
                for (const ModelLibProblem& p : r.problems)
                    problems->push_back(p);
                checkResolution(r, problems);
                for (const ModelLibReached& x : r.definitions)
                    reached.insert({x.file, x.definition});
            }
            for (size_t f = 0; f < r.files.size(); ++f) {
                const ModelLibIndex& file = r.files[f];
                for (size_t d = 0; d < file.definitions.size(); ++d) {
                    const ModelLibDefinition& def = file.definitions[d];
                    if (def.parent < 0 && !reached.count({static_cast<int>(f), static_cast<int>(d)}))
                        problems->push_back(problem(ModelLibProblem::Unreferenced, def.name, file.fileName, def.line,
                                                    where(file, def.line) + ": " + kindWord(def.kind) + " " + def.name.str() +
                                                        " is reached by no section"));
                }
            }
        }
        structureProblems(r, problems);
        return ModelLibStatus::Ok;
    } catch (...) {
        return ModelLibStatus::Unreadable;
    }
}

std::vector<YString> sp_ReadModelDefinition(const ModelLibDefinition& definition, const YString& rename)
{
    std::vector<YString> lines;
    try {
        appendLines(definition, rename, &lines);
    } catch (...) {
        lines.clear();
    }
    return lines;
}

namespace {
// The logical lines of a definition without comments, blanks runs collapsed: what a comparison looks at.
std::string comparable(const ModelLibDefinition& d)
{
    std::string out;
    for (const YString& line : sp_ReadModelDefinition(d, YString())) {
        if (line.at(0) == '*')
            continue;
        bool blank = false;
        for (char c : line.str()) {
            if (c == ' ' || c == '\t') {
                blank = true;
                continue;
            }
            if (blank && !out.empty() && out.back() != '\n')
                out.push_back(' ');
            blank = false;
            out.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
        }
        out.push_back('\n');
    }
    return out;
}
} // namespace

ModelLibStatus sp_DiffModelLibraries(const YString& a, const YString& b, SpiceLanguage language, ModelLibDiff* diff)
{
    try {
        ModelLibIndex ia, ib;
        ModelLibStatus status = sp_IndexModelLibrary(a, language, &ia);
        if (status != ModelLibStatus::Ok)
            return status;
        status = sp_IndexModelLibrary(b, language, &ib);
        if (status != ModelLibStatus::Ok)
            return status;
        auto sectionNames = [](const ModelLibIndex& i) {
            std::map<std::string, YString> m;
            for (const ModelLibSection& s : i.sections)
                m.emplace(key(s.name), s.name);
            return m;
        };
        const auto sa = sectionNames(ia), sb = sectionNames(ib);
        for (const auto& s : sa)
            if (!sb.count(s.first))
                diff->sectionsOnlyInA.push_back(s.second);
        for (const auto& s : sb)
            if (!sa.count(s.first))
                diff->sectionsOnlyInB.push_back(s.second);
        auto definitions = [](const ModelLibIndex& i) {
            std::map<std::string, const ModelLibDefinition*> m;
            for (const ModelLibDefinition& d : i.definitions)
                if (d.parent < 0)
                    m.emplace(std::string(kindWord(d.kind)) + " " + key(d.name), &d);
            return m;
        };
        const auto da = definitions(ia), db = definitions(ib);
        auto label = [](const ModelLibDefinition* d) { return YString((std::string(kindWord(d->kind)) + " " + d->name.str()).c_str()); };
        for (const auto& d : da) {
            const auto other = db.find(d.first);
            if (other == db.end())
                diff->onlyInA.push_back(label(d.second));
            else if (comparable(*d.second) != comparable(*other->second))
                diff->differing.push_back(label(d.second));
        }
        for (const auto& d : db)
            if (!da.count(d.first))
                diff->onlyInB.push_back(label(d.second));
        return ModelLibStatus::Ok;
    } catch (...) {
        return ModelLibStatus::Unreadable;
    }
}

ModelLibStatus sp_ExtractModels(const YString& path, const ModelLibExtractRequest& request, YString* text,
                                std::vector<ModelLibProblem>* problems)
{
    try {
        *text = YString();
        ModelLibResolution r;
        const ModelLibStatus status = sp_ResolveModelSection(path, request.section, request.language, &r);
        if (status != ModelLibStatus::Ok)
            return status;
        std::vector<std::pair<std::string, std::string>> renames;
        std::map<std::string, YString> newName;
        for (const YString& rn : request.renames) {
            const int eq = rn.findIndex("=");
            if (eq <= 0 || eq + 1 >= rn.length())
                continue;
            renames.push_back({key(rn.substring(0, eq)), rn.substring(eq + 1).str()});
            newName[key(rn.substring(0, eq))] = rn.substring(eq + 1);
        }
        const NameTable names(r);
        std::vector<size_t> order;
        std::vector<char> state(r.definitions.size(), 0); // 1 being visited, 2 placed
        std::vector<ModelLibProblem> unresolved;
        // Depth first: a definition is placed after everything it depends on.
        std::function<void(size_t)> place = [&](size_t i) {
            if (state[i])
                return;
            state[i] = 1;
            const ModelLibReached& reached = r.definitions[i];
            const ModelLibIndex& file = r.files[static_cast<size_t>(reached.file)];
            const ModelLibDefinition& d = defOf(r, reached);
            if (!d.akoBase.isEmpty()) {
                if (const size_t* base = names.find(ModelLibDefinition::Model, d.akoBase))
                    place(*base);
                else
                    unresolved.push_back(problem(ModelLibProblem::UnresolvedAkoBase, d.name, file.fileName, d.line,
                                                 where(file, d.line) + ": AKO model " + d.name.str() + " has no base model " + d.akoBase.str()));
            }
            if (d.kind == ModelLibDefinition::Subckt) {
                const std::set<std::string> local = localNames(file, reached.definition);
                for (const YString& x : d.instances) {
                    if (local.count(".subckt" + key(x)))
                        continue;
                    if (const size_t* s = names.find(ModelLibDefinition::Subckt, x))
                        place(*s);
                    else
                        unresolved.push_back(problem(ModelLibProblem::UnresolvedInstance, x, file.fileName, d.line,
                                                     where(file, d.line) + ": subcircuit " + d.name.str() + " instantiates " + x.str() +
                                                         ", which is defined nowhere it reaches"));
                }
                for (const YString& u : d.uses)
                    if (!local.count(".model" + key(u)))
                        if (const size_t* m = names.find(ModelLibDefinition::Model, u))
                            place(*m);
            }
            state[i] = 2;
            order.push_back(i);
        };
        for (const YString& name : request.names) {
            const size_t* found = names.find(ModelLibDefinition::Subckt, name);
            if (!found)
                found = names.find(ModelLibDefinition::Model, name);
            if (!found) {
                if (problems)
                    problems->push_back(problem(ModelLibProblem::UnresolvedInstance, name, path, 0,
                                                path.str() + ": " + name.str() + " is defined nowhere " +
                                                    (request.section.isEmpty() ? std::string("the file reaches")
                                                                               : "section " + request.section.str() + " reaches")));
                return ModelLibStatus::NoSuchDefinition;
            }
            place(*found);
        }
        if (problems)
            problems->insert(problems->end(), unresolved.begin(), unresolved.end());
        std::string out;
        for (size_t i : order) {
            const ModelLibReached& reached = r.definitions[i];
            const ModelLibIndex& file = r.files[static_cast<size_t>(reached.file)];
            const ModelLibDefinition& d = defOf(r, reached);
            const auto renamed = newName.find(key(d.name));
            out += "* " + file.fileName.str() + ":" + std::to_string(d.line) + "\n";
            std::vector<YString> lines;
            appendLines(d, renamed == newName.end() ? YString() : renamed->second, &lines);
            for (size_t l = 0; l < lines.size(); ++l) {
                // LibraryStream renames the definition itself; the words of its other lines (and an AKO
                // base on its first line) that name renamed definitions are renamed here.
                const bool rewrite = l > 0 || !d.akoBase.isEmpty();
                out += (rewrite ? renameWords(lines[l], renames) : lines[l]).str();
                out.push_back('\n');
            }
        }
        *text = YString(out.c_str());
        return ModelLibStatus::Ok;
    } catch (...) {
        return ModelLibStatus::Unreadable;
    }
}

ModelLibStatus sp_WriteExtractedModels(const YString& path, const ModelLibExtractRequest& request, const YString& output,
                                       std::vector<ModelLibProblem>* problems)
{
    YString text;
    const ModelLibStatus status = sp_ExtractModels(path, request, &text, problems);
    if (status != ModelLibStatus::Ok)
        return status;
    try {
        const bool written = sp_ReplaceFileWith(output, [&](const YString& temporary) {
            QFile file(toQs(temporary));
            if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
                return false;
            const qint64 n = file.write(text.c_str(), text.length());
            return n == text.length() && file.flush();
        });
        return written ? ModelLibStatus::Ok : ModelLibStatus::WriteFailed;
    } catch (...) {
        return ModelLibStatus::WriteFailed;
    }
}
