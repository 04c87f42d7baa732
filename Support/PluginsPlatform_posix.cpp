// PluginsPlatform_posix.cpp - loading a module on POSIX systems, where a module's run path already tells
// the loader where the modules it needs are.
#include "PluginsPlatform_p.h"

#include <QLibrary>
#include <QString>

namespace pluginsplatform {

bool load(QLibrary& library) { return library.load(); }

QString onDriveOf(const QString& rooted, const QString&) { return rooted; }

} // namespace pluginsplatform
