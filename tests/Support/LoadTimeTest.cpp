// LoadTimeTest.cpp - the library's load-time registrations, its call slots and their withdrawal.
#include "DynSlots.h"
#include "Options.h"
#include "TestHelpers.h"

#include <QLibrary>
#include <QProcess>
#include <QStringList>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#ifdef Q_OS_WIN
#include <windows.h>
#include <intrin.h>
#include <winternl.h>
#endif

namespace {

const char* const kLoadOrder[] = {
    "call dyn_RunCommand Support/Help:26",
    "option DefaultEncoding Support/QtSupport:39",
    "option WriteXMLAsciiReals Support/XMLReport:54",
    "call dyn_GetDefaultMessageHandler Include/common_dynexport:28",
    "call dyn_GetScpInterface Include/common_dynexport:31",
    "call dyn_IdentifyBinary Include/common_dynexport:34",
    "def makeDataCompressor support/Compress:61",
};

template <class Call>
void expectUnresolved(Call call, const char* name)
{
    try {
        call();
        ADD_FAILURE() << name << " did not throw";
    } catch (const DynFuncException& e) {
        EXPECT_EQ(e.code(), 9);
        std::string expected = std::string("*** FATAL ERROR *** Unresolved dynamic function '") + name + "' called";
        EXPECT_STREQ(e.message(), expected.c_str());
    }
}

} // namespace

TEST(LoadTime, RegistrationsHappenInStartUpOrder)
{
    YArray<YString> log;
    sp_GetDynRegistryLog(&log);
    ASSERT_GE(log.count(), 7);
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(log[i], kLoadOrder[i]) << "entry " << i;
}

TEST(LoadTime, UnresolvedCommonSlotsThrowTheFatalError)
{
    expectUnresolved([] { SupportQtSlots::dyn_GetScpInterface(); }, "dyn_GetScpInterface");
    expectUnresolved([] { SupportQtSlots::dyn_GetDefaultMessageHandler(); }, "dyn_GetDefaultMessageHandler");
    expectUnresolved([] { SupportQtSlots::dyn_IdentifyBinary("x.exe"); }, "dyn_IdentifyBinary");
}

namespace {
std::vector<std::pair<std::string, unsigned>> g_commands;
void recordCommand(const char* command, unsigned hash) { g_commands.push_back({command, hash}); }
} // namespace

TEST(LoadTime, RunCommandReachesADefinitionOnlyWhileOneExists)
{
    g_commands.clear();
    EXPECT_EQ(sp_FindDynFuncDef("dyn_RunCommand"), nullptr);
    EXPECT_NO_THROW(SupportQtSlots::dyn_RunCommand("run_help /ne '1'", 1u));
    {
        RegisterDynFuncDef def("dyn_RunCommand", &recordCommand, "tests/LoadTimeTest", 1);
        SupportQtSlots::dyn_RunCommand("run_help /ne '2'", 22u);
    }
    EXPECT_NO_THROW(SupportQtSlots::dyn_RunCommand("run_help /ne '3'", 3u));
    ASSERT_EQ(g_commands.size(), 1u);
    EXPECT_EQ(g_commands[0].first, "run_help /ne '2'");
    EXPECT_EQ(g_commands[0].second, 22u);
}

TEST(LoadTime, OptionsAreDeclaredWithTheirDefaults)
{
    bool found = false;
    EXPECT_EQ(sp_GetOption("DefaultEncoding", &found), "default");
    EXPECT_TRUE(found);
    EXPECT_FALSE(sp_GetBoolOption("WriteXMLAsciiReals", &found));
    EXPECT_TRUE(found);
    EXPECT_EQ(sp_GetOption("WriteXMLAsciiReals", nullptr), "false");
}

TEST(LoadTime, ModuleDefiningTheFunctionResolvesTheSlotWhileLoaded)
{
    expectUnresolved([] { SupportQtSlots::dyn_GetScpInterface(); }, "dyn_GetScpInterface");
    QLibrary module(QStringLiteral(SCP_MODULE_PATH));
    ASSERT_TRUE(module.load()) << module.errorString().toStdString();
    auto marker = reinterpret_cast<void* (*)()>(module.resolve("scpInterfaceMarker"));
    ASSERT_NE(marker, nullptr);
    EXPECT_EQ(SupportQtSlots::dyn_GetScpInterface(), marker());
    ASSERT_TRUE(module.unload());
    expectUnresolved([] { SupportQtSlots::dyn_GetScpInterface(); }, "dyn_GetScpInterface");
}

