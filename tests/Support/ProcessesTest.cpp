// ProcessesTest.cpp - child processes from shell scripts written by the test: launch errors, exit
// codes, captured output, waiting with events flowing, kill, priorities, and children that outlive
// their KvProcess.
#include "Console.h"
#include "ProcessServices.h"
#include "Processes.h"
#include "TestHelpers.h"
#include "Threads.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>
#include <QTimer>

#include <string>

#ifndef Q_OS_WIN
#include <unistd.h>

namespace {

// Spins the event loop until `done` holds or `ms` pass.
template <class Done>
bool spinUntil(int ms, Done done)
{
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    return done();
}

} // namespace

class Processes : public TempDirTest {
protected:
    // Writes an executable shell script and returns its path.
    std::string script(const std::string& name, const std::string& body)
    {
        const std::string p = path(name);
        QDir().mkpath(QFileInfo(QString::fromStdString(p)).absolutePath());
        writeFileBytes(p, "#!/bin/sh\n" + body + "\n");
        QFile::setPermissions(QString::fromStdString(p), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        return p;
    }
    static std::string quoted(const std::string& p) { return "\"" + p + "\""; }
};

// ---------------------------------------------------------------- sp_SpawnApplication

TEST_F(Processes, NewConsoleIsRefused)
{
    unsigned code = 99;
    int pid = 1234;
    EXPECT_EQ(sp_SpawnApplication("/bin/true", SpawnNewConsole | SpawnWait, YRef<kvstream>(), &code, &pid),
              SSPE_NotSupported);
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(pid, 1234);
}

TEST_F(Processes, ExitCodeWithWait)
{
    const std::string s = script("exit3.sh", "exit 3");
    unsigned code = 0;
    int pid = 0;
    EXPECT_EQ(sp_SpawnApplication(quoted(s).c_str(), SpawnWait, YRef<kvstream>(), &code, &pid), SSPE_Ok);
    EXPECT_EQ(code, 3u);
    EXPECT_EQ(pid, -1);
}

TEST_F(Processes, CapturedOutputAndErrorInterleaved)
{
    const std::string s = script("both.sh", "echo out1\nsleep 0.3\necho err1 >&2\nsleep 0.3\necho out2\nexit 0");
    YRef<kvstream> out(new kvstrstream(""));
    unsigned code = 7;
    EXPECT_EQ(sp_SpawnApplication(quoted(s).c_str(), SpawnWait | SpawnCaptureOutput | SpawnCaptureError, out, &code,
                                  nullptr),
              SSPE_Ok);
    EXPECT_EQ(code, 0u);
    EXPECT_STREQ(static_cast<kvstrstream*>(out.get())->str().c_str(), "out1\nerr1\nout2\n");

    YRef<kvstream> onlyErr(new kvstrstream(""));
    EXPECT_EQ(sp_SpawnApplication(quoted(s).c_str(), SpawnWait | SpawnCaptureError | SpawnCloseUncaptured, onlyErr,
                                  nullptr, nullptr),
              SSPE_Ok);
    EXPECT_STREQ(static_cast<kvstrstream*>(onlyErr.get())->str().c_str(), "err1\n");
}

TEST_F(Processes, ProgramPathWithBlanks)
{
    const std::string s = script("dir with blanks/prog name.sh", "exit $#");
    unsigned code = 0;
    EXPECT_EQ(sp_SpawnApplication((quoted(s) + " a \"b c\" d").c_str(), SpawnWait, YRef<kvstream>(), &code, nullptr),
              SSPE_Ok);
    EXPECT_EQ(code, 3u);
    code = 0;
    EXPECT_EQ(sp_OldSpawnApplication((quoted(s) + " x").c_str(), SpawnWait, &code, nullptr), SSPE_Ok);
    EXPECT_EQ(code, 1u);
}

TEST_F(Processes, LaunchErrors)
{
    const std::string missing = path("missing-program");
    writeFileBytes(path("plain.txt"), "not a program\n");
    const std::string garbage = path("garbage.bin");
    writeFileBytes(garbage, std::string("\x7f\x01\x02 not an executable format"));
    QFile::setPermissions(QString::fromStdString(garbage), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    unsigned code = 5;
    int pid = 5;
    EXPECT_EQ(sp_SpawnApplication(missing.c_str(), SpawnWait, YRef<kvstream>(), &code, &pid), SSPE_NotFound);
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(pid, -1);
    EXPECT_EQ(sp_OldSpawnApplication(missing.c_str(), SpawnWait, &code, &pid), SSPE_NotFound);
    EXPECT_EQ(pid, -1);
    // Root may read any file but still needs an execute bit to run one.
    EXPECT_EQ(sp_SpawnApplication(path("plain.txt").c_str(), SpawnWait, YRef<kvstream>(), nullptr, nullptr),
              SSPE_NotExecutable);
    EXPECT_EQ(sp_OldSpawnApplication(path("plain.txt").c_str(), SpawnWait, nullptr, nullptr), SSPE_NotExecutable);
    EXPECT_EQ(sp_OldSpawnApplication(garbage.c_str(), SpawnWait, nullptr, nullptr), SSPE_BadFormat);
    EXPECT_EQ(sp_SpawnApplication(garbage.c_str(), SpawnWait, YRef<kvstream>(), nullptr, nullptr), SSPE_Failed);
}

TEST_F(Processes, BadCommandLines)
{
    EXPECT_EQ(sp_SpawnApplication(nullptr, SpawnWait, YRef<kvstream>(), nullptr, nullptr), SSPE_NotFound);
    EXPECT_EQ(sp_SpawnApplication("", 0, YRef<kvstream>(), nullptr, nullptr), SSPE_NotFound);
    EXPECT_EQ(sp_SpawnApplication("\"/bin/sh -c", SpawnWait, YRef<kvstream>(), nullptr, nullptr), SSPE_NotFound);
    const std::string huge(100000, 'x');
    EXPECT_EQ(sp_SpawnApplication(huge.c_str(), SpawnWait, YRef<kvstream>(), nullptr, nullptr), SSPE_NotFound);
    EXPECT_EQ(sp_OldSpawnApplication(nullptr, SpawnWait, nullptr, nullptr), SSPE_Failed);
    EXPECT_NE(sp_OldSpawnApplication(huge.c_str(), SpawnWait, nullptr, nullptr), SSPE_Ok);
    KvProcess none(nullptr, false, false);
    EXPECT_FALSE(none.start());
    EXPECT_TRUE(none.waitProcess(0));
    EXPECT_TRUE(none.waitProcess(100));
    EXPECT_EQ(none.getProcessPriority(), -1);
    none.setProcessPriority(KvProcess::High);
    EXPECT_FALSE(none.isRunningNative());
}

TEST_F(Processes, NoWaitLeavesTheChildRunning)
{
    const std::string s = script("sleeper.sh", "sleep 0.5\nexit 4");
    unsigned code = 9;
    int pid = -5;
    EXPECT_EQ(sp_SpawnApplication(quoted(s).c_str(), 0, YRef<kvstream>(), &code, &pid), SSPE_Ok);
    EXPECT_EQ(code, 0u);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(sp_IsProcessRunning(pid));
    EXPECT_TRUE(spinUntil(10000, [&] { return !sp_IsProcessRunning(pid); }));
    spinUntil(300, [] { return false; });
    sp_ProcessDeleteEvents();
}

TEST_F(Processes, OldLauncherWithAndWithoutWait)
{
    const std::string s = script("old.sh", "sleep 0.3\nexit 6");
    unsigned code = 1;
    int pid = 1;
    EXPECT_EQ(sp_OldSpawnApplication(quoted(s).c_str(), SpawnWait | SpawnHidden | SpawnNewConsole, &code, &pid), SSPE_Ok);
    EXPECT_EQ(code, 6u);
    EXPECT_EQ(pid, -1);
    EXPECT_EQ(sp_OldSpawnApplication(quoted(s).c_str(), 0, &code, &pid), SSPE_Ok);
    EXPECT_EQ(code, 0u);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(sp_IsProcessRunning(pid));
    EXPECT_TRUE(spinUntil(10000, [&] { return !sp_IsProcessRunning(pid); }));
}

TEST_F(Processes, WaitingKeepsEventsFlowing)
{
    const std::string s = script("slow.sh", "sleep 1\nexit 0");
    int ticks = 0;
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&] { ++ticks; });
    ticker.start(20);
    unsigned code = 1;
    ASSERT_EQ(sp_OldSpawnApplication(quoted(s).c_str(), SpawnWait, &code, nullptr), SSPE_Ok);
    EXPECT_GE(ticks, 10);
    ticks = 0;
    ASSERT_EQ(sp_SpawnApplication(quoted(s).c_str(), SpawnWait, YRef<kvstream>(), &code, nullptr), SSPE_Ok);
    EXPECT_GE(ticks, 10);

