// DatesAndUrlsTest.cpp - dates and times as text, file URLs, identifiers and the GUI test.
#include "DatesAndUrls.h"
#include "FileServices.h"
#include "TestHelpers.h"

#include <QDate>
#include <QDateTime>
#include <QDir>
#include <QLocale>
#include <QRegularExpression>

#include <climits>
#include <cstdio>
#include <random>
#include <string>

#ifndef Q_OS_WIN
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

TEST(DatesAndUrls, PreciseTimeHasMilliseconds)
{
    const QString text = QString::fromUtf8(sp_GetFormattedTime(true).c_str());
    EXPECT_TRUE(QRegularExpression("^\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d$").match(text).hasMatch()) << text.toStdString();
}

TEST(DatesAndUrls, IsoDateIsToday)
{
    EXPECT_EQ(QString::fromUtf8(sp_GetFormattedDate(true).c_str()), QDate::currentDate().toString("yyyy-MM-dd"));
    EXPECT_FALSE(sp_GetFormattedDate(false).isEmpty());
    EXPECT_FALSE(sp_GetFormattedTime(false).isEmpty());
}

TEST(DatesAndUrls, UserFormatAndNormalisedTime)
{
    EXPECT_EQ(QString::fromUtf8(sp_GetDateUserFormat("yyyy").c_str()), QString::number(QDate::currentDate().year()));
    const long long now = sp_GetNormalisedTime();
    EXPECT_LE(std::llabs(now - QDateTime::currentMSecsSinceEpoch()), 1000);
    const long long noon = QDateTime(QDate(2024, 3, 5), QTime(12, 30, 15), Qt::LocalTime).toMSecsSinceEpoch();
    EXPECT_STREQ(sp_GetFormattedNormalisedTime(noon, true).c_str(), "2024-03-05T12:30:15");
}

// A time too far off to be shown gives empty text in both forms, never a date wrapped round to the far
// past; one just inside the range is shown in the year 292278994 in the locale's form (ISO 8601 has no
// years past 9999).
// A user format with runs of one letter far longer than any field is formatted in pieces, with the
// same text as the whole format at once: fields split where Qt splits them, "ap" kept together, quotes
// and the 12-hour clock of a format with "a" anywhere kept in every piece. Seconds and milliseconds are
// left out, so that the time changes at most once between the two readings around each call.
TEST(DatesAndUrls, LongRunsOfOneLetterFormatAsTheWholeFormatDoes)
{
    const char letters[] = "yMdhHmtaApPx' :";
    std::mt19937 random(20261129);
    for (int round = 0; round < 60; ++round) {
        QString format;
        const int parts = 1 + static_cast<int>(random() % 6);
        for (int k = 0; k < parts; ++k) {
            const int length = random() % 3 == 0 ? 1190 + static_cast<int>(random() % 40) : 1 + static_cast<int>(random() % 30);
            format += QString(length, QLatin1Char(letters[random() % (sizeof letters - 1)]));
        }
        const QString before = QDateTime::currentDateTime().toString(format);
        const QString ours = QString::fromUtf8(sp_GetDateUserFormat(YString(format.toUtf8().constData())).c_str());
        const QString after = QDateTime::currentDateTime().toString(format);
        EXPECT_TRUE(ours == before || ours == after) << format.left(80).toStdString() << "...";
    }
    // 1201 "h" with an "a" after them: 600 two-digit hours of the 12-hour clock, one more digit, the mark.
    const auto twelve = [] { return QDateTime::currentDateTime().toString(QStringLiteral("hh'|'a")).section(QLatin1Char('|'), 0, 0); };
    const QString before = twelve();
    const QString result = QString::fromUtf8(sp_GetDateUserFormat(YString((std::string(1201, 'h') + "a").c_str())).c_str());
    const QString after = twelve();
    EXPECT_TRUE(result.startsWith(before.repeated(600)) || result.startsWith(after.repeated(600))) << result.left(20).toStdString();
    EXPECT_TRUE(result.endsWith(QDateTime::currentDateTime().toString(QStringLiteral("a")))) << result.right(8).toStdString();
}

