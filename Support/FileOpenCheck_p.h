// FileOpenCheck_p.h - the opens behind the file-open check, one implementation per platform.
#pragma once

#include <QString>

namespace fileopencheck {
/// Whether the file opens for reading now; a folder does not. Never waits: a FIFO without a writer, for
/// example, opens at once on POSIX systems (non-blocking open).
bool opensForReading(const QString& path);
/// Whether the file opens for appending now, creating it when it is missing. `*created` tells whether
/// this open made the file, which the caller then removes: a file that another process makes meanwhile
/// is never taken for one of ours. Never waits: a FIFO without a reader gives false at once on POSIX
/// systems.
bool opensForAppending(const QString& path, bool* created);
/// Whether a new file could be made in the folder `folder`, asked without making one.
bool folderTakesNewFiles(const QString& folder);
} // namespace fileopencheck
