// TextFileTest.cpp - text-file formats, loading, writing and wide-file copies.
#include "FileServices.h"
#include "TestHelpers.h"

#include <QFile>
#include "TextFile.h"
#include "NetlistStream.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTextCodec>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <random>
#include <string>
#include <vector>

#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace {

struct Verdict {
    bool wide, dos, mac, little;
};

Verdict detect(const std::string& bytes)
{
    Verdict v{true, true, true, false};
    sp_DetectTextFileFormat(bytes.data(), static_cast<int>(bytes.size()), v.wide, v.dos, v.mac, v.little);
    return v;
}

#define EXPECT_VERDICT(bytes, w, d, m, l)                  \
    do {                                                   \
        Verdict v = detect(bytes);                         \
        EXPECT_EQ(v.wide, w) << "isWide";                  \
        EXPECT_EQ(v.dos, d) << "isDos";                    \
        EXPECT_EQ(v.mac, m) << "isMac";                    \
        EXPECT_EQ(v.little, l) << "isLittleEndian";        \
    } while (0)

std::string s(const char* bytes, size_t n) { return std::string(bytes, n); }

} // namespace

class TextFile : public TempDirTest {
protected:
    QString load(const std::string& bytes, const char* encoding = "auto")
    {
        writeFileBytes(path("in.txt"), bytes);
        bool ok = false;
        QString text = sp_LoadFile(QString::fromStdString(path("in.txt")), encoding, &ok);
        EXPECT_TRUE(ok);
        return text;
    }
};

TEST(TextFormat, EightBitLineEnds)
{
    EXPECT_VERDICT("a\r\nb", false, true, false, true);
    EXPECT_VERDICT("a\rb", false, false, true, true);
    EXPECT_VERDICT("a\nb", false, false, false, true);
    EXPECT_VERDICT("a\r", false, false, false, true);
}

TEST(TextFormat, LittleEndianUtf16)
{
    EXPECT_VERDICT(s("\x61\x00\x0D\x00\x0A\x00", 6), true, true, false, true);
    EXPECT_VERDICT(s("\xFF\xFE\x61\x00\x0D\x00", 6), true, false, true, true);
    EXPECT_VERDICT(s("\x61\x00\x0A\x00", 4), true, false, false, true);
}

TEST(TextFormat, BigEndianUtf16)
{
    EXPECT_VERDICT(s("\xFE\xFF\x00\x61\x00\x0D\x00\x0A", 8), true, true, false, false);
    EXPECT_VERDICT(s("\xFE\xFF\x00\x61\x00\x0A\x00\x62", 8), true, false, false, false);
}

TEST(TextFormat, EmptyAndOneByteBuffers)
{
    EXPECT_VERDICT("", false, false, false, true);
    EXPECT_VERDICT("\r", false, false, false, true);
    EXPECT_VERDICT("\xFF", false, false, false, true);
    bool w = true, d = true, m = true, l = false;
    sp_DetectTextFileFormat(nullptr, 0, w, d, m, l);
    EXPECT_FALSE(w);
    EXPECT_TRUE(l);
}

TEST_F(TextFile, DetectsAFileFromItsFirst1024Bytes)
{
    writeFileBytes(path("dos.cir"), "title\r\nR1 a b 1k\r\n");
    bool wide = true, dos = false, mac = true, little = false;
    EXPECT_TRUE(sp_DetectTextFileFormat(YString(path("dos.cir").c_str()), &wide, &dos, &mac, &little));
    EXPECT_FALSE(wide);
    EXPECT_TRUE(dos);
    EXPECT_FALSE(mac);
    EXPECT_TRUE(little);
    writeFileBytes(path("late.cir"), std::string(1100, 'x') + "\r\n");
    EXPECT_TRUE(sp_DetectTextFileFormat(QString::fromStdString(path("late.cir")), nullptr, &dos, nullptr, nullptr));
    EXPECT_FALSE(dos);
    wide = dos = mac = true;
    little = false;
    EXPECT_FALSE(sp_DetectTextFileFormat(QString::fromStdString(path("missing.cir")), &wide, &dos, &mac, &little));
    EXPECT_FALSE(wide);
    EXPECT_FALSE(dos);
    EXPECT_FALSE(mac);
    EXPECT_TRUE(little);
}

