// PluginsTest.cpp - plug-in directories from startup.ini, loading modules and their functions, the
// decorated-name fallback, unloading, module search and YQtLibrary, with real modules of the test build.
#include "FileServices.h"
#include "Options.h"
#include "Plugins.h"
#include "SupportGui.h"
#include "TestHelpers.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#ifdef Q_OS_WIN
#include "PluginsPlatform_p.h"

#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// Holds dir1 and dir2. (A build under Wine gives a path without a drive, which is on the current one; it
// gets that drive, since an entry from the root in startup.ini is on the drive of startup.ini.)
std::string pluginDirs()
{
    const QString dirs = QStringLiteral(PLUGIN_DIRS);
#ifdef Q_OS_WIN
    if (dirs.startsWith(QLatin1Char('/')) && !dirs.startsWith(QLatin1String("//")))
        return (QDir::currentPath().left(2) + dirs).toStdString();
#endif
    return dirs.toStdString();
}
const std::string kDirs = pluginDirs();

// The file-name suffix of the platform's loadable modules, and the test modules' file names.
#ifdef Q_OS_WIN
const std::string kSuffix = ".dll";
const std::string kUpperSuffix = ".DLL";
#else
const std::string kSuffix = ".so";
const std::string kUpperSuffix = ".SO";
#endif
const std::string kVersioned = "libversioned" + kSuffix;
const std::string kDecorated = "libDecoratedModule" + kSuffix;

typedef int (*IntFunction)();

} // namespace

// Each test gets an executable directory of its own (the place of startup.ini and of "../plugins").
class Plugins : public TempDirTest {
protected:
    void SetUp() override
    {
        TempDirTest::SetUp();
        QDir().mkpath(QString::fromStdString(path("bin")));
        sp_SetExeDir(YString(path("bin").c_str()));
    }
    void TearDown() override
    {
        sp_SetExeDir(YString(""));
        TempDirTest::TearDown();
    }
    void writeIni(const std::string& body) { writeFileBytes(path("bin/startup.ini"), "[PluginDirs]\n" + body + "\n"); }
    std::vector<std::string> search(const char* category, const char* filter = nullptr, YArray<YString> excluded = {})
    {
        YArray<YString> found;
        sp_SearchDLLs(&found, category, filter, excluded);
        std::vector<std::string> result;
        for (const YString& f : found)
            result.push_back(f.c_str());
        return result;
    }
};

TEST_F(Plugins, FirstDirectoryWinsAndTheModuleIsLoadedOnce)
{
    writeIni("sims=" + kDirs + "/dir1;" + kDirs + "/dir2");
    auto f = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(kVersioned.c_str(), "moduleVersion", true, "sims", false));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f(), 1);
    auto again = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(kVersioned.c_str(), "moduleVersion", true, "sims", false));
    EXPECT_EQ(again, f); // found in the list of loaded modules
    // With the directories the other way round, the copy already loaded from dir1 is still found first
    // among the loaded modules.
    writeIni("sims=" + kDirs + "/dir2;" + kDirs + "/dir1");
    auto reused = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(kVersioned.c_str(), "moduleVersion", true, "sims", false));
    ASSERT_NE(reused, nullptr);
    EXPECT_EQ(reused(), 1);
    // A null function name unloads the module; the next request then loads the copy of dir2.
    EXPECT_EQ(sp_GetLibraryFunction(kVersioned.c_str(), nullptr, true, "sims", false), nullptr);
    auto second = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(kVersioned.c_str(), "moduleVersion", true, "sims", false));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second(), 2);
    EXPECT_EQ(sp_GetLibraryFunction(kVersioned.c_str(), nullptr, true, "sims", false), nullptr);
}

