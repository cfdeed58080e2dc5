// The format sources. Header rules, the viewport reading plan and the GDAL strings are pure functions; probes and
// reads go to the real files in tests/data served by nginx, and to a scripted server for answers nginx never gives.
// Results are compared as one line of words, so a failing row shows everything that differs.

#include "faultserver.h"
#include "formats/pmtilesheader.h"
#include "formats/tiffheader.h"
#include "formats/viewportplan.h"
#include "nginxserver.h"

#include <norvanecloud/formats.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <functional>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;
using namespace Norvane::Core::Operations;

using Call = std::function<QString()>;
Q_DECLARE_METATYPE(Call)

// A row's call runs when the row runs, so that what it throws becomes the row's outcome.
#define ROW(name, call, expected) QTest::newRow(name) << Call([=] { return call; }) << QString(expected)

namespace {

const QString atStart = QStringLiteral("TIFF is range-readable and its first IFD is near the start.");
const QString notAtStart
    = QStringLiteral("TIFF is range-readable, but its first IFD is not near the start; COG layout is unlikely.");
const QString invalidIfd = QStringLiteral("TIFF header contains an invalid first IFD offset.");
const QString unsupported = QStringLiteral("Not a supported TIFF or BigTIFF stream.");
const QString pmNotReadable = QStringLiteral("PMTiles requires HTTP byte ranges and a valid v3 archive header.");
const QString parquetReadable = QStringLiteral("GeoParquet is range-readable and has valid Parquet boundary markers.");
const QString parquetNotReadable
    = QStringLiteral("GeoParquet requires HTTP byte ranges and valid PAR1 header/footer markers.");

QString dataPath(const QString &relativePath)
{
    return QStringLiteral(NORVANE_TEST_DATA_DIR "/") + relativePath;
}

QByteArray dataBytes(const QString &relativePath)
{
    QFile file(dataPath(relativePath));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The call's text, or the message of what it threw.
QString outcome(const Call &call)
{
    try {
        return call();
    } catch (const std::exception &error) {
        return QString::fromUtf8(error.what());
    }
}

QString flag(bool on, const QString &word)
{
    return on && !word.isEmpty() ? QLatin1Char(' ') + word : QString();
}

QString facts(const CogProbeResult &r)
{
    return (r.byteOrder.isEmpty() ? "--" : r.byteOrder) + flag(r.bigTiff, "BigTIFF")
        + " ifd=" + QString::number(r.firstIfdOffset) + flag(r.tiffHeaderValid, "valid")
        + flag(r.firstIfdNearStart, "near") + flag(r.cloudReadable, "readable") + ": " + r.diagnostic;
}

QString facts(const PmTilesProbeResult &r)
{
    QString text = QStringLiteral("%1 v%2").arg(r.contentLength).arg(r.specificationVersion);
    for (const qint64 value : { r.rootDirectoryOffset, r.rootDirectoryLength, r.metadataOffset, r.metadataLength,
             r.tileDataOffset, r.tileDataLength })
        text += QLatin1Char(' ') + QString::number(value);
    return text + QStringLiteral(" t%1 z%2-%3").arg(r.tileType).arg(r.minimumZoom).arg(r.maximumZoom)
        + flag(true, r.tileKind) + flag(r.headerValid, "valid") + flag(r.cloudReadable, "readable") + ": "
        + r.diagnostic;
}

QString facts(const GeoParquetProbeResult &r)
{
    return QString::number(r.contentLength) + flag(r.headerValid, "header") + flag(r.footerValid, "footer")
        + flag(r.cloudReadable, "readable") + ": " + r.diagnostic;
}

QString tiffHeader(const char *hex, qint64 contentLength = 99999, bool acceptsRanges = true)
{
    CogProbeResult result;
    result.contentLength = contentLength;
    result.acceptsRanges = acceptsRanges;
    applyTiffHeader(result, QByteArray::fromHex(hex));
    return facts(result);
}

// "magic version rootOffset rootLength metadataOffset metadataLength tileOffset tileLength tileType minZoom maxZoom"
// of a remote archive. Bytes the probe does not read hold a pattern, so a read at a wrong position shows.
QString pmTilesHeader(const QString &fields, qint64 contentLength = 466, bool acceptsRanges = true)
{
    const QStringList words = fields.split(QLatin1Char(' '));
    QByteArray bytes(127, '\xa5');
    bytes.replace(0, 7, words[0].toLatin1());
    const int positions[] = { 7, 8, 16, 24, 32, 56, 64, 99, 100, 101 };
    for (int field = 0; field < 10; ++field) {
        for (int index = 0; index < (field == 0 || field > 6 ? 1 : 8); ++index)
            bytes[positions[field] + index] = char(words[field + 1].toULongLong() >> (8 * index));
    }
    PmTilesProbeResult result;
    result.contentLength = contentLength;
    result.acceptsRanges = acceptsRanges;
    result.remote = true;
    applyPmTilesHeader(result, bytes);
    return facts(result);
}

// "offset+length" per range, separated by spaces.
QList<CogByteRange> parsedRanges(const QString &text)
{
    QList<CogByteRange> ranges;
    for (const QString &range : text.split(QLatin1Char(' '), Qt::SkipEmptyParts))
        ranges.append({ range.section(QLatin1Char('+'), 0, 0).toLongLong(), range.section('+', 1).toLongLong() });
    return ranges;
}

QString plan(const QString &ranges, qint64 coalesceGap)
{
    validateByteRanges(parsedRanges(ranges));
    QStringList merged;
    for (const CogByteRange &range : coalesceByteRanges(parsedRanges(ranges), coalesceGap))
        merged << QStringLiteral("%1+%2").arg(range.offset).arg(range.length);
    return merged.join(QLatin1Char(' '));
}

// "/<mode>/<name>" serves the data file of that name, or the name's own bytes when there is none: honestly
// ("ranges"), with 206 answers but no Accept-Ranges ("silent"), or always whole and without Accept-Ranges ("whole").
FaultReply faultyObject(const FaultRequest &request)
{
    const QString mode = QString::fromLatin1(request.target).section(QLatin1Char('/'), 1, 1);
    const QString name = QString::fromLatin1(request.target).section(QLatin1Char('/'), 2);
    FaultRequest asked = request;
    if (mode == QLatin1String("whole"))
        asked.headers.clear();
    FaultReply reply = objectReply(asked, QFile::exists(dataPath(name)) ? dataBytes(name) : name.toLatin1());
    if (mode != QLatin1String("ranges"))
        reply.bytes.replace("Accept-Ranges: bytes\r\n", "");
    return reply;
}

} // namespace

class FormatsTest : public QObject {
    Q_OBJECT