TEST(DatesAndUrls, NormalisedTimesBeyondTheRangeAreEmpty)
{
    for (long long ms : {LLONG_MAX, LLONG_MAX - 86400000LL, LLONG_MIN, LLONG_MIN + 1, -LLONG_MAX + 86400000LL}) {
        EXPECT_STREQ(sp_GetFormattedNormalisedTime(ms, true).c_str(), "") << ms;
        EXPECT_STREQ(sp_GetFormattedNormalisedTime(ms, false).c_str(), "") << ms;
    }
    const long long late = 9223372036000000000LL;
    const QDateTime shown = QDateTime::fromMSecsSinceEpoch(late, Qt::LocalTime);
    EXPECT_EQ(shown.date().year(), 292278994);
    EXPECT_EQ(QString::fromUtf8(sp_GetFormattedNormalisedTime(late, false).c_str()),
              QLocale::system().toString(shown, QLocale::ShortFormat));
    EXPECT_FALSE(sp_GetFormattedNormalisedTime(late, false).isEmpty());
    EXPECT_STREQ(sp_GetFormattedNormalisedTime(late, true).c_str(), "");
}

class FileDates : public TempDirTest {};

TEST_F(FileDates, MissingFileGivesEmptyText)
{
    EXPECT_TRUE(sp_GetFormattedFileDate(path("missing.txt").c_str()).isEmpty());
    EXPECT_TRUE(sp_GetFormattedFileTime(path("missing.txt").c_str()).isEmpty());
}

TEST_F(FileDates, ExistingFileIsReadFromLocalMidnightOf1970)
{
    writeFileBytes(path("f.txt"), "x");
    const long long seconds = sp_GetFileModifiedTime(YString(path("f.txt").c_str()));
    const QDateTime expected = QDateTime(QDate(1970, 1, 1), QTime(0, 0), Qt::LocalTime).addSecs(seconds);
    EXPECT_EQ(QString::fromUtf8(sp_GetFormattedFileDate(path("f.txt").c_str()).c_str()),
              QLocale::system().toString(expected.date(), QLocale::ShortFormat));
    EXPECT_EQ(QString::fromUtf8(sp_GetFormattedFileTime(path("f.txt").c_str()).c_str()),
              QLocale::system().toString(expected.time(), QLocale::ShortFormat));
    FILE* f = fopen_utf8(path("f.txt").c_str(), "rb");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(sp_GetFormattedFileDate(f), sp_GetFormattedFileDate(path("f.txt").c_str()));
    std::fclose(f);
}

#ifndef Q_OS_WIN
// A file time too far off to be shown (a file system such as tmpfs takes any 64-bit time) gives empty
// text, never a date wrapped round to the far past.
TEST(FileDatesFarOff, AFileTimeBeyondTheRangeIsEmpty)
{
    const std::string file = "/dev/shm/sq-far-" + std::to_string(::getpid());
    writeFileBytes(file, "x");
    for (long long seconds : {9223372036854776LL, 4611686018427387904LL, LLONG_MAX}) {
        struct timespec times[2];
        times[0].tv_sec = times[1].tv_sec = static_cast<time_t>(seconds);
        times[0].tv_nsec = times[1].tv_nsec = 0;
        if (::utimensat(AT_FDCWD, file.c_str(), times, 0) != 0 || sp_GetFileModifiedTime(YString(file.c_str())) != seconds) {
            std::remove(file.c_str());
            GTEST_SKIP() << "no file system here takes a file time of " << seconds << " seconds";
        }
        EXPECT_STREQ(sp_GetFormattedFileDate(file.c_str()).c_str(), "") << seconds;
        EXPECT_STREQ(sp_GetFormattedFileTime(file.c_str()).c_str(), "") << seconds;
    }
    std::remove(file.c_str());
}
#endif

TEST(DatesAndUrls, LocalFileFromUrl)
{
#ifdef Q_OS_WIN
    EXPECT_EQ(sp_GetLocalFileFromUrl(QString("file:///C:/a%20b/c.txt")), "C:/a b/c.txt");
    EXPECT_EQ(sp_GetLocalFileFromUrl(QString("C:\\a\\b.txt")), "C:/a/b.txt");
#else
    // Without drive letters the URL's path is the local path, and a backslash is an ordinary character;
    // Qt roots a first segment that holds a colon (it would read as a scheme).
    EXPECT_EQ(sp_GetLocalFileFromUrl(QString("file:///C:/a%20b/c.txt")), "/C:/a b/c.txt");
    EXPECT_EQ(sp_GetLocalFileFromUrl(QString("C:\\a\\b.txt")), "/C:\\a\\b.txt");
    EXPECT_EQ(sp_GetLocalFileFromUrl(QString("dir/x.txt")), "dir/x.txt");
#endif
    EXPECT_EQ(sp_GetLocalFileFromUrl(QString("file:///tmp/a%20b/c.txt")), "/tmp/a b/c.txt");
    EXPECT_STREQ(sp_GetLocalFileFromUrl(YString("file:///tmp/x%C3%A9.txt")).c_str(), "/tmp/x\xC3\xA9.txt");
    // A "%00" would put a NUL in the name, which would end it early as C text: no path.
    EXPECT_EQ(sp_GetLocalFileFromUrl(YString("file:///etc/passwd%00.txt")).length(), 0);
    EXPECT_EQ(sp_GetLocalFileFromUrl(QString("file:///tmp/a%00b")), QString());
    EXPECT_EQ(sp_GetLocalFileFromUrl(QString("file:///tmp/a%2500b")), "/tmp/a%00b");
}

