// The flat functions called from a host that owns a Qt application object: the frame (handles, buffers, last
// error per thread, order of checks) and every work function against the loopback server.

#include "flat/flatframe.h"
#include "flattesthelpers.h"
#include "loopbackhttpserver.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QTemporaryDir>
#include <QTest>

#include <limits>
#include <stdexcept>
#include <thread>

using namespace Norvane::Cloud;
using FlatTest::callText;
using FlatTest::lastErrorText;
using FlatTest::TextResult;
using FlatTest::utf16;
using Norvane::Cloud::Testing::LoopbackHttpServer;
using Norvane::Cloud::Testing::LoopbackRequest;
using Norvane::Cloud::Testing::LoopbackResponse;
using Norvane::Cloud::Testing::RouteBehaviour;

using FlatCall = std::function<int32_t(char16_t *, int32_t)>;
Q_DECLARE_METATYPE(FlatCall)

namespace {

constexpr char16_t untouched = u'\xaaaa';

QString dataFile(const QString &relative)
{
    return QStringLiteral(NORVANE_TEST_DATA_DIR "/") + relative;
}

QByteArray fileBytes(const QString &relative)
{
    QFile file(dataFile(relative));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

// Fails a call through SetTimeout on a null handle, so the thread's last error is known to be set.
void setSomeLastError()
{
    NorvaneCloud_SetTimeout(nullptr, 1);
}

} // namespace

class TestFlatInterface : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void copyResultText_data();
    void copyResultText();
    void failedTextCallLeavesBufferUntouched();
    void lastErrorCopiesWithoutChanging();
    void successClearsLastError();
    void lastErrorIsPerThread();
    void guardUsesTheHostApplicationWithoutLock();

    void createClientDefaults();
    void createClientDecodesOptions();
    void createClientFailures_data();
    void createClientFailures();
    void destroyNullKeepsLastError();
    void nullHandleIsReported_data();
    void nullHandleIsReported();
    void setTimeout_data();
    void setTimeout();
    void setHeadersChecksDocumentBeforeHandle();
    void setHeadersReplacesWholeSet();
    void cacheStatisticsOfNewClient();
    void clearCacheEmptiesBothTiers();
    void gdalPaths_data();
    void gdalPaths();

    void cogProbeDocuments_data();
    void cogProbeDocuments();
    void cogProbeOfUnknownLength();
    void perCallHeadersApplyToOneCallOnly();
    void malformedPerCallHeadersSendNothing_data();
    void malformedPerCallHeadersSendNothing();
    void probeNetworkFailureLeavesBufferUntouched();
    void geoParquetProbe();
    void pmTilesLocalAndRemote();
    void truncatedProbeRepeatsTheWork();
    void probesRunSideBySideWithHostApplication();

    void stacSearch();
    void stacOrderOfChecks_data();
    void stacOrderOfChecks();
    void stacItemIndexOutOfRange_data();
    void stacItemIndexOutOfRange();
    void stacResolveCogLayer();
    void stacRelativeAssetHrefs();

private:
    NorvaneCloudClient *createClient();
    QUrl serve(const QString &path, const QByteArray &body);

    std::unique_ptr<QTemporaryDir> cacheFolder;
    std::unique_ptr<LoopbackHttpServer> server;
    QList<NorvaneCloudClient *> clients;
};

NorvaneCloudClient *TestFlatInterface::createClient()
{
    const QString options = QStringLiteral("{\"directory\":\"%1\"}").arg(cacheFolder->path());
    NorvaneCloudClient *client = NorvaneCloud_CreateClient(utf16(options).c_str());
    if (client != nullptr)
        clients.append(client);
    return client;
}

QUrl TestFlatInterface::serve(const QString &path, const QByteArray &body)
{
    server->setHandler(path, [body](const LoopbackRequest &) {
        LoopbackResponse response;
        response.headers = { { "Content-Type", "application/geo+json" } };
        response.body = body;
        return response;
    });
    return server->url(path);
}

void TestFlatInterface::init()
{
    cacheFolder = std::make_unique<QTemporaryDir>();
    QVERIFY(cacheFolder->isValid());
    server = std::make_unique<LoopbackHttpServer>();
    QVERIFY2(server->start(), qPrintable(server->errorString()));
    server->serveDirectory(QStringLiteral(NORVANE_TEST_DATA_DIR));
}

void TestFlatInterface::cleanup()
{
    for (NorvaneCloudClient *client : std::as_const(clients))
        NorvaneCloud_DestroyClient(client);
    clients.clear();
    server.reset();
    cacheFolder.reset();
}

void TestFlatInterface::copyResultText_data()
{
    QTest::addColumn<QString>("result");
    QTest::addColumn<bool>("nullBuffer");
    QTest::addColumn<int>("capacity");
    QTest::addColumn<QString>("written");

    const QString twelve = QStringLiteral("abcdefghijkl");
    QTest::newRow("null buffer") << twelve << true << 100 << QString();
    QTest::newRow("capacity 0") << twelve << false << 0 << QString();
    QTest::newRow("negative capacity") << twelve << false << -7 << QString();
    QTest::newRow("capacity 1 writes the terminator only") << twelve << false << 1 << QStringLiteral("");
    QTest::newRow("capacity 5 for 12 units") << twelve << false << 5 << QStringLiteral("abcd");
    QTest::newRow("one unit short") << twelve << false << 12 << QStringLiteral("abcdefghijk");
    QTest::newRow("exact fit") << twelve << false << 13 << twelve;
    QTest::newRow("room to spare") << twelve << false << 40 << twelve;
    QTest::newRow("empty result") << QString() << false << 4 << QStringLiteral("");
    QTest::newRow("cut inside a surrogate pair")
        << QStringLiteral("a\U0001F30D") << false << 3 << QString(QChar(u'a')) + QChar(0xD83C);
}