    QTemporaryDir cacheFolder;
    std::shared_ptr<CloudRangeCache> cache;
    NginxServer nginx { QStringLiteral(NORVANE_TEST_DATA_DIR) };
    FaultServer fault { faultyObject };

    static void columns()
    {
        QTest::addColumn<Call>("call");
        QTest::addColumn<QString>("expected");
    }
    static void check()
    {
        QFETCH(Call, call);
        QTEST(outcome(call), "expected");
    }

    // The COG refusal; the other two sources must answer alike, saying "Cloud object URL" where COG says "COG URL".
    QString virtualPath(const QString &url) const
    {
        const QString cog = outcome([&] { return CogSource(cache).gdalVirtualPath(QUrl(url)); });
        const QStringList others { outcome([&] { return PmTilesSource(cache).gdalVirtualPath(QUrl(url)); }),
            outcome([&] { return GeoParquetSource(cache).gdalVirtualPath(QUrl(url)); }) };
        const QString expected = QString(cog).replace(QStringLiteral("COG URL"), QStringLiteral("Cloud object URL"));
        return others.count(expected) == 2 ? cog : others.join(QLatin1Char('\n'));
    }

    QString gdalOptions(qint64 cacheSize) const
    {
        QStringList pairs;
        const QHash<QByteArray, QByteArray> options = CogSource(cache).recommendedGdalOptions(cacheSize);
        for (auto option = options.cbegin(); option != options.cend(); ++option)
            pairs << QString::fromLatin1(option.key() + '=' + option.value());
        pairs.sort();
        return pairs.join(QLatin1Char(' '));
    }

    // Paths under /ranges/, /silent/ and /whole/ go to the scripted server, which also counts the requests.
    template <typename Source> QString probed(const QString &path) const
    {
        const bool scripted = QStringList { "ranges", "silent", "whole" }.contains(path.section('/', 1, 1));
        const int before = fault.requestCount();
        const QString text = outcome(
            [&] { return facts(Source(cache).probe(scripted ? fault.url(path.toLatin1()) : nginx.url(path), {})); });
        return text + (scripted ? QStringLiteral("; requests: %1").arg(fault.requestCount() - before) : QString());
    }

