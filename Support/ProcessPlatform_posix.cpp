// ProcessPlatform_posix.cpp - the older launcher on POSIX systems: posix_spawn from the parsed command
// line, waiting with events flowing. Window-show and console options do not exist here.
#include "Processes_p.h"

#include "ProcessServices.h"
#include "Processes.h"
#include "TextServices.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QStringList>
#include <QTimer>

#include <cerrno>
#include <csignal>
#include <mutex>
#include <spawn.h>
#include <string>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif
#include <vector>

extern char** environ;

namespace {

// Children started without waiting, from any thread; they are reaped on later calls so that none stays
// a zombie. `scheduled` says that a look for their end is due on the application's thread.
struct UnreapedChildren {
    std::mutex mutex;
    std::vector<pid_t> pids;
    bool scheduled = false;
};

UnreapedChildren& unreapedChildren()
{
    static UnreapedChildren children;
    return children;
}

void reapFinishedChildren()
{
    UnreapedChildren& children = unreapedChildren();
    std::lock_guard<std::mutex> lock(children.mutex);
    std::vector<pid_t>& pids = children.pids;
    for (size_t i = 0; i < pids.size();) {
        int status = 0;
        if (waitpid(pids[i], &status, WNOHANG) != 0)
            pids.erase(pids.begin() + static_cast<std::ptrdiff_t>(i));
        else
            ++i;
    }
}

// While children started without waiting run on, the event loop of the application's thread looks for
// their end twice a second; the timer is started there, whichever thread started a child (a thread
// that ends would take its timers with it).
void reapLater()
{
    QCoreApplication* const application = QCoreApplication::instance();
    UnreapedChildren& children = unreapedChildren();
    {
        std::lock_guard<std::mutex> lock(children.mutex);
        if (children.scheduled || children.pids.empty() || !application)
            return;
        children.scheduled = true;
    }
    QMetaObject::invokeMethod(
        application,
        [] {
            QTimer::singleShot(500, QCoreApplication::instance(), [] {
                {
                    std::lock_guard<std::mutex> lock(unreapedChildren().mutex);
                    unreapedChildren().scheduled = false;
                }
                reapFinishedChildren();
                reapLater();
            });
        },
        Qt::QueuedConnection);
}

void keepUnreaped(pid_t pid)
{
    {
        std::lock_guard<std::mutex> lock(unreapedChildren().mutex);
        unreapedChildren().pids.push_back(pid);
    }
    reapLater();
}

int errorCode(int error)
{
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return SSPE_NotFound;
    case EACCES:
    case EPERM:
        return SSPE_NotExecutable;
    case ENOEXEC:
        return SSPE_BadFormat;
    default:
        return SSPE_Failed;
    }
}

} // namespace

QString processes::programForQt(const QString& bareProgram) { return bareProgram; }

// No program runs in a command interpreter here: its arguments reach it as they are.
char processes::interpreterSyntaxIn(const QString&, const QStringList&) { return 0; }
char processes::rawLineInterpreterSyntax(const char*) { return 0; }

int processes::nativePid(const QProcess* process)
{
    if (!process || process->state() == QProcess::NotRunning)
        return -1;
    return sp_GetPidFromQProcessPID(static_cast<long long>(process->processId()));
}

void processes::prepareChildToEndWithCaller(int callerPid)
{
#ifdef __linux__
    // The parent-death signal; if the caller has already gone, the child ends at once.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != static_cast<pid_t>(callerPid))
        ::raise(SIGTERM);
#else
    (void)callerPid;
#endif
}

void processes::inheritOnlyStandardDescriptors()
{
    // Marked to close when the program starts rather than closed now: Qt's own pipe that reports a
    // failed start must stay open until then.
#if defined(__linux__) && defined(SYS_close_range) && defined(CLOSE_RANGE_CLOEXEC)
    if (::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC) == 0)
        return;
#endif
    // Without that call, each descriptor up to the process's limit, as far as a bounded walk goes.
    struct rlimit limit;
    const long long top = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY
                              ? static_cast<long long>(limit.rlim_cur)
                              : 65536;
    for (int fd = 3; fd < top && fd < 65536; ++fd) {
        const int flags = ::fcntl(fd, F_GETFD);
        if (flags != -1 && !(flags & FD_CLOEXEC))
            ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
    }
}

