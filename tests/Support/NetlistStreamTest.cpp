// NetlistStreamTest.cpp - SpiceStream: logical lines, directives, counters and the raw buffer.
#include "FileServices.h"
#include "LiteralNetlistStream.h"
#include "NetlistStream.h"
#include "TestHelpers.h"

#include <QDir>
#include <QTextCodec>

#include <utility>
#include <vector>

namespace {

struct Line {
    std::string text;
    int number;
};

std::vector<Line> readAll(SpiceStream& s)
{
    std::vector<Line> lines;
    YString line;
    int number = -1;
    while (s.gets(&line, &number, nullptr, nullptr))
        lines.push_back({line.c_str(), number});
    return lines;
}

std::vector<Line> readText(const std::string& text)
{
    kvstrstream source(text.data(), text.size());
    SpiceStream s(source);
    return readAll(s);
}

class SpiceFile : public TempDirTest {
protected:
    std::vector<Line> readFile(const std::string& bytes, SpiceLanguage language)
    {
        writeFileBytes(path("in.cir"), bytes);
        SpiceStream s(path("in.cir").c_str(), language);
        return readAll(s);
    }
};

} // namespace

TEST(SpiceStream, ContinuationBecomesOneSpaceBeforeTheLeadingBlank)
{
    auto lines = readText("R1 a b 1k\n+ 2k\n");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "R1 a b 1k  2k");
    EXPECT_EQ(lines[0].number, 1);
}

TEST(SpiceStream, ContinuationMayFollowCommentAndBlankLines)
{
    auto lines = readText("R1 a b\n* comment\n\n   + 5\nR2 c d 1\n");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "R1 a b  5");
    EXPECT_EQ(lines[1].text, "R2 c d 1");
    EXPECT_EQ(lines[1].number, 5);
}

TEST_F(SpiceFile, InlineCommentCharacterDependsOnTheDialect)
{
    const std::string text = "R1 a b 1k ; load $ note\n";
    EXPECT_EQ(readFile(text, SpiceLanguageNative)[0].text, "R1 a b 1k ");
    EXPECT_EQ(readFile(text, SpiceLanguagePspice)[0].text, "R1 a b 1k ");
    EXPECT_EQ(readFile(text, SpiceLanguageHspice)[0].text, "R1 a b 1k ; load ");
}

TEST(SpiceStream, LastLineWithoutLineFeed)
{
    auto lines = readText("R1 a b 1k\nR2 c d 2k");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].text, "R2 c d 2k");
    EXPECT_EQ(lines[1].number, 2);
}

TEST(SpiceStream, CrCrLfAndLfEndLines)
{
    kvstrstream source("a\rb\r\nc\nd\r\r\ne");
    SpiceStream s(source);
    auto lines = readAll(s);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0].text, "a");
    EXPECT_EQ(lines[1].text, "b");
    EXPECT_EQ(lines[1].number, 2);
    EXPECT_EQ(lines[2].number, 3);
    EXPECT_EQ(lines[3].text, "d");
    EXPECT_EQ(lines[3].number, 4);
    EXPECT_EQ(lines[4].text, "e");
    EXPECT_EQ(lines[4].number, 6); // CR CR LF ended two lines
    EXPECT_EQ(s.getLineCount(), 5);
}

// A dialect directive changes the inline comment character from the very next line on.
TEST(SpiceStream, DirectiveSwitchesTheCommentCharacterAtTheNextLine)
{
    auto hspice = readText("*#HSPICE\n$ comment\nR1 a b 1k\n");
    ASSERT_EQ(hspice.size(), 1u);
    EXPECT_EQ(hspice[0].text, "R1 a b 1k");
    EXPECT_EQ(hspice[0].number, 3);

    auto kept = readText("*#HSPICE\n; not a comment in HSPICE\nR1 a b 1k\n");
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_EQ(kept[0].text, "; not a comment in HSPICE");
    EXPECT_EQ(kept[0].number, 2);
    EXPECT_EQ(kept[1].text, "R1 a b 1k");
    EXPECT_EQ(kept[1].number, 3);
}

TEST_F(SpiceFile, DirectiveBackToTheNativeDialectMakesSemicolonsComments)
{
    auto lines = readFile("*#KALVONTA sep=.\n; comment\nR1 a b\n", SpiceLanguageHspice);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "R1 a b");
    EXPECT_EQ(lines[0].number, 3);
}

