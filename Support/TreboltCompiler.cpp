// TreboltCompiler.cpp - typed parameter values written back as the switching simulator's statements.
#include "TextServices.h"
#include "TreboltControls.h"
#include "TreboltTables_p.h"

#include <climits>

using trebolt::ParamDef;
using trebolt::StatementDef;
using trebolt::findParam;
using trebolt::kStatementCount;
using trebolt::kStatements;

namespace {

// The value as it stands in a statement; empty when the entry is not given.
YString valueText(const TreboltParamValue& entry, const ParamDef& def)
{
    if (!entry.valid)
        return YString();
    switch (def.type) {
    case TreboltReal:
        return sp_ConvertRealToJSEng(entry.value.real, 6, false);
    case TreboltInteger:
        return YString(entry.value.integer);
    case TreboltText:
        return entry.text;
    case TreboltChoice: {
        const int index = entry.value.integer;
        if (index < 0 || index > 3 || !def.choices[index])
            return YString();
        // The default choice is not written.
        if (def.defaultIfPresent && index == static_cast<int>(def.presentDefault))
            return YString();
        return YString(def.choices[index]);
    }
    default:
        return YString();
    }
}

// "KEYWORD=value", "KEYWORD" for a set flag, "KEYWORD=1"/"KEYWORD=0" for a switch; empty when there is
// nothing to write.
YString optionText(const TreboltParamValue& entry, const ParamDef& def)
{
    if (!entry.valid)
        return YString();
    YString text(def.keyword);
    switch (def.type) {
    case TreboltFlag:
        return entry.value.flag ? text : YString();
    case TreboltSwitch:
        return text.append(entry.value.flag ? "=1" : "=0");
    default: {
        const YString value = valueText(entry, def);
        if (value.isEmpty())
            return YString();
        return text.append("=").append(value.c_str(), value.length());
    }
    }
}

void writeStatement(const StatementDef& statement, const YList<TreboltParamValue>& params, bool commentedOut,
                    YString* field)
{
    YString body;
    for (int i = 0; i < statement.positionalCount; ++i) {
        const int at = findParam(params, statement.positional[i].keyword);
        if (at < 0)
            continue;
        // The blank stands even when the value is empty, so that later values keep their positions.
        body.append(" ");
        body += valueText(params[at], statement.positional[i]);
    }
    for (int i = 0; i < statement.namedCount; ++i) {
        const int at = findParam(params, statement.named[i].keyword);
        if (at < 0)
            continue;
        const YString option = optionText(params[at], statement.named[i]);
        if (option.isEmpty())
            continue;
        // A commented-out statement must stay on one line.
        body.append(commentedOut ? " " : "\n+ ");
        body += option;
    }
    if (body.isEmpty())
        return;
    if (commentedOut)
        field->append("*");
    field->append(statement.name);
    *field += body;
    field->append("\n");
}

YString* fieldOf(TreboltStatements* statements, const char* name)
{
    const YString key(name);
    if (key == ".pop")
        return &statements->pop;
    if (key == ".ac")
        return &statements->ac;
    if (key == ".tran")
        return &statements->tran;
    if (key == ".options")
        return &statements->options;
    return &statements->print;
}

// Marks `copy` not given when it holds the same number as `original`: the parser made it a copy.
void undoCopy(YList<TreboltParamValue>& params, const char* copy, const char* original)
{
    const int c = findParam(params, copy);
    const int o = findParam(params, original);
    if (c >= 0 && o >= 0 && params[c].value.real == params[o].value.real)
        params[c].valid = 0;
}

} // namespace

void kvfe_CompileTreboltControls(YList<TreboltParamValue>& params, TreboltStatements* statements,
                                 const SelectTreboltAnalysisData::RunInfo& enabled,
                                 const SelectTreboltAnalysisData::RunInfo& present)
{
    if (!statements)
        return;
    undoCopy(params, "PSP_START", "TSAVE");
    undoCopy(params, "PSP_END", "TSTOP");
    const int npt = findParam(params, "PSP_NPT");
    if (npt >= 0)
        params[npt].setInteger(params[npt].value.integer < INT_MAX ? params[npt].value.integer + 1 : INT_MAX);

    for (int row = kStatementCount - 1; row >= 0; --row) {
        const StatementDef& statement = kStatements[row];
        bool commentedOut = false;
        if (statement.flagSlot != trebolt::kNoFlagSlot) {
            if (!present[statement.flagSlot])
                continue;
            commentedOut = !enabled[statement.flagSlot];
        }
        writeStatement(statement, params, commentedOut, fieldOf(statements, statement.name));
    }
}

void kvfe_CompileTreboltControls(YList<TreboltParamValue>& params, YString* text,
                                 const SelectTreboltAnalysisData::RunInfo& enabled,
                                 const SelectTreboltAnalysisData::RunInfo& present)
{
    TreboltStatements statements;
    kvfe_CompileTreboltControls(params, &statements, enabled, present);
    if (!text)
        return;
    for (const YString* field : {&statements.ac, &statements.print, &statements.options, &statements.pop,
                                 &statements.tran})
        if (!field->isEmpty())
            *text += *field;
}
