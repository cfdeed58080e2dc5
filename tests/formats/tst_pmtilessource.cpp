#include "formats/formatsmessages.h"
#include "formatstesting.h"
#include "loopbackhttpserver.h"

#include <norvanecloud/formats.h>

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;

namespace {

const QString unclustered = QStringLiteral("pmtiles/unclustered-png-z1.pmtiles");
const QString toner = QStringLiteral("pmtiles/stamen-toner-raster-png-z0-3.pmtiles");

// The header facts of a probe in one line: version, validity, the six section numbers, tile type, zooms, kind.
QString facts(const PmTilesProbeResult &result)
{
    QStringList texts;
    for (const qint64 value :
        { qint64(result.specificationVersion), qint64(result.headerValid), result.rootDirectoryOffset,
            result.rootDirectoryLength, result.metadataOffset, result.metadataLength, result.tileDataOffset,
            result.tileDataLength, qint64(result.tileType), qint64(result.minimumZoom), qint64(result.maximumZoom) })
        texts.append(QString::number(value));
    return (texts.join(QLatin1Char(' ')) + QLatin1Char(' ') + result.tileKind).trimmed();
}

QString readable(const QString &kind, const char *where)
{
    return QLatin1String(FormatsMessages::pmTilesReadable).arg(kind, QLatin1String(where));
}

const QString notReadable = QLatin1String(FormatsMessages::pmTilesNotReadable);

} // namespace

Q_DECLARE_METATYPE(RouteBehaviour)

class PmTilesSourceTest : public QObject {
    Q_OBJECT

    QTemporaryDir cacheFolder;
    LoopbackHttpServer server;
    std::unique_ptr<PmTilesSource> source;

private slots:
    void initTestCase()
    {
        QVERIFY(cacheFolder.isValid());
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        server.serveDirectory(QStringLiteral(NORVANE_TEST_DATA_DIR));
    }

    void init()
    {
        source = std::make_unique<PmTilesSource>(memoryOnlyCache(cacheFolder.path()));
        server.clearRequests();
    }

    void cleanupTestCase() { server.stop(); }

    // Real archives, read locally and over HTTP, against the facts recorded for them.
    void realArchives_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("facts");
        QTest::addColumn<QString>("tileKind");

