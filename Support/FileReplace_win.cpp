// FileReplace_win.cpp - replacing a file's content on Windows: a read-only file is refused, a device
// name is written in place, a link's target is the file replaced, and the new content is moved over the
// old file only once it is complete, or written over it in place where the folder takes no new file.
#include "FileReplace_p.h"
#include "../SupportDll/Source/SystemPath_p.h"

#include "FileServices.h"
#include "QtSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryFile>

#include <vector>

#include <windows.h>

#include <aclapi.h>

namespace {
// A path as the system's file functions take it, whatever its length.
std::wstring systemForm(const QString& path) { return platform::systemPath(QDir::toNativeSeparators(path).toStdWString()); }

// Whether the name opens a device (NUL, CON, a serial port), which the folder's attributes do not tell.
bool isDevice(const std::wstring& path)
{
    const HANDLE h = CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    const bool device = GetFileType(h) != FILE_TYPE_DISK;
    CloseHandle(h);
    return device;
}

// Writes the file's content through to the disk: the rename that follows must not be able to reach
// the disk before the content it names.
bool flushToDisk(const std::wstring& path)
{
    const HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    const bool flushed = FlushFileBuffers(h) != 0;
    CloseHandle(h);
    return flushed;
}


const DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Copies all of `from` over `to` from their starts, cuts `to` where it ends and flushes it to the disk.
bool copyOver(HANDLE from, HANDLE to)
{
    const LARGE_INTEGER start{};
    if (!SetFilePointerEx(from, start, nullptr, FILE_BEGIN) || !SetFilePointerEx(to, start, nullptr, FILE_BEGIN))
        return false;
    std::vector<char> buffer(1 << 16);
    for (;;) {
        DWORD got = 0, put = 0;
        if (!ReadFile(from, buffer.data(), static_cast<DWORD>(buffer.size()), &got, nullptr))
            return false;
        if (got == 0)
            break;
        if (!WriteFile(to, buffer.data(), got, &put, nullptr) || put != got)
            return false;
    }
    return SetEndOfFile(to) && FlushFileBuffers(to);
}

// Writes a finished file's bytes over `target` in place. The room they need is reserved first, so that
// a full disk fails the write before the file is touched; the old bytes are kept in `backup` (when the
// file may be read) and put back if a write fails all the same. `*backupNeeded` is set when a backup was
// made and even that failed: it then holds the only copy of the old bytes.
bool writeInPlace(const std::wstring& from, const std::wstring& target, const std::wstring& backup, bool* backupNeeded)
{
    const HANDLE in = CreateFileW(from.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
    HANDLE out = CreateFileW(target.c_str(), GENERIC_READ | GENERIC_WRITE, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
    const bool readable = out != INVALID_HANDLE_VALUE;
    if (!readable)
        out = CreateFileW(target.c_str(), GENERIC_WRITE, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
    const HANDLE kept = readable ? CreateFileW(backup.c_str(), GENERIC_READ | GENERIC_WRITE, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr)
                                 : INVALID_HANDLE_VALUE;
    LARGE_INTEGER newSize{}, oldSize{};
    bool ok = in != INVALID_HANDLE_VALUE && out != INVALID_HANDLE_VALUE &&
              (!readable || (kept != INVALID_HANDLE_VALUE && copyOver(out, kept))) && GetFileSizeEx(in, &newSize) &&
              GetFileSizeEx(out, &oldSize);
    if (ok && newSize.QuadPart > oldSize.QuadPart) {
        // Room for the larger content, which never cuts the old bytes: the allocation is the most that
        // either needs. Only a full disk fails the write here; a file system that cannot reserve room
        // says so otherwise, and the write then goes ahead as it is.
        FILE_ALLOCATION_INFO room;
        room.AllocationSize = newSize;
        if (!SetFileInformationByHandle(out, FileAllocationInfo, &room, sizeof room))
            ok = GetLastError() != ERROR_DISK_FULL && GetLastError() != ERROR_HANDLE_DISK_FULL;
    }
    if (ok && !copyOver(in, out)) {
        *backupNeeded = kept != INVALID_HANDLE_VALUE && !copyOver(kept, out);
        ok = false;
    }
    for (const HANDLE h : {in, kept})
        if (h != INVALID_HANDLE_VALUE)
            CloseHandle(h);
    return out != INVALID_HANDLE_VALUE && CloseHandle(out) && ok;
}

// The file that `path` (`named`) finally names, links followed: `named` itself when it is no link, and
// empty when a link's target cannot be told or has a name that only its long form can reach (a last
// dot or blank, a device's name).
QString finalPath(const std::wstring& path, const QString& named)
{
    const HANDLE h = CreateFileW(path.c_str(), 0, kShareAll, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
        // A link to nothing: its target is where the content goes.
        const QString target = QFileInfo(named).symLinkTarget();
        return target.isEmpty() ? QString() : QFileInfo(target).absoluteFilePath();
    }
    // Room for the longest name the system has (some versions give no size when a buffer is too small).
    std::vector<wchar_t> buffer(32768);
    const DWORD n = GetFinalPathNameByHandleW(h, buffer.data(), static_cast<DWORD>(buffer.size()), FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    CloseHandle(h);
    // A name the system cannot give (a volume without a drive letter): a link is then refused, and a
    // file that is no link is the one named.
    if (n == 0 || n >= buffer.size())
        return GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_REPARSE_POINT ? QString() : named;
    QString resolved = QString::fromWCharArray(buffer.data(), static_cast<int>(n));
    // The system names it in its long form: "\\?\C:\..." or "\\?\UNC\server\...".
    if (resolved.startsWith(QLatin1String("\\\\?\\UNC\\")))
        resolved = QStringLiteral("\\\\") + resolved.mid(8);
    else if (resolved.startsWith(QLatin1String("\\\\?\\")))
        resolved = resolved.mid(4);
    resolved = QDir::fromNativeSeparators(resolved);
    if (resolved.compare(named, Qt::CaseInsensitive) == 0)
        return named;
    for (const QString& part : resolved.split(QLatin1Char('/')))
        if (part.endsWith(QLatin1Char('.')) || part.endsWith(QLatin1Char(' ')))
            return QString();
    return isDevice(systemForm(resolved)) ? QString() : resolved;
}

// The ordinary form of a path written in the long form ("\\?\C:\..." or "\\?\UNC\server\share\..."),
// which the system takes exactly as written: empty where the ordinary form would name another file (a
// name with a last dot or blank, which the system drops, "." or "..", a device's name, a "/" within a
// name) or where there is none (a volume named by its GUID). Any other path is returned as it is.
QString ordinaryForm(const QString& path)
{
    QString ordinary;
    if (path.startsWith(QLatin1String("\\\\?\\UNC\\"), Qt::CaseInsensitive))
        ordinary = QStringLiteral("\\\\") + path.mid(8);
    else if (path.startsWith(QLatin1String("\\\\?\\")))
        ordinary = path.mid(4);
    else
        return path;
    const bool onDrive = ordinary.size() >= 3 && ordinary[0].isLetter() && ordinary[1] == QLatin1Char(':') &&
                         ordinary[2] == QLatin1Char('\\');
    const bool onShare = ordinary.size() > 2 && ordinary.startsWith(QLatin1String("\\\\"));
    if (!onDrive && !onShare)
        return QString();
    // The ordinary form names the same file only where the system's normalization leaves it as it is.
    const std::wstring wide = ordinary.toStdWString();
    std::vector<wchar_t> buffer(32768);
    const DWORD n = GetFullPathNameW(wide.c_str(), static_cast<DWORD>(buffer.size()), buffer.data(), nullptr);
    if (n == 0 || n >= buffer.size() ||
        QString::fromWCharArray(buffer.data(), static_cast<int>(n)).compare(ordinary, Qt::CaseInsensitive) != 0)
        return QString();
    return ordinary;
}

// Whether the file's access list lets this process write it.
bool mayWrite(const std::wstring& path)
{
    const HANDLE h = CreateFileW(path.c_str(), FILE_WRITE_DATA, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return GetLastError() != ERROR_ACCESS_DENIED;
    CloseHandle(h);
    return true;
}

// Gives `to` the access list of `from`: the new file was made with the one its folder hands down, and a
// file that only its owner could read must stay so. A file system without access lists has nothing to
// copy. False when the list was read but could not be set.
bool copyAccessList(const std::wstring& from, const std::wstring& to)
{
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetNamedSecurityInfoW(from.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &list, nullptr,
                              &descriptor) != ERROR_SUCCESS)
        return true;
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    // A list that takes nothing from the folder keeps doing so; otherwise the folder's part is handed
    // down again, the same folder's as before.
    const bool keepsItsOwn = GetSecurityDescriptorControl(descriptor, &control, &revision) && (control & SE_DACL_PROTECTED);
    const DWORD what =
        DACL_SECURITY_INFORMATION | (keepsItsOwn ? PROTECTED_DACL_SECURITY_INFORMATION : UNPROTECTED_DACL_SECURITY_INFORMATION);
    const bool copied = !list || SetNamedSecurityInfoW(const_cast<wchar_t*>(to.c_str()), SE_FILE_OBJECT, what, nullptr, nullptr,
                                                       list, nullptr) == ERROR_SUCCESS;
    LocalFree(descriptor);
    return copied;
}

// A file in the temporary folder, made empty for the caller; empty when none can be made.
std::wstring scratchFile()
{
    QTemporaryFile file(QDir::tempPath() + QStringLiteral("/.sq-XXXXXX"));
    file.setAutoRemove(false);
    return file.open() ? QDir::toNativeSeparators(file.fileName()).toStdWString() : std::wstring();
}

} // namespace

bool filereplace::replace(const YString& path, SpContentWriter write, void* context)
{
    // A path in the long form goes on in its ordinary form, where that names the same file; it is refused
    // otherwise, never turned into the name of another file.
    const QString given = ordinaryForm(toQs(path));
    if (given.isEmpty())
        return false;
    const QString named = QFileInfo(given).absoluteFilePath();
    const std::wstring wideNamed = systemForm(named);
    const DWORD namedAttributes = GetFileAttributesW(wideNamed.c_str());
    // (A device may have no attributes to give, as "\\.\NUL" under some systems: it is opened to tell.)
    if ((namedAttributes != INVALID_FILE_ATTRIBUTES && namedAttributes & FILE_ATTRIBUTE_DEVICE) || isDevice(wideNamed))
        return write(path, context);
    // A link keeps pointing at its target, which receives the content: the file the path finally names
    // is the one replaced.
    const QString target = namedAttributes == INVALID_FILE_ATTRIBUTES && QFileInfo(named).symLinkTarget().isEmpty()
                               ? named
                               : finalPath(wideNamed, named);
    if (target.isEmpty())
        return false;
    const std::wstring wideTarget = systemForm(target);
    const DWORD attributes = GetFileAttributesW(wideTarget.c_str());
    const bool exists = attributes != INVALID_FILE_ATTRIBUTES;
    if (exists && (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY)))
        return false;
    if (exists && !mayWrite(wideTarget))
        return false; // its access list forbids writing: refused, as a direct save would be
    QString temporary;
    {
        // Destroyed before the move: the object holds its handle until then.
        QTemporaryFile file(QFileInfo(target).absolutePath() + QStringLiteral("/.sq-XXXXXX"));
        file.setAutoRemove(false);
        if (file.open())
            temporary = file.fileName();
    }
    if (temporary.isEmpty()) {
        if (!exists)
            return false;
        // No new file can be made in the folder, but the file itself may be written: in place, from a
        // complete copy made in the temporary folder first, beside a copy of the old bytes.
        const std::wstring scratch = scratchFile();
        const std::wstring backup = scratch.empty() ? std::wstring() : scratchFile();
        bool backupNeeded = false;
        const bool ok = !backup.empty() && write(toYs(QString::fromStdWString(scratch)), context) &&
                        writeInPlace(platform::systemPath(scratch), wideTarget, platform::systemPath(backup), &backupNeeded);
        if (!scratch.empty())
            DeleteFileW(platform::systemPath(scratch).c_str());
        // A backup that could not be put back is the only copy of the old bytes: it stays.
        if (!backup.empty() && !backupNeeded)
            DeleteFileW(platform::systemPath(backup).c_str());
        return ok;
    }
    const std::wstring wideTemporary = systemForm(temporary);
    bool ok = write(toYs(temporary), context) && flushToDisk(wideTemporary);
    // A handle that may delete the new file, taken before it gets the old file's access list, which may
    // forbid that: a replacement that fails after it still takes its new file away. (Taken only now: the
    // writer's own open would not share a handle that may delete.)
    const HANDLE remover = ok ? CreateFileW(wideTemporary.c_str(), DELETE, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr)
                              : INVALID_HANDLE_VALUE;
    // The new file keeps the old one's attributes, as a POSIX replacement keeps its permissions, and is
    // marked for the next backup as any changed file is.
    const DWORD kept = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;
    if (ok && exists && (attributes & kept))
        ok = SetFileAttributesW(wideTemporary.c_str(), (attributes & kept) | FILE_ATTRIBUTE_ARCHIVE) != 0;
    ok = ok && (!exists || copyAccessList(wideTarget, wideTemporary));
    // A target that a reader holds open is moved aside and goes when the reader closes it (rename_utf8).
    ok = ok && rename_utf8(temporary.toUtf8().constData(), target.toUtf8().constData()) == 0;
    if (!ok && remover != INVALID_HANDLE_VALUE) {
        FILE_DISPOSITION_INFO disposition{TRUE};
        SetFileInformationByHandle(remover, FileDispositionInfo, &disposition, sizeof disposition);
    }
    if (remover != INVALID_HANDLE_VALUE)
        CloseHandle(remover);
    if (!ok)
        DeleteFileW(wideTemporary.c_str());
    return ok;
}

std::string filereplace::fileKey(const YString& path)
{
    const HANDLE h = CreateFileW(systemForm(toQs(path)).c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                 nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return std::string();
    // Room for the longest name the system has (some versions give no size when a buffer is too small).
    std::vector<wchar_t> buffer(32768);
    const DWORD n = GetFinalPathNameByHandleW(h, buffer.data(), static_cast<DWORD>(buffer.size()), FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    CloseHandle(h);
    if (n == 0 || n >= buffer.size())
        return std::string();
    return "@" + QString::fromWCharArray(buffer.data(), static_cast<int>(n)).toUtf8().toStdString();
}

// The volume and file index, which every name of the file shares, asked through a handle opened for
// nothing but its attributes, sharing everything.
bool filereplace::fileIdentity(const YString& path, unsigned long long* device, unsigned long long* file)
{
    const HANDLE h = CreateFileW(systemForm(toQs(path)).c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                 nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    BY_HANDLE_FILE_INFORMATION info;
    const bool got = GetFileInformationByHandle(h, &info) != 0;
    CloseHandle(h);
    // Some network file systems give every file the index 0, which tells no file from another.
    if (!got || (info.nFileIndexHigh == 0 && info.nFileIndexLow == 0))
        return false;
    *device = info.dwVolumeSerialNumber;
    *file = (static_cast<unsigned long long>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
    return true;
}
