// ProcessServicesTest.cpp - monotonic time and services on real process ids.
#include "ProcessServices.h"
#include "TestHelpers.h"

#include <QCoreApplication>
#include <QProcess>
#include <QThread>

TEST(PerfTime, IsMonotonicSeconds)
{
    double a = sp_GetPerfTime();
    QThread::msleep(20);
    double b = sp_GetPerfTime();
    EXPECT_GE(b - a, 0.015);
    EXPECT_LT(b - a, 5.0);
}

TEST(Processes, RunningChildIsSeenAndEndedChildIsNot)
{
    QProcess child;
    child.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), QStringLiteral("sleep 30")});
    ASSERT_TRUE(child.waitForStarted(5000));
    int pid = sp_GetPidFromQProcessPID(child.processId());
    EXPECT_EQ(pid, static_cast<int>(child.processId()));
    EXPECT_TRUE(sp_IsProcessRunning(pid));
    EXPECT_EQ(sp_GetProcessPriority(pid), ThreadPriorityNormal);
    EXPECT_TRUE(sp_SetProcessPriority(pid, ThreadPriorityLow));
    EXPECT_EQ(sp_GetProcessPriority(pid), ThreadPriorityLow);
    child.kill();
    ASSERT_TRUE(child.waitForFinished(5000));
    EXPECT_FALSE(sp_IsProcessRunning(pid));
    EXPECT_EQ(sp_GetProcessPriority(pid), -1);
    EXPECT_FALSE(sp_SetProcessPriority(pid, ThreadPriorityNormal));
}

TEST(Processes, InvalidIdsGiveMinusOneAndFalse)
{
    EXPECT_EQ(sp_GetPidFromQProcessPID(0), -1);
    EXPECT_EQ(sp_GetPidFromQProcessPID(-5), -1);
    EXPECT_FALSE(sp_IsProcessRunning(-1));
    EXPECT_FALSE(sp_IsProcessRunning(0));
    EXPECT_EQ(sp_GetProcessPriority(-1), -1);
    EXPECT_FALSE(sp_SetProcessPriority(-1, ThreadPriorityHigh));
    EXPECT_TRUE(sp_IsProcessRunning(sp_GetCurrentProcessId()));
    EXPECT_EQ(sp_GetCurrentProcessId(), static_cast<int>(QCoreApplication::applicationPid()));
}
