// Plugins.cpp - plug-in directories, the loaded-module list, module search and YQtLibrary.
#include "Plugins.h"
#include "FileServices.h"
#include "LoadTime_p.h"
#include "Options.h"
#include "PluginsPlatform_p.h"
#include "QtSupport.h"
#include "TextServices.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLibrary>
#include <QVariant>
#include <climits>

namespace {

YString translated(const YString& text)
{
    YString out;
    // Placeholders that name nothing stay as written, which is the path the caller then tries.
    (void)sp_TranslateSystemPath(text.c_str(), &out);
    return out;
}

// The plug-in directories of a category, in their configured order.
YArray<YString> pluginDirectories(const char* category)
{
    const YString ini = translated("%EXEPATH%/startup.ini");
    YString value;
    if (!category || !*category) {
        value = "%EXEPATH%/../plugins";
    } else {
        // A missing file, section or key leaves the value empty: the default directory below.
        (void)sp_GetPrivateProfileString("PluginDirs", category, ini.c_str(), &value);
        if (value.equalsNoCase("")) {
            value = "%EXEPATH%/../plugins/";
            value.append(category);
        }
    }
    YArray<YString> entries;
    sp_SplitLine(value.c_str(), ';', &entries, INT_MAX);
    // An empty entry (a trailing ";", ";;") is skipped and a relative one is taken from the folder of
    // startup.ini: neither may make the loader search the current folder, where anyone could plant a
    // module.
    const QDir iniFolder = QFileInfo(toQs(ini)).absoluteDir();
    YArray<YString> directories;
    for (const YString& entry : entries) {
        const QString directory = toQs(translated(entry)).trimmed();
        if (directory.isEmpty())
            continue;
        // A path from the root ("/dir") is on the drive of startup.ini on Windows, like an absolute one.
        const bool rooted = directory.startsWith(QLatin1Char('/')) || directory.startsWith(QLatin1Char('\\'));
        directories.append(toYs(rooted ? pluginsplatform::onDriveOf(directory, iniFolder.absolutePath())
                                : !QDir::isRelativePath(directory) ? directory
                                                                   : QDir::cleanPath(iniFolder.absoluteFilePath(directory))));
    }
    return directories;
}

// Whether two file names are the same: with either separator where the system takes both.
bool sameFileName(const QString& a, const QString& b)
{
    return QString::compare(QDir::fromNativeSeparators(a), QDir::fromNativeSeparators(b),
                            sp_CaseSensitiveFiles() ? Qt::CaseSensitive : Qt::CaseInsensitive) == 0;
}

// The name a module of the list was asked for by: loading may give its library object the module's full
// path instead, and the module is found again by either.
const char* const kGivenName = "supportqtGivenName";

bool namesModule(const QString& name, const QLibrary& module)
{
    return sameFileName(name, module.fileName()) || sameFileName(name, module.property(kGivenName).toString());
}

// Removes every list entry of `library`, unloads it and destroys it.
void dropModule(QLibrary* library)
{
    SupportQtLoadTime::loadedModules().removeAll(library);
    library->unload();
    delete library;
}

bool signaturesChecked(bool verify)
{
    if (!verify)
        return false;
    KalvontaVersionInfo info;
    sp_GetVersionValues(&info);
    return info.signatureCheck == 1 || info.signatureCheck == 2;
}

} // namespace

