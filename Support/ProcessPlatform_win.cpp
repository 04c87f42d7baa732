// ProcessPlatform_win.cpp - the older launcher on Windows: CreateProcessW with window-show and console
// options, waiting with MsgWaitForMultipleObjects while Qt events are processed.
#include "Processes_p.h"

#include "ProcessServices.h"
#include "Processes.h"
#include "YString.h"

#include <QCoreApplication>
#include <windows.h>

namespace {
// Whether the program is a batch file, which the system runs in the command interpreter: named ".bat" or
// ".cmd" in any case, once the dots and blanks that Windows drops at the end of a name are gone.
bool isBatchFile(QString program)
{
    program.remove(QLatin1Char('"'));
    while (program.endsWith(QLatin1Char('.')) || program.endsWith(QLatin1Char(' ')))
        program.chop(1);
    return program.endsWith(QLatin1String(".bat"), Qt::CaseInsensitive) ||
           program.endsWith(QLatin1String(".cmd"), Qt::CaseInsensitive);
}

// The first character of `text` that the command interpreter reads as its own syntax, or 0: outside
// quotes these join, redirect or escape commands, and "%" and "!" expand variables even inside.
char syntaxIn(const QString& text)
{
    static const QString syntax = QStringLiteral("&|<>^%!\r\n");
    for (const QChar c : text)
        if (syntax.contains(c))
            return static_cast<char>(c.unicode());
    return 0;
}
} // namespace

char processes::interpreterSyntaxIn(const QString& program, const QStringList& arguments)
{
    if (!isBatchFile(program))
        return 0;
    for (const QString& argument : arguments)
        if (const char c = syntaxIn(argument))
            return c;
    return 0;
}

char processes::rawLineInterpreterSyntax(const char* commandLine)
{
    // The system reads an unquoted program with blanks in its name by trying the line up to each blank
    // in turn, and quotes may stand inside the name: every such part that names a batch file is taken
    // for the program, with the rest of the line as its arguments.
    const QString line = QString::fromUtf8(commandLine ? commandLine : "");
    for (int end = 0; end <= line.size(); ++end) {
        if (end < line.size() && line.at(end) != QLatin1Char(' ') && line.at(end) != QLatin1Char('\t'))
            continue;
        if (isBatchFile(line.left(end).trimmed()))
            if (const char c = syntaxIn(line.mid(end)))
                return c;
    }
    return 0;
}

QString processes::programForQt(const QString& bareProgram)
{
    return bareProgram.isEmpty() ? QString() : QLatin1Char('"') + bareProgram + QLatin1Char('"');
}

int processes::nativePid(const QProcess* process)
{
    if (!process || process->state() == QProcess::NotRunning)
        return -1;
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    return sp_GetPidFromQProcessPID(static_cast<long long>(reinterpret_cast<quintptr>(process->pid())));
    QT_WARNING_POP
}

void processes::prepareChildToEndWithCaller(int) {}

void processes::resetChildSignals() {}

// Qt starts no child through a fork here: nothing runs between the start and the program.
void processes::inheritOnlyStandardDescriptors() {}

void processes::tieChildToCaller(QProcess* child)
{
    // One job for the whole process, never closed by hand: the system closes it when this process
    // ends, however it ends, and then ends every child in it.
    static const HANDLE job = [] {
        const HANDLE created = CreateJobObjectW(nullptr, nullptr);
        if (created) {
            JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits;
            ZeroMemory(&limits, sizeof limits);
            limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
            SetInformationJobObject(created, JobObjectExtendedLimitInformation, &limits, sizeof limits);
        }
        return created;
    }();
    if (!job)
        return;
    const HANDLE process = OpenProcess(PROCESS_SET_QUOTA | PROCESS_TERMINATE, FALSE, static_cast<DWORD>(child->processId()));
    if (process) {
        AssignProcessToJobObject(job, process);
        CloseHandle(process);
    }
}

// A Windows child does not end by a signal: a crash shows in its exit code alone.
int processes::endingSignal(const QProcess*) { return 0; }

int processes::oldSpawn(const char* commandLine, int flags, unsigned* exitCode, int* processId)
{
    *exitCode = 0;
    STARTUPINFOW startup;
    ZeroMemory(&startup, sizeof startup);
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESHOWWINDOW;
    startup.wShowWindow = (flags & SpawnHidden)      ? SW_HIDE
                          : (flags & SpawnMinimised) ? SW_MINIMIZE
                                                         : SW_SHOWNORMAL;
    PROCESS_INFORMATION info;
    ZeroMemory(&info, sizeof info);
    UTFString wide(commandLine ? commandLine : "");
    std::wstring line(wide.getWide());
    const DWORD creation = NORMAL_PRIORITY_CLASS | ((flags & SpawnNewConsole) ? CREATE_NEW_CONSOLE : DETACHED_PROCESS);
    if (!CreateProcessW(nullptr, &line[0], nullptr, nullptr, FALSE, creation, nullptr, nullptr, &startup, &info)) {
        const DWORD error = GetLastError();
        *processId = -1;
        // A program in a folder that does not exist is a missing program too, as on other systems.
        const bool missing = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
        return missing                          ? SSPE_NotFound
               : error == ERROR_ACCESS_DENIED  ? SSPE_NotExecutable
               : error == ERROR_BAD_EXE_FORMAT ? SSPE_BadFormat
                                               : SSPE_Failed;
    }
    if (flags & SpawnWait) {
        // Qt registers a caller's timers with the system only once its event dispatcher has run; run it
        // once first, so that timers started just before this call fire during the wait.
        QCoreApplication::processEvents();
        for (;;) {
            const DWORD result = MsgWaitForMultipleObjects(1, &info.hProcess, FALSE, INFINITE, QS_ALLINPUT);
            if (result != WAIT_OBJECT_0 + 1 && result != WAIT_TIMEOUT)
                break;
            QCoreApplication::processEvents();
        }
    }
    // Whether the child has ended is asked of its handle: an exit code of 259 (STILL_ACTIVE) is a code
    // like any other once it has.
    DWORD code = 0;
    if (WaitForSingleObject(info.hProcess, 0) == WAIT_OBJECT_0 && GetExitCodeProcess(info.hProcess, &code)) {
        *exitCode = code;
        *processId = -1;
    } else {
        *processId = static_cast<int>(info.dwProcessId);
        *exitCode = 0;
    }
    CloseHandle(info.hProcess);
    CloseHandle(info.hThread);
    return SSPE_Ok;
}
