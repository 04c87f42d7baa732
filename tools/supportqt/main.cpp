// main.cpp - the supportqt tool: shows what the support library sees in a file, one subcommand per area.
#include "Commands.h"
#include "Tool.h"

#include "Options.h"

#include <QCoreApplication>

#include <clocale>
#include <cstdio>
#include <new>
#include <string>

namespace {

struct Subcommand {
    const char* name;
    const char* synopsis;
    const char* summary;
    int (*run)(const QStringList&);
};

const Subcommand kSubcommands[] = {
    {"netlist", "FILE [--dialect D] [--literal] [--title]", "logical lines of a netlist", runNetlist},
    {"index", "FILE", ".model and .subckt definitions of a library", runIndex},
    {"section", "FILE --start N --end M [--name NAME]", "one definition of a library", runSection},
    {"lib", "sections|defs|check|diff|extract FILE...", "sections, checks and extraction of model libraries", runLib},
    {"controls", "FILE [--block] [--compile]", "switching-simulator settings", runControls},
    {"results", "FILE [--stats-only]", "summary and statistics of a results file", runResults},
    {"stats", "RESULTS [--limit NAME=LO:HI]... [--html OUT]", "yield, capability and influence", runStats},
    {"merge", "SHARD... -o MERGED [--renumber]", "results files of parts of a run set as one", runMerge},
    {"validate", "FILE [--schema XSD]", "check an XML file against a schema", runValidate},
    {"append-merit", "FILE --value T --name N --data CSV", "add a merit function to a results file", runAppendMerit},
    {"report", "mc|wc|sens|csv|all RESULTS -o OUT", "HTML or CSV report, SVG chart, a report folder", runReport},
    {"text", "detect FILE | convert FILE -o OUT", "encoding and line ends; conversion", runText},
    {"why", "FILE [--read|--write|--write-new]", "why a file cannot be opened", runWhy},
    {"glob", "PATTERN TEXT", "wildcard match", runGlob},
    {"regex", "PATTERN TEXT [-i]", "regular-expression match", runRegex},
    {"run", "COMMANDLINE [--capture]", "run a program and wait for it", runRun},
    {"help-url", "LINK", "URL of a help link", runHelpUrl},
    {"demo", "[-o DIR]", "the library end to end on the bundled examples", runDemo},
};

// The first argument that the system's encoding does not read as text, shown with such bytes as \xHH;
// empty when every argument is text. Arguments are taken as text, so such a one would name another
// file: a file named in another encoding would be reported missing. (Windows hands arguments over as
// text.)
std::string argumentThatIsNoText(int argc, char** argv)
{
#ifdef Q_OS_WIN
    (void)argc;
    (void)argv;
#else
    for (int i = 1; i < argc; ++i) {
        const QByteArray given(argv[i]);
        if (QString::fromLocal8Bit(given).toLocal8Bit() == given)
            continue;
        std::string shown;
        for (const char c : given) {
            const unsigned char b = static_cast<unsigned char>(c);
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", b);
            shown += b >= 0x20 && b < 0x7F ? std::string(1, c) : std::string(escaped);
        }
        return shown;
    }
#endif
    return std::string();
}

void printUsage(FILE* stream)
{
    std::fputs("Usage: supportqt [--help] [--version] COMMAND [ARGS] [--json]\n"
               "\n"
               "Shows what the support library sees in a file, from a shell.\n"
               "\n"
               "Commands:\n",
               stream);
    for (const Subcommand& s : kSubcommands)
        std::fprintf(stream, "  %-13s %-44s %s\n", s.name, s.synopsis, s.summary);
    std::fputs("\n"
               "Run 'supportqt COMMAND --help' for a command's options. Exit codes: 0 done, 1 an input that\n"
               "cannot be read or an output that cannot be written, 2 a usage error, 3 a negative answer\n"
               "(a document that breaks its schema, no match, a file that cannot be opened).\n",
               stream);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // The application object takes the user's locale for the C library; numbers in every output stay in
    // the C form (a decimal point), which scripts and the files written back read.
    std::setlocale(LC_NUMERIC, "C");
    useBinaryStandardStreams();
    failWritesBeyondTheSizeLimit();
    KalvontaVersionInfo version;
    sp_GetVersionValues(&version);
    QCoreApplication::setApplicationName(QStringLiteral("supportqt"));
    QCoreApplication::setApplicationVersion(
        QStringLiteral("%1.%2.%3").arg(version.release).arg(version.subRelease / 10).arg(version.subRelease % 10));

    const std::string noText = argumentThatIsNoText(argc, argv);
    if (!noText.empty()) {
        std::fprintf(stderr, "supportqt: the argument %s is not text in the system's encoding and would be read as other "
                             "text; a file of such a name can be named through a link\n", noText.c_str());
        return ExitUsage;
    }
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 2) {
        std::fputs("supportqt: missing command; run 'supportqt --help' for the commands\n", stderr);
        return ExitUsage;
    }
    const QString command = arguments[1];
    // The usage and the version, like any output, must reach standard output.
    const auto written = [] {
        if (std::fflush(stdout) == 0 && !std::ferror(stdout))
            return ExitOk;
        std::fputs("supportqt: cannot write standard output\n", stderr);
        return ExitFailure;
    };
    if (command == QLatin1String("--help") || command == QLatin1String("-h") || command == QLatin1String("help")) {
        printUsage(stdout);
        return written();
    }
    if (command == QLatin1String("--version") || command == QLatin1String("-v")) {
        std::printf("supportqt %s\n", qPrintable(QCoreApplication::applicationVersion()));
        return written();
    }
    QStringList rest = arguments.mid(2);
    rest.prepend(QStringLiteral("supportqt ") + command);
    QStringList names;
    for (const Subcommand& s : kSubcommands) {
        if (command != QLatin1String(s.name)) {
            names << QLatin1String(s.name);
            continue;
        }
        // Memory that runs out in a command is one line on standard error, not an abort.
        int code = ExitFailure;
        try {
            code = s.run(rest);
        } catch (const std::bad_alloc&) {
            std::fflush(stdout);
            std::fprintf(stderr, "supportqt %s: out of memory\n", s.name);
            return ExitFailure;
        }
        // Output that did not reach standard output (a full disk, a closed pipe) is a failure too, said
        // in one line unless the command has said why it failed already.
        if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
            if (!ToolCommand::failureReported()) {
                const QString name = ToolCommand::runningName();
                std::fprintf(stderr, "supportqt %s: cannot write standard output\n",
                             name.isEmpty() ? s.name : name.toUtf8().constData());
            }
            return code == ExitOk ? ExitFailure : code;
        }
        return code;
    }
    writeStream(stderr, "supportqt: unknown command '" + oneLine(command) + "'; valid commands: " +
                            names.join(QStringLiteral(", ")).toStdString() + "\n");
    return ExitUsage;
}
