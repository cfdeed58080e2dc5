#include "commandline.h"

#include <QMap>

namespace NorvaneCloudTool {

UsageError::UsageError(const QString &message, QString command)
    : std::runtime_error(message.toStdString())
    , commandName(std::move(command))
{
}

QString ParsedCommand::value(const QString &name, const QString &fallback) const
{
    const QStringList all = values(name);
    return all.isEmpty() ? fallback : all.last();
}

QStringList ParsedCommand::values(const QString &name) const
{
    QStringList all = options.values(name);
    std::reverse(all.begin(), all.end()); // QMultiHash hands back the newest value first
    return all;
}

namespace {

// A negative number ("-5") is an argument, not an option, so the library can judge it.
bool isOption(const QString &argument)
{
    return argument.size() > 1 && argument.startsWith(QLatin1Char('-')) && !argument.at(1).isDigit();
}

const QList<OptionSpec> globalOptionSpecs {
    { QStringLiteral("header"), true },
    { QStringLiteral("timeout"), true },
    { QStringLiteral("cache-dir"), true },
    { QStringLiteral("no-cache"), false },
    { QStringLiteral("help"), false },
    { QStringLiteral("h"), false },
};

const OptionSpec *findSpec(const QList<OptionSpec> &specs, const QString &name)
{
    for (const OptionSpec &option : specs) {
        if (option.name == name)
            return &option;
    }
    return nullptr;
}

void applyGlobalOption(ParsedCommand &parsed, const QString &name, const QString &value, const QString &command)
{
    if (name == QLatin1String("header")) {
        const int colon = value.indexOf(QLatin1Char(':'));
        if (colon <= 0)
            throw UsageError(QStringLiteral("--header needs \"Name: value\", got \"%1\"").arg(value), command);
        parsed.global.headers.insert(value.left(colon).trimmed().toUtf8(), value.mid(colon + 1).trimmed().toUtf8());
    } else if (name == QLatin1String("timeout")) {
        const qint64 milliseconds = parseInteger(value, QStringLiteral("--timeout"), command);
        if (milliseconds < 1 || milliseconds > std::numeric_limits<int>::max())
            throw UsageError(QStringLiteral("--timeout must be a positive number of milliseconds"), command);
        parsed.global.timeoutMilliseconds = int(milliseconds);
    } else if (name == QLatin1String("cache-dir")) {
        parsed.global.cacheDirectory = value;
    } else if (name == QLatin1String("no-cache")) {
        parsed.global.noCache = true;
    } else {
        parsed.helpRequested = true;
    }
}

} // namespace

qint64 parseInteger(const QString &text, const QString &what, const QString &command)
{
    bool ok = false;
    const qint64 number = text.toLongLong(&ok, 10);
    if (!ok)
        throw UsageError(QStringLiteral("%1 must be a whole number, got \"%2\"").arg(what, text), command);
    return number;
}

QString subcommandOf(const QStringList &arguments)
{
    QStringList words;
    for (int i = 0; i < arguments.size() && words.size() < 2; ++i) {
        const QString &argument = arguments.at(i);
        if (isOption(argument)) {
            const QString name
                = argument.mid(argument.startsWith(QLatin1String("--")) ? 2 : 1).section(QLatin1Char('='), 0, 0);
            const OptionSpec *option = findSpec(globalOptionSpecs, name);
            if (option && option->takesValue && !argument.contains(QLatin1Char('=')))
                ++i;
            continue;
        }
        words.append(argument);
        if (words.size() == 1 && words.first() != QLatin1String("stac") && words.first() != QLatin1String("cache"))
            break;
    }
    return words.join(QLatin1Char(' '));
}

ParsedCommand parseCommandLine(const QStringList &arguments, const QList<OptionSpec> &accepted, const QString &command)
{
    ParsedCommand parsed;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        if (argument == QLatin1String("--") || !isOption(argument)) {
            parsed.words.append(argument);
            continue;
        }
        const bool longForm = argument.startsWith(QLatin1String("--"));
        QString name = argument.mid(longForm ? 2 : 1);
        QString value;
        bool hasInlineValue = false;
        if (const int equals = name.indexOf(QLatin1Char('=')); longForm && equals >= 0) {
            value = name.mid(equals + 1);
            name = name.left(equals);
            hasInlineValue = true;
        }
        const OptionSpec *option = findSpec(globalOptionSpecs, name);
        const bool global = option != nullptr;
        if (!option)
            option = findSpec(accepted, name);
        if (!option)
            throw UsageError(QStringLiteral("unknown option %1").arg(argument), command);
        if (option->takesValue && !hasInlineValue) {
            if (i + 1 >= arguments.size())
                throw UsageError(QStringLiteral("option %1 needs a value").arg(argument), command);
            value = arguments.at(++i);
        } else if (!option->takesValue && hasInlineValue) {
            throw UsageError(QStringLiteral("option --%1 takes no value").arg(name), command);
        }
        if (global)
            applyGlobalOption(parsed, name, value, command);
        else
            parsed.options.insert(name, value);
    }
    return parsed;
}

