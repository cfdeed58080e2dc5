// The range transport: the operation context stand-in, the cache key, the reader's checks of its arguments and of
// the server's answers (scripted by the fault server; real ranges from nginx), both cache tiers and the entry file
// format, one fetch per key across threads, and credentials kept apart.

#include <norvanecloud/rangetransport.h>

#include "faultserver.h"
#include "nginxserver.h"

#include <QtTest>

#include <future>

// Records are built from their leading fields; the others keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;
using namespace Norvane::Core::Operations;

namespace {

// A runtime_error's message, "invalid_argument: " and an invalid_argument's message, or empty.
template <typename Call> QString failureOf(Call &&call)
{
    try {
        call();
    } catch (const std::exception &error) {
        const bool argument = dynamic_cast<const std::invalid_argument *>(&error);
        return QLatin1String(argument ? "invalid_argument: " : "") + QString::fromUtf8(error.what());
    }
    return {};
}

// Every counter and level; the three transfer counters last.
QList<qint64> counters(const CloudCacheStatistics &statistics)
{
    return { statistics.memoryHits, statistics.diskHits, statistics.misses, statistics.writes, statistics.evictions,
        statistics.memoryBytes, statistics.diskBytes, statistics.networkRequests, statistics.networkBytes,
        statistics.cacheBytesServed };
}

// Every field of a response, for one comparison (null and empty arrays look alike here).
QString describe(const CloudRangeResponse &response)
{
    QString text;
    QDebug(&text) << response.data << response.offset << response.totalSize << response.statusCode << response.etag
                  << response.lastModified << response.contentType << response.acceptsRanges << response.fromCache;
    return text;
}

// An expected failure ending in ": " is a prefix: the network library's own error text follows it. "|" separates
// outcomes that are all right.
bool matches(const QString &failure, const QString &expected)
{
    for (const QString &outcome : expected.split(QLatin1Char('|'))) {
        if (outcome.endsWith(QLatin1String(": ")) ? failure.startsWith(outcome) && failure.size() > outcome.size()
                                                  : failure == outcome)
            return true;
    }
    return false;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Flushed first: writing the buffered bytes afterwards would set the modification time again.
bool writeFile(const QString &path, const QByteArray &bytes, const QDateTime &modified = {})
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.flush()
        && (modified.isNull() || file.setFileTime(modified, QFileDevice::FileModificationTime));
}

// The entry file name of the key "k": its SHA-256 digest, from sha256sum.
const QString entryFileOfK = QStringLiteral("8254c329a92850f6d539dd376f4816ee2764517da5e0235514af433164480d7a.nvc");

const QByteArray object
    = readFile(QStringLiteral(NORVANE_TEST_DATA_DIR "/parquet/geoparquet-v1.1.0-example-countries.parquet")).left(1000);

std::shared_ptr<CloudRangeCache> makeCache(
    const QString &folder, qint64 memoryBytes = 1 << 20, qint64 diskBytes = 1 << 20, qint64 maximumAgeSeconds = 3600)
{
    return std::make_shared<CloudRangeCache>(
        CloudCacheOptions { folder, memoryBytes, diskBytes, maximumAgeSeconds, true, true });
}

// lastModified null and contentType empty: the entry file tells them apart.
CloudRangeResponse diskResponse(const QByteArray &data)
{
    return { data, 5, 1000, 206, "\"e\"", {}, QByteArray(""), true };
}

// The entry file of diskResponse(data), field by field.
QByteArray entryBytes(qint64 storedAt, const QByteArray &data)
{
    QByteArray numbers(12, '\0');
    qToBigEndian(storedAt, numbers.data());
    qToBigEndian(quint32(data.size()), numbers.data() + 8);
    return "NVCH" + QByteArray::fromHex("00000001") + numbers + data
        + QByteArray::fromHex("0000000000000005 00000000000003e8 000000ce 00000003226522 ffffffff 00000000 01");
}

// One read of the fault server and, when it gets that far, the server's answer and how the exchange ends.
struct Read {
    qint64 offset;
    qint64 length;
    const char *failure;
    int status; // 0: nothing listens on the port
    const char *contentRange; // null: none
    int bodyBytes;
    const char *then; // "cut": close after 4 body bytes; "stall", "cancel": silence after them; "cancelled": at once
    qint64 totalSize;
    const char *url; // instead of the server's
};

} // namespace

