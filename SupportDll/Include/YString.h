// YString.h - the suite's UTF-8 string, its temporary concatenation result, byte buffers and queues.
#pragma once

#include "SupportDllExport.h"

#include <cstddef>
#include <cstring>
#include <functional>
#include <string>

class TempString;

/// The suite's 8-bit string; holds UTF-8 text, always NUL-terminated.
/// A default-constructed or null-constructed string is empty; no operation returns a null pointer.
class SUPPORTDLL_API YString {
public:
    YString() = default;
    /// Copies a NUL-terminated text; a null pointer gives the empty string.
    YString(const char* text);
    /// Copies `length` bytes of `text` (embedded NULs are kept).
    YString(const char* text, int length);
    /// Decimal text of the number.
    explicit YString(int value);
    explicit YString(long long value);
    /// The shortest decimal text that reads back to exactly `value` ("0.1", "1e-12", "inf", "nan").
    explicit YString(double value);
    YString(const YString&) = default;
    YString(YString&&) noexcept = default;
    YString& operator=(const YString&) = default;
    YString& operator=(YString&&) noexcept = default;
    YString& operator=(const char* text);

    const char* c_str() const { return m_text.c_str(); }
    operator const char*() const { return m_text.c_str(); }
    int length() const { return static_cast<int>(m_text.size()); }
    bool isEmpty() const { return m_text.empty(); }
    /// The byte at `index`, or 0 when the index is out of range.
    char at(int index) const;
    const std::string& str() const { return m_text; }

    /// A copy of this string with `text` appended; this string is unchanged.
    TempString concat(const char* text) const;
    /// Appends in place.
    YString& append(const char* text);
    YString& append(const char* text, int length);
    YString& append(char c);
    /// Replaces the content with `length` bytes of `text`; empty when `text` is null or `length` is not
    /// positive.
    YString& assign(const char* text, int length)
    {
        // Bytes of this string's own are moved into place: clearing first would overwrite them.
        const char* const own = m_text.data();
        if (text && length > 0 && !std::less<const char*>()(text, own) && std::less<const char*>()(text, own + m_text.size())) {
            m_text.assign(text, static_cast<size_t>(length));
            return *this;
        }
        m_text.clear();
        if (text && length > 0) {
            if (length >= kLargeText)
                reserveLarge(length);
            m_text.append(text, static_cast<size_t>(length));
        }
        return *this;
    }
    YString& operator+=(const char* text) { return append(text); }
    YString& operator+=(const YString& text) { return append(text.c_str(), text.length()); }

    /// Replaces the content with printf-style formatted text; returns the new length.
    int sprintf(const char* format, ...) SUPPORTDLL_PRINTF(2, 3);

    /// True when the string starts with `prefix` (ignoring ASCII case unless `caseSensitive`).
    bool beginsWith(const char* prefix, bool caseSensitive = true) const;
    bool endsWith(const char* suffix, bool caseSensitive = true) const;
    /// Up to `length` bytes from `start`; a negative length means to the end. Out-of-range parts are clipped.
    YString substring(int start, int length = -1) const;
    /// Byte index of the first occurrence of `text` at or after `start`, or -1.
    int findIndex(const char* text, int start = 0) const;
    /// Cuts the next token off the front of the string: leading delimiters are skipped, the token runs to
    /// the next delimiter, and the token and that one delimiter are removed. Empty when none is left.
    YString strtok(const char* delimiters);
    /// Hash of the text folded to ASCII lower case, so strings equal ignoring case hash alike.
    unsigned hashValue() const;
    /// 0 when the two paths name the same file by the host's rules (separators "/" and "\" alike, runs of
    /// them as one, "." parts and a trailing separator left out; ASCII case ignored on Windows), otherwise
    /// negative or positive like strcmp. ".." is compared as written.
    int comparePath(const YString& other) const;
    /// strcmp-like comparison ignoring ASCII case.
    int compareNoCase(const char* other) const;
    bool equalsNoCase(const char* other) const { return compareNoCase(other) == 0; }

