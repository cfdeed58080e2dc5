// The flat functions called from a host that owns a Qt application object: the frame's edge cases (buffers,
// order of checks, failures before any request, a client left unchanged by a failure) and the calls whose
// requests the loopback server has to see. What a C host sees of every function is the C host's part.

#include "flat/flatframe.h"
#include "loopbackhttpserver.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <limits>
#include <stdexcept>
#include <thread>

using namespace Norvane::Cloud;
using Norvane::Cloud::Testing::LoopbackHttpServer;
using Norvane::Cloud::Testing::LoopbackRequest;
using Norvane::Cloud::Testing::LoopbackResponse;
using Norvane::Cloud::Testing::RouteBehaviour;

// A flat call given the test's client, a URL of the test server and an output buffer.
using FlatCall = std::function<int32_t(NorvaneCloudClient *, const char16_t *, char16_t *, int32_t)>;
Q_DECLARE_METATYPE(FlatCall)

namespace {

constexpr char16_t untouched = u'\xaaaa';

std::u16string utf16(const QString &text)
{
    return std::u16string(reinterpret_cast<const char16_t *>(text.utf16()), static_cast<size_t>(text.size()));
}

QString lastErrorText()
{
    std::vector<char16_t> buffer(static_cast<size_t>(NorvaneCloud_LastError(nullptr, 0)) + 1);
    return QString::fromUtf16(buffer.data(), NorvaneCloud_LastError(buffer.data(), int32_t(buffer.size())));
}

// A size query with a null buffer, then the call with a buffer that fits: the text, or null after a failure.
QString callText(const std::function<int32_t(char16_t *, int32_t)> &call)
{
    const int32_t length = call(nullptr, 0);
    if (length < 0)
        return QString();
    std::vector<char16_t> buffer(static_cast<size_t>(length) + 1);
    return call(buffer.data(), length + 1) == length ? QString::fromUtf16(buffer.data(), length) : QString();
}

QJsonObject objectOf(const QString &text)
{
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

QByteArray fileBytes(const QString &relative)
{
    QFile file(QStringLiteral(NORVANE_TEST_DATA_DIR "/") + relative);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool untouchedFrom(const std::vector<char16_t> &buffer, size_t first)
{
    return std::all_of(buffer.begin() + first, buffer.end(), [](char16_t unit) { return unit == untouched; });
}

} // namespace

class TestFlatInterface : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void copyResultText_data();
    void copyResultText();
    void framesTurnExceptionsIntoResults();
    void guardUsesTheHostApplicationWithoutLock();
    void createClientHandsOptionsToTheCache();
    void failuresBeforeAnyRequest_data();
    void failuresBeforeAnyRequest();
    void setTimeout_data();
    void setTimeout();
    void setHeadersReplacesWholeSet();

    void truncatedProbeRepeatsTheWork();
    void probesRunSideBySideWithHostApplication();
    void stacCallsSearchWithTheClientsHeaders();

private:
    std::u16string serveCatalogue(const QString &fixture);

    std::unique_ptr<QTemporaryDir> cacheFolder;
    std::unique_ptr<LoopbackHttpServer> server;
    NorvaneCloudClient *client = nullptr;
};

// A catalogue whose search answers the fixture; returns its URL.
std::u16string TestFlatInterface::serveCatalogue(const QString &fixture)
{
    const QByteArray page = fileBytes(fixture);
    server->setHandler(QStringLiteral("/v1/search"), [page](const LoopbackRequest &) {
        LoopbackResponse response;
        response.headers = { { "Content-Type", "application/geo+json" } };
        response.body = page;
        return response;
    });
    return utf16(server->url(QStringLiteral("/v1")).toString());
}

void TestFlatInterface::init()
{
    cacheFolder = std::make_unique<QTemporaryDir>();
    QVERIFY(cacheFolder->isValid());
    server = std::make_unique<LoopbackHttpServer>();
    QVERIFY2(server->start(), qPrintable(server->errorString()));
    server->serveDirectory(QStringLiteral(NORVANE_TEST_DATA_DIR));
    client
        = NorvaneCloud_CreateClient(utf16(QStringLiteral("{\"directory\":\"%1\"}").arg(cacheFolder->path())).c_str());
    QVERIFY(client);
}

void TestFlatInterface::cleanup()
{
    NorvaneCloud_DestroyClient(client);
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
    QTest::newRow("exact fit") << twelve << false << 13 << twelve;
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
        QVERIFY(untouchedFrom(buffer, 0));
        return;
    }
    QCOMPARE(QString::fromUtf16(buffer.data(), written.size()), written);
    QCOMPARE(buffer[written.size()], u'\0');
    QVERIFY(untouchedFrom(buffer, written.size() + 1));
}

