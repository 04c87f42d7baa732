// TreboltTables_p.h - the statement and parameter tables shared by the control parser and compiler.
#pragma once

#include "TreboltControls.h"

namespace trebolt {

/// One parameter of a statement.
struct ParamDef {
    const char* keyword;
    TreboltParamType type;
    bool defaultIfPresent; ///< defaulted when the statement was found
    bool defaultIfAbsent;  ///< defaulted when the statement was not found
    double presentDefault;
    double absentDefault;
    const char* choices[4]; ///< null where the row has fewer
};

/// `StatementDef::flagSlot` of a statement without a flag slot.
constexpr int kNoFlagSlot = -1;

/// One statement: its named and positional parameters, and its slot in the flag arrays (or kNoFlagSlot).
struct StatementDef {
    const char* name;
    const ParamDef* named;
    int namedCount;
    const ParamDef* positional;
    int positionalCount;
    int flagSlot;
};

/// The number of statements in `kStatements`.
constexpr int kStatementCount = 5;
extern const StatementDef kStatements[kStatementCount];

/// The definition of `keyword` (any case) in `statement`'s named or positional table, or null.
const ParamDef* findParamDef(const StatementDef& statement, const char* keyword);
/// Index in `params` of the entry named `keyword` (any case), or -1.
int findParam(const YList<TreboltParamValue>& params, const char* keyword);

} // namespace trebolt
