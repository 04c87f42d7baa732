// FileServices.h - files named by UTF-8 paths, temporary files and path services.
#pragma once

#include "SupportDllExport.h"
#include "YString.h"

#include <cstdio>

/// The C runtime's fopen for a UTF-8 path; null on failure (errno set, as fopen sets it; a mode that
/// starts with none of "r", "w" and "a" gives EINVAL). The caller owns the stream and closes it with
/// fclose. On Windows the stream's handle is not inherited by child processes, and a file opened in a
/// binary mode ("rb", "wb" or "ab", with or without "+") or in a text mode of "r" or "w" without "+"
/// ("rt", "wt") may be renamed and deleted by others while it is open, as on POSIX systems. A mode
/// without "b" or "t" is text unless the program made binary the runtime's default. The text modes that
/// append or update ("a", "at", "r+", "w+t", "a+t"...) and modes with other letters are opened by the C
/// runtime, which lets others read and write the file but not rename or delete it while it is open. A
/// mode the runtime does not document ("rw", "rbt", "r++") gives null with errno EINVAL there, where the
/// runtime itself would end the program.
SUPPORTDLL_API FILE* fopen_utf8(const char* path, const char* mode);
/// As fopen_utf8, storing the stream in `*out`; 0 on success, else the error number (and `*out` null).
[[nodiscard]] SUPPORTDLL_API int fopen_s_utf8(FILE** out, const char* path, const char* mode);
/// Deletes a file; 0 on success, -1 on failure.
[[nodiscard]] SUPPORTDLL_API int unlink_utf8(const char* path);
/// Renames a file, replacing an existing target; 0 on success, -1 on failure. On Windows a writable
/// target that is open, sharing its deletion (as the files fopen_utf8 opens are), is moved aside and
/// deleted, so that its holder reads on from it and it goes when closed, as on POSIX systems.
[[nodiscard]] SUPPORTDLL_API int rename_utf8(const char* from, const char* to);

/// True when a file or directory of that name exists.
SUPPORTDLL_API bool sp_ExistFile(const char* path);
/// True when the path names a directory.
SUPPORTDLL_API bool sp_IsDirectory(const char* path);
/// Size in bytes, or -1 when the file cannot be examined.
SUPPORTDLL_API long long sp_GetFileSize64(const char* path);
/// Opens a regular file of at most `maxBytes` bytes for binary reading and stores its size in `*size`.
/// The path is asked before the open (which would wait on a FIFO) and the open file again, so that a
/// FIFO, a device such as /dev/zero, a folder or a larger file gives null without being read. The caller
/// owns the stream and closes it with fclose.
[[nodiscard]] SUPPORTDLL_API FILE* sp_OpenRegularFile(const char* path, long long maxBytes, long long* size);
/// Modification time in seconds since 1970-01-01 00:00 UTC; negative when unavailable.
SUPPORTDLL_API long long sp_GetFileModifiedTime(const YString& path);
/// The same for an open stream, which stays open and owned by the caller.
SUPPORTDLL_API long long sp_GetFileModifiedTime(FILE* file);

/// A fresh, empty, writable file in the temporary directory, created so that no other caller gets the
/// same name; the caller deletes it. Empty when none could be created.
SUPPORTDLL_API YString sp_GetTempFile();
/// The temporary directory with forward slashes and no trailing separator.
SUPPORTDLL_API YString sp_GetTempPath();

/// The directory of the running executable, forward slashes, no trailing separator but a root's ("/",
/// "C:/").
SUPPORTDLL_API YString sp_GetExeDir();
/// Sets the directory that "%EXEPATH%" and `sp_GetExeDir` report (empty restores the real one).
SUPPORTDLL_API void sp_SetExeDir(const YString& dir);
/// Removes "." segments, resolves ".." against the preceding segment, folds repeated separators and
/// drops a trailing separator (a root stays "/"). Both separators are accepted; "/" is written.
SUPPORTDLL_API YString sp_CleanPath(const YString& path);
/// The path with every backslash turned into a forward slash.
SUPPORTDLL_API YString sp_ConvertLocalToUnix(const YString& path);
/// Expands "%EXEPATH%" to the executable's directory and "%NAME%" to the environment variable NAME.
/// Placeholders that name nothing are left as written and make the result false.
[[nodiscard]] SUPPORTDLL_API bool sp_TranslateSystemPath(const char* in, YString* out);
/// Splits a path at its last separator ("/" or "\") into the directory (without the separator) and the
/// file name. A root keeps its separator: "/x" gives "/", "C:\x" gives "C:\". With no separator the
/// directory is empty. Either output may be null.
SUPPORTDLL_API void sp_SplitPath(const YString& path, YString* directory, YString* fileName);
/// 0 when the two paths name the same file by the host's rules (see `YString::comparePath`).
SUPPORTDLL_API int sp_ComparePaths(const char* a, const char* b);
/// True where file names are case-sensitive (every host but Windows).
SUPPORTDLL_API bool sp_CaseSensitiveFiles();
/// File-name pattern of loadable modules: "*.dll" on Windows, "*.dylib" on macOS, "*.so" elsewhere.
SUPPORTDLL_API const char* sp_GetSharedLibraryFilter();
