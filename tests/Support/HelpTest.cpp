// HelpTest.cpp - help links to URLs, help commands through the command slot, and web pages opened by a
// fake browser registered as the desktop's HTML handler.
#include "DatesAndUrls.h"
#include "DynFunc.h"
#include "DynSlots.h"
#include "FileServices.h"
#include "Help.h"
#include "Options.h"
#include "QtSupport.h"
#include "TestHelpers.h"
#include "TextServices.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QThread>

#ifdef Q_OS_WIN
#include <windows.h>
#else
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#endif

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

// The help site roots the build was configured with.
const std::string kHelpSite = SUPPORTQT_HELP_SITE;
const std::string kDocSite = SUPPORTQT_DOC_SITE;

class VersionGuard {
public:
    explicit VersionGuard(int release, int subRelease)
    {
        KalvontaVersionInfo info;
        info.release = release;
        info.subRelease = subRelease;
        sp_SetVersionValues(&info);
    }
    ~VersionGuard() { sp_SetVersionValues(nullptr); }
};

std::vector<std::pair<std::string, unsigned>> g_commands;
void recordCommand(const char* command, unsigned hash) { g_commands.push_back({command, hash}); }

} // namespace

class Help : public TempDirTest {
protected:
    void TearDown() override
    {
        sp_SetBoolOption("UseLocalHelp", false);
        TempDirTest::TearDown();
    }
};

TEST_F(Help, LocalHelpWhenTheOptionIsSetAndThePageExists)
{
    writeFileBytes(path("open_context_id.htm"), "<html></html>");
    EnvGuard helpPath("HELPPATH", QByteArray::fromStdString(m_dir));
    sp_SetBoolOption("UseLocalHelp", true);
    EXPECT_EQ(std::string(sp_ConvertKvhlpToUrl("kvhlp://open_context_id.htm#1234").c_str()),
              fileUrlOf(m_dir) + "/open_context_id.htm#1234");
}

TEST_F(Help, OptionSetButNoLocalPageGivesTheOnlineUrl)
{
    EnvGuard helpPath("HELPPATH", QByteArray::fromStdString(m_dir));
    VersionGuard version(9, 42);
    sp_SetBoolOption("UseLocalHelp", true);
    EXPECT_EQ(std::string(sp_ConvertKvhlpToUrl("kvhlp://open_context_id.htm#1234").c_str()),
              kHelpSite + "/9.4/open_context_id.htm#1234");
}

TEST_F(Help, SecondSimulatorIdGoesToTheDocumentationSiteWithAStamp)
{
    const QDateTime before = QDateTime::currentDateTime();
    const std::string url = sp_ConvertKvhlpToUrl("kvhlp://open_context_id.htm#50002").c_str();
    const QDateTime after = QDateTime::currentDateTime();
    const std::string prefix = kDocSite + "/open_context_id.htm?nocache=";
    ASSERT_EQ(url.substr(0, prefix.size()), prefix);
    const std::string rest = url.substr(prefix.size());
    ASSERT_EQ(rest.size(), 16u) << url;
    EXPECT_EQ(rest.substr(10), "#50002");
    const QString stamp = QString::fromStdString(rest.substr(0, 10));
    EXPECT_TRUE(QRegularExpression("^\\d{10}$").match(stamp).hasMatch());
    EXPECT_TRUE(stamp == before.toString("ddMMyyhhmm") || stamp == after.toString("ddMMyyhhmm")) << url;
}

TEST_F(Help, OtherIdsGoToTheMainSiteInTheVersionFolder)
{
    VersionGuard version(9, 42);
    EXPECT_EQ(std::string(sp_ConvertKvhlpToUrl("kvhlp://open_context_id.htm#1234").c_str()),
              kHelpSite + "/9.4/open_context_id.htm#1234");
    // A context id that is no number, a page other than the context page, or no id at all.
    EXPECT_EQ(std::string(sp_ConvertKvhlpToUrl("kvhlp://open_context_id.htm#x50002").c_str()),
              kHelpSite + "/9.4/open_context_id.htm#x50002");
    EXPECT_EQ(std::string(sp_ConvertKvhlpToUrl("kvhlp://intro.htm#50002").c_str()),
              kHelpSite + "/9.4/intro.htm#50002");
    EXPECT_EQ(std::string(sp_ConvertKvhlpToUrl("kvhlp://guide/start.htm").c_str()), kHelpSite + "/9.4/guide/start.htm");
    // The context page is found without regard to case.
    const std::string upper = sp_ConvertKvhlpToUrl("kvhlp://OPEN_CONTEXT_ID.HTM#50001").c_str();
    EXPECT_EQ(upper.substr(0, kDocSite.size() + 29), kDocSite + "/OPEN_CONTEXT_ID.HTM?nocache=");
}

