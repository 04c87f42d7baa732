// YStringTest.cpp - the suite's string, concatenation, buffers, queues and wide strings.
#include "TestHelpers.h"
#include "YString.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>
#include <string>

TEST(YString, ConstructsFromTextNumbersAndNull)
{
    EXPECT_STREQ(YString().c_str(), "");
    EXPECT_STREQ(YString(static_cast<const char*>(nullptr)).c_str(), "");
    EXPECT_STREQ(YString("abc").c_str(), "abc");
    EXPECT_STREQ(YString("abcdef", 3).c_str(), "abc");
    EXPECT_STREQ(YString(-42).c_str(), "-42");
    EXPECT_STREQ(YString(9007199254740993LL).c_str(), "9007199254740993");
    EXPECT_STREQ(YString(0.1).c_str(), "0.1");
    EXPECT_STREQ(YString(1e-12).c_str(), "1e-12");
    EXPECT_STREQ(YString(4700.0).c_str(), "4700");
    EXPECT_EQ(YString("abc").length(), 3);
}

TEST(YString, CopiesAndAssigns)
{
    YString a("one");
    YString b = a;
    b.append("two");
    EXPECT_EQ(a, "one");
    EXPECT_EQ(b, "onetwo");
    a = "three";
    EXPECT_EQ(a, "three");
    a = static_cast<const char*>(nullptr);
    EXPECT_TRUE(a.isEmpty());
}

TEST(YString, AssignReplacesWithCountedBytes)
{
    YString a("previous text");
    a.assign("abc\0def", 7);
    EXPECT_EQ(a.length(), 7);
    EXPECT_EQ(std::string(a.c_str(), 7), std::string("abc\0def", 7));
    a.assign("xyz", 2);
    EXPECT_EQ(a, "xy");
    a.assign("xyz", 0);
    EXPECT_TRUE(a.isEmpty());
    a = "kept";
    a.assign(nullptr, 5);
    EXPECT_TRUE(a.isEmpty());
    a = "kept";
    a.assign("xyz", -1);
    EXPECT_TRUE(a.isEmpty());
}

// The bytes assigned may be the string's own: its start, its middle, its end.
TEST(YString, AssignTakesTheStringsOwnBytes)
{
    YString a("abcdef");
    a.assign(a.c_str(), 3);
    EXPECT_EQ(a, "abc");
    YString b("abcdef");
    b.assign(b.c_str() + 2, 4);
    EXPECT_EQ(b, "cdef");
    YString c("abcdef");
    c.assign(c.c_str() + 1, 2);
    EXPECT_EQ(c, "bc");
    EXPECT_EQ(c.length(), 2);
    YString d("abcdef");
    d.assign(d.c_str(), d.length());
    EXPECT_EQ(d, "abcdef");
}

TEST(YString, ConcatChainsThroughTempString)
{
    YString base("R1");
    YString joined = base.concat(" a").concat(" b").concat(" 1k");
    EXPECT_EQ(joined, "R1 a b 1k");
    EXPECT_EQ(base, "R1");
    EXPECT_EQ(YString(base.concat(nullptr)), "R1");
}

TEST(YString, SprintfReplacesContent)
{
    YString s("old");
    EXPECT_EQ(s.sprintf("%d-%s-%.2f", 7, "x", 1.5), 8);
    EXPECT_EQ(s, "7-x-1.50");
    std::string longText(1000, 'z');
    s.sprintf("<%s>", longText.c_str());
    EXPECT_EQ(s.length(), 1002);
}

TEST(YString, BeginsWithAndEndsWith)
{
    YString s(".TRAN 1m");
    EXPECT_TRUE(s.beginsWith(".TRAN"));
    EXPECT_FALSE(s.beginsWith(".tran"));
    EXPECT_TRUE(s.beginsWith(".tran", false));
    EXPECT_FALSE(s.beginsWith(".TRAN 1m more"));
    EXPECT_TRUE(s.endsWith("1M", false));
    EXPECT_FALSE(s.endsWith("1M"));
}

TEST(YString, SubstringClipsOutOfRange)
{
    YString s("abcdef");
    EXPECT_EQ(s.substring(2, 3), "cde");
    EXPECT_EQ(s.substring(4), "ef");
    EXPECT_EQ(s.substring(4, 100), "ef");
    EXPECT_EQ(s.substring(10, 2), "");
    EXPECT_EQ(s.substring(-2, 4), "ab");
    EXPECT_EQ(s.substring(-2, 3), "a");
    EXPECT_EQ(s.substring(-5, 2), "");
    EXPECT_EQ(s.substring(-2, 2), "");
    EXPECT_EQ(s.substring(-2), "abcdef");
    EXPECT_EQ(s.substring(INT_MIN, INT_MAX), "");
    EXPECT_EQ(s.substring(0, 0), "");
}

