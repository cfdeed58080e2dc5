#include "formats/formatsmessages.h"
#include "formatstesting.h"
#include "loopbackhttpserver.h"

#include <norvanecloud/formats.h>

#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <thread>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;
using namespace Norvane::Core::Operations;

namespace {

const QString jpegCog = QStringLiteral("cogs/cog-le-jpeg-1024-64tiles.tif");
const QByteArray readerComponent = QByteArrayLiteral("Norvane.Cloud.HttpRangeReader");
const QByteArray cogComponent = QByteArrayLiteral("Norvane.Cloud.CogSource");

// One call the viewport made on its context, as the installed policy and progress sink saw it.
struct ContextEvent {
    QByteArray kind; // "enforce" or "progress"
    QByteArray component;
    QString resource;
    qint64 bytes = 0;
    OperationProgress progress;
};

struct ContextRecorder {
    QList<ContextEvent> events;

    void install(OperationContext &context)
    {
        context.resourcePolicy
            = [this](const OperationResourceUsage &usage, const QString &component, const QString &resource) {
                  ContextEvent event;
                  event.kind = "enforce";
                  event.component = component.toUtf8();
                  event.resource = resource;
                  event.bytes = usage.bytes;
                  events.append(event);
                  return OperationResourcePolicyDecision();
              };
        context.progressSink = [this](const OperationProgress &progress) {
            ContextEvent event;
            event.kind = "progress";
            event.progress = progress;
            events.append(event);
        };
    }
};

CogByteRange byteRange(qint64 offset, qint64 length)
{
    CogByteRange range;
    range.offset = offset;
    range.length = length;
    return range;
}

QList<QByteArray> rangeHeadersOfGets(const LoopbackHttpServer &server, const QString &path)
{
    QList<QByteArray> ranges;
    for (const LoopbackRequest &request : server.requests()) {
        if (request.method == "GET" && request.path == path)
            ranges.append(request.header("Range"));
    }
    return ranges;
}

int getCount(const LoopbackHttpServer &server)
{
    int count = 0;
    for (const LoopbackRequest &request : server.requests())
        count += request.method == "GET" ? 1 : 0;
    return count;
}

QByteArray classicHeader(quint32 firstIfd)
{
    QByteArray bytes("II*\0", 4);
    for (int index = 0; index < 4; ++index)
        bytes.append(char((firstIfd >> (8 * index)) & 0xff));
    return bytes + QByteArray(8, '\0');
}

} // namespace

Q_DECLARE_METATYPE(RouteBehaviour)

class CogSourceTest : public QObject {
    Q_OBJECT

    QTemporaryDir cacheFolder;
    LoopbackHttpServer server;
    std::unique_ptr<CogSource> source;

private slots:
    void initTestCase()
    {
        QVERIFY(cacheFolder.isValid());
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        server.serveDirectory(QStringLiteral(NORVANE_TEST_DATA_DIR));
    }

    void init()
    {
        // A fresh cache per test, so every test starts with nothing cached.
        source = std::make_unique<CogSource>(memoryOnlyCache(cacheFolder.path()));
        server.clearRequests();
    }

    void cleanupTestCase() { server.stop(); }

    void probeReadsTheInspectionAndSixteenBytes_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QByteArray>("byteOrder");
        QTest::addColumn<bool>("bigTiff");
        QTest::addColumn<qint64>("firstIfdOffset");
        QTest::addColumn<bool>("nearStart");

