// Plugins.h - optional modules: plug-in directories by category, loading modules and looking up their
// functions, searching directories for module files, and a thin wrapper around one library object.
// No Qt types appear here.
#pragma once

#include "SupportQtExport.h"
#include "YContainers.h"
#include "YString.h"

class QLibrary;

/// The address of `function` in the module `library`, loading the module on first use and keeping it
/// loaded. With `usePluginDirs` the module is looked for in the category's plug-in directories, in
/// their order ("%EXEPATH%/startup.ini", section "PluginDirs", key = category, directories separated by
/// ";"; by default "%EXEPATH%/../plugins/CATEGORY"; empty entries are skipped and a relative entry is
/// taken from the folder of startup.ini, never from the current folder; on Windows an entry from the root,
/// "/dir", is on the drive of startup.ini, not the current one). With `verify`, and when the version record asks for
/// signature checks, only modules whose embedded signature verifies are loaded. A function exported
/// only as "_name" is found for "name". A null `function` unloads the module instead. Null when the
/// module or the function cannot be found. The address belongs to the module and is valid until the
/// module is unloaded.
SUPPORTQT_API void* sp_GetLibraryFunction(const char* library, const char* function, bool usePluginDirs,
                                          const char* category, bool verify);
/// Loads a module file (it stays loaded; it is not entered in the list of loaded modules); false when it
/// cannot be loaded.
[[nodiscard]] SUPPORTQT_API bool sp_LoadLibrary(const char* path);
/// Unloads a module loaded by `sp_GetLibraryFunction`; an unknown path does nothing.
SUPPORTQT_API void sp_UnloadLibrary(const char* path);
/// Appends the absolute paths of the module files (or of the files matching `filter`) in the category's
/// plug-in directories, each directory's files sorted ignoring case, leaving out the names in `excluded`.
SUPPORTQT_API void sp_SearchDLLs(YArray<YString>* result, const char* category, const char* filter,
                                 const YArray<YString>& excluded);
/// The same with no filter and nothing excluded.
SUPPORTQT_API void sp_SearchDLLs(YArray<YString>* result, const char* category);
/// Sets Qt's library search paths to "EXEDIR/../plugins/" and "EXEDIR".
SUPPORTQT_API void sp_SetPluginPaths();

/// One library object. Destroying it does not unload the module.
class SUPPORTQT_API YQtLibrary {
public:
    explicit YQtLibrary(const char* path);
    ~YQtLibrary();
    YQtLibrary(const YQtLibrary&) = delete;
    YQtLibrary& operator=(const YQtLibrary&) = delete;
    /// The address of an exported symbol (loading the module when needed), or null.
    void* resolve(const char* name);
    bool isLoaded() const;
    YString fileName() const;
    YString errorString() const;
    /// 1 when the module was unloaded, else 0.
    int unload();

private:
    QLibrary* m_library;
};
