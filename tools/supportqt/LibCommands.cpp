// LibCommands.cpp - `lib`: the sections, definitions, problems and differences of model libraries, and
// extraction of definitions into one library, as the library's model-library index gives them.
#include "Commands.h"
#include "Tool.h"

#include "FileReplace.h"
#include "LibraryStream.h"
#include "ModelLibrary.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

// Rows of text cells printed with each column as wide as its widest cell, in characters.
class Table {
public:
    explicit Table(std::vector<std::string> header) { m_rows.push_back(std::move(header)); }
    void add(std::vector<std::string> row) { m_rows.push_back(std::move(row)); }
    void print(Output& out, const std::vector<bool>& rightAligned) const
    {
        std::vector<size_t> width;
        for (const auto& row : m_rows)
            for (size_t i = 0; i < row.size(); ++i) {
                if (width.size() <= i)
                    width.push_back(0);
                width[i] = std::max(width[i], textColumns(row[i]));
            }
        for (const auto& row : m_rows) {
            std::string line;
            for (size_t i = 0; i < row.size(); ++i) {
                const bool right = i < rightAligned.size() && rightAligned[i];
                const std::string fill(width[i] - textColumns(row[i]), ' ');
                line += right ? fill + row[i] : row[i] + (i + 1 < row.size() ? fill : std::string());
                if (i + 1 < row.size())
                    line += "  ";
            }
            out << line << '\n';
        }
    }

private:
    std::vector<std::vector<std::string>> m_rows;
};

const char* kindName(ModelLibDefinition::Kind kind) { return kind == ModelLibDefinition::Subckt ? ".subckt" : ".model"; }

QString qs(std::string_view s) { return QString::fromUtf8(s.data(), static_cast<int>(s.size())); }

// A definition of one of the indexed files.
struct DefinitionOf {
    const ModelLibIndex* file;
    const ModelLibDefinition* definition;
};

std::string detail(const ModelLibIndex& file, const ModelLibDefinition& d)
{
    if (d.kind == ModelLibDefinition::Model) {
        const std::string type(file.type(d));
        const std::string ako(file.akoBase(d));
        return ako.empty() ? type : "AKO:" + ako + (type.empty() ? "" : " " + type);
    }
    std::string ports;
    for (std::string_view p : file.ports(d))
        ports += (ports.empty() ? "" : " ") + std::string(p);
    return ports;
}

QJsonObject definitionJson(const ModelLibIndex& file, const ModelLibDefinition& d)
{
    QJsonArray ports;
    for (std::string_view p : file.ports(d))
        ports.append(qs(p));
    QJsonObject o{{QStringLiteral("kind"), QString::fromLatin1(kindName(d.kind))},
                  {QStringLiteral("name"), qs(file.name(d))},
                  {QStringLiteral("file"), shownPath(toQs(file.fileName))},
                  {QStringLiteral("line"), d.line},
                  {QStringLiteral("lastLine"), d.lastLine},
                  {QStringLiteral("start"), d.start},
                  {QStringLiteral("end"), d.end},
                  {QStringLiteral("lineOffset"), d.line - 1}};
    if (d.kind == ModelLibDefinition::Model)
        o.insert(QStringLiteral("type"), qs(file.type(d)));
    else
        o.insert(QStringLiteral("ports"), ports);
    if (!file.akoBase(d).empty())
        o.insert(QStringLiteral("akoBase"), qs(file.akoBase(d)));
    return o;
}

const char* problemKindName(ModelLibProblem::Kind kind)
{
    switch (kind) {
    case ModelLibProblem::Duplicate: return "duplicate";
    case ModelLibProblem::MissingFile: return "missing-file";
    case ModelLibProblem::MissingSection: return "missing-section";
    case ModelLibProblem::ReferenceCycle: return "reference-cycle";
    case ModelLibProblem::UnresolvedAkoBase: return "unresolved-ako-base";
    case ModelLibProblem::AkoBaseAfter: return "ako-base-after";
    case ModelLibProblem::UnresolvedInstance: return "unresolved-instance";
    case ModelLibProblem::Unreferenced: return "unreferenced";
    case ModelLibProblem::Structure: return "structure";
    case ModelLibProblem::TooLargeFile: return "too-large-file";
    case ModelLibProblem::UnusedRename: return "unused-rename";
    }
    return "problem";
}

