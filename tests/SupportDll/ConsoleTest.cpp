// ConsoleTest.cpp - kv_printf, its argument wrapper and the console sink.
#include "Console.h"
#include "TestHelpers.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <string>

namespace {
void collect(const char* text, void* context) { static_cast<std::string*>(context)->append(text); }

class ConsoleCapture {
public:
    ConsoleCapture() { sp_SetConsoleSink(&collect, &text); }
    ~ConsoleCapture() { sp_SetConsoleSink(nullptr, nullptr); }
    std::string text;
};
} // namespace

TEST(KvPrintf, FormatsEveryKindOfArgument)
{
    ConsoleCapture capture;
    int n = kv_printf("%d|%5.2f|%s|%x|%c|%%|%-4s|%lld|%u\n", 42, 3.14159, "text", 255u, 'Z', "ab", 12345678901234LL, 7u);
    EXPECT_EQ(capture.text, "42| 3.14|text|ff|Z|%|ab  |12345678901234|7\n");
    EXPECT_EQ(n, static_cast<int>(capture.text.size()));
}

TEST(KvPrintf, TakesYStringAndQStringAndFormatsThemAsText)
{
    ConsoleCapture capture;
    kv_printf("%s and %s", YString("y"), QStringLiteral("caf\u00e9"));
    EXPECT_EQ(capture.text, "y and caf\xC3\xA9");
}

TEST(KvPrintf, ToleratesMismatchedAndMissingArguments)
{
    ConsoleCapture capture;
    kv_printf("%d %s %f %s|", 2.9, 17, "1.5", nullptr);
    kv_printf("%d %d|", 1);
    kv_printf("%n%s|", 5, "safe");
    kv_printf("100%");
    EXPECT_EQ(capture.text, "2 17 1.500000 (null)|1 |safe|100%");
}

TEST(KvPrintf, PrintsToStandardOutputWithoutASink)
{
    testing::internal::CaptureStdout();
    kv_printf("out %d\n", 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "out 5\n");
}

// An unsigned conversion of a negative integer shows the bytes of its type as printf takes it: char and
// short promoted to int, long long whole.
TEST(FormatArgs, UnsignedConversionsOfNegativeIntegersKeepTheirWidth)
{
    PrintfArg ints[] = {PrintfArg(-1), PrintfArg(-1), PrintfArg(-2), PrintfArg(-8)};
    EXPECT_EQ(sp_FormatArgs("%x|%u|%08X|%o", ints, 4), "ffffffff|4294967295|FFFFFFFE|37777777770");
    PrintfArg narrow[] = {PrintfArg(static_cast<char>(-1)), PrintfArg(static_cast<short>(-2)), PrintfArg(static_cast<signed char>(-3))};
    EXPECT_EQ(sp_FormatArgs("%x|%x|%u", narrow, 3), "ffffffff|fffffffe|4294967293");
    PrintfArg wide[] = {PrintfArg(-1LL), PrintfArg(static_cast<long long>(INT_MIN))};
    EXPECT_EQ(sp_FormatArgs("%llx|%llu", wide, 2), "ffffffffffffffff|18446744071562067968");
    char expected[64];
    std::snprintf(expected, sizeof expected, "%lx", -5L);
    PrintfArg longs[] = {PrintfArg(-5L)};
    EXPECT_EQ(sp_FormatArgs("%lx", longs, 1), expected);
    // Signed conversions and non-negative values are as they were.
    PrintfArg plain[] = {PrintfArg(-1), PrintfArg(255), PrintfArg(static_cast<short>(-7))};
    EXPECT_EQ(sp_FormatArgs("%d|%x|%d", plain, 3), "-1|ff|-7");
}

TEST(FormatArgs, StarWidthAndPrecision)
{
    PrintfArg args[] = {PrintfArg(6), PrintfArg(2), PrintfArg(1.0 / 3.0)};
    EXPECT_EQ(sp_FormatArgs("[%*.*f]", args, 3), "[  0.33]");
    EXPECT_EQ(sp_FormatArgs(nullptr, args, 3), "");
    // A negative precision counts as none, as in printf.
    PrintfArg none[] = {PrintfArg(-1), PrintfArg("abc")};
    EXPECT_EQ(sp_FormatArgs("[%.*s]", none, 2), "[abc]");
    PrintfArg real[] = {PrintfArg(-1), PrintfArg(1.5)};
    EXPECT_EQ(sp_FormatArgs("[%.*f]", real, 2), "[1.500000]");
}

// A real given for an integer conversion that no integer can hold is cut to the nearest end (NaN to 0),
// never converted out of range.
TEST(FormatArgs, RealsBeyondTheIntegersAreCutToTheirEnds)
{
    PrintfArg big[] = {PrintfArg(1e300), PrintfArg(-1e300), PrintfArg(std::nan("")), PrintfArg(-HUGE_VAL), PrintfArg(42.9)};
    EXPECT_EQ(sp_FormatArgs("%d %d %d %d %d", big, 5), "9223372036854775807 -9223372036854775808 0 -9223372036854775808 42");
    PrintfArg hex[] = {PrintfArg(HUGE_VAL)};
    EXPECT_EQ(sp_FormatArgs("%x", hex, 1), "7fffffffffffffff");
}
