// TreboltControlsTest.cpp - the switching simulator's control statements: parsing, completion with
// defaults, kept text, compiling back, and round trips between the two.
#include "TestHelpers.h"
#include "TreboltControls.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

struct Parsed {
    TreboltCommandParseResult result;
    SelectTreboltAnalysisData::RunInfo enabled;
    SelectTreboltAnalysisData::RunInfo present;
};

Parsed parse(const char* text)
{
    Parsed p;
    p.result.enabledFlags = p.enabled.flags;
    p.result.presentFlags = p.present.flags;
    kvfe_ParseTreboltCommands(text, &p.result);
    return p;
}

const TreboltParamValue* find(const YList<TreboltParamValue>& params, const char* name)
{
    for (const TreboltParamValue& v : params)
        if (v.name == name)
            return &v;
    return nullptr;
}

const TreboltParamValue& get(const Parsed& p, const char* name)
{
    static TreboltParamValue missing;
    const TreboltParamValue* v = find(p.result.params, name);
    EXPECT_NE(v, nullptr) << name;
    return v ? *v : missing;
}

TreboltParamValue make(const char* name, TreboltParamType type, double real, int integer = 0, bool flag = false,
                       const char* text = "")
{
    TreboltParamValue v;
    v.name = name;
    v.type = type;
    v.valid = 1;
    if (type == TreboltReal)
        v.setReal(real);
    else if (type == TreboltInteger || type == TreboltChoice)
        v.setInteger(integer);
    else if (type == TreboltFlag || type == TreboltSwitch)
        v.setFlag(flag);
    v.text = text;
    return v;
}

SelectTreboltAnalysisData::RunInfo slots(std::initializer_list<TreboltFlagSlot> on)
{
    SelectTreboltAnalysisData::RunInfo info;
    for (TreboltFlagSlot slot : on)
        info[slot] = true;
    return info;
}

// Compares two entries by what they mean: type, valid flag, and the value of that type.
void expectSameEntry(const TreboltParamValue& a, const TreboltParamValue& b, const std::string& context)
{
    EXPECT_EQ(a.type, b.type) << context << " " << a.name.c_str();
    EXPECT_EQ(a.valid, b.valid) << context << " " << a.name.c_str();
    switch (a.type) {
    case TreboltReal:
        EXPECT_EQ(a.value.real, b.value.real) << context << " " << a.name.c_str();
        break;
    case TreboltInteger:
    case TreboltChoice:
        EXPECT_EQ(a.value.integer, b.value.integer) << context << " " << a.name.c_str();
        break;
    case TreboltFlag:
    case TreboltSwitch:
        EXPECT_EQ(a.value.flag, b.value.flag) << context << " " << a.name.c_str();
        break;
    case TreboltText:
        EXPECT_EQ(std::string(a.text.c_str()), b.text.c_str()) << context << " " << a.name.c_str();
        break;
    default:
        break;
    }
}

void expectSameList(const YList<TreboltParamValue>& a, const YList<TreboltParamValue>& b, const std::string& context)
{
    ASSERT_EQ(a.count(), b.count()) << context;
    for (const TreboltParamValue& entry : a) {
        const TreboltParamValue* other = find(b, entry.name.c_str());
        ASSERT_NE(other, nullptr) << context << " " << entry.name.c_str();
        expectSameEntry(entry, *other, context);
    }
}

} // namespace

// ---------------------------------------------------------------- parser

TEST(TreboltParse, EmptyTextGivesTheCompletedListEntryByEntry)
{
    struct Expected {
        const char* name;
        TreboltParamType type;
        int valid;
        double value; // real, integer or flag, by type
    };
    const Expected expected[] = {
        {"SWEEP_TYPE", TreboltChoice, 0, 0},
        {"N_PT", TreboltInteger, 0, 0},
        {"START_FREQ", TreboltReal, 0, 0},
        {"STOP_FREQ", TreboltReal, 0, 0},
        {"ALL", TreboltFlag, 1, 0},
        {"NODE_V", TreboltFlag, 1, 0},
        {"PSP_START", TreboltReal, 0, 0},
        {"PSP_END", TreboltReal, 0, 0},
        {"PSP_NPT", TreboltInteger, 0, 0},
        {"POP_ITRMAX", TreboltInteger, 1, 20},
        {"POP_USE_TRAN_SNAPSHOT", TreboltFlag, 1, 0},
        {"POP_OUTPUT_CYCLES", TreboltInteger, 1, 5},
        {"POP_SHOWDATA", TreboltFlag, 1, 0},
        {"MAX_TOPOLOGY", TreboltInteger, 0, 0},
        {"SNAPSHOT_INTVL", TreboltReal, 1, 0},
        {"SNAPSHOT_NPT", TreboltInteger, 1, 11},
        {"NEW_ANALYSIS", TreboltFlag, 1, 0},
        {"EMSG_MAX", TreboltInteger, 0, 0},
        {"FREQ_DOMAIN", TreboltChoice, 1, 0},
        {"IGNORE_UNITS", TreboltFlag, 1, 0},
        {"NO_FORCED_DATA", TreboltFlag, 1, 0},
        {"MIN_AVG_TOPOLOGY_DUR", TreboltReal, 1, 1e-18},
        {"AVG_TOPOLOGY_DUR_MEASUREMENT_WINDOW", TreboltInteger, 1, 128},
        {"OUTPUT_FILE_FORMAT", TreboltText, 0, 0},
        {"AC_OUTPUT_FORMAT", TreboltText, 0, 0},
        {"MAX_DELAY_EVENTS", TreboltInteger, 0, 0},
        {"KALVONTA_FORM", TreboltFlag, 1, 0},
        {"TREBOLT_STARTUP_DELAY", TreboltInteger, 0, 0},
        {"STARTING_PT_ANLYS_ITRMAX", TreboltInteger, 0, 0},
        {"STARTING_PT_ANLYS_DIGITAL_ITRMAX", TreboltInteger, 0, 0},
        {"SAVE_INSTANTS_FILES", TreboltFlag, 1, 0},
        {"MAX_DEBUG_DATA_SIZE", TreboltInteger, 0, 0},
        {"MAX_MEMORY_ALLOCATION", TreboltInteger, 0, 0},
        {"DEVICE_OP_ITRMAX", TreboltInteger, 0, 0},
        {"SWEEP_PARAM_DEPTH", TreboltChoice, 1, 0},
        {"TRIG_GATE", TreboltText, 0, 0},
        {"TRIG_COND", TreboltChoice, 0, 0},
        {"MAX_PERIOD", TreboltReal, 0, 0},
        {"CONVERGENCE", TreboltReal, 1, 1e-12},
        {"CYCLES_BEFORE_LAUNCH", TreboltInteger, 1, 5},
        {"TD_RUN_AFTER_POP_FAILS", TreboltReal, 1, -1},
        {"PPT_STOP_TIME", TreboltReal, 0, 0},
        {"PPT_EARLY_STOP_GATE", TreboltText, 0, 0},
        {"PPT_AUTO_MAX_PERIOD", TreboltSwitch, 0, 0},
        {"EARLY_START_SAVING_DATA_GATE", TreboltText, 0, 0},
        {"EARLY_STOP_ANALYSIS_GATE", TreboltText, 0, 0},
        {"TSTOP", TreboltReal, 0, 0},
        {"TSAVE", TreboltReal, 0, 0},
    };
    const Parsed p = parse("");
    const int n = static_cast<int>(sizeof(expected) / sizeof(expected[0]));
    ASSERT_EQ(p.result.params.count(), n);
    for (int i = 0; i < n; ++i) {
        const TreboltParamValue& v = p.result.params[i];
        EXPECT_STREQ(v.name.c_str(), expected[i].name) << i;
        EXPECT_EQ(v.type, expected[i].type) << expected[i].name;
        EXPECT_EQ(v.valid, expected[i].valid) << expected[i].name;
        if (v.type == TreboltReal)
            EXPECT_EQ(v.value.real, expected[i].value) << expected[i].name;
        else if (v.type == TreboltFlag || v.type == TreboltSwitch)
            EXPECT_EQ(v.value.flag, expected[i].value != 0) << expected[i].name;
        else if (v.type == TreboltText)
            EXPECT_TRUE(v.text.isEmpty()) << expected[i].name;
        else
            EXPECT_EQ(v.value.integer, static_cast<int>(expected[i].value)) << expected[i].name;
    }
    for (int slot = 0; slot < 7; ++slot) {
        EXPECT_TRUE(p.enabled[slot]) << slot;
        EXPECT_FALSE(p.present[slot]) << slot;
    }
    EXPECT_TRUE(p.result.treboltText.isEmpty());
    EXPECT_TRUE(p.result.kalvontaText.isEmpty());
    EXPECT_TRUE(p.result.commonText.isEmpty());
}