QJsonArray problemsJson(const std::vector<ModelLibProblem>& problems)
{
    QJsonArray array;
    for (const ModelLibProblem& p : problems) {
        QJsonObject o{{QStringLiteral("kind"), QString::fromLatin1(problemKindName(p.kind))},
                      {QStringLiteral("name"), namingStandardInput(toQs(p.name))},
                      {QStringLiteral("file"), namingStandardInput(toQs(p.file))},
                      {QStringLiteral("line"), p.line},
                      {QStringLiteral("message"), namingStandardInput(toQs(p.message))}};
        if (!p.otherFile.isEmpty()) {
            o.insert(QStringLiteral("otherFile"), namingStandardInput(toQs(p.otherFile)));
            o.insert(QStringLiteral("otherLine"), p.otherLine);
        }
        array.append(o);
    }
    return array;
}

void addDialectOption(ToolCommand& command)
{
    command.addOption({QStringLiteral("dialect")}, QStringLiteral("Comment rules to read with: native, pspice or hspice (default native)."),
                      QStringLiteral("DIALECT"), QStringLiteral("native"));
}

bool dialect(const ToolCommand& command, SpiceLanguage* language)
{
    const QString d = command.value(QStringLiteral("dialect"));
    if (d == QLatin1String("native"))
        *language = SpiceLanguageNative;
    else if (d == QLatin1String("pspice"))
        *language = SpiceLanguagePspice;
    else if (d == QLatin1String("hspice"))
        *language = SpiceLanguageHspice;
    else {
        command.fail(ExitUsage, QStringLiteral("unknown dialect '%1'; valid dialects: native, pspice, hspice").arg(d));
        return false;
    }
    return true;
}

// A library read from standard input has no folder of its own: a file it includes by a path that
// climbs out of the folder of its copy ("../x.lib") would be looked for in the system's temporary folder,
// where anyone may have put one. Such a library is refused (false, reported); one that includes by other
// relative paths finds nothing there, and says so.
bool refuseClimbingReferences(const ToolCommand& command, const QString& path, SpiceLanguage language)
{
    if (shownPath(path) != QLatin1String("-"))
        return true;
    ModelLibIndex index;
    if (sp_IndexModelLibrary(toYs(path), language, &index, ModelLibElements::Skip) != ModelLibStatus::Ok)
        return true; // the command reports it
    for (const ModelLibReference& ref : index.references) {
        const QString target = toQs(ref.target);
        if (QDir::isAbsolutePath(target))
            continue;
        int depth = 0;
        for (const QString& part : target.split(QRegularExpression(QStringLiteral("[/\\\\]")))) {
            depth += part == QLatin1String("..") ? -1 : part.isEmpty() || part == QLatin1String(".") ? 0 : 1;
            if (depth < 0) {
                command.fail(ExitFailure, QStringLiteral("line %1 of the library read from standard input includes %2, above a folder it "
                                                         "does not have; name the library's file")
                                              .arg(ref.line)
                                              .arg(target));
                return false;
            }
        }
    }
    return true;
}

// Parses an action's command line and its dialect, and with `path` its library argument as an input;
// -1 when the action should run, otherwise the exit code to return at once.
int parseLibCommand(ToolCommand& command, const QStringList& arguments, int minPositional, int maxPositional,
                    SpiceLanguage* language, QString* path)
{
    const int early = command.parse(arguments, minPositional, maxPositional);
    if (early >= 0)
        return early;
    if (!dialect(command, language))
        return ExitUsage;
    if (path && (!command.regularInputArgument(path) || !refuseClimbingReferences(command, *path, *language)))
        return ExitFailure;
    return -1;
}

// The exit code and error line of a status other than Ok.
int statusFailure(const ToolCommand& command, ModelLibStatus status, const QString& path, const QString& section)
{
    switch (status) {
    case ModelLibStatus::Ok: return ExitOk;
    case ModelLibStatus::TooLarge:
        return command.fail(ExitFailure, QStringLiteral("%1 is larger than 2147483647 bytes, beyond the character positions of a definition").arg(path));
    case ModelLibStatus::NoSuchSection:
        return command.fail(ExitNegative, QStringLiteral("%1 has no section '%2'").arg(path, section));
    case ModelLibStatus::NoSuchDefinition:
        return command.fail(ExitNegative, QStringLiteral("a requested definition is reached by nothing in %1").arg(path));
    case ModelLibStatus::WriteFailed:
        return command.fail(ExitFailure, QStringLiteral("cannot write %1").arg(path));
    case ModelLibStatus::RenameClash:
        return command.fail(ExitUsage, QStringLiteral("a rename gives two definitions one name"));
    case ModelLibStatus::Unreadable: break;
    }
    return command.fail(ExitFailure, QStringLiteral("cannot read %1").arg(path));
}

