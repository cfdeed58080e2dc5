#include "commands.h"

#include "demo.h"
#include "flatdocument.h"
#include "output.h"
#include "toolmessages.h"
#include "viewportwindow.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>

namespace NorvaneCloudTool {

using namespace Norvane::Cloud;

namespace {

// GDAL strings need a source but no cache: with both tiers off the cache neither creates nor lists any folder.
std::shared_ptr<CloudRangeCache> noStoringCache()
{
    GlobalOptions nothingStored;
    nothingStored.noCache = true;
    return makeCache(nothingStored);
}

template <typename Source, typename Location>
void printProbeOf(const QString &location, const GlobalOptions &global, QTextStream &out)
{
    Source source(makeCache(global));
    source.rangeReader().setTimeoutMilliseconds(global.timeoutMilliseconds);
    printProbe(out, source.probe(Location(location), global.headers));
}

using FlatProbe = int32_t (*)(NorvaneCloudClient *, const char16_t *, const char16_t *, char16_t *, int32_t);

// What the commands do with each format. A PMTiles location may be a local file, so it stays text.
struct FormatCommands {
    QString name; // as --format gives it
    QStringList extensions;
    FlatProbe flatProbe;
    void (*printProbe)(const QString &location, const GlobalOptions &global, QTextStream &out);
    QString (*gdalPath)(const QString &location);
};

const FormatCommands formats[] = {
    { QStringLiteral("cog"), { QStringLiteral(".tif"), QStringLiteral(".tiff") }, NorvaneCloud_CogProbeJson,
        printProbeOf<CogSource, QUrl>,
        [](const QString &location) { return CogSource(noStoringCache()).gdalVirtualPath(urlArgument(location)); } },
    { QStringLiteral("pmtiles"), { QStringLiteral(".pmtiles") }, NorvaneCloud_PmTilesInspectJson,
        printProbeOf<PmTilesSource, QString>,
        [](const QString &location) { return PmTilesSource(noStoringCache()).gdalPath(location); } },
    { QStringLiteral("parquet"), { QStringLiteral(".parquet"), QStringLiteral(".geoparquet") },
        NorvaneCloud_GeoParquetProbeJson, printProbeOf<GeoParquetSource, QUrl>,
        [](const QString &location) {
            return GeoParquetSource(noStoringCache()).gdalVirtualPath(urlArgument(location));
        } },
};

// The format --format names, else the one the location's extension tells, else the fallback unless --format was
// given.
const FormatCommands &formatOf(
    const Invocation &invocation, const QString &location, const FormatCommands *fallback = nullptr)
{
    const QString given = invocation.value(QStringLiteral("format")).toLower();
    for (const FormatCommands &format : formats) {
        if (given == format.name)
            return format;
    }
    if (!given.isEmpty())
        throw UsageError(ToolMessages::formatUnknown, invocation.command);
    const QString path = urlArgument(location).path().toLower();
    const QString name = path.isEmpty() ? location.toLower() : path;
    for (const FormatCommands &format : formats) {
        if (std::any_of(format.extensions.begin(), format.extensions.end(),
                [&name](const QString &extension) { return name.endsWith(extension); }))
            return format;
    }
    if (fallback && !invocation.has(QStringLiteral("format")))
        return *fallback;
    throw UsageError(ToolMessages::formatNotTold.arg(location), invocation.command);
}

CogByteRange parseRange(const QString &text, const QString &command)
{
    QString normalised = text.trimmed();
    normalised.replace(QLatin1Char(':'), QLatin1Char(' '));
    const QStringList parts = normalised.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (parts.size() != 2)
        throw UsageError(ToolMessages::rangeMalformed.arg(text), command);
    return CogByteRange { wholeNumber(parts.at(0), QStringLiteral("range offset"), command),
        wholeNumber(parts.at(1), QStringLiteral("range length"), command) };
}

QList<CogByteRange> rangesOf(const Invocation &invocation)
{
    QList<CogByteRange> ranges;
    for (const QString &text : invocation.values(QStringLiteral("range")))
        ranges.append(parseRange(text, invocation.command));
    for (const QString &path : invocation.values(QStringLiteral("ranges-file")))
        ranges.append(rangesFromFile(path, invocation.command));
    return ranges;
}

} // namespace

QList<CogByteRange> rangesFromFile(const QString &path, const QString &command)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        throw UsageError(ToolMessages::rangesFileUnreadable.arg(path), command);
    QList<CogByteRange> ranges;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).section(QLatin1Char('#'), 0, 0).trimmed();
        if (!line.isEmpty())
            ranges.append(parseRange(line, command));
    }
    return ranges;
}

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

QUrl urlArgument(const QString &text)
{
    return QUrl(text, QUrl::TolerantMode);
}

int probeCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 2);
    const QString location = invocation.words.at(1);
    const FormatCommands &format = formatOf(invocation, location);
    if (!invocation.has(QStringLiteral("json"))) {
        format.printProbe(location, invocation.global, console.out);
        return 0;
    }
    console.out << flatDocument(invocation.global, [&](NorvaneCloudClient *client, char16_t *buffer, int32_t capacity) {
        return format.flatProbe(client, utf16(location), nullptr, buffer, capacity);
    }) << '\n';
    return 0;
}

