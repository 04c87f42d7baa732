// FileServicesTest.cpp - UTF-8 file functions, temporary files and path services.
#include "FileServices.h"
#include "TestHelpers.h"
#include "../../SupportDll/Source/FolderOf_p.h"
#include "../../SupportDll/Source/SystemPath_p.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <vector>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <stdlib.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

class FileServices : public TempDirTest {
protected:
    QStringList entries() const
    {
        return QDir(QString::fromStdString(m_dir)).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }
};

namespace {
// The error code on each system: the first on POSIX systems, the second from the Windows runtime.
constexpr int posixOrWindows(int posix, int windows)
{
#ifdef _WIN32
    return (void)posix, windows;
#else
    return (void)windows, posix;
#endif
}

// What each system's runtime gives for a folder opened as a file to write.
#ifdef _WIN32
constexpr int kFolderOpenError = EACCES;
#else
constexpr int kFolderOpenError = EISDIR;
#endif
} // namespace

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

// Files in a folder whose path passes the old limit of 260 characters are made, written, appended to,
// found, measured, renamed, opened and deleted as any other.
TEST_F(FileServices, FilesPastTheOldPathLimitWorkAsAnyOther)
{
    QString folder = QString::fromStdString(m_dir);
    for (const char letter : {'a', 'b', 'c'})
        folder += QLatin1Char('/') + QString(100, QLatin1Char(letter));
    ASSERT_TRUE(QDir().mkpath(folder));
    const std::string dir = folder.toStdString(), name = dir + "/deep.cir", moved = dir + "/moved.cir";
    ASSERT_GT(dir.size(), 300u);
    FILE* f = fopen_utf8(name.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fputs("12345", f);
    std::fclose(f);
    // A text mode that appends is the runtime's own open on Windows.
    FILE* a = fopen_utf8(name.c_str(), "a");
    ASSERT_NE(a, nullptr);
    std::fputs("6", a);
    std::fclose(a);
    EXPECT_TRUE(sp_ExistFile(name.c_str()));
    EXPECT_TRUE(sp_IsDirectory(dir.c_str()));
    EXPECT_FALSE(sp_IsDirectory(name.c_str()));
    EXPECT_EQ(sp_GetFileSize64(name.c_str()), 6);
    EXPECT_LE(std::llabs(sp_GetFileModifiedTime(YString(name.c_str())) - static_cast<long long>(std::time(nullptr))), 5);
    EXPECT_EQ(rename_utf8(name.c_str(), moved.c_str()), 0);
    EXPECT_FALSE(sp_ExistFile(name.c_str()));
    long long size = 0;
    FILE* r = sp_OpenRegularFile(moved.c_str(), 100, &size);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(size, 6);
    char text[8] = {};
    EXPECT_EQ(std::fread(text, 1, sizeof text, r), 6u);
    std::fclose(r);
    EXPECT_STREQ(text, "123456");
    EXPECT_EQ(unlink_utf8(moved.c_str()), 0);
    EXPECT_FALSE(sp_ExistFile(moved.c_str()));
    EXPECT_TRUE(QDir(folder).isEmpty());
}

// A symbolic link's size and time are its target's, on each system, as a program reading through it sees.
TEST_F(FileServices, ALinksSizeAndTimeAreItsTargets)
{
    const std::string target = path("target.cir"), link = path("link.cir");
    writeFileBytes(target, std::string(1234, 'x'));
    const long long old = 946684800; // 2000-01-01 00:00:00 UTC, long before the link is made
#ifdef _WIN32
    const HANDLE h = CreateFileW(QString::fromStdString(target).toStdWString().c_str(), FILE_WRITE_ATTRIBUTES, 0,
                                 nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    const unsigned long long ticks = (static_cast<unsigned long long>(old) + 11644473600ULL) * 10000000ULL;
    FILETIME written{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
    ASSERT_TRUE(SetFileTime(h, nullptr, nullptr, &written));
    CloseHandle(h);
    // Unprivileged creation needs the system's developer mode; without it the case cannot be made here.
    // (Wine answers true and makes no link.)
    const std::wstring linkName = QString::fromStdString(link).toStdWString();
    if (!CreateSymbolicLinkW(linkName.c_str(), QString::fromStdString(target).toStdWString().c_str(), 0x2) ||
        GetFileAttributesW(linkName.c_str()) == INVALID_FILE_ATTRIBUTES)
        GTEST_SKIP() << "this system makes no symbolic link for the test (error " << GetLastError() << ")";
#else
    const struct timespec times[2] = {{static_cast<time_t>(old), 0}, {static_cast<time_t>(old), 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, target.c_str(), times, 0), 0);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
#endif
    EXPECT_EQ(sp_GetFileSize64(link.c_str()), 1234);
    EXPECT_EQ(sp_GetFileModifiedTime(YString(link.c_str())), old);
    EXPECT_EQ(sp_GetFileModifiedTime(YString(target.c_str())), old);
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

// A rename that fails says why in errno, as the runtime's rename does.
TEST_F(FileServices, AFailedRenameSetsErrno)
{
    errno = 0;
    EXPECT_EQ(rename_utf8(path("missing.txt").c_str(), path("target.txt").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    writeFileBytes(path("present.txt"), "x");
    errno = 0;
    EXPECT_EQ(rename_utf8(path("present.txt").c_str(), path("no/such/folder.txt").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(readFileBytes(path("present.txt")), "x");
}

#ifdef _WIN32
// The text modes that append or update are the runtime's own: they write a line feed as CR LF and read
// CR LF as a line feed, and fail as the runtime fails; the handle is never inheritable, and the file may
// not be deleted while it is open.
TEST_F(FileServices, TextModesThatAppendOrUpdateOpenAsTheRuntimesDo)
{
    const std::string name = path("text.txt");
    writeFileBytes(name, "one\r\ntwo");
    FILE* f = fopen_utf8(name.c_str(), "a+t");
    ASSERT_NE(f, nullptr);
    DWORD flags = 0;
    ASSERT_TRUE(GetHandleInformation(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(f))), &flags));
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0u);
    std::fputs("\nthree\n", f);
    EXPECT_NE(unlink_utf8(name.c_str()), 0);
    std::fclose(f);
    EXPECT_EQ(readFileBytes(name), "one\r\ntwo\r\nthree\r\n");
    f = fopen_utf8(name.c_str(), "r+t");
    ASSERT_NE(f, nullptr);
    ASSERT_TRUE(GetHandleInformation(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(f))), &flags));
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0u);
    char text[32] = {};
    EXPECT_EQ(std::fread(text, 1, sizeof text - 1, f), 14u);
    EXPECT_STREQ(text, "one\ntwo\nthree\n");
    std::fclose(f);
    f = fopen_utf8(name.c_str(), "w+t");
    ASSERT_NE(f, nullptr);
    std::fputs("four\n", f);
    std::fclose(f);
    EXPECT_EQ(readFileBytes(name), "four\r\n");
    f = fopen_utf8(name.c_str(), "a");
    ASSERT_NE(f, nullptr);
    std::fputs("five\n", f);
    std::fclose(f);
    EXPECT_EQ(readFileBytes(name), "four\r\nfive\r\n");
    f = fopen_utf8(name.c_str(), "rb+");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    f = reinterpret_cast<FILE*>(1);
    EXPECT_EQ(fopen_s_utf8(&f, path("missing.txt").c_str(), "r+t"), ENOENT);
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(fopen_s_utf8(&f, path("no/such/file.txt").c_str(), "a+t"), ENOENT);
    EXPECT_EQ(fopen_s_utf8(&f, m_dir.c_str(), "w+t"), EACCES);
    EXPECT_FALSE(sp_ExistFile(path("missing.txt").c_str()));
}
#endif

// A file the library has open, as a reader holds a netlist, may still be renamed over, renamed and
// deleted, as on POSIX systems (editors save by renaming a new file over the old one). The open file reads
// on as it was, and nothing of it is left once it is closed.
TEST_F(FileServices, AFileOpenForReadingMayBeReplacedRenamedAndDeleted)
{
    writeFileBytes(path("open.cir"), "old");
    writeFileBytes(path("new.cir"), "new");
    FILE* f = fopen_utf8(path("open.cir").c_str(), "rb");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(rename_utf8(path("new.cir").c_str(), path("open.cir").c_str()), 0);
    EXPECT_EQ(readFileBytes(path("open.cir")), "new");
    EXPECT_FALSE(sp_ExistFile(path("new.cir").c_str()));
    char text[4] = {};
    EXPECT_EQ(std::fread(text, 1, 3, f), 3u);
    EXPECT_STREQ(text, "old");
    std::fclose(f);
    EXPECT_EQ(entries(), QStringList{"open.cir"});

    FILE* g = fopen_utf8(path("open.cir").c_str(), "r");
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(rename_utf8(path("open.cir").c_str(), path("moved.cir").c_str()), 0);
    EXPECT_EQ(readFileBytes(path("moved.cir")), "new");
    EXPECT_EQ(unlink_utf8(path("moved.cir").c_str()), 0);
    std::fclose(g);
    EXPECT_FALSE(sp_ExistFile(path("moved.cir").c_str()));
    EXPECT_FALSE(sp_ExistFile(path("open.cir").c_str()));
}

// A file is never moved over a folder, and a failed rename leaves both as they were.
TEST_F(FileServices, RenameOverAFolderFailsAndLeavesBoth)
{
    writeFileBytes(path("file.txt"), "text");
    ASSERT_TRUE(QDir(QString::fromStdString(m_dir)).mkdir("folder"));
    EXPECT_EQ(rename_utf8(path("file.txt").c_str(), path("folder").c_str()), -1);
    EXPECT_EQ(readFileBytes(path("file.txt")), "text");
    EXPECT_TRUE(sp_IsDirectory(path("folder").c_str()));
    EXPECT_EQ(entries(), (QStringList{"file.txt", "folder"}));
}

// The same for a file open for writing: what is written after it was renamed lands in it, under its
// new name.
TEST_F(FileServices, AFileOpenForWritingMayBeRenamed)
{
    FILE* f = fopen_utf8(path("out.txt").c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fputs("first ", f);
    std::fflush(f);
    EXPECT_EQ(rename_utf8(path("out.txt").c_str(), path("kept.txt").c_str()), 0);
    std::fputs("second", f);
    std::fclose(f);
    EXPECT_EQ(readFileBytes(path("kept.txt")), "first second");
    EXPECT_FALSE(sp_ExistFile(path("out.txt").c_str()));
}

// Each mode opens as the C runtime's does: "w" empties, "a" appends, "+" reads and writes, "r" of a
// missing file fails, and a text mode that is not binary still reads the bytes of a plain line.
TEST_F(FileServices, EveryModeOpensAsTheRuntimeDoes)
{
    const std::string name = path("modes.txt");
    FILE* f = fopen_utf8(name.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("one", f);
    std::fclose(f);
    f = fopen_utf8(name.c_str(), "ab");
    ASSERT_NE(f, nullptr);
    std::fputs("two", f);
    std::fclose(f);
    EXPECT_EQ(readFileBytes(name), "onetwo");
    f = fopen_utf8(name.c_str(), "r+b");
    ASSERT_NE(f, nullptr);
    std::fputs("ONE", f);
    std::fclose(f);
    EXPECT_EQ(readFileBytes(name), "ONEtwo");
    f = fopen_utf8(name.c_str(), "a+");
    ASSERT_NE(f, nullptr);
    std::fputs("3", f);
    std::fseek(f, 0, SEEK_SET);
    char text[8] = {};
    EXPECT_EQ(std::fread(text, 1, 7, f), 7u);
    EXPECT_STREQ(text, "ONEtwo3");
    std::fclose(f);
    f = fopen_utf8(name.c_str(), "w+b");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    EXPECT_EQ(readFileBytes(name), "");
    EXPECT_EQ(fopen_utf8(path("missing.txt").c_str(), "r+"), nullptr);
    EXPECT_FALSE(sp_ExistFile(path("missing.txt").c_str()));
    FILE* created = fopen_utf8(path("created.txt").c_str(), "a");
    ASSERT_NE(created, nullptr);
    std::fclose(created);
    EXPECT_TRUE(sp_ExistFile(path("created.txt").c_str()));
}

// An open that fails because the process has no stream or descriptor left fails as the runtime's does
// (EMFILE) and leaves the file as it was: "w" empties nothing, and no file is made.
TEST_F(FileServices, AnOpenWithoutAStreamLeftTouchesNothing)
{
    writeFileBytes(path("precious.txt"), "keep me");
    writeFileBytes(path("scratch.txt"), "x");
    // A low descriptor limit for the test's while: the runtime's own limit on Windows is 512 streams.
    std::optional<OpenFileLimit> limit(64);
#ifndef _WIN32
    ASSERT_TRUE(limit->lowered());
#endif
    std::vector<FILE*> held;
    while (held.size() < 4096) {
        FILE* f = fopen_utf8(path("scratch.txt").c_str(), "rb");
        if (!f)
            break;
        held.push_back(f);
    }
    errno = 0;
    FILE* emptied = fopen_utf8(path("precious.txt").c_str(), "wb");
    const int emptiedError = errno;
    errno = 0;
    FILE* made = fopen_utf8(path("fresh.txt").c_str(), "wb");
    const int madeError = errno;
    for (FILE* f : held)
        std::fclose(f);
    limit.reset();
    EXPECT_LT(held.size(), 4096u);
    EXPECT_EQ(emptied, nullptr);
    EXPECT_EQ(emptiedError, EMFILE);
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(madeError, EMFILE);
    EXPECT_EQ(readFileBytes(path("precious.txt")), "keep me");
    EXPECT_FALSE(sp_ExistFile(path("fresh.txt").c_str()));
}

// "w" empties a file it opens, and writes a device as it is.
TEST_F(FileServices, WriteModeEmptiesTheFile)
{
    writeFileBytes(path("long.txt"), "a longer text than what follows");
    FILE* f = fopen_utf8(path("long.txt").c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fputs("short", f);
    std::fclose(f);
    EXPECT_EQ(readFileBytes(path("long.txt")), "short");
    f = fopen_utf8(path("long.txt").c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    EXPECT_EQ(readFileBytes(path("long.txt")), "");
#ifdef _WIN32
    FILE* device = fopen_utf8("NUL", "wb");
#else
    FILE* device = fopen_utf8("/dev/null", "wb");
#endif
    ASSERT_NE(device, nullptr);
    EXPECT_GE(std::fputs("into nothing", device), 0);
    EXPECT_EQ(std::fclose(device), 0);
}

#ifdef _WIN32
// A mode without "b" or "t" opens in the runtime's default mode: text, where a line feed is written as
// CR LF, unless the program chose binary.
TEST_F(FileServices, AModeWithoutBOrTFollowsTheRuntimesDefault)
{
    FILE* f = fopen_utf8(path("text.txt").c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("line\n", f);
    std::fclose(f);
    EXPECT_EQ(readFileBytes(path("text.txt")), "line\r\n");
    const int before = _fmode;
    _fmode = _O_BINARY;
    f = fopen_utf8(path("binary.txt").c_str(), "w");
    _fmode = before;
    ASSERT_NE(f, nullptr);
    std::fputs("line\n", f);
    std::fclose(f);
    EXPECT_EQ(readFileBytes(path("binary.txt")), "line\n");
}
#endif

// The error codes are the C runtime's: a missing file or folder, a folder opened as a file, and an
// unknown mode.
TEST_F(FileServices, OpenFailuresGiveTheRuntimesErrorCodes)
{
    FILE* f = nullptr;
    EXPECT_EQ(fopen_s_utf8(&f, path("missing.txt").c_str(), "r"), ENOENT);
    EXPECT_EQ(fopen_s_utf8(&f, path("no/such/file.txt").c_str(), "wb"), ENOENT);
    EXPECT_EQ(fopen_s_utf8(&f, m_dir.c_str(), "wb"), kFolderOpenError);
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(fopen_s_utf8(&f, path("x.txt").c_str(), "q"), EINVAL);
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(fopen_s_utf8(&f, "", "rb"), posixOrWindows(ENOENT, EINVAL));
    EXPECT_EQ(fopen_s_utf8(&f, "", "wb"), posixOrWindows(ENOENT, EINVAL));
#ifdef _WIN32
    // The Windows runtime skips blanks before a mode.
    writeFileBytes(path("blank.txt"), "text");
    ASSERT_EQ(fopen_s_utf8(&f, path("blank.txt").c_str(), " rb"), 0);
    char text[5] = {};
    EXPECT_EQ(std::fread(text, 1, 4, f), 4u);
    EXPECT_STREQ(text, "text");
    std::fclose(f);
    // Modes the runtime does not document are refused before it sees them (it would end the program);
    // its own letters and encodings are its to read.
    for (const char* mode : {"rw", "rbt", "r++", "rbb", "rq", "r,ccs=latin1", "r,ccs=UTF-8x"}) {
        EXPECT_EQ(fopen_s_utf8(&f, path("blank.txt").c_str(), mode), EINVAL) << mode;
        EXPECT_EQ(f, nullptr);
    }
    for (const char* mode : {"rN", "r+bc"}) {
        EXPECT_EQ(fopen_s_utf8(&f, path("blank.txt").c_str(), mode), 0) << mode;
        ASSERT_NE(f, nullptr);
        std::fclose(f);
    }
#else
    EXPECT_EQ(fopen_s_utf8(&f, path("x.txt").c_str(), " rb"), EINVAL);
#endif
}

// A name that is not valid UTF-8 names exactly its bytes where names are bytes, and no file where they
// are UTF-16: never the file whose name has U+FFFD in place of the bad bytes. (The files are made and read
// through the functions under test, since Qt maps file names through the locale.)
TEST_F(FileServices, ANameThatIsNotUtf8NeverNamesAnotherFile)
{
    const std::string replaced = path("a\xEF\xBF\xBD.txt");
    FILE* f = fopen_utf8(replaced.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fputs("keep", f);
    std::fclose(f);
    const std::string bad = path("a\xFF.txt");
    EXPECT_FALSE(sp_ExistFile(bad.c_str()));
    EXPECT_EQ(sp_GetFileSize64(bad.c_str()), -1);
    EXPECT_LT(sp_GetFileModifiedTime(YString(bad.c_str())), 0);
    EXPECT_EQ(unlink_utf8(bad.c_str()), -1);
    EXPECT_EQ(rename_utf8(bad.c_str(), path("b.txt").c_str()), -1);
    EXPECT_FALSE(sp_ExistFile(path("b.txt").c_str()));
    f = reinterpret_cast<FILE*>(1);
    EXPECT_EQ(fopen_s_utf8(&f, bad.c_str(), "rb"), posixOrWindows(ENOENT, EINVAL));
    EXPECT_EQ(f, nullptr);
    // A rename to such a name, and a file made under one: the bytes themselves on POSIX, refused on
    // Windows.
    const std::string badTarget = path("c\xFE.txt"), badNew = path("d\xC0.txt");
    EXPECT_EQ(rename_utf8(replaced.c_str(), badTarget.c_str()), posixOrWindows(0, -1));
    EXPECT_EQ(fopen_s_utf8(&f, badNew.c_str(), "wb"), posixOrWindows(0, EINVAL));
    if (f)
        std::fclose(f);
    EXPECT_EQ(sp_ExistFile(replaced.c_str()), posixOrWindows(false, true));
    EXPECT_EQ(sp_ExistFile(badTarget.c_str()), posixOrWindows(true, false));
    EXPECT_EQ(sp_ExistFile(badNew.c_str()), posixOrWindows(true, false));
    EXPECT_EQ(sp_GetFileSize64((posixOrWindows(true, false) ? badTarget : replaced).c_str()), 4);
#ifdef _WIN32
    EXPECT_EQ(entries(), QStringList{QString::fromUtf8("a\xEF\xBF\xBD.txt")});
#else
    // Names that are no UTF-8 are removed by their bytes: the folder's removal goes through names in
    // UTF-8, which cannot name them.
    EXPECT_EQ(unlink_utf8(badTarget.c_str()), 0);
    EXPECT_EQ(unlink_utf8(badNew.c_str()), 0);
#endif
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

#ifdef _WIN32
namespace {
// A folder of about `length` characters on drive C that does not exist.
std::string missingFolder(size_t length)
{
    std::string folder = "C:\\missing-";
    folder.resize(length, 'x');
    return folder;
}

bool isAbsoluteWindowsPath(const YString& path)
{
    const std::string s = path.str();
    return s.size() >= 3 && ((s[0] >= 'A' && s[0] <= 'Z') || (s[0] >= 'a' && s[0] <= 'z')) && s[1] == ':' &&
           (s[2] == '/' || s[2] == '\\');
}
} // namespace

// A temporary folder near the system's path limit that does not exist gives no file, and no crash.
TEST(TempFiles, AMissingFolderAtThePathLimitGivesNoFile)
{
    ScopedTempFolder setting(missingFolder(258));
    EXPECT_EQ(sp_GetTempFile(), "");
}

// A temporary folder the system refuses as too long: the Windows folder's "Temp" instead, an absolute
// folder, and never the current one; a temporary file goes there.
TEST(TempFiles, AFolderTooLongForTheSystemFallsBackToAnAbsoluteFolder)
{
    ScopedTempFolder setting(missingFolder(300));
    const YString dir = sp_GetTempPath();
    EXPECT_TRUE(isAbsoluteWindowsPath(dir)) << dir.c_str();
    EXPECT_TRUE(dir.endsWith("/Temp")) << dir.c_str();
    const YString file = sp_GetTempFile();
    ASSERT_FALSE(file.isEmpty());
    EXPECT_TRUE(file.beginsWith((dir.str() + "/kv").c_str())) << file.c_str();
    EXPECT_TRUE(sp_ExistFile(file.c_str()));
    EXPECT_EQ(unlink_utf8(file.c_str()), 0);
}

// Temporary files in the folder that TMP names: distinct, existing, empty files named kv*.tmp there.
TEST_F(FileServices, TemporaryFilesGoToTheFolderNamedByTmp)
{
    const std::string folder = QDir::toNativeSeparators(QString::fromStdString(m_dir)).toStdString();
    {
        ScopedTempFolder setting(folder);
        const YString a = sp_GetTempFile(), b = sp_GetTempFile();
        EXPECT_NE(a, b);
        for (const YString& file : {a, b}) {
            const QFileInfo info(toQs(file));
            EXPECT_EQ(info.absolutePath(), QString::fromStdString(m_dir)) << file.c_str();
            EXPECT_TRUE(info.fileName().startsWith(QLatin1String("kv"))) << file.c_str();
            EXPECT_TRUE(info.fileName().endsWith(QLatin1String(".tmp"))) << file.c_str();
            EXPECT_TRUE(info.isFile()) << file.c_str();
            EXPECT_EQ(sp_GetFileSize64(file.c_str()), 0);
        }
        EXPECT_EQ(entries().size(), 2);
    }
}

// Temporary files in folders of 250 and 258 characters, where a file's name passes the old path limit
// of 260 characters: the file's whole name, or no file (never a cut name, nor a crash).
TEST_F(FileServices, TemporaryFilesInAFolderNearThePathLimit)
{
    for (const size_t length : {250u, 258u}) {
        std::string folder = QDir::toNativeSeparators(QString::fromStdString(m_dir)).toStdString() + "\\";
        folder.resize(length, static_cast<char>('a' + length % 26));
        ASSERT_TRUE(CreateDirectoryA(folder.c_str(), nullptr)) << length;
        ScopedTempFolder setting(folder);
        const YString file = sp_GetTempFile();
        if (!file.isEmpty()) {
            EXPECT_TRUE(file.beginsWith((sp_ConvertLocalToUnix(YString(folder.c_str())).str() + "/kv").c_str())) << file.c_str();
            EXPECT_TRUE(file.endsWith(".tmp")) << file.c_str();
            EXPECT_TRUE(sp_ExistFile(file.c_str())) << file.c_str();
            EXPECT_EQ(sp_GetFileSize64(file.c_str()), 0);
        }
    }
}
#endif

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

// The folder of an executable's path keeps a root's separator: without it "C:" would name the current
// folder of drive C.
TEST(Paths, AnExecutablesFolderKeepsARootsSeparator)
{
    using platform::folderOf;
    EXPECT_EQ(folderOf(std::wstring(L"C:\\x.exe"), L"\\/", true), L"C:\\");
    EXPECT_EQ(folderOf(std::wstring(L"C:/x.exe"), L"\\/", true), L"C:/");
    EXPECT_EQ(folderOf(std::wstring(L"\\\\?\\D:\\x.exe"), L"\\/", true), L"\\\\?\\D:\\");
    EXPECT_EQ(folderOf(std::wstring(L"C:\\suite\\bin\\x.exe"), L"\\/", true), L"C:\\suite\\bin");
    EXPECT_EQ(folderOf(std::wstring(L"\\\\server\\share\\x.exe"), L"\\/", true), L"\\\\server\\share");
    EXPECT_EQ(folderOf(std::wstring(L"x.exe"), L"\\/", true), L".");
    EXPECT_EQ(folderOf(std::string("/x"), "/", false), "/");
    EXPECT_EQ(folderOf(std::string("/opt/suite/bin/x"), "/", false), "/opt/suite/bin");
    EXPECT_EQ(folderOf(std::string("/a:/x"), "/", false), "/a:");
    EXPECT_EQ(folderOf(std::string("x"), "/", false), ".");
}

#ifdef _WIN32
// Paths whose absolute form has 248 characters or more go to the system in the extended-length form,
// made absolute and normalized as the system reads the ordinary form; shorter ones, and those already in
// a device or extended form, go as they are.
TEST(Paths, LongPathsGoToTheSystemInTheExtendedForm)
{
    using platform::systemPath;
    const std::wstring d(240, L'd'), e(20, L'e');
    EXPECT_EQ(systemPath(L"C:\\a\\b.txt"), L"C:\\a\\b.txt");
    EXPECT_EQ(systemPath(L"b.txt"), L"b.txt");
    EXPECT_EQ(systemPath(L"NUL"), L"NUL");
    const std::wstring below = L"C:\\" + std::wstring(244, L'x');
    ASSERT_EQ(below.size(), 247u);
    EXPECT_EQ(systemPath(below), below);
    EXPECT_EQ(systemPath(below + L"y"), L"\\\\?\\" + below + L"y");
    EXPECT_EQ(systemPath(L"C:/" + d + L"/" + e + L"/../f.txt"), L"\\\\?\\C:\\" + d + L"\\f.txt");
    // A long path that names a short one goes in that short form.
    EXPECT_EQ(systemPath(L"C:/" + d + L"/../" + e + L"/./f.txt"), L"C:\\" + e + L"\\f.txt");
    EXPECT_EQ(systemPath(L"\\\\server\\share\\" + d + L"\\f.txt"), L"\\\\?\\UNC\\server\\share\\" + d + L"\\f.txt");
    EXPECT_EQ(systemPath(L"//server/share/" + d + L"/f.txt"), L"\\\\?\\UNC\\server\\share\\" + d + L"\\f.txt");
    // The forms the system takes exactly as written stay as they are; other device forms are normalized.
    const std::wstring extended = L"\\\\?\\C:\\" + d + L"\\..\\f.txt", nt = L"\\??\\C:\\" + d + L"\\..\\f.txt";
    EXPECT_EQ(systemPath(extended), extended);
    EXPECT_EQ(systemPath(nt), nt);
    EXPECT_EQ(systemPath(L"\\\\.\\C:\\" + d + L"\\" + e + L"\\..\\f.txt"), L"\\\\?\\C:\\" + d + L"\\f.txt");
    EXPECT_EQ(systemPath(L"//?/C:/" + d + L"/" + e + L"/../f.txt"), L"\\\\?\\C:\\" + d + L"\\f.txt");
    // A relative path is taken from the current folder, and the limit counts the whole path.
    std::vector<wchar_t> buffer(32768);
    const DWORD n = GetCurrentDirectoryW(static_cast<DWORD>(buffer.size()), buffer.data());
    ASSERT_GT(n, 2u);
    std::wstring current(buffer.data(), n);
    if (current.back() != L'\\')
        current += L'\\';
    ASSERT_EQ(current[1], L':') << "the tests run from a folder on a drive";
    const std::wstring relative = std::wstring(platform::kExtendedPathFrom - current.size(), L'r') + L".txt";
    EXPECT_LT(relative.size(), platform::kExtendedPathFrom);
    EXPECT_EQ(systemPath(relative), L"\\\\?\\" + current + relative);
    const std::wstring shorter = relative.substr(5);
    EXPECT_EQ(systemPath(shorter), shorter);
    // A path from the root goes on the current folder's drive.
    EXPECT_EQ(systemPath(L"\\" + d + L"\\f.txt"), L"\\\\?\\" + current.substr(0, 3) + d + L"\\f.txt");
}
#endif

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
    // A root keeps its separator: without it "C:" would name drive C's current folder.
    sp_SplitPath(YString("C:\\y.dll"), &dir, &name);
    EXPECT_EQ(dir, "C:\\");
    EXPECT_EQ(name, "y.dll");
    sp_SplitPath(YString("C:/y.dll"), &dir, &name);
    EXPECT_EQ(dir, "C:/");
    sp_SplitPath(YString("/y.so"), &dir, &name);
    EXPECT_EQ(dir, "/");
    EXPECT_EQ(name, "y.so");
    sp_SplitPath(YString("C:y.dll"), &dir, &name); // drive C's current folder: no separator to split at
    EXPECT_EQ(dir, "");
    EXPECT_EQ(name, "C:y.dll");
    EXPECT_EQ(sp_ComparePaths("/a/b", "/a/b/"), 0);
    EXPECT_NE(sp_ComparePaths("/a/b", "/a/c"), 0);
    // Runs of separators are one, and "." parts name nothing; ".." is kept, a drive's root too.
    EXPECT_EQ(sp_ComparePaths("dir//x.so", "dir/x.so"), 0);
    EXPECT_EQ(sp_ComparePaths("/a/./b", "/a/b"), 0);
    EXPECT_EQ(sp_ComparePaths("./a", "a"), 0);
    EXPECT_EQ(sp_ComparePaths("/a\\b\\", "/a/b"), 0);
    EXPECT_NE(sp_ComparePaths("/a/../b", "/b"), 0);
    EXPECT_NE(sp_ComparePaths("C:/", "C:"), 0);
    EXPECT_EQ(sp_ComparePaths("C:\\", "C:/"), 0);
    EXPECT_NE(sp_ComparePaths(".", ""), 0);
#ifdef _WIN32
    EXPECT_NE(sp_ComparePaths("//server/share", "/server/share"), 0); // a share is no folder of the root
#else
    EXPECT_EQ(sp_ComparePaths("//a", "/a"), 0);
#endif
    EXPECT_EQ(sp_CaseSensitiveFiles(), sp_ComparePaths("/A", "/a") != 0);
    // Where names ignore case, they ignore it for every letter, not only for ASCII ones; bytes that are
    // no UTF-8 leave the ASCII letters around them folded.
#ifdef _WIN32
    EXPECT_EQ(sp_ComparePaths("C:/\xC3\x84rger.dll", "c:/\xC3\xA4RGER.DLL"), 0);
    EXPECT_EQ(YString("C:/\xC3\x84rger.dll").comparePath(YString("c:/\xC3\xA4rger.dll")), 0);
    EXPECT_EQ(sp_ComparePaths("C:/A\xFF/B", "c:/a\xFF/b"), 0);
    EXPECT_NE(sp_ComparePaths("C:/A\xFF/B", "c:/a\xFE/b"), 0);
#else
    EXPECT_NE(sp_ComparePaths("/\xC3\x84rger.so", "/\xC3\xA4rger.so"), 0);
#endif
#if defined(_WIN32)
    EXPECT_STREQ(sp_GetSharedLibraryFilter(), "*.dll");
#elif !defined(__APPLE__)
    EXPECT_STREQ(sp_GetSharedLibraryFilter(), "*.so");
#endif
}