    YString toLower() const;
    YString toUpper() const;
    /// The text without leading and trailing blanks (space, tab, CR, LF).
    YString trimmed() const;

    void clear() { m_text.clear(); }
    void truncate(int length);
    void reserve(int capacity) { m_text.reserve(capacity < 0 ? 0 : static_cast<size_t>(capacity)); }

private:
    // From this length on, a text is copied into a block the system is asked to back with large pages.
    static constexpr int kLargeText = 32 << 20;
    void reserveLarge(int length);

    std::string m_text;
};

/// Byte-wise equality of the UTF-8 texts.
SUPPORTDLL_API bool operator==(const YString& a, const YString& b);
/// The same with a C text; a null pointer equals the empty text.
SUPPORTDLL_API bool operator==(const YString& a, const char* b);
/// The same with the C text first.
SUPPORTDLL_API bool operator==(const char* a, const YString& b);
inline bool operator!=(const YString& a, const YString& b) { return !(a == b); }
inline bool operator!=(const YString& a, const char* b) { return !(a == b); }
inline bool operator!=(const char* a, const YString& b) { return !(a == b); }
/// Byte-wise order of the UTF-8 texts (which is code-point order).
SUPPORTDLL_API bool operator<(const YString& a, const YString& b);

/// The temporary result of `YString::concat`; `concat` appends further and returns itself.
class SUPPORTDLL_API TempString : public YString {
public:
    TempString() = default;
    explicit TempString(const YString& s) : YString(s) {}
    TempString& concat(const char* text) { append(text); return *this; }
};

class CharQueue;

/// Growable byte buffer, kept NUL-terminated. Adding a byte is an inline append. It holds at most
/// 2147483646 bytes (its length is an int): an append or reservation past that, or when memory runs
/// out, throws std::bad_alloc and leaves the buffer as it was.
class SUPPORTDLL_API Buf {
public:
    static constexpr int initsize = 256;

    Buf() : Buf(initsize) {}
    explicit Buf(int size);
    Buf(const Buf& other);
    Buf& operator=(const Buf& other);
    ~Buf();

    void add(char c)
    {
        if (m_length + 1 >= m_capacity)
            grow(static_cast<long long>(m_length) + 2);
        // Members are read once before the byte stores: a char store may alias them.
        char* const data = m_data;
        const int n = m_length;
        data[n] = c;
        data[n + 1] = '\0';
        m_length = n + 1;
    }
    /// Appends a NUL-terminated text (null appends nothing).
    void append(const char* text);
    void append(const char* data, int length)
    {
        if (data && length > 0 && length < m_capacity - m_length) {
            std::memcpy(m_data + m_length, data, static_cast<size_t>(length));
            m_length += length;
            m_data[m_length] = '\0';
        } else {
            appendGrowing(data, length);
        }
    }
    /// Room for at least `length` more bytes at the end (the terminating NUL not counted in): write up
    /// to `length` bytes at the returned pointer, then `expand` by the number written.
    char* reserveTail(int length)
    {
        if (length >= m_capacity - m_length)
            grow(static_cast<long long>(m_length) + length + 1);
        return m_data + m_length;
    }
    /// Takes `length` bytes written after `reserveTail` into the buffer.
    void expand(int length)
    {
        const int n = m_length + length;
        m_length = n;
        m_data[n] = '\0';
    }
    /// Empties the buffer without releasing its memory.
    void flush() { m_length = 0; m_data[0] = '\0'; }
    /// When this buffer is empty and the unread bytes of `queue` begin its storage, takes them by
    /// exchanging storage with the queue, which is then empty, and returns true; otherwise changes
    /// nothing and returns false. No byte is copied.
    bool takeQueued(CharQueue& queue);
    /// Shortens to `length` bytes when it is shorter than the current length.
    void truncate(int length)
    {
        if (length >= 0 && length < m_length) {
            m_length = length;
            m_data[m_length] = '\0';
        }
    }

