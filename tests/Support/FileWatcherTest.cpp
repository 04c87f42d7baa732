// FileWatcherTest.cpp - folder notifications through a real QFileSystemWatcher and event loop.
#include "FileWatcher.h"
#include "TestHelpers.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QMetaObject>
#include <QTimer>

#include <string>
#include <vector>

namespace {

class RecordingWatcher : public YFileWatcher {
public:
    RecordingWatcher() = default;
    explicit RecordingWatcher(const YString& path) : YFileWatcher(path) {}
    void onDirectoryChanged(const YString& path) override { calls.push_back(path.c_str()); }
    std::vector<std::string> calls;
};

// Runs the event loop for `ms` milliseconds, or until `done` holds.
template <class Done>
void spin(int ms, Done done)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms && !done())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
}

} // namespace

class FileWatch : public TempDirTest {};

TEST_F(FileWatch, FileCreatedInAWatchedFolderGivesOneCallWithTheFolderPath)
{
    const std::string folder = path("d\xC3\xA9j\xC3\xA0 vu");
    ASSERT_TRUE(QDir().mkpath(QString::fromUtf8(folder.c_str())));
    RecordingWatcher watcher{YString(folder.c_str())};
    writeFileBytes(folder + "/new.cir", "R1 a b 1k\n");
    spin(5000, [&] { return !watcher.calls.empty(); });
    spin(300, [] { return false; });
    ASSERT_EQ(watcher.calls.size(), 1u);
    EXPECT_EQ(watcher.calls[0], folder);
}

TEST_F(FileWatch, AddPathWatchesLaterFolders)
{
    RecordingWatcher watcher;
    watcher.addPath(YString(m_dir.c_str()));
    writeFileBytes(path("x.txt"), "x");
    spin(5000, [&] { return !watcher.calls.empty(); });
    ASSERT_FALSE(watcher.calls.empty());
    EXPECT_EQ(watcher.calls[0], m_dir);
}

TEST_F(FileWatch, ChangesToAWatchedFileGiveNoCall)
{
    writeFileBytes(path("watched.txt"), "a");
    RecordingWatcher watcher{YString(path("watched.txt").c_str())};
    writeFileBytes(path("watched.txt"), "changed");
    spin(700, [] { return false; });
    EXPECT_TRUE(watcher.calls.empty());
}

TEST_F(FileWatch, MissingPathIsIgnored)
{
    RecordingWatcher watcher{YString(path("missing").c_str())};
    watcher.addPath(YString(path("missing/too").c_str()));
    watcher.addPath(YString(""));
    writeFileBytes(path("x.txt"), "x");
    spin(500, [] { return false; });
    EXPECT_TRUE(watcher.calls.empty());
}

TEST_F(FileWatch, CopySharesTheWatcherAndEachDeletesIt)
{
    RecordingWatcher watcher{YString(m_dir.c_str())};
    {
        RecordingWatcher copy(watcher);
        EXPECT_TRUE(copy.calls.empty());
    }
    // The copy deleted the shared Qt watcher: the original hears nothing more, and its own deletion
    // finds the watcher already gone.
    writeFileBytes(path("after.txt"), "x");
    spin(500, [] { return false; });
    EXPECT_TRUE(watcher.calls.empty());
}

// A client may delete itself while it hears of a change, though changes in other watched folders are
// still being delivered: it hears of one, and nothing is touched after it is gone.
TEST_F(FileWatch, AClientMayDeleteItselfWhenItHearsOfAChange)
{
    struct SelfDeleting : YFileWatcher {
        explicit SelfDeleting(int* calls) : m_calls(calls) {}
        void onDirectoryChanged(const YString&) override
        {
            ++*m_calls;
            delete this;
        }
        int* m_calls;
    };
    int calls = 0;
    auto* watcher = new SelfDeleting(&calls);
    for (const char* folder : {"a", "b", "c"}) {
        ASSERT_TRUE(QDir().mkpath(QString::fromStdString(path(folder))));
        watcher->addPath(YString(path(folder).c_str()));
    }
    for (const char* file : {"a/x", "b/x", "c/x", "a/y", "b/y"})
        writeFileBytes(path(file), "x");
    spin(3000, [&] { return calls > 0; });
    spin(300, [] { return false; });
    EXPECT_EQ(calls, 1);
}

// A client that runs an event loop of its own while it hears of a change may be deleted from that loop:
// the watcher outlives the delivery, and the client hears of nothing more.
TEST_F(FileWatch, AClientDeletedFromAnEventLoopItRunsWhileItHearsOfAChange)
{
    struct Nesting : YFileWatcher {
        Nesting(const YString& folder, int* calls, bool* deleted) : YFileWatcher(folder), m_calls(calls), m_deleted(deleted) {}
        ~Nesting() override { *m_deleted = true; }
        void onDirectoryChanged(const YString&) override
        {
            ++*m_calls;
            Nesting* const self = this;
            QEventLoop loop;
            QTimer::singleShot(20, [self] { delete self; });
            QTimer::singleShot(200, &loop, &QEventLoop::quit);
            loop.exec();
        }
        int* m_calls;
        bool* m_deleted;
    };
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(path("w"))));
    int calls = 0;
    bool deleted = false;
    new Nesting(YString(path("w").c_str()), &calls, &deleted);
    writeFileBytes(path("w/x"), "x");
    spin(3000, [&] { return deleted; });
    writeFileBytes(path("w/y"), "y");
    spin(300, [] { return false; });
    EXPECT_TRUE(deleted);
    EXPECT_EQ(calls, 1);
}

TEST(FileSystemWatcherImpl, HasItsOwnClassName)
{
    FileSystemWatcherImpl impl;
    EXPECT_STREQ(impl.metaObject()->className(), "FileSystemWatcherImpl");
    EXPECT_TRUE(impl.inherits("QFileSystemWatcher"));
    EXPECT_NE(qobject_cast<QFileSystemWatcher*>(&impl), nullptr);
}