int runLibSections(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("lib sections"), QStringLiteral("FILE [--dialect D] [--json]"),
                        QStringLiteral("Lists the .lib sections of a model library with their line ranges and how many\n"
                                       "definitions each reaches, following its .include and .lib references across files."));
    addDialectOption(command);
    command.addJsonOption();
    SpiceLanguage language = SpiceLanguageNative;
    QString path;
    const int early = parseLibCommand(command, arguments, 1, 1, &language, &path);
    if (early >= 0)
        return early;
    QJsonArray array;
    Table table({"section", "lines", "definitions", "problems"});
    // A section under the name of one before it (any case) is reached by no reference, which reaches
    // the first: its row says so, and shows what the name reaches.
    std::map<std::string, int> firstLine;
    long long sections = 0;
    const ModelLibStatus status = sp_ResolveEachModelSection(toYs(path), language, [&](const ModelLibSection& s, const ModelLibResolution& r) {
        ++sections;
        std::string key = s.name.str();
        for (char& c : key)
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        const auto first = firstLine.emplace(key, s.line);
        const int reached = static_cast<int>(r.definitions.size());
        const int problems = static_cast<int>(r.problems.size());
        QJsonObject row{{QStringLiteral("name"), toQs(s.name)},
                        {QStringLiteral("line"), s.line},
                        {QStringLiteral("endLine"), s.endLine},
                        {QStringLiteral("closed"), s.closed},
                        {QStringLiteral("ownDefinitions"), static_cast<int>(s.definitions.size())},
                        {QStringLiteral("definitions"), reached},
                        {QStringLiteral("problems"), problemsJson(r.problems)}};
        if (!first.second)
            row.insert(QStringLiteral("repeats"), first.first->second);
        array.append(row);
        table.add({s.name.str(),
                   std::to_string(s.line) + "-" + std::to_string(s.endLine) + (s.closed ? "" : " (unclosed)") +
                       (first.second ? "" : " (repeats line " + std::to_string(first.first->second) + ")"),
                   std::to_string(reached), std::to_string(problems)});
    });
    if (status != ModelLibStatus::Ok)
        return statusFailure(command, status, path, QString());
    if (command.json()) {
        printJson(QJsonObject{{QStringLiteral("file"), shownPath(path)}, {QStringLiteral("sections"), array}});
        return ExitOk;
    }
    Output out;
    table.print(out, {false, false, true, true});
    out << counted(sections, "section") << '\n';
    return ExitOk;
}

int runLibDefs(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("lib defs"), QStringLiteral("FILE [--section NAME] [--dialect D] [--json]"),
                        QStringLiteral("Lists the top-level definitions of a model library (kind, name, model type or ports,\n"
                                       "file, line and character range), or with --section those the section reaches."));
    command.addOption({QStringLiteral("section")}, QStringLiteral("The section whose definitions to list, across files."), QStringLiteral("NAME"));
    addDialectOption(command);
    command.addJsonOption();
    SpiceLanguage language = SpiceLanguageNative;
    QString path;
    const int early = parseLibCommand(command, arguments, 1, 1, &language, &path);
    if (early >= 0)
        return early;
    std::vector<DefinitionOf> definitions;
    ModelLibResolution r;
    ModelLibIndex index;
    if (command.isSet(QStringLiteral("section"))) {
        const QString section = command.value(QStringLiteral("section"));
        const ModelLibStatus status = sp_ResolveModelSection(toYs(path), toYs(section), language, &r);
        if (status != ModelLibStatus::Ok)
            return statusFailure(command, status, path, section);
        for (const ModelLibReached& x : r.definitions) {
            const ModelLibIndex& file = r.files[static_cast<size_t>(x.file)];
            definitions.push_back({&file, &file.definitions[static_cast<size_t>(x.definition)]});
        }
    } else {
        const ModelLibStatus status = sp_IndexModelLibrary(toYs(path), language, &index, ModelLibElements::Skip);
        if (status != ModelLibStatus::Ok)
            return statusFailure(command, status, path, QString());
        for (const ModelLibDefinition& d : index.definitions)
            if (d.parent < 0)
                definitions.push_back({&index, &d});
    }
    if (command.json()) {
        QJsonArray array;
        for (const DefinitionOf& d : definitions)
            array.append(definitionJson(*d.file, *d.definition));
        printJson(QJsonObject{{QStringLiteral("file"), shownPath(path)}, {QStringLiteral("definitions"), array}});
        return ExitOk;
    }
    Table table({"kind", "name", "type/ports", "file", "line", "start", "end"});
    for (const DefinitionOf& x : definitions) {
        const ModelLibDefinition& d = *x.definition;
        table.add({kindName(d.kind), std::string(x.file->name(d)), detail(*x.file, d),
                   shownPath(toQs(x.file->fileName)).toStdString(), std::to_string(d.line),
                   std::to_string(d.start), std::to_string(d.end)});
    }
    Output out;
    table.print(out, {false, false, false, false, true, true, true});
    out << counted(static_cast<long long>(definitions.size()), "definition") << '\n';
    return ExitOk;
}

