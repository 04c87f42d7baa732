// YString.cpp - the suite's string, buffers, queues and UTF-8 decoding.
#include "YString.h"
#include "FileServices.h"
#include "Platform_p.h"
#include "TextServices.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace {
inline char lowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
inline char upperAscii(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }
inline bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
// The most a byte buffer or queue holds, its terminating NUL included: their lengths are ints.
constexpr int kMaxCapacity = INT_MAX;
// From this capacity on, a buffer asks the system for large pages: filling a 100 MB line in small
// pages costs more in page faults than in copying. Growing such a buffer holds the old and the new block
// at once, as a copy does.
constexpr long long kLargeBuffer = 32LL << 20;

// `data` reallocated to hold `needed` bytes: its `capacity` doubled until it does, at most kMaxCapacity.
// Throws std::bad_alloc when `needed` passes that or memory runs out, and `data` is then as it was.
char* grown(char* data, int* capacity, long long needed)
{
    if (needed > kMaxCapacity)
        throw std::bad_alloc();
    long long cap = *capacity;
    while (cap < needed)
        cap *= 2;
    if (cap > kMaxCapacity)
        cap = kMaxCapacity;
    if (cap >= kLargeBuffer) {
        // A fresh block rather than a reallocation: the kernel would keep the small pages that a
        // reallocation moves along, and this block is to sit in large pages throughout.
        char* p = static_cast<char*>(std::malloc(static_cast<size_t>(cap)));
        if (!p)
            throw std::bad_alloc();
        platform::adviseLargeBlock(p, static_cast<size_t>(cap));
        if (data)
            std::memcpy(p, data, static_cast<size_t>(*capacity));
        std::free(data);
        *capacity = static_cast<int>(cap);
        return p;
    }
    char* p = static_cast<char*>(std::realloc(data, static_cast<size_t>(cap)));
    if (!p)
        throw std::bad_alloc();
    *capacity = static_cast<int>(cap);
    return p;
}
} // namespace

void YString::reserveLarge(int length)
{
    if (m_text.capacity() >= static_cast<size_t>(length))
        return;
    m_text.reserve(static_cast<size_t>(length));
    platform::adviseLargeBlock(&m_text[0], m_text.capacity() + 1);
}

YString::YString(const char* text) : m_text(text ? text : "") {}

YString::YString(const char* text, int length)
{
    if (text && length > 0)
        m_text.assign(text, static_cast<size_t>(length));
}

YString::YString(int value) : m_text(std::to_string(value)) {}
YString::YString(long long value) : m_text(std::to_string(value)) {}
YString::YString(double value) : YString(sp_RealToShortestText(value)) {}

YString& YString::operator=(const char* text)
{
    m_text = text ? text : "";
    return *this;
}

char YString::at(int index) const
{
    return index >= 0 && index < length() ? m_text[static_cast<size_t>(index)] : '\0';
}

TempString YString::concat(const char* text) const
{
    TempString result(*this);
    result.append(text);
    return result;
}

YString& YString::append(const char* text)
{
    if (text)
        m_text.append(text);
    return *this;
}

YString& YString::append(const char* text, int length)
{
    if (text && length > 0)
        m_text.append(text, static_cast<size_t>(length));
    return *this;
}

YString& YString::append(char c)
{
    m_text.push_back(c);
    return *this;
}

int YString::sprintf(const char* format, ...)
{
    if (!format) {
        m_text.clear();
        return 0;
    }
    char small[256];
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (n < 0) {
        va_end(copy);
        m_text.clear();
        return 0;
    }
    if (static_cast<size_t>(n) < sizeof small) {
        m_text.assign(small, static_cast<size_t>(n));
    } else {
        std::string big(static_cast<size_t>(n) + 1, '\0');
        std::vsnprintf(&big[0], big.size(), format, copy);
        big.resize(static_cast<size_t>(n));
        m_text.swap(big);
    }
    va_end(copy);
    return n;
}

bool YString::beginsWith(const char* prefix, bool caseSensitive) const
{
    if (!prefix)
        return true;
    size_t n = std::strlen(prefix);
    if (n > m_text.size())
        return false;
    if (caseSensitive)
        return m_text.compare(0, n, prefix) == 0;
    for (size_t i = 0; i < n; ++i)
        if (lowerAscii(m_text[i]) != lowerAscii(prefix[i]))
            return false;
    return true;
}

bool YString::endsWith(const char* suffix, bool caseSensitive) const
{
    if (!suffix)
        return true;
    size_t n = std::strlen(suffix);
    if (n > m_text.size())
        return false;
    size_t start = m_text.size() - n;
    for (size_t i = 0; i < n; ++i) {
        char a = m_text[start + i], b = suffix[i];
        if (caseSensitive ? a != b : lowerAscii(a) != lowerAscii(b))
            return false;
    }
    return true;
}