CogStructureResult structureOf(const QString &location, const GlobalOptions &global)
{
    const QUrl url = urlArgument(location);
    if (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https"))
        return CogSource::structureOfFile(url.isLocalFile() ? url.toLocalFile() : location);
    CogSource source(makeCache(global));
    source.rangeReader().setTimeoutMilliseconds(global.timeoutMilliseconds);
    return source.structure(url, global.headers);
}

int printLayoutVerdict(QTextStream &out, const CogStructureResult &structure)
{
    const QStringList violations = CogSource::layoutViolations(structure);
    out << '\n';
    if (violations.isEmpty()) {
        out << ToolMessages::layoutValid << '\n';
        return 0;
    }
    out << ToolMessages::layoutNotValid << '\n';
    for (const QString &violation : violations)
        out << "  - " << violation << '\n';
    return 3;
}

int infoCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 2);
    const CogStructureResult structure = structureOf(invocation.words.at(1), invocation.global);
    const bool validate = invocation.has(QStringLiteral("validate"));
    if (invocation.has(QStringLiteral("json"))) {
        QJsonObject document = structureJson(structure);
        const QStringList violations = CogSource::layoutViolations(structure);
        if (validate) {
            document.insert(QStringLiteral("layoutValid"), violations.isEmpty());
            document.insert(QStringLiteral("layoutViolations"), QJsonArray::fromStringList(violations));
        }
        console.out << QJsonDocument(document).toJson(QJsonDocument::Compact) << '\n';
        return validate && !violations.isEmpty() ? 3 : 0;
    }
    printStructure(console.out, structure);
    if (!validate)
        return 0;
    return printLayoutVerdict(console.out, structure);
}

int readCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 4);
    HttpRangeReader reader(makeCache(invocation.global));
    reader.setTimeoutMilliseconds(invocation.global.timeoutMilliseconds);
    CloudRangeRequest request;
    request.url = urlArgument(invocation.words.at(1));
    request.offset = wholeNumber(invocation.words.at(2), QStringLiteral("OFFSET"), invocation.command);
    request.length = wholeNumber(invocation.words.at(3), QStringLiteral("LENGTH"), invocation.command);
    request.headers = invocation.global.headers;
    request.useCache = !invocation.global.noCache;
    const CloudRangeResponse response = reader.read(request);

    // --output, when given, wins over -o wherever each stands.
    const QString outputPath = invocation.value(QStringLiteral("output"), invocation.value(QStringLiteral("o")));
    if (outputPath.isEmpty() || outputPath == QLatin1String("-")) {
        console.out.flush();
        QFile standardOutput;
        standardOutput.open(stdout, QIODevice::WriteOnly);
        standardOutput.write(response.data);
        return 0;
    }
    QFile file(outputPath);
    if (!file.open(QIODevice::WriteOnly) || file.write(response.data) != response.data.size()) {
        console.err << ToolMessages::outputNotWritten.arg(outputPath, file.errorString()) << '\n';
        return 1;
    }
    console.err << "wrote " << response.data.size() << " bytes to " << outputPath << " ("
                << (response.fromCache ? "from the cache" : "from the network") << ", HTTP " << response.statusCode
                << ", object size " << response.totalSize << ")\n";
    return 0;
}

int viewportCommand(const Invocation &invocation, Console &console)
{
    if (invocation.has(QStringLiteral("window")) || invocation.has(QStringLiteral("map")))
        return viewportWindowCommand(invocation, console);
    requireWords(invocation, 2);
    CogViewportRequest request;
    request.url = urlArgument(invocation.words.at(1));
    request.ranges = rangesOf(invocation);
    request.headers = invocation.global.headers;
    if (invocation.has(QStringLiteral("gap")))
        request.coalesceGap
            = wholeNumber(invocation.value(QStringLiteral("gap")), QStringLiteral("--gap"), invocation.command);
    if (invocation.has(QStringLiteral("level")))
        request.overviewLevel = int(
            wholeNumber(invocation.value(QStringLiteral("level")), QStringLiteral("--level"), invocation.command));
    ProgressBar bar(console.err, console.progressOnTerminal);
    request.context.progressSink = [&bar](const Norvane::Core::Operations::OperationProgress &progress) {
        bar.show(progress.percent, progress.completed, progress.total, progress.message);
    };

    CogSource source(makeCache(invocation.global));
    source.rangeReader().setTimeoutMilliseconds(invocation.global.timeoutMilliseconds);
    const CogViewportResult result = source.readViewport(request);
    bar.finish();
    printViewportSummary(console.out, result);
    return 0;
}

int gdalPathCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 2);
    const QString location = invocation.words.at(1);
    console.out << formatOf(invocation, location, &formats[0]).gdalPath(location) << '\n';
    return 0;
}

int cacheStatsCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 2);
    if (invocation.has(QStringLiteral("json"))) {
        console.out << flatDocument(
            invocation.global, [](NorvaneCloudClient *client, char16_t *buffer, int32_t capacity) {
                return NorvaneCloud_CacheStatisticsJson(client, buffer, capacity);
            }) << '\n';
        return 0;
    }
    const auto cache = makeCache(invocation.global);
    printCacheStatistics(console.out, cache->options(), cache->statistics());
    return 0;
}

int cacheClearCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 2);
    const auto cache = makeCache(invocation.global);
    const qint64 bytes = cache->statistics().diskBytes;
    cache->clear();
    console.out << "cleared " << bytes << " bytes of entry files in " << cache->options().directory << '\n';
    return 0;
}

int demoCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 1);
    return runDemo(invocation.global, console);
}

} // namespace NorvaneCloudTool
