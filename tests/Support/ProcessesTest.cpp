// ProcessesTest.cpp - child processes (copies of the test build's child program, each with the steps
// the test writes for it): launch errors, exit codes, captured output, waiting with events flowing,
// kill, priorities, children that outlive their KvProcess, and on Windows the old launcher's start-up
// options.
#include "Console.h"
#include "FileServices.h"
#include "ProcessServices.h"
#include "Processes.h"
#include "TestHelpers.h"
#include "Threads.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStringList>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#ifdef Q_OS_LINUX
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>
#endif


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

QStringList g_qtMessages;

void collectQtMessage(QtMsgType, const QMessageLogContext&, const QString& message) { g_qtMessages << message; }

} // namespace

class Processes : public TempDirTest {
protected:
    // Copies the child program to `name` (plus the platform's program suffix) in the temporary folder,
    // writes its steps beside it, and returns the copy's path.
    std::string child(const std::string& name, const std::string& steps)
    {
        const std::string p = path(name + kProgramSuffix);
        const QString copy = QString::fromStdString(p);
        QDir().mkpath(QFileInfo(copy).absolutePath());
        EXPECT_TRUE(QFile::copy(QStringLiteral(CHILD_PROGRAM_PATH), copy)) << p;
        QFile::setPermissions(copy, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        writeFileBytes(path(name + ".steps"), steps + "\n");
        return p;
    }
    static std::string quoted(const std::string& p) { return "\"" + p + "\""; }
#ifdef Q_OS_WIN
    static constexpr const char* kProgramSuffix = ".exe";
#else
    static constexpr const char* kProgramSuffix = "";
#endif
};

// ---------------------------------------------------------------- sp_SpawnApplication

// In a process without an application object no event loop can run: the waits look at the child in
// slices instead of spinning in a loop that never ends, and each ends as it does with one.
TEST_F(Processes, WaitsEndInAProcessWithoutAnApplicationObject)
{
    const std::string quick = child("quick", "sleep 200\nexit 3");
    const std::string slow = child("slow", "sleep 60000\nexit 0");
    const std::string talk = child("talk", "out hello\nexit 4");
    QProcess probe;
    probe.start(QStringLiteral(WAIT_PROBE_PATH),
                {QString::fromStdString(quick), QString::fromStdString(slow), QString::fromStdString(talk)});
    ASSERT_TRUE(probe.waitForFinished(90000)) << "the waits did not end";
    EXPECT_EQ(probe.exitCode(), 0) << probe.readAllStandardError().toStdString();
    EXPECT_EQ(probe.readAllStandardOutput().toStdString(), "unlimited 1 3\nlimited 0 promptly 1\nspawn 0 4 hello\nold 0 3 -1\n");
}

// On Windows a batch file runs in the command interpreter, which reads "&", "%" and the like in its
// arguments as its own syntax: the launchers refuse such arguments for one, however the program is
// spelled. Elsewhere the arguments reach any program as they are.
TEST_F(Processes, BatchFilesAreNotGivenTheCommandInterpretersSyntax)
{
    YString program;
#ifdef Q_OS_WIN
    writeFileBytes(path("mark.bat"), "@echo off\r\necho ran>\"%~dp0ran.txt\"\r\n");
    const std::string folder = QDir::toNativeSeparators(QString::fromStdString(path(""))).toStdString();
    const std::string bat = folder + "mark.bat";
    EXPECT_EQ(sp_CommandInterpreterSyntax(("\"" + bat + "\" x&echo>\"" + folder + "INJ\"").c_str(), &program), '&');
    EXPECT_EQ(std::string(program.c_str()), bat);
    EXPECT_EQ(sp_CommandInterpreterSyntax(("\"" + bat + "\" plain words").c_str(), nullptr), 0);
    for (const std::string& line : {"\"" + bat + "\" x&echo>\"" + folder + "INJ\"", "\"" + folder + "mark\".bat x|echo>INJ",
                                    "\"" + bat + ".\" x^&y", "\"" + folder + "MARK.CMD\" \"100%PATH%\"", "\"" + bat + " \" a<b"}) {
        EXPECT_NE(sp_CommandInterpreterSyntax(line.c_str(), nullptr), 0) << line;
        unsigned code = 99;
        int pid = 0;
        EXPECT_EQ(sp_SpawnApplication(line.c_str(), SpawnWait, YRef<kvstream>(), &code, &pid), SSPE_Failed) << line;
        EXPECT_EQ(sp_OldSpawnApplication(line.c_str(), SpawnWait | SpawnHidden, &code, &pid), SSPE_Failed) << line;
        EXPECT_EQ(pid, -1);
        KvProcess process(line.c_str(), false, false);
        EXPECT_FALSE(process.start()) << line;
    }
    // The older launcher hands the line to the system, which reads an unquoted name with blanks up to
    // each blank in turn: a batch file in a folder with a blank in its name is found that way.
    QDir().mkpath(QString::fromStdString(path("my tools")));
    writeFileBytes(path("my tools/mark.bat"), "@echo off\r\necho ran>\"%~dp0..\\ran.txt\"\r\n");
    unsigned oldCode = 99;
    int oldPid = 0;
    EXPECT_EQ(sp_OldSpawnApplication((folder + "my tools\\mark.bat x&echo>\"" + folder + "INJ\"").c_str(), SpawnWait | SpawnHidden,
                                     &oldCode, &oldPid),
              SSPE_Failed);
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path("ran.txt"))));
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path("INJ"))));
    unsigned code = 99;
    EXPECT_EQ(sp_SpawnApplication(("\"" + bat + "\" plain").c_str(), SpawnWait, YRef<kvstream>(), &code, nullptr), SSPE_Ok);
    EXPECT_TRUE(QFile::exists(QString::fromStdString(path("ran.txt"))));