    KvProcess p(quoted(s).c_str(), false, false);
    ASSERT_TRUE(p.start());
    ticks = 0;
    EXPECT_FALSE(p.waitProcess(300)); // still running after the limit
    EXPECT_GE(ticks, 5);
    EXPECT_TRUE(p.isRunning());
    ticks = 0;
    EXPECT_TRUE(p.waitProcess(0));
    EXPECT_GE(ticks, 10);
    EXPECT_FALSE(p.isRunningNative());
    spinUntil(5000, [&] { return !p.isRunning(); });
    EXPECT_EQ(p.exitCode(), 0);
    EXPECT_TRUE(p.normalExit());
    EXPECT_TRUE(p.waitProcess(0)); // already ended: at once
}

// ---------------------------------------------------------------- KvProcess

TEST_F(Processes, AddArgumentMakesTheFirstOneTheProgramUnquoted)
{
    const std::string s = script("args.sh", "exit $#");
    KvProcess p(nullptr, false, false);
    p.addArgument("/bin/sh");
    p.addArgument(s.c_str());
    ASSERT_TRUE(p.start());
    EXPECT_TRUE(p.waitProcess(10000));
    spinUntil(5000, [&] { return !p.isRunning(); });
    EXPECT_EQ(p.exitCode(), 0); // the script got no arguments of its own
}