TEST_F(TextFile, AutoRemovesEveryCrWhenTheFirstEndIsCrLf)
{
    EXPECT_EQ(load("x\r\ny\rz"), QStringLiteral("x\nyz"));
}

TEST_F(TextFile, AutoTurnsEveryCrIntoLfWhenTheFirstEndIsALoneCr)
{
    EXPECT_EQ(load("x\ry\r\nz"), QStringLiteral("x\ny\n\nz"));
}

TEST_F(TextFile, AutoDecodesLatin1ThroughTheLocaleCodec)
{
    LocaleCodecGuard guard;
    ASSERT_TRUE(sp_SetLocaleEncoding(YString("ISO-8859-1")));
    QString text = load("\x63\x61\x66\xE9");
    EXPECT_EQ(text, QStringLiteral("caf\u00e9"));
    EXPECT_EQ(text.size(), 4);
}

TEST_F(TextFile, AutoKeepsUtf8)
{
    EXPECT_EQ(load("R\xC3\xA9sistance \xCE\xA9\n"), QStringLiteral("R\u00e9sistance \u03a9\n"));
}

TEST_F(TextFile, UnknownEncodingNameDecodesAsUtf8)
{
    EXPECT_EQ(load("\xC3\xA9", "no-such-codec"), QStringLiteral("\u00e9"));
    LocaleCodecGuard guard;
    ASSERT_TRUE(sp_SetLocaleEncoding(YString("ISO-8859-1")));
    EXPECT_EQ(load("\xC3\xA9", "LOCALE"), QStringLiteral("\u00c3\u00a9"));
    EXPECT_EQ(load("\xE9", "ISO-8859-1"), QStringLiteral("\u00e9"));
}

TEST_F(TextFile, Utf16WithCrLfAndLoneCr)
{
    EXPECT_EQ(load(s("\xFF\xFE" "a\0\r\0\n\0b\0\r\0\n\0", 14)), QStringLiteral("a\nb\n"));
    EXPECT_EQ(load(s("a\0\r\0b\0\r\0\n\0", 10)), QStringLiteral("a\nb\n\n"));
    EXPECT_EQ(load(s("\xFE\xFF\0a\0\r\0\n\0b", 10)), QStringLiteral("a\nb"));
    EXPECT_EQ(load(s("a\0\r\0\n\0b\0x", 9)), QStringLiteral("a\nb")); // odd last byte dropped
}

TEST_F(TextFile, MissingFileGivesFalseAndEmpty)
{
    bool ok = true;
    EXPECT_TRUE(sp_LoadFile(QString::fromStdString(path("missing.txt")), "auto", &ok).isEmpty());
    EXPECT_FALSE(ok);
}

// A folder, an endless device and a regular file beyond the limit give false at once and hold no more
// memory than the limits; a device that ends (/dev/null) loads as an empty text.
TEST_F(TextFile, WholeFileLoadsAreBounded)
{
    bool ok = true;
    EXPECT_TRUE(sp_LoadFile(QString::fromStdString(m_dir), "auto", &ok).isEmpty());
    EXPECT_FALSE(ok);
#ifndef Q_OS_WIN
    ok = true;
    EXPECT_TRUE(sp_LoadFile(QStringLiteral("/dev/zero"), "auto", &ok).isEmpty());
    EXPECT_FALSE(ok);
    ok = false;
    EXPECT_TRUE(sp_LoadFile(QStringLiteral("/dev/null"), "auto", &ok).isEmpty());
    EXPECT_TRUE(ok);
    // A sparse file of 512 MiB and one byte takes no room on the disk.
    QFile big(QString::fromStdString(path("big.txt")));
    ASSERT_TRUE(big.open(QIODevice::WriteOnly));
    ASSERT_TRUE(big.resize((qint64(512) << 20) + 1));
    big.close();
    ok = true;
    EXPECT_TRUE(sp_LoadFile(big.fileName(), "auto", &ok).isEmpty());
    EXPECT_FALSE(ok);
#endif
}