int runLibCheck(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("lib check"), QStringLiteral("FILE [--section NAME] [--dialect D] [--json]"),
                        QStringLiteral("Checks a model library: duplicate definitions within what one section reaches, missing\n"
                                       "files and sections, reference cycles, AKO bases and X instances that resolve to nothing,\n"
                                       "definitions no section reaches, and unclosed or stray .subckt/.ends/.lib/.endl lines.\n"
                                       "Exit code 3 when it finds any."));
    command.addOption({QStringLiteral("section")}, QStringLiteral("Check only what this section reaches."), QStringLiteral("NAME"));
    addDialectOption(command);
    command.addJsonOption();
    SpiceLanguage language = SpiceLanguageNative;
    QString path;
    const int early = parseLibCommand(command, arguments, 1, 1, &language, &path);
    if (early >= 0)
        return early;
    const QString section = command.value(QStringLiteral("section"));
    std::vector<ModelLibProblem> problems;
    const ModelLibStatus status = sp_CheckModelLibrary(toYs(path), toYs(section), language, &problems);
    if (status != ModelLibStatus::Ok)
        return statusFailure(command, status, path, section);
    if (command.json()) {
        printJson(QJsonObject{{QStringLiteral("file"), shownPath(path)}, {QStringLiteral("problems"), problemsJson(problems)}});
    } else {
        Output out;
        for (const ModelLibProblem& p : problems)
            out << problemKindName(p.kind) << ": " << namingStandardInput(toQs(p.message)).toStdString() << '\n';
        out << counted(static_cast<long long>(problems.size()), "problem") << '\n';
    }
    return problems.empty() ? ExitOk : ExitNegative;
}

int runLibDiff(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("lib diff"), QStringLiteral("FILE_A FILE_B [--dialect D] [--json]"),
                        QStringLiteral("Compares two model libraries: sections and definitions present in one and missing in the\n"
                                       "other, and definitions whose logical lines differ (comments, runs of blanks, and the case\n"
                                       "of letters outside quotes, ignored).\n"
                                       "Exit code 3 when they differ."));
    addDialectOption(command);
    command.addJsonOption();
    SpiceLanguage language = SpiceLanguageNative;
    const int early = parseLibCommand(command, arguments, 2, 2, &language, nullptr);
    if (early >= 0)
        return early;
    QString a = command.positional().at(0);
    QString b = command.positional().at(1);
    if (!command.regularInput(&a) || !command.regularInput(&b))
        return command.inputFailure();
    ModelLibDiff diff;
    const ModelLibStatus status = sp_DiffModelLibraries(toYs(a), toYs(b), language, &diff);
    if (status != ModelLibStatus::Ok)
        return statusFailure(command, status, a + QStringLiteral(" or ") + b, QString());
    const bool same = diff.sectionsOnlyInA.empty() && diff.sectionsOnlyInB.empty() && diff.onlyInA.empty() &&
                      diff.onlyInB.empty() && diff.differing.empty();
    auto list = [](const std::vector<YString>& v) {
        QJsonArray array;
        for (const YString& s : v)
            array.append(toQs(s));
        return array;
    };
    if (command.json()) {
        printJson(QJsonObject{{QStringLiteral("a"), shownPath(a)},
                              {QStringLiteral("b"), shownPath(b)},
                              {QStringLiteral("sectionsOnlyInA"), list(diff.sectionsOnlyInA)},
                              {QStringLiteral("sectionsOnlyInB"), list(diff.sectionsOnlyInB)},
                              {QStringLiteral("onlyInA"), list(diff.onlyInA)},
                              {QStringLiteral("onlyInB"), list(diff.onlyInB)},
                              {QStringLiteral("differing"), list(diff.differing)}});
        return same ? ExitOk : ExitNegative;
    }
    Output out;
    for (const YString& s : diff.sectionsOnlyInA)
        out << "section only in A: " << s << '\n';
    for (const YString& s : diff.sectionsOnlyInB)
        out << "section only in B: " << s << '\n';
    for (const YString& s : diff.onlyInA)
        out << "only in A: " << s << '\n';
    for (const YString& s : diff.onlyInB)
        out << "only in B: " << s << '\n';
    for (const YString& s : diff.differing)
        out << "differs: " << s << '\n';
    out << (same ? "the libraries define the same\n" : "the libraries differ\n");
    return same ? ExitOk : ExitNegative;
}

