// PluginsPlatform_win.cpp - loading a module on Windows with the modules it imports looked for in its
// own folder first.
#include "PluginsPlatform_p.h"

#include <QDir>
#include <QFileInfo>
#include <QLibrary>

#include <windows.h>

namespace pluginsplatform {

bool load(QLibrary& library)
{
    // QLibrary loads with the standard search order, which looks for the modules a plug-in imports in
    // the program's folder, the system's and the current folder, not in the plug-in's. Loaded once with
    // the altered search order, the module and what it imports are in place; QLibrary then takes the same
    // module and the extra reference is given back, so its count is what QLibrary alone would leave.
    // A path from the root of the drive ("/dir/x.dll") counts as absolute: it names one file, on the
    // current drive. A relative name is left to the standard search alone.
    const QString fileName = library.fileName();
    const QFileInfo file(fileName);
    const bool rooted = fileName.startsWith(QLatin1Char('/')) || fileName.startsWith(QLatin1Char('\\'));
    HMODULE early = nullptr;
    if ((rooted || file.isAbsolute()) && file.isFile()) {
        const std::wstring wide = QDir::toNativeSeparators(file.absoluteFilePath()).toStdWString();
        early = LoadLibraryExW(wide.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    }
    const bool loaded = library.load();
    if (early)
        FreeLibrary(early);
    return loaded;
}

QString onDriveOf(const QString& rooted, const QString& folder)
{
    // "//server/share" and "\\server\share" name a share, on no drive.
    const bool share = rooted.startsWith(QLatin1String("//")) || rooted.startsWith(QLatin1String("\\\\"));
    const QString absolute = QDir(folder).absolutePath();
    if (share || absolute.size() < 2 || absolute[1] != QLatin1Char(':'))
        return rooted;
    return absolute.left(2) + rooted;
}

} // namespace pluginsplatform
