// HttpRangeReader against nginx and the fault-injecting loopback server: argument checks, request headers, answer
// validation, cache use and fetch coordination, cancellation, time-out, progress and resource policy.

#include <norvanecloud/rangetransport.h>

#include "loopbackhttpserver.h"
#include "nginxserver.h"
#include "transport/transportmessages.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QScopeGuard>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <atomic>
#include <limits>
#include <stdexcept>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;
using Norvane::Core::Operations::OperationProgress;
using Norvane::Core::Operations::OperationRefusedError;
using Norvane::Core::Operations::OperationResourcePolicyDecision;
using Norvane::Core::Operations::OperationResourceUsage;

Q_DECLARE_METATYPE(RouteBehaviour)

namespace {

const QString pmtilesPath = QStringLiteral("/pmtiles/test-fixture-1-mvt-z0.pmtiles");
const QString tiffPath = QStringLiteral("/tiff/geotiff-float32-dem-ifd-at-end.tif");
// A synthetic object of 1000 bytes served by the loopback server, so Content-Range numbers are easy to state.
const QString objectPath = QStringLiteral("/object.bin");
const qint64 objectSize = 1000;
const QString loopbackServer = QStringLiteral("loopback");
const QString nginxServer = QStringLiteral("nginx");
const QString refusingServer = QStringLiteral("refused");

QByteArray objectBytes()
{
    QByteArray bytes(objectSize, Qt::Uninitialized);
    for (qint64 index = 0; index < objectSize; ++index)
        bytes[index] = char(index * 7 % 251);
    return bytes;
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray fixture(const QString &path)
{
    return readAll(QStringLiteral(NORVANE_TEST_DATA_DIR) + path);
}

CloudRangeRequest rangeRequest(const QUrl &url, qint64 offset, qint64 length)
{
    CloudRangeRequest request;
    request.url = url;
    request.offset = offset;
    request.length = length;
    return request;
}

// "invalid_argument: <text>", "runtime_error: <text>", or empty when the call returned.
template <typename Call> QString failureOf(Call &&call)
{
    try {
        call();
    } catch (const std::invalid_argument &error) {
        return QStringLiteral("invalid_argument: ") + QString::fromUtf8(error.what());
    } catch (const std::runtime_error &error) {
        return QStringLiteral("runtime_error: ") + QString::fromUtf8(error.what());
    }
    return QString();
}

} // namespace

class TestHttpRangeReader : public QObject {
    Q_OBJECT

    static QString runtimeError(const char *text) { return QStringLiteral("runtime_error: ") + QLatin1String(text); }
    static QString invalidArgument(const char *text)
    {
        return QStringLiteral("invalid_argument: ") + QLatin1String(text);
    }
    // "HTTP request failed (<status>): " without Qt's error text, which follows it.
    static QString requestFailedPrefix(int status)
    {
        return runtimeError(TransportMessages::requestFailed).arg(status).arg(QString());
    }
    static QString lengthMismatch(qint64 received, qint64 expected)
    {
        return runtimeError(TransportMessages::lengthMismatch).arg(received).arg(expected);
    }

private slots:
    void initTestCase()
    {
        nginx = std::make_unique<NginxServer>(QStringLiteral(NORVANE_TEST_DATA_DIR));
        QVERIFY2(nginx->start(), qPrintable(nginx->errorString()));
    }
    void cleanupTestCase() { nginx.reset(); }

    void init()
    {
        loopback = std::make_unique<LoopbackHttpServer>();
        QVERIFY2(loopback->start(), qPrintable(loopback->errorString()));
        loopback->serveDirectory(QStringLiteral(NORVANE_TEST_DATA_DIR));
        loopback->serveBytes(objectPath, objectBytes());
        cacheDirectory = std::make_unique<QTemporaryDir>();
        QVERIFY(cacheDirectory->isValid());
        CloudCacheOptions options;
        options.directory = cacheDirectory->path();
        cache = std::make_shared<CloudRangeCache>(options);
        reader = std::make_unique<HttpRangeReader>(cache);
        nginx->clearAccessLog();
    }
    void cleanup()
    {
        reader.reset();
        cache.reset();
        cacheDirectory.reset();
        loopback.reset();
    }

    void timeoutMustBePositive()
    {
        QCOMPARE(reader->timeoutMilliseconds(), 30000);
        for (int rejected : { 0, -1 }) {
            QCOMPARE(failureOf([&] { reader->setTimeoutMilliseconds(rejected); }),
                invalidArgument(TransportMessages::timeoutNotPositive));
        }
        QCOMPARE(reader->timeoutMilliseconds(), 30000);
    }

