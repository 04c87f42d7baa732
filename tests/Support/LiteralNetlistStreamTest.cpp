// LiteralNetlistStreamTest.cpp - NewSpiceStream: logical lines with the literal text kept.
#include "LiteralNetlistStream.h"
#include "TestHelpers.h"

#include <QDir>
#include <QString>

#include <vector>

namespace {
std::vector<std::string> readAll(NewSpiceStream& s, std::vector<int>* numbers = nullptr)
{
    std::vector<std::string> lines;
    YString line;
    int number = 0;
    while (s.gets(&line, &number)) {
        lines.push_back(line.c_str());
        if (numbers)
            numbers->push_back(number);
    }
    return lines;
}

class LiteralFile : public TempDirTest {};
} // namespace

TEST(NewSpiceStream, CommentBetweenALineAndItsContinuationVanishes)
{
    kvstrstream source("R1 a b\n* c\n+ 2\nR2 x\n");
    NewSpiceStream s(source);
    YString line;
    ASSERT_TRUE(s.gets(&line));
    EXPECT_EQ(line, "R1 a b  2");
    EXPECT_STREQ(s.getLitBuffer().data(), "R1 a b\n* c\n+ 2\n");
}

TEST(NewSpiceStream, CommentBeforeAnOrdinaryLineIsALineOfItsOwn)
{
    kvstrstream source("R1 a\n* c\nR2 b\n");
    NewSpiceStream s(source);
    std::vector<int> numbers;
    auto lines = readAll(s, &numbers);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "R1 a");
    EXPECT_EQ(lines[1], "* c");
    EXPECT_EQ(lines[2], "R2 b");
    EXPECT_EQ(numbers[0], 1);
    EXPECT_STREQ(s.getLitBuffer().data(), "R1 a\n* c\nR2 b\n");
}

TEST(NewSpiceStream, SemicolonLinesVanishAfterALineEndButAreEmptyLinesInsideAStarBlock)
{
    kvstrstream plain("R1 a\n; c\nR2 b\n");
    NewSpiceStream s(plain);
    auto lines = readAll(s);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], "R2 b");

    kvstrstream block("R1 a\n* x\n; y\nR2 b\n");
    NewSpiceStream t(block);
    auto lines2 = readAll(t);
    ASSERT_EQ(lines2.size(), 4u);
    EXPECT_EQ(lines2[1], "* x");
    EXPECT_EQ(lines2[2], "");
    EXPECT_EQ(lines2[3], "R2 b");
}

TEST(NewSpiceStream, FirstLineLosesOnlyItsSemicolon)
{
    kvstrstream source(";first\nR1 a ; note\n");
    NewSpiceStream s(source);
    auto lines = readAll(s);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "first");
    EXPECT_EQ(lines[1], "R1 a ");
}

TEST(NewSpiceStream, TitleStartingWithStarIsTheFirstLine)
{
    kvstrstream source("* title\nR1 a\n");
    NewSpiceStream s(source);
    auto lines = readAll(s);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "* title");
}

TEST(NewSpiceStream, ByteFFIsDroppedAndHighBytesAreNegative)
{
    kvstrstream source("a\xFF\xE9\x01" "b\n");
    NewSpiceStream s(source);
    EXPECT_EQ(s.get(), 'a');
    EXPECT_EQ(s.get(), static_cast<int>(static_cast<signed char>('\xE9')));
    EXPECT_LT(static_cast<signed char>('\xE9'), 0);
    EXPECT_EQ(s.get(), 'b');
    EXPECT_EQ(s.get(), 10);
    EXPECT_EQ(s.get(), -1);
    EXPECT_EQ(s.get(), -1);
}

TEST(NewSpiceStream, InitKeepsTheLookaheadAndThePendingCharacter)
{
    kvstrstream source("R1 a\n* c\nR2 b\n");
    NewSpiceStream s(source);
    YString line;
    ASSERT_TRUE(s.gets(&line));
    EXPECT_EQ(line, "R1 a");
    s.init();
    EXPECT_EQ(s.getLineCount(), 0);
    EXPECT_EQ(s.getCharCount(), 0);
    ASSERT_TRUE(s.gets(&line));
    EXPECT_EQ(line, "* c");
    ASSERT_TRUE(s.gets(&line));
    EXPECT_EQ(line, "R2 b");

    kvstrstream cr("a\rb\n");
    NewSpiceStream t(cr);
    EXPECT_EQ(t.get(), 'a');
    EXPECT_EQ(t.get(), 10); // the lone CR ended the line; "b" is already read ahead
    t.init();
    EXPECT_EQ(t.get(), 'b');
}

