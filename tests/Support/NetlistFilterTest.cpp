// NetlistFilterTest.cpp - the netlist readers' vector kernel: every instruction-set level finds the same
// runs as the portable one and copies them exactly, never reading past the end, stops at exactly the
// documented bytes; and runs of UTF-8 sequences leave a detector as feeding it byte by byte does.
#include "NetlistFilter_p.h"
#include "QtSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

const netlist::RunStops kStopSets[] = {
    {{';', '{', '}'}, true},    // a SpiceStream line, native dialect
    {{'$', '{', '}'}, true},    // a SpiceStream line, HSPICE
    {{'\n', '\n', '\n'}, true}, // a SpiceStream comment
    {{';', '\n', '\n'}, false}, // a NewSpiceStream line
    {{'\n', '\n', '\n'}, false} // a NewSpiceStream comment
};

std::vector<netlist::ScanLevel> levelsOfThisProcessor()
{
    std::vector<netlist::ScanLevel> levels;
    for (int l = 0; l <= static_cast<int>(netlist::ScanLevel::Avx512); ++l) {
        const auto level = static_cast<netlist::ScanLevel>(l);
        if (netlist::kernelsFor(level).level == level)
            levels.push_back(level);
    }
    return levels;
}

// Bytes that are mostly ordinary, with stop bytes of every kind mixed in.
std::string mixedBytes(std::mt19937& random, size_t length)
{
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        const unsigned r = random() % 100;
        if (r < 80)
            text += static_cast<char>(32 + random() % 95);
        else if (r < 85)
            text += "\n\r\t;${}"[random() % 7];
        else if (r < 95)
            text += static_cast<char>(128 + random() % 127);
        else
            text += static_cast<char>(random() % 256);
    }
    return text;
}

} // namespace

TEST(NetlistFilter, StopBytesAreExactlyTheDocumentedOnes)
{
    const netlist::ScanKernels scalar = netlist::kernelsFor(netlist::ScanLevel::Scalar);
    for (const netlist::RunStops& stops : kStopSets) {
        for (int b = 0; b < 256; ++b) {
            const char byte = static_cast<char>(b);
            const bool stop = (b < 32 && b != 9) || b == 255 || (stops.highBytes && b >= 128) || byte == stops.extra[0] ||
                              byte == stops.extra[1] || byte == stops.extra[2];
            const std::string text(1, byte);
            EXPECT_EQ(scalar.skip(text.data(), text.data() + 1, stops, nullptr, nullptr), stop ? 0u : 1u) << "byte " << b;
        }
    }
    // The tab and printable ASCII never stop a run; line ends and the end mark always do.
    const std::string plain = "\tR1 a b 1k ~!@#%^&*()_+=-`|\\:\"'<>?,./";
    for (const netlist::RunStops& stops : kStopSets) {
        if (stops.extra[0] != ';' && stops.extra[0] != '$') {
            EXPECT_EQ(scalar.skip(plain.data(), plain.data() + plain.size(), stops, nullptr, nullptr), plain.size());
        }
    }
}