TEST(TreboltParse, DefaultsDependOnWhetherTheStatementWasFound)
{
    const Parsed pop = parse(".pop TRIG_GATE=clk\n");
    EXPECT_EQ(get(pop, "CONVERGENCE").value.real, 1e-14);
    EXPECT_EQ(get(pop, "CONVERGENCE").valid, 1);
    EXPECT_TRUE(pop.present[TreboltSlotPop]);
    EXPECT_STREQ(get(pop, "TRIG_GATE").text.c_str(), "clk");

    const Parsed options = parse(".options POP_ITRMAX=3\n");
    EXPECT_EQ(get(options, "SNAPSHOT_NPT").valid, 0);
    EXPECT_EQ(get(options, "SNAPSHOT_NPT").value.integer, 0);
    EXPECT_EQ(get(options, "POP_ITRMAX").value.integer, 3);
    EXPECT_EQ(get(parse(""), "SNAPSHOT_NPT").value.integer, 11);
}

TEST(TreboltParse, CommentedOutTranIsDisabledButStillRead)
{
    const Parsed p = parse("*.tran 1m\n");
    EXPECT_FALSE(p.enabled[TreboltSlotTran]);
    EXPECT_TRUE(p.present[TreboltSlotTran]);
    EXPECT_EQ(get(p, "TSTOP").valid, 1);
    EXPECT_EQ(get(p, "TSTOP").value.real, 1e-3);
    EXPECT_TRUE(p.enabled[TreboltSlotAc]);
    EXPECT_TRUE(p.enabled[TreboltSlotPop]);
    EXPECT_TRUE(p.result.treboltText.isEmpty());
}

TEST(TreboltParse, CommentedOutOptionsStaysAComment)
{
    // ".options" has no flag slot, so its commented-out form is an ordinary comment.
    const Parsed p = parse("*.options POP_ITRMAX=3\n.tran 1m\n");
    EXPECT_EQ(get(p, "POP_ITRMAX").value.integer, 20);
    EXPECT_TRUE(p.enabled[TreboltSlotTran]);
}

TEST(TreboltParse, PspNptIsOneLessThanTheStatementSays)
{
    EXPECT_EQ(get(parse(".options PSP_NPT=101\n"), "PSP_NPT").value.integer, 100);
}

TEST(TreboltParse, TsaveAndTstopAreCopiedIntoPspStartAndEnd)
{
    const Parsed p = parse(".tran 10m 2m\n");
    EXPECT_EQ(get(p, "TSTOP").value.real, 10e-3);
    EXPECT_EQ(get(p, "TSAVE").value.real, 2e-3);
    EXPECT_EQ(get(p, "PSP_START").value.real, 2e-3);
    EXPECT_EQ(get(p, "PSP_START").valid, 1);
    EXPECT_EQ(get(p, "PSP_START").type, TreboltReal);
    EXPECT_EQ(get(p, "PSP_END").value.real, 10e-3);

    const Parsed own = parse(".tran 10m 2m\n.options PSP_START=3m\n");
    EXPECT_EQ(get(own, "PSP_START").value.real, 3e-3);
}

TEST(TreboltParse, FirstOccurrenceWins)
{
    EXPECT_EQ(get(parse(".options POP_ITRMAX=7 POP_ITRMAX=9\n"), "POP_ITRMAX").value.integer, 7);
    EXPECT_EQ(get(parse(".options POP_ITRMAX=7\n.options POP_ITRMAX=9\n"), "POP_ITRMAX").value.integer, 7);
}

