// QtSupport.h - UTF-8 detection and the conversions between the suite's strings and Qt's.
#pragma once

#include "SupportQtExport.h"
#include "YString.h"

#include <QByteArray>
#include <QString>

/// Verdict of `UTF8Detect`, in order of strength.
enum UTF8DetectEncoding : int {
    Ascii = 0,        ///< no byte of 0x80 or above has been seen
    Utf8 = 1,         ///< at least one 2-, 3- or 4-byte sequence has begun, nothing invalid
    Utf8Extended = 2, ///< at least one 5- or 6-byte sequence has begun, nothing invalid
    Invalid = 3       ///< a byte stood where it cannot stand; final until `reset`
};

/// Incremental, deliberately lenient UTF-8 detector: it checks only the shape of sequences, so overlong
/// forms, encoded surrogates and values above U+10FFFF count as UTF-8, and 5- and 6-byte sequences as
/// extended UTF-8. A sequence counts once its first byte is seen: an input that ends inside one is not
/// penalised ("caf" and 0xE9 alone give Utf8), since the rest may come in the next bytes fed.
/// Two integers and a branch per byte; copyable by plain member copy.
class SUPPORTQT_API UTF8Detect {
public:
    UTF8Detect() = default;
    UTF8Detect(const UTF8Detect&) = default;
    UTF8Detect(UTF8Detect&&) = default;
    UTF8Detect& operator=(const UTF8Detect& other);
    UTF8Detect& operator=(UTF8Detect&& other);

    UTF8DetectEncoding getEncoding() const { return m_encoding; }
    /// The state code: 1 between sequences, ij expecting byte i of a j-byte sequence, 99 after invalid input.
    int getState() const { return m_state; }
    /// True when no sequence is open (or the input was found invalid), so that ASCII bytes leave the
    /// detector as it is.
    bool isBetweenSequences() const { return m_state == 1 || m_state == 99; }
    void reset()
    {
        m_state = 1;
        m_encoding = Ascii;
    }
    /// Feeds one byte value (only its low bits are tested; feed bytes).
    void add(unsigned int c)
    {
        if (m_state == 1) {
            if (c < 0x80)
                return;
            addSlow(c);
        } else {
            addSlow(c);
        }
    }
    /// Feeds every byte of a NUL-terminated string, exactly as repeated `add`; does not reset first.
    void loadString(const char* s);

private:
    void addSlow(unsigned int c);

    UTF8DetectEncoding m_encoding = Ascii;
    int m_state = 1;
};

/// Text of unknown 8-bit origin to UTF-8: returned unchanged when it is valid UTF-8 (a final sequence
/// that is not finished counts as invalid), else decoded with the locale codec and returned as UTF-8.
SUPPORTQT_API YString sp_AutoConvertToUtf8(const YString& s);
/// The same on a C text; null gives empty text.
SUPPORTQT_API YString sp_AutoConvertToUtf8(const char* s);
/// Locale code-page text to UTF-8.
SUPPORTQT_API YString sp_ConvertFromLocal(const char* s);
/// UTF-8 to the locale's 8-bit code page (the result holds locale bytes, not UTF-8).
SUPPORTQT_API YString sp_ConvertFromUtf8(const char* s);
/// Whether the locale code page maps byte 0xB5 to U+00B5 MICRO SIGN. Computed once per process and
/// deliberately not recomputed after `sp_SetLocaleEncoding`.
SUPPORTQT_API bool sp_LocaleSupportsMicroCharacter();
/// "default" (any case) restores the system's locale codec and returns true; another name makes that
/// codec the locale codec, or returns false and changes nothing when Qt knows no codec of that name.
[[nodiscard]] SUPPORTQT_API bool sp_SetLocaleEncoding(const YString& name);

/// A pointer to the UTF-8 form of `s` that stays valid until the process ends; equal texts give the
/// same pointer. Every distinct text is kept forever; for the user-interface thread only. The library
/// owns the text: the caller never frees it.
SUPPORTQT_API const char* toCs(const QString& s);
/// `YString` (UTF-8) to `QString`.
SUPPORTQT_API QString toQs(const YString& s);
/// `QString` to `YString` (UTF-8).
SUPPORTQT_API YString toYs(const QString& s);
/// Equality ignoring case.
SUPPORTQT_API bool equals(const QString& a, const QString& b);
/// Inequality ignoring case.
SUPPORTQT_API bool notEquals(const QString& a, const QString& b);
/// Paths compare ignoring case, as on the host file system; no separator or dot-segment normalisation.
SUPPORTQT_API bool pathEquals(const QString& a, const QString& b);
/// The negation of `pathEquals`.
SUPPORTQT_API bool pathNotEquals(const QString& a, const QString& b);
/// Compares two UTF-8 texts with the default locale's collation; negative, 0 or positive.
SUPPORTQT_API int sp_CompareUtf8Strings(const char* a, const char* b, bool caseSensitive);
/// Engineering-notation number text to double (see the core library's `sp_ConvertEngToReal`).
SUPPORTQT_API double sp_ConvertEngToReal(const QString& s);

/// Lets `kv_printf` take a `QString` argument, passed as UTF-8.
SUPPORTQT_API YString kvPrintfText(const QString& s);

/// Holds the UTF-8 form of a `QString` for the life of this object: `f(Tocs(q))`.
class SUPPORTQT_API Tocs {
public:
    explicit Tocs(const QString& s);
    ~Tocs();
    Tocs(const Tocs&) = delete;
    Tocs& operator=(const Tocs&) = delete;
    operator const char*() const;

private:
    QByteArray* m_bytes;
};

/// UTF-8 text with its wide form, for wide-character system calls. The wide form is UTF-16 where
/// wchar_t has 16 bits (Windows) and UTF-32 elsewhere; both are NUL-terminated.
class SUPPORTQT_API UTFStringQt {
public:
    explicit UTFStringQt(const char* utf8);
    explicit UTFStringQt(const wchar_t* wide);
    ~UTFStringQt();
    UTFStringQt(const UTFStringQt&) = delete;
    UTFStringQt& operator=(const UTFStringQt&) = delete;
    const char* get() const;
    const wchar_t* getWide() const;

private:
    void setWide(const QString& s);
    QByteArray* m_utf8;
    wchar_t* m_wide;
};