    QString archive(const QString &file) const
    {
        const PmTilesSource source(cache);
        return facts(source.probe(dataPath("pmtiles/" + file), {})) + '\n'
            + facts(source.probe(nginx.url("/pmtiles/" + file).toString(), {}));
    }
    static QString both(const QString &text)
    {
        return QString(text).replace("%1", "local") + '\n' + QString(text).replace("%1", "HTTP");
    }

    QString localRange(const QString &file, qint64 offset, qint64 length) const
    {
        const CloudRangeResponse r = PmTilesSource(cache).readRange(dataPath(file), offset, length, {});
        return (r.data == dataBytes(file).mid(offset, length) ? "file bytes" : "other bytes")
            + QStringLiteral(" of %1, %2 ").arg(r.totalSize).arg(r.statusCode) + r.contentType;
    }

    // Progress reaching cancelAt bytes cancels the viewport.
    QString stoppedViewport(const char *url, const char *ranges, qint64 coalesceGap, qint64 cancelAt) const
    {
        CogViewportRequest request;
        request.url = url[0] == '/' ? fault.url(url) : QUrl(QString::fromLatin1(url));
        request.ranges = parsedRanges(QString::fromLatin1(ranges));
        request.coalesceGap = coalesceGap;
        request.context.progressSink
            = [token = request.context.cancellationToken, cancelAt](const OperationProgress &p) {
                  if (p.completed == cancelAt)
                      token.requestCancellation();
              };
        const int before = fault.requestCount();
        const QString text = outcome([&] { return QString::number(CogSource(cache).readViewport(request).bytesRead); });
        return text + QStringLiteral("; requests: %1").arg(fault.requestCount() - before);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(cacheFolder.isValid());
        QVERIFY2(nginx.start(), qPrintable(nginx.errorString()));
    }

    // A fresh cache for every row, in memory only, so that no row is served from an earlier one.
    void init()
    {
        CloudCacheOptions options;
        options.directory = cacheFolder.path();
        options.diskEnabled = false;
        cache = std::make_shared<CloudRangeCache>(options);
    }

    void headerRules_data()
    {
        columns();
        ROW("IFD at 7", tiffHeader("49492a0007000000"), "II ifd=7 near: " + invalidIfd);
        ROW("IFD at 16384", tiffHeader("49492a0000400000"), "II ifd=16384 valid near readable: " + atStart);
        ROW("IFD at 16385", tiffHeader("4d4d002a00004001"), "MM ifd=16385 valid readable: " + notAtStart);
        ROW("IFD at the object's end", tiffHeader("49492a00e8030000", 1000), "II ifd=1000 valid near: " + atStart);
        ROW("no ranges", tiffHeader("49492a0004000000", 99999, false),
            "II ifd=4 near: Server does not advertise HTTP byte-range support.");
        ROW("PNG signature", tiffHeader("89504e470d0a1a0a0000000d49484452", 99999, false),
            "-- ifd=-1: Not a TIFF stream: invalid byte-order marker.");
        ROW("version 44", tiffHeader("49492c0008000000"), "II ifd=-1: " + unsupported);
        ROW("BigTIFF, IFD at 16", tiffHeader("49492b00080000001000000000000000"),
            "II BigTIFF ifd=16 valid near readable: " + atStart);
        ROW("BigTIFF, IFD at 15", tiffHeader("4d4d002b00080000000000000000000f"),
            "MM BigTIFF ifd=15 near: " + invalidIfd);
        ROW("BigTIFF offset size 4", tiffHeader("49492b00040000001000000000000000"),
            "II BigTIFF ifd=-1: " + unsupported);
        ROW("BigTIFF reserved 1", tiffHeader("4d4d002b000800010000000000000010"), "MM BigTIFF ifd=-1: " + unsupported);
        ROW("BigTIFF top-bit IFD", tiffHeader("49492b00080000001000000000000080"), "II BigTIFF ifd=-1: " + invalidIfd);
        ROW("BigTIFF 64-bit IFD, unknown length", tiffHeader("4d4d002b000800000000000100004000", -1),
            "MM BigTIFF ifd=4294983680 valid readable: " + notAtStart);
        ROW("tile data one byte past", pmTilesHeader("PMTiles 3 127 25 152 247 399 68 1 0 0"),
            "466 v3 127 25 152 247 399 68 t1 z0-0 vector: " + pmNotReadable);
        ROW("metadata length wraps", pmTilesHeader("PMTiles 3 127 25 152 18446744073709551515 399 67 1 0 0"),
            "466 v3 127 25 152 -101 399 67 t1 z0-0 vector: " + pmNotReadable);
        ROW("top-bit offset", pmTilesHeader("PMTiles 3 127 25 152 247 9223372036854775808 0 1 0 0"),
            "466 v3 127 25 152 247 -9223372036854775808 0 t1 z0-0 vector: " + pmNotReadable);
        ROW("reversed zooms", pmTilesHeader("PMTiles 3 127 25 152 247 399 67 1 10 5"),
            "466 v3 127 25 152 247 399 67 t1 z10-5 vector: " + pmNotReadable);
        ROW("version 2", pmTilesHeader("PMTiles 2 127 25 152 247 399 67 1 0 0"),
            "466 v2 0 0 0 0 0 0 t0 z0-0: " + pmNotReadable);
        ROW("lower-case magic", pmTilesHeader("pmtiles 3 127 25 152 247 399 67 1 0 0"),
            "466 v3 0 0 0 0 0 0 t0 z0-0: " + pmNotReadable);
        ROW("127 bytes, AVIF", pmTilesHeader("PMTiles 3 127 0 127 0 127 0 5 0 0", 127),
            "127 v3 127 0 127 0 127 0 t5 z0-0 raster valid readable: "
            "PMTiles v3 raster archive is HTTP range-readable; directory offsets are valid.");
        ROW("126 bytes", pmTilesHeader("PMTiles 3 127 25 152 247 399 67 1 0 0", 126),
            "126 v0 0 0 0 0 0 0 t0 z0-0: Object is too small to contain a PMTiles v3 header.");
    }
    void headerRules() { check(); }

