#include "commands.h"

#include "demo.h"
#include "flatclient.h"
#include "output.h"

#include <norvanecloud/formats.h>
#include <norvanecloud/stac.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

namespace NorvaneCloudTool {

using namespace Norvane::Cloud;

namespace {

enum class Format { Cog, PmTiles, Parquet };

std::shared_ptr<CloudRangeCache> makeCache(const GlobalOptions &global)
{
    CloudCacheOptions options;
    options.directory = global.cacheDirectory;
    if (global.noCache) {
        options.memoryEnabled = false;
        options.diskEnabled = false;
    }
    return std::make_shared<CloudRangeCache>(options);
}

// GDAL strings need a source but no cache: with both tiers off the cache neither creates nor lists any folder.
std::shared_ptr<CloudRangeCache> noStoringCache()
{
    CloudCacheOptions options;
    options.memoryEnabled = false;
    options.diskEnabled = false;
    return std::make_shared<CloudRangeCache>(options);
}

QUrl urlArgument(const QString &text)
{
    return QUrl(text, QUrl::TolerantMode);
}

Format formatOf(const ParsedCommand &parsed, const QString &location, const QString &command)
{
    const QString given = parsed.value(QStringLiteral("format")).toLower();
    if (given == QLatin1String("cog"))
        return Format::Cog;
    if (given == QLatin1String("pmtiles"))
        return Format::PmTiles;
    if (given == QLatin1String("parquet"))
        return Format::Parquet;
    if (!given.isEmpty())
        throw UsageError(QStringLiteral("--format must be cog, pmtiles or parquet"), command);
    const QString path = urlArgument(location).path().toLower();
    const QString name = path.isEmpty() ? location.toLower() : path;
    if (name.endsWith(QLatin1String(".tif")) || name.endsWith(QLatin1String(".tiff")))
        return Format::Cog;
    if (name.endsWith(QLatin1String(".pmtiles")))
        return Format::PmTiles;
    if (name.endsWith(QLatin1String(".parquet")) || name.endsWith(QLatin1String(".geoparquet")))
        return Format::Parquet;
    throw UsageError(QStringLiteral("cannot tell the format of %1 from its name; use --format").arg(location), command);
}

void requireWords(const ParsedCommand &parsed, int count, const QString &command)
{
    if (parsed.words.size() != count)
        throw UsageError(
            parsed.words.size() < count ? QStringLiteral("missing argument") : QStringLiteral("too many arguments"),
            command);
}

int probe(const ParsedCommand &parsed, Console &console)
{
    const QString command = QStringLiteral("probe");
    requireWords(parsed, 2, command);
    const QString location = parsed.words.at(1);
    const Format format = formatOf(parsed, location, command);

    if (parsed.has(QStringLiteral("json"))) {
        FlatClient client(parsed.global);
        switch (format) {
        case Format::Cog:
            console.out << client.cogProbe(location) << '\n';
            break;
        case Format::PmTiles:
            console.out << client.pmTilesInspect(location) << '\n';
            break;
        case Format::Parquet:
            console.out << client.geoParquetProbe(location) << '\n';
            break;
        }
        return 0;
    }

    const auto cache = makeCache(parsed.global);
    switch (format) {
    case Format::Cog: {
        CogSource source(cache);
        source.rangeReader().setTimeoutMilliseconds(parsed.global.timeoutMilliseconds);
        printCogProbe(console.out, source.probe(urlArgument(location), parsed.global.headers));
        break;
    }
    case Format::PmTiles: {
        PmTilesSource source(cache);
        source.rangeReader().setTimeoutMilliseconds(parsed.global.timeoutMilliseconds);
        printPmTilesProbe(console.out, source.probe(location, parsed.global.headers));
        break;
    }
    case Format::Parquet: {
        GeoParquetSource source(cache);
        source.rangeReader().setTimeoutMilliseconds(parsed.global.timeoutMilliseconds);
        printGeoParquetProbe(console.out, source.probe(urlArgument(location), parsed.global.headers));
        break;
    }
    }
    return 0;
}

int read(const ParsedCommand &parsed, Console &console)
{
    const QString command = QStringLiteral("read");
    requireWords(parsed, 4, command);
    HttpRangeReader reader(makeCache(parsed.global));
    reader.setTimeoutMilliseconds(parsed.global.timeoutMilliseconds);
    CloudRangeRequest request;
    request.url = urlArgument(parsed.words.at(1));
    request.offset = parseInteger(parsed.words.at(2), QStringLiteral("OFFSET"), command);
    request.length = parseInteger(parsed.words.at(3), QStringLiteral("LENGTH"), command);
    request.headers = parsed.global.headers;
    request.useCache = !parsed.global.noCache;
    const CloudRangeResponse response = reader.read(request);

    const QString outputPath = parsed.value(QStringLiteral("o"));
    if (outputPath.isEmpty() || outputPath == QLatin1String("-")) {
        console.out.flush();
        QFile standardOutput;
        standardOutput.open(stdout, QIODevice::WriteOnly);
        standardOutput.write(response.data);
        return 0;
    }
    QFile file(outputPath);
    if (!file.open(QIODevice::WriteOnly) || file.write(response.data) != response.data.size()) {
        console.err << "cannot write " << outputPath << ": " << file.errorString() << '\n';
        return 1;
    }
    console.err << "wrote " << response.data.size() << " bytes to " << outputPath << " ("
                << (response.fromCache ? "from the cache" : "from the network") << ", HTTP " << response.statusCode
                << ", object size " << response.totalSize << ")\n";
    return 0;
}

CogByteRange parseRange(const QString &text, const QString &command)
{
    QString normalised = text.trimmed();
    normalised.replace(QLatin1Char(':'), QLatin1Char(' '));
    const QStringList parts = normalised.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (parts.size() != 2)
        throw UsageError(QStringLiteral("a range is OFFSET:LENGTH, got \"%1\"").arg(text), command);
    return CogByteRange { parseInteger(parts.at(0), QStringLiteral("range offset"), command),
        parseInteger(parts.at(1), QStringLiteral("range length"), command) };
}

QList<CogByteRange> rangesOf(const ParsedCommand &parsed, const QString &command)
{
    QList<CogByteRange> ranges;
    for (const QString &text : parsed.values(QStringLiteral("range")))
        ranges.append(parseRange(text, command));
    for (const QString &path : parsed.values(QStringLiteral("ranges-file"))) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
            throw UsageError(QStringLiteral("cannot read ranges file %1").arg(path), command);
        while (!file.atEnd()) {
            const QString line = QString::fromUtf8(file.readLine()).section(QLatin1Char('#'), 0, 0).trimmed();
            if (!line.isEmpty())
                ranges.append(parseRange(line, command));
        }
    }
    return ranges;
}

int viewport(const ParsedCommand &parsed, Console &console)
{
    const QString command = QStringLiteral("viewport");
    requireWords(parsed, 2, command);
    CogViewportRequest request;
    request.url = urlArgument(parsed.words.at(1));
    request.ranges = rangesOf(parsed, command);
    request.headers = parsed.global.headers;
    if (parsed.has(QStringLiteral("gap")))
        request.coalesceGap = parseInteger(parsed.value(QStringLiteral("gap")), QStringLiteral("--gap"), command);
    if (parsed.has(QStringLiteral("level")))
        request.overviewLevel
            = int(parseInteger(parsed.value(QStringLiteral("level")), QStringLiteral("--level"), command));
    ProgressBar bar(console.err, console.progressOnTerminal);
    request.context.progressSink = [&bar](const Norvane::Core::Operations::OperationProgress &progress) {
        bar.show(progress.percent, progress.completed, progress.total, progress.message);
    };

    CogSource source(makeCache(parsed.global));
    source.rangeReader().setTimeoutMilliseconds(parsed.global.timeoutMilliseconds);
    const CogViewportResult result = source.readViewport(request);
    bar.finish();
    printViewportSummary(console.out, result);
    return 0;
}

StacSearchRequest searchRequestOf(const ParsedCommand &parsed, const QString &command)
{
    StacSearchRequest request;
    if (parsed.has(QStringLiteral("collections")))
        request.collections = parsed.value(QStringLiteral("collections")).split(QLatin1Char(','), Qt::SkipEmptyParts);
    if (parsed.has(QStringLiteral("bbox"))) {
        for (const QString &number : parsed.value(QStringLiteral("bbox")).split(QLatin1Char(','))) {
            bool ok = false;
            request.bbox.append(number.trimmed().toDouble(&ok));
            if (!ok)
                throw UsageError(QStringLiteral("--bbox takes numbers separated by commas"), command);
        }
    }
    request.datetime = parsed.value(QStringLiteral("datetime"));
    if (parsed.has(QStringLiteral("limit")))
        request.limit = int(parseInteger(parsed.value(QStringLiteral("limit")), QStringLiteral("--limit"), command));
    return request;
}

QJsonObject searchRequestDocument(const StacSearchRequest &request)
{
    QJsonObject document;
    if (!request.collections.isEmpty())
        document.insert(QStringLiteral("collections"), QJsonArray::fromStringList(request.collections));
    if (!request.bbox.isEmpty()) {
        QJsonArray bbox;
        for (double value : request.bbox)
            bbox.append(value);
        document.insert(QStringLiteral("bbox"), bbox);
    }
    if (!request.datetime.isEmpty())
        document.insert(QStringLiteral("datetime"), request.datetime);
    document.insert(QStringLiteral("limit"), request.limit);
    return document;
}

int stacSearch(const ParsedCommand &parsed, Console &console)
{
    const QString command = QStringLiteral("stac search");
    requireWords(parsed, 3, command);
    const QUrl catalog = urlArgument(parsed.words.at(2));
    const StacSearchRequest request = searchRequestOf(parsed, command);
    if (parsed.has(QStringLiteral("json"))) {
        FlatClient client(parsed.global);
        console.out << client.stacSearch(parsed.words.at(2), searchRequestDocument(request)) << '\n';
        return 0;
    }
    const qint64 maximumPages = parseInteger(
        parsed.value(QStringLiteral("max-pages"), QStringLiteral("1")), QStringLiteral("--max-pages"), command);
    if (maximumPages < 1)
        throw UsageError(QStringLiteral("--max-pages must be at least 1"), command);

    StacClient client(catalog, makeCache(parsed.global));
    client.setTimeoutMilliseconds(parsed.global.timeoutMilliseconds);
    client.setHeaders(parsed.global.headers);
    StacSearchResult page = client.search(request);
    QList<StacItem> items = page.items;
    qint64 pages = 1;
    console.err << "page 1: " << page.items.size() << " items\n";
    while (pages < maximumPages && page.nextPage.isValid()) {
        page = client.fetchNext(page);
        ++pages;
        items.append(page.items);
        console.err << "page " << pages << ": " << page.items.size() << " items\n";
    }
    printStacItems(console.out, items);
    console.out << '\n' << items.size() << " items on " << pages << (pages == 1 ? " page" : " pages");
    if (page.matched >= 0)
        console.out << "; the catalogue reports " << page.matched << " matching";
    console.out << (page.nextPage.isValid() ? "; more pages follow" : "; no further page") << '\n';
    return 0;
}

int stacLayer(const ParsedCommand &parsed, Console &console)
{
    const QString command = QStringLiteral("stac layer");
    requireWords(parsed, 3, command);
    if (!parsed.has(QStringLiteral("item")))
        throw UsageError(QStringLiteral("--item N is required"), command);
    const qint64 index = parseInteger(parsed.value(QStringLiteral("item")), QStringLiteral("--item"), command);
    const StacSearchRequest request = searchRequestOf(parsed, command);
    const QString assetKey = parsed.value(QStringLiteral("asset"));
    if (parsed.has(QStringLiteral("json"))) {
        FlatClient client(parsed.global);
        console.out << client.stacResolveCogLayer(
            parsed.words.at(2), searchRequestDocument(request), assetKey, int(index))
                    << '\n';
        return 0;
    }
    StacClient client(urlArgument(parsed.words.at(2)), makeCache(parsed.global));
    client.setTimeoutMilliseconds(parsed.global.timeoutMilliseconds);
    client.setHeaders(parsed.global.headers);
    const StacSearchResult page = client.search(request);
    if (index < 0 || index >= page.items.size()) {
        console.err << "item " << index << " is not on the first page (" << page.items.size() << " items)\n";
        return 1;
    }
    printCogLayer(console.out, client.cogLayer(page.items.at(int(index)), assetKey));
    return 0;
}

int gdalPath(const ParsedCommand &parsed, Console &console)
{
    const QString command = QStringLiteral("gdal-path");
    requireWords(parsed, 2, command);
    const QString location = parsed.words.at(1);
    Format format = Format::Cog;
    try {
        format = formatOf(parsed, location, command);
    } catch (const UsageError &) {
        if (parsed.has(QStringLiteral("format")))
            throw;
    }
    switch (format) {
    case Format::Cog:
        console.out << CogSource(noStoringCache()).gdalVirtualPath(urlArgument(location)) << '\n';
        break;
    case Format::PmTiles:
        console.out << PmTilesSource(noStoringCache()).gdalPath(location) << '\n';
        break;
    case Format::Parquet:
        console.out << GeoParquetSource(noStoringCache()).gdalVirtualPath(urlArgument(location)) << '\n';
        break;
    }
    return 0;
}

int gdalOptions(const ParsedCommand &parsed, Console &console)
{
    const QString command = QStringLiteral("gdal-options");
    requireWords(parsed, 1, command);
    const qint64 cacheSize = parseInteger(parsed.value(QStringLiteral("cache-size"), QStringLiteral("268435456")),
        QStringLiteral("--cache-size"), command);
    const QHash<QByteArray, QByteArray> options = CogSource(noStoringCache()).recommendedGdalOptions(cacheSize);
    QList<QByteArray> keys = options.keys();
    std::sort(keys.begin(), keys.end());
    QStringList pairs;
    for (const QByteArray &key : keys)
        pairs.append(
            QStringLiteral("--config %1 %2").arg(QString::fromLatin1(key), QString::fromLatin1(options.value(key))));
    console.out << pairs.join(QLatin1Char(' ')) << '\n';
    return 0;
}

int cacheStats(const ParsedCommand &parsed, Console &console)
{
    requireWords(parsed, 2, QStringLiteral("cache stats"));
    if (parsed.has(QStringLiteral("json"))) {
        FlatClient client(parsed.global);
        console.out << client.cacheStatistics() << '\n';
        return 0;
    }
    const auto cache = makeCache(parsed.global);
    printCacheStatistics(console.out, cache->options(), cache->statistics());
    return 0;
}

int cacheClear(const ParsedCommand &parsed, Console &console)
{
    requireWords(parsed, 2, QStringLiteral("cache clear"));
    const auto cache = makeCache(parsed.global);
    const qint64 bytes = cache->statistics().diskBytes;
    cache->clear();
    console.out << "cleared " << bytes << " bytes of entry files in " << cache->options().directory << '\n';
    return 0;
}

} // namespace

