#pragma once

// The table of commands: one entry each, from which the dispatch, the list of commands and every --help text come.

#include "commandline.h"

namespace NorvaneCloudTool {

struct Command {
    QString name; // one word, or two where commands share the first ("stac search")
    QList<QCommandLineOption> options; // besides the global ones
    QString synopsis; // its line in the list of commands; empty where a neighbour's line covers it
    QString summary;
    QString usage; // what `norvane-cloud NAME --help` prints before the global options
    int (*run)(const Invocation &invocation, Console &console) = nullptr;
};

/// Every entry, in the order of the list of commands.
const QList<Command> &allCommands();

/// The entry of a command name, or null.
const Command *findCommand(const QString &name);

/// The command name a command line (program name first) gives: its first positional argument, or its first two
/// where commands share the first. Empty when it has none.
QString commandNameOf(const QStringList &arguments);

/// The usage text of a command, or of the whole tool for null.
QString usageText(const Command *command);

/// The bash completion script of the tool: its commands and each command's options.
QString bashCompletionScript();

} // namespace NorvaneCloudTool