    void viewportPlan_data()
    {
        columns();
        const QString invalid = QStringLiteral("COG viewport contains an invalid byte range");
        ROW("touching ranges, gap 0", plan("0+100 100+50", 0), "0+150");
        ROW("hole of exactly the gap", plan("0+100 4196+10", 4096), "0+4206");
        ROW("hole one past the gap", plan("0+100 4197+10", 4096), "0+100 4197+10");
        ROW("contained and repeated", plan("0+1000 10+20 10+20", 0), "0+1000");
        ROW("descending input", plan("9000+10 5000+10 1000+10", 100), "1000+10 5000+10 9000+10");
        ROW("hole from the merged end", plan("0+1000 10+10 1050+10", 50), "0+1060");
        ROW("largest gap", plan("9223372036854775806+1 0+1 1099511627776+5", 9223372036854775807),
            "0+9223372036854775807");
        ROW("end at the largest offset", plan("1+9223372036854775806", 0), "1+9223372036854775806");
        ROW("offset at the largest value", plan("9223372036854775807+1", 0), invalid);
        ROW("length 0 after a good range", plan("0+1 10+0", 0), invalid);
        ROW("negative offset", plan("-1+10", 0), invalid);
        // Requested ranges may overlap, so their sum is not bounded by the object's size.
        ROW("requested bytes saturate", QString::number(sumOfLengths(parsedRanges("0+9223372036854775807 0+1"))),
            "9223372036854775807");
        ROW("percent rounds down", QString::number(viewportPercent(2, 3)), "66");
        ROW("percent stays below 100", QString::number(viewportPercent(1000, 1000)), "99");
        ROW("percent without overflow", QString::number(viewportPercent(4611686018427387903, 9223372036854775807)),
            "49");
    }
    void viewportPlan() { check(); }

