// FileReplace_p.h - the platform part of replacing a file's content.
#pragma once

#include "FileReplace.h"

#include <string>

namespace filereplace {
/// Replaces the content of `path` as sp_ReplaceFileContent describes; `path` is not empty.
bool replace(const YString& path, SpContentWriter write, void* context);
/// Whether the two paths name one existing file, by whatever names (hard links included): false when
/// either cannot be looked at.
bool sameFile(const YString& a, const YString& b);
/// The identity of the existing file or folder `path` names (links followed), one for every name that
/// reaches it, whatever its case, links or short forms: its device or volume and its file number there.
/// False when it cannot be looked at.
bool fileIdentity(const YString& path, unsigned long long* device, unsigned long long* file);
/// A key of the existing file or folder `path` names that every ordinary name of it shares (links
/// followed, and on Windows another case, a short name or the long form) and no other file has: its
/// device and file number on POSIX systems; on Windows, where a file index may repeat (on some file
/// systems and shares), the path the system finally resolves it to, so that hard links there are
/// different keys. Empty when it cannot be looked at.
std::string fileKey(const YString& path);
} // namespace filereplace
