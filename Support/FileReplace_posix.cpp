// FileReplace_posix.cpp - replacing a file's content on POSIX systems: through links, in place for
// special files, with the old permissions and owner, by a rename that happens only after the new
// content has reached the disk.
#include "FileReplace_p.h"

#include <QByteArray>
#include <QDir>
#include <QString>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The file a path finally names: symbolic links followed, each relative one from its own folder. A
// link to nothing gives the path it points at; links in a loop, or more of them than the system follows,
// give nothing, since any file written there would replace a link.
std::string finalTarget(const std::string& path)
{
    std::string current = path;
    for (int hops = 0; hops <= 40; ++hops) {
        struct stat st;
        if (::lstat(current.c_str(), &st) != 0 || !S_ISLNK(st.st_mode))
            return current;
        char buffer[PATH_MAX + 1];
        const ssize_t n = ::readlink(current.c_str(), buffer, PATH_MAX);
        if (n <= 0 || n >= PATH_MAX)
            return std::string();
        std::string next(buffer, static_cast<size_t>(n));
        if (next[0] != '/') {
            const size_t slash = current.rfind('/');
            next = (slash == std::string::npos ? std::string() : current.substr(0, slash + 1)) + next;
        }
        current = next;
    }
    return std::string();
}

std::string folderOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool syncFile(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool ok = ::fsync(fd) == 0;
    return ::close(fd) == 0 && ok;
}

// Writes the bytes of `in` over those of `out` from the start, checking every write, and cuts `out` to
// their length.
bool copyOver(int in, int out)
{
    if (::lseek(in, 0, SEEK_SET) != 0 || ::lseek(out, 0, SEEK_SET) != 0)
        return false;
    off_t total = 0;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(in, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            break;
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::write(out, buffer + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                return false;
            done += w;
        }
        total += n;
    }
    return ::ftruncate(out, total) == 0 && ::fsync(out) == 0;
}

// Writes a finished file's bytes over `target` in place. The room they need is reserved first (on
// Linux), so that a full disk fails the write before the file is touched; the old bytes are kept in
// `backup` (when the file may be read) and put back if a write fails all the same. `*backupNeeded` is set
// when a backup was made and even that failed: it then holds the only copy of the old bytes.
bool writeInPlace(const std::string& from, const std::string& target, const std::string& backup, bool* backupNeeded)
{
    const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return false;
    int out = ::open(target.c_str(), O_RDWR | O_CLOEXEC);
    const bool readable = out >= 0;
    if (!readable)
        out = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
    const int kept = readable ? ::open(backup.c_str(), O_RDWR | O_TRUNC | O_CLOEXEC) : -1;
    struct stat st;
    bool ok = out >= 0 && (!readable || (kept >= 0 && copyOver(out, kept))) && ::fstat(in, &st) == 0;
#if defined(__linux__)
    if (ok && st.st_size > 0) {
        int reserved;
        do
            reserved = ::fallocate(out, FALLOC_FL_KEEP_SIZE, 0, st.st_size);
        while (reserved != 0 && errno == EINTR);
        // A file system that cannot reserve room says so; the write then goes ahead unreserved. Room
        // refused may have been reserved in part: what lies past the file's end is given back.
        if (reserved != 0 && errno != EOPNOTSUPP && errno != ENOSYS) {
            struct stat old;
            if (::fstat(out, &old) == 0 && old.st_size < st.st_size)
                (void)::fallocate(out, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, old.st_size, st.st_size - old.st_size);
            ok = false;
        }
    }
#endif
    if (ok && !copyOver(in, out)) {
        *backupNeeded = kept >= 0 && !copyOver(kept, out);
        ok = false;
    }
    ::close(in);
    if (kept >= 0)
        ::close(kept);
    return out >= 0 && ::close(out) == 0 && ok;
}

} // namespace

