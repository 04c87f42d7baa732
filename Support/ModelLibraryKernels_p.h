// ModelLibraryKernels_p.h - the model-library index's byte classifiers: 64 bytes of text become bit
// masks of line ends, word separators, blanks, "=" signs, digits and equal bytes, one bit per byte.
// Each kernel has a portable loop, an SSE2 version (the x86-64 baseline) and an AVX2 version chosen at
// run time; the tests hold them to the same answers.
#pragma once

#include "NetlistFilter_p.h"

#include <cstddef>
#include <cstdint>

#if defined(__SSE2__) || defined(_M_X64)
#define MODELLIB_HAVE_SSE2 1
#include <emmintrin.h>
#if defined(_MSC_VER)
#include <intrin.h>
#endif
#endif

#if (defined(__GNUC__) || defined(__clang__)) && (defined(__x86_64__) || defined(__i386__))
#define MODELLIB_HAVE_AVX2 1
#include <immintrin.h>
#endif

// The index's hot paths are kept small: what is rare goes out of line, what runs per word goes in.
#if defined(_MSC_VER)
#define MODELLIB_NOINLINE __declspec(noinline)
#define MODELLIB_INLINE __forceinline
#else
#define MODELLIB_NOINLINE __attribute__((noinline))
#define MODELLIB_INLINE inline __attribute__((always_inline))
#endif

namespace modellib {

/// Index of the lowest set bit of a nonzero 64-bit mask.
inline int lowestBit64(uint64_t mask) { return netlist::lowestBit(mask); }

/// Index of the highest set bit of a nonzero 64-bit mask.
inline int highestBit64(uint64_t mask)
{
#if defined(_MSC_VER)
    unsigned long index = 0;
    _BitScanReverse64(&index, mask);
    return static_cast<int>(index);
#else
    return 63 - __builtin_clzll(mask);
#endif
}

/// The word separators " =(),\t", the blanks " \t", the "=" signs, a stop byte (the inline comment
/// character) and the digits among some bytes, one bit per byte.
struct WordMasks {
    uint64_t delimiters = 0;
    uint64_t blanks = 0;
    uint64_t equals = 0;
    uint64_t stops = 0;
    uint64_t digits = 0;
};

// The portable loops: the reference of the others, and the kernels where neither SSE2 nor AVX2 is.

/// One bit per byte of the 64 at `a` and `b`: set where they are equal.
inline uint64_t equalBytes64Scalar(const char* a, const char* b)
{
    uint64_t mask = 0;
    for (int i = 0; i < 64; ++i)
        if (a[i] == b[i])
            mask |= 1ull << i;
    return mask;
}

/// One bit per byte of the 64 at `p`: set for the bytes that need a look of their own in a line: the
/// line ends, the bytes the readers' filter drops (0 to 8, 11 to 31) and the end mark 0xFF. A tab is
/// plain.
inline uint64_t specialMaskScalar(const char* p)
{
    uint64_t mask = 0;
    for (int i = 0; i < 64; ++i) {
        const unsigned char c = static_cast<unsigned char>(p[i]);
        if ((c < 32 && c != 9) || c == 0xFF)
            mask |= 1ull << i;
    }
    return mask;
}

/// The word masks of the first `chunks` times 16 bytes at `p` (`chunks` from 1 to 4).
inline WordMasks wordMasksScalar(const char* p, int chunks, char stop)
{
    WordMasks m;
    for (int i = 0; i < 16 * chunks; ++i) {
        const char c = p[i];
        const uint64_t bit = 1ull << i;
        if (c == ' ' || c == '\t')
            m.blanks |= bit;
        if (c == ' ' || c == '\t' || c == '=' || c == '(' || c == ')' || c == ',')
            m.delimiters |= bit;
        if (c == '=')
            m.equals |= bit;
        if (c == stop)
            m.stops |= bit;
        if (c >= '0' && c <= '9')
            m.digits |= bit;
    }
    return m;
}

#if MODELLIB_HAVE_SSE2
inline uint64_t equalBytes64Sse2(const char* a, const char* b)
{
    uint64_t mask = 0;
    for (int i = 0; i < 4; ++i) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + 16 * i));
        const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 16 * i));
        mask |= static_cast<uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, y)))) << (16 * i);
    }
    return mask;
}

