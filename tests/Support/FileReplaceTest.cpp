// FileReplaceTest.cpp - replacing a file as an editor saves it: complete or not at all, through links,
// in place for devices and in read-only folders, with the old permissions, a new file's from the mask.
#include "FileReplace.h"
#include "FileServices.h"
#include "NetlistStream.h"
#include "TestHelpers.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <cstdio>

#include <stdexcept>
#include <string>
#include <vector>

#ifdef Q_OS_WIN
#include <windows.h>

#include <aclapi.h>
#include <sddl.h>
#endif

#ifndef Q_OS_WIN
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#endif

namespace {

// A writer that writes `text` to the path it is given and reports success, or fails after writing half.
bool writeText(const std::string& text, const YString& pathToWrite, bool succeed = true)
{
    QFile file(toQs(pathToWrite));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    const std::string part = succeed ? text : text.substr(0, text.size() / 2);
    const bool written = file.write(part.data(), static_cast<qint64>(part.size())) == static_cast<qint64>(part.size());
    return written && succeed;
}

bool replace(const std::string& path, const std::string& text, bool succeed = true)
{
    return sp_ReplaceFileWith(YString(path.c_str()), [&](const YString& to) { return writeText(text, to, succeed); });
}

} // namespace

class FileReplace : public TempDirTest {
protected:
    QStringList entries() const
    {
        return QDir(QString::fromStdString(m_dir)).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }
};

TEST_F(FileReplace, NewAndExistingFilesGetTheWholeContent)
{
    EXPECT_TRUE(replace(path("new.txt"), "first\n"));
    EXPECT_EQ(readFileBytes(path("new.txt")), "first\n");
    EXPECT_TRUE(replace(path("new.txt"), "second, longer\n"));
    EXPECT_EQ(readFileBytes(path("new.txt")), "second, longer\n");
    EXPECT_EQ(entries(), QStringList{"new.txt"});
}

// A netlist that a reader holds open is replaced all the same, as an editor saves it while a simulation
// reads it; the reader reads on from the old content, which goes when the reader is done.
TEST_F(FileReplace, ANetlistThatAReaderHoldsOpenIsReplaced)
{
    writeFileBytes(path("held.cir"), "R1 a b 1k\nR2 b c 2k\n");
    {
        SpiceStream reader(path("held.cir").c_str(), SpiceLanguageNative);
        YString line;
        ASSERT_TRUE(reader.gets(&line, nullptr, nullptr, nullptr));
        EXPECT_STREQ(line.c_str(), "R1 a b 1k");
        EXPECT_TRUE(replace(path("held.cir"), "C1 a 0 1p\n"));
        EXPECT_EQ(readFileBytes(path("held.cir")), "C1 a 0 1p\n");
        ASSERT_TRUE(reader.gets(&line, nullptr, nullptr, nullptr));
        EXPECT_STREQ(line.c_str(), "R2 b c 2k");
        EXPECT_FALSE(reader.gets(&line, nullptr, nullptr, nullptr));
    }
    EXPECT_EQ(entries(), QStringList{"held.cir"});
}

TEST_F(FileReplace, AFailedWriteLeavesThePreviousFileAndNoTemporaryFile)
{
    writeFileBytes(path("precious.txt"), "hours of work\n");
    EXPECT_FALSE(replace(path("precious.txt"), "a new text that fails half way\n", false));
    EXPECT_EQ(readFileBytes(path("precious.txt")), "hours of work\n");
    EXPECT_FALSE(replace(path("never.txt"), "x", false));
    EXPECT_EQ(entries(), QStringList{"precious.txt"});
    // A writer that throws half way has failed too, and leaves nothing behind.
    const auto throwing = [](const YString& to) -> bool {
        writeText("half of it", to, false);
        throw std::runtime_error("the writer gave up");
    };
    EXPECT_FALSE(sp_ReplaceFileWith(YString(path("precious.txt").c_str()), throwing));
    EXPECT_FALSE(sp_ReplaceFileWith(YString(path("never.txt").c_str()), throwing));
    EXPECT_EQ(readFileBytes(path("precious.txt")), "hours of work\n");
    EXPECT_EQ(entries(), QStringList{"precious.txt"});
}

TEST_F(FileReplace, FoldersAndEmptyPathsAreRefused)
{
    EXPECT_FALSE(replace(m_dir, "x"));
    EXPECT_FALSE(replace("", "x"));
    EXPECT_FALSE(sp_ReplaceFileContent(YString(path("x").c_str()), nullptr, nullptr));
    EXPECT_FALSE(replace(path("missing/folder/x.txt"), "x"));
}

