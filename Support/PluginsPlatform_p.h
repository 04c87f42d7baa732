// PluginsPlatform_p.h - loading a module through QLibrary, one implementation per platform.
#pragma once

class QLibrary;
class QString;

namespace pluginsplatform {
/// Loads `library` as QLibrary::load does; on Windows a module named by an absolute path has the modules
/// it imports looked for in its own folder first, never first in the current folder.
bool load(QLibrary& library);
/// A plug-in folder written from the root ("/dir"): on Windows it is put on the drive of `folder` (the
/// folder of startup.ini), never left on the current drive; elsewhere it is absolute already.
QString onDriveOf(const QString& rooted, const QString& folder);
} // namespace pluginsplatform