// A name that ends as a module file names that file alone: when it is missing nothing is loaded, never a
// module whose name is made of it ("libx.so" for "x.so", "x.dll.dll" for "x.dll"); a relative path is
// that file from the current folder, not another name tried first. Such a module is found again, and
// unloaded, by the name it was asked for by.
TEST_F(Plugins, ANameThatEndsAsAModuleFileNamesThatFileAlone)
{
    const QString dir = QString::fromStdString(path("mods"));
    QDir().mkpath(dir + "/sub");
#ifdef Q_OS_WIN
    const std::string guessed = "x.dll.dll";
#else
    const std::string guessed = "libx.so";
#endif
    const std::string exact = "x" + kSuffix;
    const QString version1 = QString::fromStdString(kDirs + "/dir1/" + kVersioned);
    const QString version2 = QString::fromStdString(kDirs + "/dir2/" + kVersioned);
    ASSERT_TRUE(QFile::copy(version2, dir + "/" + QString::fromStdString(guessed)));
    EXPECT_FALSE(sp_LoadLibrary(path("mods/" + exact).c_str()));
    EXPECT_EQ(sp_GetLibraryFunction(path("mods/" + exact).c_str(), "moduleVersion", false, nullptr, false), nullptr);
    YQtLibrary library(path("mods/" + exact).c_str());
    EXPECT_EQ(library.resolve("moduleVersion"), nullptr);
    EXPECT_FALSE(library.isLoaded());
    writeIni("mods=" + path("mods"));
    EXPECT_EQ(sp_GetLibraryFunction(exact.c_str(), "moduleVersion", true, "mods", false), nullptr);

    ASSERT_TRUE(QFile::copy(version1, dir + "/sub/" + QString::fromStdString(exact)));
    ASSERT_TRUE(QFile::copy(version2, dir + "/sub/" + QString::fromStdString(guessed)));
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(dir));
    const std::string relative = "sub/" + exact;
    auto f = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(relative.c_str(), "moduleVersion", false, nullptr, false));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f(), 1);
    EXPECT_EQ(reinterpret_cast<IntFunction>(sp_GetLibraryFunction(relative.c_str(), "moduleVersion", false, nullptr, false)), f);
    sp_UnloadLibrary(relative.c_str());
#ifdef Q_OS_WIN
    EXPECT_EQ(GetModuleHandleW(QDir::toNativeSeparators(dir + "/sub/" + QString::fromStdString(exact)).toStdWString().c_str()), nullptr);
#else
    EXPECT_EQ(dlopen((dir + "/sub/" + QString::fromStdString(exact)).toLocal8Bit().constData(), RTLD_LAZY | RTLD_NOLOAD), nullptr);
#endif
    QDir::setCurrent(before);
}

// A full path to a file without an extension loads that file, not the module of the name with the
// platform's ending beside it (which the Windows loader would add), and loads it when it stands alone.
TEST_F(Plugins, AFullPathWithoutAnExtensionLoadsThatFile)
{
    const QString dir = QString::fromStdString(path("bare"));
    QDir().mkpath(dir);
    const QString version1 = QString::fromStdString(kDirs + "/dir1/" + kVersioned);
    const QString version2 = QString::fromStdString(kDirs + "/dir2/" + kVersioned);
    ASSERT_TRUE(QFile::copy(version1, dir + "/both"));
    ASSERT_TRUE(QFile::copy(version2, dir + "/both" + QString::fromStdString(kSuffix)));
    ASSERT_TRUE(QFile::copy(version2, dir + "/plain"));

    const std::string both = path("bare/both");
    auto f = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(both.c_str(), "moduleVersion", false, nullptr, false));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f(), 1);
#ifdef Q_OS_WIN
    EXPECT_EQ(GetModuleHandleW(QDir::toNativeSeparators(dir + "/both.dll").toStdWString().c_str()), nullptr);
#else
    EXPECT_EQ(dlopen((dir + "/both.so").toLocal8Bit().constData(), RTLD_LAZY | RTLD_NOLOAD), nullptr);
#endif
    sp_UnloadLibrary(both.c_str());

    const std::string plain = path("bare/plain");
    auto g = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(plain.c_str(), "moduleVersion", false, nullptr, false));
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(g(), 2);
    sp_UnloadLibrary(plain.c_str());
}

#ifdef Q_OS_LINUX
// A bare name that the system's loader finds through a relative entry of its search path loads that
// file, not another name Qt would try first ("libx.so" for "x.so"). The search path is read when a
// process starts, so a child run of this test looks the name up and prints what it loaded.
TEST_F(Plugins, ABareNameFoundThroughARelativeSearchPathIsThatFile)
{
    if (qEnvironmentVariableIsSet("SUPPORTQT_BARE_NAME_CHILD")) {
        auto f = reinterpret_cast<IntFunction>(sp_GetLibraryFunction("bare.so", "moduleVersion", false, nullptr, false));
        std::printf("loaded version %d\n", f ? f() : -1);
        std::fflush(stdout);
        std::_Exit(0);
    }
    QDir().mkpath(QString::fromStdString(path("rel")));
    ASSERT_TRUE(QFile::copy(QString::fromStdString(kDirs + "/dir1/" + kVersioned), QString::fromStdString(path("rel/bare.so"))));
    ASSERT_TRUE(QFile::copy(QString::fromStdString(kDirs + "/dir2/" + kVersioned), QString::fromStdString(path("rel/libbare.so"))));
    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("SUPPORTQT_BARE_NAME_CHILD"), QStringLiteral("1"));
    environment.insert(QStringLiteral("LD_LIBRARY_PATH"), QStringLiteral("rel"));
    child.setProcessEnvironment(environment);
    child.setWorkingDirectory(QString::fromStdString(m_dir));
    child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--gtest_filter=Plugins.ABareNameFoundThroughARelativeSearchPathIsThatFile")});
    ASSERT_TRUE(child.waitForFinished(60000));
    EXPECT_TRUE(child.readAllStandardOutput().contains("loaded version 1\n")) << child.readAllStandardError().toStdString();
}
#endif