    void rejectsBadArgumentsBeforeAnyEffect_data()
    {
        QTest::addColumn<QUrl>("url");
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<qint64>("length");
        QTest::addColumn<QString>("failure");
        const QUrl valid = QUrl(QStringLiteral("http://127.0.0.1:1/object.bin"));
        const qint64 maximum = std::numeric_limits<qint64>::max();
        QTest::newRow("default request: URL first")
            << QUrl() << qint64(-1) << qint64(0) << invalidArgument(TransportMessages::urlInvalid);
        QTest::newRow("no scheme") << QUrl(QStringLiteral("object.bin")) << qint64(0) << qint64(16)
                                   << invalidArgument(TransportMessages::urlInvalid);
        QTest::newRow("negative offset before length")
            << valid << qint64(-1) << qint64(0) << invalidArgument(TransportMessages::offsetNegative);
        QTest::newRow("zero length") << valid << qint64(0) << qint64(0)
                                     << invalidArgument(TransportMessages::lengthNotPositive);
        QTest::newRow("overflow by one") << valid << qint64(1) << maximum
                                         << invalidArgument(TransportMessages::rangeOverflows);
    }
    void rejectsBadArgumentsBeforeAnyEffect()
    {
        QFETCH(QUrl, url);
        QFETCH(qint64, offset);
        QFETCH(qint64, length);
        QFETCH(QString, failure);
        int contextCalls = 0;
        CloudRangeRequest request = rangeRequest(url, offset, length);
        request.context.resourcePolicy = [&](const OperationResourceUsage &, const QString &, const QString &) {
            ++contextCalls;
            return OperationResourcePolicyDecision();
        };
        request.context.progressSink = [&](const OperationProgress &) { ++contextCalls; };
        QCOMPARE(failureOf([&] { reader->read(request); }), failure);
        QCOMPARE(contextCalls, 0);
        QCOMPARE(cache->statistics().misses, 0);
    }

    void cacheKeyIsByteExact_data()
    {
        QTest::addColumn<QUrl>("url");
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<QByteArray>("headerNames");
        QTest::addColumn<QByteArray>("keyText");
        QTest::newRow("encoded path, query and unicode")
            << QUrl(QStringLiteral("https://example.test/\u00e9t\u00e9 a.tif?sig=a+b&x=1")) << qint64(12345678901)
            << QByteArray() << QByteArray("https://example.test/%C3%A9t%C3%A9%20a.tif?sig=a+b&x=1\n12345678901:16");
        // Names sort by their bytes as given (upper case first) and are written lower-cased.
        QTest::newRow("headers in byte order")
            << QUrl(QStringLiteral("http://example.test/x")) << qint64(5) << QByteArray("x-a,Accept,X-B")
            << QByteArray("http://example.test/x\n5:16\naccept:value-Accept\nx-b:value-X-B\nx-a:value-x-a");
    }
    void cacheKeyIsByteExact()
    {
        QFETCH(QUrl, url);
        QFETCH(qint64, offset);
        QFETCH(QByteArray, headerNames);
        QFETCH(QByteArray, keyText);
        CloudRangeRequest request = rangeRequest(url, offset, 16);
        for (const QByteArray &name : headerNames.split(',')) {
            if (!name.isEmpty())
                request.headers.insert(name, "value-" + name);
        }
        const QString expected
            = QString::fromLatin1(QCryptographicHash::hash(keyText, QCryptographicHash::Sha256).toHex());
        QCOMPARE(HttpRangeReader::cacheKey(request), expected);

        // Cache use, cancellation and the context never enter the key.
        request.useCache = false;
        request.cancellationRequested = [] { return true; };
        request.context.cancellationToken.requestCancellation();
        QCOMPARE(HttpRangeReader::cacheKey(request), expected);
    }

    void sendsTheReaderHeadersAndTheCallersReplaceThem()
    {
        reader->setUserAgent("Host/2.5 (test)");
        CloudRangeRequest request = rangeRequest(loopback->url(objectPath), 100, 16);
        QCOMPARE(reader->read(request).data, objectBytes().mid(100, 16));
        // Replaced whatever the case of the caller's name; the answer is then checked against the request's own
        // range, which the caller's Range no longer matches.
        request.headers = { { "X-Api-Key", "secret" }, { "user-agent", "Caller/1" }, { "Accept-Encoding", "br" },
            { "range", "bytes=200-215" } };
        QCOMPARE(failureOf([&] { reader->read(request); }), runtimeError(TransportMessages::contentRangeMismatch));
        const QList<LoopbackRequest> sent = loopback->requests();
        QCOMPARE(sent.size(), 2);
        const QList<QPair<QByteArray, QList<QByteArray>>> expected[2] = {
            { { "User-Agent", { "Host/2.5 (test)" } }, { "Accept-Encoding", { "identity" } },
                { "Range", { "bytes=100-115" } }, { "X-Api-Key", {} } },
            { { "User-Agent", { "Caller/1" } }, { "Accept-Encoding", { "br" } }, { "Range", { "bytes=200-215" } },
                { "X-Api-Key", { "secret" } } },
        };
        for (int index = 0; index < 2; ++index) {
            QCOMPARE(sent.at(index).method, QByteArray("GET"));
            for (const auto &[name, values] : expected[index])
                QCOMPARE(sent.at(index).headerValues(name), values);
        }
    }

