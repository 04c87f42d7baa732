// TextServicesTest.cpp - tokenising, engineering numbers, 64-bit integers and hashing.
#include "TestHelpers.h"
#include "TextServices.h"

#include <climits>
#include <cmath>
#include <cstdlib>
#include <limits>

TEST(ScanLine, SplitsAtAnyDelimiterWithoutEmptyTokens)
{
    YArray<YString> tokens;
    EXPECT_EQ(sp_ScanLine("#KALVONTA sep=(.) , x", " =(),\t", &tokens, INT_MAX), 4);
    ASSERT_EQ(tokens.count(), 4);
    EXPECT_EQ(tokens[0], "#KALVONTA");
    EXPECT_EQ(tokens[1], "sep");
    EXPECT_EQ(tokens[2], ".");
    EXPECT_EQ(tokens[3], "x");
    YArray<YString> two;
    EXPECT_EQ(sp_ScanLine("a b c d", " ", &two, 2), 2);
    EXPECT_EQ(two[1], "b");
    EXPECT_EQ(sp_ScanLine("   ", " ", &two, 10), 0);
    EXPECT_EQ(sp_ScanLine(nullptr, " ", &two, 10), 0);
    EXPECT_EQ(two.count(), 2); // appended to, never cleared
}

TEST(SplitLine, SplitsAtOneSeparatorAndTrimsParts)
{
    YArray<YString> parts;
    EXPECT_EQ(sp_SplitLine(" Kalvonta | TREBOLT ", '|', &parts, 0), 2);
    EXPECT_EQ(parts[0], "Kalvonta");
    EXPECT_EQ(parts[1], "TREBOLT");
    YArray<YString> dirs;
    EXPECT_EQ(sp_SplitLine("a;;b;", ';', &dirs, 0), 4);
    EXPECT_EQ(dirs[1], "");
    EXPECT_EQ(dirs[3], "");
    YArray<YString> limited;
    EXPECT_EQ(sp_SplitLine("a;b;c", ';', &limited, 2), 2);
    EXPECT_EQ(limited[1], "b;c");
    YArray<YString> none;
    EXPECT_EQ(sp_SplitLine("", ';', &none, 0), 0);
}

TEST(GetToken, HandlesQuotesAndAdvancesTheCursor)
{
    const char* text = "  \"C:/Program Files/sim.exe\" -b \"a b\"c  last";
    const char* cursor = text;
    EXPECT_EQ(sp_GetToken(&cursor, " \t", "\"", "\"", false), "C:/Program Files/sim.exe");
    EXPECT_EQ(sp_GetToken(&cursor, " \t", "\"", "\"", false), "-b");
    EXPECT_EQ(sp_GetToken(&cursor, " \t", "\"", "\"", false), "a bc");
    EXPECT_EQ(sp_GetToken(&cursor, " \t", "\"", "\"", false), "last");
    EXPECT_EQ(sp_GetToken(&cursor, " \t", "\"", "\"", false), "");
    EXPECT_EQ(sp_GetToken(&cursor, " \t", "\"", "\"", false), "");

    const char* kept = "'x y' z";
    EXPECT_EQ(sp_GetToken(&kept, " ", "'", "'", true), "'x y'");
    const char* unbalanced = "\"open ended";
    EXPECT_EQ(sp_GetToken(&unbalanced, " ", "\"", "\"", false), "open ended");
    const char* brackets = "[a b] c";
    EXPECT_EQ(sp_GetToken(&brackets, " ", "[", "]", false), "a b");
    EXPECT_EQ(sp_GetToken(nullptr, " ", "\"", "\"", false), "");
}

TEST(ConvertEngToReal, ReadsEveryMultiplierInAnyCase)
{
    struct Row {
        const char* text;
        double value;
    } rows[] = {
        {"1f", 1e-15},  {"1F", 1e-15}, {"2p", 2e-12},   {"3n", 3e-9},     {"4u", 4e-6},     {"5m", 5e-3},
        {"5M", 5e-3},   {"6k", 6e3},   {"6K", 6e3},     {"7meg", 7e6},    {"7MEG", 7e6},    {"7Meg", 7e6},
        {"8g", 8e9},    {"9t", 9e12},  {"1mil", 25.4e-6}, {"4.7k", 4700.0}, {"4.7kOhm", 4700.0}, {"10pF", 10e-12},
        {"1e-3", 1e-3}, {"1E3k", 1e6}, {"-2.5u", -2.5e-6}, {"+3", 3.0},     {".5", 0.5},      {"1.", 1.0},
        {"100Hz", 100.0}, {"1e", 1.0}, {"2megohm", 2e6}, {"  12", 12.0},
    };
    for (const Row& r : rows)
        EXPECT_EQ(sp_ConvertEngToReal(r.text, nullptr), r.value) << r.text;
}

