// NetlistReferenceTest.cpp - the netlist readers against plain per-character state machines of the same
// rules (tests/helpers/ReferenceNetlistReaders): on the test data, the examples, the fuzz seeds, the
// corpus and generated text, every counter, buffer and flag a caller can observe agrees after every line,
// whatever the chunking of the input and whichever vector kernel the process uses
// (SUPPORTQT_NETLIST_SCAN, set by CTest for the other levels).
#include "LiteralNetlistStream.h"
#include "NetlistStream.h"
#include "ReferenceNetlistReaders.h"
#include "TestHelpers.h"

#include <QDirIterator>
#include <QFileInfo>

#include <algorithm>
#include <climits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

// A buffer that only grows between the caller's flushes is recorded by what it gained since the last
// record, and its length, so that a record costs the line and not the whole text read so far.
std::string grownPart(const Buf& buffer, int* before)
{
    const int from = buffer.length() >= *before ? *before : 0;
    std::string part = std::to_string(buffer.length()) + ':' + std::string(buffer.data() + from, static_cast<size_t>(buffer.length() - from));
    *before = buffer.length();
    return part;
}

// Everything a caller can observe of a SpiceStream (or its reference) after one call of gets.
template <class Stream>
std::string spiceSnapshot(Stream& s, bool more, const YString& line, int number, bool flag, bool nonAscii, int* rawBefore)
{
    std::ostringstream out;
    out << more << '|' << std::string(line.c_str(), static_cast<size_t>(line.length())) << '|' << number << '|'
        << flag << '|' << nonAscii << '|' << grownPart(*s.getBuffer(), rawBefore)
        << '|' << s.getLineCount() << ',' << s.getCharCount() << ',' << s.getLastAcceptedLineCount() << ','
        << s.getLastAcceptedCharCount() << ',' << s.getUtf8Encoding() << ',' << s.eof() << ',' << s.isHierarchy()
        << ',' << static_cast<int>(s.getLanguage()) << ',' << s.getSeparator();
    return out.str();
}

// How a caller drives a SpiceStream: bit 1 reads the title first, 2 reads in literal mode, 4 keeps empty
// lines in the raw buffer, 8 flushes the raw buffer after every line.
template <class Stream>
std::vector<std::string> readSpice(const std::string& text, size_t chunk, int options)
{
    kvstrstream source(text.data(), text.size(), chunk);
    Stream s(source);
    if (options & 1)
        s.readTitle();
    s.setLiteralMode((options & 2) != 0);
    if (options & 4)
        s.dontSuppressEmptyLines();
    std::vector<std::string> seen;
    int rawBefore = 0;
    for (int guard = 0; guard < 1000000; ++guard) {
        YString line;
        int number = -7;
        bool flag = true, nonAscii = true;
        const bool more = s.gets(&line, &number, &flag, &nonAscii);
        seen.push_back(spiceSnapshot(s, more, line, number, flag, nonAscii, &rawBefore));
        if (options & 8) {
            s.flushBuffer();
            rawBefore = 0;
        }
        if (!more)
            break;
    }
    return seen;
}

// A literal reader with the character limit of the library-section reader.
class LimitedStream : public NewSpiceStream {
public:
    LimitedStream(kvstream& source, int limit) : NewSpiceStream(source) { setCharLimit(limit); }
};

template <class Stream>
std::vector<std::string> readLiteral(const std::string& text, size_t chunk, int limit, bool flushEvery)
{
    kvstrstream source(text.data(), text.size(), chunk);
    Stream s(source, limit);
    std::vector<std::string> seen;
    int litBefore = 0;
    for (int guard = 0; guard < 1000000; ++guard) {
        YString line;
        int number = -7;
        const bool more = s.gets(&line, &number);
        std::ostringstream out;
        out << more << '|' << std::string(line.c_str(), static_cast<size_t>(line.length())) << '|' << number << '|'
            << grownPart(s.getLitBuffer(), &litBefore) << '|' << s.getLineCount() << ',' << s.getCharCount();
        seen.push_back(out.str());
        if (flushEvery || guard % 3 == 0) {
            s.flushLitBuffer();
            litBefore = 0;
        }
        if (!more)
            break;
    }
    return seen;
}

