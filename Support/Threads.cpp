// Threads.cpp - KvMutex, KvQThread, KvQtEventLoop and the event pumps.
#include "Threads.h"
#include "ProcessServices.h"

#include <QCoreApplication>
#include <QEvent>
#include <QEventLoop>
#include <QHash>
#include <QMutex>
#include <QMutexLocker>
#include <QSet>
#include <QThread>
#include <QVector>

#ifndef _WIN32
#include <pthread.h>
#endif

/// The Qt thread of a KvQThread: runs the owner's body.
class KvThreadImpl : public QThread {
public:
    explicit KvThreadImpl(KvQThread* owner) : m_owner(owner) {}

protected:
    void run() override
    {
#ifndef _WIN32
        // A forced end must stop even a body that never makes a system call: the POSIX cancellation
        // Qt's terminate uses would otherwise wait for one forever. Only the body is cancellable at any
        // instruction.
        int previous = PTHREAD_CANCEL_DEFERRED;
        pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &previous);
        m_owner->threadBody();
        pthread_setcanceltype(previous, nullptr);
#else
        m_owner->threadBody();
#endif
        // Qt's own finishing work after the body (deferred deletions, thread storage) has cleanups that
        // a forced end must not cut off: a terminate asked for from now on is left pending, and the
        // thread ends by itself.
        QThread::setTerminationEnabled(false);
    }

private:
    KvQThread* m_owner;
};

KvMutex::KvMutex() : m_mutex(new QMutex) {}
KvMutex::~KvMutex() { delete m_mutex; }
void KvMutex::lock() { m_mutex->lock(); }
void KvMutex::unlock() { m_mutex->unlock(); }
bool KvMutex::tryLock() { return m_mutex->tryLock(0); }

namespace {

// Who shares each thread object not yet destroyed: a copy shares its source's, and whichever of them is
// destroyed first destroys it. The others are then orphans, and their destruction does nothing. They are
// known by their own addresses, which no other object can take while they live (the thread object's
// address may be taken again by a new one at once).
QMutex s_sharersMutex;
QHash<KvThreadImpl*, QVector<KvQThread*>> s_sharers;
QSet<const KvQThread*> s_orphans;

} // namespace

KvQThread::KvQThread() : m_impl(new KvThreadImpl(this))
{
    QMutexLocker lock(&s_sharersMutex);
    s_sharers[m_impl].append(this);
}

// The copy shares the thread object on purpose.
KvQThread::KvQThread(const KvQThread& other) : m_impl(other.m_impl)
{
    QMutexLocker lock(&s_sharersMutex);
    if (s_orphans.contains(&other))
        s_orphans.insert(this);
    else
        s_sharers[m_impl].append(this);
}

KvQThread::~KvQThread()
{
    {
        QMutexLocker lock(&s_sharersMutex);
        if (s_orphans.remove(this))
            return;
        for (KvQThread* sharer : s_sharers.take(m_impl))
            if (sharer != this)
                s_orphans.insert(sharer);
    }
    if (QThread::currentThread() == m_impl) {
        // Destroyed from its own body, which cannot wait for itself: the thread object goes once the
        // body has returned.
        QObject::connect(m_impl, &QThread::finished, m_impl, &QObject::deleteLater);
        return;
    }
    if (m_impl->isRunning() && !m_impl->wait(1000)) {
        m_impl->terminate();
        m_impl->wait();
    }
    delete m_impl;
}

void KvQThread::requestTerminate() {}

namespace {
// Whether `thread` is a copy whose thread went with the copy destroyed before it.
bool orphaned(const KvQThread* thread)
{
    QMutexLocker lock(&s_sharersMutex);
    return s_orphans.contains(thread);
}
} // namespace

// A copy left without a thread starts nothing, runs nothing and has nothing to wait for.
void KvQThread::start()
{
    if (!orphaned(this))
        m_impl->start(QThread::InheritPriority);
}

bool KvQThread::running() const { return !orphaned(this) && m_impl->isRunning(); }

// -1 becomes the largest unsigned long, which Qt takes for no limit; through a 32-bit unsigned value it
// would be some 50 days where a long has 64 bits.
bool KvQThread::wait(int ms) { return orphaned(this) || m_impl->wait(static_cast<unsigned long>(static_cast<long>(ms))); }

KvQtEventLoop::KvQtEventLoop() : m_loop(new QEventLoop) {}
KvQtEventLoop::~KvQtEventLoop() { delete m_loop; }
void KvQtEventLoop::exec() { m_loop->exec(QEventLoop::AllEvents); }
void KvQtEventLoop::exit() { m_loop->exit(0); }

namespace {
double s_lastPump = 0.0;
}

void sp_ProcessEvents(int intervalMs)
{
    if (s_lastPump != 0.0 && intervalMs >= 1) {
        const double now = sp_GetPerfTime();
        if (!(now - s_lastPump > intervalMs / 1000.0))
            return;
    }
    s_lastPump = sp_GetPerfTime();
    QCoreApplication::processEvents(QEventLoop::AllEvents);
}

void sp_ProcessDeleteEvents() { QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); }