YString YString::substring(int start, int length) const
{
    int size = this->length();
    if (start < 0) {
        // The part before the text is clipped; a part that lies wholly before it leaves nothing.
        if (length >= 0) {
            if (static_cast<long long>(length) + start <= 0)
                return YString();
            length += start;
        }
        start = 0;
    }
    if (start >= size || length == 0)
        return YString();
    int available = size - start;
    if (length < 0 || length > available)
        length = available;
    if (length <= 0)
        return YString();
    return YString(m_text.data() + start, length);
}

int YString::findIndex(const char* text, int start) const
{
    if (!text)
        return -1;
    if (start < 0)
        start = 0;
    if (start > length())
        return -1;
    size_t pos = m_text.find(text, static_cast<size_t>(start));
    return pos == std::string::npos ? -1 : static_cast<int>(pos);
}

YString YString::strtok(const char* delimiters)
{
    if (!delimiters)
        delimiters = "";
    size_t begin = m_text.find_first_not_of(delimiters);
    if (begin == std::string::npos) {
        m_text.clear();
        return YString();
    }
    size_t end = m_text.find_first_of(delimiters, begin);
    YString token;
    if (end == std::string::npos) {
        token.m_text = m_text.substr(begin);
        m_text.clear();
    } else {
        token.m_text = m_text.substr(begin, end - begin);
        m_text.erase(0, end + 1);
    }
    return token;
}

unsigned YString::hashValue() const
{
    // FNV-1a over the lower-cased bytes.
    unsigned h = 2166136261u;
    for (char c : m_text) {
        h ^= static_cast<unsigned char>(lowerAscii(c));
        h *= 16777619u;
    }
    return h;
}

int YString::comparePath(const YString& other) const
{
    return sp_ComparePaths(m_text.c_str(), other.m_text.c_str());
}

int YString::compareNoCase(const char* other) const
{
    if (!other)
        other = "";
    const unsigned char* a = reinterpret_cast<const unsigned char*>(m_text.c_str());
    const unsigned char* b = reinterpret_cast<const unsigned char*>(other);
    for (;; ++a, ++b) {
        int ca = static_cast<unsigned char>(lowerAscii(static_cast<char>(*a)));
        int cb = static_cast<unsigned char>(lowerAscii(static_cast<char>(*b)));
        if (ca != cb)
            return ca - cb;
        if (ca == 0)
            return 0;
    }
}

YString YString::toLower() const
{
    YString r(*this);
    for (char& c : r.m_text)
        c = lowerAscii(c);
    return r;
}

YString YString::toUpper() const
{
    YString r(*this);
    for (char& c : r.m_text)
        c = upperAscii(c);
    return r;
}

YString YString::trimmed() const
{
    size_t b = 0, e = m_text.size();
    while (b < e && isBlank(m_text[b]))
        ++b;
    while (e > b && isBlank(m_text[e - 1]))
        --e;
    YString r;
    r.m_text = m_text.substr(b, e - b);
    return r;
}

void YString::truncate(int length)
{
    if (length < 0)
        length = 0;
    if (static_cast<size_t>(length) < m_text.size())
        m_text.resize(static_cast<size_t>(length));
}

bool operator==(const YString& a, const YString& b) { return a.str() == b.str(); }
bool operator==(const YString& a, const char* b) { return a.str() == (b ? b : ""); }
bool operator==(const char* a, const YString& b) { return b == a; }
bool operator<(const YString& a, const YString& b) { return a.str() < b.str(); }

// ---------------------------------------------------------------- Buf

Buf::Buf(int size)
{
    m_capacity = size < 16 ? 16 : size;
    m_data = static_cast<char*>(std::malloc(static_cast<size_t>(m_capacity)));
    if (!m_data)
        throw std::bad_alloc();
    m_data[0] = '\0';
}

Buf::Buf(const Buf& other) : Buf(other.m_length < kMaxCapacity - 16 ? other.m_length + 16 : kMaxCapacity)
{
    append(other.m_data, other.m_length);
}

Buf& Buf::operator=(const Buf& other)
{
    if (this != &other) {
        flush();
        append(other.m_data, other.m_length);
    }
    return *this;
}

Buf::~Buf() { std::free(m_data); }

void Buf::grow(long long needed)
{
    if (needed > m_capacity)
        m_data = grown(m_data, &m_capacity, needed);
}

void Buf::append(const char* text)
{
    if (text)
        append(text, static_cast<int>(std::strlen(text)));
}

void Buf::appendGrowing(const char* data, int length)
{
    if (!data || length <= 0)
        return;
    // Bytes of this buffer's own move with it when it grows.
    const bool own = m_data && data >= m_data && data < m_data + m_capacity;
    const ptrdiff_t offset = own ? data - m_data : 0;
    grow(static_cast<long long>(m_length) + length + 1);
    if (own)
        data = m_data + offset;
    std::memcpy(m_data + m_length, data, static_cast<size_t>(length));
    m_length += length;
    m_data[m_length] = '\0';
}

