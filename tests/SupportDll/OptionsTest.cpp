// OptionsTest.cpp - the option registry, initialisation files, system values and version record.
#include "Options.h"
#include "TestHelpers.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

#include <cstdlib>

class IniFiles : public TempDirTest {};

TEST(Options, DeclaredDefaultSetValueAndWithdrawal)
{
    bool found = true;
    EXPECT_EQ(sp_GetOption("SqTestOption", &found), "");
    EXPECT_FALSE(found);
    {
        MakeOption declared("tests/OptionsTest", 12, YString("SqTestOption"), "first", OptionCacheStatus(0), true);
        EXPECT_EQ(sp_GetOption("sqtestoption", &found), "first");
        EXPECT_TRUE(found);
        EXPECT_TRUE(sp_IsOptionDeclared("SQTESTOPTION"));
        sp_SetOption("SqTestOption", "second");
        EXPECT_EQ(sp_GetOption("SqTestOption", nullptr), "second");
        sp_SetOption("SqTestOption", nullptr);
        EXPECT_EQ(sp_GetOption("SqTestOption", nullptr), "first");
    }
    EXPECT_FALSE(sp_IsOptionDeclared("SqTestOption"));
    EXPECT_EQ(sp_GetOption("SqTestOption", &found), "");
    EXPECT_FALSE(found);
}

TEST(Options, BooleanOptions)
{
    bool found = true;
    EXPECT_FALSE(sp_GetBoolOption("SqTestFlag", &found));
    EXPECT_FALSE(found);
    MakeOption declared("tests/OptionsTest", 30, YString("SqTestFlag"), false, OptionCacheStatus(0), false);
    EXPECT_FALSE(sp_GetBoolOption("SqTestFlag", &found));
    EXPECT_TRUE(found);
    sp_SetBoolOption("SqTestFlag", true);
    EXPECT_TRUE(sp_GetBoolOption("sqtestflag", nullptr));
    for (const char* yes : {"1", "TRUE", "yes", "On"}) {
        sp_SetOption("SqTestFlag", yes);
        EXPECT_TRUE(sp_GetBoolOption("SqTestFlag", nullptr)) << yes;
    }
    for (const char* no : {"0", "false", "off", "", "2"}) {
        sp_SetOption("SqTestFlag", no);
        EXPECT_FALSE(sp_GetBoolOption("SqTestFlag", nullptr)) << no;
    }
    sp_SetOption("SqTestFlag", nullptr);
    MakeOption trueDefault("tests/OptionsTest", 45, YString("SqTestFlag2"), true, OptionCacheStatus(0), false);
    EXPECT_TRUE(sp_GetBoolOption("SqTestFlag2", nullptr));
}

TEST_F(IniFiles, ReadsValuesFromSeveralSections)
{
    writeFileBytes(path("startup.ini"),
                   "\xEF\xBB\xBF; a comment\n"
                   "[General]\r\n"
                   "Name = Suite\r\n"
                   "[PluginDirs]\n"
                   "# another comment\n"
                   "  models = %EXEPATH%/../plugins ; /opt/models  \n"
                   "quoted=\"  spaced  \"\n"
                   "[pluginDIRS2]\n"
                   "models=other\n"
                   "novalue\n");
    YString out("untouched");
    EXPECT_TRUE(sp_GetPrivateProfileString("General", "name", path("startup.ini").c_str(), &out));
    EXPECT_EQ(out, "Suite");
    EXPECT_TRUE(sp_GetPrivateProfileString("plugindirs", "MODELS", path("startup.ini").c_str(), &out));
    EXPECT_EQ(out, "%EXEPATH%/../plugins ; /opt/models");
    EXPECT_TRUE(sp_GetPrivateProfileString("PluginDirs", "quoted", path("startup.ini").c_str(), &out));
    EXPECT_EQ(out, "  spaced  ");
    EXPECT_TRUE(sp_GetPrivateProfileString("PluginDirs2", "models", path("startup.ini").c_str(), &out));
    EXPECT_EQ(out, "other");
    out = "untouched";
    EXPECT_FALSE(sp_GetPrivateProfileString("General", "missing", path("startup.ini").c_str(), &out));
    EXPECT_FALSE(sp_GetPrivateProfileString("Nowhere", "name", path("startup.ini").c_str(), &out));
    EXPECT_FALSE(sp_GetPrivateProfileString("PluginDirs2", "novalue", path("startup.ini").c_str(), &out));
    EXPECT_EQ(out, "untouched");
}

