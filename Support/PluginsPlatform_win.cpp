// PluginsPlatform_win.cpp - loading exactly the module named on Windows: never a module of another name
// made of it, and a bare name never from the current folder; the modules it imports are looked for in
// its own folder first.
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

// The text (a folder's or a file's name) that a system call fills into a buffer; empty when it gives none.
template <class Get>
QString filledBySystem(Get get)
{
    std::vector<wchar_t> buffer(32768);
    const UINT n = get(buffer.data(), static_cast<UINT>(buffer.size()));
    return n == 0 || n >= buffer.size() ? QString() : QString::fromWCharArray(buffer.data(), static_cast<int>(n));
}

QString moduleFileName(HMODULE module)
{
    return filledBySystem([module](wchar_t* buffer, UINT size) { return GetModuleFileNameW(module, buffer, size); });
}

// The folders where the system looks for a module named without a full path, in its order: the
// program's folder, the folder set for modules, the system's folders, the current folder (only when
// `withCurrent`), then the absolute folders of PATH.
QStringList searchFolders(bool withCurrent)
{
    QStringList folders;
    folders << QFileInfo(moduleFileName(nullptr)).absolutePath();
    folders << filledBySystem([](wchar_t* buffer, UINT size) { return static_cast<UINT>(GetDllDirectoryW(size, buffer)); });
    folders << filledBySystem([](wchar_t* buffer, UINT size) { return GetSystemDirectoryW(buffer, size); });
    folders << filledBySystem([](wchar_t* buffer, UINT size) { return GetWindowsDirectoryW(buffer, size); });
    if (withCurrent)
        folders << QDir::currentPath();
    // A relative entry of PATH (".") means the current folder.
    for (const QString& folder : qEnvironmentVariable("PATH").split(QLatin1Char(';'), Qt::SkipEmptyParts))
        if (QDir::isAbsolutePath(folder))
            folders << folder;
    folders.removeAll(QString());
    return folders;
}

// The file that `name` names: a name that does not end in ".dll" is tried with it too, as Qt tries it,
// but one that does is never tried as "x.dll.dll". A full path is that file; any other name is looked
// for where the system looks for modules, a relative path with folders in it as the system looks for it
// too, but a bare name never in the current folder, where anyone may have put a module of that name.
QString moduleFile(const QString& name)
{
    QStringList spellings{name};
    if (!QLibrary::isLibrary(name))
        spellings << name + QLatin1String(".dll");
    const bool full = QFileInfo(name).isAbsolute();
    const bool bare = !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\')) && !name.contains(QLatin1Char(':'));
    const QStringList folders = full ? QStringList() : searchFolders(!bare);
    for (const QString& spelling : spellings) {
        if (full) {
            if (QFileInfo(spelling).isFile())
                return QFileInfo(spelling).absoluteFilePath();
            continue;
        }
        for (const QString& folder : folders) {
            const QFileInfo file(QDir(folder).filePath(spelling));
            if (file.isFile())
                return file.absoluteFilePath();
        }
    }
    return QString();
}

} // namespace

bool load(QLibrary& library)
{
    const QString name = library.fileName();
    const QString file = moduleFile(name);
    if (file.isEmpty())
        return false;
    // Loaded once by its full path with the modules it imports looked for in its own folder first, then
    // where the system looks when they are not there (the program's folder among them); QLibrary then
    // takes the same module and the extra reference is given back, so that the count is what QLibrary
    // alone would leave. A name that is not a full path QLibrary would look for itself, trying other
    // names first: it is given the module's path.
    // The system would load "x.dll" for a file "x" named without an extension; a trailing dot names
    // the file without one.
    const QString exact = QFileInfo(file).fileName().contains(QLatin1Char('.')) ? file : file + QLatin1Char('.');
    HMODULE module = loadQuietly(exact, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (!module)
        module = loadQuietly(exact, 0);
    if (!module)
        return false;
    if (exact != file || !QFileInfo(name).isAbsolute())
        library.setFileName(exact);
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