QList<OptionSpec> optionsOf(const QString &command)
{
    const OptionSpec json { QStringLiteral("json"), false };
    const QList<OptionSpec> search { { QStringLiteral("collections"), true }, { QStringLiteral("bbox"), true },
        { QStringLiteral("datetime"), true }, { QStringLiteral("limit"), true }, json };
    if (command == QLatin1String("probe"))
        return { { QStringLiteral("format"), true }, json };
    if (command == QLatin1String("read"))
        return { { QStringLiteral("o"), true }, { QStringLiteral("output"), true } };
    if (command == QLatin1String("viewport"))
        return { { QStringLiteral("range"), true }, { QStringLiteral("ranges-file"), true },
            { QStringLiteral("gap"), true }, { QStringLiteral("level"), true } };
    if (command == QLatin1String("stac search"))
        return search + QList<OptionSpec> { { QStringLiteral("max-pages"), true } };
    if (command == QLatin1String("stac layer"))
        return search + QList<OptionSpec> { { QStringLiteral("item"), true }, { QStringLiteral("asset"), true } };
    if (command == QLatin1String("gdal-path"))
        return { { QStringLiteral("format"), true } };
    if (command == QLatin1String("gdal-options"))
        return { { QStringLiteral("cache-size"), true } };
    if (command == QLatin1String("cache stats"))
        return { json };
    return {};
}

