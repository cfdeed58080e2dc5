// The STAC client against a loopback server that answers with recorded STAC API pages: searching, following
// pages by POST and by GET, what goes on the wire, caching of answers and the failures of the exchange.

#include <norvanecloud/stac.h>

#include "stactestdata.h"

#include <loopbackhttpserver.h>

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <stdexcept>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;

class TestStacClient : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void searchesAndFollowsEveryPageByPost();
    void followsPagesByGetAndCachesMethodsApart();
    void configuredHeadersOverrideTheFixedOnes();
    void repeatedRequestsComeFromTheCache();
    void failuresAreNotCachedUnlessTheAnswerArrived_data();
    void failuresAreNotCachedUnlessTheAnswerArrived();
    void refusalsComeBeforeAnyRequest();
    void settingsRefuseBadValues();

private:
    std::unique_ptr<StacClient> makeClient() const
    {
        return std::make_unique<StacClient>(server.url(QStringLiteral("/v1")), cache);
    }

    LoopbackHttpServer server;
    std::unique_ptr<QTemporaryDir> cacheFolder;
    std::shared_ptr<CloudRangeCache> cache;
    StacSearchRequest naipSearch;
};

void TestStacClient::initTestCase()
{
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    naipSearch.collections = QStringList { QStringLiteral("naip") };
    naipSearch.limit = 10;
}

void TestStacClient::init()
{
    // The recorded pages point their next links at the real API; point them at this server instead.
    const QByteArray apiRoot = server.url(QStringLiteral("/v1")).toEncoded();
    const auto served = [&apiRoot](const char *name) {
        return readStacFixture(QString::fromLatin1(name))
            .replace("https://planetarycomputer.microsoft.com/api/stac/v1", apiRoot);
    };
    const QByteArray page1 = served("planetary-computer-naip-page1-next-post-token.json");
    const QByteArray page2 = served("planetary-computer-naip-page2-next-and-previous-post-token.json");
    const QByteArray last = served("planetary-computer-search-ids-no-match-empty.json");
    const QByteArray aster = served("planetary-computer-aster-l1t-items-page1-next-get-token.json");
    // The search endpoint pages by the token in the POST body, the items endpoint by a token in the query of a
    // GET, as the recorded APIs did.
    server.setHandler(QStringLiteral("/v1/search"), [page1, page2, last](const LoopbackRequest &request) {
        if (request.body.contains("next:naip:mt_m_4811501_se_11_060_20231117_20240103"))
            return LoopbackResponse { 200, {}, {}, page2 };
        if (request.body.contains("next:naip:mt_m_4511355_sw_12_060_20231117_20240103"))
            return LoopbackResponse { 200, {}, {}, last };
        return request.body.contains("token") ? LoopbackResponse { 400, {}, {}, "{}" }
                                              : LoopbackResponse { 200, {}, {}, page1 };
    });
    server.setHandler(QStringLiteral("/v1/collections/aster-l1t/items"), [aster, last](const LoopbackRequest &request) {
        return LoopbackResponse { 200, {}, {}, request.query.contains(QLatin1String("token=")) ? last : aster };
    });
    server.clearRequests();

    cacheFolder = std::make_unique<QTemporaryDir>();
    QVERIFY(cacheFolder->isValid());
    CloudCacheOptions options;
    options.directory = cacheFolder->path();
    cache = std::make_shared<CloudRangeCache>(options);
}

void TestStacClient::cleanup()
{
    server.clearBehaviour(QStringLiteral("/v1/search"));
    server.releaseStalledRequests();
}

void TestStacClient::cleanupTestCase()
{
    server.stop();
}

void TestStacClient::searchesAndFollowsEveryPageByPost()
{
    const auto client = makeClient();
    StacSearchResult page = client->search(naipSearch);
    const LoopbackRequest sent = server.requests().constFirst();
    QCOMPARE(sent.method, QByteArray("POST"));
    QCOMPARE(sent.path, QStringLiteral("/v1/search"));
    QCOMPARE(sent.body, QByteArray(R"({"collections":["naip"],"limit":10})"));
    QCOMPARE(sent.header("Content-Type"), QByteArray("application/json"));
    QCOMPARE(sent.header("Accept"), QByteArray("application/geo+json, application/json"));
    QCOMPARE(sent.header("User-Agent"), QByteArray("Norvane.Cloud/1"));
    QVERIFY(!sent.hasHeader("x-norvane-method") && !sent.hasHeader("x-norvane-body"));

    QStringList ids;
    for (;;) {
        for (const StacItem &item : page.items)
            ids.append(item.id);
        if (!page.nextPage.isValid())
            break;
        const QJsonObject nextBody = page.nextBody;
        page = client->fetchNext(page);
        QCOMPARE(server.requests().constLast().method, QByteArray("POST"));
        QCOMPARE(server.requests().constLast().path, QStringLiteral("/v1/search"));
        QCOMPARE(server.requests().constLast().body, compact(nextBody));
    }
    QCOMPARE(server.requestCount(), 3);
    QCOMPARE(ids.size(), 20);
    QCOMPARE(ids.at(10), QStringLiteral("mt_m_4811501_nw_11_060_20231117_20240103"));
    QCOMPARE(ids.constLast(), QStringLiteral("mt_m_4511355_sw_12_060_20231117_20240103"));
}