// Only the first 198 characters of a directive's text are kept: a keyword that ends at the 198th counts,
// one cut by the limit does not.
TEST(SpiceStream, DirectiveTextIsCutAfter198Characters)
{
    for (int blanks : {192, 193}) {
        const std::string text = "*#" + std::string(static_cast<size_t>(blanks), ' ') + "HSPICE\nR1 a b 1k\n";
        kvstrstream source(text.data(), text.size());
        SpiceStream s(source);
        YString line;
        int number = 0;
        ASSERT_TRUE(s.gets(&line, &number, nullptr, nullptr));
        EXPECT_EQ(s.getLanguage(), blanks == 192 ? SpiceLanguageHspice : SpiceLanguageNative) << blanks << " blanks";
    }
}

TEST(SpiceStream, HspiceDirectiveOnlyAtTheTopHierarchyAnywhere)
{
    kvstrstream source("*#HSPICE\nR1 a b 1k $ c\n*#PSPICE\n*#hierarchy\nR2 c d 1\nR3 e f 1\n");
    SpiceStream s(source);
    YString line;
    ASSERT_TRUE(s.gets(&line, nullptr, nullptr, nullptr));
    EXPECT_EQ(line, "R1 a b 1k ");
    EXPECT_EQ(s.getLanguage(), SpiceLanguageHspice);
    EXPECT_TRUE(s.isHspiceMode());
    EXPECT_EQ(s.getInlineCommentChar(), '$');
    EXPECT_STREQ(s.getSeparator(), "");
    // The directives after the first line are read while that line's end is being confirmed:
    // the dialect stays, the hierarchy mark is taken.
    EXPECT_TRUE(s.isHierarchy());
    EXPECT_EQ(s.getLanguage(), SpiceLanguageHspice);
    ASSERT_TRUE(s.gets(&line, nullptr, nullptr, nullptr));
    EXPECT_EQ(line, "R2 c d 1");
    EXPECT_FALSE(s.isHierarchy());
    EXPECT_EQ(s.getLanguage(), SpiceLanguageHspice);
}

TEST(SpiceStream, HierarchyDirectiveIsSeenByTheLineItPrecedesAndClearedAfter)
{
    kvstrstream source("*#hierarchy\nX1 a b sub\nX2 c d sub\n");
    SpiceStream s(source);
    YString line;
    ASSERT_TRUE(s.gets(&line, nullptr, nullptr, nullptr));
    EXPECT_TRUE(s.isHierarchy());
    ASSERT_TRUE(s.gets(&line, nullptr, nullptr, nullptr));
    EXPECT_FALSE(s.isHierarchy());
}

TEST(SpiceStream, NativeDirectiveSetsTheSeparator)
{
    struct Row {
        const char* directive;
        const char* separator;
    } rows[] = {{"*#KALVONTA sep=.\n", "."},
                {"*#kalvonta SEP=none\n", ""},
                {"*#KALVONTA sep=ab\n", "$"},
                {"*#KALVONTA sep=. sep=:\n", ":"},
                {"*#KALVONTA\n", "$"},
                {"*#OTHER sep=.\n", "$"}};
    for (const Row& r : rows) {
        std::string text = std::string(r.directive) + "R1 a b 1\n";
        kvstrstream source(text.c_str());
        SpiceStream s(source);
        YString line;
        ASSERT_TRUE(s.gets(&line, nullptr, nullptr, nullptr));
        EXPECT_STREQ(s.getSeparator(), r.separator) << r.directive;
        EXPECT_EQ(s.getLanguage(), SpiceLanguageNative);
    }
}

TEST(SpiceStream, EmptyAndCommentOnlyInputsYieldNoLine)
{
    EXPECT_TRUE(readText("").empty());
    EXPECT_TRUE(readText("* one\n\n   \n; two\n*#HSPICE\n").empty());
    kvstrstream source("");
    SpiceStream s(source);
    YString line("x");
    EXPECT_FALSE(s.gets(&line, nullptr, nullptr, nullptr));
    EXPECT_EQ(line, "");
    EXPECT_EQ(s.eof(), 1);
}

TEST(SpiceStream, BraceExpressionsComeBackUnchangedOrWithParentheses)
{
    auto lines = readText("R1 a b {rval*2}\nR2 a b {x{y}z}\nR3 {unclosed\n");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "R1 a b {rval*2}");
    EXPECT_EQ(lines[1].text, "R2 a b {x(y)z}");
    EXPECT_EQ(lines[2].text, "R3 ");
}

