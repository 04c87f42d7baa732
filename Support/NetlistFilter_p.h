// NetlistFilter_p.h - the netlist readers' byte filter, their counts that stop at INT_MAX, and their
// fast-forward kernel: the scan that finds where a run of ordinary bytes ends, one block of 16, 32 or 64
// bytes at a time.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#if defined(_MSC_VER)
#include <intrin.h>
#endif
// The AVX2 and AVX-512 kernels, chosen at run time, are left out of a MinGW build whose assembler cannot
// turn aligned vector moves into unaligned ones (see the top-level CMakeLists.txt).
#if (defined(__x86_64__) || defined(_M_X64)) && !defined(SUPPORTQT_SCAN_SSE2_ONLY)
#define NETLIST_SCAN_X86 1
#include <immintrin.h>
#if defined(_MSC_VER) && !defined(__clang__)
#define NETLIST_TARGET(isa)
#else
#define NETLIST_TARGET(isa) __attribute__((target(isa)))
#endif
#elif defined(__x86_64__) || defined(_M_X64)
#define NETLIST_SCAN_SSE2_ONLY 1
#include <emmintrin.h>
#endif

// The helpers of a reader's state machine are lambdas over its locals; they must be inlined, or the
// locals would live in memory. (MSVC inlines such lambdas unasked.)
#if defined(_MSC_VER) && !defined(__clang__)
#define NETLIST_INLINE
#else
#define NETLIST_INLINE __attribute__((always_inline))
#endif

namespace netlist {
/// True for the bytes a netlist reader keeps: tab, line feed and 32 to 254.
inline bool keeps(int c) { return c == 9 || c == 10 || (c >= 32 && c <= 254); }

/// A reader's counts are ints, and a netlist may hold more than 2 GiB: a count stops at INT_MAX
/// instead of overflowing.
inline int capped(long long count) { return count < INT_MAX ? static_cast<int>(count) : INT_MAX; }
/// Adds `n` to a count that stops at INT_MAX.
inline void countUp(int& count, long long n = 1) { count = capped(count + n); }

/// The bytes that separate the words of a netlist line: keywords, names and "name=value" pairs.
constexpr char kTokenDelimiters[] = " =(),\t";

/// Index of the lowest set bit of a nonzero mask.
inline int lowestBit(unsigned long long mask)
{
#if defined(_MSC_VER) && !defined(__clang__) && (defined(_M_X64) || defined(_M_ARM64))
    unsigned long index = 0;
    _BitScanForward64(&index, mask);
    return static_cast<int>(index);
#elif defined(_MSC_VER) && !defined(__clang__)
    int index = 0;
    while (!(mask & 1)) {
        mask >>= 1;
        ++index;
    }
    return index;
#else
    return __builtin_ctzll(mask);
#endif
}

/// The next character of a reader's character source taken straight from the buffer, with the effects
/// the source would have on the read position and the counts, and handed to `taken`: a byte at `p` that
/// `direct` accepts, or a line end (a line feed, or a carriage return and a line feed both before
/// `stop`) as 10. -2 when the byte must come through the source: at `stop`, a lone carriage return, one
/// whose next byte is not there yet, or any other byte `direct` refuses.
template <class Direct, class Taken>
NETLIST_INLINE inline int directChar(const char*& p, const char* stop, long long& chars, long long& lines, Direct direct,
                                     Taken taken)
{
    if (p < stop) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (direct(c)) {
            ++p;
            ++chars;
            taken(c);
            return c;
        }
        if (c == '\n' || (c == '\r' && stop - p >= 2 && p[1] == '\n')) {
            const int length = c == '\n' ? 1 : 2;
            p += length;
            chars += length;
            ++lines;
            taken(10);
            return 10;
        }
    }
    return -2;
}

// ---------------------------------------------------------------- the fast-forward kernel