QString usageText(const QString &command)
{
    static const QString globalText
        = QStringLiteral("Global options:\n"
                         "  --header \"Name: value\"  extra request header (repeatable)\n"
                         "  --timeout MS            network time-out in milliseconds (default 30000)\n"
                         "  --cache-dir DIR         cache folder (default: the user's cache location)\n"
                         "  --no-cache              neither read from nor store in the cache\n"
                         "  --help                  this text\n");
    static const QMap<QString, QString> texts {
        { QStringLiteral("probe"),
            QStringLiteral("Usage: norvane-cloud probe LOCATION [--format cog|pmtiles|parquet] [--json]\n"
                           "Inspects an object and tells whether it can be read range by range. The format comes from\n"
                           "the extension unless --format is given; PMTiles locations may be local files.\n"
                           "  --json   print the flat interface's probe document\n") },
        { QStringLiteral("read"),
            QStringLiteral("Usage: norvane-cloud read URL OFFSET LENGTH [-o FILE]\n"
                           "Reads one byte range to standard output, or to FILE.\n") },
        { QStringLiteral("viewport"),
            QStringLiteral(
                "Usage: norvane-cloud viewport URL --range OFFSET:LENGTH ... [--ranges-file FILE] [--gap N]\n"
                "                             [--level L]\n"
                "Reads many byte ranges (tiles) of a COG in few coalesced requests and reports what it did.\n"
                "  --range OFFSET:LENGTH  a range to read (repeatable)\n"
                "  --ranges-file FILE     ranges, one \"OFFSET LENGTH\" or \"OFFSET:LENGTH\" a line (# comments)\n"
                "  --gap N                largest hole in bytes still read in one request (default 4096)\n"
                "  --level L              overview level, reported back (default -1)\n") },
        { QStringLiteral("stac search"),
            QStringLiteral(
                "Usage: norvane-cloud stac search CATALOG [--collections a,b] [--bbox w,s,e,n] [--datetime T]\n"
                "                                 [--limit N] [--max-pages N] [--json]\n"
                "Searches a STAC API and lists the items, following next pages up to --max-pages (default 1).\n"
                "  --json   print the flat interface's search result document of the first page\n") },
        { QStringLiteral("stac layer"),
            QStringLiteral("Usage: norvane-cloud stac layer CATALOG --item N [--asset KEY] [search options] [--json]\n"
                           "Searches, takes item N (from 0) of the first page and resolves its COG layer: the named\n"
                           "asset, or the best HTTP COG asset.\n") },
        { QStringLiteral("gdal-path"),
            QStringLiteral("Usage: norvane-cloud gdal-path LOCATION [--format cog|pmtiles|parquet]\n"
                           "Prints the path under which GDAL opens the object (\"/vsicurl/...\" for HTTP(S)).\n") },
        { QStringLiteral("gdal-options"),
            QStringLiteral("Usage: norvane-cloud gdal-options [--cache-size BYTES]\n"
                           "Prints the recommended GDAL options for COG access as --config pairs (default cache size\n"
                           "268435456 bytes).\n") },
        { QStringLiteral("cache stats"),
            QStringLiteral("Usage: norvane-cloud cache stats [--json]\n"
                           "Prints the cache folder and its statistics.\n") },
        { QStringLiteral("cache clear"),
            QStringLiteral("Usage: norvane-cloud cache clear\n"
                           "Deletes every entry of the cache, in memory and on disk.\n") },
        { QStringLiteral("demo"),
            QStringLiteral(
                "Usage: norvane-cloud demo\n"
                "Serves a bundled sample set on a free loopback port and walks through every capability.\n") },
    };
    if (const auto found = texts.constFind(command); found != texts.constEnd())
        return found.value() + QLatin1Char('\n') + globalText;
    return QStringLiteral("Usage: norvane-cloud COMMAND [options]\n"
                          "\n"
                          "Commands:\n"
                          "  probe LOCATION            what a COG, PMTiles or GeoParquet object offers\n"
                          "  read URL OFFSET LENGTH    one byte range\n"
                          "  viewport URL --range ...  coalesced reads of many ranges\n"
                          "  stac search CATALOG       search a STAC API\n"
                          "  stac layer CATALOG        resolve an item's COG layer\n"
                          "  gdal-path LOCATION        GDAL path of an object\n"
                          "  gdal-options              recommended GDAL options\n"
                          "  cache stats | cache clear the cache\n"
                          "  demo                      walk through everything on a bundled sample\n"
                          "\n"
                          "Run norvane-cloud COMMAND --help for a command's options.\n\n")
        + globalText;
}

} // namespace NorvaneCloudTool