TEST_F(Help, VersionFolderTruncatesTheSubRelease)
{
    {
        VersionGuard version(10, 9);
        EXPECT_EQ(std::string(sp_ConvertKvhlpToUrl("kvhlp://a.htm").c_str()), kHelpSite + "/10.0/a.htm");
    }
    VersionGuard version(1, 0);
    EXPECT_EQ(std::string(sp_ConvertKvhlpToUrl("kvhlp://a.htm").c_str()), kHelpSite + "/1.0/a.htm");
}

TEST(HelpCommands, RunHelpSendsTheCommandAndItsHash)
{
    g_commands.clear();
    sp_RunHelp("a", "b");
    sp_RunHelpContext(77);
    EXPECT_TRUE(g_commands.empty());
    {
        RegisterDynFuncDef def("dyn_RunCommand", &recordCommand, "tests/HelpTest", 1);
        sp_RunHelp("topics", "Circuit Editor");
        sp_RunHelpContext(1234);
    }
    sp_RunHelp("a", "b");
    ASSERT_EQ(g_commands.size(), 2u);
    EXPECT_EQ(g_commands[0].first, "run_help /ne 'topics' 'Circuit Editor'");
    EXPECT_EQ(g_commands[0].second, sp_HashValue("run_help /ne 'topics' 'Circuit Editor'"));
    EXPECT_EQ(g_commands[1].first, "run_help /ne '1234'");
    EXPECT_EQ(g_commands[1].second, sp_HashValue("run_help /ne '1234'"));
    EXPECT_TRUE(sp_HasHelp());
}

#ifndef Q_OS_WIN
// A desktop environment of the test's own: XDG folders in the temporary directory, with a fake browser
// that writes each argument it receives on a line of a record file.
class WebPages : public TempDirTest {
protected:
    void SetUp() override
    {
        TempDirTest::SetUp();
        for (const char* dir : {"data/applications", "config", "empty", "bin", "shared"})
            QDir().mkpath(QString::fromStdString(path(dir)));
        // The system's MIME database (which tells an HTML file by its content) without the system's
        // applications, so that only the fake browser can be registered.
        QFile::link("/usr/share/mime", QString::fromStdString(path("shared/mime")));
        m_guards.emplace_back(new EnvGuard("XDG_DATA_HOME", QByteArray::fromStdString(path("data"))));
        m_guards.emplace_back(new EnvGuard("XDG_DATA_DIRS", QByteArray::fromStdString(path("shared"))));
        m_guards.emplace_back(new EnvGuard("XDG_CONFIG_HOME", QByteArray::fromStdString(path("config"))));
        m_guards.emplace_back(new EnvGuard("XDG_CONFIG_DIRS", QByteArray::fromStdString(path("empty"))));
        m_guards.emplace_back(new EnvGuard("XDG_CURRENT_DESKTOP", ""));
        m_guards.emplace_back(new EnvGuard("DESKTOP_SESSION", ""));
        m_guards.emplace_back(new EnvGuard("BROWSER", ""));
        // The desktop's opener consults the registered handlers only when there is a display.
        m_guards.emplace_back(new EnvGuard("WAYLAND_DISPLAY", "supportqt-test"));
        m_guards.emplace_back(new EnvGuard("TMPDIR", QByteArray::fromStdString(path("empty"))));
    }
    void TearDown() override
    {
        m_guards.clear();
        TempDirTest::TearDown();
    }
    // The browser is a script that records its arguments, or with `recordState` the test build's child
    // program, which also records its status text and open descriptors before its arguments.
    void registerFakeBrowser(bool recordState = false)
    {
        const std::string script = path("bin/fakebrowser");
        if (recordState) {
            ASSERT_TRUE(QFile::copy(QStringLiteral(CHILD_PROGRAM_PATH), QString::fromStdString(script)));
            writeFileBytes(script + ".steps", "status " + path("status.txt") + "\nfds " + path("fds.txt") + "\nargs " +
                                                  path("record.txt") + "\n");
        } else {
            writeFileBytes(script, "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\" >> '" + path("record.txt") +
                                       ".part'; done\nmv '" + path("record.txt") + ".part' '" + path("record.txt") + "'\n");
        }
        QFile::setPermissions(QString::fromStdString(script), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        writeFileBytes(path("data/applications/fakebrowser.desktop"),
                       "[Desktop Entry]\nType=Application\nName=Fake Browser\nExec=" + script + " %u\n"
                       "MimeType=text/html;x-scheme-handler/http;x-scheme-handler/https;\n");
        writeFileBytes(path("config/mimeapps.list"),
                       "[Default Applications]\ntext/html=fakebrowser.desktop\n"
                       "x-scheme-handler/http=fakebrowser.desktop\nx-scheme-handler/https=fakebrowser.desktop\n");
    }
    // What the fake browser received, one argument per line; empty when it was not started in time.
    std::string received()
    {
        for (int i = 0; i < 200 && !QFile::exists(QString::fromStdString(path("record.txt"))); ++i)
            QThread::msleep(50);
        const std::string text = readFileBytes(path("record.txt"));
        QFile::remove(QString::fromStdString(path("record.txt")));
        return text;
    }

    std::vector<std::unique_ptr<EnvGuard>> m_guards;
};

#else
// The system's associations in the test's own Wine prefix (or Windows registry): ".html" and the http
// and https protocols point at a fake browser, the test build's child program copied into the temporary
// folder, which writes each argument it receives on a line of a record file. The values it changes are
// put back afterwards.
class RegistryValue {
public:
    explicit RegistryValue(const std::wstring& key) : m_key(key)
    {
        HKEY handle = nullptr;
        if (RegOpenKeyExW(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_READ, &handle) == ERROR_SUCCESS) {
            wchar_t buffer[2048];
            DWORD size = sizeof buffer;
            DWORD type = 0;
            if (RegQueryValueExW(handle, nullptr, nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size) == ERROR_SUCCESS &&
                type == REG_SZ) {
                m_had = true;
                m_old.assign(buffer, size / sizeof(wchar_t));
                while (!m_old.empty() && m_old.back() == L'\0')
                    m_old.pop_back();
            }
            RegCloseKey(handle);
        }
    }
    ~RegistryValue()
    {
        if (m_had)
            set(m_old);
        else
            RegDeleteKeyW(HKEY_CLASSES_ROOT, m_key.c_str());
    }
    void set(const std::wstring& value)
    {
        HKEY handle = nullptr;
        ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, m_key.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &handle, nullptr),
                  ERROR_SUCCESS);
        RegSetValueExW(handle, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                       static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
        RegCloseKey(handle);
    }

private:
    std::wstring m_key;
    bool m_had = false;
    std::wstring m_old;
};

