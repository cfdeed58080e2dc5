#include "commandline.h"

#include "toolmessages.h"

#include <QCommandLineParser>

#include <algorithm>
#include <limits>

namespace NorvaneCloudTool {

UsageError::UsageError(const QString &message, QString command)
    : std::runtime_error(message.toStdString())
    , commandName(std::move(command))
{
}

namespace {

// The parser reads every argument that begins with "-" as an option, but the tool passes a negative number ("-5")
// on as an argument, so that the library judges it, and has always taken "--" as an argument too. Those cross the
// parser behind a private-use character, and so does any argument that already begins with one.
const QChar carried(0xE000);

QString carry(const QString &argument)
{
    const bool dashArgument = argument == QLatin1String("--")
        || (argument.size() > 1 && argument.startsWith(QLatin1Char('-')) && argument.at(1).isDigit());
    return dashArgument || argument.startsWith(carried) ? carried + argument : argument;
}

QString uncarry(const QString &argument)
{
    return argument.startsWith(carried) ? argument.mid(1) : argument;
}

QStringList uncarried(QStringList arguments)
{
    std::transform(arguments.begin(), arguments.end(), arguments.begin(), uncarry);
    return arguments;
}

const QString headerName = QStringLiteral("header");
const QString timeoutName = QStringLiteral("timeout");
const QString cacheDirectoryName = QStringLiteral("cache-dir");
const QString noCacheName = QStringLiteral("no-cache");
const QString helpName = QStringLiteral("help");
const QString versionName = QStringLiteral("version");
const QString verboseName = QStringLiteral("verbose");

const QList<QCommandLineOption> globalOptions { withValue({ headerName }), withValue({ timeoutName }),
    withValue({ cacheDirectoryName }), QCommandLineOption(noCacheName),
    QCommandLineOption(QStringList { QStringLiteral("h"), helpName }), QCommandLineOption(versionName),
    QCommandLineOption(QStringList { QStringLiteral("v"), verboseName }) };

// "-name", "--name" and "--name=value" all name the option "name".
QString optionName(const QString &argument)
{
    return argument.mid(argument.startsWith(QLatin1String("--")) ? 2 : 1).section(QLatin1Char('='), 0, 0);
}

// The parser collects every mistake; the tool names one, as it was typed.
[[noreturn]] void throwMistake(const QCommandLineParser &parser,
    const QStringList &carriedArguments,
    const QList<QCommandLineOption> &options,
    const QString &command)
{
    if (!parser.unknownOptionNames().isEmpty()) {
        const QString name = parser.unknownOptionNames().constFirst();
        const auto typed
            = std::find_if(carriedArguments.begin() + 1, carriedArguments.end(), [&name](const QString &argument) {
                  return argument.startsWith(QLatin1Char('-')) && optionName(argument) == name;
              });
        throw UsageError(ToolMessages::unknownOption.arg(typed == carriedArguments.end() ? name : *typed), command);
    }
    // Otherwise an option lacks its value or a flag was given one; the parser quotes the argument it stopped at.
    const QString argument = parser.errorText().section(QLatin1Char('\''), 1, -2);
    const bool takesValue = std::any_of(options.begin(), options.end(), [&argument](const QCommandLineOption &option) {
        return option.names().contains(optionName(argument)) && !option.valueName().isEmpty();
    });
    if (takesValue)
        throw UsageError(ToolMessages::optionNeedsValue.arg(argument), command);
    throw UsageError(ToolMessages::optionTakesNoValue.arg(optionName(argument)), command);
}

GlobalOptions globalOptionsOf(const QCommandLineParser &parser, const QString &command)
{
    GlobalOptions global;
    for (const QString &header : uncarried(parser.values(headerName))) {
        const int colon = header.indexOf(QLatin1Char(':'));
        if (colon <= 0)
            throw UsageError(ToolMessages::headerMalformed.arg(header), command);
        global.headers.insert(header.left(colon).trimmed().toUtf8(), header.mid(colon + 1).trimmed().toUtf8());
    }
    for (const QString &timeout : uncarried(parser.values(timeoutName))) {
        if (wholeNumber(timeout, QStringLiteral("--timeout"), command) < 1)
            throw UsageError(ToolMessages::timeoutNotPositive, command);
        global.timeoutMilliseconds
            = int(numberIn(timeout, QStringLiteral("--timeout"), 1, std::numeric_limits<int>::max(), command));
    }
    global.cacheDirectory = uncarry(parser.value(cacheDirectoryName));
    global.noCache = parser.isSet(noCacheName);
    global.verbose = parser.isSet(verboseName);
    return global;
}

// Sets the parser up to read single-dash words as long options ("-o", "-help"); returns the arguments to parse.
QStringList prepare(QCommandLineParser &parser, const QStringList &arguments, const QList<QCommandLineOption> &options)
{
    QStringList carriedArguments;
    std::transform(arguments.begin(), arguments.end(), std::back_inserter(carriedArguments), carry);
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.addOptions(options);
    return carriedArguments;
}

} // namespace

const QList<QCommandLineOption> &globalCommandLineOptions()
{
    return globalOptions;
}

QCommandLineOption withValue(const QStringList &names)
{
    return QCommandLineOption(names, QString(), QStringLiteral("value"));
}

QStringList positionalArguments(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.parse(prepare(parser, arguments, globalOptions));
    return uncarried(parser.positionalArguments());
}

Invocation readCommandLine(
    const QStringList &arguments, const QString &command, const QList<QCommandLineOption> &options)
{
    QCommandLineParser parser;
    const QList<QCommandLineOption> accepted = globalOptions + options;
    const QStringList carriedArguments = prepare(parser, arguments, accepted);
    if (!parser.parse(carriedArguments))
        throwMistake(parser, carriedArguments, accepted, command);
    Invocation invocation;
    invocation.command = command;
    invocation.words = uncarried(parser.positionalArguments());
    for (const QCommandLineOption &option : options) {
        if (parser.isSet(option))
            invocation.options.insert(option.names().constFirst(), uncarried(parser.values(option)));
    }
    invocation.global = globalOptionsOf(parser, command);
    invocation.helpRequested = parser.isSet(helpName);
    invocation.versionRequested = parser.isSet(versionName);
    return invocation;
}

qint64 wholeNumber(const QString &text, const QString &what, const QString &command)
{
    bool ok = false;
    const qint64 number = text.toLongLong(&ok, 10);
    if (!ok)
        throw UsageError(ToolMessages::notWholeNumber.arg(what, text), command);
    return number;
}

qint64 numberIn(const QString &text, const QString &what, qint64 minimum, qint64 maximum, const QString &command)
{
    const qint64 number = wholeNumber(text, what, command);
    if (number >= minimum && number <= maximum)
        return number;
    if (maximum == std::numeric_limits<qint64>::max())
        throw UsageError(ToolMessages::numberTooSmall.arg(what).arg(minimum).arg(text), command);
    throw UsageError(ToolMessages::numberOutOfRange.arg(what).arg(minimum).arg(maximum).arg(text), command);
}

qint64 numberAtLeast(const QString &text, const QString &what, qint64 minimum, const QString &command)
{
    return numberIn(text, what, minimum, std::numeric_limits<qint64>::max(), command);
}

ByteRangeArgument byteRangeArgument(const QString &offsetText,
    const QString &lengthText,
    const QString &offsetWhat,
    const QString &lengthWhat,
    const QString &command)
{
    const ByteRangeArgument range { numberAtLeast(offsetText, offsetWhat, 0, command),
        numberAtLeast(lengthText, lengthWhat, 1, command) };
    if (range.offset > std::numeric_limits<qint64>::max() - range.length)
        throw UsageError(ToolMessages::rangeOverflows, command);
    return range;
}

void requireWords(const Invocation &invocation, int count)
{
    if (invocation.words.size() != count)
        throw UsageError(
            invocation.words.size() < count ? ToolMessages::missingArgument : ToolMessages::tooManyArguments,
            invocation.command);
}

} // namespace NorvaneCloudTool
