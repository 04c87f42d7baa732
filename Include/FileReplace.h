// FileReplace.h - replacing a file's content as an editor saves it.
#pragma once

#include "SupportQtExport.h"
#include "YString.h"

/// Writes the new content of a file: given the path to write it to, returns whether every byte of it
/// was written.
typedef bool (*SpContentWriter)(const YString& pathToWrite, void* context);

/// Replaces the content of the file `path` with what `write` writes, as an editor saves a file:
/// - the content is written to a new file beside the target and renamed over it only once `write` has
///   succeeded and the file has reached the disk, so a failed write leaves the previous file exactly as
///   it was and no temporary file behind;
/// - a symbolic link keeps pointing at its target, which receives the content (a link to nothing gets
///   its target created);
/// - a target that is not a regular file (a device such as /dev/null, a FIFO, a socket) is written in
///   place, never replaced by a regular file;
/// - an existing file that may not be written (read-only for the caller) is refused and left alone;
/// - a writable file in a folder where no new file can be made is written in place, once the room the new
///   content needs is reserved (on Linux, so that a full disk fails the write before the file is touched)
///   and, when the file may be read, its old bytes are copied aside to the temporary folder, to be put
///   back if a write fails all the same (a copy that cannot be put back is left there);
/// - the replacement keeps the old file's permissions (and its owner where the process may set it; on
///   Windows its access list and its hidden, system, archive and not-indexed attributes); a new file gets
///   the permissions the process's file-mode mask gives (on Windows, the folder's).
/// False when `path` is empty or a folder, when the file may not be written, when a Windows path in the
/// long form ("\\?\C:\...") names a file that its ordinary form would not (a name ending in a dot or a
/// blank, say), or when anything fails; a `write` that throws has failed.
/// `context` is only passed on to `write`: it stays the caller's.
[[nodiscard]] SUPPORTQT_API bool sp_ReplaceFileContent(const YString& path, SpContentWriter write, void* context);

/// The same with any callable `bool(const YString& pathToWrite)`.
template <class Write>
bool sp_ReplaceFileWith(const YString& path, const Write& write)
{
    return sp_ReplaceFileContent(
        path,
        [](const YString& pathToWrite, void* context) { return (*static_cast<const Write*>(context))(pathToWrite); },
        const_cast<Write*>(&write));
}
