// SystemPath_p.h - the form in which a Windows path is handed to the system's file functions, so that
// paths past the old limit of 260 characters work without the program opting in to long paths.
#pragma once

#ifdef _WIN32
#include <string>
#include <vector>

#include <windows.h>

namespace platform {

/// Paths from this length on are handed over in the extended-length form: the longest folder that
/// CreateDirectory takes in the ordinary form leaves room for a name of 8.3 characters below the limit.
constexpr size_t kExtendedPathFrom = MAX_PATH - 12;

/// `path` as the system's file functions take it whatever its length. A path whose absolute form is
/// shorter than kExtendedPathFrom is returned as it is (a long one in that absolute form), and so is one
/// that the system takes exactly as written, with no limit ("\\?\", "\??\"). Any other is made absolute
/// (from the current folder for a relative one, where the limit counts the whole) and normalized as the
/// system itself reads it (separators, "." and "..", a last dot or blank dropped), then given the form
/// that the system takes as written: "\\?\" before a drive ("\\.\" becomes that too), "\\?\UNC\"
/// before a share. So it names the file the ordinary form names, where the ordinary form would have been
/// refused for its length. A path the system cannot make absolute is returned as it is, to fail as it
/// would have.
inline std::wstring systemPath(const std::wstring& path)
{
    const auto separator = [&](size_t i) { return i < path.size() && (path[i] == L'\\' || path[i] == L'/'); };
    const bool absolute = (path.size() >= 3 && path[1] == L':' && separator(2)) || (separator(0) && separator(1));
    if (absolute && path.size() < kExtendedPathFrom)
        return path;
    if (path.compare(0, 4, L"\\\\?\\") == 0 || path.compare(0, 4, L"\\??\\") == 0)
        return path;
    std::vector<wchar_t> buffer(path.size() + MAX_PATH + 1);
    DWORD n = GetFullPathNameW(path.c_str(), static_cast<DWORD>(buffer.size()), buffer.data(), nullptr);
    if (n >= buffer.size()) { // a current folder longer than the room given: n is the room needed
        buffer.resize(n + 1);
        n = GetFullPathNameW(path.c_str(), static_cast<DWORD>(buffer.size()), buffer.data(), nullptr);
    }
    if (n == 0 || n >= buffer.size())
        return path;
    const std::wstring full(buffer.data(), n);
    // A long path that names a short one ("..") goes in its short absolute form.
    if (n < kExtendedPathFrom)
        return path.size() < kExtendedPathFrom ? path : full;
    if (full.compare(0, 4, L"\\\\?\\") == 0)
        return full;
    if (full.compare(0, 4, L"\\\\.\\") == 0)
        return L"\\\\?\\" + full.substr(4);
    if (full[0] == L'\\' && full[1] == L'\\')
        return L"\\\\?\\UNC\\" + full.substr(2);
    if (full[1] == L':' && full[2] == L'\\')
        return L"\\\\?\\" + full;
    return path;
}

} // namespace platform
#endif
