// ThreadsTest.cpp - worker threads, the mutex, the local event loop and the event pumps.
#include "TestHelpers.h"
#include "Threads.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEvent>
#include <QPointer>
#include <QThread>
#include <QTimer>

#include <atomic>

namespace {

class CountingThread : public KvQThread {
public:
    CountingThread() = default;
    CountingThread(const CountingThread& other) : KvQThread(other) {}
    std::atomic<int> runs{0};
    void threadBody() override { ++runs; }
};

class EndlessThread : public KvQThread {
public:
    std::atomic<bool> entered{false};
    void threadBody() override
    {
        entered = true;
        for (;;)
            QThread::msleep(5);
    }
};

// A body that never makes a system call, so never reaches a point where a deferred cancellation acts.
// Its loop touches nothing of the object, which is taken apart around it while the destructor waits.
std::atomic<long long> g_busyTurns{0};

class BusyThread : public KvQThread {
public:
    std::atomic<bool> entered{false};
    void threadBody() override
    {
        entered = true;
        for (;;)
            g_busyTurns.fetch_add(1, std::memory_order_relaxed);
    }
};

// An object whose deferred deletion takes a while, as one that flushes or closes a connection does.
std::atomic<bool> g_slowDeleted{false};

class SlowToDelete : public QObject {
public:
    ~SlowToDelete() override
    {
        QThread::msleep(1500);
        g_slowDeleted = true;
    }
};

// A body that leaves such an object to the thread's end and returns.
class ReturningThread : public KvQThread {
public:
    std::atomic<bool> returning{false};
    void threadBody() override
    {
        (new SlowToDelete)->deleteLater();
        returning = true;
    }
};

// A body that destroys its own thread object, then goes on with what it keeps outside it.
class SelfDestroyingThread : public KvQThread {
public:
    explicit SelfDestroyingThread(std::atomic<int>* stage) : m_stage(stage) {}
    void threadBody() override
    {
        std::atomic<int>* const stage = m_stage;
        delete this;
        stage->store(1);
    }

private:
    std::atomic<int>* m_stage;
};

class LockerThread : public KvQThread {
public:
    explicit LockerThread(KvMutex* mutex) : m_mutex(mutex) {}
    std::atomic<int> result{-1};
    void threadBody() override
    {
        QElapsedTimer timer;
        timer.start();
        const bool got = m_mutex->tryLock();
        elapsedMs = static_cast<int>(timer.elapsed());
        if (got)
            m_mutex->unlock();
        result = got ? 1 : 0;
    }
    std::atomic<int> elapsedMs{-1};

private:
    KvMutex* m_mutex;
};

class EventCounter : public QObject {
public:
    int delivered = 0;
    bool event(QEvent* e) override
    {
        if (e->type() == QEvent::User) {
            ++delivered;
            return true;
        }
        return QObject::event(e);
    }
};

} // namespace

TEST(KvQThread, RunsTheBodyOnAThread)
{
    CountingThread t;
    EXPECT_FALSE(t.running());
    t.start();
    EXPECT_TRUE(t.wait(-1));
    EXPECT_EQ(t.runs.load(), 1);
    EXPECT_FALSE(t.running());
    t.requestTerminate(); // does nothing
}

TEST(KvQThread, DestroyingARunningThreadTerminatesItAfterASecond)
{
    QElapsedTimer timer;
    {
        auto* t = new EndlessThread;
        t->start();
        while (!t->entered)
            QThread::msleep(1);
        EXPECT_FALSE(t->wait(50));
        timer.start();
        delete t;
    }
    const qint64 ms = timer.elapsed();
    EXPECT_GE(ms, 950);
    EXPECT_LT(ms, 5000);
}

// A body that has returned is not ended by force: the thread's own finishing work (here a deferred
// deletion that outlasts the second the destructor waits) is waited for.
TEST(KvQThread, AThreadFinishingAfterItsBodyIsWaitedForNotTerminated)
{
    g_slowDeleted = false;
    auto* t = new ReturningThread;
    t->start();
    while (!t->returning)
        QThread::msleep(1);
    QThread::msleep(100);
    QElapsedTimer timer;
    timer.start();
    delete t;
    EXPECT_TRUE(g_slowDeleted.load());
    EXPECT_GE(timer.elapsed(), 1000);
}

TEST(KvQThread, ABodyThatNeverCallsTheSystemIsTerminatedToo)
{
    auto* t = new BusyThread;
    t->start();
    while (!t->entered)
        QThread::msleep(1);
    QElapsedTimer timer;
    timer.start();
    delete t;
    const qint64 ms = timer.elapsed();
    EXPECT_GE(ms, 950);
    EXPECT_LT(ms, 5000);
}

