// FileOpenCheckTest.cpp - the file-open check and its diagnosis, with real failed opens. Permission
// cases run the probe program as an unprivileged user when the tests run as root, since root's opens
// are not stopped by permission bits.
#include "FileOpenCheck.h"
#include "FileOpenCheck_p.h"
#include "FileServices.h"
#include "QtSupport.h"
#include "TestHelpers.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QDateTime>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#ifndef Q_OS_WIN
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace {

const std::string kOverwrite = " cannot be opened because another file of the same name already exists";

std::string message(const std::string& path, GfnOpenMode mode)
{
    YString text("unchanged");
    EXPECT_TRUE(sp_FileOpenForensicMsg(YString(path.c_str()), mode, &text));
    return text.c_str();
}

#ifndef Q_OS_WIN
// The names in a folder as the system holds them (bytes, whatever the locale codec), sorted.
std::vector<std::string> namesIn(const std::string& folder)
{
    std::vector<std::string> names;
    if (DIR* dir = opendir(folder.c_str())) {
        while (const dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..")
                names.push_back(name);
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Whether a real open for writing of `path` succeeds; a file it makes under that name is removed again
// (one it makes at the end of a symbolic link is the caller's to remove).
bool writeOpenSucceeds(const std::string& path)
{
    struct stat before;
    const bool existed = lstat(path.c_str(), &before) == 0;
    FILE* file = fopen_utf8(path.c_str(), "w");
    if (!file)
        return false;
    std::fclose(file);
    if (!existed)
        unlink(path.c_str());
    return true;
}
#endif

} // namespace

class FileOpen : public TempDirTest {
protected:
    // Runs the probe on `path` (as the unprivileged user "nobody" when the tests run as root) and returns
    // its line: "<check> <code> <keyword>|<message>".
    std::string probe(const std::string& path, int mode)
    {
        QProcess process;
        QStringList arguments{QString::fromStdString(path), QString::number(mode)};
        if (runningAsRoot()) {
            const QString setpriv = QStandardPaths::findExecutable("setpriv");
            EXPECT_FALSE(setpriv.isEmpty()) << "setpriv is needed to test permissions as root";
            arguments = QStringList{"--reuid=nobody", "--regid=nogroup", "--clear-groups", FILE_OPEN_PROBE_PATH} + arguments;
            process.start(setpriv, arguments);
        } else {
            process.start(FILE_OPEN_PROBE_PATH, arguments);
        }
        EXPECT_TRUE(process.waitForFinished(30000));
        EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
        return QString::fromUtf8(process.readAllStandardOutput()).trimmed().toStdString();
    }
    // Makes the temporary folder reachable by the unprivileged user.
    void openUpTempDir()
    {
        QFile::setPermissions(QString::fromStdString(m_dir), QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                                                 QFileDevice::ExeOwner | QFileDevice::ReadOther |
                                                                 QFileDevice::ExeOther | QFileDevice::ReadGroup |
                                                                 QFileDevice::ExeGroup);
    }
};

TEST_F(FileOpen, EmptyPathIsFalseForEveryMode)
{
    for (int mode : {0, 1, 2, 3, -1})
        EXPECT_FALSE(sp_CheckFileOpen(YString(""), static_cast<GfnOpenMode>(mode))) << mode;
}

TEST_F(FileOpen, WriteCheckOfANewFileLeavesNoFile)
{
    const std::string p = path("new.txt");
    EXPECT_TRUE(sp_CheckFileOpen(YString(p.c_str()), GfnWrite));
    EXPECT_FALSE(QFile::exists(QString::fromStdString(p)));
    EXPECT_TRUE(sp_CheckFileOpen(YString(p.c_str()), GfnWriteNew));
    EXPECT_FALSE(QFile::exists(QString::fromStdString(p)));
}

TEST_F(FileOpen, WriteCheckOfAnExistingFileLeavesItUntouched)
{
    const std::string p = path("kept.txt");
    writeFileBytes(p, "content\n");
    const QDateTime before(QDate(2020, 1, 2), QTime(3, 4, 5), Qt::UTC);
    {
        QFile file(QString::fromStdString(p));
        ASSERT_TRUE(file.open(QIODevice::Append));
        ASSERT_TRUE(file.setFileTime(before, QFileDevice::FileModificationTime));
    }
    EXPECT_TRUE(sp_CheckFileOpen(YString(p.c_str()), GfnWrite));
    EXPECT_TRUE(sp_CheckFileOpen(YString(p.c_str()), GfnRead));
    EXPECT_TRUE(sp_CheckFileOpen(YString(p.c_str()), static_cast<GfnOpenMode>(3)));
    EXPECT_EQ(readFileBytes(p), "content\n");
    EXPECT_EQ(QFileInfo(QString::fromStdString(p)).lastModified(), before);
}

TEST_F(FileOpen, ExistingFileWithWriteNewIsAnOverwrite)
{
    const std::string p = path("exists.txt");
    writeFileBytes(p, "x");
    EXPECT_FALSE(sp_CheckFileOpen(YString(p.c_str()), GfnWriteNew));
    EXPECT_EQ(sp_FileOpenForensic(YString(p.c_str()), GfnWriteNew), FileOpenOverwrite);
    EXPECT_EQ(message(p, GfnWriteNew), "The file " + p + kOverwrite);
    EXPECT_EQ(readFileBytes(p), "x");
}

// A folder is no file to read, on any system (a POSIX open of a folder for reading succeeds).
TEST_F(FileOpen, AFolderDoesNotOpenForReading)
{
    const std::string p = path("folder");
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(p)));
    EXPECT_FALSE(sp_CheckFileOpen(YString(p.c_str()), GfnRead));
    EXPECT_FALSE(sp_CheckFileOpen(YString(p.c_str()), static_cast<GfnOpenMode>(3)));
    EXPECT_EQ(sp_FileOpenForensic(YString(p.c_str()), GfnRead), FileOpenReadLocked);
}

// The write check removes only a file that its own open made: the open says whether it made the file,
// so a file that another process makes between the check's look and its open is never removed.
TEST_F(FileOpen, TheAppendOpenTellsWhetherItMadeTheFile)
{
    const QByteArray made = QByteArray::fromStdString(path("made.txt"));
    bool created = false;
    EXPECT_TRUE(fileopencheck::opensForAppending(made, &created));
    EXPECT_TRUE(created);
    EXPECT_TRUE(QFile::exists(QString::fromStdString(path("made.txt"))));
    EXPECT_EQ(readFileBytes(path("made.txt")), "");
    EXPECT_TRUE(fileopencheck::opensForAppending(made, &created));
    EXPECT_FALSE(created);
    writeFileBytes(path("theirs.txt"), "theirs");
    created = true;
    EXPECT_TRUE(fileopencheck::opensForAppending(QByteArray::fromStdString(path("theirs.txt")), &created));
    EXPECT_FALSE(created);
    EXPECT_EQ(readFileBytes(path("theirs.txt")), "theirs");
    created = true;
    EXPECT_FALSE(fileopencheck::opensForAppending(QByteArray::fromStdString(path("no/such/folder.txt")), &created));
    EXPECT_FALSE(created);
}

TEST_F(FileOpen, MissingFileForReading)
{
    const std::string p = path("missing.cir");
    EXPECT_FALSE(sp_CheckFileOpen(YString(p.c_str()), GfnRead));
    FileOpenForensic code = FileOpenNoError;
    EXPECT_TRUE(sp_FileOpenForensic(YString(p.c_str()), GfnRead, &code));
    EXPECT_EQ(code, FileOpenNotExist);
    EXPECT_EQ(message(p, GfnRead), "The file " + p + " does not exist");
}

TEST_F(FileOpen, EmptyPathMessageKeepsTwoBlanks)
{
    EXPECT_EQ(message("", GfnRead), "The file  does not exist");
}

TEST_F(FileOpen, InvalidModeIsAnInternalError)
{
    EXPECT_EQ(sp_FileOpenForensic(YString(path("x").c_str()), static_cast<GfnOpenMode>(3)), FileOpenInvalidParams);
    EXPECT_EQ(message(path("x"), static_cast<GfnOpenMode>(3)), "Internal error");
}

TEST_F(FileOpen, KeywordsOfEveryCode)
{
    const char* const keywords[] = {"noerror", "overwrite", "notexist", "readlocked", "dirnotexist",
                                    "dirpriv", "writepriv", "writelocked", "invalidparams"};
    for (int code = 0; code <= 8; ++code)
        EXPECT_STREQ(sp_ForensicCodeToString(static_cast<FileOpenForensic>(code)).c_str(), keywords[code]);
    EXPECT_TRUE(sp_ForensicCodeToString(static_cast<FileOpenForensic>(9)).isEmpty());
    EXPECT_TRUE(sp_ForensicCodeToString(static_cast<FileOpenForensic>(-1)).isEmpty());
}

TEST_F(FileOpen, NonAsciiAndVeryLongPaths)
{
    const std::string p = path("\xC3\xA9t\xC3\xA9.cir");
    writeFileBytes(p, "x");
    EXPECT_TRUE(sp_CheckFileOpen(YString(p.c_str()), GfnRead));
    EXPECT_EQ(sp_FileOpenForensic(YString(p.c_str()), GfnWriteNew), FileOpenOverwrite);
    const std::string longPath = path(std::string(5000, 'a') + "/b.txt");
    EXPECT_FALSE(sp_CheckFileOpen(YString(longPath.c_str()), GfnWrite));
    EXPECT_EQ(sp_FileOpenForensic(YString(longPath.c_str()), GfnWrite), FileOpenDirNotExist);
}

// Every code from 1 to 8, each produced by a real failed open of an unprivileged process.
TEST_F(FileOpen, EveryCodeFromARealFailedOpen)
{
    openUpTempDir();
    writeFileBytes(path("plain.txt"), "x");
    QFile::setPermissions(QString::fromStdString(path("plain.txt")),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther |
                              QFileDevice::WriteOther | QFileDevice::ReadGroup | QFileDevice::WriteGroup);
    writeFileBytes(path("readonly.txt"), "x");
    QFile::setPermissions(QString::fromStdString(path("readonly.txt")),
                          QFileDevice::ReadOwner | QFileDevice::ReadOther | QFileDevice::ReadGroup);
    writeFileBytes(path("unreadable.txt"), "x");
    QFile::setPermissions(QString::fromStdString(path("unreadable.txt")), QFileDevice::WriteOwner);
    QDir().mkdir(QString::fromStdString(path("lockeddir")));
    QFile::setPermissions(QString::fromStdString(path("lockeddir")),
                          QFileDevice::ReadOwner | QFileDevice::ExeOwner | QFileDevice::ReadOther |
                              QFileDevice::ExeOther | QFileDevice::ReadGroup | QFileDevice::ExeGroup);
    QDir().mkdir(QString::fromStdString(path("adir")));
    QFile::setPermissions(QString::fromStdString(path("adir")), QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                                                   QFileDevice::ExeOwner | QFileDevice::ReadOther |
                                                                   QFileDevice::WriteOther | QFileDevice::ExeOther);

    EXPECT_EQ(probe(path("plain.txt"), GfnWriteNew), "0 1 overwrite|The file " + path("plain.txt") + kOverwrite);
    EXPECT_EQ(probe(path("missing.txt"), GfnRead), "0 2 notexist|The file " + path("missing.txt") + " does not exist");
    // Wine maps Windows file security onto the Unix permissions of its user, and as the super-user it is
    // refused nothing: the three codes that come from permissions are checked only where they hold.
    const bool permissionsHold = !(runningUnderWine() && runningAsRootOnTheHost());
    if (permissionsHold) {
        EXPECT_EQ(probe(path("unreadable.txt"), GfnRead),
              "0 3 readlocked|The file " + path("unreadable.txt") +
                  " cannot be opened for read; either it is locked by another process or there is insufficient privilege");
    }
    EXPECT_EQ(probe(path("nodir/new.txt"), GfnWrite),
              "0 4 dirnotexist|The file " + path("nodir/new.txt") + " cannot be opened because its directory does not exist");
    if (permissionsHold) {
        EXPECT_EQ(probe(path("lockeddir/new.txt"), GfnWrite),
              "0 5 dirpriv|The file " + path("lockeddir/new.txt") +
                  " cannot be opened for write possibly because of insufficient directory privilege");
    }
    if (permissionsHold) {
        EXPECT_EQ(probe(path("readonly.txt"), GfnWrite),
              "0 6 writepriv|The file " + path("readonly.txt") +
                  " cannot be opened for write because a read-only attribute is set");
    }
    // A folder: writable by its permission bits, yet no file can be opened on it.
    EXPECT_EQ(probe(path("adir"), GfnWrite),
              "0 7 writelocked|The file " + path("adir") +
                  " cannot be opened for write; either it is locked by another process or there is insufficient privilege");
    EXPECT_EQ(probe(path("plain.txt"), 3), "1 8 invalidparams|Internal error");
    // The successful opens of the same process leave everything as it was.
    EXPECT_EQ(probe(path("plain.txt"), GfnWrite), "1 7 writelocked|The file " + path("plain.txt") +
                                                    " cannot be opened for write; either it is locked by another "
                                                    "process or there is insufficient privilege");
    EXPECT_EQ(readFileBytes(path("plain.txt")), "x");
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path("lockeddir/new.txt"))));
    if (!permissionsHold)
        GTEST_SKIP() << "Wine run by the Unix super-user enforces no file permissions or read-only attribute: "
                        "readlocked, dirpriv and writepriv from permissions were not checked (every other code was)";
}

