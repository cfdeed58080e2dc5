#include "output.h"

#include <QJsonArray>
#include <QStringList>

#include <type_traits>

namespace NorvaneCloudTool {

using namespace Norvane::Cloud;

namespace {

QString yesNo(bool value)
{
    return value ? QStringLiteral("yes") : QStringLiteral("no");
}

QString bytes(const QByteArray &value)
{
    return QString::fromLatin1(value);
}

QString number(qint64 value)
{
    return QString::number(value);
}

QString size(qint64 value)
{
    return value < 0 ? QStringLiteral("unknown") : QString::number(value);
}

QString doubles(const QList<double> &values)
{
    QStringList texts;
    for (double value : values)
        texts.append(QString::number(value, 'g', 10));
    return texts.join(QLatin1Char(','));
}

template <typename Number> QString numbers(const QList<Number> &values)
{
    QStringList texts;
    for (const Number value : values)
        texts.append(QString::number(value));
    return texts.join(QLatin1Char(','));
}

template <typename Number> QJsonArray jsonNumbers(const QList<Number> &values)
{
    QJsonArray array;
    for (const Number value : values)
        array.append(double(value));
    return array;
}

// The common codes by name, so that a reader need not know the TIFF tables; any other code as its number.
QString compressionName(qint32 code)
{
    static const QHash<qint32, QString> names { { 1, QStringLiteral("none") }, { 5, QStringLiteral("LZW") },
        { 7, QStringLiteral("JPEG") }, { 8, QStringLiteral("deflate") }, { 50000, QStringLiteral("ZSTD") },
        { 34887, QStringLiteral("LERC") }, { 50001, QStringLiteral("WebP") } };
    return names.value(code, QString::number(code));
}

QString sampleFormats(const QList<qint32> &formats)
{
    QStringList texts;
    for (const qint32 format : formats)
        texts.append(format == 1 ? QStringLiteral("unsigned")
                : format == 2    ? QStringLiteral("signed")
                : format == 3    ? QStringLiteral("float")
                                 : QString::number(format));
    return texts.join(QLatin1Char(','));
}

QString imageKind(const CogImageMetadata &image)
{
    if (image.mask)
        return image.reducedResolution ? QStringLiteral("mask of an overview") : QStringLiteral("mask");
    return image.reducedResolution ? QStringLiteral("overview") : QStringLiteral("full resolution");
}

} // namespace

void Table::add(const QString &label, const QString &value)
{
    rows.append({ label, value });
}

void Table::print(QTextStream &out) const
{
    qsizetype width = 0;
    for (const auto &row : rows)
        width = std::max(width, row.first.size());
    for (const auto &row : rows)
        out << row.first.leftJustified(width + 2) << row.second << '\n';
}

// A probe's table: the object as the server describes it, the format's own rows, then the verdict. Only a PMTiles
// archive may be local, so only its table says whether the object is remote.
template <typename Probe, typename FormatRows>
void printProbeTable(QTextStream &out, const Probe &result, FormatRows formatRows)
{
    Table table;
    table.add(QStringLiteral("url"), result.url.toString(QUrl::FullyEncoded));
    if constexpr (std::is_same_v<Probe, PmTilesProbeResult>)
        table.add(QStringLiteral("remote"), yesNo(result.remote));
    table.add(QStringLiteral("content length"), size(result.contentLength));
    table.add(QStringLiteral("content type"), bytes(result.contentType));
    table.add(QStringLiteral("etag"), bytes(result.etag));
    table.add(QStringLiteral("accepts ranges"), yesNo(result.acceptsRanges));
    formatRows(table);
    table.add(QStringLiteral("cloud readable"), yesNo(result.cloudReadable));
    table.add(QStringLiteral("diagnostic"), result.diagnostic);
    table.print(out);
}

void printProbe(QTextStream &out, const CogProbeResult &result)
{
    printProbeTable(out, result, [&result](Table &table) {
        table.add(QStringLiteral("byte order"),
            result.byteOrder.isEmpty() ? QStringLiteral("none") : bytes(result.byteOrder));
        table.add(QStringLiteral("BigTIFF"), yesNo(result.bigTiff));
        table.add(QStringLiteral("TIFF header valid"), yesNo(result.tiffHeaderValid));
        table.add(QStringLiteral("first IFD offset"), number(result.firstIfdOffset));
        table.add(QStringLiteral("first IFD near start"), yesNo(result.firstIfdNearStart));
    });
}

void printProbe(QTextStream &out, const PmTilesProbeResult &result)
{
    const auto offsetAndLength
        = [](qint64 offset, qint64 length) { return QStringLiteral("offset %1, length %2").arg(offset).arg(length); };
    printProbeTable(out, result, [&](Table &table) {
        table.add(QStringLiteral("version"), number(result.specificationVersion));
        table.add(QStringLiteral("header valid"), yesNo(result.headerValid));
        table.add(QStringLiteral("tile type"), QStringLiteral("%1 (%2)").arg(result.tileType).arg(result.tileKind));
        table.add(QStringLiteral("zoom"), QStringLiteral("%1 to %2").arg(result.minimumZoom).arg(result.maximumZoom));
        table.add(
            QStringLiteral("root directory"), offsetAndLength(result.rootDirectoryOffset, result.rootDirectoryLength));
        table.add(QStringLiteral("metadata"), offsetAndLength(result.metadataOffset, result.metadataLength));
        table.add(QStringLiteral("tile data"), offsetAndLength(result.tileDataOffset, result.tileDataLength));
    });
}

void printProbe(QTextStream &out, const GeoParquetProbeResult &result)
{
    printProbeTable(out, result, [&result](Table &table) {
        table.add(QStringLiteral("header marker"), yesNo(result.headerValid));
        table.add(QStringLiteral("footer marker"), yesNo(result.footerValid));
    });
}

void printStructure(QTextStream &out, const CogStructureResult &result)
{
    Table object;
    object.add(QStringLiteral("url"), result.url.toString(QUrl::FullyEncoded));
    object.add(QStringLiteral("size"), size(result.contentLength));
    object.add(QStringLiteral("byte order"),
        bytes(result.byteOrder)
            + (result.byteOrder == "II" ? QStringLiteral(" (little-endian)") : QStringLiteral(" (big-endian)")));
    object.add(QStringLiteral("format"), result.bigTiff ? QStringLiteral("BigTIFF") : QStringLiteral("classic TIFF"));
    object.add(QStringLiteral("images"), number(result.images.size()));
    object.print(out);
    for (qsizetype index = 0; index < result.images.size(); ++index) {
        const CogImageMetadata &image = result.images.at(index);
        out << "\nimage " << index << '\n';
        Table table;
        table.add(QStringLiteral("kind"), imageKind(image));
        table.add(QStringLiteral("IFD offset"), number(image.ifdOffset));
        table.add(QStringLiteral("size"), QStringLiteral("%1 x %2").arg(image.width).arg(image.height));
        table.add(image.tiled ? QStringLiteral("tiles") : QStringLiteral("strips"),
            QStringLiteral("%1 x %2, %3 of them")
                .arg(image.tileWidth)
                .arg(image.tileHeight)
                .arg(image.tileOffsets.size()));
        table.add(QStringLiteral("bands"), number(image.samplesPerPixel));
        table.add(QStringLiteral("bits/sample"),
            QStringLiteral("%1 (%2)").arg(numbers(image.bitsPerSample), sampleFormats(image.sampleFormat)));
        table.add(QStringLiteral("compression"), compressionName(image.compression));
        table.add(QStringLiteral("predictor"), number(image.predictor));
        table.add(
            QStringLiteral("photometric"), image.photometric < 0 ? QStringLiteral("none") : number(image.photometric));
        table.add(QStringLiteral("planar configuration"), number(image.planarConfiguration));
        table.print(out);
    }
}

QJsonObject structureJson(const CogStructureResult &result)
{
    QJsonArray images;
    for (const CogImageMetadata &image : result.images) {
        images.append(QJsonObject { { QStringLiteral("ifdOffset"), double(image.ifdOffset) },
            { QStringLiteral("width"), double(image.width) }, { QStringLiteral("height"), double(image.height) },
            { QStringLiteral("tiled"), image.tiled }, { QStringLiteral("tileWidth"), double(image.tileWidth) },
            { QStringLiteral("tileHeight"), double(image.tileHeight) },
            { QStringLiteral("samplesPerPixel"), image.samplesPerPixel },
            { QStringLiteral("bitsPerSample"), jsonNumbers(image.bitsPerSample) },
            { QStringLiteral("sampleFormat"), jsonNumbers(image.sampleFormat) },
            { QStringLiteral("compression"), image.compression },
            { QStringLiteral("compressionName"), compressionName(image.compression) },
            { QStringLiteral("predictor"), image.predictor }, { QStringLiteral("photometric"), image.photometric },
            { QStringLiteral("planarConfiguration"), image.planarConfiguration },
            { QStringLiteral("reducedResolution"), image.reducedResolution }, { QStringLiteral("mask"), image.mask },
            { QStringLiteral("tileOffsets"), jsonNumbers(image.tileOffsets) },
            { QStringLiteral("tileByteCounts"), jsonNumbers(image.tileByteCounts) } });
    }
    return QJsonObject { { QStringLiteral("url"), result.url.toString(QUrl::FullyEncoded) },
        { QStringLiteral("contentLength"), double(result.contentLength) },
        { QStringLiteral("byteOrder"), bytes(result.byteOrder) }, { QStringLiteral("bigTiff"), result.bigTiff },
        { QStringLiteral("images"), images } };
}

void printViewportSummary(QTextStream &out, const CogViewportResult &result)
{
    Table table;
    addViewportSummary(table, result);
    table.print(out);
}

void addViewportSummary(Table &table, const CogViewportResult &result)
{
    table.add(QStringLiteral("overview level"), number(result.overviewLevel));
    table.add(QStringLiteral("requested ranges"), number(result.requestedRanges));
    table.add(QStringLiteral("merged ranges"), number(result.coalescedRanges));
    table.add(QStringLiteral("requested bytes"), number(result.requestedBytes));
    table.add(QStringLiteral("bytes read"), number(result.bytesRead));
    table.add(QStringLiteral("cache hits"), number(result.cacheHits));
}

void printStacItems(QTextStream &out, const QList<StacItem> &items)
{
    QList<QStringList> rows { { QStringLiteral("id"), QStringLiteral("collection"), QStringLiteral("datetime"),
        QStringLiteral("assets") } };
    for (const StacItem &item : items) {
        rows.append({ item.id, item.collection, item.properties.value(QStringLiteral("datetime")).toString(),
            QString::number(item.assets.size()) });
    }
    QList<qsizetype> widths(4, 0);
    for (const QStringList &row : rows) {
        for (int column = 0; column < 4; ++column)
            widths[column] = std::max(widths[column], row.at(column).size());
    }
    for (const QStringList &row : rows) {
        for (int column = 0; column < 3; ++column)
            out << row.at(column).leftJustified(widths[column] + 2);
        out << row.at(3).rightJustified(widths[3]) << '\n';
    }
}

void printCogLayer(QTextStream &out, const StacCogLayer &layer)
{
    Table table;
    table.add(QStringLiteral("item"), layer.itemId);
    table.add(QStringLiteral("collection"), layer.collection);
    table.add(QStringLiteral("asset"), layer.assetKey);
    table.add(QStringLiteral("title"), layer.title);
    table.add(QStringLiteral("media type"), layer.mediaType);
    table.add(QStringLiteral("roles"), layer.roles.join(QLatin1Char(',')));
    table.add(QStringLiteral("bbox"), doubles(layer.bbox));
    table.add(QStringLiteral("source url"), layer.sourceUrl.toString(QUrl::FullyEncoded));
    table.add(QStringLiteral("GDAL path"), layer.gdalVirtualPath);
    table.print(out);
}

void printCacheStatistics(QTextStream &out, const CloudCacheOptions &options, const CloudCacheStatistics &statistics)
{
    Table table;
    table.add(QStringLiteral("folder"), options.directory);
    table.add(QStringLiteral("memory limit"), number(options.maximumMemoryBytes));
    table.add(QStringLiteral("disk limit"), number(options.maximumDiskBytes));
    table.add(QStringLiteral("maximum age (s)"), number(options.maximumAgeSeconds));
    table.add(QStringLiteral("memory hits"), number(statistics.memoryHits));
    table.add(QStringLiteral("disk hits"), number(statistics.diskHits));
    table.add(QStringLiteral("misses"), number(statistics.misses));
    table.add(QStringLiteral("writes"), number(statistics.writes));
    table.add(QStringLiteral("evictions"), number(statistics.evictions));
    table.add(QStringLiteral("network requests"), number(statistics.networkRequests));
    table.add(QStringLiteral("network bytes"), number(statistics.networkBytes));
    table.add(QStringLiteral("bytes served from cache"), number(statistics.cacheBytesServed));
    table.add(QStringLiteral("memory bytes"), number(statistics.memoryBytes));
    table.add(QStringLiteral("disk bytes"), number(statistics.diskBytes));
    table.print(out);
}

ProgressBar::ProgressBar(QTextStream &stream, bool enabled)
    : stream(stream)
    , enabled(enabled)
{
}

void ProgressBar::show(int percent, qint64 completed, qint64 total, const QString &message)
{
    if (!enabled)
        return;
    constexpr int width = 30;
    const int filled = std::clamp(percent, 0, 100) * width / 100;
    stream << '\r' << message << " [" << QString(filled, QLatin1Char('#')) << QString(width - filled, QLatin1Char(' '))
           << "] " << percent << "% " << completed << '/' << total << " bytes";
    stream.flush();
    drawn = true;
}

void ProgressBar::finish()
{
    if (drawn) {
        stream << '\n';
        stream.flush();
    }
}

} // namespace NorvaneCloudTool