void TestFlatInterface::copyResultText()
{
    QFETCH(QString, result);
    QFETCH(bool, nullBuffer);
    QFETCH(int, capacity);
    QFETCH(QString, written);

    std::vector<char16_t> buffer(48, untouched);
    QCOMPARE(
        Norvane::Cloud::copyResultText(result, nullBuffer ? nullptr : buffer.data(), capacity), qint32(result.size()));
    if (written.isNull()) {
        QVERIFY(std::all_of(buffer.begin(), buffer.end(), [](char16_t unit) { return unit == untouched; }));
        return;
    }
    QCOMPARE(QString::fromUtf16(buffer.data(), written.size()), written);
    QCOMPARE(buffer[written.size()], u'\0');
    QVERIFY(std::all_of(
        buffer.begin() + written.size() + 1, buffer.end(), [](char16_t unit) { return unit == untouched; }));
}

void TestFlatInterface::failedTextCallLeavesBufferUntouched()
{
    std::vector<char16_t> buffer(32, untouched);
    const qint32 answer
        = callReturningText(buffer.data(), 32, []() -> QString { throw std::runtime_error("Disk on fire: \xc3\xa9"); });
    QCOMPARE(answer, -1);
    QVERIFY(std::all_of(buffer.begin(), buffer.end(), [](char16_t unit) { return unit == untouched; }));
    QCOMPARE(lastErrorText(), QStringLiteral("Disk on fire: \u00e9"));

    QCOMPARE(callReturningFlag([] { throw std::invalid_argument("bad"); }), 0);
    QCOMPARE(lastErrorText(), QStringLiteral("bad"));
    QCOMPARE(callReturningFlag([] {}), 1);
    QCOMPARE(lastErrorText(), QString());
}

void TestFlatInterface::lastErrorCopiesWithoutChanging()
{
    setSomeLastError();
    const QString message = QStringLiteral("Cloud client is null");
    QCOMPARE(NorvaneCloud_LastError(nullptr, 0), message.size());

    std::vector<char16_t> buffer(32, untouched);
    QCOMPARE(NorvaneCloud_LastError(buffer.data(), 1), message.size());
    QCOMPARE(buffer[0], u'\0');
    QCOMPARE(buffer[1], untouched);

    QCOMPARE(NorvaneCloud_LastError(buffer.data(), 6), message.size());
    QCOMPARE(QString::fromUtf16(buffer.data()), QStringLiteral("Cloud"));
    QCOMPARE(lastErrorText(), message);
}

void TestFlatInterface::successClearsLastError()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    setSomeLastError();
    QCOMPARE(NorvaneCloud_SetTimeout(client, 1000), 1);

    std::vector<char16_t> buffer(4, untouched);
    QCOMPARE(NorvaneCloud_LastError(buffer.data(), 4), 0);
    QCOMPARE(buffer[0], u'\0');
    QCOMPARE(buffer[1], untouched);
}

void TestFlatInterface::lastErrorIsPerThread()
{
    QVERIFY(NorvaneCloud_CreateClient(u"[]") == nullptr);
    const QString mine = lastErrorText();
    QCOMPARE(mine, QStringLiteral("Cloud client options must be a JSON object"));

    QString seenBefore = QStringLiteral("unset");
    QString seenAfter;
    std::thread other([&] {
        seenBefore = lastErrorText();
        NorvaneCloud_ClearCache(nullptr);
        seenAfter = lastErrorText();
    });
    other.join();
    QCOMPARE(seenBefore, QString());
    QCOMPARE(seenAfter, QStringLiteral("Cloud client is null"));
    QCOMPARE(lastErrorText(), mine);
}

void TestFlatInterface::guardUsesTheHostApplicationWithoutLock()
{
    QCoreApplication *host = QCoreApplication::instance();
    const ApplicationGuard guard;
    QVERIFY(!guard.ownsApplication());
    QVERIFY(!guard.holdsMutex());
    QCOMPARE(QCoreApplication::instance(), host);
}

void TestFlatInterface::createClientDefaults()
{
    NorvaneCloudClient *fromNull = NorvaneCloud_CreateClient(nullptr);
    NorvaneCloudClient *fromEmpty = NorvaneCloud_CreateClient(u"");
    NorvaneCloudClient *fromObject = NorvaneCloud_CreateClient(u"{}");
    for (NorvaneCloudClient *client : { fromNull, fromEmpty, fromObject }) {
        QVERIFY(client);
        clients.append(client);
    }

    const CloudCacheOptions defaults;
    for (NorvaneCloudClient *client : { fromNull, fromEmpty, fromObject }) {
        const CloudCacheOptions &options = client->client.cache->options();
        QCOMPARE(options.directory, fromNull->client.cache->options().directory);
        QVERIFY(!options.directory.isEmpty());
        QCOMPARE(options.maximumMemoryBytes, defaults.maximumMemoryBytes);
        QCOMPARE(options.maximumDiskBytes, defaults.maximumDiskBytes);
        QCOMPARE(options.maximumAgeSeconds, defaults.maximumAgeSeconds);
        QCOMPARE(options.memoryEnabled, true);
        QCOMPARE(options.diskEnabled, true);
        QCOMPARE(client->client.timeoutMilliseconds, 30000);
        QCOMPARE(client->client.cog.rangeReader().timeoutMilliseconds(), 30000);
        QVERIFY(client->client.headers.isEmpty());
        // One cache, shared by every source.
        QCOMPARE(client->client.cog.rangeReader().cache(), client->client.cache);
        QCOMPARE(client->client.geoParquet.rangeReader().cache(), client->client.cache);
        QCOMPARE(client->client.pmTiles.rangeReader().cache(), client->client.cache);
    }
}

void TestFlatInterface::createClientDecodesOptions()
{
    const QString options = text(R"({"directory":"%1","maximumMemoryBytes":"1000","maximumDiskBytes":5e9,)"
                                 R"("maximumAgeSeconds":1.5,"memoryEnabled":1})")
                                .arg(cacheFolder->path());
    NorvaneCloudClient *client = NorvaneCloud_CreateClient(utf16(options).c_str());
    QVERIFY2(client, qPrintable(lastErrorText()));
    clients.append(client);
    const CloudCacheOptions &held = client->client.cache->options();
    QCOMPARE(held.directory, cacheFolder->path());
    QCOMPARE(held.maximumMemoryBytes, 0);
    QCOMPARE(held.maximumDiskBytes, 5000000000);
    QCOMPARE(held.maximumAgeSeconds, 0);
    QCOMPARE(held.memoryEnabled, false);
    QCOMPARE(held.diskEnabled, true);
}