bool filereplace::replace(const YString& path, SpContentWriter write, void* context)
{
    const std::string target = finalTarget(path.c_str());
    if (target.empty())
        return false;
    struct stat old;
    const bool exists = ::stat(target.c_str(), &old) == 0;
    // A file whose state cannot be read is not taken for a new one: only a missing one is.
    if (!exists && errno != ENOENT)
        return false;
    if (exists && S_ISDIR(old.st_mode))
        return false;
    if (exists && !S_ISREG(old.st_mode)) {
        // A device, FIFO or socket is written in place: replacing it would put a regular file where
        // the device was.
        return write(YString(target.c_str()), context);
    }
    if (exists && ::access(target.c_str(), W_OK) != 0)
        return false; // read-only for this process: refused, as a direct save would be
    mode_t mode;
    if (exists) {
        mode = old.st_mode & 07777;
    } else {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        mode = 0666 & ~mask;
    }

    // Writes the finished file `from` over the target in place, beside a copy of the old bytes in the
    // temporary folder.
    const auto overwrite = [&](const std::string& from) {
        std::string backup = QDir::tempPath().toStdString() + "/.sq-XXXXXX";
        const int bfd = ::mkstemp(&backup[0]);
        if (bfd < 0)
            return false;
        ::close(bfd);
        bool backupNeeded = false;
        const bool ok = writeInPlace(from, target, backup, &backupNeeded);
        // A backup that could not be put back is the only copy of the old bytes: it stays.
        if (!backupNeeded)
            ::unlink(backup.c_str());
        return ok;
    };

    // A short name of our own beside the target (not derived from the target's name, which may be as
    // long as a name may be).
    std::string temporary = folderOf(target) + "/.sq-XXXXXX";
    const int fd = ::mkstemp(&temporary[0]);
    if (fd < 0) {
        if (!exists)
            return false;
        // No new file can be made in the folder, but the file itself may be written: in place, from a
        // complete copy made in the temporary folder first.
        std::string scratch = QDir::tempPath().toStdString() + "/.sq-XXXXXX";
        const int sfd = ::mkstemp(&scratch[0]);
        if (sfd < 0)
            return false;
        ::close(sfd);
        const bool ok = write(YString(scratch.c_str()), context) && syncFile(scratch) && overwrite(scratch);
        ::unlink(scratch.c_str());
        return ok;
    }
    ::close(fd);
    bool ok = write(YString(temporary.c_str()), context) && syncFile(temporary);
    // The owner first: a change of owner clears the set-user-ID and set-group-ID bits that the mode then
    // sets.
    if (ok && exists && (old.st_uid != ::geteuid() || old.st_gid != ::getegid())) {
        // The owner is kept where the process may set it (as root); elsewhere the new file is ours.
        if (::chown(temporary.c_str(), old.st_uid, old.st_gid) != 0 && ::geteuid() == 0)
            ok = false;
    }
    ok = ok && ::chmod(temporary.c_str(), mode) == 0;
    bool renamed = false;
    if (ok) {
        renamed = ::rename(temporary.c_str(), target.c_str()) == 0;
        // Another user's file in a folder where only owners may remove or replace files (a sticky
        // folder such as /tmp) cannot be replaced, but it may be written: in place.
        if (!renamed)
            ok = exists && (errno == EPERM || errno == EACCES) && overwrite(temporary);
    }
    if (!renamed)
        ::unlink(temporary.c_str());
    return ok;
}

bool filereplace::fileIdentity(const YString& path, unsigned long long* device, unsigned long long* file)
{
    struct stat st;
    if (::stat(path.c_str(), &st) != 0)
        return false;
    *device = static_cast<unsigned long long>(st.st_dev);
    *file = static_cast<unsigned long long>(st.st_ino);
    return true;
}

std::string filereplace::fileKey(const YString& path)
{
    unsigned long long device = 0, file = 0;
    return fileIdentity(path, &device, &file) ? "#" + std::to_string(device) + ":" + std::to_string(file) : std::string();
}