TEST(YString, FindIndex)
{
    YString s("a=b=c");
    EXPECT_EQ(s.findIndex("="), 1);
    EXPECT_EQ(s.findIndex("=", 2), 3);
    EXPECT_EQ(s.findIndex("x"), -1);
    EXPECT_EQ(s.findIndex("=", 99), -1);
    EXPECT_EQ(s.findIndex(nullptr), -1);
}

TEST(YString, StrtokCutsTokensUntilExhausted)
{
    YString line(".tran 1n, 1m (TSAVE=2u)");
    const char* delimiters = " =(),\t";
    EXPECT_EQ(line.strtok(delimiters), ".tran");
    EXPECT_EQ(line.strtok(delimiters), "1n");
    EXPECT_EQ(line.strtok(delimiters), "1m");
    EXPECT_EQ(line.strtok(delimiters), "TSAVE");
    EXPECT_EQ(line.strtok(delimiters), "2u");
    EXPECT_EQ(line.strtok(delimiters), "");
    EXPECT_EQ(line.strtok(delimiters), "");
    EXPECT_TRUE(line.isEmpty());
}

TEST(YString, HashValueIgnoresCase)
{
    EXPECT_EQ(YString("PSP_NPT").hashValue(), YString("psp_npt").hashValue());
    EXPECT_NE(YString("PSP_NPT").hashValue(), YString("PSP_NPU").hashValue());
}

TEST(YString, ComparePathUsesHostRules)
{
    EXPECT_EQ(YString("/a/b").comparePath(YString("/a/b")), 0);
    EXPECT_EQ(YString("/a/b/").comparePath(YString("/a/b")), 0);
    EXPECT_EQ(YString("C:\\a\\b").comparePath(YString("C:/a/b")), 0);
#if defined(_WIN32)
    EXPECT_EQ(YString("/A/B").comparePath(YString("/a/b")), 0);
#else
    EXPECT_NE(YString("/A/B").comparePath(YString("/a/b")), 0);
#endif
    EXPECT_NE(YString("/a/b").comparePath(YString("/a/c")), 0);
}

TEST(YString, TrimsAndChangesCase)
{
    EXPECT_EQ(YString(" \tab c\r\n").trimmed(), "ab c");
    EXPECT_EQ(YString("MiXed").toLower(), "mixed");
    EXPECT_EQ(YString("MiXed").toUpper(), "MIXED");
    EXPECT_EQ(YString("abc").at(5), '\0');
    EXPECT_EQ(YString("Abc").compareNoCase("aBC"), 0);
    EXPECT_LT(YString("abc").compareNoCase("abd"), 0);
}

TEST(Buf, AddsAppendsFlushesAndStaysTerminated)
{
    Buf b;
    EXPECT_EQ(b.length(), 0);
    EXPECT_STREQ(b.data(), "");
    EXPECT_EQ(b.last(), -1);
    b.add('a');
    b.append("bc");
    b.append(nullptr);
    EXPECT_STREQ(b.data(), "abc");
    EXPECT_EQ(b.last(), 'c');
    for (int i = 0; i < 10000; ++i)
        b.add('x');
    EXPECT_EQ(b.length(), 10003);
    EXPECT_EQ(static_cast<int>(std::strlen(b.data())), 10003);
    b.flush();
    EXPECT_EQ(b.length(), 0);
    EXPECT_STREQ(b.data(), "");
    EXPECT_GE(Buf::initsize, 16);
}

// Room past 2147483646 bytes cannot be had: the sum of the length and the room asked for would wrap an
// int, which once gave a pointer with no room behind it. Nothing is allocated to find that out.
// Bytes of a buffer's or a queue's own may be appended to it, though it moves as it grows.
TEST(Buf, AppendsItsOwnBytesAsItGrows)
{
    Buf b;
    const std::string text(200, 'q');
    b.append(text.data(), static_cast<int>(text.size()));
    b.append(b.data(), b.length());
    EXPECT_EQ(std::string(b.data(), static_cast<size_t>(b.length())), text + text);
    CharQueue q;
    q.append("xyz", 3);
    q.append(text.data(), static_cast<int>(text.size()));
    q.discard(3);
    q.append(q.unread(), q.count());
    EXPECT_EQ(std::string(q.unread(), static_cast<size_t>(q.count())), text + text);
    q.append(q.unread() + 100, 50);
    EXPECT_EQ(std::string(q.unread(), static_cast<size_t>(q.count())), text + text + std::string(50, 'q'));
}