#else
    const std::string kid = child("kid.bat", "exitargc");
    EXPECT_EQ(sp_CommandInterpreterSyntax((quoted(kid) + " a&b c|d %PATH%").c_str(), &program), 0);
    EXPECT_EQ(std::string(program.c_str()), kid);
    unsigned code = 99;
    EXPECT_EQ(sp_SpawnApplication((quoted(kid) + " a&b c|d %PATH%").c_str(), SpawnWait, YRef<kvstream>(), &code, nullptr), SSPE_Ok);
    EXPECT_EQ(code, 3u);
#endif
}

TEST_F(Processes, NewConsoleIsRefused)
{
    unsigned code = 99;
    int pid = 1234;
    const std::string s = child("true", "exit 0");
    EXPECT_EQ(sp_SpawnApplication(quoted(s).c_str(), SpawnNewConsole | SpawnWait, YRef<kvstream>(), &code, &pid),
              SSPE_NotSupported);
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(pid, 1234);
}

TEST_F(Processes, ExitCodeWithWait)
{
    const std::string s = child("exit3", "exit 3");
    unsigned code = 0;
    int pid = 0;
    EXPECT_EQ(sp_SpawnApplication(quoted(s).c_str(), SpawnWait, YRef<kvstream>(), &code, &pid), SSPE_Ok);
    EXPECT_EQ(code, 3u);
    EXPECT_EQ(pid, -1);
}

TEST_F(Processes, CapturedOutputAndErrorInterleaved)
{
    const std::string s = child("both", "out out1\nsleep 300\nerr err1\nsleep 300\nout out2\nexit 0");
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
    const std::string s = child("dir with blanks/prog name", "exitargc");
    unsigned code = 0;
    EXPECT_EQ(sp_SpawnApplication((quoted(s) + " a \"b c\" d").c_str(), SpawnWait, YRef<kvstream>(), &code, nullptr),
              SSPE_Ok);
    EXPECT_EQ(code, 3u);
    code = 0;
    EXPECT_EQ(sp_OldSpawnApplication((quoted(s) + " x").c_str(), SpawnWait, &code, nullptr), SSPE_Ok);
    EXPECT_EQ(code, 1u);
}

// A pair of quotes is an empty argument, and the arguments after it are kept too.
TEST_F(Processes, EmptyQuotedArgumentsAreArguments)
{
    const std::string s = child("empties", "args " + path("args.txt") + "\nexitargc");
    const std::string line = quoted(s) + " \"\" next \"\"  \"last one\"";
    unsigned code = 0;
    const std::string expected = "\nnext\n\nlast one\n";
    EXPECT_EQ(sp_SpawnApplication(line.c_str(), SpawnWait, YRef<kvstream>(), &code, nullptr), SSPE_Ok);
    EXPECT_EQ(code, 4u);
    EXPECT_EQ(readFileBytes(path("args.txt")), expected);
    ASSERT_EQ(unlink_utf8(path("args.txt").c_str()), 0);
    code = 0;
    EXPECT_EQ(sp_OldSpawnApplication(line.c_str(), SpawnWait, &code, nullptr), SSPE_Ok);
    EXPECT_EQ(code, 4u);
    EXPECT_EQ(readFileBytes(path("args.txt")), expected);
    ASSERT_EQ(unlink_utf8(path("args.txt").c_str()), 0);
    KvProcess process(line.c_str(), false, false);
    ASSERT_TRUE(process.start());
    EXPECT_TRUE(process.waitProcess(30000));
    EXPECT_EQ(process.exitCode(), 4);
    EXPECT_EQ(readFileBytes(path("args.txt")), expected);
}