void TestFlatInterface::createClientFailures_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QString>("message");

    const QString notObject = QStringLiteral("Cloud client options must be a JSON object");
    QTest::newRow("array") << QStringLiteral("[]") << notObject;
    QTest::newRow("not JSON") << QStringLiteral("memory=64MiB") << notObject;
    QTest::newRow("text after object") << QStringLiteral("{}x") << notObject;
    QTest::newRow("negative limit from the cache")
        << text(R"({"maximumMemoryBytes":-1})") << QStringLiteral("Cloud cache limits cannot be negative");
}

void TestFlatInterface::createClientFailures()
{
    QFETCH(QString, options);
    QFETCH(QString, message);
    QVERIFY(NorvaneCloud_CreateClient(utf16(options).c_str()) == nullptr);
    QCOMPARE(lastErrorText(), message);
}

void TestFlatInterface::destroyNullKeepsLastError()
{
    NorvaneCloudClient *client = NorvaneCloud_CreateClient(nullptr);
    QVERIFY(client);
    setSomeLastError();
    NorvaneCloud_DestroyClient(nullptr);
    QCOMPARE(lastErrorText(), QStringLiteral("Cloud client is null"));
    NorvaneCloud_DestroyClient(client);
    QCOMPARE(lastErrorText(), QStringLiteral("Cloud client is null"));
}

void TestFlatInterface::nullHandleIsReported_data()
{
    QTest::addColumn<FlatCall>("call");

    using Call = FlatCall;
    QTest::newRow("SetTimeout") << Call([](char16_t *, int32_t) { return NorvaneCloud_SetTimeout(nullptr, 5000); });
    QTest::newRow("SetHeadersJson") << Call(
        [](char16_t *, int32_t) { return NorvaneCloud_SetHeadersJson(nullptr, u"{\"a\":\"b\"}"); });
    QTest::newRow("ClearCache") << Call([](char16_t *, int32_t) { return NorvaneCloud_ClearCache(nullptr); });
    QTest::newRow("CacheStatisticsJson") << Call(
        [](char16_t *b, int32_t c) { return NorvaneCloud_CacheStatisticsJson(nullptr, b, c); });
    QTest::newRow("CogGdalVirtualPath before URL")
        << Call([](char16_t *b, int32_t c) { return NorvaneCloud_CogGdalVirtualPath(nullptr, nullptr, b, c); });
    QTest::newRow("GeoParquetGdalVirtualPath") << Call(
        [](char16_t *b, int32_t c) { return NorvaneCloud_GeoParquetGdalVirtualPath(nullptr, u"https://h/a", b, c); });
    QTest::newRow("PmTilesGdalVirtualPath") << Call(
        [](char16_t *b, int32_t c) { return NorvaneCloud_PmTilesGdalVirtualPath(nullptr, u"https://h/a", b, c); });
    QTest::newRow("CogProbeJson before headers")
        << Call([](char16_t *b, int32_t c) { return NorvaneCloud_CogProbeJson(nullptr, u"http://h/", u"[]", b, c); });
    QTest::newRow("GeoParquetProbeJson") << Call(
        [](char16_t *b, int32_t c) { return NorvaneCloud_GeoParquetProbeJson(nullptr, u"http://h/", u"[]", b, c); });
    QTest::newRow("PmTilesInspectJson") << Call(
        [](char16_t *b, int32_t c) { return NorvaneCloud_PmTilesInspectJson(nullptr, u"/nowhere", u"[]", b, c); });
    QTest::newRow("PmTilesProbeJson") << Call(
        [](char16_t *b, int32_t c) { return NorvaneCloud_PmTilesProbeJson(nullptr, u"http://h/", u"[]", b, c); });
    QTest::newRow("StacSearchJson before URL")
        << Call([](char16_t *b, int32_t c) { return NorvaneCloud_StacSearchJson(nullptr, nullptr, u"[]", b, c); });
    QTest::newRow("StacResolveCogLayerJson") << Call([](char16_t *b, int32_t c) {
        return NorvaneCloud_StacResolveCogLayerJson(nullptr, nullptr, u"[]", nullptr, -1, b, c);
    });
}

void TestFlatInterface::nullHandleIsReported()
{
    QFETCH(FlatCall, call);
    std::vector<char16_t> buffer(8, untouched);
    QVERIFY(call(buffer.data(), 8) <= 0);
    QCOMPARE(lastErrorText(), QStringLiteral("Cloud client is null"));
    QCOMPARE(buffer[0], untouched);
}

void TestFlatInterface::setTimeout_data()
{
    QTest::addColumn<int>("milliseconds");
    QTest::addColumn<int>("answer");
    QTest::addColumn<int>("held");

    QTest::newRow("positive") << 1234 << 1 << 1234;
    QTest::newRow("one") << 1 << 1 << 1;
    QTest::newRow("zero") << 0 << 0 << 5000;
    QTest::newRow("negative") << -1 << 0 << 5000;
    QTest::newRow("smallest") << std::numeric_limits<int>::min() << 0 << 5000;
}

void TestFlatInterface::setTimeout()
{
    QFETCH(int, milliseconds);
    QFETCH(int, answer);
    QFETCH(int, held);

    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    QCOMPARE(NorvaneCloud_SetTimeout(client, 5000), 1);
    QCOMPARE(NorvaneCloud_SetTimeout(client, milliseconds), answer);
    QCOMPARE(lastErrorText(), answer ? QString() : QStringLiteral("HTTP timeout must be positive"));
    QCOMPARE(client->client.timeoutMilliseconds, held);
    QCOMPARE(client->client.cog.rangeReader().timeoutMilliseconds(), held);
    QCOMPARE(client->client.geoParquet.rangeReader().timeoutMilliseconds(), held);
    QCOMPARE(client->client.pmTiles.rangeReader().timeoutMilliseconds(), held);
}

