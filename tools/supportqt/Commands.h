// Commands.h - the subcommands of the supportqt tool.
#pragma once

#include <QStringList>

/// Exit codes of the tool.
enum ToolExit {
    ExitOk = 0,
    ExitFailure = 1, ///< the work could not be done (a file that cannot be read or written)
    ExitUsage = 2    ///< unknown subcommand or option, missing argument
};

/// `demo [-o DIR] [--examples DIR]`: runs the library over the bundled examples.
int runDemo(const QStringList& arguments);
