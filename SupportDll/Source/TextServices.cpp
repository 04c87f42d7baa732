// TextServices.cpp - tokenising, number conversion and hashing of text.
#include "TextServices.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>

namespace {

inline bool isDelimiter(char c, const char* delimiters) { return c != '\0' && std::strchr(delimiters, c) != nullptr; }
inline bool isDigit(char c) { return c >= '0' && c <= '9'; }
inline bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
inline char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
inline bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool startsNoCase(const char* s, const char* word)
{
    for (; *word; ++s, ++word)
        if (lower(*s) != *word)
            return false;
    return true;
}

// The value of a decimal number that a double cannot hold, as strtod gives it: infinity of its sign
// when it is too large, zero of its sign when it is nearer zero than the least double. Which of the two
// is told by the decimal place of its first significant digit.
double outOfRange(const char* p, const char* end)
{
    const bool negative = *p == '-';
    if (negative)
        ++p;
    bool significant = false;
    long long intDigits = 0, fractionZeros = 0;
    for (; p < end && isDigit(*p); ++p) {
        if (significant || *p != '0') {
            significant = true;
            ++intDigits;
        }
    }
    if (p < end && *p == '.') {
        for (++p; p < end && isDigit(*p); ++p) {
            if (!significant && *p == '0')
                ++fractionZeros;
            else
                significant = true;
        }
    }
    long long exponent = 0;
    if (p < end && (*p == 'e' || *p == 'E')) {
        ++p;
        const bool down = p < end && *p == '-';
        if (p < end && (*p == '-' || *p == '+'))
            ++p;
        for (; p < end && isDigit(*p); ++p)
            exponent = std::min(exponent * 10 + (*p - '0'), 1000000000000LL);
        if (down)
            exponent = -exponent;
    }
    const long long place = (intDigits > 0 ? intDigits - 1 : -(fractionZeros + 1)) + exponent;
    const double magnitude = place > 0 ? std::numeric_limits<double>::infinity() : 0.0;
    return negative ? -magnitude : magnitude;
}

bool parseDouble(const char* begin, const char* end, double* value)
{
    // One sign at most: "+" is skipped, for the parser takes only "-", and a second sign is no number.
    if (begin < end && *begin == '+') {
        ++begin;
        if (begin < end && (*begin == '-' || *begin == '+'))
            return false;
    }
    auto result = std::from_chars(begin, end, *value);
    if (result.ec == std::errc::result_out_of_range && result.ptr == end) {
        *value = outOfRange(begin, end);
        return true;
    }
    return result.ec == std::errc() && result.ptr == end;
}

} // namespace

int sp_ScanLine(const char* text, const char* delimiters, YArray<YString>* tokens, int maxTokens)
{
    if (!text || !tokens)
        return 0;
    if (!delimiters)
        delimiters = "";
    int added = 0;
    const char* p = text;
    while (*p && added < maxTokens) {
        while (isDelimiter(*p, delimiters))
            ++p;
        if (!*p)
            break;
        const char* start = p;
        while (*p && !isDelimiter(*p, delimiters))
            ++p;
        tokens->append(YString(start, static_cast<int>(p - start)));
        ++added;
    }
    return added;
}

int sp_SplitLine(const char* text, char separator, YArray<YString>* parts, int maxParts)
{
    if (!text || !parts || !*text)
        return 0;
    int added = 0;
    const char* p = text;
    for (;;) {
        const char* end = (maxParts > 0 && added == maxParts - 1) ? nullptr : std::strchr(p, separator);
        if (!end)
            end = p + std::strlen(p);
        const char* b = p;
        const char* e = end;
        while (b < e && isBlank(*b))
            ++b;
        while (e > b && isBlank(e[-1]))
            --e;
        parts->append(YString(b, static_cast<int>(e - b)));
        ++added;
        if (*end == '\0')
            break;
        p = end + 1;
    }
    return added;
}

