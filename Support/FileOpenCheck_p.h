// FileOpenCheck_p.h - the opens and file queries behind the file-open check, one implementation per
// platform, each given the caller's path as its UTF-8 bytes. POSIX systems take the bytes as they are, so
// that every step looks at the same file whatever the locale codec, and a name that is no UTF-8 names
// exactly its bytes; Windows goes through Qt, which uses wide names there, and a name that is no UTF-8
// names no file (never the one with U+FFFD in its place).
#pragma once

#include <QByteArray>

namespace fileopencheck {
/// Whether the file opens for reading now; a folder does not. Never waits: on POSIX systems a FIFO, a
/// socket or a device is not opened at all (opening one would wake a process waiting on its other end),
/// its permissions answer instead.
bool opensForReading(const QByteArray& path);
/// Whether the file opens for appending now, creating it when it is missing. `*created` tells whether
/// this open made the file, which the caller then removes: a file that another process makes meanwhile
/// is never taken for one of ours. Never waits: on POSIX systems a FIFO, a socket or a device is answered
/// from its permissions without being opened.
bool opensForAppending(const QByteArray& path, bool* created);
/// Whether a new file could be made in the folder `folder`, asked without making one.
bool folderTakesNewFiles(const QByteArray& folder);
/// Whether the name is taken: by a file, a folder or a symbolic link, even one that leads nowhere.
bool nameTaken(const QByteArray& path);
/// Whether `path` is a symbolic link that leads to nothing: to a missing file, or round a loop of links.
bool isDanglingLink(const QByteArray& path);
/// Whether an open for writing through the dangling link `link` would make the file it finally names:
/// the chain of links ends, and the folder of its last target exists and takes new files.
bool danglingLinkTakesNewFile(const QByteArray& link);
/// Removes the file that the check's own open made.
void removeMadeFile(const QByteArray& path);
/// What the diagnosis asks, symbolic links followed: whether the file exists, whether it may be written,
/// and whether the folder that holds (or would hold) it exists.
bool fileExists(const QByteArray& path);
bool fileWritable(const QByteArray& path);
bool folderOfFileExists(const QByteArray& path);
/// Whether the path names a file whose open for reading may wait for another process, symbolic links
/// followed: a FIFO (until someone writes it) or a socket (whose open fails). Never on Windows.
bool waitsToOpen(const QByteArray& path);
} // namespace fileopencheck
