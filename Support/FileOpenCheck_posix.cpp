// FileOpenCheck_posix.cpp - the opens behind the file-open check on POSIX systems: non-blocking, so
// that a FIFO or a device never holds the check.
#include "FileOpenCheck_p.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

bool opens(const QString& path, int flags)
{
    const QByteArray name = path.toUtf8();
    const int fd = ::open(name.constData(), flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd < 0)
        return false;
    ::close(fd);
    return true;
}

} // namespace

bool fileopencheck::opensForReading(const QString& path) { return opens(path, O_RDONLY); }

bool fileopencheck::opensForAppending(const QString& path) { return opens(path, O_WRONLY | O_APPEND | O_CREAT); }

bool fileopencheck::folderTakesNewFiles(const QString& folder)
{
    return ::access(folder.toUtf8().constData(), W_OK | X_OK) == 0;
}