// The first place where two records of a reading differ, for a readable failure.
std::string firstDifference(const std::vector<std::string>& a, const std::vector<std::string>& b)
{
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        if (a[i] != b[i])
            return "after line " + std::to_string(i + 1) + ":\n  library:   " + a[i].substr(0, 400) +
                   "\n  reference: " + b[i].substr(0, 400);
    return a.size() == b.size() ? std::string() : "line counts " + std::to_string(a.size()) + " and " + std::to_string(b.size());
}

// Compares both readers with their references on `text`, read whole and in the given chunk sizes.
void compareEverywhere(const std::string& what, const std::string& text, const std::vector<size_t>& chunks)
{
    for (size_t chunk : chunks) {
        for (int options : {0, 8, 1 | 8, 4, 2 | 8}) {
            const auto library = readSpice<SpiceStream>(text, chunk, options);
            const auto reference = readSpice<ReferenceSpiceStream>(text, chunk, options);
            ASSERT_EQ(library, reference) << what << ", SpiceStream, chunk " << chunk << ", options " << options << ", "
                                          << firstDifference(library, reference);
        }
        for (const int limit : {INT_MAX, static_cast<int>(text.size() / 2), static_cast<int>(text.size()) - 1}) {
            for (bool flushEvery : {false, true}) {
                const auto library = readLiteral<LimitedStream>(text, chunk, limit, flushEvery);
                const auto reference = readLiteral<ReferenceLiteralStream>(text, chunk, limit, flushEvery);
                ASSERT_EQ(library, reference) << what << ", NewSpiceStream, chunk " << chunk << ", limit " << limit
                                              << ", " << firstDifference(library, reference);
            }
        }
    }
}

