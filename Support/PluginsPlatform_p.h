// PluginsPlatform_p.h - loading a module through QLibrary, one implementation per platform.
#pragma once

class QLibrary;

namespace pluginsplatform {
/// Loads `library` as QLibrary::load does; on Windows a module named by an absolute path has the modules
/// it imports looked for in its own folder first, never first in the current folder.
bool load(QLibrary& library);
} // namespace pluginsplatform