TEST(ConvertEngToReal, GivesZeroForTextThatIsNoNumber)
{
    char* end = nullptr;
    const char* text = "abc";
    EXPECT_EQ(sp_ConvertEngToReal(text, &end), 0.0);
    EXPECT_EQ(end, text);
    EXPECT_EQ(sp_ConvertEngToReal("", nullptr), 0.0);
    EXPECT_EQ(sp_ConvertEngToReal(nullptr, nullptr), 0.0);
    EXPECT_EQ(sp_ConvertEngToReal("-", nullptr), 0.0);
    const char* withRest = "4.7k,next";
    EXPECT_EQ(sp_ConvertEngToReal(withRest, &end), 4700.0);
    EXPECT_STREQ(end, ",next");
    EXPECT_TRUE(std::isinf(sp_ConvertEngToReal("1e999", nullptr)));
    EXPECT_EQ(sp_ConvertEngToReal("1e-999", nullptr), 0.0);
}

// A number beyond a double's range is infinity when its digits make it large and zero when they make it
// small, whatever its exponent and multiplier say alone; the sign is kept.
TEST(ConvertEngToReal, TellsTooLargeFromTooSmallByWhereTheDigitsPutThePoint)
{
    const std::string zeros(400, '0');
    const double inf = std::numeric_limits<double>::infinity();
    struct Row {
        std::string text;
        double value;
    } rows[] = {
        {"1" + zeros, inf},
        {"-1" + zeros, -inf},
        {"1" + zeros + "e-10", inf},
        {"1" + zeros + "f", inf},
        {"0." + zeros + "1e10", 0.0},
        {"0." + zeros + "1meg", 0.0},
        {"-0." + zeros + "1", -0.0},
        {"1e99999999999999999999", inf},
        {"1e-99999999999999999999", 0.0},
        {"0." + zeros + "1e400", 1e-1},
    };
    for (const Row& r : rows) {
        const double value = sp_ConvertEngToReal(r.text.c_str(), nullptr);
        EXPECT_EQ(value, r.value) << r.text.substr(0, 12) << "... of " << r.text.size();
        EXPECT_EQ(std::signbit(value), std::signbit(r.value)) << r.text.substr(0, 12);
    }
}

namespace {
struct EngCase {
    double value;
    int digits;
    bool exponentForm;
    const char* text;
};
const EngCase kEngCases[] = {
    {1e-3, 6, false, "1m"},          {4700.0, 6, false, "4.7k"},     {1e-12, 6, false, "1p"},
    {1e-14, 6, false, "10f"},        {1e-18, 6, false, "1e-18"},     {2.5e6, 6, false, "2.5meg"},
    {123456789.0, 6, false, "123.457meg"}, {-0.5, 6, false, "-500m"}, {0.0, 6, false, "0"},
    {999999.6, 6, false, "1meg"},    {20.0, 6, false, "20"},         {1e15, 6, false, "1e15"},
    {4700.0, 10, true, "4.7e3"},     {0.1234567891234, 10, true, "123.4567891e-3"}, {42.0, 10, true, "42"},
};
} // namespace

TEST(ConvertRealToJSEng, WritesEngineeringNotation)
{
    for (const EngCase& c : kEngCases)
        EXPECT_EQ(sp_ConvertRealToJSEng(c.value, c.digits, c.exponentForm), c.text) << c.value;
}

// A host program whose locale writes numbers with a decimal comma changes neither the text written nor
// what is read.
TEST(ConvertRealToJSEng, ADecimalCommaLocaleChangesNothing)
{
    CommaDecimalNumbers comma;
    if (!comma.active())
        GTEST_SKIP() << "no locale with a decimal comma can be had on this system";
    for (const EngCase& c : kEngCases)
        EXPECT_EQ(sp_ConvertRealToJSEng(c.value, c.digits, c.exponentForm), c.text) << c.value;
    EXPECT_EQ(sp_ConvertEngToReal("2.5m", nullptr), 2.5e-3);
    EXPECT_EQ(sp_ConvertEngToReal("4.7k", nullptr), 4700.0);
}

TEST(ConvertRealToJSEng, RoundTripsSixSignificantDigits)
{
    const double values[] = {1.23456e-9, 9.99999e5, 1e-15, 3.3e12, 47e3, 0.000123456, 5.0, 101.0, 1e-12, 1e-14};
    for (double v : values) {
        YString text = sp_ConvertRealToJSEng(v, 6, false);
        EXPECT_EQ(sp_ConvertEngToReal(text.c_str(), nullptr), v) << text.c_str();
        YString exp = sp_ConvertRealToJSEng(v, 6, true);
        EXPECT_EQ(sp_ConvertEngToReal(exp.c_str(), nullptr), v) << exp.c_str();
    }
}

