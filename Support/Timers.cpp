// Timers.cpp - the registry of numbered timers.
#include "Timers.h"
#include "LoadTime_p.h"
#include "Timers_p.h"

#include <QSharedPointer>

namespace {

int s_createdTimers = 0;

// The first live timer with that id, or null.
GenericTimer* findTimer(int id)
{
    for (const QSharedPointer<GenericTimer>& timer : SupportQtLoadTime::liveTimers())
        if (timer->id() == id)
            return timer.data();
    return nullptr;
}

} // namespace

TimerObject::~TimerObject() = default;

GenericTimer::~GenericTimer() { delete m_callback; }

void GenericTimer::startPeriod(int interval)
{
    m_interval = interval;
    const int qtId = startTimer(interval, Qt::CoarseTimer);
    if (qtId != 0)
        m_qtTimers.append(qtId);
}

void GenericTimer::stopAll()
{
    for (int qtId : m_qtTimers)
        killTimer(qtId);
    m_qtTimers.clear();
    m_interval = 0;
}

void GenericTimer::timerEvent(QTimerEvent*)
{
    if (m_singleShot)
        stopAll();
    if (!m_callback)
        return;
    // A callback may delete its own timer: the timer and its callback object then go once the callback
    // has returned, not under it.
    QSharedPointer<GenericTimer> keep;
    for (const QSharedPointer<GenericTimer>& timer : SupportQtLoadTime::liveTimers())
        if (timer.data() == this)
            keep = timer;
    m_callback->onTimer(m_id);
}

int sp_CreateTimer(int interval, bool singleShot, TimerObject* data)
{
    const int id = ++s_createdTimers;
    QSharedPointer<GenericTimer> timer(new GenericTimer(id, singleShot, data));
    if (interval > 0)
        timer->startPeriod(interval);
    SupportQtLoadTime::liveTimers().append(timer);
    return id;
}

bool sp_StartTimer(int id, int interval)
{
    GenericTimer* timer = findTimer(id);
    // A negative interval cannot be started (Qt would refuse it aloud); the timer stays as it was.
    if (!timer || interval < 0)
        return false;
    // Periods already running keep running beside the new one, on purpose.
    timer->startPeriod(interval);
    return true;
}

bool sp_KillTimer(int id)
{
    GenericTimer* timer = findTimer(id);
    if (!timer)
        return false;
    timer->stopAll();
    return true;
}

int sp_GetTimerInterval(int id)
{
    const GenericTimer* timer = findTimer(id);
    return timer ? timer->interval() : -1;
}

TimerObject* sp_GetTimerData(int id)
{
    const GenericTimer* timer = findTimer(id);
    return timer ? timer->callback() : nullptr;
}

bool sp_DeleteTimer(int id)
{
    QList<QSharedPointer<GenericTimer>>& timers = SupportQtLoadTime::liveTimers();
    // The timers leave the list before they go, since their callback objects' destructors may call here
    // again; they go when `removed` does.
    QList<QSharedPointer<GenericTimer>> removed;
    for (int i = timers.size() - 1; i >= 0; --i)
        if (timers[i]->id() == id) {
            // A callback that deleted its own timer may run on, in an event loop of its own: no period
            // reaches it again.
            timers[i]->stopAll();
            removed.append(timers.takeAt(i));
        }
    return !removed.isEmpty();
}