int runCommand(const QString &command, const QStringList &arguments, Console &console)
{
    ParsedCommand parsed = parseCommandLine(arguments, optionsOf(command), command);
    if (parsed.helpRequested) {
        console.out << usageText(command);
        return 0;
    }
    if (parsed.has(QStringLiteral("output")))
        parsed.options.insert(QStringLiteral("o"), parsed.value(QStringLiteral("output")));
    if (command == QLatin1String("probe"))
        return probe(parsed, console);
    if (command == QLatin1String("read"))
        return read(parsed, console);
    if (command == QLatin1String("viewport"))
        return viewport(parsed, console);
    if (command == QLatin1String("stac search"))
        return stacSearch(parsed, console);
    if (command == QLatin1String("stac layer"))
        return stacLayer(parsed, console);
    if (command == QLatin1String("gdal-path"))
        return gdalPath(parsed, console);
    if (command == QLatin1String("gdal-options"))
        return gdalOptions(parsed, console);
    if (command == QLatin1String("cache stats"))
        return cacheStats(parsed, console);
    if (command == QLatin1String("cache clear"))
        return cacheClear(parsed, console);
    if (command == QLatin1String("demo")) {
        requireWords(parsed, 1, command);
        return runDemo(parsed.global, console);
    }
    throw UsageError(
        command.isEmpty() ? QStringLiteral("no command given") : QStringLiteral("unknown command \"%1\"").arg(command),
        QString());
}

} // namespace NorvaneCloudTool
