#include "formats/formatsmessages.h"
#include "formatstesting.h"
#include "nginxserver.h"

#include <norvanecloud/formats.h>

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;

namespace {

CogByteRange byteRange(qint64 offset, qint64 length)
{
    CogByteRange range;
    range.offset = offset;
    range.length = length;
    return range;
}

QByteArray rangeHeader(qint64 offset, qint64 length)
{
    return "bytes=" + QByteArray::number(offset) + '-' + QByteArray::number(offset + length - 1);
}

} // namespace

// The format sources against a real web server: its Accept-Ranges, ETag, Content-Range and 206 answers.
class FormatsNginxTest : public QObject {
    Q_OBJECT

    QTemporaryDir cacheFolder;
    NginxServer nginx { QStringLiteral(NORVANE_TEST_DATA_DIR) };
    std::shared_ptr<CloudRangeCache> cache;

    // nginx logs a request after its answer has gone out; a marker request, logged last, shows that every
    // earlier line is in the log.
    QList<NginxAccessLogEntry> settledAccessLog()
    {
        const int before = nginx.accessLog().size();
        const HttpRangeReader marker(cache);
        marker.inspect(nginx.url(QStringLiteral("/SOURCES.md")), {});
        if (!nginx.waitForAccessLogEntries(before + 1))
            return {};
        QList<NginxAccessLogEntry> log = nginx.accessLog();
        while (!log.isEmpty() && log.last().uri == "/SOURCES.md")
            log.removeLast();
        return log;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(cacheFolder.isValid());
        QVERIFY2(nginx.start(), qPrintable(nginx.errorString()));
    }

    void init()
    {
        cache = memoryOnlyCache(cacheFolder.path());
        nginx.clearAccessLog();
    }

    void cleanupTestCase() { nginx.stop(); }

    void cogProbe_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QByteArray>("byteOrder");
        QTest::addColumn<bool>("bigTiff");
        QTest::addColumn<qint64>("firstIfdOffset");