    void gdalStrings_data()
    {
        columns();
        ROW("https", virtualPath("https://example.com/cogs/a.tif"), "/vsicurl/https://example.com/cogs/a.tif");
        ROW("port, space and query", virtualPath("http://127.0.0.1:8080/my data/a.tif?x=a b&y=2"),
            "/vsicurl/http://127.0.0.1:8080/my%20data/a.tif?x=a%20b&y=2");
        ROW("non-ASCII path", virtualPath(QStringLiteral("https://example.com/K\u00f6ln/\u00fcber.tif")),
            "/vsicurl/https://example.com/K%C3%B6ln/%C3%BCber.tif");
        ROW("upper-case scheme", virtualPath("HTTPS://example.com/A.TIF"), "/vsicurl/https://example.com/A.TIF");
        ROW("ftp", virtualPath("ftp://example.com/a.tif"), "COG URL must use HTTP or HTTPS");
        ROW("s3", virtualPath("s3://bucket/a.tif"), "COG URL must use HTTP or HTTPS");
        ROW("empty", virtualPath(QString()), "COG URL must use HTTP or HTTPS");
        ROW("PMTiles address", PmTilesSource(cache).gdalPath("HTTPS://e.com/my world.pmtiles"),
            "/vsicurl/https://e.com/my%20world.pmtiles");
        ROW("PMTiles relative file", PmTilesSource(cache).gdalPath("tiles/w.pmtiles"),
            QDir::currentPath() + "/tiles/w.pmtiles");
        ROW("options for 256 MiB", gdalOptions(268435456),
            "CPL_VSIL_CURL_ALLOWED_EXTENSIONS=.tif,.tiff CPL_VSIL_CURL_CACHE_SIZE=268435456 "
            "GDAL_DISABLE_READDIR_ON_OPEN=EMPTY_DIR VSI_CACHE=FALSE");
        ROW("options for 0 bytes", gdalOptions(0), "GDAL COG cache size must be positive");
    }
    void gdalStrings() { check(); }

    void probes_data()
    {
        columns();
        const QString pmValid = QStringLiteral("468 v3 127 25 152 247 399 69 t1 z0-0 vector valid");
        ROW("big-endian", probed<CogSource>("/tiff/bigendian-mm-zstd-ifd-at-8.tiff"),
            "MM ifd=8 valid near readable: " + atStart);
        ROW("big-endian BigTIFF", probed<CogSource>("/cogs/cog-bigtiff-be-deflate-overviews.tif"),
            "MM BigTIFF ifd=200 valid near readable: " + atStart);
        ROW("IFD after the pixels", probed<CogSource>("/tiff/geotiff-float32-dem-ifd-at-end.tif"),
            "II ifd=61942 valid readable: " + notAtStart);
        ROW("COG without ranges", probed<CogSource>("/whole/tiff/geotiff-strip-51px-ifd-at-8.tif"),
            "II ifd=8 valid near: Server does not advertise HTTP byte-range support.; requests: 2");
        ROW("PMTiles answered with 206", probed<PmTilesSource>("/silent/pmtiles/test-fixture-1-mvt-z0.pmtiles"),
            pmValid
                + " readable: PMTiles v3 vector archive is HTTP range-readable; directory offsets are valid.; "
                  "requests: 2");
        ROW("PMTiles answered whole", probed<PmTilesSource>("/whole/pmtiles/test-fixture-1-mvt-z0.pmtiles"),
            pmValid + ": " + pmNotReadable + "; requests: 2");
        ROW("GeoParquet 1.1", probed<GeoParquetSource>("/parquet/geoparquet-v1.1.0-example-countries.parquet"),
            "29834 header footer readable: " + parquetReadable);
        ROW("encrypted footer PARE",
            probed<GeoParquetSource>("/parquet/encrypted-uniform-footer-pare.parquet.encrypted"),
            "5708: " + parquetNotReadable);
        ROW("7 bytes", probed<GeoParquetSource>("/ranges/PAR1AR1"),
            "7: Object is too small to be a Parquet file.; requests: 1");
        ROW("8 bytes", probed<GeoParquetSource>("/ranges/PAR1PAR1"),
            "8 header footer readable: " + parquetReadable + "; requests: 3");
        ROW("GeoParquet without ranges", probed<GeoParquetSource>("/silent/parquet/geoparquet-point-wkb.parquet"),
            "1361 header footer: " + parquetNotReadable + "; requests: 3");
    }
    void probes() { check(); }

    // Each archive probed as a local file, then over HTTP from nginx; %1 is "local", then "HTTP".
    void pmTilesArchives_data()
    {
        columns();
        const QString readable = QStringLiteral(" archive is %1 range-readable; directory offsets are valid.");
        ROW("vector", archive("test-fixture-1-mvt-z0.pmtiles"),
            both("468 v3 127 25 152 247 399 69 t1 z0-0 vector valid readable: PMTiles v3 vector" + readable));
        ROW("raster", archive("stamen-toner-raster-png-z0-3.pmtiles"),
            both("716052 v3 127 246 373 22 395 715657 t2 z0-3 raster valid readable: PMTiles v3 raster" + readable));
        ROW("tile data up to the end", archive("test-fixture-mlt-no-tiles.pmtiles"),
            both("690 v3 127 25 152 538 690 0 t6 z0-0 unknown valid readable: PMTiles v3 unknown" + readable));
        ROW("legacy v1", archive("legacy-v1-tpe-sample-vector.pmtiles"),
            both("1545506 v0 0 0 0 0 0 0 t0 z0-0: " + pmNotReadable));
        ROW("text", archive("invalid-text-not-pmtiles.pmtiles"), both("148 v32 0 0 0 0 0 0 t0 z0-0: " + pmNotReadable));
    }
    void pmTilesArchives() { check(); }

