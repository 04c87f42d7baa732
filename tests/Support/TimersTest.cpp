// TimersTest.cpp - numbered timers with a running event loop.
#include "TestHelpers.h"
#include "Timers.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <algorithm>

namespace {

class Counter : public TimerObject {
public:
    explicit Counter(bool* destroyed = nullptr) : m_destroyed(destroyed) {}
    ~Counter() override
    {
        if (m_destroyed)
            *m_destroyed = true;
    }
    void onTimer(int timerId) override
    {
        ++calls;
        lastId = timerId;
    }
    int calls = 0;
    int lastId = 0;

private:
    bool* m_destroyed;
};

// Runs the event loop for `ms` milliseconds: for checks that nothing happens meanwhile.
void spin(int ms)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

// Runs the event loop until `done` holds or `limitMs` milliseconds have passed; true when it holds.
template <class Condition>
bool spinUntil(Condition done, int limitMs = 5000)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() >= limitMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return true;
}

} // namespace

// Ids are handed out in order and never reused; the first one of a process is 1, which the other
// tests of this binary may already have taken.
TEST(Timers, IdsCountUpAndAreNeverReused)
{
    const int first = sp_CreateTimer(0, false, nullptr);
    EXPECT_GE(first, 1);
    EXPECT_TRUE(sp_DeleteTimer(first));
    const int second = sp_CreateTimer(0, false, nullptr);
    EXPECT_EQ(second, first + 1);
    EXPECT_FALSE(sp_DeleteTimer(first));
    EXPECT_TRUE(sp_DeleteTimer(second));
}

TEST(Timers, CreatedStoppedUntilStarted)
{
    auto* counter = new Counter;
    const int id = sp_CreateTimer(0, false, counter);
    EXPECT_EQ(sp_GetTimerInterval(id), 0);
    EXPECT_EQ(sp_GetTimerData(id), counter);
    spin(30);
    EXPECT_EQ(counter->calls, 0);
    EXPECT_TRUE(sp_StartTimer(id, 10));
    EXPECT_EQ(sp_GetTimerInterval(id), 10);
    EXPECT_TRUE(spinUntil([counter] { return counter->calls > 3; }));
    EXPECT_EQ(counter->lastId, id);
    EXPECT_TRUE(sp_DeleteTimer(id));
}

TEST(Timers, SingleShotCallsOnce)
{
    auto* counter = new Counter;
    const int id = sp_CreateTimer(20, true, counter);
    EXPECT_EQ(sp_GetTimerInterval(id), 20);
    EXPECT_TRUE(spinUntil([counter] { return counter->calls > 0; }));
    spin(60);
    EXPECT_EQ(counter->calls, 1);
    EXPECT_EQ(sp_GetTimerInterval(id), 0);
    EXPECT_EQ(sp_GetTimerData(id), counter);
    EXPECT_TRUE(sp_DeleteTimer(id));
}

TEST(Timers, KillAndRestart)
{
    auto* counter = new Counter;
    const int id = sp_CreateTimer(10, false, counter);
    EXPECT_TRUE(spinUntil([counter] { return counter->calls > 2; }));
    EXPECT_TRUE(sp_KillTimer(id));
    EXPECT_EQ(sp_GetTimerInterval(id), 0);
    const int stopped = counter->calls;
    spin(60);
    EXPECT_EQ(counter->calls, stopped);
    EXPECT_TRUE(sp_StartTimer(id, 10));
    EXPECT_TRUE(spinUntil([counter, stopped] { return counter->calls > stopped + 2; }));
    EXPECT_TRUE(sp_DeleteTimer(id));
}

TEST(Timers, TwoStartsDoubleTheRate)
{
    auto* counter = new Counter;
    const int id = sp_CreateTimer(10, false, counter);
    spin(250);
    const int single = counter->calls;
    EXPECT_TRUE(sp_StartTimer(id, 10)); // the first period keeps running beside the new one
    // The best of three windows, so that a scheduling stall on a loaded machine does not decide it.
    int doubled = 0;
    for (int window = 0; window < 3 && doubled < single * 3 / 2; ++window) {
        counter->calls = 0;
        spin(250);
        doubled = std::max(doubled, counter->calls);
    }
    EXPECT_GE(single, 8);
    EXPECT_GE(doubled, single * 3 / 2) << "single " << single << " doubled " << doubled;
    EXPECT_TRUE(sp_DeleteTimer(id));
}

TEST(Timers, DeletingDeletesTheCallbackObject)
{
    bool destroyed = false;
    const int id = sp_CreateTimer(10, false, new Counter(&destroyed));
    EXPECT_FALSE(destroyed);
    EXPECT_TRUE(sp_DeleteTimer(id));
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(sp_GetTimerInterval(id), -1);
    spin(30); // a period that was due must not reach the deleted object
}