#ifdef Q_OS_WIN
// A bare name is looked for where the system looks for modules, but never in the current folder: the
// module of that name planted there (version 2, also as "name.dll.dll") is not loaded, the one in a
// folder of PATH (version 1) is; nor is a GUI module planted there.
TEST_F(Plugins, ABareNameIsNeverTakenFromTheCurrentFolder)
{
    const QString onPath = QString::fromStdString(path("onpath"));
    const QString planted = QString::fromStdString(path("cwd"));
    QDir().mkpath(onPath);
    QDir().mkpath(planted);
    const QString version1 = QString::fromStdString(kDirs + "/dir1/" + kVersioned);
    const QString version2 = QString::fromStdString(kDirs + "/dir2/" + kVersioned);
    ASSERT_TRUE(QFile::copy(version2, planted + "/barenamed.dll"));
    ASSERT_TRUE(QFile::copy(version2, planted + "/barenamed.dll.dll"));
    ASSERT_TRUE(QFile::copy(version2, planted + "/supportgui.dll"));
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(planted));
    EXPECT_EQ(sp_GetLibraryFunction("barenamed.dll", "moduleVersion", false, nullptr, false), nullptr);
    EXPECT_FALSE(sp_LoadLibrary("barenamed.dll"));
    // A call to the GUI facade looks for its module.
    (void)sp_GetApplicationStyle();
    EXPECT_EQ(GetModuleHandleW(L"supportgui.dll"), nullptr);
    EXPECT_EQ(GetModuleHandleW(L"barenamed.dll"), nullptr);

    ASSERT_TRUE(QFile::copy(version1, onPath + "/barenamed.dll"));
    const QByteArray pathBefore = qgetenv("PATH");
    qputenv("PATH", QDir::toNativeSeparators(onPath).toLocal8Bit() + ";.;" + pathBefore);
    auto f = reinterpret_cast<IntFunction>(sp_GetLibraryFunction("barenamed.dll", "moduleVersion", false, nullptr, false));
    qputenv("PATH", pathBefore);
    QDir::setCurrent(before);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f(), 1);
    sp_UnloadLibrary("barenamed.dll");
    EXPECT_EQ(GetModuleHandleW(L"barenamed.dll"), nullptr);
}
#endif

#ifdef Q_OS_WIN
// A module named with "/" and asked for again with "\\" is the same entry of the list: found, and unloaded,
// by either spelling.
TEST_F(Plugins, EitherSeparatorNamesTheSameModule)
{
    const QString slashed = QFileInfo(QString::fromStdString(kDirs + "/dir1/" + kVersioned)).absoluteFilePath();
    const QString backslashed = QDir::toNativeSeparators(slashed);
    ASSERT_NE(slashed, backslashed);
    auto f = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(slashed.toUtf8().constData(), "moduleVersion", false, nullptr, false));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(reinterpret_cast<IntFunction>(sp_GetLibraryFunction(backslashed.toUtf8().constData(), "moduleVersion", false, nullptr, false)), f);
    EXPECT_EQ(sp_GetLibraryFunction(backslashed.toUtf8().constData(), nullptr, false, nullptr, false), nullptr);
    EXPECT_EQ(GetModuleHandleW(backslashed.toStdWString().c_str()), nullptr);
}
#endif