    void readsRangesAndServesRepeatsFromCache_data()
    {
        QTest::addColumn<QString>("server");
        QTest::addColumn<QString>("path");
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<qint64>("length");
        QTest::addColumn<QByteArray>("contentType");
        for (const QString &server : { loopbackServer, nginxServer }) {
            const QByteArray name = server.toLatin1();
            QTest::newRow(name + " middle")
                << server << tiffPath << qint64(4000) << qint64(16384) << QByteArray("image/tiff");
            QTest::newRow(name + " last byte")
                << server << pmtilesPath << qint64(467) << qint64(1) << QByteArray("application/vnd.pmtiles");
        }
    }
    void readsRangesAndServesRepeatsFromCache()
    {
        QFETCH(QString, server);
        QFETCH(QString, path);
        QFETCH(qint64, offset);
        QFETCH(qint64, length);
        QFETCH(QByteArray, contentType);
        const QByteArray content = fixture(path);
        CloudRangeRequest request = rangeRequest(urlOn(server, path), offset, length);

        // Without cache use the read goes out and nothing is stored, so the cached read after it goes out too.
        request.useCache = false;
        QVERIFY(!reader->read(request).fromCache);
        QCOMPARE(cache->statistics().writes + cache->statistics().misses, 0);
        request.useCache = true;
        const CloudRangeResponse first = reader->read(request);
        QCOMPARE(first.data, content.mid(offset, length));
        QCOMPARE(first.offset, offset);
        QCOMPARE(first.totalSize, qint64(content.size()));
        QCOMPARE(first.statusCode, 206);
        QVERIFY(first.acceptsRanges);
        QVERIFY(!first.etag.isEmpty());
        QVERIFY(!first.lastModified.isEmpty());
        QCOMPARE(first.contentType, contentType);
        QVERIFY(!first.fromCache);

        // The three-value form builds the same request, so it is answered from the cache.
        const CloudRangeResponse second = reader->read(request.url, offset, length);
        QVERIFY(second.fromCache);
        QCOMPARE(second.data, first.data);
        QCOMPARE(second.etag, first.etag);
        const CloudCacheStatistics statistics = cache->statistics();
        QCOMPARE(statistics.networkRequests, 2);
        QCOMPARE(statistics.networkBytes, 2 * length);
        QCOMPARE(statistics.cacheBytesServed, length);
        QCOMPARE(statistics.writes, 1);
        const QByteArray range = "bytes=" + QByteArray::number(offset) + '-' + QByteArray::number(offset + length - 1);
        QCOMPARE(rangesSeenBy(server), QList<QByteArray>({ range, range }));

        // With no cache at all the reader still reads and touches no statistics.
        reader->setCache(nullptr);
        QVERIFY(!reader->read(request).fromCache);
        QCOMPARE(cache->statistics().networkRequests, 2);
    }

