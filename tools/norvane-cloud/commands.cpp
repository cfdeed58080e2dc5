#include "commands.h"

#include "commandtable.h"
#include "demo.h"
#include "flatdocument.h"
#include "localobject.h"
#include "output.h"
#include "toolmessages.h"
#include "viewportwindow.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <limits>

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

// A path or a file: URL names a local file; other schemes go to the library, which names the ones it refuses.
bool isLocalFile(const QString &location)
{
    const QUrl url = urlArgument(location);
    return url.isLocalFile() || url.scheme().isEmpty();
}

QString localPath(const QString &location)
{
    const QUrl url = urlArgument(location);
    return url.isLocalFile() ? url.toLocalFile() : location;
}

GlobalOptions withoutCache(GlobalOptions global)
{
    global.noCache = true;
    return global;
}

template <typename Source, typename Location>
void printProbeOf(const QString &location, const GlobalOptions &global, QTextStream &out)
{
    Source source(makeCache(global));
    source.rangeReader().setTimeoutMilliseconds(global.timeoutMilliseconds);
    printProbe(out, source.probe(Location(location), global.headers));
}

template <typename Source>
void printLocalProbeOf(const QString &location, const GlobalOptions &global, QTextStream &out)
{
    if (!isLocalFile(location))
        return printProbeOf<Source, QUrl>(location, global, out);
    const LocalObject object(localPath(location));
    Source source(makeCache(withoutCache(global)));
    source.rangeReader().setTimeoutMilliseconds(global.timeoutMilliseconds);
    auto result = source.probe(object.url(), global.headers);
    result.url = object.fileUrl();
    printProbe(out, result);
}

using FlatProbe = int32_t (*)(NorvaneCloudClient *, const char16_t *, const char16_t *, char16_t *, int32_t);

// What the commands do with each format. A PMTiles location may be a local file, so it stays text.
struct FormatCommands {
    QString name; // as --format gives it
    QStringList extensions;
    FlatProbe flatProbe;
    void (*printProbe)(const QString &location, const GlobalOptions &global, QTextStream &out);
    QString (*gdalPath)(const QString &location);
    bool servesLocalFiles; // whether a local file is served on loopback for the library, which reads only URLs
};

const FormatCommands formats[] = {
    { QStringLiteral("cog"), { QStringLiteral(".tif"), QStringLiteral(".tiff") }, NorvaneCloud_CogProbeJson,
        printLocalProbeOf<CogSource>,
        [](const QString &location) { return CogSource(noStoringCache()).gdalVirtualPath(urlArgument(location)); },
        true },
    { QStringLiteral("pmtiles"), { QStringLiteral(".pmtiles") }, NorvaneCloud_PmTilesInspectJson,
        printProbeOf<PmTilesSource, QString>,
        [](const QString &location) { return PmTilesSource(noStoringCache()).gdalPath(location); }, false },
    { QStringLiteral("parquet"), { QStringLiteral(".parquet"), QStringLiteral(".geoparquet") },
        NorvaneCloud_GeoParquetProbeJson, printLocalProbeOf<GeoParquetSource>,
        [](const QString &location) {
            return GeoParquetSource(noStoringCache()).gdalVirtualPath(urlArgument(location));
        },
        true },
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
    const ByteRangeArgument range = byteRangeArgument(
        parts.at(0), parts.at(1), QStringLiteral("range offset"), QStringLiteral("range length"), command);
    return CogByteRange { range.offset, range.length };
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

QUrl httpUrlArgument(const QString &text, const QString &what, const QString &command)
{
    const QUrl url = urlArgument(text);
    if (!url.isValid() || url.host().isEmpty()
        || (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https")))
        throw UsageError(ToolMessages::urlNotHttp.arg(what, text), command);
    return url;
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
    std::unique_ptr<LocalObject> local;
    if (format.servesLocalFiles && isLocalFile(location))
        local = std::make_unique<LocalObject>(localPath(location));
    const QString probed = local ? local->url().toString() : location;
    QString document = flatDocument(local ? withoutCache(invocation.global) : invocation.global,
        [&](NorvaneCloudClient *client, char16_t *buffer, int32_t capacity) {
            return format.flatProbe(client, utf16(probed), nullptr, buffer, capacity);
        });
    if (local)
        document.replace(QLatin1Char('"') + probed + QLatin1Char('"'),
            QLatin1Char('"') + local->fileUrl().toString() + QLatin1Char('"'));
    console.out << document << '\n';
    return 0;
}

CogStructureResult structureOf(const QString &location, const GlobalOptions &global)
{
    if (isLocalFile(location))
        return CogSource::structureOfFile(localPath(location));
    CogSource source(makeCache(global));
    source.rangeReader().setTimeoutMilliseconds(global.timeoutMilliseconds);
    return source.structure(urlArgument(location), global.headers);
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
    // A PMTiles archive or a GeoParquet file has no TIFF structure: what there is to know of it is its probe.
    if (&formatOf(invocation, invocation.words.at(1), &formats[0]) != &formats[0])
        return probeCommand(invocation, console);
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

int viewportCommand(const Invocation &invocation, Console &console)
{
    if (invocation.has(QStringLiteral("window")) || invocation.has(QStringLiteral("map")))
        return viewportWindowCommand(invocation, console);
    requireWords(invocation, 2);
    CogViewportRequest request;
    request.url = httpUrlArgument(invocation.words.at(1), QStringLiteral("URL"), invocation.command);
    request.ranges = rangesOf(invocation);
    if (request.ranges.isEmpty())
        throw UsageError(ToolMessages::noRanges, invocation.command);
    request.headers = invocation.global.headers;
    if (invocation.has(QStringLiteral("gap")))
        request.coalesceGap
            = numberAtLeast(invocation.value(QStringLiteral("gap")), QStringLiteral("--gap"), 0, invocation.command);
    if (invocation.has(QStringLiteral("level")))
        request.overviewLevel = int(numberIn(invocation.value(QStringLiteral("level")), QStringLiteral("--level"), -1,
            std::numeric_limits<int>::max(), invocation.command));
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

int completionCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 1);
    console.out << bashCompletionScript();
    return 0;
}

int demoCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 1);
    return runDemo(invocation.global, console);
}

} // namespace NorvaneCloudTool