TEST_F(Plugins, DefaultDirectoryIsPluginsSlashCategory)
{
    QDir().mkpath(QString::fromStdString(path("plugins/tools")));
    QFile::copy(QString::fromStdString(kDirs + "/dir2/" + kVersioned), QString::fromStdString(path("plugins/tools/" + kVersioned)));
    auto f = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(kVersioned.c_str(), "moduleVersion", true, "tools", false));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f(), 2);
    EXPECT_EQ(search("tools"), (std::vector<std::string>{path("plugins/tools/" + kVersioned)}));
    sp_UnloadLibrary(path("plugins/tools/" + kVersioned).c_str());
    // The empty value of an existing key counts as no value.
    writeIni("tools=");
    EXPECT_EQ(search("tools").size(), 1u);
}

TEST_F(Plugins, DecoratedNameFallback)
{
    const std::string module = kDirs + "/dir1/" + kDecorated;
    auto f = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(module.c_str(), "decoratedOnly", false, nullptr, false));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f(), 42);
    EXPECT_EQ(sp_GetLibraryFunction(module.c_str(), "noSuchFunction", false, nullptr, false), nullptr);
    sp_UnloadLibrary(module.c_str());
    sp_UnloadLibrary("/no/such/module.so"); // nothing happens
}

TEST_F(Plugins, BadModulesGiveNull)
{
    writeFileBytes(path("notalib.so"), "this is text\n");
    EXPECT_EQ(sp_GetLibraryFunction(path("notalib.so").c_str(), "f", false, nullptr, false), nullptr);
    EXPECT_FALSE(sp_LoadLibrary(path("notalib.so").c_str()));
    EXPECT_EQ(sp_GetLibraryFunction(path("bin").c_str(), "f", false, nullptr, false), nullptr); // a directory
    EXPECT_FALSE(sp_LoadLibrary(path("bin").c_str()));
    EXPECT_FALSE(sp_LoadLibrary(nullptr));
    EXPECT_EQ(sp_GetLibraryFunction(nullptr, "f", false, nullptr, false), nullptr);
    // A module without the entry point asked for.
    EXPECT_EQ(sp_GetLibraryFunction((kDirs + "/dir1/" + kVersioned).c_str(), "sp_GetSupportGuiImpl", false, nullptr, false),
              nullptr);
    sp_UnloadLibrary((kDirs + "/dir1/" + kVersioned).c_str());
    EXPECT_TRUE(sp_LoadLibrary((kDirs + "/dir2/" + kVersioned).c_str()));
}

TEST_F(Plugins, SignatureCheckingPassesOnlyModulesToTheLoader)
{
    // A text file named like the module stands first; with checking asked for and enabled in the
    // version record its check fails (it is no module) and the real module of the second directory,
    // whose check passes, loads. (On POSIX hosts every well-formed module passes the check.)
    QDir().mkpath(QString::fromStdString(path("fake")));
    writeFileBytes(path("fake/" + kVersioned), "not a module\n");
    writeIni("sims=" + path("fake") + ";" + kDirs + "/dir2");
    KalvontaVersionInfo info;
    sp_GetVersionValues(&info);
    info.signatureCheck = 1;
    sp_SetVersionValues(&info);
    auto f = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(kVersioned.c_str(), "moduleVersion", true, "sims", true));
    sp_SetVersionValues(nullptr);
#ifdef Q_OS_WIN
    // Windows checks Authenticode signatures, and the modules of the test build are not signed: none
    // passes, so nothing loads.
    EXPECT_EQ(f, nullptr);
#else
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f(), 2);
    EXPECT_EQ(sp_GetLibraryFunction(kVersioned.c_str(), nullptr, true, "sims", false), nullptr);
#endif
    // Without checking, the first candidate fails to load and the second is taken all the same.
    auto g = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(kVersioned.c_str(), "moduleVersion", true, "sims", false));
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(sp_GetLibraryFunction(kVersioned.c_str(), nullptr, true, "sims", false), nullptr);
}

TEST_F(Plugins, MissingOrMalformedConfiguration)
{
    // No startup.ini: the default directory, which does not exist: nothing found.
    EXPECT_TRUE(search("sims").empty());
    EXPECT_EQ(sp_GetLibraryFunction(kVersioned.c_str(), "moduleVersion", true, "sims", false), nullptr);
    writeIni("sims=;;%NO_SUCH_VARIABLE_X%/dir;" + path("missing"));
    EXPECT_TRUE(search("sims").empty());
    EXPECT_EQ(sp_GetLibraryFunction(kVersioned.c_str(), "moduleVersion", true, "sims", false), nullptr);
    writeIni("garbage without equals sign\n[[[");
    EXPECT_TRUE(search("sims").empty());
}