    void checksTheAnswer_data()
    {
        QTest::addColumn<RouteBehaviour>("behaviour");
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<qint64>("length");
        QTest::addColumn<QString>("failure");
        QTest::addColumn<qint64>("networkBytes");
        QTest::addColumn<int>("status");
        QTest::addColumn<qint64>("totalSize");
        QTest::addColumn<bool>("acceptsRanges");
        const auto row = [](const char *name, const RouteBehaviour &behaviour, qint64 offset, qint64 length,
                             const QString &failure, qint64 networkBytes, int status = 0, qint64 totalSize = 0,
                             bool acceptsRanges = false) {
            QTest::newRow(name) << behaviour << offset << length << failure << networkBytes << status << totalSize
                                << acceptsRanges;
        };
        const auto contentRange = [](const QByteArray &value) {
            RouteBehaviour behaviour;
            behaviour.contentRange = value;
            return behaviour;
        };
        const QString mismatch = runtimeError(TransportMessages::contentRangeMismatch);
        row("true content-range", RouteBehaviour(), 0, 100, QString(), 100, 206, objectSize, true);
        // 0 + (2^63 - 1) is the largest end the checks allow; the read goes out and the server's answer fails.
        row("largest range", RouteBehaviour(), 0, std::numeric_limits<qint64>::max(), mismatch, objectSize);
        row("total from content-range", contentRange("bytes 0-99/123456789012"), 0, 100, QString(), 100, 206,
            123456789012, true);
        row("unknown total", contentRange("bytes 0-99/*"), 0, 100, QString(), 100, 206, -1, true);
        row("shifted range", contentRange("bytes 1-100/1000"), 0, 100, mismatch, 100);
        row("short end", contentRange("bytes 0-98/1000"), 0, 100, mismatch, 100);
        row("unit in capitals", contentRange("Bytes 0-99/1000"), 0, 100, mismatch, 100);
        row("no slash", contentRange("bytes 0-99"), 0, 100, mismatch, 100);
        RouteBehaviour noContentRange;
        noContentRange.omitContentRange = true;
        row("206 without content-range", noContentRange, 0, 100, mismatch, 100);

        RouteBehaviour shortBody;
        shortBody.bodyLengthDelta = -40;
        row("short body", shortBody, 0, 100, lengthMismatch(60, 100), 60);
        RouteBehaviour longBody;
        longBody.bodyLengthDelta = 5;
        row("long body", longBody, 10, 100, lengthMismatch(105, 100), 105);

        RouteBehaviour whole;
        whole.ignoreRange = true;
        row("200 at offset 0 is trimmed", whole, 0, 100, QString(), objectSize, 200, objectSize, true);
        // The whole object crossed the network, so it is counted even though the read fails.
        row("200 at offset 10 is refused", whole, 10, 100, runtimeError(TransportMessages::rangeIgnored), objectSize);
        RouteBehaviour wholeWithout = whole;
        wholeWithout.acceptRanges = std::nullopt;
        row("200 without Accept-Ranges", wholeWithout, 0, 10, QString(), objectSize, 200, objectSize, false);
        RouteBehaviour wholeUnknownLength = wholeWithout;
        wholeUnknownLength.omitContentLength = true;
        row("200 without Content-Length", wholeUnknownLength, 0, 10, QString(), objectSize, 200, -1, false);

        RouteBehaviour other;
        other.fixedStatus = 203;
        other.fixedBody = "0123456789";
        row("203", other, 0, 10, runtimeError(TransportMessages::unexpectedStatus).arg(203), 10);
    }
    void checksTheAnswer()
    {
        QFETCH(RouteBehaviour, behaviour);
        QFETCH(qint64, offset);
        QFETCH(qint64, length);
        QFETCH(QString, failure);
        QFETCH(qint64, networkBytes);
        QFETCH(int, status);
        QFETCH(qint64, totalSize);
        QFETCH(bool, acceptsRanges);
        loopback->setBehaviour(objectPath, behaviour);
        const CloudRangeRequest request = rangeRequest(loopback->url(objectPath), offset, length);

        CloudRangeResponse response;
        QCOMPARE(failureOf([&] { response = reader->read(request); }), failure);
        QCOMPARE(loopback->requests().value(0).header("Range"),
            "bytes=" + QByteArray::number(offset) + '-' + QByteArray::number(offset + length - 1));
        QCOMPARE(cache->statistics().networkRequests, 1);
        QCOMPARE(cache->statistics().networkBytes, networkBytes);
        if (!failure.isEmpty()) {
            QCOMPARE(cache->statistics().writes, 0);
            // Nothing was stored: the same read goes to the server again.
            QCOMPARE(failureOf([&] { reader->read(request); }), failure);
            QCOMPARE(loopback->requestCount(), 2);
            return;
        }
        QCOMPARE(cache->statistics().writes, 1);
        QCOMPARE(response.statusCode, status);
        QCOMPARE(response.data, objectBytes().mid(offset, length));
        QCOMPARE(response.offset, offset);
        QCOMPARE(response.totalSize, totalSize);
        QCOMPARE(response.acceptsRanges, acceptsRanges);
        QCOMPARE(response.contentType, QByteArray("application/octet-stream"));
    }

    void reportsServerAndNetworkFailures_data()
    {
        QTest::addColumn<QString>("server");
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("failurePrefix");
        for (const QString &server : { loopbackServer, nginxServer }) {
            const QByteArray name = server.toLatin1();
            QTest::newRow(name + " missing object")
                << server << qint64(0) << QStringLiteral("/tiff/missing.tif") << requestFailedPrefix(404);
            QTest::newRow(name + " range past the end")
                << server << qint64(468) << pmtilesPath << requestFailedPrefix(416);
            // The server trims the range to the object, which no longer matches what was asked.
            QTest::newRow(name + " range over the end")
                << server << qint64(460) << pmtilesPath << runtimeError(TransportMessages::contentRangeMismatch);
        }
        QTest::newRow("refused connection") << refusingServer << qint64(0) << pmtilesPath << requestFailedPrefix(0);
    }
    void reportsServerAndNetworkFailures()
    {
        QFETCH(QString, server);
        QFETCH(qint64, offset);
        QFETCH(QString, path);
        QFETCH(QString, failurePrefix);
        const QString failure = failureOf([&] { reader->read(urlOn(server, path), offset, 16); });
        QVERIFY2(failure.startsWith(failurePrefix), qPrintable(failure));
        // After "failed (N): " comes Qt's own error text: present, whatever its wording.
        if (failurePrefix.endsWith(QLatin1String(": ")))
            QVERIFY2(failure.size() > failurePrefix.size(), qPrintable(failure));
        else
            QCOMPARE(failure, failurePrefix);
        QCOMPARE(cache->statistics().writes, 0);
    }

