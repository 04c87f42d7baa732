// LibraryStreamTest.cpp - one definition of a model library; netlist text split into lines.
#include "LibraryStream.h"
#include "TestHelpers.h"

#include "FileServices.h"

#include <climits>
#include <cstring>
#include <vector>

namespace {
const char kLibrary[] =
    "* library header\n"
    ".model D1 D(is=1e-14)\n"
    ".subckt OLD a b params: r=1\n"
    "R1 a b {r}\n"
    ".ends OLD\n"
    ".model D2 D\n";
}

class LibraryStreamTest : public TempDirTest {
protected:
    void SetUp() override
    {
        TempDirTest::SetUp();
        writeFileBytes(path("lib.lib"), kLibrary);
        std::string text = kLibrary;
        loc.fileName = path("lib.lib").c_str();
        loc.start = static_cast<int>(text.find(".subckt"));
        loc.end = static_cast<int>(text.find(".model D2"));
        loc.lineOffset = 2;
    }
    std::vector<std::pair<std::string, int>> readAll(LibraryStream& s)
    {
        std::vector<std::pair<std::string, int>> lines;
        YString line;
        int number = 0;
        while (s.gets(&line, &number))
            lines.push_back({line.c_str(), number});
        return lines;
    }
    SymbolLoc loc;
};

TEST_F(LibraryStreamTest, RenamesTheDefinitionKeepingTheRestOfTheLine)
{
    LibraryStream s(loc, YString("NEW"));
    auto lines = readAll(s);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].first, ".subckt NEW  a b params: r=1");
    EXPECT_EQ(lines[0].second, 3);
    EXPECT_EQ(lines[1].first, "R1 a b {r}");
    EXPECT_EQ(lines[1].second, 4);
    EXPECT_EQ(lines[2].first, ".ends OLD");
    EXPECT_EQ(lines[2].second, 5);
}

TEST_F(LibraryStreamTest, SameNameInAnyCaseIsLeftUnchanged)
{
    LibraryStream s(loc, YString("old"));
    EXPECT_EQ(readAll(s)[0].first, ".subckt OLD a b params: r=1");
    LibraryStream plain(loc, YString());
    EXPECT_EQ(readAll(plain)[0].first, ".subckt OLD a b params: r=1");
}

TEST_F(LibraryStreamTest, CommentLinesBeforeTheDefinitionAreSkippedForRenaming)
{
    SymbolLoc whole = loc;
    whole.start = 0;
    whole.lineOffset = 0;
    LibraryStream s(whole, YString("DX"));
    auto lines = readAll(s);
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0].first, "* library header");
    EXPECT_EQ(lines[1].first, ".model DX  D(is=1e-14)");
    EXPECT_EQ(lines[2].first, ".subckt OLD a b params: r=1");
}

TEST_F(LibraryStreamTest, StopsExactlyAtTheEndEvenInsideALine)
{
    std::string text = kLibrary;
    loc.end = static_cast<int>(text.find(".ends")) + 3;
    LibraryStream s(loc, YString());
    auto lines = readAll(s);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[2].first, ".en");
    EXPECT_EQ(lines[2].second, 5);
}

TEST_F(LibraryStreamTest, ReversedOrOutOfFileRangesReadAsEmpty)
{
    SymbolLoc reversed = loc;
    std::swap(reversed.start, reversed.end);
    LibraryStream a(reversed, YString("X"));
    EXPECT_TRUE(readAll(a).empty());
    SymbolLoc past = loc;
    past.start = 100000;
    past.end = 100050;
    LibraryStream b(past, YString("X"));
    EXPECT_TRUE(readAll(b).empty());
    SymbolLoc missing = loc;
    missing.fileName = path("missing.lib").c_str();
    LibraryStream c(missing, YString("X"));
    EXPECT_TRUE(readAll(c).empty());
    // A start below zero is no place in the file, also when the range would span more than an int.
    SymbolLoc below = loc;
    below.start = -1;
    LibraryStream d(below, YString("X"));
    EXPECT_TRUE(readAll(d).empty());
    below.start = -5;
    below.end = INT_MAX;
    LibraryStream e(below, YString("X"));
    EXPECT_TRUE(readAll(e).empty());
}

TEST(ParseSpiceLines, SplitsTextIntoLogicalLines)
{
    YArray<YString> lines = sp_ParseSpiceLines(YString("* title\nR1 a b 1k\n+ 2k\n* note\nC1 a 0 1u ; c\n"));
    ASSERT_EQ(lines.count(), 4);
    EXPECT_EQ(lines[0], "* title");
    EXPECT_EQ(lines[1], "R1 a b 1k  2k");
    EXPECT_EQ(lines[2], "* note");
    EXPECT_EQ(lines[3], "C1 a 0 1u ");
    EXPECT_EQ(sp_ParseSpiceLines(YString()).count(), 0);
}

TEST_F(LibraryStreamTest, LineOffsetsNearTheLimitsSaturate)
{
    loc.lineOffset = INT_MAX;
    LibraryStream high(loc, YString());
    const auto lines = readAll(high);
    ASSERT_FALSE(lines.empty());
    for (const auto& line : lines)
        EXPECT_EQ(line.second, INT_MAX);
    loc.lineOffset = INT_MIN;
    LibraryStream low(loc, YString());
    const auto shifted = readAll(low);
    ASSERT_FALSE(shifted.empty());
    EXPECT_EQ(shifted[0].second, INT_MIN + 1); // the range's first line is line 1 before the offset
}

// The input a fuzzer found (a line offset that overflowed), read through the same path.
TEST(LibraryStreamRegression, FuzzFoundLineOffsetOverflow)
{
    const std::string input = readFileBytes(testDataPath("fuzz-regressions/fuzz_library_stream/line_offset_overflow"));
    ASSERT_GE(input.size(), 13u);
    int start, end, offset;
    std::memcpy(&start, input.data(), 4);
    std::memcpy(&end, input.data() + 4, 4);
    std::memcpy(&offset, input.data() + 8, 4);
    const size_t nameLength = static_cast<unsigned char>(input[12]) % 16;
    const std::string body = input.substr(13 + nameLength);
    const std::string file = std::string(sp_GetTempPath().c_str()) + "/library-regression.lib";
    writeFileBytes(file, body);
    SymbolLoc where;
    where.fileName = file.c_str();
    where.start = start;
    where.end = end;
    where.lineOffset = offset;
    int lines = 0;
    {
        // The stream holds the file open until it goes, and Windows removes no open file.
        LibraryStream in(where, YString(input.substr(13, nameLength).c_str()));
        YString line;
        int number = 0;
        while (in.gets(&line, &number) && lines < 100000)
            ++lines;
    }
    EXPECT_LT(lines, 100000);
    EXPECT_EQ(unlink_utf8(file.c_str()), 0);
}
