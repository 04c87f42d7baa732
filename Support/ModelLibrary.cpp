// ModelLibrary.cpp - the model-library index: one pass over a library's bytes with the netlist readers'
// line rules, section resolution across files, checks, comparison and extraction.
#include "ModelLibrary.h"
#include "FileReplace.h"
#include "FileReplace_p.h"
#include "ModelLibraryKernels_p.h"
#include "NetlistFilter_p.h"
#include "TextFile_p.h"

#include "FileServices.h"
#include "QtSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTextCodec>

#ifndef _WIN32
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace {

using modellib::equalBytes64;
using modellib::highestBit64;
using modellib::lowestBit64;
using modellib::specialMask;
using modellib::WordMasks;
using modellib::wordMasks;

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

// The bytes A to Z of eight packed bytes (little-endian) lowered, the others unchanged.
constexpr uint64_t lowerAscii(uint64_t v)
{
    constexpr uint64_t ones = 0x0101010101010101ull;
    const uint64_t low7 = v & (0x7F * ones);
    const uint64_t atLeastA = low7 + (0x80 - 'A') * ones;     // high bit: byte >= 'A'
    const uint64_t beyondZ = low7 + (0x80 - 'Z' - 1) * ones;  // high bit: byte > 'Z'
    const uint64_t upper = atLeastA & ~beyondZ & ~v & (0x80 * ones);
    return v | (upper >> 2);
}

// Up to eight bytes of `text` packed little-endian, as a load of them from memory gives them.
constexpr uint64_t packed(const char* text)
{
    uint64_t v = 0;
    for (int i = 0; i < 8 && text[i]; ++i)
        v |= static_cast<uint64_t>(static_cast<unsigned char>(text[i])) << (8 * i);
    return v;
}

// The four bytes at `p` packed little-endian.
inline uint64_t packed4(const char* p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

// The low `n` bytes of a packed word, for `n` from 0 to 8.
constexpr uint64_t kKeepBytes[9] = {0, 0xFF, 0xFFFF, 0xFFFFFF, 0xFFFFFFFF, 0xFFFFFFFFFFull, 0xFFFFFFFFFFFFull,
                                    0xFFFFFFFFFFFFFFull, ~0ull};

// Calls `visit(word, assigned)` for each word of `line` in order, split as `nextWord` splits them (with
// whether an "=" follows after blanks) and cut at the first `stop` byte, until it returns false. The line is
// classified 64 bytes at a time into bit masks and its words are read off the masks; the 64 bytes
// after the line must be readable.
template <class Visit>
MODELLIB_INLINE void forEachWord(std::string_view line, char stop, Visit&& visit)
{
    const char* const p = line.data();
    size_t n = line.size();
    if (n <= 64) {
        // One block: the words are read off its masks directly.
        const WordMasks m = wordMasks(p, static_cast<int>(n + 15) / 16, stop);
        uint64_t valid = n >= 64 ? ~0ull : (1ull << n) - 1;
        if (m.stops & valid)
            valid = (1ull << lowestBit64(m.stops & valid)) - 1;
        const uint64_t delimiters = m.delimiters | ~valid;
        const uint64_t nonBlanks = ~(m.blanks & valid);
        const uint64_t equals = m.equals & valid;
        uint64_t starts = ~delimiters & ((delimiters << 1) | 1);
        while (starts) {
            const int b = lowestBit64(starts);
            starts &= starts - 1;
            const uint64_t after = delimiters >> b;
            const int e = after ? b + lowestBit64(after) : 64;
            bool assigned = false;
            if (e < 64) {
                const uint64_t next = nonBlanks >> e;
                assigned = next && ((equals >> (e + lowestBit64(next))) & 1);
            }
            if (!visit(std::string_view(p + b, static_cast<size_t>(e - b)), assigned))
                return;
        }
        return;
    }
    bool previousDelimiter = true; // before the line
    size_t open = SIZE_MAX;        // start of a word whose end lies further on
    size_t waitStart = 0, waitEnd = 0;
    bool waiting = false;          // a word has ended; whether "=" follows lies further on
    for (size_t base = 0; base < n; base += 64) {
        const size_t left = n - base;
        const WordMasks m = wordMasks(p + base, left >= 64 ? 4 : static_cast<int>(left + 15) / 16, stop);
        uint64_t valid = left >= 64 ? ~0ull : (1ull << left) - 1;
        if (m.stops & valid) {
            n = base + static_cast<size_t>(lowestBit64(m.stops & valid));
            valid = (1ull << (n - base)) - 1;
        }
        // Past the line's end counts as a separator that is no blank and no "=".
        const uint64_t delimiters = m.delimiters | ~valid;
        const uint64_t nonBlanks = ~(m.blanks & valid);
        const uint64_t equals = m.equals & valid;
        if (waiting) {
            if (nonBlanks) {
                waiting = false;
                if (!visit(std::string_view(p + waitStart, waitEnd - waitStart), ((equals >> lowestBit64(nonBlanks)) & 1) != 0))
                    return;
            } else {
                continue; // a block of blanks: no word starts or ends in it
            }
        }
        const uint64_t afterDelimiter = (delimiters << 1) | (previousDelimiter ? 1 : 0);
        uint64_t starts = ~delimiters & afterDelimiter;
        uint64_t ends = delimiters & ~afterDelimiter;
        previousDelimiter = (delimiters >> 63) != 0;
        for (;;) {
            if (open == SIZE_MAX) {
                if (!starts)
                    break;
                open = base + static_cast<size_t>(lowestBit64(starts));
                starts &= starts - 1;
            }
            if (!ends)
                break; // the word goes on into the next block
            const int e = lowestBit64(ends);
            ends &= ends - 1;
            const size_t end = base + static_cast<size_t>(e);
            const uint64_t after = nonBlanks >> e;
            if (!after) {
                waitStart = open;
                waitEnd = end;
                waiting = true;
                open = SIZE_MAX;
                break; // blanks to the block's end: nothing else starts in it
            }
            const bool assigned = ((equals >> (e + lowestBit64(after))) & 1) != 0;
            if (!visit(std::string_view(p + open, end - open), assigned))
                return;
            open = SIZE_MAX;
        }
    }
    // A line whose length is a multiple of 64 may end inside a word or its trailing blanks.
    if (waiting)
        visit(std::string_view(p + waitStart, waitEnd - waitStart), false);
    else if (open != SIZE_MAX)
        visit(std::string_view(p + open, n - open), false);
}

// The instances and uses of the subcircuit open at one nesting level, each listed once ignoring case, and
// the start of its run of words (its name and ports). Kept from one subcircuit to the next, so that a
// level costs no allocation once warm.
class SubcktLevel {
public:
    enum Kind { Instance = 0, Use = 1 };

    int definition = -1;
    std::string head; ///< name, empty type, empty AKO base and the ports list, each ended by a byte 0
    /// The last element line of at most 64 bytes that named no instance, from its second word on: its
    /// uses are listed, and the next such line need not look again at the words they share.
    char previous[64];
    size_t previousLength = SIZE_MAX; ///< SIZE_MAX: none yet

    void open(int at)
    {
        definition = at;
        head.clear();
        previousLength = SIZE_MAX;
        m_sets[Instance].clear();
        m_sets[Use].clear();
    }

    // Lists `word` unless it is listed already, ignoring case. The 16 bytes from the word's start must be
    // readable.
    MODELLIB_INLINE void add(std::string_view word, Kind kind) { m_sets[kind].add(word); }

    const std::string& list(Kind kind) const { return m_sets[kind].words; }

private:
    // Words listed once ignoring case: an open-addressing table over the list. A word of up to 16 bytes
    // is its own key, packed as written; its hash ignores case, so that the key of the first spelling
    // finds the others, which then compare lowered. A slot is free when its generation is not the
    // current one, so that emptying the set for the next subcircuit touches no slot.
    class WordSet {
    public:
        std::string words; ///< the words in order, each ended by a byte 0

        void clear()
        {
            words.clear();
            if (++m_generation == 0) {
                std::fill(m_slots.begin(), m_slots.end(), Slot());
                m_generation = 1;
            }
            m_count = 0;
        }

        // The 16 bytes from the word's start must be readable.
        MODELLIB_INLINE void add(std::string_view word)
        {
            // The words hold no byte 0 (the filter drops it) and no 0xFF (it ends the text), so no key
            // is ambiguous. A word of up to 8 bytes, most of them, is found with one probe in the
            // usual case; the rest take the long way. The slots are made by the first word, a few, and
            // double as the words fill them: a subcircuit with no element lines costs no table, and each
            // of many nested ones open at once costs a table for the words it has.
            if (m_slots.empty())
                m_slots.resize(kInitialSlots);
            const size_t n = word.size();
            if (n > 16) {
                addLong(word);
                return;
            }
            uint64_t key[2];
            std::memcpy(key, word.data(), 16);
            unsigned h;
            if (n <= 8) {
                const uint64_t keep = kKeepBytes[n];
                key[0] &= keep;
                key[1] = 0;
                h = hashOf(key[0] | (0x2020202020202020ull & keep));
            } else {
                const uint64_t keep = kKeepBytes[n - 8];
                key[1] &= keep;
                h = hashOf((key[0] | 0x2020202020202020ull) ^ ((key[1] | (0x2020202020202020ull & keep)) * 0xC2B2AE3D27D4EB4Full));
            }
            const Slot& s = m_slots[h & (m_slots.size() - 1)];
            if (s.generation == m_generation && s.key[0] == key[0] && s.key[1] == key[1])
                return;
            insert(word, key[0], key[1], h);
        }

    private:
        static unsigned hashOf(uint64_t folded) { return static_cast<unsigned>((folded * 0x9E3779B97F4A7C15ull) >> 32); }

        MODELLIB_NOINLINE void addLong(std::string_view word)
        {
            uint64_t folded = 14695981039346656037ull;
            for (char c : word)
                folded = (folded ^ lowerByte(static_cast<unsigned char>(c))) * 1099511628211ull;
            insert(word, kLongWord, kLongWord, hashOf(folded));
        }

        // Lists the word unless a slot holds it already, ignoring case.
        MODELLIB_NOINLINE void insert(std::string_view word, uint64_t key0, uint64_t key1, unsigned h)
        {
            const size_t mask = m_slots.size() - 1;
            for (size_t i = h & mask;; i = (i + 1) & mask) {
                Slot& s = m_slots[i];
                if (s.generation != m_generation) {
                    s.key[0] = key0;
                    s.key[1] = key1;
                    s.hash = h;
                    s.generation = m_generation;
                    s.offset = static_cast<unsigned>(words.size());
                    words.append(word.data(), word.size() + 1);
                    words.back() = '\0';
                    if (++m_count * 2 > m_slots.size())
                        grow();
                    return;
                }
                if (s.hash != h)
                    continue;
                if (s.key[0] == key0 && s.key[1] == key1 && key0 != kLongWord)
                    return; // the same spelling
                if (equalsNoCase(word, std::string_view(words.c_str() + s.offset)))
                    return;
            }
        }

        struct Slot {
            uint64_t key[2] = {0, 0}; ///< a short word packed as written, else kLongWord twice
            unsigned hash = 0;
            unsigned generation = 0;
            unsigned offset = 0; ///< of the word in `words`
        };
        static constexpr size_t kInitialSlots = 8;
        static constexpr uint64_t kLongWord = ~0ull;

        void grow()
        {
            std::vector<Slot> old(m_slots.size() * 2);
            old.swap(m_slots);
            const size_t mask = m_slots.size() - 1;
            for (const Slot& s : old) {
                if (s.generation != m_generation)
                    continue;
                size_t i = s.hash & mask;
                while (m_slots[i].generation == m_generation)
                    i = (i + 1) & mask;
                m_slots[i] = s;
            }
        }

        std::vector<Slot> m_slots;
        size_t m_count = 0;
        unsigned m_generation = 0;
    };

    WordSet m_sets[2];
};

// The text being indexed, a window at a time from position `start` on: read from a file or copied from
// memory into a buffer with 64 bytes to spare after it, so that the scanning kernels read whole blocks
// without looking outside. The window starts small and doubles up to 256 KiB as the text proves long; it
// grows further only to hold one line that is longer still, or a statement's lines and those after them
// while they take up to 256 KiB (past that the scanner copies the statement's lines out of it). Windows
// on one file in several threads share it through `shared`, each seeking to its own place under the
// lock before it reads.
class Window {
public:
    static constexpr size_t kSpare = 64;

    Window(const char* text, size_t size, size_t start = 0)
        : m_text(text + start), m_left(size - start), m_base(start)
    {
    }
    Window(FILE* file, size_t limit, size_t start = 0, std::mutex* shared = nullptr)
        : m_file(file), m_shared(shared), m_left(limit - start), m_base(start), m_fileAt(start)
    {
    }

    char* begin() const { return m_buffer.get(); }
    char* end() const { return m_buffer.get() + m_size; }
    size_t base() const { return m_base; } ///< position of `begin()` in the text
    bool exhausted() const { return m_left == 0; }
    bool failed() const { return m_failed; }
    /// The size the window grows to as the text proves long; past it, it grows only to hold more at once.
    static constexpr size_t kMost = 256 * 1024;

    // The text ends at `at`, as it ends at a byte 0xFF.
    void cut(const char* at)
    {
        m_size = static_cast<size_t>(at - begin());
        m_left = 0;
    }

    // Drops the bytes before position `keep` and reads more after the rest. Pointers into the window
    // must be taken again from their positions afterwards.
    void refill(size_t keep)
    {
        const size_t drop = keep - m_base;
        const size_t kept = m_size - drop;
        size_t capacity = m_capacity;
        if (capacity == 0)
            capacity = kFirst;
        else if (capacity < kMost || kept > capacity / 2)
            capacity *= 2;
        if (capacity != m_capacity) {
            std::unique_ptr<char[]> bigger(new char[capacity + kSpare]());
            if (kept)
                std::memcpy(bigger.get(), m_buffer.get() + drop, kept);
            m_buffer = std::move(bigger);
            m_capacity = capacity;
        } else if (drop && kept) {
            std::memmove(m_buffer.get(), m_buffer.get() + drop, kept);
        }
        m_base += drop;
        m_size = kept;
        const size_t want = std::min(m_capacity - m_size, m_left);
        size_t got = 0;
        if (m_file) {
            std::unique_lock<std::mutex> lock;
            bool placed = true;
            if (want && m_shared) {
                lock = std::unique_lock<std::mutex>(*m_shared);
                // Positions stay below 2^31 (kMaxPosition), so that a long reaches them on every system.
                placed = std::fseek(m_file, static_cast<long>(m_fileAt), SEEK_SET) == 0;
            }
            if (want && placed)
                got = std::fread(m_buffer.get() + m_size, 1, want, m_file);
            if (got < want) {
                m_failed = !placed || std::ferror(m_file) != 0;
                m_left = 0; // a file cut short meanwhile is read as far as it goes
            }
            m_fileAt += got;
        } else {
            if (want)
                std::memcpy(m_buffer.get() + m_size, m_text, want);
            m_text += want;
            got = want;
        }
        m_left -= std::min(m_left, got);
        m_size += got;
    }

private:
    static constexpr size_t kFirst = 4096;

    const char* m_text = nullptr;
    FILE* m_file = nullptr;
    std::mutex* m_shared = nullptr;
    size_t m_left;
    std::unique_ptr<char[]> m_buffer;
    size_t m_capacity = 0;
    size_t m_size = 0;
    size_t m_base = 0;
    size_t m_fileAt = 0; ///< the file's position of the next byte to read
    bool m_failed = false;
};

// The next byte of a line that needs a look of its own (`specialMask`), one mask of 64 bytes kept.
class SpecialFinder {
public:
    void reset() { m_block = 0; }

    MODELLIB_INLINE const char* next(const char* p, const char* end)
    {
        for (;;) {
            // One compare tells whether `p` lies in the block kept: before it the difference wraps.
            const uintptr_t offset = reinterpret_cast<uintptr_t>(p) - m_block;
            if (offset < 64) {
                const uint64_t m = m_mask >> offset;
                if (m)
                    return p + lowestBit64(m);
                p += 64 - offset;
            }
            if (p >= end)
                return end;
            m_block = reinterpret_cast<uintptr_t>(p);
            m_mask = specialMask(p);
            if (end - p < 64)
                m_mask |= ~0ull << (end - p);
        }
    }

private:
    uintptr_t m_block = 0; ///< where the kept mask's 64 bytes start; 0: none
    uint64_t m_mask = 0;
};

// One part of a text indexed by several threads at once. Each part after the first starts at a line
// that opens a definition (`opensDefinition`) and is scanned as if the text began there: outside any
// subcircuit and section, in the caller's dialect. The part before it, on reaching that line, stops
// there when its own state is that one (its result and the next part's then join), and goes on through
// the next part otherwise.
struct IndexPart {
    // Whether a part's result is still wanted: Open until a part before reaches its start; Claimed when
    // that part stopped there, so that its result is joined; Abandoned when that part went on, so that
    // it may quit early.
    enum State { Open, Claimed, Abandoned };

    size_t start = 0;                 ///< position of the part's first line
    size_t expected = 0;              ///< the bytes it is planned to cover
    std::atomic<int> state{Open};
    ModelLibIndex own;
    ModelLibIndex* index = &own;      ///< its findings, lines counted from its start (the first: the caller's)
    size_t next = 0;                  ///< the part whose start it stopped at; 0: it ran to the text's end
    bool failed = false;              ///< memory ran out
    bool unreadable = false;          ///< the file could not be read
};

// Thrown inside a part's scan when no part needs its result any more.
struct PartAbandoned {};

// The file name of an ".include" or ".lib" line after the keyword: quoted, or up to a blank;
// `after` receives what follows it.
std::string_view fileArgument(std::string_view rest, std::string_view* after)
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

#ifndef _WIN32
// A path as the system resolves it, written shorter where that changes nothing: "." parts and repeated
// slashes dropped, and ".." with the part before it where that part is a folder that is no link. Through
// a link, or a part that is missing or no folder, ".." is left (and all after it) for the system to
// resolve or refuse: "link/.." is the parent of the link's target, and "missing/.." opens nothing. A
// final slash (or "/.") is kept, as it asks for a folder.
std::string systemPath(const std::string& path)
{
    const bool absolute = !path.empty() && path[0] == '/';
    // A path that ends in "/" or "/." names a folder: the slash is kept, so that a file is not found there.
    const bool asFolder = (!path.empty() && path.back() == '/') || (path.size() >= 2 && path.compare(path.size() - 2, 2, "/.") == 0);
    std::vector<std::string> parts;
    std::string kept; // the parts from the first ".." that is left, as written
    size_t i = 0;
    while (i <= path.size() && kept.empty()) {
        const size_t slash = std::min(path.find('/', i), path.size());
        const std::string part = path.substr(i, slash - i);
        const size_t next = slash + 1;
        if (part == "..") {
            std::string folder = absolute ? "" : ".";
            for (const std::string& p : parts)
                folder += "/" + p;
            struct stat st;
            if (!parts.empty() && parts.back() != ".." && ::lstat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
                parts.pop_back();
            else if (parts.empty() && absolute)
                ; // "/.." is "/"
            else if (parts.empty() || parts.back() == "..")
                parts.push_back(part); // a relative path that climbs from where it starts
            else
                kept = path.substr(i);
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        i = next;
    }
    std::string out = absolute ? "/" : "";
    for (size_t k = 0; k < parts.size(); ++k)
        out += (k > 0 ? "/" : "") + parts[k];
    if (!kept.empty())
        out += (out.empty() || out.back() == '/' ? "" : "/") + kept;
    else if (asFolder && !out.empty() && out.back() != '/')
        out += '/';
    return out.empty() ? std::string(".") : out;
}
#endif

// The file that `target`, a reference's file name, names from the library `fileName`: relative to the
// library's folder. On Windows a name that is no UTF-8 is in the ANSI code page, as the system reads
// such names, and the path is cleaned as the system cleans it; elsewhere a name is its bytes, kept as
// they are (the library's folder too), and the path is cleaned only where that changes no file.
YString referencedFile(std::string_view target, const YString& fileName)
{
#ifdef _WIN32
    QTextCodec::ConverterState state;
    QString t = QTextCodec::codecForMib(106)->toUnicode(target.data(), static_cast<int>(target.size()), &state);
    if (state.invalidChars != 0 || state.remainingChars != 0)
        t = QString::fromLocal8Bit(target.data(), static_cast<int>(target.size()));
    if (QDir::isAbsolutePath(t) || fileName.isEmpty())
        return toYs(QDir::cleanPath(t));
    return toYs(QDir::cleanPath(QFileInfo(toQs(fileName)).absolutePath() + QLatin1Char('/') + t));
#else
    std::string path(target);
    if (path.empty() || path[0] != '/') {
        if (!fileName.isEmpty()) {
            std::string folder = fileName.str();
            const size_t slash = folder.rfind('/');
            folder = slash == std::string::npos ? std::string() : folder.substr(0, slash + 1);
            if (folder.empty() || folder[0] != '/') {
                std::vector<char> current(PATH_MAX + 1);
                if (::getcwd(current.data(), current.size()))
                    folder = std::string(current.data()) + "/" + folder;
            }
            path = folder + (folder.empty() || folder.back() == '/' ? "" : "/") + path;
        }
    }
    return YString(systemPath(path).c_str());
#endif
}

// One pass over the text, a physical line at a time; a statement is processed once the next line that
// is neither blank, a comment nor a "+" continuation shows that it has ended. Only statements that
// start with "." and the element lines of subcircuits are kept until then; other lines are passed
// after a look at their first byte.
class Scanner {
public:
    Scanner(Window& window, size_t expected, ModelLibIndex* index) : m_window(window), m_expected(expected), m_index(index)
    {
        m_icc = index->language == SpiceLanguageHspice ? '$' : ';';
        m_startIcc = m_icc;
        m_elementWords = index->elementWords;
    }

    // The scan of part `self` of `parts`, which starts where the window does.
    Scanner(Window& window, std::vector<IndexPart>& parts, size_t self)
        : Scanner(window, parts[self].expected, parts[self].index)
    {
        m_parts = &parts;
        m_self = self;
        m_origin = parts[self].start;
        watchPart(self + 1);
    }

    void run()
    {
        Window& w = m_window;
        w.refill(w.base());
        char* p = w.begin();
        // A UTF-8 byte-order mark that begins the text is no part of its first line: left there, it
        // would hide a first line's keyword, such as ".model".
        if (w.base() == 0 && w.end() - p >= 3 && std::memcmp(p, "\xEF\xBB\xBF", 3) == 0)
            p += 3;
        int line = 0;
        for (;;) {
            if (p == w.end()) {
                if (w.exhausted())
                    break;
                char* q = p;
                refill(&p, &q);
                continue;
            }
            if (at(p) >= m_checkAt && checkpoint(at(p))) {
                m_index->lines = line;
                (*m_parts)[m_self].next = m_nextPart;
                return;
            }
            ++line;
            char* q = const_cast<char*>(m_finder.next(p, w.end()));
            bool dirty = false;
            char* contentEnd;
            char* next;
            for (;;) {
                if (q == w.end()) {
                    if (!w.exhausted()) {
                        refill(&p, &q);
                        q = const_cast<char*>(m_finder.next(q, w.end()));
                        continue;
                    }
                    contentEnd = next = q;
                    break;
                }
                const unsigned char c = static_cast<unsigned char>(*q);
                if (c == '\n') {
                    contentEnd = q;
                    next = q + 1;
                    break;
                }
                if (c == '\r') {
                    if (q + 1 == w.end() && !w.exhausted()) {
                        refill(&p, &q);
                        continue;
                    }
                    contentEnd = q;
                    next = q + 1 < w.end() && q[1] == '\n' ? q + 2 : q + 1;
                    break;
                }
                if (c == 0xFF) {
                    // The end mark: the text ends here, as SpiceStream's input does.
                    w.cut(q);
                    contentEnd = next = q;
                    break;
                }
                dirty = true;
                q = const_cast<char*>(m_finder.next(q + 1, w.end()));
            }
            if (next == p) {
                --line; // the text ended where this line would have begun
                break;
            }
            onLine(p, contentEnd, next, dirty, line);
            p = next;
        }
        m_size = w.base() + static_cast<size_t>(w.end() - w.begin());
        m_index->size = static_cast<long long>(m_size);
        if (m_pending != None)
            finishStatement();
        m_index->lines = line;
        finishFile(line);
    }

    // At the first line at or after the start of the next part: whether this scan stops, its state being
    // the one the next part started with. The part's first line begins with ".", so it ends the statement
    // pending here as it would when read. Otherwise the next part is abandoned and the scan goes on to
    // the part after it.
    bool checkpoint(size_t position)
    {
        IndexPart& there = (*m_parts)[m_nextPart];
        if (position == there.start) {
            if (m_pending != None)
                finishStatement();
            int state = IndexPart::Open;
            if (m_subckts.empty() && m_section < 0 && m_icc == m_startIcc) {
                if (there.state.compare_exchange_strong(state, IndexPart::Claimed) || state == IndexPart::Claimed)
                    return true;
            } else {
                there.state.compare_exchange_strong(state, IndexPart::Abandoned);
            }
        }
        watchPart(m_nextPart + 1);
        return false;
    }

    // Makes the start of part `k` (if there is one) the next checkpoint.
    void watchPart(size_t k)
    {
        m_nextPart = k;
        m_checkAt = k < m_parts->size() ? (*m_parts)[k].start : SIZE_MAX;
    }

private:
    enum Pending { None, Keyword, Element };

    // A physical line of the statement: its text after the "+" (or from the statement's first byte) up
    // to the line end, and whether it holds bytes the filter drops. Pointers into the window, moved with
    // it, or into a block the lines were copied to (see detachSegments).
    struct Segment {
        const char* begin;
        const char* end;
        bool dirty;
    };

    size_t at(const char* p) const { return m_window.base() + static_cast<size_t>(p - m_window.begin()); }
    const char* ptr(size_t position) const { return m_window.begin() + (position - m_window.base()); }

    // More text, keeping the line `*p` and the lines of the statement being read; `*p` and `*q` follow
    // the move. The statement's lines stay in the window while the text from them to `*p` is short; past
    // that they are copied out of it, so that the comment lines after a statement never hold the window.
    void refill(char** p, char** q)
    {
        const size_t pAt = at(*p);
        const size_t qAt = at(*q);
        size_t keep = pAt;
        m_positions.clear();
        if (m_pending != None && m_inWindowFrom < m_segments.size()) {
            const size_t first = at(m_segments[m_inWindowFrom].begin);
            if (pAt - first <= Window::kMost) {
                keep = first;
                for (size_t i = m_inWindowFrom; i < m_segments.size(); ++i) {
                    m_positions.push_back(at(m_segments[i].begin));
                    m_positions.push_back(at(m_segments[i].end));
                }
            } else {
                detachSegments();
            }
        }
        if (m_parts && (*m_parts)[m_self].state.load(std::memory_order_relaxed) == IndexPart::Abandoned)
            throw PartAbandoned();
        m_window.refill(keep);
        for (size_t i = m_inWindowFrom, k = 0; k < m_positions.size(); ++i, k += 2) {
            m_segments[i].begin = ptr(m_positions[k]);
            m_segments[i].end = ptr(m_positions[k + 1]);
        }
        *p = const_cast<char*>(ptr(pAt));
        *q = const_cast<char*>(ptr(qAt));
        m_finder.reset();
    }

    // Copies the statement's lines that are in the window to a block of their own, one after the other
    // and with Window::kSpare zero bytes after the last, so that the bytes after each stay readable.
    void detachSegments()
    {
        size_t bytes = Window::kSpare;
        for (size_t i = m_inWindowFrom; i < m_segments.size(); ++i)
            bytes += static_cast<size_t>(m_segments[i].end - m_segments[i].begin);
        std::unique_ptr<char[]> block(new char[bytes]());
        char* o = block.get();
        for (size_t i = m_inWindowFrom; i < m_segments.size(); ++i) {
            Segment& seg = m_segments[i];
            const size_t n = static_cast<size_t>(seg.end - seg.begin);
            if (n)
                std::memcpy(o, seg.begin, n);
            seg.begin = o;
            seg.end = o + n;
            o += n;
        }
        m_detached.push_back(std::move(block));
        m_inWindowFrom = m_segments.size();
    }

    void onLine(const char* p, const char* contentEnd, const char* next, bool dirty, int line)
    {
        // The first byte that the readers see on the line.
        const char* s = p;
        if (dirty) {
            while (s < contentEnd && (*s == ' ' || *s == '\t' || !netlist::keeps(static_cast<unsigned char>(*s))))
                ++s;
        } else {
            while (s < contentEnd && (*s == ' ' || *s == '\t'))
                ++s;
        }
        if (s == contentEnd)
            return; // blank
        const char c = *s;
        if (c == '*' || c == m_icc) {
            if (!m_sawStatement && c == '*')
                directive(s, contentEnd);
            return;
        }
        if (c == '+' && m_sawStatement) {
            if (m_pending != None) {
                m_segments.add(s + 1, contentEnd, dirty);
                m_stmtEndAt = at(next);
                m_stmtLastLine = line;
            }
            return;
        }
        if (m_pending != None)
            finishStatement();
        m_sawStatement = true;
        // A statement starts with a byte the readers keep that is no blank and no comment character; an
        // element's first word is empty only when that byte is one of "=(),".
        m_pending = c == '.' ? Keyword : m_elementWords && !m_subckts.empty() && !isDelimiter(c) ? Element : None;
        if (m_pending == None)
            return;
        m_segments.clear();
        m_inWindowFrom = 0;
        m_detached.clear();
        m_segments.add(s, contentEnd, dirty);
        m_stmtLine = m_stmtLastLine = line;
        m_stmtStartAt = at(s);
        m_stmtEndAt = at(next);
    }

    // A "*#" comment before the first statement may set the dialect, as SpiceStream's directives do.
    void directive(const char* s, const char* end)
    {
        if (end - s < 2 || s[1] != '#')
            return;
        // SpiceStream keeps the first 198 characters of a directive's text and drops the rest.
        words(std::string_view(s + 2, std::min<size_t>(198, static_cast<size_t>(end - s - 2))), &m_words, 1);
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
    // A single line without dropped bytes is its text where it lies (the window or a block it was copied
    // to), and is not cut at its comment character (the word scanner cuts it); `cutComment` cuts it here.
    // The 64 bytes after the line are readable either way.
    MODELLIB_INLINE std::string_view logical(size_t maxSegments = SIZE_MAX, bool cutComment = false)
    {
        const Segment& first = m_segments.front();
        if ((m_segments.size() == 1 || maxSegments == 1) && !first.dirty) {
            const char* b = first.begin;
            const size_t n = static_cast<size_t>(first.end - first.begin);
            const char* cut = cutComment ? static_cast<const char*>(std::memchr(b, m_icc, n)) : nullptr;
            return std::string_view(b, cut ? static_cast<size_t>(cut - b) : n);
        }
        return joined(maxSegments);
    }

    MODELLIB_NOINLINE std::string_view joined(size_t maxSegments)
    {
        m_line.clear();
        size_t n = 0;
        for (const Segment& seg : m_segments) {
            if (n++ == maxSegments)
                break;
            if (n > 1)
                m_line.push_back(' ');
            const char* b = seg.begin;
            const char* e = seg.end;
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
        const size_t length = m_line.size();
        m_line.append(Window::kSpare, '\0');
        return std::string_view(m_line.data(), length);
    }

    // The rest of the statement's logical line `text` after its keyword (up to a separator, the comment
    // character or a byte below 32): measured on the text the readers see, which lacks the dropped bytes.
    std::string_view afterKeyword(std::string_view text) const
    {
        size_t x = 0;
        while (x < text.size() && !isDelimiter(text[x]) && text[x] != m_icc && static_cast<unsigned char>(text[x]) >= 32)
            ++x;
        return text.substr(x);
    }

    void diagnose(int line, const std::string& message) { m_index->diagnostics.push_back({line, YString(message.c_str())}); }


    void addReference(ModelLibReference::Kind kind, std::string_view target, std::string_view section)
    {
        ModelLibReference ref;
        ref.kind = kind;
        ref.target = ys(target);
        ref.section = ys(section);
        ref.line = m_stmtLine;
        ref.inSection = m_section;
        ref.path = referencedFile(target, m_index->fileName);
        const int at = static_cast<int>(m_index->references.size());
        m_index->references.push_back(ref);
        if (m_section >= 0)
            m_index->sections[static_cast<size_t>(m_section)].references.push_back(at);
    }

    // The statement read: what it defines or opens is taken, and its copied lines are let go.
    void finishStatement()
    {
        takeStatement();
        m_detached.clear();
    }

    void takeStatement()
    {
        const Pending pending = m_pending;
        m_pending = None;
        if (pending == Element) {
            element(*m_segments.front().begin);
            return;
        }
        // The keyword: the first word lowered, compared eight bytes at a time (the window and the joined
        // line have bytes to spare after the text). A line with bytes the readers drop is matched as they
        // read it, so that ".mo\x01del" is ".model".
        const Segment& seg = m_segments.front();
        const std::string_view text = seg.dirty ? logical(1) : std::string_view(seg.begin, static_cast<size_t>(seg.end - seg.begin));
        const char* b = text.data();
        const size_t length = text.size();
        uint64_t head;
        std::memcpy(&head, b, 8);
        head = lowerAscii(head);
        const auto is = [&](uint64_t keyword, size_t n) {
            if (length < n || (head & kKeepBytes[n]) != keyword)
                return false;
            if (length == n)
                return true;
            const char c = b[n];
            return isDelimiter(c) || c == m_icc || static_cast<unsigned char>(c) < 32;
        };
        if (is(packed(".model"), 6))
            model();
        else if (is(packed(".ends"), 5))
            ends();
        else if (is(packed(".subckt"), 7))
            subckt();
        else if (is(packed(".lib"), 4))
            lib();
        else if (is(packed(".endl"), 5))
            endl();
        else if (is(packed(".include"), 8) || is(packed(".inc"), 4) || is(packed(".incl"), 5))
            include();
        else if (is(packed(".param"), 6) && m_subckts.empty())
            param();
    }

    // The room to give a list when it is full: its size so far extrapolated over the rest of the text
    // (at most 64 times the room so far, so that a dense head of a file asks for no more memory than
    // that), so that a large library moves its lists once or twice instead of at each doubling. The
    // middle of the window stands for the place reached.
    size_t room(size_t count, size_t least) const
    {
        if (count < least)
            return std::max<size_t>(16, count * 2);
        const size_t position = m_window.base() - m_origin + static_cast<size_t>(m_window.end() - m_window.begin()) / 2;
        const double done = static_cast<double>(position + 1);
        const double estimate = static_cast<double>(count) * (static_cast<double>(std::max(m_expected, position)) / done) * 1.1 + 16;
        return std::min(count * 64, std::max(count * 2, static_cast<size_t>(estimate)));
    }

    // Appends the words to the index's word store, each ended by a byte 0; returns where they start.
    unsigned store(std::initializer_list<std::string_view> list)
    {
        std::string& out = m_index->words;
        size_t n = 0;
        for (std::string_view w : list)
            n += w.size() + 1;
        const size_t at = out.size();
        if (at + n > out.capacity())
            out.reserve(std::max(room(out.size(), 16384), at + n));
        // Gathered first, so that the store grows by one append and is not cleared first.
        char gathered[256];
        char* o = n <= sizeof gathered ? gathered : nullptr;
        if (!o) {
            out.resize(at + n);
            o = &out[at];
        }
        char* const first = o;
        for (std::string_view w : list) {
            if (!w.empty()) // an absent type or AKO base has no bytes to copy, nor a pointer to them
                std::memcpy(o, w.data(), w.size());
            o += w.size();
            *o++ = '\0';
        }
        if (first == gathered)
            out.append(gathered, n);
        return static_cast<unsigned>(at);
    }

    // A new definition of the statement, built in place at the end of the index's list.
    MODELLIB_INLINE ModelLibDefinition& addDefinition(ModelLibDefinition::Kind kind)
    {
        std::vector<ModelLibDefinition>& list = m_index->definitions;
        if (list.size() == list.capacity())
            list.reserve(room(list.size(), 1024));
        const int number = static_cast<int>(list.size());
        ModelLibDefinition& d = list.emplace_back();
        d.kind = kind;
        d.section = m_subckts.empty() ? m_section : -1;
        d.parent = m_subckts.empty() ? -1 : m_subckts.back();
        d.start = static_cast<int>(m_stmtStartAt);
        d.end = static_cast<int>(m_stmtEndAt);
        d.line = m_stmtLine;
        d.lastLine = m_stmtLastLine;
        if (d.parent < 0 && m_section >= 0)
            m_index->sections[static_cast<size_t>(m_section)].definitions.push_back(number);
        return d;
    }

    static bool isParamsWord(std::string_view w)
    {
        return (w.size() == 7 || w.size() == 6) && w.back() == ':' && (equalsNoCase(w, "params:") || equalsNoCase(w, "param:"));
    }

    void model()
    {
        // The name, type and AKO base stand on the first line nearly always: the rest is joined only
        // when they do not.
        // Words 1 to 4 (the keyword is word 0), each held by name so that they stay in registers.
        std::string_view w1, w2, w3, w4;
        bool a2 = false, a3 = false, a4 = false;
        size_t count = 0;
        const auto take = [&](std::string_view text, bool assigned) {
            switch (count++) {
            case 0: return true;
            case 1: w1 = text; return true;
            case 2: w2 = text; a2 = assigned; return true;
            case 3: w3 = text; a3 = assigned; return true;
            default: w4 = text; a4 = assigned; return false;
            }
        };
        forEachWord(logical(1), m_icc, take);
        if (count < 4 && m_segments.size() > 1) {
            count = 0;
            forEachWord(logical(), m_icc, take);
        }
        if (count < 2) {
            diagnose(m_stmtLine, ".model without a name");
            return;
        }
        std::string_view ako;
        std::string_view type = count > 2 && !a2 ? w2 : std::string_view();
        if (count > 2 && w2.size() >= 4 && (lowerAscii(packed4(w2.data())) == packed("ako:"))) {
            if (w2.size() > 4) {
                ako = w2.substr(4);
                type = count > 3 && !a3 ? w3 : std::string_view();
            } else if (count > 3) {
                ako = w3;
                type = count > 4 && !a4 ? w4 : std::string_view();
            }
        }
        const unsigned words = store({w1, type, ako});
        addDefinition(ModelLibDefinition::Model).words = words;
    }

    void subckt()
    {
        // The name, an empty type and AKO base, the ports (the words before "params:" or the first
        // NAME=VALUE): the subcircuit's words start so when it closes.
        std::string& head = m_head;
        head.clear();
        size_t count = 0;
        forEachWord(logical(), m_icc, [&](std::string_view text, bool assigned) {
            if (count == 1) {
                head.append(text.data(), text.size());
                head.append(3, '\0');
            } else if (count > 1) {
                if (assigned || isParamsWord(text))
                    return false;
                head.append(text.data(), text.size());
                head.push_back('\0');
            }
            ++count;
            return true;
        });
        if (count < 2) {
            diagnose(m_stmtLine, ".subckt without a name");
            return;
        }
        head.push_back('\0');
        addDefinition(ModelLibDefinition::Subckt);
        m_subckts.push_back(static_cast<int>(m_index->definitions.size()) - 1);
        if (m_levels.size() < m_subckts.size())
            m_levels.emplace_back();
        SubcktLevel& level = m_levels[m_subckts.size() - 1];
        level.open(m_subckts.back());
        level.head.swap(head);
    }

    void closeSubckt(size_t end, int lastLine)
    {
        SubcktLevel& level = m_levels[m_subckts.size() - 1];
        std::string& out = m_index->words;
        const std::string& instances = level.list(SubcktLevel::Instance);
        const std::string& uses = level.list(SubcktLevel::Use);
        const size_t n = level.head.size() + instances.size() + uses.size() + 2;
        if (out.size() + n > out.capacity())
            out.reserve(std::max(room(out.size(), 16384), out.size() + n));
        const unsigned words = static_cast<unsigned>(out.size());
        out.resize(out.size() + n); // the two list ends are the zeros it adds
        char* o = &out[words];
        std::memcpy(o, level.head.data(), level.head.size());
        o += level.head.size();
        std::memcpy(o, instances.data(), instances.size());
        o += instances.size() + 1;
        std::memcpy(o, uses.data(), uses.size());
        ModelLibDefinition& d = m_index->definitions[static_cast<size_t>(m_subckts.back())];
        d.words = words;
        d.end = static_cast<int>(end);
        d.lastLine = lastLine;
        m_subckts.pop_back();
    }

    void ends()
    {
        if (m_subckts.empty()) {
            diagnose(m_stmtLine, ".ends without a .subckt");
            return;
        }
        closeSubckt(m_stmtEndAt, m_stmtLastLine);
    }

    // An element line of a subcircuit: its words after the first that are neither NAME= nor start with
    // a digit are uses; on an "X" line the last word before the parameters (the first NAME= or
    // "params:") is the instance's subcircuit instead. One pass: a word waits until the next one shows
    // whether it was that last one.
    void element(char first)
    {
        SubcktLevel& level = m_levels[m_subckts.size() - 1];
        const std::string_view line = logical();
        bool bounded = first != 'x' && first != 'X'; // no instance to look for, or found
        if (bounded && line.size() <= 64) {
            plainElement(level, line);
            return;
        }
        bool named = false; // the element's own name is no use
        std::string_view pending;
        forEachWord(line, m_icc, [&](std::string_view word, bool assigned) {
            if (!named) {
                named = true;
                return true;
            }
            if (!bounded) {
                if (!assigned && !isParamsWord(word)) {
                    if (!pending.empty())
                        addUse(level, pending);
                    pending = word;
                    return true;
                }
                bounded = true;
                if (!pending.empty())
                    level.add(pending, SubcktLevel::Instance);
                pending = std::string_view();
            }
            if (!assigned)
                addUse(level, word);
            return true;
        });
        if (!pending.empty())
            level.add(pending, SubcktLevel::Instance);
    }

    // The uses of an element line that names no instance, of at most 64 bytes: its words after the first
    // that are neither NAME= nor start with a digit, split as `nextWord` splits them, read off bit masks.
    // Element lines of a subcircuit repeat their nodes and models: the words of the stretch that the line
    // shares with the level's previous such line (counted from their second words) were listed with
    // that line, all but the last one, whose end or "=" may lie past the stretch.
    MODELLIB_INLINE void plainElement(SubcktLevel& level, std::string_view line)
    {
        const char* const p = line.data();
        size_t n = line.size();
        const WordMasks m = wordMasks(p, static_cast<int>(n + 15) / 16, m_icc);
        uint64_t valid = n >= 64 ? ~0ull : (1ull << n) - 1;
        if (m.stops & valid) {
            n = static_cast<size_t>(lowestBit64(m.stops & valid));
            valid = (1ull << n) - 1;
        }
        const uint64_t delimiters = m.delimiters | ~valid;
        const uint64_t nonBlanks = ~(m.blanks & valid);
        const uint64_t equals = m.equals & valid;
        uint64_t starts = ~delimiters & ((delimiters << 1) | 1);
        starts &= starts - 1; // the element's own name
        if (!starts)
            return;
        const size_t second = static_cast<size_t>(lowestBit64(starts));
        const size_t rest = n - second;
        if (level.previousLength != SIZE_MAX) {
            const uint64_t differ = ~equalBytes64(p + second, level.previous);
            const size_t shared = std::min({differ ? static_cast<size_t>(lowestBit64(differ)) : size_t(64), rest, level.previousLength});
            const size_t stretch = second + shared;
            const uint64_t within = starts & (stretch >= 64 ? ~0ull : (1ull << stretch) - 1);
            if (within)
                starts = (starts & ~within) | (1ull << highestBit64(within));
        }
        std::memcpy(level.previous, p + second, 64);
        level.previousLength = rest;
        starts &= ~m.digits; // values
        while (starts) {
            const int b = lowestBit64(starts);
            starts &= starts - 1;
            const uint64_t after = delimiters >> b;
            const int e = after ? b + lowestBit64(after) : 64;
            if (e < 64) {
                const uint64_t next = nonBlanks >> e;
                if (next && ((equals >> (e + lowestBit64(next))) & 1))
                    continue; // NAME=
            }
            level.add(std::string_view(p + b, static_cast<size_t>(e - b)), SubcktLevel::Use);
        }
    }

    static void addUse(SubcktLevel& level, std::string_view word)
    {
        if (word[0] < '0' || word[0] > '9')
            level.add(word, SubcktLevel::Use);
    }

    void lib()
    {
        const std::string_view text = logical(SIZE_MAX, true);
        const std::string_view rest = afterKeyword(text);
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
            open.end = static_cast<int>(m_stmtStartAt);
            open.endLine = m_stmtLine - 1;
        }
        ModelLibSection s;
        s.name = ys(first);
        s.line = m_stmtLine;
        s.start = static_cast<int>(m_stmtStartAt);
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
        // The name is read as ".lib" reads its own, quotes and all.
        std::string_view after;
        const std::string_view name = fileArgument(afterKeyword(logical(SIZE_MAX, true)), &after);
        if (!name.empty() && lower(name) != lower(s.name.str()))
            diagnose(m_stmtLine, ".endl " + std::string(name) + " ends section " + s.name.str());
        s.end = static_cast<int>(m_stmtEndAt);
        s.endLine = m_stmtLastLine;
        s.closed = true;
        m_section = -1;
    }

    void include()
    {
        const std::string_view text = logical(SIZE_MAX, true);
        std::string_view after;
        const std::string_view file = fileArgument(afterKeyword(text), &after);
        if (file.empty()) {
            diagnose(m_stmtLine, ".include without a file");
            return;
        }
        addReference(ModelLibReference::Include, file, std::string_view());
    }

    void param()
    {
        std::vector<Word>& w = m_words;
        words(logical(SIZE_MAX, true), &w);
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
            diagnose(d.line, "subcircuit " + std::string(m_levels[m_subckts.size() - 1].head.c_str()) + " is not closed by .ends");
            closeSubckt(m_size, lines);
        }
        if (m_section >= 0) {
            ModelLibSection& s = m_index->sections[static_cast<size_t>(m_section)];
            diagnose(s.line, "section " + s.name.str() + " is not closed by .endl");
            s.end = static_cast<int>(m_size);
            s.endLine = lines;
        }
    }

    Window& m_window;
    SpecialFinder m_finder;
    size_t m_expected; ///< the bytes from `m_origin` on that the scan is expected to cover
    size_t m_origin = 0; ///< where the scan started
    std::vector<IndexPart>* m_parts = nullptr; ///< the parts when several threads share the text
    size_t m_self = 0;
    size_t m_nextPart = 0;       ///< the part whose start is the next checkpoint
    size_t m_checkAt = SIZE_MAX; ///< its start
    char m_startIcc = ';';       ///< the comment character the scan started with
    size_t m_size = 0;
    ModelLibIndex* m_index;
    char m_icc = ';';
    bool m_elementWords = true; ///< whether element lines are kept and split
    bool m_sawStatement = false;
    Pending m_pending = None;
    // The statement's physical lines; the storage is kept from one statement to the next.
    class Segments {
    public:
        void clear() { m_count = 0; }
        // Stores the fields one by one: a segment built on the stack and copied whole is read back
        // before its stores have landed, which stalls the line loop.
        MODELLIB_INLINE void add(const char* begin, const char* end, bool dirty)
        {
            if (m_count == m_items.size())
                m_items.emplace_back();
            Segment& segment = m_items[m_count++];
            segment.begin = begin;
            segment.end = end;
            segment.dirty = dirty;
        }
        size_t size() const { return m_count; }
        Segment& operator[](size_t i) { return m_items[i]; }
        const Segment& front() const { return m_items[0]; }
        const Segment* begin() const { return m_items.data(); }
        const Segment* end() const { return m_items.data() + m_count; }

    private:
        std::vector<Segment> m_items;
        size_t m_count = 0;
    };
    Segments m_segments;
    size_t m_stmtStartAt = 0; ///< position of the statement's first byte
    size_t m_stmtEndAt = 0;   ///< position just after the statement's last physical line
    size_t m_inWindowFrom = 0; ///< the first of the statement's lines that is still in the window
    std::vector<std::unique_ptr<char[]>> m_detached; ///< the statement's lines copied out of the window
    std::vector<size_t> m_positions; ///< the statement's pointers as positions while the window moves
    int m_stmtLine = 0;
    int m_stmtLastLine = 0;
    int m_section = -1;
    std::vector<int> m_subckts;
    std::vector<SubcktLevel> m_levels; ///< one per open subcircuit level, kept when the level closes
    std::vector<Word> m_words;
    std::string m_head; ///< a subcircuit's name and ports being gathered
    std::string m_line;
};

// Whether `index` is what `forgetIndex` leaves: memory ran out while it was made.
bool ranOutOfMemory(const ModelLibIndex& index)
{
    return index.definitions.empty() && index.sections.empty() && index.diagnostics.size() == 1 &&
           index.diagnostics[0].line == 0 && index.diagnostics[0].message == "out of memory while indexing";
}

// A partial index could name definitions wrongly: after a failure to allocate nothing is kept but the
// remark (nor that when even it finds no memory).
void forgetIndex(ModelLibIndex* index)
{
    index->definitions.clear();
    index->sections.clear();
    index->references.clear();
    index->params.clear();
    index->words.clear();
    index->diagnostics.clear();
    try {
        index->diagnostics.push_back({0, YString("out of memory while indexing")});
    } catch (...) {
    }
}

// The smallest share of a text that gets a thread of its own: far more work than starting the thread.
constexpr size_t kPartBytes = 8 * 1024 * 1024;
// How far past its share a part's first line is looked for.
constexpr size_t kPartSearch = 1024 * 1024;

// The number of parts to index `size` bytes in: one per processor, at most 8, each of at least
// kPartBytes. SUPPORTQT_INDEX_PARTS (1 to 64) sets it for any size, so that the tests can split small
// texts.
size_t partCount(size_t size)
{
    if (const char* forced = std::getenv("SUPPORTQT_INDEX_PARTS")) {
        char* end = nullptr;
        const long n = std::strtol(forced, &end, 10);
        if (end != forced && *end == '\0' && n >= 1)
            return static_cast<size_t>(std::min(n, 64L));
    }
    const size_t processors = std::max(1u, std::thread::hardware_concurrency());
    return std::max<size_t>(1, std::min({processors, size_t(8), size / kPartBytes}));
}

// Whether the `n` bytes at `p` begin a line ".model" or ".subckt" followed by a blank, in any case:
// where a definition starts, nearly always outside any subcircuit or section, so that a part starting
// there usually joins the part before.
bool opensDefinition(const char* p, size_t n)
{
    const auto is = [&](std::string_view keyword) {
        return n > keyword.size() && equalsNoCase(std::string_view(p, keyword.size()), keyword) &&
               (p[keyword.size()] == ' ' || p[keyword.size()] == '\t');
    };
    return n > 0 && p[0] == '.' && (is(".model") || is(".subckt"));
}

// The first position of each part: 0, then for each further share the first line at or after it that
// opens a definition (`opensDefinition`). A share with no such line within kPartSearch joins the part
// before. `read(position, buffer, n)` reads up to `n` bytes of the text.
template <class Read>
std::vector<size_t> partStarts(size_t size, size_t count, Read&& read)
{
    std::vector<size_t> starts{0};
    constexpr size_t kBuffer = 64 * 1024;
    constexpr size_t kOverlap = 9; // a line feed and ".subckt ": the next read starts this far back
    const std::unique_ptr<char[]> held(new char[kBuffer]);
    char* const buffer = held.get();
    for (size_t k = 1; k < count; ++k) {
        const size_t from = std::max(size / count * k, starts.back() + 1);
        const size_t limit = std::min(size, from + kPartSearch);
        // The byte before `from` is read too, so that a line feed just before it counts.
        for (size_t at = from - 1; at + 1 < limit;) {
            const size_t n = read(at, buffer, std::min(kBuffer, limit - at));
            if (n <= kOverlap)
                break;
            const char* p = buffer;
            const char* found = nullptr;
            while (!found && (p = static_cast<const char*>(std::memchr(p, '\n', n - 1 - static_cast<size_t>(p - buffer))))) {
                if (opensDefinition(p + 1, static_cast<size_t>(buffer + n - (p + 1))))
                    found = p + 1;
                ++p;
            }
            if (found) {
                starts.push_back(at + static_cast<size_t>(found - buffer));
                break;
            }
            at += n - kOverlap;
        }
    }
    return starts;
}

// Where a later part's findings go in the joined index: the counts of the parts before it.
struct PartShift {
    int lines = 0;
    int definitions = 0;
    int sections = 0;
    int references = 0;
    unsigned words = 0;
};

int shifted(int value, int by) { return value < 0 ? value : value + by; }

// Appends a later part's definitions to `into`, numbered after the parts before.
void appendDefinitions(ModelLibIndex* into, const ModelLibIndex& part, const PartShift& shift)
{
    // Shifted as they are copied, so that each record is read and written once.
    for (ModelLibDefinition d : part.definitions) {
        d.line += shift.lines;
        d.lastLine += shift.lines;
        d.section = shifted(d.section, shift.sections);
        d.parent = shifted(d.parent, shift.definitions);
        d.words += shift.words;
        into->definitions.push_back(d);
    }
}

// Appends the rest of a later part's findings to `into`: its words, sections, references, parameter
// names and diagnostics.
void appendRest(ModelLibIndex* into, ModelLibIndex& part, const PartShift& shift)
{
    into->words.append(part.words);
    for (ModelLibSection& s : part.sections) {
        s.line += shift.lines;
        s.endLine += shift.lines;
        for (int& d : s.definitions)
            d += shift.definitions;
        for (int& r : s.references)
            r += shift.references;
        into->sections.push_back(std::move(s));
    }
    for (ModelLibReference& r : part.references) {
        r.line += shift.lines;
        r.inSection = shifted(r.inSection, shift.sections);
        into->references.push_back(std::move(r));
    }
    for (YString& name : part.params)
        into->params.push_back(std::move(name));
    for (ModelLibDiagnostic& d : part.diagnostics) {
        d.line += shift.lines;
        into->diagnostics.push_back(std::move(d));
    }
}

// Joins into the first part's index the parts that follow it, each from the part that stopped at its
// start: the definitions on a thread of their own beside the rest, since for a large library both are
// copies of tens of megabytes. False when memory ran out; `*unreadable` tells whether a joined part
// could not read the file. May throw when memory runs out.
bool joinParts(std::vector<IndexPart>& parts, ModelLibIndex* into, bool* unreadable)
{
    std::vector<std::pair<IndexPart*, PartShift>> chain;
    PartShift shift;
    for (size_t k = 0;;) {
        IndexPart& part = parts[k];
        if (part.failed)
            return false;
        *unreadable = *unreadable || part.unreadable;
        if (k > 0)
            chain.emplace_back(&part, shift);
        const ModelLibIndex& found = *part.index;
        shift.lines += found.lines;
        shift.definitions += static_cast<int>(found.definitions.size());
        shift.sections += static_cast<int>(found.sections.size());
        shift.references += static_cast<int>(found.references.size());
        shift.words += static_cast<unsigned>(found.words.size());
        if (part.next == 0) {
            into->size = found.size;
            break;
        }
        k = part.next;
    }
    into->lines = shift.lines;
    std::atomic<bool> failed{false};
    const auto definitions = [&] {
        try {
            into->definitions.reserve(static_cast<size_t>(shift.definitions));
            for (const auto& [part, at] : chain)
                appendDefinitions(into, *part->index, at);
        } catch (...) {
            failed = true;
        }
    };
    std::thread helper;
    try {
        helper = std::thread(definitions);
    } catch (...) {
        definitions();
    }
    try {
        into->words.reserve(shift.words);
        for (const auto& [part, at] : chain)
            appendRest(into, *part->index, at);
    } catch (...) {
        failed = true;
    }
    if (helper.joinable())
        helper.join();
    return !failed;
}

// Indexes the text in `count` parts (see `indexText`). May throw when memory runs out.
bool indexInParts(const char* text, FILE* file, size_t size, size_t count, ModelLibIndex* index)
{
    std::mutex shared;
    const std::vector<size_t> starts = partStarts(size, count, [&](size_t at, char* buffer, size_t n) -> size_t {
        if (!file) {
            std::memcpy(buffer, text + at, n);
            return n;
        }
        return std::fseek(file, static_cast<long>(at), SEEK_SET) == 0 ? std::fread(buffer, 1, n, file) : 0;
    });
    std::vector<IndexPart> parts(starts.size());
    for (size_t k = 0; k < parts.size(); ++k) {
        IndexPart& part = parts[k];
        part.start = starts[k];
        part.expected = (k + 1 < starts.size() ? starts[k + 1] : size) - part.start;
        if (k > 0) {
            part.own.fileName = index->fileName;
            part.own.language = index->language;
            part.own.elementWords = index->elementWords;
        }
    }
    // The first part's lists are sized for the whole text, so that the others join them in place.
    parts[0].index = index;
    parts[0].expected = size;
    parts[0].state = IndexPart::Claimed;
    const auto scan = [&](size_t k) {
        IndexPart& part = parts[k];
        Window window = file ? Window(file, size, part.start, &shared) : Window(text, size, part.start);
        try {
            Scanner(window, parts, k).run();
        } catch (const PartAbandoned&) {
            return;
        } catch (...) {
            part.failed = true;
        }
        part.unreadable = window.failed();
    };
    std::vector<std::thread> threads;
    threads.reserve(parts.size() - 1);
    // Every thread started is joined before the parts go, however this function is left.
    struct Joiner {
        std::vector<std::thread>& threads;
        ~Joiner()
        {
            for (std::thread& thread : threads)
                if (thread.joinable())
                    thread.join();
        }
    } joiner{threads};
    // The last part starts first, so that each part's fate is settled before the part before it can
    // reach its start.
    for (size_t k = parts.size() - 1; k > 0; --k) {
        try {
            threads.emplace_back(scan, k);
        } catch (...) {
            parts[k].state = IndexPart::Abandoned; // no thread: the part before reads on through it
        }
    }
    scan(0);
    for (std::thread& thread : threads)
        thread.join();
    bool unreadable = false;
    if (!joinParts(parts, index, &unreadable))
        forgetIndex(index);
    return !unreadable;
}

// Remarks on each section that opens under the name of one before it (any case): a reference names a
// section by its name and reaches the first one only. Made on the whole index, whose parts may have
// been scanned apart.
void diagnoseRepeatedSections(ModelLibIndex* index)
{
    std::unordered_map<std::string, int> firstLine;
    for (const ModelLibSection& section : index->sections) {
        const auto first = firstLine.emplace(lower(section.name.str()), section.line);
        if (!first.second)
            index->diagnostics.push_back({section.line, YString(("section " + section.name.str() + " opens again (first at line " +
                                                                 std::to_string(first.first->second) +
                                                                 "): a reference to it reaches the first one only")
                                                                    .c_str())});
    }
}

// Indexes `size` bytes of `text`, or of `file` when it is set, into `index`: a long text in parts on
// threads of their own, their findings joined as one scan gives them. False when the file could not be
// read; when memory runs out the index holds only the remark.
bool indexText(const char* text, FILE* file, size_t size, ModelLibIndex* index)
{
    const size_t count = partCount(size);
    bool read = true;
    if (count == 1) {
        Window window = file ? Window(file, size) : Window(text, size);
        try {
            Scanner(window, size, index).run();
        } catch (...) {
            forgetIndex(index);
        }
        read = !window.failed();
    } else {
        try {
            read = indexInParts(text, file, size, count, index);
        } catch (...) {
            forgetIndex(index);
            return true;
        }
    }
    if (!ranOutOfMemory(*index)) {
        try {
            diagnoseRepeatedSections(index);
        } catch (...) {
            forgetIndex(index);
        }
    }
    return read;
}

// Opens a library as the readers read it and indexes it: a plain file a window at a time (not mapped:
// a file cut short by someone else while it is mapped would end the process), a UTF-16 file through its
// UTF-8 copy. Only a regular file is opened, so that a FIFO cannot stall the caller and a device such as
// /dev/zero cannot fill its memory.
ModelLibStatus indexFile(const YString& path, ModelLibIndex* index)
{
    struct Closer {
        void operator()(FILE* f) const { std::fclose(f); }
    };
    long long size = 0;
    const std::unique_ptr<FILE, Closer> file(path.isEmpty() ? nullptr : sp_OpenRegularFile(path.c_str(), LLONG_MAX, &size));
    if (!file)
        return ModelLibStatus::Unreadable;
    if (size > kMaxPosition)
        return ModelLibStatus::TooLarge;
    YString temp;
    // The UTF-8 copy is scratch, removed however this function is left: a failed removal changes nothing.
    struct Remover {
        const YString& path;
        ~Remover()
        {
            if (!path.isEmpty())
                (void)unlink_utf8(path.c_str());
        }
    } remover{temp};
    QByteArray decoded;
    const textfile::WideText wide = textfile::convertWide(path, &temp, &decoded);
    if (wide == textfile::WideText::Unheld)
        return ModelLibStatus::TooLarge;
    // The size asked at the open bounds the read: a file that grows meanwhile is read as it was.
    if (wide == textfile::WideText::NotWide)
        return indexText(nullptr, file.get(), static_cast<size_t>(size), index) ? ModelLibStatus::Ok : ModelLibStatus::Unreadable;
    index->wide = true;
    if (wide == textfile::WideText::InMemory) {
        if (decoded.size() > kMaxPosition)
            return ModelLibStatus::TooLarge;
        indexText(decoded.constData(), nullptr, static_cast<size_t>(decoded.size()), index);
        return ModelLibStatus::Ok;
    }
    // The UTF-8 copy is read a window at a time like a plain file, and closed before it is removed.
    long long copySize = 0;
    const std::unique_ptr<FILE, Closer> copy(sp_OpenRegularFile(temp.c_str(), LLONG_MAX, &copySize));
    if (!copy)
        return ModelLibStatus::Unreadable;
    if (copySize > kMaxPosition)
        return ModelLibStatus::TooLarge;
    return indexText(nullptr, copy.get(), static_cast<size_t>(copySize), index) ? ModelLibStatus::Ok : ModelLibStatus::Unreadable;
}

std::string key(std::string_view name) { return lower(name); }
std::string key(const YString& name) { return lower(name.str()); }

std::string where(const ModelLibIndex& file, int line) { return file.fileName.str() + ":" + std::to_string(line); }

const char* kindWord(ModelLibDefinition::Kind kind) { return kind == ModelLibDefinition::Subckt ? ".subckt" : ".model"; }

ModelLibProblem problem(ModelLibProblem::Kind kind, std::string_view name, const YString& file, int line, const std::string& message)
{
    ModelLibProblem p;
    p.kind = kind;
    p.name = ys(name);
    p.file = file;
    p.line = line;
    p.message = YString(message.c_str());
    return p;
}

ModelLibProblem problem(ModelLibProblem::Kind kind, const YString& name, const YString& file, int line, const std::string& message)
{
    return problem(kind, std::string_view(name.str()), file, line, message);
}

// What one call of the library learns of the files of a resolution while nobody but the library can
// change them, kept for each section it resolves over the same cache: the files whose section tables it
// made, and the files by the names that reached them and by their identities. A caller's own resolution
// starts a new one.
struct ResolverMemo {
    std::unordered_set<int> exact;
    std::unordered_map<std::string, int> byName;
    std::unordered_map<std::string, int> byPath;
    std::unordered_map<std::string, std::string> canonical;
    std::unordered_map<std::string, ModelLibStatus> failed;
    size_t namesKnown = 0;      // the files of the cache that `byName` holds
    size_t identitiesKnown = 0; // the files of the cache that `byPath` holds
    // Each unit read, (file, section index or -1 for its top level), with the reference that brought it
    // in, (file, reference index), or (-1, -1) for the root.
    std::map<std::pair<int, int>, std::pair<int, int>> unitVia;
};

// Resolves sections over a cache of indexed files.
class Resolver {
public:
    // The lookups trust the section tables of the files `memo.exact` names, and `memo`'s identities.
    Resolver(SpiceLanguage language, ModelLibResolution* r, ResolverMemo* memo)
        : m_language(language), m_r(r), m_memo(*memo), m_exact(memo->exact)
    {
        for (size_t& i = m_memo.namesKnown; i < r->files.size(); ++i)
            m_memo.byName[r->files[i].fileName.str()] = static_cast<int>(i);
    }

    // The key of the file `path` names: its identity when it exists, so that one file is one key
    // whatever names reach it (on Windows names that differ in case or short forms, and links
    // anywhere), else its clean absolute path.
    static std::string canonical(const YString& path)
    {
        unsigned long long device = 0, file = 0;
        if (filereplace::fileIdentity(path, &device, &file))
            return "#" + std::to_string(device) + ":" + std::to_string(file);
        const QFileInfo info(toQs(path));
        const QString c = info.canonicalFilePath();
        return (c.isEmpty() ? QDir::cleanPath(info.absoluteFilePath()) : c).toUtf8().toStdString();
    }

    // Index of the file in the cache, indexing it first; -1 with the status when it cannot be indexed. A
    // file is found by the name it was indexed under, else by its identity (another name of it): the
    // identities of the cached files are taken only once a name is not found, so that resolving section
    // after section over one cache looks at no file it has indexed.
    int load(const YString& path, ModelLibStatus* status)
    {
        const auto named = m_memo.byName.find(path.str());
        if (named != m_memo.byName.end()) {
            *status = ModelLibStatus::Ok;
            return named->second;
        }
        // A path is made canonical once: a file may be referred to many times.
        auto known = m_memo.canonical.find(path.str());
        if (known == m_memo.canonical.end())
            known = m_memo.canonical.emplace(path.str(), canonical(path)).first;
        const std::string& c = known->second;
        for (size_t& i = m_memo.identitiesKnown; i < m_r->files.size(); ++i)
            m_memo.byPath[canonical(m_r->files[i].fileName)] = static_cast<int>(i);
        const auto found = m_memo.byPath.find(c);
        if (found != m_memo.byPath.end()) {
            const auto failed = m_memo.failed.find(c);
            *status = failed == m_memo.failed.end() ? ModelLibStatus::Ok : failed->second;
            return *status == ModelLibStatus::Ok ? found->second : -1;
        }
        ModelLibIndex index;
        *status = sp_IndexModelLibrary(path, m_language, &index);
        // An index that memory ran out in is no empty file: the resolution fails, and nothing is kept.
        if (*status == ModelLibStatus::Ok && ranOutOfMemory(index))
            throw std::bad_alloc();
        if (*status != ModelLibStatus::Ok) {
            m_memo.byPath[c] = -1;
            m_memo.failed[c] = *status;
            return -1;
        }
        m_r->files.push_back(std::move(index));
        const int at = static_cast<int>(m_r->files.size()) - 1;
        m_memo.byPath[c] = at;
        m_memo.byName[path.str()] = at;
        m_memo.namesKnown = m_r->files.size();
        if (m_memo.identitiesKnown == static_cast<size_t>(at))
            m_memo.identitiesKnown = m_r->files.size();
        return at;
    }

    // Adds what (file, section) reaches; false when the file has no such section. References are
    // followed depth first, in line order, on a stack of its own: a chain of sections as long as a file
    // can hold takes memory, not the caller's stack.
    bool visit(int file, const std::string& section, int viaFile, int viaReference)
    {
        std::vector<Frame> frames;
        if (!enter(file, section, viaFile, viaReference, &frames))
            return false;
        while (!frames.empty()) {
            Frame& top = frames.back();
            if (top.next == top.items.size()) {
                m_open.erase(top.unit);
                frames.pop_back();
                continue;
            }
            const std::pair<int, int> item = top.items[top.next++];
            const int at = top.unit.first;
            if (item.second >= 0) {
                m_r->definitions.push_back({at, item.second, top.viaFile, top.viaReference});
                continue;
            }
            const int r = ~item.second;
            // The cache may grow while references are followed: the file and reference are looked up anew.
            const ModelLibReference ref = m_r->files[static_cast<size_t>(at)].references[static_cast<size_t>(r)];
            const YString from = m_r->files[static_cast<size_t>(at)].fileName;
            ModelLibStatus status = ModelLibStatus::Ok;
            const int target = load(ref.path, &status);
            if (target < 0) {
                if (status == ModelLibStatus::TooLarge)
                    m_r->problems.push_back(problem(ModelLibProblem::TooLargeFile, ref.path, from, ref.line,
                                                    where(m_r->files[static_cast<size_t>(at)], ref.line) + ": " +
                                                        ref.path.str() + " is larger than 2147483647 bytes"));
                else {
                    // Only regular files are read: a device or FIFO is named for what it is.
                    const QFileInfo info(toQs(ref.path));
                    const bool special = info.exists() && !info.isFile();
                    m_r->problems.push_back(problem(ModelLibProblem::MissingFile, ref.path, from, ref.line,
                                                    where(m_r->files[static_cast<size_t>(at)], ref.line) + ": " + ref.target.str() +
                                                        (special ? " is not a regular file (" : " does not exist or cannot be read (") +
                                                        ref.path.str() + ")"));
                }
                continue;
            }
            const std::string wanted = ref.kind == ModelLibReference::LibSection ? key(ref.section) : std::string();
            if (m_open.count(std::make_pair(target, wanted))) {
                const std::string what = m_r->files[static_cast<size_t>(target)].fileName.str() +
                                         (wanted.empty() ? std::string() : " section " + ref.section.str());
                m_r->problems.push_back(problem(ModelLibProblem::ReferenceCycle, ref.kind == ModelLibReference::LibSection ? ref.section : ref.path,
                                                from, ref.line,
                                                where(m_r->files[static_cast<size_t>(at)], ref.line) +
                                                    ": reference cycle: " + what + " is being read already; not followed"));
                continue;
            }
            // (`top` is not used past this point: entering may move the frames.)
            if (!enter(target, wanted, at, r, &frames))
                m_r->problems.push_back(problem(ModelLibProblem::MissingSection, ref.section, from, ref.line,
                                                where(m_r->files[static_cast<size_t>(at)], ref.line) + ": " +
                                                    ref.target.str() + " has no section " + ref.section.str()));
        }
        return true;
    }

private:
    // A (file, section) being read: its definitions and references in line order, and the next one.
    struct Frame {
        std::pair<int, std::string> unit;
        int viaFile, viaReference;
        std::vector<std::pair<int, int>> items; // (line, index): definitions as index, references as ~index
        size_t next = 0;
    };

    // The first section of the file named `section` (lower case), or -1.
    int sectionOf(int file, const std::string& section)
    {
        const ModelLibIndex& f = m_r->files[static_cast<size_t>(file)];
        ModelLibSectionKeys& keys = m_r->sectionKeys[file];
        // Made aside and then taken whole, so that memory that runs out leaves the old table, which the
        // next lookup finds stale again.
        const auto rebuild = [&] {
            YString fileName = f.fileName;
            decltype(keys.byName) byName;
            for (size_t i = 0; i < f.sections.size(); ++i)
                byName.emplace(key(f.sections[i].name), static_cast<int>(i));
            keys.byName.swap(byName);
            keys.fileName = std::move(fileName);
            keys.sections = f.sections.size();
            m_exact.insert(file);
        };
        if (!m_exact.count(file) && (keys.sections != f.sections.size() || keys.fileName != f.fileName))
            rebuild();
        auto at = keys.byName.find(section);
        if (m_exact.count(file))
            return at == keys.byName.end() ? -1 : at->second;
        // A table kept from an earlier resolution is checked against the file, which the caller may have
        // changed since: a hit must name a section of that name, and a miss makes the table anew.
        if (at == keys.byName.end() || static_cast<size_t>(at->second) >= f.sections.size() ||
            key(f.sections[static_cast<size_t>(at->second)].name) != section) {
            rebuild();
            at = keys.byName.find(section);
        }
        return at == keys.byName.end() ? -1 : at->second;
    }

    // Starts reading (file, section) on top of `frames`, unless it was read already; false when the
    // file has no such section.
    bool enter(int file, const std::string& section, int viaFile, int viaReference, std::vector<Frame>* frames)
    {
        std::pair<int, std::string> unit(file, section);
        if (m_done.count(unit))
            return true;
        const int sectionIndex = section.empty() ? -1 : sectionOf(file, section);
        if (!section.empty() && sectionIndex < 0)
            return false;
        m_done.insert(unit);
        m_open.insert(unit);
        m_memo.unitVia.emplace(std::make_pair(file, sectionIndex), std::make_pair(viaFile, viaReference));
        Frame frame{std::move(unit), viaFile, viaReference, {}, 0};
        const ModelLibIndex& f = m_r->files[static_cast<size_t>(file)];
        // Definitions and references in line order, as a simulator reads them.
        if (sectionIndex >= 0) {
            for (int d : f.sections[static_cast<size_t>(sectionIndex)].definitions)
                frame.items.push_back({f.definitions[static_cast<size_t>(d)].line, d});
            for (int r : f.sections[static_cast<size_t>(sectionIndex)].references)
                frame.items.push_back({f.references[static_cast<size_t>(r)].line, ~r});
        } else {
            for (size_t d = 0; d < f.definitions.size(); ++d)
                if (f.definitions[d].parent < 0 && f.definitions[d].section < 0)
                    frame.items.push_back({f.definitions[d].line, static_cast<int>(d)});
            for (size_t r = 0; r < f.references.size(); ++r)
                if (f.references[r].inSection < 0)
                    frame.items.push_back({f.references[r].line, ~static_cast<int>(r)});
        }
        std::stable_sort(frame.items.begin(), frame.items.end(),
                         [](const std::pair<int, int>& a, const std::pair<int, int>& b) { return a.first < b.first; });
        frames->push_back(std::move(frame));
        return true;
    }

    // A (file, section) pair as a hash key: a long chain of sections looks them up once per step.
    struct UnitHash {
        size_t operator()(const std::pair<int, std::string>& unit) const
        {
            return std::hash<std::string>()(unit.second) * 31u + static_cast<size_t>(unit.first);
        }
    };

    SpiceLanguage m_language;
    ModelLibResolution* m_r;
    ResolverMemo& m_memo;
    std::unordered_set<std::pair<int, std::string>, UnitHash> m_done;
    std::unordered_set<std::pair<int, std::string>, UnitHash> m_open; // being read: met again, a reference cycle
    std::unordered_set<int>& m_exact;
};

const ModelLibIndex& fileOf(const ModelLibResolution& r, const ModelLibReached& reached)
{
    return r.files[static_cast<size_t>(reached.file)];
}

const ModelLibDefinition& defOf(const ModelLibResolution& r, const ModelLibReached& reached)
{
    return fileOf(r, reached).definitions[static_cast<size_t>(reached.definition)];
}

// The first reached definition of each kind and name, with its position in the reaching order.
struct NameTable {
    std::unordered_map<std::string, size_t> models, subckts;
    explicit NameTable(const ModelLibResolution& r)
    {
        for (size_t i = 0; i < r.definitions.size(); ++i) {
            const ModelLibDefinition& d = defOf(r, r.definitions[i]);
            (d.kind == ModelLibDefinition::Subckt ? subckts : models).emplace(key(fileOf(r, r.definitions[i]).name(d)), i);
        }
    }
    const size_t* find(ModelLibDefinition::Kind kind, std::string_view name) const
    {
        const auto& table = kind == ModelLibDefinition::Subckt ? subckts : models;
        const auto it = table.find(key(name));
        return it == table.end() ? nullptr : &it->second;
    }
};

// Names defined inside a subcircuit (its local models and subcircuits), which its lines may use.
// The definitions nested in subcircuit `subckt` at any depth: those that follow it up to its last line
// (each one's parent is the subcircuit or one of them), found in one pass however deep the nesting.
std::vector<size_t> nestedIn(const ModelLibIndex& file, int subckt)
{
    std::vector<size_t> nested;
    const size_t outer = static_cast<size_t>(subckt);
    for (size_t i = outer + 1; i < file.definitions.size() && file.definitions[i].line <= file.definitions[outer].lastLine; ++i)
        if (file.definitions[i].parent >= subckt && static_cast<size_t>(file.definitions[i].parent) < i)
            nested.push_back(i);
    return nested;
}

std::set<std::string> localNames(const ModelLibIndex& file, int subckt)
{
    std::set<std::string> names;
    for (size_t i : nestedIn(file, subckt))
        names.insert(std::string(kindWord(file.definitions[i].kind)) + key(file.name(file.definitions[i])));
    return names;
}

// What subcircuit `subckt` names beyond itself: the instances and uses of its own level and of the
// subcircuits nested in it (`levels`), and the AKO bases of the models nested in it (`akoModels`), each
// unless defined inside it (`local`).
struct SubcktNeeds {
    std::vector<size_t> levels;
    std::vector<size_t> akoModels;
    std::set<std::string> local;
};

SubcktNeeds subcktNeeds(const ModelLibIndex& file, int subckt)
{
    SubcktNeeds needs;
    needs.local = localNames(file, subckt);
    needs.levels.push_back(static_cast<size_t>(subckt));
    for (size_t nested : nestedIn(file, subckt)) {
        const ModelLibDefinition& inner = file.definitions[nested];
        const std::string_view base = file.akoBase(inner);
        if (inner.kind == ModelLibDefinition::Subckt)
            needs.levels.push_back(nested);
        else if (!base.empty() && !needs.local.count(".model" + key(base)))
            needs.akoModels.push_back(nested);
    }
    return needs;
}

void checkResolution(const ModelLibResolution& r, std::vector<ModelLibProblem>* out)
{
    std::unordered_map<std::string, size_t> first;
    const NameTable names(r);
    for (size_t i = 0; i < r.definitions.size(); ++i) {
        const ModelLibReached& reached = r.definitions[i];
        const ModelLibIndex& file = r.files[static_cast<size_t>(reached.file)];
        const ModelLibDefinition& d = defOf(r, reached);
        const std::string_view name = file.name(d);
        const std::string_view ako = file.akoBase(d);
        const auto inserted = first.emplace(std::string(kindWord(d.kind)) + key(name), i);
        if (!inserted.second) {
            const ModelLibReached& other = r.definitions[inserted.first->second];
            const ModelLibIndex& otherFile = r.files[static_cast<size_t>(other.file)];
            const ModelLibDefinition& o = defOf(r, other);
            ModelLibProblem p = problem(ModelLibProblem::Duplicate, name, file.fileName, d.line,
                                        where(file, d.line) + ": duplicate " + kindWord(d.kind) + " " + std::string(name) +
                                            ", first defined at " + where(otherFile, o.line));
            p.otherFile = otherFile.fileName;
            p.otherLine = o.line;
            out->push_back(p);
        }
        if (!ako.empty()) {
            const size_t* base = names.find(ModelLibDefinition::Model, ako);
            if (!base) {
                out->push_back(problem(ModelLibProblem::UnresolvedAkoBase, name, file.fileName, d.line,
                                       where(file, d.line) + ": AKO model " + std::string(name) + " has no base model " + std::string(ako)));
            } else if (*base > i) {
                const ModelLibReached& b = r.definitions[*base];
                ModelLibProblem p = problem(ModelLibProblem::AkoBaseAfter, name, file.fileName, d.line,
                                            where(file, d.line) + ": AKO model " + std::string(name) + " comes before its base " +
                                                std::string(ako) + " at " + where(r.files[static_cast<size_t>(b.file)], defOf(r, b).line));
                p.otherFile = r.files[static_cast<size_t>(b.file)].fileName;
                p.otherLine = defOf(r, b).line;
                out->push_back(p);
            }
        }
        if (d.kind != ModelLibDefinition::Subckt)
            continue;
        const SubcktNeeds needs = subcktNeeds(file, reached.definition);
        for (size_t m : needs.akoModels) {
            const ModelLibDefinition& inner = file.definitions[m];
            const std::string_view base = file.akoBase(inner);
            if (!names.find(ModelLibDefinition::Model, base))
                out->push_back(problem(ModelLibProblem::UnresolvedAkoBase, file.name(inner), file.fileName, inner.line,
                                       where(file, inner.line) + ": AKO model " + std::string(file.name(inner)) + " has no base model " +
                                           std::string(base)));
        }
        for (size_t level : needs.levels) {
            const ModelLibDefinition& sub = file.definitions[level];
            for (std::string_view x : file.instances(sub))
                if (!names.find(ModelLibDefinition::Subckt, x) && !needs.local.count(".subckt" + key(x)))
                    out->push_back(problem(ModelLibProblem::UnresolvedInstance, x, file.fileName, sub.line,
                                           where(file, sub.line) + ": subcircuit " + std::string(file.name(sub)) + " instantiates " +
                                               std::string(x) + ", which is defined nowhere it reaches"));
        }
    }
}

void structureProblems(const ModelLibResolution& r, std::vector<ModelLibProblem>* out)
{
    for (const ModelLibIndex& f : r.files)
        for (const ModelLibDiagnostic& d : f.diagnostics)
            out->push_back(problem(ModelLibProblem::Structure, f.fileName, f.fileName, d.line, where(f, d.line) + ": " + d.message.str()));
}

// A definition's reader that tells whether memory ran out, which ends its input early: a definition cut
// short that way must not pass for a whole one. It reads the file's dialect: in an HSPICE library "$"
// starts a comment and ";" is text.
struct DefinitionStream : LibraryStream {
    DefinitionStream(const SymbolLoc& location, const YString& name, SpiceLanguage language) : LibraryStream(location, name)
    {
        if (language == SpiceLanguageHspice)
            setCommentChar('$');
    }
    using NewSpiceStream::memoryRanOut;
};

// The definition `d` of `file`, its lines appended to `lines`; read from `from` when it is given: the
// file's text already decoded (see DecodedFiles).
void appendLines(const ModelLibIndex& file, const ModelLibDefinition& d, const YString& rename, std::vector<YString>* lines,
                 const YString& from = YString())
{
    SymbolLoc location = file.location(d);
    if (!from.isEmpty())
        location.fileName = from;
    DefinitionStream stream(location, rename, file.language);
    YString line;
    int number = 0;
    while (stream.gets(&line, &number))
        if (!line.isEmpty())
            lines->push_back(line);
    if (stream.memoryRanOut())
        throw std::bad_alloc();
}

// The library files a call reads many definitions of, each decoded once when it is UTF-16: a
// definition's reader would otherwise decode the whole file again for each definition. The copies go
// with the object.
class DecodedFiles {
public:
    DecodedFiles() = default;
    DecodedFiles(const DecodedFiles&) = delete;
    DecodedFiles& operator=(const DecodedFiles&) = delete;
    ~DecodedFiles()
    {
        for (const auto& copy : m_copies)
            if (!copy.second.isEmpty())
                (void)unlink_utf8(copy.second.c_str());
    }
    // What `appendLines` reads the file's definitions from: its decoded copy, or empty for the file
    // itself (one that is no UTF-16, or whose copy could not be written, which each reader then decodes).
    YString from(const YString& file)
    {
        const auto known = m_copies.find(file.str());
        if (known != m_copies.end())
            return known->second;
        YString copy;
        QByteArray held;
        if (textfile::convertWide(file, &copy, &held) != textfile::WideText::Copied)
            copy = YString();
        try {
            m_copies.emplace(file.str(), copy);
        } catch (...) {
            if (!copy.isEmpty())
                (void)unlink_utf8(copy.c_str());
            throw;
        }
        return copy;
    }

private:
    std::map<std::string, YString> m_copies;
};

// A definition's first line with its name, the word after the keyword, written as `name` when the two
// differ in case only (the same bytes otherwise, so the line keeps its length and spacing).
YString withCaseOf(const YString& line, const YString& name)
{
    std::string s = line.str();
    size_t i = 0;
    while (i < s.size() && isDelimiter(s[i]))
        ++i;
    while (i < s.size() && !isDelimiter(s[i]))
        ++i;
    while (i < s.size() && isDelimiter(s[i]))
        ++i;
    size_t e = i;
    while (e < s.size() && !isDelimiter(s[e]))
        ++e;
    const std::string& n = name.str();
    if (e - i != n.size() || lower(s.substr(i, e - i)) != lower(n))
        return line;
    s.replace(i, e - i, n);
    return YString(s.c_str());
}

// `line` with every whole word OLD (ignoring case) of `renames` written as NEW; the OLD names used are
// added to `used`.
YString renameWords(const YString& line, const std::vector<std::pair<std::string, std::string>>& renames, std::set<std::string>* used)
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
                used->insert(rn.first);
                break;
            }
        out += prefix + w;
        i = e;
    }
    return YString(out.c_str());
}

// The keyword that opens `line` ends at `*end`; true when it is ".lib" or ".include" (or a short form),
// whose arguments name a file and a section, never a definition.
bool namesAFile(const std::string& line, size_t* end, bool* lib)
{
    size_t i = 0;
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
        ++i;
    size_t e = i;
    while (e < line.size() && !isDelimiter(line[e]))
        ++e;
    const std::string keyword = lower(std::string_view(line).substr(i, e - i));
    *end = e;
    *lib = keyword == ".lib";
    return *lib || keyword == ".include" || keyword == ".inc" || keyword == ".incl";
}

// A line of a definition that names a file, ".include FILE" or ".lib FILE SECTION", with FILE made absolute
// from the folder of the library `fileName` (quoted), so that the extracted library written elsewhere
// still finds it; any other line as it is.
std::string withAbsoluteFile(const std::string& line, const YString& fileName)
{
    size_t e = 0;
    bool lib = false;
    if (!namesAFile(line, &e, &lib))
        return line;
    const std::string_view rest = std::string_view(line).substr(e);
    std::string_view after;
    const std::string_view name = fileArgument(rest, &after);
    // ".lib NAME" alone opens a section: no file. (Whether a name is absolute is told by its ASCII bytes.)
    const QString target = QString::fromLatin1(name.data(), static_cast<int>(name.size()));
    if (target.isEmpty() || QDir::isAbsolutePath(target) || (lib && after.find_first_not_of(" \t") == std::string_view::npos))
        return line;
    // The argument, quotes and all, is replaced by the file the index reaches, in quotes it does not hold
    // (a quoted name runs to the next quote of its kind), or bare when it holds both and no blank. A name
    // that can be written neither way stays as it was.
    const std::string file = referencedFile(name, fileName).str();
    const bool doubleQuote = file.find('"') == std::string::npos;
    const bool singleQuote = file.find('\'') == std::string::npos;
    if (!doubleQuote && !singleQuote && file.find_first_of(" \t") != std::string::npos)
        return line;
    // A comment character of either dialect would cut the name when the library is read back.
    if (file.find_first_of(";$") != std::string::npos)
        return line;
    const std::string quote = doubleQuote ? "\"" : singleQuote ? "'" : "";
    const size_t start = e + rest.find_first_not_of(" \t");
    const size_t end = static_cast<size_t>(after.data() - line.data());
    return line.substr(0, start) + quote + file + quote + line.substr(end);
}

// A file's name as a comment line shows it: line ends and other control bytes, and the byte 0xFF that
// ends a netlist reader's input, as escapes, so that the comment stays one line and the text is read on.
std::string commentSafe(const std::string& name)
{
    std::string shown;
    for (const char ch : name) {
        const unsigned char b = static_cast<unsigned char>(ch);
        if (b == '\n')
            shown += "\\n";
        else if (b == '\r')
            shown += "\\r";
        else if (b < 32 || b == 127 || b == 255) {
            static const char digits[] = "0123456789abcdef";
            shown += "\\x";
            shown += digits[b >> 4];
            shown += digits[b & 15];
        } else
            shown += ch;
    }
    return shown;
}

// A definition's first line with the words after its keyword and name renamed as `renameWords` does.
std::string renameAfterName(const YString& line, const std::vector<std::pair<std::string, std::string>>& renames,
                            std::set<std::string>* used)
{
    const std::string& s = line.str();
    size_t i = 0;
    for (int word = 0; word < 2; ++word) {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t'))
            ++i;
        while (i < s.size() && !isDelimiter(s[i]))
            ++i;
    }
    return s.substr(0, i) + renameWords(YString(s.substr(i).c_str()), renames, used).str();
}

} // namespace