    void connectionClosedMidBodyFails()
    {
        RouteBehaviour cut;
        cut.closeAfterBodyBytes = 4;
        loopback->setBehaviour(objectPath, cut);
        const QString failure = failureOf([&] { reader->read(loopback->url(objectPath), 0, 100); });
        // Qt reports the cut either as a network error or as a finished short body; both must fail the read.
        QVERIFY2(
            failure.startsWith(requestFailedPrefix(206)) || failure == lengthMismatch(4, 100), qPrintable(failure));
        QCOMPARE(cache->statistics().writes, 0);
    }

    void stalledServerEndsByCancellationOrTimeout_data()
    {
        QTest::addColumn<RouteBehaviour>("behaviour");
        QTest::addColumn<QString>("how");
        QTest::addColumn<QString>("failure");
        RouteBehaviour beforeHeaders;
        beforeHeaders.stallBeforeHeaders = true;
        RouteBehaviour midBody;
        midBody.stallAfterBodyBytes = 10;
        const QString cancelled = runtimeError(TransportMessages::requestCancelled);
        const QString timedOut = runtimeError(TransportMessages::requestTimedOut);
        QTest::newRow("callable, before headers") << beforeHeaders << QStringLiteral("callable") << cancelled;
        QTest::newRow("token, mid-body") << midBody << QStringLiteral("token") << cancelled;
        QTest::newRow("time-out, before headers") << beforeHeaders << QStringLiteral("timeout") << timedOut;
        // The time-out covers the whole exchange, not only silence.
        QTest::newRow("time-out, mid-body") << midBody << QStringLiteral("timeout") << timedOut;
        // Both hold when the loop ends: cancellation wins.
        QTest::newRow("cancelled as it timed out") << beforeHeaders << QStringLiteral("both") << cancelled;
        // The answer arrives, but cancellation is requested by the time the loop ends: cancellation wins.
        QTest::newRow("cancelled as it was answered") << RouteBehaviour() << QStringLiteral("callable") << cancelled;
    }
    void stalledServerEndsByCancellationOrTimeout()
    {
        QFETCH(RouteBehaviour, behaviour);
        QFETCH(QString, how);
        QFETCH(QString, failure);
        loopback->setBehaviour(objectPath, behaviour);
        CloudRangeRequest request = rangeRequest(loopback->url(objectPath), 0, 100);
        std::atomic<int> callableCalls { 0 };
        std::unique_ptr<QThread> canceller;
        if (how == QLatin1String("callable")) {
            request.cancellationRequested = [this] { return loopback->requestCount() > 0; };
        } else if (how == QLatin1String("token")) {
            // Cancelled from another thread once the server holds the request.
            auto token = request.context.cancellationToken;
            canceller.reset(QThread::create([this, token] {
                if (loopback->waitForRequests(1, 20000))
                    token.requestCancellation();
            }));
            canceller->start();
        } else if (how == QLatin1String("timeout")) {
            reader->setTimeoutMilliseconds(300);
        } else {
            // False before the exchange, true afterwards; a 1 ms time-out ends the loop before the first poll.
            reader->setTimeoutMilliseconds(1);
            request.cancellationRequested = [&callableCalls] { return ++callableCalls > 1; };
        }
        QElapsedTimer elapsed;
        elapsed.start();
        QCOMPARE(failureOf([&] { reader->read(request); }), failure);
        // Far below the 30 s default time-out; only a stuck exchange would come near it.
        QVERIFY2(elapsed.elapsed() < 15000, qPrintable(QString::number(elapsed.elapsed())));
        if (canceller)
            QVERIFY(canceller->wait(20000));
        QCOMPARE(cache->statistics().writes, 0);
        QCOMPARE(cache->statistics().networkRequests, 0);

        // The fetch was released: with the stall gone the same key is read normally.
        loopback->clearBehaviour(objectPath);
        reader->setTimeoutMilliseconds(30000);
        QCOMPARE(reader->read(request.url, 0, 100).data, objectBytes().left(100));
    }

