// FileOpenCheck_win.cpp - the opens and file queries behind the file-open check on Windows: the C runtime
// for reading, Qt's unbuffered append for writing (opening a pipe or device name never waits there), Qt's
// file information for the rest (Qt passes wide names to the system, so the locale codec plays no part).
#include "FileOpenCheck_p.h"

#include "FileServices.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>

namespace {
// The path as Qt takes it; false for bytes that are no UTF-8, which name no file here.
bool named(const QByteArray& utf8, QString* path)
{
    *path = QString::fromUtf8(utf8);
    return path->toUtf8() == utf8;
}
} // namespace

bool fileopencheck::opensForReading(const QByteArray& path)
{
    // The runtime's open refuses a name that is no UTF-8.
    FILE* file = fopen_utf8(path.constData(), "r");
    if (!file)
        return false;
    std::fclose(file);
    return true;
}

bool fileopencheck::opensForAppending(const QByteArray& utf8, bool* created)
{
    *created = false;
    QString path;
    if (!named(utf8, &path))
        return false;
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

bool fileopencheck::folderTakesNewFiles(const QByteArray& utf8)
{
    QString folder;
    return named(utf8, &folder) && QFileInfo(folder).isWritable();
}

bool fileopencheck::nameTaken(const QByteArray& utf8)
{
    QString path;
    return named(utf8, &path) && (QFile::exists(path) || isDanglingLink(utf8));
}

bool fileopencheck::isDanglingLink(const QByteArray& utf8)
{
    QString path;
    if (!named(utf8, &path))
        return false;
    const QFileInfo entry(path);
    return entry.isSymLink() && !entry.exists();
}

bool fileopencheck::danglingLinkTakesNewFile(const QByteArray& utf8)
{
    QString link;
    return named(utf8, &link) && folderTakesNewFiles(QFileInfo(QFileInfo(link).symLinkTarget()).absolutePath().toUtf8());
}

void fileopencheck::removeMadeFile(const QByteArray& utf8)
{
    QString path;
    if (named(utf8, &path))
        QFile::remove(path);
}

bool fileopencheck::fileExists(const QByteArray& utf8)
{
    QString path;
    return named(utf8, &path) && QFileInfo::exists(path);
}

bool fileopencheck::fileWritable(const QByteArray& utf8)
{
    QString path;
    return named(utf8, &path) && QFileInfo(path).isWritable();
}

bool fileopencheck::folderOfFileExists(const QByteArray& utf8)
{
    QString path;
    return named(utf8, &path) && QFileInfo(path).absoluteDir().exists();
}

// A pipe's open fails at once when no one serves it; no file name waits to open here.
bool fileopencheck::waitsToOpen(const QByteArray&) { return false; }