/// What ends a run of ordinary bytes for one state of a reader. Every run ends at a byte below 32 other
/// than the tab (line ends and the bytes the filter drops) and at 0xFF; `extra` names up to three more
/// stop bytes (a comment character, braces; an unused slot repeats one of the others or holds a line
/// feed), and `highBytes` makes 128 to 254 stop bytes too, for a reader whose UTF-8 detector must see
/// them.
struct RunStops {
    char extra[3];
    bool highBytes;
};

/// The instruction sets the kernel has a version for, in order.
enum class ScanLevel : int { Scalar = 0, Sse2 = 1, Avx2 = 2, Avx512 = 3 };

/// A kernel: the length of the run at `p` (at most `end - p` bytes). Its outputs (none, one or two)
/// receive a copy of the run and need room for `end - p` bytes and 64 more, because the copy stores whole
/// blocks as it scans.
using RunKernel = size_t (*)(const char* p, const char* end, const RunStops& stops, char* out1, char* out2);

/// One level's kernels.
struct ScanKernels {
    RunKernel skip;  ///< scan only
    RunKernel copy1; ///< scan and copy to out1
    RunKernel copy2; ///< scan and copy to out1 and out2
    ScanLevel level;
};

namespace scan {
inline bool stopsScalar(unsigned char c, const RunStops& s)
{
    return (c < 32 && c != 9) || c == 0xFF || (s.highBytes && c >= 128) || c == static_cast<unsigned char>(s.extra[0]) ||
           c == static_cast<unsigned char>(s.extra[1]) || c == static_cast<unsigned char>(s.extra[2]);
}

template <int Outputs>
size_t runScalar(const char* p, const char* end, const RunStops& s, char* out1, char* out2)
{
    const char* q = p;
    while (q < end && !stopsScalar(static_cast<unsigned char>(*q), s)) {
        if (Outputs >= 1)
            out1[q - p] = *q;
        if (Outputs >= 2)
            out2[q - p] = *q;
        ++q;
    }
    return static_cast<size_t>(q - p);
}

#if defined(NETLIST_SCAN_X86) || defined(NETLIST_SCAN_SSE2_ONLY)
// Stop mask of 16 bytes: below 32 but the tab, 0xFF (or every byte from 128 when `high` is all ones),
// and the three extra bytes.
inline unsigned stopMask16(__m128i v, __m128i e0, __m128i e1, __m128i e2, __m128i high)
{
    const __m128i c31 = _mm_set1_epi8(31);
    const __m128i control = _mm_andnot_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8(9)), _mm_cmpeq_epi8(_mm_max_epu8(v, c31), c31));
    const __m128i extra = _mm_or_si128(_mm_cmpeq_epi8(v, e0), _mm_or_si128(_mm_cmpeq_epi8(v, e1), _mm_cmpeq_epi8(v, e2)));
    // The sign bit of v & high marks 128 to 255 when high is all ones; 0xFF compares equal to all ones.
    const __m128i top = _mm_or_si128(_mm_and_si128(v, high), _mm_cmpeq_epi8(v, _mm_set1_epi8(-1)));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(control, extra), top)));
}

template <int Outputs>
size_t runSse2(const char* p, const char* end, const RunStops& s, char* out1, char* out2)
{
    const __m128i e0 = _mm_set1_epi8(s.extra[0]), e1 = _mm_set1_epi8(s.extra[1]), e2 = _mm_set1_epi8(s.extra[2]);
    const __m128i high = _mm_set1_epi8(s.highBytes ? -1 : 0);
    const char* q = p;
    while (end - q >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
        if (Outputs >= 1)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out1 + (q - p)), v);
        if (Outputs >= 2)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out2 + (q - p)), v);
        if (const unsigned mask = stopMask16(v, e0, e1, e2, high))
            return static_cast<size_t>(q - p) + static_cast<size_t>(lowestBit(mask));
        q += 16;
    }
    const size_t done = static_cast<size_t>(q - p);
    return done + runScalar<Outputs>(q, end, s, Outputs >= 1 ? out1 + done : nullptr, Outputs >= 2 ? out2 + done : nullptr);
}

#endif