TEST_F(Processes, LaunchErrors)
{
    const std::string missing = path(std::string("missing-program") + kProgramSuffix);
    writeFileBytes(path("plain.txt"), "not a program\n");
    const std::string garbage = path(std::string("garbage") + kProgramSuffix);
    writeFileBytes(garbage, std::string("\x7f\x01\x02 not an executable format"));
    QFile::setPermissions(QString::fromStdString(garbage), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    unsigned code = 5;
    int pid = 5;
    EXPECT_EQ(sp_SpawnApplication(missing.c_str(), SpawnWait, YRef<kvstream>(), &code, &pid), SSPE_NotFound);
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(pid, -1);
    EXPECT_EQ(sp_OldSpawnApplication(missing.c_str(), SpawnWait, &code, &pid), SSPE_NotFound);
    EXPECT_EQ(pid, -1);
    // A program in a folder that does not exist is missing too, from both launchers.
    const std::string nowhere = path(std::string("no-such-folder/program") + kProgramSuffix);
    EXPECT_EQ(sp_SpawnApplication(nowhere.c_str(), SpawnWait, YRef<kvstream>(), &code, &pid), SSPE_NotFound);
    EXPECT_EQ(sp_OldSpawnApplication(nowhere.c_str(), SpawnWait, &code, &pid), SSPE_NotFound);
    // Root may read any file but still needs an execute bit to run one; on Windows a text file is not a
    // program by its name, and the system calls it a bad executable format.
    EXPECT_EQ(sp_SpawnApplication(path("plain.txt").c_str(), SpawnWait, YRef<kvstream>(), nullptr, nullptr),
              SSPE_NotExecutable);
#ifdef Q_OS_WIN
    EXPECT_EQ(sp_OldSpawnApplication(path("plain.txt").c_str(), SpawnWait, nullptr, nullptr), SSPE_BadFormat);
#else
    EXPECT_EQ(sp_OldSpawnApplication(path("plain.txt").c_str(), SpawnWait, nullptr, nullptr), SSPE_NotExecutable);
#endif
    EXPECT_EQ(sp_OldSpawnApplication(garbage.c_str(), SpawnWait, nullptr, nullptr), SSPE_BadFormat);
    EXPECT_EQ(sp_SpawnApplication(garbage.c_str(), SpawnWait, YRef<kvstream>(), nullptr, nullptr), SSPE_Failed);
}

TEST_F(Processes, BadCommandLines)
{
    EXPECT_EQ(sp_SpawnApplication(nullptr, SpawnWait, YRef<kvstream>(), nullptr, nullptr), SSPE_NotFound);
    EXPECT_EQ(sp_SpawnApplication("", 0, YRef<kvstream>(), nullptr, nullptr), SSPE_NotFound);
    EXPECT_EQ(sp_SpawnApplication(("\"" + path("no such program") + " -c").c_str(), SpawnWait, YRef<kvstream>(), nullptr,
                                  nullptr),
              SSPE_NotFound);
    const std::string huge(100000, 'x');
    EXPECT_EQ(sp_SpawnApplication(huge.c_str(), SpawnWait, YRef<kvstream>(), nullptr, nullptr), SSPE_NotFound);
#ifdef Q_OS_WIN
    // An empty command line goes to CreateProcessW, which names no file: "not found".
    EXPECT_EQ(sp_OldSpawnApplication(nullptr, SpawnWait, nullptr, nullptr), SSPE_NotFound);
#else
    EXPECT_EQ(sp_OldSpawnApplication(nullptr, SpawnWait, nullptr, nullptr), SSPE_Failed);
#endif
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
    // The child runs until the test lets it go, however slowly the machine runs.
    const std::string s = child("sleeper", "waitfor " + path("go") + "\nexit 4");
    unsigned code = 9;
    int pid = -5;
    EXPECT_EQ(sp_SpawnApplication(quoted(s).c_str(), 0, YRef<kvstream>(), &code, &pid), SSPE_Ok);
    EXPECT_EQ(code, 0u);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(sp_IsProcessRunning(pid));
    writeFileBytes(path("go"), "");
    EXPECT_TRUE(spinUntil(10000, [&] { return !sp_IsProcessRunning(pid); }));
    spinUntil(300, [] { return false; });
    sp_ProcessDeleteEvents();
}

TEST_F(Processes, OldLauncherWithAndWithoutWait)
{
    const std::string s = child("old", "sleep 300\nexit 6");
    unsigned code = 1;
    int pid = 1;
    EXPECT_EQ(sp_OldSpawnApplication(quoted(s).c_str(), SpawnWait | SpawnHidden | SpawnNewConsole, &code, &pid), SSPE_Ok);
    EXPECT_EQ(code, 6u);
    EXPECT_EQ(pid, -1);
    // A child that has ended with code 259, which Windows also uses to say "still running", has ended.
    const std::string odd = child("odd", "exit 259");
    EXPECT_EQ(sp_OldSpawnApplication(quoted(odd).c_str(), SpawnWait, &code, &pid), SSPE_Ok);
#ifdef Q_OS_WIN
    EXPECT_EQ(code, 259u);
#else
    EXPECT_EQ(code, 259u % 256u); // a POSIX exit status keeps 8 bits
#endif
    EXPECT_EQ(pid, -1);
    // Without waiting the child is still running when the call returns: it waits for the test's word.
    const std::string held = child("held", "waitfor " + path("go") + "\nexit 6");
    EXPECT_EQ(sp_OldSpawnApplication(quoted(held).c_str(), 0, &code, &pid), SSPE_Ok);
    EXPECT_EQ(code, 0u);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(sp_IsProcessRunning(pid));
    writeFileBytes(path("go"), "");
    EXPECT_TRUE(spinUntil(10000, [&] { return !sp_IsProcessRunning(pid); }));
}

TEST_F(Processes, WaitingKeepsEventsFlowing)
{
    const std::string s = child("slow", "sleep 1000\nexit 0");
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

// While the application is quitting, Qt ends every event loop at once. A wait goes on all the same, with
// events processed between short sleeps: it returns only once the child has ended, and does not spin.
TEST_F(Processes, WaitsGoOnWhileTheApplicationIsQuitting)
{
    const std::string s = child("slow", "sleep 400\nexit 3");
    QCoreApplication::exit(0);
    QEventLoop probe;
    ASSERT_EQ(probe.exec(), -1) << "event loops should end at once while the application quits";
    int ticks = 0;
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&] { ++ticks; });
    ticker.start(20);
    QElapsedTimer wall;
    wall.start();
#ifndef Q_OS_WIN
    const std::clock_t cpu = std::clock();
#endif
    unsigned code = 0;
    EXPECT_EQ(sp_OldSpawnApplication(quoted(s).c_str(), SpawnWait, &code, nullptr), SSPE_Ok);
    EXPECT_EQ(code, 3u);
    code = 0;
    int pid = 0;
    EXPECT_EQ(sp_SpawnApplication(quoted(s).c_str(), SpawnWait, YRef<kvstream>(), &code, &pid), SSPE_Ok);
    EXPECT_EQ(code, 3u);
    EXPECT_EQ(pid, -1);
    KvProcess limited(quoted(s).c_str(), false, false);
    ASSERT_TRUE(limited.start());
    EXPECT_TRUE(limited.waitProcess(10000));
    KvProcess unlimited(quoted(s).c_str(), false, false);
    ASSERT_TRUE(unlimited.start());
    EXPECT_TRUE(unlimited.waitProcess(0));
    EXPECT_FALSE(unlimited.isRunningNative());
    const qint64 waited = wall.elapsed();
    EXPECT_GE(waited, 4 * 380);
    EXPECT_GE(ticks, 20);
#ifndef Q_OS_WIN
    // The process's own processor time stays well below the time it waited.
    const double busy = 1000.0 * static_cast<double>(std::clock() - cpu) / CLOCKS_PER_SEC;
    EXPECT_LT(busy, waited / 2.0);
#endif
    // The application's own loop, run once, ends the quitting for the rest of the program.
    QTimer::singleShot(0, [] { QCoreApplication::exit(0); });
    QCoreApplication::exec();
}