#ifndef Q_OS_WIN
// A symbolic link to nothing: the check answers without following it, so it creates nothing where the
// link points and never removes the link.
TEST_F(FileOpen, DanglingLinkIsCheckedWithoutFollowingIt)
{
    QDir().mkpath(QString::fromStdString(path("elsewhere")));
    const QString target = QString::fromStdString(path("elsewhere/target.txt"));
    const std::string link = path("link.txt");
    ASSERT_TRUE(QFile::link(target, QString::fromStdString(link)));
    EXPECT_FALSE(sp_CheckFileOpen(YString(link.c_str()), GfnRead));
    EXPECT_FALSE(sp_CheckFileOpen(YString(link.c_str()), GfnWriteNew)); // the name is taken, by the link
    EXPECT_TRUE(sp_CheckFileOpen(YString(link.c_str()), GfnWrite));     // its target's folder takes files
    EXPECT_EQ(sp_FileOpenForensic(YString(link.c_str()), GfnWriteNew), FileOpenOverwrite);
    EXPECT_FALSE(QFile::exists(target));
    EXPECT_TRUE(QFileInfo(QString::fromStdString(link)).isSymLink());
    // A link into a folder that does not exist cannot be written through.
    const std::string nowhere = path("nowhere.txt");
    ASSERT_TRUE(QFile::link(QString::fromStdString(path("missing/dir/t.txt")), QString::fromStdString(nowhere)));
    EXPECT_FALSE(sp_CheckFileOpen(YString(nowhere.c_str()), GfnWrite));
    EXPECT_FALSE(QDir(QString::fromStdString(path("missing"))).exists());
    EXPECT_TRUE(QFileInfo(QString::fromStdString(nowhere)).isSymLink());
}