#if defined(NETLIST_SCAN_X86)
template <int Outputs>
NETLIST_TARGET("avx2")
size_t runAvx2(const char* p, const char* end, const RunStops& s, char* out1, char* out2)
{
    const __m256i e0 = _mm256_set1_epi8(s.extra[0]), e1 = _mm256_set1_epi8(s.extra[1]), e2 = _mm256_set1_epi8(s.extra[2]);
    const __m256i high = _mm256_set1_epi8(s.highBytes ? -1 : 0);
    const __m256i c31 = _mm256_set1_epi8(31), tab = _mm256_set1_epi8(9), ones = _mm256_set1_epi8(-1);
    const char* q = p;
    while (end - q >= 32) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q));
        if (Outputs >= 1)
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out1 + (q - p)), v);
        if (Outputs >= 2)
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out2 + (q - p)), v);
        const __m256i control = _mm256_andnot_si256(_mm256_cmpeq_epi8(v, tab), _mm256_cmpeq_epi8(_mm256_max_epu8(v, c31), c31));
        const __m256i extra =
            _mm256_or_si256(_mm256_cmpeq_epi8(v, e0), _mm256_or_si256(_mm256_cmpeq_epi8(v, e1), _mm256_cmpeq_epi8(v, e2)));
        const __m256i top = _mm256_or_si256(_mm256_and_si256(v, high), _mm256_cmpeq_epi8(v, ones));
        const unsigned mask = static_cast<unsigned>(_mm256_movemask_epi8(_mm256_or_si256(_mm256_or_si256(control, extra), top)));
        if (mask)
            return static_cast<size_t>(q - p) + static_cast<size_t>(lowestBit(mask));
        q += 32;
    }
    const size_t done = static_cast<size_t>(q - p);
    return done + runSse2<Outputs>(q, end, s, Outputs >= 1 ? out1 + done : nullptr, Outputs >= 2 ? out2 + done : nullptr);
}

// Stop mask of 64 bytes: below 32 but the tab, from `top` up, and the three extra bytes. The compares
// are independent and their masks are joined as a tree, since a run's end waits on them.
NETLIST_TARGET("avx512f,avx512bw") NETLIST_INLINE inline __mmask64 stopMask64(__m512i v, __m512i e0, __m512i e1, __m512i e2,
                                                                            __m512i c31, __m512i tab, __m512i top)
{
    const __mmask64 control = _kandn_mask64(_mm512_cmpeq_epi8_mask(v, tab), _mm512_cmple_epu8_mask(v, c31));
    const __mmask64 extra = _kor_mask64(_mm512_cmpeq_epi8_mask(v, e0), _mm512_cmpeq_epi8_mask(v, e1));
    const __mmask64 rest = _kor_mask64(_mm512_cmpeq_epi8_mask(v, e2), _mm512_cmpge_epu8_mask(v, top));
    return _kor_mask64(control, _kor_mask64(extra, rest));
}

template <int Outputs>
NETLIST_TARGET("avx512f,avx512bw")
size_t runAvx512(const char* p, const char* end, const RunStops& s, char* out1, char* out2)
{
    const __m512i e0 = _mm512_set1_epi8(s.extra[0]), e1 = _mm512_set1_epi8(s.extra[1]), e2 = _mm512_set1_epi8(s.extra[2]);
    const __m512i c31 = _mm512_set1_epi8(31), tab = _mm512_set1_epi8(9);
    // Bytes from `top` up stop a run: 128 when high bytes do, else only 0xFF.
    const __m512i top = _mm512_set1_epi8(static_cast<char>(s.highBytes ? 0x80 : 0xFF));
    const char* q = p;
    for (; end - q >= 64; q += 64) {
        const __m512i v = _mm512_loadu_si512(q);
        if (Outputs >= 1)
            _mm512_storeu_si512(out1 + (q - p), v);
        if (Outputs >= 2)
            _mm512_storeu_si512(out2 + (q - p), v);
        const __mmask64 stop = stopMask64(v, e0, e1, e2, c31, tab, top);
        if (stop)
            return static_cast<size_t>(q - p) + static_cast<size_t>(lowestBit(stop));
    }
    const size_t left = static_cast<size_t>(end - q);
    if (left == 0)
        return static_cast<size_t>(q - p);
    // The last block is loaded under a mask, which never touches the bytes past the end.
    const __mmask64 valid = (1ULL << left) - 1;
    const __m512i v = _mm512_maskz_loadu_epi8(valid, q);
    if (Outputs >= 1)
        _mm512_storeu_si512(out1 + (q - p), v);
    if (Outputs >= 2)
        _mm512_storeu_si512(out2 + (q - p), v);
    const __mmask64 stop = stopMask64(v, e0, e1, e2, c31, tab, top) & valid;
    return static_cast<size_t>(q - p) + (stop ? static_cast<size_t>(lowestBit(stop)) : left);
}

