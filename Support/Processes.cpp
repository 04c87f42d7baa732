// Processes.cpp - KvProcess, sp_SpawnApplication and the parsing they share.
#include "Processes.h"
#include "Console.h"
#include "ProcessServices.h"
#include "Processes_p.h"
#include "QtSupport.h"
#include "TextServices.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileInfo>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <thread>

namespace {
const int kStartTimeoutMs = 30000;
// How long Qt may take to collect a child that the system already reports as ended.
const int kCollectTimeoutMs = 5000;
}

// ---------------------------------------------------------------- shared

std::vector<YString> processes::commandWords(const char* commandLine)
{
    std::vector<YString> words;
    const char* cursor = commandLine ? commandLine : "";
    // A word ends the text only when no character but blanks is left: an empty one may stand between.
    for (;;) {
        while (*cursor == ' ' || *cursor == '\t')
            ++cursor;
        if (!*cursor)
            return words;
        words.push_back(sp_GetToken(&cursor, " \t", "\"", "\"", false));
    }
}

void processes::parseCommandLine(const char* commandLine, QString* program, QStringList* arguments, QString* bareProgram)
{
    const std::vector<YString> words = commandWords(commandLine);
    *bareProgram = words.empty() ? QString() : toQs(words.front());
    *program = programForQt(*bareProgram);
    for (size_t i = 1; i < words.size(); ++i)
        arguments->append(toQs(words[i]));
}

// ---------------------------------------------------------------- KvProcess

void KvProcessHelper::processFinished(int, QProcess::ExitStatus)
{
    if (!m_owner)
        deleteLater();
    else
        m_owner->endWait();
}

void KvProcessHelper::readStandardOut() { kv_printf("%s", readAllStandardOutput().constData()); }

void KvProcessHelper::readStandardErr() { kv_printf("%s", readAllStandardError().constData()); }

void KvProcessHelper::setupChildProcess()
{
    processes::inheritOnlyStandardDescriptors();
    processes::resetChildSignals();
}

KvProcess::KvProcess(const char* commandLine, bool relayOutput, bool relayError)
    : m_process(new KvProcessHelper(this)), m_program(new QString), m_arguments(new QStringList),
      m_openMode(relayOutput || relayError ? 3 : 2)
{
    QObject::connect(m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), m_process,
                     &KvProcessHelper::processFinished);
    if (relayOutput)
        QObject::connect(m_process, &QProcess::readyReadStandardOutput, m_process, &KvProcessHelper::readStandardOut);
    if (relayError)
        QObject::connect(m_process, &QProcess::readyReadStandardError, m_process, &KvProcessHelper::readStandardErr);
    // With one channel relayed the other would be read into memory that no one empties: it is dropped.
    if (relayOutput && !relayError)
        m_process->setStandardErrorFile(QProcess::nullDevice());
    else if (relayError && !relayOutput)
        m_process->setStandardOutputFile(QProcess::nullDevice());
    if (commandLine) {
        QString bare;
        processes::parseCommandLine(commandLine, m_program, m_arguments, &bare);
    }
}

KvProcess::~KvProcess()
{
    if (m_process->state() != QProcess::NotRunning) {
        // The child runs on; its helper deletes itself when it ends.
        m_process->releaseOwner();
    } else {
        delete m_process;
    }
    delete m_program;
    delete m_arguments;
    delete m_loop;
    delete m_timer;
}

void KvProcess::addArgument(const char* argument)
{
    const QString text = QString::fromUtf8(argument ? argument : "");
    if (m_program->isEmpty())
        *m_program = text;
    else
        m_arguments->append(text);
}

bool KvProcess::start()
{
    if (processes::interpreterSyntaxIn(*m_program, *m_arguments))
        return false;
    m_process->start(*m_program, *m_arguments, QIODevice::OpenMode(m_openMode));
    return m_process->waitForStarted(kStartTimeoutMs);
}

int KvProcess::nativePid() const { return processes::nativePid(m_process); }

void KvProcess::endWait()
{
    if (m_loop)
        m_loop->quit();
}

bool KvProcess::waitProcess(int timeoutMs)
{
    // The system may say the child is gone before Qt has collected it: Qt collects it then (at once, since
    // it has ended), so that its state, exit code and exit status say how it ended.
    const auto collected = [this] {
        if (m_process->state() != QProcess::NotRunning)
            m_process->waitForFinished(kCollectTimeoutMs);
        return true;
    };
    int pid = nativePid();
    if (pid == -1 || !sp_IsProcessRunning(pid))
        return collected();
    if (!m_loop)
        m_loop = new QEventLoop;
    if (!m_timer) {
        // Connected once, with the timer: every wait reuses both.
        m_timer = new QTimer;
        m_timer->setSingleShot(true);
        QObject::connect(m_timer, &QTimer::timeout, m_loop, &QEventLoop::quit);
    }
    const auto waitWith = [&](QEventLoop& loop, QTimer& timer) {
        if (timeoutMs != 0) {
            if (!processes::loopCanRun()) {
                processes::waitInSlices(*m_process, timeoutMs);
                return m_process->state() == QProcess::NotRunning;
            }
            timer.start(timeoutMs);
            if (loop.exec() != 0)
                processes::waitInSlices(*m_process, timeoutMs);
            timer.stop();
            return m_process->state() == QProcess::NotRunning;
        }
        // Without a limit: look at the system every 10 ms, with events flowing in between.
        for (;;) {
            pid = nativePid();
            if (pid == -1 || !sp_IsProcessRunning(pid))
                break;
            if (!processes::loopCanRun()) {
                processes::waitInSlices(*m_process, 10);
                continue;
            }
            timer.start(10);
            processes::runLoopOrPause(loop, 10);
            timer.stop();
        }
        return collected();
    };
    if (!m_loop->isRunning())
        return waitWith(*m_loop, *m_timer);
    // A wait begun from an event handler while another wait runs: a loop and a timer of its own, so
    // that neither wait ends or cuts short the other's.
    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    QObject::connect(m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), &loop, &QEventLoop::quit);
    return waitWith(loop, timer);
}

