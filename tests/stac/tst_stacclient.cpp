// The STAC client against a loopback server that answers with recorded STAC API pages: searching, following
// pages by POST and by GET, what goes on the wire, caching of answers and the failures of the exchange.

#include <norvanecloud/stac.h>

#include <loopbackhttpserver.h>

#include <QFile>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

#include <stdexcept>

using namespace Norvane::Cloud;
using Norvane::Cloud::Testing::LoopbackHttpServer;
using Norvane::Cloud::Testing::LoopbackRequest;
using Norvane::Cloud::Testing::LoopbackResponse;
using Norvane::Cloud::Testing::RouteBehaviour;

namespace {

QByteArray readStacFixture(const QString &name)
{
    QFile file(QStringLiteral(NORVANE_TEST_DATA_DIR "/stac/") + name);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot open fixture %s", qPrintable(name));
    return file.readAll();
}

LoopbackResponse jsonAnswer(const QByteArray &body, int status = 200)
{
    LoopbackResponse response;
    response.status = status;
    response.headers.append({ QByteArrayLiteral("Content-Type"), QByteArrayLiteral("application/geo+json") });
    response.body = body;
    return response;
}

QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

template <typename Exception, typename Operation> QString failureOf(Operation operation)
{
    try {
        operation();
    } catch (const Exception &error) {
        return QString::fromUtf8(error.what());
    }
    return QStringLiteral("(no exception)");
}

const QByteArray recordedApiRoot("https://planetarycomputer.microsoft.com/api/stac/v1");
const QByteArray naipPage2Token("next:naip:mt_m_4811501_se_11_060_20231117_20240103");
const QByteArray naipPage3Token("next:naip:mt_m_4511355_sw_12_060_20231117_20240103");

} // namespace

class TestStacClient : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase();

    void searchPostsTheBodyToTheSearchPath();
    void followsEveryPageByPost();
    void followsEveryPageByGet();
    void redirectsAreFollowed();
    void configuredHeadersOverrideTheFixedOnes_data();
    void configuredHeadersOverrideTheFixedOnes();
    void repeatedRequestsComeFromTheCache();
    void methodsAreCachedApart();
    void failedExchangeStoresNothing();
    void answerThatIsNotJsonIsStoredAndFailsAgain();
    void stallEndsInTimeOut();
    void unreachableServerReportsStatusZero();
    void refusalsComeBeforeAnyRequest_data();
    void refusalsComeBeforeAnyRequest();
    void settings();

private:
    StacSearchRequest naipSearch() const;
    std::unique_ptr<StacClient> makeClient(const QString &catalogPath = QStringLiteral("/v1")) const;

    LoopbackHttpServer server;
    QByteArray naipPage1;
    QByteArray naipPage2;
    QByteArray emptyPage;
    QByteArray asterPage1;
    std::unique_ptr<QTemporaryDir> cacheFolder;
    std::shared_ptr<CloudRangeCache> cache;
};

void TestStacClient::initTestCase()
{
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    // The recorded pages point their next links at the real API; point them at this server instead.
    const QByteArray apiRoot = server.url(QStringLiteral("/v1")).toEncoded();
    naipPage1 = readStacFixture(QStringLiteral("planetary-computer-naip-page1-next-post-token.json"))
                    .replace(recordedApiRoot, apiRoot);
    naipPage2 = readStacFixture(QStringLiteral("planetary-computer-naip-page2-next-and-previous-post-token.json"))
                    .replace(recordedApiRoot, apiRoot);
    emptyPage = readStacFixture(QStringLiteral("planetary-computer-search-ids-no-match-empty.json"))
                    .replace(recordedApiRoot, apiRoot);
    asterPage1 = readStacFixture(QStringLiteral("planetary-computer-aster-l1t-items-page1-next-get-token.json"))
                     .replace(recordedApiRoot, apiRoot);
}

void TestStacClient::init()
{
    // The search endpoint pages by the token in the POST body, as the recorded API did.
    const QByteArray page1 = naipPage1, page2 = naipPage2, last = emptyPage;
    server.setHandler(QStringLiteral("/v1/search"), [page1, page2, last](const LoopbackRequest &request) {
        const QByteArray token
            = QJsonDocument::fromJson(request.body).object().value(QLatin1String("token")).toString().toUtf8();
        if (token.isEmpty())
            return jsonAnswer(page1);
        if (token == naipPage2Token)
            return jsonAnswer(page2);
        if (token == naipPage3Token)
            return jsonAnswer(last);
        return jsonAnswer(R"({"code":"BadRequest"})", 400);
    });
    // The items endpoint pages by a token in the query of a GET.
    const QByteArray aster = asterPage1;
    server.setHandler(QStringLiteral("/v1/collections/aster-l1t/items"), [aster, last](const LoopbackRequest &request) {
        return jsonAnswer(request.query.contains(QLatin1String("token=")) ? last : aster);
    });
    server.clearBehaviour(QStringLiteral("/v1/search"));
    server.clearRequests();

    cacheFolder = std::make_unique<QTemporaryDir>();
    QVERIFY(cacheFolder->isValid());
    CloudCacheOptions options;
    options.directory = cacheFolder->path();
    cache = std::make_shared<CloudRangeCache>(options);
}