// ---------------------------------------------------------------- KvProcess

// The system reports a child gone before Qt has collected it. A wait that returns true leaves it
// collected, with or without a limit: its state, exit code and exit status are those it ended with.
TEST_F(Processes, AWaitThatReturnsTrueLeavesTheChildCollected)
{
    const auto endedMeanwhile = [](KvProcess& p) {
        // The caller does other work, without events, while the child ends.
        for (int i = 0; i < 500 && p.isRunningNative(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return !p.isRunningNative();
    };
    const std::string ends = child("exit3", "exit 3");
    for (const int limit : {5000, 0}) {
        KvProcess p(quoted(ends).c_str(), false, false);
        ASSERT_TRUE(p.start());
        ASSERT_TRUE(endedMeanwhile(p));
        EXPECT_TRUE(p.waitProcess(limit));
        EXPECT_FALSE(p.isRunning()) << limit;
        EXPECT_EQ(p.exitCode(), 3) << limit;
        EXPECT_TRUE(p.normalExit()) << limit;
    }
#ifndef Q_OS_WIN
    const std::string killed = child("killed", "signal 9");
    KvProcess k(quoted(killed).c_str(), false, false);
    ASSERT_TRUE(k.start());
    ASSERT_TRUE(endedMeanwhile(k));
    EXPECT_TRUE(k.waitProcess(0));
    EXPECT_FALSE(k.isRunning());
    EXPECT_FALSE(k.normalExit());
#endif
}

// A wait begun by an event handler during another wait has its own limit, and the outer wait keeps its
// own: neither cuts the other short or makes it wait longer.
TEST_F(Processes, AWaitInsideAWaitKeepsBothLimits)
{
    const std::string s = child("long", "sleep 30000");
    KvProcess p(quoted(s).c_str(), false, false);
    ASSERT_TRUE(p.start());
    qint64 innerMs = -1;
    bool innerResult = true;
    QTimer::singleShot(100, [&] {
        QElapsedTimer inner;
        inner.start();
        innerResult = p.waitProcess(300);
        innerMs = inner.elapsed();
    });
    QElapsedTimer outer;
    outer.start();
    EXPECT_FALSE(p.waitProcess(1000));
    const qint64 outerMs = outer.elapsed();
    EXPECT_FALSE(innerResult);
    EXPECT_GE(innerMs, 250); // a coarse timer may fire 5% early
    EXPECT_LT(innerMs, 2500);
    EXPECT_GE(outerMs, 900);
    EXPECT_LT(outerMs, 6000);
    p.kill();
    EXPECT_TRUE(spinUntil(5000, [&] { return !p.isRunning(); }));
}

// An unlimited wait inside a limited one ends when the child ends, and so does the outer wait.
TEST_F(Processes, AnUnlimitedWaitInsideAWaitEndsWithTheChild)
{
    const std::string s = child("short", "sleep 600\nexit 0");
    KvProcess p(quoted(s).c_str(), false, false);
    ASSERT_TRUE(p.start());
    bool innerResult = false;
    QTimer::singleShot(50, [&] { innerResult = p.waitProcess(0); });
    QElapsedTimer outer;
    outer.start();
    g_qtMessages.clear();
    const QtMessageHandler previous = qInstallMessageHandler(collectQtMessage);
    const bool ended = p.waitProcess(20000);
    qInstallMessageHandler(previous);
    EXPECT_TRUE(ended);
    EXPECT_TRUE(innerResult);
    EXPECT_LT(outer.elapsed(), 5000);
    // (An inner wait that ran the outer wait's loop again would make Qt complain at every turn.)
    EXPECT_EQ(g_qtMessages.size(), 0) << g_qtMessages.value(0).toStdString();
}

TEST_F(Processes, AddArgumentMakesTheFirstOneTheProgramUnquoted)
{
    const std::string s = child("args", "exitargc");
    KvProcess p(nullptr, false, false);
    p.addArgument(s.c_str());
    p.addArgument("only one");
    ASSERT_TRUE(p.start());
    EXPECT_TRUE(p.waitProcess(10000));
    spinUntil(5000, [&] { return !p.isRunning(); });
    EXPECT_EQ(p.exitCode(), 1); // the second argument, blank and all, is the child's only one
}

TEST_F(Processes, RelayedOutputGoesToTheConsole)
{
    const std::string s = child("relay", "out relayed-line\nsleep 200\nerr relayed-error");
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
    const std::string s = child("long", "sleep 30000");
    KvProcess p(quoted(s).c_str(), false, false);
    ASSERT_TRUE(p.start());
    EXPECT_TRUE(p.isRunningNative());
    p.setProcessPriority(KvProcess::Low);
    EXPECT_EQ(p.getProcessPriority(), 2); // the core library's "low"
    if (runningAsRoot()) {
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
    // up empty; then the child runs until the test lets it go.
    const std::string s = child("survivor", "pidfile " + path("pid.txt") + "\nwaitfor " + path("go") + "\nexit 0");
    QElapsedTimer timer;
    {
        KvProcess p(quoted(s).c_str(), false, false);
        ASSERT_TRUE(p.start());
        // Wine's rename may show the file before its content: wait for the number itself.
        ASSERT_TRUE(spinUntil(10000, [&] { return std::atoi(readFileBytes(path("pid.txt")).c_str()) > 0; }));
        timer.start();
    }
    // The destructor neither killed the child nor waited for it (it would have waited a minute).
    EXPECT_LT(timer.elapsed(), 5000);
    const int pid = std::atoi(readFileBytes(path("pid.txt")).c_str());
    EXPECT_TRUE(sp_IsProcessRunning(pid));
    writeFileBytes(path("go"), "");
    // When the child ends, its helper object deletes itself (the leak checker would see it otherwise).
    EXPECT_TRUE(spinUntil(10000, [&] { return !sp_IsProcessRunning(pid); }));
    spinUntil(300, [] { return false; });
    sp_ProcessDeleteEvents();
}

// ---------------------------------------------------------------- the old launcher's start-up options

// The child reports the start-up information it was given: "flags show".
TEST_F(Processes, OldLauncherShowStates)
{
    struct Case {
        SpawnFlags flags;
        int show;
    };
#ifdef Q_OS_WIN
    // Hidden (0) wins over minimised (6); without either the window is shown normally (1). The flags
    // always hold STARTF_USESHOWWINDOW (1).
    const Case cases[] = {{SpawnHidden, 0}, {SpawnMinimised, 6}, {SpawnHidden | SpawnMinimised, 0}, {0, 1},
                          {SpawnNewConsole, 1}};
    const int startupFlags = 1;
#else
    // There are no start-up options here: the child starts the same way whatever is asked.
    const Case cases[] = {{SpawnHidden, 0}, {SpawnMinimised, 0}, {SpawnNewConsole, 0}, {0, 0}};
    const int startupFlags = 0;
#endif
    int n = 0;
    for (const Case& c : cases) {
        const std::string report = path("startup" + std::to_string(n) + ".txt");
        const std::string s = child("show" + std::to_string(n++), "startup " + report);
        unsigned code = 9;
        ASSERT_EQ(sp_OldSpawnApplication(quoted(s).c_str(), SpawnWait | c.flags, &code, nullptr), SSPE_Ok);
        EXPECT_EQ(code, 0u);
        EXPECT_EQ(readFileBytes(report), std::to_string(startupFlags) + " " + std::to_string(c.show) + "\n")
            << "flags " << c.flags;
    }
}

#ifdef Q_OS_LINUX
namespace {

// The most memory this process has held so far (its peak resident size), in MiB.
long peakResidentMiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').value(0).toLong() / 1024;
    return -1;
}

} // namespace

// Output that is neither captured nor closed is dropped as it arrives: a child that writes 256 MiB
// while the caller waits leaves the caller's memory as it was.
TEST_F(Processes, UncapturedOutputIsNotKept)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "AddressSanitizer keeps freed memory in quarantine: the peak resident size does not tell "
                    "what is held (the ordinary build checks it)";
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    GTEST_SKIP() << "AddressSanitizer keeps freed memory in quarantine: the peak resident size does not tell "
                    "what is held (the ordinary build checks it)";
#endif
#endif
    const std::string s = child("flood", "flood 256\nexit 0");
    const long before = peakResidentMiB();
    unsigned code = 9;
    ASSERT_EQ(sp_SpawnApplication(quoted(s).c_str(), SpawnWait, YRef<kvstream>(), &code, nullptr), SSPE_Ok);
    EXPECT_EQ(code, 0u);
    EXPECT_LT(peakResidentMiB() - before, 64) << "MiB held at once of 256 MiB written";
}

// A KvProcess that relays standard output only drops the standard error it does not relay.
TEST_F(Processes, AChannelKvProcessDoesNotRelayIsNotKept)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "AddressSanitizer keeps freed memory in quarantine (the ordinary build checks it)";
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    GTEST_SKIP() << "AddressSanitizer keeps freed memory in quarantine (the ordinary build checks it)";
#endif
#endif
    const std::string s = child("floodErr", "out relayed\nflooderr 256\nexit 0");
    std::string console;
    sp_SetConsoleSink([](const char* text, void* context) { *static_cast<std::string*>(context) += text; }, &console);
    const long before = peakResidentMiB();
    {
        KvProcess p(quoted(s).c_str(), true, false);
        ASSERT_TRUE(p.start());
        EXPECT_TRUE(p.waitProcess(60000));
        spinUntil(5000, [&] { return !p.isRunning(); });
        EXPECT_EQ(p.exitCode(), 0);
    }
    sp_SetConsoleSink(nullptr, nullptr);
    EXPECT_EQ(console, "relayed\n");
    EXPECT_LT(peakResidentMiB() - before, 64) << "MiB held at once of 256 MiB written";
}

