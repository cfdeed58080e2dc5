// The STAC client: parsing of odd item-collection pages, searching and paging against a scripted catalogue (what
// goes on the wire, caching, failures, refusals) and the choice of the asset a COG layer opens.

#include <norvanecloud/stac.h>

#include <faultserver.h>

#include <QDebug>
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

// One row: a name, then the expression whose text (or exception) the row expects. Hidden from moc, which cannot
// expand a macro over raw strings.
#ifndef Q_MOC_RUN
#define ROW(name, ...)                                                                                                 \
    QTest::newRow(name) << Scenario(                                                                                   \
        [=]([[maybe_unused]] StacClient &client, [[maybe_unused]] const FaultServer &server) -> QString {              \
            return __VA_ARGS__;                                                                                        \
        })
#endif

namespace {

const QUrl pageUrl(QStringLiteral("https://h/v1/search?t=1"));

QByteArray fixture(const QByteArray &name)
{
    QFile file(QStringLiteral(NORVANE_TEST_DATA_DIR "/stac/") + QString::fromUtf8(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString describe(const QByteArray &body)
{
    const StacSearchResult page = StacClient::parseItemCollection(body, pageUrl);
    const StacItem item = page.items.value(0);
    const StacAsset asset = item.assets.values().value(0);
    QString text;
    QDebug(&text).noquote().nospace() << page.items.size() << " items " << page.matched << '/' << page.returned << ' '
                                      << page.nextMethod << ' ' << page.nextPage.toString() << ' '
                                      << QJsonDocument(page.nextBody).toJson(QJsonDocument::Compact) << "; '" << item.id
                                      << "' '" << item.collection << "' " << item.bbox << ' ' << item.assets.size()
                                      << ' ' << asset.href.toString() << ' ' << asset.roles;
    return text;
}

QString search(StacClient &client, const FaultServer &server, const char *catalog, const StacSearchRequest &request)
{
    client.setCatalogUrl(server.url(catalog));
    StacSearchResult page = client.search(request);
    qsizetype count = page.items.size();
    // Bounded, so a page that leads back to itself fails the row instead of hanging it.
    for (int pages = 1; page.nextPage.isValid() && pages < 10; ++pages)
        count += (page = client.fetchNext(page)).items.size();
    return QStringLiteral("%1 items").arg(count);
}

QString headersSent(const FaultServer &server)
{
    QByteArray text;
    for (const FaultRequest &sent : server.requests())
        text += sent.header("Content-Type") + ';' + sent.header("Accept") + ';' + sent.header("User-Agent") + ';'
            + sent.header("x-norvane-method") + ' ';
    return QString::fromLatin1(text);
}

// A bare asset list stands for an item " i" with those assets; the title is the asset's, else the item id.
QString layer(StacClient &client, const QByteArray &json, const QString &key = {})
{
    const QByteArray feature = json.startsWith('{') ? json : R"({"id":" i","assets":{)" + json + "}}";
    const StacCogLayer chosen = client.cogLayer(
        StacClient::parseItemCollection("{\"features\":[" + feature + "]}", pageUrl).items.value(0), key);
    return chosen.title + u' ' + chosen.gdalVirtualPath;
}

// A catalogue in the manner of the recorded APIs. A first path segment of digits is the status to answer with, over
// a body that is not JSON; "/stall" never answers; "/huge" sends 128 MiB, "/endless" header lines without end; "/naip"
// and "/aster" give a page of a search paged by POST (token in the body) and by GET (token in the query), whose next
// link leads back here.
FaultReply catalogue(const FaultRequest &request)
{
    if (request.target.startsWith("/stall"))
        return { {}, 0, -1, true };
    if (request.target.startsWith("/huge"))
        return { "HTTP/1.1 200 X\r\nContent-Length: 134217728\r\n\r\n", 0, -1, false, QByteArray(65536, ' ') };
    if (request.target.startsWith("/endless"))
        return { "HTTP/1.1 200 X\r\n", 0, -1, false, "X-A: 1\r\n" };
    if (const int status = request.target.mid(1, 3).toInt())
        return httpReply(status, {}, "<html>");
    const QByteArray page = request.target.startsWith("/aster") ? "aster-l1t-items-page1-next-get-token"
        : request.target.startsWith("/naip")                    ? "naip-page2-next-and-previous-post-token"
                                                                : "search-ids-no-match-empty";
    return httpReply(200, {},
        fixture("planetary-computer-" + page + ".json")
            .replace("https://planetarycomputer.microsoft.com/api/stac", "http://" + request.header("Host")));
}

// The configured Authorization and the User-Agent that a next page on another port received.
QString nextPageElsewhere(StacClient &client)
{
    FaultServer elsewhere(catalogue);
    client.setHeaders({ { "Authorization", "Bearer t" } });
    client.fetchNext({ {}, elsewhere.url("/n"), "GET", {}, -1, -1, {} });
    const FaultRequest sent = elsewhere.requests().value(0);
    return QString::fromLatin1(sent.header("Authorization") + ';' + sent.header("User-Agent"));
}

} // namespace

class TestStac : public QObject {
    Q_OBJECT

private slots:
    void stac_data();
    void stac();
};

void TestStac::stac_data()
{
    QTest::addColumn<Scenario>("scenario");
    QTest::addColumn<QString>("expected");
    // Parsing.
    ROW("context counts win, fallbacks for odd members",
        describe(R"({"features":[{"id":42,"collection":"C","bbox":["x",1],"assets":{"a":{"href":"b.tif","roles":)"
                 R"(["data",5]},"z":"https://x/z.tif"}},5],"context":{"matched":1234,"returned":10}})"))
        << "2 items 1234/10 GET  {}; '' 'C' QList(0, 1) 2 https://h/v1/b.tif QList(data, )";
    ROW("top-level counts without a context", describe(R"({"numberMatched":77,"numberReturned":3})"))
        << "0 items 77/3 GET  {}; '' '' QList() 0  QList()";
    ROW("a context keeps its own rule", describe(R"({"numberMatched":77,"context":{}})"))
        << "0 items -1/0 GET  {}; '' '' QList() 0  QList()";
    ROW("first next link wins, Next is not next, method upper-cased",
        describe(R"({"links":["next",{"rel":"Next","href":"/n"},{"rel":"next","href":"/p2","method":"post",)"
                 R"("body":{"token":"one"}},{"rel":"next","href":"/p3"}]})"))
        << R"(0 items -1/0 POST https://h/p2 {"token":"one"}; '' '' QList() 0  QList())";
    ROW("truncated page", describe("{\"features\":[{\"id\":\"a")) << "runtime: Invalid STAC JSON: unterminated string";
    ROW("top-level array", describe("[{}]")) << "runtime: Invalid STAC JSON: no error occurred";

    // Searching and paging.
    ROW("trailing slash, query kept, shortest numbers, key order, pages by POST",
        search(client, server, "/naip/?k=a%26b",
            { { "naip" }, { -105.5, 1.0 / 3.0, -1e-7, 40, 0, 9 }, {}, {}, 10, {}, {}, "cql2-text" }))
        << R"(10 items | POST /naip/search?k=a%26b {"bbox":[-105.5,0.3333333333333333,-1e-07,40,0,9],)"
           R"("collections":["naip"],"filter-lang":"cql2-text","limit":10} | POST /v1/search {"collections":["naip"],)"
           R"("limit":10,"token":"next:naip:mt_m_4511355_sw_12_060_20231117_20240103"})";
    ROW("every member, file-like path, pages by GET",
        search(client, server, "/aster.json",
            { { "s2" }, {}, { { "type", "Point" } }, "2023-10-08/..", 1, { { "q", 1 } }, { { "op", "lte" } }, {} }))
        << R"(10 items | POST /aster.json/search {"collections":["s2"],"datetime":"2023-10-08/..",)"
           R"("filter":{"op":"lte"},"intersects":{"type":"Point"},"limit":1,"query":{"q":1}} | GET /v1/collections/)"
           "aster-l1t/items?collections=aster-l1t&token=next:aster-l1t:AST_L1T_00312272006013647_20150517144406";
    ROW("limit checked first", search(client, server, "/v1", { {}, { 1, 2, 3 }, {}, {}, 0, {}, {}, {} }))
        << "argument: STAC search limit must be positive";
    ROW("bbox of five", search(client, server, "/v1", { {}, { 1, 2, 3, 4, 5 }, {}, {}, 100, {}, {}, {} }))
        << "argument: STAC bbox must contain four or six coordinates";
    ROW("bbox and intersects", search(client, server, "/v1", { {}, { 1, 2, 3, 4 }, { { "a", 1 } }, {}, 9, {}, {}, {} }))
        << "argument: STAC search cannot contain both bbox and intersects";
    ROW("configured headers replace fixed ones, answers kept per headers",
        (client.fetchPage(server.url("/a")), client.setHeaders({ { "accept", "text/x" }, { "User-Agent", "host/3" } }),
            client.fetchPage(server.url("/a")), headersSent(server)))
        << "application/json;application/geo+json, application/json;Norvane.Cloud/1; "
           "application/json;text/x;host/3;  | GET /a | GET /a";
    ROW("300 without Location, not kept", (client.fetchPage(server.url("/300")), QString()))
        << "runtime: STAC request failed (300): Unknown error | GET /300 | GET /300";
    ROW("not JSON, kept as received", (client.fetchPage(server.url("/200")), QString()))
        << "runtime: Invalid STAC JSON: illegal value | GET /200";
    ROW("stall, not kept", (client.setTimeoutMilliseconds(300), client.fetchPage(server.url("/stall")), QString()))
        << "runtime: STAC request timed out | GET /stall | GET /stall";
    ROW("endless header lines, not kept", (client.fetchPage(server.url("/endless")), QString()))
        << "runtime: STAC request failed (200): HTTP answer header exceeds 64 KiB | GET /endless | GET /endless";
    ROW("answer over 64 MiB, not kept", (client.fetchPage(server.url("/huge")), QString()))
        << "runtime: STAC answer exceeds 64 MiB | GET /huge | GET /huge";
    ROW("next page on another origin, without configured headers", nextPageElsewhere(client)) << ";Norvane.Cloud/1";
    ROW("catalog URL without scheme", StacClient(QUrl("stac.example/v1")).catalogUrl().toString())
        << "argument: STAC catalog URL is invalid";
    ROW("no next page", (client.fetchNext({}), QString())) << "argument: STAC result does not contain a next page";
    ROW("next by PUT", (client.fetchNext({ {}, pageUrl, "PUT", {}, -1, -1, {} }), QString()))
        << "argument: STAC next-page method must be GET or POST";
    ROW("zero timeout", (client.setTimeoutMilliseconds(0), QString())) << "argument: STAC timeout must be positive";

    // COG layers.
    ROW("recorded item, relative hrefs", layer(client, fixture("usgs-landsat-c2-l2-item-relative-asset-hrefs.json")))
        << "Atmospheric Transmittance Band /vsicurl/https://h/v1/LC08_L2SP_047027_20201204_20210313_02_T1_ST_ATRAN.TIF";
    ROW("data and visual beat data with the key bonus",
        layer(client, R"("Data":{"href":"d.tif","roles":["data"]},"z":{"href":"z.tif","roles":["data","visual"]})"))
        << " i /vsicurl/https://h/v1/z.tif";
    ROW("TIFF type without a TIFF name, cloud-optimized beats visual",
        layer(
            client, R"("a":{"href":"a.tif","roles":["visual"]},"b":{"href":"b","type":"image/TIFF;cloud-optimized"})"))
        << " i /vsicurl/https://h/v1/b";
    ROW("candidates: http(s) and .tif(f) in any case, no PNG; roles in any case; data beats visual",
        layer(client,
            R"("a":{"href":"s3://b/a.tif","roles":["data"]},"b":{"href":"b.png","roles":["data"]},)"
            R"("c":{"href":"HTTP://h/my C.TIFF?sig=1","roles":["DATA"]},"d":{"href":"d.tif","roles":["visual"]})"))
        << " i /vsicurl/http://h/my%20C.TIFF?sig=1";
    ROW("key bonus in any case, ties go to the first key",
        layer(client, R"("B04":{"href":"b.tif"},"Visual":{"href":"v.tif"},"data":{"href":"d.tif"})"))
        << " i /vsicurl/https://h/v1/v.tif";
    ROW("no candidate", layer(client, R"("a":{},"b":{"href":"b.png"})"))
        << "runtime: STAC item does not contain an HTTP COG asset";
    const QByteArray three = R"("a":{"href":"a.tif"},"b":{"href":"b.tif","roles":["data"]},"p":{"href":"p.png"})";
    ROW("named asset whatever its score", layer(client, three, "a")) << " i /vsicurl/https://h/v1/a.tif";
    ROW("named key is case-sensitive", layer(client, three, "A")) << "argument: Requested STAC asset does not exist";
    ROW("named non-candidate", layer(client, three, "p"))
        << "argument: Requested STAC asset is not an HTTP COG candidate";
    ROW("white-space id, checked first", layer(client, R"({"id":" \t"})", "a")) << "argument: STAC item id is empty";
}

// Each row runs twice, the second time with a new client on the same cache: an answer that arrived is not asked
// for again, a failure is. The requests the server saw follow the outcome.
void TestStac::stac()
{
    QFETCH(Scenario, scenario);
    QFETCH(QString, expected);
    FaultServer server(catalogue);
    QTemporaryDir folder;
    const auto cache = std::make_shared<CloudRangeCache>(CloudCacheOptions { folder.path() });
    QString outcomes[2];
    for (QString &outcome : outcomes) {
        StacClient client(server.url("/v1"), cache);
        try {
            outcome = scenario(client, server);
        } catch (const std::exception &error) {
            outcome = (dynamic_cast<const std::invalid_argument *>(&error) ? "argument: " : "runtime: ")
                + QString::fromUtf8(error.what());
        }
    }
    QCOMPARE(outcomes[1], outcomes[0]);
    for (const FaultRequest &sent : server.requests())
        outcomes[0] += " | " + QString::fromUtf8(sent.method + ' ' + sent.target + ' ' + sent.body).trimmed();
    QCOMPARE(outcomes[0], expected);
    // The catalogue's traffic is not range traffic; only the cache's lookups and stores count it.
    QCOMPARE(cache->statistics().networkRequests, 0);
}

QTEST_GUILESS_MAIN(TestStac)
#include "tst_stac.moc"
