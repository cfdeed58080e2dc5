// The STAC client: parsing of recorded and odd item-collection pages, searching and paging against a scripted
// catalogue (what goes on the wire, caching, failures, refusals) and the choice of the asset a COG layer opens.

#include <norvanecloud/stac.h>

#include <faultserver.h>

#include <QFile>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <stdexcept>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;
using Scenario = std::function<QString(StacClient &, const FaultServer &)>;
Q_DECLARE_METATYPE(Scenario)

namespace {

const QUrl pageUrl(QStringLiteral("https://stac.example/api/v1/search?token=abc"));
const StacSearchRequest naip { { "naip" }, {}, {}, {}, 10, {}, {}, {} };

QByteArray fixture(const char *name)
{
    QFile file(QStringLiteral(NORVANE_TEST_DATA_DIR "/stac/") + QLatin1String(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The exception type and text, so a table row can expect a failure as plainly as a result.
template <typename Operation> QString outcomeOf(Operation operation)
{
    try {
        return operation();
    } catch (const std::invalid_argument &error) {
        return QStringLiteral("invalid_argument: ") + QString::fromUtf8(error.what());
    } catch (const std::runtime_error &error) {
        return QStringLiteral("runtime_error: ") + QString::fromUtf8(error.what());
    }
}

QString describe(const StacSearchResult &result)
{
    QByteArray text = QByteArray::number(result.items.size()) + " items, matched " + QByteArray::number(result.matched)
        + ", returned " + QByteArray::number(result.returned) + ", next " + result.nextMethod + ' '
        + result.nextPage.toEncoded() + ' ' + QJsonDocument(result.nextBody).toJson(QJsonDocument::Compact);
    for (const StacItem &item : result.items.mid(0, 1)) {
        QStringList bbox;
        for (double coordinate : item.bbox)
            bbox.append(QString::number(coordinate));
        text += "; '" + item.id.toUtf8() + "' in '" + item.collection.toUtf8() + "' [" + bbox.join(u',').toUtf8() + "] "
            + QByteArray::number(item.assets.size()) + " assets";
        if (!item.assets.isEmpty())
            text += ", first " + item.assets.first().href.toEncoded() + " ["
                + item.assets.first().roles.join(u',').toUtf8() + ']';
    }
    return QString::fromUtf8(text);
}

QString itemsOfEveryPage(const StacClient &client, StacSearchResult page)
{
    qsizetype count = page.items.size();
    // Bounded, so a page that leads back to itself fails the row instead of hanging it.
    for (int pages = 1; page.nextPage.isValid() && pages < 10; ++pages) {
        page = client.fetchNext(page);
        count += page.items.size();
    }
    return QStringLiteral("%1 items").arg(count);
}

Scenario searching(const char *catalogue, const StacSearchRequest &request)
{
    return [=](StacClient &client, const FaultServer &server) {
        client.setCatalogUrl(server.url(catalogue));
        return itemsOfEveryPage(client, client.search(request));
    };
}

// A catalogue in the manner of the recorded APIs: /v1/search pages by a token in the POST body, the items endpoint
// by a token in the query of a GET. A first path segment of digits is the status to answer with, over a body that
// is not JSON; "stall" never answers.
FaultReply catalogue(const FaultRequest &request)
{
    const auto page = [&request](const char *name) {
        return httpReply(200, {},
            fixture(name).replace(
                "https://planetarycomputer.microsoft.com/api/stac/v1", "http://" + request.header("Host") + "/v1"));
    };
    if (request.target.startsWith("/stall/"))
        return { {}, 0, -1, true };
    if (const int status = request.target.mid(1, 3).toInt())
        return httpReply(status, {}, "<html>");
    if (!request.header("Authorization").isEmpty())
        return httpReply(200, {}, R"({"features":[{"id":")" + request.header("Authorization") + "\"}]}");
    if (request.target == "/v1/collections/aster-l1t/items?collections=aster-l1t")
        return page("planetary-computer-aster-l1t-items-page1-next-get-token.json");
    if (request.body.contains("next:naip:mt_m_4811501_se_11"))
        return page("planetary-computer-naip-page2-next-and-previous-post-token.json");
    if (request.body == R"({"collections":["naip"],"limit":10})")
        return page("planetary-computer-naip-page1-next-post-token.json");
    return page("planetary-computer-search-ids-no-match-empty.json");
}

} // namespace

class TestStac : public QObject {
    Q_OBJECT

private slots:
    void init();
    void parsing_data();
    void parsing();
    void client_data();
    void client();
    void cogLayer_data();
    void cogLayer();

private:
    std::unique_ptr<QTemporaryDir> folder;
    std::shared_ptr<CloudRangeCache> cache;
    std::unique_ptr<FaultServer> server;
};

void TestStac::init()
{
    server.reset();
    folder = std::make_unique<QTemporaryDir>();
    CloudCacheOptions options;
    options.directory = folder->path();
    cache = std::make_shared<CloudRangeCache>(options);
    server = std::make_unique<FaultServer>(catalogue);
}

void TestStac::parsing_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("expected");
    const QByteArray naipPage = fixture("planetary-computer-naip-page1-next-post-token.json");

    QTest::newRow("recorded page, counts from context")
        << fixture("earth-search-v1-cql2-filter-page1-next-post-body.json")
        << "10 items, matched 115912757, returned 10, next POST https://earth-search.aws.element84.com/v1/search "
           R"({"next":"2025-07-31T13:03:25.899000Z,S2B_T24MVV_20250731T130245_L2A,sentinel-2-c1-l2a"}; )"
           "'S1A_IW_GRDH_1SSH_20250731T135702_20250731T135722_060328_077F7E' in 'sentinel-1-grd' "
           "[74.2153,-46.8431,77.7864,-44.9522] 6 assets, first s3://sentinel-s1-l1c/GRD/2025/7/31/IW/SH/"
           "S1A_IW_GRDH_1SSH_20250731T135702_20250731T135722_060328_077F7E_0C44/measurement/iw-hh.tiff [data]";
    QTest::newRow("recorded item, relative asset hrefs")
        << "{\"features\":[" + fixture("usgs-landsat-c2-l2-item-relative-asset-hrefs.json") + "]}"
        << "1 items, matched -1, returned 1, next GET  {}; 'LC08_L2SP_047027_20201204_02_T1' in '' "
           "[-124.981,46.3535,-121.788,48.5147] 25 assets, first "
           "https://stac.example/api/v1/LC08_L2SP_047027_20201204_20210313_02_T1_ANG.txt [metadata]";
    QTest::newRow("context counts win, non-objects are empty items")
        << QByteArray(R"({"features":[{"id":"a"},5,"x"],"context":{"matched":1234,"returned":10}})")
        << "3 items, matched 1234, returned 10, next GET  {}; 'a' in '' [] 0 assets";
    QTest::newRow("first next link wins, Next is not next, method upper-cased")
        << QByteArray(R"({"links":["next",{"rel":"Next","href":"/n"},{"rel":"next","href":"/p2","method":"post",)"
                      R"("body":{"token":"one"}},{"rel":"next","href":"/p3"}]})")
        << R"(0 items, matched -1, returned 0, next POST https://stac.example/p2 {"token":"one"})";
    QTest::newRow("no href, odd method and body")
        << QByteArray(R"({"links":[{"rel":"next","method":1,"body":[1]}]})")
        << "0 items, matched -1, returned 0, next GET https://stac.example/api/v1/search?token=abc {}";
    QTest::newRow("item and asset fallbacks")
        << QByteArray(R"({"features":[{"id":42,"collection":"C","bbox":["x",1],)"
                      R"("assets":{"a":{"href":"b.tif","roles":["data",5]},"z":"https://x/z.tif"}}]})")
        << "1 items, matched -1, returned 1, next GET  {}; '' in 'C' [0,1] 2 assets, first "
           "https://stac.example/api/v1/b.tif [data,]";
    QTest::newRow("truncated page") << naipPage.left(naipPage.size() / 2)
                                    << "runtime_error: Invalid STAC JSON: unterminated string";
    QTest::newRow("top-level array") << QByteArray("[{}]") << "runtime_error: Invalid STAC JSON: no error occurred";
}

void TestStac::parsing()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, expected);