// A FIFO never holds the check: it is answered from its permissions, with no one at either end. Each
// check runs on a thread of its own, waited for at most ten seconds.
TEST_F(FileOpen, FifoNeverHoldsTheCheck)
{
    const std::string fifo = path("pipe");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    auto checkInTime = [&](GfnOpenMode mode, bool* finished) {
        auto result = std::make_shared<std::promise<bool>>();
        std::future<bool> answer = result->get_future();
        std::thread([result, fifo, mode] { result->set_value(sp_CheckFileOpen(YString(fifo.c_str()), mode)); }).detach();
        *finished = answer.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
        if (!*finished) {
            // Let the blocked open go: the other end of the FIFO, opened and closed.
            const int other = open(fifo.c_str(), (mode == GfnRead ? O_WRONLY : O_RDONLY) | O_NONBLOCK);
            if (other >= 0)
                close(other);
            return false;
        }
        return answer.get();
    };
    bool finished = false;
    EXPECT_TRUE(checkInTime(GfnRead, &finished));
    EXPECT_TRUE(finished);
    EXPECT_TRUE(checkInTime(GfnWrite, &finished));
    EXPECT_TRUE(finished);
    EXPECT_FALSE(checkInTime(GfnWriteNew, &finished));
    EXPECT_TRUE(finished);
    EXPECT_EQ(sp_FileOpenForensic(YString(fifo.c_str()), GfnRead), FileOpenReadLocked);
}