// A brace hook that puts each expression in angle brackets; with `record` set it first replaces the
// raw record with that text, as a hook that keeps its own record might.
namespace {
struct Evaluating : SpiceStream {
    Evaluating(kvstream& source, const char* record = nullptr) : SpiceStream(source), m_record(record) {}
    bool evaluate(const char* expression, YString* result) override
    {
        if (m_record)
            copyBuffer(YString(m_record));
        *result = YString("<").concat(expression).concat(">");
        return true;
    }
    const char* m_record;
};
} // namespace

TEST(SpiceStream, EvaluateHookSubstitutes)
{
    kvstrstream source("R1 a b {2*{k}}\n");
    Evaluating s(source);
    YString line;
    ASSERT_TRUE(s.gets(&line, nullptr, nullptr, nullptr));
    EXPECT_EQ(line, "R1 a b <2*(k)>");
}

// The line's text is gathered apart from the raw record: a hook that replaces the record in the middle
// of a line, before and after a continuation, loses none of the line.
TEST(SpiceStream, AHookThatReplacesTheRawBufferLeavesTheLineWhole)
{
    kvstrstream source("R1 alpha beta {k} gamma ; note\n+ delta {m} epsilon\nR2 x y\n");
    Evaluating s(source, "zz");
    YString line;
    ASSERT_TRUE(s.gets(&line, nullptr, nullptr, nullptr));
    EXPECT_EQ(line, "R1 alpha beta <k> gamma   delta <m> epsilon");
    EXPECT_EQ(std::string(s.getBuffer()->data(), s.getBuffer()->length()), "zz epsilon\n");
    s.flushBuffer();
    ASSERT_TRUE(s.gets(&line, nullptr, nullptr, nullptr));
    EXPECT_EQ(line, "R2 x y");
    EXPECT_EQ(std::string(s.getBuffer()->data(), s.getBuffer()->length()), "R2 x y\n");
}

TEST(SpiceStream, ByteFFEndsTheInput)
{
    auto lines = readText("R1 a b 1k\nR2 c\xFF" "d 2k\nR3 x\n");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].text, "R2 c");
}

TEST(SpiceStream, ControlBytesAreDroppedAndNonAsciiIsReported)
{
    kvstrstream source("R1 a\x01\x02 b \xC2\xB5" "1\n");
    SpiceStream s(source);
    YString line;
    bool streamFlag = true, nonAscii = false;
    ASSERT_TRUE(s.gets(&line, nullptr, &streamFlag, &nonAscii));
    EXPECT_EQ(line, "R1 a b \xC2\xB5" "1");
    EXPECT_TRUE(nonAscii);
    EXPECT_FALSE(streamFlag);
    EXPECT_EQ(s.getUtf8Encoding(), Utf8);
}

TEST(SpiceStream, InvalidUtf8IsReported)
{
    kvstrstream source("R1 caf\xE9 b\n");
    SpiceStream s(source);
    YString line;
    s.gets(&line, nullptr, nullptr, nullptr);
    EXPECT_EQ(s.getUtf8Encoding(), Invalid);
    s.flushBuffer();
    EXPECT_EQ(s.getUtf8Encoding(), Ascii);
}

TEST(SpiceStream, CountersAndRawBufferAfterEachLine)
{
    // Line ends: LF, CR LF, lone CR; a comment line and a continuation.
    kvstrstream source("R1 a b 1\n* c\r\nR2 c d\r+ 2\nR3 e f 3");
    SpiceStream s(source);
    YString line;
    int number = 0;

    ASSERT_TRUE(s.gets(&line, &number, nullptr, nullptr));
    EXPECT_EQ(line, "R1 a b 1");
    EXPECT_EQ(number, 1);
    EXPECT_EQ(s.getLineCount(), 2);
    EXPECT_EQ(s.getCharCount(), 15);
    EXPECT_EQ(s.getLastAcceptedLineCount(), 1);
    EXPECT_EQ(s.getLastAcceptedCharCount(), 9);
    EXPECT_STREQ(s.getBuffer()->data(), "R1 a b 1\n* c\n");
    s.flushBuffer();

    ASSERT_TRUE(s.gets(&line, &number, nullptr, nullptr));
    EXPECT_EQ(line, "R2 c d  2");
    EXPECT_EQ(number, 3);
    EXPECT_EQ(s.getLineCount(), 4);
    EXPECT_EQ(s.getCharCount(), 26);
    EXPECT_EQ(s.getLastAcceptedLineCount(), 4);
    EXPECT_EQ(s.getLastAcceptedCharCount(), 25);
    EXPECT_STREQ(s.getBuffer()->data(), "R2 c d\n+ 2\n");
    s.flushBuffer();

    ASSERT_TRUE(s.gets(&line, &number, nullptr, nullptr));
    EXPECT_EQ(line, "R3 e f 3");
    EXPECT_EQ(number, 5);
    EXPECT_STREQ(s.getBuffer()->data(), "R3 e f 3");
    EXPECT_EQ(s.getLastAcceptedCharCount(), 34);
    EXPECT_EQ(s.getCharCount(), 34);
    EXPECT_FALSE(s.gets(&line, &number, nullptr, nullptr));
    EXPECT_EQ(s.eof(), 1);
}

