// FileReplace_win.cpp - replacing a file's content on Windows: a read-only file is refused, a device
// name is written in place, and the new content is moved over the old file only once it is complete.
#include "FileReplace_p.h"

#include "QtSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryFile>

#include <windows.h>

bool filereplace::replace(const YString& path, SpContentWriter write, void* context)
{
    const QString target = QFileInfo(toQs(path)).absoluteFilePath();
    const std::wstring wideTarget = QDir::toNativeSeparators(target).toStdWString();
    const DWORD attributes = GetFileAttributesW(wideTarget.c_str());
    const bool exists = attributes != INVALID_FILE_ATTRIBUTES;
    if (exists && (attributes & FILE_ATTRIBUTE_DIRECTORY))
        return false;
    if (exists && (attributes & FILE_ATTRIBUTE_DEVICE))
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
    bool ok = write(toYs(temporary), context);
    ok = ok && MoveFileExW(wideTemporary.c_str(), wideTarget.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
    if (!ok)
        DeleteFileW(wideTemporary.c_str());
    return ok;
}
