// FileOpenCheck_win.cpp - the opens behind the file-open check on Windows: the C runtime for reading,
// Qt's unbuffered append for writing (opening a pipe or device name never waits there).
#include "FileOpenCheck_p.h"

#include "FileServices.h"

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

bool fileopencheck::opensForAppending(const QString& path)
{
    QFile file(path);
    const bool opened = file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered);
    if (opened)
        file.close();
    return opened;
}

bool fileopencheck::folderTakesNewFiles(const QString& folder) { return QFileInfo(folder).isWritable(); }