TEST_F(TextFile, WriteDoesNotTruncate)
{
    writeFileBytes(path("out.txt"), "0123456789");
    sp_WriteTextFile(QString::fromStdString(path("out.txt")), QStringLiteral("ab\u00e9"), "UTF-8");
    EXPECT_EQ(readFileBytes(path("out.txt")), "ab\xC3\xA9" "456789"); // 4 bytes written over 10
    sp_WriteTextFile(QString::fromStdString(path("new.txt")), QStringLiteral("\u00e9"), "ISO-8859-1");
    EXPECT_EQ(readFileBytes(path("new.txt")), "\xE9");
    sp_WriteTextFile(QString::fromStdString(path("none.txt")), QStringLiteral("x"), "no-such-codec");
    EXPECT_FALSE(sp_ExistFile(path("none.txt").c_str()));
}

// A character beyond 16 bits is one UTF-32 unit: the text's units are written and nothing after them
// (Qt's encoder leaves a zero unit at the end for each such character). Unpaired surrogates are U+FFFD.
TEST_F(TextFile, Utf32HoldsOneUnitPerCharacterAndNothingMore)
{
    const QString text = QString::fromUtf8("a\xF0\x9F\x98\x80" "b\xF0\x9F\x98\x80") + QChar(0xD800) + QLatin1Char('c');
    sp_WriteTextFile(QString::fromStdString(path("le.txt")), text, "UTF-32LE");
    EXPECT_EQ(readFileBytes(path("le.txt")), s("\xFF\xFE\0\0" "a\0\0\0" "\0\xF6\x01\0" "b\0\0\0" "\0\xF6\x01\0"
                                              "\xFD\xFF\0\0" "c\0\0\0", 28));
    sp_WriteTextFile(QString::fromStdString(path("be.txt")), QString::fromUtf8("\xF0\x9F\x98\x80"), "UTF-32BE");
    EXPECT_EQ(readFileBytes(path("be.txt")), s("\0\0\xFE\xFF" "\0\x01\xF6\0", 8));
    sp_WriteTextFile(QString::fromStdString(path("bom.txt")), QString::fromUtf8("\xF0\x9F\x98\x80"), "UTF-32");
    EXPECT_EQ(readFileBytes(path("bom.txt")).size(), 8u);
    bool ok = false;
    EXPECT_EQ(sp_LoadFile(QString::fromStdString(path("be.txt")), "UTF-32BE", &ok), QString::fromUtf8("\xF0\x9F\x98\x80"));
}

TEST_F(TextFile, WideFileBecomesATemporaryUtf8CopyThatTheGuardDeletes)
{
    writeFileBytes(path("wide.cir"), s("\xFF\xFE" "R\0" "1\0\r\0\n\0\xA9\x03\r\0\n\0", 16));
    YString temp;
    {
        WideTextFileConverter converter(YString(path("wide.cir").c_str()));
        temp = converter.getPath();
        EXPECT_NE(temp, path("wide.cir").c_str());
        EXPECT_EQ(readFileBytes(temp.c_str()), "R1\n\xCE\xA9\n");
    }
    EXPECT_FALSE(sp_ExistFile(temp.c_str()));
}

#ifndef _WIN32
namespace {
// Runs `read` on its own thread while another writes `bytes` into a new FIFO at `fifo` and closes it;
// false when `read` has not returned within ten seconds (it opened the FIFO a second time, and waits for a
// writer that is gone).
bool readWhileWritten(const std::string& fifo, const std::string& bytes, std::function<void()> read)
{
    EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::thread writer([fifo, bytes] {
        const int fd = open(fifo.c_str(), O_WRONLY);
        if (fd >= 0) {
            EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
            close(fd);
        }
    });
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread([done, read] {
        read();
        done->set_value();
    }).detach();
    const bool ready = finished.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    if (!ready) {
        // Let the waiting open go, and the reading end, before what it writes to goes.
        const int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0)
            close(fd);
        finished.wait_for(std::chrono::seconds(10));
    }
    writer.join();
    return ready;
}
} // namespace