// The older launcher's child inherits none of the caller's descriptors beyond the standard three, and
// a child started without waiting is reaped by the event loop once it ends, not left a zombie.
TEST_F(Processes, OldLauncherChildrenInheritNoDescriptorAndAreReaped)
{
    const int fd = ::open(path("held.txt").c_str(), O_CREAT | O_WRONLY, 0644); // no close-on-exec
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::dup2(fd, 517), 517);
    ::close(fd);
    const std::string s = child("fds", "fds " + path("fds.txt") + "\nexit 0");
    unsigned code = 1;
    ASSERT_EQ(sp_OldSpawnApplication(quoted(s).c_str(), SpawnWait, &code, nullptr), SSPE_Ok);
    ::close(517);
    const std::string listed = readFileBytes(path("fds.txt"));
    EXPECT_EQ(listed.find("517\n"), std::string::npos) << listed;

    const std::string quick = child("quick", "exit 0");
    int pid = -1;
    ASSERT_EQ(sp_OldSpawnApplication(quoted(quick).c_str(), 0, &code, &pid), SSPE_Ok);
    ASSERT_GT(pid, 0);
    const std::string stat = "/proc/" + std::to_string(pid) + "/stat";
    // Gone from the process table once reaped; a zombie's state letter is Z.
    EXPECT_TRUE(spinUntil(5000, [&] { return !QFile::exists(QString::fromStdString(stat)); }))
        << readFileBytes(stat);
}