bool Buf::takeQueued(CharQueue& queue)
{
    if (m_length != 0 || queue.m_read != 0)
        return false;
    std::swap(m_data, queue.m_data);
    std::swap(m_capacity, queue.m_capacity);
    m_length = queue.m_write;
    queue.m_write = 0;
    queue.m_data[0] = '\0';
    return true;
}

// ---------------------------------------------------------------- CharQueue

CharQueue::CharQueue()
{
    m_capacity = 64;
    m_data = static_cast<char*>(std::malloc(static_cast<size_t>(m_capacity)));
    if (!m_data)
        throw std::bad_alloc();
    m_data[0] = '\0';
}

CharQueue::CharQueue(const CharQueue& other) : CharQueue()
{
    *this = other;
}

CharQueue& CharQueue::operator=(const CharQueue& other)
{
    if (this != &other) {
        flush();
        for (int i = other.m_read; i < other.m_write; ++i)
            add(other.m_data[i]);
    }
    return *this;
}

CharQueue::~CharQueue() { std::free(m_data); }

// Makes room for `extra` more bytes and the terminating NUL.
void CharQueue::reserve(int extra)
{
    if (extra < m_capacity - m_write)
        return;
    // Slide the unread part to the front only when the space already read is at least as large as it:
    // each slide then moves no more bytes than were consumed since the last one, so a queue that is read
    // while it grows (one very long line) costs linear time. Otherwise the buffer grows; it slides too
    // when only that keeps it within its bound.
    const bool slide =
        m_read > 0 && (m_read >= m_write - m_read || static_cast<long long>(m_write) + extra + 1 > kMaxCapacity);
    const long long needed = static_cast<long long>(slide ? m_write - m_read : m_write) + extra + 1;
    if (needed > kMaxCapacity)
        throw std::bad_alloc();
    if (slide) {
        std::memmove(m_data, m_data + m_read, static_cast<size_t>(m_write - m_read));
        m_write -= m_read;
        m_read = 0;
        m_data[m_write] = '\0';
    }
    if (needed > m_capacity)
        m_data = grown(m_data, &m_capacity, needed);
}

void CharQueue::appendGrowing(const char* data, int length)
{
    // Bytes of this queue's own would move, or go, as it makes room: they are copied aside first.
    if (m_data && data >= m_data && data < m_data + m_capacity) {
        const std::string own(data, static_cast<size_t>(length));
        appendGrowing(own.data(), length);
        return;
    }
    reserve(length);
    std::memcpy(m_data + m_write, data, static_cast<size_t>(length));
    m_write += length;
    m_data[m_write] = '\0';
}

void CharQueue::discard(int n)
{
    if (n >= m_write - m_read)
        flush();
    else if (n > 0)
        m_read += n;
}

// ---------------------------------------------------------------- UTF-8

std::u32string sp_DecodeUtf8(const char* text, size_t length)
{
    std::u32string out;
    if (!text)
        return out;
    const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
    size_t i = 0;
    while (i < length) {
        unsigned c = s[i];
        int extra;
        char32_t cp;
        if (c < 0x80) { out.push_back(c); ++i; continue; }
        else if ((c & 0xE0) == 0xC0) { extra = 1; cp = c & 0x1F; }
        else if ((c & 0xF0) == 0xE0) { extra = 2; cp = c & 0x0F; }
        else if ((c & 0xF8) == 0xF0) { extra = 3; cp = c & 0x07; }
        else { out.push_back(0xFFFD); ++i; continue; }
        bool ok = true;
        for (int k = 1; k <= extra; ++k) {
            if (i + static_cast<size_t>(k) >= length || (s[i + static_cast<size_t>(k)] & 0xC0) != 0x80) { ok = false; break; }
            cp = (cp << 6) | (s[i + static_cast<size_t>(k)] & 0x3F);
        }
        static const char32_t minimum[4] = {0, 0x80, 0x800, 0x10000};
        if (!ok || cp < minimum[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            out.push_back(0xFFFD);
            ++i;
            continue;
        }
        out.push_back(cp);
        i += static_cast<size_t>(extra) + 1;
    }
    return out;
}

UTFString::UTFString(const char* utf8) : m_utf8(utf8 ? utf8 : "")
{
    std::u32string cps = sp_DecodeUtf8(m_utf8.data(), m_utf8.size());
    for (char32_t cp : cps) {
        if (cp >= 0x10000) {
            m_utf16.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
            m_utf16.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
        } else {
            m_utf16.push_back(static_cast<char16_t>(cp));
        }
    }
    if (sizeof(wchar_t) == 2)
        m_wide.assign(m_utf16.begin(), m_utf16.end());
    else
        m_wide.assign(cps.begin(), cps.end());
}
