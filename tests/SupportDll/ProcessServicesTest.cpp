// ProcessServicesTest.cpp - monotonic time and services on real process ids.
#include "ProcessServices.h"
#include "FileServices.h"
#include "TestHelpers.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QThread>

#include <cstdio>

#ifdef Q_OS_WIN
#include <windows.h>
#endif

TEST(PerfTime, IsMonotonicSeconds)
{
    double a = sp_GetPerfTime();
    QThread::msleep(20);
    double b = sp_GetPerfTime();
    EXPECT_GE(b - a, 0.015);
    EXPECT_LT(b - a, 5.0);
}

namespace {
#ifdef Q_OS_WIN
constexpr const char* kProgramSuffix = ".exe";
#else
constexpr const char* kProgramSuffix = "";
#endif

// Starts the test build's child program under `name` in `dir` with `steps` as its steps file.
void startChild(QProcess& child, const std::string& dir, const char* name, const char* steps)
{
    const QString program = QString::fromStdString(dir + "/" + name + kProgramSuffix);
    ASSERT_TRUE(QFile::copy(QStringLiteral(CHILD_PROGRAM_PATH), program));
    QFile::setPermissions(program, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    writeFileBytes(dir + "/" + name + ".steps", steps);
    child.start(program, QStringList());
    ASSERT_TRUE(child.waitForStarted(5000));
}
} // namespace

class ProcessServices : public TempDirTest {};

TEST_F(ProcessServices, RunningChildIsSeenAndEndedChildIsNot)
{
    // The test build's child program, which without a steps file beside it would end at once: it is
    // given one that sleeps.
    QProcess child;
    ASSERT_NO_FATAL_FAILURE(startChild(child, m_dir, "sleeper", "sleep 30000\n"));
#ifdef Q_OS_WIN
    // Qt's process handle on Windows is a pointer to the system's PROCESS_INFORMATION.
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    int pid = sp_GetPidFromQProcessPID(static_cast<long long>(reinterpret_cast<quintptr>(child.pid())));
    QT_WARNING_POP
#else
    int pid = sp_GetPidFromQProcessPID(child.processId());
#endif
    EXPECT_EQ(pid, static_cast<int>(child.processId()));
    EXPECT_TRUE(sp_IsProcessRunning(pid));
    // A child starts at its parent's priority: normal, unless the tests themselves run at a low one.
    const int own = sp_GetProcessPriority(sp_GetCurrentProcessId());
    EXPECT_TRUE(own == ThreadPriorityNormal || own == ThreadPriorityLow) << own;
    EXPECT_EQ(sp_GetProcessPriority(pid), own);
    EXPECT_TRUE(sp_SetProcessPriority(pid, ThreadPriorityLow));
    EXPECT_EQ(sp_GetProcessPriority(pid), ThreadPriorityLow);
    child.kill();
    ASSERT_TRUE(child.waitForFinished(5000));
    EXPECT_FALSE(sp_IsProcessRunning(pid));
    EXPECT_EQ(sp_GetProcessPriority(pid), -1);
    EXPECT_FALSE(sp_SetProcessPriority(pid, ThreadPriorityNormal));
}

TEST(ProcessIds, InvalidIdsGiveMinusOneAndFalse)
{
    EXPECT_EQ(sp_GetPidFromQProcessPID(0), -1);
    EXPECT_EQ(sp_GetPidFromQProcessPID(-5), -1);
#ifdef Q_OS_WIN
    // Not pointers to the system's process information (too low, misaligned): nothing is read there.
    EXPECT_EQ(sp_GetPidFromQProcessPID(8), -1);
    EXPECT_EQ(sp_GetPidFromQProcessPID(0x7ff000000009LL), -1);
    EXPECT_EQ(sp_GetPidFromQProcessPID(0x7ff000000000LL), -1); // aligned, but not mapped
#endif
    EXPECT_FALSE(sp_IsProcessRunning(-1));
    EXPECT_FALSE(sp_IsProcessRunning(0));
    EXPECT_EQ(sp_GetProcessPriority(-1), -1);
    EXPECT_FALSE(sp_SetProcessPriority(-1, ThreadPriorityHigh));
    EXPECT_TRUE(sp_IsProcessRunning(sp_GetCurrentProcessId()));
    EXPECT_EQ(sp_GetCurrentProcessId(), static_cast<int>(QCoreApplication::applicationPid()));
}


TEST_F(ProcessServices, AChildDoesNotHoldTheFilesOpenWhenItStarted)
{
    // A file the library opened while a child started is the caller's alone: once closed, it can be
    // deleted and replaced though the child still runs.
    const std::string name = path("open while the child starts.txt");
    FILE* file = fopen_utf8(name.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    QProcess child;
    ASSERT_NO_FATAL_FAILURE(startChild(child, m_dir, "holder", "sleep 20000\n"));
    std::fclose(file);
    EXPECT_EQ(unlink_utf8(name.c_str()), 0);
    EXPECT_FALSE(QFile::exists(QString::fromStdString(name)));
    EXPECT_EQ(child.state(), QProcess::Running);
    child.kill();
    child.waitForFinished(5000);
}

#ifdef Q_OS_WIN
// A running program cannot be deleted, so a rename over it fails and leaves both files as they were,
// with nothing set aside beside them.
TEST_F(ProcessServices, ARenameOverARunningProgramFailsAndLeavesBoth)
{
    QProcess child;
    ASSERT_NO_FATAL_FAILURE(startChild(child, m_dir, "running", "sleep 20000\n"));
    writeFileBytes(path("new.exe"), "not a program");
    EXPECT_EQ(rename_utf8(path("new.exe").c_str(), path("running.exe").c_str()), -1);
    EXPECT_EQ(readFileBytes(path("new.exe")), "not a program");
    EXPECT_EQ(readFileBytes(path("running.exe")), readFileBytes(CHILD_PROGRAM_PATH));
    child.kill();
    child.waitForFinished(5000);
    const QStringList entries = QDir(QString::fromStdString(m_dir)).entryList(QDir::Files | QDir::Hidden);
    EXPECT_EQ(entries, (QStringList{"new.exe", "running.exe", "running.steps"}));
}

TEST_F(ProcessServices, AChildThatEndedWithCode259IsNotRunning)
{
    // 259 is the value that also stands for "still active": the process object itself is asked. A handle
    // of our own keeps the object after Qt has let its own go.
    QProcess child;
    ASSERT_NO_FATAL_FAILURE(startChild(child, m_dir, "exit259", "sleep 300\nexit 259\n"));
    const int pid = static_cast<int>(child.processId());
    const HANDLE kept = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
    ASSERT_NE(kept, nullptr);
    ASSERT_TRUE(child.waitForFinished(5000));
    EXPECT_EQ(child.exitCode(), 259);
    EXPECT_FALSE(sp_IsProcessRunning(pid));
    EXPECT_EQ(sp_GetProcessPriority(pid), -1);
    CloseHandle(kept);
}
#endif