// Children started without waiting from several threads at once are all reaped by the application's
// event loop: the threads share the list of children to reap, and the look for their end is made on the
// application's thread, which outlives theirs.
TEST_F(Processes, OldLauncherChildrenStartedFromThreadsAreAllReaped)
{
    const std::string quick = child("quick", "exit 0");
    std::mutex mutex;
    std::vector<int> pids;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 40; ++i) {
                unsigned code = 0;
                int pid = -1;
                if (sp_OldSpawnApplication(quoted(quick).c_str(), 0, &code, &pid) == SSPE_Ok) {
                    std::lock_guard<std::mutex> lock(mutex);
                    pids.push_back(pid);
                }
            }
        });
    for (std::thread& t : threads)
        t.join();
    ASSERT_EQ(pids.size(), 160u);
    // A child of this process that is still in the process table has not been reaped (its number may
    // have gone to a process of another parent since).
    const auto ours = [](int pid) {
        const std::string stat = readFileBytes("/proc/" + std::to_string(pid) + "/stat");
        const size_t close = stat.rfind(')');
        return close != std::string::npos && std::atoi(stat.c_str() + close + 4) == static_cast<int>(::getpid());
    };
    EXPECT_TRUE(spinUntil(15000, [&] { return std::none_of(pids.begin(), pids.end(), ours); }))
        << std::count_if(pids.begin(), pids.end(), ours) << " of 160 children not reaped";
}