        const auto row = [](const char *file, const char *facts, const char *kind) {
            QTest::newRow(file) << QString::fromLatin1(file) << QString::fromLatin1(facts) << QString::fromLatin1(kind);
        };
        row("test-fixture-1-mvt-z0.pmtiles", "3 1 127 25 152 247 399 69 1 0 0 vector", "vector");
        row("stamen-toner-raster-png-z0-3.pmtiles", "3 1 127 246 373 22 395 715657 2 0 3 raster", "raster");
        // Tile data ends exactly at the end of the archive.
        row("test-fixture-mlt-no-tiles.pmtiles", "3 1 127 25 152 538 690 0 6 0 0 unknown", "unknown");
        // Byte 7 of this text is a space.
        row("invalid-text-not-pmtiles.pmtiles", "32 0 0 0 0 0 0 0 0 0 0", "");
    }

    void realArchives()
    {
        QFETCH(QString, file);
        QFETCH(QString, tileKind);
        const QFileInfo archive(testDataPath(QStringLiteral("pmtiles/") + file));

        const PmTilesProbeResult local = source->probe(archive.filePath(), {});
        QVERIFY(!local.remote);
        QCOMPARE(local.url, QUrl::fromLocalFile(archive.absoluteFilePath()));
        QCOMPARE(local.contentLength, archive.size());
        QCOMPARE(local.contentType, QByteArray("application/vnd.pmtiles"));
        QVERIFY(local.etag.isEmpty());
        QVERIFY(local.acceptsRanges);
        QTEST(facts(local), "facts");
        QCOMPARE(local.diagnostic, tileKind.isEmpty() ? notReadable : readable(tileKind, "local"));

        const QString path = QStringLiteral("/pmtiles/") + file;
        const PmTilesProbeResult remote = source->probe(server.url(path).toString(), { { "X-Tiles", "1" } });
        QVERIFY(remote.remote);
        QCOMPARE(remote.url, server.url(path));
        QCOMPARE(remote.contentLength, archive.size());
        QVERIFY(!remote.etag.isEmpty());
        QTEST(facts(remote), "facts");
        QCOMPARE(remote.diagnostic, tileKind.isEmpty() ? notReadable : readable(tileKind, "HTTP"));
        QCOMPARE(server.requests().size(), 2);
        QCOMPARE(server.requests().first().header("X-Tiles"), QByteArray("1"));
        QCOMPARE(rangesOfGets(server), QList<QByteArray> { "bytes=0-126" });
    }

    void localFailures()
    {
        // A file URL's encoded text is not a path, so the local archive is not found.
        const QByteArray missing(FormatsMessages::pmTilesLocalMissing);
        QCOMPARE(thrownMessage<std::invalid_argument>(
                     [&] { source->probe(QUrl::fromLocalFile(testDataPath(unclustered)), {}); }),
            missing);
        QCOMPARE(
            thrownMessage<std::invalid_argument>([&] { source->probe(testDataPath("missing.pmtiles"), {}); }), missing);
        QCOMPARE(thrownMessage<std::invalid_argument>([&] { source->probe(testDataPath("pmtiles"), {}); }), missing);
        // Shorter than the header: the header read is out of bounds.
        QCOMPARE(thrownMessage<std::invalid_argument>(
                     [&] { source->probe(testDataPath("pmtiles/empty-zero-bytes.pmtiles"), {}); }),
            QByteArray(FormatsMessages::pmTilesLocalOutOfBounds));
    }

    // Remote answers that change what the probe concludes, for an archive of 468 bytes.
    void remoteAnswers_data()
    {
        QTest::addColumn<RouteBehaviour>("behaviour");
        QTest::addColumn<QString>("outcome");

        RouteBehaviour noAdvertisement;
        noAdvertisement.acceptRanges.reset();
        RouteBehaviour wholeObject = noAdvertisement;
        wholeObject.ignoreRange = true;
        RouteBehaviour noLength;
        noLength.omitContentLength = true;
        RouteBehaviour noSizeAnywhere = noLength;
        noSizeAnywhere.contentRange = QByteArrayLiteral("bytes 0-126/*");
        RouteBehaviour smallerTotal = noLength;
        smallerTotal.contentRange = QByteArrayLiteral("bytes 0-126/100");

        const QString vector = readable(QStringLiteral("vector"), "HTTP");
        const QString tooSmall = QLatin1String(FormatsMessages::pmTilesTooSmall);
        QTest::newRow("206 answer upgrades acceptsRanges") << noAdvertisement << "ranges 468 " + vector;
        QTest::newRow("200 whole object without ranges") << wholeObject << "no ranges 468 " + notReadable;
        QTest::newRow("size from Content-Range") << noLength << "ranges 468 " + vector;
        QTest::newRow("no size anywhere") << noSizeAnywhere << "ranges -1 " + tooSmall;
        QTest::newRow("Content-Range total below 127") << smallerTotal << "ranges -1 " + tooSmall;
    }

    void remoteAnswers()
    {
        QFETCH(RouteBehaviour, behaviour);
        const QString path = QStringLiteral("/answers/%1.pmtiles").arg(QString::fromLatin1(QTest::currentDataTag()));
        server.serveBytes(path, testDataBytes(QStringLiteral("pmtiles/test-fixture-1-mvt-z0.pmtiles")));
        server.setBehaviour(path, behaviour);

        const PmTilesProbeResult result = source->probe(server.url(path).toString(), {});

        QTEST(QStringLiteral("%1 %2 ").arg(result.acceptsRanges ? "ranges" : "no ranges").arg(result.contentLength)
                + result.diagnostic,
            "outcome");
        QCOMPARE(result.cloudReadable, result.diagnostic.contains(QLatin1String("range-readable")));
    }

    void remoteHeaderIsReadAtTheGivenUrl()
    {
        const QString target = QStringLiteral("/pmtiles/test-fixture-2-mvt-z0.pmtiles");
        RouteBehaviour redirect;
        redirect.redirectStatus = 307;
        redirect.redirectLocation = server.url(target).toEncoded();
        server.setBehaviour(QStringLiteral("/moved.pmtiles"), redirect);

        const PmTilesProbeResult result = source->probe(server.url(QStringLiteral("/moved.pmtiles")).toString(), {});

        QCOMPARE(result.url, server.url(target));
        QCOMPARE(result.tileDataLength, qint64(67));
        QCOMPARE(rangesOfGets(server, QStringLiteral("/moved.pmtiles")), QList<QByteArray> { "bytes=0-126" });
    }

    // unclustered-png-z1.pmtiles has 278 bytes.
    void localRangeBounds_data()
    {
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<qint64>("length");
        QTest::addColumn<bool>("inBounds");
        QTest::newRow("whole file") << qint64(0) << qint64(278) << true;
        QTest::newRow("offset at the end") << qint64(278) << qint64(1) << false;
        QTest::newRow("one byte past the end") << qint64(100) << qint64(179) << false;
        QTest::newRow("negative offset") << qint64(-1) << qint64(10) << false;
        QTest::newRow("length 0") << qint64(0) << qint64(0) << false;
        QTest::newRow("huge length") << qint64(10) << std::numeric_limits<qint64>::max() << false;
    }

    void localRangeBounds()
    {
        QFETCH(qint64, offset);
        QFETCH(qint64, length);
        QFETCH(bool, inBounds);
        const auto read = [&] { return source->readRange(testDataPath(unclustered), offset, length, {}); };
        if (!inBounds) {
            QCOMPARE(thrownMessage<std::invalid_argument>(read), QByteArray(FormatsMessages::pmTilesLocalOutOfBounds));
            QCOMPARE(source->cacheStatistics().misses, qint64(0));
            return;
        }
        const CloudRangeResponse response = read();
        QCOMPARE(response.data, testDataBytes(unclustered));
        QCOMPARE(response.totalSize, qint64(278));
        QCOMPARE(response.statusCode, 200);
        QVERIFY(response.acceptsRanges && !response.fromCache);
        QCOMPARE(response.contentType, QByteArray("application/vnd.pmtiles"));
    }

    // Local reads fill and consult the cache, keyed with the headers, and count nothing as network traffic.
    void repeatedLocalReadIsACacheHit()
    {
        const QString file = testDataPath(toner);
        const CloudRangeResponse first = source->readRange(file, 395, 1000, {});
        const CloudRangeResponse second = source->readRange(file, 395, 1000, {});
        QVERIFY(!first.fromCache);
        QVERIFY(second.fromCache);
        QCOMPARE(second.data, first.data);
        QVERIFY(!source->readRange(file, 395, 1000, { { "X-Other", "1" } }).fromCache);

        const CloudCacheStatistics statistics = source->cacheStatistics();
        QCOMPARE(statistics.memoryHits, qint64(1));
        QCOMPARE(statistics.misses, qint64(2));
        QCOMPARE(statistics.writes, qint64(2));
        QCOMPARE(statistics.networkRequests + statistics.networkBytes + statistics.cacheBytesServed, qint64(0));
    }

    void remoteReadRangeGoesThroughTheReader()
    {
        const QString url = server.url(QLatin1Char('/') + toner).toString();
        QCOMPARE(source->readRange(url, 127, 246, {}).data, testDataBytes(toner).mid(127, 246));
        QVERIFY(source->readRange(url, 127, 246, {}).fromCache);
        QCOMPARE(rangesOfGets(server, QLatin1Char('/') + toner), QList<QByteArray> { "bytes=127-372" });
        QCOMPARE(source->cacheStatistics().networkRequests, qint64(1));
    }

    void withoutACacheNothingIsStoredOrCounted()
    {
        source->rangeReader().setCache(nullptr);
        QVERIFY(!source->readRange(testDataPath(unclustered), 0, 127, {}).fromCache);
        QVERIFY(!source->readRange(testDataPath(unclustered), 0, 127, {}).fromCache);
        const CloudCacheStatistics statistics = source->cacheStatistics();
        QCOMPARE(statistics.misses + statistics.writes + statistics.memoryHits + statistics.memoryBytes, qint64(0));
    }

    void movedSourceKeepsItsReaderAndCache()
    {
        source->readRange(testDataPath(unclustered), 0, 10, {});
        PmTilesSource moved(std::move(*source));
        QVERIFY(moved.readRange(testDataPath(unclustered), 0, 10, {}).fromCache);
        PmTilesSource assigned(memoryOnlyCache(cacheFolder.path()));
        assigned = std::move(moved);
        QVERIFY(assigned.readRange(testDataPath(unclustered), 0, 10, {}).fromCache);
        QCOMPARE(assigned.cacheStatistics().memoryHits, qint64(2));
    }
};

QTEST_GUILESS_MAIN(PmTilesSourceTest)
#include "tst_pmtilessource.moc"