TEST(TreboltParse, MainSimulatorLinesAreKeptUntouched)
{
    const Parsed p = parse(".simulator Kalvonta\n.tran 1m\nR1 a b 1k ; load\n");
    EXPECT_STREQ(p.result.kalvontaText.c_str(), ".tran 1m\nR1 a b 1k ; load\n");
    EXPECT_EQ(get(p, "TSTOP").valid, 0);
    EXPECT_FALSE(p.present[TreboltSlotTran]);
    EXPECT_TRUE(p.result.treboltText.isEmpty());
    EXPECT_TRUE(p.result.commonText.isEmpty());
}

TEST(TreboltParse, BothSimulatorsSendUnknownLinesToCommonText)
{
    const Parsed p = parse(".simulator TREBOLT|Kalvonta\nfoo bar\n.tran 1m\n.simulator TREBOLT\nbaz\n.tran 2m\n");
    EXPECT_STREQ(p.result.commonText.c_str(), "foo bar\n.tran 1m\n");
    EXPECT_STREQ(p.result.treboltText.c_str(), "baz\n");
    EXPECT_EQ(get(p, "TSTOP").value.real, 2e-3);
}

TEST(TreboltParse, KeptLinesKeepCommentsBlankLinesAndLineEnds)
{
    const char* text = "X1 a b sub\r\n* note\r\n\r\n+ p=1 ; tail\r\nunknown stuff\n";
    const Parsed p = parse(text);
    // The comment line between a line and its continuation is read with that line; the blank line's end
    // stays because empty-line suppression is off; CR LF becomes LF.
    EXPECT_STREQ(p.result.treboltText.c_str(), "X1 a b sub\n* note\n\n+ p=1 ; tail\nunknown stuff\n");
}

TEST(TreboltParse, NoDeclaredSimulatorGoesToCommonText)
{
    const Parsed p = parse(".simulator\nwhatever 1 2\n.tran 5u\n.simulator nonsense\nmore\n");
    EXPECT_STREQ(p.result.commonText.c_str(), "whatever 1 2\nmore\n");
    EXPECT_EQ(get(p, "TSTOP").value.real, 5e-6);
}

TEST(TreboltParse, PrefixMatchSetsPresentButOnlyExactNamesAreRead)
{
    const Parsed p = parse(".transient 1m\n");
    EXPECT_TRUE(p.present[TreboltSlotTran]);
    EXPECT_EQ(get(p, "TSTOP").valid, 0);
    EXPECT_STREQ(p.result.treboltText.c_str(), ".transient 1m\n");
}

TEST(TreboltParse, EveryTypeOfValue)
{
    const Parsed p = parse(".pop TRIG_GATE=g1 TRIG_COND=1_to_0 MAX_PERIOD=2.5u PPT_AUTO_MAX_PERIOD=3\n"
                           ".options POP_SHOWDATA FREQ_DOMAIN=z SWEEP_PARAM_DEPTH=GLOBAL CYCLES=4\n"
                           ".ac LIN 11 1k 1meg\n.print ALL\n");
    EXPECT_STREQ(get(p, "TRIG_GATE").text.c_str(), "g1");
    EXPECT_EQ(get(p, "TRIG_COND").value.integer, 1);
    EXPECT_EQ(get(p, "MAX_PERIOD").value.real, 2.5e-6);
    EXPECT_TRUE(get(p, "PPT_AUTO_MAX_PERIOD").value.flag);
    EXPECT_TRUE(get(p, "POP_SHOWDATA").value.flag);
    EXPECT_EQ(get(p, "FREQ_DOMAIN").value.integer, 1);
    EXPECT_EQ(get(p, "SWEEP_PARAM_DEPTH").value.integer, 2);
    EXPECT_EQ(get(p, "SWEEP_TYPE").value.integer, 1);
    EXPECT_EQ(get(p, "N_PT").value.integer, 11);
    EXPECT_EQ(get(p, "START_FREQ").value.real, 1e3);
    EXPECT_EQ(get(p, "STOP_FREQ").value.real, 1e6);
    EXPECT_TRUE(get(p, "ALL").value.flag);
    EXPECT_FALSE(get(p, "NODE_V").value.flag);
    EXPECT_TRUE(p.present[TreboltSlotAc]);
    EXPECT_TRUE(p.present[TreboltSlotPop]);
}

TEST(TreboltParse, BadValuesAreKeptOrDropped)
{
    // A choice that names no choice is dropped and later completed; a bad number reads as zero; a
    // statement with only unknown parameters is kept as text.
    const Parsed p = parse(".pop TRIG_COND=sideways MAX_PERIOD=abc\n.print nothing here\n.options\n");
    EXPECT_EQ(get(p, "TRIG_COND").valid, 0);
    EXPECT_EQ(get(p, "MAX_PERIOD").valid, 1);
    EXPECT_EQ(get(p, "MAX_PERIOD").value.real, 0.0);
    EXPECT_STREQ(p.result.treboltText.c_str(), ".print nothing here\n.options\n");
    const Parsed missing = parse(".options POP_ITRMAX\n");
    EXPECT_EQ(get(missing, "POP_ITRMAX").valid, 1);
    EXPECT_EQ(get(missing, "POP_ITRMAX").value.integer, 0);
}

TEST(TreboltParse, AppendsToAnExistingList)
{
    Parsed p;
    p.result.enabledFlags = p.enabled.flags;
    p.result.presentFlags = p.present.flags;
    p.result.params.append(make("POP_ITRMAX", TreboltInteger, 0, 99));
    kvfe_ParseTreboltCommands(".options POP_ITRMAX=3\n", &p.result);
    EXPECT_EQ(p.result.params[0].value.integer, 99);
    EXPECT_EQ(p.result.params.count(), 48);
}

TEST(TreboltParse, HugeRandomTextCompletes)
{
    std::mt19937 random(5);
    std::string text;
    const char* const pieces[] = {".tran", ".pop", ".options", "*.", "*", "\n", "+", "=", " ", "(", ")", "1m",
                                  "POP_ITRMAX", "TRIG_COND", ".simulator", "Kalvonta", "{", "}", ";", "\r", "\xFF"};
    while (text.size() < 1000000)
        text += pieces[random() % (sizeof(pieces) / sizeof(pieces[0]))];
    const Parsed p = parse(text.c_str());
    EXPECT_GE(p.result.params.count(), 48);
}

