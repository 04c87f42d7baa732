// PluginsPlatform_p.h - loading a module through QLibrary, one implementation per platform.
#pragma once

class QLibrary;
class QString;

namespace pluginsplatform {
/// Loads exactly the module that `library`'s file name names, or nothing: a name that already ends as a
/// module file ("x.dll", "x.so") is never completed to another ("x.dll.dll", "libx.so"), as QLibrary
/// alone completes it when the file is missing. On Windows a bare name is looked for where the system
/// looks for modules but never in the current folder, and the modules a module imports are looked for
/// in its own folder first. The library object may be given the module's full path as its file name.
bool load(QLibrary& library);
/// A plug-in folder written from the root ("/dir"): on Windows it is put on the drive of `folder` (the
/// folder of startup.ini), never left on the current drive; elsewhere it is absolute already.
QString onDriveOf(const QString& rooted, const QString& folder);
} // namespace pluginsplatform