void KvProcess::kill() { m_process->kill(); }

int KvProcess::exitCode() const { return m_process->exitCode(); }

bool KvProcess::normalExit() const { return m_process->exitStatus() == QProcess::NormalExit; }

bool KvProcess::isRunning() const { return m_process->state() == QProcess::Running; }

bool KvProcess::isRunningNative() const
{
    const int pid = nativePid();
    return pid != -1 && sp_IsProcessRunning(pid);
}

void KvProcess::setProcessPriority(ProcessPriority priority)
{
    const int pid = nativePid();
    if (pid == -1)
        return;
    // The class's order differs from the core library's: 1 and 2 swap places. The setter reports
    // nothing, so a refused change (the child already gone, say) is ignored.
    switch (priority) {
    case Normal:
        (void)sp_SetProcessPriority(pid, ThreadPriorityNormal);
        break;
    case Low:
        (void)sp_SetProcessPriority(pid, ThreadPriorityLow);
        break;
    case High:
        (void)sp_SetProcessPriority(pid, ThreadPriorityHigh);
        break;
    default:
        break;
    }
}

int KvProcess::getProcessPriority() const
{
    const int pid = nativePid();
    return pid == -1 ? -1 : sp_GetProcessPriority(pid);
}

// ---------------------------------------------------------------- sp_SpawnApplication

void SpawnProcessObjectQt4::processFinished(int, QProcess::ExitStatus)
{
    m_loop.quit();
    deleteLater();
}

void SpawnProcessObjectQt4::update()
{
    if (state() == QProcess::NotRunning)
        m_loop.quit();
}

SpawnProcessObjectQt4::SpawnProcessObjectQt4(YRef<kvstream> output, long long captureLimit, bool endWithCaller)
    : m_output(output), m_limit(captureLimit), m_endWithCaller(endWithCaller),
      m_callerPid(static_cast<int>(QCoreApplication::applicationPid()))
{
}

void SpawnProcessObjectQt4::setupChildProcess()
{
    processes::inheritOnlyStandardDescriptors();
    processes::resetChildSignals();
    if (m_endWithCaller)
        processes::prepareChildToEndWithCaller(m_callerPid);
}

void SpawnProcessObjectQt4::keep(const QByteArray& bytes)
{
    // Without an output stream every captured byte is read and dropped.
    const long long room = m_output ? m_limit - m_kept : 0;
    const long long n = std::min<long long>(bytes.size(), room > 0 ? room : 0);
    if (n > 0)
        m_output->write(bytes.constData(), static_cast<size_t>(n));
    m_kept += n;
    m_discarded += bytes.size() - n;
}

void SpawnProcessObjectQt4::readStandardOut() { keep(readAllStandardOutput()); }

void SpawnProcessObjectQt4::readStandardErr() { keep(readAllStandardError()); }

