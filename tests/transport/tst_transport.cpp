// The range transport: the cache key, the reader's checks of its arguments and of the server's answers (scripted by
// the fault server; real ranges from nginx), progress and policy reports, both cache tiers and the entry file format,
// and one fetch per key across threads. Credentials in keys, clearing and the time-out setting are pinned through the
// flat interface's tests; inspect through the format sources' tests.

#include <norvanecloud/rangetransport.h>

#include "faultserver.h"
#include "nginxserver.h"

#include <QNetworkProxy>
#include <QtTest>

#include <future>

#include <sys/stat.h>
#include <unistd.h>

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

const QString cog = QStringLiteral("/cogs/cog-le-jpeg-1024-64tiles.tif");
const QByteArray object = readFile(QStringLiteral(NORVANE_TEST_DATA_DIR) + cog);

// The entry file name of the key "k": its SHA-256 digest, from sha256sum.
const QString entryFileOfK = QStringLiteral("8254c329a92850f6d539dd376f4816ee2764517da5e0235514af433164480d7a.nvc");

// lastModified null and contentType empty: the entry file tells them apart.
const auto diskResponse = [](const QByteArray &data, bool fromCache = false) {
    return CloudRangeResponse { data, 5, 1000, 206, "\"e\"", {}, QByteArray(""), true, fromCache };
};

// The entry file of diskResponse("abc"), field by field.
QByteArray entryBytes(qint64 storedAt)
{
    return "NVCH"
        + QByteArray::fromHex("00000001" + QByteArray::number(storedAt, 16).rightJustified(16, '0')
            + "00000003 616263 0000000000000005 00000000000003e8 000000ce 00000003226522 ffffffff 00000000 01");
}

// One read of the fault server and, when it gets that far, the server's answer and how the exchange ends.
// failure: a pattern for the whole message. status 0: nothing listens on the port; -1: a URL without a scheme.
// twist "cut": close after 4 body bytes; "stall", "cancel": silence after them; "cancelled": cancelled at once.
struct Read {
    qint64 offset, length;
    const char *failure;
    int status, bodyBytes;
    const char *contentRange, *twist;
    qint64 totalSize;
};

} // namespace

Q_DECLARE_METATYPE(Read)

#define STEPS(name, memory, disk, steps, gets, ...)                                                                    \
    QTest::newRow(name) << QList<qint64>({ memory, disk }) << QStringLiteral(steps) << QStringLiteral(gets)            \
                        << QList<qint64>({ __VA_ARGS__ })

class TestTransport : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> temporary;
    std::shared_ptr<CloudRangeCache> cache;
    std::unique_ptr<HttpRangeReader> reader;
    NginxServer nginx { QStringLiteral(NORVANE_TEST_DATA_DIR) };

    QString dir(const QString &name = {}) const { return QDir(temporary->path()).filePath(name); }
    static auto makeCache(const QString &folder, qint64 memory = 1 << 20, qint64 disk = 1 << 20, qint64 age = 3600)
    {
        return std::make_shared<CloudRangeCache>(CloudCacheOptions { folder, memory, disk, age, true, true });
    }

