// Commands.h - the subcommands of the supportqt tool. Each takes its arguments with the subcommand's
// own name first and returns the tool's exit code (see ToolExit in Tool.h).
#pragma once

#include <QStringList>

#include "XMLReport.h"

class ToolCommand;

int runNetlist(const QStringList& arguments);
int runIndex(const QStringList& arguments);
int runSection(const QStringList& arguments);
int runLib(const QStringList& arguments);
int runControls(const QStringList& arguments);
int runResults(const QStringList& arguments);
int runStats(const QStringList& arguments);
int runMerge(const QStringList& arguments);
int runValidate(const QStringList& arguments);
int runAppendMerit(const QStringList& arguments);
int runReport(const QStringList& arguments);
int runText(const QStringList& arguments);
int runWhy(const QStringList& arguments);
int runGlob(const QStringList& arguments);
int runRegex(const QStringList& arguments);
int runRun(const QStringList& arguments);
int runHelpUrl(const QStringList& arguments);
int runDemo(const QStringList& arguments);

/// Reads a results file for a subcommand: checks that it can be read and is a results file, shows
/// progress for a large one, and reports why when it does not load (false then). `*appended` (when not
/// null) gets the files it appends.
bool loadResultsFile(const ToolCommand& command, const QString& path, YHashTable<XMLReportInfo>* table,
                     XMLReportHeader* header, QStringList* appended = nullptr);
/// False, with a usage error, when `output` is one of the `appended` files: replacing it would change
/// what the results file reads.
bool checkNotAppended(const ToolCommand& command, const QString& output, const QStringList& appended);
