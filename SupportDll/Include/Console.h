// Console.h - formatted output to the suite's command console.
#pragma once

#include "SupportDllExport.h"
#include "YString.h"

#include <cstddef>
#include <type_traits>
#include <utility>

/// One argument of `kv_printf`. Text arguments are copied, so temporaries are safe.
/// Other modules add conversions by declaring `YString kvPrintfText(const T&)` for their type T
/// (found by argument-dependent lookup); the text is then passed as a string.
class SUPPORTDLL_API PrintfArg {
public:
    enum Kind { Signed, Unsigned, Real, Text, Pointer };

    PrintfArg(char v) : m_kind(Signed), m_bytes(promotedBytes(sizeof v)) { m_value.i = v; }
    PrintfArg(signed char v) : m_kind(Signed), m_bytes(promotedBytes(sizeof v)) { m_value.i = v; }
    PrintfArg(short v) : m_kind(Signed), m_bytes(promotedBytes(sizeof v)) { m_value.i = v; }
    PrintfArg(int v) : m_kind(Signed), m_bytes(promotedBytes(sizeof v)) { m_value.i = v; }
    PrintfArg(long v) : m_kind(Signed), m_bytes(promotedBytes(sizeof v)) { m_value.i = v; }
    PrintfArg(long long v) : m_kind(Signed), m_bytes(promotedBytes(sizeof v)) { m_value.i = v; }
    PrintfArg(unsigned char v) : m_kind(Unsigned) { m_value.u = v; }
    PrintfArg(unsigned short v) : m_kind(Unsigned) { m_value.u = v; }
    PrintfArg(unsigned v) : m_kind(Unsigned) { m_value.u = v; }
    PrintfArg(unsigned long v) : m_kind(Unsigned) { m_value.u = v; }
    PrintfArg(unsigned long long v) : m_kind(Unsigned) { m_value.u = v; }
    PrintfArg(bool v) : m_kind(Signed) { m_value.i = v ? 1 : 0; }
    PrintfArg(float v) : m_kind(Real) { m_value.d = v; }
    PrintfArg(double v) : m_kind(Real) { m_value.d = v; }
    PrintfArg(const char* v) : m_kind(Text), m_text(v ? v : "(null)") {}
    PrintfArg(std::nullptr_t) : m_kind(Text), m_text("(null)") {}
    PrintfArg(const YString& v) : m_kind(Text), m_text(v) {}
    PrintfArg(const void* v) : m_kind(Pointer) { m_value.p = v; }
    template <class T, class = decltype(kvPrintfText(std::declval<const T&>()))>
    PrintfArg(const T& v) : m_kind(Text), m_text(kvPrintfText(v)) {}

    Kind kind() const { return m_kind; }
    long long asSigned() const;
    /// The value as unsigned: a negative integer as the bytes of its type (char and short as int).
    unsigned long long asUnsigned() const;
    double asReal() const;
    const char* asText() const { return m_text.c_str(); }
    const void* asPointer() const { return m_kind == Pointer ? m_value.p : nullptr; }

private:
    // A signed argument's bytes as printf takes it: short and char are promoted to int.
    static constexpr unsigned char promotedBytes(size_t bytes) { return static_cast<unsigned char>(bytes < sizeof(int) ? sizeof(int) : bytes); }

    Kind m_kind;
    // The width of a signed argument, whose unsigned conversions (%u, %o, %x) show that many bytes.
    unsigned char m_bytes = sizeof(long long);
    union {
        long long i;
        unsigned long long u;
        double d;
        const void* p;
    } m_value{};
    YString m_text;
};

/// Formats printf-style text from already wrapped arguments. Conversions take the argument in the kind
/// the conversion asks for (%d of a real truncates it, %s of a number prints its decimal text); an
/// unsigned conversion of a negative integer shows the bytes of its argument's type as printf takes it,
/// char and short promoted to int (%x of the int -1 is "ffffffff"; length modifiers are not read, so
/// %hx of it is too); missing arguments print as nothing.
SUPPORTDLL_API YString sp_FormatArgs(const char* format, const PrintfArg* args, int count);

/// Writes text to the console sink; returns the number of bytes.
SUPPORTDLL_API int kv_write(const char* text);

/// Where console text goes: the function receives every piece of text. Null restores standard output.
typedef void (*KvConsoleSink)(const char* text, void* context);
/// Sends console text to `sink`, which receives `context` with each piece; the context is not owned and
/// must outlive the sink's use.
SUPPORTDLL_API void sp_SetConsoleSink(KvConsoleSink sink, void* context);

/// Formatted output to the suite's command console (standard output unless a sink is set); returns the
/// number of bytes written.
template <class... Args>
int kv_printf(const char* format, const Args&... args)
{
    const PrintfArg wrapped[] = {PrintfArg(args)..., PrintfArg(0)};
    return kv_write(sp_FormatArgs(format, wrapped, static_cast<int>(sizeof...(Args))));
}