void TestStacClient::followsPagesByGetAndCachesMethodsApart()
{
    const auto client = makeClient();
    const QUrl items = server.url(QStringLiteral("/v1/collections/aster-l1t/items?collections=aster-l1t"));
    const StacSearchResult first = client->fetchPage(items);
    QCOMPARE(first.items.size(), 10);
    QCOMPARE(client->fetchNext(first).items.size(), 0);
    QCOMPARE(server.requests().constLast().query,
        QStringLiteral("collections=aster-l1t&token=next:aster-l1t:AST_L1T_00312272006013647_20150517144406"));

    // A GET link to the first page is the same exchange as fetchPage; lower-case "post" is a new one that sends
    // the (empty) next body.
    StacSearchResult link;
    link.nextPage = items;
    for (const char *method : { "get", "post", "POST" }) {
        link.nextMethod = method;
        client->fetchNext(link);
    }
    const QList<LoopbackRequest> sent = server.requests();
    QCOMPARE(sent.size(), 3);
    for (int index = 0; index < 3; ++index) {
        QCOMPARE(sent.at(index).method, index < 2 ? QByteArray("GET") : QByteArray("POST"));
        QCOMPARE(sent.at(index).path, QStringLiteral("/v1/collections/aster-l1t/items"));
        QCOMPARE(sent.at(index).body, index < 2 ? QByteArray() : QByteArray("{}"));
        QCOMPARE(sent.at(index).header("Content-Type"), QByteArray("application/json"));
    }
}

void TestStacClient::configuredHeadersOverrideTheFixedOnes()
{
    const auto client = makeClient();
    client->setHeaders({ { "Accept", "application/json" }, { "user-agent", "host-app/3.0" },
        { "Content-Type", "application/query+json" }, { "Ocp-Apim-Subscription-Key", "k3y" } });
    client->search(naipSearch);

    const LoopbackRequest sent = server.requests().constFirst();
    QCOMPARE(sent.headerValues("Accept"), QList<QByteArray> { "application/json" });
    QCOMPARE(sent.headerValues("User-Agent"), QList<QByteArray> { "host-app/3.0" });
    QCOMPARE(sent.headerValues("Content-Type"), QList<QByteArray> { "application/query+json" });
    QCOMPARE(sent.header("Ocp-Apim-Subscription-Key"), QByteArray("k3y"));
}

void TestStacClient::repeatedRequestsComeFromTheCache()
{
    const auto client = makeClient();
    const StacSearchResult first = client->search(naipSearch);
    QCOMPARE(client->search(naipSearch).raw, first.raw);
    // A second client on the same cache finds the answer too.
    makeClient()->search(naipSearch);
    QCOMPARE(server.requestCount(), 1);

    client->setHeaders({ { "Authorization", "Bearer a" } });
    client->search(naipSearch);
    client->setHeaders({ { "Authorization", "Bearer b" } });
    client->search(naipSearch);
    client->search(naipSearch);
    QCOMPARE(server.requestCount(), 3);

    StacSearchRequest smallerPages = naipSearch;
    smallerPages.limit = 5;
    client->search(smallerPages);
    QCOMPARE(server.requestCount(), 4);

    // Paging is cached like searching; following the same next link twice asks once.
    client->fetchNext(first);
    client->fetchNext(first);
    QCOMPARE(server.requestCount(), 5);

    // The STAC client counts lookups and stores in the cache, never network transfers.
    const CloudCacheStatistics statistics = cache->statistics();
    QCOMPARE(statistics.writes, 5);
    QCOMPARE(statistics.memoryHits + statistics.diskHits, 4);
    QCOMPARE(statistics.networkRequests, 0);
    QCOMPARE(statistics.networkBytes, 0);
}