// Checking a FIFO never opens it: a process waiting at one end for a peer is neither released nor given
// an end of file by the check, and stays waiting until a real peer comes.
TEST_F(FileOpen, CheckingAFifoLeavesAWaitingPeerWaiting)
{
    const std::string fifo = path("waiting");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const GfnOpenMode mode : {GfnRead, GfnWrite}) {
        // The waiting side opens the end that the check's mode does not.
        const int waiterFlags = mode == GfnRead ? O_WRONLY : O_RDONLY;
        std::atomic<bool> opened{false};
        std::thread waiter([&] {
            const int fd = open(fifo.c_str(), waiterFlags);
            opened = true;
            if (fd >= 0)
                close(fd);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_TRUE(sp_CheckFileOpen(YString(fifo.c_str()), mode)) << mode;
        EXPECT_FALSE(sp_CheckFileOpen(YString(fifo.c_str()), GfnWriteNew)) << mode;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_FALSE(opened) << "the check released the process waiting on the FIFO, mode " << mode;
        // The test's own peer releases the waiting side.
        int peer = -1;
        for (int i = 0; i < 1000 && !opened; ++i) {
            peer = open(fifo.c_str(), (mode == GfnRead ? O_RDONLY : O_WRONLY) | O_NONBLOCK);
            if (peer >= 0)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        waiter.join();
        EXPECT_TRUE(opened);
        if (peer >= 0)
            close(peer);
    }
    EXPECT_EQ(namesIn(m_dir), std::vector<std::string>{"waiting"});
}

// A chain of links is followed as an open follows it, relative targets from the folder of the link that
// holds them: the check says what a real open for writing then does.
TEST_F(FileOpen, LinkChainsAreFollowedToTheirEnd)
{
    ASSERT_EQ(mkdir(path("links").c_str(), 0700), 0);
    ASSERT_EQ(mkdir(path("sub").c_str(), 0700), 0);
    // To a link into a folder that does not exist.
    ASSERT_EQ(symlink(path("missing/t.txt").c_str(), path("links/last").c_str()), 0);
    ASSERT_EQ(symlink("last", path("links/first").c_str()), 0);
    // To itself, and round a loop of two.
    ASSERT_EQ(symlink("self", path("links/self").c_str()), 0);
    ASSERT_EQ(symlink("loopb", path("links/loopa").c_str()), 0);
    ASSERT_EQ(symlink("loopa", path("links/loopb").c_str()), 0);
    // To a link into a folder that exists, named from the second link's own folder.
    ASSERT_EQ(symlink("../sub/made.txt", path("links/good2").c_str()), 0);
    ASSERT_EQ(symlink("good2", path("links/good1").c_str()), 0);

    for (const char* name : {"links/first", "links/self", "links/loopa"}) {
        const std::string link = path(name);
        EXPECT_FALSE(sp_CheckFileOpen(YString(link.c_str()), GfnWrite)) << name;
        EXPECT_FALSE(sp_CheckFileOpen(YString(link.c_str()), GfnWriteNew)) << name;
        EXPECT_FALSE(sp_CheckFileOpen(YString(link.c_str()), GfnRead)) << name;
        EXPECT_FALSE(writeOpenSucceeds(link)) << name;
    }
    const std::string good = path("links/good1");
    EXPECT_TRUE(sp_CheckFileOpen(YString(good.c_str()), GfnWrite));
    EXPECT_TRUE(namesIn(path("sub")).empty()); // the check made nothing at the end of the chain
    EXPECT_TRUE(writeOpenSucceeds(path("links/good1")));
    EXPECT_EQ(namesIn(path("sub")), std::vector<std::string>{"made.txt"});
    unlink(path("sub/made.txt").c_str());
    EXPECT_EQ(namesIn(path("links")),
              (std::vector<std::string>{"first", "good1", "good2", "last", "loopa", "loopb", "self"}));
}

#endif

// A name that is no UTF-8 is never taken for the file with U+FFFD in its place: the check and the
// diagnosis look at exactly its bytes on POSIX systems, where names are bytes, and at no file on Windows,
// where they are UTF-16. The other file stays as it was, and no file is left behind.
TEST_F(FileOpen, ANameThatIsNotUtf8NeverNamesAnotherFile)
{
    const std::string replaced = path("n\xEF\xBF\xBD.txt"), bad = path("n\xE8.txt");
    FILE* file = fopen_utf8(replaced.c_str(), "w");
    ASSERT_TRUE(file);
    std::fputs("other", file);
    std::fclose(file);
    EXPECT_FALSE(sp_CheckFileOpen(YString(bad.c_str()), GfnRead));
    EXPECT_EQ(sp_FileOpenForensic(YString(bad.c_str()), GfnRead), FileOpenNotExist);
#ifdef _WIN32
    EXPECT_FALSE(sp_CheckFileOpen(YString(bad.c_str()), GfnWrite));
    EXPECT_FALSE(sp_CheckFileOpen(YString(bad.c_str()), GfnWriteNew));
#else
    // Missing, it may be made (and the check removes what it made); made, it reads.
    EXPECT_TRUE(sp_CheckFileOpen(YString(bad.c_str()), GfnWriteNew));
    EXPECT_TRUE(sp_CheckFileOpen(YString(bad.c_str()), GfnWrite));
    EXPECT_FALSE(sp_ExistFile(bad.c_str()));
    file = fopen_utf8(bad.c_str(), "w");
    ASSERT_TRUE(file);
    std::fclose(file);
    EXPECT_TRUE(sp_CheckFileOpen(YString(bad.c_str()), GfnRead));
    EXPECT_FALSE(sp_CheckFileOpen(YString(bad.c_str()), GfnWriteNew));
    EXPECT_EQ(sp_FileOpenForensic(YString(bad.c_str()), GfnWriteNew), FileOpenOverwrite);
    EXPECT_EQ(unlink_utf8(bad.c_str()), 0);
    EXPECT_EQ(namesIn(m_dir), std::vector<std::string>{"n\xEF\xBF\xBD.txt"});
#endif
    EXPECT_EQ(readFileBytes(replaced), "other");
    EXPECT_EQ(QDir(QString::fromStdString(m_dir)).entryList(QDir::Files | QDir::Hidden), QStringList{QString::fromUtf8("n\xEF\xBF\xBD.txt")});
}

#ifndef _WIN32
// Every step of the check and of the diagnosis names the file by the caller's UTF-8 bytes, also when the
// locale codec is another one: the same file is looked at, made, removed and diagnosed.
TEST_F(FileOpen, NonAsciiNamesUnderAnotherLocaleCodec)
{
    const std::string fresh = path("\xC3\xA9t\xC3\xA9-new.txt");
    const std::string old = path("\xC3\xA9t\xC3\xA9-old.txt");
    const std::string folder = path("d\xC3\xAF" "r");
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    FILE* file = fopen_utf8(old.c_str(), "w");
    ASSERT_TRUE(file);
    std::fputs("keep", file);
    std::fclose(file);
    const std::vector<std::string> before = namesIn(m_dir);
    ASSERT_EQ(before.size(), 2u);

    LocaleCodecGuard guard;
    ASSERT_TRUE(sp_SetLocaleEncoding(YString("ISO-8859-1")));
    EXPECT_TRUE(sp_CheckFileOpen(YString(fresh.c_str()), GfnWrite));
    EXPECT_TRUE(sp_CheckFileOpen(YString(fresh.c_str()), GfnWriteNew));
    EXPECT_FALSE(sp_CheckFileOpen(YString(fresh.c_str()), GfnRead));
    EXPECT_FALSE(sp_CheckFileOpen(YString(old.c_str()), GfnWriteNew));
    EXPECT_TRUE(sp_CheckFileOpen(YString(old.c_str()), GfnWrite));
    EXPECT_TRUE(sp_CheckFileOpen(YString(old.c_str()), GfnRead));
    EXPECT_EQ(sp_FileOpenForensic(YString(old.c_str()), GfnRead), FileOpenReadLocked);
    EXPECT_EQ(sp_FileOpenForensic(YString(old.c_str()), GfnWrite), FileOpenWriteLocked);
    EXPECT_EQ(sp_FileOpenForensic(YString(old.c_str()), GfnWriteNew), FileOpenOverwrite);
    EXPECT_EQ(sp_FileOpenForensic(YString(fresh.c_str()), GfnRead), FileOpenNotExist);
    EXPECT_EQ(sp_FileOpenForensic(YString(fresh.c_str()), GfnWrite), FileOpenDirPriv);
    EXPECT_EQ(sp_FileOpenForensic(YString((folder + "/new.txt").c_str()), GfnWrite), FileOpenDirPriv);
    EXPECT_EQ(sp_FileOpenForensic(YString(path("n\xC3\xB6/new.txt").c_str()), GfnWrite), FileOpenDirNotExist);
    EXPECT_EQ(namesIn(m_dir), before);
    EXPECT_TRUE(namesIn(folder).empty());
    FILE* kept = fopen_utf8(old.c_str(), "r");
    ASSERT_TRUE(kept);
    char content[16] = {};
    EXPECT_EQ(std::fread(content, 1, sizeof content - 1, kept), 4u);
    std::fclose(kept);
    EXPECT_STREQ(content, "keep");
}
#endif