SSPError sp_SpawnApplication(const char* commandLine, SpawnFlags flags, YRef<kvstream> output, unsigned* exitCode,
                             int* processId)
{
    if (exitCode)
        *exitCode = 0;
    processes::setLastOutcome(SpawnOutcome());
    if (flags & SpawnNewConsole)
        return SSPE_NotSupported;
    QString program, bare;
    QStringList arguments;
    processes::parseCommandLine(commandLine, &program, &arguments, &bare);
    if (processes::interpreterSyntaxIn(bare, arguments)) {
        if (processId)
            *processId = -1;
        return SSPE_Failed;
    }

    auto* child = new SpawnProcessObjectQt4(output, sp_SpawnCaptureLimit(), (flags & SpawnEndWithCaller) != 0);
    // Finishing ends the wait below; without a wait the object deletes itself when the child ends.
    QObject::connect(child, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), child,
                     [child](int, QProcess::ExitStatus) { child->loop().quit(); });
    if (flags & SpawnCaptureOutput)
        QObject::connect(child, &QProcess::readyReadStandardOutput, child, &SpawnProcessObjectQt4::readStandardOut);
    if (flags & SpawnCaptureError)
        QObject::connect(child, &QProcess::readyReadStandardError, child, &SpawnProcessObjectQt4::readStandardErr);
    // Passed through, the input is the child's own copy of this process's, whatever becomes of the outputs.
    if (flags & SpawnPassThrough)
        child->setInputChannelMode(QProcess::ForwardedInputChannel);
    if (flags & SpawnCloseUncaptured) {
        if (!(flags & SpawnCaptureOutput))
            child->setStandardOutputFile(QProcess::nullDevice());
        if (!(flags & SpawnCaptureError))
            child->setStandardErrorFile(QProcess::nullDevice());
    } else if (flags & SpawnPassThrough) {
        // Each channel that is not captured is the child's own copy of this process's channel.
        const bool out = !(flags & SpawnCaptureOutput), err = !(flags & SpawnCaptureError);
        if (out || err)
            child->setProcessChannelMode(out && err ? QProcess::ForwardedChannels
                                         : out      ? QProcess::ForwardedOutputChannel
                                                    : QProcess::ForwardedErrorChannel);
    } else {
        // A channel that is neither captured nor closed stays open, and what arrives on it is dropped
        // as it comes, instead of piling up inside the process object for as long as the child runs.
        if (!(flags & SpawnCaptureOutput))
            QObject::connect(child, &QProcess::readyReadStandardOutput, child, &SpawnProcessObjectQt4::discardStandardOut);
        if (!(flags & SpawnCaptureError))
            QObject::connect(child, &QProcess::readyReadStandardError, child, &SpawnProcessObjectQt4::discardStandardErr);
    }
    child->start(program, arguments, QIODevice::ReadWrite);
    const bool started = child->waitForStarted(kStartTimeoutMs);
    if (started && (flags & SpawnEndWithCaller))
        processes::tieChildToCaller(child);

    SSPError result = SSPE_Ok;
    if (!started) {
        const QFileInfo file(bare);
        result = !file.exists() ? SSPE_NotFound : file.isExecutable() ? SSPE_Failed : SSPE_NotExecutable;
    } else if (flags & SpawnWait) {
        QTimer timer;
        QObject::connect(&timer, &QTimer::timeout, child, &SpawnProcessObjectQt4::update);
        const bool loop = processes::loopCanRun();
        if (loop)
            timer.start(100);
        if (child->state() != QProcess::NotRunning && (!loop || child->loop().exec() != 0))
            processes::waitInSlices(*child, -1);
        timer.stop();
        // Output that arrived with the end of the child.
        if (flags & SpawnCaptureOutput)
            child->readStandardOut();
        if (flags & SpawnCaptureError)
            child->readStandardErr();
    }
    // A child that never started has no exit code of its own: 0, whatever Qt reports for the attempt.
    if (exitCode)
        *exitCode = started ? static_cast<unsigned>(child->exitCode()) : 0;
    SpawnOutcome outcome;
    outcome.ended = started && child->state() == QProcess::NotRunning && (flags & SpawnWait);
    outcome.crashed = outcome.ended && child->exitStatus() == QProcess::CrashExit;
    outcome.exitCode = outcome.ended ? static_cast<unsigned>(child->exitCode()) : 0;
    outcome.signal = outcome.crashed ? processes::endingSignal(child) : 0;
    outcome.keptBytes = child->keptBytes();
    outcome.discardedBytes = child->discardedBytes();
    processes::setLastOutcome(outcome);
    if (processId)
        *processId = child->state() != QProcess::NotRunning ? processes::nativePid(child) : -1;
    if (child->state() == QProcess::NotRunning)
        delete child;
    else
        QObject::connect(child, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), child,
                         &SpawnProcessObjectQt4::processFinished);
    return result;
}

char sp_CommandInterpreterSyntax(const char* commandLine, YString* program)
{
    QString qtProgram, bare;
    QStringList arguments;
    processes::parseCommandLine(commandLine, &qtProgram, &arguments, &bare);
    if (program)
        *program = toYs(bare);
    return processes::interpreterSyntaxIn(bare, arguments);
}

SSPError sp_OldSpawnApplication(const char* commandLine, SpawnFlags flags, unsigned* exitCode, int* processId)
{
    unsigned exitSink = 0;
    int pidSink = 0;
    if (processes::rawLineInterpreterSyntax(commandLine)) {
        *(exitCode ? exitCode : &exitSink) = 0;
        *(processId ? processId : &pidSink) = -1;
        return SSPE_Failed;
    }
    return static_cast<SSPError>(processes::oldSpawn(commandLine, flags, exitCode ? exitCode : &exitSink,
                                                     processId ? processId : &pidSink));
}

bool processes::loopCanRun()
{
    // A loop made where nothing dispatches events (no application object) would spin without end.
    return QAbstractEventDispatcher::instance() != nullptr;
}

void processes::runLoopOrPause(QEventLoop& loop, int ms)
{
    if (loopCanRun() && loop.exec() == 0)
        return;
    QCoreApplication::processEvents();
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void processes::waitInSlices(QProcess& child, int timeoutMs)
{
    QElapsedTimer waited;
    waited.start();
    while (child.state() != QProcess::NotRunning && (timeoutMs < 0 || waited.elapsed() < timeoutMs)) {
        child.waitForFinished(10);
        QCoreApplication::processEvents();
    }
}