class WebPages : public TempDirTest {
protected:
    void SetUp() override
    {
        TempDirTest::SetUp();
        QDir().mkpath(QString::fromStdString(path("empty")));
        m_guards.emplace_back(new EnvGuard("TEMP", QByteArray::fromStdString(path("empty"))));
        m_guards.emplace_back(new EnvGuard("TMP", QByteArray::fromStdString(path("empty"))));
        // Until a test registers the fake browser, ".html" names a file type that has no program.
        m_html.set(L"SupportQtTest.none");
    }
    void TearDown() override
    {
        m_guards.clear();
        TempDirTest::TearDown();
    }
    void registerFakeBrowser()
    {
        const QString program = QDir::toNativeSeparators(QString::fromStdString(path("bin/fakebrowser.exe")));
        QDir().mkpath(QString::fromStdString(path("bin")));
        ASSERT_TRUE(QFile::copy(QStringLiteral(CHILD_PROGRAM_PATH), program));
        writeFileBytes(path("bin/fakebrowser.steps"), "args " + path("record.txt") + "\n");
        const std::wstring command = L"\"" + program.toStdWString() + L"\" \"%1\"";
        m_html.set(L"SupportQtTest.html");
        m_htmlCommand.set(command);
        m_httpCommand.set(command);
        m_httpsCommand.set(command);
    }
    // What the fake browser received, one argument per line; empty when it was not started in time.
    std::string received()
    {
        for (int i = 0; i < 200 && !QFile::exists(QString::fromStdString(path("record.txt"))); ++i)
            QThread::msleep(50);
        const std::string text = readFileBytes(path("record.txt"));
        QFile::remove(QString::fromStdString(path("record.txt")));
        return text;
    }

    RegistryValue m_html{L".html"};
    RegistryValue m_htmlCommand{L"SupportQtTest.html\\shell\\open\\command"};
    RegistryValue m_httpCommand{L"http\\shell\\open\\command"};
    RegistryValue m_httpsCommand{L"https\\shell\\open\\command"};
    std::vector<std::unique_ptr<EnvGuard>> m_guards;
};

