// NetlistFilter_p.h - the byte filter and the bulk scanning helpers shared by the netlist readers.
#pragma once

#include <cstddef>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#if defined(_MSC_VER)
#include <intrin.h>
#endif
#endif

namespace netlist {
/// True for the bytes a netlist reader keeps: tab, line feed and 32 to 254.
inline bool keeps(int c) { return c == 9 || c == 10 || (c >= 32 && c <= 254); }

/// The bytes that separate the words of a netlist line: keywords, names and "name=value" pairs.
constexpr char kTokenDelimiters[] = " =(),\t";

// The readers copy or skip runs of printable ASCII in one step; every other byte (line ends, the end
// mark 0xFF, bytes the filter drops, non-ASCII bytes) takes their per-character path.
constexpr bool isPrintable(unsigned char c) { return c == '\t' || (c >= 32 && c <= 126); }

#if defined(__SSE2__) || defined(_M_X64)
// Index of the lowest set bit of a nonzero 16-bit mask.
inline int lowestBit(unsigned mask)
{
#if defined(_MSC_VER)
    unsigned long index = 0;
    _BitScanForward(&index, mask);
    return static_cast<int>(index);
#else
    return __builtin_ctz(mask);
#endif
}
#endif

#if defined(__SSE2__) || defined(_M_X64)
// One bit per byte of `v`: set for printable ASCII (32 to 126) other than the two stop bytes given as
// vectors. A tab counts as a stop here; the scanners take it by their byte check.
inline unsigned plainMask(__m128i v, __m128i stop1, __m128i stop2)
{
    const __m128i stops = _mm_or_si128(_mm_cmpeq_epi8(v, stop1), _mm_cmpeq_epi8(v, stop2));
    const __m128i printable = _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8(31)), _mm_cmplt_epi8(v, _mm_set1_epi8(127)));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_andnot_si128(stops, printable)));
}
#endif

// Length of the run of printable bytes at `p` that are neither `stop1` nor `stop2`; with `Outputs` 1 or
// 2 the run is also copied to `out` (and to `alsoOut`). Outputs need room for the run and 16 bytes
// more: the scan and the copy are one pass that stores whole vectors.
template <int Outputs>
inline size_t scanPlainRun(const char* p, const char* end, char stop1, char stop2, char* out, char* alsoOut)
{
    const char* q = p;
    for (;;) {
#if defined(__SSE2__) || defined(_M_X64)
        // Sixteen bytes at a time; a tab stops the vector scan and is taken by the byte check below.
        const __m128i s1 = _mm_set1_epi8(stop1);
        const __m128i s2 = _mm_set1_epi8(stop2);
        while (end - q >= 16) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
            const unsigned mask = plainMask(v, s1, s2);
            const size_t at = static_cast<size_t>(q - p);
            if (Outputs >= 1)
                _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), v);
            if (Outputs >= 2)
                _mm_storeu_si128(reinterpret_cast<__m128i*>(alsoOut + at), v);
            if (mask != 0xFFFFu) {
                q += lowestBit(~mask & 0xFFFFu);
                break;
            }
            q += 16;
        }
#endif
        if (q >= end)
            break;
        const unsigned char c = static_cast<unsigned char>(*q);
        if (!isPrintable(c) || c == static_cast<unsigned char>(stop1) || c == static_cast<unsigned char>(stop2))
            break;
        if (Outputs >= 1)
            out[q - p] = static_cast<char>(c);
        if (Outputs >= 2)
            alsoOut[q - p] = static_cast<char>(c);
        ++q;
    }
    return static_cast<size_t>(q - p);
}

inline size_t plainRun(const char* p, const char* end, char stop1, char stop2)
{
    return scanPlainRun<0>(p, end, stop1, stop2, nullptr, nullptr);
}

// The most bytes one bulk read takes from the stream's buffer: its output buffers need that much room.
constexpr long long kBulkWindow = 64 * 1024;

// Length of the line end (LF or CR LF) at `p`, 0 when there is none or it is not wholly in the buffer.
inline size_t lineEndAt(const char* p, const char* end)
{
    if (p < end && *p == '\n')
        return 1;
    if (end - p >= 2 && p[0] == '\r' && p[1] == '\n')
        return 2;
    return 0;
}

// True for the first byte of a physical line that simply starts the next logical line: printable, not a
// blank, not "+" and not a comment character.
inline bool startsPlainLine(unsigned char c, char commentChar)
{
    return c > 32 && c <= 126 && c != '+' && c != '*' && c != static_cast<unsigned char>(commentChar);
}
} // namespace netlist