TEST(NetlistFilter, EveryLevelFindsAndCopiesTheSameRuns)
{
    const std::vector<netlist::ScanLevel> levels = levelsOfThisProcessor();
    ASSERT_GE(levels.size(), 1u);
    const netlist::ScanKernels scalar = netlist::kernelsFor(netlist::ScanLevel::Scalar);
    std::mt19937 random(77);
    for (int round = 0; round < 300; ++round) {
        const std::string text = mixedBytes(random, 1 + random() % 300);
        // Runs start at every offset; the input is an exactly sized heap block, so that a sanitizer
        // would see a read past its end.
        for (size_t start = 0; start < text.size(); ++start) {
            std::vector<char> input(text.begin() + static_cast<long>(start), text.end());
            const char* const begin = input.data();
            const char* const end = begin + input.size();
            for (const netlist::RunStops& stops : kStopSets) {
                const size_t expected = scalar.skip(begin, end, stops, nullptr, nullptr);
                for (netlist::ScanLevel level : levels) {
                    const netlist::ScanKernels k = netlist::kernelsFor(level);
                    ASSERT_EQ(k.skip(begin, end, stops, nullptr, nullptr), expected) << "level " << static_cast<int>(level);
                    std::vector<char> one(input.size() + netlist::kRunSlack, '\0'), two(input.size() + netlist::kRunSlack, '\0');
                    ASSERT_EQ(k.copy1(begin, end, stops, one.data(), nullptr), expected);
                    ASSERT_EQ(std::string(one.data(), expected), std::string(begin, expected));
                    std::fill(one.begin(), one.end(), '\0');
                    ASSERT_EQ(k.copy2(begin, end, stops, one.data(), two.data()), expected);
                    ASSERT_EQ(std::string(one.data(), expected), std::string(begin, expected));
                    ASSERT_EQ(std::string(two.data(), expected), std::string(begin, expected));
                }
            }
        }
    }
}

TEST(NetlistFilter, CopyingARunCopiesItsBytesAndWritesNoFurtherThanTheRoomPastIt)
{
    std::mt19937 random(5);
    const std::string text = mixedBytes(random, 200);
    // Every run length up to 130 bytes, with 0 to 70 readable bytes after it; the source is an exactly
    // sized heap block, so that a sanitizer would see a read past its end.
    for (size_t n = 0; n <= 130; ++n) {
        for (size_t after = 0; after <= 70; ++after) {
            const std::vector<char> source(text.begin(), text.begin() + static_cast<long>(n + after));
            std::vector<char> out(n + netlist::kRunSlack + 16, '#');
            netlist::copyRun(out.data(), source.data(), n, source.data() + source.size());
            ASSERT_EQ(std::string(out.data(), n), std::string(source.data(), n)) << n << " " << after;
            // A short run may bring the bytes after it along, up to 64 in all, and nothing beyond.
            const size_t written = n <= 64 && n + after >= 64 ? 64 : n;
            for (size_t i = n; i < written; ++i)
                ASSERT_EQ(out[i], source[i]) << n << " " << after << " at " << i;
            for (size_t i = written; i < out.size(); ++i)
                ASSERT_EQ(out[i], '#') << n << " " << after << " at " << i;
        }
    }
}

TEST(NetlistFilter, ThePortableLevelCanBeForcedAndTheEnvironmentCapsTheChoice)
{
    EXPECT_EQ(netlist::kernelsFor(netlist::ScanLevel::Scalar).level, netlist::ScanLevel::Scalar);
#if defined(__x86_64__) || defined(_M_X64)
    // SSE2 is the baseline of 64-bit x86.
    EXPECT_EQ(netlist::kernelsFor(netlist::ScanLevel::Sse2).level, netlist::ScanLevel::Sse2);
#endif
    const char* forced = std::getenv("SUPPORTQT_NETLIST_SCAN");
    const netlist::ScanLevel active = netlist::activeKernels().level;
    if (forced && std::strcmp(forced, "scalar") == 0)
        EXPECT_EQ(active, netlist::ScanLevel::Scalar);
    else if (forced && std::strcmp(forced, "sse2") == 0)
        EXPECT_LE(static_cast<int>(active), static_cast<int>(netlist::ScanLevel::Sse2));
    else if (forced && std::strcmp(forced, "avx2") == 0)
        EXPECT_LE(static_cast<int>(active), static_cast<int>(netlist::ScanLevel::Avx2));
    else
        EXPECT_EQ(active, levelsOfThisProcessor().back());
}