TEST_F(FileReplace, ALongFileNameWorks)
{
    const std::string name(250, 'n');
    EXPECT_TRUE(replace(path(name), "long\n"));
    EXPECT_TRUE(replace(path(name), "longer\n"));
    EXPECT_EQ(readFileBytes(path(name)), "longer\n");
}

// A file whose path passes the old limit of 260 characters is made and replaced as any other, its old
// content kept until the new one is complete.
TEST_F(FileReplace, AFileDeepInFoldersPastTheOldPathLimitIsReplaced)
{
    QString folder = QString::fromStdString(m_dir);
    for (const char letter : {'a', 'b', 'c'})
        folder += QLatin1Char('/') + QString(100, QLatin1Char(letter));
    ASSERT_TRUE(QDir().mkpath(folder));
    const std::string file = folder.toStdString() + "/deep.cir";
    ASSERT_GT(file.size(), 320u);
    EXPECT_TRUE(replace(file, "R1 a b 1k\n"));
    EXPECT_EQ(readFileBytes(file), "R1 a b 1k\n");
    EXPECT_FALSE(replace(file, "a new text that fails half way\n", false));
    EXPECT_EQ(readFileBytes(file), "R1 a b 1k\n");
    EXPECT_TRUE(replace(file, "R2 b c 2k\n"));
    EXPECT_EQ(readFileBytes(file), "R2 b c 2k\n");
    EXPECT_EQ(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList{"deep.cir"});
}

#ifdef Q_OS_WIN
TEST_F(FileReplace, TheNullDeviceIsWrittenInPlace)
{
    // The folder's attributes do not tell a device name from a file: "NUL" is written as it is named,
    // never through a temporary file moved over it.
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(QString::fromStdString(m_dir)));
    std::vector<std::string> asked;
    const auto write = [&asked](const YString& to) {
        asked.push_back(to.c_str());
        FILE* device = fopen_utf8(to.c_str(), "wb");
        const bool written = device && std::fputs("into nothing\n", device) >= 0;
        return device && std::fclose(device) == 0 && written;
    };
    const bool relative = sp_ReplaceFileWith(YString("NUL"), write);
    const bool absolute = sp_ReplaceFileWith(YString((m_dir + "/NUL").c_str()), write);
    // The device namespace's name, whose attributes some systems do not give.
    const bool deviceName = sp_ReplaceFileWith(YString("\\\\.\\NUL"), write);
    QDir::setCurrent(before);
    EXPECT_TRUE(relative);
    EXPECT_TRUE(absolute);
    EXPECT_TRUE(deviceName);
    EXPECT_EQ(asked, (std::vector<std::string>{"NUL", m_dir + "/NUL", "\\\\.\\NUL"}));
    EXPECT_TRUE(entries().isEmpty()) << entries().join(' ').toStdString();
}
#endif

