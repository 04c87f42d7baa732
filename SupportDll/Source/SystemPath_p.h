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

/// `path` as the system's file functions take it whatever its length. A path shorter than
/// kExtendedPathFrom is returned as it is, and so is one already in a device or extended form ("\\.\",
/// "\\?\"). A longer one is made absolute and normalized as the system itself reads an ordinary path
/// (separators, "." and "..", a last dot or blank dropped), then given the prefix "\\?\" ("\\?\UNC\" for
/// a share), which the system takes exactly as written; so it names the file the ordinary form names,
/// where the ordinary form would have been refused for its length. A path the system cannot make
/// absolute is returned as it is, to fail as it would have.
inline std::wstring systemPath(const std::wstring& path)
{
    if (path.size() < kExtendedPathFrom)
        return path;
    const auto separator = [&](size_t i) { return path[i] == L'\\' || path[i] == L'/'; };
    if (separator(0) && separator(1) && (path[2] == L'?' || path[2] == L'.') && separator(3))
        return path;
    std::vector<wchar_t> full(path.size() + MAX_PATH + 1);
    DWORD n = GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (n >= full.size()) { // a current folder longer than the room given: n is the room needed
        full.resize(n + 1);
        n = GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    }
    if (n == 0 || n >= full.size())
        return path;
    const std::wstring absolute(full.data(), n);
    if (absolute.size() > 2 && absolute[0] == L'\\' && absolute[1] == L'\\')
        return absolute[2] == L'?' || absolute[2] == L'.' ? absolute : L"\\\\?\\UNC\\" + absolute.substr(2);
    if (absolute.size() >= 3 && absolute[1] == L':' && absolute[2] == L'\\')
        return L"\\\\?\\" + absolute;
    return path;
}

} // namespace platform
#endif