TEST(NewSpiceStream, CountersAndLiteralBufferAfterEachLine)
{
    kvstrstream source("R1 a 1\r\n* c\r+ 2\nR2 b");
    NewSpiceStream s(source);
    YString line;
    int number = 0;
    ASSERT_TRUE(s.gets(&line, &number));
    EXPECT_EQ(line, "R1 a 1  2");
    EXPECT_EQ(number, 1);
    EXPECT_EQ(s.getLineCount(), 3);
    EXPECT_EQ(s.getCharCount(), 17);
    EXPECT_STREQ(s.getLitBuffer().data(), "R1 a 1\n* c\n+ 2\n");
    s.flushLitBuffer();
    ASSERT_TRUE(s.gets(&line, &number));
    EXPECT_EQ(line, "R2 b");
    EXPECT_EQ(number, 4);
    EXPECT_EQ(s.getLineCount(), 4);
    EXPECT_STREQ(s.getLitBuffer().data(), "R2 b\n");
    EXPECT_FALSE(s.gets(&line, &number));
    s.clearCounts();
    EXPECT_EQ(s.getLineCount(), 0);
}

TEST(NewSpiceStream, EmptyInputAndMissingFile)
{
    kvstrstream source("");
    NewSpiceStream s(source);
    YString line;
    EXPECT_FALSE(s.gets(&line));
    NewSpiceStream missing("/nonexistent/dir/file.cir");
    EXPECT_FALSE(missing.gets(&line));
    EXPECT_EQ(missing.getSourceFile(), "/nonexistent/dir/file.cir");
}

TEST_F(LiteralFile, WideFileReadsLikeItsUtf8TwinAndItsCopyGoesWithTheStream)
{
    const char* const utf8 = "R1 a b\r\n* c\r\n+ 2\r\nC1 \xCE\xA9 0\r\n";
    const QString text = QString::fromUtf8(utf8);
    const QByteArray wide = QByteArray("\xFF\xFE", 2) + QByteArray(reinterpret_cast<const char*>(text.utf16()), text.size() * 2);
    writeFileBytes(path("wide.cir"), std::string(wide.constData(), static_cast<size_t>(wide.size())));
    writeFileBytes(path("twin.cir"), utf8);
    QDir().mkpath(QString::fromStdString(path("tmp")));
    const ScopedTempFolder tmp(path("tmp"));
    {
        NewSpiceStream s(path("wide.cir").c_str());
        NewSpiceStream twin(path("twin.cir").c_str());
        std::vector<int> numbers, twinNumbers;
        const std::vector<std::string> lines = readAll(s, &numbers);
        EXPECT_EQ(lines, (std::vector<std::string>{"R1 a b  2", "C1 \xCE\xA9 0"}));
        EXPECT_EQ(numbers, (std::vector<int>{1, 4}));
        EXPECT_STREQ(s.getLitBuffer().data(), "R1 a b\n* c\n+ 2\nC1 \xCE\xA9 0\n");
        EXPECT_EQ(readAll(twin, &twinNumbers), lines);
        EXPECT_EQ(twinNumbers, numbers);
        EXPECT_STREQ(twin.getLitBuffer().data(), s.getLitBuffer().data());
        EXPECT_EQ(s.getSourceFile(), path("wide.cir").c_str());
        // The stream reads a UTF-8 copy in the temporary folder, and the copy is gone with the stream.
        EXPECT_EQ(QDir(QString::fromStdString(path("tmp"))).entryList(QDir::Files).size(), 1);
    }
    EXPECT_TRUE(QDir(QString::fromStdString(path("tmp"))).entryList(QDir::Files).isEmpty());
}

// A comment line gathered after a line is replayed as a line of its own: up to its ";", which starts a
// comment to the line's end, and also when the input ends inside that comment.
TEST(NewSpiceStream, ReplayedCommentLineStopsAtItsSemicolon)
{
    kvstrstream ended("R1\n* c ; x\nR2\n");
    NewSpiceStream s(ended);
    std::vector<int> numbers;
    EXPECT_EQ(readAll(s, &numbers), (std::vector<std::string>{"R1", "* c ", "R2"}));
    // A line's number is the line count when its first character is delivered, plus one; the replayed
    // line's first character comes after the line that ended its block was read.
    EXPECT_EQ(numbers, (std::vector<int>{1, 3, 3}));
    EXPECT_STREQ(s.getLitBuffer().data(), "R1\n* c ; x\nR2\n");

    kvstrstream cut("R1\n* c ; x");
    NewSpiceStream t(cut);
    EXPECT_EQ(readAll(t), (std::vector<std::string>{"R1", "* c "}));
    EXPECT_STREQ(t.getLitBuffer().data(), "R1\n* c ; x\n");

    // One character at a time, the same text: each line ends in a line feed, then the end.
    kvstrstream again("R1\n* c ; x");
    NewSpiceStream u(again);
    std::string got;
    for (int c = u.get(); c != -1; c = u.get())
        got += static_cast<char>(c);
    EXPECT_EQ(got, "R1\n* c \n");
    EXPECT_EQ(u.get(), -1);
}