int runLibExtract(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("lib extract"),
                        QStringLiteral("FILE NAME... -o OUT [--section NAME] [--rename OLD=NEW]... [--dialect D] [--json]"),
                        QStringLiteral("Writes one self-contained library with the named definitions and everything they depend\n"
                                       "on (AKO bases, instantiated subcircuits, the models their elements name), each after what\n"
                                       "it depends on, as the file has it, below a comment naming its file and line."));
    command.addOption({QStringLiteral("o"), QStringLiteral("output")}, QStringLiteral("The library to write ('-' for standard output)."), QStringLiteral("OUT"));
    command.addOption({QStringLiteral("section")}, QStringLiteral("The section to find the definitions in."), QStringLiteral("NAME"));
    command.addRepeatableOption({QStringLiteral("rename")}, QStringLiteral("Write definition OLD as NEW (and the lines that name it)."),
                                QStringLiteral("OLD=NEW"));
    addDialectOption(command);
    command.addJsonOption();
    SpiceLanguage language = SpiceLanguageNative;
    const int early = parseLibCommand(command, arguments, 2, 1 << 20, &language, nullptr);
    if (early >= 0)
        return early;
    if (!command.isSet(QStringLiteral("output")))
        return command.fail(ExitUsage, QStringLiteral("-o OUT is required"));
    ModelLibExtractRequest request;
    request.language = language;
    request.section = toYs(command.value(QStringLiteral("section")));
    const QStringList positional = command.positional();
    for (int i = 1; i < positional.size(); ++i)
        request.names.push_back(toYs(positional[i]));
    for (const QString& rename : command.values(QStringLiteral("rename"))) {
        const int eq = rename.indexOf(QLatin1Char('='));
        if (eq <= 0 || eq + 1 >= rename.size())
            return command.fail(ExitUsage, QStringLiteral("--rename takes OLD=NEW, not '%1'").arg(rename));
        request.renames.push_back(toYs(rename));
    }
    QString path = positional.at(0);
    const QString output = command.value(QStringLiteral("output"));
    const bool toStandardOutput = isStandardStream(output);
    if (toStandardOutput && command.json())
        return command.fail(ExitUsage, QStringLiteral("--json needs an output file: standard output takes the library"));
    if (!command.regularInput(&path) || !refuseClimbingReferences(command, path, request.language))
        return command.inputFailure();
    if (!toStandardOutput && !command.checkOutput(output))
        return ExitFailure;
    if (!toStandardOutput && sameExistingFile(path, output))
        return command.fail(ExitUsage, QStringLiteral("the output %1 is the input itself").arg(output));
    std::vector<ModelLibProblem> problems;
    YString text;
    // The output must not replace a file that the library includes, which would break the library.
    if (!toStandardOutput && sp_ModelLibraryHoldsFile(toYs(path), toYs(output), language))
        return command.fail(ExitUsage, QStringLiteral("the output %1 is a file that the library includes").arg(output));
    const ModelLibStatus status = sp_ExtractModels(toYs(path), request, &text, &problems);
    if (status != ModelLibStatus::Ok) {
        // The one line says what failed: the problem that stopped the extraction when there is one.
        if (!problems.empty() && (status == ModelLibStatus::NoSuchDefinition || status == ModelLibStatus::RenameClash))
            return command.fail(status == ModelLibStatus::RenameClash ? ExitUsage : ExitNegative, toQs(problems.back().message));
        return statusFailure(command, status, path, command.value(QStringLiteral("section")));
    }
    // The definitions written, as the index of the new library counts them.
    ModelLibIndex written;
    sp_IndexModelLibraryText(text.c_str(), static_cast<size_t>(text.length()), toYs(output), language, &written);
    int count = 0;
    for (const ModelLibDefinition& d : written.definitions)
        count += d.parent < 0 ? 1 : 0;
    // The comments that say where each definition came from name a library read from standard input
    // "-"; the text is replaced byte for byte, since a library need not be UTF-8. A file such a library
    // includes by a relative name was made absolute in the folder of its copy, which goes when the tool
    // does: it is named relative again, as the library names it.
    if (shownPath(path) != path) {
        std::string library = text.str();
        const auto replaceAll = [&library](const std::string& from, const char* to) {
            for (size_t at = library.find(from); at != std::string::npos; at = library.find(from, at + std::strlen(to)))
                library.replace(at, from.size(), to);
        };
        // The copy is named in the comments "* FILE:LINE" only; a file beside it ("stdin.lib") is another.
        replaceAll("* " + path.toStdString() + ":", "* -:");
        replaceAll(QFileInfo(path).absolutePath().toStdString() + "/", "");
        text = YString(library.c_str(), static_cast<int>(library.size()));
    }
    if (toStandardOutput) {
        // Standard output holds the library: the unresolved dependencies are warnings on standard error.
        for (const ModelLibProblem& p : problems)
            command.warn(QStringLiteral("warning: %1").arg(namingStandardInput(toQs(p.message))));
        Output out;
        out << text;
        return ExitOk;
    }
    if (!writeTextFile(output, text.str()))
        return command.fail(ExitFailure, QStringLiteral("cannot write %1").arg(output));
    if (command.json()) {
        printJson(QJsonObject{{QStringLiteral("file"), shownPath(path)},
                              {QStringLiteral("output"), output},
                              {QStringLiteral("definitions"), count},
                              {QStringLiteral("problems"), problemsJson(problems)}});
        return ExitOk;
    }
    Output out;
    for (const ModelLibProblem& p : problems)
        out << "warning: " << namingStandardInput(toQs(p.message)).toStdString() << '\n';
    out << "wrote " << counted(count, "definition") << " to " << output << '\n';
    return ExitOk;
}

} // namespace