    const char* data() const { return m_data; }
    char* data() { return m_data; }
    int length() const { return m_length; }
    bool isEmpty() const { return m_length == 0; }
    /// The last byte, or -1 when the buffer is empty.
    int last() const { return m_length > 0 ? static_cast<unsigned char>(m_data[m_length - 1]) : -1; }
    int capacity() const { return m_capacity; }

private:
    // Capacity for `needed` bytes, the NUL included; computed wide, so that no sum of ints wraps.
    void grow(long long needed);
    void appendGrowing(const char* data, int length);

    char* m_data = nullptr;
    int m_length = 0;
    int m_capacity = 0;
};

/// First-in-first-out queue of bytes. Its unread part is contiguous and NUL-terminated. Like `Buf` it
/// holds at most 2147483646 unread bytes: an append or reservation past that, or when memory runs out,
/// throws std::bad_alloc and leaves the unread bytes as they were.
class SUPPORTDLL_API CharQueue {
public:
    CharQueue();
    CharQueue(const CharQueue& other);
    CharQueue& operator=(const CharQueue& other);
    ~CharQueue();

    void add(char c)
    {
        if (m_write + 1 >= m_capacity)
            reserve(1);
        // Members are read once before the byte stores: a char store may alias them.
        char* const data = m_data;
        const int n = m_write;
        data[n] = c;
        data[n + 1] = '\0';
        m_write = n + 1;
    }
    void append(const char* data, int length)
    {
        if (length <= 0)
            return;
        if (length >= m_capacity - m_write) {
            appendGrowing(data, length);
            return;
        }
        std::memcpy(m_data + m_write, data, static_cast<size_t>(length));
        m_write += length;
        m_data[m_write] = '\0';
    }
    /// Room for at least `length` more bytes at the end: write up to `length` bytes at the returned
    /// pointer, then `expand` by the number written.
    char* reserveTail(int length)
    {
        if (length >= m_capacity - m_write)
            reserve(length);
        return m_data + m_write;
    }
    /// Takes `length` bytes written after `reserveTail` into the queue.
    void expand(int length)
    {
        m_write += length;
        m_data[m_write] = '\0';
    }
    /// The next byte (0 to 255), or -1 when the queue is empty.
    int pop()
    {
        if (m_read >= m_write)
            return -1;
        const int c = static_cast<unsigned char>(m_data[m_read++]);
        if (m_read == m_write)
            flush();
        return c;
    }
    /// Removes the next `n` bytes (all of them when fewer are queued).
    void discard(int n);
    /// The next byte without removing it, or -1.
    int peek() const { return m_read < m_write ? static_cast<unsigned char>(m_data[m_read]) : -1; }
    void flush() { m_read = m_write = 0; m_data[0] = '\0'; }
    bool isEmpty() const { return m_read == m_write; }
    int count() const { return m_write - m_read; }
    /// The unread bytes as NUL-terminated text.
    const char* unread() const { return m_data + m_read; }

private:
    friend class Buf; // Buf::takeQueued
    void reserve(int extra);
    void appendGrowing(const char* data, int length);

    char* m_data = nullptr;
    int m_read = 0;
    int m_write = 0;
    int m_capacity = 0;
};

/// UTF-8 text held together with its wide form for wide-character system calls.
/// `getWide()` is UTF-16 where wchar_t has 16 bits (Windows) and UTF-32 elsewhere;
/// `getUtf16()` is always UTF-16. Invalid UTF-8 bytes become U+FFFD in the wide forms.
class SUPPORTDLL_API UTFString {
public:
    explicit UTFString(const char* utf8);
    const char* get() const { return m_utf8.c_str(); }
    const wchar_t* getWide() const { return m_wide.c_str(); }
    const char16_t* getUtf16() const { return m_utf16.c_str(); }

private:
    std::string m_utf8;
    std::wstring m_wide;
    std::u16string m_utf16;
};

/// Decodes UTF-8 to code points; invalid bytes become U+FFFD. Used by UTFString and the path services.
SUPPORTDLL_API std::u32string sp_DecodeUtf8(const char* text, size_t length);
