// FileReplace_win.cpp - replacing a file's content on Windows: a read-only file is refused, a device
// name is written in place, and the new content is moved over the old file only once it is complete.
#include "FileReplace_p.h"

#include "FileServices.h"
#include "QtSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryFile>

#include <windows.h>

namespace {
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

} // namespace

bool filereplace::replace(const YString& path, SpContentWriter write, void* context)
{
    const QString target = QFileInfo(toQs(path)).absoluteFilePath();
    const std::wstring wideTarget = QDir::toNativeSeparators(target).toStdWString();
    const DWORD attributes = GetFileAttributesW(wideTarget.c_str());
    const bool exists = attributes != INVALID_FILE_ATTRIBUTES;
    if (exists && (attributes & FILE_ATTRIBUTE_DIRECTORY))
        return false;
    if (exists && ((attributes & FILE_ATTRIBUTE_DEVICE) || isDevice(wideTarget)))
        return write(path, context);
    if (exists && (attributes & FILE_ATTRIBUTE_READONLY))
        return false;
    QString temporary;
    {
        // Destroyed before the move: the object holds its handle until then.
        QTemporaryFile file(QFileInfo(target).absolutePath() + QStringLiteral("/.sq-XXXXXX"));
        file.setAutoRemove(false);
        if (!file.open())
            return false;
        temporary = file.fileName();
    }
    const std::wstring wideTemporary = QDir::toNativeSeparators(temporary).toStdWString();
    bool ok = write(toYs(temporary), context) && flushToDisk(wideTemporary);
    // A target that a reader holds open is moved aside and goes when the reader closes it (rename_utf8).
    ok = ok && rename_utf8(temporary.toUtf8().constData(), target.toUtf8().constData()) == 0;
    if (!ok)
        DeleteFileW(wideTemporary.c_str());
    return ok;
}