void TestStacClient::cleanupTestCase()
{
    server.stop();
}

StacSearchRequest TestStacClient::naipSearch() const
{
    StacSearchRequest request;
    request.collections = QStringList { QStringLiteral("naip") };
    request.limit = 10;
    return request;
}

std::unique_ptr<StacClient> TestStacClient::makeClient(const QString &catalogPath) const
{
    return std::make_unique<StacClient>(server.url(catalogPath), cache);
}

void TestStacClient::searchPostsTheBodyToTheSearchPath()
{
    const auto client = makeClient();
    const StacSearchResult result = client->search(naipSearch());

    QCOMPARE(server.requestCount(), 1);
    const LoopbackRequest sent = server.requests().constFirst();
    QCOMPARE(sent.method, QByteArray("POST"));
    QCOMPARE(sent.path, QStringLiteral("/v1/search"));
    QCOMPARE(sent.body, QByteArray(R"({"collections":["naip"],"limit":10})"));
    QCOMPARE(sent.header("Content-Type"), QByteArray("application/json"));
    QCOMPARE(sent.header("Accept"), QByteArray("application/geo+json, application/json"));
    QCOMPARE(sent.header("User-Agent"), QByteArray("Norvane.Cloud/1"));
    QVERIFY(!sent.hasHeader("x-norvane-method"));
    QVERIFY(!sent.hasHeader("x-norvane-body"));

    QCOMPARE(result.items.size(), 10);
    QCOMPARE(result.items.constFirst().id, QStringLiteral("mt_m_4911664_se_11_060_20231117_20240103"));
    QCOMPARE(result.nextPage, server.url(QStringLiteral("/v1/search")));
    QCOMPARE(result.nextMethod, QByteArray("POST"));
    QCOMPARE(compact(result.nextBody),
        QByteArray(R"({"collections":["naip"],"limit":10,"token":")") + naipPage2Token + QByteArray(R"("})"));
}

void TestStacClient::followsEveryPageByPost()
{
    const auto client = makeClient();
    StacSearchResult page = client->search(naipSearch());
    QStringList ids;
    int pages = 1;
    for (const StacItem &item : page.items)
        ids.append(item.id);
    while (page.nextPage.isValid()) {
        const QJsonObject nextBody = page.nextBody;
        page = client->fetchNext(page);
        ++pages;
        const LoopbackRequest sent = server.requests().constLast();
        QCOMPARE(sent.method, QByteArray("POST"));
        QCOMPARE(sent.path, QStringLiteral("/v1/search"));
        QCOMPARE(sent.body, compact(nextBody));
        QCOMPARE(sent.header("Content-Type"), QByteArray("application/json"));
        for (const StacItem &item : page.items)
            ids.append(item.id);
    }
    QCOMPARE(pages, 3);
    QCOMPARE(server.requestCount(), 3);
    QCOMPARE(ids.size(), 20);
    QCOMPARE(ids.at(10), QStringLiteral("mt_m_4811501_nw_11_060_20231117_20240103"));
    QCOMPARE(ids.constLast(), QStringLiteral("mt_m_4511355_sw_12_060_20231117_20240103"));
    QCOMPARE(page.returned, 0);

    QCOMPARE(failureOf<std::invalid_argument>([&] { client->fetchNext(page); }),
        QStringLiteral("STAC result does not contain a next page"));
    QCOMPARE(server.requestCount(), 3);
}

