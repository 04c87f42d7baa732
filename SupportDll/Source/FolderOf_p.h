// FolderOf_p.h - the folder part of a file's full path, as the platform seam gives an executable's.
#pragma once

#include <string>

namespace platform {

/// The folder of `path`: what comes before its last separator (one of `separators`), or "." when it has
/// none. A root keeps its separator, since without it the path would name another folder: "/x" gives
/// "/", and with `driveRoots` "C:\x.exe" gives "C:\" (where "C:" is the current folder of drive C).
template <class String>
String folderOf(const String& path, const typename String::value_type* separators, bool driveRoots)
{
    const size_t cut = path.find_last_of(separators);
    if (cut == String::npos)
        return String(1, typename String::value_type('.'));
    const bool root = cut == 0 || (driveRoots && path[cut - 1] == ':');
    return path.substr(0, root ? cut + 1 : cut);
}

} // namespace platform