TEST(Buf, RefusesToGrowPastTheLargestIntAndStaysAsItWas)
{
    Buf b;
    b.append("abc");
    const int capacity = b.capacity();
    EXPECT_THROW(b.reserveTail(INT_MAX - 3), std::bad_alloc);
    EXPECT_THROW(b.reserveTail(INT_MAX), std::bad_alloc);
    const std::string data = "defg";
    // The size is refused before a byte of `data` is read.
    EXPECT_THROW(b.append(data.data(), INT_MAX - 2), std::bad_alloc);
    EXPECT_EQ(b.length(), 3);
    EXPECT_EQ(b.capacity(), capacity);
    EXPECT_STREQ(b.data(), "abc");
    b.append(data.data(), 4);
    EXPECT_STREQ(b.data(), "abcdefg");
    char* tail = b.reserveTail(100);
    std::memset(tail, 'h', 100);
    b.expand(100);
    EXPECT_EQ(b.length(), 107);
    EXPECT_EQ(b.data()[106], 'h');
    EXPECT_EQ(b.data()[107], '\0');
}

TEST(CharQueue, RefusesToGrowPastTheLargestIntAndStaysAsItWas)
{
    CharQueue q;
    q.add('a');
    q.add('b');
    EXPECT_EQ(q.pop(), 'a');
    EXPECT_THROW(q.reserveTail(INT_MAX - 1), std::bad_alloc);
    EXPECT_THROW(q.reserveTail(INT_MAX), std::bad_alloc);
    const std::string data = "cde";
    EXPECT_THROW(q.append(data.data(), INT_MAX - 1), std::bad_alloc);
    EXPECT_EQ(q.count(), 1);
    EXPECT_STREQ(q.unread(), "b");
    q.append(data.data(), 3);
    EXPECT_STREQ(q.unread(), "bcde");
    char* tail = q.reserveTail(1000);
    std::memset(tail, 'f', 1000);
    q.expand(1000);
    EXPECT_EQ(q.count(), 1004);
    EXPECT_EQ(q.unread()[1003], 'f');
    EXPECT_EQ(q.unread()[1004], '\0');
}

TEST(CharQueue, IsFirstInFirstOut)
{
    CharQueue q;
    EXPECT_TRUE(q.isEmpty());
    EXPECT_EQ(q.pop(), -1);
    q.add('a');
    q.add('b');
    q.add('\xFF');
    EXPECT_STREQ(q.unread(), "ab\xFF");
    EXPECT_EQ(q.pop(), 'a');
    EXPECT_STREQ(q.unread(), "b\xFF");
    EXPECT_EQ(q.pop(), 'b');
    EXPECT_EQ(q.pop(), 0xFF);
    EXPECT_TRUE(q.isEmpty());
    for (int i = 0; i < 1000; ++i) {
        q.add(static_cast<char>('0' + i % 10));
        if (i % 3 == 0)
            q.pop();
    }
    EXPECT_EQ(q.count(), 666);
    q.flush();
    EXPECT_TRUE(q.isEmpty());
    EXPECT_STREQ(q.unread(), "");
}

// An empty buffer takes a queue's unread bytes by trading storage with it, without a copy; a buffer
// that holds bytes, or a queue read into, refuses and both stay as they were.
TEST(Buf, TakesTheQueuedBytesByTradingStorage)
{
    Buf b;
    CharQueue q;
    q.append("line one\n", 9);
    const char* const queued = q.unread();
    ASSERT_TRUE(b.takeQueued(q));
    EXPECT_EQ(b.data(), queued);
    EXPECT_EQ(b.length(), 9);
    EXPECT_STREQ(b.data(), "line one\n");
    EXPECT_TRUE(q.isEmpty());
    EXPECT_STREQ(q.unread(), "");
    // Each keeps working in the storage it got.
    q.append("two\n", 4);
    b.append("more");
    EXPECT_STREQ(b.data(), "line one\nmore");
    EXPECT_STREQ(q.unread(), "two\n");
    // A buffer that holds bytes refuses.
    EXPECT_FALSE(b.takeQueued(q));
    EXPECT_STREQ(b.data(), "line one\nmore");
    EXPECT_STREQ(q.unread(), "two\n");
    // So does a queue whose unread bytes no longer begin its storage.
    b.flush();
    q.append("three", 5);
    q.discard(4);
    EXPECT_FALSE(b.takeQueued(q));
    EXPECT_EQ(b.length(), 0);
    EXPECT_STREQ(q.unread(), "three");
    // An empty queue gives an empty buffer.
    q.flush();
    ASSERT_TRUE(b.takeQueued(q));
    EXPECT_EQ(b.length(), 0);
    EXPECT_STREQ(b.data(), "");
    for (int i = 0; i < 1000; ++i)
        q.add('x');
    EXPECT_EQ(q.count(), 1000);
}