void TestStacClient::followsEveryPageByGet()
{
    const auto client = makeClient();
    const QUrl firstPage = server.url(QStringLiteral("/v1/collections/aster-l1t/items?collections=aster-l1t"));
    const StacSearchResult first = client->fetchPage(firstPage);
    QCOMPARE(first.items.size(), 10);
    QCOMPARE(first.nextMethod, QByteArray("GET"));

    const StacSearchResult second = client->fetchNext(first);
    QCOMPARE(second.items.size(), 0);
    QVERIFY(!second.nextPage.isValid());

    const QList<LoopbackRequest> sent = server.requests();
    QCOMPARE(sent.size(), 2);
    for (const LoopbackRequest &request : sent) {
        QCOMPARE(request.method, QByteArray("GET"));
        QCOMPARE(request.path, QStringLiteral("/v1/collections/aster-l1t/items"));
        QVERIFY(request.body.isEmpty());
        QCOMPARE(request.header("Content-Type"), QByteArray("application/json"));
    }
    QCOMPARE(sent.at(0).query, QStringLiteral("collections=aster-l1t"));
    QCOMPARE(sent.at(1).query,
        QStringLiteral("collections=aster-l1t&token=next:aster-l1t:AST_L1T_00312272006013647_20150517144406"));
}

void TestStacClient::redirectsAreFollowed()
{
    const QByteArray target
        = server.url(QStringLiteral("/v1/collections/aster-l1t/items?collections=aster-l1t")).toEncoded();
    server.setHandler(QStringLiteral("/old/items"), [target](const LoopbackRequest &) {
        LoopbackResponse response;
        response.status = 302;
        response.headers.append({ QByteArrayLiteral("Location"), target });
        return response;
    });
    const auto client = makeClient();
    const StacSearchResult page = client->fetchPage(server.url(QStringLiteral("/old/items")));
    QCOMPARE(page.items.size(), 10);
    // Qt's HTTP layer sometimes sends the redirected request a second time on a fresh connection, so only the
    // target's count is exact.
    QVERIFY(server.requestCount(QStringLiteral("/old/items")) >= 1);
    QCOMPARE(server.requestCount(QStringLiteral("/v1/collections/aster-l1t/items")), 1);
    QCOMPARE(page.nextMethod, QByteArray("GET"));
}

void TestStacClient::configuredHeadersOverrideTheFixedOnes_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("value");

    QTest::newRow("Accept") << QByteArray("Accept") << QByteArray("application/json");
    QTest::newRow("User-Agent") << QByteArray("User-Agent") << QByteArray("host-app/2.0");
    QTest::newRow("Content-Type") << QByteArray("Content-Type") << QByteArray("application/query+json");
    QTest::newRow("lower-case user-agent") << QByteArray("user-agent") << QByteArray("host-app/3.0");
    QTest::newRow("extra credential") << QByteArray("Ocp-Apim-Subscription-Key") << QByteArray("k3y");
}

void TestStacClient::configuredHeadersOverrideTheFixedOnes()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, value);

    const auto client = makeClient();
    client->setHeaders({ { name, value } });
    client->search(naipSearch());

    const LoopbackRequest sent = server.requests().constFirst();
    QCOMPARE(sent.headerValues(name), QList<QByteArray> { value });
    const QList<QPair<QByteArray, QByteArray>> fixed { { "Accept", "application/geo+json, application/json" },
        { "User-Agent", "Norvane.Cloud/1" }, { "Content-Type", "application/json" } };
    for (const auto &header : fixed) {
        if (header.first.compare(name, Qt::CaseInsensitive) != 0)
            QCOMPARE(sent.header(header.first), header.second);
    }
}

void TestStacClient::repeatedRequestsComeFromTheCache()
{
    const auto client = makeClient();
    const StacSearchResult first = client->search(naipSearch());
    const StacSearchResult again = client->search(naipSearch());
    QCOMPARE(server.requestCount(), 1);
    QCOMPARE(again.raw, first.raw);

    // A second client on the same cache finds the answer too.
    const auto other = makeClient();
    other->search(naipSearch());
    QCOMPARE(server.requestCount(), 1);

    client->setHeaders({ { QByteArrayLiteral("Authorization"), QByteArrayLiteral("Bearer a") } });
    client->search(naipSearch());
    QCOMPARE(server.requestCount(), 2);
    client->setHeaders({ { QByteArrayLiteral("Authorization"), QByteArrayLiteral("Bearer b") } });
    client->search(naipSearch());
    QCOMPARE(server.requestCount(), 3);
    client->search(naipSearch());
    QCOMPARE(server.requestCount(), 3);

    StacSearchRequest smallerPages = naipSearch();
    smallerPages.limit = 5;
    client->search(smallerPages);
    QCOMPARE(server.requestCount(), 4);

    // Paging is cached like searching; following the same next link twice asks once.
    client->fetchNext(first);
    client->fetchNext(again);
    QCOMPARE(server.requestCount(), 5);

    // The STAC client counts lookups and stores in the cache, never network transfers.
    const CloudCacheStatistics statistics = cache->statistics();
    QCOMPARE(statistics.writes, 5);
    QCOMPARE(statistics.memoryHits + statistics.diskHits, 4);
    QCOMPARE(statistics.misses, 5);
    QCOMPARE(statistics.networkRequests, 0);
    QCOMPARE(statistics.networkBytes, 0);
}