void TestFlatInterface::setHeadersChecksDocumentBeforeHandle()
{
    QCOMPARE(NorvaneCloud_SetHeadersJson(nullptr, u"[]"), 0);
    QCOMPARE(lastErrorText(), QStringLiteral("Cloud headers must be a JSON object"));
    QCOMPARE(NorvaneCloud_SetHeadersJson(nullptr, nullptr), 0);
    QCOMPARE(lastErrorText(), QStringLiteral("Cloud client is null"));
}

void TestFlatInterface::setHeadersReplacesWholeSet()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"{\"Authorization\":\"a\",\"X-One\":\"1\"}"), 1);
    QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"{\"X-Two\":2}"), 1);
    const QHash<QByteArray, QByteArray> two { { "X-Two", "" } };
    QCOMPARE(client->client.headers, two);

    QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"{\"X-Three\":\"3\"} trailing"), 0);
    QCOMPARE(client->client.headers, two);

    QCOMPARE(NorvaneCloud_SetHeadersJson(client, nullptr), 1);
    QVERIFY(client->client.headers.isEmpty());
}

void TestFlatInterface::cacheStatisticsOfNewClient()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    const QString fresh = text(R"({"cacheBytesServed":0,"diskBytes":0,"diskHits":0,"evictions":0,"memoryBytes":0,)"
                               R"("memoryHits":0,"misses":0,"networkBytes":0,"networkRequests":0,"writes":0})");
    QCOMPARE(NorvaneCloud_CacheStatisticsJson(client, nullptr, 0), fresh.size());
    const TextResult result
        = callText([&](char16_t *b, int32_t c) { return NorvaneCloud_CacheStatisticsJson(client, b, c); });
    QCOMPARE(result.text, fresh);
}

void TestFlatInterface::clearCacheEmptiesBothTiers()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    const QUrl url = server->url(QStringLiteral("/tiff/geotiff-strip-51px-ifd-at-8.tif"));
    const TextResult probe = callText([&](char16_t *b, int32_t c) {
        return NorvaneCloud_CogProbeJson(client, utf16(url.toString()).c_str(), nullptr, b, c);
    });
    QVERIFY2(probe.length > 0, qPrintable(probe.error));

    const auto statistics = [&] {
        return callText([&](char16_t *b, int32_t c) {
            return NorvaneCloud_CacheStatisticsJson(client, b, c);
        }).object();
    };
    const QJsonObject filled = statistics();
    QCOMPARE(filled.value(QLatin1String("networkRequests")).toInteger(), 1);
    QVERIFY(filled.value(QLatin1String("memoryBytes")).toInteger() > 0);
    QVERIFY(filled.value(QLatin1String("diskBytes")).toInteger() > 0);

    QCOMPARE(NorvaneCloud_ClearCache(client), 1);
    const QJsonObject cleared = statistics();
    QCOMPARE(cleared.value(QLatin1String("memoryBytes")).toInteger(), 0);
    QCOMPARE(cleared.value(QLatin1String("diskBytes")).toInteger(), 0);
    QCOMPARE(cleared.value(QLatin1String("networkRequests")).toInteger(), 1);

    // The next probe finds nothing cached and goes to the network again.
    const TextResult again = callText([&](char16_t *b, int32_t c) {
        return NorvaneCloud_CogProbeJson(client, utf16(url.toString()).c_str(), nullptr, b, c);
    });
    QCOMPARE(again.text, probe.text);
    QCOMPARE(statistics().value(QLatin1String("networkRequests")).toInteger(), 2);
}

void TestFlatInterface::gdalPaths_data()
{
    QTest::addColumn<int>("source");
    QTest::addColumn<QString>("url");
    QTest::addColumn<bool>("nullUrl");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QString>("error");

    enum { Cog, GeoParquet, PmTiles };
    const QString cogRefused = QStringLiteral("COG URL must use HTTP or HTTPS");
    const QString objectRefused = QStringLiteral("Cloud object URL must use HTTP or HTTPS");
    QTest::newRow("COG https") << int(Cog) << QStringLiteral("https://h.example/a b/\u00e9.tif") << false
                               << QStringLiteral("/vsicurl/https://h.example/a%20b/%C3%A9.tif") << QString();
    QTest::newRow("COG null") << int(Cog) << QString() << true << QString() << cogRefused;
    QTest::newRow("COG ftp") << int(Cog) << QStringLiteral("ftp://h/a.tif") << false << QString() << cogRefused;
    QTest::newRow("GeoParquet http") << int(GeoParquet) << QStringLiteral("http://h/p.parquet?x=1") << false
                                     << QStringLiteral("/vsicurl/http://h/p.parquet?x=1") << QString();
    QTest::newRow("GeoParquet null") << int(GeoParquet) << QString() << true << QString() << objectRefused;
    QTest::newRow("GeoParquet local path")
        << int(GeoParquet) << QStringLiteral("/data/p.parquet") << false << QString() << objectRefused;
    QTest::newRow("PMTiles https") << int(PmTiles) << QStringLiteral("HTTPS://h/t.pmtiles") << false
                                   << QStringLiteral("/vsicurl/https://h/t.pmtiles") << QString();
    QTest::newRow("PMTiles null") << int(PmTiles) << QString() << true << QString() << objectRefused;
    QTest::newRow("PMTiles local path") << int(PmTiles)
                                        << dataFile(QStringLiteral("pmtiles/test-fixture-1-mvt-z0.pmtiles")) << false
                                        << QString() << objectRefused;
}

void TestFlatInterface::gdalPaths()
{
    QFETCH(int, source);
    QFETCH(QString, url);
    QFETCH(bool, nullUrl);
    QFETCH(QString, expected);
    QFETCH(QString, error);

    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    const std::u16string argument = utf16(url);
    const char16_t *urlText = nullUrl ? nullptr : argument.c_str();
    const TextResult result = callText([&](char16_t *b, int32_t c) {
        switch (source) {
        case 0:
            return NorvaneCloud_CogGdalVirtualPath(client, urlText, b, c);
        case 1:
            return NorvaneCloud_GeoParquetGdalVirtualPath(client, urlText, b, c);
        default:
            return NorvaneCloud_PmTilesGdalVirtualPath(client, urlText, b, c);
        }
    });
    QCOMPARE(result.text, expected);
    QCOMPARE(result.error, error);
    QCOMPARE(result.length, error.isEmpty() ? expected.size() : -1);
}