        const QByteArray ii("II");
        const QByteArray mm("MM");
        QTest::newRow("rio-cogeo COG") << "tiff/cog-ghost-header-deflate-2ifd.tif" << ii << false << qint64(192);
        QTest::newRow("strip GeoTIFF") << "tiff/geotiff-strip-51px-ifd-at-8.tif" << ii << false << qint64(8);
        QTest::newRow("tiled int16") << "tiff/geotiff-tiled-int16-band-tags.tif" << ii << false << qint64(8);
        QTest::newRow("BigTIFF COG") << "tiff/bigtiff-cog-le-ifd-at-16.tiff" << ii << true << qint64(16);
        QTest::newRow("big-endian zstd") << "tiff/bigendian-mm-zstd-ifd-at-8.tiff" << mm << false << qint64(8);
        QTest::newRow("DEM, IFD at the end")
            << "tiff/geotiff-float32-dem-ifd-at-end.tif" << ii << false << qint64(61942);
        QTest::newRow("model transformation") << "tiff/geotiff-model-transformation.tif" << ii << false << qint64(8);
        QTest::newRow("zstd RGBA COG") << "tiff/cog-ghost-header-zstd-rgba-5ifd.tiff" << ii << false << qint64(192);
        QTest::newRow("BigTIFF strips") << "tiff/bigtiff-le-strip-ifd-at-end.tif" << ii << true << qint64(12304);
        QTest::newRow("big-endian strips")
            << "tiff/bigendian-mm-rgb-strip-ifd-at-776.tiff" << mm << false << qint64(776);
        QTest::newRow("generated LE JPEG") << "cogs/cog-le-jpeg-1024-64tiles.tif" << ii << false << qint64(192);
        QTest::newRow("generated LE BigTIFF")
            << "cogs/cog-bigtiff-le-deflate-overview.tif" << ii << true << qint64(200);
        QTest::newRow("generated BE") << "cogs/cog-be-deflate-overviews.tif" << mm << false << qint64(192);
        QTest::newRow("generated BE BigTIFF")
            << "cogs/cog-bigtiff-be-deflate-overviews.tif" << mm << true << qint64(200);
    }

    void cogProbe()
    {
        QFETCH(QString, file);
        QFETCH(qint64, firstIfdOffset);
        const CogSource source(cache);
        const QUrl url = nginx.url(QLatin1Char('/') + file);

        const CogProbeResult result = source.probe(url, {});

        QCOMPARE(result.url, url);
        QCOMPARE(result.contentLength, QFileInfo(testDataPath(file)).size());
        QTEST(result.byteOrder, "byteOrder");
        QTEST(result.bigTiff, "bigTiff");
        QCOMPARE(result.firstIfdOffset, firstIfdOffset);
        QCOMPARE(result.contentType, QByteArray("image/tiff"));
        QVERIFY(!result.etag.isEmpty());
        QVERIFY(result.acceptsRanges);
        QVERIFY(result.tiffHeaderValid);
        QVERIFY(result.cloudReadable);
        QCOMPARE(result.firstIfdNearStart, firstIfdOffset <= 16384);
        QCOMPARE(result.diagnostic,
            QLatin1String(
                firstIfdOffset <= 16384 ? FormatsMessages::tiffFirstIfdNear : FormatsMessages::tiffFirstIfdFar));

        const QList<NginxAccessLogEntry> log = settledAccessLog();
        QCOMPARE(log.size(), 2);
        QCOMPARE(log[0].method, QByteArray("HEAD"));
        QCOMPARE(log[1].method, QByteArray("GET"));
        QCOMPARE(log[1].range, QByteArray("bytes=0-15"));
        QCOMPARE(log[1].status, 206);
        QCOMPARE(log[1].bodyBytesSent, qint64(16));
    }

    // Every recorded tile of the generated COGs, read through coalesced requests and cut out again, equals the
    // tile's bytes in the file; nginx sees exactly one ranged GET per merged range, and a second identical view
    // sends nothing.
    void viewportOfRealTiles_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<qint64>("coalesceGap");
        for (const char *file : { "cogs/cog-le-jpeg-1024-64tiles.tif", "cogs/cog-bigtiff-le-deflate-overview.tif",
                 "cogs/cog-be-deflate-overviews.tif", "cogs/cog-bigtiff-be-deflate-overviews.tif" }) {
            QTest::addRow("%s, default gap", file) << QString::fromLatin1(file) << qint64(4096);
            QTest::addRow("%s, gap 0", file) << QString::fromLatin1(file) << qint64(0);
        }
    }

    void viewportOfRealTiles()
    {
        QFETCH(QString, file);
        QFETCH(qint64, coalesceGap);
        const QList<CogTile> tiles = recordedTiles(file);
        QVERIFY(!tiles.isEmpty());
        const QByteArray fileBytes = testDataBytes(file);
        const CogSource source(cache);

        CogViewportRequest request;
        request.url = nginx.url(QLatin1Char('/') + file);
        request.coalesceGap = coalesceGap;
        // Overview tiles first, then full resolution: an order a renderer refining a view might use.
        for (auto tile = tiles.crbegin(); tile != tiles.crend(); ++tile)
            request.ranges.append(byteRange(tile->offset, tile->length));

        const CogViewportResult result = source.readViewport(request);

        QCOMPARE(result.requestedRanges, tiles.size());
        for (const CogTile &tile : tiles)
            QCOMPARE(cutRange(result, tile.offset, tile.length), fileBytes.mid(tile.offset, tile.length));

        QList<QByteArray> expectedRanges;
        for (const CloudRangeResponse &response : result.responses) {
            QCOMPARE(response.statusCode, 206);
            QCOMPARE(response.totalSize, qint64(fileBytes.size()));
            expectedRanges.append(rangeHeader(response.offset, response.data.size()));
        }
        const QList<NginxAccessLogEntry> log = settledAccessLog();
        QList<QByteArray> loggedRanges;
        for (const NginxAccessLogEntry &entry : log) {
            QCOMPARE(entry.method, QByteArray("GET"));
            QCOMPARE(entry.status, 206);
            loggedRanges.append(entry.range);
        }
        QCOMPARE(loggedRanges, expectedRanges);

        nginx.clearAccessLog();
        const CogViewportResult again = source.readViewport(request);
        QCOMPARE(again.cacheHits, again.coalescedRanges);
        QCOMPARE(again.bytesRead, result.bytesRead);
        QCOMPARE(settledAccessLog().size(), 0);
    }

    void pmTilesArchive()
    {
        const PmTilesSource source(cache);
        const QString path = QStringLiteral("/pmtiles/stamen-toner-raster-png-z0-3.pmtiles");
        const PmTilesProbeResult result = source.probe(nginx.url(path).toString(), {});
        QVERIFY(result.remote);
        QCOMPARE(result.contentLength, qint64(716052));
        QCOMPARE(result.contentType, QByteArray("application/vnd.pmtiles"));
        QVERIFY(result.cloudReadable);
        QCOMPARE(result.rootDirectoryOffset, qint64(127));
        QCOMPARE(result.rootDirectoryLength, qint64(246));
        QCOMPARE(result.metadataOffset, qint64(373));
        QCOMPARE(result.metadataLength, qint64(22));
        QCOMPARE(result.tileDataOffset, qint64(395));
        QCOMPARE(result.tileDataLength, qint64(715657));
        QCOMPARE(result.maximumZoom, 3);
        QCOMPARE(result.diagnostic,
            QStringLiteral("PMTiles v3 raster archive is HTTP range-readable; directory "
                           "offsets are valid."));

        // The last byte of the tile data is the last byte of the archive.
        const CloudRangeResponse tail = source.readRange(nginx.url(path).toString(), 716051, 1, {});
        QCOMPARE(tail.data, testDataBytes(QStringLiteral("pmtiles/stamen-toner-raster-png-z0-3.pmtiles")).right(1));
    }

    void geoParquetObjects()
    {
        const GeoParquetSource source(cache);
        const GeoParquetProbeResult countries
            = source.probe(nginx.url(QStringLiteral("/parquet/geoparquet-v1.1.0-example-countries.parquet")), {});
        QVERIFY(countries.cloudReadable);
        QCOMPARE(countries.contentLength, qint64(29834));
        QCOMPARE(countries.diagnostic, QString::fromLatin1(FormatsMessages::parquetReadable));

        const GeoParquetProbeResult encrypted
            = source.probe(nginx.url(QStringLiteral("/parquet/encrypted-uniform-footer-pare.parquet.encrypted")), {});
        QVERIFY(!encrypted.headerValid);
        QVERIFY(!encrypted.footerValid);
        QCOMPARE(encrypted.diagnostic, QString::fromLatin1(FormatsMessages::parquetNotReadable));

        const QList<NginxAccessLogEntry> log = settledAccessLog();
        QCOMPARE(log.size(), 6);
        QCOMPARE(log[2].range, QByteArray("bytes=29830-29833"));
    }
};

QTEST_GUILESS_MAIN(FormatsNginxTest)
#include "tst_formatsnginx.moc"
