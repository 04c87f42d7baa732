// Console.cpp - kv_printf's formatter and the console sink.
#include "Console.h"
#include "Platform_p.h"
#include "TextServices.h"

#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

namespace {

struct Sink {
    std::mutex mutex;
    KvConsoleSink function = nullptr;
    void* context = nullptr;
};

Sink& sink()
{
    static Sink* s = new Sink;
    return *s;
}

std::string formatOne(const char* cformat, ...) SUPPORTDLL_PRINTF(1, 2);

std::string formatOne(const char* cformat, ...)
{
    char small[512];
    va_list args;
    va_start(args, cformat);
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(small, sizeof small, cformat, args);
    va_end(args);
    std::string out;
    if (n < 0) {
    } else if (static_cast<size_t>(n) < sizeof small) {
        out.assign(small, static_cast<size_t>(n));
    } else {
        out.resize(static_cast<size_t>(n) + 1);
        std::vsnprintf(&out[0], out.size(), cformat, copy);
        out.resize(static_cast<size_t>(n));
    }
    va_end(copy);
    return out;
}

} // namespace

long long PrintfArg::asSigned() const
{
    switch (m_kind) {
    case Signed: return m_value.i;
    case Unsigned: return static_cast<long long>(m_value.u);
    case Real: {
        // A real beyond the integers' range (or NaN) is cut to the nearest end, never converted out of range.
        const double d = m_value.d;
        if (std::isnan(d))
            return 0;
        if (d >= 9223372036854775807.0)
            return LLONG_MAX;
        if (d <= -9223372036854775808.0)
            return LLONG_MIN;
        return static_cast<long long>(d);
    }
    case Text: return sp_atoi64(m_text.c_str());
    case Pointer: return static_cast<long long>(reinterpret_cast<uintptr_t>(m_value.p));
    }
    return 0;
}

unsigned long long PrintfArg::asUnsigned() const
{
    switch (m_kind) {
    case Unsigned: return m_value.u;
    case Pointer: return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(m_value.p));
    case Signed:
        return m_bytes >= sizeof(unsigned long long) ? static_cast<unsigned long long>(m_value.i)
                                                     : static_cast<unsigned long long>(m_value.i) & ((1ULL << (8 * m_bytes)) - 1);
    default: return static_cast<unsigned long long>(asSigned());
    }
}

double PrintfArg::asReal() const
{
    switch (m_kind) {
    case Real: return m_value.d;
    case Signed: return static_cast<double>(m_value.i);
    case Unsigned: return static_cast<double>(m_value.u);
    case Text: {
        double v = 0.0;
        // Text that is not a number prints as 0.
        (void)sp_TextToReal(m_text.c_str(), &v);
        return v;
    }
    case Pointer: return 0.0;
    }
    return 0.0;
}

YString sp_FormatArgs(const char* format, const PrintfArg* args, int count)
{
    if (!format)
        return YString();
    std::string out;
    int next = 0;
    auto take = [&]() -> const PrintfArg* { return next < count ? &args[next++] : nullptr; };
    const char* p = format;
    while (*p) {
        if (*p != '%') {
            const char* q = std::strchr(p, '%');
            size_t n = q ? static_cast<size_t>(q - p) : std::strlen(p);
            out.append(p, n);
            p += n;
            continue;
        }
        const char* start = p++;
        if (*p == '%') {
            out.push_back('%');
            ++p;
            continue;
        }
        std::string spec = "%";
        while (*p && std::strchr("-+ #0", *p))
            spec.push_back(*p++);
        if (*p == '*') {
            const PrintfArg* a = take();
            spec += std::to_string(a ? a->asSigned() : 0);
            ++p;
        } else {
            while (*p >= '0' && *p <= '9')
                spec.push_back(*p++);
        }
        if (*p == '.') {
            spec.push_back(*p++);
            if (*p == '*') {
                // A negative precision counts as none, as in printf.
                const PrintfArg* a = take();
                const long long prec = a ? a->asSigned() : 0;
                if (prec < 0)
                    spec.pop_back();
                else
                    spec += std::to_string(prec);
                ++p;
            } else {
                while (*p >= '0' && *p <= '9')
                    spec.push_back(*p++);
            }
        }
        // Length modifiers say nothing here: every argument knows its own kind.
        while (*p && std::strchr("hlLqjzt", *p))
            ++p;
        if (p[0] == 'I' && p[1] == '6' && p[2] == '4')
            p += 3;
        char conversion = *p;
        if (!conversion) {
            out.append(start);
            break;
        }
        ++p;
        const PrintfArg* a = nullptr;
        switch (conversion) {
        case 'd':
        case 'i':
            a = take();
            if (a)
                out += formatOne((spec + "lld").c_str(), a->asSigned());
            break;
        case 'u':
        case 'o':
        case 'x':
        case 'X':
            a = take();
            if (a)
                out += formatOne((spec + "ll" + conversion).c_str(), a->asUnsigned());
            break;
        case 'c':
            a = take();
            if (a)
                out += formatOne((spec + "c").c_str(), static_cast<int>(a->asSigned()));
            break;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            a = take();
            if (a)
                out += formatOne((spec + conversion).c_str(), a->asReal());
            break;
        case 's':
            a = take();
            if (a) {
                std::string text;
                switch (a->kind()) {
                case PrintfArg::Text: text = a->asText(); break;
                case PrintfArg::Signed: text = std::to_string(a->asSigned()); break;
                case PrintfArg::Unsigned: text = std::to_string(a->asUnsigned()); break;
                case PrintfArg::Real: text = sp_RealToShortestText(a->asReal()).str(); break;
                case PrintfArg::Pointer: text = formatOne("%p", a->asPointer()); break;
                }
                out += formatOne((spec + "s").c_str(), text.c_str());
            }
            break;
        case 'p':
            a = take();
            if (a)
                out += formatOne((spec + "p").c_str(), a->asPointer());
            break;
        case 'n':
            take(); // never written through
            break;
        default:
            out.append(start, static_cast<size_t>(p - start));
            break;
        }
    }
    return YString(out.data(), static_cast<int>(out.size()));
}

int kv_write(const char* text)
{
    if (!text)
        return 0;
    size_t n = std::strlen(text);
    Sink& s = sink();
    KvConsoleSink function;
    void* context;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        function = s.function;
        context = s.context;
    }
    if (function)
        function(text, context);
    else
        platform::writeConsole(text, n);
    return static_cast<int>(n);
}

void sp_SetConsoleSink(KvConsoleSink function, void* context)
{
    Sink& s = sink();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.function = function;
    s.context = context;
}