#ifdef Q_OS_WIN
// A path in the long form ("\\?\C:\...") names exactly its file: one whose name ends in a dot or a blank,
// which the ordinary form would not reach, is refused and leaves the file without that dot alone.
TEST_F(FileReplace, ALongFormPathNamesExactlyItsFile)
{
    const QString folder = QStringLiteral("\\\\?\\") + QDir::toNativeSeparators(QFileInfo(QString::fromStdString(m_dir)).absoluteFilePath());
    const auto longForm = [&folder](const char* name) { return (folder + QLatin1Char('\\') + QLatin1String(name)).toStdString(); };
    writeFileBytes(path("keep.txt"), "precious\n");
    for (const char* name : {"keep.txt.", "keep.txt "}) {
        const std::wstring wide = QString::fromStdString(longForm(name)).toStdWString();
        const HANDLE h = CreateFileW(wide.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE) << name;
        DWORD put = 0;
        ASSERT_TRUE(WriteFile(h, "other\n", 6, &put, nullptr));
        CloseHandle(h);

        EXPECT_FALSE(replace(longForm(name), "new\n")) << name;
        EXPECT_EQ(readFileBytes(path("keep.txt")), "precious\n") << name;
        const HANDLE r = CreateFileW(wide.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(r, INVALID_HANDLE_VALUE) << name;
        char buffer[16] = {};
        DWORD got = 0;
        EXPECT_TRUE(ReadFile(r, buffer, sizeof buffer, &got, nullptr));
        CloseHandle(r);
        EXPECT_EQ(std::string(buffer, got), "other\n") << name;
        EXPECT_TRUE(DeleteFileW(wide.c_str())) << name;
    }
    // Nor does "..", which the long form does not resolve.
    EXPECT_FALSE(replace(longForm("..\\keep.txt"), "new\n"));
    // A name that both forms reach alike is replaced as through its ordinary form, with no file left beside it.
    EXPECT_TRUE(replace(longForm("keep.txt"), "replaced\n"));
    EXPECT_EQ(readFileBytes(path("keep.txt")), "replaced\n");
    EXPECT_EQ(entries(), QStringList{"keep.txt"});
}
#endif

#ifdef Q_OS_WIN
// A file another program holds open without letting it be deleted cannot be replaced: the call fails,
// the file keeps its bytes, and the new file made beside it is gone. Once it is let go, the replacement
// goes through.
TEST_F(FileReplace, AFileHeldAgainstDeletionIsRefusedAndLeavesNoNewFile)
{
    writeFileBytes(path("locked.cir"), "R1 a b 1k\n");
    const std::wstring name = QDir::toNativeSeparators(QString::fromStdString(path("locked.cir"))).toStdWString();
    const HANDLE holder = CreateFileW(name.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(holder, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(replace(path("locked.cir"), "C1 a 0 1p\n"));
    CloseHandle(holder);
    EXPECT_EQ(readFileBytes(path("locked.cir")), "R1 a b 1k\n");
    EXPECT_EQ(entries(), QStringList{"locked.cir"});
    EXPECT_TRUE(replace(path("locked.cir"), "C1 a 0 1p\n"));
    EXPECT_EQ(readFileBytes(path("locked.cir")), "C1 a 0 1p\n");
    EXPECT_EQ(entries(), QStringList{"locked.cir"});
}

// The replacement keeps the old file's hidden and system attributes, as it keeps a POSIX file's
// permissions.
TEST_F(FileReplace, TheOldFilesAttributesAreKept)
{
    writeFileBytes(path("hidden.cir"), "old");
    const std::wstring name = QDir::toNativeSeparators(QString::fromStdString(path("hidden.cir"))).toStdWString();
    ASSERT_TRUE(SetFileAttributesW(name.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM));
    EXPECT_TRUE(replace(path("hidden.cir"), "new"));
    EXPECT_EQ(readFileBytes(path("hidden.cir")), "new");
    const DWORD attributes = GetFileAttributesW(name.c_str());
    EXPECT_EQ(attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM), DWORD(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM));
    SetFileAttributesW(name.c_str(), FILE_ATTRIBUTE_NORMAL);
}

namespace {
// The access list of a file in the system's text form; empty when it cannot be read.
std::string accessList(const std::wstring& name)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetNamedSecurityInfoW(name.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr, nullptr,
                              &descriptor) != ERROR_SUCCESS)
        return std::string();
    LPWSTR text = nullptr;
    std::string result;
    if (ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr)) {
        result = QString::fromWCharArray(text).toStdString();
        LocalFree(text);
    }
    LocalFree(descriptor);
    return result;
}
} // namespace

// A file that only its owner and the system may reach keeps that access list when it is replaced,
// rather than taking the one its folder hands down to new files.
TEST_F(FileReplace, ThePrivateAccessListOfTheOldFileIsKept)
{
    writeFileBytes(path("private.cir"), "old");
    const std::wstring name = QDir::toNativeSeparators(QString::fromStdString(path("private.cir"))).toStdWString();
    // Full access for the system and the user who runs the test, and nothing for anyone else.
    HANDLE token = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    std::vector<char> user(512);
    DWORD needed = 0;
    const BOOL known = GetTokenInformation(token, TokenUser, user.data(), static_cast<DWORD>(user.size()), &needed);
    CloseHandle(token);
    ASSERT_TRUE(known);
    LPWSTR sid = nullptr;
    ASSERT_TRUE(ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid, &sid));
    const std::wstring text = L"D:P(A;;FA;;;SY)(A;;FA;;;" + std::wstring(sid) + L")";
    LocalFree(sid);
    PSECURITY_DESCRIPTOR wanted = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1, &wanted, nullptr));
    BOOL present = FALSE, defaulted = FALSE;
    PACL list = nullptr;
    ASSERT_TRUE(GetSecurityDescriptorDacl(wanted, &present, &list, &defaulted));
    const DWORD set = SetNamedSecurityInfoW(const_cast<wchar_t*>(name.c_str()), SE_FILE_OBJECT,
                                            DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                            list, nullptr);
    LocalFree(wanted);
    ASSERT_EQ(set, DWORD(ERROR_SUCCESS));
    const std::string before = accessList(name);
    ASSERT_FALSE(before.empty());
    // A new file in the same folder gets another list, or the test would show nothing. Wine derives a
    // file's list from its Unix permissions and sets none of its own.
    writeFileBytes(path("fresh.cir"), "x");
    const std::string fresh = accessList(QDir::toNativeSeparators(QString::fromStdString(path("fresh.cir"))).toStdWString());
    if (fresh == before && runningUnderWine())
        GTEST_SKIP() << "Wine keeps no access list that a program sets: " << before;
    ASSERT_NE(fresh, before);
    EXPECT_TRUE(replace(path("private.cir"), "new"));
    EXPECT_EQ(readFileBytes(path("private.cir")), "new");
    EXPECT_EQ(accessList(name), before);
}
#endif