    StacSearchResult result;
    QCOMPARE(outcomeOf([&] { return describe(result = StacClient::parseItemCollection(body, pageUrl)); }), expected);
    QCOMPARE(result.raw, QJsonDocument::fromJson(body).object());
}

void TestStac::client_data()
{
    QTest::addColumn<Scenario>("scenario");
    QTest::addColumn<QString>("expected");
    const QJsonObject point { { "type", "Point" }, { "coordinates", QJsonArray { 1, 2 } } };
    const QString naipBody = QStringLiteral(R"(POST /v1/search {"collections":["naip"],"limit":10)");

    QTest::newRow("default search") << searching("/v1", {}) << R"(0 items | POST /v1/search {"limit":100})";
    QTest::newRow("trailing slash, query kept, six numbers in shortest form, key order")
        << searching("/v1/?k=a%26b",
               { { "a", "b" }, { -105.5, 1.0 / 3.0, -1e-7, 40, 0, 9 }, {}, {}, 10, {}, {}, "cql2-text" })
        << R"(0 items | POST /v1/search?k=a%26b {"bbox":[-105.5,0.3333333333333333,-1e-07,40,0,9],)"
           R"("collections":["a","b"],"filter-lang":"cql2-text","limit":10})";
    QTest::newRow("every member, file-like path")
        << searching("/catalog.json",
               { { "s2" }, {}, point, "2023-10-08/..", 1, { { "cloud", QJsonObject { { "lt", 10 } } } },
                   { { "op", "lte" } }, "cql2-json" })
        << R"(0 items | POST /catalog.json/search {"collections":["s2"],"datetime":"2023-10-08/..",)"
           R"("filter":{"op":"lte"},"filter-lang":"cql2-json","intersects":{"coordinates":[1,2],"type":"Point"},)"
           R"("limit":1,"query":{"cloud":{"lt":10}}})";
    QTest::newRow("limit checked first") << searching("/v1", { {}, { 1, 2, 3 }, {}, {}, 0, {}, {}, {} })
                                         << "invalid_argument: STAC search limit must be positive";
    QTest::newRow("bbox of five") << searching("/v1", { {}, { 1, 2, 3, 4, 5 }, {}, {}, 100, {}, {}, {} })
                                  << "invalid_argument: STAC bbox must contain four or six coordinates";
    QTest::newRow("bbox and intersects") << searching("/v1", { {}, { 1, 2, 3, 4 }, point, {}, 100, {}, {}, {} })
                                         << "invalid_argument: STAC search cannot contain both bbox and intersects";
    QTest::newRow("pages followed by POST") << searching("/v1", naip)
                                            << "20 items | " + naipBody + R"(} | )" + naipBody
            + R"(,"token":"next:naip:mt_m_4811501_se_11_060_20231117_20240103"} | )" + naipBody
            + R"(,"token":"next:naip:mt_m_4511355_sw_12_060_20231117_20240103"})";
    QTest::newRow("pages followed by GET")
        << Scenario([](StacClient &client, const FaultServer &server) {
               return itemsOfEveryPage(
                   client, client.fetchPage(server.url("/v1/collections/aster-l1t/items?collections=aster-l1t")));
           })
        << "10 items | GET /v1/collections/aster-l1t/items?collections=aster-l1t | GET /v1/collections/aster-l1t/items?"
           "collections=aster-l1t&token=next:aster-l1t:AST_L1T_00312272006013647_20150517144406";
    QTest::newRow("configured headers replace fixed ones")
        << Scenario([](StacClient &client, const FaultServer &server) {
               client.fetchPage(server.url("/a"));
               client.setHeaders({ { "accept", "application/json" }, { "User-Agent", "host/3" } });
               client.fetchPage(server.url("/a"));
               QByteArray text;
               for (const FaultRequest &sent : server.requests())
                   text += sent.header("Content-Type") + ';' + sent.header("Accept") + ';' + sent.header("User-Agent")
                       + ';' + sent.header("x-norvane-method") + ' ';
               return QString::fromLatin1(text);
           })
        << "application/json;application/geo+json, application/json;Norvane.Cloud/1; "
           "application/json;application/json;host/3;  | GET /a | GET /a";
    QTest::newRow("answers kept per credentials") << Scenario([](StacClient &client, const FaultServer &) {
        QStringList ids;
        for (const char *who : { "alice", "bob", "alice" }) {
            client.setHeaders({ { "Authorization", who } });
            ids.append(client.search(naip).items.value(0).id);
        }
        return ids.join(u',');
    }) << "alice,bob,alice | " + naipBody + "} | " + naipBody + "}";
    QTest::newRow("300 without Location") << searching("/300", {})
                                          << R"(runtime_error: STAC request failed (300): Unknown error)"
                                             R"( | POST /300/search {"limit":100} | POST /300/search {"limit":100})";
    QTest::newRow("not JSON, kept as received") << searching(
        "/200", {}) << R"(runtime_error: Invalid STAC JSON: illegal value | POST /200/search {"limit":100})";
    QTest::newRow("stall") << Scenario([](StacClient &client, const FaultServer &server) {
        client.setTimeoutMilliseconds(300);
        return searching("/stall", {})(client, server);
    })
                           << R"(runtime_error: STAC request timed out)"
                              R"( | POST /stall/search {"limit":100} | POST /stall/search {"limit":100})";
    QTest::newRow("refusals send nothing, a lower-case post is sent")
        << Scenario([](StacClient &client, const FaultServer &server) {
               StacSearchResult put;
               put.nextPage = server.url();
               put.nextMethod = "PUT";
               const std::function<QString()> refused[]
                   = { [] { return StacClient(QUrl(QStringLiteral("stac.example/v1"))).catalogUrl().toString(); },
                         [&] { return describe(client.fetchPage(QUrl(QStringLiteral("http://a b")))); },
                         [&] { return describe(client.fetchNext({})); },
                         [&] { return describe(client.fetchNext(put)); },
                         [&] { return describe(client.fetchNext((put.nextMethod = "post", put))); },
                         [&] { return client.setTimeoutMilliseconds(0), QString(); } };
               QString text;
               for (const auto &operation : refused)
                   text += outcomeOf(operation) + u'\n';
               return text + QString::number(client.timeoutMilliseconds());
           })
        << "invalid_argument: STAC catalog URL is invalid\n"
           "invalid_argument: STAC page URL is invalid\n"
           "invalid_argument: STAC result does not contain a next page\n"
           "invalid_argument: STAC next-page method must be GET or POST\n"
           "0 items, matched -1, returned 0, next GET  {}\n"
           "invalid_argument: STAC timeout must be positive\n"
           "30000 | POST / {}";
}