    void reportsProgressAndAsksThePolicyInOrder()
    {
        const QString urlText = loopback->url(objectPath).toString();
        QStringList events;
        CloudRangeRequest request = rangeRequest(loopback->url(objectPath), 10, 32);
        request.context.resourcePolicy
            = [&](const OperationResourceUsage &usage, const QString &component, const QString &resource) {
                  events << QStringLiteral("policy %1 %2 %3").arg(usage.bytes).arg(component, resource);
                  return OperationResourcePolicyDecision();
              };
        request.context.progressSink = [&](const OperationProgress &progress) {
            QStringList details;
            for (auto it = progress.details.cbegin(); it != progress.details.cend(); ++it)
                details << it.key() + QLatin1Char('=') + it.value().toString();
            events << QStringLiteral("progress %1 %2 %3 %4 %5 {%6}")
                          .arg(progress.state)
                          .arg(progress.percent)
                          .arg(progress.completed)
                          .arg(progress.total)
                          .arg(progress.message, details.join(QLatin1Char(',')));
        };
        request.cancellationRequested = [&] {
            if (events.size() == 1)
                events << QStringLiteral("cancelled?");
            return false;
        };
        reader->read(request);
        reader->read(request);
        const QString policy = QStringLiteral("policy 32 Norvane.Cloud.HttpRangeReader ") + urlText;
        const QString reading = QStringLiteral("progress 2 0 0 32 Reading cloud byte range {url=") + urlText + '}';
        QCOMPARE(events,
            QStringList({ policy, QStringLiteral("cancelled?"), reading,
                QStringLiteral("progress 4 100 32 32 Cloud byte range downloaded {cacheHit=false}"), policy, reading,
                QStringLiteral("progress 4 100 32 32 Cloud byte range served from cache {cacheHit=true}") }));
        QCOMPARE(loopback->requestCount(), 1);
    }

    void cancellationBeforeTheExchangeSendsNothing_data()
    {
        QTest::addColumn<QUrl>("url");
        QTest::addColumn<bool>("viaToken");
        // Made-up hosts: a request that went out would fail as a network error, not as cancelled.
        QTest::newRow("plain, token") << QUrl(QStringLiteral("https://example.test/data/a.tif?x=1&y=2")) << true;
        QTest::newRow("escaped space") << QUrl(QStringLiteral("https://example.test/a%20b.tif")) << false;
        QTest::newRow("unicode path") << QUrl(QStringLiteral("https://example.test/\u00e9t\u00e9.tif")) << false;
        QTest::newRow("international host") << QUrl(QStringLiteral("https://b\u00fccher.example/x.tif")) << true;
    }
    void cancellationBeforeTheExchangeSendsNothing()
    {
        QFETCH(QUrl, url);
        QFETCH(bool, viaToken);
        CloudRangeRequest request = rangeRequest(url, 0, 16);
        QStringList events;
        request.context.resourcePolicy = [&](const OperationResourceUsage &, const QString &, const QString &text) {
            events << text;
            return OperationResourcePolicyDecision();
        };
        request.context.progressSink = [&](const OperationProgress &) { events << QStringLiteral("progress"); };
        if (viaToken)
            request.context.cancellationToken.requestCancellation();
        else
            request.cancellationRequested = [] { return true; };
        QCOMPARE(failureOf([&] { reader->read(request); }), runtimeError(TransportMessages::requestCancelled));
        // The policy names the URL as QUrl::toString() gives it.
        QCOMPARE(events, QStringList({ url.toString() }));
        QCOMPARE(cache->statistics().misses, 0);
    }

    void refusingPolicyStopsTheRead()
    {
        CloudRangeRequest request = rangeRequest(loopback->url(objectPath), 0, 16);
        int progressReports = 0;
        request.context.progressSink = [&](const OperationProgress &) { ++progressReports; };
        request.context.resourcePolicy = [](const OperationResourceUsage &, const QString &, const QString &) {
            OperationResourcePolicyDecision decision;
            decision.allowed = false;
            decision.reason = QStringLiteral("quota of the test");
            return decision;
        };
        QString refusal;
        try {
            reader->read(request);
        } catch (const OperationRefusedError &error) {
            refusal = QString::fromUtf8(error.what());
        }
        QVERIFY2(refusal.contains(QStringLiteral("quota of the test")), qPrintable(refusal));
        // A policy that throws its own exception type gets it through unchanged.
        request.context.resourcePolicy = [](const OperationResourceUsage &, const QString &,
                                             const QString &) -> OperationResourcePolicyDecision { throw 42; };
        QVERIFY_THROWS_EXCEPTION(int, reader->read(request));
        QCOMPARE(progressReports, 0);
        QCOMPARE(loopback->requestCount(), 0);
        QCOMPARE(cache->statistics().misses, 0);
    }