// Descriptors the caller opened without close-on-exec reach no child of the newer launchers either: a
// pipe's reader sees its end when the caller closes its own end, not when the last child has ended.
TEST_F(Processes, NewerLauncherChildrenInheritNoCallerDescriptor)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0); // an ordinary pipe, as many callers make them
    ASSERT_EQ(::dup2(ends[1], 517), 517);
    ::close(ends[1]);
    const std::string first = child("fds", "fds " + path("fds.txt") + "\nexit 0");
    unsigned code = 1;
    EXPECT_EQ(sp_SpawnApplication(quoted(first).c_str(), SpawnWait, nullptr, &code, nullptr), SSPE_Ok);
    const std::string second = child("fds2", "fds " + path("fds2.txt") + "\nexit 0");
    KvProcess process(quoted(second).c_str(), false, false);
    ASSERT_TRUE(process.start());
    EXPECT_TRUE(process.waitProcess(30000));
    // The child's own steps file stays open while it lists its descriptors.
    for (const char* record : {"fds.txt", "fds2.txt"}) {
        const std::string listed = "\n" + readFileBytes(path(record));
        EXPECT_EQ(listed.find("\n517\n"), std::string::npos) << record << ": " << listed;
        EXPECT_EQ(listed.find("\n" + std::to_string(ends[0]) + "\n"), std::string::npos) << record << ": " << listed;
    }
    // A child that runs on, started without waiting.
    const std::string lasting = child("lasting", "sleep 3000\nexit 0");
    EXPECT_EQ(sp_SpawnApplication(quoted(lasting).c_str(), 0, nullptr, nullptr, nullptr), SSPE_Ok);
    ::close(517);
    QElapsedTimer waited;
    waited.start();
    char byte = 0;
    EXPECT_EQ(::read(ends[0], &byte, 1), 0);
    EXPECT_LT(waited.elapsed(), 2000);
    ::close(ends[0]);
}

