// FileServicesTest.cpp - UTF-8 file functions, temporary files and path services.
#include "FileServices.h"
#include "TestHelpers.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <cstdlib>
#include <ctime>

class FileServices : public TempDirTest {};

TEST_F(FileServices, OpensQueriesAndDeletesFilesWithNonAsciiNames)
{
    std::string name = path("r\xC3\xA9sum\xC3\xA9 file.cir");
    FILE* f = fopen_utf8(name.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fputs("12345", f);
    std::fclose(f);
    EXPECT_TRUE(sp_ExistFile(name.c_str()));
    EXPECT_FALSE(sp_IsDirectory(name.c_str()));
    EXPECT_TRUE(sp_IsDirectory(m_dir.c_str()));
    EXPECT_EQ(sp_GetFileSize64(name.c_str()), 5);
    long long now = static_cast<long long>(std::time(nullptr));
    long long modified = sp_GetFileModifiedTime(YString(name.c_str()));
    EXPECT_LE(std::llabs(modified - now), 5);
    FILE* g = nullptr;
    EXPECT_EQ(fopen_s_utf8(&g, name.c_str(), "rb"), 0);
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(sp_GetFileModifiedTime(g), modified);
    std::fclose(g);
    EXPECT_EQ(unlink_utf8(name.c_str()), 0);
    EXPECT_FALSE(sp_ExistFile(name.c_str()));
}

TEST_F(FileServices, FailuresAreResults)
{
    std::string missing = path("no/such/file.txt");
    EXPECT_EQ(fopen_utf8(missing.c_str(), "rb"), nullptr);
    FILE* f = reinterpret_cast<FILE*>(1);
    EXPECT_EQ(fopen_s_utf8(&f, missing.c_str(), "rb"), ENOENT);
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(unlink_utf8(missing.c_str()), -1);
    EXPECT_EQ(sp_GetFileSize64(missing.c_str()), -1);
    EXPECT_LT(sp_GetFileModifiedTime(YString(missing.c_str())), 0);
    EXPECT_FALSE(sp_ExistFile(nullptr));
    EXPECT_FALSE(sp_ExistFile(""));
    EXPECT_EQ(fopen_utf8(nullptr, "rb"), nullptr);
    EXPECT_LT(sp_GetFileModifiedTime(static_cast<FILE*>(nullptr)), 0);
}

TEST_F(FileServices, RenameReplacesTheTarget)
{
    writeFileBytes(path("a"), "new");
    writeFileBytes(path("b"), "old");
    EXPECT_EQ(rename_utf8(path("a").c_str(), path("b").c_str()), 0);
    EXPECT_EQ(readFileBytes(path("b")), "new");
    EXPECT_FALSE(sp_ExistFile(path("a").c_str()));
}

TEST(TempFiles, AreFreshWritableAndDistinct)
{
    YString dir = sp_GetTempPath();
    EXPECT_TRUE(sp_IsDirectory(dir.c_str()));
    EXPECT_FALSE(dir.endsWith("/"));
    YString a = sp_GetTempFile();
    YString b = sp_GetTempFile();
    ASSERT_FALSE(a.isEmpty());
    EXPECT_NE(a, b);
    EXPECT_TRUE(a.beginsWith(dir.c_str()));
    FILE* f = fopen_utf8(a.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    EXPECT_EQ(unlink_utf8(a.c_str()), 0);
    EXPECT_EQ(unlink_utf8(b.c_str()), 0);
}

TEST(Paths, ExeDirIsTheTestExecutablesFolder)
{
    QString expected = QFileInfo(QCoreApplication::applicationFilePath()).canonicalPath();
    EXPECT_EQ(toQs(sp_GetExeDir()), expected);
    sp_SetExeDir(YString("/opt/suite/bin/"));
    EXPECT_EQ(sp_GetExeDir(), "/opt/suite/bin");
    YString out;
    EXPECT_TRUE(sp_TranslateSystemPath("%EXEPATH%/startup.ini", &out));
    EXPECT_EQ(out, "/opt/suite/bin/startup.ini");
    sp_SetExeDir(YString());
    EXPECT_EQ(toQs(sp_GetExeDir()), expected);
}

TEST(Paths, TranslateExpandsEnvironmentAndKeepsUnknownPlaceholders)
{
    qputenv("SQ_TEST_ROOT", QByteArray("/data/models"));
    YString out;
    EXPECT_TRUE(sp_TranslateSystemPath("%SQ_TEST_ROOT%/lib", &out));
    EXPECT_EQ(out, "/data/models/lib");
    EXPECT_FALSE(sp_TranslateSystemPath("%SQ_NOT_SET_ANYWHERE%/x", &out));
    EXPECT_EQ(out, "%SQ_NOT_SET_ANYWHERE%/x");
    EXPECT_TRUE(sp_TranslateSystemPath("100% sure", &out));
    EXPECT_EQ(out, "100% sure");
    EXPECT_FALSE(sp_TranslateSystemPath(nullptr, &out));
}

TEST(Paths, CleanPathResolvesDotsAndSeparators)
{
    EXPECT_EQ(sp_CleanPath(YString("/a/b/../c/./d//")), "/a/c/d");
    EXPECT_EQ(sp_CleanPath(YString("/opt/bin/../plugins/")), "/opt/plugins");
    EXPECT_EQ(sp_CleanPath(YString("C:\\suite\\bin\\..\\plugins")), "C:/suite/plugins");
    EXPECT_EQ(sp_CleanPath(YString("../x/../../y")), "../../y");
    EXPECT_EQ(sp_CleanPath(YString("/..")), "/");
    EXPECT_EQ(sp_CleanPath(YString("a/..")), ".");
    EXPECT_EQ(sp_CleanPath(YString("//server/share/x")), "//server/share/x");
    EXPECT_EQ(sp_CleanPath(YString("")), "");
}

TEST(Paths, ConvertSplitCompare)
{
    EXPECT_EQ(sp_ConvertLocalToUnix(YString("C:\\a\\b")), "C:/a/b");
    YString dir, name;
    sp_SplitPath(YString("/plugins/libfoo.so"), &dir, &name);
    EXPECT_EQ(dir, "/plugins");
    EXPECT_EQ(name, "libfoo.so");
    sp_SplitPath(YString("foo.dll"), &dir, &name);
    EXPECT_EQ(dir, "");
    EXPECT_EQ(name, "foo.dll");
    sp_SplitPath(YString("C:\\x\\y.dll"), &dir, nullptr);
    EXPECT_EQ(dir, "C:\\x");
    EXPECT_EQ(sp_ComparePaths("/a/b", "/a/b/"), 0);
    EXPECT_NE(sp_ComparePaths("/a/b", "/a/c"), 0);
    EXPECT_EQ(sp_CaseSensitiveFiles(), sp_ComparePaths("/A", "/a") != 0);
#if defined(_WIN32)
    EXPECT_STREQ(sp_GetSharedLibraryFilter(), "*.dll");
#elif !defined(__APPLE__)
    EXPECT_STREQ(sp_GetSharedLibraryFilter(), "*.so");
#endif
}
