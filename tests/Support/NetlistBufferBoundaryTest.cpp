// NetlistBufferBoundaryTest.cpp - the netlist readers give the same lines, buffers and counters whether
// their input arrives whole or a few bytes at a time, so that runs read in one step behave exactly as
// characters read one by one.
#include "LiteralNetlistStream.h"
#include "NetlistStream.h"
#include "TestHelpers.h"

#include <climits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Everything a caller can observe of a SpiceStream after one call of gets.
std::string spiceSnapshot(SpiceStream& s, bool more, const YString& line, int number, bool flag, bool nonAscii)
{
    std::ostringstream out;
    out << more << '|' << line.c_str() << '|' << number << '|' << flag << '|' << nonAscii << '|'
        << std::string(s.getBuffer()->data(), static_cast<size_t>(s.getBuffer()->length())) << '|'
        << s.getLineCount() << ',' << s.getCharCount() << ',' << s.getLastAcceptedLineCount() << ','
        << s.getLastAcceptedCharCount() << ',' << s.getUtf8Encoding() << ',' << s.eof() << ',' << s.isHierarchy()
        << ',' << s.getLanguage() << ',' << s.getSeparator();
    return out.str();
}

std::vector<std::string> readSpice(const std::string& text, size_t chunk, bool flushEachLine)
{
    kvstrstream source(text.data(), text.size(), chunk);
    SpiceStream s(source);
    std::vector<std::string> seen;
    for (int guard = 0; guard < 100000; ++guard) {
        YString line;
        int number = -7;
        bool flag = true, nonAscii = true;
        const bool more = s.gets(&line, &number, &flag, &nonAscii);
        seen.push_back(spiceSnapshot(s, more, line, number, flag, nonAscii));
        if (flushEachLine)
            s.flushBuffer();
        if (!more)
            break;
    }
    return seen;
}

// A derived reader that can set the character limit, as the library-section reader does.
class LimitedStream : public NewSpiceStream {
public:
    LimitedStream(kvstream& source, int limit) : NewSpiceStream(source) { setCharLimit(limit); }
};

std::vector<std::string> readLiteral(const std::string& text, size_t chunk, int limit)
{
    kvstrstream source(text.data(), text.size(), chunk);
    LimitedStream s(source, limit);
    std::vector<std::string> seen;
    for (int guard = 0; guard < 100000; ++guard) {
        YString line;
        int number = -7;
        const bool more = s.gets(&line, &number);
        std::ostringstream out;
        out << more << '|' << line.c_str() << '|' << number << '|'
            << std::string(s.getLitBuffer().data(), static_cast<size_t>(s.getLitBuffer().length())) << '|'
            << s.getLineCount() << ',' << s.getCharCount();
        seen.push_back(out.str());
        if (guard % 3 == 0)
            s.flushLitBuffer();
        if (!more)
            break;
    }
    return seen;
}

std::string plainNetlist(int lines)
{
    std::string text = "* header\n";
    for (int i = 0; i < lines; ++i) {
        text += "M" + std::to_string(i) + " d g s b nch W=" + std::to_string(i % 50) + "u L=0.18u";
        text += (i % 7 == 0) ? " ; note\n" : "\n";
        if (i % 5 == 0)
            text += "+ AD=1p PD=2u\n";
        if (i % 9 == 0)
            text += "* between\n\n";
    }
    return text;
}

const size_t kChunks[] = {1, 2, 3, 5, 16, 17, 4096};

} // namespace

TEST(NetlistBufferBoundary, SpiceStreamPlainTextAnyChunking)
{
    const std::string text = plainNetlist(400);
    const auto whole = readSpice(text, 0, true);
    ASSERT_GT(whole.size(), 400u);
    EXPECT_EQ(whole[0].substr(0, 48), "1|M0 d g s b nch W=0u L=0.18u   AD=1p PD=2u|2|0|");
    for (size_t chunk : kChunks)
        EXPECT_EQ(readSpice(text, chunk, true), whole) << "chunk " << chunk;
}

TEST(NetlistBufferBoundary, SpiceStreamCrLfAnyChunking)
{
    std::string text;
    for (char c : plainNetlist(200)) {
        if (c == '\n')
            text += '\r';
        text += c;
    }
    const auto whole = readSpice(text, 0, false);
    for (size_t chunk : kChunks)
        EXPECT_EQ(readSpice(text, chunk, false), whole) << "chunk " << chunk;
}

TEST(NetlistBufferBoundary, SpiceStreamRandomInputAnyChunking)
{
    std::mt19937 random(20261122);
    for (int round = 0; round < 300; ++round) {
        const std::string text = generatedNetlist(random, 5 + static_cast<int>(random() % 120));
        const bool flush = round % 2 == 0;
        const auto whole = readSpice(text, 0, flush);
        for (size_t chunk : {size_t(1), size_t(2), size_t(7), size_t(16)})
            ASSERT_EQ(readSpice(text, chunk, flush), whole) << "round " << round << " chunk " << chunk;
    }
}

TEST(NetlistBufferBoundary, NewSpiceStreamPlainTextAnyChunking)
{
    const std::string text = plainNetlist(400);
    const auto whole = readLiteral(text, 0, INT_MAX);
    ASSERT_GT(whole.size(), 400u);
    for (size_t chunk : kChunks)
        EXPECT_EQ(readLiteral(text, chunk, INT_MAX), whole) << "chunk " << chunk;
}

TEST(NetlistBufferBoundary, NewSpiceStreamRandomInputAnyChunkingAndLimit)
{
    std::mt19937 random(112026);
    for (int round = 0; round < 300; ++round) {
        const std::string text = generatedNetlist(random, 5 + static_cast<int>(random() % 120));
        // Every third round cuts the input at a character limit somewhere inside it.
        const int limit = round % 3 == 0 ? static_cast<int>(random() % (text.size() + 1)) : INT_MAX;
        const auto whole = readLiteral(text, 0, limit);
        for (size_t chunk : {size_t(1), size_t(2), size_t(7), size_t(16)})
            ASSERT_EQ(readLiteral(text, chunk, limit), whole) << "round " << round << " chunk " << chunk;
    }
}
