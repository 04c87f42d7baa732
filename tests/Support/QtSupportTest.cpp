// QtSupportTest.cpp - UTF-8 detection and the conversions between the suite's strings and Qt's.
#include "Options.h"
#include "QtSupport.h"
#include "TestHelpers.h"

#include <QTextCodec>

namespace {

UTF8Detect feed(std::initializer_list<unsigned> bytes)
{
    UTF8Detect d;
    for (unsigned b : bytes)
        d.add(b);
    return d;
}

} // namespace

TEST(UTF8Detect, StartsAsciiBetweenSequences)
{
    UTF8Detect d;
    EXPECT_EQ(d.getEncoding(), Ascii);
    EXPECT_EQ(d.getState(), 1);
    d.loadString("R1 a b 1k\t+ 2k\n");
    EXPECT_EQ(d.getEncoding(), Ascii);
    EXPECT_EQ(d.getState(), 1);
    EXPECT_TRUE(d.isBetweenSequences());
}

TEST(UTF8Detect, TwoByteSequenceGivesUtf8)
{
    EXPECT_EQ(feed({0xC3, 0xA9}).getEncoding(), Utf8);
    EXPECT_EQ(feed({0xC3, 0xA9}).getState(), 1);
}

TEST(UTF8Detect, IncompleteSequenceIsNotPenalised)
{
    UTF8Detect d = feed({0xC3});
    EXPECT_EQ(d.getEncoding(), Utf8);
    EXPECT_EQ(d.getState(), 22);
    EXPECT_FALSE(d.isBetweenSequences());
}

TEST(UTF8Detect, LoneContinuationByteIsInvalid)
{
    UTF8Detect d = feed({0xA9});
    EXPECT_EQ(d.getEncoding(), Invalid);
    EXPECT_EQ(d.getState(), 99);
    EXPECT_TRUE(d.isBetweenSequences());
}

TEST(UTF8Detect, FiveByteSequenceIsExtendedAndStaysExtended)
{
    UTF8Detect d = feed({0xF8, 0x88, 0x80, 0x80, 0x80});
    EXPECT_EQ(d.getEncoding(), Utf8Extended);
    EXPECT_EQ(d.getState(), 1);
    d.add(0xC3);
    d.add(0xA9);
    EXPECT_EQ(d.getEncoding(), Utf8Extended);
    EXPECT_EQ(feed({0xFC, 0x84, 0x80, 0x80, 0x80, 0x80}).getEncoding(), Utf8Extended);
}

TEST(UTF8Detect, InvalidIsFinalUntilReset)
{
    UTF8Detect d = feed({0xFF});
    EXPECT_EQ(d.getEncoding(), Invalid);
    d.loadString("plain");
    d.add(0xC3);
    d.add(0xA9);
    d.add(0xA9);
    EXPECT_EQ(d.getEncoding(), Invalid);
    EXPECT_EQ(d.getState(), 99);
    d.reset();
    EXPECT_EQ(d.getEncoding(), Ascii);
    EXPECT_EQ(d.getState(), 1);
    EXPECT_EQ(feed({0xC3, 0x41}).getEncoding(), Invalid); // a lead byte followed by ASCII
    EXPECT_EQ(feed({0xFE}).getEncoding(), Invalid);
}

TEST(UTF8Detect, OverlongFormsAndSurrogatesPass)
{
    EXPECT_EQ(feed({0xC0, 0x80}).getEncoding(), Utf8);
    EXPECT_EQ(feed({0xED, 0xA0, 0x80}).getEncoding(), Utf8);
    EXPECT_EQ(feed({0xF7, 0xBF, 0xBF, 0xBF}).getEncoding(), Utf8);
}

TEST(UTF8Detect, StateWalksThroughTheTwoDigitCodes)
{
    UTF8Detect d;
    d.add(0xF0);
    EXPECT_EQ(d.getState(), 24);
    d.add(0x9F);
    EXPECT_EQ(d.getState(), 34);
    d.add(0x98);
    EXPECT_EQ(d.getState(), 44);
    d.add(0x80);
    EXPECT_EQ(d.getState(), 1);
    EXPECT_EQ(d.getEncoding(), Utf8);
}

TEST(UTF8Detect, LoadStringAccumulatesAndCopiesCarryState)
{
    UTF8Detect d;
    d.loadString("caf\xC3");
    EXPECT_EQ(d.getState(), 22);
    UTF8Detect copy;
    copy = d;
    copy.loadString("\xA9");
    EXPECT_EQ(copy.getState(), 1);
    EXPECT_EQ(copy.getEncoding(), Utf8);
    d.loadString("");
    EXPECT_EQ(d.getState(), 22);
    d.loadString(nullptr);
    EXPECT_EQ(d.getState(), 22);
    UTF8Detect moved;
    moved = std::move(d);
    EXPECT_EQ(moved.getState(), 22);
}

TEST(AutoConvert, KeepsAsciiAndValidUtf8)
{
    EXPECT_EQ(sp_AutoConvertToUtf8("plain text"), "plain text");
    EXPECT_EQ(sp_AutoConvertToUtf8(YString("caf\xC3\xA9 \xE2\x82\xAC")), "caf\xC3\xA9 \xE2\x82\xAC");
    EXPECT_EQ(sp_AutoConvertToUtf8(static_cast<const char*>(nullptr)), "");
}