    void pmTilesLocalRanges_data()
    {
        columns();
        const QString file = QStringLiteral("pmtiles/unclustered-png-z1.pmtiles"); // 278 bytes
        const QString outside = QStringLiteral("PMTiles local range is out of bounds");
        ROW("whole file", localRange(file, 0, 278), "file bytes of 278, 200 application/vnd.pmtiles");
        ROW("offset at the end", localRange(file, 278, 1), outside);
        ROW("negative offset", localRange(file, -1, 10), outside);
        ROW("length 0", localRange(file, 0, 0), outside);
        ROW("largest length", localRange(file, 10, 9223372036854775807), outside);
        ROW("empty file", localRange("pmtiles/empty-zero-bytes.pmtiles", 0, 127), outside);
        ROW("missing file", localRange("pmtiles/missing.pmtiles", 0, 1), "PMTiles local archive does not exist");
        ROW("probe of a file URL", facts(PmTilesSource(cache).probe(QUrl::fromLocalFile(dataPath(file)), {})),
            "PMTiles local archive does not exist");
    }
    void pmTilesLocalRanges() { check(); }

    // Local reads are stored in the same cache as remote ones, but only the remote one is a network request.
    void pmTilesReadsGoThroughTheCache()
    {
        const PmTilesSource source(cache);
        const QString file = QStringLiteral("pmtiles/stamen-toner-raster-png-z0-3.pmtiles");
        for (const QString &location : { dataPath(file), nginx.url(QLatin1Char('/') + file).toString() }) {
            QCOMPARE(source.readRange(location, 127, 246, {}).data, dataBytes(file).mid(127, 246));
            QVERIFY(source.readRange(location, 127, 246, {}).fromCache);
        }
        const CloudCacheStatistics statistics = source.cacheStatistics();
        QCOMPARE(
            QList<qint64>({ statistics.memoryHits, statistics.misses, statistics.writes, statistics.networkRequests }),
            QList<qint64>({ 2, 2, 2, 1 }));
    }

    void viewportStopsEarly_data()
    {
        columns();
        const char *jpeg = "/ranges/cogs/cog-le-jpeg-1024-64tiles.tif";
        const char *three = "1000+10 5000+10 9000+10";
        ROW("URL without scheme", stoppedViewport("cogs/a.tif", three, 0, -1),
            "COG viewport URL is invalid; requests: 0");
        ROW("no ranges", stoppedViewport(jpeg, "", 0, -1),
            "COG viewport requires at least one byte range; requests: 0");
        ROW("negative gap", stoppedViewport(jpeg, three, -1, -1),
            "COG viewport coalesce gap cannot be negative; requests: 0");
        ROW("invalid range", stoppedViewport(jpeg, "1000+10 5+0", 0, -1),
            "COG viewport contains an invalid byte range; requests: 0");
        ROW("cancelled before the first read", stoppedViewport(jpeg, three, 0, 0),
            "COG viewport request cancelled; requests: 0");
        ROW("cancelled after the first read", stoppedViewport(jpeg, three, 0, 10),
            "COG viewport request cancelled; requests: 1");
    }
    void viewportStopsEarly() { check(); }

