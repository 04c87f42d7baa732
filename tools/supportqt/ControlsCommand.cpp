// ControlsCommand.cpp - `controls`: the switching simulator's settings read from a netlist or a control
// block, and the statements written back.
#include "Commands.h"
#include "Tool.h"

#include "TextFile.h"
#include "TextServices.h"
#include "TreboltControls.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

namespace {

const char* typeName(TreboltParamType type)
{
    switch (type) {
    case TreboltReal: return "real";
    case TreboltInteger: return "integer";
    case TreboltFlag: return "flag";
    case TreboltSwitch: return "switch";
    case TreboltText: return "text";
    case TreboltChoice: return "choice";
    case TreboltNone: break;
    }
    return "none";
}

// Where a setting's value came from: written in the statements, filled in by the parser, or neither.
enum class Origin { Given, Default, NotSet };

const char* originName(Origin origin)
{
    switch (origin) {
    case Origin::Given: return "given";
    case Origin::Default: return "default";
    case Origin::NotSet: break;
    }
    return "not set";
}

// The token the designer wrote for `name`, or null when the parameter was not written.
const TreboltWrittenParam* writtenParam(const YList<TreboltWrittenParam>& written, const YString& name)
{
    for (int i = 0; i < written.count(); ++i)
        if (written[i].name.equalsNoCase(name.c_str()))
            return &written[i];
    return nullptr;
}

Origin originOf(const TreboltParamValue& v, const YList<TreboltWrittenParam>& written)
{
    if (writtenParam(written, v.name))
        return Origin::Given;
    return v.valid ? Origin::Default : Origin::NotSet;
}

// The value as the table shows it: the token as written where the parameter was given (a flag shows
// "true"), otherwise the value as the compiler would write it; empty when the parameter is not set.
std::string valueText(const TreboltParamValue& v, const YList<TreboltWrittenParam>& written)
{
    if (const TreboltWrittenParam* w = writtenParam(written, v.name))
        return v.type == TreboltFlag ? std::string("true") : std::string(w->text.str());
    if (!v.valid)
        return std::string();
    switch (v.type) {
    case TreboltReal: return sp_ConvertRealToJSEng(v.value.real, 6, false).str();
    case TreboltInteger: return std::to_string(v.value.integer);
    case TreboltChoice: {
        const char* name = kvfe_TreboltChoiceName(v.name.c_str(), v.value.integer);
        return name ? std::string(name) : std::to_string(v.value.integer);
    }
    case TreboltFlag: return v.value.flag ? "true" : "false";
    case TreboltSwitch: return v.value.flag ? "1" : "0";
    case TreboltText: return v.text.str();
    case TreboltNone: break;
    }
    return std::string();
}

QJsonValue valueJson(const TreboltParamValue& v)
{
    if (!v.valid)
        return QJsonValue(QJsonValue::Null);
    switch (v.type) {
    case TreboltReal: return jsonReal(v.value.real);
    case TreboltInteger:
    case TreboltChoice: return v.value.integer;
    case TreboltFlag:
    case TreboltSwitch: return v.value.flag;
    case TreboltText: return toQs(v.text);
    case TreboltNone: break;
    }
    return QJsonValue(QJsonValue::Null);
}

} // namespace