TEST(Atoi64, ReadsPast32BitsAndSaturates)
{
    EXPECT_EQ(sp_atoi64("12345678901234"), 12345678901234LL);
    EXPECT_EQ(sp_atoi64(" -42x"), -42);
    EXPECT_EQ(sp_atoi64("9223372036854775807"), LLONG_MAX);
    EXPECT_EQ(sp_atoi64("-9223372036854775808"), LLONG_MIN);
    EXPECT_EQ(sp_atoi64("99999999999999999999"), LLONG_MAX);
    EXPECT_EQ(sp_atoi64("abc"), 0);
    EXPECT_EQ(sp_atoi64(nullptr), 0);
}

TEST(HashValue, IsStableAndDistinguishesTexts)
{
    EXPECT_EQ(sp_HashValue(""), 2166136261u);
    EXPECT_EQ(sp_HashValue("a"), 0xE40C292Cu);
    EXPECT_NE(sp_HashValue("run_help /ne '1'"), sp_HashValue("run_help /ne '2'"));
    EXPECT_EQ(sp_HashValue(nullptr), 0u);
}

TEST(ShortestText, RoundTripsAndRejectsGarbage)
{
    double v = 0.0;
    EXPECT_TRUE(sp_TextToReal(" 0.1 ", &v));
    EXPECT_EQ(v, 0.1);
    EXPECT_TRUE(sp_TextToReal("+1e3", &v));
    EXPECT_EQ(v, 1000.0);
    EXPECT_FALSE(sp_TextToReal("1k", &v));
    EXPECT_FALSE(sp_TextToReal("", &v));
    EXPECT_FALSE(sp_TextToReal("abc", &v));
    EXPECT_EQ(sp_RealToShortestText(2.0 / 3.0), "0.6666666666666666");
    // Beyond a double's range, as strtod reads it: infinity or zero of the number's sign.
    const double inf = std::numeric_limits<double>::infinity();
    const struct {
        const char* text;
        double value;
    } kRange[] = {{"1e999", inf},     {"-1e999", -inf},       {"+1.5E+400", inf},  {"123456e305", inf},
                  {"0.0001e313", inf}, {"1e-999", 0.0},       {"-1e-999", -0.0},   {"0.00001e-320", 0.0},
                  {"9999e-330", 0.0},  {"1e99999999999999999999", inf}, {"1e-99999999999999999999", 0.0},
                  {"4.9406564584124654e-324", 4.9406564584124654e-324}, {"1.7976931348623157e308", 1.7976931348623157e308}};
    for (const auto& c : kRange) {
        v = 7.0;
        EXPECT_TRUE(sp_TextToReal(c.text, &v)) << c.text;
        EXPECT_EQ(v, c.value) << c.text;
        EXPECT_EQ(std::signbit(v), std::signbit(c.value)) << c.text;
        EXPECT_EQ(v, std::strtod(c.text, nullptr)) << c.text;
    }
    EXPECT_FALSE(sp_TextToReal("1e999x", &v));
    EXPECT_FALSE(sp_TextToReal("+-1", &v)); // one sign at most, as strtod reads it
    EXPECT_FALSE(sp_TextToReal("+-1e999", &v));
    EXPECT_FALSE(sp_TextToReal("++1", &v));
    EXPECT_FALSE(sp_TextToReal("1e", &v));
}

TEST(UnfinishedUtf8Tail, CountsTheBytesOfASequenceThatIsNotComplete)
{
    EXPECT_EQ(sp_UnfinishedUtf8Tail("", 0), 0u);
    EXPECT_EQ(sp_UnfinishedUtf8Tail(nullptr, 3), 0u);
    EXPECT_EQ(sp_UnfinishedUtf8Tail("abc", 3), 0u);
    EXPECT_EQ(sp_UnfinishedUtf8Tail("caf\xC3", 4), 1u);
    EXPECT_EQ(sp_UnfinishedUtf8Tail("caf\xC3\xA9", 5), 0u);
    EXPECT_EQ(sp_UnfinishedUtf8Tail("x\xE2\x82", 3), 2u);
    EXPECT_EQ(sp_UnfinishedUtf8Tail("x\xE2\x82\xAC", 4), 0u);
    EXPECT_EQ(sp_UnfinishedUtf8Tail("\xF0\x9F\x98", 3), 3u);
    EXPECT_EQ(sp_UnfinishedUtf8Tail("\xF0\x9F\x98\x80", 4), 0u);
    // A stray continuation byte or a lead byte that no sequence has is not held back.
    EXPECT_EQ(sp_UnfinishedUtf8Tail("a\x80", 2), 0u);
    EXPECT_EQ(sp_UnfinishedUtf8Tail("a\xF8", 2), 0u);
    EXPECT_EQ(sp_UnfinishedUtf8Tail("\x80\x80\x80", 3), 0u);
}
