// main.cpp - the supportqt tool: dispatches to one subcommand per area.
#include "Commands.h"
#include "Options.h"

#include <QCoreApplication>
#include <QTextStream>

#include <cstdio>

namespace {

const char kUsage[] =
    "Usage: supportqt [--help] [--version] COMMAND [ARGS]\n"
    "\n"
    "Shows what the support library sees in a file, from a shell.\n"
    "\n"
    "Commands:\n"
    "  demo [-o DIR] [--examples DIR]   run the library over the bundled examples\n"
    "\n"
    "Run 'supportqt COMMAND --help' for a command's options.\n";

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    KalvontaVersionInfo version;
    sp_GetVersionValues(&version);
    QCoreApplication::setApplicationName(QStringLiteral("supportqt"));
    QCoreApplication::setApplicationVersion(
        QStringLiteral("%1.%2.%3").arg(version.release).arg(version.subRelease / 10).arg(version.subRelease % 10));

    QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 2 || arguments[1] == QLatin1String("--help") || arguments[1] == QLatin1String("-h")) {
        std::fputs(kUsage, arguments.size() < 2 ? stderr : stdout);
        return arguments.size() < 2 ? ExitUsage : ExitOk;
    }
    if (arguments[1] == QLatin1String("--version") || arguments[1] == QLatin1String("-v")) {
        std::printf("supportqt %s\n", qPrintable(QCoreApplication::applicationVersion()));
        return ExitOk;
    }
    const QString command = arguments[1];
    QStringList rest = arguments.mid(2);
    rest.prepend(QStringLiteral("supportqt ") + command);
    if (command == QLatin1String("demo"))
        return runDemo(rest);
    std::fprintf(stderr, "supportqt: unknown command '%s'; valid commands: demo\n", qPrintable(command));
    return ExitUsage;
}