YString sp_GetToken(const char** cursor, const char* delimiters, const char* openQuote, const char* closeQuote,
                    bool keepQuotes)
{
    if (!cursor || !*cursor || !delimiters)
        return YString();
    if (!openQuote)
        openQuote = "";
    if (!closeQuote)
        closeQuote = "";
    const char* p = *cursor;
    while (isDelimiter(*p, delimiters))
        ++p;
    std::string token;
    char closing = '\0';
    bool quoted = false;
    while (*p) {
        char c = *p;
        if (quoted) {
            if (c == closing) {
                quoted = false;
                if (keepQuotes)
                    token.push_back(c);
            } else {
                token.push_back(c);
            }
            ++p;
            continue;
        }
        if (isDelimiter(c, delimiters))
            break;
        const char* q = c ? std::strchr(openQuote, c) : nullptr;
        if (q) {
            size_t k = static_cast<size_t>(q - openQuote);
            closing = k < std::strlen(closeQuote) ? closeQuote[k] : c;
            quoted = true;
            if (keepQuotes)
                token.push_back(c);
        } else {
            token.push_back(c);
        }
        ++p;
    }
    if (*p)
        ++p; // the delimiter that ended the token
    *cursor = p;
    return YString(token.data(), static_cast<int>(token.size()));
}

double sp_ConvertEngToReal(const char* text, char** end)
{
    if (end)
        *end = const_cast<char*>(text);
    if (!text)
        return 0.0;
    const char* p = text;
    while (*p == ' ' || *p == '\t')
        ++p;
    std::string number;
    if (*p == '+' || *p == '-') {
        if (*p == '-')
            number.push_back('-');
        ++p;
    }
    bool anyDigit = false;
    while (isDigit(*p)) {
        number.push_back(*p++);
        anyDigit = true;
    }
    if (*p == '.') {
        number.push_back(*p++);
        while (isDigit(*p)) {
            number.push_back(*p++);
            anyDigit = true;
        }
    }
    if (!anyDigit)
        return 0.0;
    long long exponent = 0;
    if ((*p == 'e' || *p == 'E') && (isDigit(p[1]) || ((p[1] == '+' || p[1] == '-') && isDigit(p[2])))) {
        ++p;
        bool negative = false;
        if (*p == '+' || *p == '-')
            negative = (*p++ == '-');
        // The exponent stops growing far beyond any double's, yet far within its own type.
        while (isDigit(*p)) {
            exponent = std::min(exponent * 10 + (*p - '0'), 1000000000000LL);
            ++p;
        }
        if (negative)
            exponent = -exponent;
    }
    double factor = 1.0;
    int scale = 0;
    if (startsNoCase(p, "meg")) { scale = 6; p += 3; }
    else if (startsNoCase(p, "mil")) { factor = 25.4e-6; p += 3; }
    else {
        switch (lower(*p)) {
        case 'f': scale = -15; ++p; break;
        case 'p': scale = -12; ++p; break;
        case 'n': scale = -9; ++p; break;
        case 'u': scale = -6; ++p; break;
        case 'm': scale = -3; ++p; break;
        case 'k': scale = 3; ++p; break;
        case 'g': scale = 9; ++p; break;
        case 't': scale = 12; ++p; break;
        default: break;
        }
    }
    while (isAlpha(*p))
        ++p; // unit letters
    if (end)
        *end = const_cast<char*>(p);
    // The multiplier goes into the decimal exponent so that "4.7k" reads exactly as 4700.
    number += 'e';
    number += std::to_string(exponent + scale);
    double value = 0.0;
    auto result = std::from_chars(number.data(), number.data() + number.size(), value);
    // Too large or too small for a double: which of the two is told by where the digits put the decimal
    // point, not by the exponent alone ("1000e-1" with 400 zeros is too large).
    if (result.ec == std::errc::result_out_of_range)
        value = outOfRange(number.data(), number.data() + number.size());
    else if (result.ec != std::errc())
        value = 0.0;
    return value * factor;
}