TEST(AutoConvert, DecodesLatin1WordEndingInALeadByte)
{
    LocaleCodecGuard guard;
    ASSERT_TRUE(sp_SetLocaleEncoding(YString("ISO-8859-1")));
    YString out = sp_AutoConvertToUtf8("\x63\x61\x66\xE9");
    EXPECT_EQ(out, "\x63\x61\x66\xC3\xA9");
    EXPECT_EQ(out.length(), 5);
    EXPECT_EQ(sp_AutoConvertToUtf8("\xE9t\xE9"), "\xC3\xA9t\xC3\xA9");
    EXPECT_EQ(sp_ConvertFromLocal("\xB5" "A"), "\xC2\xB5" "A");
    EXPECT_EQ(sp_ConvertFromUtf8("\xC2\xB5" "A"), "\xB5" "A");
}

TEST(LocaleEncoding, DefaultInCapitalsAndUnknownNames)
{
    LocaleCodecGuard guard;
    ASSERT_TRUE(sp_SetLocaleEncoding(YString("ISO-8859-1")));
    EXPECT_EQ(QTextCodec::codecForLocale()->name(), QByteArray("ISO-8859-1"));
    EXPECT_FALSE(sp_SetLocaleEncoding(YString("no-such-codec-xyz")));
    EXPECT_EQ(QTextCodec::codecForLocale()->name(), QByteArray("ISO-8859-1"));
    EXPECT_TRUE(sp_SetLocaleEncoding(YString("DEFAULT")));
    EXPECT_TRUE(sp_SetLocaleEncoding(YString("windows-1252")));
    EXPECT_EQ(QTextCodec::codecForLocale()->name(), QByteArray("windows-1252"));
}

TEST(LocaleEncoding, MicroSignAnswerIsCachedAcrossCodecChanges)
{
    LocaleCodecGuard guard;
    ASSERT_TRUE(sp_SetLocaleEncoding(YString("ISO-8859-1")));
    EXPECT_TRUE(sp_LocaleSupportsMicroCharacter());
    ASSERT_TRUE(sp_SetLocaleEncoding(YString("KOI8-R")));
    EXPECT_TRUE(sp_LocaleSupportsMicroCharacter()); // deliberately not recomputed
}

TEST(LocaleEncoding, DefaultEncodingOptionIsDeclaredAtLoad)
{
    bool found = false;
    EXPECT_EQ(sp_GetOption("DefaultEncoding", &found), "default");
    EXPECT_TRUE(found);
}

TEST(Compare, EqualsAndPathEqualsIgnoreCaseOnly)
{
    EXPECT_TRUE(equals(QStringLiteral("ABC"), QStringLiteral("abc")));
    EXPECT_FALSE(notEquals(QStringLiteral("ABC"), QStringLiteral("abc")));
    EXPECT_TRUE(notEquals(QStringLiteral("ABC"), QStringLiteral("abd")));
    EXPECT_TRUE(pathEquals(QStringLiteral("C:/A"), QStringLiteral("c:/a")));
    EXPECT_FALSE(pathEquals(QStringLiteral("C:/A/"), QStringLiteral("C:/A")));
    EXPECT_TRUE(pathNotEquals(QStringLiteral("C:/A/"), QStringLiteral("C:/A")));
    EXPECT_FALSE(pathEquals(QStringLiteral("C:\\A"), QStringLiteral("C:/A")));
}

TEST(Compare, CollatesUtf8Text)
{
    EXPECT_LT(sp_CompareUtf8Strings("apple", "banana", true), 0);
    EXPECT_GT(sp_CompareUtf8Strings("banana", "apple", true), 0);
    EXPECT_EQ(sp_CompareUtf8Strings("Same", "same", false), 0);
    EXPECT_NE(sp_CompareUtf8Strings("Same", "same", true), 0);
    EXPECT_EQ(sp_CompareUtf8Strings(nullptr, "", true), 0);
}

TEST(Conversions, ToCsInternsEqualTexts)
{
    const char* a = toCs(QStringLiteral("interned \u00e9"));
    const char* b = toCs(QString::fromUtf8("interned \xC3\xA9"));
    EXPECT_EQ(a, b);
    EXPECT_STREQ(a, "interned \xC3\xA9");
    EXPECT_NE(toCs(QStringLiteral("other")), a);
    std::vector<const char*> pointers;
    for (int i = 0; i < 3000; ++i)
        pointers.push_back(toCs(QString::number(i)));
    for (int i = 0; i < 3000; ++i) {
        EXPECT_EQ(toCs(QString::number(i)), pointers[static_cast<size_t>(i)]);
        EXPECT_STREQ(pointers[static_cast<size_t>(i)], std::to_string(i).c_str());
    }
    EXPECT_STREQ(toCs(QString()), "");
}

TEST(Conversions, BetweenYStringQStringAndWide)
{
    YString y("\xCE\xA9 = 1k\xC2\xB5");
    QString q = toQs(y);
    EXPECT_EQ(q, QStringLiteral("\u03a9 = 1k\u00b5"));
    EXPECT_EQ(toYs(q), y);
    EXPECT_STREQ(static_cast<const char*>(Tocs(q)), y.c_str());
    UTFStringQt u(y.c_str());
    EXPECT_STREQ(u.get(), y.c_str());
    EXPECT_EQ(QString::fromWCharArray(u.getWide()), q);
    UTFStringQt w(L"wide \u00e9");
    EXPECT_STREQ(w.get(), "wide \xC3\xA9");
    UTFStringQt n(static_cast<const char*>(nullptr));
    EXPECT_STREQ(n.get(), "");
    EXPECT_EQ(n.getWide()[0], L'\0');
}

TEST(Conversions, EngineeringNumbersFromQString)
{
    EXPECT_EQ(sp_ConvertEngToReal(QStringLiteral("4.7k")), 4700.0);
    EXPECT_EQ(sp_ConvertEngToReal(QStringLiteral("1MEG")), 1e6);
    EXPECT_EQ(sp_ConvertEngToReal(QStringLiteral("x")), 0.0);
}