std::vector<std::string> filesUnder(const QString& folder)
{
    std::vector<std::string> files;
    QDirIterator it(folder, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString file = it.next();
        if (!QFileInfo(file).fileName().startsWith(QLatin1Char('.')))
            files.push_back(file.toStdString());
    }
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

TEST(NetlistReference, GeneratedTextAgreesInEveryChunking)
{
    std::mt19937 random(20261125);
    for (int round = 0; round < 400; ++round) {
        const std::string text = generatedNetlist(random, 5 + static_cast<int>(random() % 150));
        compareEverywhere("round " + std::to_string(round), text, {0, 1, 7});
    }
}

TEST(NetlistReference, LongLinesAndRunsAcrossEveryBlockBoundary)
{
    // Runs of every length from 0 to 200 bytes, ending in each kind of stop byte, so that the vector
    // kernel's blocks of 16, 32 and 64 bytes and their tails are all crossed.
    const char* const stops[] = {"\n", "\r\n", ";", "$", "{x}", "\xC3\xA9", "\xE2\x82\xAC", "\x80", "\x01", "\xFF", "\t"};
    std::string text = "title\n";
    for (int length = 0; length <= 200; ++length)
        for (const char* stop : stops)
            text += "R" + std::string(static_cast<size_t>(length), 'a' + static_cast<char>(length % 26)) + stop + "\n";
    compareEverywhere("runs", text.substr(0, text.find('\xFF')), {0, 13});
    // One line longer than the reader's window over the buffer.
    std::string longLine = "R1";
    while (longLine.size() < 200000)
        longLine += " n" + std::to_string(longLine.size() % 997);
    compareEverywhere("long line", "title\n" + longLine + "\n+ more\n* note\n" + longLine + "\xC3\xA9 end\n", {0, 4096});
}

TEST(NetlistReference, UnicodeRunsOfEveryLengthAgree)
{
    // Sequences of 2 to 6 bytes, valid and cut short, at every offset of a block, in lines and comments.
    const std::string sequences[] = {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xF8\x88\x80\x80\x80",
                                     "\xFC\x84\x80\x80\x80\x80", "\xE2\x82", "\xC3", "\x80\x80", "\xFE"};
    std::string text = "title\n";
    for (int offset = 0; offset < 70; ++offset)
        for (const std::string& sequence : sequences) {
            text += std::string(static_cast<size_t>(offset), 'x') + sequence + sequence + "y\n";
            text += "* " + std::string(static_cast<size_t>(offset), 'c') + sequence + "\n";
        }
    compareEverywhere("unicode", text, {0, 5});
}

TEST(NetlistReference, TestDataAndExamplesAgree)
{
    std::vector<std::string> files = filesUnder(QString::fromStdString(testDataPath("")));
    const std::vector<std::string> examples = filesUnder(QStringLiteral(SUPPORTQT_EXAMPLES_DIR));
    files.insert(files.end(), examples.begin(), examples.end());
    int compared = 0;
    for (const std::string& file : files) {
        const std::string text = readFileBytes(file);
        if (text.size() > 4 * 1024 * 1024)
            continue;
        compareEverywhere(file, text, {0, 3});
        ++compared;
    }
    EXPECT_GE(compared, 20);
}

TEST(NetlistReference, FuzzSeedsAgree)
{
    int compared = 0;
    for (const char* target : {"fuzz_spice_stream", "fuzz_literal_stream", "fuzz_library_stream", "fuzz_parse_spice_lines"}) {
        for (const QString& folder : {QStringLiteral(SUPPORTQT_FUZZ_CORPUS_DIR "/") + QLatin1String(target),
                                      QString::fromStdString(testDataPath(std::string("fuzz-regressions/") + target))}) {
            for (const std::string& file : filesUnder(folder)) {
                compareEverywhere(file, readFileBytes(file), {0, 1});
                ++compared;
            }
        }
    }
    EXPECT_GT(compared, 15);
}

TEST(NetlistReference, CorpusAgrees)
{
    const std::vector<std::string> files = filesUnder(corpusDir() + QStringLiteral("/netlists"));
    if (files.empty())
        GTEST_SKIP() << "the netlist corpus is absent (" << corpusDir().toStdString() << ")";
    for (const std::string& file : files) {
        if (QFileInfo(QString::fromStdString(file)).suffix() == QLatin1String("tsv"))
            continue;
        const std::string text = readFileBytes(file);
        for (int options : {0, 8}) {
            const auto library = readSpice<SpiceStream>(text, 0, options);
            const auto reference = readSpice<ReferenceSpiceStream>(text, 0, options);
            ASSERT_EQ(library, reference) << file << ", " << firstDifference(library, reference);
        }
        const auto library = readLiteral<LimitedStream>(text, 0, INT_MAX, true);
        const auto reference = readLiteral<ReferenceLiteralStream>(text, 0, INT_MAX, true);
        ASSERT_EQ(library, reference) << file << ", " << firstDifference(library, reference);
    }
}

namespace {

// Everything of a SpiceStream after any call, for the interleaving test.
template <class Stream>
std::string stateOf(Stream& s, const std::string& what)
{
    std::ostringstream out;
    out << what << '|' << std::string(s.getBuffer()->data(), static_cast<size_t>(s.getBuffer()->length())) << '|'
        << s.getLineCount() << ',' << s.getCharCount() << ',' << s.getLastAcceptedLineCount() << ','
        << s.getLastAcceptedCharCount() << ',' << s.getUtf8Encoding() << ',' << s.eof() << ',' << s.isHierarchy() << ','
        << static_cast<int>(s.getLanguage()) << ',' << s.getSeparator() << ',' << s.getFlag();
    return out.str();
}

// A random mix of the calls a caller may make between and instead of lines: characters in both modes,
// lines, literal mode, flushes, the raw buffer replaced, restarts, counts cleared, base64 sections and
// seeks.
template <class Stream>
std::vector<std::string> driveSpice(const std::string& text, size_t chunk, unsigned seed)
{
    std::mt19937 random(seed);
    kvstrstream source(text.data(), text.size(), chunk);
    Stream s(source);
    std::vector<std::string> seen;
    for (int i = 0; i < 300; ++i) {
        const unsigned op = random() % 24;
        std::string what;
        if (op < 5) {
            what = "get " + std::to_string(s.get(false));
        } else if (op == 5) {
            what = "raw " + std::to_string(s.get(true));
        } else if (op == 6) {
            s.setLiteralMode(random() % 4 == 0);
        } else if (op == 7) {
            s.flushBuffer();
        } else if (op == 8) {
            if (random() % 2)
                s.openBase64();
            else
                s.closeBase64();
        } else if (op == 9 && random() % 4 == 0) {
            s.seekg(static_cast<long long>(random() % (text.size() + 1)));
        } else if (op == 10 && random() % 3 == 0) {
            s.init();
        } else if (op == 11 && random() % 3 == 0) {
            s.clearCounts();
        } else if (op == 12 && random() % 3 == 0) {
            s.copyBuffer("copied\ntext");
        } else {
            YString line;
            int number = -7;
            bool flag = true, nonAscii = true;
            const bool more = s.gets(&line, &number, &flag, &nonAscii);
            what = "line " + std::to_string(more) + "|" + line.c_str() + "|" + std::to_string(number) +
                   std::to_string(flag) + std::to_string(nonAscii);
        }
        seen.push_back(stateOf(s, what));
    }
    return seen;
}

template <class Stream>
std::vector<std::string> driveLiteral(const std::string& text, size_t chunk, int limit, unsigned seed)
{
    std::mt19937 random(seed);
    kvstrstream source(text.data(), text.size(), chunk);
    Stream s(source, limit);
    std::vector<std::string> seen;
    for (int i = 0; i < 300; ++i) {
        const unsigned op = random() % 16;
        std::string what;
        if (op < 5) {
            what = "get " + std::to_string(s.get());
        } else if (op == 5) {
            s.flushLitBuffer();
        } else if (op == 6 && random() % 4 == 0) {
            s.seekg(static_cast<long long>(random() % (text.size() + 1)));
        } else if (op == 7 && random() % 3 == 0) {
            s.init();
        } else if (op == 8 && random() % 3 == 0) {
            s.clearCounts();
        } else {
            YString line;
            int number = -7;
            const bool more = s.gets(&line, &number);
            what = "line " + std::to_string(more) + "|" + line.c_str() + "|" + std::to_string(number);
        }
        std::ostringstream out;
        out << what << '|' << std::string(s.getLitBuffer().data(), static_cast<size_t>(s.getLitBuffer().length())) << '|'
            << s.getLineCount() << ',' << s.getCharCount();
        seen.push_back(out.str());
    }
    return seen;
}

template <class Stream>
std::vector<std::string> readWithHook(const std::string& text, size_t chunk)
{
    kvstrstream source(text.data(), text.size(), chunk);
    ActingBraceHook<Stream> s(source);
    std::vector<std::string> seen;
    for (int guard = 0; guard < 1000; ++guard) {
        YString line;
        int number = -7;
        bool flag = true, nonAscii = true;
        const bool more = s.gets(&line, &number, &flag, &nonAscii);
        seen.push_back(stateOf(s, "line " + std::to_string(more) + "|" + line.c_str() + "|" + std::to_string(number) +
                                      std::to_string(flag) + std::to_string(nonAscii)));
        if (!more)
            break;
    }
    return seen;
}

} // namespace

TEST(NetlistReference, AnyMixOfCallsAgrees)
{
    std::mt19937 random(777);
    for (int round = 0; round < 600; ++round) {
        std::string text = generatedNetlist(random, 5 + static_cast<int>(random() % 120));
        if (round % 5 == 0)
            text += "TWFuIGlzIGRpc3Rpbmd1aXNoZWQ=\n*" + std::string(200, 'c') + "\n";
        for (size_t chunk : {size_t(0), size_t(1), size_t(5)}) {
            const unsigned seed = static_cast<unsigned>(random());
            const auto library = driveSpice<SpiceStream>(text, chunk, seed);
            const auto reference = driveSpice<ReferenceSpiceStream>(text, chunk, seed);
            ASSERT_EQ(library, reference) << "round " << round << " chunk " << chunk << ", "
                                          << firstDifference(library, reference);
            const int limit = static_cast<int>(random() % (text.size() + 2));
            const auto libraryLiteral = driveLiteral<LimitedStream>(text, chunk, limit, seed);
            const auto referenceLiteral = driveLiteral<ReferenceLiteralStream>(text, chunk, limit, seed);
            ASSERT_EQ(libraryLiteral, referenceLiteral) << "literal round " << round << " chunk " << chunk << ", "
                                                        << firstDifference(libraryLiteral, referenceLiteral);
        }
    }
}

TEST(NetlistReference, ABraceHookThatReadsOnOrChangesTheModeAgrees)
{
    // The hook reads to the line's end, switches literal mode on and off, restarts the reader, or keeps
    // the braces; the reader goes on from wherever the hook left it.
    const std::string text = "title\nR1 a{read} b c\nR2 {literal}x y\n+ z\nR3 {plain}p\nR4 {init} q\n* c\nR5 {keep} r\n"
                             "R6 a{read}";
    for (size_t chunk : {size_t(0), size_t(1), size_t(3)}) {
        const auto library = readWithHook<SpiceStream>(text, chunk);
        const auto reference = readWithHook<ReferenceSpiceStream>(text, chunk);
        ASSERT_EQ(library, reference) << "chunk " << chunk << ", " << firstDifference(library, reference);
    }
    // Worked by hand: the hook of "a{read}b" reads the rest ("b" and the end); the line is "aVread", and
    // the reader has met the end, having counted a, {, r, e, a, d, }, b and the one read of the end.
    kvstrstream source("a{read}b");
    ActingBraceHook<SpiceStream> s(source);
    YString line;
    int number = 0;
    bool flag = false, nonAscii = false;
    ASSERT_TRUE(s.gets(&line, &number, &flag, &nonAscii));
    EXPECT_EQ(std::string(line.c_str()), "aVread");
    EXPECT_EQ(s.eof(), 1);
    EXPECT_EQ(s.getCharCount(), 9);
    EXPECT_FALSE(s.gets(&line, &number, &flag, &nonAscii));
}

TEST(NetlistReference, ABraceHookThatReadsPastADialectDirectiveLeavesTheRestOfTheLineInTheNewDialect)
{
    const std::string text = "R1 {step}\n*#HSPICE\nX a ; b $ c\nR2 {step}\n*#KALVONTA\nY d $ e ; f\nR3 g $ h ; i\n";
    for (size_t chunk : {size_t(0), size_t(1), size_t(3)}) {
        const auto library = readWithHook<SpiceStream>(text, chunk);
        const auto reference = readWithHook<ReferenceSpiceStream>(text, chunk);
        ASSERT_EQ(library, reference) << "chunk " << chunk << ", " << firstDifference(library, reference);
    }
    // Worked by hand: the hook of the first line reads its end and then the directive and the "X" of the
    // next line; the rest of that line is read as HSPICE, where ";" is text and "$" starts the comment
    // (the last character accepted is the blank before it, the 27th of the text). The second hook goes
    // back to the native dialect, where "$" is text and ";" starts the comment.
    kvstrstream source(text.data(), text.size());
    ActingBraceHook<SpiceStream> s(source);
    YString line;
    int number = 0;
    bool flag = false, nonAscii = false;
    ASSERT_TRUE(s.gets(&line, &number, &flag, &nonAscii));
    EXPECT_EQ(std::string(line.c_str()), "R1 Vstep a ; b ");
    EXPECT_EQ(s.getLanguage(), SpiceLanguageHspice);
    EXPECT_EQ(s.getLastAcceptedCharCount(), 27);
    ASSERT_TRUE(s.gets(&line, &number, &flag, &nonAscii));
    EXPECT_EQ(std::string(line.c_str()), "R2 Vstep d $ e ");
    EXPECT_EQ(s.getLanguage(), SpiceLanguageNative);
    ASSERT_TRUE(s.gets(&line, &number, &flag, &nonAscii));
    EXPECT_EQ(std::string(line.c_str()), "R3 g $ h ");
}

TEST(NetlistReference, RestartingTheLiteralReaderKeepsAQueuedCommentBlock)
{
    // init keeps the look-ahead queue: here a gathered "*" line of 5000 bytes, longer than what is left
    // in the stream's buffer, which the restarted reader delivers as a line of its own.
    const std::string comment = "*" + std::string(5000, 'c');
    const std::string text = "a\n" + comment + "\nb\n";
    for (size_t chunk : {size_t(0), size_t(16)}) {
        kvstrstream source(text.data(), text.size(), chunk);
        NewSpiceStream s(source);
        YString line;
        int number = 0;
        ASSERT_TRUE(s.gets(&line, &number));
        EXPECT_EQ(std::string(line.c_str()), "a");
        s.init();
        ASSERT_TRUE(s.gets(&line, &number));
        EXPECT_EQ(std::string(line.c_str()), comment);
        ASSERT_TRUE(s.gets(&line, &number));
        EXPECT_EQ(std::string(line.c_str()), "b");
        EXPECT_FALSE(s.gets(&line, &number));
    }
}