TEST(KvQThread, ABodyMayDestroyItsOwnThread)
{
    std::atomic<int> stage{0};
    auto* t = new SelfDestroyingThread(&stage);
    t->start();
    QElapsedTimer timer;
    timer.start();
    while (stage.load() == 0 && timer.elapsed() < 5000)
        QThread::msleep(1);
    EXPECT_EQ(stage.load(), 1);
    // The thread object goes once the body has returned, through the deferred deletion.
    QThread::msleep(50);
    sp_ProcessDeleteEvents();
}

TEST(KvQThread, CopySharesTheThread)
{
    CountingThread original;
    KvQThread* copy = new CountingThread(original);
    original.start();
    EXPECT_TRUE(copy->wait(-1)); // the copy waits on the same thread
    EXPECT_EQ(original.runs.load(), 1);
    delete copy;                 // destroys the shared thread; the original then finds it gone
}

// A copy that outlives its source finds the shared thread gone, even when a new thread object has
// taken the old one's place in memory (as the allocator hands a freed block out again at once): its
// calls and its destruction leave the new thread alone.
TEST(KvQThread, ACopyOutlivingItsSourceLeavesANewerThreadAlone)
{
    for (int round = 0; round < 20; ++round) {
        auto* original = new CountingThread;
        auto* copy = new CountingThread(*original);
        delete original; // destroys the shared thread
        auto* newer = new CountingThread;
        // The copy is left without a thread: it runs nothing, the newer thread in the old one's place
        // neither, and has nothing to wait for.
        EXPECT_FALSE(copy->running());
        EXPECT_TRUE(copy->wait(1000));
        copy->start();
        EXPECT_FALSE(copy->running());
        EXPECT_EQ(copy->runs.load(), 0);
        auto* copyOfCopy = new CountingThread(*copy); // an orphan's copy is an orphan too
        delete copy;
        delete copyOfCopy;
        newer->start();
        ASSERT_TRUE(newer->wait(5000));
        EXPECT_EQ(newer->runs.load(), 1);
        delete newer;
    }
}

TEST(KvMutex, TryLockHeldElsewhereFailsAtOnce)
{
    KvMutex mutex;
    mutex.lock();
    LockerThread other(&mutex);
    other.start();
    EXPECT_TRUE(other.wait(-1));
    EXPECT_EQ(other.result.load(), 0);
    // The mutex stays held until the thread has ended, so a waiting tryLock would never return.
    EXPECT_LT(other.elapsedMs.load(), 2000);
    mutex.unlock();
    EXPECT_TRUE(mutex.tryLock());
    mutex.unlock();
    LockerThread again(&mutex);
    again.start();
    EXPECT_TRUE(again.wait(-1));
    EXPECT_EQ(again.result.load(), 1);
}

TEST(KvQtEventLoop, RunsUntilExit)
{
    KvQtEventLoop loop;
    int fired = 0;
    QTimer::singleShot(20, [&] {
        ++fired;
        loop.exit();
    });
    loop.exec();
    EXPECT_EQ(fired, 1);
}

TEST(ProcessEvents, RateLimited)
{
    EventCounter counter;
    sp_ProcessEvents(0); // a pump now: the next one with 100 ms comes too soon
    QCoreApplication::postEvent(&counter, new QEvent(QEvent::User));
    sp_ProcessEvents(100);
    EXPECT_EQ(counter.delivered, 0);
    QThread::msleep(150);
    sp_ProcessEvents(100);
    EXPECT_EQ(counter.delivered, 1);
    QCoreApplication::postEvent(&counter, new QEvent(QEvent::User));
    sp_ProcessEvents(100); // within 100 ms of the last pump
    EXPECT_EQ(counter.delivered, 1);
    sp_ProcessEvents(0); // interval 0 pumps every time
    EXPECT_EQ(counter.delivered, 2);
    QCoreApplication::postEvent(&counter, new QEvent(QEvent::User));
    sp_ProcessEvents(-5);
    EXPECT_EQ(counter.delivered, 3);
}

TEST(ProcessEvents, DeleteEventsAreDeliveredAtOnce)
{
    QPointer<QObject> object = new QObject;
    object->deleteLater();
    EXPECT_FALSE(object.isNull());
    sp_ProcessDeleteEvents();
    EXPECT_TRUE(object.isNull());
}