// A pipe is read once, whole: a UTF-16 text from one becomes its UTF-8 copy, and an 8-bit netlist from one
// reaches the reader whole, first line included. (Reading the head to tell them apart and then opening
// the pipe again lost the head, or waited for ever for a writer that was gone.)
TEST_F(TextFile, APipeIsReadOnceWhole)
{
    const std::string wide = s("\xFF\xFE" "R\0" "1\0\r\0\n\0\xA9\x03\r\0\n\0", 16);
    std::string copy;
    ASSERT_TRUE(readWhileWritten(path("wide.fifo"), wide, [&] {
        WideTextFileConverter converter(YString(path("wide.fifo").c_str()));
        copy = readFileBytes(converter.getPath().c_str());
    }));
    EXPECT_EQ(copy, "R1\n\xCE\xA9\n");

    std::string netlist = "title\n";
    for (int i = 0; i < 300; ++i)
        netlist += "R" + std::to_string(i) + " a b 1k\n";
    std::vector<std::string> lines;
    ASSERT_TRUE(readWhileWritten(path("plain.fifo"), netlist, [&] {
        SpiceStream in(path("plain.fifo").c_str(), SpiceLanguageNative);
        YString line;
        while (in.gets(&line, nullptr, nullptr, nullptr))
            lines.push_back(line.c_str());
    }));
    ASSERT_EQ(lines.size(), 301u);
    EXPECT_EQ(lines[0], "title");
    EXPECT_EQ(lines[300], "R299 a b 1k");

    // A device that never ends is read up to 64 MiB, and is no UTF-16 file.
    YString out("untouched");
    EXPECT_FALSE(sp_ConvertWideTextFile(YString("/dev/zero"), &out));
    EXPECT_EQ(out, "untouched");
}
#endif

TEST_F(TextFile, EightBitFileIsLeftAlone)
{
    writeFileBytes(path("plain.cir"), "R1 a b 1k\n");
    YString out("untouched");
    EXPECT_FALSE(sp_ConvertWideTextFile(YString(path("plain.cir").c_str()), &out));
    EXPECT_EQ(out, "untouched");
    {
        WideTextFileConverter converter(YString(path("plain.cir").c_str()));
        EXPECT_EQ(converter.getPath(), path("plain.cir").c_str());
    }
    EXPECT_EQ(readFileBytes(path("plain.cir")), "R1 a b 1k\n");
    EXPECT_FALSE(sp_ConvertWideTextFile(YString(path("missing.cir").c_str()), &out));
}

// Little-endian UTF-16 with its mark is decoded in one pass; it must give exactly what the named codec
// gives after the same line-end normalisation, whatever the units (lone surrogates, U+0D00, U+FEFF
// after the mark, a trailing odd byte) and whichever line end comes first.
TEST_F(TextFile, AutoDecodesMarkedLittleEndianUtf16AsTheNamedCodecDoes)
{
    std::mt19937 random(7);
    const unsigned short kUnits[] = {'a', 'Z', ' ', 0x0D, 0x0A, 0x0D00, 0x0A00, 0xD800, 0xDC00, 0xFEFF, 0x00E9, 0x4E2D};
    const char* const kFirstEnds[] = {"\r\n", "\r", "\n"};
    for (int round = 0; round < 60; ++round) {
        std::string bytes = "\xFF\xFE";
        auto unit = [&](unsigned short u) {
            bytes += static_cast<char>(u & 0xFF);
            bytes += static_cast<char>(u >> 8);
        };
        unit('x');
        for (const char* e = kFirstEnds[round % 3]; *e; ++e)
            unit(static_cast<unsigned char>(*e));
        for (int i = 0; i < 200; ++i)
            unit(kUnits[random() % (sizeof(kUnits) / sizeof(kUnits[0]))]);
        if (round % 4 == 0)
            bytes += 'q';
        writeFileBytes(path("w.txt"), bytes);
        bool ok = false, okNamed = false;
        const QString fast = sp_LoadFile(QString::fromStdString(path("w.txt")), "auto", &ok);
        const QString named = sp_LoadFile(QString::fromStdString(path("w.txt")), "UTF-16", &okNamed);
        ASSERT_TRUE(ok && okNamed);
        ASSERT_EQ(fast, named) << "round " << round;
        EXPECT_FALSE(fast.startsWith(QChar(0xFEFF)));
        EXPECT_EQ(fast.left(1), "x");
    }
}