void TestStacClient::failuresAreNotCachedUnlessTheAnswerArrived_data()
{
    QTest::addColumn<int>("fault");
    QTest::addColumn<QString>("message");
    QTest::addColumn<int>("requests");
    QTest::addColumn<int>("writes");

    // Each operation runs twice: a failed exchange stores nothing and asks again, a body that is not JSON is kept.
    QTest::newRow("404") << 0 << "^STAC request failed \\(404\\): .+" << 2 << 0;
    // Qt reports no error for a redirect status without a location; the status test alone refuses it.
    QTest::newRow("300 without Location") << 5 << "^STAC request failed \\(300\\): .+" << 2 << 0;
    QTest::newRow("not JSON") << 1 << "^Invalid STAC JSON: illegal value$" << 1 << 1;
    QTest::newRow("stall") << 2 << "^STAC request timed out$" << 2 << 0;
    QTest::newRow("unreachable") << 3 << "^STAC request failed \\(0\\): .+" << 0 << 0;
    // A bare path is a valid URL; it passes the page check and fails in the exchange.
    QTest::newRow("page without scheme") << 4 << "^STAC request failed \\(0\\): .+" << 0 << 0;
}

void TestStacClient::failuresAreNotCachedUnlessTheAnswerArrived()
{
    QFETCH(int, fault);
    QFETCH(QString, message);
    QFETCH(int, requests);
    QFETCH(int, writes);

    QUrl catalog = server.url(QStringLiteral("/v1"));
    if (fault < 2 || fault == 5) {
        const LoopbackResponse answer = fault == 0 ? LoopbackResponse { 404, {}, {}, "{}" }
            : fault == 1                           ? LoopbackResponse { 200, {}, {}, "<html>" }
                                                   : LoopbackResponse { 300, {}, {}, "{}" };
        server.setHandler(QStringLiteral("/v1/search"), [answer](const LoopbackRequest &) { return answer; });
    } else if (fault == 2) {
        RouteBehaviour stall;
        stall.stallBeforeHeaders = true;
        server.setBehaviour(QStringLiteral("/v1/search"), stall);
    } else if (fault == 3) {
        catalog.setPort(LoopbackHttpServer::unusedPort());
    }
    StacClient client(catalog, cache);
    client.setTimeoutMilliseconds(fault == 2 ? 200 : 30000);
    for (int attempt = 0; attempt < 2; ++attempt) {
        const QString thrown = failureOf<std::runtime_error>(
            [&] { fault == 4 ? client.fetchPage(QUrl(QStringLiteral("v1/items"))) : client.search(naipSearch); });
        QVERIFY2(QRegularExpression(message).match(thrown).hasMatch(), qPrintable(thrown));
    }
    QCOMPARE(server.requestCount(), requests);
    QCOMPARE(cache->statistics().writes, writes);
}

void TestStacClient::refusalsComeBeforeAnyRequest()
{
    const auto client = makeClient();
    StacSearchRequest zeroLimit;
    zeroLimit.limit = 0;
    StacSearchResult put;
    put.nextPage = server.url(QStringLiteral("/v1/search"));
    put.nextMethod = "PUT";
    StacSearchResult noMethod = put;
    noMethod.nextMethod.clear();
    const QString badMethod = QStringLiteral("STAC next-page method must be GET or POST");

    QCOMPARE(failureOf<std::invalid_argument>([&] { client->search(zeroLimit); }),
        QStringLiteral("STAC search limit must be positive"));
    QCOMPARE(failureOf<std::invalid_argument>([&] { client->fetchPage(QUrl(QStringLiteral("http://exa mple.com"))); }),
        QStringLiteral("STAC page URL is invalid"));
    QCOMPARE(failureOf<std::invalid_argument>([&] { client->fetchNext(put); }), badMethod);
    QCOMPARE(failureOf<std::invalid_argument>([&] { client->fetchNext(noMethod); }), badMethod);
    QCOMPARE(failureOf<std::invalid_argument>([&] { client->fetchNext(StacSearchResult()); }),
        QStringLiteral("STAC result does not contain a next page"));
    QCOMPARE(server.requestCount(), 0);
}

void TestStacClient::settingsRefuseBadValues()
{
    const QString badCatalog = QStringLiteral("STAC catalog URL is invalid");
    QCOMPARE(failureOf<std::invalid_argument>([] { StacClient schemeless(QUrl(QStringLiteral("stac.example/v1"))); }),
        badCatalog);
    // Any scheme passes here; only the exchange cares.
    StacClient client(QUrl(QStringLiteral("ftp://stac.example/v1")), cache);
    QCOMPARE(failureOf<std::invalid_argument>([&] { client.setCatalogUrl(QUrl()); }), badCatalog);
    QCOMPARE(client.catalogUrl(), QUrl(QStringLiteral("ftp://stac.example/v1")));

    client.setTimeoutMilliseconds(1);
    QCOMPARE(failureOf<std::invalid_argument>([&] { client.setTimeoutMilliseconds(0); }),
        QStringLiteral("STAC timeout must be positive"));
    QCOMPARE(client.timeoutMilliseconds(), 1);
}

QTEST_GUILESS_MAIN(TestStacClient)
#include "tst_stacclient.moc"
