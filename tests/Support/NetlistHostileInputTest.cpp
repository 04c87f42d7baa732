// NetlistHostileInputTest.cpp - the netlist readers on input no netlist writer would produce.
#include "LibraryStream.h"
#include "NetlistStream.h"
#include "TestHelpers.h"

#include <algorithm>
#include <climits>
#include <new>
#include <random>
#include <string>
#include <vector>

// Real exhaustion runs in a child whose address space is limited, on Linux.
#if defined(__linux__) && !defined(SUPPORTQT_TEST_ASAN)
#define LIMITED_CHILDREN 1
#include "ModelLibrary.h"

#include "TextFile.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <functional>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

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

// A netlist of more than 2 GiB has more characters, and may have more lines, than an int holds: the
// counts, and the line numbers handed out, stop at INT_MAX instead of overflowing.
TEST(NetlistHostileInput, LineCountsAndNumbersStopAtIntMax)
{
    // Lone CRs, a CR LF, a bare comment, a directive, a comment line, an inline comment, a continuation
    // and a byte above 127, each counted once the count stands at INT_MAX; read whole, and one byte per
    // refill so that every byte takes the character source.
    const std::string text = "a\r\rb\r\n*\n*#hierarchy\n* c\nd ; e\n+ f\n\xC3\ng\n";
    for (size_t chunk : {size_t(0), size_t(1)}) {
        SCOPED_TRACE(chunk);
        kvstrstream source(text.data(), text.size(), chunk);
        SpiceStream s(source);
        s.setLineCount(INT_MAX - 1);
        std::vector<std::string> lines;
        YString line;
        int number = 0;
        while (s.gets(&line, &number, nullptr, nullptr)) {
            lines.emplace_back(line.c_str());
            EXPECT_EQ(number, INT_MAX) << line.c_str();
            EXPECT_EQ(s.getLineCount(), INT_MAX);
            EXPECT_EQ(s.getLastAcceptedLineCount(), INT_MAX);
        }
        EXPECT_EQ(lines, (std::vector<std::string>{"a", "b", "d   f", "\xC3", "g"}));
        EXPECT_EQ(s.getLineCount(), INT_MAX);
        EXPECT_EQ(s.getLastAcceptedLineCount(), INT_MAX);
    }

    // The last accepted line count of a run of text before an inline comment.
    kvstrstream continued("a\nx\n+ y ; c\nz\n");
    SpiceStream c(continued);
    c.setLineCount(INT_MAX - 1);
    YString line;
    int number = 0;
    ASSERT_TRUE(c.gets(&line, &number, nullptr, nullptr));
    ASSERT_TRUE(c.gets(&line, &number, nullptr, nullptr));
    EXPECT_EQ(line, "x  y ");
    EXPECT_EQ(c.getLastAcceptedLineCount(), INT_MAX);

    // The title line too.
    kvstrstream titled("title\nR1 a b 1k\n");
    SpiceStream t(titled);
    t.setLineCount(INT_MAX);
    t.readTitle();
    EXPECT_EQ(t.getLineCount(), INT_MAX);
    ASSERT_TRUE(t.gets(&line, &number, nullptr, nullptr));
    EXPECT_EQ(line, "R1 a b 1k");
    EXPECT_EQ(number, INT_MAX);
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

namespace {

// The readers with their record of memory running out.
struct CheckedSpiceStream : SpiceStream {
    using SpiceStream::memoryRanOut;
    using SpiceStream::SpiceStream;
};
struct CheckedLiteralStream : NewSpiceStream {
    using NewSpiceStream::memoryRanOut;
    using NewSpiceStream::NewSpiceStream;
};

// A brace hook that finds no memory, as a line's buffers would.
struct ExhaustedHook : CheckedSpiceStream {
    using CheckedSpiceStream::CheckedSpiceStream;
    bool evaluate(const char*, YString*) override { throw std::bad_alloc(); }
};

} // namespace

// Memory that runs out in a line ends the input there: nothing of the line is delivered, no exception
// leaves the reader, and nothing after it is read.
TEST(NetlistHostileInput, MemoryThatRunsOutInALineEndsTheInputThere)
{
    kvstrstream source("R1 a b 1k\nR2 c d {w*2}\n+ more\nR3 e f 3k\n");
    ExhaustedHook s(source);
    YString line;
    int number = 0;
    bool flag = false, nonAscii = false;
    ASSERT_TRUE(s.gets(&line, &number, &flag, &nonAscii));
    EXPECT_EQ(line, "R1 a b 1k");
    EXPECT_FALSE(s.memoryRanOut());
    EXPECT_EQ(s.eof(), 0);
    const std::string raw(s.getBuffer()->data());
    line = "left from before";
    EXPECT_FALSE(s.gets(&line, &number, &flag, &nonAscii));
    EXPECT_EQ(line, "");
    EXPECT_TRUE(s.memoryRanOut());
    EXPECT_EQ(s.eof(), 1);
    // The raw record holds what it held before the lost line.
    EXPECT_EQ(std::string(s.getBuffer()->data()), raw);
    EXPECT_FALSE(s.gets(&line, &number, &flag, &nonAscii));
    EXPECT_EQ(s.get(false), -1);
    EXPECT_EQ(s.get(true), -1);
    EXPECT_FALSE(s.gets(&line, &number, &flag, &nonAscii));
    EXPECT_EQ(line, "");
}

#if defined(LIMITED_CHILDREN)
namespace {

// Runs `body` in a child that may map `headroom` bytes beyond what it maps when it starts: the child's
// exit code (0 when each of its checks held, else the number of the first that failed), 100 when the
// limit could not be set, 200 and more when a signal ended it.
int inLimitedChild(size_t headroom, const std::function<int()>& body)
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        if (!limitAddressSpace(headroom))
            _exit(100);
        _exit(body());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 200 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

// 64 MiB of one line between two short ones: far more than the 32 MiB the children may map.
const std::string& longLineNetlist()
{
    static const std::string text = "R1 a b 1k\nR2 c d " + std::string(64u << 20, 'x') + "\nR3 e f 3k\n";
    return text;
}

// `text` (the netlist with the long line when not given) written to a file in `folder`; its path.
std::string longLineFile(const QTemporaryDir& folder, const std::string& text = longLineNetlist())
{
    const std::string path = folder.filePath("long.cir").toStdString();
    writeFileBytes(path, text);
    return path;
}

// A brace hook that reads the rest of its line on, one character at a time: the raw record takes each.
struct ReadingOnHook : CheckedSpiceStream {
    using CheckedSpiceStream::CheckedSpiceStream;
    bool evaluate(const char*, YString* result) override
    {
        int c;
        while ((c = get(false)) != -1 && c != 10) {
        }
        *result = "1";
        return true;
    }
};

constexpr size_t kHeadroom = 32u << 20;

} // namespace

namespace {

// Netlists of more than 2 GiB come through a pipe, in a child like the tests above: /dev/fd names its
// read end on Linux, and the sanitizer build would take minutes to read them.

// The bytes of line `i` of the large netlist: 4096 of them, ending in CR LF or LF by turns.
std::string largeNetlistLine(int i)
{
    const std::string end = i % 2 ? "\n" : "\r\n";
    return "R" + std::to_string(i % 10) + " a b " + std::string(4096 - 7 - end.size(), 'x') + end;
}

// A pipe that a child fills with `blocks` copies of `block` and `tail`, and then closes: `path` names its
// read end. Nothing of it is stored, so a netlist of any size costs no disk.
struct PipeNetlist {
    int readEnd = -1;
    pid_t writer = -1;
    std::string path;

    PipeNetlist(const std::string& block, size_t blocks, const std::string& tail = std::string())
    {
        int ends[2];
        if (pipe(ends) != 0)
            return;
        std::fflush(nullptr);
        writer = fork();
        if (writer == 0) {
            close(ends[0]);
            for (size_t i = 0; i <= blocks; ++i) {
                const std::string& part = i < blocks ? block : tail;
                for (size_t done = 0; done < part.size();) {
                    const ssize_t n = write(ends[1], part.data() + done, part.size() - done);
                    if (n <= 0)
                        _exit(1);
                    done += static_cast<size_t>(n);
                }
            }
            _exit(0);
        }
        close(ends[1]);
        readEnd = ends[0];
        path = "/dev/fd/" + std::to_string(readEnd);
    }
    PipeNetlist(const PipeNetlist&) = delete;
    PipeNetlist& operator=(const PipeNetlist&) = delete;
    ~PipeNetlist() { finish(); }
    // The writer's exit code once the read end is closed (0 when it wrote everything; -1 when there is
    // no writer, or it was waited for already).
    int finish()
    {
        if (readEnd != -1)
            close(readEnd);
        readEnd = -1;
        int status = 0;
        const bool waited = writer > 0 && waitpid(writer, &status, 0) == writer;
        writer = -1;
        return waited && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

constexpr int kLinesPerBlock = 256;   // 1 MiB
constexpr size_t kLargeBlocks = 2049; // 2,148,532,224 bytes: past INT_MAX

std::string largeNetlistBlock()
{
    std::string block;
    for (int i = 0; i < kLinesPerBlock; ++i)
        block += largeNetlistLine(i);
    return block;
}

// What follows the blocks, so that every kind of line is read once the character count stands at
// INT_MAX: comments, a directive, lone CRs, a continuation and a long line, then a line with an inline
// comment. Per repeat, SpiceStream counts 8 line ends (it skips the carriage returns after a comment's
// "*") and NewSpiceStream 9.
std::string largeNetlistTail()
{
    std::string tail;
    for (int i = 0; i < 64; ++i)
        tail += "* c\r\n*\r\n*\r\r\n*#hierarchy x\r\nR1 a\rR2 b\r\n+ c\r\nR3 " + std::string(4001, 'y') + "\r\n";
    return tail + "Rz a ; c\r\n";
}

constexpr int kLargeLines = kLinesPerBlock * static_cast<int>(kLargeBlocks);

} // namespace

TEST(NetlistHostileInput, SpiceStreamCountsStopAtIntMaxPastTwoGigabytes)
{
    PipeNetlist netlist(largeNetlistBlock(), kLargeBlocks, largeNetlistTail());
    ASSERT_GT(netlist.writer, 0);
    int lines = 0, number = 0, lastNumber = 0;
    bool ordered = true;
    YString line, last, lastOfBlocks;
    {
        kvfstream file(netlist.path.c_str());
        SpiceStream s(file);
        while (s.gets(&line, &number, nullptr, nullptr)) {
            ordered = ordered && number > lastNumber;
            lastNumber = number;
            last = line;
            if (++lines == kLargeLines)
                lastOfBlocks = line;
            s.flushBuffer();
        }
        EXPECT_EQ(s.getCharCount(), INT_MAX);
        EXPECT_EQ(s.getLastAcceptedCharCount(), INT_MAX);
        EXPECT_EQ(s.getLineCount(), kLargeLines + 64 * 8 + 1);
    }
    EXPECT_EQ(netlist.finish(), 0);
    // R1 a, R2 b + c and R3 per repeat, and Rz.
    EXPECT_EQ(lines, kLargeLines + 64 * 3 + 1);
    EXPECT_TRUE(ordered);
    EXPECT_EQ(lastNumber, kLargeLines + 64 * 8 + 1);
    EXPECT_EQ(std::string(last.c_str()), "Rz a ");
    const std::string expected = largeNetlistLine(kLinesPerBlock - 1);
    EXPECT_EQ(std::string(lastOfBlocks.c_str()), expected.substr(0, expected.size() - 1));
}

TEST(NetlistHostileInput, NewSpiceStreamCountsStopAtIntMaxPastTwoGigabytes)
{
    PipeNetlist netlist(largeNetlistBlock(), kLargeBlocks, largeNetlistTail());
    ASSERT_GT(netlist.writer, 0);
    int lines = 0, number = 0, lastNumber = 0;
    bool ordered = true;
    YString line, last;
    std::string lastLiteral;
    {
        kvfstream file(netlist.path.c_str());
        NewSpiceStream n(file);
        while (n.gets(&line, &number)) {
            // The comment lines of a block that is handed back take the number of the line after it.
            ordered = ordered && number >= lastNumber;
            lastNumber = number;
            last = line;
            if (++lines == kLargeLines)
                lastLiteral.assign(n.getLitBuffer().data(), static_cast<size_t>(n.getLitBuffer().length()));
            n.flushLitBuffer();
        }
        EXPECT_EQ(n.getCharCount(), INT_MAX);
        // The end of the source counts as one more line end.
        EXPECT_EQ(n.getLineCount(), kLargeLines + 64 * 9 + 2);
    }
    EXPECT_EQ(netlist.finish(), 0);
    // Per repeat the three comment lines and the directive, R1 a, R2 b + c and R3; then Rz.
    EXPECT_EQ(lines, kLargeLines + 64 * 7 + 1);
    EXPECT_TRUE(ordered);
    EXPECT_EQ(lastNumber, kLargeLines + 64 * 9 + 1);
    EXPECT_EQ(std::string(last.c_str()), "Rz a ");
    EXPECT_EQ(lastLiteral, largeNetlistLine(kLinesPerBlock - 1));
}

// More line ends than an int counts: each line's number, and the line counts, stop at INT_MAX. Every
// 4096th line end follows a line, so that NewSpiceStream's literal text of the blank lines after it is
// handed over with the next line (a caller flushes it), not gathered as one line larger than its buffers.
// 2049 × 256 × 4095 line ends come before the last line: past INT_MAX.
namespace {
PipeNetlist lineEndsPastIntMax()
{
    std::string block;
    for (int i = 0; i < 256; ++i)
        block += "a" + std::string(4095, '\n');
    return PipeNetlist(block, kLargeBlocks, "R1 a b 1k\r\n");
}
} // namespace

TEST(NetlistHostileInput, SpiceStreamLineNumbersStopAtIntMaxPastTwoGigabytesOfLineEnds)
{
    PipeNetlist netlist = lineEndsPastIntMax();
    ASSERT_GT(netlist.writer, 0);
    kvfstream file(netlist.path.c_str());
    SpiceStream s(file);
    YString line, last;
    int number = 0, lines = 0;
    while (s.gets(&line, &number, nullptr, nullptr)) {
        s.flushBuffer();
        last = line;
        ++lines;
    }
    EXPECT_EQ(lines, kLargeLines + 1);
    EXPECT_EQ(std::string(last.c_str()), "R1 a b 1k");
    EXPECT_EQ(number, INT_MAX);
    EXPECT_EQ(s.getLineCount(), INT_MAX);
    EXPECT_EQ(s.getLastAcceptedLineCount(), INT_MAX);
    EXPECT_EQ(s.getCharCount(), INT_MAX);
    EXPECT_EQ(netlist.finish(), 0);
}

TEST(NetlistHostileInput, NewSpiceStreamLineNumbersStopAtIntMaxPastTwoGigabytesOfLineEnds)
{
    PipeNetlist netlist = lineEndsPastIntMax();
    ASSERT_GT(netlist.writer, 0);
    kvfstream file(netlist.path.c_str());
    NewSpiceStream n(file);
    YString line, last;
    int number = 0, lines = 0;
    while (n.gets(&line, &number)) {
        n.flushLitBuffer();
        last = line;
        ++lines;
    }
    EXPECT_EQ(lines, kLargeLines + 1);
    EXPECT_EQ(std::string(last.c_str()), "R1 a b 1k");
    EXPECT_EQ(number, INT_MAX);
    EXPECT_EQ(n.getLineCount(), INT_MAX);
    EXPECT_EQ(n.getCharCount(), INT_MAX);
    EXPECT_EQ(netlist.finish(), 0);
}

TEST(NetlistHostileInput, ALineLargerThanMemoryEndsSpiceStreamsInput)
{
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const std::string path = longLineFile(folder);
    const int code = inLimitedChild(kHeadroom, [&] {
        CheckedSpiceStream s(path.c_str(), SpiceLanguageNative);
        YString line;
        int number = 0;
        if (!s.gets(&line, &number, nullptr, nullptr) || line != "R1 a b 1k" || number != 1)
            return 1;
        line = "left from before";
        if (s.gets(&line, &number, nullptr, nullptr) || !line.isEmpty())
            return 2;
        if (!s.memoryRanOut() || s.eof() != 1)
            return 3;
        if (s.gets(&line, &number, nullptr, nullptr) || s.get(true) != -1)
            return 4;
        return 0;
    });
    EXPECT_EQ(code, 0);
}

// Memory that runs out while a brace hook reads on loses the hook's line too: the line it was in is not
// handed back as if the rest of it had been read.
TEST(NetlistHostileInput, MemoryThatRunsOutWhileAHookReadsOnLosesTheLine)
{
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const std::string path =
        longLineFile(folder, "R1 a b 1k\nR2 c d {w} " + std::string(64u << 20, 'x') + "\nR3 e f 3k\n");
    const int code = inLimitedChild(kHeadroom, [&] {
        ReadingOnHook s(path.c_str(), SpiceLanguageNative);
        YString line;
        int number = 0;
        if (!s.gets(&line, &number, nullptr, nullptr) || line != "R1 a b 1k")
            return 1;
        s.flushBuffer();
        line = "left from before";
        if (s.gets(&line, &number, nullptr, nullptr) || !line.isEmpty())
            return 2;
        if (!s.memoryRanOut() || s.getBuffer()->length() != 0)
            return 3;
        return 0;
    });
    EXPECT_EQ(code, 0);
}

TEST(NetlistHostileInput, ALineLargerThanMemoryEndsNewSpiceStreamsInput)
{
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    // The long line continues a line, which has gone to the literal buffer before the long one is read.
    const std::string path =
        longLineFile(folder, "R1 a b 1k\nR2 c d\n+ " + std::string(64u << 20, 'x') + "\nR3 e f 3k\n");
    const int code = inLimitedChild(kHeadroom, [&] {
        CheckedLiteralStream s(path.c_str());
        YString line;
        int number = 0;
        if (!s.gets(&line, &number) || line != "R1 a b 1k" || number != 1)
            return 1;
        if (std::string(s.getLitBuffer().data()) != "R1 a b 1k\n")
            return 2;
        s.flushLitBuffer();
        line = "left from before";
        if (s.gets(&line, &number) || !line.isEmpty())
            return 3;
        if (!s.memoryRanOut() || s.getLitBuffer().length() != 0)
            return 4;
        if (s.gets(&line, &number) || s.get() != -1)
            return 5;
        return 0;
    });
    EXPECT_EQ(code, 0);
}

// Callers with a way to fail say so rather than hand back the lines before the one that could not be held.
TEST(NetlistHostileInput, ALineLargerThanMemoryFailsTheSplitterAndTheDefinitionReader)
{
    // A line of 20 MiB: the splitter's copy of the text fits in the child's 32 MiB, the reader's
    // buffers for the line do not.
    const YString text(("R1 a b 1k\nR2 c d " + std::string(20u << 20, 'x') + "\nR3 e f 3k\n").c_str());
    EXPECT_EQ(inLimitedChild(kHeadroom, [&] {
                  if (sp_ParseSpiceLines(text).count() != 0)
                      return 1;
                  // The memory is given back: a text that fits is split as ever.
                  return sp_ParseSpiceLines(YString("R1 a b 1k\nR2 c d 2k\n")).count() == 2 ? 0 : 2;
              }),
              0);

    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const std::string path = folder.filePath("big.lib").toStdString();
    writeFileBytes(path, ".subckt big a b\nR1 a b 1k\n+ " + std::string(64u << 20, 'x') + "\n.ends big\n");
    ModelLibIndex index;
    ASSERT_EQ(sp_IndexModelLibrary(YString(path.c_str()), SpiceLanguageNative, &index), ModelLibStatus::Ok);
    ASSERT_EQ(index.definitions.size(), 1u);
    // With the memory it needs, the definition reads whole.
    const std::vector<YString> whole = sp_ReadModelDefinition(index, index.definitions[0], YString());
    ASSERT_EQ(whole.size(), 3u);
    EXPECT_EQ(whole[0], ".subckt big a b");
    // "R1 a b 1k", the space the "+" becomes, the space after it, and the x's.
    EXPECT_EQ(whole[1].length(), 11 + (64 << 20));
    const int code = inLimitedChild(kHeadroom, [&] {
        return sp_ReadModelDefinition(index, index.definitions[0], YString()).empty() ? 0 : 1;
    });
    EXPECT_EQ(code, 0);
}
// A UTF-16 netlist of 48 MiB (little-endian with CR LF, or big-endian with LF, whose line-end style
// only the whole file tells): its UTF-8 copy is written a block at a time, so a reader whose process may
// map only 32 MiB more reads it whole.
std::string wideNetlistFile(const QTemporaryDir& folder, int lines, bool bigEndian = false)
{
    std::string bytes = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (int i = 1; i <= lines; ++i) {
        for (char c : "R" + std::to_string(i) + (bigEndian ? " a b 1k\n" : " a b 1k\r\n")) {
            if (bigEndian)
                bytes += '\0';
            bytes += c;
            if (!bigEndian)
                bytes += '\0';
        }
    }
    const std::string path = folder.filePath(bigEndian ? "wide-be.cir" : "wide.cir").toStdString();
    writeFileBytes(path, bytes);
    return path;
}

TEST(NetlistHostileInput, AUtf16NetlistLargerThanMemoryIsReadThroughItsCopy)
{
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const int kLines = 1800000;
    for (const bool bigEndian : {false, true}) {
        const std::string path = wideNetlistFile(folder, kLines, bigEndian);
        ASSERT_GT(QFileInfo(QString::fromStdString(path)).size(), 48 << 20);
        const int code = inLimitedChild(kHeadroom, [&] {
            CheckedSpiceStream s(path.c_str(), SpiceLanguageNative);
            YString line;
            int number = 0, count = 0;
            while (s.gets(&line, &number, nullptr, nullptr)) {
                s.flushBuffer();
                if (++count != number || line != ("R" + std::to_string(count) + " a b 1k").c_str())
                    return 1;
            }
            if (count != kLines || s.memoryRanOut())
                return 2;
            CheckedLiteralStream n(path.c_str());
            for (count = 0; n.gets(&line, &number); n.flushLitBuffer()) {
                if (++count != number || line != ("R" + std::to_string(count) + " a b 1k").c_str())
                    return 3;
            }
            if (count != kLines || n.memoryRanOut())
                return 4;
            return 0;
        });
        EXPECT_EQ(code, 0) << (bigEndian ? "big-endian" : "little-endian");
    }

    // A first line of 24 MiB: its line-end style lies past the first block, and is sought there.
    std::string oneLine = "\xFF\xFE";
    for (size_t i = 0; i < (24u << 20); ++i)
        oneLine += i % 2 ? '\0' : 'x';
    const std::string longFirst = folder.filePath("long.cir").toStdString();
    writeFileBytes(longFirst, oneLine + std::string("\r\0\n\0y\0", 6));
    const int converted = inLimitedChild(kHeadroom, [&] {
        YString copy;
        if (!sp_ConvertWideTextFile(YString(longFirst.c_str()), &copy))
            return 1;
        const bool whole = QFileInfo(QString::fromUtf8(copy.c_str())).size() == (12 << 20) + 2;
        QFile::remove(QString::fromUtf8(copy.c_str()));
        return whole ? 0 : 2;
    });
    EXPECT_EQ(converted, 0);
}

// A UTF-16 model library of 100 MiB: its UTF-8 copy of 50 MiB is indexed a window at a time, in a
// process that may map 32 MiB more, with the positions of the copy.
TEST(NetlistHostileInput, AUtf16LibraryLargerThanMemoryIsIndexedThroughItsCopy)
{
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    std::string body;
    for (int i = 0; i < 50000; ++i)
        body += "R" + std::to_string(i % 10) + " a b 1k\r\n";
    std::string utf8;
    for (int d = 0; d < 100; ++d)
        utf8 += ".subckt cell" + std::to_string(d) + " a b\r\n" + body + ".ends\r\n";
    std::string bytes = "\xFF\xFE";
    bytes.reserve(2 + 2 * utf8.size());
    for (char c : utf8) {
        bytes += c;
        bytes += '\0';
    }
    ASSERT_GT(bytes.size(), 100u << 20);
    const std::string path = folder.filePath("wide.lib").toStdString();
    writeFileBytes(path, bytes);
    // The positions are the copy's, where CR LF became LF.
    std::string copy = utf8;
    copy.erase(std::remove(copy.begin(), copy.end(), '\r'), copy.end());
    const int lastStart = static_cast<int>(copy.rfind(".subckt cell99"));
    const int lastLine = static_cast<int>(std::count(copy.begin(), copy.begin() + lastStart, '\n')) + 1;
    const int code = inLimitedChild(kHeadroom, [&] {
        ModelLibIndex index;
        if (sp_IndexModelLibrary(YString(path.c_str()), SpiceLanguageNative, &index) != ModelLibStatus::Ok)
            return 1;
        if (!index.wide || index.definitions.size() != 100)
            return 2;
        const ModelLibDefinition& last = index.definitions[99];
        if (last.kind != ModelLibDefinition::Subckt || last.start != lastStart || last.end != static_cast<int>(copy.size()) ||
            last.line != lastLine || lastLine != 99 * 50002 + 1)
            return 3;
        return 0;
    });
    EXPECT_EQ(code, 0);
}

// With no usable temporary folder the text would have to be held in memory, and it is not: the readers
// read nothing and say that memory ran out, the loader fails, the indexer reports the file too large.
TEST(NetlistHostileInput, AUtf16NetlistThatNothingCanHoldReadsAsEmpty)
{
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const std::string path = wideNetlistFile(folder, 1800000);
    const std::string noFolder = folder.filePath("no-such-folder").toStdString();
    const int code = inLimitedChild(kHeadroom, [&] {
        setenv("TMPDIR", noFolder.c_str(), 1);
        CheckedSpiceStream s(path.c_str(), SpiceLanguageNative);
        YString line = "left from before";
        int number = 0;
        if (!s.memoryRanOut() || s.gets(&line, &number, nullptr, nullptr) || !line.isEmpty())
            return 1;
        CheckedLiteralStream n(path.c_str());
        if (!n.memoryRanOut() || n.gets(&line, &number))
            return 2;
        bool ok = true;
        if (!sp_LoadFile(QString::fromStdString(path), "auto", &ok).isEmpty() || ok)
            return 3;
        ModelLibIndex index;
        if (sp_IndexModelLibrary(YString(path.c_str()), SpiceLanguageNative, &index) != ModelLibStatus::TooLarge)
            return 4;
        return 0;
    });
    EXPECT_EQ(code, 0);
    // The copy's folder was never made: nothing was left behind.
    EXPECT_FALSE(QFileInfo::exists(QString::fromStdString(noFolder)));

    // Memory that cannot hold even a block: the conversion says so, and leaves no copy at the path it gives.
    const int converted = inLimitedChild(512u << 10, [&] {
        YString copy;
        if (sp_ConvertWideTextFile(YString(path.c_str()), &copy))
            return 1;
        return copy.isEmpty() || QFileInfo::exists(QString::fromUtf8(copy.c_str())) ? 2 : 0;
    });
    EXPECT_EQ(converted, 0);
}
#endif