void TestStacClient::methodsAreCachedApart()
{
    const auto client = makeClient();
    const QUrl items = server.url(QStringLiteral("/v1/collections/aster-l1t/items?collections=aster-l1t"));
    client->fetchPage(items);
    QCOMPARE(server.requestCount(), 1);

    StacSearchResult link;
    link.nextPage = items;
    link.nextMethod = QByteArrayLiteral("get");
    client->fetchNext(link);
    QCOMPARE(server.requestCount(), 1);

    // Lower-case "post" is upper-cased and sends the (empty) next body.
    link.nextMethod = QByteArrayLiteral("post");
    client->fetchNext(link);
    QCOMPARE(server.requestCount(), 2);
    const LoopbackRequest sent = server.requests().constLast();
    QCOMPARE(sent.method, QByteArray("POST"));
    QCOMPARE(sent.body, QByteArray("{}"));

    link.nextMethod = QByteArrayLiteral("POST");
    client->fetchNext(link);
    QCOMPARE(server.requestCount(), 2);
}

void TestStacClient::failedExchangeStoresNothing()
{
    server.setHandler(QStringLiteral("/v1/search"),
        [](const LoopbackRequest &) { return jsonAnswer(R"({"code":"NotFound"})", 404); });
    const auto client = makeClient();
    const QString message = failureOf<std::runtime_error>([&] { client->search(naipSearch()); });
    QVERIFY2(message.startsWith(QLatin1String("STAC request failed (404): ")), qPrintable(message));
    QVERIFY2(message.size() > QStringLiteral("STAC request failed (404): ").size(), qPrintable(message));
    QCOMPARE(cache->statistics().writes, 0);

    const QByteArray page = naipPage1;
    server.setHandler(QStringLiteral("/v1/search"), [page](const LoopbackRequest &) { return jsonAnswer(page); });
    QCOMPARE(client->search(naipSearch()).items.size(), 10);
    QCOMPARE(server.requestCount(), 2);
}

void TestStacClient::answerThatIsNotJsonIsStoredAndFailsAgain()
{
    server.setHandler(QStringLiteral("/v1/search"), [](const LoopbackRequest &) {
        LoopbackResponse response;
        response.headers.append({ QByteArrayLiteral("Content-Type"), QByteArrayLiteral("text/html") });
        response.body = QByteArrayLiteral("<html><body>Service unavailable</body></html>");
        return response;
    });
    const auto client = makeClient();
    const QString expected = QStringLiteral("Invalid STAC JSON: illegal value");
    QCOMPARE(failureOf<std::runtime_error>([&] { client->search(naipSearch()); }), expected);
    QCOMPARE(failureOf<std::runtime_error>([&] { client->search(naipSearch()); }), expected);
    QCOMPARE(server.requestCount(), 1);
    QCOMPARE(cache->statistics().writes, 1);
}

void TestStacClient::stallEndsInTimeOut()
{
    RouteBehaviour stall;
    stall.stallBeforeHeaders = true;
    server.setBehaviour(QStringLiteral("/v1/search"), stall);
    const auto client = makeClient();
    client->setTimeoutMilliseconds(200);
    QCOMPARE(
        failureOf<std::runtime_error>([&] { client->search(naipSearch()); }), QStringLiteral("STAC request timed out"));
    QCOMPARE(cache->statistics().writes, 0);

    server.clearBehaviour(QStringLiteral("/v1/search"));
    server.releaseStalledRequests();
    client->setTimeoutMilliseconds(30000);
    QCOMPARE(client->search(naipSearch()).items.size(), 10);
    QCOMPARE(server.requestCount(QStringLiteral("/v1/search")), 2);
}

void TestStacClient::unreachableServerReportsStatusZero()
{
    QUrl closed = server.url(QStringLiteral("/v1"));
    closed.setPort(LoopbackHttpServer::unusedPort());
    StacClient client(closed, cache);
    const QString refused = failureOf<std::runtime_error>([&] { client.search(naipSearch()); });
    QVERIFY2(refused.startsWith(QLatin1String("STAC request failed (0): ")), qPrintable(refused));

    // A bare path is a valid URL; it passes the page check and fails in the exchange.
    const QString schemeless
        = failureOf<std::runtime_error>([&] { client.fetchPage(QUrl(QStringLiteral("v1/items"))); });
    QVERIFY2(schemeless.startsWith(QLatin1String("STAC request failed (0): ")), qPrintable(schemeless));
    QCOMPARE(cache->statistics().writes, 0);
}

