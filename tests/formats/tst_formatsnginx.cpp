#include "formats/formatsmessages.h"
#include "formatstesting.h"
#include "nginxserver.h"

#include <norvanecloud/formats.h>

#include <QTemporaryDir>
#include <QTest>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;

// The format sources against a real web server: its Accept-Ranges, ETag, Content-Range and 206 answers.
class FormatsNginxTest : public QObject {
    Q_OBJECT

    QTemporaryDir cacheFolder;
    NginxServer nginx { QStringLiteral(NORVANE_TEST_DATA_DIR) };
    std::shared_ptr<CloudRangeCache> cache;

    // "METHOD range status bytes" per logged request. nginx logs a request after its answer has gone out; a marker
    // request, logged last, shows that every earlier line is in the log.
    QStringList settledAccessLog()
    {
        const int before = nginx.accessLog().size();
        HttpRangeReader(cache).inspect(nginx.url(QStringLiteral("/SOURCES.md")), {});
        if (!nginx.waitForAccessLogEntries(before + 1))
            return { QStringLiteral("(log not settled)") };
        QStringList lines;
        for (const NginxAccessLogEntry &entry : nginx.accessLog()) {
            if (entry.uri != "/SOURCES.md")
                lines.append(QStringLiteral("%1 %2 %3 %4")
                                 .arg(QLatin1String(entry.method), QLatin1String(entry.range))
                                 .arg(entry.status)
                                 .arg(entry.bodyBytesSent));
        }
        return lines;
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

    // One probe of each kind; the field rules are pinned against the loopback server.
    void probesOfRealObjects()
    {
        const QUrl cog = nginx.url(QStringLiteral("/cogs/cog-bigtiff-be-deflate-overviews.tif"));
        const CogProbeResult tiff = CogSource(cache).probe(cog, {});
        QCOMPARE(tiff.firstIfdOffset, qint64(200));
        QCOMPARE(tiff.diagnostic, QLatin1String(FormatsMessages::tiffFirstIfdNear));
        QVERIFY(!tiff.etag.isEmpty());

        const QUrl pmTiles = nginx.url(QStringLiteral("/pmtiles/stamen-toner-raster-png-z0-3.pmtiles"));
        const PmTilesProbeResult archive = PmTilesSource(cache).probe(pmTiles, {});
        QCOMPARE(archive.contentType, QByteArray("application/vnd.pmtiles"));
        QCOMPARE(archive.tileDataLength, qint64(715657));
        QCOMPARE(archive.diagnostic,
            QLatin1String(FormatsMessages::pmTilesReadable).arg(QStringLiteral("raster"), QStringLiteral("HTTP")));

        const QUrl parquet = nginx.url(QStringLiteral("/parquet/encrypted-uniform-footer-pare.parquet.encrypted"));
        QCOMPARE(
            GeoParquetSource(cache).probe(parquet, {}).diagnostic, QLatin1String(FormatsMessages::parquetNotReadable));

        QCOMPARE(settledAccessLog(),
            (QStringList { "HEAD  200 0", "GET bytes=0-15 206 16", "HEAD  200 0", "GET bytes=0-126 206 127",
                "HEAD  200 0", "GET bytes=0-3 206 4", "GET bytes=5704-5707 206 4" }));
    }

    // All 64 tiles, read through coalesced requests and cut out again, equal the tiles' bytes in the file; nginx sees
    // one ranged GET per merged range, and a second identical view sends nothing.
    void viewportOfRealTiles()
    {
        const QString file = QStringLiteral("cogs/cog-le-jpeg-1024-64tiles.tif");
        const QList<CogTile> tiles = recordedTiles(file);
        QVERIFY(!tiles.isEmpty());
        const QByteArray fileBytes = testDataBytes(file);
        const CogSource source(cache);
        const CogViewportRequest request = viewportOfTiles(nginx.url(QLatin1Char('/') + file), tiles, 4096);

        const CogViewportResult result = source.readViewport(request);

        for (const CogTile &tile : tiles)
            QCOMPARE(cutRange(result, tile.offset, tile.length), fileBytes.mid(tile.offset, tile.length));
        QStringList expectedLog;
        for (const CloudRangeResponse &response : result.responses) {
            QCOMPARE(response.totalSize, qint64(fileBytes.size()));
            expectedLog.append(QStringLiteral("GET %1 206 %2")
                                   .arg(QLatin1String(rangeHeader(response.offset, response.data.size())))
                                   .arg(response.data.size()));
        }
        QCOMPARE(settledAccessLog(), expectedLog);

        nginx.clearAccessLog();
        QCOMPARE(source.readViewport(request).cacheHits, result.coalescedRanges);
        QCOMPARE(settledAccessLog(), QStringList());
    }
};

QTEST_GUILESS_MAIN(FormatsNginxTest)
#include "tst_formatsnginx.moc"