TEST(SpiceStream, ClearCountsKeepsTheLastAcceptedLineCount)
{
    kvstrstream source("R1 a b 1\nR2 c d 2\n");
    SpiceStream s(source);
    YString line;
    s.gets(&line, nullptr, nullptr, nullptr);
    int lastLine = s.getLastAcceptedLineCount();
    s.clearCounts();
    EXPECT_EQ(s.getLineCount(), 0);
    EXPECT_EQ(s.getCharCount(), 0);
    EXPECT_EQ(s.getLastAcceptedCharCount(), 0);
    EXPECT_EQ(s.getLastAcceptedLineCount(), lastLine);
    s.setLineCount(41);
    int number = 0;
    s.gets(&line, &number, nullptr, nullptr);
    EXPECT_EQ(line, "R2 c d 2");
    EXPECT_EQ(s.getLineCount(), 42);
}

TEST(SpiceStream, ReadTitleTakesTheFirstPhysicalLine)
{
    kvstrstream source("* My circuit\r\nR1 a b 1\n");
    SpiceStream s(source);
    s.readTitle();
    EXPECT_STREQ(s.getBuffer()->data(), "* My circuit");
    EXPECT_EQ(s.getLineCount(), 1);
    EXPECT_EQ(s.getCharCount(), 13);
    YString line;
    int number = 0;
    ASSERT_TRUE(s.gets(&line, &number, nullptr, nullptr));
    EXPECT_EQ(line, "R1 a b 1");
    EXPECT_EQ(number, 2);
}

TEST(SpiceStream, LiteralModeReturnsPhysicalLines)
{
    kvstrstream source("* c\n\n+ x ; y\n");
    SpiceStream s(source);
    s.setLiteralMode(true);
    YString line;
    std::vector<std::string> lines;
    while (s.gets(&line, nullptr, nullptr, nullptr))
        lines.push_back(line.c_str());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "* c");
    EXPECT_EQ(lines[1], "");
    EXPECT_EQ(lines[2], "+ x ; y");
}

TEST(SpiceStream, EmptyLineSuppressionInTheRawBuffer)
{
    kvstrstream a("R1 a b\n\n\nR2 c d\n");
    SpiceStream suppressed(a);
    YString line;
    suppressed.gets(&line, nullptr, nullptr, nullptr);
    EXPECT_STREQ(suppressed.getBuffer()->data(), "R1 a b\n");
    kvstrstream b("R1 a b\n\n\nR2 c d\n");
    SpiceStream kept(b);
    kept.dontSuppressEmptyLines();
    kept.gets(&line, nullptr, nullptr, nullptr);
    EXPECT_STREQ(kept.getBuffer()->data(), "R1 a b\n\n\n");
    kept.copyBuffer(YString("replaced"));
    EXPECT_STREQ(kept.getBuffer()->data(), "replaced");
}

TEST_F(SpiceFile, WideFileReadsLikeItsUtf8TwinAndItsCopyIsDeleted)
{
    const std::string utf8 = "title\r\nR1 a b 1k\r\n+ 2k ; c\r\n* x\r\nC1 \xCE\xA9 0 1u\r\n";
    writeFileBytes(path("u8.cir"), utf8);
    SpiceStream a(path("u8.cir").c_str(), SpiceLanguageNative);
    auto expected = readAll(a);
    QString text = QString::fromUtf8(utf8.data(), static_cast<int>(utf8.size()));
    struct Variant {
        const char* name;
        QByteArray bytes;
    } variants[] = {
        {"le-bom", QByteArray("\xFF\xFE", 2) + QByteArray(reinterpret_cast<const char*>(text.utf16()), text.size() * 2)},
        {"le", QByteArray(reinterpret_cast<const char*>(text.utf16()), text.size() * 2)},
        {"be-bom", QByteArray("\xFE\xFF", 2) + QTextCodec::codecForName("UTF-16BE")->fromUnicode(text)},
    };
    QDir().mkpath(QString::fromStdString(path("tmp")));
    const ScopedTempFolder tmp(path("tmp"));
    for (const Variant& v : variants) {
        std::string file = path(std::string(v.name) + ".cir");
        writeFileBytes(file, std::string(v.bytes.constData(), static_cast<size_t>(v.bytes.size())));
        YString temp;
        {
            SpiceStream s(file.c_str(), SpiceLanguageNative);
            auto got = readAll(s);
            ASSERT_EQ(got.size(), expected.size()) << v.name;
            for (size_t i = 0; i < got.size(); ++i) {
                EXPECT_EQ(got[i].text, expected[i].text) << v.name;
                EXPECT_EQ(got[i].number, expected[i].number) << v.name;
            }
            EXPECT_EQ(s.getSourceFile(), file.c_str());
            // The stream reads a UTF-8 copy in the temporary folder, and the copy is gone with the stream.
            EXPECT_EQ(QDir(QString::fromStdString(path("tmp"))).entryList(QDir::Files).size(), 1) << v.name;
        }
        EXPECT_TRUE(QDir(QString::fromStdString(path("tmp"))).entryList(QDir::Files).isEmpty()) << v.name;
    }
}

