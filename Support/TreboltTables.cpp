// TreboltTables.cpp - the switching simulator's statements and their parameters, as constant data.
#include "TreboltTables_p.h"

namespace trebolt {
namespace {

const ParamDef kTranPositional[] = {
    {"TSTOP", TreboltReal, false, false, 0, 0, {}},
    {"TSAVE", TreboltReal, false, false, 0, 0, {}},
};
const ParamDef kTranNamed[] = {
    {"EARLY_START_SAVING_DATA_GATE", TreboltText, false, false, 0, 0, {}},
    {"EARLY_STOP_ANALYSIS_GATE", TreboltText, false, false, 0, 0, {}},
};
const ParamDef kPopNamed[] = {
    {"TRIG_GATE", TreboltText, false, false, 0, 0, {}},
    {"TRIG_COND", TreboltChoice, false, false, 0, 0, {"0_TO_1", "1_TO_0"}},
    {"MAX_PERIOD", TreboltReal, false, false, 0, 0, {}},
    {"CONVERGENCE", TreboltReal, true, true, 1e-14, 1e-12, {}},
    {"CYCLES_BEFORE_LAUNCH", TreboltInteger, true, true, 5, 5, {}},
    {"TD_RUN_AFTER_POP_FAILS", TreboltReal, true, true, -1, -1, {}},
    {"PPT_STOP_TIME", TreboltReal, false, false, 0, 0, {}},
    {"PPT_EARLY_STOP_GATE", TreboltText, false, false, 0, 0, {}},
    {"PPT_AUTO_MAX_PERIOD", TreboltSwitch, false, false, 0, 0, {}},
};
const ParamDef kOptionsNamed[] = {
    {"PSP_START", TreboltReal, false, false, 0, 0, {}},
    {"PSP_END", TreboltReal, false, false, 0, 0, {}},
    {"PSP_NPT", TreboltInteger, false, false, 0, 0, {}},
    {"POP_ITRMAX", TreboltInteger, true, true, 20, 20, {}},
    {"POP_USE_TRAN_SNAPSHOT", TreboltFlag, false, false, 0, 0, {}},
    {"POP_OUTPUT_CYCLES", TreboltInteger, true, true, 5, 5, {}},
    {"POP_SHOWDATA", TreboltFlag, false, false, 0, 0, {}},
    // The defaults of MAX_TOPOLOGY and EMSG_MAX are carried in the table but never applied.
    {"MAX_TOPOLOGY", TreboltInteger, false, false, 65536, 65536, {}},
    {"SNAPSHOT_INTVL", TreboltReal, true, true, 0, 0, {}},
    {"SNAPSHOT_NPT", TreboltInteger, false, true, 0, 11, {}},
    {"NEW_ANALYSIS", TreboltFlag, false, false, 0, 0, {}},
    {"EMSG_MAX", TreboltInteger, false, false, 20, 20, {}},
    {"FREQ_DOMAIN", TreboltChoice, true, true, 0, 0, {"S", "Z"}},
    {"IGNORE_UNITS", TreboltFlag, false, false, 0, 0, {}},
    {"NO_FORCED_DATA", TreboltFlag, false, false, 0, 0, {}},
    {"MIN_AVG_TOPOLOGY_DUR", TreboltReal, true, true, 1e-18, 1e-18, {}},
    {"AVG_TOPOLOGY_DUR_MEASUREMENT_WINDOW", TreboltInteger, true, true, 128, 128, {}},
    {"OUTPUT_FILE_FORMAT", TreboltText, false, false, 0, 0, {}},
    {"AC_OUTPUT_FORMAT", TreboltText, false, false, 0, 0, {}},
    {"MAX_DELAY_EVENTS", TreboltInteger, false, false, 0, 0, {}},
    {"KALVONTA_FORM", TreboltFlag, false, false, 0, 0, {}},
    {"TREBOLT_STARTUP_DELAY", TreboltInteger, false, false, 0, 0, {}},
    {"STARTING_PT_ANLYS_ITRMAX", TreboltInteger, false, false, 0, 0, {}},
    {"STARTING_PT_ANLYS_DIGITAL_ITRMAX", TreboltInteger, false, false, 0, 0, {}},
    {"SAVE_INSTANTS_FILES", TreboltFlag, false, false, 0, 0, {}},
    {"MAX_DEBUG_DATA_SIZE", TreboltInteger, false, false, 0, 0, {}},
    {"MAX_MEMORY_ALLOCATION", TreboltInteger, false, false, 0, 0, {}},
    {"DEVICE_OP_ITRMAX", TreboltInteger, false, false, 0, 0, {}},
    {"SWEEP_PARAM_DEPTH", TreboltChoice, true, true, 0, 0, {"TOP", "HIERARCHY", "GLOBAL"}},
};
const ParamDef kPrintNamed[] = {
    {"ALL", TreboltFlag, false, false, 0, 0, {}},
    {"NODE_V", TreboltFlag, false, false, 0, 0, {}},
};
const ParamDef kAcPositional[] = {
    {"SWEEP_TYPE", TreboltChoice, false, false, 0, 0, {"DEC", "LIN", "OCT"}},
    {"N_PT", TreboltInteger, false, false, 0, 0, {}},
    {"START_FREQ", TreboltReal, false, false, 0, 0, {}},
    {"STOP_FREQ", TreboltReal, false, false, 0, 0, {}},
};

template <class T, int N>
constexpr int countOf(const T (&)[N])
{
    return N;
}

} // namespace

const StatementDef kStatements[] = {
    {".tran", kTranNamed, countOf(kTranNamed), kTranPositional, countOf(kTranPositional), TreboltSlotTran},
    {".pop", kPopNamed, countOf(kPopNamed), nullptr, 0, TreboltSlotPop},
    {".options", kOptionsNamed, countOf(kOptionsNamed), nullptr, 0, kNoFlagSlot},
    {".print", kPrintNamed, countOf(kPrintNamed), nullptr, 0, kNoFlagSlot},
    {".ac", nullptr, 0, kAcPositional, countOf(kAcPositional), TreboltSlotAc},
};
static_assert(countOf(kStatements) == kStatementCount, "kStatementCount counts the rows of kStatements");

const ParamDef* findParamDef(const StatementDef& statement, const char* keyword)
{
    const YString key(keyword);
    for (int i = 0; i < statement.namedCount; ++i)
        if (key.equalsNoCase(statement.named[i].keyword))
            return &statement.named[i];
    for (int i = 0; i < statement.positionalCount; ++i)
        if (key.equalsNoCase(statement.positional[i].keyword))
            return &statement.positional[i];
    return nullptr;
}

int findParam(const YList<TreboltParamValue>& params, const char* keyword)
{
    for (int i = 0; i < params.count(); ++i)
        if (params[i].name.equalsNoCase(keyword))
            return i;
    return -1;
}

} // namespace trebolt

const char* kvfe_TreboltChoiceName(const char* keyword, int index)
{
    if (!keyword || index < 0 || index > 3)
        return nullptr;
    for (const trebolt::StatementDef& statement : trebolt::kStatements) {
        const trebolt::ParamDef* def = trebolt::findParamDef(statement, keyword);
        if (def && def->type == TreboltChoice)
            return def->choices[index];
    }
    return nullptr;
}
