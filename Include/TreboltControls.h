// TreboltControls.h - the switching simulator's control statements: parsing them into typed settings
// and writing settings back as statements.
#pragma once

#include "SupportQtExport.h"
#include "YContainers.h"
#include "YString.h"

/// How a parameter's value token is read.
enum TreboltParamType : int {
    TreboltReal = 0,    ///< engineering notation ("1.5u")
    TreboltInteger = 1, ///< decimal integer, read as atoi reads it but stopping at INT_MIN and INT_MAX
    TreboltFlag = 2,    ///< takes no value; present means true
    TreboltSwitch = 3,  ///< decimal integer; non-zero means true
    TreboltText = 4,    ///< the token as it stands
    TreboltChoice = 5,  ///< index (0 to 3) of the token among the parameter's choice names, any case
    TreboltNone = 6     ///< type of an empty value
};

/// The converted value: `real` for Real, `integer` for Integer and Choice, `flag` for Flag and Switch.
union TreboltValue {
    double real;
    int integer;
    bool flag;
};

/// One parameter setting.
struct TreboltParamValue {
    TreboltValue value = {0.0};
    YString name;                      ///< keyword as spelled in the parameter table
    YString text;                      ///< the token, for Text parameters
    int valid = 0;                     ///< 1 when given or defaulted, 0 when not given
    TreboltParamType type = TreboltNone;

    void setReal(double v) { value = TreboltValue{0.0}; value.real = v; }
    void setInteger(int v) { value = TreboltValue{0.0}; value.integer = v; }
    void setFlag(bool v) { value = TreboltValue{0.0}; value.flag = v; }
};

/// The flag slot of each statement that has one (slots 2 to 5 are not used by these statements).
enum TreboltFlagSlot : int {
    TreboltSlotTran = 0,     ///< ".tran"
    TreboltSlotAc = 1,       ///< ".ac"
    TreboltSlotPop = 6,      ///< ".pop"
    TreboltFlagSlotCount = 7 ///< length of a flag array
};

/// A statement with a flag slot.
struct TreboltSlotStatement {
    const char* name;     ///< as written in a netlist, lower case
    TreboltFlagSlot slot; ///< its slot in the flag arrays
};

/// The statements that have a flag slot, in the order they are listed to the user.
inline constexpr TreboltSlotStatement kTreboltSlotStatements[] = {
    {".tran", TreboltSlotTran}, {".ac", TreboltSlotAc}, {".pop", TreboltSlotPop}};

/// Analysis selections, one bool per `TreboltFlagSlot`.
struct SelectTreboltAnalysisData {
    struct RunInfo {
        bool flags[TreboltFlagSlotCount] = {};
        bool& operator[](int slot) { return flags[slot]; }
        bool operator[](int slot) const { return flags[slot]; }
    };
};

/// A parameter given in a block of control statements, with its value token as the designer wrote it.
struct TreboltWrittenParam {
    YString name; ///< keyword as spelled in the parameter table
    YString text; ///< the value token as written; empty for a flag
};

/// What `kvfe_ParseTreboltCommands` fills. The caller owns the result and the two flag arrays
/// (`TreboltFlagSlotCount` bools each) and clears `presentFlags` beforehand.
struct TreboltCommandParseResult {
    YList<TreboltParamValue> params; ///< in the order first met, then the completed ones
    YString treboltText;             ///< raw text of the kept lines for the switching simulator only
    YString kalvontaText;            ///< raw text of the kept lines for the main simulator only
    YString commonText;              ///< raw text of the kept lines for both or for no declared simulator
    bool* enabledFlags = nullptr;    ///< per slot: false when the statement stood commented out
    bool* presentFlags = nullptr;    ///< per slot: true when the statement was read
    YList<TreboltWrittenParam> written; ///< the parameters given in the text (the first of each), in `params` order
};

/// Text of each statement that `kvfe_CompileTreboltControls` writes, or empty.
struct TreboltStatements {
    YString pop;
    YString ac;
    YString tran;
    YString options;
    YString print;
};

/// Reads a block of control statements (".tran", ".pop", ".options", ".print", ".ac", and ".simulator"
/// lines naming the simulator the following lines are for) into `result`: known parameters typed and
/// completed with their defaults, statement flags set, and every line not understood kept as raw text
/// by target simulator. `params` is appended to. A commented-out statement ("*.tran ...") is read like
/// an active one and marked disabled.
SUPPORTQT_API void kvfe_ParseTreboltCommands(const char* text, TreboltCommandParseResult* result);

/// The choice keyword at `index` of the choice parameter `keyword` (any case), as the compiler writes it;
/// null when the parameter has no such choice.
SUPPORTQT_API const char* kvfe_TreboltChoiceName(const char* keyword, int index);

/// The control statements of the netlist `text` (".options", ".print" and ".simulator", any case; ".tran",
/// ".ac" and ".pop" also commented out with "*" and under a longer name that begins with theirs), as the
/// netlist reader reads them: each a logical line, its "+" continuation
/// lines joined and its comments left out, in file order and each ended by a line feed; a commented-out
/// one keeps its "*", and a netlist in the dialect with "$" comments gets its directive first. Parsed
/// with `kvfe_ParseTreboltCommands`, the block gives the settings and flags that the whole netlist gives;
/// only the kept lines differ, since the block holds no other lines. The text ends at its first zero byte.
/// A byte 0xFF ends the reading there, but statements commented out after it still clear their flags: the
/// block then ends with a line of that byte, then "*" and the name of each of them, one per line.
SUPPORTQT_API YString kvfe_TreboltControlStatementLines(const YString& text);

/// Writes `params` back as statements, the disabled ones commented out on one line, into the field of
/// each statement (appended to). `params` is changed on purpose so that it matches the text: a
/// PSP_START or PSP_END equal to TSAVE or TSTOP is marked not given, and PSP_NPT grows by one.
SUPPORTQT_API void kvfe_CompileTreboltControls(YList<TreboltParamValue>& params, TreboltStatements* statements,
                                               const SelectTreboltAnalysisData::RunInfo& enabled,
                                               const SelectTreboltAnalysisData::RunInfo& present);
/// As above, appending the statements to `*text` in the order ".ac", ".print", ".options", ".pop", ".tran".
SUPPORTQT_API void kvfe_CompileTreboltControls(YList<TreboltParamValue>& params, YString* text,
                                               const SelectTreboltAnalysisData::RunInfo& enabled,
                                               const SelectTreboltAnalysisData::RunInfo& present);