int runLib(const QStringList& arguments)
{
    const QString action = arguments.value(1);
    QStringList rest = arguments;
    rest.removeAt(1);
    if (action == QLatin1String("sections"))
        return runLibSections(rest);
    if (action == QLatin1String("defs"))
        return runLibDefs(rest);
    if (action == QLatin1String("check"))
        return runLibCheck(rest);
    if (action == QLatin1String("diff"))
        return runLibDiff(rest);
    if (action == QLatin1String("extract"))
        return runLibExtract(rest);
    if (action == QLatin1String("--help") || action == QLatin1String("--help-all") || action == QLatin1String("-h")) {
        std::fputs("Usage: supportqt lib sections FILE [--json]\n"
                   "       supportqt lib defs FILE [--section NAME] [--json]\n"
                   "       supportqt lib check FILE [--section NAME] [--json]\n"
                   "       supportqt lib diff FILE_A FILE_B [--json]\n"
                   "       supportqt lib extract FILE NAME... -o OUT [--section NAME] [--rename OLD=NEW]...\n"
                   "\nCorner sections, definitions, problems and differences of model libraries, and extraction of\n"
                   "definitions into one library. Run 'supportqt lib ACTION --help' for an action's options.\n",
                   stdout);
        return ExitOk;
    }
    writeStream(stderr, "supportqt lib: " +
                            (action.isEmpty() ? std::string("missing action") : oneLine(QStringLiteral("unknown action '%1'").arg(action))) +
                            "; valid actions: sections, defs, check, diff, extract\n");
    return ExitUsage;
}