// ---------------------------------------------------------------- compiler

TEST(TreboltCompile, ActivePopPutsEachOptionOnAContinuationLine)
{
    YList<TreboltParamValue> params;
    params.append(make("TRIG_GATE", TreboltText, 0, 0, false, "g1"));
    params.append(make("MAX_PERIOD", TreboltReal, 1e-6));
    TreboltStatements out;
    kvfe_CompileTreboltControls(params, &out, slots({TreboltSlotPop}), slots({TreboltSlotPop}));
    EXPECT_STREQ(out.pop.c_str(), ".pop\n+ TRIG_GATE=g1\n+ MAX_PERIOD=1u\n");

    TreboltStatements commented;
    kvfe_CompileTreboltControls(params, &commented, slots({}), slots({TreboltSlotPop}));
    EXPECT_STREQ(commented.pop.c_str(), "*.pop TRIG_GATE=g1 MAX_PERIOD=1u\n");

    TreboltStatements absent;
    kvfe_CompileTreboltControls(params, &absent, slots({TreboltSlotPop}), slots({}));
    EXPECT_TRUE(absent.pop.isEmpty());
}

TEST(TreboltCompile, DefaultChoicesAreLeftOutButSweepTypeIsWritten)
{
    YList<TreboltParamValue> params;
    params.append(make("FREQ_DOMAIN", TreboltChoice, 0, 0));
    params.append(make("SWEEP_PARAM_DEPTH", TreboltChoice, 0, 0));
    params.append(make("POP_ITRMAX", TreboltInteger, 0, 20));
    params.append(make("SWEEP_TYPE", TreboltChoice, 0, 0));
    params.append(make("N_PT", TreboltInteger, 0, 10));
    params.append(make("START_FREQ", TreboltReal, 1));
    params.append(make("STOP_FREQ", TreboltReal, 1e6));
    TreboltStatements out;
    kvfe_CompileTreboltControls(params, &out, slots({TreboltSlotAc}), slots({TreboltSlotAc}));
    EXPECT_STREQ(out.options.c_str(), ".options\n+ POP_ITRMAX=20\n");
    EXPECT_STREQ(out.ac.c_str(), ".ac DEC 10 1 1meg\n");

    YList<TreboltParamValue> other;
    other.append(make("FREQ_DOMAIN", TreboltChoice, 0, 1));
    other.append(make("SWEEP_PARAM_DEPTH", TreboltChoice, 0, 1));
    TreboltStatements out2;
    kvfe_CompileTreboltControls(other, &out2, slots({}), slots({}));
    EXPECT_STREQ(out2.options.c_str(), ".options\n+ FREQ_DOMAIN=Z\n+ SWEEP_PARAM_DEPTH=HIERARCHY\n");
}

TEST(TreboltCompile, PspStartEqualToTsaveIsNotRepeated)
{
    Parsed p = parse(".tran 10m 2m\n");
    TreboltStatements out;
    kvfe_CompileTreboltControls(p.result.params, &out, p.enabled, p.present);
    EXPECT_STREQ(out.tran.c_str(), ".tran 10m 2m\n");
    EXPECT_EQ(out.options.str().find("PSP_START"), std::string::npos);
    EXPECT_EQ(out.options.str().find("PSP_END"), std::string::npos);
    EXPECT_EQ(get(p, "PSP_START").valid, 0);
}

TEST(TreboltCompile, CompilingTwiceRaisesPspNptTwice)
{
    YList<TreboltParamValue> params;
    params.append(make("PSP_NPT", TreboltInteger, 0, 100));
    TreboltStatements first, second;
    kvfe_CompileTreboltControls(params, &first, slots({}), slots({}));
    kvfe_CompileTreboltControls(params, &second, slots({}), slots({}));
    EXPECT_STREQ(first.options.c_str(), ".options\n+ PSP_NPT=101\n");
    EXPECT_STREQ(second.options.c_str(), ".options\n+ PSP_NPT=102\n");
    EXPECT_EQ(params[0].value.integer, 102);
}

// Integers beyond an int stop at its limits, as the Windows atoi reads them, never wrapping: a switch of
// 2^32 is on. PSP_NPT stops there too when it is read (one less) and written back (one more).
TEST(TreboltControls, IntegersBeyondAnIntStopAtItsLimits)
{
    EXPECT_TRUE(get(parse(".pop PPT_AUTO_MAX_PERIOD=4294967296\n"), "PPT_AUTO_MAX_PERIOD").value.flag);
    EXPECT_FALSE(get(parse(".pop PPT_AUTO_MAX_PERIOD=0\n"), "PPT_AUTO_MAX_PERIOD").value.flag);
    EXPECT_EQ(get(parse(".pop CYCLES_BEFORE_LAUNCH=4294967301\n"), "CYCLES_BEFORE_LAUNCH").value.integer, INT_MAX);
    EXPECT_EQ(get(parse(".options POP_ITRMAX=-99999999999\n"), "POP_ITRMAX").value.integer, INT_MIN);
    EXPECT_EQ(get(parse(".options POP_ITRMAX=  +2147483647x\n"), "POP_ITRMAX").value.integer, INT_MAX);
    EXPECT_EQ(get(parse(".options PSP_NPT=-2147483648\n"), "PSP_NPT").value.integer, INT_MIN);
    EXPECT_EQ(get(parse(".options PSP_NPT=2147483648\n"), "PSP_NPT").value.integer, INT_MAX - 1);
    YList<TreboltParamValue> params;
    params.append(make("PSP_NPT", TreboltInteger, 0, INT_MAX));
    TreboltStatements out;
    kvfe_CompileTreboltControls(params, &out, slots({}), slots({}));
    EXPECT_STREQ(out.options.c_str(), ".options\n+ PSP_NPT=2147483647\n");
}