#endif

#ifdef Q_OS_WIN
// The lookup of the program for ".html" files takes its path in the ANSI code page: a temporary folder
// named in a script that the code page cannot spell is given by its short form, and the program is found.
TEST_F(WebPages, AProgramIsFoundFromATemporaryFolderOfAnyName)
{
    registerFakeBrowser();
    const QString folder = QString::fromStdString(path("")) + QString::fromUtf8("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E");
    ASSERT_TRUE(QDir().mkpath(folder));
    std::vector<wchar_t> oldTemp(32768), oldTmp(32768);
    GetEnvironmentVariableW(L"TEMP", oldTemp.data(), 32768);
    GetEnvironmentVariableW(L"TMP", oldTmp.data(), 32768);
    const std::wstring wide = QDir::toNativeSeparators(folder).toStdWString();
    SetEnvironmentVariableW(L"TEMP", wide.c_str());
    SetEnvironmentVariableW(L"TMP", wide.c_str());
    EXPECT_TRUE(sp_HaveOpenWebPage());
    EXPECT_TRUE(QDir(folder).isEmpty()); // the probe file is gone again
    SetEnvironmentVariableW(L"TEMP", oldTemp.data());
    SetEnvironmentVariableW(L"TMP", oldTmp.data());
}
#endif

#ifndef Q_OS_WIN
// The probe file is made and looked for under the same bytes: a temporary folder with a non-ASCII name
// serves also when the locale codec is another one, and is left empty.
TEST_F(WebPages, AProgramIsFoundFromANonAsciiTemporaryFolderUnderAnotherLocaleCodec)
{
    registerFakeBrowser();
    const std::string folder = path("t\xC3\xA9mp");
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    EnvGuard tmpdir("TMPDIR", QByteArray::fromStdString(folder));
    LocaleCodecGuard guard;
    ASSERT_TRUE(sp_SetLocaleEncoding(YString("ISO-8859-1")));
    EXPECT_TRUE(sp_HaveOpenWebPage());
    int names = 0;
    if (DIR* dir = opendir(folder.c_str())) {
        while (const dirent* entry = readdir(dir))
            names += std::string(entry->d_name) != "." && std::string(entry->d_name) != "..";
        closedir(dir);
    }
    EXPECT_EQ(names, 0); // the probe file is gone again
}
#endif

// The probe file is made new: a "dummy.html" of the user's in the temporary folder, or a link of that
// name to another file, is left as it was, and the answer is the same.
TEST_F(WebPages, AFileOfTheProbesNameIsLeftAlone)
{
    registerFakeBrowser();
    const std::string probe = path("empty/dummy.html");
    writeFileBytes(probe, "the user's notes\n");
    EXPECT_TRUE(sp_HaveOpenWebPage());
    EXPECT_EQ(readFileBytes(probe), "the user's notes\n");
    EXPECT_EQ(QDir(QString::fromStdString(path("empty"))).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
              QStringList{QStringLiteral("dummy.html")});
#ifndef Q_OS_WIN
    ASSERT_EQ(std::remove(probe.c_str()), 0);
    writeFileBytes(path("victim.txt"), "data\n");
    ASSERT_EQ(::symlink(path("victim.txt").c_str(), probe.c_str()), 0);
    EXPECT_TRUE(sp_HaveOpenWebPage());
    EXPECT_EQ(readFileBytes(path("victim.txt")), "data\n");
    struct stat st;
    EXPECT_EQ(::lstat(probe.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
#endif
}

TEST_F(WebPages, NoHandlerMeansNoWebPage)
{
    EXPECT_FALSE(sp_HaveOpenWebPage());
    writeFileBytes(path("page.html"), "<html><body>x</body></html>\n");
    EXPECT_FALSE(sp_OpenWebPage((fileUrlOf(path("page.html")) + "#part").c_str()));
}

TEST_F(WebPages, FakeBrowserReceivesTheUrls)
{
    registerFakeBrowser();
    EXPECT_TRUE(sp_HaveOpenWebPage());
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path("empty/dummy.html"))));
    writeFileBytes(path("page.html"), "<!DOCTYPE html>\n<html><head><title>t</title></head><body>x</body></html>\n");

    // A file URL with a fragment goes whole to the program registered for the file's type.
    const std::string withFragment = fileUrlOf(path("page.html")) + "#section2";
    ASSERT_TRUE(sp_OpenWebPage(withFragment.c_str()));
    EXPECT_EQ(received(), withFragment + "\n");

    // Other URLs go through the system's opener, to the program registered for their protocol.
    ASSERT_TRUE(sp_OpenWebPage("https://example.invalid/a/b?q=1#top"));
    EXPECT_EQ(received(), "https://example.invalid/a/b?q=1#top\n");