// Whether the processor and the system support the level (the upper register state must be saved).
#if defined(_MSC_VER)
// The register state the system saves (XCR0); callable once the processor says the system enables it.
NETLIST_TARGET("xsave") inline unsigned long long savedRegisterState() { return _xgetbv(0); }
#endif

inline bool supports(ScanLevel level)
{
    if (level <= ScanLevel::Sse2)
        return true;
#if defined(_MSC_VER)
    // MSVC and clang-cl ask the processor directly (clang's own detection needs its run-time library).
    int r[4];
    __cpuid(r, 0);
    if (r[0] < 7)
        return false;
    __cpuid(r, 1);
    const bool osSaves = (r[2] & (1 << 27)) != 0; // OSXSAVE
    if (!osSaves)
        return false;
    const unsigned long long xcr0 = savedRegisterState();
    __cpuidex(r, 7, 0);
    if (level == ScanLevel::Avx2)
        return (xcr0 & 0x6) == 0x6 && (r[1] & (1 << 5)) != 0;
    return (xcr0 & 0xE6) == 0xE6 && (r[1] & (1 << 16)) != 0 && (r[1] & (1 << 30)) != 0;
#else
    __builtin_cpu_init();
    if (level == ScanLevel::Avx2)
        return __builtin_cpu_supports("avx2");
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");
#endif
}
#endif
} // namespace scan

/// The kernels of one level; a level the build or the processor lacks gives the best one below it.
inline ScanKernels kernelsFor(ScanLevel level)
{
#if defined(NETLIST_SCAN_SSE2_ONLY)
    if (level >= ScanLevel::Sse2)
        return {scan::runSse2<0>, scan::runSse2<1>, scan::runSse2<2>, ScanLevel::Sse2};
#elif defined(NETLIST_SCAN_X86)
    while (level > ScanLevel::Sse2 && !scan::supports(level))
        level = static_cast<ScanLevel>(static_cast<int>(level) - 1);
    switch (level) {
    case ScanLevel::Avx512:
        return {scan::runAvx512<0>, scan::runAvx512<1>, scan::runAvx512<2>, level};
    case ScanLevel::Avx2:
        return {scan::runAvx2<0>, scan::runAvx2<1>, scan::runAvx2<2>, level};
    case ScanLevel::Sse2:
        return {scan::runSse2<0>, scan::runSse2<1>, scan::runSse2<2>, level};
    case ScanLevel::Scalar:
        break;
    }
#endif
    return {scan::runScalar<0>, scan::runScalar<1>, scan::runScalar<2>, ScanLevel::Scalar};
}

/// The level named by the environment variable SUPPORTQT_NETLIST_SCAN ("scalar", "sse2", "avx2",
/// "avx512", any case), which caps the choice so that tests can force every path; the best level when it
/// is unset or empty, and the portable one for any other value.
inline ScanLevel requestedScanLevel()
{
    const char* name = std::getenv("SUPPORTQT_NETLIST_SCAN");
    if (!name || !*name)
        return ScanLevel::Avx512;
    static const char* const kNames[] = {"scalar", "sse2", "avx2", "avx512"};
    for (int level = 0; level < 4; ++level) {
        const char* a = name;
        const char* b = kNames[level];
        while (*a && (*a | 0x20) == *b) {
            ++a;
            ++b;
        }
        if (!*a && !*b)
            return static_cast<ScanLevel>(level);
    }
    // A cap that is not understood caps at the portable level rather than lifting the cap.
    return ScanLevel::Scalar;
}