void TestFlatInterface::framesTurnExceptionsIntoResults()
{
    std::vector<char16_t> buffer(32, untouched);
    const auto fails = []() -> QString { throw std::runtime_error("Disk on fire: \xc3\xa9"); };
    QCOMPARE(callReturningText(buffer.data(), 32, fails), -1);
    QVERIFY(untouchedFrom(buffer, 0));
    QCOMPARE(lastErrorText(), QStringLiteral("Disk on fire: \u00e9"));

    QCOMPARE(callReturningFlag([] { throw std::invalid_argument("bad"); }), 0);
    QCOMPARE(lastErrorText(), QStringLiteral("bad"));
    QCOMPARE(callReturningFlag([] {}), 1);
    QCOMPARE(lastErrorText(), QString());
}

void TestFlatInterface::guardUsesTheHostApplicationWithoutLock()
{
    QCoreApplication *host = QCoreApplication::instance();
    const ApplicationGuard guard;
    QVERIFY(!guard.ownsApplication());
    QVERIFY(!guard.holdsMutex());
    QCOMPARE(QCoreApplication::instance(), host);
}

void TestFlatInterface::createClientHandsOptionsToTheCache()
{
    const QString options = QStringLiteral("{\"directory\":\"%1\",\"maximumDiskBytes\":5e9}").arg(cacheFolder->path());
    NorvaneCloudClient *other = NorvaneCloud_CreateClient(utf16(options).c_str());
    QVERIFY2(other, qPrintable(lastErrorText()));
    QCOMPARE(other->client.cache->options().directory, cacheFolder->path());
    QCOMPARE(other->client.cache->options().maximumDiskBytes, 5000000000);
    NorvaneCloud_DestroyClient(other);
    // A failure of the cache itself is passed on.
    QVERIFY(NorvaneCloud_CreateClient(u"{\"maximumMemoryBytes\":-1}") == nullptr);
    QCOMPARE(lastErrorText(), QStringLiteral("Cloud cache limits cannot be negative"));
}