void processes::resetChildSignals()
{
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
}

void processes::tieChildToCaller(QProcess*) {}

// Qt stores the number of the signal that ended a child as its exit code.
int processes::endingSignal(const QProcess* child) { return child->exitCode(); }

namespace {

// Starts `words` (the program, then its arguments) as a child of this process and gives its id, or -1
// and the system's error. A program name without a slash is looked up in PATH, as the command
// interpreter would. The child inherits no descriptor but the three standard ones (where the C library
// can close the rest: glibc 2.34 and later; elsewhere only descriptors opened close-on-exec stay
// behind), nor the calling thread's blocked signals, nor this process's ignoring of broken pipes (Qt's,
// from its first started process), which would let a writer into a closed pipe run on. With
// `newSession`, it leads a session of its own, apart from this process's terminal and its signals.
pid_t spawnChild(std::vector<std::string>& words, bool newSession, int* error)
{
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(&word[0]);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_t* const closing = posix_spawn_file_actions_init(&actions) == 0 ? &actions : nullptr;
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 34)
    if (closing)
        posix_spawn_file_actions_addclosefrom_np(closing, 3);
#endif
    posix_spawnattr_t attributes;
    posix_spawnattr_t* const startState = posix_spawnattr_init(&attributes) == 0 ? &attributes : nullptr;
    if (startState) {
        sigset_t none, pipe;
        ::sigemptyset(&none);
        ::sigemptyset(&pipe);
        ::sigaddset(&pipe, SIGPIPE);
        posix_spawnattr_setsigmask(startState, &none);
        posix_spawnattr_setsigdefault(startState, &pipe);
        short startFlags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
#ifdef POSIX_SPAWN_SETSID
        if (newSession)
            startFlags |= POSIX_SPAWN_SETSID;
#endif
        posix_spawnattr_setflags(startState, startFlags);
    }
    pid_t pid = -1;
    const bool search = words[0].find('/') == std::string::npos;
    *error = search ? posix_spawnp(&pid, argv[0], closing, startState, argv.data(), environ)
                    : posix_spawn(&pid, argv[0], closing, startState, argv.data(), environ);
    if (closing)
        posix_spawn_file_actions_destroy(closing);
    if (startState)
        posix_spawnattr_destroy(startState);
    return *error == 0 ? pid : -1;
}

} // namespace

bool processes::startDetachedChild(const QString& program, const QStringList& arguments)
{
    reapFinishedChildren();
    if (program.isEmpty())
        return false;
    // Named as QProcess names them: the program in the file-name encoding, its arguments in the locale's.
    std::vector<std::string> words{QFile::encodeName(program).toStdString()};
    for (const QString& argument : arguments)
        words.push_back(argument.toLocal8Bit().toStdString());
    int error = 0;
    const pid_t pid = spawnChild(words, true, &error);
    if (pid == -1)
        return false;
    keepUnreaped(pid);
    return true;
}

int processes::oldSpawn(const char* commandLine, int flags, unsigned* exitCode, int* processId)
{
    *exitCode = 0;
    reapFinishedChildren();
    std::vector<std::string> words;
    for (const YString& word : commandWords(commandLine))
        words.push_back(word.str());
    if (words.empty()) {
        *processId = -1;
        return SSPE_Failed;
    }
    int error = 0;
    const pid_t pid = spawnChild(words, false, &error);
    if (error != 0) {
        *processId = -1;
        return errorCode(error);
    }
    if (!(flags & SpawnWait)) {
        keepUnreaped(pid);
        *processId = static_cast<int>(pid);
        return SSPE_Ok;
    }
    // Wait with events flowing: look at the child every 10 ms and run the event loop in between.
    int status = 0;
    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid || (done == -1 && errno != EINTR))
            break;
        if (processes::loopCanRun())
            timer.start(10);
        processes::runLoopOrPause(loop, 10);
    }
    // A child ended by a signal gives the signal's number, as the other launcher gives it, never 0.
    *exitCode = WIFEXITED(status)     ? static_cast<unsigned>(WEXITSTATUS(status))
                : WIFSIGNALED(status) ? static_cast<unsigned>(WTERMSIG(status))
                                      : 0;
    *processId = -1;
    return SSPE_Ok;
}