        QTest::newRow("LE classic COG") << "tiff/cog-ghost-header-deflate-2ifd.tif" << QByteArray("II") << false
                                        << qint64(192) << true;
        QTest::newRow("MM classic") << "tiff/bigendian-mm-zstd-ifd-at-8.tiff" << QByteArray("MM") << false << qint64(8)
                                    << true;
        QTest::newRow("LE BigTIFF") << "tiff/bigtiff-cog-le-ifd-at-16.tiff" << QByteArray("II") << true << qint64(16)
                                    << true;
        QTest::newRow("IFD at the end") << "tiff/geotiff-float32-dem-ifd-at-end.tif" << QByteArray("II") << false
                                        << qint64(61942) << false;
        QTest::newRow("MM BigTIFF") << "cogs/cog-bigtiff-be-deflate-overviews.tif" << QByteArray("MM") << true
                                    << qint64(200) << true;
    }

    void probeReadsTheInspectionAndSixteenBytes()
    {
        QFETCH(QString, file);
        const QString path = QLatin1Char('/') + file;
        const QHash<QByteArray, QByteArray> headers { { "X-Probe-Token", "t1" } };

        const CogProbeResult result = source->probe(server.url(path), headers);

        QCOMPARE(result.url, server.url(path));
        QCOMPARE(result.contentLength, QFileInfo(testDataPath(file)).size());
        QTEST(result.byteOrder, "byteOrder");
        QTEST(result.bigTiff, "bigTiff");
        QTEST(result.firstIfdOffset, "firstIfdOffset");
        QTEST(result.firstIfdNearStart, "nearStart");
        QVERIFY(!result.etag.isEmpty());
        QCOMPARE(result.contentType, LoopbackHttpServer::contentTypeFor(file));
        QVERIFY(result.acceptsRanges);
        QVERIFY(result.tiffHeaderValid);
        QVERIFY(result.cloudReadable);
        QCOMPARE(result.diagnostic,
            QLatin1String(
                result.firstIfdNearStart ? FormatsMessages::tiffFirstIfdNear : FormatsMessages::tiffFirstIfdFar));

        const QList<LoopbackRequest> requests = server.requests();
        QCOMPARE(requests.size(), 2);
        QCOMPARE(requests[0].method, QByteArray("HEAD"));
        QCOMPARE(requests[1].method, QByteArray("GET"));
        QCOMPARE(requests[1].header("Range"), QByteArray("bytes=0-15"));
        for (const LoopbackRequest &request : requests) {
            QCOMPARE(request.path, path);
            QCOMPARE(request.header("X-Probe-Token"), QByteArray("t1"));
        }
    }

    // The header rules themselves are pinned on bytes alone; these pin what the server's side contributes.
    void probeOfServedObjects_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<RouteBehaviour>("behaviour");
        QTest::addColumn<bool>("acceptsRanges");
        QTest::addColumn<qint64>("contentLength");
        QTest::addColumn<bool>("cloudReadable");
        QTest::addColumn<QString>("diagnostic");

        const QByteArray nearHeader = classicHeader(8) + QByteArray(200, 'p');
        const QByteArray farHeader = classicHeader(20000) + QByteArray(30000, 'p');
        RouteBehaviour normal;
        RouteBehaviour noRanges;
        noRanges.acceptRanges.reset();
        RouteBehaviour noLength;
        noLength.omitContentLength = true;
        RouteBehaviour wholeObject;
        wholeObject.ignoreRange = true;

        QTest::newRow("near header") << nearHeader << normal << true << qint64(nearHeader.size()) << true
                                     << QString::fromLatin1(FormatsMessages::tiffFirstIfdNear);
        QTest::newRow("server without ranges") << nearHeader << noRanges << false << qint64(nearHeader.size()) << false
                                               << QString::fromLatin1(FormatsMessages::rangesNotAdvertised);

        QTest::newRow("unknown length bounds nothing")
            << classicHeader(40000) + QByteArray(100, 'p') << noLength << true << qint64(-1) << true
            << QString::fromLatin1(FormatsMessages::tiffFirstIfdFar);
        QTest::newRow("IFD beyond the object")
            << classicHeader(500) + QByteArray(100, 'p') << normal << true << qint64(116) << false
            << QString::fromLatin1(FormatsMessages::tiffFirstIfdNear);
        QTest::newRow("far IFD inside the object") << farHeader << normal << true << qint64(farHeader.size()) << true
                                                   << QString::fromLatin1(FormatsMessages::tiffFirstIfdFar);
        QTest::newRow("whole object answered with 200")
            << nearHeader << wholeObject << true << qint64(nearHeader.size()) << true
            << QString::fromLatin1(FormatsMessages::tiffFirstIfdNear);
        QTest::newRow("PNG") << QByteArray("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\x10", 20) << normal << true
                             << qint64(20) << false << QString::fromLatin1(FormatsMessages::tiffByteOrderInvalid);
        QTest::newRow("ZIP") << QByteArray("PK\x03\x04\x14\0\0\0\x08\0\0\0\0\0\0\0\0\0", 18) << normal << true
                             << qint64(18) << false << QString::fromLatin1(FormatsMessages::tiffByteOrderInvalid);
    }

    void probeOfServedObjects()
    {
        QFETCH(QByteArray, content);
        QFETCH(RouteBehaviour, behaviour);
        const QString path = QStringLiteral("/served/%1.tif").arg(QString::fromLatin1(QTest::currentDataTag()));
        server.serveBytes(path, content, "image/tiff");
        server.setBehaviour(path, behaviour);

        const CogProbeResult result = source->probe(server.url(path), {});

        QTEST(result.acceptsRanges, "acceptsRanges");
        QTEST(result.contentLength, "contentLength");
        QTEST(result.cloudReadable, "cloudReadable");
        QTEST(result.diagnostic, "diagnostic");
        QCOMPARE(result.contentType, QByteArray("image/tiff"));
        QVERIFY(rangeHeadersOfGets(server, path).contains("bytes=0-15"));
    }

    // Shorter than the header: the range read fails, the probe gives no diagnostic.
    void objectShorterThanTheHeaderFailsInTheRead()
    {
        const QByteArray tenBytes = classicHeader(8).left(10);
        server.serveBytes(QStringLiteral("/short.tif"), tenBytes);
        QCOMPARE(
            thrownMessage<std::runtime_error>([&] { source->probe(server.url(QStringLiteral("/short.tif")), {}); }),
            QByteArray("HTTP Content-Range does not match the requested byte range"));

        RouteBehaviour wholeObject;
        wholeObject.ignoreRange = true;
        server.serveBytes(QStringLiteral("/short-200.tif"), tenBytes);
        server.setBehaviour(QStringLiteral("/short-200.tif"), wholeObject);
        QCOMPARE(
            thrownMessage<std::runtime_error>([&] { source->probe(server.url(QStringLiteral("/short-200.tif")), {}); }),
            QByteArray("HTTP range returned 10 bytes; expected 16"));
    }

    void probeFollowsRedirectsAndReadsAtTheFinalUrl()
    {
        RouteBehaviour redirect;
        redirect.redirectStatus = 302;
        redirect.redirectLocation = server.url(QStringLiteral("/tiff/bigtiff-cog-le-ifd-at-16.tiff")).toEncoded();
        // Closing after the redirect: on a kept-alive connection Qt 6.4 sometimes sends the redirected request twice
        // and merges both answers' headers into the final reply ("Content-Length: 0, 1361").
        redirect.extraHeaders = { { "Connection", "close" } };
        server.setBehaviour(QStringLiteral("/moved.tif"), redirect);

        const CogProbeResult result = source->probe(server.url(QStringLiteral("/moved.tif")), {});

        QCOMPARE(result.url, server.url(QStringLiteral("/tiff/bigtiff-cog-le-ifd-at-16.tiff")));
        QVERIFY(result.bigTiff);
        QCOMPARE(result.firstIfdOffset, qint64(16));
        QCOMPARE(rangeHeadersOfGets(server, QStringLiteral("/moved.tif")), QList<QByteArray>());
        QCOMPARE(rangeHeadersOfGets(server, QStringLiteral("/tiff/bigtiff-cog-le-ifd-at-16.tiff")),
            QList<QByteArray> { "bytes=0-15" });
    }

    void repeatedProbeSendsOnlyTheInspection()
    {
        const QUrl url = server.url(QStringLiteral("/tiff/geotiff-strip-51px-ifd-at-8.tif"));
        const CogProbeResult first = source->probe(url, {});
        const CogProbeResult second = source->probe(url, {});
        QCOMPARE(second.diagnostic, first.diagnostic);
        QCOMPARE(second.firstIfdOffset, qint64(8));
        QCOMPARE(server.requestCount(), 3);
        QCOMPARE(getCount(server), 1);
    }

    void probeFailuresPropagate()
    {
        QCOMPARE(thrownMessage<std::invalid_argument>([&] { source->probe(QUrl(), {}); }),
            QByteArray("Cloud URL is invalid"));
        const QByteArray missing = thrownMessage<std::runtime_error>(
            [&] { source->probe(server.url(QStringLiteral("/tiff/missing.tif")), {}); });
        QVERIFY2(missing.startsWith("HTTP request failed (404)"), missing.constData());
        QCOMPARE(getCount(server), 0);
    }

    void invalidViewportRequests_data()
    {
        QTest::addColumn<QUrl>("url");
        QTest::addColumn<QList<CogByteRange>>("ranges");
        QTest::addColumn<qint64>("coalesceGap");
        QTest::addColumn<QByteArray>("message");
        QTest::addColumn<int>("enforcements");

        const QUrl good = QUrl(QStringLiteral("http://127.0.0.1:1/a.tif"));
        const QList<CogByteRange> one { byteRange(0, 10) };
        const qint64 largest = std::numeric_limits<qint64>::max();
        QTest::newRow("empty URL") << QUrl() << one << qint64(0) << QByteArray(FormatsMessages::viewportUrlInvalid)
                                   << 0;
        QTest::newRow("URL without scheme") << QUrl(QStringLiteral("cogs/a.tif")) << one << qint64(0)
                                            << QByteArray(FormatsMessages::viewportUrlInvalid) << 0;
        QTest::newRow("invalid URL") << QUrl(QStringLiteral("http://[::1")) << one << qint64(0)
                                     << QByteArray(FormatsMessages::viewportUrlInvalid) << 0;
        QTest::newRow("URL outranks ranges")
            << QUrl() << QList<CogByteRange>() << qint64(-1) << QByteArray(FormatsMessages::viewportUrlInvalid) << 0;
        QTest::newRow("no ranges") << good << QList<CogByteRange>() << qint64(0)
                                   << QByteArray(FormatsMessages::viewportNoRanges) << 0;
        QTest::newRow("no ranges outranks the gap")
            << good << QList<CogByteRange>() << qint64(-1) << QByteArray(FormatsMessages::viewportNoRanges) << 0;
        QTest::newRow("negative gap") << good << one << qint64(-1) << QByteArray(FormatsMessages::viewportGapNegative)
                                      << 0;
        QTest::newRow("gap outranks a bad range") << good << QList<CogByteRange> { byteRange(0, 0) } << qint64(-1)
                                                  << QByteArray(FormatsMessages::viewportGapNegative) << 0;
        // The range check comes after the first enforcement.
        QTest::newRow("zero length") << good << QList<CogByteRange> { byteRange(0, 10), byteRange(5, 0) } << qint64(0)
                                     << QByteArray(FormatsMessages::viewportRangeInvalid) << 1;
        QTest::newRow("offset at the largest value")
            << good << QList<CogByteRange> { byteRange(largest, 1) } << qint64(0)
            << QByteArray(FormatsMessages::viewportRangeInvalid) << 1;
        QTest::newRow("negative offset") << good << QList<CogByteRange> { byteRange(-1, 1) } << qint64(0)
                                         << QByteArray(FormatsMessages::viewportRangeInvalid) << 1;
    }

    void invalidViewportRequests()
    {
        QFETCH(QUrl, url);
        QFETCH(QList<CogByteRange>, ranges);
        QFETCH(qint64, coalesceGap);
        QFETCH(QByteArray, message);
        QFETCH(int, enforcements);

        CogViewportRequest request;
        request.url = url;
        request.ranges = ranges;
        request.coalesceGap = coalesceGap;
        ContextRecorder recorder;
        recorder.install(request.context);

        QCOMPARE(thrownMessage<std::invalid_argument>([&] { source->readViewport(request); }), message);
        QCOMPARE(recorder.events.size(), enforcements);
        QCOMPARE(server.requestCount(), 0);
    }

    // Two enforcements, one progress report, then per merged range the read (with its own enforcement through
    // the shared policy) and a progress report, and the final report.
    void viewportCallsTheContextInOrder()
    {
        const QList<CogTile> tiles = recordedTilesOfDirectory(jpegCog, 1);
        QCOMPARE(tiles.size(), 16);
        CogViewportRequest request;
        request.url = server.url(QLatin1Char('/') + jpegCog);
        request.ranges = { byteRange(tiles[10].offset, tiles[10].length), byteRange(tiles[0].offset, tiles[0].length),
            byteRange(tiles[5].offset, tiles[5].length) };
        request.headers = { { "X-Viewport", "v7" } };
        request.overviewLevel = 1;
        request.coalesceGap = 0;
        ContextRecorder recorder;
        recorder.install(request.context);

        const CogViewportResult result = source->readViewport(request);

        QCOMPARE(result.coalescedRanges, 3);
        const qint64 total = tiles[0].length + tiles[5].length + tiles[10].length;
        const QList<ContextEvent> &events = recorder.events;
        QCOMPARE(events.size(), 3 + 2 * 3 + 1);

        QCOMPARE(events[0].kind, QByteArray("enforce"));
        QCOMPARE(events[0].component, cogComponent);
        QCOMPARE(events[0].bytes, qint64(0));
        QCOMPARE(events[0].resource, request.url.toString());
        QCOMPARE(events[1].kind, QByteArray("enforce"));
        QCOMPARE(events[1].component, cogComponent);
        QCOMPARE(events[1].bytes, total);
        QCOMPARE(events[1].resource, request.url.toString());

        const OperationProgress &start = events[2].progress;
        QCOMPARE(events[2].kind, QByteArray("progress"));
        QCOMPARE(start.state, 2);
        QCOMPARE(start.percent, 0);
        QCOMPARE(start.completed, qint64(0));
        QCOMPARE(start.total, total);
        QCOMPARE(start.message, QStringLiteral("Reading COG viewport"));
        QCOMPARE(start.details.size(), 2);
        QCOMPARE(start.details.value(QStringLiteral("overviewLevel")).typeId(), QMetaType::Int);
        QCOMPARE(start.details.value(QStringLiteral("overviewLevel")).toInt(), 1);
        QCOMPARE(start.details.value(QStringLiteral("rangeCount")).typeId(), QMetaType::LongLong);
        QCOMPARE(start.details.value(QStringLiteral("rangeCount")).toLongLong(), qint64(3));

        const QList<qint64> lengths { tiles[0].length, tiles[5].length, tiles[10].length };
        qint64 completed = 0;
        for (int index = 0; index < 3; ++index) {
            const ContextEvent &read = events[3 + 2 * index];
            QCOMPARE(read.kind, QByteArray("enforce"));
            QCOMPARE(read.component, readerComponent);
            QCOMPARE(read.bytes, lengths[index]);

            completed += lengths[index];
            const ContextEvent &after = events[4 + 2 * index];
            QCOMPARE(after.kind, QByteArray("progress"));
            QCOMPARE(after.progress.state, 2);
            QCOMPARE(after.progress.percent, int(std::min<qint64>(99, completed * 100 / total)));
            QCOMPARE(after.progress.completed, completed);
            QCOMPARE(after.progress.total, total);
            QCOMPARE(after.progress.message, QStringLiteral("Reading COG viewport"));
            const QVariantMap details { { QStringLiteral("overviewLevel"), 1 }, { QStringLiteral("cacheHits"), 0 } };
            QCOMPARE(after.progress.details, details);
        }
        QCOMPARE(events[8].progress.percent, 99);

        const OperationProgress &done = events.last().progress;
        QCOMPARE(events.last().kind, QByteArray("progress"));
        QCOMPARE(done.state, 4);
        QCOMPARE(done.percent, 100);
        QCOMPARE(done.completed, total);
        QCOMPARE(done.total, total);
        QCOMPARE(done.message, QStringLiteral("COG viewport ready"));
        const QVariantMap doneDetails { { QStringLiteral("overviewLevel"), 1 },
            { QStringLiteral("requestedRanges"), 3 }, { QStringLiteral("coalescedRanges"), 3 },
            { QStringLiteral("cacheHits"), 0 } };
        QCOMPARE(done.details, doneDetails);
        for (const QString &key : doneDetails.keys())
            QCOMPARE(done.details.value(key).typeId(), QMetaType::Int);

        // Reads go out in ascending order, each with the request's headers.
        QCOMPARE(rangeHeadersOfGets(server, QLatin1Char('/') + jpegCog),
            (QList<QByteArray> {
                "bytes=" + QByteArray::number(tiles[0].offset) + '-'
                    + QByteArray::number(tiles[0].offset + tiles[0].length - 1),
                "bytes=" + QByteArray::number(tiles[5].offset) + '-'
                    + QByteArray::number(tiles[5].offset + tiles[5].length - 1),
                "bytes=" + QByteArray::number(tiles[10].offset) + '-'
                    + QByteArray::number(tiles[10].offset + tiles[10].length - 1),
            }));
        for (const LoopbackRequest &logged : server.requests())
            QCOMPARE(logged.header("X-Viewport"), QByteArray("v7"));
    }

    // All 64 full-resolution tiles, asked for in descending order: few reads, and every tile cut out of them equals
    // the tile's bytes in the file.
    void viewportTilesMatchTheFile_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<int>("ifd");
        QTest::addColumn<qint64>("coalesceGap");

        QTest::newRow("LE JPEG, 64 tiles, default gap") << jpegCog << 0 << qint64(4096);
        QTest::newRow("LE JPEG, 64 tiles, gap 0") << jpegCog << 0 << qint64(0);
        QTest::newRow("BE BigTIFF, all levels, gap 0")
            << "cogs/cog-bigtiff-be-deflate-overviews.tif" << -1 << qint64(0);
        QTest::newRow("BE classic, overview 1") << "cogs/cog-be-deflate-overviews.tif" << 1 << qint64(100);
    }

    void viewportTilesMatchTheFile()
    {
        QFETCH(QString, file);
        QFETCH(int, ifd);
        QFETCH(qint64, coalesceGap);
        const QList<CogTile> tiles = ifd < 0 ? recordedTiles(file) : recordedTilesOfDirectory(file, ifd);
        QVERIFY(!tiles.isEmpty());
        const QByteArray fileBytes = testDataBytes(file);

        CogViewportRequest request;
        request.url = server.url(QLatin1Char('/') + file);
        request.coalesceGap = coalesceGap;
        request.overviewLevel = ifd;
        qint64 requestedBytes = 0;
        for (auto tile = tiles.crbegin(); tile != tiles.crend(); ++tile) {
            request.ranges.append(byteRange(tile->offset, tile->length));
            requestedBytes += tile->length;
        }

        const CogViewportResult result = source->readViewport(request);

        QCOMPARE(result.requestedRanges, tiles.size());
        QCOMPARE(result.requestedBytes, requestedBytes);
        QCOMPARE(result.overviewLevel, ifd);
        QCOMPARE(result.responses.size(), result.coalescedRanges);
        QVERIFY(result.coalescedRanges <= result.requestedRanges);
        QCOMPARE(result.cacheHits, 0);
        QCOMPARE(getCount(server), result.coalescedRanges);
        qint64 bytesRead = 0;
        for (int index = 0; index < result.responses.size(); ++index) {
            const CloudRangeResponse &response = result.responses[index];
            if (index > 0)
                QVERIFY(response.offset - (result.responses[index - 1].offset + result.responses[index - 1].data.size())
                    > coalesceGap);
            QCOMPARE(response.data, fileBytes.mid(response.offset, response.data.size()));
            bytesRead += response.data.size();
        }
        QCOMPARE(result.bytesRead, bytesRead);
        for (const CogTile &tile : tiles)
            QCOMPARE(cutRange(result, tile.offset, tile.length), fileBytes.mid(tile.offset, tile.length));
    }

    void coalescingSavesRequestsOnRealTiles()
    {
        // GDAL writes a 4-byte leader and trailer around each tile, so neighbouring tiles are 8 bytes apart.
        CogViewportRequest request;
        request.url = server.url(QLatin1Char('/') + jpegCog);
        for (const CogTile &tile : recordedTilesOfDirectory(jpegCog, 0))
            request.ranges.append(byteRange(tile.offset, tile.length));
        request.coalesceGap = 8;
        QCOMPARE(source->readViewport(request).coalescedRanges, 1);
        request.coalesceGap = 7;
        QCOMPARE(source->readViewport(request).coalescedRanges, 64);
    }

    void secondIdenticalViewportIsServedFromTheCache()
    {
        CogViewportRequest request;
        request.url = server.url(QLatin1Char('/') + jpegCog);
        const QList<CogTile> tiles = recordedTilesOfDirectory(jpegCog, 1);
        for (int index = 0; index < tiles.size(); index += 3)
            request.ranges.append(byteRange(tiles[index].offset, tiles[index].length));
        request.coalesceGap = 0;

        const CogViewportResult first = source->readViewport(request);
        const int requestsAfterFirst = server.requestCount();
        ContextRecorder recorder;
        recorder.install(request.context);
        const CogViewportResult second = source->readViewport(request);

        QCOMPARE(first.cacheHits, 0);
        QCOMPARE(second.coalescedRanges, first.coalescedRanges);
        QCOMPARE(second.cacheHits, second.coalescedRanges);
        QCOMPARE(server.requestCount(), requestsAfterFirst);
        for (int index = 0; index < second.responses.size(); ++index) {
            QVERIFY(second.responses[index].fromCache);
            QCOMPARE(second.responses[index].data, first.responses[index].data);
        }
        QCOMPARE(
            recorder.events.last().progress.details.value(QStringLiteral("cacheHits")).toInt(), second.coalescedRanges);
    }

    void cancellationBeforeTheFirstReadMakesNoRequest()
    {
        CogViewportRequest request;
        request.url = server.url(QLatin1Char('/') + jpegCog);
        request.ranges = { byteRange(1000, 10) };
        ContextRecorder recorder;
        recorder.install(request.context);
        request.context.cancellationToken.requestCancellation();

        QCOMPARE(thrownMessage<std::runtime_error>([&] { source->readViewport(request); }),
            QByteArray(FormatsMessages::viewportCancelled));
        QCOMPARE(server.requestCount(), 0);
        QCOMPARE(recorder.events.size(), 3);
        QCOMPARE(recorder.events[2].kind, QByteArray("progress"));
        QCOMPARE(recorder.events[2].progress.percent, 0);
    }

    void cancellationIsTestedBeforeEveryRead()
    {
        CogViewportRequest request;
        request.url = server.url(QLatin1Char('/') + jpegCog);
        request.ranges = { byteRange(1000, 10), byteRange(5000, 10), byteRange(9000, 10) };
        request.coalesceGap = 0;
        const OperationCancellationToken token = request.context.cancellationToken;
        int reports = 0;
        // Cancel while reporting the first finished read: the second read must not start.
        request.context.progressSink = [&](const OperationProgress &progress) {
            if (++reports == 2) {
                QCOMPARE(progress.completed, qint64(10));
                token.requestCancellation();
            }
        };

        QCOMPARE(thrownMessage<std::runtime_error>([&] { source->readViewport(request); }),
            QByteArray(FormatsMessages::viewportCancelled));
        QCOMPARE(rangeHeadersOfGets(server, QLatin1Char('/') + jpegCog), QList<QByteArray> { "bytes=1000-1009" });
    }

    // The read under way watches the viewport's own token.
    void cancellationReachesAReadUnderWay()
    {
        const QString path = QStringLiteral("/stalled.tif");
        server.serveBytes(path, testDataBytes(jpegCog));
        RouteBehaviour stall;
        stall.stallBeforeHeaders = true;
        server.setBehaviour(path, stall);

        CogViewportRequest request;
        request.url = server.url(path);
        request.ranges = { byteRange(0, 100) };
        const OperationCancellationToken token = request.context.cancellationToken;
        std::thread canceller([&] {
            if (server.waitForRequests(1))
                token.requestCancellation();
        });
        const QByteArray message = thrownMessage<std::runtime_error>([&] { source->readViewport(request); });
        canceller.join();
        server.clearBehaviour(path);
        server.releaseStalledRequests();

        QCOMPARE(message, QByteArray("HTTP request cancelled"));
    }

    void refusalsStopBeforeAnyRead_data()
    {
        QTest::addColumn<QByteArray>("refusedComponent");
        QTest::addColumn<bool>("refuseZeroUsage");
        QTest::newRow("first enforcement") << cogComponent << true;
        QTest::newRow("second enforcement") << cogComponent << false;
        // The range read's own check goes to the viewport's policy too.
        QTest::newRow("range read's enforcement") << readerComponent << false;
    }

    void refusalsStopBeforeAnyRead()
    {
        QFETCH(QByteArray, refusedComponent);
        QFETCH(bool, refuseZeroUsage);
        CogViewportRequest request;
        request.url = server.url(QLatin1Char('/') + jpegCog);
        request.ranges = { byteRange(1000, 10) };
        request.context.resourcePolicy
            = [&](const OperationResourceUsage &usage, const QString &component, const QString &) {
                  OperationResourcePolicyDecision decision;
                  decision.allowed = !(component.toUtf8() == refusedComponent && (usage.bytes == 0) == refuseZeroUsage);
                  decision.reason = QStringLiteral("over budget");
                  return decision;
              };

        QCOMPARE(
            thrownMessage<OperationRefusedError>([&] { source->readViewport(request); }), QByteArray("over budget"));
        QCOMPARE(server.requestCount(), 0);
    }

    void failuresOfAReadPropagate()
    {
        const QString path = QStringLiteral("/lying.tif");
        server.serveBytes(path, testDataBytes(jpegCog));
        RouteBehaviour lie;
        lie.contentRange = QByteArrayLiteral("bytes 0-99/145183");
        server.setBehaviour(path, lie);

        CogViewportRequest request;
        request.url = server.url(path);
        request.ranges = { byteRange(0, 100), byteRange(50000, 100) };
        request.coalesceGap = 0;
        QCOMPARE(thrownMessage<std::runtime_error>([&] { source->readViewport(request); }),
            QByteArray("HTTP Content-Range does not match the requested byte range"));
        // The first range matched the lie; the second did not and ended the call.
        QCOMPARE(server.requestCount(path), 2);
    }
};

QTEST_GUILESS_MAIN(CogSourceTest)
#include "tst_cogsource.moc"