#ifndef Q_OS_WIN
TEST_F(FileReplace, ALinkKeepsPointingAtItsTargetWhichGetsTheContent)
{
    QDir().mkpath(QString::fromStdString(path("real")));
    writeFileBytes(path("real/target.txt"), "old\n");
    ASSERT_TRUE(QFile::link(QString::fromStdString(path("real/target.txt")), QString::fromStdString(path("link.txt"))));
    EXPECT_TRUE(replace(path("link.txt"), "new\n"));
    EXPECT_TRUE(QFileInfo(QString::fromStdString(path("link.txt"))).isSymLink());
    EXPECT_EQ(readFileBytes(path("real/target.txt")), "new\n");
    // A relative link to nothing yet: its target is created.
    ASSERT_EQ(::symlink("real/later.txt", path("dangling.txt").c_str()), 0);
    EXPECT_TRUE(replace(path("dangling.txt"), "made\n"));
    EXPECT_TRUE(QFileInfo(QString::fromStdString(path("dangling.txt"))).isSymLink());
    EXPECT_EQ(readFileBytes(path("real/later.txt")), "made\n");
}

// Links in a loop, or a chain longer than the system follows, name no file: the call fails and every
// link stays a link. A chain as long as the system follows reaches its file.
TEST_F(FileReplace, LinksInALoopOrTooLongAChainAreRefused)
{
    ASSERT_EQ(::symlink("b", path("a").c_str()), 0);
    ASSERT_EQ(::symlink("a", path("b").c_str()), 0);
    EXPECT_FALSE(replace(path("a"), "new\n"));
    EXPECT_TRUE(QFileInfo(QString::fromStdString(path("a"))).isSymLink());
    EXPECT_TRUE(QFileInfo(QString::fromStdString(path("b"))).isSymLink());

    // l0 -> l1 -> ... -> l40 -> file: 41 links, one more than the system follows; from l1, 40.
    writeFileBytes(path("file.txt"), "old\n");
    for (int i = 0; i <= 40; ++i) {
        const std::string target = i == 40 ? "file.txt" : "l" + std::to_string(i + 1);
        ASSERT_EQ(::symlink(target.c_str(), path("l" + std::to_string(i)).c_str()), 0);
    }
    EXPECT_FALSE(replace(path("l0"), "new\n"));
    EXPECT_EQ(readFileBytes(path("file.txt")), "old\n");
    for (int i = 0; i <= 40; ++i)
        EXPECT_TRUE(QFileInfo(QString::fromStdString(path("l" + std::to_string(i)))).isSymLink()) << i;
    EXPECT_TRUE(replace(path("l1"), "new\n"));
    EXPECT_EQ(readFileBytes(path("file.txt")), "new\n");
    EXPECT_TRUE(QFileInfo(QString::fromStdString(path("l1"))).isSymLink());
}

