// FileOpenCheck_posix.cpp - the opens behind the file-open check on POSIX systems: non-blocking, so
// that a FIFO or a device never holds the check.
#include "FileOpenCheck_p.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The descriptor of the file opened with `flags`, non-blocking; -1 with errno set when it does not open.
int openFile(const QString& path, int flags)
{
    return ::open(path.toUtf8().constData(), flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0666);
}

} // namespace

bool fileopencheck::opensForReading(const QString& path)
{
    const int fd = openFile(path, O_RDONLY);
    if (fd < 0)
        return false;
    // A folder opens for reading here, but it is no file to read.
    struct stat st;
    const bool folder = ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode);
    ::close(fd);
    return !folder;
}

bool fileopencheck::opensForAppending(const QString& path, bool* created)
{
    *created = false;
    // An existing file, else a new one made by this open alone; one that appears in between is opened as
    // existing.
    for (int attempt = 0; attempt < 2; ++attempt) {
        int fd = openFile(path, O_WRONLY | O_APPEND);
        if (fd < 0 && errno == ENOENT) {
            fd = openFile(path, O_WRONLY | O_APPEND | O_CREAT | O_EXCL);
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

bool fileopencheck::folderTakesNewFiles(const QString& folder)
{
    return ::access(folder.toUtf8().constData(), W_OK | X_OK) == 0;
}
