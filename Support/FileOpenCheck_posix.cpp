// FileOpenCheck_posix.cpp - the opens and file queries behind the file-open check on POSIX systems. Every
// step takes the caller's UTF-8 bytes as the name, never the locale codec's, and nothing but a regular
// file is opened: a FIFO, a socket or a device never holds the check, nor sees it.
#include "FileOpenCheck_p.h"

#include <QByteArray>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The descriptor of the file opened with `flags`, non-blocking; -1 with errno set when it does not open.
int openFile(const QByteArray& name, int flags)
{
    return ::open(name.constData(), flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0666);
}

// Whether the effective user may use the file in `mode` (R_OK, W_OK, X_OK), asked without opening it.
bool mayAccess(const QByteArray& name, int mode)
{
    return ::faccessat(AT_FDCWD, name.constData(), mode, AT_EACCESS) == 0;
}

// A FIFO, a socket or a device: a file whose open may wake, or wait for, someone at its other end.
bool isSpecial(const struct stat& st) { return !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode); }

// The folder that holds `name`, as the system resolves it: "." for a bare name, "/" for one at the root.
QByteArray folderOf(QByteArray name)
{
    while (name.size() > 1 && name.endsWith('/'))
        name.chop(1);
    const int slash = name.lastIndexOf('/');
    if (slash < 0)
        return QByteArrayLiteral(".");
    return slash == 0 ? QByteArrayLiteral("/") : name.left(slash);
}

// What the symbolic link `link` holds; empty when it cannot be read.
QByteArray linkTarget(const QByteArray& link)
{
    QByteArray target(256, '\0');
    for (;;) {
        const ssize_t length = ::readlink(link.constData(), target.data(), static_cast<size_t>(target.size()));
        if (length < 0)
            return QByteArray();
        if (length < target.size()) {
            target.truncate(static_cast<int>(length));
            return target;
        }
        target.resize(target.size() * 2);
    }
}

// The number of links the system follows on one path before it gives up (ELOOP).
const int kMaxLinkHops = 40;

} // namespace

bool fileopencheck::opensForReading(const QByteArray& name)
{
    struct stat st;
    if (::stat(name.constData(), &st) != 0)
        return false;
    // A folder opens for reading here, but it is no file to read.
    if (S_ISDIR(st.st_mode))
        return false;
    // Opening a FIFO would release a writer waiting on it, which then dies writing to a reader gone.
    if (isSpecial(st))
        return mayAccess(name, R_OK);
    const int fd = openFile(name, O_RDONLY);
    if (fd < 0)
        return false;
    // The name may have been given to a folder since the look above.
    const bool folder = ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode);
    ::close(fd);
    return !folder;
}

bool fileopencheck::opensForAppending(const QByteArray& name, bool* created)
{
    *created = false;
    // Opening a FIFO would give a reader waiting on it an immediate end of file.
    struct stat st;
    if (::stat(name.constData(), &st) == 0 && isSpecial(st))
        return mayAccess(name, W_OK);
    // An existing file, else a new one made by this open alone; one that appears in between is opened as
    // existing.
    for (int attempt = 0; attempt < 2; ++attempt) {
        int fd = openFile(name, O_WRONLY | O_APPEND);
        if (fd < 0 && errno == ENOENT) {
            fd = openFile(name, O_WRONLY | O_APPEND | O_CREAT | O_EXCL);
            if (fd < 0 && errno == EEXIST)
                continue;
            *created = fd >= 0;
        }
        if (fd < 0)
            return false;
        ::close(fd);
        return true;
    }
    return false;
}

bool fileopencheck::folderTakesNewFiles(const QByteArray& folder) { return mayAccess(folder, W_OK | X_OK); }

bool fileopencheck::nameTaken(const QByteArray& path)
{
    struct stat st;
    return ::lstat(path.constData(), &st) == 0;
}

bool fileopencheck::isDanglingLink(const QByteArray& name)
{
    struct stat st;
    return ::lstat(name.constData(), &st) == 0 && S_ISLNK(st.st_mode) && ::stat(name.constData(), &st) != 0;
}

bool fileopencheck::danglingLinkTakesNewFile(const QByteArray& link)
{
    // Followed as an open follows it: a relative target is taken from the folder of the link that holds it.
    QByteArray current = link;
    for (int hop = 0; hop <= kMaxLinkHops; ++hop) {
        struct stat st;
        if (::lstat(current.constData(), &st) != 0)
            return errno == ENOENT && mayAccess(folderOf(current), W_OK | X_OK);
        if (!S_ISLNK(st.st_mode)) // the chain ends at a file made since the look: an open finds it
            return !S_ISDIR(st.st_mode) && mayAccess(current, W_OK);
        if (hop == kMaxLinkHops)
            break;
        const QByteArray target = linkTarget(current);
        if (target.isEmpty())
            return false;
        current = target.startsWith('/') ? target : folderOf(current) + '/' + target;
    }
    return false; // a loop, or a chain longer than an open follows
}

void fileopencheck::removeMadeFile(const QByteArray& path) { (void)::unlink(path.constData()); }

bool fileopencheck::fileExists(const QByteArray& path)
{
    struct stat st;
    return ::stat(path.constData(), &st) == 0;
}

bool fileopencheck::fileWritable(const QByteArray& path) { return mayAccess(path, W_OK); }

bool fileopencheck::folderOfFileExists(const QByteArray& path)
{
    struct stat st;
    return ::stat(folderOf(path).constData(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool fileopencheck::waitsToOpen(const QByteArray& path)
{
    struct stat st;
    return ::stat(path.constData(), &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode));
}
