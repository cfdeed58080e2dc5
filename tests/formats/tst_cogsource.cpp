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
const QString jpegPath = QLatin1Char('/') + jpegCog;

QString progressText(
    int state, int percent, qint64 completed, qint64 total, const QString &message, const QString &details)
{
    return QStringLiteral("progress %1 %2% %3/%4 ").arg(state).arg(percent).arg(completed).arg(total) + message
        + QStringLiteral(" {") + details + QLatin1Char('}');
}

// Every enforcement and progress report of a context, one line each, details with their value types.
struct ContextRecorder {
    QStringList events;

    void install(OperationContext &context)
    {
        context.resourcePolicy
            = [this](const OperationResourceUsage &usage, const QString &component, const QString &resource) {
                  events.append(QStringLiteral("enforce %1 %2 %3").arg(component).arg(usage.bytes).arg(resource));
                  return OperationResourcePolicyDecision();
              };
        context.progressSink = [this](const OperationProgress &progress) {
            QStringList details;
            for (auto item = progress.details.cbegin(); item != progress.details.cend(); ++item)
                details.append(item.key() + QLatin1Char('=') + QLatin1String(item.value().typeName()) + QLatin1Char(':')
                    + item.value().toString());
            events.append(progressText(progress.state, progress.percent, progress.completed, progress.total,
                progress.message, details.join(QLatin1Char(' '))));
        };
    }
};

QByteArray classicHeader(quint32 firstIfd)
{
    QByteArray bytes("II*\0", 4);
    for (int index = 0; index < 4; ++index)
        bytes.append(char((firstIfd >> (8 * index)) & 0xff));
    return bytes + QByteArray(8, '\0');
}

using RequestSetup = std::function<void(CogViewportRequest &)>;

} // namespace

Q_DECLARE_METATYPE(RouteBehaviour)
Q_DECLARE_METATYPE(RequestSetup)

class CogSourceTest : public QObject {
    Q_OBJECT

    QTemporaryDir cacheFolder;
    LoopbackHttpServer server;
    std::unique_ptr<CogSource> source;

    CogViewportRequest viewport(
        const QList<CogByteRange> &ranges, qint64 coalesceGap = 0, const QString &path = jpegPath)
    {
        CogViewportRequest request;
        request.url = server.url(path);
        request.ranges = ranges;
        request.coalesceGap = coalesceGap;
        return request;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(cacheFolder.isValid());
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        server.serveDirectory(QStringLiteral(NORVANE_TEST_DATA_DIR));
        server.serveBytes(QStringLiteral("/lying.tif"), testDataBytes(jpegCog));
        RouteBehaviour lie;
        lie.contentRange = QByteArrayLiteral("bytes 1000-1009/145183");
        server.setBehaviour(QStringLiteral("/lying.tif"), lie);
    }

    void init()
    {
        // A fresh cache per test, so every test starts with nothing cached.
        source = std::make_unique<CogSource>(memoryOnlyCache(cacheFolder.path()));
        server.clearRequests();
    }

    void cleanupTestCase() { server.stop(); }

    // One inspection and one 16-byte read, both with the caller's headers. The header rules are pinned on bytes
    // alone; these pin what the server contributes, and that read failures propagate with no result.
    void probeOfServedObjects_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<RouteBehaviour>("behaviour");
        QTest::addColumn<QString>("outcome");

        const QByteArray nearHeader = classicHeader(8) + QByteArray(200, 'p');
        RouteBehaviour noRanges;
        noRanges.acceptRanges.reset();
        RouteBehaviour noLength;
        noLength.omitContentLength = true;
        RouteBehaviour wholeObject;
        wholeObject.ignoreRange = true;

