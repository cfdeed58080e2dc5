#pragma once

#include "commandline.h"

#include <QTextStream>

namespace NorvaneCloudTool {

/// Where a command writes: normal output, messages and progress. Progress is drawn only on a terminal.
struct Console {
    QTextStream &out;
    QTextStream &err;
    bool progressOnTerminal = false;
};

/// Runs one subcommand. Returns the exit status; library failures are thrown as std::exception, command-line
/// mistakes as UsageError.
int runCommand(const QString &command, const QStringList &arguments, Console &console);

/// The options each subcommand accepts besides the global ones.
QList<OptionSpec> optionsOf(const QString &command);

} // namespace NorvaneCloudTool