void TestFlatInterface::failuresBeforeAnyRequest_data()
{
    QTest::addColumn<FlatCall>("call");
    QTest::addColumn<bool>("nullHandle");
    QTest::addColumn<QString>("message");

    // With a null handle the other arguments are wrong as well: the handle is checked first.
    const QString nullClient = QStringLiteral("Cloud client is null");
    QTest::newRow("CacheStatisticsJson") << FlatCall([](auto client, auto, auto buffer, auto capacity) {
        return NorvaneCloud_CacheStatisticsJson(client, buffer, capacity);
    }) << true << nullClient;
    QTest::newRow("CogGdalVirtualPath") << FlatCall([](auto client, auto, auto buffer, auto capacity) {
        return NorvaneCloud_CogGdalVirtualPath(client, nullptr, buffer, capacity);
    }) << true << nullClient;
    // Malformed per-call headers fail before the probe sends anything.
    using ProbeCall = int32_t (*)(NorvaneCloudClient *, const char16_t *, const char16_t *, char16_t *, int32_t);
    const std::pair<const char *, ProbeCall> probes[]
        = { { "CogProbeJson", NorvaneCloud_CogProbeJson }, { "GeoParquetProbeJson", NorvaneCloud_GeoParquetProbeJson },
              { "PmTilesInspectJson", NorvaneCloud_PmTilesInspectJson },
              { "PmTilesProbeJson", NorvaneCloud_PmTilesProbeJson } };
    for (const auto &[name, probe] : probes) {
        const FlatCall call = [function = probe](auto client, auto url, auto buffer, auto capacity) {
            return function(client, url, u"[{\"Authorization\":\"x\"}]", buffer, capacity);
        };
        QTest::addRow("%s, null handle", name) << call << true << nullClient;
        QTest::addRow("%s, headers an array", name)
            << call << false << QStringLiteral("Cloud headers must be a JSON object");
    }
    // The STAC functions check the handle, the catalogue URL, then the request document.
    const FlatCall search = [](auto client, auto, auto buffer, auto capacity) {
        return NorvaneCloud_StacSearchJson(client, nullptr, u"[]", buffer, capacity);
    };
    const FlatCall resolve = [](auto client, auto, auto buffer, auto capacity) {
        return NorvaneCloud_StacResolveCogLayerJson(client, nullptr, u"[]", nullptr, -1, buffer, capacity);
    };
    const QString catalogueInvalid = QStringLiteral("STAC catalog URL is invalid");
    QTest::newRow("StacSearchJson, null handle") << search << true << nullClient;
    QTest::newRow("StacSearchJson, null catalogue") << search << false << catalogueInvalid;
    QTest::newRow("StacResolveCogLayerJson, null handle") << resolve << true << nullClient;
    QTest::newRow("StacResolveCogLayerJson, null catalogue") << resolve << false << catalogueInvalid;
    QTest::newRow("StacSearchJson, text after the request") << FlatCall(
        [](auto client, auto url, auto buffer, auto capacity) {
            return NorvaneCloud_StacSearchJson(client, url, u"{\"limit\":1} {}", buffer, capacity);
        }) << false << QStringLiteral("STAC search request must be a JSON object");
    // A message ending in ": " goes on with the transport's own words.
    QTest::newRow("unreachable server") << FlatCall([](auto client, auto, auto buffer, auto capacity) {
        const QString url = QStringLiteral("http://127.0.0.1:%1/a.tif").arg(LoopbackHttpServer::unusedPort());
        return NorvaneCloud_CogProbeJson(client, utf16(url).c_str(), nullptr, buffer, capacity);
    }) << false << QStringLiteral("HTTP request failed (0): ");
}

void TestFlatInterface::failuresBeforeAnyRequest()
{
    QFETCH(FlatCall, call);
    QFETCH(bool, nullHandle);
    QFETCH(QString, message);

    const std::u16string url = serveCatalogue(QStringLiteral("stac/planetary-computer-search-ids-no-match-empty.json"));
    std::vector<char16_t> buffer(64, untouched);
    QCOMPARE(call(nullHandle ? nullptr : client, url.c_str(), buffer.data(), 64), -1);
    const QString error = lastErrorText();
    QVERIFY2(message.endsWith(QLatin1String(": ")) ? error.startsWith(message) : error == message, qPrintable(error));
    QVERIFY(untouchedFrom(buffer, 0));
    QCOMPARE(server->requestCount(), 0);
}

void TestFlatInterface::setTimeout_data()
{
    QTest::addColumn<int>("milliseconds");
    QTest::addColumn<int>("answer");
    QTest::addColumn<int>("held");

    QTest::newRow("positive") << 1234 << 1 << 1234;
    QTest::newRow("zero") << 0 << 0 << 5000;
    QTest::newRow("smallest") << std::numeric_limits<int>::min() << 0 << 5000;
}

// A refused time-out leaves the client's everywhere as it was.
void TestFlatInterface::setTimeout()
{
    QFETCH(int, milliseconds);
    QFETCH(int, answer);
    QFETCH(int, held);

    QCOMPARE(NorvaneCloud_SetTimeout(client, 5000), 1);
    QCOMPARE(NorvaneCloud_SetTimeout(client, milliseconds), answer);
    QCOMPARE(lastErrorText(), answer ? QString() : QStringLiteral("HTTP timeout must be positive"));
    QCOMPARE(client->client.timeoutMilliseconds, held);
    QCOMPARE(client->client.cog.rangeReader().timeoutMilliseconds(), held);
    QCOMPARE(client->client.geoParquet.rangeReader().timeoutMilliseconds(), held);
    QCOMPARE(client->client.pmTiles.rangeReader().timeoutMilliseconds(), held);
}