void TestStacClient::refusalsComeBeforeAnyRequest_data()
{
    QTest::addColumn<int>("operation");
    QTest::addColumn<QString>("message");

    QTest::newRow("limit 0 with a bad bbox") << 0 << QStringLiteral("STAC search limit must be positive");
    QTest::newRow("bbox of five numbers") << 1 << QStringLiteral("STAC bbox must contain four or six coordinates");
    QTest::newRow("bbox with intersects") << 2 << QStringLiteral("STAC search cannot contain both bbox and intersects");
    QTest::newRow("invalid page URL") << 3 << QStringLiteral("STAC page URL is invalid");
    QTest::newRow("next method PUT") << 4 << QStringLiteral("STAC next-page method must be GET or POST");
    QTest::newRow("empty next method") << 5 << QStringLiteral("STAC next-page method must be GET or POST");
    QTest::newRow("no next page") << 6 << QStringLiteral("STAC result does not contain a next page");
}

void TestStacClient::refusalsComeBeforeAnyRequest()
{
    QFETCH(int, operation);
    QFETCH(QString, message);

    const auto client = makeClient();
    StacSearchRequest request = naipSearch();
    StacSearchResult result;
    result.nextPage = server.url(QStringLiteral("/v1/search"));
    const QString thrown = failureOf<std::invalid_argument>([&] {
        switch (operation) {
        case 0:
            request.limit = 0;
            request.bbox = { 1, 2, 3 };
            client->search(request);
            break;
        case 1:
            request.bbox = { 1, 2, 3, 4, 5 };
            client->search(request);
            break;
        case 2:
            request.bbox = { 1, 2, 3, 4 };
            request.intersects = QJsonObject { { QLatin1String("type"), QLatin1String("Point") } };
            client->search(request);
            break;
        case 3:
            client->fetchPage(QUrl(QStringLiteral("http://exa mple.com/items")));
            break;
        case 4:
            result.nextMethod = QByteArrayLiteral("PUT");
            client->fetchNext(result);
            break;
        case 5:
            result.nextMethod = QByteArray();
            client->fetchNext(result);
            break;
        case 6:
            client->fetchNext(StacSearchResult());
            break;
        }
    });
    QCOMPARE(thrown, message);
    QCOMPARE(server.requestCount(), 0);
}

void TestStacClient::settings()
{
    QCOMPARE(failureOf<std::invalid_argument>([] { StacClient schemeless(QUrl(QStringLiteral("stac.example/v1"))); }),
        QStringLiteral("STAC catalog URL is invalid"));
    QCOMPARE(failureOf<std::invalid_argument>([] { StacClient empty { QUrl() }; }),
        QStringLiteral("STAC catalog URL is invalid"));

    StacClient client(QUrl(QStringLiteral("ftp://stac.example/v1")), cache);
    QCOMPARE(client.catalogUrl(), QUrl(QStringLiteral("ftp://stac.example/v1")));
    QCOMPARE(client.timeoutMilliseconds(), 30000);
    QVERIFY(client.headers().isEmpty());

    QCOMPARE(failureOf<std::invalid_argument>([&] { client.setCatalogUrl(QUrl(QStringLiteral("/relative/path"))); }),
        QStringLiteral("STAC catalog URL is invalid"));
    QCOMPARE(client.catalogUrl(), QUrl(QStringLiteral("ftp://stac.example/v1")));

    client.setTimeoutMilliseconds(1);
    for (int refused : { 0, -1 }) {
        QCOMPARE(failureOf<std::invalid_argument>([&] { client.setTimeoutMilliseconds(refused); }),
            QStringLiteral("STAC timeout must be positive"));
        QCOMPARE(client.timeoutMilliseconds(), 1);
    }

    const QHash<QByteArray, QByteArray> headers { { QByteArrayLiteral("X-A"), QByteArrayLiteral("1") } };
    client.setHeaders(headers);
    client.setHeaders({ { QByteArrayLiteral("X-B"), QByteArrayLiteral("2") } });
    QCOMPARE(
        client.headers(), (QHash<QByteArray, QByteArray> { { QByteArrayLiteral("X-B"), QByteArrayLiteral("2") } }));
}

QTEST_GUILESS_MAIN(TestStacClient)
#include "tst_stacclient.moc"
