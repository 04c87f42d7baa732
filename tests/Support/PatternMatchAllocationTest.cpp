// PatternMatchAllocationTest.cpp - the largest single allocation a regular expression costs. A program of
// its own, since it replaces the C library's malloc and realloc to record their sizes, which reaches
// Qt's allocations only where shared objects share them (glibc, without a sanitizer's runtime); it is
// built there only.
#include "PatternMatch.h"
#include "TestHelpers.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <string>

extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_realloc(void* p, std::size_t size);

namespace {
std::atomic<std::size_t> g_largest{0};

void note(std::size_t size)
{
    std::size_t seen = g_largest.load(std::memory_order_relaxed);
    while (size > seen && !g_largest.compare_exchange_weak(seen, size, std::memory_order_relaxed)) {
    }
}
} // namespace

extern "C" void* malloc(std::size_t size)
{
    note(size);
    return __libc_malloc(size);
}

extern "C" void* realloc(void* p, std::size_t size)
{
    note(size);
    return __libc_realloc(p, size);
}

namespace {

// The largest single request while the pattern is searched for in `text`, and the search's result.
std::size_t largestRequest(const char* pattern, const char* text, int* result)
{
    g_largest = 0;
    *result = sp_RegexpMatch(pattern, text);
    return g_largest.load();
}

} // namespace

TEST(PatternMatchAllocation, TheRecorderSeesQtsAllocations)
{
    int result = 0;
    // Four ints per capturing group and three more, for each of some 1000 states.
    const std::string text = "abc" + std::string(1000, 'x');
    EXPECT_GT(largestRequest("(a)(b)(c)x{1000}", text.c_str(), &result), std::size_t(1000 * 15 * 4));
    EXPECT_EQ(result, 0);
}

// A back-reference past 14 is invalid, but QRegExp first sized its matcher's table for that many
// groups: "\99999{91}" asked for 51 MB, a number past an int's range for gigabytes.
TEST(PatternMatchAllocation, BackReferencesPastFourteenCostNothing)
{
    int result = 0;
    EXPECT_LT(largestRequest("\\99999{91}", "a", &result), std::size_t(1) << 20);
    EXPECT_EQ(result, -1);
    EXPECT_LT(largestRequest("x\\44444444444444{91}", "a", &result), std::size_t(1) << 20);
    EXPECT_EQ(result, -1);
    EXPECT_LT(largestRequest("(b)\\15", "bb", &result), std::size_t(1) << 20);
    EXPECT_EQ(result, -1);
    EXPECT_LT(largestRequest("(b)\\1{0,91}", "bb", &result), std::size_t(1) << 20);
    EXPECT_EQ(result, 0);
}