TEST_F(FileReplace, DevicesAreWrittenInPlaceNeverReplaced)
{
    EXPECT_TRUE(replace("/dev/null", "into nothing\n"));
    struct stat st;
    ASSERT_EQ(::stat("/dev/null", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    ASSERT_EQ(::symlink("/dev/null", path("null-link").c_str()), 0);
    EXPECT_TRUE(replace(path("null-link"), "through a link\n"));
    ASSERT_EQ(::stat("/dev/null", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
}

TEST_F(FileReplace, PermissionsAreKeptAndNewFilesFollowTheMask)
{
    writeFileBytes(path("private.txt"), "x");
    ASSERT_EQ(::chmod(path("private.txt").c_str(), 0600), 0);
    EXPECT_TRUE(replace(path("private.txt"), "y"));
    struct stat st;
    ASSERT_EQ(::stat(path("private.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    const mode_t before = ::umask(027);
    EXPECT_TRUE(replace(path("masked.txt"), "z"));
    ::umask(before);
    ASSERT_EQ(::stat(path("masked.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
}

// The super-user replacing another user's program keeps its owner and its set-user-ID and set-group-ID
// bits, which a change of owner would clear if it came after them.
TEST_F(FileReplace, TheSuperUserKeepsAnotherOwnersSetIdBits)
{
    if (!runningAsRoot())
        GTEST_SKIP() << "giving a file to another user takes the super-user";
    const struct {
        const char* name;
        uid_t uid;
        gid_t gid;
        mode_t mode;
    } cases[] = {{"setuid", 65534, 65534, 06755}, {"setgid", 0, 65534, 02775}};
    for (const auto& c : cases) {
        writeFileBytes(path(c.name), "old");
        ASSERT_EQ(::chown(path(c.name).c_str(), c.uid, c.gid), 0);
        ASSERT_EQ(::chmod(path(c.name).c_str(), c.mode), 0);
        EXPECT_TRUE(replace(path(c.name), "new")) << c.name;
        struct stat st;
        ASSERT_EQ(::stat(path(c.name).c_str(), &st), 0);
        EXPECT_EQ(readFileBytes(path(c.name)), "new") << c.name;
        EXPECT_EQ(st.st_mode & 07777, c.mode) << c.name;
        EXPECT_EQ(st.st_uid, c.uid) << c.name;
        EXPECT_EQ(st.st_gid, c.gid) << c.name;
    }
}

TEST_F(FileReplace, AWritableFileInAReadOnlyFolderIsWrittenInPlace)
{
    // A folder where no file can be made: without write permission, or for the super-user (whom
    // permissions do not stop) marked immutable.
    const QString folder = QString::fromStdString(path("locked"));
    QDir().mkpath(folder);
    writeFileBytes(path("locked/file.txt"), "old\n");
    if (runningAsRoot()) {
        if (QProcess::execute(QStringLiteral("chattr"), {QStringLiteral("+i"), folder}) != 0)
            GTEST_SKIP() << "chattr cannot make the folder immutable on this file system";
    } else {
        ASSERT_EQ(::chmod(path("locked").c_str(), 0555), 0);
    }
    const bool replaced = replace(path("locked/file.txt"), "new, in place\n");
    const std::string text = readFileBytes(path("locked/file.txt"));
    const QStringList inside = QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    if (runningAsRoot())
        QProcess::execute(QStringLiteral("chattr"), {QStringLiteral("-i"), folder});
    else
        ::chmod(path("locked").c_str(), 0755);
    EXPECT_TRUE(replaced);
    EXPECT_EQ(text, "new, in place\n");
    EXPECT_EQ(inside, QStringList{"file.txt"});
}

// A file in a folder where no file can be made is written in place. When its file system has no room
// for the new content, the write fails before the file is touched; with room, it takes it whole.
TEST_F(FileReplace, AnInPlaceWriteWithoutRoomLeavesTheFileAsItWas)
{
    if (!runningAsRoot())
        GTEST_SKIP() << "mounting a small file system takes the super-user";
    const QString folder = QString::fromStdString(path("small"));
    QDir().mkpath(folder);
    // 64 KiB and three inodes (the folder, the file and a filler): no new file can be made in it.
    if (QProcess::execute(QStringLiteral("mount"), {"-t", "tmpfs", "-o", "size=64k,nr_inodes=3", "tmpfs", folder}) != 0)
        GTEST_SKIP() << "a tmpfs cannot be mounted here";
    struct Unmount {
        QString folder;
        ~Unmount() { QProcess::execute(QStringLiteral("umount"), {folder}); }
    } unmount{folder};
    const std::string old = std::string(24000, 'o') + "\n";
    writeFileBytes(path("small/file.txt"), old);
    writeFileBytes(path("small/filler"), std::string(36000, 'f')); // leaves 4 KiB free
    const std::string longer = std::string(32000, 'n') + "\n";
    // (Compared as a whole, not printed: the texts are long.) Room reserved in part is given back.
    struct statvfs before, after;
    ASSERT_EQ(::statvfs(path("small").c_str(), &before), 0);
    EXPECT_FALSE(replace(path("small/file.txt"), longer));
    ASSERT_EQ(::statvfs(path("small").c_str(), &after), 0);
    EXPECT_EQ(after.f_bfree, before.f_bfree);
    const std::string kept = readFileBytes(path("small/file.txt"));
    EXPECT_TRUE(kept == old) << kept.size() << " bytes, starting with " << kept.substr(0, 8);
    writeFileBytes(path("small/filler"), ""); // room again, and still no inode for a new file
    EXPECT_TRUE(replace(path("small/file.txt"), longer));
    const std::string replaced = readFileBytes(path("small/file.txt"));
    EXPECT_TRUE(replaced == longer) << replaced.size() << " bytes, starting with " << replaced.substr(0, 8);
    EXPECT_TRUE(replace(path("small/file.txt"), "short\n"));
    EXPECT_EQ(readFileBytes(path("small/file.txt")), "short\n");
    const QStringList inside = QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    EXPECT_EQ(inside, (QStringList{"file.txt", "filler"}));
}

// On a file system that cannot reserve room (ext2 refuses fallocate), an in-place write that runs out
// of room half way puts the old bytes back from their copy, which is then removed.
TEST_F(FileReplace, AnInPlaceWriteThatFailsHalfWayPutsTheOldBytesBack)
{
    if (!runningAsRoot())
        GTEST_SKIP() << "mounting a small file system takes the super-user";
    const std::string image = path("ext2.img");
    { std::FILE* f = std::fopen(image.c_str(), "wb"); ASSERT_NE(f, nullptr); std::fclose(f); }
    ASSERT_EQ(::truncate(image.c_str(), 256 * 1024), 0);
    if (QProcess::execute(QStringLiteral("mkfs.ext2"), {"-q", "-F", "-N", "16", "-b", "1024", "-m", "0",
                                                       QString::fromStdString(image)}) != 0)
        GTEST_SKIP() << "mkfs.ext2 is not available here";
    const QString folder = QString::fromStdString(path("ext2"));
    QDir().mkpath(folder);
    if (QProcess::execute(QStringLiteral("mount"), {"-o", "loop", QString::fromStdString(image), folder}) != 0)
        GTEST_SKIP() << "a loop device cannot be mounted here";
    struct Unmount {
        QString folder;
        ~Unmount() { QProcess::execute(QStringLiteral("umount"), {folder}); }
    } unmount{folder};
    const std::string old = std::string(24000, 'o') + "\n";
    writeFileBytes(path("ext2/file.txt"), old);
    // Every inode taken, so that the write goes in place; then every block but eight.
    const int filler = ::open(path("ext2/filler").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(filler, 0);
    for (int i = 0; i < 64; ++i) {
        const int fd = ::open(path("ext2/inode" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (fd < 0)
            break;
        ::close(fd);
    }
    const std::string block(1024, 'f');
    off_t size = 0;
    while (::write(filler, block.data(), block.size()) == static_cast<ssize_t>(block.size()))
        size += 1024;
    ASSERT_GT(size, 8 * 1024);
    ASSERT_EQ(::ftruncate(filler, size - 8 * 1024), 0);
    ::close(filler);
    ASSERT_LT(::open(path("ext2/one-more").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644), 0);
    const QStringList before = QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    const QStringList tempBefore = QDir::temp().entryList({".sq-*"}, QDir::Files | QDir::Hidden);
    struct statvfs roomBefore, roomAfter;
    ASSERT_EQ(::statvfs(path("ext2").c_str(), &roomBefore), 0);
    EXPECT_FALSE(replace(path("ext2/file.txt"), std::string(64000, 'n') + "\n"));
    ASSERT_EQ(::statvfs(path("ext2").c_str(), &roomAfter), 0);
    const std::string kept = readFileBytes(path("ext2/file.txt"));
    EXPECT_TRUE(kept == old) << kept.size() << " bytes, starting with " << kept.substr(0, 8);
    EXPECT_EQ(roomAfter.f_bfree, roomBefore.f_bfree);
    EXPECT_EQ(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), before);
    EXPECT_EQ(QDir::temp().entryList({".sq-*"}, QDir::Files | QDir::Hidden), tempBefore);
}
#endif