// A one-shot job that deletes its own timer and then goes on with its own members: the timer and the
// object go once the callback has returned, and the timer is gone for everyone at once.
class SelfDeleting : public TimerObject {
public:
    SelfDeleting(int* calls, bool* destroyed) : m_calls(calls), m_destroyed(destroyed) {}
    ~SelfDeleting() override { *m_destroyed = true; }
    void onTimer(int id) override
    {
        m_deleted = sp_DeleteTimer(id);
        m_goneAtOnce = sp_GetTimerInterval(id) == -1;
        *m_calls += m_deleted && m_goneAtOnce && !*m_destroyed ? 1 : 100;
    }

private:
    int* m_calls;
    bool* m_destroyed;
    bool m_deleted = false;
    bool m_goneAtOnce = false;
};

TEST(Timers, ACallbackMayDeleteItsOwnTimer)
{
    int calls = 0;
    bool destroyed = false;
    const int id = sp_CreateTimer(5, false, new SelfDeleting(&calls, &destroyed));
    EXPECT_TRUE(spinUntil([&] { return calls > 0; }));
    spin(30);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(sp_GetTimerInterval(id), -1);
    EXPECT_FALSE(sp_DeleteTimer(id));
}

// A callback that deletes its own timer and then runs an event loop of its own (a dialog, a wait): no
// period of the timer reaches it again, though two were running.
class DeletesThenWaits : public TimerObject {
public:
    explicit DeletesThenWaits(int* calls) : m_calls(calls) {}
    void onTimer(int id) override
    {
        if (++*m_calls > 1)
            return;
        EXPECT_TRUE(sp_DeleteTimer(id));
        spin(100);
    }

private:
    int* m_calls;
};

TEST(Timers, ADeletedTimerCallsNoMoreWhileItsCallbackRunsOn)
{
    int calls = 0;
    const int id = sp_CreateTimer(5, false, new DeletesThenWaits(&calls));
    EXPECT_TRUE(sp_StartTimer(id, 5));
    EXPECT_TRUE(spinUntil([&] { return calls > 0; }));
    spin(30);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(sp_GetTimerInterval(id), -1);
}

// A callback object whose destructor deletes a timer: its own, which is already gone, or another one.
class DeletesOnDestruction : public TimerObject {
public:
    DeletesOnDestruction(int* target, int* result) : m_target(target), m_result(result) {}
    ~DeletesOnDestruction() override { *m_result = sp_DeleteTimer(*m_target) ? 1 : 0; }
    void onTimer(int) override {}

private:
    int* m_target;
    int* m_result;
};

TEST(Timers, ACallbackObjectsDestructorMayDeleteTimers)
{
    int ownId = 0, ownResult = -1;
    ownId = sp_CreateTimer(0, false, new DeletesOnDestruction(&ownId, &ownResult));
    bool otherDestroyed = false, bystanderDestroyed = false;
    int otherId = sp_CreateTimer(0, false, new Counter(&otherDestroyed));
    const int bystander = sp_CreateTimer(0, false, new Counter(&bystanderDestroyed));
    int otherResult = -1;
    const int deleter = sp_CreateTimer(0, false, new DeletesOnDestruction(&otherId, &otherResult));

    EXPECT_TRUE(sp_DeleteTimer(ownId));
    EXPECT_EQ(ownResult, 0); // its own timer was gone already
    EXPECT_TRUE(sp_DeleteTimer(deleter));
    EXPECT_EQ(otherResult, 1);
    EXPECT_TRUE(otherDestroyed);
    EXPECT_EQ(sp_GetTimerInterval(otherId), -1);
    EXPECT_FALSE(bystanderDestroyed);
    EXPECT_EQ(sp_GetTimerInterval(bystander), 0);
    EXPECT_TRUE(sp_DeleteTimer(bystander));
    EXPECT_TRUE(bystanderDestroyed);
}

TEST(Timers, UnknownIdsAndNegativeIntervals)
{
    EXPECT_EQ(sp_GetTimerInterval(987654), -1);
    EXPECT_FALSE(sp_KillTimer(987654));
    EXPECT_FALSE(sp_StartTimer(987654, 10));
    EXPECT_FALSE(sp_DeleteTimer(987654));
    EXPECT_EQ(sp_GetTimerData(987654), nullptr);
    EXPECT_EQ(sp_GetTimerInterval(-1), -1);
    auto* counter = new Counter;
    const int id = sp_CreateTimer(-5, false, counter);
    EXPECT_EQ(sp_GetTimerInterval(id), 0);
    spin(30);
    EXPECT_EQ(counter->calls, 0);
    // A negative start starts nothing and leaves the interval as it was.
    EXPECT_FALSE(sp_StartTimer(id, -1));
    EXPECT_EQ(sp_GetTimerInterval(id), 0);
    EXPECT_TRUE(sp_StartTimer(id, 10));
    EXPECT_FALSE(sp_StartTimer(id, -40));
    EXPECT_EQ(sp_GetTimerInterval(id), 10);
    EXPECT_TRUE(sp_KillTimer(id));
    spin(30);
    const int stopped = counter->calls;
    spin(50);
    EXPECT_EQ(counter->calls, stopped);
    EXPECT_TRUE(sp_DeleteTimer(id));
}