inline uint64_t specialMaskSse2(const char* p)
{
    const __m128i minusTwo = _mm_set1_epi8(-2);
    const __m128i space = _mm_set1_epi8(32);
    const __m128i tab = _mm_set1_epi8(9);
    uint64_t mask = 0;
    for (int i = 0; i < 4; ++i) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i));
        // Signed -1 to 31 are the bytes 0xFF and 0 to 31.
        const __m128i low = _mm_and_si128(_mm_cmpgt_epi8(v, minusTwo), _mm_cmplt_epi8(v, space));
        const unsigned bits = static_cast<unsigned>(_mm_movemask_epi8(_mm_andnot_si128(_mm_cmpeq_epi8(v, tab), low)));
        mask |= static_cast<uint64_t>(bits) << (16 * i);
    }
    return mask;
}

inline WordMasks wordMasksSse2(const char* p, int chunks, char stop)
{
    WordMasks m;
    const __m128i space = _mm_set1_epi8(' ');
    const __m128i tab = _mm_set1_epi8('\t');
    const __m128i equal = _mm_set1_epi8('=');
    const __m128i comma = _mm_set1_epi8(',');
    const __m128i one = _mm_set1_epi8(1);
    const __m128i close = _mm_set1_epi8(')'); // "(" | 1 is ")"
    const __m128i stopByte = _mm_set1_epi8(stop);
    const __m128i belowZero = _mm_set1_epi8('0' - 1);
    const __m128i aboveNine = _mm_set1_epi8('9' + 1);
    for (int i = 0; i < chunks; ++i) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i));
        const __m128i blank = _mm_or_si128(_mm_cmpeq_epi8(v, space), _mm_cmpeq_epi8(v, tab));
        const __m128i eq = _mm_cmpeq_epi8(v, equal);
        const __m128i other = _mm_or_si128(_mm_or_si128(eq, _mm_cmpeq_epi8(v, comma)), _mm_cmpeq_epi8(_mm_or_si128(v, one), close));
        // Bytes from 0x80 are negative: no digit.
        const __m128i digit = _mm_and_si128(_mm_cmpgt_epi8(v, belowZero), _mm_cmplt_epi8(v, aboveNine));
        const unsigned shift = 16 * static_cast<unsigned>(i);
        m.blanks |= static_cast<uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(blank))) << shift;
        m.delimiters |= static_cast<uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(blank, other)))) << shift;
        m.equals |= static_cast<uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(eq))) << shift;
        m.stops |= static_cast<uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, stopByte)))) << shift;
        m.digits |= static_cast<uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(digit))) << shift;
    }
    return m;
}
#endif

#if MODELLIB_HAVE_AVX2
#define MODELLIB_AVX2 __attribute__((target("avx2")))

MODELLIB_AVX2 MODELLIB_NOINLINE inline uint64_t equalBytes64Avx2(const char* a, const char* b)
{
    uint64_t mask = 0;
    for (int i = 0; i < 2; ++i) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + 32 * i));
        const __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 32 * i));
        mask |= static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(x, y)))) << (32 * i);
    }
    return mask;
}

MODELLIB_AVX2 MODELLIB_NOINLINE inline uint64_t specialMaskAvx2(const char* p)
{
    const __m256i minusTwo = _mm256_set1_epi8(-2);
    const __m256i space = _mm256_set1_epi8(32);
    const __m256i tab = _mm256_set1_epi8(9);
    uint64_t mask = 0;
    for (int i = 0; i < 2; ++i) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 32 * i));
        const __m256i low = _mm256_and_si256(_mm256_cmpgt_epi8(v, minusTwo), _mm256_cmpgt_epi8(space, v));
        const uint32_t bits = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_andnot_si256(_mm256_cmpeq_epi8(v, tab), low)));
        mask |= static_cast<uint64_t>(bits) << (32 * i);
    }
    return mask;
}