private slots:
    void initTestCase() { QVERIFY2(nginx.start(), qPrintable(nginx.errorString())); }
    void init()
    {
        temporary = std::make_unique<QTemporaryDir>();
        cache = makeCache(dir(QStringLiteral("reader")));
        reader = std::make_unique<HttpRangeReader>(cache);
    }

    void cacheKey()
    {
        // The digest of "https://example.test/%C3%A9t%C3%A9%20a.tif?sig=a+b&x=1\n12345678901:16\naccept:2\nx-key:1\n
        // x-key:2", from sha256sum: header names in byte order, then lower-cased; cache use and cancellation left out.
        QCOMPARE(HttpRangeReader::cacheKey(
                     { QUrl(QStringLiteral("https://example.test/\u00e9t\u00e9 a.tif?sig=a+b&x=1")), 12345678901, 16,
                         { { "x-key", "2" }, { "Accept", "2" }, { "X-Key", "1" } }, false, [] { return true; } }),
            QStringLiteral("e33ab5da3d439b8d68a80d648982eaa21e720841cb9cb00322ad5e0afb204e6f"));
    }

    void negativeCacheLimitsAreRefused()
    {
        for (const auto &limits : { QList<qint64> { -1, 0, 0 }, { 0, -1, 0 }, { 0, 0, -1 } })
            QCOMPARE(failureOf([&] { makeCache(dir(QStringLiteral("never")), limits[0], limits[1], limits[2]); }),
                QStringLiteral("invalid_argument: Cloud cache limits cannot be negative"));
        QVERIFY(!QFileInfo::exists(dir(QStringLiteral("never"))));
    }

    // Only http and https leave the reader, and only headers that cannot end their line early: read and inspect
    // refuse anything else before the cache or the server sees it. url: a path on the fault server, or a whole URL.
    void unsendableRequestsAreRefused_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QString>("expected");
        const QString scheme = QStringLiteral("Cloud URL must use HTTP or HTTPS");
        QTest::newRow("file") << "file:///etc/hostname" << QByteArray("X") << QByteArray() << scheme;
        QTest::newRow("ftp") << "ftp://127.0.0.1/o" << QByteArray("X") << QByteArray() << scheme;
        QTest::newRow("data") << "data:,abc" << QByteArray("X") << QByteArray() << scheme;
        QTest::newRow("name empty") << "/o" << QByteArray() << QByteArray("1") << "HTTP header name is empty";
        const QString name = QStringLiteral("HTTP header name contains CR, LF or NUL");
        QTest::newRow("name, CR LF") << "/o" << QByteArray("X\r\nY") << QByteArray("1") << name;
        QTest::newRow("name, NUL") << "/o" << QByteArray("X\0Y", 3) << QByteArray("1") << name;
        const QString value = QStringLiteral("HTTP header value contains CR, LF or NUL");
        QTest::newRow("value, CR") << "/o" << QByteArray("X") << QByteArray("1\rY: 2") << value;
        QTest::newRow("value, LF") << "/o" << QByteArray("X") << QByteArray("1\nY: 2") << value;
        QTest::newRow("value, NUL") << "/o" << QByteArray("X") << QByteArray("1\0", 2) << value;
    }
    void unsendableRequestsAreRefused()
    {
        QFETCH(QString, url);
        QFETCH(QByteArray, name);
        QFETCH(QByteArray, value);
        FaultServer server([](const FaultRequest &request) { return objectReply(request, object); });
        const QUrl target = url.startsWith(u'/') ? server.url(url.toLatin1()) : QUrl(url);
        const QHash<QByteArray, QByteArray> headers { { name, value } };
        const QString read = failureOf([&] { reader->read({ target, 0, 16, headers }); });
        const QString inspect = failureOf([&] { reader->inspect(target, headers); });
        QFETCH(QString, expected);
        QCOMPARE(QStringList({ read, inspect }), QStringList(2, "invalid_argument: " + expected));
        QCOMPARE(counters(cache->statistics()) << server.requestCount(), QList<qint64>(11, 0));
    }

    void read_data()
    {
        QTest::addColumn<Read>("row");
        const qint64 largest = std::numeric_limits<qint64>::max();
        const char *mismatch = "HTTP Content-Range does not match the requested byte range";
        const char *first100 = "bytes 0-99/1000";
        QTest::newRow("URL checked first") << Read { -1, 0, "invalid_argument: Cloud URL is invalid", -1 };
        QTest::newRow("negative offset") << Read { -1, 0, "invalid_argument: Cloud range offset cannot be negative" };
        QTest::newRow("zero length") << Read { 0, 0, "invalid_argument: Cloud range length must be positive" };
        QTest::newRow("overflow by one") << Read { 1, largest, "invalid_argument: Cloud byte range overflows" };
        QTest::newRow("largest range, refused") << Read { 0, largest, "HTTP request failed \\(0\\): .+" };
        QTest::newRow("cancelled before") << Read { 0, 100, "HTTP request cancelled", 0, 0, nullptr, "cancelled" };
        QTest::newRow("206 as asked") << Read { 10, 100, "", 206, 100, "bytes 10-109/1000", "", 1000 };
        QTest::newRow("206, unknown total") << Read { 0, 100, "", 206, 100, "bytes 0-99/*", "", -1 };
        QTest::newRow("206, other range") << Read { 0, 100, mismatch, 206, 100, "bytes 1-100/1000" };
        QTest::newRow("206, other last byte") << Read { 0, 100, mismatch, 206, 100, "bytes 0-100/1000" };
        QTest::newRow("200 at offset 0, trimmed") << Read { 0, 100, "", 200, 1000, nullptr, "", 1000 };
        QTest::newRow("200 at offset 10") << Read { 10, 100, "HTTP server ignored the byte-range request", 200, 1000 };
        QTest::newRow("short body") << Read { 0, 100, "HTTP range returned 60 bytes; expected 100", 206, 60, first100 };
        QTest::newRow("status 204") << Read { 0, 100, "Unexpected HTTP status: 204", 204 };
        QTest::newRow("status 404") << Read { 0, 100, "HTTP request failed \\(404\\): .+", 404, 10 };
        // The network library reports a cut either as an error or as a short body; both must fail the read.
        QTest::newRow("cut mid-body") << Read { 0, 100,
            "HTTP request failed \\(206\\): .+|HTTP range returned 4 bytes; expected 100", 206, 100, first100, "cut" };
        QTest::newRow("stall mid-body") << Read { 0, 100, "HTTP request timed out", 206, 100, first100, "stall" };
        QTest::newRow("stall, cancelled") << Read { 0, 100, "HTTP request cancelled", 206, 100, first100, "cancel" };
    }
    void read()
    {
        QFETCH(Read, row);
        const QByteArray twist = row.twist;
        CloudRangeRequest request { {}, row.offset, row.length };
        const bool whole = row.status == 200;
        const QByteArray body = object.mid(whole ? 0 : row.offset, row.bodyBytes);
        // Accept-Ranges only beside a 200: a 206 shows range support by itself.
        FaultReply reply = httpReply(
            row.status, { { whole ? "Accept-Ranges" : "Content-Range", whole ? "BYTES" : row.contentRange } }, body);
        reply.cutAfterBytes = twist.isEmpty() ? -1 : reply.bytes.size() - body.size() + 4;
        reply.stall = twist == "stall" || twist == "cancel";
        // Cancelled through a copy of the token, from the server's thread, while the reader waits.
        FaultServer server([&, token = request.context.cancellationToken](const FaultRequest &) {
            return twist == "cancel" ? (token.requestCancellation(), reply) : reply;
        });
        const QUrl refused(QStringLiteral("http://127.0.0.1:%1/o").arg(FaultServer::unusedPort()));
        request.url = row.status < 0 ? QUrl(QStringLiteral("o.tif")) : row.status ? server.url("/o") : refused;
        if (twist == "cancelled")
            request.cancellationRequested = [] { return true; };
        reader->setTimeoutMilliseconds(twist == "stall" ? 300 : 30000);
        CloudRangeResponse response;
        const QString failure = failureOf([&] { response = reader->read(request); });
        const QRegularExpression pattern(QRegularExpression::anchoredPattern(QLatin1String(row.failure)));
        QVERIFY2(pattern.match(failure).hasMatch(), qPrintable(failure));
        // A transfer is counted once the exchange has brought an answer, even one that fails the checks; only a
        // success is stored.
        const bool answered = row.status > 0 && !failure.startsWith(QLatin1String("HTTP request "));
        const QList<qint64> statistics = counters(cache->statistics());
        // A whole object at another offset is given up as soon as its status is known: no body byte is taken.
        const qint64 taken = whole && row.offset ? 0 : twist.isEmpty() ? row.bodyBytes : 4;
        QCOMPARE(QList<qint64>({ statistics[7], statistics[8], statistics[3] }),
            QList<qint64>({ answered, answered ? taken : 0, failure.isEmpty() }));
        const CloudRangeResponse expected { object.mid(row.offset, 100), row.offset, row.totalSize, row.status, {}, {},
            {}, true };
        QCOMPARE(describe(response), describe(failure.isEmpty() ? expected : CloudRangeResponse()));
        // Every way out of a read gives up its claim on the key: a second read does not wait for the first.
        QVERIFY(pattern.match(failureOf([&] { reader->read(request); })).hasMatch());
    }

    // A server that never finishes, or sends far more than asked for: the read ends within its time-out or as soon
    // as it has what it needs, with the client closing the connection and taking at most a little read-ahead.
    void hostileServerIsCutShort_data()
    {
        QTest::addColumn<QByteArray>("head");
        QTest::addColumn<QByteArray>("repeat");
        QTest::addColumn<QString>("failure");
        const QByteArray endless = "Content-Length: 1073741824\r\n\r\n";
        const QString tooLarge = "HTTP request failed (206): HTTP answer header exceeds 64 KiB";
        const QString tooLong = "HTTP range returned \\d+ bytes; expected 16";
        QTest::newRow("endless header lines")
            << QByteArray("HTTP/1.1 206 X\r\n") << QByteArray("X-A: 1\r\n") << QRegularExpression::escape(tooLarge);
        QTest::newRow("endless header line")
            << QByteArray("HTTP/1.1 206 X\r\nX-A: ") << QByteArray(4096, 'a') << QRegularExpression::escape(tooLarge);
        QTest::newRow("endless chunked body")
            << QByteArray("HTTP/1.1 206 X\r\nContent-Range: bytes 0-15/16\r\nTransfer-Encoding: chunked\r\n\r\n")
            << QByteArray("1000\r\n" + QByteArray(4096, 'b') + "\r\n") << tooLong;
        QTest::newRow("206 longer than asked") << "HTTP/1.1 206 X\r\nContent-Range: bytes 0-15/1073741824\r\n" + endless
                                               << QByteArray(65536, 'e') << tooLong;
        QTest::newRow("200 at offset 0, taken")
            << "HTTP/1.1 200 X\r\n" + endless << QByteArray(65536, 'd') << QString();
    }
    void hostileServerIsCutShort()
    {
        QFETCH(QByteArray, head);
        QFETCH(QByteArray, repeat);
        QFETCH(QString, failure);
        FaultServer server([&](const FaultRequest &) { return FaultReply { head, 0, -1, false, repeat }; });
        CloudRangeResponse response;
        const QString message = failureOf([&] { response = reader->read(server.url("/o"), 0, 16); });
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(failure)).match(message).hasMatch(),
            qPrintable(message));
        QCOMPARE(response.data, failure.isEmpty() ? QByteArray(16, 'd') : QByteArray());
        QTRY_COMPARE(server.openConnections(), 0);
        QVERIFY(cache->statistics().networkBytes < (1 << 20));
    }

    // Answers as they arrive on the wire, read as the range 0-15: the bytes, or the failure.
    void wireAnswers_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QString>("outcome");
        const QByteArray head = "HTTP/1.1 206 X\r\nContent-Range: bytes 0-15/16\r\n";
        const QByteArray chunked = head + "Transfer-Encoding: chunked\r\n\r\n";
        // Status line, fields and the empty line together: 64 KiB exactly.
        const QByteArray filled = head + "Content-Length: 16\r\nX-F: " + QByteArray(65536 - 75, 'f') + "\r\n";
        QTest::newRow("chunks, hexadecimal sizes, a trailer")
            << chunked + "a\r\n0123456789\r\n6;x=1\r\nabcdef\r\n0\r\nX-T: 1\r\n\r\n"
            << "0123456789abcdef";
        QTest::newRow("header block of 64 KiB") << filled + "\r\n0123456789abcdef"
                                                << "0123456789abcdef";
        QTest::newRow("one byte more") << filled + "g\r\n0123456789abcdef"
                                       << "HTTP request failed (206): HTTP answer header exceeds 64 KiB";
        QTest::newRow("closed before an answer")
            << QByteArray() << "HTTP request failed (0): Connection closed before an answer";
        QTest::newRow("closed within the body")
            << head + "Content-Length: 16\r\n\r\n0123456789"
            << "HTTP request failed (206): Connection closed before the answer was complete";
        QTest::newRow("no status") << QByteArray("HTTP/1.1 abc\r\n\r\n")
                                   << "HTTP request failed (0): Malformed HTTP answer";
        QTest::newRow("chunk size not a number") << chunked + "zz\r\n"
                                                 << "HTTP request failed (206): Malformed HTTP answer";
    }
    void wireAnswers()
    {
        QFETCH(QByteArray, answer);
        FaultServer server([&](const FaultRequest &) { return FaultReply { answer }; });
        QByteArray data;
        const QString failure = failureOf([&] { data = reader->read(server.url("/o"), 0, 16).data; });
        QTEST(failure.isEmpty() ? QString::fromLatin1(data) : failure, "outcome");
    }

    // The caller's headers go where the caller sent them, not to another origin a redirect names; the reader's own
    // go everywhere.
    void callerHeadersStayWithTheirOrigin_data()
    {
        QTest::addColumn<bool>("otherOrigin");
        QTest::newRow("same origin") << false;
        QTest::newRow("another port") << true;
    }
    void callerHeadersStayWithTheirOrigin()
    {
        QFETCH(bool, otherOrigin);
        FaultServer target([](const FaultRequest &request) { return objectReply(request, object); });
        const QByteArray location = otherOrigin ? target.url("/p").toEncoded() : "/p";
        FaultServer origin([&](const FaultRequest &request) {
            return request.target == "/o" ? httpReply(302, { { "Location", location } }, {})
                                          : objectReply(request, object);
        });
        QCOMPARE(reader->read({ origin.url("/o"), 0, 16, { { "authorization", "Bearer t" } } }).data, object.left(16));
        const FaultRequest sent = (otherOrigin ? target : origin).requests().constLast();
        QCOMPARE(sent.header("Authorization") + ';' + sent.header("User-Agent") + ';' + sent.header("Accept-Encoding")
                + ';' + sent.target + ' ' + sent.header("Range"),
            QByteArray(otherOrigin ? "" : "Bearer t") + ";Norvane.Cloud/1;identity;/p bytes=0-15");
    }

    // Plain HTTP through the application's HTTP proxy: the proxy is asked for the whole URL.
    void applicationProxyCarriesPlainHttp()
    {
        FaultServer proxy([](const FaultRequest &request) { return objectReply(request, object); });
        QNetworkProxy::setApplicationProxy({ QNetworkProxy::HttpProxy, "127.0.0.1", quint16(proxy.url().port()) });
        QByteArray data;
        const QString failure = failureOf([&] { data = reader->read(QUrl("http://objects.invalid/o"), 0, 16).data; });
        QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
        QVERIFY2(data == object.left(16), qPrintable(failure));
        QCOMPARE(proxy.requests().value(0).target, "http://objects.invalid/o");
    }

    // Run in a child process that makes no application object: a range the disk cache holds needs none.
    void cachedRangeNeedsNoApplicationObject()
    {
        const QUrl url(QStringLiteral("http://127.0.0.1:%1/o").arg(FaultServer::unusedPort()));
        makeCache(dir())->put(HttpRangeReader::cacheKey({ url, 5, 3 }), diskResponse("abc"));
        QProcess child;
        child.start(QCoreApplication::applicationFilePath(), { QStringLiteral("--read"), dir(), url.toString() });
        QVERIFY(child.waitForFinished());
        QCOMPARE(child.readAllStandardOutput(), QByteArray("abc"));
    }

    void repeatedReadComesFromTheCache()
    {
        FaultServer server([](const FaultRequest &request) { return objectReply(request, object); });
        CloudRangeRequest request { server.url("/o"), 10, 32, { { "user-agent", "Host/2" } } };
        QStringList events;
        request.context.resourcePolicy = [&](auto usage, auto component, auto resource) {
            return QDebug(&events.emplaceBack()).noquote() << usage.bytes << component << resource,
                   OperationResourcePolicyDecision();
        };
        request.context.progressSink = [&](auto p) {
            QDebug(&events.emplaceBack()).noquote()
                << p.state << p.percent << p.completed << p.total << p.message << p.details;
        };
        QVERIFY(!reader->read(request).fromCache);
        const CloudRangeResponse again = reader->read(request);
        QVERIFY(again.fromCache && again.data == object.mid(10, 32));
        // Each line as QDebug writes it, with its last space.
        const QString asked = QStringLiteral("32 Norvane.Cloud.HttpRangeReader %1 |2 0 0 32 Reading cloud byte range "
                                             "QMap((url, QVariant(QString, %1))) |")
                                  .arg(request.url.toString());
        QCOMPARE(events.join(u'|'),
            asked + "4 100 32 32 Cloud byte range downloaded QMap((cacheHit, QVariant(bool, false))) |" + asked
                + "4 100 32 32 Cloud byte range served from cache QMap((cacheHit, QVariant(bool, true))) ");
        // A refusal holds even for bytes at hand, with the policy's own reason.
        request.context.resourcePolicy = [](auto &&...) { return OperationResourcePolicyDecision { false, "no" }; };
        QCOMPARE(failureOf([&] { reader->read(request); }), QStringLiteral("no"));
        request.context.resourcePolicy = {};
        request.useCache = false;
        QVERIFY(!reader->read(request).fromCache);
        QCOMPARE(counters(cache->statistics()) << server.requestCount(),
            QList<qint64>({ 1, 0, 1, 1, 0, 32, 85, 2, 64, 32, 2 }));
        const FaultRequest sent = server.requests().constFirst();
        QCOMPARE(sent.header("Range") + ' ' + sent.header("Accept-Encoding") + ' ' + sent.header("User-Agent"),
            QByteArray("bytes=10-41 identity Host/2"));
        request.headers.clear();
        reader->read(request);
        QCOMPARE(server.requests().constLast().header("User-Agent"), QByteArray("Norvane.Cloud/1"));
    }

    // The memory tier holds 64-digit keys by their value and others by their text: no two keys may share an entry.
    void keysKeepTheirOwnEntries_data()
    {
        QTest::addColumn<QString>("first");
        QTest::addColumn<QString>("second");
        const QString zeros(60, u'0');
        QTest::newRow("a letter past f") << QStringLiteral("g000") + zeros << QStringLiteral("0100") + zeros;
        QTest::newRow("upper and lower case") << QStringLiteral("A000") + zeros << QStringLiteral("a000") + zeros;
        QTest::newRow("the last digit") << QStringLiteral("0000") + zeros << zeros + QStringLiteral("0001");
        QTest::newRow("a pair's digits swapped") << QStringLiteral("1000") + zeros << QStringLiteral("0100") + zeros;
        QTest::newRow("63 digits and 64") << QStringLiteral("000") + zeros << QStringLiteral("0000") + zeros;
        // U+0130: its low byte is the digit 0.
        QTest::newRow("a unit above 255")
            << QChar(0x130) + QStringLiteral("000") + zeros << QStringLiteral("0000") + zeros;
        QTest::newRow("no key and 64 zeros") << QString() << QStringLiteral("0000") + zeros;
    }
    void keysKeepTheirOwnEntries()
    {
        QFETCH(QString, first);
        QFETCH(QString, second);
        auto cache = makeCache(dir(), 1000, 0);
        // The same ETag and type with another date: entries share header values only where all three match.
        CloudRangeResponse other = diskResponse("second");
        other.lastModified = "L";
        cache->put(first, diskResponse("first"));
        cache->put(second, other);
        CloudRangeResponse response;
        QVERIFY(cache->get(first, response));
        QCOMPARE(response.data + response.etag + response.lastModified + response.contentType, "first\"e\"");
        QVERIFY(cache->get(second, response));
        QCOMPARE(response.data + response.etag + response.lastModified + response.contentType, "second\"e\"L");
    }

    // Ranges of one object share their header values in the memory tier; one whose values differ only in being
    // null or empty keeps its own.
    void memoryHitsKeepEveryField()
    {
        auto cache = makeCache(dir(), 1000, 0);
        CloudRangeResponse swapped = diskResponse("b");
        swapped.lastModified = QByteArray("");
        swapped.contentType = QByteArray();
        const CloudRangeResponse other { "c", 7, -1, 200, {}, "L", "T", false, false };
        const QList<CloudRangeResponse> stored { diskResponse("a"), swapped, other, diskResponse("d") };
        for (const CloudRangeResponse &response : stored)
            cache->put(QString::fromLatin1(response.data), response);
        for (CloudRangeResponse expected : stored) {
            CloudRangeResponse response;
            QVERIFY(cache->get(QString::fromLatin1(expected.data), response));
            expected.fromCache = true;
            QCOMPARE(describe(response), describe(expected));
            const auto nulls = [](const CloudRangeResponse &of) {
                return QList<bool>({ of.etag.isNull(), of.lastModified.isNull(), of.contentType.isNull() });
            };
            QCOMPARE(nulls(response), nulls(expected));
        }
        // Values whose last entry went are not shared any more: the next values stored take their place.
        cache->clear();
        cache->put(QStringLiteral("x"), diskResponse("x"));
        cache->remove(QStringLiteral("x"));
        cache->put(QStringLiteral("y"), CloudRangeResponse { "y", 0, -1, 206, {}, {}, {}, true, false });
        cache->put(QStringLiteral("z"), diskResponse("z"));
        CloudRangeResponse response;
        QVERIFY(cache->get(QStringLiteral("y"), response));
        QCOMPARE(response.etag, QByteArray());
    }

    void cacheSteps_data()
    {
        QTest::addColumn<QList<qint64>>("limits"); // memory, disk
        // A40: put 40 bytes as A; A: get A; -A: remove A; ~: a new cache object on the folder (~200: with
        // that disk limit); ^: every entry file an hour older; x: the folder removed.
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QString>("gets");
        // memory hits, disk hits, misses, writes, evictions, memory bytes, disk bytes; an entry of n bytes is n + 56.
        QTest::addColumn<QList<qint64>>("expected");
        // 9999: more than the entries of any row.
        STEPS("a hit protects from eviction", 100, 0, "A40 B40 A C40 B A", "A+ B- A+", 2, 0, 1, 3, 1, 80, 0);
        STEPS("exactly the limit is kept", 80, 0, "A40 B40 A B", "A+ B+", 2, 0, 0, 2, 0, 80, 0);
        STEPS("an entry above the limit empties the tier", 100, 0, "A40 B40 X150 A X", "A- X-", 0, 0, 2, 3, 3, 0, 0);
        STEPS("empty data is ignored", 100, 9999, "A0 A", "A-", 0, 0, 1, 0, 0, 0, 0);
        STEPS("a put replaces", 100, 9999, "A40 A30 A", "A+", 1, 0, 0, 2, 0, 30, 86);
        STEPS("a new cache object serves from disk", 100, 9999, "A40 ~ A A", "A+ A+", 1, 1, 0, 0, 0, 40, 96);
        STEPS("remove drops both tiers", 100, 9999, "A40 B20 -A -Z A", "A-", 0, 0, 1, 2, 0, 20, 76);
        STEPS("trim on put, oldest first", 0, 298, "A40 ^ B40 ^ C40 D40 A B C D", "A- B+ C+ D+", 0, 3, 1, 4, 1, 0, 288);
        STEPS("a served entry is recent", 0, 298, "A40 ^ B40 ^ C40 A D40 B", "A+ B-", 0, 1, 1, 4, 1, 0, 288);
        // D40 lists the folder; the stores after it trim from that listing, skipping B, served since.
        STEPS("trim from the last listing", 0, 298, "A40 ^ B40 ^ C40 ^ D40 B E40 F40 A B C D E F",
            "B+ A- B+ C- D- E+ F+", 0, 4, 3, 6, 3, 0, 288);
        STEPS("trim at construction", 0, 9999, "A40 ^ B40 ^ C40 ~200 A B C", "A- B+ C+", 0, 2, 1, 0, 1, 0, 192);
        STEPS("folder removed", 0, 9999, "A40 x A B40 B", "A- B+", 0, 1, 1, 2, 0, 0, 192);
    }
    void cacheSteps()
    {
        QFETCH(QList<qint64>, limits);
        QFETCH(QString, steps);
        QFETCH(QString, gets);
        QFETCH(QList<qint64>, expected);
        auto tiers = makeCache(dir(), limits[0], limits[1]);
        // Older than every entry, but not an entry file: never counted nor trimmed.
        QVERIFY(writeFile(dir(QStringLiteral("keep.me")), "x", QDateTime::currentDateTime().addDays(-9)));
        QStringList seen;
        CloudRangeResponse response;
        for (const QString &step : steps.split(u' ')) {
            const QChar key = step.at(0);
            const qint64 number = step.mid(1).toLongLong();
            if (key == u'~')
                tiers = makeCache(dir(), limits[0], number ? number : limits[1]);
            else if (key == u'-')
                tiers->remove(step.mid(1));
            else if (key == u'x')
                QVERIFY(QDir(dir()).removeRecursively());
            else if (key == u'^') {
                for (const QFileInfo &file : QDir(dir()).entryInfoList({ QStringLiteral("*.nvc") }))
                    QVERIFY(writeFile(file.filePath(), readFile(file.filePath()), file.lastModified().addSecs(-3600)));
            } else if (step.size() > 1)
                tiers->put(key, diskResponse(QByteArray(number, 'c')));
            else
                seen << step + (tiers->get(key, response) && response.fromCache ? u'+' : u'-');
        }
        QCOMPARE(seen.join(u' '), gets);
        QCOMPARE(counters(tiers->statistics()).mid(0, 7), expected);
    }

    // Thousands of puts, gets and removes over a few hundred keys, against a list kept least recent first: the
    // memory tier must agree on every hit, on the bytes and ETag served, on its bytes and on its evictions, however
    // its table's runs of neighbouring keys shift as entries come and go, and however many entries share an ETag.
    void memoryTierAgreesWithARecencyList()
    {
        constexpr qint64 limit = 3000;
        auto cache = makeCache(dir(), limit, 0);
        QList<QString> keys;
        for (int index = 0; index < 300; ++index) {
            const QByteArray digits = QCryptographicHash::hash(QByteArray::number(index), QCryptographicHash::Sha256);
            keys << (index % 10 ? QString::fromLatin1(digits.toHex()) : QStringLiteral("text %1").arg(index));
        }
        // The key, and its range's data and ETag as data|etag.
        QList<QPair<QString, QByteArray>> recency;
        qint64 bytes = 0;
        qint64 evictions = 0;
        QRandomGenerator random(7);
        CloudRangeResponse response;
        for (int step = 0; step < 20000; ++step) {
            const QString &key = keys.at(int(random.bounded(keys.size())));
            const auto held
                = std::find_if(recency.begin(), recency.end(), [&](const auto &entry) { return entry.first == key; });
            const QByteArray heldData = held == recency.end() ? QByteArray() : held->second;
            if (held != recency.end()) {
                bytes -= heldData.indexOf('|');
                recency.erase(held);
            }
            const quint32 action = random.bounded(10);
            if (action < 4) {
                CloudRangeResponse stored = diskResponse(QByteArray(1 + random.bounded(60), char('a' + step % 26)));
                stored.etag = QByteArray::number(step / 50);
                cache->put(key, stored);
                recency.append({ key, stored.data + '|' + stored.etag });
                for (bytes += stored.data.size(); bytes > limit; ++evictions)
                    bytes -= recency.takeFirst().second.indexOf('|');
            } else if (action < 9) {
                QCOMPARE(cache->get(key, response) ? response.data + '|' + response.etag : QByteArray(), heldData);
                if (!heldData.isNull()) {
                    recency.append({ key, heldData });
                    bytes += heldData.indexOf('|');
                }
            } else {
                cache->remove(key);
            }
        }
        const CloudCacheStatistics statistics = cache->statistics();
        QCOMPARE(QList<qint64>({ statistics.memoryBytes, statistics.evictions }), QList<qint64>({ bytes, evictions }));
    }

    void entryFileServedOrDeleted_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<qint64>("maximumAgeSeconds");
        QTest::addColumn<bool>("served");
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        const QByteArray good = entryBytes(now);
        QTest::newRow("age limit 0, stored long ago") << entryBytes(1) << qint64(0) << true;
        QTest::newRow("expired") << entryBytes(now - 3601000) << qint64(3600) << false;
        QTest::newRow("stored two minutes ahead") << entryBytes(now + 120000) << qint64(0) << false;
        QTest::newRow("truncated") << good.left(good.size() - 1) << qint64(3600) << false;
        QTest::newRow("wrong version") << QByteArray(good).replace(7, 1, "\2") << qint64(3600) << false;
        QTest::newRow("zero-filled after the header") << good.left(16) + QByteArray(80, '\0') << qint64(3600) << false;
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
        QCOMPARE(counters(disk->statistics())[6], served ? bytes.size() : 0);
        QCOMPARE(describe(response), describe(served ? diskResponse("abc", true) : CloudRangeResponse()));
    }

    void entryFileInThePrivateDefaultFolder()
    {
        // Left set: no other test uses the default folder.
        qputenv("XDG_CACHE_HOME", QFile::encodeName(dir()));
        CloudRangeCache defaults;
        const QString folder = defaults.options().directory;
        QCOMPARE(folder, dir(QStringLiteral("tst_transport/Norvane/Cloud")));
        const QString entry = QDir(folder).filePath(entryFileOfK);
        QVERIFY(
            writeFile(entry, "someone else's") && QFile::setPermissions(entry, QFile::ReadOwner | QFile::ReadOther));
        defaults.put(QStringLiteral("k"), diskResponse("abc"));
        // The time stored is checked where entries are read back with an age limit.
        const QByteArray file = readFile(entry);
        QCOMPARE(file, entryBytes(qFromBigEndian<qint64>(file.constData() + 8)));
        // Owner, group and other in the flags' hexadecimal digits (0x7000 is 0700); a replaced entry does not keep
        // the permissions of its predecessor.
        QCOMPARE(QList<int>({ int(QFile::permissions(dir(QStringLiteral("tst_transport")))) & 0x7077,
                     int(QFile::permissions(folder)) & 0x7077, int(QFile::permissions(entry)) & 0x7077 }),
            QList<int>({ 0x7000, 0x7000, 0x6000 }));
    }

    void threadsShareOneFetchPerKey()
    {
        // Each thread counts its reads that returned wrong bytes; a failed read fails the test when its thread ends.
        std::future<int> threads[4];
        for (int thread = 0; thread < 4; ++thread)
            threads[thread] = std::async(std::launch::async, [&, thread] {
                int wrong = 0;
                for (qint64 index = 0, offset = 0; index < 50; offset = (++index + thread) % 8 * 4096)
                    wrong += reader->read(nginx.url(cog), offset, 3000).data != object.mid(offset, 3000);
                return wrong;
            });
        for (std::future<int> &thread : threads)
            QCOMPARE(thread.get(), 0);
        QCOMPARE(cache->statistics().networkRequests, 8);
        QVERIFY(nginx.waitForAccessLogEntries(8));
        QCOMPARE(nginx.accessLog().size(), 8);
    }

    // Hostile folders and re-entrant hosts. planted: what lies under the entry name of the read's key beforehand; a
    // link points at an outside file holding a valid entry for the read. A planted folder stays, unreadable: the look
    // after claiming the key counts no second miss.
    void plantedEntryNameGoesToTheNetwork_data()
    {
        QTest::addColumn<QString>("planted");
        for (const char *planted : { "link", "FIFO", "folder" })
            QTest::newRow(planted) << QString::fromLatin1(planted);
    }
    void plantedEntryNameGoesToTheNetwork()
    {
        QFETCH(QString, planted);
        FaultServer server([](const FaultRequest &request) { return objectReply(request, object); });
        const CloudRangeRequest request { server.url("/o"), 5, 3 };
        const QByteArray key = HttpRangeReader::cacheKey(request).toUtf8();
        const QByteArray entry = QFile::encodeName(dir(
            QStringLiteral("reader/") + QCryptographicHash::hash(key, QCryptographicHash::Sha256).toHex() + ".nvc"));
        const QByteArray outside = QFile::encodeName(dir(QStringLiteral("outside")));
        QVERIFY(writeFile(outside, entryBytes(QDateTime::currentMSecsSinceEpoch())));
        QCOMPARE(planted == u"link"  ? symlink(outside, entry)
                : planted == u"FIFO" ? mkfifo(entry, 0600)
                                     : mkdir(entry, 0700),
            0);
        const CloudRangeResponse response = reader->read(request);
        const QList<qint64> statistics = counters(cache->statistics());
        QCOMPARE(QList<qint64>({ response.fromCache, statistics[2], statistics[6], statistics[7] }),
            QList<qint64>({ false, 1, planted == u"folder" ? 0 : 56, 1 }));
        QCOMPARE(response.data, object.mid(5, 3));
    }

    void storeReplacesALinkInsteadOfWritingThroughIt()
    {
        const QByteArray outside = QFile::encodeName(dir(QStringLiteral("outside")));
        QVERIFY(writeFile(outside, "settings") && symlink(outside, QFile::encodeName(dir(entryFileOfK))) == 0);
        makeCache(dir())->put(QStringLiteral("k"), diskResponse("abc"));
        QCOMPARE(readFile(outside) + char('0' + QFileInfo(dir(entryFileOfK)).isSymLink()), QByteArray("settings0"));
    }

    void folderOpenToOthersKeepsEntriesInMemory()
    {
        const QString open = dir(QStringLiteral("open"));
        QVERIFY(QDir().mkdir(open) && chmod(QFile::encodeName(open), 0777) == 0);
        const auto tiers = makeCache(open);
        tiers->put(QStringLiteral("k"), diskResponse("abc"));
        CloudRangeResponse response;
        QVERIFY(tiers->get(QStringLiteral("k"), response) && QDir(open).isEmpty());
    }

    // A store's temporary file an hour old was left by a process that ended mid-store, and goes when the folder is
    // listed; a younger one may be another process's store in progress.
    void onlyKeyNamedFilesBelongToTheDiskTier()
    {
        // Over the limit if it were measured, so a trim at construction would delete it.
        const QString photos = dir(QStringLiteral("holiday-photos.nvc"));
        const QDateTime now = QDateTime::currentDateTime();
        QVERIFY(writeFile(photos, "pp", now.addDays(-9)));
        QVERIFY(writeFile(dir(QStringLiteral("aB3xYz.part")), "a", now.addSecs(-3700)));
        QVERIFY(writeFile(dir(QStringLiteral("Qw9rTy.part")), "q", now.addSecs(-3500)));
        QVERIFY(writeFile(dir(QStringLiteral("notes.part")), "n", now.addDays(-9)));
        const auto tiers = makeCache(dir(), 0, 1);
        QCOMPARE(readFile(photos) + char('0' + tiers->statistics().diskBytes), QByteArray("pp0"));
        QStringList leftovers = QDir(dir()).entryList({ QStringLiteral("*.part") });
        leftovers.sort();
        QCOMPARE(leftovers.join(u' '), QStringLiteral("Qw9rTy.part notes.part"));
        tiers->clear();
        QCOMPARE(readFile(photos), QByteArray("pp"));
    }

    // offset, size: of the response stored under the key of a 16-byte read at offset 10.
    void hitNotHoldingTheRangeGoesToTheNetwork_data()
    {
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<int>("size");
        QTest::addColumn<qint64>("memory");
        QTest::newRow("5 bytes") << qint64(10) << 5 << qint64(1 << 20);
        QTest::newRow("100000 bytes, on disk") << qint64(10) << 100000 << qint64(0);
        QTest::newRow("other offset") << qint64(7) << 16 << qint64(1 << 20);
    }
    void hitNotHoldingTheRangeGoesToTheNetwork()
    {
        QFETCH(qint64, offset);
        QFETCH(int, size);
        QFETCH(qint64, memory);
        FaultServer server([](const FaultRequest &request) { return objectReply(request, object); });
        const CloudRangeRequest request { server.url("/o"), 10, 16 };
        reader->setCache(makeCache(dir(QStringLiteral("damaged")), memory));
        reader->cache()->put(HttpRangeReader::cacheKey(request), { QByteArray(size, 'x'), offset, 1000, 206 });
        const CloudRangeResponse response = reader->read(request);
        QCOMPARE(response.data + char('0' + response.fromCache), object.mid(10, 16) + '0');
    }

    void reentrantReadOfTheSameKeyFetchesItself()
    {
        FaultServer server([](const FaultRequest &request) { return objectReply(request, object); });
        const CloudRangeRequest request { server.url("/o"), 10, 16 };
        // Runs in the nested event loop of the read below, which owns the key's fetch.
        QByteArray nested;
        QTimer::singleShot(0, [&] { nested = reader->read(request).data; });
        const QByteArray outer = reader->read(request).data;
        QCOMPARE(outer + nested + char(server.requestCount()), object.mid(10, 16).repeated(2) + '\2');
    }

    // A read waiting for another thread's stalled download of its key: cancelled at its third test (the first is
    // before the read starts), or with a short time-out. It never downloads itself.
    void waitForAnotherThreadsFetchEnds_data()
    {
        QTest::addColumn<bool>("cancel");
        QTest::addColumn<QString>("failure");
        QTest::newRow("cancelled") << true << QStringLiteral("HTTP request cancelled");
        QTest::newRow("timed out") << false << QStringLiteral("HTTP request timed out");
    }
    void waitForAnotherThreadsFetchEnds()
    {
        QFETCH(bool, cancel);
        QFETCH(QString, failure);
        std::promise<void> claimed;
        std::atomic<bool> first { true }, stopOwner { false };
        FaultServer server([&](const FaultRequest &) {
            if (first.exchange(false))
                claimed.set_value();
            return FaultReply { {}, 0, 0, true };
        });
        CloudRangeRequest ownerRequest { server.url("/o"), 0, 100 }, request = ownerRequest;
        ownerRequest.cancellationRequested = [&] { return stopOwner.load(); };
        auto owner = std::async(std::launch::async, [&] { return failureOf([&] { reader->read(ownerRequest); }); });
        claimed.get_future().wait();
        HttpRangeReader waiting(cache);
        waiting.setTimeoutMilliseconds(cancel ? 30000 : 200);
        request.cancellationRequested = [calls = 0, cancel]() mutable { return cancel && ++calls > 2; };
        QCOMPARE(failureOf([&] { waiting.read(request); }) + char('0' + server.requestCount()), failure + '1');
        stopOwner = true;
        QCOMPARE(owner.get(), QStringLiteral("HTTP request cancelled"));
    }
};

// The child process of cachedRangeNeedsNoApplicationObject: bytes 5-7 of url through the disk cache in folder,
// written to standard output, or the failure's message.
int readWithoutApplicationObject(const char *folder, const char *url)
{
    const auto tiers = std::make_shared<CloudRangeCache>(CloudCacheOptions { QString::fromLocal8Bit(folder) });
    const QString outcome = failureOf([&] { std::fputs(HttpRangeReader(tiers).read(QUrl(url), 5, 3).data, stdout); });
    std::fputs(qPrintable(outcome), stdout);
    return 0;
}

int main(int argc, char **argv)
{
    if (argc == 4 && qstrcmp(argv[1], "--read") == 0)
        return readWithoutApplicationObject(argv[2], argv[3]);
    QCoreApplication application(argc, argv);
    TestTransport test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_transport.moc"