TEST(NetlistFilter, Utf8RunsLeaveTheDetectorAsFeedingItByteByByte)
{
    // Complete sequences of 2 to 6 bytes, broken ones, ASCII and the bytes that cannot lead, at every
    // run length: whenever the bulk path takes a run, a detector fed those bytes one at a time ends
    // between sequences with the verdict the bulk path gives.
    const std::string pieces[] = {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xF8\x88\x80\x80\x80",
                                  "\xFC\x84\x80\x80\x80\x80", "\xC3", "\xE2\x82", "\x80", "\xBF", "\xFE", "\xFF", "a", " "};
    std::mt19937 random(8);
    for (int round = 0; round < 3000; ++round) {
        std::string text;
        const int count = 1 + static_cast<int>(random() % 12);
        for (int i = 0; i < count; ++i)
            text += pieces[random() % (sizeof(pieces) / sizeof(pieces[0]))];
        for (size_t cut = 0; cut <= text.size(); ++cut) {
            bool extended = false;
            const size_t n = netlist::utf8SequenceRun(text.data(), text.data() + cut, &extended);
            ASSERT_LE(n, cut);
            UTF8Detect oneByOne;
            for (size_t i = 0; i < n; ++i)
                oneByOne.add(static_cast<unsigned char>(text[i]));
            if (n == 0) {
                EXPECT_FALSE(extended);
                continue;
            }
            EXPECT_EQ(oneByOne.getState(), 1) << "round " << round << " cut " << cut;
            EXPECT_EQ(oneByOne.getEncoding(), extended ? Utf8Extended : Utf8) << "round " << round << " cut " << cut;
            // The run ends where the next byte cannot continue it as a complete sequence.
            if (n < cut) {
                UTF8Detect further = oneByOne;
                const unsigned char next = static_cast<unsigned char>(text[n]);
                further.add(next);
                if (next >= 0xC0 && next < 0xFE) {
                    // A lead byte whose sequence is cut short or broken before `cut`.
                    size_t k = n + 1;
                    while (k < cut && (static_cast<unsigned char>(text[k]) & 0xC0) == 0x80 && further.getState() != 1)
                        further.add(static_cast<unsigned char>(text[k++]));
                    EXPECT_NE(further.getState(), 1) << "round " << round << " cut " << cut;
                }
            }
        }
    }
}

TEST(NetlistFilter, TakingHighBytesInBulkLeavesTheDetectorAsByteByByte)
{
    // From each verdict a detector between sequences can hold (the extended and invalid ones reached by
    // a first sequence), the bytes taken in bulk leave it in the state and verdict that feeding the same
    // bytes one at a time gives.
    const std::string pieces[] = {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xF8\x88\x80\x80\x80",
                                  "\xFC\x84\x80\x80\x80\x80", "\xC3", "\x80", "\xFE", "\xFF", "a"};
    const std::string starts[] = {"", "\xC3\xA9", "\xF8\x88\x80\x80\x80", "\x80"};
    std::mt19937 random(21);
    for (int round = 0; round < 3000; ++round) {
        std::string text;
        const int count = 1 + static_cast<int>(random() % 10);
        for (int i = 0; i < count; ++i)
            text += pieces[random() % (sizeof(pieces) / sizeof(pieces[0]))];
        for (const std::string& start : starts) {
            UTF8Detect bulk, oneByOne;
            for (char b : start) {
                bulk.add(static_cast<unsigned char>(b));
                oneByOne.add(static_cast<unsigned char>(b));
            }
            ASSERT_TRUE(bulk.isBetweenSequences());
            const size_t n = netlist::takeHighBytes(bulk, text.data(), text.data() + text.size());
            for (size_t i = 0; i < n; ++i) {
                ASSERT_GE(static_cast<unsigned char>(text[i]), 128u);
                ASSERT_NE(static_cast<unsigned char>(text[i]), 0xFFu);
                oneByOne.add(static_cast<unsigned char>(text[i]));
            }
            EXPECT_EQ(bulk.getState(), oneByOne.getState()) << "round " << round;
            EXPECT_EQ(bulk.getEncoding(), oneByOne.getEncoding()) << "round " << round;
            EXPECT_TRUE(bulk.isBetweenSequences());
        }
    }
}