/// The kernels the readers use, chosen once per process.
inline const ScanKernels& activeKernels()
{
    static const ScanKernels kernels = kernelsFor(requestedScanLevel());
    return kernels;
}

/// The most bytes one fast-forward step takes, so that its outputs reserve a bounded room.
constexpr size_t kRunWindow = 64 * 1024;
/// The room a kernel's output needs beyond the run.
constexpr int kRunSlack = 64;

/// Copies the run of `n` bytes at `from` to `out`, which has room for kRunSlack bytes more than the run;
/// `end` ends what may be read. A run of up to 64 bytes with 64 readable moves as one block of 64, a few
/// vector moves and no call.
inline void copyRun(char* out, const char* from, size_t n, const char* end)
{
    if (n <= 64 && end - from >= 64)
        std::memcpy(out, from, 64);
    else if (n > 0)
        std::memcpy(out, from, n);
}

// ---------------------------------------------------------------- UTF-8 runs

/// Length of the run of complete multi-byte sequences at `p` (lead bytes of 2 to 6 bytes followed by
/// their continuation bytes), stopping before an ASCII byte, a byte that cannot lead, 0xFF, or a sequence
/// not wholly before `end`. `extended` is set when one of them has 5 or 6 bytes. Feeding such a run to a
/// detector that stands between sequences leaves it between sequences, with the verdict at least UTF-8
/// (extended UTF-8 when `extended`).
inline size_t utf8SequenceRun(const char* p, const char* end, bool* extended)
{
    const unsigned char* s = reinterpret_cast<const unsigned char*>(p);
    const unsigned char* const e = reinterpret_cast<const unsigned char*>(end);
    const unsigned char* q = s;
    while (q < e) {
        const unsigned c = *q;
        size_t length;
        if (c < 0xC0 || c >= 0xFE)
            break; // ASCII, a stray continuation byte, 0xFE or 0xFF
        if (c < 0xE0)
            length = 2;
        else if (c < 0xF0)
            length = 3;
        else if (c < 0xF8)
            length = 4;
        else if (c < 0xFC)
            length = 5;
        else
            length = 6;
        if (static_cast<size_t>(e - q) < length)
            break;
        size_t k = 1;
        while (k < length && (q[k] & 0xC0) == 0x80)
            ++k;
        if (k < length)
            break;
        if (length >= 5)
            *extended = true;
        q += length;
    }
    return static_cast<size_t>(q - s);
}

/// The bytes above 127 at `p` that a UTF-8 detector between sequences need not see one at a time:
/// complete sequences while its verdict is still open, any of them but 0xFF once it has found the input
/// invalid (a final verdict). Their effect on the detector is made here; returns how many there are.
template <class Detector>
size_t takeHighBytes(Detector& detector, const char* p, const char* end)
{
    if (detector.getState() == 99) {
        const char* q = p;
        while (q < end && static_cast<unsigned char>(*q) >= 128 && static_cast<unsigned char>(*q) != 0xFF)
            ++q;
        return static_cast<size_t>(q - p);
    }
    bool extended = false;
    const size_t n = utf8SequenceRun(p, end, &extended);
    // A complete two-byte sequence, and a five-byte one for extended UTF-8, leave the detector as the
    // run's own sequences do.
    static const unsigned char kTwoBytes[] = {0xC2, 0x80};
    static const unsigned char kFiveBytes[] = {0xF8, 0x80, 0x80, 0x80, 0x80};
    if (n > 0)
        for (const unsigned char b : kTwoBytes)
            detector.add(b);
    if (extended)
        for (const unsigned char b : kFiveBytes)
            detector.add(b);
    return n;
}
} // namespace netlist
