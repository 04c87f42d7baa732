// FileOpenCheck_win.cpp - the opens and file queries behind the file-open check on Windows: the C runtime
// for reading, Qt's unbuffered append for writing (opening a pipe or device name never waits there), Qt's
// file information for the rest (Qt passes wide names to the system, so the locale codec plays no part).
#include "FileOpenCheck_p.h"

#include "FileServices.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>

bool fileopencheck::opensForReading(const QString& path)
{
    FILE* file = fopen_utf8(path.toUtf8().constData(), "r");
    if (!file)
        return false;
    std::fclose(file);
    return true;
}

bool fileopencheck::opensForAppending(const QString& path, bool* created)
{
    *created = false;
    // An existing file, else a new one made by this open alone; one that appears in between is opened as
    // existing.
    const QIODevice::OpenMode append = QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered;
    for (int attempt = 0; attempt < 2; ++attempt) {
        QFile existing(path);
        if (existing.open(append | QIODevice::ExistingOnly))
            return true;
        QFile made(path);
        if (made.open(append | QIODevice::NewOnly)) {
            *created = true;
            return true;
        }
        if (!QFileInfo::exists(path))
            return false;
    }
    return false;
}

bool fileopencheck::folderTakesNewFiles(const QString& folder) { return QFileInfo(folder).isWritable(); }

bool fileopencheck::nameTaken(const QString& path) { return QFile::exists(path) || isDanglingLink(path); }

bool fileopencheck::isDanglingLink(const QString& path)
{
    const QFileInfo entry(path);
    return entry.isSymLink() && !entry.exists();
}

bool fileopencheck::danglingLinkTakesNewFile(const QString& link)
{
    return folderTakesNewFiles(QFileInfo(QFileInfo(link).symLinkTarget()).absolutePath());
}

void fileopencheck::removeMadeFile(const QString& path) { QFile::remove(path); }

bool fileopencheck::fileExists(const QString& path) { return QFileInfo::exists(path); }

bool fileopencheck::fileWritable(const QString& path) { return QFileInfo(path).isWritable(); }

bool fileopencheck::folderOfFileExists(const QString& path) { return QFileInfo(path).absoluteDir().exists(); }