void sp_IndexModelLibraryText(const char* text, size_t size, const YString& fileName, SpiceLanguage language,
                              ModelLibIndex* index, ModelLibElements elements)
{
    *index = ModelLibIndex();
    index->language = language;
    index->elementWords = elements == ModelLibElements::Words;
    if (!text)
        size = 0;
    if (size > static_cast<size_t>(kMaxPosition))
        size = static_cast<size_t>(kMaxPosition);
    // A byte 0xFF ends the text, as it ends SpiceStream's input: the scan stops there and cuts `size`.
    index->size = static_cast<long long>(size);
    try {
        index->fileName = fileName;
    } catch (...) {
        forgetIndex(index);
        return;
    }
    indexText(text, nullptr, size, index);
}

ModelLibStatus sp_IndexModelLibrary(const YString& path, SpiceLanguage language, ModelLibIndex* index,
                                    ModelLibElements elements)
{
    *index = ModelLibIndex();
    index->language = language;
    index->elementWords = elements == ModelLibElements::Words;
    try {
        index->fileName = path;
        return indexFile(path, index);
    } catch (...) {
        // Memory ran out before the text was indexed (the index itself catches its own failures).
        forgetIndex(index);
        return ModelLibStatus::Ok;
    }
}

namespace {
// Resolves as sp_ResolveModelSection does; `memo` holds what was learnt of the files since the caller
// last had the resolution in hand (nothing, for a caller's own resolution).
ModelLibStatus resolveSection(const YString& path, const YString& section, SpiceLanguage language,
                              ModelLibResolution* resolution, ResolverMemo* memo)
{
    resolution->definitions.clear();
    resolution->problems.clear();
    resolution->section = section;
    resolution->root = -1;

    try {
        Resolver resolver(language, resolution, memo);
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
} // namespace

ModelLibStatus sp_ResolveModelSection(const YString& path, const YString& section, SpiceLanguage language,
                                      ModelLibResolution* resolution)
{
    // The caller may have changed the files since the tables were made: each is checked as it is used.
    ResolverMemo memo;
    return resolveSection(path, section, language, resolution, &memo);
}

ModelLibStatus sp_ResolveEachModelSection(
    const YString& path, SpiceLanguage language,
    const std::function<void(const ModelLibSection& section, const ModelLibResolution& resolution)>& each)
{
    ModelLibStatus status = ModelLibStatus::Ok;
    std::vector<ModelLibSection> sections;
    ModelLibResolution r;
    ResolverMemo memo;
    try {
        status = resolveSection(path, YString(), language, &r, &memo);
        if (status != ModelLibStatus::Ok)
            return status;
        sections = r.files[static_cast<size_t>(r.root)].sections;
    } catch (...) {
        return ModelLibStatus::Unreadable;
    }
    for (const ModelLibSection& s : sections) {
        if (resolveSection(path, s.name, language, &r, &memo) == ModelLibStatus::Unreadable)
            return ModelLibStatus::Unreadable;
        each(s, r);
    }
    return ModelLibStatus::Ok;
}

namespace {
// The problems of one check, each kept once: a missing file or an unresolved instance that several
// sections reach is seen once per section. Repeats are dropped as each section's problems come in, so
// that memory follows the distinct problems, not the sections times the problems each reaches.
class DistinctProblems {
public:
    explicit DistinctProblems(std::vector<ModelLibProblem>* problems) : m_problems(problems), m_checked(problems->size()) {}
    // Drops the repeats among the problems added since the last call.
    void dropRepeats()
    {
        const auto repeated = [this](const ModelLibProblem& p) {
            std::string key = std::to_string(p.kind) + '\n' + std::to_string(p.line) + '\n' + std::to_string(p.otherLine);
            for (const YString* text : {&p.name, &p.file, &p.otherFile, &p.message})
                key.append(1, '\n').append(text->str());
            return !m_seen.insert(std::move(key)).second;
        };
        m_problems->erase(std::remove_if(m_problems->begin() + static_cast<std::ptrdiff_t>(m_checked), m_problems->end(), repeated),
                          m_problems->end());
        m_checked = m_problems->size();
    }

private:
    std::vector<ModelLibProblem>* m_problems;
    size_t m_checked;
    std::set<std::string> m_seen;
};
} // namespace

ModelLibStatus sp_CheckModelLibrary(const YString& path, const YString& section, SpiceLanguage language,
                                    std::vector<ModelLibProblem>* problems)
{
    const size_t kept = problems->size();
    try {
        DistinctProblems distinct(problems);
        // The resolution is the check's own: a section table made, or a file's identity found, in one of
        // its resolutions holds in the next ones.
        ModelLibResolution r;
        ResolverMemo memo;
        ModelLibStatus status = resolveSection(path, section, language, &r, &memo);
        if (status != ModelLibStatus::Ok)
            return status;
        problems->insert(problems->end(), r.problems.begin(), r.problems.end());
        checkResolution(r, problems);
        distinct.dropRepeats();
        const int root = r.root;
        const std::vector<ModelLibSection> sections = r.files[static_cast<size_t>(root)].sections;
        const bool everySection = section.isEmpty() && !sections.empty();
        // Per file, whether each definition is reached by some section.
        std::vector<std::vector<char>> reached;
        if (everySection) {
            std::set<std::string> done;
            for (const ModelLibSection& s : sections) {
                if (!done.insert(key(s.name)).second)
                    continue;
                // Memory that runs out in a section's resolution fails the whole check, as it does here.
                if (resolveSection(path, s.name, language, &r, &memo) == ModelLibStatus::Unreadable)
                    throw std::bad_alloc();
                for (const ModelLibProblem& p : r.problems)
                    problems->push_back(p);
                checkResolution(r, problems);
                distinct.dropRepeats();
                for (const ModelLibReached& x : r.definitions) {
                    if (reached.size() <= static_cast<size_t>(x.file))
                        reached.resize(static_cast<size_t>(x.file) + 1);
                    std::vector<char>& flags = reached[static_cast<size_t>(x.file)];
                    if (flags.size() <= static_cast<size_t>(x.definition))
                        flags.resize(r.files[static_cast<size_t>(x.file)].definitions.size());
                    flags[static_cast<size_t>(x.definition)] = 1;
                }
            }
        }
        structureProblems(r, problems);
        distinct.dropRepeats();
        if (everySection) {
            for (size_t f = 0; f < r.files.size(); ++f) {
                const ModelLibIndex& file = r.files[f];
                for (size_t d = 0; d < file.definitions.size(); ++d) {
                    const ModelLibDefinition& def = file.definitions[d];
                    const bool isReached = f < reached.size() && d < reached[f].size() && reached[f][d];
                    if (def.parent < 0 && !isReached)
                        problems->push_back(problem(ModelLibProblem::Unreferenced, file.name(def), file.fileName, def.line,
                                                    where(file, def.line) + ": " + kindWord(def.kind) + " " + std::string(file.name(def)) +
                                                        " is reached by no section"));
                }
            }
            distinct.dropRepeats();
        }
        return ModelLibStatus::Ok;
    } catch (...) {
        // Memory ran out: no half list is handed back.
        problems->erase(problems->begin() + static_cast<std::ptrdiff_t>(kept), problems->end());
        return ModelLibStatus::Unreadable;
    }
}

std::vector<YString> sp_ReadModelDefinition(const ModelLibIndex& index, const ModelLibDefinition& definition,
                                            const YString& rename)
{
    std::vector<YString> lines;
    try {
        appendLines(index, definition, rename, &lines);
    } catch (...) {
        lines.clear();
    }
    return lines;
}

namespace {
// The logical lines of a definition without comments, blank runs collapsed and letters in lower case
// outside quotes: what a comparison looks at. A quoted text (a file's name, which may tell case apart)
// runs to the next quote of its kind and is kept as it is.
std::string comparable(const ModelLibIndex& index, const ModelLibDefinition& d, DecodedFiles* decoded)
{
    std::string out;
    std::vector<YString> lines;
    appendLines(index, d, YString(), &lines, decoded->from(index.fileName));
    for (const YString& line : lines) {
        if (line.at(0) == '*')
            continue;
        bool blank = false;
        char quote = 0;
        for (char c : line.str()) {
            if (quote) {
                out.push_back(c);
                quote = c == quote ? 0 : quote;
                continue;
            }
            if (c == ' ' || c == '\t') {
                blank = true;
                continue;
            }
            if (blank && !out.empty() && out.back() != '\n')
                out.push_back(' ');
            blank = false;
            if (c == '"' || c == '\'')
                quote = c;
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
        // The comparison reads the definitions' text: their instances and uses are not needed.
        ModelLibStatus status = sp_IndexModelLibrary(a, language, &ia, ModelLibElements::Skip);
        if (status != ModelLibStatus::Ok)
            return status;
        status = sp_IndexModelLibrary(b, language, &ib, ModelLibElements::Skip);
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
        // A definition is told apart by its section too: a corner library defines the same names in
        // every section, and each section's are compared with the other file's of that section.
        const auto sectionOf = [](const ModelLibIndex& i, const ModelLibDefinition& d) {
            return d.section < 0 ? std::string() : key(i.sections[static_cast<size_t>(d.section)].name);
        };
        // The definitions of a section that only one file has are not listed one by one: the section is.
        auto definitions = [&](const ModelLibIndex& i, const std::map<std::string, YString>& otherSections) {
            std::map<std::string, const ModelLibDefinition*> m;
            for (const ModelLibDefinition& d : i.definitions)
                if (d.parent < 0 && (d.section < 0 || otherSections.count(sectionOf(i, d))))
                    m.emplace(sectionOf(i, d) + '\n' + kindWord(d.kind) + " " + key(i.name(d)), &d);
            return m;
        };
        const auto da = definitions(ia, sb), db = definitions(ib, sa);
        DecodedFiles decoded;
        auto label = [](const ModelLibIndex& i, const ModelLibDefinition* d) {
            std::string text = std::string(kindWord(d->kind)) + " " + std::string(i.name(*d));
            if (d->section >= 0)
                text += " in section " + i.sections[static_cast<size_t>(d->section)].name.str();
            return ys(text);
        };
        for (const auto& d : da) {
            const auto other = db.find(d.first);
            if (other == db.end())
                diff->onlyInA.push_back(label(ia, d.second));
            else if (comparable(ia, *d.second, &decoded) != comparable(ib, *other->second, &decoded))
                diff->differing.push_back(label(ia, d.second));
        }
        for (const auto& d : db)
            if (!da.count(d.first))
                diff->onlyInB.push_back(label(ib, d.second));
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
        ResolverMemo memo;
        const ModelLibStatus status = resolveSection(path, request.section, request.language, &r, &memo);
        if (status != ModelLibStatus::Ok)
            return status;
        std::vector<std::pair<std::string, std::string>> renames;
        std::map<std::string, YString> newName;
        for (const YString& rn : request.renames) {
            const int eq = rn.findIndex("=");
            if (eq <= 0 || eq + 1 >= rn.length())
                continue;
            const YString old = rn.substring(0, eq), to = rn.substring(eq + 1);
            // A new name is one word: blanks, separators, comment characters or control bytes in it would
            // make the definition's line say something else.
            const bool oneWord = std::none_of(to.str().begin(), to.str().end(), [](char c) {
                const unsigned char b = static_cast<unsigned char>(c);
                return isDelimiter(c) || c == ';' || c == '$' || c == '"' || c == '\'' || b < 32 || b == 0xFF;
            });
            if (!oneWord) {
                if (problems)
                    problems->push_back(problem(ModelLibProblem::Duplicate, old, path, 0, "the new name of " + old.str() + " is not one word"));
                return ModelLibStatus::RenameClash;
            }
            // One name renamed two ways would name the definition one way and the words naming it the other.
            const auto earlier = newName.find(key(old));
            if (earlier != newName.end() && earlier->second != to) {
                if (problems)
                    problems->push_back(problem(ModelLibProblem::Duplicate, old, path, 0,
                                                old.str() + " is renamed twice, to " + earlier->second.str() + " and to " + to.str()));
                return ModelLibStatus::RenameClash;
            }
            renames.push_back({key(old), to.str()});
            newName[key(old)] = to;
        }
        const NameTable names(r);
        std::vector<size_t> order;
        std::vector<char> state(r.definitions.size(), 0); // 1 being visited, 2 placed
        std::vector<ModelLibProblem> unresolved;
        // Depth first: a definition is placed after everything it depends on.
        // What definition `i` depends on, in order: the definitions it needs, and a problem where one
        // cannot be resolved. A subcircuit needs what its element lines name, and those of the
        // subcircuits nested in it, but for the names defined inside it.
        struct Need {
            size_t definition = 0;
            std::optional<ModelLibProblem> unresolved;
        };
        const auto needsOf = [&](size_t i) {
            std::vector<Need> needs;
            const ModelLibReached& reached = r.definitions[i];
            const ModelLibIndex& file = r.files[static_cast<size_t>(reached.file)];
            const ModelLibDefinition& d = defOf(r, reached);
            const std::string_view name = file.name(d);
            const std::string_view ako = file.akoBase(d);
            if (!ako.empty()) {
                if (const size_t* base = names.find(ModelLibDefinition::Model, ako))
                    needs.push_back({*base, std::nullopt});
                else
                    needs.push_back({0, problem(ModelLibProblem::UnresolvedAkoBase, name, file.fileName, d.line,
                                                where(file, d.line) + ": AKO model " + std::string(name) + " has no base model " + std::string(ako))});
            }
            if (d.kind != ModelLibDefinition::Subckt)
                return needs;
            const SubcktNeeds named = subcktNeeds(file, reached.definition);
            for (size_t m : named.akoModels) {
                const ModelLibDefinition& inner = file.definitions[m];
                const std::string_view base = file.akoBase(inner);
                if (const size_t* found = names.find(ModelLibDefinition::Model, base))
                    needs.push_back({*found, std::nullopt});
                else
                    needs.push_back({0, problem(ModelLibProblem::UnresolvedAkoBase, file.name(inner), file.fileName, inner.line,
                                                where(file, inner.line) + ": AKO model " + std::string(file.name(inner)) +
                                                    " has no base model " + std::string(base))});
            }
            for (size_t level : named.levels) {
                const ModelLibDefinition& sub = file.definitions[level];
                for (std::string_view x : file.instances(sub)) {
                    if (named.local.count(".subckt" + key(x)))
                        continue;
                    if (const size_t* found = names.find(ModelLibDefinition::Subckt, x))
                        needs.push_back({*found, std::nullopt});
                    else
                        needs.push_back({0, problem(ModelLibProblem::UnresolvedInstance, x, file.fileName, sub.line,
                                                    where(file, sub.line) + ": subcircuit " + std::string(file.name(sub)) +
                                                        " instantiates " + std::string(x) + ", which is defined nowhere it reaches")});
                }
                for (std::string_view u : file.uses(sub))
                    if (!named.local.count(".model" + key(u)))
                        if (const size_t* found = names.find(ModelLibDefinition::Model, u))
                            needs.push_back({*found, std::nullopt});
            }
            return needs;
        };
        // Depth first, a definition placed after everything it needs; with a stack of its own, since a
        // chain of AKO models or of subcircuits may be as long as the library.
        const auto place = [&](size_t root) {
            struct Frame {
                size_t definition;
                std::vector<Need> needs;
                size_t next;
            };
            if (state[root])
                return;
            state[root] = 1;
            std::vector<Frame> stack;
            stack.push_back({root, needsOf(root), 0});
            while (!stack.empty()) {
                Frame& top = stack.back();
                if (top.next == top.needs.size()) {
                    state[top.definition] = 2;
                    order.push_back(top.definition);
                    stack.pop_back();
                    continue;
                }
                Need& need = top.needs[top.next++];
                if (need.unresolved) {
                    unresolved.push_back(std::move(*need.unresolved));
                    continue;
                }
                const size_t next = need.definition;
                if (state[next])
                    continue;
                state[next] = 1;
                std::vector<Need> needs = needsOf(next);
                stack.push_back({next, std::move(needs), 0});
            }
        };
        for (const YString& name : request.names) {
            const size_t* found = names.find(ModelLibDefinition::Subckt, name.str());
            if (!found)
                found = names.find(ModelLibDefinition::Model, name.str());
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
        // The names written: a rename may not give two definitions of one kind the same one.
        std::map<std::pair<int, std::string>, size_t> written;
        for (size_t i : order) {
            const ModelLibReached& reached = r.definitions[i];
            const ModelLibIndex& file = r.files[static_cast<size_t>(reached.file)];
            const ModelLibDefinition& d = defOf(r, reached);
            const auto renamed = newName.find(key(file.name(d)));
            const YString name = renamed == newName.end() ? ys(file.name(d)) : renamed->second;
            const auto entry = written.insert({{static_cast<int>(d.kind), key(name)}, i});
            if (entry.second)
                continue;
            const ModelLibReached& firstReached = r.definitions[entry.first->second];
            const ModelLibIndex& firstFile = r.files[static_cast<size_t>(firstReached.file)];
            const ModelLibDefinition& first = defOf(r, firstReached);
            if (problems) {
                ModelLibProblem clash = problem(ModelLibProblem::Duplicate, name, file.fileName, d.line,
                                                "renaming would give " + firstFile.fileName.str() + ":" +
                                                    std::to_string(first.line) + " and " + file.fileName.str() + ":" +
                                                    std::to_string(d.line) + " the same name " + name.str());
                clash.otherFile = firstFile.fileName;
                clash.otherLine = first.line;
                problems->push_back(clash);
            }
            return ModelLibStatus::RenameClash;
        }
        if (problems)
            problems->insert(problems->end(), unresolved.begin(), unresolved.end());
        std::string out;
        // Definitions all read in the dialect whose comments start with "$" are written under its
        // directive, so that the library reads back with ";" as text, as they were read; so are mixed
        // ones when a ";" of such a definition must read as text (see below).
        const bool allHspice = !order.empty() && std::all_of(order.begin(), order.end(), [&](size_t i) {
            return r.files[static_cast<size_t>(r.definitions[i].file)].language == SpiceLanguageHspice;
        });
        // The first definition with a comment character of the other dialect as text: a ";" read with "$"
        // comments, a "$" read with ";" comments.
        const ModelLibDefinition* semicolonText = nullptr;
        const ModelLibDefinition* dollarText = nullptr;
        const ModelLibIndex* semicolonFile = nullptr;
        const ModelLibIndex* dollarFile = nullptr;
        // What an ".include" or ".lib" line inside an extracted subcircuit brought in, directly or through
        // the references of what it brought, is not written again: the line is written with the
        // subcircuit and brings it (it would be defined twice). Each unit read is followed back along the
        // references that brought it in; it is brought when one of them lies inside such a subcircuit.
        std::map<int, std::vector<std::pair<int, int>>> subcircuitLines; // file -> (first line, last line)
        for (size_t i : order) {
            const ModelLibDefinition& d = defOf(r, r.definitions[i]);
            if (d.kind == ModelLibDefinition::Subckt)
                subcircuitLines[r.definitions[i].file].push_back({d.line, d.lastLine});
        }
        const auto brought = [&](int file, int section) {
            std::pair<int, int> unit(file, section);
            for (size_t steps = 0; steps <= memo.unitVia.size(); ++steps) {
                const auto via = memo.unitVia.find(unit);
                if (via == memo.unitVia.end() || via->second.first < 0)
                    return false;
                const int from = via->second.first;
                const ModelLibReference& ref = r.files[static_cast<size_t>(from)].references[static_cast<size_t>(via->second.second)];
                const auto lines = subcircuitLines.find(from);
                if (lines != subcircuitLines.end())
                    for (const auto& span : lines->second)
                        if (ref.line > span.first && ref.line < span.second)
                            return true;
                unit = std::make_pair(from, ref.inSection);
            }
            return false;
        };
        DecodedFiles decoded;
        std::set<std::string> used; // the old names a rename was made for
        for (size_t i : order) {
            const ModelLibReached& reached = r.definitions[i];
            const ModelLibIndex& file = r.files[static_cast<size_t>(reached.file)];
            const ModelLibDefinition& d = defOf(r, reached);
            const auto renamed = newName.find(key(file.name(d)));
            // (One renamed is written under its new name: what the line brings keeps the old one.)
            if (renamed == newName.end() && brought(reached.file, d.section))
                continue;
            if (renamed != newName.end())
                used.insert(renamed->first);
            out += "* " + commentSafe(file.fileName.str()) + ":" + std::to_string(d.line) + "\n";
            std::vector<YString> lines;
            appendLines(file, d, renamed == newName.end() ? YString() : renamed->second, &lines, decoded.from(file.fileName));
            // LibraryStream keeps a name that the new one matches but for case: it is written here.
            if (renamed != newName.end() && !lines.empty())
                lines[0] = withCaseOf(lines[0], renamed->second);
            const size_t written = out.size();
            for (size_t l = 0; l < lines.size(); ++l) {
                // LibraryStream renames the definition itself; the words of its other lines, and on its
                // first line those after its name (an AKO base), that name renamed definitions are renamed
                // here, but not on lines that name a file and section. A subcircuit's ports are renamed as
                // its element lines are, so that a node that shares a renamed name stays connected to its
                // port (ports connect by position, so the instances are unchanged).
                size_t keywordEnd = 0;
                bool lib = false;
                if (l > 0 && namesAFile(lines[l].str(), &keywordEnd, &lib))
                    out += withAbsoluteFile(lines[l].str(), file.fileName);
                else if (l > 0)
                    out += renameWords(lines[l], renames, &used).str();
                else if (d.kind == ModelLibDefinition::Subckt || !file.akoBase(d).empty())
                    out += renameAfterName(lines[l], renames, &used);
                else
                    out += lines[l].str();
                out.push_back('\n');
            }
            // The lines as written (renamed), but for comment lines, which hold any character as text.
            const bool readHspice = file.language == SpiceLanguageHspice;
            const char other = readHspice ? ';' : '$';
            bool holdsOther = false;
            for (size_t at = written; at < out.size() && !holdsOther;) {
                const size_t end = std::min(out.find('\n', at), out.size());
                const std::string_view line = std::string_view(out).substr(at, end - at);
                holdsOther = !line.empty() && line[0] != '*' && line.find(other) != std::string_view::npos;
                at = end + 1;
            }
            if (holdsOther && (readHspice ? semicolonText : dollarText) == nullptr) {
                (readHspice ? semicolonText : dollarText) = &d;
                (readHspice ? semicolonFile : dollarFile) = &file;
            }
        }
        // A library of both dialects is written in the one that keeps the ";" of its "$"-comment
        // definitions as text; a "$" of the others would then start a comment, which is told.
        if (allHspice || semicolonText)
            out.insert(0, "*#HSPICE\n");
        if (!allHspice && semicolonText && dollarText && problems)
            problems->push_back(problem(ModelLibProblem::Structure, dollarFile->name(*dollarText), dollarFile->fileName, dollarText->line,
                                        "the \"$\" of " + std::string(dollarFile->name(*dollarText)) +
                                            " starts a comment in the extracted library, which reads \";\" as text for " +
                                            std::string(semicolonFile->name(*semicolonText)) + " (" + semicolonFile->fileName.str() + ":" +
                                            std::to_string(semicolonText->line) + ")"));
        // A rename that renamed nothing (a misspelt name, one of nothing extracted, a section's) leaves
        // the name as it was: the caller is told, once for each name.
        std::set<std::string> told;
        for (const YString& rn : request.renames) {
            const int eq = rn.findIndex("=");
            if (eq <= 0 || eq + 1 >= rn.length() || used.count(key(rn.substring(0, eq))) || !told.insert(key(rn.substring(0, eq))).second)
                continue;
            if (problems)
                problems->push_back(problem(ModelLibProblem::UnusedRename, rn.substring(0, eq), path, 0,
                                            "the rename of " + rn.substring(0, eq).str() + " to " + rn.substring(eq + 1).str() +
                                                " renames nothing: no definition extracted has or names that word"));
        }
        *text = YString(out.c_str());
        return ModelLibStatus::Ok;
    } catch (...) {
        return ModelLibStatus::Unreadable;
    }
}

bool sp_ModelLibraryHoldsFile(const YString& path, const YString& file, SpiceLanguage language)
{
    try {
        if (!QFileInfo::exists(toQs(file)))
            return false;
        // Files are compared by their keys, identities where they have one: every name of a file (a link,
        // a hard link, and on Windows another case, a short name or the long form) leads to the one key.
        const std::string target = Resolver::canonical(file);
        // The files met so far, by their keys, and those whose references are still to follow.
        std::unordered_set<std::string> met;
        std::vector<YString> pending{path};
        while (!pending.empty()) {
            const YString next = pending.back();
            pending.pop_back();
            const std::string key = Resolver::canonical(next);
            if (!met.insert(key).second)
                continue;
            if (key == target)
                return true;
            ModelLibIndex index;
            if (sp_IndexModelLibrary(next, language, &index, ModelLibElements::Skip) != ModelLibStatus::Ok)
                continue;
            for (const ModelLibReference& reference : index.references)
                pending.push_back(reference.path);
        }
    } catch (...) {
        // Out of memory: what was followed so far holds no such file.
    }
    return false;
}

ModelLibStatus sp_WriteExtractedModels(const YString& path, const ModelLibExtractRequest& request, const YString& output,
                                       std::vector<ModelLibProblem>* problems)
{
    YString text;
    const ModelLibStatus status = sp_ExtractModels(path, request, &text, problems);
    if (status != ModelLibStatus::Ok)
        return status;
    // The extraction never replaces a file of the library it was taken from.
    if (sp_ModelLibraryHoldsFile(path, output, request.language))
        return ModelLibStatus::WriteFailed;
    try {
        // (Opened by the C runtime, which opens a device such as NUL on Windows where Qt cannot.)
        const bool written = sp_ReplaceFileWith(output, [&](const YString& temporary) {
            FILE* const stream = fopen_utf8(temporary.c_str(), "wb");
            if (!stream)
                return false;
            const size_t length = static_cast<size_t>(text.length());
            const bool ok = std::fwrite(text.c_str(), 1, length, stream) == length;
            return std::fclose(stream) == 0 && ok;
        });
        return written ? ModelLibStatus::Ok : ModelLibStatus::WriteFailed;
    } catch (...) {
        return ModelLibStatus::WriteFailed;
    }
}