TEST(UTFString, HoldsUtf8AndWideForms)
{
    UTFString s("a\xC3\xA9\xF0\x9F\x98\x80"); // a, e acute, U+1F600
    EXPECT_STREQ(s.get(), "a\xC3\xA9\xF0\x9F\x98\x80");
    const char16_t* u = s.getUtf16();
    EXPECT_EQ(u[0], u'a');
    EXPECT_EQ(u[1], 0xE9);
    EXPECT_EQ(u[2], 0xD83D);
    EXPECT_EQ(u[3], 0xDE00);
    EXPECT_EQ(u[4], 0);
    if (sizeof(wchar_t) == 4) {
        EXPECT_EQ(static_cast<unsigned>(s.getWide()[2]), 0x1F600u);
        EXPECT_EQ(s.getWide()[3], L'\0');
    }
    UTFString bad("\xFF");
    EXPECT_EQ(bad.getUtf16()[0], 0xFFFD);
}

// ---------------------------------------------------------------- large blocks

#ifdef __linux__
namespace {

// The transparent huge page mode the kernel runs in ("always", "madvise" or "never"); empty when it
// has none.
std::string largePageMode()
{
    std::ifstream in("/sys/kernel/mm/transparent_hugepage/enabled");
    std::string line;
    std::getline(in, line);
    const size_t open = line.find('['), close = line.find(']');
    return open == std::string::npos || close == std::string::npos ? std::string()
                                                                    : line.substr(open + 1, close - open - 1);
}

// Kibibytes of the mapping holding `address` that are backed by huge pages, from /proc/self/smaps.
long long largePageKiB(const void* address)
{
    const auto at = reinterpret_cast<uintptr_t>(address);
    std::ifstream in("/proc/self/smaps");
    std::string line;
    bool inside = false;
    while (std::getline(in, line)) {
        unsigned long long begin = 0, end = 0;
        if (std::sscanf(line.c_str(), "%llx-%llx ", &begin, &end) == 2 && line.find(':') > line.find(' ')) {
            inside = begin <= at && at < end;
        } else if (inside && line.rfind("AnonHugePages:", 0) == 0) {
            return std::stoll(line.substr(std::strlen("AnonHugePages:")));
        }
    }
    return -1;
}

const int kBlock = 40 << 20;

} // namespace

TEST(LargeBlocks, LongBuffersQueuesAndTextsAreBackedByLargePages)
{
    // Only where huge pages come on request does a block that has them show the request was made.
    const std::string mode = largePageMode();
    if (mode != "madvise")
        GTEST_SKIP() << "the kernel's transparent huge pages are '" << mode << "', not given on request";
    const std::string chunk(65536, 'x');
    Buf buf;
    CharQueue queue;
    while (buf.length() < kBlock) {
        buf.append(chunk.data(), static_cast<int>(chunk.size()));
        queue.append(chunk.data(), static_cast<int>(chunk.size()));
    }
    YString text;
    text.assign(buf.data(), buf.length());
    // Most of each 40 MiB block sits in whole 2 MiB pages; only its unaligned ends may not.
    // The middle of each block: the advice leaves out the pages at a block's ends, which may hold
    // other blocks, so the system keeps those apart.
    EXPECT_GE(largePageKiB(buf.data() + kBlock / 2), 32 * 1024);
    EXPECT_GE(largePageKiB(queue.unread() + kBlock / 2), 32 * 1024);
    EXPECT_GE(largePageKiB(text.c_str() + kBlock / 2), 32 * 1024);
    EXPECT_EQ(text.length(), kBlock);
    EXPECT_EQ(std::string(queue.unread(), 100), std::string(100, 'x'));
    // The control: a block of the same size that nobody advised stays in small pages.
    std::unique_ptr<char[]> plain(new char[kBlock]);
    std::memset(plain.get(), 'x', kBlock);
    EXPECT_EQ(largePageKiB(plain.get() + kBlock / 2), 0);
}
#endif