void TestFlatInterface::setHeadersReplacesWholeSet()
{
    QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"{\"Authorization\":\"a\",\"X-One\":\"1\"}"), 1);
    QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"{\"X-Two\":2}"), 1);
    const QHash<QByteArray, QByteArray> two { { "X-Two", "" } };
    QCOMPARE(client->client.headers, two);

    QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"{\"X-Three\":\"3\"} trailing"), 0);
    QCOMPARE(client->client.headers, two);
    QCOMPARE(NorvaneCloud_SetHeadersJson(client, nullptr), 1);
    QVERIFY(client->client.headers.isEmpty());
}

void TestFlatInterface::truncatedProbeRepeatsTheWork()
{
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
    // Held answers prove that both calls are inside their exchange at the same time.
    const QByteArray bytes = fileBytes(QStringLiteral("tiff/geotiff-strip-51px-ifd-at-8.tif"));
    const QString paths[] = { QStringLiteral("/one.tif"), QStringLiteral("/two.tif") };
    RouteBehaviour held;
    held.stallBeforeHeaders = true;
    int32_t answers[2] = { 0, 0 };
    std::thread threads[2];
    for (int index = 0; index < 2; ++index) {
        server->serveBytes(paths[index], bytes);
        server->setBehaviour(paths[index], held);
        threads[index] = std::thread([&, index, url = utf16(server->url(paths[index]).toString())] {
            answers[index] = NorvaneCloud_CogProbeJson(client, url.c_str(), nullptr, nullptr, 0);
        });
    }
    const bool bothArrived = server->waitForRequests(2, 20000);
    for (const QString &path : paths)
        server->clearBehaviour(path);
    server->releaseStalledRequests();
    for (std::thread &thread : threads)
        thread.join();
    QVERIFY(bothArrived);
    QVERIFY(answers[0] > 0);
    QCOMPARE(answers[1], answers[0]);
}

// Each STAC call builds its own STAC client with the client's headers; repeated searches come from the cache.
void TestFlatInterface::stacCallsSearchWithTheClientsHeaders()
{
    QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"{\"Authorization\":\"Bearer t\"}"), 1);
    const std::u16string catalogue
        = serveCatalogue(QStringLiteral("stac/planetary-computer-naip-page1-next-post-token.json"));
    const QString page = callText([&](char16_t *buffer, int32_t capacity) {
        return NorvaneCloud_StacSearchJson(client, catalogue.c_str(), nullptr, buffer, capacity);
    });
    QCOMPARE(objectOf(page).value(QLatin1String("items")).toArray().size(), 10);

    const auto resolve = [&](const char16_t *assetKey) {
        return callText([&](char16_t *buffer, int32_t capacity) {
            return NorvaneCloud_StacResolveCogLayerJson(client, catalogue.c_str(),
                u"{\"collections\":[\"naip\"],\"limit\":10.0}", assetKey, 3, buffer, capacity);
        });
    };
    const QString layer = resolve(nullptr);
    QVERIFY2(!layer.isNull(), qPrintable(lastErrorText()));
    const QJsonObject document = objectOf(layer);
    QCOMPARE(document.value(QLatin1String("assetKey")).toString(), QStringLiteral("image"));
    const QString source = document.value(QLatin1String("sourceUrl")).toString();
    QCOMPARE(document.value(QLatin1String("gdalVirtualPath")).toString(), QStringLiteral("/vsicurl/") + source);
    QCOMPARE(document.value(QLatin1String("requestHeaders")).toObject(),
        QJsonObject({ { QStringLiteral("Authorization"), QStringLiteral("Bearer t") } }));
    QCOMPARE(resolve(u""), layer);

    // A null request is limit 100 and nothing else.
    const QList<LoopbackRequest> requests = server->requests();
    QCOMPARE(requests.size(), 2);
    QCOMPARE(requests.at(0).body, QByteArray("{\"limit\":100}"));
    QCOMPARE(requests.at(1).body, QByteArray("{\"collections\":[\"naip\"],\"limit\":10}"));
    QCOMPARE(requests.at(1).header("Authorization"), QByteArray("Bearer t"));
}

QTEST_GUILESS_MAIN(TestFlatInterface)
#include "tst_flatinterface.moc"
