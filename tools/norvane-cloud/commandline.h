#pragma once

// Argument parsing for norvane-cloud: global options anywhere on the line, then a subcommand with its own
// options and positional arguments.

#include <QByteArray>
#include <QHash>
#include <QMultiHash>
#include <QString>
#include <QStringList>

#include <stdexcept>

namespace NorvaneCloudTool {

/// A mistake on the command line: exit status 2, the message and the usage text of the command.
class UsageError : public std::runtime_error {
public:
    UsageError(const QString &message, QString command);
    const QString &command() const { return commandName; }

private:
    QString commandName;
};

/// Options every subcommand understands.
struct GlobalOptions {
    QHash<QByteArray, QByteArray> headers;
    int timeoutMilliseconds = 30000;
    QString cacheDirectory;
    bool noCache = false;
};

/// One option a subcommand accepts.
struct OptionSpec {
    QString name; // without the leading dashes; "o" for -o
    bool takesValue = false;
};

/// A parsed command line.
struct ParsedCommand {
    QStringList words; // subcommand words and positional arguments, in order
    QMultiHash<QString, QString> options;
    bool helpRequested = false;
    GlobalOptions global;

    bool has(const QString &name) const { return options.contains(name); }
    QString value(const QString &name, const QString &fallback = {}) const;
    /// Every value of a repeatable option, in command-line order.
    QStringList values(const QString &name) const;
};

/// Splits the arguments (without the program name). Options unknown to both the global set and `accepted`
/// are usage errors of `command`.
ParsedCommand parseCommandLine(const QStringList &arguments, const QList<OptionSpec> &accepted, const QString &command);

/// The subcommand a command line names (its first one or two words), for choosing the accepted options.
QString subcommandOf(const QStringList &arguments);

/// Usage text of one subcommand, or of the whole tool for an empty name.
QString usageText(const QString &command);

qint64 parseInteger(const QString &text, const QString &what, const QString &command);

} // namespace NorvaneCloudTool