void TestStac::client()
{
    QFETCH(Scenario, scenario);
    QFETCH(QString, expected);

    // Each scenario runs twice, the second time with a new client on the same cache: an answer that arrived is not
    // asked for again, a failure is. The requests the server saw follow the outcome.
    QString outcomes[2];
    for (QString &outcome : outcomes) {
        StacClient client(server->url("/v1"), cache);
        outcome = outcomeOf([&] { return scenario(client, *server); });
    }
    QCOMPARE(outcomes[1], outcomes[0]);
    for (const FaultRequest &request : server->requests())
        outcomes[0] += " | " + QString::fromUtf8(request.method + ' ' + request.target + ' ' + request.body).trimmed();
    QCOMPARE(outcomes[0], expected.replace(QLatin1String("PORT"), QString::number(server->url().port())));
    // The catalogue's traffic is not range traffic; only the cache's lookups and stores count it.
    QCOMPARE(cache->statistics().networkRequests, 0);
}

void TestStac::cogLayer_data()
{
    QTest::addColumn<QByteArray>("feature");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QString>("key");
    const auto item = [](const char *assets) { return R"({"id":" i","assets":{)" + QByteArray(assets) + "}}"; };
    const QByteArray three = item(R"("a":{"href":"https://h/a.tif"},"b":{"href":"https://h/b.tif","roles":["data"]},)"
                                  R"("p":{"href":"https://h/p.png"})");

    QTest::newRow("recorded item, three equal bands")
        << fixture("planetary-computer-aster-l1t-single-item.json")
        << "SWIR Swath data /vsicurl/https://astersa.blob.core.windows.net/aster/images/L1T/2006/12/27/"
           "AST_L1T_00312272006020322_20150518201805_110656.SWIR.tif"
        << QString();
    QTest::newRow("data and visual beat data with the key bonus")
        << item(R"("data":{"href":"https://h/d.tif","roles":["data"]},)"
                R"("z":{"href":"https://h/z.tif","roles":["data","visual"]})")
        << " i /vsicurl/https://h/z.tif" << QString();
    QTest::newRow("TIFF type without a TIFF name, cloud-optimized beats the data role")
        << item(R"("a":{"href":"https://h/a.tif","roles":["data"]},)"
                R"("b":{"href":"https://h/b","type":"image/TIFF; profile=cloud-optimized","roles":["visual"]})")
        << " i /vsicurl/https://h/b" << QString();
    QTest::newRow("PNG no candidate, roles ignore case, data beats visual")
        << item(R"("a":{"href":"https://h/a.png","type":"image/png","roles":["data"]},)"
                R"("b":{"href":"https://h/b.tif","roles":["visual"]},"c":{"href":"https://h/c.tif","roles":["DATA"]})")
        << " i /vsicurl/https://h/c.tif" << QString();
    QTest::newRow("key bonus ignores case")
        << item(R"("A":{"href":"https://h/a.tif"},"Visual":{"href":"https://h/v.tif"})")
        << " i /vsicurl/https://h/v.tif" << QString();
    QTest::newRow("tie goes to the first key")
        << item(R"("a":{"href":"https://h/a.tif","roles":["data"]},"B04":{"href":"https://h/b.tif","roles":["data"]})")
        << " i /vsicurl/https://h/b.tif" << QString();
    QTest::newRow("s3 no candidate, HTTP .TIF is")
        << item(R"("a":{"href":"s3://b/a.tif","roles":["data"]},"b":{"href":"HTTP://h/B.TIF"})")
        << " i /vsicurl/http://h/B.TIF" << QString();
    QTest::newRow(".tiff name with a query") << item(R"("a":{"href":"https://h/my a.tiff?sig=1"})")
                                             << " i /vsicurl/https://h/my%20a.tiff?sig=1" << QString();
    QTest::newRow("no candidate") << item(R"("a":{"href":"s3://b/a.tif"})")
                                  << "runtime_error: STAC item does not contain an HTTP COG asset" << QString();
    QTest::newRow("named asset whatever its score") << three << " i /vsicurl/https://h/a.tif" << QStringLiteral("a");
    QTest::newRow("named key is case-sensitive")
        << three << "invalid_argument: Requested STAC asset does not exist" << QStringLiteral("A");
    QTest::newRow("named asset no candidate")
        << three << "invalid_argument: Requested STAC asset is not an HTTP COG candidate" << QStringLiteral("p");
    QTest::newRow("white-space id, checked first")
        << QByteArray(R"({"id":" \t"})") << "invalid_argument: STAC item id is empty" << QStringLiteral("a");
}

void TestStac::cogLayer()
{
    QFETCH(QByteArray, feature);
    QFETCH(QString, expected);
    QFETCH(QString, key);

    const StacItem item = StacClient::parseItemCollection("{\"features\":[" + feature + "]}", pageUrl).items.value(0);
    StacClient client(pageUrl, cache);
    client.setHeaders({ { "Authorization", "Bearer t" } });
    StacCogLayer layer;
    // The title is the asset's, or the item id as stored when the asset has none.
    QCOMPARE(outcomeOf([&] {
        layer = client.cogLayer(item, key);
        return layer.title + u' ' + layer.gdalVirtualPath;
    }),
        expected);
    const StacAsset chosen = item.assets.value(layer.assetKey);
    QVERIFY(layer.assetKey.isEmpty()
        || (layer.itemId == item.id && layer.collection == item.collection && layer.sourceUrl == chosen.href
            && layer.mediaType == chosen.mediaType && layer.roles == chosen.roles && layer.bbox == item.bbox
            && layer.geometry == item.geometry && layer.itemProperties == item.properties
            && layer.assetMetadata == chosen.raw && layer.requestHeaders == client.headers()));
}

QTEST_GUILESS_MAIN(TestStac)
#include "tst_stac.moc"
