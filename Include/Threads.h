// Threads.h - a worker thread, a mutex and a local event loop for modules without Qt, and two ways to
// keep the user interface alive during long computations. No Qt types appear here.
#pragma once

#include "SupportQtExport.h"

class QEventLoop;
class QMutex;
class KvThreadImpl;

/// A non-recursive mutex: locking it twice on one thread deadlocks.
class SUPPORTQT_API KvMutex {
public:
    KvMutex();
    ~KvMutex();
    KvMutex(const KvMutex&) = delete;
    KvMutex& operator=(const KvMutex&) = delete;
    void lock();
    void unlock();
    /// One attempt; true when the mutex is now held.
    [[nodiscard]] bool tryLock();

private:
    QMutex* m_mutex;
};

/// A worker thread: derive, implement `threadBody`, then `start`. A copy shares the original's thread:
/// whichever of the two is destroyed first destroys the thread, so only one may be destroyed while the
/// thread is needed; the other is then left without a thread (not running, a wait true at once, a start
/// doing nothing). No call on one may overlap the destruction of the other. Destroying a running thread waits a second for the body to return, then
/// terminates it wherever it is in the body (on POSIX systems it may be cancelled at any instruction, as
/// a thread is ended by force on Windows); a thread whose body has returned is waited for to its end,
/// its deferred deletions included. A body ended so may leave locks it held, of the C library too,
/// so bodies that can run long should end through `requestTerminate` or flags of their own. A body may
/// destroy its own thread object; the thread then ends when the body returns. The wait happens in this
/// class's destructor, after the subclass's own is done: a subclass that may be destroyed between
/// `start` and the body's return (even before the body has begun) waits in its own destructor, or the
/// body is called on, or goes on with, a half-destroyed object.
class SUPPORTQT_API KvQThread {
public:
    KvQThread();
    KvQThread(const KvQThread& other);
    KvQThread& operator=(const KvQThread&) = delete;
    virtual ~KvQThread();

    /// The work of the thread; runs on the new thread.
    virtual void threadBody() = 0;
    /// A request to end the body early; does nothing here.
    virtual void requestTerminate();

    /// Starts the thread with the priority of the calling thread.
    void start();
    bool running() const;
    /// Waits up to `ms` milliseconds (-1: without limit) for the body to return; true when it has.
    [[nodiscard]] bool wait(int ms);

private:
    KvThreadImpl* m_impl;
};

/// A local event loop.
class SUPPORTQT_API KvQtEventLoop {
public:
    KvQtEventLoop();
    ~KvQtEventLoop();
    KvQtEventLoop(const KvQtEventLoop&) = delete;
    KvQtEventLoop& operator=(const KvQtEventLoop&) = delete;
    /// Runs the loop until `exit`.
    void exec();
    void exit();

private:
    QEventLoop* m_loop;
};

/// Processes the calling thread's pending events once, unless the last pump was no more than
/// `intervalMs` ago (0 or less: always). User-interface thread only.
SUPPORTQT_API void sp_ProcessEvents(int intervalMs);
/// Delivers every pending deferred deletion now.
SUPPORTQT_API void sp_ProcessDeleteEvents();