TEST_F(SpiceFile, MissingFileReadsAsEmpty)
{
    SpiceStream s(path("missing.cir").c_str(), SpiceLanguageNative);
    YString line;
    EXPECT_FALSE(s.gets(&line, nullptr, nullptr, nullptr));
    SpiceStream n(nullptr, SpiceLanguageNative);
    EXPECT_FALSE(n.gets(&line, nullptr, nullptr, nullptr));
}

// A UTF-16 netlist whose UTF-8 copy cannot be written (the temporary folder does not exist) is read
// whole all the same, from memory, exactly as its UTF-8 twin reads: never a shortened netlist.
TEST_F(SpiceFile, WideNetlistIsReadWholeWhenItsCopyCannotBeWritten)
{
    const std::string text = "* title\r\nR1 a b 1k\r\n+ 2k\r\n; note\r\nC1 b 0 1p\r\n";
    std::string wide("\xFF\xFE", 2);
    for (char c : text)
        wide += std::string(1, c) + '\0';
    auto literalLines = [](const std::string& file) {
        std::vector<std::string> lines;
        NewSpiceStream literal(file.c_str());
        YString line;
        while (literal.gets(&line))
            lines.push_back(line.c_str());
        return lines;
    };
    writeFileBytes(path("twin.cir"), text);
    std::vector<std::string> expected;
    SpiceStream twin(path("twin.cir").c_str(), SpiceLanguageNative);
    for (const Line& l : readAll(twin))
        expected.push_back(l.text + "|" + std::to_string(l.number));
    const std::vector<std::string> expectedLiteral = literalLines(path("twin.cir"));
    ASSERT_EQ(expected.size(), 2u);

    std::vector<std::string> got, gotLiteral;
    {
        const ScopedTempFolder unusable(path("no/such/folder"));
        for (const Line& l : readFile(wide, SpiceLanguageNative))
            got.push_back(l.text + "|" + std::to_string(l.number));
        gotLiteral = literalLines(path("in.cir"));
    }
    EXPECT_EQ(got, expected);
    EXPECT_EQ(gotLiteral, expectedLiteral);
}

// A directive's text goes to the raw buffer with the line feed that ends it, as each character it reads
// does: the line after it is not glued onto it.
TEST(SpiceStream, ADirectiveIsRecordedWithItsLineFeed)
{
    kvstrstream top("*#HSPICE\nR1 a b 1k\n");
    SpiceStream s(top);
    YString line;
    ASSERT_TRUE(s.gets(&line, nullptr, nullptr, nullptr));
    EXPECT_STREQ(line.c_str(), "R1 a b 1k");
    EXPECT_STREQ(s.getBuffer()->data(), "#HSPICE\nR1 a b 1k\n");
    EXPECT_TRUE(s.isHspiceMode());
    EXPECT_FALSE(s.gets(&line, nullptr, nullptr, nullptr));
    EXPECT_EQ(s.getLineCount(), 2);

    // After a line the comment's line end is recorded once while empty lines are suppressed, and twice
    // when they are kept (the directive's, then the comment line's own).
    for (const bool suppress : {true, false}) {
        kvstrstream after("R1 a\n*#hierarchy\nR2 b\n");
        SpiceStream t(after);
        if (!suppress)
            t.dontSuppressEmptyLines();
        ASSERT_TRUE(t.gets(&line, nullptr, nullptr, nullptr));
        EXPECT_STREQ(t.getBuffer()->data(), suppress ? "R1 a\n*#hierarchy\n" : "R1 a\n*#hierarchy\n\n");
        EXPECT_TRUE(t.isHierarchy());
    }
}
