// PluginsPlatform_win.cpp - loading exactly the module named on Windows: with the modules it imports
// looked for in its own folder first, and never from the current folder.
#include "PluginsPlatform_p.h"

#include <QDir>
#include <QFileInfo>
#include <QLibrary>
#include <QStringList>

#include <windows.h>

#include <string>
#include <vector>

namespace pluginsplatform {
namespace {

// Loads a module without the message box that Windows shows for one that cannot be loaded (damaged, or
// built for another processor), which would hold an unattended run.
HMODULE loadQuietly(const QString& name, DWORD flags)
{
    const std::wstring wide = QDir::toNativeSeparators(name).toStdWString();
    DWORD previousMode = 0;
    const bool quiet = SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &previousMode) != 0;
    const HMODULE module = LoadLibraryExW(wide.c_str(), nullptr, flags);
    if (quiet)
        SetThreadErrorMode(previousMode, nullptr);
    return module;
}

// A name with a folder or a drive in it is a path, to one file: a relative one from the current folder,
// one from the root ("/dir/x.dll") on the current drive. Only a bare name is looked for.
bool isPath(const QString& name)
{
    return name.contains(QLatin1Char('/')) || name.contains(QLatin1Char('\\')) || (name.size() >= 2 && name.at(1) == QLatin1Char(':'));
}

// Loads the module that `name` names: a name that does not end in ".dll" is tried with it too, as Qt
// tries it, but one that does is never tried as "x.dll.dll". A path is that file, with the modules it
// imports looked for in its own folder first. A bare name is looked for where the system looks for
// modules (the program's folder, the system's folder, then the absolute folders of PATH), but never in
// the current folder, where anyone may have put a module of that name.
HMODULE loadNamed(const QString& name)
{
    const bool path = isPath(name);
    QStringList spellings{name};
    if (!QLibrary::isLibrary(name)) {
        if (path)
            spellings.append(name + QLatin1String(".dll"));
        else
            spellings.prepend(name + QLatin1String(".dll"));
    }
    const QStringList folders = qEnvironmentVariable("PATH").split(QLatin1Char(';'), Qt::SkipEmptyParts);
    for (const QString& spelling : spellings) {
        if (path) {
            const QFileInfo file(spelling);
            if (file.isFile())
                return loadQuietly(file.absoluteFilePath(), LOAD_WITH_ALTERED_SEARCH_PATH);
            continue;
        }
        if (const HMODULE module = loadQuietly(spelling, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS))
            return module;
        for (const QString& folder : folders) {
            // A relative entry (".") means the current folder.
            if (!QDir::isAbsolutePath(folder))
                continue;
            const QFileInfo file(QDir(folder).filePath(spelling));
            if (file.isFile())
                if (const HMODULE module = loadQuietly(file.absoluteFilePath(), LOAD_WITH_ALTERED_SEARCH_PATH))
                    return module;
        }
    }
    return nullptr;
}

QString moduleFileName(HMODULE module)
{
    std::vector<wchar_t> buffer(32768);
    const DWORD n = GetModuleFileNameW(module, buffer.data(), static_cast<DWORD>(buffer.size()));
    return n == 0 || n >= buffer.size() ? QString() : QString::fromWCharArray(buffer.data(), static_cast<int>(n));
}

} // namespace

bool load(QLibrary& library)
{
    const QString name = library.fileName();
    const HMODULE module = loadNamed(name);
    if (!module)
        return false;
    // QLibrary then takes the module loaded here. A name that is not a full path it would look for
    // itself, trying other names first and the current folder too: it is given the module's own path.
    // The extra reference is given back, so that the count is what QLibrary alone would leave.
    if (!QFileInfo(name).isAbsolute()) {
        const QString file = moduleFileName(module);
        if (file.isEmpty()) {
            FreeLibrary(module);
            return false;
        }
        library.setFileName(file);
    }
    const bool loaded = library.load();
    FreeLibrary(module);
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