TEST_F(Processes, RelayedOutputGoesToTheConsole)
{
    const std::string s = script("relay.sh", "echo relayed-line\nsleep 0.2\necho relayed-error >&2");
    std::string console;
    sp_SetConsoleSink([](const char* text, void* context) { *static_cast<std::string*>(context) += text; }, &console);
    {
        KvProcess p(quoted(s).c_str(), true, true);
        ASSERT_TRUE(p.start());
        EXPECT_TRUE(p.waitProcess(10000));
        spinUntil(5000, [&] { return !p.isRunning(); });
        EXPECT_EQ(p.exitCode(), 0);
    }
    sp_SetConsoleSink(nullptr, nullptr);
    EXPECT_EQ(console, "relayed-line\nrelayed-error\n");
    // Without relaying, nothing reaches the console.
    console.clear();
    sp_SetConsoleSink([](const char* text, void* context) { *static_cast<std::string*>(context) += text; }, &console);
    {
        KvProcess quiet(quoted(s).c_str(), false, false);
        ASSERT_TRUE(quiet.start());
        EXPECT_TRUE(quiet.waitProcess(10000));
    }
    sp_SetConsoleSink(nullptr, nullptr);
    EXPECT_EQ(console, "");
}

TEST_F(Processes, KillAndPriorities)
{
    const std::string s = script("long.sh", "sleep 30");
    KvProcess p(quoted(s).c_str(), false, false);
    ASSERT_TRUE(p.start());
    EXPECT_TRUE(p.isRunningNative());
    p.setProcessPriority(KvProcess::Low);
    EXPECT_EQ(p.getProcessPriority(), 2); // the core library's "low"
    if (geteuid() == 0) {
        p.setProcessPriority(KvProcess::High);
        EXPECT_EQ(p.getProcessPriority(), 1); // the core library's "high"
        p.setProcessPriority(KvProcess::Normal);
        EXPECT_EQ(p.getProcessPriority(), 0);
    }
    p.kill();
    EXPECT_TRUE(p.waitProcess(10000));
    spinUntil(5000, [&] { return !p.isRunning(); });
    EXPECT_FALSE(p.normalExit());
}

TEST_F(Processes, DestroyingKvProcessLeavesTheChildRunning)
{
    // The process id is written to a side file and renamed into place, so that the file never shows
    // up empty.
    const std::string s = script("survivor.sh", "echo $$ > '" + path("pid.tmp") + "'\nmv '" + path("pid.tmp") + "' '" +
                                                    path("pid.txt") + "'\nsleep 0.6\nexit 0");
    QElapsedTimer timer;
    {
        KvProcess p(quoted(s).c_str(), false, false);
        ASSERT_TRUE(p.start());
        ASSERT_TRUE(spinUntil(5000, [&] { return QFile::exists(QString::fromStdString(path("pid.txt"))); }));
        timer.start();
    }
    // The destructor neither killed nor waited for the child.
    EXPECT_LT(timer.elapsed(), 300);
    const int pid = std::stoi(readFileBytes(path("pid.txt")));
    EXPECT_TRUE(sp_IsProcessRunning(pid));
    // When the child ends, its helper object deletes itself (the leak checker would see it otherwise).
    EXPECT_TRUE(spinUntil(10000, [&] { return !sp_IsProcessRunning(pid); }));
    spinUntil(300, [] { return false; });
    sp_ProcessDeleteEvents();
}
#endif
