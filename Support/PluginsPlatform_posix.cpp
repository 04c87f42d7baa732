// PluginsPlatform_posix.cpp - loading exactly the module named on POSIX systems, where a module's run
// path already tells the loader where the modules it needs are.
#include "PluginsPlatform_p.h"

#include <QFile>
#include <QFileInfo>
#include <QLibrary>
#include <QString>

#include <dlfcn.h>
#if defined(__linux__)
#include <link.h>
#endif

namespace pluginsplatform {

bool load(QLibrary& library)
{
    // A name without a module ending is Qt's to complete ("x" may be "libx.so"). One that has it names one
    // file, but Qt would try other names first ("libx.so" for "x.so", or for "dir/x.so"), and those when
    // the file is missing: it is given the file's own path, or nothing is loaded.
    const QString name = library.fileName();
    if (!QLibrary::isLibrary(name))
        return library.load();
    if (name.contains(QLatin1Char('/'))) {
        const QFileInfo file(name);
        if (!file.isFile())
            return false;
        if (file.isRelative())
            library.setFileName(file.absoluteFilePath());
        return library.load();
    }
#if defined(__linux__)
    // A bare name is found where the system's loader looks (never in the current folder).
    void* handle = dlopen(QFile::encodeName(name).constData(), RTLD_LAZY);
    if (!handle)
        return false;
    link_map* map = nullptr;
    const bool found = dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 && map && map->l_name && *map->l_name;
    // The loader names the file as it found it: relative to the current folder for a relative entry of
    // its search path, which Qt would take for a name to complete.
    if (found)
        library.setFileName(QFileInfo(QFile::decodeName(map->l_name)).absoluteFilePath());
    const bool loaded = found && library.load();
    dlclose(handle);
    return loaded;
#else
    return library.load();
#endif
}

QString onDriveOf(const QString& rooted, const QString&) { return rooted; }

} // namespace pluginsplatform
