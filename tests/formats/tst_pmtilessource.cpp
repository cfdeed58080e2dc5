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

QString readableSentence(const char *kind, const char *where)
{
    return QString::fromLatin1(FormatsMessages::pmTilesReadable).arg(QLatin1String(kind), QLatin1String(where));
}

const QString notReadable = QString::fromLatin1(FormatsMessages::pmTilesNotReadable);

} // namespace

Q_DECLARE_METATYPE(RouteBehaviour)

class PmTilesSourceTest : public QObject {
    Q_OBJECT

    QTemporaryDir cacheFolder;
    LoopbackHttpServer server;
    std::unique_ptr<PmTilesSource> source;

    static QString archivePath(const QString &file) { return testDataPath(QStringLiteral("pmtiles/") + file); }

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

    // The same real archives read locally and over HTTP give the same header facts.
    void realArchives_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<bool>("headerValid");
        QTest::addColumn<qint64>("tileDataOffset");
        QTest::addColumn<qint64>("tileDataLength");
        QTest::addColumn<int>("maximumZoom");
        QTest::addColumn<QString>("tileKind");

        QTest::newRow("fixture 1") << "test-fixture-1-mvt-z0.pmtiles" << true << qint64(399) << qint64(69) << 0
                                   << QStringLiteral("vector");
        QTest::newRow("stamen toner") << "stamen-toner-raster-png-z0-3.pmtiles" << true << qint64(395) << qint64(715657)
                                      << 3 << QStringLiteral("raster");
        QTest::newRow("unclustered PNG") << "unclustered-png-z1.pmtiles" << true << qint64(138) << qint64(140) << 1
                                         << QStringLiteral("raster");
        // Tile data ends exactly at the end of the archive.
        QTest::newRow("MLT without tiles") << "test-fixture-mlt-no-tiles.pmtiles" << true << qint64(690) << qint64(0)
                                           << 0 << QStringLiteral("unknown");
        QTest::newRow("text, not an archive")
            << "invalid-text-not-pmtiles.pmtiles" << false << qint64(0) << qint64(0) << 0 << QString();
        QTest::newRow("version 1 archive")
            << "legacy-v1-tpe-sample-vector.pmtiles" << false << qint64(0) << qint64(0) << 0 << QString();
    }

    void realArchives()
    {
        QFETCH(QString, file);
        QFETCH(bool, headerValid);
        QFETCH(QString, tileKind);
        const qint64 size = QFileInfo(archivePath(file)).size();

        const PmTilesProbeResult local = source->probe(archivePath(file), {});
        QVERIFY(!local.remote);
        QCOMPARE(local.url, QUrl::fromLocalFile(QFileInfo(archivePath(file)).absoluteFilePath()));
        QCOMPARE(local.contentLength, size);
        QCOMPARE(local.contentType, QByteArray("application/vnd.pmtiles"));
        QVERIFY(local.etag.isEmpty());
        QVERIFY(local.acceptsRanges);
        QCOMPARE(local.headerValid, headerValid);
        QCOMPARE(local.cloudReadable, headerValid);
        QCOMPARE(
            local.diagnostic, headerValid ? readableSentence(tileKind.toLatin1().constData(), "local") : notReadable);

        const QString path = QStringLiteral("/pmtiles/") + file;
        const PmTilesProbeResult remote = source->probe(server.url(path).toString(), { { "X-Tiles", "1" } });
        QVERIFY(remote.remote);
        QCOMPARE(remote.url, server.url(path));
        QCOMPARE(remote.contentLength, size);
        QVERIFY(!remote.etag.isEmpty());
        QVERIFY(remote.acceptsRanges);
        QCOMPARE(remote.headerValid, headerValid);
        QCOMPARE(
            remote.diagnostic, headerValid ? readableSentence(tileKind.toLatin1().constData(), "HTTP") : notReadable);

        for (const PmTilesProbeResult &result : { local, remote }) {
            QTEST(result.tileDataOffset, "tileDataOffset");
            QTEST(result.tileDataLength, "tileDataLength");
            QTEST(result.maximumZoom, "maximumZoom");
            QCOMPARE(result.tileKind, tileKind);
        }

        const QList<LoopbackRequest> requests = server.requests();
        QCOMPARE(requests.size(), 2);
        QCOMPARE(requests[0].method, QByteArray("HEAD"));
        QCOMPARE(requests[1].header("Range"), QByteArray("bytes=0-126"));
        QCOMPARE(requests[1].header("X-Tiles"), QByteArray("1"));
    }

    void urlFormProbesTheEncodedText()
    {
        const QString path = QStringLiteral("/pmtiles/unclustered-png-z1.pmtiles");
        const PmTilesProbeResult result = source->probe(server.url(path), QHash<QByteArray, QByteArray>());
        QVERIFY(result.remote);
        QVERIFY(result.cloudReadable);
        QCOMPARE(result.tileType, 2);

        // A file URL's text is not a path, so the local archive is not found.
        const QUrl fileUrl = QUrl::fromLocalFile(archivePath(QStringLiteral("unclustered-png-z1.pmtiles")));
        QCOMPARE(thrownMessage<std::invalid_argument>([&] { source->probe(fileUrl, {}); }),
            QByteArray(FormatsMessages::pmTilesLocalMissing));
    }

    void localFailures()
    {
        QCOMPARE(thrownMessage<std::invalid_argument>(
                     [&] { source->probe(archivePath(QStringLiteral("missing.pmtiles")), {}); }),
            QByteArray(FormatsMessages::pmTilesLocalMissing));
        QCOMPARE(thrownMessage<std::invalid_argument>(
                     [&] { source->probe(QStringLiteral(NORVANE_TEST_DATA_DIR "/pmtiles"), {}); }),
            QByteArray(FormatsMessages::pmTilesLocalMissing));
        // Shorter than the header: the header read is out of bounds.
        QCOMPARE(thrownMessage<std::invalid_argument>(
                     [&] { source->probe(archivePath(QStringLiteral("empty-zero-bytes.pmtiles")), {}); }),
            QByteArray(FormatsMessages::pmTilesLocalOutOfBounds));
    }

    // Remote answers that change what the probe concludes.
    void remoteAnswers_data()
    {
        QTest::addColumn<RouteBehaviour>("behaviour");
        QTest::addColumn<bool>("acceptsRanges");
        QTest::addColumn<qint64>("contentLength");
        QTest::addColumn<bool>("headerValid");
        QTest::addColumn<QString>("diagnostic");

        const qint64 size = 468;
        RouteBehaviour noAdvertisement;
        noAdvertisement.acceptRanges.reset();
        QTest::newRow("206 answer upgrades acceptsRanges")
            << noAdvertisement << true << size << true << readableSentence("vector", "HTTP");
        RouteBehaviour wholeObject;
        wholeObject.acceptRanges.reset();
        wholeObject.ignoreRange = true;
        QTest::newRow("200 whole object without ranges") << wholeObject << false << size << true << notReadable;
        RouteBehaviour noLength;
        noLength.omitContentLength = true;
        QTest::newRow("size from Content-Range")
            << noLength << true << size << true << readableSentence("vector", "HTTP");
        RouteBehaviour noSizeAnywhere = noLength;
        noSizeAnywhere.contentRange = QByteArrayLiteral("bytes 0-126/*");
        QTest::newRow("no size anywhere")
            << noSizeAnywhere << true << qint64(-1) << false << QString::fromLatin1(FormatsMessages::pmTilesTooSmall);
        RouteBehaviour smallerTotal = noLength;
        smallerTotal.contentRange = QByteArrayLiteral("bytes 0-126/100");
        QTest::newRow("Content-Range total below 127")
            << smallerTotal << true << qint64(-1) << false << QString::fromLatin1(FormatsMessages::pmTilesTooSmall);
    }

    void remoteAnswers()
    {
        QFETCH(RouteBehaviour, behaviour);
        const QString path = QStringLiteral("/answers/%1.pmtiles").arg(QString::fromLatin1(QTest::currentDataTag()));
        server.serveBytes(path, testDataBytes(QStringLiteral("pmtiles/test-fixture-1-mvt-z0.pmtiles")));
        server.setBehaviour(path, behaviour);

        const PmTilesProbeResult result = source->probe(server.url(path).toString(), {});

        QTEST(result.acceptsRanges, "acceptsRanges");
        QTEST(result.contentLength, "contentLength");
        QTEST(result.headerValid, "headerValid");
        QTEST(result.diagnostic, "diagnostic");
        QCOMPARE(result.cloudReadable, result.acceptsRanges && result.headerValid);
    }

    void remoteHeaderIsReadAtTheGivenUrl()
    {
        RouteBehaviour redirect;
        redirect.redirectStatus = 307;
        redirect.redirectLocation = server.url(QStringLiteral("/pmtiles/test-fixture-2-mvt-z0.pmtiles")).toEncoded();
        // Closing after the redirect: on a kept-alive connection Qt 6.4 sometimes sends the redirected request twice
        // and merges both answers' headers into the final reply ("Content-Length: 0, 1361").
        redirect.extraHeaders = { { "Connection", "close" } };
        server.setBehaviour(QStringLiteral("/moved.pmtiles"), redirect);

        const PmTilesProbeResult result = source->probe(server.url(QStringLiteral("/moved.pmtiles")).toString(), {});

        QCOMPARE(result.url, server.url(QStringLiteral("/pmtiles/test-fixture-2-mvt-z0.pmtiles")));
        QCOMPARE(result.tileDataLength, qint64(67));
        QList<QByteArray> rangesAtTheGivenUrl;
        for (const LoopbackRequest &request : server.requests()) {
            if (request.method == "GET" && request.path == QStringLiteral("/moved.pmtiles"))
                rangesAtTheGivenUrl.append(request.header("Range"));
        }
        QCOMPARE(rangesAtTheGivenUrl, QList<QByteArray> { "bytes=0-126" });
    }

    void localRangeBounds_data()
    {
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<qint64>("length");
        QTest::addColumn<bool>("inBounds");
        const qint64 size = 278;
        QTest::newRow("whole file") << qint64(0) << size << true;
        QTest::newRow("last byte") << size - 1 << qint64(1) << true;
        QTest::newRow("offset at the end") << size << qint64(1) << false;
        QTest::newRow("one byte past the end") << qint64(100) << size - 99 << false;
        QTest::newRow("negative offset") << qint64(-1) << qint64(10) << false;
        QTest::newRow("length 0") << qint64(0) << qint64(0) << false;
        QTest::newRow("negative length") << qint64(10) << qint64(-5) << false;
        QTest::newRow("huge length") << qint64(10) << std::numeric_limits<qint64>::max() << false;
    }

    void localRangeBounds()
    {
        QFETCH(qint64, offset);
        QFETCH(qint64, length);
        QFETCH(bool, inBounds);
        const QString file = QStringLiteral("pmtiles/unclustered-png-z1.pmtiles");
        if (!inBounds) {
            QCOMPARE(thrownMessage<std::invalid_argument>(
                         [&] { source->readRange(testDataPath(file), offset, length, {}); }),
                QByteArray(FormatsMessages::pmTilesLocalOutOfBounds));
            QCOMPARE(source->cacheStatistics().misses, qint64(0));
            return;
        }
        const CloudRangeResponse response = source->readRange(testDataPath(file), offset, length, {});
        QCOMPARE(response.data, testDataBytes(file).mid(offset, length));
        QCOMPARE(response.offset, offset);
        QCOMPARE(response.totalSize, qint64(278));
        QCOMPARE(response.statusCode, 200);
        QVERIFY(response.acceptsRanges);
        QCOMPARE(response.contentType, QByteArray("application/vnd.pmtiles"));
        QVERIFY(response.etag.isEmpty());
        QVERIFY(!response.fromCache);
    }

    void repeatedLocalReadIsACacheHit()
    {
        const QString file = testDataPath(QStringLiteral("pmtiles/stamen-toner-raster-png-z0-3.pmtiles"));
        const CloudRangeResponse first = source->readRange(file, 395, 1000, {});
        const CloudRangeResponse second = source->readRange(file, 395, 1000, {});
        QVERIFY(!first.fromCache);
        QVERIFY(second.fromCache);
        QCOMPARE(second.data, first.data);
        // Other headers make another key.
        QVERIFY(!source->readRange(file, 395, 1000, { { "X-Other", "1" } }).fromCache);

        const CloudCacheStatistics statistics = source->cacheStatistics();
        QCOMPARE(statistics.memoryHits, qint64(1));
        QCOMPARE(statistics.misses, qint64(2));
        QCOMPARE(statistics.writes, qint64(2));
        QCOMPARE(statistics.networkRequests, qint64(0));
        QCOMPARE(statistics.networkBytes, qint64(0));
        QCOMPARE(statistics.cacheBytesServed, qint64(0));
        QCOMPARE(server.requestCount(), 0);
    }

    void remoteReadRangeGoesThroughTheReader()
    {
        const QString path = QStringLiteral("/pmtiles/stamen-toner-raster-png-z0-3.pmtiles");
        const CloudRangeResponse response = source->readRange(server.url(path).toString(), 127, 246, {});
        QCOMPARE(response.statusCode, 206);
        QCOMPARE(response.totalSize, qint64(716052));
        QCOMPARE(
            response.data, testDataBytes(QStringLiteral("pmtiles/stamen-toner-raster-png-z0-3.pmtiles")).mid(127, 246));
        QVERIFY(source->readRange(server.url(path).toString(), 127, 246, {}).fromCache);
        QCOMPARE(server.requestCount(), 1);
        QCOMPARE(source->cacheStatistics().networkRequests, qint64(1));

        QCOMPARE(
            thrownMessage<std::invalid_argument>([&] { source->readRange(server.url(path).toString(), 0, 0, {}); }),
            QByteArray("Cloud range length must be positive"));
    }

    void withoutACacheNothingIsStoredOrCounted()
    {
        source->rangeReader().setCache(nullptr);
        const QString file = testDataPath(QStringLiteral("pmtiles/unclustered-png-z1.pmtiles"));
        QVERIFY(!source->readRange(file, 0, 127, {}).fromCache);
        QVERIFY(!source->readRange(file, 0, 127, {}).fromCache);
        const CloudCacheStatistics statistics = source->cacheStatistics();
        QCOMPARE(statistics.misses + statistics.writes + statistics.memoryHits + statistics.memoryBytes, qint64(0));
    }

    void movedSourceKeepsItsReaderAndCache()
    {
        const QString file = testDataPath(QStringLiteral("pmtiles/unclustered-png-z1.pmtiles"));
        source->readRange(file, 0, 10, {});
        PmTilesSource moved(std::move(*source));
        QVERIFY(moved.readRange(file, 0, 10, {}).fromCache);

        PmTilesSource assigned(memoryOnlyCache(cacheFolder.path()));
        assigned = std::move(moved);
        QVERIFY(assigned.readRange(file, 0, 10, {}).fromCache);
        QCOMPARE(assigned.cacheStatistics().memoryHits, qint64(2));
    }
};

QTEST_GUILESS_MAIN(PmTilesSourceTest)
#include "tst_pmtilessource.moc"
