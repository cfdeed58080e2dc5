#include "commandtable.h"

#include "commands.h"

#include <algorithm>

namespace NorvaneCloudTool {

namespace {

QCommandLineOption flag(const QString &name)
{
    return QCommandLineOption(name);
}

// The options of a search, and the ones the command adds.
QList<QCommandLineOption> searchOptions(const QStringList &more)
{
    QList<QCommandLineOption> options { withValue({ QStringLiteral("collections") }),
        withValue({ QStringLiteral("bbox") }), withValue({ QStringLiteral("datetime") }),
        withValue({ QStringLiteral("limit") }), flag(QStringLiteral("json")) };
    for (const QString &name : more)
        options.append(withValue({ name }));
    return options;
}

const QList<Command> &commands()
{
    static const QList<Command> table {
        { QStringLiteral("probe"), { withValue({ QStringLiteral("format") }), flag(QStringLiteral("json")) },
            QStringLiteral("probe LOCATION"), QStringLiteral("what a COG, PMTiles or GeoParquet object offers"),
            QStringLiteral("Usage: norvane-cloud probe LOCATION [--format cog|pmtiles|parquet] [--json]\n"
                           "Inspects an object and tells whether it can be read range by range. The format comes from\n"
                           "the extension unless --format is given; PMTiles locations may be local files.\n"
                           "  --json   print the flat interface's probe document\n"),
            probeCommand },
        { QStringLiteral("info"), { flag(QStringLiteral("validate")), flag(QStringLiteral("json")) },
            QStringLiteral("info URL|PATH"), QStringLiteral("structure of a TIFF; --validate checks the COG layout"),
            QStringLiteral("Usage: norvane-cloud info URL|PATH [--validate] [--json]\n"
                           "Prints the header and every image (IFD) of a TIFF at an http(s) URL or a local path;\n"
                           "of a .pmtiles or .parquet object, its probe.\n"
                           "  --validate  also check the cloud-optimised layout rules and list each one broken\n"
                           "  --json      print the structure (and the verdict) as one JSON document\n"
                           "Exit status: 0 success (layout valid), 1 failure, 2 usage error, 3 layout not valid.\n"),
            infoCommand },
        { QStringLiteral("read"),
            { withValue({ QStringLiteral("o") }), withValue({ QStringLiteral("output") }),
                withValue({ QStringLiteral("chunk-size") }) },
            QStringLiteral("read URL OFFSET LENGTH"), QStringLiteral("one byte range"),
            QStringLiteral("Usage: norvane-cloud read URL OFFSET LENGTH [-o FILE [--chunk-size BYTES]]\n"
                           "Reads one byte range to standard output, or to FILE in chunks (default 8388608 bytes)\n"
                           "through the cache, with a progress bar on a terminal and a percentage line otherwise.\n"),
            readCommand },
        { QStringLiteral("viewport"),
            { withValue({ QStringLiteral("range") }), withValue({ QStringLiteral("ranges-file") }),
                withValue({ QStringLiteral("gap") }), withValue({ QStringLiteral("level") }),
                withValue({ QStringLiteral("window") }), withValue({ QStringLiteral("map") }) },
            QStringLiteral("viewport URL --window ..."), QStringLiteral("coalesced reads of a window or of ranges"),
            QStringLiteral(
                "Usage: norvane-cloud viewport URL --window X,Y,W,H [--level N] [--map FILE.svg] [--gap N]\n"
                "       norvane-cloud viewport URL --range OFFSET:LENGTH ... [--ranges-file FILE] [--gap N]\n"
                "                             [--level L]\n"
                "Reads the tiles of a COG that a pixel window meets, or many byte ranges, in few coalesced requests\n"
                "and reports what it did.\n"
                "  --window X,Y,W,H       pixels of the level, as gdal_translate -srcwin X Y W H reads them\n"
                "  --level N              with --window: 0 full resolution (default), N the N-th overview, as\n"
                "                         -oo OVERVIEW_LEVEL=N-1; with ranges: reported back (default -1)\n"
                "  --map FILE.svg         with --window: draw the level's tile grid, the window, the tiles read,\n"
                "                         one colour per merged request, and the tiles the cache served\n"
                "  --range OFFSET:LENGTH  a range to read (repeatable)\n"
                "  --ranges-file FILE     ranges, one \"OFFSET LENGTH\" or \"OFFSET:LENGTH\" a line (# comments)\n"
                "  --gap N                largest hole in bytes still read in one request (default 4096)\n"),
            viewportCommand },
        { QStringLiteral("stac search"), searchOptions({ QStringLiteral("max-pages") }),
            QStringLiteral("stac search CATALOG"), QStringLiteral("search a STAC API"),
            QStringLiteral(
                "Usage: norvane-cloud stac search CATALOG [--collections a,b] [--bbox w,s,e,n] [--datetime T]\n"
                "                                 [--limit N] [--max-pages N] [--json]\n"
                "Searches a STAC API and lists the items, following next pages up to --max-pages (default 1).\n"
                "A CATALOG ending in /search is the search endpoint itself. When a later page fails, the items\n"
                "fetched so far are printed, then the failure (exit status 1).\n"
                "  --json   print every item fetched as one GeoJSON FeatureCollection\n"),
            stacSearchCommand },
        { QStringLiteral("stac layer"), searchOptions({ QStringLiteral("item"), QStringLiteral("asset") }),
            QStringLiteral("stac layer CATALOG"), QStringLiteral("resolve an item's COG layer"),
            QStringLiteral("Usage: norvane-cloud stac layer CATALOG --item N [--asset KEY] [search options] [--json]\n"
                           "Searches, takes item N (from 0) of the first page and resolves its COG layer: the named\n"
                           "asset, or the best HTTP COG asset.\n"),
            stacLayerCommand },
        { QStringLiteral("gdal-path"), { withValue({ QStringLiteral("format") }) },
            QStringLiteral("gdal-path LOCATION"), QStringLiteral("GDAL path of an object"),
            QStringLiteral("Usage: norvane-cloud gdal-path LOCATION [--format cog|pmtiles|parquet]\n"
                           "Prints the path under which GDAL opens the object (\"/vsicurl/...\" for HTTP(S)).\n"),
            gdalPathCommand },
        { QStringLiteral("gdal-options"), { withValue({ QStringLiteral("cache-size") }) },
            QStringLiteral("gdal-options [URL]"), QStringLiteral("GDAL options that open an object"),
            QStringLiteral(
                "Usage: norvane-cloud gdal-options [URL] [--cache-size BYTES]\n"
                "Prints GDAL options as --config pairs, ready for a shell command line: the recommended set\n"
                "for COG access (default cache size 268435456 bytes); with a URL, the allowed extensions\n"
                "cover its name (\"{noext}\" for a name without one). --header values go to GDAL as\n"
                "GDAL_HTTP_HEADERS; with a URL, or a --timeout other than the default, GDAL_HTTP_TIMEOUT\n"
                "and GDAL_HTTP_CONNECTTIMEOUT carry --timeout in whole seconds.\n"
                "  eval gdalinfo $(norvane-cloud gdal-options URL) $(norvane-cloud gdal-path URL)\n"),
            gdalOptionsCommand },
        { QStringLiteral("cache stats"), { flag(QStringLiteral("json")) }, QStringLiteral("cache stats | cache clear"),
            QStringLiteral("the cache"),
            QStringLiteral("Usage: norvane-cloud cache stats [--json]\n"
                           "Prints the cache folder and its statistics.\n"),
            cacheStatsCommand },
        { QStringLiteral("cache clear"), {}, QString(), QString(),
            QStringLiteral("Usage: norvane-cloud cache clear\n"
                           "Deletes every entry of the cache, in memory and on disk.\n"),
            cacheClearCommand },
        { QStringLiteral("demo"), {}, QStringLiteral("demo"),
            QStringLiteral("walk through everything on a bundled sample"),
            QStringLiteral("Usage: norvane-cloud demo\n"
                           "Serves a bundled sample set on a free loopback port and walks through every capability.\n"),
            demoCommand },
        { QStringLiteral("completion"), {}, QStringLiteral("completion"), QStringLiteral("the bash completion script"),
            QStringLiteral("Usage: norvane-cloud completion\n"
                           "Prints the bash completion script, installed as\n"
                           "share/bash-completion/completions/norvane-cloud.\n"),
            completionCommand },
    };
    return table;
}

} // namespace

const QList<Command> &allCommands()
{
    return commands();
}

const Command *findCommand(const QString &name)
{
    const auto found = std::find_if(
        commands().begin(), commands().end(), [&name](const Command &command) { return command.name == name; });
    return found == commands().end() ? nullptr : &*found;
}

QString commandNameOf(const QStringList &arguments)
{
    // A "--" is an argument of the command, never its name.
    QStringList words = positionalArguments(arguments);
    words.removeAll(QStringLiteral("--"));
    if (words.isEmpty())
        return QString();
    const QString twoWords = words.mid(0, 2).join(QLatin1Char(' '));
    const bool sharedFirstWord = std::any_of(commands().begin(), commands().end(),
        [&words](const Command &command) { return command.name.startsWith(words.first() + QLatin1Char(' ')); });
    return sharedFirstWord ? twoWords : words.first();
}

QString usageText(const Command *command)
{
    static const QString globalText
        = QStringLiteral("Global options:\n"
                         "  --header \"Name: value\"  extra request header (repeatable)\n"
                         "  --timeout MS            network time-out in milliseconds (default 30000)\n"
                         "  --cache-dir DIR         cache folder (default: the user's cache location)\n"
                         "  --no-cache              neither read from nor store in the cache\n"
                         "  -v, --verbose           describe each HTTP exchange and cache hit on standard error\n"
                         "  --help                  this text\n"
                         "  --version               the version of norvane-cloud\n"
                         "Proxies: http_proxy, https_proxy and no_proxy are honoured.\n"
                         "Exit status: 0 success, 1 the operation failed, 2 usage error.\n");
    if (command)
        return command->usage + QLatin1Char('\n') + globalText;
    QString text = QStringLiteral("Usage: norvane-cloud COMMAND [options]\n\nCommands:\n");
    for (const Command &entry : commands()) {
        if (!entry.synopsis.isEmpty())
            text += QStringLiteral("  ") + entry.synopsis.leftJustified(26) + entry.summary + QLatin1Char('\n');
    }
    return text + QStringLiteral("\nRun norvane-cloud COMMAND --help for a command's options.\n\n") + globalText;
}

} // namespace NorvaneCloudTool