TEST_F(Plugins, SearchSortsIgnoringCaseAndExcludes)
{
    const std::string dir = path("mods");
    QDir().mkpath(QString::fromStdString(dir));
    for (const std::string& name : {"beta" + kSuffix, "Alpha" + kSuffix, "gamma" + kUpperSuffix, "delta" + kSuffix,
                                    std::string("notes.txt"), kSuffix.substr(1)})
        writeFileBytes(dir + "/" + name, "x");
    QDir().mkpath(QString::fromStdString(dir + "/sub" + kSuffix));
    writeIni("mods=" + dir);
    // Qt's name filters ignore case; folders are left out.
    EXPECT_EQ(search("mods"), (std::vector<std::string>{dir + "/Alpha" + kSuffix, dir + "/beta" + kSuffix, dir + "/delta" + kSuffix,
                                                dir + "/gamma" + kUpperSuffix}));
    YArray<YString> excluded;
    excluded.append(YString(("beta" + kSuffix).c_str()));
    excluded.append(YString(("gamma" + kUpperSuffix).c_str()));
    EXPECT_EQ(search("mods", nullptr, excluded), (std::vector<std::string>{dir + "/Alpha" + kSuffix, dir + "/delta" + kSuffix}));
    EXPECT_EQ(search("mods", "*.txt"), (std::vector<std::string>{dir + "/notes.txt"}));
    YArray<YString> two;
    sp_SearchDLLs(&two, "mods");
    EXPECT_EQ(two.count(), 4);
}

TEST_F(Plugins, PluginPathsForQt)
{
    sp_SetPluginPaths();
    const QStringList paths = QCoreApplication::libraryPaths();
    ASSERT_EQ(paths.size(), 2);
    EXPECT_EQ(paths[0].toStdString(), m_dir + "/plugins");
    EXPECT_EQ(paths[1].toStdString(), path("bin"));
}

TEST_F(Plugins, YQtLibraryWrapsOneLibrary)
{
    YQtLibrary library((kDirs + "/dir1/" + kDecorated).c_str());
    EXPECT_FALSE(library.isLoaded());
    auto f = reinterpret_cast<IntFunction>(library.resolve("_decoratedOnly"));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f(), 42);
    EXPECT_TRUE(library.isLoaded());
    EXPECT_STREQ(library.fileName().c_str(), (kDirs + "/dir1/" + kDecorated).c_str());
    EXPECT_EQ(library.resolve("nothing"), nullptr);
    EXPECT_EQ(library.unload(), 1);
    EXPECT_FALSE(library.isLoaded());
    YQtLibrary missing(path("none.so").c_str());
    EXPECT_EQ(missing.resolve("x"), nullptr);
    EXPECT_FALSE(missing.errorString().isEmpty());
    EXPECT_EQ(missing.unload(), 0);
}

// Empty entries in the value (a trailing ";", ";;") are skipped, and a relative entry is taken from the
// folder of startup.ini: a module planted in the current folder is never found or loaded.
TEST_F(Plugins, EmptyAndRelativeEntriesNeverMeanTheCurrentFolder)
{
    const QString planted = QString::fromStdString(path("cwd"));
    QDir().mkpath(planted + "/rel");
    ASSERT_TRUE(QFile::copy(QString::fromStdString(kDirs + "/dir2/" + kVersioned), planted + "/" + QString::fromStdString(kVersioned)));
    ASSERT_TRUE(QFile::copy(QString::fromStdString(kDirs + "/dir2/" + kVersioned), planted + "/rel/" + QString::fromStdString(kVersioned)));
    QDir().mkpath(QString::fromStdString(path("bin/rel")));
    ASSERT_TRUE(QFile::copy(QString::fromStdString(kDirs + "/dir1/" + kVersioned), QString::fromStdString(path("bin/rel/" + kVersioned))));
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(planted));

    writeIni("sims=;");
    EXPECT_TRUE(search("sims").empty());
    EXPECT_EQ(sp_GetLibraryFunction(kVersioned.c_str(), "moduleVersion", true, "sims", false), nullptr);
    writeIni("sims=;;" + path("missing") + ";");
    EXPECT_TRUE(search("sims").empty());
    EXPECT_EQ(sp_GetLibraryFunction(kVersioned.c_str(), "moduleVersion", true, "sims", false), nullptr);

    // "rel" is the folder beside startup.ini, whose module is version 1 (the current folder's is 2).
    writeIni("sims=rel;");
    EXPECT_EQ(search("sims"), (std::vector<std::string>{path("bin/rel/" + kVersioned)}));
    auto f = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(kVersioned.c_str(), "moduleVersion", true, "sims", false));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f(), 1);
    EXPECT_EQ(sp_GetLibraryFunction(kVersioned.c_str(), nullptr, true, "sims", false), nullptr);
    QDir::setCurrent(before);
}

