#pragma once

// What a command gets: the command line read against its options, and the streams it writes to.

#include <QByteArray>
#include <QCommandLineOption>
#include <QHash>
#include <QString>
#include <QStringList>
#include <QTextStream>

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

/// Options every command understands.
struct GlobalOptions {
    QHash<QByteArray, QByteArray> headers;
    int timeoutMilliseconds = 30000;
    QString cacheDirectory;
    bool noCache = false;
    /// Each exchange and cache hit described on standard error.
    bool verbose = false;
};

/// One command line read against the options of one command.
struct Invocation {
    QString command;
    QStringList words; // the command's words and its positional arguments, in order
    QHash<QString, QStringList> options; // by the option's first name; a flag that was given has no values
    GlobalOptions global;
    bool helpRequested = false;
    bool versionRequested = false;

    bool has(const QString &option) const { return options.contains(option); }
    /// The last value given, or the fallback.
    QString value(const QString &option, const QString &fallback = {}) const
    {
        const QStringList given = options.value(option);
        return given.isEmpty() ? fallback : given.last();
    }
    /// Every value given, in command-line order.
    QStringList values(const QString &option) const { return options.value(option); }
};

/// Where a command writes: normal output, messages and progress. Progress is drawn only on a terminal.
struct Console {
    QTextStream &out;
    QTextStream &err;
    bool progressOnTerminal = false;
};

/// The options every command understands.
const QList<QCommandLineOption> &globalCommandLineOptions();

/// An option that takes a value, under one name or more.
QCommandLineOption withValue(const QStringList &names);

/// The positional arguments of a command line (program name first), global options and their values left out.
QStringList positionalArguments(const QStringList &arguments);

/// Reads a command line (program name first) against the global options and the command's own; a mistake is a
/// UsageError of the command.
Invocation readCommandLine(
    const QStringList &arguments, const QString &command, const QList<QCommandLineOption> &options);

/// The text as a whole number; anything else is a UsageError of the command naming `what`.
qint64 wholeNumber(const QString &text, const QString &what, const QString &command);

/// The text as a whole number from minimum to maximum; anything else is a UsageError of the command naming `what`.
/// A number outside the range is refused, never narrowed.
qint64 numberIn(const QString &text, const QString &what, qint64 minimum, qint64 maximum, const QString &command);

/// numberIn up to the largest 64-bit number.
qint64 numberAtLeast(const QString &text, const QString &what, qint64 minimum, const QString &command);

/// A byte range given as two texts: an offset of at least 0 and a length of at least 1 (named offsetWhat and
/// lengthWhat in a UsageError), whose end lies within the largest 64-bit offset.
struct ByteRangeArgument {
    qint64 offset = 0;
    qint64 length = 0;
};
ByteRangeArgument byteRangeArgument(const QString &offsetText,
    const QString &lengthText,
    const QString &offsetWhat,
    const QString &lengthWhat,
    const QString &command);

/// Throws the UsageError "missing argument" or "too many arguments" unless the invocation has `count` words.
void requireWords(const Invocation &invocation, int count);

} // namespace NorvaneCloudTool