TEST(TreboltCompile, EmptyOptionsWriteNothingButSelectedTranWritesItsName)
{
    YList<TreboltParamValue> params;
    TreboltParamValue stop = make("TSTOP", TreboltReal, 0);
    stop.valid = 0;
    TreboltParamValue save = make("TSAVE", TreboltReal, 0);
    save.valid = 0;
    TreboltParamValue itr = make("POP_ITRMAX", TreboltInteger, 0, 3);
    itr.valid = 0;
    params.append(stop);
    params.append(save);
    params.append(itr);
    TreboltStatements out;
    kvfe_CompileTreboltControls(params, &out, slots({TreboltSlotTran}), slots({TreboltSlotTran}));
    EXPECT_TRUE(out.options.isEmpty());
    EXPECT_STREQ(out.tran.c_str(), ".tran  \n");
}

TEST(TreboltCompile, FalseFlagIsOmittedFalseSwitchIsWritten)
{
    YList<TreboltParamValue> params;
    params.append(make("POP_SHOWDATA", TreboltFlag, 0, 0, false));
    params.append(make("PPT_AUTO_MAX_PERIOD", TreboltSwitch, 0, 0, false));
    params.append(make("NEW_ANALYSIS", TreboltFlag, 0, 0, true));
    TreboltStatements out;
    kvfe_CompileTreboltControls(params, &out, slots({TreboltSlotPop}), slots({TreboltSlotPop}));
    EXPECT_STREQ(out.options.c_str(), ".options\n+ NEW_ANALYSIS\n");
    EXPECT_STREQ(out.pop.c_str(), ".pop\n+ PPT_AUTO_MAX_PERIOD=0\n");
}

TEST(TreboltCompile, TextFormJoinsStatementsInItsOrder)
{
    YList<TreboltParamValue> params;
    params.append(make("TSTOP", TreboltReal, 1e-3));
    params.append(make("ALL", TreboltFlag, 0, 0, true));
    params.append(make("POP_ITRMAX", TreboltInteger, 0, 4));
    params.append(make("TRIG_GATE", TreboltText, 0, 0, false, "g"));
    params.append(make("SWEEP_TYPE", TreboltChoice, 0, 2));
    YString text("prefix\n");
    const auto all = slots({TreboltSlotTran, TreboltSlotAc, TreboltSlotPop});
    kvfe_CompileTreboltControls(params, &text, all, all);
    EXPECT_STREQ(text.c_str(), "prefix\n.ac OCT\n.print\n+ ALL\n.options\n+ POP_ITRMAX=4\n.pop\n+ TRIG_GATE=g\n.tran 1m\n");
}

// ---------------------------------------------------------------- round trips

TEST(TreboltRoundTrip, HandWrittenBlocksParseToTheSameSettings)
{
    const char* const blocks[] = {
        ".tran 10m 1m EARLY_START_SAVING_DATA_GATE=g0\n.pop TRIG_GATE=clk TRIG_COND=1_TO_0 MAX_PERIOD=12.5u\n"
        "+ CONVERGENCE=1e-13 PPT_AUTO_MAX_PERIOD=1\n.options PSP_NPT=51 POP_SHOWDATA FREQ_DOMAIN=Z\n",
        "*.tran 2u\n*.pop TRIG_GATE=x CYCLES_BEFORE_LAUNCH=7\n.ac dec 20 10 100meg\n.print NODE_V\n",
        "* header comment\n.simulator TREBOLT\n.tran 1m ; stop time\nR1 a b 1k\n.simulator Kalvonta\n.op\n"
        ".simulator TREBOLT|Kalvonta\n.include models.lib\n.simulator TREBOLT\n"
        ".options SWEEP_PARAM_DEPTH=HIERARCHY\n+ OUTPUT_FILE_FORMAT=csv MAX_TOPOLOGY=100\n",
        ".options PSP_START=1m PSP_END=9m PSP_NPT=11 SNAPSHOT_INTVL=0.5u SNAPSHOT_NPT=3\n.tran 9m 1m\n"
        "unknown line here\n\n.pop PPT_STOP_TIME=3.3m PPT_EARLY_STOP_GATE=g2 TD_RUN_AFTER_POP_FAILS=2u\n",
        "*.ac lin 5 1k 2k\n.options NEW_ANALYSIS IGNORE_UNITS NO_FORCED_DATA KALVONTA_FORM SAVE_INSTANTS_FILES\n"
        "+ POP_USE_TRAN_SNAPSHOT MIN_AVG_TOPOLOGY_DUR=2e-18 AVG_TOPOLOGY_DUR_MEASUREMENT_WINDOW=64\n"
        "+ AC_OUTPUT_FORMAT=db MAX_DELAY_EVENTS=9 TREBOLT_STARTUP_DELAY=2 STARTING_PT_ANLYS_ITRMAX=8\n"
        "+ STARTING_PT_ANLYS_DIGITAL_ITRMAX=6 MAX_DEBUG_DATA_SIZE=1000 MAX_MEMORY_ALLOCATION=512\n"
        "+ DEVICE_OP_ITRMAX=40 EMSG_MAX=7 POP_OUTPUT_CYCLES=2\n.tran 5m EARLY_STOP_ANALYSIS_GATE=done\n",
    };
    for (const char* block : blocks) {
        const Parsed first = parse(block);
        YList<TreboltParamValue> params = first.result.params;
        YString text;
        kvfe_CompileTreboltControls(params, &text, first.enabled, first.present);
        const Parsed second = parse(text.c_str());
        expectSameList(first.result.params, second.result.params, block);
        for (int slot = 0; slot < 7; ++slot) {
            EXPECT_EQ(first.enabled[slot], second.enabled[slot]) << block << " slot " << slot;
            EXPECT_EQ(first.present[slot], second.present[slot]) << block << " slot " << slot;
        }
    }
}