namespace {

// UTF-16 of `units`, little- or big-endian.
std::string utf16(const std::vector<unsigned short>& units, bool littleEndian)
{
    std::string bytes;
    for (unsigned short u : units) {
        const char low = static_cast<char>(u & 0xFF), high = static_cast<char>(u >> 8);
        bytes += littleEndian ? low : high;
        bytes += littleEndian ? high : low;
    }
    return bytes;
}

// The UTF-8 copy a wide file must have: its text as the whole-file load gives it, without a leading
// U+FEFF, encoded as UTF-8 without a mark.
std::string wholeFileCopy(const std::string& file)
{
    bool ok = false;
    QString text = sp_LoadFile(QString::fromStdString(file), "auto", &ok);
    EXPECT_TRUE(ok);
    if (text.startsWith(QChar(0xFEFF)))
        text.remove(0, 1);
    return QTextCodec::codecForName("UTF-8")->fromUnicode(text).toStdString();
}

} // namespace

// The copy is written a block of 1 MiB at a time; it must be the whole file's text byte for byte, also
// where a surrogate pair, a CR LF or U+FEFF straddles or starts a block, where the first line end lies at
// the first block's end or past it (its style is then sought in the rest of the file), and for files
// of a block's size, a byte more or less.
TEST_F(TextFile, WideCopyIsTheWholeFileTextWrittenABlockAtATime)
{
    const size_t kBlockUnits = 1u << 19;
    struct Variant {
        const char* name;
        bool littleEndian;
        bool mark;
        std::vector<unsigned short> firstEnd;
        size_t firstLineUnits;
        std::vector<unsigned short> straddling; // placed so that its second unit starts a block
        std::string tail;                       // bytes after the last unit
        bool noCr = false;                      // no CR byte after the first line end
        size_t cut = 0;                         // the file's size when not 0
    };
    const size_t kLong = kBlockUnits + 40;
    const std::vector<Variant> variants = {
        {"marked LE, CR LF, a pair across blocks", true, true, {0x0D, 0x0A}, 3, {0xD83D, 0xDE00}, ""},
        {"marked LE, a lone CR, CR LF across blocks", true, true, {0x0D}, 3, {0x0D, 0x0A}, "q"},
        {"marked LE, LF, U+FEFF after the mark", true, true, {0x0A}, 0, {0x0D00, 0xD800}, ""},
        {"LE without a mark, LF", true, false, {0x0A}, 5, {0xD83D, 0xDE00}, "q"},
        {"LE without a mark, CR LF", true, false, {0x0D, 0x0A}, 5, {0x0D, 0x0A}, ""},
        {"LE without a mark, U+FEFF starts the second block", true, false, {0x0D, 0x0A}, 5, {'a', 0xFEFF}, ""},
        {"marked BE, CR LF", false, true, {0x0D, 0x0A}, 2, {0xD83D, 0xDE00}, ""},
        {"marked BE, a lone CR", false, true, {0x0D}, 2, {0x000D, 0x0D00}, "q"},
        {"marked BE, U+FEFF starts the second block", false, true, {0x0D, 0x0A}, 2, {'a', 0xFEFF}, ""},
        {"marked BE, only LF line ends", false, true, {0x0A}, 2, {'a', 0xFEFF}, "", true},
        {"marked LE, the first CR two bytes before the block's end", true, true, {0x0D, 0x0A}, kBlockUnits - 2, {'a', 0xFEFF}, ""},
        {"marked LE, the first CR three bytes before the block's end", true, true, {0x0D00, 'y'}, kBlockUnits - 3, {'a', 0xFEFF}, ""},
        {"marked LE, the first CR the block's last byte, LF after it", true, true, {0x0D00, 0x0A}, kBlockUnits - 2, {'a', 0xFEFF}, ""},
        {"marked LE, first line end past the first block", true, true, {0x0D, 0x0A}, kLong, {0xD83D, 0xDE00}, ""},
        {"marked BE, first line end past the first block", false, true, {0x0D}, kLong, {0x0D, 0x0A}, "q"},
        {"marked BE, LF only, the first line past the first block", false, true, {0x0A}, kLong, {'a', 0xFEFF}, "", true},
        {"marked LE, a lone CR the file's last byte", true, true, {}, kLong, {}, "\r", true},
        {"marked LE, one block less a byte", true, true, {0x0D, 0x0A}, 3, {'a', 0xFEFF}, "", false, 2 * kBlockUnits - 1},
        {"marked LE, one block", true, true, {0x0D, 0x0A}, 3, {'a', 0xFEFF}, "", false, 2 * kBlockUnits},
        {"marked BE, one block and a byte", false, true, {0x0D, 0x0A}, 3, {'a', 0xFEFF}, "", false, 2 * kBlockUnits + 1},
    };
    std::mt19937 random(11);
    const std::vector<unsigned short> kUnits = {'a', 'Z', ' ', 0x0D, 0x0A, 0x0D00, 0xD800, 0xDC00, 0xFEFF, 0x00E9, 0x4E2D, 0xD83D, 0xDE00};
    const std::vector<unsigned short> kUnitsWithoutCr = {'a', 'Z', ' ', 0x0A, 0xD800, 0xDC00, 0xFEFF, 0x00E9, 0x4E2D, 0xD83D, 0xDE00};
    for (const Variant& v : variants) {
        const std::vector<unsigned short>& pool = v.noCr ? kUnitsWithoutCr : kUnits;
        std::vector<unsigned short> units;
        if (v.mark)
            units.push_back(0xFEFF);
        if (v.firstLineUnits == 0)
            units.push_back(0xFEFF);
        while (units.size() < (v.mark ? 1u : 0u) + v.firstLineUnits)
            units.push_back('t');
        units.insert(units.end(), v.firstEnd.begin(), v.firstEnd.end());
        if (!v.straddling.empty()) {
            const size_t straddle = (units.size() > kBlockUnits ? 2 * kBlockUnits : kBlockUnits) - 1;
            while (units.size() < straddle)
                units.push_back(pool[random() % pool.size()]);
            units.insert(units.end(), v.straddling.begin(), v.straddling.end());
            for (int i = 0; i < 300; ++i)
                units.push_back(pool[random() % pool.size()]);
        }
        std::string bytes = utf16(units, v.littleEndian) + v.tail;
        if (v.cut != 0)
            bytes.resize(v.cut, 'u');
        writeFileBytes(path("wide.cir"), bytes);

        YString copy;
        ASSERT_TRUE(sp_ConvertWideTextFile(YString(path("wide.cir").c_str()), &copy)) << v.name;
        const std::string expected = wholeFileCopy(path("wide.cir"));
        EXPECT_GT(expected.size(), kBlockUnits / 2) << v.name;
        EXPECT_TRUE(readFileBytes(copy.c_str()) == expected) << v.name;
        QFile::remove(copy.c_str());
    }
}