YString sp_ConvertRealToJSEng(double value, int digits, bool exponentForm)
{
    if (std::isnan(value))
        return YString("nan");
    if (std::isinf(value))
        return YString(value < 0 ? "-inf" : "inf");
    if (value == 0.0)
        return YString("0");
    if (digits < 1) digits = 1;
    if (digits > 17) digits = 17;
    // [-]d.ddd...e[+-]XX, with a decimal point whatever the process's locale (a host program may use a
    // decimal comma).
    char scientific[64];
    const auto written = std::to_chars(scientific, scientific + sizeof scientific - 1, value, std::chars_format::scientific, digits - 1);
    *written.ptr = '\0';
    const char* p = scientific;
    bool negative = false;
    if (*p == '-') { negative = true; ++p; }
    std::string mantissa;
    while (*p && *p != 'e') {
        if (*p != '.')
            mantissa.push_back(*p);
        ++p;
    }
    int exp10 = (*p == 'e') ? std::atoi(p + 1) : 0;
    int eng = exp10 >= 0 ? (exp10 / 3) * 3 : -(((-exp10) + 2) / 3) * 3;
    int intDigits = exp10 - eng + 1; // 1 to 3
    while (static_cast<int>(mantissa.size()) < intDigits)
        mantissa.push_back('0');
    std::string integerPart = mantissa.substr(0, static_cast<size_t>(intDigits));
    std::string fraction = mantissa.substr(static_cast<size_t>(intDigits));
    while (!fraction.empty() && fraction.back() == '0')
        fraction.pop_back();
    std::string text = negative ? "-" : "";
    text += integerPart;
    if (!fraction.empty()) {
        text += '.';
        text += fraction;
    }
    static const char* const suffixes[] = {"f", "p", "n", "u", "m", "", "k", "meg", "g", "t"};
    if (!exponentForm && eng >= -15 && eng <= 12) {
        text += suffixes[(eng + 15) / 3];
    } else if (eng != 0) {
        text += 'e';
        text += std::to_string(eng);
    }
    return YString(text.c_str());
}

long long sp_atoi64(const char* text)
{
    if (!text)
        return 0;
    const char* p = text;
    while (*p == ' ' || *p == '\t')
        ++p;
    bool negative = false;
    if (*p == '+' || *p == '-')
        negative = (*p++ == '-');
    unsigned long long magnitude = 0;
    const unsigned long long limit = negative ? static_cast<unsigned long long>(LLONG_MAX) + 1 : LLONG_MAX;
    bool overflow = false;
    while (isDigit(*p)) {
        unsigned d = static_cast<unsigned>(*p - '0');
        if (magnitude > (limit - d) / 10)
            overflow = true;
        else
            magnitude = magnitude * 10 + d;
        ++p;
    }
    if (overflow)
        return negative ? LLONG_MIN : LLONG_MAX;
    if (negative)
        return magnitude == static_cast<unsigned long long>(LLONG_MAX) + 1 ? LLONG_MIN : -static_cast<long long>(magnitude);
    return static_cast<long long>(magnitude);
}

unsigned sp_HashValue(const char* text)
{
    if (!text)
        return 0;
    unsigned h = 2166136261u;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
        h ^= *p;
        h *= 16777619u;
    }
    return h;
}

YString sp_RealToShortestText(double value)
{
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return YString(buffer, static_cast<int>(result.ptr - buffer));
}

bool sp_TextToReal(const char* text, double* value)
{
    if (!text || !value)
        return false;
    const char* b = text;
    const char* e = text + std::strlen(text);
    while (b < e && isBlank(*b))
        ++b;
    while (e > b && isBlank(e[-1]))
        --e;
    double v = 0.0;
    if (b == e || !parseDouble(b, e, &v))
        return false;
    *value = v;
    return true;
}

size_t sp_UnfinishedUtf8Tail(const char* text, size_t length)
{
    if (!text)
        return 0;
    for (size_t back = 1; back <= 3 && back <= length; ++back) {
        const unsigned char c = static_cast<unsigned char>(text[length - back]);
        if ((c & 0xC0) == 0x80)
            continue; // a continuation byte: the lead is further back
        const size_t sequence = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
        return sequence > back && c < 0xF8 ? back : 0;
    }
    return 0;
}