void TestFlatInterface::cogProbeDocuments_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("byteOrder");
    QTest::addColumn<bool>("bigTiff");
    QTest::addColumn<qint64>("firstIfdOffset");
    QTest::addColumn<bool>("cloudReadable");

    QTest::newRow("BigTIFF COG") << QStringLiteral("/tiff/bigtiff-cog-le-ifd-at-16.tiff") << QStringLiteral("II")
                                 << true << qint64(16) << true;
    QTest::newRow("big-endian TIFF") << QStringLiteral("/tiff/bigendian-mm-zstd-ifd-at-8.tiff") << QStringLiteral("MM")
                                     << false << qint64(8) << true;
    QTest::newRow("not a TIFF") << QStringLiteral("/pmtiles/test-fixture-1-mvt-z0.pmtiles") << QString() << false
                                << qint64(-1) << false;
}

void TestFlatInterface::cogProbeDocuments()
{
    QFETCH(QString, path);
    QFETCH(QString, byteOrder);
    QFETCH(bool, bigTiff);
    QFETCH(qint64, firstIfdOffset);
    QFETCH(bool, cloudReadable);

    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    const QUrl url = server->url(path);
    const TextResult result = callText([&](char16_t *b, int32_t c) {
        return NorvaneCloud_CogProbeJson(client, utf16(url.toString()).c_str(), nullptr, b, c);
    });
    QVERIFY2(result.length > 0, qPrintable(result.error));
    const QJsonObject document = result.object();
    QCOMPARE(document.keys(),
        QStringList({ "acceptsRanges", "bigTiff", "byteOrder", "cloudReadable", "contentLength", "contentType",
            "diagnostic", "etag", "firstIfdNearStart", "firstIfdOffset", "tiffHeaderValid", "url" }));
    QCOMPARE(document.value(QLatin1String("url")).toString(), url.toString(QUrl::FullyEncoded));
    QCOMPARE(document.value(QLatin1String("contentLength")).toInteger(), fileBytes(path.mid(1)).size());
    QCOMPARE(document.value(QLatin1String("byteOrder")).toString(), byteOrder);
    QCOMPARE(document.value(QLatin1String("bigTiff")).toBool(), bigTiff);
    QCOMPARE(document.value(QLatin1String("firstIfdOffset")).toInteger(), firstIfdOffset);
    QCOMPARE(document.value(QLatin1String("cloudReadable")).toBool(), cloudReadable);
    QCOMPARE(document.value(QLatin1String("acceptsRanges")).toBool(), true);
    QVERIFY(!document.value(QLatin1String("diagnostic")).toString().isEmpty());
}

void TestFlatInterface::cogProbeOfUnknownLength()
{
    const QByteArray bytes = fileBytes(QStringLiteral("tiff/geotiff-strip-51px-ifd-at-8.tif"));
    server->serveBytes(QStringLiteral("/unsized.tif"), bytes);
    RouteBehaviour unsized;
    unsized.omitContentLength = true;
    server->setBehaviour(QStringLiteral("/unsized.tif"), unsized);

    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    const TextResult result = callText([&](char16_t *b, int32_t c) {
        return NorvaneCloud_CogProbeJson(
            client, utf16(server->url(QStringLiteral("/unsized.tif")).toString()).c_str(), nullptr, b, c);
    });
    QVERIFY2(result.length > 0, qPrintable(result.error));
    QCOMPARE(result.object().value(QLatin1String("contentLength")).toInteger(), -1);
    QCOMPARE(result.object().value(QLatin1String("byteOrder")).toString(), QStringLiteral("II"));
}

void TestFlatInterface::perCallHeadersApplyToOneCallOnly()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"{\"Authorization\":\"client\",\"X-Trace\":\"1\"}"), 1);
    const std::u16string url = utf16(server->url(QStringLiteral("/tiff/geotiff-strip-51px-ifd-at-8.tif")).toString());

    const auto probe = [&](const char16_t *headers) {
        return callText(
            [&](char16_t *b, int32_t c) { return NorvaneCloud_CogProbeJson(client, url.c_str(), headers, b, c); });
    };
    QVERIFY(probe(u"{\"Authorization\":\"call\",\"X-Call\":\"2\"}").length > 0);
    QVERIFY(probe(nullptr).length > 0);

    const QList<LoopbackRequest> requests = server->requests();
    QList<LoopbackRequest> heads;
    for (const LoopbackRequest &request : requests) {
        if (request.method == "HEAD")
            heads.append(request);
    }
    // Two calls, each asked twice (size, then text): four inspections.
    QCOMPARE(heads.size(), 4);
    for (int call = 0; call < 2; ++call) {
        const LoopbackRequest &withPerCall = heads.at(call);
        QCOMPARE(withPerCall.header("Authorization"), QByteArray("call"));
        QCOMPARE(withPerCall.header("X-Trace"), QByteArray("1"));
        QCOMPARE(withPerCall.header("X-Call"), QByteArray("2"));
        const LoopbackRequest &withDefaults = heads.at(2 + call);
        QCOMPARE(withDefaults.header("Authorization"), QByteArray("client"));
        QCOMPARE(withDefaults.header("X-Trace"), QByteArray("1"));
        QVERIFY(!withDefaults.hasHeader("X-Call"));
    }
    const QHash<QByteArray, QByteArray> defaults { { "Authorization", "client" }, { "X-Trace", "1" } };
    QCOMPARE(client->client.headers, defaults);
}

