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
        // A module that cannot be loaded (damaged, or built for another processor) gives null, never a
        // message box that would hold an unattended run, as Qt's own load does.
        DWORD previousMode = 0;
        const bool quiet = SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &previousMode) != 0;
        early = LoadLibraryExW(wide.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
        if (quiet)
            SetThreadErrorMode(previousMode, nullptr);
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
    const QString absolute = QDir::fromNativeSeparators(QDir(folder).absolutePath());
    if (share)
        return rooted;
    if (absolute.size() >= 2 && absolute[1] == QLatin1Char(':'))
        return absolute.left(2) + rooted;
    // A folder on a share: the root is the share's, "//server/share", never the current drive's.
    if (absolute.startsWith(QLatin1String("//"))) {
        const int server = absolute.indexOf(QLatin1Char('/'), 2);
        const int shareEnd = server < 0 ? -1 : absolute.indexOf(QLatin1Char('/'), server + 1);
        const int end = shareEnd < 0 ? absolute.size() : shareEnd;
        if (server > 2 && end > server + 1)
            return absolute.left(end) + rooted;
    }
    return rooted;
}

} // namespace pluginsplatform
