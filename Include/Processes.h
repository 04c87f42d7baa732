// Processes.h - running other programs: a child-process object, a one-call launcher that can capture
// the child's output, and the older launcher with window and console options. No Qt types appear here.
#pragma once

#include "SupportQtExport.h"
#include "YContainers.h"
#include "kvstream.h"

class QEventLoop;
class QString;
class QStringList;
class QTimer;
class KvProcessHelper;

/// Option bits of the launchers.
typedef int SpawnFlags;
enum : int {
    SpawnWait = 1,           ///< wait until the child ends, keeping events flowing
    SpawnHidden = 2,         ///< old launcher, Windows: start the child's window hidden
    SpawnNewConsole = 4,     ///< old launcher, Windows: a new console; sp_SpawnApplication refuses it (7)
    SpawnMinimised = 8,      ///< old launcher, Windows: start the window minimised (when not hidden)
    SpawnCaptureOutput = 16, ///< sp_SpawnApplication: copy standard output into the output stream
    SpawnCaptureError = 32,  ///< sp_SpawnApplication: copy standard error into the output stream
    SpawnCloseUncaptured = 64 ///< sp_SpawnApplication: close each output channel that is not captured
};

/// Outcome of a launch.
enum SSPError : int {
    SSPE_Ok = 0,            ///< started (and, with SpawnWait, ended)
    SSPE_Failed = 1,        ///< any other failure
    SSPE_Unused2 = 2,       ///< not produced by this library
    SSPE_Unused3 = 3,       ///< not produced by this library
    SSPE_NotFound = 4,      ///< the program file does not exist
    SSPE_BadFormat = 5,     ///< the program file is no executable (old launcher)
    SSPE_NotExecutable = 6, ///< the program may not be executed
    SSPE_NotSupported = 7   ///< sp_SpawnApplication was asked for a new console
};

/// One child process. The command line is split at blanks and tabs (double quotes group a path with
/// blanks); the first word is the program. Output can be relayed to the suite's console. Waiting keeps
/// events flowing. Destroying the object never kills or waits for a running child.
class SUPPORTQT_API KvProcess {
public:
    /// Priorities of the child; mapped onto the core library's order (1 and 2 swap places there).
    enum ProcessPriority { Normal = 0, Low = 1, High = 2 };

    KvProcess(const char* commandLine, bool relayOutput, bool relayError);
    ~KvProcess();
    KvProcess(const KvProcess&) = delete;
    KvProcess& operator=(const KvProcess&) = delete;

    /// Appends an argument; while there is no program yet, the argument becomes the program as given
    /// (without the quotes the constructor adds).
    void addArgument(const char* argument);
    /// Starts the child and waits up to 30 s for it to start.
    [[nodiscard]] bool start();
    /// Waits for the child to end, at most `timeoutMs` (0: without limit); true when it has ended.
    [[nodiscard]] bool waitProcess(int timeoutMs);
    void kill();
    int exitCode() const;
    bool normalExit() const;
    bool isRunning() const;
    /// Asks the system whether the child's process id is still alive.
    bool isRunningNative() const;
    void setProcessPriority(ProcessPriority priority);
    /// The child's priority in the core library's numbering; -1 without a child.
    int getProcessPriority() const;

private:
    friend class KvProcessHelper;
    int nativePid() const;
    void endWait();

    KvProcessHelper* m_process;
    QEventLoop* m_loop = nullptr;
    QString* m_program;
    QStringList* m_arguments;
    QTimer* m_timer = nullptr;
    int m_openMode;
};

/// Starts a program from a command line. With SpawnWait waits for it (events keep flowing); with the
/// capture bits its standard output and error are written to `output` in arrival order. `exitCode`
/// and `processId` (either may be null) receive Qt's exit code and the child's id, or -1 when it is no
/// longer running. A missing program gives 4, a non-executable one 6, the new-console bit 7.
[[nodiscard]] SUPPORTQT_API SSPError sp_SpawnApplication(const char* commandLine, SpawnFlags flags,
                                                         YRef<kvstream> output, unsigned* exitCode, int* processId);
/// On Windows a program that is a batch file (".bat" or ".cmd" in any case, once the dots and blanks
/// that Windows drops at the end of a name are gone) runs in the command interpreter, which reads "&",
/// "|", "<", ">", "^", "%", "!" and line breaks in its arguments as its own syntax: an argument could run
/// another program. The launchers refuse such a command line (sp_SpawnApplication and
/// sp_OldSpawnApplication give 1, KvProcess::start false); the older launcher, whose command line the
/// system splits itself, judges every program the system could read from it (an unquoted name with
/// blanks is tried up to each blank). Returns the first such character of the command line's arguments
/// as sp_SpawnApplication reads them, or 0 when there is none (always on other systems); `program` (may
/// be null) receives the program as sp_SpawnApplication reads the command line.
[[nodiscard]] SUPPORTQT_API char sp_CommandInterpreterSyntax(const char* commandLine, YString* program);
/// The older launcher. On Windows it is CreateProcessW with the window-show and console options; on
/// other systems it starts the program with posix_spawn from the same command line, and the
/// window-show and console bits have no effect there. Errors: program not found 4, not executable 6,
/// not an executable format 5, anything else 1. With SpawnWait the exit code is stored (on other systems
/// than Windows the signal's number for a child that a signal ended) and the process id is -1; without it
/// the process id of the running child is stored and the exit code is 0.
[[nodiscard]] SUPPORTQT_API SSPError sp_OldSpawnApplication(const char* commandLine, SpawnFlags flags,
                                                            unsigned* exitCode, int* processId);