#ifdef Q_OS_LINUX
// A child of any launcher starts with no signal blocked and broken pipes ending it, though the calling
// thread blocks signals it waits for and this process ignores broken pipes (Qt does so once it has
// started a process): a writer into a closed pipe would run on, and a child meant to end with the caller
// would not hear it.
TEST_F(Processes, ChildrenStartWithNoSignalBlockedAndBrokenPipesEndingThem)
{
    // The child copies its own state; a command interpreter would unblock signals itself.
    const auto command = [&](const char* record) { return "/bin/cp /proc/self/status " + path(record); };
    {
        CallerSignalState caller;
        ASSERT_TRUE(caller.set());
        unsigned code = 1;
        EXPECT_EQ(sp_OldSpawnApplication(command("old.txt").c_str(), SpawnWait, &code, nullptr), SSPE_Ok);
        EXPECT_EQ(sp_SpawnApplication(command("new.txt").c_str(), SpawnWait, nullptr, &code, nullptr), SSPE_Ok);
        KvProcess process(command("kv.txt").c_str(), false, false);
        ASSERT_TRUE(process.start());
        EXPECT_TRUE(process.waitProcess(30000));
    }
    for (const char* record : {"old.txt", "new.txt", "kv.txt"})
        expectNoSignalStateInherited(readFileBytes(path(record)), record);
}
#endif

// Files the library opens for the caller are closed in every child it starts: a child that outlives
// the caller's save keeps no handle on the user's file.
TEST_F(Processes, ChildrenInheritNoFileTheLibraryOpened)
{
    FILE* written = nullptr;
    FILE* read = nullptr;
    ASSERT_EQ(fopen_s_utf8(&written, path("written.txt").c_str(), "wb"), 0);
    ASSERT_EQ(fopen_s_utf8(&read, path("written.txt").c_str(), "rb"), 0);
    const std::vector<std::string> held{std::to_string(fileno(written)), std::to_string(fileno(read))};
    const std::string first = child("fds", "fds " + path("fds.txt") + "\nexit 0");
    unsigned code = 1;
    EXPECT_EQ(sp_SpawnApplication(quoted(first).c_str(), SpawnWait, nullptr, &code, nullptr), SSPE_Ok);
    const std::string second = child("fds2", "fds " + path("fds2.txt") + "\nexit 0");
    KvProcess process(quoted(second).c_str(), false, false);
    ASSERT_TRUE(process.start());
    EXPECT_TRUE(process.waitProcess(30000));
    std::fclose(written);
    std::fclose(read);
    for (const char* record : {"fds.txt", "fds2.txt"}) {
        const std::string listed = "\n" + readFileBytes(path(record));
        for (const std::string& fd : held)
            EXPECT_EQ(listed.find("\n" + fd + "\n"), std::string::npos) << record << ": " << listed;
    }
}

#endif