Q_DECLARE_METATYPE(Read)
Q_DECLARE_METATYPE(CloudRangeRequest)

class TestTransport : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> temporary;
    std::shared_ptr<CloudRangeCache> cache;
    std::unique_ptr<HttpRangeReader> reader;
    NginxServer nginx { QStringLiteral(NORVANE_TEST_DATA_DIR) };

    QString dir(const QString &name = {}) const { return QDir(temporary->path()).filePath(name); }

private slots:
    void initTestCase() { QVERIFY2(nginx.start(), qPrintable(nginx.errorString())); }
    void init()
    {
        temporary = std::make_unique<QTemporaryDir>();
        cache = makeCache(dir(QStringLiteral("reader")));
        reader = std::make_unique<HttpRangeReader>(cache);
    }

    void operationContext()
    {
        OperationContext source, target;
        target.cancellationToken = source.cancellationToken;
        QVERIFY(!target.isCancellationRequested());
        std::async(std::launch::async, [&source] { source.cancellationToken.requestCancellation(); }).get();
        QVERIFY(target.isCancellationRequested() && !OperationContext().isCancellationRequested());
        target.resourcePolicy = [](auto &&...) { return OperationResourcePolicyDecision { false, "over budget" }; };
        QCOMPARE(failureOf([&] { target.enforceResourceUsage({ 1 }, {}, {}); }), QStringLiteral("over budget"));
    }

    void cacheKey_data()
    {
        QTest::addColumn<CloudRangeRequest>("request");
        QTest::addColumn<QString>("key");
        // The digests of the texts in the comments, from sha256sum.
        const QUrl plain(QStringLiteral("http://example.test/a.tif"));
        const QString plainKey = QStringLiteral("7bdd83f52dba2f09e423fe509f7654d6efe85bb48dc30204ea084216554aa481");
        // http://example.test/a.tif\n0:16
        QTest::newRow("plain") << CloudRangeRequest { plain, 0, 16 } << plainKey;
        QTest::newRow("cache use and cancellation left out")
            << CloudRangeRequest { plain, 0, 16, {}, false, [] { return true; } } << plainKey;
        // https://example.test/%C3%A9t%C3%A9%20a.tif?sig=a+b&x=1\n12345678901:16
        QTest::newRow("fully encoded URL") << CloudRangeRequest {
            QUrl(QStringLiteral("https://example.test/\u00e9t\u00e9 a.tif?sig=a+b&x=1")), 12345678901, 16
        } << "3a20ab86e3f71bda4becf118e1566932da31b0035a2832151ad7244ecec90b16";
        // http://example.test/a.tif\n0:16\naccept:2\nx-b:3\nx-a:1
        QTest::newRow("names in byte order, lower-cased")
            << CloudRangeRequest { plain, 0, 16, { { "x-a", "1" }, { "Accept", "2" }, { "X-B", "3" } } }
            << "60d43f8807e40ee689307e28c4c2be1379814dea7a692f24ba81f8c0d3ae13de";
        // http://example.test/a.tif\n0:16\nx-key:1\nx-key:2
        QTest::newRow("names differing in case")
            << CloudRangeRequest { plain, 0, 16, { { "x-key", "2" }, { "X-Key", "1" } } }
            << "f209c703b45136aaafed6709429a0ba203bc75e517382e7b7c1cf1307a8bf66a";
    }
    void cacheKey()
    {
        QFETCH(CloudRangeRequest, request);
        QFETCH(QString, key);
        QCOMPARE(HttpRangeReader::cacheKey(request), key);
    }

    void zeroTimeoutIsRefused()
    {
        reader->setTimeoutMilliseconds(1234);
        QCOMPARE(failureOf([&] { reader->setTimeoutMilliseconds(0); }),
            QStringLiteral("invalid_argument: HTTP timeout must be positive"));
        QCOMPARE(reader->timeoutMilliseconds(), 1234);
    }

    void read_data()
    {
        QTest::addColumn<Read>("row");
        const qint64 largest = std::numeric_limits<qint64>::max();
        const char *url = "invalid_argument: Cloud URL is invalid";
        const char *mismatch = "HTTP Content-Range does not match the requested byte range";
        const char *first100 = "bytes 0-99/1000";
        QTest::newRow("default request") << Read { -1, 0, url, 0, nullptr, 0, "", 0, "" };
        QTest::newRow("no scheme") << Read { 0, 16, url, 0, nullptr, 0, "", 0, "o.tif" };
        QTest::newRow("negative offset") << Read { -1, 0, "invalid_argument: Cloud range offset cannot be negative" };
        QTest::newRow("zero length") << Read { 0, 0, "invalid_argument: Cloud range length must be positive" };
        QTest::newRow("overflow by one") << Read { 1, largest, "invalid_argument: Cloud byte range overflows" };
        QTest::newRow("largest range") << Read { 0, largest, "HTTP request failed (0): " };
        QTest::newRow("cancelled before") << Read { 0, 100, "HTTP request cancelled", 0, nullptr, 0, "cancelled" };
        QTest::newRow("206 as asked") << Read { 10, 100, "", 206, "bytes 10-109/1000", 100, "", 1000 };
        QTest::newRow("206, unknown total") << Read { 0, 100, "", 206, "bytes 0-99/*", 100, "", -1 };
        QTest::newRow("206, other range") << Read { 0, 100, mismatch, 206, "bytes 1-100/1000", 100 };
        QTest::newRow("206, no Content-Range") << Read { 0, 100, mismatch, 206, nullptr, 100 };
        QTest::newRow("200 at offset 0, trimmed") << Read { 0, 100, "", 200, nullptr, 1000, "", 1000 };
        QTest::newRow("200 at offset 10")
            << Read { 10, 100, "HTTP server ignored the byte-range request", 200, nullptr, 1000 };
        QTest::newRow("short body") << Read { 0, 100, "HTTP range returned 60 bytes; expected 100", 206, first100, 60 };
        QTest::newRow("status 204") << Read { 0, 100, "Unexpected HTTP status: 204", 204, nullptr, 0 };
        QTest::newRow("status 404") << Read { 0, 100, "HTTP request failed (404): ", 404, nullptr, 10 };
        // The network library reports a cut either as an error or as a short body; both must fail the read.
        QTest::newRow("cut mid-body") << Read { 0, 100,
            "HTTP request failed (206): |HTTP range returned 4 bytes; expected 100", 206, first100, 100, "cut" };
        QTest::newRow("stall mid-body") << Read { 0, 100, "HTTP request timed out", 206, first100, 100, "stall" };
        QTest::newRow("stall, cancelled") << Read { 0, 100, "HTTP request cancelled", 206, first100, 100, "cancel" };
        QTest::newRow("refused connection") << Read { 0, 100, "HTTP request failed (0): " };
    }
    void read()
    {
        QFETCH(Read, row);
        const QByteArray then = row.then;
        CloudRangeRequest request { {}, row.offset, row.length, { { "user-agent", "Host/2" } } };
        FaultServer server([&](const FaultRequest &) {
            const QByteArray body = object.mid(row.status == 200 ? 0 : row.offset, row.bodyBytes);
            // Accept-Ranges only beside a 200: a 206 shows range support by itself.
            QList<QPair<QByteArray, QByteArray>> headers { { row.status == 200 ? "Accept-Ranges" : "X-Other",
                "BYTES" } };
            if (row.contentRange)
                headers.append(qMakePair(QByteArray("Content-Range"), QByteArray(row.contentRange)));
            FaultReply reply = httpReply(row.status, headers, body);
            reply.cutAfterBytes = then.isEmpty() ? -1 : reply.bytes.size() - body.size() + 4;
            reply.stall = then == "stall" || then == "cancel";
            if (then == "cancel") // from this thread, while the reader waits on its own
                request.context.cancellationToken.requestCancellation();
            return reply;
        });
        const QUrl refused(QStringLiteral("http://127.0.0.1:%1/o").arg(FaultServer::unusedPort()));
        request.url = row.url ? QUrl(QString::fromLatin1(row.url)) : row.status ? server.url("/o") : refused;
        if (then == "cancelled")
            request.cancellationRequested = [] { return true; };
        int policyCalls = 0, progressCalls = 0;
        request.context.resourcePolicy = [&](auto &&...) { return ++policyCalls, OperationResourcePolicyDecision(); };
        request.context.progressSink = [&](auto &&) { ++progressCalls; };
        reader->setTimeoutMilliseconds(then == "stall" ? 300 : 30000);
        CloudRangeResponse response;
        const QString failure = failureOf([&] { response = reader->read(request); });
        QVERIFY2(matches(failure, QString::fromLatin1(row.failure)), qPrintable(failure));
        // The policy is asked once the arguments pass; progress is reported once the cancellation test passes.
        const bool checked = !failure.startsWith(QLatin1String("invalid_argument: "));
        QCOMPARE(QList<int>({ policyCalls, progressCalls }),
            QList<int>({ checked, checked && then != "cancelled" ? 1 + failure.isEmpty() : 0 }));
        // A transfer is counted once the exchange has brought an answer, even one that fails the checks.
        const bool answered = row.status && !failure.startsWith(QLatin1String("HTTP request "));
        const CloudCacheStatistics statistics = cache->statistics();
        QCOMPARE(QList<qint64>({ statistics.networkRequests, statistics.networkBytes, statistics.writes }),
            QList<qint64>({ answered, answered ? (then.isEmpty() ? row.bodyBytes : 4) : 0, failure.isEmpty() }));
        for (const FaultRequest &sent : server.requests()) {
            QCOMPARE(sent.header("Range") + ' ' + sent.header("Accept-Encoding") + ' ' + sent.header("User-Agent"),
                QStringLiteral("bytes=%1-%2 identity Host/2").arg(row.offset).arg(row.offset + 99).toLatin1());
        }
        const CloudRangeResponse expected { object.mid(row.offset, 100), row.offset, row.totalSize, row.status, {}, {},
            {}, true };
        QCOMPARE(describe(response), describe(failure.isEmpty() ? expected : CloudRangeResponse()));
    }

    void repeatedReadComesFromTheCache()
    {
        FaultServer server([](const FaultRequest &request) { return objectReply(request, object); });
        CloudRangeRequest request { server.url("/o"), 10, 32, { { "Authorization", "Bearer a" } } };
        QStringList events;
        request.context.resourcePolicy = [&](auto usage, auto component, auto resource) {
            QDebug(&events.emplaceBack()).noquote() << usage.bytes << component << resource;
            return OperationResourcePolicyDecision();
        };
        request.context.progressSink = [&](auto progress) {
            QDebug(&events.emplaceBack()).noquote() << progress.state << progress.percent << progress.completed
                                                    << progress.total << progress.message << progress.details;
        };
        QVERIFY(!reader->read(request).fromCache);
        const CloudRangeResponse again = reader->read(request);
        QVERIFY(again.fromCache && again.data == object.mid(10, 32));
        const QString policy = QStringLiteral("32 Norvane.Cloud.HttpRangeReader ") + request.url.toString();
        const QString reading = QStringLiteral("2 0 0 32 Reading cloud byte range QMap((url, QVariant(QString, %1)))")
                                    .arg(request.url.toString());
        // Each line as QDebug writes it, without its last space.
        QCOMPARE(events.replaceInStrings(QRegularExpression(QStringLiteral(" $")), QString()),
            QStringList({ policy, reading,
                "4 100 32 32 Cloud byte range downloaded QMap((cacheHit, QVariant(bool, false)))", policy, reading,
                "4 100 32 32 Cloud byte range served from cache QMap((cacheHit, QVariant(bool, true)))" }));
        request.useCache = false;
        QVERIFY(!reader->read(request).fromCache);
        // Other credentials never get the bytes cached for the first.
        request = CloudRangeRequest { request.url, 10, 32, { { "Authorization", "Bearer b" } } };
        QVERIFY(!reader->read(request).fromCache);
        QCOMPARE(server.requestCount(), 3);
        QCOMPARE(counters(cache->statistics()), QList<qint64>({ 1, 0, 2, 2, 0, 64, 170, 3, 96, 32 }));
    }

    void inspect_data()
    {
        QTest::addColumn<QByteArray>("acceptRanges");
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<bool>("acceptsRanges");
        QTest::newRow("Bytes") << QByteArray("Bytes") << QByteArray("/o") << true;
        QTest::newRow("two units") << QByteArray("bytes, none") << QByteArray("/o") << false;
        QTest::newRow("redirected") << QByteArray("bytes") << QByteArray("/moved") << true;
    }
    void inspect()
    {
        QFETCH(QByteArray, acceptRanges);
        QFETCH(QByteArray, path);
        QFETCH(bool, acceptsRanges);
        FaultServer server([&](const FaultRequest &request) {
            const QByteArray location = request.target == "/moved" ? "/o" : "";
            return httpReply(location.isEmpty() ? 200 : 302,
                { { "Accept-Ranges", acceptRanges }, { "Content-Length", "1000" }, { "Location", location } }, {});
        });
        const CloudResourceMetadata metadata = reader->inspect(server.url(path), { { "X-Api-Key", "k" } });
        QCOMPARE(metadata.url, server.url("/o"));
        QCOMPARE(QList<qint64>({ metadata.statusCode, metadata.contentLength, metadata.acceptsRanges }),
            QList<qint64>({ 200, 1000, acceptsRanges }));
        const FaultRequest sent = server.requests().constLast();
        QCOMPARE(sent.method + ' ' + sent.header("User-Agent") + ' ' + sent.header("X-Api-Key") + sent.header("Range"),
            QByteArray("HEAD Norvane.Cloud/1 k"));
    }

    void cacheSteps_data()
    {
        QTest::addColumn<QList<qint64>>("limits"); // memory, disk
        // A40: put 40 bytes as A; A: get A; -A: remove A; !: clear; ~: a new cache object on the folder (~200: with
        // that disk limit); ^: every entry file an hour older; x: the folder removed; #: the folder replaced by a file.
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QString>("gets");
        // memory hits, disk hits, misses, writes, evictions, memory bytes, disk bytes; an entry of n bytes is n + 56.
        QTest::addColumn<QList<qint64>>("expected");
        const auto row
            = [](const char *name, QList<qint64> limits, const char *steps, const char *gets, QList<qint64> expected) {
                  QTest::newRow(name) << limits << QString::fromLatin1(steps) << QString::fromLatin1(gets) << expected;
              };
        const qint64 disk = 1 << 20;
        row("a hit protects from eviction", { 100, 0 }, "A40 B40 A C40 B A", "A+ B- A+", { 2, 0, 1, 3, 1, 80, 0 });
        row("an entry above the limit empties the tier", { 100, 0 }, "A40 B40 X150 A X", "A- X-",
            { 0, 0, 2, 3, 3, 0, 0 });
        row("zero limits store nothing", { 0, 0 }, "A10 A", "A-", { 0, 0, 1, 0, 0, 0, 0 });
        row("empty data is ignored", { 100, disk }, "A0 A", "A-", { 0, 0, 1, 0, 0, 0, 0 });
        row("a put replaces", { 100, disk }, "A40 A30 A", "A+", { 1, 0, 0, 2, 0, 30, 86 });
        row("a new cache object serves from disk, then memory", { 100, disk }, "A40 ~ A A", "A+ A+",
            { 1, 1, 0, 0, 0, 40, 96 });
        row("remove drops both tiers", { 100, disk }, "A40 B20 -A -Z A", "A-", { 0, 0, 1, 2, 0, 20, 76 });
        row("clear empties both tiers", { 100, disk }, "A10 B20 A ! B", "A+ B-", { 1, 0, 1, 2, 0, 0, 0 });
        row("trim on put, oldest first", { 0, 298 }, "A40 ^ B40 ^ C40 D40 A B C D", "A- B+ C+ D+",
            { 0, 3, 1, 4, 1, 0, 288 });
        row("a served entry is recent", { 0, 298 }, "A40 ^ B40 ^ C40 A D40 B", "A+ B-", { 0, 1, 1, 4, 1, 0, 288 });
        row("trim at construction", { 0, disk }, "A40 ^ B40 ^ C40 ~200 A B C", "A- B+ C+", { 0, 2, 1, 0, 1, 0, 192 });
        row("folder removed", { 0, disk }, "A40 x A B40 B", "A- B+", { 0, 1, 1, 2, 0, 0, 192 });
        row("folder replaced by a file", { 0, disk }, "A40 # A B40 B", "A- B-", { 0, 0, 2, 1, 0, 0, 96 });
    }
    void cacheSteps()
    {
        QFETCH(QList<qint64>, limits);
        QFETCH(QString, steps);
        QFETCH(QString, gets);
        QFETCH(QList<qint64>, expected);
        const QString folder = dir(QStringLiteral("tiers"));
        auto tiers = makeCache(folder, limits[0], limits[1]);
        // Older than every entry, but not an entry file: never counted nor trimmed.
        QVERIFY(writeFile(folder + QStringLiteral("/keep.me"), "x", QDateTime::currentDateTime().addDays(-9)));
        QStringList seen;
        CloudRangeResponse response;
        for (const QString &step : steps.split(u' ')) {
            const QChar key = step.at(0);
            if (key == u'~')
                tiers = makeCache(folder, limits[0], step.size() > 1 ? step.mid(1).toLongLong() : limits[1]);
            else if (key == u'!')
                tiers->clear();
            else if (key == u'-')
                tiers->remove(step.mid(1));
            else if (key == u'x' || key == u'#')
                QVERIFY(QDir(folder).removeRecursively() && (key == u'x' || writeFile(folder, "#")));
            else if (key == u'^') {
                for (const QFileInfo &entry : QDir(folder).entryInfoList({ QStringLiteral("*.nvc") }))
                    QVERIFY(
                        writeFile(entry.filePath(), readFile(entry.filePath()), entry.lastModified().addSecs(-3600)));
            } else if (step.size() > 1)
                tiers->put(key, diskResponse(QByteArray(step.mid(1).toInt(), 'c')));
            else
                seen << step + (tiers->get(key, response) && response.fromCache ? u'+' : u'-');
        }
        QCOMPARE(seen.join(u' '), gets);
        QCOMPARE(counters(tiers->statistics()).mid(0, 7), expected);
    }

    void negativeLimitsAreRefused()
    {
        for (const auto &limits : { QList<qint64> { -1, 0, 0 }, { 0, -1, 0 }, { 0, 0, -1 } }) {
            QCOMPARE(failureOf([&] { makeCache(dir(QStringLiteral("never")), limits[0], limits[1], limits[2]); }),
                QStringLiteral("invalid_argument: Cloud cache limits cannot be negative"));
        }
        QVERIFY(!QFileInfo::exists(dir(QStringLiteral("never"))));
    }

    void entryFileLayout()
    {
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        makeCache(dir(), 0)->put(QStringLiteral("k"), diskResponse("abc"));
        const QByteArray file = readFile(dir(entryFileOfK));
        const qint64 storedAt = qFromBigEndian<qint64>(file.constData() + 8);
        QVERIFY(storedAt >= before && storedAt <= QDateTime::currentMSecsSinceEpoch());
        QCOMPARE(file, entryBytes(storedAt, "abc"));
    }

    void entryFileServedOrDeleted_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<qint64>("maximumAgeSeconds");
        QTest::addColumn<bool>("served");
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        const QByteArray good = entryBytes(now, QByteArray(40, 'd'));
        QTest::newRow("good") << good << qint64(3600) << true;
        QTest::newRow("age limit 0, stored long ago") << entryBytes(1, "d") << qint64(0) << true;
        QTest::newRow("expired") << entryBytes(now - 3601000, "d") << qint64(3600) << false;
        QTest::newRow("truncated") << good.left(good.size() - 1) << qint64(3600) << false;
        QTest::newRow("garbage") << QByteArray(good.size(), 'g') << qint64(3600) << false;
        QTest::newRow("wrong version") << QByteArray(good).replace(7, 1, "\2") << qint64(3600) << false;
        QTest::newRow("zero-filled after the header")
            << good.left(16) + QByteArray(good.size() - 16, '\0') << qint64(3600) << false;
    }
    void entryFileServedOrDeleted()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(qint64, maximumAgeSeconds);
        QFETCH(bool, served);
        QVERIFY(writeFile(dir(entryFileOfK), bytes));
        const auto disk = makeCache(dir(), 1000, 1 << 20, maximumAgeSeconds);
        CloudRangeResponse response;
        QCOMPARE(disk->get(QStringLiteral("k"), response), served);
        QCOMPARE(QFileInfo::exists(dir(entryFileOfK)), served);
        QCOMPARE(counters(disk->statistics()).mid(0, 7),
            QList<qint64>({ 0, served, !served, 0, 0, served ? bytes.size() - 56 : 0, served ? bytes.size() : 0 }));
        CloudRangeResponse stored = diskResponse(bytes.mid(20, bytes.size() - 56));
        stored.fromCache = true;
        QCOMPARE(describe(response), describe(served ? stored : CloudRangeResponse()));
    }

    void defaultFolderIsPrivate()
    {
        const QByteArray saved = qgetenv("XDG_CACHE_HOME");
        const auto restore = qScopeGuard([saved] { qputenv("XDG_CACHE_HOME", saved); });
        qputenv("XDG_CACHE_HOME", QFile::encodeName(dir()));
        CloudRangeCache defaults;
        const QString folder = defaults.options().directory;
        QCOMPARE(folder, dir(QStringLiteral("tst_transport/Norvane/Cloud")));
        const QString entry = QDir(folder).filePath(entryFileOfK);
        QVERIFY(
            writeFile(entry, "someone else's") && QFile::setPermissions(entry, QFile::ReadOwner | QFile::ReadOther));
        defaults.put(QStringLiteral("k"), diskResponse("secret"));
        // Owner, group and other in the flags' hexadecimal digits (0x7000 is 0700); a replaced entry does not keep
        // the permissions of its predecessor.
        QCOMPARE(QList<int>({ int(QFile::permissions(dir(QStringLiteral("tst_transport")))) & 0x7077,
                     int(QFile::permissions(folder)) & 0x7077, int(QFile::permissions(entry)) & 0x7077 }),
            QList<int>({ 0x7000, 0x7000, 0x6000 }));
    }

    void threadsShareOneFetchPerKey()
    {
        const QString path = QStringLiteral("/cogs/cog-le-jpeg-1024-64tiles.tif");
        const QByteArray file = readFile(QStringLiteral(NORVANE_TEST_DATA_DIR) + path);
        // Each thread counts its reads that failed or returned wrong bytes.
        std::vector<std::future<int>> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.push_back(std::async(std::launch::async, [&, thread] {
                int wrong = 0;
                for (qint64 index = 0, offset = 0; index < 50; offset = (++index + thread) % 8 * 4096) {
                    QByteArray data;
                    const QString failure = failureOf([&] { data = reader->read(nginx.url(path), offset, 3000).data; });
                    wrong += !failure.isEmpty() || data != file.mid(offset, 3000);
                }
                return wrong;
            }));
        }
        for (std::future<int> &thread : threads)
            QCOMPARE(thread.get(), 0);
        QCOMPARE(cache->statistics().networkRequests, 8);
        QVERIFY(nginx.waitForAccessLogEntries(8));
        QCOMPARE(nginx.accessLog().size(), 8);
    }

    void waitingReaderFetchesWhenTheFirstFails()
    {
        // The first answer, a failure, waits for the gate, so the second reader surely finds the key being fetched.
        QSemaphore gate;
        int answered = 0;
        FaultServer server([&](const FaultRequest &request) {
            return ++answered > 1 ? objectReply(request, object) : (gate.acquire(), httpReply(500, {}, {}));
        });
        const auto read = [&] {
            QByteArray data;
            const QString failure = failureOf([&] { data = reader->read(server.url("/o"), 0, 64).data; });
            return failure.isEmpty() && data != object.left(64) ? QStringLiteral("wrong bytes") : failure;
        };
        std::future<QString> reads[2];
        const auto openGate = qScopeGuard([&gate] { gate.release(); });
        reads[0] = std::async(std::launch::async, read);
        QTRY_COMPARE(server.requestCount(), 1);
        reads[1] = std::async(std::launch::async, read);
        // The second read has missed and waits for the first one's fetch.
        QTRY_COMPARE(cache->statistics().misses, 2);
        gate.release();
        const QString first = reads[0].get();
        QVERIFY2(matches(first, QStringLiteral("HTTP request failed (500): ")), qPrintable(first));
        QCOMPARE(reads[1].get(), QString());
        QCOMPARE(server.requestCount(), 2);
    }
};

QTEST_GUILESS_MAIN(TestTransport)

#include "tst_transport.moc"