TEST(TreboltRoundTrip, RandomListsCompileParseCompileToTheSameText)
{
    // Every keyword with a random valid value of its type; text values hold no blanks or delimiters.
    const Parsed blank = parse("");
    std::mt19937 random(42);
    auto choiceCount = [&](const YString& name) {
        if (name == "SWEEP_TYPE" || name == "SWEEP_PARAM_DEPTH")
            return 3;
        return 2;
    };
    for (int round = 0; round < 200; ++round) {
        YList<TreboltParamValue> params;
        for (const TreboltParamValue& model : blank.result.params) {
            TreboltParamValue v = model;
            v.valid = 1;
            switch (v.type) {
            case TreboltReal: {
                // At most six significant digits, spread over many decades.
                const double mantissa = static_cast<double>(random() % 999999 + 1) / 1000.0;
                const int exponent = static_cast<int>(random() % 30) - 18;
                v.setReal(std::stod(std::to_string(static_cast<long long>(mantissa * 1000)) + "e" +
                                    std::to_string(exponent - 3)));
                break;
            }
            case TreboltInteger:
                v.setInteger(static_cast<int>(random() % 100000));
                break;
            case TreboltFlag:
            case TreboltSwitch:
                v.setFlag(random() % 2 == 0);
                break;
            case TreboltText:
                v.text = ("t" + std::to_string(random() % 1000) + "_x").c_str();
                break;
            case TreboltChoice:
                v.setInteger(static_cast<int>(random() % static_cast<unsigned>(choiceCount(v.name))));
                break;
            default:
                break;
            }
            params.append(v);
        }
        SelectTreboltAnalysisData::RunInfo enabled, present;
        for (int slot : {0, 1, 6}) {
            present[slot] = random() % 3 != 0;
            enabled[slot] = random() % 2 == 0;
        }
        YString firstText;
        kvfe_CompileTreboltControls(params, &firstText, enabled, present);
        const Parsed reparsed = parse(firstText.c_str());
        YList<TreboltParamValue> again = reparsed.result.params;
        YString secondText;
        kvfe_CompileTreboltControls(again, &secondText, reparsed.enabled, reparsed.present);
        ASSERT_STREQ(secondText.c_str(), firstText.c_str()) << "round " << round;
    }
}

// A text value cut at a brace (a brace expression that never closes) comes back shorter once; after
// that, rounds are stable by name, though the order of the list follows the text. Found by fuzzing.
TEST(TreboltRoundTrip, BraceInATextValueSettlesAfterOneRound)
{
    const std::string input = readFileBytes(testDataPath("fuzz-regressions/fuzz_trebolt/brace_in_text_value"));
    std::string text = input.c_str();
    std::vector<std::string> texts;
    std::vector<std::vector<std::string>> lists;
    for (int round = 0; round < 3; ++round) {
        Parsed p = parse(text.c_str());
        std::vector<std::string> byName;
        for (const TreboltParamValue& v : p.result.params)
            byName.push_back(std::string(v.name.c_str()) + "=" + v.text.c_str() + "/" + std::to_string(v.valid));
        std::sort(byName.begin(), byName.end());
        lists.push_back(byName);
        YString compiled;
        kvfe_CompileTreboltControls(p.result.params, &compiled, p.enabled, p.present);
        text = compiled.c_str();
        texts.push_back(text);
    }
    EXPECT_NE(texts[0], texts[1]);
    EXPECT_EQ(texts[1], texts[2]);
    EXPECT_EQ(lists[1], lists[2]);
}

// A Text value whose token is empty (the keyword and "=" end the line) is read as given, with empty
// text; the compiler writes no option for an empty value, so the next parse reads it as not given.
TEST(TreboltRoundTrip, AnEmptyTextValueIsReadAsGivenAndWrittenAsNothing)
{
    const Parsed first = parse(".pop MAX_PERIOD=1u TRIG_GATE=\n");
    EXPECT_EQ(get(first, "TRIG_GATE").valid, 1);
    EXPECT_STREQ(get(first, "TRIG_GATE").text.c_str(), "");
    YList<TreboltParamValue> params = first.result.params;
    YString compiled;
    kvfe_CompileTreboltControls(params, &compiled, first.enabled, first.present);
    EXPECT_STREQ(compiled.c_str(),
                 ".options\n+ POP_ITRMAX=20\n+ POP_OUTPUT_CYCLES=5\n+ SNAPSHOT_INTVL=0\n+ SNAPSHOT_NPT=11\n"
                 "+ MIN_AVG_TOPOLOGY_DUR=1e-18\n+ AVG_TOPOLOGY_DUR_MEASUREMENT_WINDOW=128\n"
                 ".pop\n+ MAX_PERIOD=1u\n+ CONVERGENCE=10f\n+ CYCLES_BEFORE_LAUNCH=5\n+ TD_RUN_AFTER_POP_FAILS=-1\n");
    const Parsed second = parse(compiled.c_str());
    EXPECT_EQ(get(second, "TRIG_GATE").valid, 0);
    EXPECT_DOUBLE_EQ(get(second, "MAX_PERIOD").value.real, 1e-6);
}

// The fuzzed form of the case above: a value cut at an unclosed brace leaves "TRIG_GATE=" at the end
// of a commented statement after the first round; the second and third rounds write the same text and
// differ only in that empty value. Found by fuzzing.
TEST(TreboltRoundTrip, AnEmptyTextValueAfterABraceSettlesInText)
{
    std::string text = readFileBytes(testDataPath("fuzz-regressions/fuzz_trebolt/empty_text_value_after_brace")).c_str();
    std::vector<std::string> texts;
    std::vector<std::pair<int, std::string>> trigGate;
    for (int round = 0; round < 3; ++round) {
        Parsed p = parse(text.c_str());
        const TreboltParamValue& gate = get(p, "TRIG_GATE");
        trigGate.emplace_back(gate.valid, gate.text.c_str());
        YString compiled;
        kvfe_CompileTreboltControls(p.result.params, &compiled, p.enabled, p.present);
        text = compiled.c_str();
        texts.push_back(text);
    }
    EXPECT_EQ(texts[1], texts[2]);
    EXPECT_EQ(trigGate[0].second.substr(0, 2), "{\xCE");
    EXPECT_EQ(trigGate[1], std::make_pair(1, std::string()));
    EXPECT_EQ(trigGate[2], std::make_pair(0, std::string()));
}

// A dialect directive applies from the next line: in HSPICE "$" starts a comment, so the comment line
// is no text of the statements.
TEST(TreboltParse, CommentCharacterOfTheDialectADirectiveNames)
{
    Parsed p = parse("*#HSPICE\n$ note\n.tran 1m\n");
    EXPECT_STREQ(p.result.treboltText.c_str(), "");
}

