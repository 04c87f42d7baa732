// NetlistHostileInputTest.cpp - the netlist readers on input no netlist writer would produce.
#include "LibraryStream.h"
#include "NetlistStream.h"
#include "TestHelpers.h"

#include <random>

namespace {

// Reads everything with every reader; returns the number of SpiceStream lines.
int readEverything(const std::string& bytes)
{
    int count = 0;
    {
        kvstrstream source(bytes.data(), bytes.size());
        SpiceStream s(source);
        YString line;
        int number = 0;
        while (s.gets(&line, &number, nullptr, nullptr)) {
            EXPECT_EQ(line.findIndex("\n"), -1);
            EXPECT_LE(s.getLastAcceptedCharCount(), s.getCharCount());
            s.flushBuffer();
            ++count;
        }
        EXPECT_EQ(s.eof(), 1);
    }
    {
        kvstrstream source(bytes.data(), bytes.size());
        NewSpiceStream n(source);
        YString line;
        while (n.gets(&line))
            n.flushLitBuffer();
    }
    sp_ParseSpiceLines(YString(bytes.data(), static_cast<int>(bytes.size())));
    return count;
}

} // namespace

TEST(NetlistHostileInput, RandomBytes)
{
    std::mt19937 random(1234);
    for (int round = 0; round < 200; ++round) {
        std::string bytes(static_cast<size_t>(random() % 4000), '\0');
        for (char& c : bytes)
            c = static_cast<char>(random() % 256);
        readEverything(bytes);
    }
}

TEST(NetlistHostileInput, OnlyPlusLinesOnlyStarLinesOnlyFF)
{
    EXPECT_EQ(readEverything(std::string(5000, '+') + "\n+\n+ x\n"), 1);
    std::string stars;
    for (int i = 0; i < 2000; ++i)
        stars += "*\n";
    EXPECT_EQ(readEverything(stars), 0);
    EXPECT_EQ(readEverything(std::string(10000, '\xFF')), 0);
    EXPECT_EQ(readEverything(std::string(10000, '\r')), 0);
}

TEST(NetlistHostileInput, UnbalancedAndDeeplyNestedBraces)
{
    std::string nested = "R1 a b " + std::string(100000, '{') + "x" + std::string(100000, '}') + "\n";
    kvstrstream source(nested.c_str());
    SpiceStream s(source);
    YString line;
    ASSERT_TRUE(s.gets(&line, nullptr, nullptr, nullptr));
    EXPECT_EQ(line.length(), static_cast<int>(std::string("R1 a b {").size()) + 2 * 99999 + 2);
    EXPECT_EQ(readEverything("R1 }}}} {{{ a\n{\n}\n"), 3);
}

TEST(NetlistHostileInput, VeryLongLineWithoutLineEnd)
{
    std::string longLine(20 * 1024 * 1024, 'x');
    kvstrstream source(longLine.data(), longLine.size());
    SpiceStream s(source);
    YString line;
    ASSERT_TRUE(s.gets(&line, nullptr, nullptr, nullptr));
    EXPECT_EQ(line.length(), static_cast<int>(longLine.size()));
    EXPECT_FALSE(s.gets(&line, nullptr, nullptr, nullptr));
}