#ifdef Q_OS_WIN
// An entry from the root ("/dir") is on the drive of startup.ini, whatever the current drive.
TEST_F(Plugins, ARootedEntryIsOnTheDriveOfStartupIni)
{
    const QString mods = QString::fromStdString(path("mods"));
    QDir().mkpath(mods);
    writeFileBytes(path("mods/one" + kSuffix), "x");
    const QString drive = QDir(mods).absolutePath().left(2);
    ASSERT_EQ(drive[1], QLatin1Char(':')) << mods.toStdString();
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(drive.compare(QLatin1String("C:"), Qt::CaseInsensitive) == 0 ? "Z:/" : "C:/"));
    writeIni("rooted=" + QDir(mods).absolutePath().mid(2).toStdString());
    EXPECT_EQ(search("rooted"), (std::vector<std::string>{QDir(mods).absolutePath().toStdString() + "/one" + kSuffix}));
    QDir::setCurrent(before);
}

// The root of a folder on a share is the share's: "/dir" from startup.ini in "//server/share/app" is
// "//server/share/dir", never on the current drive.
TEST(PluginsPlatform, ARootedEntryIsOnTheShareOfAFolderOnAShare)
{
    using pluginsplatform::onDriveOf;
    EXPECT_EQ(onDriveOf("/plugins", "//server/share/app/bin"), QString("//server/share/plugins"));
    EXPECT_EQ(onDriveOf("/plugins", "//server/share"), QString("//server/share/plugins"));
    EXPECT_EQ(onDriveOf("/plugins", "\\\\server\\share\\app"), QString("//server/share/plugins"));
    EXPECT_EQ(onDriveOf("/plugins", "D:/app/bin"), QString("D:/plugins"));
    // An entry that names a share itself stays as it is.
    EXPECT_EQ(onDriveOf("//other/tools/x", "D:/app"), QString("//other/tools/x"));
}
#endif

#ifdef Q_OS_WIN
// A plug-in finds the module it imports in its own folder, where the system's loader would not look; a
// module of that name planted in the current folder (one that returns 99) is not taken instead. Loading
// leaves no reference behind: unloading the plug-in unloads its helper too.
TEST_F(Plugins, ImportedModulesAreTakenFromThePluginsOwnFolder)
{
    const std::string module = "libDependentModule.dll";
    // With its drive, as the current folder is on another one.
    const std::string dirs = QFileInfo(QString::fromStdString(kDirs)).absoluteFilePath().toStdString();
    const QString planted = QString::fromStdString(path("cwd"));
    QDir().mkpath(planted);
    ASSERT_TRUE(QFile::copy(QString::fromStdString(dirs + "/planted/pluginhelper.dll"), planted + "/pluginhelper.dll"));
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(planted));
    writeIni("deps=" + dirs + "/dependent");

    auto f = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(module.c_str(), "dependentValue", true, "deps", false));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f(), 7);
    EXPECT_EQ(sp_GetLibraryFunction(module.c_str(), nullptr, true, "deps", false), nullptr);
    EXPECT_EQ(GetModuleHandleW(L"libDependentModule.dll"), nullptr);
    EXPECT_EQ(GetModuleHandleW(L"pluginhelper.dll"), nullptr);

    // Without the planted module the helper is found all the same.
    ASSERT_TRUE(QFile::remove(planted + "/pluginhelper.dll"));
    f = reinterpret_cast<IntFunction>(sp_GetLibraryFunction(module.c_str(), "dependentValue", true, "deps", false));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f(), 7);
    EXPECT_EQ(sp_GetLibraryFunction(module.c_str(), nullptr, true, "deps", false), nullptr);
    EXPECT_EQ(GetModuleHandleW(L"pluginhelper.dll"), nullptr);

    // A module loaded by its path alone, which stays loaded: its helper is the one of its folder.
    EXPECT_TRUE(sp_LoadLibrary((dirs + "/dependent/" + module).c_str()));
    const auto helperValue = reinterpret_cast<IntFunction>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"pluginhelper.dll"), "helperValue")));
    ASSERT_NE(helperValue, nullptr);
    EXPECT_EQ(helperValue(), 7);
    QDir::setCurrent(before);
}
#endif
