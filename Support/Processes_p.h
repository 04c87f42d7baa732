// Processes_p.h - the Qt process objects behind KvProcess and sp_SpawnApplication.
#pragma once

#include "SpawnOutcome.h"
#include "YContainers.h"
#include "kvstream.h"

#include <QEventLoop>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <vector>

class KvProcess;

/// The child of a KvProcess. When its owner is destroyed first, it deletes itself once the child ends.
class KvProcessHelper : public QProcess {
    Q_OBJECT
public:
    explicit KvProcessHelper(KvProcess* owner) : m_owner(owner) {}
    void releaseOwner() { m_owner = nullptr; }

public slots:
    void processFinished(int exitCode, QProcess::ExitStatus status);
    void readStandardOut();
    void readStandardErr();

protected:
    void setupChildProcess() override;

private:
    KvProcess* m_owner;
};

/// The child of sp_SpawnApplication: copies captured output into the caller's stream and runs the loop
/// that waits for the child.
class SpawnProcessObjectQt4 : public QProcess {
    Q_OBJECT
public:
    /// `captureLimit` bytes of captured output at most are copied into `output`; the rest is dropped.
    SpawnProcessObjectQt4(YRef<kvstream> output, long long captureLimit, bool endWithCaller);
    QEventLoop& loop() { return m_loop; }
    long long keptBytes() const { return m_kept; }
    long long discardedBytes() const { return m_discarded; }

public slots:
    void processFinished(int exitCode, QProcess::ExitStatus status);
    void update();
    void readStandardOut();
    void readStandardErr();
    /// Reads and drops what arrived on a channel that is neither captured nor closed.
    void discardStandardOut() { readAllStandardOutput(); }
    void discardStandardErr() { readAllStandardError(); }

protected:
    void setupChildProcess() override;

private:
    void keep(const QByteArray& bytes);

    YRef<kvstream> m_output;
    QEventLoop m_loop;
    long long m_limit;
    long long m_kept = 0;
    long long m_discarded = 0;
    bool m_endWithCaller;
    int m_callerPid;
};

namespace processes {
/// The words of a command line: split at blanks and tabs, a double-quoted part taken whole without its
/// quotes, so that a pair of quotes alone is an empty word.
std::vector<YString> commandWords(const char* commandLine);
/// The command line split into the program (on Windows wrapped in double quotes; empty stays empty),
/// the arguments, and the program as written.
void parseCommandLine(const char* commandLine, QString* program, QStringList* arguments, QString* bareProgram);
/// The program as Qt is given it: on Windows in double quotes (empty stays empty), so that a path with
/// blanks stays one program on the command line Qt builds; elsewhere as written, since Qt hands it to
/// the system as one file name, where quotes would be part of it.
QString programForQt(const QString& bareProgram);
/// The first character of `arguments` that the command interpreter would read as its own syntax, when
/// `program` (quotes in it are ignored) is a batch file that it runs (Windows); 0 when there is none,
/// and always on other systems.
char interpreterSyntaxIn(const QString& program, const QStringList& arguments);
/// The same for a command line that the system itself splits (the older launcher on Windows), judged
/// on every program the system could read from it.
char rawLineInterpreterSyntax(const char* commandLine);
/// The system process id of a QProcess's child, or -1.
int nativePid(const QProcess* process);
/// Records the outcome that sp_LastSpawnOutcome returns on this thread.
void setLastOutcome(const SpawnOutcome& outcome);
/// Runs in a freshly started child, before the program is executed, when it is to end with the process
/// `callerPid` that started it (only calls that are safe between fork and exec).
void prepareChildToEndWithCaller(int callerPid);
/// Runs in a freshly started child, before the program is executed: the caller's descriptors beyond the
/// standard three are closed when the program starts, as the older launcher's child gets none of them.
void inheritOnlyStandardDescriptors();
/// Runs in a freshly started child, before the program is executed: no signal is blocked, and a broken
/// pipe ends the program again, whatever the calling thread blocked and this process (Qt) ignores.
void resetChildSignals();
/// Ties a started child to this process so that it ends when this process ends, where the system
/// cannot arrange that inside the child.
void tieChildToCaller(QProcess* child);
/// The signal that ended a child that crashed (POSIX); 0 where children do not end by signals.
int endingSignal(const QProcess* child);
#ifndef _WIN32
/// Starts `program` with `arguments` apart from this process: in a session of its own, with no
/// descriptor but the standard three, no signal blocked and broken pipes ending it, and reaped when it
/// ends, as far as later launches or the event loop look. False when it cannot be started.
bool startDetachedChild(const QString& program, const QStringList& arguments);
#endif
/// Platform part of sp_OldSpawnApplication.
int oldSpawn(const char* commandLine, int flags, unsigned* exitCode, int* processId);
/// Whether an event loop can run on this thread: not where no event dispatcher is, as in a process
/// without an application object, where a loop would spin for ever. Asked once a loop was made on the
/// thread, since making one gives a thread without a dispatcher its own where it can have one.
bool loopCanRun();
/// Runs `loop`, which something ends within about `ms` milliseconds. A loop cannot run while the
/// application is quitting (every loop then ends at once) or when there is no application object: the
/// pending events are then processed and the thread sleeps `ms` milliseconds instead, so that a wait
/// polled in such slices neither spins nor stops.
void runLoopOrPause(QEventLoop& loop, int ms);
/// Waits for `child` to end, at most `timeoutMs` milliseconds (negative: without limit), in slices of 10
/// ms with events processed between them: the wait of a QProcess when no event loop can run.
void waitInSlices(QProcess& child, int timeoutMs);
} // namespace processes