        const auto row = [](const char *name, const QByteArray &content, const RouteBehaviour &behaviour,
                             const char *facts, const char *sentence) {
            QTest::newRow(name) << content << behaviour << QString::fromLatin1(facts) + QLatin1String(sentence);
        };
        row("server without ranges", nearHeader, noRanges,
            "no ranges, 216, not readable: ", FormatsMessages::rangesNotAdvertised);
        row("unknown length bounds nothing", classicHeader(40000), noLength,
            "ranges, -1, readable: ", FormatsMessages::tiffFirstIfdFar);
        row("whole object answered with 200", nearHeader, wholeObject,
            "ranges, 216, readable: ", FormatsMessages::tiffFirstIfdNear);
        row("shorter than the header", nearHeader.left(10), {},
            "throws: ", "HTTP Content-Range does not match the requested byte range");
    }

    void probeOfServedObjects()
    {
        QFETCH(QByteArray, content);
        QFETCH(RouteBehaviour, behaviour);
        const QString path = QStringLiteral("/served/%1.tif").arg(QString::fromLatin1(QTest::currentDataTag()));
        server.serveBytes(path, content, "image/tiff");
        server.setBehaviour(path, behaviour);

        QString outcome;
        try {
            const CogProbeResult result = source->probe(server.url(path), { { "X-Probe-Token", "t1" } });
            outcome = QStringLiteral("%1, %2, %3: %4")
                          .arg(result.acceptsRanges ? "ranges" : "no ranges")
                          .arg(result.contentLength)
                          .arg(result.cloudReadable ? "readable" : "not readable", result.diagnostic);
            QCOMPARE(result.contentType, QByteArray("image/tiff"));
        } catch (const std::runtime_error &error) {
            outcome = QStringLiteral("throws: ") + QLatin1String(error.what());
        }
        QTEST(outcome, "outcome");
        QCOMPARE(server.requests().first().method, QByteArray("HEAD"));
        // Qt may send a GET again when the server closed the connection after an answer without a length.
        const QList<QByteArray> reads = rangesOfGets(server, path);
        QVERIFY(!reads.isEmpty() && reads.count("bytes=0-15") == reads.size());
        for (const LoopbackRequest &request : server.requests())
            QCOMPARE(request.header("X-Probe-Token"), QByteArray("t1"));
    }

    void probeFollowsRedirectsAndReadsAtTheFinalUrl()
    {
        const QString target = QStringLiteral("/tiff/bigtiff-cog-le-ifd-at-16.tiff");
        RouteBehaviour redirect;
        redirect.redirectStatus = 302;
        redirect.redirectLocation = server.url(target).toEncoded();
        server.setBehaviour(QStringLiteral("/moved.tif"), redirect);

        const CogProbeResult result = source->probe(server.url(QStringLiteral("/moved.tif")), {});

        QCOMPARE(result.url, server.url(target));
        QCOMPARE(result.firstIfdOffset, qint64(16));
        QCOMPARE(rangesOfGets(server, QStringLiteral("/moved.tif")), QList<QByteArray>());
        QCOMPARE(rangesOfGets(server, target), QList<QByteArray> { "bytes=0-15" });
    }

    // Two enforcements, one progress report, per merged range the read (its own enforcement goes to the same
    // policy) and a report, then the final report. Reads go out in ascending order with the request's headers.
    void viewportCallsTheContextInOrder()
    {
        const QList<CogTile> tiles = recordedTiles(jpegCog, 1);
        QCOMPARE(tiles.size(), 16);
        CogViewportRequest request = viewport({ byteRange(tiles[10].offset, tiles[10].length),
            byteRange(tiles[0].offset, tiles[0].length), byteRange(tiles[5].offset, tiles[5].length) });
        request.headers = { { "X-Viewport", "v7" } };
        request.overviewLevel = 1;
        ContextRecorder recorder;
        recorder.install(request.context);

        const CogViewportResult result = source->readViewport(request);

        const QString url = request.url.toString();
        const QString reading = QStringLiteral("Reading COG viewport");
        const qint64 total = tiles[0].length + tiles[5].length + tiles[10].length;
        QStringList expected {
            QStringLiteral("enforce Norvane.Cloud.CogSource 0 ") + url,
            QStringLiteral("enforce Norvane.Cloud.CogSource %1 ").arg(total) + url,
            progressText(2, 0, 0, total, reading, QStringLiteral("overviewLevel=int:1 rangeCount=qlonglong:3")),
        };
        QList<QByteArray> ranges;
        qint64 completed = 0;
        for (const int index : { 0, 5, 10 }) {
            completed += tiles[index].length;
            expected << QStringLiteral("enforce Norvane.Cloud.HttpRangeReader %1 ").arg(tiles[index].length) + url
                     << progressText(2, int(std::min<qint64>(99, completed * 100 / total)), completed, total, reading,
                            QStringLiteral("cacheHits=int:0 overviewLevel=int:1"));
            ranges.append(rangeHeader(tiles[index].offset, tiles[index].length));
        }
        expected << progressText(4, 100, total, total, QStringLiteral("COG viewport ready"),
            QStringLiteral("cacheHits=int:0 coalescedRanges=int:3 overviewLevel=int:1 requestedRanges=int:3"));
        QCOMPARE(recorder.events, expected);
        QVERIFY(recorder.events[8].contains(QLatin1String(" 99% "))); // all read, but not yet reported done

        QCOMPARE(result.coalescedRanges, 3);
        QCOMPARE(rangesOfGets(server, jpegPath), ranges);
        for (const LoopbackRequest &logged : server.requests())
            QCOMPARE(logged.header("X-Viewport"), QByteArray("v7"));
    }

    // All tiles of all levels asked for in reverse order: every tile cut out of the reads equals its bytes in the
    // file. A second identical viewport is served from the cache and makes no request.
    void viewportTilesMatchTheFile()
    {
        const QString file = QStringLiteral("cogs/cog-bigtiff-be-deflate-overviews.tif");
        const QList<CogTile> tiles = recordedTiles(file);
        QVERIFY(!tiles.isEmpty());
        const QByteArray fileBytes = testDataBytes(file);
        CogViewportRequest request = viewportOfTiles(server.url(QLatin1Char('/') + file), tiles, 0);
        request.overviewLevel = 2;

        const CogViewportResult result = source->readViewport(request);

        qint64 requestedBytes = 0;
        for (const CogTile &tile : tiles) {
            QCOMPARE(cutRange(result, tile.offset, tile.length), fileBytes.mid(tile.offset, tile.length));
            requestedBytes += tile.length;
        }
        QCOMPARE(result.requestedRanges, tiles.size());
        QCOMPARE(result.requestedBytes, requestedBytes);
        QCOMPARE(result.overviewLevel, 2);
        QCOMPARE(result.cacheHits, 0);
        QCOMPARE(int(rangesOfGets(server, request.url.path()).size()), result.coalescedRanges);
        QVERIFY(std::is_sorted(result.responses.cbegin(), result.responses.cend(),
            [](const CloudRangeResponse &left, const CloudRangeResponse &right) {
                return left.offset < right.offset;
            }));

        server.clearRequests();
        ContextRecorder recorder;
        recorder.install(request.context);
        const CogViewportResult again = source->readViewport(request);
        QCOMPARE(again.cacheHits, result.coalescedRanges);
        QCOMPARE(again.bytesRead, result.bytesRead);
        QCOMPARE(server.requestCount(request.url.path()), 0);
        QVERIFY(recorder.events.last().contains(QStringLiteral("cacheHits=int:%1").arg(result.coalescedRanges)));
    }

    // GDAL writes a 4-byte leader and trailer around each tile, so neighbouring tiles are 8 bytes apart.
    void coalesceGapOnRealTiles()
    {
        CogViewportRequest request = viewportOfTiles(server.url(jpegPath), recordedTiles(jpegCog, 0), 8);
        QCOMPARE(source->readViewport(request).coalescedRanges, 1);
        request.coalesceGap = 7;
        QCOMPARE(source->readViewport(request).coalescedRanges, 64);
    }

    // Each way a viewport ends early, and the reads it made before. Refusing the first enforcement shows which
    // checks come before it: the three request checks, in this order; the range check comes after it.
    void viewportStopsEarly_data()
    {
        QTest::addColumn<RequestSetup>("setup");
        QTest::addColumn<int>("refusedEnforcement");
        QTest::addColumn<QByteArray>("message");
        QTest::addColumn<QList<QByteArray>>("reads");

        const auto row = [](const char *name, const RequestSetup &setup, int refused, const char *message,
                             const QList<QByteArray> &reads = {}) {
            QTest::newRow(name) << setup << refused << QByteArray(message) << reads;
        };
        const RequestSetup unchanged = [](CogViewportRequest &) {};
        const auto changed = [](const QUrl &url, const QList<CogByteRange> &ranges, qint64 coalesceGap) {
            return RequestSetup([=](CogViewportRequest &request) {
                request.url = url;
                request.ranges = ranges;
                request.coalesceGap = coalesceGap;
            });
        };
        const QUrl url = server.url(jpegPath);
        const RequestSetup badRange = changed(url, { byteRange(1000, 10), byteRange(5, 0) }, 0);
        row("URL without scheme", changed(QUrl(QStringLiteral("cogs/a.tif")), { byteRange(0, 1) }, 0), 1,
            FormatsMessages::viewportUrlInvalid);
        row("invalid URL", changed(QUrl(QStringLiteral("http://[::1")), { byteRange(0, 1) }, 0), 1,
            FormatsMessages::viewportUrlInvalid);
        row("URL outranks ranges and gap", changed(QUrl(), {}, -1), 1, FormatsMessages::viewportUrlInvalid);
        row("no ranges outranks the gap", changed(url, {}, -1), 1, FormatsMessages::viewportNoRanges);
        row("gap outranks a bad range", changed(url, { byteRange(0, 0) }, -1), 1, FormatsMessages::viewportGapNegative);
        row("bad range", badRange, 0, FormatsMessages::viewportRangeInvalid);
        row("first enforcement outranks a bad range", badRange, 1, "over budget");
        row("second enforcement refuses", unchanged, 2, "over budget");
        row("range read's enforcement refuses", unchanged, 3, "over budget");
        row(
            "cancelled before the first read",
            [](CogViewportRequest &request) { request.context.cancellationToken.requestCancellation(); }, 0,
            FormatsMessages::viewportCancelled);
        // Cancelled while the first finished read is reported: the second read must not start.
        row("cancelled between reads",
            [](CogViewportRequest &request) {
                const OperationCancellationToken token = request.context.cancellationToken;
                request.context.progressSink = [token](const OperationProgress &progress) {
                    if (progress.completed == 10)
                        token.requestCancellation();
                };
            },
            0, FormatsMessages::viewportCancelled, { "bytes=1000-1009" });
        // The server's Content-Range fits the first range only.
        row("read failure", [](CogViewportRequest &request) { request.url.setPath(QStringLiteral("/lying.tif")); }, 0,
            "HTTP Content-Range does not match the requested byte range", { "bytes=1000-1009", "bytes=5000-5009" });
    }

    void viewportStopsEarly()
    {
        QFETCH(RequestSetup, setup);
        QFETCH(int, refusedEnforcement);
        CogViewportRequest request = viewport({ byteRange(1000, 10), byteRange(5000, 10), byteRange(9000, 10) });
        int enforcements = 0;
        request.context.resourcePolicy = [&](const OperationResourceUsage &, const QString &, const QString &) {
            OperationResourcePolicyDecision decision;
            decision.allowed = ++enforcements != refusedEnforcement;
            decision.reason = QStringLiteral("over budget");
            return decision;
        };
        setup(request);
        QTEST(thrownMessage<std::exception>([&] { source->readViewport(request); }), "message");
        QTEST(rangesOfGets(server, request.url.path()), "reads");
    }

    // The read under way watches the viewport's own token.
    void cancellationReachesAReadUnderWay()
    {
        const QString path = QStringLiteral("/stalled.tif");
        server.serveBytes(path, testDataBytes(jpegCog));
        RouteBehaviour stall;
        stall.stallBeforeHeaders = true;
        server.setBehaviour(path, stall);

        CogViewportRequest request = viewport({ byteRange(0, 100) }, 0, path);
        const OperationCancellationToken token = request.context.cancellationToken;
        std::thread canceller([&] {
            // Other tests' late requests may arrive too: wait for the one at the stalled path.
            for (int seen = 1; server.waitForRequests(seen) && server.requestCount(path) == 0; ++seen) { }
            token.requestCancellation();
        });
        const QByteArray message = thrownMessage<std::runtime_error>([&] { source->readViewport(request); });
        canceller.join();
        server.clearBehaviour(path);
        server.releaseStalledRequests();

        QCOMPARE(message, QByteArray("HTTP request cancelled"));
    }
};

QTEST_GUILESS_MAIN(CogSourceTest)
#include "tst_cogsource.moc"
