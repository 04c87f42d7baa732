// LoadTime.cpp - the library's load-time registrations and process-wide lists, constructed in this
// file's order at load and destroyed in reverse order at unload.
#include "Compress.h"
#include "DynSlots.h"
#include "LoadTime_p.h"
#include "Options.h"

#include <QLibrary>

namespace {

void runNoCommand(const char*, unsigned) {}

const int kHelpContextIdTable[] = {
#include "HelpContextIds.inc"
};

class HelpContextIdSet {
public:
    HelpContextIdSet()
    {
        for (int id : kHelpContextIdTable)
            m_ids.insert(id);
    }
    QSet<int> m_ids;
};

class LoadedModuleList {
public:
    ~LoadedModuleList()
    {
        qDeleteAll(m_modules);
        m_modules.clear();
    }
    QList<QLibrary*> m_modules;
};

class LiveTimerList {
public:
    // The callback objects' destructors may delete timers, or make new ones: each round takes the list
    // out before its timers go, and a few rounds end it.
    ~LiveTimerList()
    {
        for (int round = 0; round < 16 && !m_timers.isEmpty(); ++round) {
            QList<QSharedPointer<GenericTimer>> taken;
            taken.swap(m_timers);
        }
    }
    QList<QSharedPointer<GenericTimer>> m_timers;
};

} // namespace

// 1. The help command slot; unresolved it does nothing.
namespace SupportQtSlots {
dyn_RunCommand_t dyn_RunCommand = &runNoCommand;
}
static RegisterDynFuncCall s_regRunCommand(&SupportQtSlots::dyn_RunCommand, "dyn_RunCommand", false, "Support/Help", 26);

// 2. The second simulator's help context ids.
static HelpContextIdSet s_helpContextIds;

// 3 and 4. The loaded-module list, which releases its library objects at unload.
static LoadedModuleList s_loadedModules;

// 5. The encoding option meant for sp_SetLocaleEncoding.
static MakeOption s_optDefaultEncoding("Support/QtSupport", 39, YString("DefaultEncoding"), "default",
                                       OptionCacheStatus(0), true);

// 6. The live timers.
static LiveTimerList s_liveTimers;

// 7. The results-file writer's option for readable twins of real attributes.
static MakeOption s_optWriteXMLAsciiReals("Support/XMLReport", 54, YString("WriteXMLAsciiReals"), false,
                                          OptionCacheStatus(0), false);

// 8. The slots every module of the suite declares.
namespace SupportQtSlots {
KV_DEFINE_COMMON_DYN_SLOTS();
}

// 9. The data compressor offered to other modules.
static RegisterDynFuncDef s_defMakeDataCompressor("makeDataCompressor", &sp_MakeDataCompressor, "support/Compress", 61);

namespace SupportQtLoadTime {
const QSet<int>& helpContextIds() { return s_helpContextIds.m_ids; }
QList<QLibrary*>& loadedModules() { return s_loadedModules.m_modules; }
QList<QSharedPointer<GenericTimer>>& liveTimers() { return s_liveTimers.m_timers; }
} // namespace SupportQtLoadTime