void* sp_GetLibraryFunction(const char* library, const char* function, bool usePluginDirs, const char* category,
                            bool verify)
{
    if (!library)
        return nullptr;
    const bool checkSignatures = signaturesChecked(verify);
    YArray<YString> candidates;
    if (usePluginDirs) {
        for (const YString& dir : pluginDirectories(category)) {
            YString candidate = dir;
            candidate.append("/").append(library);
            candidates.append(translated(candidate));
        }
    } else {
        candidates.append(YString(library));
    }

    QList<QLibrary*>& modules = SupportQtLoadTime::loadedModules();
    QLibrary* loaded = nullptr;
    for (const YString& candidate : candidates) {
        const QLibrary probe(toQs(candidate));
        for (QLibrary* module : modules) {
            if (namesModule(probe.fileName(), *module)) {
                loaded = module;
                break;
            }
        }
        if (loaded)
            break;
    }

    if (!function) {
        if (loaded)
            dropModule(loaded);
        return nullptr;
    }

    if (!loaded) {
        for (const YString& candidate : candidates) {
            if (checkSignatures && sp_VerifyEmbeddedSignature(candidate.c_str()) != 0)
                continue;
            auto* module = new QLibrary(toQs(candidate));
            module->setProperty(kGivenName, module->fileName());
            if (pluginsplatform::load(*module)) {
                modules.append(module);
                loaded = module;
                break;
            }
            delete module;
        }
        if (!loaded)
            return nullptr;
    }
    QFunctionPointer address = loaded->resolve(function);
    if (!address) {
        const std::string decorated = std::string("_") + function;
        address = loaded->resolve(decorated.c_str());
    }
    return reinterpret_cast<void*>(address);
}

bool sp_LoadLibrary(const char* path)
{
    if (!path)
        return false;
    QLibrary library(QString::fromUtf8(path));
    return pluginsplatform::load(library);
}

void sp_UnloadLibrary(const char* path)
{
    if (!path)
        return;
    for (QLibrary* module : SupportQtLoadTime::loadedModules()) {
        if (sp_ComparePaths(toYs(module->fileName()).c_str(), path) == 0 ||
            sp_ComparePaths(toYs(module->property(kGivenName).toString()).c_str(), path) == 0) {
            dropModule(module);
            return;
        }
    }
}

void sp_SearchDLLs(YArray<YString>* result, const char* category, const char* filter, const YArray<YString>& excluded)
{
    if (!result)
        return;
    const QString nameFilter = QString::fromUtf8(filter ? filter : sp_GetSharedLibraryFilter());
    for (const YString& dir : pluginDirectories(category)) {
        const QDir directory(toQs(dir));
        const QFileInfoList entries =
            directory.entryInfoList(QStringList{nameFilter}, QDir::Files, QDir::Name | QDir::IgnoreCase);
        for (const QFileInfo& entry : entries) {
            const YString path = toYs(entry.absoluteFilePath());
            if (!excluded.isEmpty()) {
                YString name;
                sp_SplitPath(path, nullptr, &name);
                bool skip = false;
                for (const YString& e : excluded)
                    if (name.comparePath(e) == 0)
                        skip = true;
                if (skip)
                    continue;
            }
            result->append(path);
        }
    }
}

void sp_SearchDLLs(YArray<YString>* result, const char* category)
{
    sp_SearchDLLs(result, category, nullptr, YArray<YString>());
}

void sp_SetPluginPaths()
{
    YString first = sp_GetExeDir();
    first.append("/../plugins/");
    const YString plugins = sp_ConvertLocalToUnix(sp_CleanPath(first));
    const YString exe = sp_ConvertLocalToUnix(sp_CleanPath(sp_GetExeDir()));
    QCoreApplication::setLibraryPaths(QStringList{toQs(plugins), toQs(exe)});
}

YQtLibrary::YQtLibrary(const char* path) : m_library(new QLibrary(QString::fromUtf8(path ? path : ""))) {}

YQtLibrary::~YQtLibrary() { delete m_library; }

void* YQtLibrary::resolve(const char* name)
{
    // Loaded first as the other loaders load, never by Qt's own search for the module.
    if (!name || (!m_library->isLoaded() && !pluginsplatform::load(*m_library)))
        return nullptr;
    return reinterpret_cast<void*>(m_library->resolve(name));
}

bool YQtLibrary::isLoaded() const { return m_library->isLoaded(); }

YString YQtLibrary::fileName() const { return toYs(m_library->fileName()); }

YString YQtLibrary::errorString() const { return toYs(m_library->errorString()); }

int YQtLibrary::unload() { return m_library->unload() ? 1 : 0; }