    // The tiles asked for in reverse file order: every tile cut out of the merged reads equals its bytes in the file,
    // one request is made per merged range, and the same view again is served from the cache.
    void viewportOfRealTiles_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<qint64>("coalesceGap");
        QTest::addColumn<int>("coalesced");
        // GDAL writes a 4-byte leader and trailer around each tile.
        QTest::newRow("JPEG tiles 8 bytes apart, gap 7") << "cogs/cog-le-jpeg-1024-64tiles.tif" << qint64(7) << 80;
        QTest::newRow("big-endian, default gap") << "cogs/cog-be-deflate-overviews.tif" << qint64(4096) << 1;
        QTest::newRow("BigTIFF, gap 0") << "cogs/cog-bigtiff-le-deflate-overview.tif" << qint64(0) << 5;
    }
    void viewportOfRealTiles()
    {
        QFETCH(QString, file);
        QFETCH(qint64, coalesceGap);
        CogViewportRequest request;
        request.url = nginx.url(QLatin1Char('/') + file);
        request.coalesceGap = coalesceGap;
        QFile table(dataPath(QString(file).replace(".tif", ".tiles.tsv")));
        QVERIFY(table.open(QIODevice::ReadOnly));
        for (const QByteArray &line : table.readAll().trimmed().split('\n').mid(1))
            request.ranges.prepend({ line.split('\t').value(6).toLongLong(), line.split('\t').value(7).toLongLong() });
        const CogSource source(cache);

        const CogViewportResult result = source.readViewport(request);

        const QByteArray bytes = dataBytes(file);
        qint64 requestedBytes = 0;
        for (const CogByteRange &tile : request.ranges) {
            requestedBytes += tile.length;
            QByteArray cut;
            for (const CloudRangeResponse &r : result.responses) {
                if (r.offset <= tile.offset && r.offset + r.data.size() >= tile.offset + tile.length)
                    cut = r.data.mid(tile.offset - r.offset, tile.length);
            }
            QCOMPARE(cut, bytes.mid(tile.offset, tile.length));
        }
        QTEST(result.coalescedRanges, "coalesced");
        QCOMPARE(result.requestedRanges, int(request.ranges.size()));
        QCOMPARE(result.requestedBytes, requestedBytes);
        QCOMPARE(cache->statistics().networkRequests, qint64(result.coalescedRanges));
        QCOMPARE(source.readViewport(request).cacheHits, result.coalescedRanges);
        QCOMPARE(cache->statistics().networkRequests, qint64(result.coalescedRanges));
    }

    void viewportReportsInOrder()
    {
        CogViewportRequest request;
        request.url = nginx.url(QStringLiteral("/cogs/cog-le-jpeg-1024-64tiles.tif"));
        request.ranges = { { 5000, 10 }, { 1000, 10 }, { 3000, 10 } };
        request.coalesceGap = 0;
        request.overviewLevel = 1;
        QStringList events;
        const QString url = request.url.toString();
        request.context.resourcePolicy
            = [&](const OperationResourceUsage &usage, const QString &component, const QString &resource) {
                  events << QStringLiteral("enforce %1 %2 ").arg(component).arg(usage.bytes)
                          + QString(resource).replace(url, "URL");
                  return OperationResourcePolicyDecision();
              };
        request.context.progressSink = [&](const OperationProgress &p) {
            QStringList details;
            for (auto item = p.details.cbegin(); item != p.details.cend(); ++item)
                details << item.key() + '=' + item.value().typeName() + ':' + item.value().toString();
            events << QStringLiteral("%1 %2% %3/%4 ").arg(p.state).arg(p.percent).arg(p.completed).arg(p.total)
                    + p.message + " {" + details.join(QLatin1Char(' ')) + '}';
        };

        const CogViewportResult result = CogSource(cache).readViewport(request);

        const QString reading = QStringLiteral("Reading COG viewport {cacheHits=int:0 overviewLevel=int:1}");
        const QString readerEnforces = QStringLiteral("enforce Norvane.Cloud.HttpRangeReader 10 URL");
        QCOMPARE(events,
            QStringList({ "enforce Norvane.Cloud.CogSource 0 URL", "enforce Norvane.Cloud.CogSource 30 URL",
                "2 0% 0/30 Reading COG viewport {overviewLevel=int:1 rangeCount=qlonglong:3}", readerEnforces,
                "2 33% 10/30 " + reading, readerEnforces, "2 66% 20/30 " + reading, readerEnforces,
                "2 99% 30/30 " + reading,
                "4 100% 30/30 COG viewport ready {cacheHits=int:0 coalescedRanges=int:3 overviewLevel=int:1 "
                "requestedRanges=int:3}" }));
        QCOMPARE(QList<qint64>({ result.responses.value(0).offset, result.responses.value(1).offset,
                     result.responses.value(2).offset }),
            QList<qint64>({ 1000, 3000, 5000 }));
    }
};

QTEST_GUILESS_MAIN(FormatsTest)
#include "tst_formats.moc"