void TestFlatInterface::malformedPerCallHeadersSendNothing_data()
{
    QTest::addColumn<int>("probe");
    QTest::newRow("COG") << 0;
    QTest::newRow("GeoParquet") << 1;
    QTest::newRow("PMTiles inspect") << 2;
    QTest::newRow("PMTiles probe") << 3;
}

void TestFlatInterface::malformedPerCallHeadersSendNothing()
{
    QFETCH(int, probe);
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    const std::u16string url = utf16(server->url(QStringLiteral("/tiff/geotiff-strip-51px-ifd-at-8.tif")).toString());
    std::vector<char16_t> buffer(16, untouched);
    const char16_t *headers = u"[{\"Authorization\":\"x\"}]";
    int32_t answer = 0;
    switch (probe) {
    case 0:
        answer = NorvaneCloud_CogProbeJson(client, url.c_str(), headers, buffer.data(), 16);
        break;
    case 1:
        answer = NorvaneCloud_GeoParquetProbeJson(client, url.c_str(), headers, buffer.data(), 16);
        break;
    case 2:
        answer = NorvaneCloud_PmTilesInspectJson(client, url.c_str(), headers, buffer.data(), 16);
        break;
    default:
        answer = NorvaneCloud_PmTilesProbeJson(client, url.c_str(), headers, buffer.data(), 16);
    }
    QCOMPARE(answer, -1);
    QCOMPARE(lastErrorText(), QStringLiteral("Cloud headers must be a JSON object"));
    QCOMPARE(buffer[0], untouched);
    QCOMPARE(server->requestCount(), 0);
}

void TestFlatInterface::probeNetworkFailureLeavesBufferUntouched()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    QCOMPARE(NorvaneCloud_SetTimeout(client, 20000), 1);
    const QString url = QStringLiteral("http://127.0.0.1:%1/a.tif").arg(LoopbackHttpServer::unusedPort());
    std::vector<char16_t> buffer(64, untouched);
    QCOMPARE(NorvaneCloud_CogProbeJson(client, utf16(url).c_str(), nullptr, buffer.data(), 64), -1);
    QVERIFY2(lastErrorText().startsWith(QStringLiteral("HTTP request failed (0): ")), qPrintable(lastErrorText()));
    QVERIFY(std::all_of(buffer.begin(), buffer.end(), [](char16_t unit) { return unit == untouched; }));
    QCOMPARE(client->client.timeoutMilliseconds, 20000);
}

void TestFlatInterface::geoParquetProbe()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    const QUrl url = server->url(QStringLiteral("/parquet/geoparquet-point-wkb.parquet"));
    const TextResult result = callText([&](char16_t *b, int32_t c) {
        return NorvaneCloud_GeoParquetProbeJson(client, utf16(url.toString()).c_str(), u"{}", b, c);
    });
    QVERIFY2(result.length > 0, qPrintable(result.error));
    const QJsonObject document = result.object();
    QCOMPARE(document.keys(),
        QStringList({ "acceptsRanges", "cloudReadable", "contentLength", "contentType", "diagnostic", "etag",
            "footerValid", "headerValid", "url" }));
    QCOMPARE(document.value(QLatin1String("contentLength")).toInteger(), 1361);
    QCOMPARE(document.value(QLatin1String("headerValid")).toBool(), true);
    QCOMPARE(document.value(QLatin1String("footerValid")).toBool(), true);
    QCOMPARE(document.value(QLatin1String("cloudReadable")).toBool(), true);
}

void TestFlatInterface::pmTilesLocalAndRemote()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    const QString local = dataFile(QStringLiteral("pmtiles/test-fixture-1-mvt-z0.pmtiles"));
    const TextResult inspected = callText([&](char16_t *b, int32_t c) {
        return NorvaneCloud_PmTilesInspectJson(client, utf16(local).c_str(), nullptr, b, c);
    });
    QVERIFY2(inspected.length > 0, qPrintable(inspected.error));
    QCOMPARE(inspected.object().value(QLatin1String("remote")).toBool(), false);
    QCOMPARE(inspected.object().value(QLatin1String("url")).toString(),
        QUrl::fromLocalFile(local).toString(QUrl::FullyEncoded));
    QCOMPARE(inspected.object().value(QLatin1String("specificationVersion")).toInt(), 3);
    QCOMPARE(inspected.object().keys().size(), 20);

    const std::u16string missing = utf16(dataFile(QStringLiteral("pmtiles/no-such-archive.pmtiles")));
    std::vector<char16_t> buffer(8, untouched);
    QCOMPARE(NorvaneCloud_PmTilesInspectJson(client, missing.c_str(), nullptr, buffer.data(), 8), -1);
    QCOMPARE(lastErrorText(), QStringLiteral("PMTiles local archive does not exist"));
    QCOMPARE(buffer[0], untouched);

    const QUrl url = server->url(QStringLiteral("/pmtiles/test-fixture-1-mvt-z0.pmtiles"));
    const TextResult probed = callText([&](char16_t *b, int32_t c) {
        return NorvaneCloud_PmTilesProbeJson(client, utf16(url.toString()).c_str(), nullptr, b, c);
    });
    QVERIFY2(probed.length > 0, qPrintable(probed.error));
    QCOMPARE(probed.object().value(QLatin1String("remote")).toBool(), true);
    QCOMPARE(probed.object().value(QLatin1String("url")).toString(), url.toString(QUrl::FullyEncoded));
    // The same archive, read locally and remotely, has the same header.
    for (const char *key : { "rootDirectoryOffset", "rootDirectoryLength", "tileDataOffset", "tileDataLength" })
        QCOMPARE(probed.object().value(QLatin1String(key)), inspected.object().value(QLatin1String(key)));
}

