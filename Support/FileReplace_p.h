// FileReplace_p.h - the platform part of replacing a file's content.
#pragma once

#include "FileReplace.h"

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
} // namespace filereplace