TEST(DatesAndUrls, TextsThatAreNotFileUrlsAreTakenAsPaths)
{
    EXPECT_STREQ(sp_GetLocalFileFromUrl(YString("http://example.com/a b")).c_str(), "http://example.com/a b");
    EXPECT_STREQ(sp_GetLocalFileFromUrl(YString("")).c_str(), "");
    EXPECT_STREQ(sp_MakeFileUrl(YString("")).c_str(), "");
    const std::string longName(3000, 'n');
    EXPECT_EQ(std::string(sp_GetLocalFileFromUrl(YString(("file:///tmp/" + longName).c_str())).c_str()), "/tmp/" + longName);
}

// The arguments are taken by value, as the suite's modules declare these functions: a module built
// against those declarations links with these.
TEST(DatesAndUrls, ArgumentsByValue)
{
    YString (*dateFormat)(YString) = &sp_GetDateUserFormat;
    QString (*localFileQ)(QString) = &sp_GetLocalFileFromUrl;
    YString (*localFileY)(YString) = &sp_GetLocalFileFromUrl;
    QString (*fileUrlQ)(QString) = &sp_MakeFileUrl;
    YString (*fileUrlY)(YString) = &sp_MakeFileUrl;
    EXPECT_EQ(localFileQ(QString("file:///tmp/a%20b")), "/tmp/a b");
    EXPECT_STREQ(localFileY(YString("file:///tmp/x")).c_str(), "/tmp/x");
    EXPECT_EQ(fileUrlQ(QString("file:///tmp/a%20b")), "file:///tmp/a b");
    EXPECT_STREQ(fileUrlY(YString("file:///tmp/x")).c_str(), "file:///tmp/x");
    EXPECT_EQ(dateFormat(YString("yyyy")), sp_GetDateUserFormat(YString("yyyy")));
}

TEST(DatesAndUrls, MakeFileUrl)
{
    const QString relative = sp_MakeFileUrl(QString("some dir/page.html"));
    EXPECT_EQ(relative, QString::fromStdString(fileUrlOf(QDir::currentPath().toStdString())) + "/some dir/page.html");
    EXPECT_EQ(sp_MakeFileUrl(QString("file:///tmp/a%20b.html")), "file:///tmp/a b.html");
#ifdef Q_OS_WIN
    // Drive letters and backslashes: the URL has three slashes before the drive. A path without a drive
    // is on the current one.
    EXPECT_EQ(sp_MakeFileUrl(QString("C:\\a b\\c.html")), "file:///C:/a b/c.html");
    EXPECT_STREQ(sp_MakeFileUrl(YString("D:/\xC3\xA9t\xC3\xA9.html")).c_str(), "file:///D:/\xC3\xA9t\xC3\xA9.html");
    EXPECT_EQ(sp_MakeFileUrl(QString("/tmp/x.html")), "file:///" + QDir::currentPath().left(2) + "/tmp/x.html");
    EXPECT_EQ(sp_MakeFileUrl(QString("file:///C:/a%20b/c.txt")), "file:///C:/a b/c.txt");
#else
    EXPECT_STREQ(sp_MakeFileUrl(YString("/tmp/\xC3\xA9t\xC3\xA9.html")).c_str(), "file:///tmp/\xC3\xA9t\xC3\xA9.html");
#endif
}

TEST(DatesAndUrls, GuidsAreFreshAndBraced)
{
    const YString a = sp_GetGUID();
    const YString b = sp_GetGUID();
    EXPECT_NE(a, b);
    EXPECT_EQ(a.length(), 38);
    EXPECT_EQ(b.length(), 38);
    EXPECT_TRUE(QRegularExpression("^\\{[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}\\}$")
                    .match(QString::fromUtf8(a.c_str()))
                    .hasMatch());
}

TEST(DatesAndUrls, ConsoleProcessHasNoGui)
{
    EXPECT_FALSE(sp_HasGui());
}