TEST_F(IniFiles, MissingOrMalformedFilesGiveFalse)
{
    YString out("untouched");
    EXPECT_FALSE(sp_GetPrivateProfileString("A", "b", path("missing.ini").c_str(), &out));
    writeFileBytes(path("bad.ini"), std::string("\x00\x01[unclosed\n=novalue\n\xFF\xFE", 20));
    EXPECT_FALSE(sp_GetPrivateProfileString("unclosed", "x", path("bad.ini").c_str(), &out));
    EXPECT_FALSE(sp_GetPrivateProfileString(nullptr, "x", path("bad.ini").c_str(), &out));
    EXPECT_EQ(out, "untouched");
}

#ifndef _WIN32
// A FIFO that no one writes, named as the file, is refused at once instead of waited on; so is an
// endless device.
TEST_F(IniFiles, AFifoOrADeviceIsRefusedWithoutWaiting)
{
    ASSERT_EQ(::mkfifo(path("startup.ini").c_str(), 0600), 0);
    YString out("untouched");
    EXPECT_FALSE(sp_GetPrivateProfileString("PluginDirs", "models", path("startup.ini").c_str(), &out));
    EXPECT_FALSE(sp_GetPrivateProfileString("PluginDirs", "models", "/dev/zero", &out));
    EXPECT_EQ(out, "untouched");
}
#endif

TEST(SystemValues, AreEnvironmentVariables)
{
    qputenv("SQ_TEST_HELPPATH", QByteArray("/usr/share/suite/help"));
    bool found = false;
    EXPECT_EQ(sp_GetSystemValuePath(YString("SQ_TEST_HELPPATH"), &found), "/usr/share/suite/help");
    EXPECT_TRUE(found);
    EXPECT_EQ(sp_GetSystemValuePath(YString("SQ_TEST_NOT_SET"), &found), "");
    EXPECT_FALSE(found);
}

TEST(Version, ComesFromTheBuildAndCanBeReplaced)
{
    KalvontaVersionInfo info;
    sp_GetVersionValues(&info);
    EXPECT_EQ(info.release, SUPPORTQT_TEST_VERSION_MAJOR);
    EXPECT_EQ(info.subRelease, SUPPORTQT_TEST_VERSION_MINOR * 10 + SUPPORTQT_TEST_VERSION_PATCH);
    EXPECT_EQ(info.signatureCheck, 0);
    sp_SetOption("SignatureCheck", "2");
    sp_GetVersionValues(&info);
    EXPECT_EQ(info.signatureCheck, 2);
    sp_SetOption("SignatureCheck", nullptr);
    KalvontaVersionInfo custom;
    custom.release = 9;
    custom.subRelease = 42;
    sp_SetVersionValues(&custom);
    sp_GetVersionValues(&info);
    EXPECT_EQ(info.release, 9);
    EXPECT_EQ(info.subRelease, 42);
    sp_SetVersionValues(nullptr);
    sp_GetVersionValues(&info);
    EXPECT_EQ(info.release, SUPPORTQT_TEST_VERSION_MAJOR);
}

class Signatures : public TempDirTest {};

TEST_F(Signatures, AcceptModulesAndRejectOtherFiles)
{
#ifdef Q_OS_WIN
    // Authenticode: the test build's library is not signed, and a text file is no signable subject.
    EXPECT_EQ(static_cast<unsigned>(sp_VerifyEmbeddedSignature(SUPPORTQT_TEST_LIBRARY_PATH)), 0x800B0100u); // TRUST_E_NOSIGNATURE
    writeFileBytes(path("fake.so"), "not a library");
    EXPECT_EQ(static_cast<unsigned>(sp_VerifyEmbeddedSignature(path("fake.so").c_str())), 0x800B0003u); // TRUST_E_SUBJECT_FORM_UNKNOWN
#else
    EXPECT_EQ(sp_VerifyEmbeddedSignature(SUPPORTQT_TEST_LIBRARY_PATH), 0);
    writeFileBytes(path("fake.so"), "not a library");
    EXPECT_EQ(sp_VerifyEmbeddedSignature(path("fake.so").c_str()), 2);
    // A FIFO with no writer, and a folder, are no modules; the FIFO is not waited on.
    ASSERT_EQ(mkfifo(path("fifo.so").c_str(), 0600), 0);
    EXPECT_EQ(sp_VerifyEmbeddedSignature(path("fifo.so").c_str()), 2);
    EXPECT_EQ(sp_VerifyEmbeddedSignature(path("").c_str()), 2);
#endif
    EXPECT_EQ(sp_VerifyEmbeddedSignature(path("missing.so").c_str()), -1);
    EXPECT_EQ(sp_VerifyEmbeddedSignature(nullptr), -1);
}