// An independent decoder agrees: iconv's UTF-8 of a marked UTF-16 netlist of three blocks, CRs removed.
TEST_F(TextFile, WideCopyMatchesIconv)
{
    const QString iconv = QStandardPaths::findExecutable(QStringLiteral("iconv"));
    if (iconv.isEmpty())
        GTEST_SKIP() << "iconv is not installed";
    std::u16string text = u"\uFEFF* title \u00e9\r\n";
    for (int i = 0; text.size() < (3u << 19); ++i)
        text += u"R" + std::u16string(1, static_cast<char16_t>(u'0' + i % 10)) + u" n\u4E2D \U0001F600 1k\r\n";
    writeFileBytes(path("wide.cir"), utf16(std::vector<unsigned short>(text.begin(), text.end()), true));
    YString copy;
    ASSERT_TRUE(sp_ConvertWideTextFile(YString(path("wide.cir").c_str()), &copy));
    QProcess process;
    process.start(iconv, {QStringLiteral("-f"), QStringLiteral("UTF-16"), QStringLiteral("-t"), QStringLiteral("UTF-8"),
                          QString::fromStdString(path("wide.cir"))});
    ASSERT_TRUE(process.waitForFinished(60000));
    ASSERT_EQ(process.exitCode(), 0);
    std::string expected = process.readAllStandardOutput().toStdString();
    expected.erase(std::remove(expected.begin(), expected.end(), '\r'), expected.end());
    EXPECT_EQ(expected.substr(0, 15), "* title \xC3\xA9\nR0 n");
    EXPECT_TRUE(readFileBytes(copy.c_str()) == expected);
    QFile::remove(copy.c_str());
}