/// Reads whole steps of 32 bytes: with an odd `chunks`, 16 bytes more than asked, whose bits the callers
/// ignore as they ignore the bits past the line.
MODELLIB_AVX2 MODELLIB_NOINLINE inline WordMasks wordMasksAvx2(const char* p, int chunks, char stop)
{
    const __m256i space = _mm256_set1_epi8(' ');
    const __m256i tab = _mm256_set1_epi8('\t');
    const __m256i equal = _mm256_set1_epi8('=');
    const __m256i comma = _mm256_set1_epi8(',');
    const __m256i one = _mm256_set1_epi8(1);
    const __m256i close = _mm256_set1_epi8(')');
    const __m256i stopByte = _mm256_set1_epi8(stop);
    const __m256i belowZero = _mm256_set1_epi8('0' - 1);
    const __m256i aboveNine = _mm256_set1_epi8('9' + 1);
    uint64_t delimiters = 0, blanks = 0, equals = 0, stops = 0, digits = 0;
    for (int i = 0; i < chunks; i += 2) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 16 * i));
        const __m256i blank = _mm256_or_si256(_mm256_cmpeq_epi8(v, space), _mm256_cmpeq_epi8(v, tab));
        const __m256i eq = _mm256_cmpeq_epi8(v, equal);
        const __m256i other =
            _mm256_or_si256(_mm256_or_si256(eq, _mm256_cmpeq_epi8(v, comma)), _mm256_cmpeq_epi8(_mm256_or_si256(v, one), close));
        const __m256i digit = _mm256_and_si256(_mm256_cmpgt_epi8(v, belowZero), _mm256_cmpgt_epi8(aboveNine, v));
        const unsigned shift = 16 * static_cast<unsigned>(i);
        blanks |= static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(blank))) << shift;
        delimiters |= static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_or_si256(blank, other)))) << shift;
        equals |= static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(eq))) << shift;
        stops |= static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(v, stopByte)))) << shift;
        digits |= static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(digit))) << shift;
    }
    WordMasks m;
    m.delimiters = delimiters;
    m.blanks = blanks;
    m.equals = equals;
    m.stops = stops;
    m.digits = digits;
    return m;
}

/// Whether the AVX2 versions run: the level the netlist readers chose for this process (the processor's
/// and the system's support, capped by SUPPORTQT_NETLIST_SCAN), asked once.
inline bool hasAvx2()
{
    static const bool avx2 = netlist::activeKernels().level >= netlist::ScanLevel::Avx2;
    return avx2;
}
#endif

// The kernels the index uses: AVX2 where it runs, else SSE2, else the portable loops. The bytes read
// past those asked about (up to 64 from `p`) must be readable; their bits mean nothing.

MODELLIB_INLINE uint64_t equalBytes64(const char* a, const char* b)
{
#if MODELLIB_HAVE_AVX2
    if (hasAvx2())
        return equalBytes64Avx2(a, b);
#endif
#if MODELLIB_HAVE_SSE2
    return equalBytes64Sse2(a, b);
#else
    return equalBytes64Scalar(a, b);
#endif
}

MODELLIB_INLINE uint64_t specialMask(const char* p)
{
#if MODELLIB_HAVE_AVX2
    if (hasAvx2())
        return specialMaskAvx2(p);
#endif
#if MODELLIB_HAVE_SSE2
    return specialMaskSse2(p);
#else
    return specialMaskScalar(p);
#endif
}

MODELLIB_INLINE WordMasks wordMasks(const char* p, int chunks, char stop)
{
#if MODELLIB_HAVE_AVX2
    if (hasAvx2())
        return wordMasksAvx2(p, chunks, stop);
#endif
#if MODELLIB_HAVE_SSE2
    return wordMasksSse2(p, chunks, stop);
#else
    return wordMasksScalar(p, chunks, stop);
#endif
}

} // namespace modellib
