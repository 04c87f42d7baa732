// LibraryIndexTest.cpp - the one-pass scan behind `supportqt index`: where definitions start and end,
// which lines count as definitions, and line numbers.
#include "LibraryIndex.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Found {
    LibraryDefinition::Kind kind;
    std::string name;
    int start;
    int end;
    int line;
    bool operator==(const Found& o) const
    {
        return kind == o.kind && name == o.name && start == o.start && end == o.end && line == o.line;
    }
};

void PrintTo(const Found& f, std::ostream* os)
{
    *os << (f.kind == LibraryDefinition::Subckt ? ".subckt " : ".model ") << f.name << " [" << f.start << ", " << f.end
        << ") line " << f.line;
}

std::vector<Found> scan(const std::string& text)
{
    std::vector<Found> found;
    for (const LibraryDefinition& d : indexLibrary(text.data(), text.size()))
        found.push_back({d.kind, std::string(d.name), d.start, d.end, d.line});
    return found;
}

constexpr LibraryDefinition::Kind Model = LibraryDefinition::Model;
constexpr LibraryDefinition::Kind Subckt = LibraryDefinition::Subckt;

TEST(LibraryIndex, ModelRunsOverItsContinuationLines)
{
    const std::string text = "* lib\n.model D1 D(IS=1n\n  + RS=1\n+ N=2)\nR1 a b 1\n";
    EXPECT_EQ(scan(text), (std::vector<Found>{{Model, "D1", 6, 40, 2}}));
    EXPECT_EQ(text.substr(6, 34), ".model D1 D(IS=1n\n  + RS=1\n+ N=2)\n");
}

TEST(LibraryIndex, SubcircuitRunsThroughItsEndsLine)
{
    const std::string text = ".SUBCKT amp in out\nR1 in out 1k\n.ENDS amp\n.model q npn\n";
    EXPECT_EQ(scan(text), (std::vector<Found>{{Subckt, "amp", 0, 42, 1}, {Model, "q", 42, 55, 4}}));
}

TEST(LibraryIndex, UnclosedSubcircuitRunsToTheEndAndNestedOnesCloseTogether)
{
    EXPECT_EQ(scan(".subckt a x\nR1 x 0 1\n"), (std::vector<Found>{{Subckt, "a", 0, 21, 1}}));
    const std::string nested = ".subckt outer a\n.subckt inner b\n.ends\n.ends\n";
    EXPECT_EQ(scan(nested), (std::vector<Found>{{Subckt, "outer", 0, 38, 1}, {Subckt, "inner", 16, 38, 2}}));
}

TEST(LibraryIndex, OnlyWholeKeywordsAtTheLineStartWithANameCount)
{
    EXPECT_TRUE(scan(".modelx a b\n .model b c\n.model\n.model \n*.model c d\n.subcktx e\n").empty());
    EXPECT_EQ(scan(".model\tm1(level=1)\n"), (std::vector<Found>{{Model, "m1", 0, 19, 1}}));
    EXPECT_EQ(scan(".model n=2\n"), (std::vector<Found>{{Model, "n", 0, 11, 1}}));
}

TEST(LibraryIndex, CrLfLinesAndNoFinalLineEnd)
{
    EXPECT_EQ(scan(".model a d\r\n+ is=1\r\n.model b d"),
              (std::vector<Found>{{Model, "a", 0, 20, 1}, {Model, "b", 20, 30, 3}}));
    EXPECT_EQ(scan(".model a\r\n"), (std::vector<Found>{{Model, "a", 0, 10, 1}}));
}

TEST(LibraryIndex, EmptyTextAndTextWithoutDefinitions)
{
    EXPECT_TRUE(scan("").empty());
    EXPECT_TRUE(scan("R1 a b 1k\n\n\n").empty());
    EXPECT_TRUE(scan(std::string(1000, '\n')).empty());
}

} // namespace