#ifndef Q_OS_WIN
    // A file URL without a fragment: the desktop's opener hands the browser the file's path.
    ASSERT_TRUE(sp_OpenWebPage(fileUrlOf(path("page.html")).c_str()));
    EXPECT_EQ(received(), path("page.html") + "\n");
#endif
}

// The whole URL is the program's one argument, byte for byte, whatever quotes or backslashes it holds: a
// quote cannot end the argument and add options, and a last backslash cannot escape the closing quote.
TEST_F(WebPages, QuotesAndBackslashesInAFileUrlStayInItsOneArgument)
{
    registerFakeBrowser();
    writeFileBytes(path("page.html"), "<!DOCTYPE html>\n<html><head><title>t</title></head><body>x</body></html>\n");
    const std::string page = fileUrlOf(path("page.html"));
    for (const std::string& fragment : {std::string("#a\" --new-window \"b"), std::string("#dir\\"),
                                        std::string("#two\\\\"), std::string("#x\\\"y\\"), std::string("#\"")}) {
        ASSERT_TRUE(sp_OpenWebPage((page + fragment).c_str())) << fragment;
        EXPECT_EQ(received(), page + fragment + "\n") << fragment;
    }
}

#ifdef Q_OS_LINUX
// The browser, started directly or through the desktop's opener, takes nothing of the caller's state: no
// descriptor beyond the standard three (a file the caller holds open stays the caller's alone), no
// blocked signal, broken pipes ending it, and a session of its own.
TEST_F(WebPages, TheBrowserInheritsNoDescriptorNorSignalStateOfTheCaller)
{
    registerFakeBrowser(true);
    writeFileBytes(path("page.html"), "<!DOCTYPE html>\n<html><head><title>t</title></head><body>x</body></html>\n");
    const int held = ::open(path("held.txt").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(held, 3);
    std::string directArgs, directStatus, directFds, openedArgs, openedStatus, openedFds;
    bool direct = false, opened = false;
    const std::string page = fileUrlOf(path("page.html")) + "#part";
    {
        CallerSignalState caller;
        ASSERT_TRUE(caller.set());
        direct = sp_OpenWebPage(page.c_str());
        directArgs = received();
        directStatus = readFileBytes(path("status.txt"));
        directFds = readFileBytes(path("fds.txt"));
        opened = sp_OpenWebPage("https://example.invalid/x");
        openedArgs = received();
        openedStatus = readFileBytes(path("status.txt"));
        openedFds = readFileBytes(path("fds.txt"));
    }
    ::close(held);

    EXPECT_TRUE(direct);
    EXPECT_EQ(directArgs, page + "\n");
    EXPECT_TRUE(opened);
    EXPECT_EQ(openedArgs, "https://example.invalid/x\n");
    for (const std::string* status : {&directStatus, &openedStatus}) {
        expectNoSignalStateInherited(*status, status == &directStatus ? "the browser" : "the opener's browser");
        const QRegularExpressionMatch session = QRegularExpression(QStringLiteral("\\nNSsid:\\s*([0-9]+)")).match(QString::fromStdString(*status));
        ASSERT_TRUE(session.hasMatch()) << *status;
        EXPECT_NE(session.captured(1).toLongLong(), static_cast<long long>(getsid(0)));
    }
    // (The child program holds its own steps file open while it records.)
    const std::string heldLine = "\n" + std::to_string(held) + "\n";
    EXPECT_EQ(("\n" + directFds).find(heldLine), std::string::npos) << directFds;
    EXPECT_EQ(("\n" + openedFds).find(heldLine), std::string::npos) << openedFds;
    EXPECT_LE(std::count(directFds.begin(), directFds.end(), '\n'), 1) << directFds;
    EXPECT_LE(std::count(openedFds.begin(), openedFds.end(), '\n'), 1) << openedFds;
}
#endif

TEST_F(WebPages, FragmentUrlOfAMissingFileIsNotOpened)
{
    registerFakeBrowser();
    EXPECT_FALSE(sp_OpenWebPage((fileUrlOf(path("missing.html")) + "#a").c_str()));
}