void TestFlatInterface::truncatedProbeRepeatsTheWork()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    const std::u16string url = utf16(server->url(QStringLiteral("/tiff/bigtiff-cog-le-ifd-at-16.tiff")).toString());
    std::vector<char16_t> small(5, untouched);
    const int32_t length = NorvaneCloud_CogProbeJson(client, url.c_str(), nullptr, small.data(), 5);
    QVERIFY(length > 5);
    QCOMPARE(QString::fromUtf16(small.data()), QStringLiteral("{\"ac"));

    std::vector<char16_t> whole(static_cast<size_t>(length) + 1);
    QCOMPARE(NorvaneCloud_CogProbeJson(client, url.c_str(), nullptr, whole.data(), length + 1), length);
    QVERIFY(QString::fromUtf16(whole.data()).startsWith(QStringLiteral("{\"acceptsRanges\":true,")));
    // Each call inspects the object again; the header range comes from the cache the second time.
    QCOMPARE(server->requestCount(), 3);
    QCOMPARE(client->client.cache->statistics().memoryHits, 1);
}

void TestFlatInterface::probesRunSideBySideWithHostApplication()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    // Held answers prove that both calls are inside their exchange at the same time.
    const QByteArray bytes = fileBytes(QStringLiteral("tiff/geotiff-strip-51px-ifd-at-8.tif"));
    RouteBehaviour held;
    held.stallBeforeHeaders = true;
    for (const QString &path : { QStringLiteral("/one.tif"), QStringLiteral("/two.tif") }) {
        server->serveBytes(path, bytes);
        server->setBehaviour(path, held);
    }
    int32_t answers[2] = { 0, 0 };
    std::thread first([&] {
        answers[0] = NorvaneCloud_CogProbeJson(
            client, utf16(server->url(QStringLiteral("/one.tif")).toString()).c_str(), nullptr, nullptr, 0);
    });
    std::thread second([&] {
        answers[1] = NorvaneCloud_CogProbeJson(
            client, utf16(server->url(QStringLiteral("/two.tif")).toString()).c_str(), nullptr, nullptr, 0);
    });
    const bool bothArrived = server->waitForRequests(2, 20000);
    for (const QString &path : { QStringLiteral("/one.tif"), QStringLiteral("/two.tif") })
        server->clearBehaviour(path);
    server->releaseStalledRequests();
    first.join();
    second.join();
    QVERIFY(bothArrived);
    QVERIFY(answers[0] > 0);
    QCOMPARE(answers[1], answers[0]);
}

void TestFlatInterface::stacSearch()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    const QByteArray page = fileBytes(QStringLiteral("stac/earth-search-v1-cop-dem-glo-30-page1-next-post-body.json"));
    serve(QStringLiteral("/v1/search"), page);
    const std::u16string catalog = utf16(server->url(QStringLiteral("/v1")).toString());

    const TextResult result = callText(
        [&](char16_t *b, int32_t c) { return NorvaneCloud_StacSearchJson(client, catalog.c_str(), nullptr, b, c); });
    QVERIFY2(result.length > 0, qPrintable(result.error));
    QVERIFY(result.text.startsWith(QStringLiteral("{\"items\":[")));
    const QJsonObject document = result.object();
    QCOMPARE(
        document.keys(), QStringList({ "items", "matched", "nextBody", "nextMethod", "nextPage", "raw", "returned" }));
    QCOMPARE(document.value(QLatin1String("items")).toArray().size(), 10);
    QCOMPARE(document.value(QLatin1String("matched")).toInteger(), 26450);
    QCOMPARE(document.value(QLatin1String("returned")).toInteger(), 10);
    QCOMPARE(document.value(QLatin1String("nextMethod")).toString(), QStringLiteral("POST"));
    QCOMPARE(document.value(QLatin1String("nextPage")).toString(),
        QStringLiteral("https://earth-search.aws.element84.com/v1/search"));
    QCOMPARE(document.value(QLatin1String("raw")).toObject(), QJsonDocument::fromJson(page).object());
    const QJsonObject item = document.value(QLatin1String("items")).toArray().first().toObject();
    QCOMPARE(
        item.keys(), QStringList({ "assets", "bbox", "collection", "geometry", "id", "links", "properties", "raw" }));

    // The default request: limit 100 and nothing else. The second call of callText was answered from the cache.
    QCOMPARE(server->requestCount(QStringLiteral("/v1/search")), 1);
    const LoopbackRequest sent = server->requests().first();
    QCOMPARE(sent.method, QByteArray("POST"));
    QCOMPARE(sent.body, QByteArray("{\"limit\":100}"));
}

void TestFlatInterface::stacOrderOfChecks_data()
{
    QTest::addColumn<bool>("nullCatalog");
    QTest::addColumn<QString>("request");
    QTest::addColumn<QString>("message");

    QTest::newRow("catalogue URL before request document")
        << true << QStringLiteral("[]") << QStringLiteral("STAC catalog URL is invalid");
    QTest::newRow("request document") << false << QStringLiteral("{\"limit\":1} {}")
                                      << QStringLiteral("STAC search request must be a JSON object");
    QTest::newRow("limit as string") << false << text(R"({"limit":"25"})")
                                     << QStringLiteral("STAC search limit must be positive");
    QTest::newRow("bbox of three") << false << text(R"({"bbox":[1,2,3]})")
                                   << QStringLiteral("STAC bbox must contain four or six coordinates");
}

void TestFlatInterface::stacOrderOfChecks()
{
    QFETCH(bool, nullCatalog);
    QFETCH(QString, request);
    QFETCH(QString, message);

    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    serve(
        QStringLiteral("/search"), fileBytes(QStringLiteral("stac/planetary-computer-search-ids-no-match-empty.json")));
    const std::u16string catalog = utf16(server->url(QStringLiteral("/")).toString());
    const std::u16string document = utf16(request);
    std::vector<char16_t> buffer(8, untouched);

    QCOMPARE(NorvaneCloud_StacSearchJson(
                 client, nullCatalog ? nullptr : catalog.c_str(), document.c_str(), buffer.data(), 8),
        -1);
    QCOMPARE(lastErrorText(), message);
    QCOMPARE(NorvaneCloud_StacResolveCogLayerJson(
                 client, nullCatalog ? nullptr : catalog.c_str(), document.c_str(), nullptr, 0, buffer.data(), 8),
        -1);
    QCOMPARE(lastErrorText(), message);
    QCOMPARE(buffer[0], untouched);
    QCOMPARE(server->requestCount(), 0);
}