    void concurrentReadsOfOneKeyShareTheFetch_data()
    {
        QTest::addColumn<bool>("firstFails");
        QTest::newRow("first succeeds") << false;
        QTest::newRow("first fails") << true;
    }
    void concurrentReadsOfOneKeyShareTheFetch()
    {
        QFETCH(bool, firstFails);
        // The first request is held by the server; the handler fails it on demand and serves every later one.
        std::atomic<int> answered { 0 };
        const QByteArray content = objectBytes();
        loopback->setHandler(objectPath, [&answered, firstFails, content](const LoopbackRequest &) {
            LoopbackResponse response;
            if (answered++ == 0 && firstFails) {
                response.status = 500;
                return response;
            }
            response.status = 206;
            response.headers.emplaceBack("Content-Range", "bytes 0-63/1000");
            response.body = content.left(64);
            return response;
        });
        RouteBehaviour hold;
        hold.stallBeforeHeaders = true;
        loopback->setBehaviour(objectPath, hold);

        const QUrl url = loopback->url(objectPath);
        QString failures[2];
        CloudRangeResponse responses[2];
        const auto readInto = [&](int index) {
            return QThread::create(
                [&, index] { failures[index] = failureOf([&] { responses[index] = reader->read(url, 0, 64); }); });
        };
        std::unique_ptr<QThread> first(readInto(0));
        std::unique_ptr<QThread> second(readInto(1));
        first->start();
        QVERIFY(loopback->waitForRequests(1));
        second->start();
        // The second reader has missed the cache and now waits for the first one's fetch.
        QTRY_COMPARE_WITH_TIMEOUT(cache->statistics().misses, 2, 10000);
        loopback->clearBehaviour(objectPath);
        loopback->releaseStalledRequests();
        QVERIFY(first->wait(20000));
        QVERIFY(second->wait(20000));

        QCOMPARE(failures[1], QString());
        QCOMPARE(responses[1].data, content.left(64));
        QCOMPARE(responses[1].fromCache, !firstFails);
        QCOMPARE(loopback->requestCount(), firstFails ? 2 : 1);
        if (firstFails)
            QVERIFY2(failures[0].startsWith(requestFailedPrefix(500)), qPrintable(failures[0]));
        else
            QCOMPARE(failures[0], QString());
    }

    void followsRedirects()
    {
        RouteBehaviour redirect;
        redirect.redirectStatus = 302;
        redirect.redirectLocation = loopback->url(objectPath).toEncoded();
        loopback->setBehaviour(QStringLiteral("/moved.bin"), redirect);
        const QUrl moved = loopback->url(QStringLiteral("/moved.bin"));
        QCOMPARE(reader->read(moved, 20, 30).data, objectBytes().mid(20, 30));
        const QList<LoopbackRequest> sent = loopback->requests();
        QCOMPARE(sent.size(), 2);
        QCOMPARE(sent.at(1).path, objectPath);
        QCOMPARE(sent.at(1).header("Range"), QByteArray("bytes=20-49"));

        const CloudResourceMetadata metadata = reader->inspect(moved, {});
        QCOMPARE(metadata.url, loopback->url(objectPath));
        QCOMPARE(metadata.contentLength, objectSize);
    }

    void httpsRedirectToHttpIsRefused()
    {
        // A throw-away certificate for 127.0.0.1, trusted by this process only while the test runs.
        QTemporaryDir keys;
        QVERIFY(keys.isValid());
        QProcess openssl;
        openssl.setWorkingDirectory(keys.path());
        openssl.start(QStringLiteral("openssl"),
            QStringLiteral("req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out certificate.pem -days 1 -subj "
                           "/CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1")
                .split(QLatin1Char(' ')));
        QVERIFY2(openssl.waitForFinished(60000) && openssl.exitCode() == 0,
            qPrintable(openssl.errorString() + QString::fromLocal8Bit(openssl.readAllStandardError())));
        const QByteArray certificatePem = readAll(keys.filePath(QStringLiteral("certificate.pem")));

        const QSslConfiguration originalConfiguration = QSslConfiguration::defaultConfiguration();
        QSslConfiguration trusting = originalConfiguration;
        trusting.addCaCertificate(QSslCertificate(certificatePem, QSsl::Pem));
        QSslConfiguration::setDefaultConfiguration(trusting);
        const auto restore = qScopeGuard([&] { QSslConfiguration::setDefaultConfiguration(originalConfiguration); });

        LoopbackHttpServer tls;
        tls.setTlsCredentials(certificatePem, readAll(keys.filePath(QStringLiteral("key.pem"))));
        QVERIFY2(tls.start(), qPrintable(tls.errorString()));
        tls.serveBytes(objectPath, objectBytes());
        RouteBehaviour downgrade;
        downgrade.redirectStatus = 302;
        downgrade.redirectLocation = loopback->url(objectPath).toEncoded();
        const QUrl downgrading = tls.url(QStringLiteral("/downgrade.bin"));
        tls.setBehaviour(downgrading.path(), downgrade);

        // HTTPS itself works, so the refusal below is the redirect's.
        QByteArray overTls;
        QCOMPARE(failureOf([&] { overTls = reader->read(tls.url(objectPath), 0, 16).data; }), QString());
        QCOMPARE(overTls, objectBytes().left(16));
        const QString readFailure = failureOf([&] { reader->read(downgrading, 0, 16); });
        QVERIFY2(readFailure.startsWith(requestFailedPrefix(302)), qPrintable(readFailure));
        QCOMPARE(loopback->requestCount(), 0);
        QCOMPARE(tls.requestCount(downgrading.path()), 1);
    }