// The control block of a netlist: statements of either simulator, active or commented out, in any
// case, with their continuation lines; other lines, and "+" lines that continue them, are left out.
// Everything the parser makes of a text, compared whole: the list in order (reals bit for bit), the
// parameters as written, and both flag arrays.
void expectSameSettings(const Parsed& a, const Parsed& b, const std::string& context)
{
    ASSERT_EQ(a.result.params.count(), b.result.params.count()) << context;
    for (int i = 0; i < a.result.params.count(); ++i) {
        const TreboltParamValue& x = a.result.params[i];
        const TreboltParamValue& y = b.result.params[i];
        EXPECT_EQ(std::string(x.name.c_str()), y.name.c_str()) << context;
        EXPECT_EQ(x.type, y.type) << context << " " << x.name.c_str();
        EXPECT_EQ(x.valid, y.valid) << context << " " << x.name.c_str();
        EXPECT_EQ(std::memcmp(&x.value, &y.value, sizeof x.value), 0) << context << " " << x.name.c_str();
        EXPECT_EQ(std::string(x.text.c_str()), y.text.c_str()) << context << " " << x.name.c_str();
    }
    ASSERT_EQ(a.result.written.count(), b.result.written.count()) << context;
    for (int i = 0; i < a.result.written.count(); ++i) {
        EXPECT_EQ(std::string(a.result.written[i].name.c_str()), b.result.written[i].name.c_str()) << context;
        EXPECT_EQ(std::string(a.result.written[i].text.c_str()), b.result.written[i].text.c_str()) << context;
    }
    for (int slot = 0; slot < TreboltFlagSlotCount; ++slot) {
        EXPECT_EQ(a.enabled[slot], b.enabled[slot]) << context << " slot " << slot;
        EXPECT_EQ(a.present[slot], b.present[slot]) << context << " slot " << slot;
    }
}

// The block of a netlist, and the check that the parser makes the same settings of it as of the netlist.
std::string blockOf(const std::string& netlist)
{
    const YString block = kvfe_TreboltControlStatementLines(YString(netlist.c_str()));
    const Parsed fromBlock = parse(block.c_str());
    const Parsed fromNetlist = parse(netlist.c_str());
    expectSameSettings(fromBlock, fromNetlist, "block of [" + netlist + "]");
    return block.c_str();
}

TEST(TreboltControlLines, KeepsStatementsAsTheReaderJoinsThem)
{
    // The blank line before "+ stray" is passed over, as the netlist reader passes it over: "+ stray"
    // continues the ".TRAN" statement. ".tranx" is read as the ".tran" statement being there.
    EXPECT_EQ(blockOf("* title\n"
                      "R1 a b 1k\n"
                      "+ tc=1\n"
                      ".TRAN 1m 2m\n"
                      "  + EARLY_STOP_ANALYSIS_GATE=g\n"
                      "\n"
                      "+ stray\n"
                      "*.pop TRIG_GATE=g\n"
                      ".simulator kalvonta\n"
                      ".options(PSP_NPT=3)\n"
                      ".tranx 1\n"
                      ".print ALL"),
              ".TRAN 1m 2m  EARLY_STOP_ANALYSIS_GATE=g  stray\n"
              "*.pop TRIG_GATE=g\n"
              ".simulator kalvonta\n"
              ".options(PSP_NPT=3)\n"
              ".tranx 1\n"
              ".print ALL\n");
}

// Comment lines of every comment character and blank lines between a statement and its continuation
// neither end the statement nor join the block.
TEST(TreboltControlLines, CommentAndBlankLinesBeforeAContinuationAreSkipped)
{
    const std::string netlist("R1 a b 1k\n"
                              ".options POP_ITRMAX=3\n"
                              "* note\n"
                              "  * another\n"
                              "; a third\n"
                              "\t\n"
                              "+ POP_OUTPUT_CYCLES=7\n"
                              "R2 c d 2k\n"
                              "+ tc=1\n");
    EXPECT_EQ(blockOf(netlist), ".options POP_ITRMAX=3  POP_OUTPUT_CYCLES=7\n");
    const Parsed fromBlock = parse(kvfe_TreboltControlStatementLines(netlist.c_str()).c_str());
    EXPECT_EQ(get(fromBlock, "POP_OUTPUT_CYCLES").valid, 1);
    EXPECT_EQ(get(fromBlock, "POP_OUTPUT_CYCLES").value.integer, 7);
}

// Every line end of the reader ends a line: CR LF and a lone CR as a line feed does.
TEST(TreboltControlLines, EveryLineEndEndsALine)
{
    EXPECT_EQ(blockOf(".options\r\n+ POP_ITRMAX=3\r\n.pop\r\n+ TRIG_GATE=g\r\nR1 a b 1k\r\n"),
              ".options  POP_ITRMAX=3\n.pop  TRIG_GATE=g\n");
    EXPECT_EQ(blockOf("R1 a b 1k\r.tran 1m 2m\r+ PSP_NPT=5\rR2 c d 2k"), ".tran 1m 2m  PSP_NPT=5\n");
    EXPECT_EQ(get(parse(blockOf(".pop\r\n+ MAX_PERIOD=1u\r\n").c_str()), "MAX_PERIOD").value.real, 1e-6);
}

// A dialect directive at the top sets the comment character; the block keeps it.
TEST(TreboltControlLines, TheDialectOfTheNetlistIsKept)
{
    EXPECT_EQ(blockOf("*#HSPICE\n.tran 1m $ stop time\n"), "*#HSPICE\n.tran 1m \n");
    EXPECT_EQ(get(parse(blockOf("*#HSPICE\n.tran 1m $ stop time\n").c_str()), "TSAVE").valid, 0);
    // In that dialect ";" is no comment, and stays in the statement.
    EXPECT_EQ(blockOf("*#HSPICE\n.print a;b\n"), "*#HSPICE\n.print a;b\n");
    // A directive below the first line that is not a comment changes nothing.
    EXPECT_EQ(blockOf("R1 a b 1k\n*#HSPICE\n.tran 1m $ stop time\n"), ".tran 1m $ stop time\n");
}

// Only statements with a flag slot are read when commented out: a "*.options" line is a comment, and
// the "+" line after it continues the line before the comment.
TEST(TreboltControlLines, OnlyFlaggedStatementsAreReadCommentedOut)
{
    EXPECT_EQ(blockOf("R1 a b 1k\n*.options POP_ITRMAX=3\n+ tc=1\n"), "");
    EXPECT_EQ(blockOf("*.pop TRIG_GATE=g\n+ MAX_PERIOD=2u\n*.ac DEC 10 1 1k\n"),
              "*.pop TRIG_GATE=g  MAX_PERIOD=2u\n*.ac DEC 10 1 1k\n");
    EXPECT_EQ(blockOf("*.tran 1m\n"), "*.tran 1m\n");
}

