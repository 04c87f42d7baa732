// FileOpenCheckTest.cpp - the file-open check and its diagnosis, with real failed opens. Permission
// cases run the probe program as an unprivileged user when the tests run as root, since root's opens
// are not stopped by permission bits.
#include "FileOpenCheck.h"
#include "FileOpenCheck_p.h"
#include "FileServices.h"
#include "TestHelpers.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QDateTime>

#include <chrono>
#include <future>
#include <memory>
#include <thread>

#ifndef Q_OS_WIN
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
    const QString made = QString::fromStdString(path("made.txt"));
    bool created = false;
    EXPECT_TRUE(fileopencheck::opensForAppending(made, &created));
    EXPECT_TRUE(created);
    EXPECT_TRUE(QFile::exists(made));
    EXPECT_EQ(readFileBytes(path("made.txt")), "");
    EXPECT_TRUE(fileopencheck::opensForAppending(made, &created));
    EXPECT_FALSE(created);
    writeFileBytes(path("theirs.txt"), "theirs");
    created = true;
    EXPECT_TRUE(fileopencheck::opensForAppending(QString::fromStdString(path("theirs.txt")), &created));
    EXPECT_FALSE(created);
    EXPECT_EQ(readFileBytes(path("theirs.txt")), "theirs");
    created = true;
    EXPECT_FALSE(fileopencheck::opensForAppending(QString::fromStdString(path("no/such/folder.txt")), &created));
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

// A FIFO never holds the check: opening it for reading succeeds at once, and for writing without a
// reader fails at once. Each check runs on a thread of its own, waited for at most ten seconds.
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
    EXPECT_FALSE(checkInTime(GfnWrite, &finished));
    EXPECT_TRUE(finished);
    EXPECT_FALSE(checkInTime(GfnWriteNew, &finished));
    EXPECT_TRUE(finished);
    EXPECT_EQ(sp_FileOpenForensic(YString(fifo.c_str()), GfnRead), FileOpenReadLocked);
}
#endif
