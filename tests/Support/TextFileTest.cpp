// TextFileTest.cpp - text-file formats, loading, writing and wide-file copies.
#include "FileServices.h"
#include "TestHelpers.h"

#include <QFile>
#include "TextFile.h"

#include <QTextCodec>

#include <random>

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