void TestFlatInterface::stacItemIndexOutOfRange_data()
{
    QTest::addColumn<QString>("fixture");
    QTest::addColumn<int>("index");

    const QString full = QStringLiteral("stac/earth-search-v1-cop-dem-glo-30-page1-next-post-body.json");
    QTest::newRow("-1") << full << -1;
    QTest::newRow("past the end") << full << 10;
    QTest::newRow("largest index") << full << std::numeric_limits<int>::max();
    QTest::newRow("empty page") << QStringLiteral("stac/planetary-computer-search-ids-no-match-empty.json") << 0;
}

void TestFlatInterface::stacItemIndexOutOfRange()
{
    QFETCH(QString, fixture);
    QFETCH(int, index);

    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    serve(QStringLiteral("/search"), fileBytes(fixture));
    const std::u16string catalog = utf16(server->url(QStringLiteral("")).toString());
    QCOMPARE(
        NorvaneCloud_StacResolveCogLayerJson(client, catalog.c_str(), nullptr, u"no-such-asset", index, nullptr, 0),
        -1);
    QCOMPARE(lastErrorText(), QStringLiteral("STAC item index is out of range"));
}

void TestFlatInterface::stacResolveCogLayer()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"{\"Authorization\":\"Bearer t\"}"), 1);
    serve(QStringLiteral("/search"),
        fileBytes(QStringLiteral("stac/planetary-computer-naip-page1-next-post-token.json")));
    const std::u16string catalog = utf16(server->url(QStringLiteral("/")).toString());
    const char16_t *request = u"{\"collections\":[\"naip\"],\"limit\":10.0}";

    const TextResult layer = callText([&](char16_t *b, int32_t c) {
        return NorvaneCloud_StacResolveCogLayerJson(client, catalog.c_str(), request, nullptr, 3, b, c);
    });
    QVERIFY2(layer.length > 0, qPrintable(layer.error));
    const QJsonObject document = layer.object();
    QCOMPARE(document.keys(),
        QStringList({ "assetKey", "assetMetadata", "bbox", "collection", "gdalVirtualPath", "geometry", "itemId",
            "itemProperties", "mediaType", "requestHeaders", "roles", "sourceUrl", "title" }));
    QCOMPARE(document.value(QLatin1String("assetKey")).toString(), QStringLiteral("image"));
    QCOMPARE(document.value(QLatin1String("collection")).toString(), QStringLiteral("naip"));
    const QString source = document.value(QLatin1String("sourceUrl")).toString();
    QVERIFY(source.startsWith(QStringLiteral("https://")));
    QCOMPARE(document.value(QLatin1String("gdalVirtualPath")).toString(), QStringLiteral("/vsicurl/") + source);
    QCOMPARE(document.value(QLatin1String("requestHeaders")).toObject(),
        QJsonObject({ { QStringLiteral("Authorization"), QStringLiteral("Bearer t") } }));

    // The fourth item of the page, as the search document lists it.
    const TextResult search = callText(
        [&](char16_t *b, int32_t c) { return NorvaneCloud_StacSearchJson(client, catalog.c_str(), request, b, c); });
    const QJsonObject fourth = search.object().value(QLatin1String("items")).toArray().at(3).toObject();
    QCOMPARE(document.value(QLatin1String("itemId")), fourth.value(QLatin1String("id")));

    // An empty asset key and a null one pick the same asset.
    const TextResult named = callText([&](char16_t *b, int32_t c) {
        return NorvaneCloud_StacResolveCogLayerJson(client, catalog.c_str(), request, u"", 3, b, c);
    });
    QCOMPARE(named.text, layer.text);
    // Every call searched with the client's headers and one body; the cache answered all but the first.
    QCOMPARE(server->requestCount(QStringLiteral("/search")), 1);
    QCOMPARE(server->requests().first().header("Authorization"), QByteArray("Bearer t"));
    QCOMPARE(server->requests().first().body, QByteArray("{\"collections\":[\"naip\"],\"limit\":10}"));
}

void TestFlatInterface::stacRelativeAssetHrefs()
{
    NorvaneCloudClient *client = createClient();
    QVERIFY(client);
    const QJsonObject item
        = QJsonDocument::fromJson(fileBytes(QStringLiteral("stac/usgs-landsat-c2-l2-item-relative-asset-hrefs.json")))
              .object();
    QJsonObject page;
    page.insert(QLatin1String("type"), QStringLiteral("FeatureCollection"));
    page.insert(QLatin1String("features"), QJsonArray { item });
    serve(QStringLiteral("/catalog/search"), QJsonDocument(page).toJson());
    const std::u16string catalog = utf16(server->url(QStringLiteral("/catalog")).toString());

    const TextResult result = callText(
        [&](char16_t *b, int32_t c) { return NorvaneCloud_StacSearchJson(client, catalog.c_str(), nullptr, b, c); });
    QVERIFY2(result.length > 0, qPrintable(result.error));
    const QJsonObject assets = result.object()
                                   .value(QLatin1String("items"))
                                   .toArray()
                                   .first()
                                   .toObject()
                                   .value(QLatin1String("assets"))
                                   .toObject();
    const QJsonObject rawAssets = item.value(QLatin1String("assets")).toObject();
    QVERIFY(!assets.isEmpty());
    QCOMPARE(assets.keys(), rawAssets.keys());
    for (const QString &key : assets.keys()) {
        const QJsonObject asset = assets.value(key).toObject();
        const QJsonObject raw = rawAssets.value(key).toObject();
        const QUrl expected = server->url(QStringLiteral("/catalog/search"))
                                  .resolved(QUrl(raw.value(QLatin1String("href")).toString()));
        QCOMPARE(asset.value(QLatin1String("href")).toString(), expected.toString(QUrl::FullyEncoded));
        QCOMPARE(asset.value(QLatin1String("type")), raw.value(QLatin1String("type")));
        QCOMPARE(asset.value(QLatin1String("mediaType")).toString(), raw.value(QLatin1String("type")).toString());
    }
}

QTEST_GUILESS_MAIN(TestFlatInterface)
#include "tst_flatinterface.moc"