// A byte 0xFF ends the netlist for the reader, but a statement commented out after it still clears its
// flag: the block ends with the byte and the statement's word, so that it gives the same flags.
TEST(TreboltControlLines, StatementsCommentedOutAfterAByteFFKeepTheirFlags)
{
    EXPECT_EQ(blockOf(".tran 1m\n\xFF\n*.pop MAX_PERIOD=1u\n*.ac DEC 1 1 1\n.pop x\n"),
              ".tran 1m\n\xFF\n*.pop\n*.ac\n");
    const Parsed fromBlock = parse(blockOf(".tran 1m\n\xFF\n*.pop MAX_PERIOD=1u\n").c_str());
    EXPECT_FALSE(fromBlock.enabled[TreboltSlotPop]);
    EXPECT_EQ(get(fromBlock, "MAX_PERIOD").valid, 0);
    // Without one after the byte, the block is as before.
    EXPECT_EQ(blockOf(".tran 1m\n\xFF\n.pop MAX_PERIOD=1u\n"), ".tran 1m\n");
    EXPECT_EQ(blockOf("*.pop MAX_PERIOD=1u\nx\xFF"), "*.pop MAX_PERIOD=1u\n");
}

// A statement's name stands first after blanks and tabs; other white space makes it a different word.
TEST(TreboltControlLines, IndentationIsBlanksAndTabs)
{
    EXPECT_EQ(blockOf(" \t.ac DEC 10 1 1k\n"), ".ac DEC 10 1 1k\n");
    EXPECT_EQ(blockOf("\xC2\xA0\t.ac DEC 10 1 1k\n"), "");
    EXPECT_EQ(blockOf("* .ac DEC 10 1 1k\n"), "");
    EXPECT_EQ(blockOf(""), "");
}

// Random netlists of statements, comments of every kind, continuations, line ends, directives and
// dropped bytes: the parser makes the same settings of the block as of the netlist.
TEST(TreboltControlLines, TheBlockParsesToTheSettingsOfTheNetlist)
{
    const char* const pieces[] = {".tran 1m 2m", "*.tran 5n", ".TRAN 1u", ".tranx 7", "*.tranq",
                                  ".pop TRIG_GATE=g", "*.pop MAX_PERIOD=1u", ".pop", ".ac DEC 10 1 1k", "*.ac LIN 5",
                                  ".options POP_ITRMAX=3", "*.options POP_ITRMAX=9", ".options", ".print ALL", ".print a;b",
                                  ".simulator kalvonta", ".simulator trebolt", ".simulator", "+ PSP_NPT=4", "+ POP_OUTPUT_CYCLES=7",
                                  "+ TSAVE=1n", "+", "  + MAX_PERIOD=3u", "* comment", "; comment", "$ comment", "",
                                  " \t", "R1 a b 1k", "X1 a b sub", "*#HSPICE", "*#PSPICE", "*#KALVONTA sep=.", "  *#HSPICE",
                                  ".tran 1m $ stop", ".tran 2m ; stop", ".op\x01tions POP_ITRMAX=5", "{a{b}}", "+ {x}",
                                  "\xC2\xA0.ac DEC 1 1 1", "\xFF", "x\xFF*.pop"};
    const char* const ends[] = {"\n", "\r\n", "\r", "\n\n"};
    std::mt19937 random(20261127);
    for (int round = 0; round < 3000; ++round) {
        std::string netlist;
        const int count = static_cast<int>(random() % 12);
        for (int i = 0; i < count; ++i) {
            netlist += pieces[random() % (sizeof pieces / sizeof *pieces)];
            netlist += ends[random() % 4];
        }
        blockOf(netlist);
        if (HasFailure())
            break;
    }
}

TEST(TreboltWritten, TheGivenParametersKeepTheirTokensAsWritten)
{
    const Parsed p = parse(".options PSP_NPT=101 POP_SHOWDATA psp_npt=7\n.pop TRIG_COND=0_to_1 MAX_PERIOD=2.2u TRIG_COND=bogus\n");
    const YList<TreboltWrittenParam>& w = p.result.written;
    ASSERT_EQ(w.count(), 4);
    EXPECT_EQ(w[0].name, YString("PSP_NPT"));
    EXPECT_EQ(w[0].text, YString("101"));
    EXPECT_EQ(w[1].name, YString("POP_SHOWDATA"));
    EXPECT_EQ(w[1].text, YString());
    EXPECT_EQ(w[2].name, YString("TRIG_COND"));
    EXPECT_EQ(w[2].text, YString("0_to_1"));
    EXPECT_EQ(w[3].text, YString("2.2u"));
    // The settings are as before: PSP_NPT keeps intervals.
    EXPECT_EQ(get(p, "PSP_NPT").value.integer, 100);
    // A choice that names no choice is not given.
    EXPECT_TRUE(parse(".pop TRIG_COND=sideways\n").result.written.isEmpty());
}

TEST(TreboltWritten, ChoiceNamesComeFromTheTables)
{
    EXPECT_STREQ(kvfe_TreboltChoiceName("TRIG_COND", 1), "1_TO_0");
    EXPECT_STREQ(kvfe_TreboltChoiceName("sweep_param_depth", 2), "GLOBAL");
    EXPECT_STREQ(kvfe_TreboltChoiceName("SWEEP_TYPE", 0), "DEC");
    EXPECT_EQ(kvfe_TreboltChoiceName("FREQ_DOMAIN", 2), nullptr);
    EXPECT_EQ(kvfe_TreboltChoiceName("FREQ_DOMAIN", -1), nullptr);
    EXPECT_EQ(kvfe_TreboltChoiceName("PSP_NPT", 0), nullptr);
    EXPECT_EQ(kvfe_TreboltChoiceName("NO_SUCH", 0), nullptr);
    EXPECT_EQ(kvfe_TreboltChoiceName(nullptr, 0), nullptr);
}