TEST(LoadTime, UnloadingTheLibraryWithdrawsEverythingInReverseOrder)
{
    QProcess probe;
    probe.start(QStringLiteral(UNLOAD_PROBE_PATH), {QStringLiteral(SUPPORTQT_LIBRARY_PATH)});
    ASSERT_TRUE(probe.waitForFinished(30000));
    QString out = QString::fromUtf8(probe.readAllStandardOutput());
    ASSERT_EQ(probe.exitCode(), 0) << out.toStdString() << probe.readAllStandardError().toStdString();
    QStringList lines = out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_GE(lines.size(), 3);
    EXPECT_EQ(lines[0], QStringLiteral("before makeDataCompressor=absent DefaultEncoding=absent WriteXMLAsciiReals=absent"));
    EXPECT_EQ(lines[1], QStringLiteral("loaded makeDataCompressor=defined DefaultEncoding=declared WriteXMLAsciiReals=declared"));
    EXPECT_EQ(lines[2], QStringLiteral("unloaded makeDataCompressor=absent DefaultEncoding=absent WriteXMLAsciiReals=absent"));
    QStringList log;
    for (const QString& line : lines)
        if (line.startsWith(QStringLiteral("log ")))
            log << line.mid(4);
    QStringList expected;
    for (const char* entry : kLoadOrder)
        expected << QString::fromLatin1(entry);
    for (int i = 6; i >= 0; --i)
        expected << QLatin1Char('-') + QString::fromLatin1(kLoadOrder[i]);
    EXPECT_EQ(log, expected);
}

#ifdef Q_OS_WIN
namespace {

// The start of the loader's record of a module, as Windows (and Wine) lay it out on x86-64: the flag
// that DisableThreadLibraryCalls sets lives at offset 0x68.
struct LoaderEntry {
    LIST_ENTRY inLoadOrder;
    LIST_ENTRY inMemoryOrder;
    LIST_ENTRY inInitializationOrder;
    void* dllBase;
    void* entryPoint;
    ULONG sizeOfImage;
    UNICODE_STRING fullName;
    UNICODE_STRING baseName;
    ULONG flags;
};
static_assert(offsetof(LoaderEntry, flags) == 0x68, "the loader's record on x86-64");
const ULONG kNoThreadCalls = 0x00040000; // the loader's "do not call for threads" flag

// The loader's flags of a loaded module, found through the process environment block.
ULONG loaderFlags(HMODULE module)
{
    // The process environment block's address, read from the thread's block at gs:0x60 (what
    // NtCurrentTeb()->ProcessEnvironmentBlock gives).
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Warray-bounds" // GCC sees gs:0x60 as an offset into an empty array
#endif
    const PEB* peb = reinterpret_cast<const PEB*>(__readgsqword(0x60));
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
    const LIST_ENTRY* head = &peb->Ldr->InMemoryOrderModuleList;
    for (const LIST_ENTRY* link = head->Flink; link != head; link = link->Flink) {
        const LoaderEntry* entry = CONTAINING_RECORD(link, LoaderEntry, inMemoryOrder);
        if (entry->dllBase == module)
            return entry->flags;
    }
    ADD_FAILURE() << "module not in the loader's list";
    return 0;
}

} // namespace

// Whether a loaded module has a static thread-local storage directory (MinGW's run time gives every DLL
// one): Windows refuses DisableThreadLibraryCalls for such modules.
bool hasStaticTls(HMODULE module)
{
    const auto* base = reinterpret_cast<const unsigned char*>(module);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    return nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_TLS].Size != 0;
}

// The entry point asks for no thread attach and detach notifications. The loader grants it by marking
// the library's record, unless the library has static thread-local storage (a MinGW build), for which
// the system refuses the request; the core library beneath it asks for nothing and is never marked.
TEST(LoadTime, EntryPointAsksForNoThreadNotifications)
{
    const HMODULE library = GetModuleHandleW(L"libSupportQtDll.dll");
    const HMODULE core = GetModuleHandleW(L"libSupportDll.dll");
    ASSERT_NE(library, nullptr);
    ASSERT_NE(core, nullptr);
    EXPECT_EQ((loaderFlags(library) & kNoThreadCalls) != 0, !hasStaticTls(library));
    EXPECT_EQ(loaderFlags(core) & kNoThreadCalls, 0u);
}
#endif