    void inspectsWithHead_data()
    {
        QTest::addColumn<QString>("server");
        QTest::addColumn<RouteBehaviour>("behaviour");
        QTest::addColumn<bool>("acceptsRanges");
        QTest::newRow("nginx") << nginxServer << RouteBehaviour() << true;
        QTest::newRow("loopback") << loopbackServer << RouteBehaviour() << true;
        const auto acceptRanges = [](std::optional<QByteArray> value) {
            RouteBehaviour behaviour;
            behaviour.acceptRanges = value;
            return behaviour;
        };
        QTest::newRow("Accept-Ranges Bytes") << loopbackServer << acceptRanges(QByteArray("Bytes")) << true;
        QTest::newRow("Accept-Ranges list") << loopbackServer << acceptRanges(QByteArray("bytes, none")) << false;
        QTest::newRow("Accept-Ranges absent") << loopbackServer << acceptRanges(std::nullopt) << false;
    }
    void inspectsWithHead()
    {
        QFETCH(QString, server);
        QFETCH(RouteBehaviour, behaviour);
        QFETCH(bool, acceptsRanges);
        loopback->setBehaviour(tiffPath, behaviour);
        const QUrl url = urlOn(server, tiffPath);
        const CloudResourceMetadata metadata = reader->inspect(url, { { "X-Api-Key", "secret" } });
        QCOMPARE(metadata.url, url);
        QCOMPARE(metadata.statusCode, 200);
        QCOMPARE(metadata.contentLength, qint64(fixture(tiffPath).size()));
        QCOMPARE(metadata.contentType, QByteArray("image/tiff"));
        QVERIFY(!metadata.etag.isEmpty());
        QVERIFY(!metadata.lastModified.isEmpty());
        QCOMPARE(metadata.acceptsRanges, acceptsRanges);
        QCOMPARE(cache->statistics().networkRequests + cache->statistics().misses, 0);
        if (server == nginxServer) {
            QVERIFY(nginx->waitForAccessLogEntries(1));
            QCOMPARE(nginx->accessLog().first().method, QByteArray("HEAD"));
            return;
        }
        QCOMPARE(loopback->requestCount(), 1);
        const LoopbackRequest sent = loopback->requests().first();
        QCOMPARE(sent.method, QByteArray("HEAD"));
        QVERIFY(!sent.hasHeader("Range"));
        QCOMPARE(sent.header("User-Agent"), QByteArray("Norvane.Cloud/1"));
        QCOMPARE(sent.header("Accept-Encoding"), QByteArray("identity"));
        QCOMPARE(sent.header("X-Api-Key"), QByteArray("secret"));
    }

    void inspectReportsFailures()
    {
        QCOMPARE(failureOf([&] { reader->inspect(QUrl(QStringLiteral("no-scheme")), {}); }),
            invalidArgument(TransportMessages::urlInvalid));
        RouteBehaviour stall;
        stall.stallBeforeHeaders = true;
        loopback->setBehaviour(tiffPath, stall);
        reader->setTimeoutMilliseconds(200);
        QCOMPARE(failureOf([&] { reader->inspect(loopback->url(tiffPath), {}); }),
            runtimeError(TransportMessages::requestTimedOut));
    }

private:
    QUrl urlOn(const QString &server, const QString &path) const
    {
        if (server == nginxServer)
            return nginx->url(path);
        if (server == loopbackServer)
            return loopback->url(path);
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(LoopbackHttpServer::unusedPort()).arg(path));
    }

    // The Range headers of the GET requests the server has seen so far, in order.
    QList<QByteArray> rangesSeenBy(const QString &server) const
    {
        QList<QByteArray> ranges;
        if (server == loopbackServer) {
            for (const LoopbackRequest &request : loopback->requests()) {
                if (request.method == "GET")
                    ranges << request.header("Range");
            }
            return ranges;
        }
        // nginx logs a request after answering it; a marker request made last shows that the log has caught up.
        reader->inspect(nginx->url(QStringLiteral("/SOURCES.md?marker")), {});
        for (int count = 1; nginx->waitForAccessLogEntries(count); ++count) {
            if (nginx->accessLog().at(count - 1).uri.endsWith("?marker"))
                break;
        }
        for (const NginxAccessLogEntry &entry : nginx->accessLog()) {
            if (entry.method == "GET")
                ranges << entry.range;
        }
        return ranges;
    }

    std::unique_ptr<NginxServer> nginx;
    std::unique_ptr<LoopbackHttpServer> loopback;
    std::unique_ptr<QTemporaryDir> cacheDirectory;
    std::shared_ptr<CloudRangeCache> cache;
    std::unique_ptr<HttpRangeReader> reader;
};

QTEST_GUILESS_MAIN(TestHttpRangeReader)
#include "tst_httprangereader.moc"