int runControls(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("controls"), QStringLiteral("FILE [--block] [--compile] [--json]"),
                        QStringLiteral("Reads the switching simulator's control statements (.tran, .pop, .options, .print, .ac\n"
                                       "and .simulator, active or commented out with \"*\") from a netlist and prints the settings:\n"
                                       "every parameter with its type, whether it was given, and its value; then the statements\n"
                                       "found and the lines kept for each simulator."));
    command.addOption({QStringLiteral("block")}, QStringLiteral("Read the whole file as one control block, not only its control statements."));
    command.addOption({QStringLiteral("compile")}, QStringLiteral("Also write the settings back as control statements."));
    command.addJsonOption();
    const int early = command.parse(arguments, 1, 1);
    if (early >= 0)
        return early;
    // The file's format is looked at before its text is read: it must be one that can be read twice.
    QString path;
    if (!command.regularInputArgument(&path))
        return command.inputFailure();
    // The netlist's bytes as the netlist reader takes them: a UTF-16 file through its UTF-8 text (line
    // ends made LF), any other as it is, its line ends, 0xFF and bytes of other encodings left to the
    // parser's own reader.
    bool wide = false;
    QByteArray bytes;
    if (sp_DetectTextFileFormat(path, &wide, nullptr, nullptr, nullptr) && wide) {
        bool ok = false;
        bytes = sp_LoadFile(path, "auto", &ok).toUtf8();
        if (!ok)
            return command.fail(ExitFailure, QStringLiteral("cannot read %1").arg(path));
    } else {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            return command.fail(ExitFailure, QStringLiteral("cannot read %1").arg(path));
        bytes = file.readAll();
        if (file.error() != QFileDevice::NoError)
            return command.fail(ExitFailure, QStringLiteral("cannot read %1").arg(path));
    }
    // The parser takes text that a zero byte ends; the netlist reader drops zero bytes, so they go here.
    bytes.replace(QByteArray(1, '\0'), QByteArray());
    const YString readable(bytes.constData(), bytes.size());
    const YString block = command.isSet(QStringLiteral("block")) ? readable : kvfe_TreboltControlStatementLines(readable);

    TreboltCommandParseResult result;
    SelectTreboltAnalysisData::RunInfo enabled, present;
    result.enabledFlags = enabled.flags;
    result.presentFlags = present.flags;
    kvfe_ParseTreboltCommands(block.c_str(), &result);

    YString compiled;
    const bool compile = command.isSet(QStringLiteral("compile"));
    if (compile) {
        YList<TreboltParamValue> params = result.params;
        kvfe_CompileTreboltControls(params, &compiled, enabled, present);
    }

    if (command.json()) {
        QJsonArray params;
        for (const TreboltParamValue& v : result.params) {
            const Origin origin = originOf(v, result.written);
            params.append(QJsonObject{{QStringLiteral("name"), toQs(v.name)},
                                      {QStringLiteral("type"), QString::fromLatin1(typeName(v.type))},
                                      {QStringLiteral("given"), origin == Origin::Given},
                                      {QStringLiteral("origin"), QString::fromLatin1(originName(origin))},
                                      {QStringLiteral("value"), valueJson(v)},
                                      {QStringLiteral("text"), QString::fromStdString(valueText(v, result.written))}});
        }
        QJsonArray statements;
        for (const TreboltSlotStatement& s : kTreboltSlotStatements)
            statements.append(QJsonObject{{QStringLiteral("name"), QString::fromLatin1(s.name)},
                                          {QStringLiteral("present"), present[s.slot]},
                                          {QStringLiteral("enabled"), enabled[s.slot]}});
        QJsonObject out{{QStringLiteral("file"), shownPath(path)},
                        {QStringLiteral("params"), params},
                        {QStringLiteral("statements"), statements},
                        {QStringLiteral("kept"), QJsonObject{{QStringLiteral("switching"), toQs(result.treboltText)},
                                                             {QStringLiteral("main"), toQs(result.kalvontaText)},
                                                             {QStringLiteral("common"), toQs(result.commonText)}}}};
        if (compile)
            out.insert(QStringLiteral("compiled"), toQs(compiled));
        printJson(out);
        return ExitOk;
    }

    Output out;
    out.pad("name", 36) << ' ';
    out.pad("type", 8) << ' ';
    out.pad("given", 7) << "  value\n";
    for (const TreboltParamValue& v : result.params) {
        out.pad(v.name.str(), 36) << ' ';
        out.pad(typeName(v.type), 8) << ' ';
        out.pad(originName(originOf(v, result.written)), 7) << "  " << valueText(v, result.written) << '\n';
    }
    out << "\nstatements:\n";
    for (const TreboltSlotStatement& s : kTreboltSlotStatements) {
        out << "  ";
        out.pad(s.name, 6) << (present[s.slot] ? "  present" : "  absent ") << (enabled[s.slot] ? "  enabled\n" : "  commented out\n");
    }
    const struct {
        const char* title;
        const YString* text;
    } kept[] = {{"kept for the switching simulator", &result.treboltText},
                {"kept for the main simulator", &result.kalvontaText},
                {"kept for both", &result.commonText}};
    for (const auto& k : kept) {
        out << '\n' << k.title << ":\n";
        for (const QString& line : toQs(*k.text).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            out << "  " << line << '\n';
    }
    if (compile)
        out << "\nwritten back:\n" << compiled;
    return ExitOk;
}
