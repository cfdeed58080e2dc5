// Item-collection parsing on recorded STAC API pages and on hand-made pages that exercise the lenient fallbacks.

#include <norvanecloud/stac.h>

#include <QFile>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QTest>

#include <stdexcept>

using namespace Norvane::Cloud;

namespace {

QByteArray readStacFixture(const QString &name)
{
    QFile file(QStringLiteral(NORVANE_TEST_DATA_DIR "/stac/") + name);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot open fixture %s", qPrintable(name));
    return file.readAll();
}

QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QString parseFailure(const QByteArray &body)
{
    try {
        StacClient::parseItemCollection(body, QUrl(QStringLiteral("https://stac.example/search")));
    } catch (const std::runtime_error &error) {
        return QString::fromUtf8(error.what());
    }
    return QString();
}

const QUrl searchPage(QStringLiteral("https://catalog.example/api/stac/v1/search?token=abc"));

} // namespace

class TestStacItemCollection : public QObject {
    Q_OBJECT

private slots:
    void recordedPages_data();
    void recordedPages();
    void recordedItemDetails();
    void relativeAssetHrefsResolveAgainstThePage();
    void assetKeysIterateInCaseSensitiveOrder();
    void pageFallbacks_data();
    void pageFallbacks();
    void itemFallbacks_data();
    void itemFallbacks();
    void hrefResolution_data();
    void hrefResolution();
    void invalidBodies_data();
    void invalidBodies();
};

void TestStacItemCollection::recordedPages_data()
{
    QTest::addColumn<QString>("fixture");
    QTest::addColumn<int>("items");
    QTest::addColumn<int>("assets");
    QTest::addColumn<QString>("firstId");
    QTest::addColumn<QString>("lastId");
    QTest::addColumn<QStringList>("collections");
    QTest::addColumn<qint64>("matched");
    QTest::addColumn<qint64>("returned");
    QTest::addColumn<QString>("nextPage");
    QTest::addColumn<QByteArray>("nextMethod");
    QTest::addColumn<QByteArray>("nextBody");

    QTest::newRow("earth-search cql2 filter, POST next with token only")
        << QStringLiteral("earth-search-v1-cql2-filter-page1-next-post-body.json") << 10 << 197
        << QStringLiteral("S1A_IW_GRDH_1SSH_20250731T135702_20250731T135722_060328_077F7E")
        << QStringLiteral("S2B_T24MVV_20250731T130245_L2A")
        << QStringList { QStringLiteral("sentinel-1-grd"), QStringLiteral("sentinel-2-c1-l2a"),
               QStringLiteral("sentinel-2-l1c"), QStringLiteral("sentinel-2-l2a") }
        << qint64(115912757) << qint64(10) << QStringLiteral("https://earth-search.aws.element84.com/v1/search")
        << QByteArray("POST")
        << QByteArray(R"({"next":"2025-07-31T13:03:25.899000Z,S2B_T24MVV_20250731T130245_L2A,sentinel-2-c1-l2a"})");
    QTest::newRow("earth-search cop-dem, POST next repeating collections")
        << QStringLiteral("earth-search-v1-cop-dem-glo-30-page1-next-post-body.json") << 10 << 10
        << QStringLiteral("Copernicus_DSM_COG_10_S90_00_W180_00_DEM")
        << QStringLiteral("Copernicus_DSM_COG_10_S90_00_W171_00_DEM")
        << QStringList { QStringLiteral("cop-dem-glo-30") } << qint64(26450) << qint64(10)
        << QStringLiteral("https://earth-search.aws.element84.com/v1/search") << QByteArray("POST")
        << QByteArray(R"({"collections":["cop-dem-glo-30"],"next":"2021-04-22T00:00:00Z,)"
                      R"(Copernicus_DSM_COG_10_S90_00_W171_00_DEM,cop-dem-glo-30"})");
    QTest::newRow("earth-search two collections, next link despite all matched")
        << QStringLiteral("earth-search-v1-multi-collection-page1-next-post-body.json") << 2 << 60
        << QStringLiteral("S2A_13TDE_20231008_0_L2A") << QStringLiteral("LC08_L2SP_033032_20231008_02_T1")
        << QStringList { QStringLiteral("landsat-c2-l2"), QStringLiteral("sentinel-2-l2a") } << qint64(2) << qint64(2)
        << QStringLiteral("https://earth-search.aws.element84.com/v1/search") << QByteArray("POST")
        << QByteArray(R"({"collections":["sentinel-2-l2a","landsat-c2-l2"],)"
                      R"("datetime":"2023-10-08T00:00:00Z/2023-10-08T23:59:59Z",)"
                      R"("intersects":{"coordinates":[-105.1019,40.1672],"type":"Point"},)"
                      R"("next":"2023-10-08T17:37:26.656958Z,LC08_L2SP_033032_20231008_02_T1,landsat-c2-l2"})");
    QTest::newRow("planetary computer naip page 1, no counts")
        << QStringLiteral("planetary-computer-naip-page1-next-post-token.json") << 10 << 40
        << QStringLiteral("mt_m_4911664_se_11_060_20231117_20240103")
        << QStringLiteral("mt_m_4811501_se_11_060_20231117_20240103") << QStringList { QStringLiteral("naip") }
        << qint64(-1) << qint64(10) << QStringLiteral("https://planetarycomputer.microsoft.com/api/stac/v1/search")
        << QByteArray("POST")
        << QByteArray(
               R"({"collections":["naip"],"limit":10,"token":"next:naip:mt_m_4811501_se_11_060_20231117_20240103"})");
    QTest::newRow("planetary computer naip page 2, next and previous")
        << QStringLiteral("planetary-computer-naip-page2-next-and-previous-post-token.json") << 10 << 40
        << QStringLiteral("mt_m_4811501_nw_11_060_20231117_20240103")
        << QStringLiteral("mt_m_4511355_sw_12_060_20231117_20240103") << QStringList { QStringLiteral("naip") }
        << qint64(-1) << qint64(10) << QStringLiteral("https://planetarycomputer.microsoft.com/api/stac/v1/search")
        << QByteArray("POST")
        << QByteArray(
               R"({"collections":["naip"],"limit":10,"token":"next:naip:mt_m_4511355_sw_12_060_20231117_20240103"})");
    QTest::newRow("planetary computer items endpoint, GET next with token query")
        << QStringLiteral("planetary-computer-aster-l1t-items-page1-next-get-token.json") << 10 << 81
        << QStringLiteral("AST_L1T_00312272006020322_20150518201805")
        << QStringLiteral("AST_L1T_00312272006013647_20150517144406") << QStringList { QStringLiteral("aster-l1t") }
        << qint64(-1) << qint64(10)
        << QStringLiteral("https://planetarycomputer.microsoft.com/api/stac/v1/collections/aster-l1t/items"
                          "?collections=aster-l1t&token=next:aster-l1t:AST_L1T_00312272006013647_20150517144406")
        << QByteArray("GET") << QByteArray("{}");
    // numberReturned is present but outside "context", so the parsed count stands in for it.
    QTest::newRow("planetary computer intersects, last page")
        << QStringLiteral("planetary-computer-naip-intersects-single-page-no-next.json") << 42 << 198
        << QStringLiteral("vt_m_4307308_nw_18_030_20230622_20231113")
        << QStringLiteral("vt_m_4307307_ne_18_1_20110818_20111114") << QStringList { QStringLiteral("naip") }
        << qint64(-1) << qint64(42) << QString() << QByteArray("GET") << QByteArray("{}");
    QTest::newRow("planetary computer empty result")
        << QStringLiteral("planetary-computer-search-ids-no-match-empty.json") << 0 << 0 << QString() << QString()
        << QStringList() << qint64(-1) << qint64(0) << QString() << QByteArray("GET") << QByteArray("{}");
}

void TestStacItemCollection::recordedPages()
{
    QFETCH(QString, fixture);
    QFETCH(int, items);
    QFETCH(int, assets);
    QFETCH(QString, firstId);
    QFETCH(QString, lastId);
    QFETCH(QStringList, collections);
    QFETCH(qint64, matched);
    QFETCH(qint64, returned);
    QFETCH(QString, nextPage);
    QFETCH(QByteArray, nextMethod);
    QFETCH(QByteArray, nextBody);

    const QByteArray body = readStacFixture(fixture);
    const StacSearchResult result = StacClient::parseItemCollection(body, searchPage);

    QCOMPARE(result.items.size(), items);
    int assetCount = 0;
    QStringList seenCollections;
    for (const StacItem &item : result.items) {
        assetCount += item.assets.size();
        if (!seenCollections.contains(item.collection))
            seenCollections.append(item.collection);
    }
    seenCollections.sort();
    QCOMPARE(assetCount, assets);
    QCOMPARE(seenCollections, collections);
    if (items > 0) {
        QCOMPARE(result.items.constFirst().id, firstId);
        QCOMPARE(result.items.constLast().id, lastId);
    }
    QCOMPARE(result.matched, matched);
    QCOMPARE(result.returned, returned);
    QCOMPARE(result.nextPage.isValid(), !nextPage.isEmpty());
    QCOMPARE(result.nextPage.toString(QUrl::FullyEncoded), nextPage);
    QCOMPARE(result.nextMethod, nextMethod);
    QCOMPARE(compact(result.nextBody), nextBody);
    QCOMPARE(result.raw, QJsonDocument::fromJson(body).object());
}

void TestStacItemCollection::recordedItemDetails()
{
    const StacSearchResult result = StacClient::parseItemCollection(
        readStacFixture(QStringLiteral("earth-search-v1-multi-collection-page1-next-post-body.json")), searchPage);
    QCOMPARE(result.items.size(), 2);

    const StacItem &sentinel = result.items.at(0);
    QCOMPARE(sentinel.collection, QStringLiteral("sentinel-2-l2a"));
    const QList<double> expectedBbox { -106.18316062292897, 39.65576169772817, -104.88456877606482,
        40.650789813976196 };
    QCOMPARE(sentinel.bbox, expectedBbox);
    QCOMPARE(sentinel.geometry.value(QLatin1String("type")).toString(), QStringLiteral("Polygon"));
    QCOMPARE(
        sentinel.properties.value(QLatin1String("datetime")).toString(), QStringLiteral("2023-10-08T18:02:55.276000Z"));
    QVERIFY(!sentinel.links.isEmpty());

    const StacAsset &visual = sentinel.assets.value(QStringLiteral("visual"));
    QCOMPARE(visual.href,
        QUrl(QStringLiteral("https://sentinel-cogs.s3.us-west-2.amazonaws.com/sentinel-s2-l2a-cogs/13/T/DE/2023/10/"
                            "S2A_13TDE_20231008_0_L2A/TCI.tif")));
    QCOMPARE(visual.title, QStringLiteral("True color image"));
    QCOMPARE(visual.mediaType, QStringLiteral("image/tiff; application=geotiff; profile=cloud-optimized"));
    QCOMPARE(visual.roles, QStringList { QStringLiteral("visual") });
    QCOMPARE(visual.raw.value(QLatin1String("proj:shape")).toArray().size(), 2);

    const StacAsset &blue = sentinel.assets.value(QStringLiteral("blue-jp2"));
    QCOMPARE(blue.href, QUrl(QStringLiteral("s3://sentinel-s2-l2a/tiles/13/T/DE/2023/10/8/0/B02.jp2")));
    QCOMPARE(blue.roles, (QStringList { QStringLiteral("data"), QStringLiteral("reflectance") }));

    const StacItem &landsat = result.items.at(1);
    QCOMPARE(landsat.collection, QStringLiteral("landsat-c2-l2"));
    QCOMPARE(landsat.assets.value(QStringLiteral("atran")).title, QStringLiteral("Atmospheric Transmittance Band"));
}

void TestStacItemCollection::relativeAssetHrefsResolveAgainstThePage()
{
    // A real item whose 25 assets all carry bare file names, served as the only feature of a page.
    const QByteArray item = readStacFixture(QStringLiteral("usgs-landsat-c2-l2-item-relative-asset-hrefs.json"));
    const QByteArray page
        = QByteArrayLiteral(R"({"type":"FeatureCollection","features":[)") + item + QByteArrayLiteral("]}");
    const QUrl pageUrl(QStringLiteral("https://landsat.example/level-2/047/027/items.json?sig=1"));
    const StacSearchResult result = StacClient::parseItemCollection(page, pageUrl);

    QCOMPARE(result.items.size(), 1);
    const StacItem &parsed = result.items.constFirst();
    QCOMPARE(parsed.id, QStringLiteral("LC08_L2SP_047027_20201204_02_T1"));
    QCOMPARE(parsed.collection, QString());
    QCOMPARE(parsed.assets.size(), 25);
    for (const StacAsset &asset : parsed.assets) {
        QCOMPARE(asset.href.host(), QStringLiteral("landsat.example"));
        QVERIFY2(asset.href.path().startsWith(QLatin1String("/level-2/047/027/LC08_")), qPrintable(asset.href.path()));
        QVERIFY(!asset.href.hasQuery());
    }
    QCOMPARE(parsed.assets.value(QStringLiteral("red")).href,
        QUrl(QStringLiteral(
            "https://landsat.example/level-2/047/027/LC08_L2SP_047027_20201204_20210313_02_T1_SR_B4.TIF")));
    // raw keeps the href as sent.
    QCOMPARE(parsed.assets.value(QStringLiteral("red")).raw.value(QLatin1String("href")).toString(),
        QStringLiteral("LC08_L2SP_047027_20201204_20210313_02_T1_SR_B4.TIF"));
}

void TestStacItemCollection::assetKeysIterateInCaseSensitiveOrder()
{
    const QByteArray page = R"({"features":[{"id":"x","assets":{"visual":{},"B04":{},"data":{},"Visual":{}}}]})";
    const StacSearchResult result = StacClient::parseItemCollection(page, searchPage);
    QCOMPARE(result.items.constFirst().assets.keys(),
        (QStringList {
            QStringLiteral("B04"), QStringLiteral("Visual"), QStringLiteral("data"), QStringLiteral("visual") }));
}

void TestStacItemCollection::pageFallbacks_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QStringList>("ids");
    QTest::addColumn<qint64>("matched");
    QTest::addColumn<qint64>("returned");
    QTest::addColumn<QString>("nextPage");
    QTest::addColumn<QByteArray>("nextMethod");
    QTest::addColumn<QByteArray>("nextBody");

    const QStringList none;
    QTest::newRow("empty object") << QByteArray("{}") << none << qint64(-1) << qint64(0) << QString()
                                  << QByteArray("GET") << QByteArray("{}");
    QTest::newRow("context counts win over the feature count")
        << QByteArray(R"({"features":[{"id":"a"},{"id":"b"},{"id":"c"}],"context":{"matched":1234,"returned":10}})")
        << QStringList { QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c") } << qint64(1234) << qint64(10)
        << QString() << QByteArray("GET") << QByteArray("{}");
    QTest::newRow("non-object features still count")
        << QByteArray(R"({"features":[{"id":"a"},5,"x",null,{"id":"e"}]})")
        << QStringList { QStringLiteral("a"), QString(), QString(), QString(), QStringLiteral("e") } << qint64(-1)
        << qint64(5) << QString() << QByteArray("GET") << QByteArray("{}");
    QTest::newRow("counts outside context are ignored")
        << QByteArray(R"({"numberMatched":7,"numberReturned":7,"context":[1]})") << none << qint64(-1) << qint64(0)
        << QString() << QByteArray("GET") << QByteArray("{}");
    QTest::newRow("context count of another type reads as 0")
        << QByteArray(R"({"context":{"matched":"12","returned":null}})") << none << qint64(0) << qint64(0) << QString()
        << QByteArray("GET") << QByteArray("{}");
    QTest::newRow("Next with a capital N is not a next link")
        << QByteArray(R"({"links":[{"rel":"Next","href":"https://other.example/p2"}]})") << none << qint64(-1)
        << qint64(0) << QString() << QByteArray("GET") << QByteArray("{}");
    QTest::newRow("first next link wins")
        << QByteArray(R"({"links":[{"rel":"self","href":"/self"},{"rel":"next","href":"/p2","method":"post",)"
                      R"("body":{"token":"one"}},{"rel":"next","href":"/p3","method":"GET"}]})")
        << none << qint64(-1) << qint64(0) << QStringLiteral("https://catalog.example/p2") << QByteArray("POST")
        << QByteArray(R"({"token":"one"})");
    QTest::newRow("non-object links are skipped")
        << QByteArray(R"({"links":["next",7,{"rel":"next","href":"p2"}]})") << none << qint64(-1) << qint64(0)
        << QStringLiteral("https://catalog.example/api/stac/v1/p2") << QByteArray("GET") << QByteArray("{}");
    QTest::newRow("empty method kept empty")
        << QByteArray(R"({"links":[{"rel":"next","href":"p2","method":""}]})") << none << qint64(-1) << qint64(0)
        << QStringLiteral("https://catalog.example/api/stac/v1/p2") << QByteArray() << QByteArray("{}");
    QTest::newRow("method of another type means GET")
        << QByteArray(R"({"links":[{"rel":"next","href":"p2","method":1,"body":[1]}]})") << none << qint64(-1)
        << qint64(0) << QStringLiteral("https://catalog.example/api/stac/v1/p2") << QByteArray("GET")
        << QByteArray("{}");
    QTest::newRow("unknown method upper-cased, not judged")
        << QByteArray(R"({"links":[{"rel":"next","href":"p2","method":"put"}]})") << none << qint64(-1) << qint64(0)
        << QStringLiteral("https://catalog.example/api/stac/v1/p2") << QByteArray("PUT") << QByteArray("{}");
}

void TestStacItemCollection::pageFallbacks()
{
    QFETCH(QByteArray, body);
    QFETCH(QStringList, ids);
    QFETCH(qint64, matched);
    QFETCH(qint64, returned);
    QFETCH(QString, nextPage);
    QFETCH(QByteArray, nextMethod);
    QFETCH(QByteArray, nextBody);

    const StacSearchResult result = StacClient::parseItemCollection(body, searchPage);
    QStringList parsedIds;
    for (const StacItem &item : result.items)
        parsedIds.append(item.id);
    QCOMPARE(parsedIds, ids);
    QCOMPARE(result.matched, matched);
    QCOMPARE(result.returned, returned);
    QCOMPARE(result.nextPage.isValid(), !nextPage.isEmpty());
    QCOMPARE(result.nextPage.toString(QUrl::FullyEncoded), nextPage);
    QCOMPARE(result.nextMethod, nextMethod);
    QCOMPARE(compact(result.nextBody), nextBody);
}

void TestStacItemCollection::itemFallbacks_data()
{
    QTest::addColumn<QByteArray>("feature");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("collection");
    QTest::addColumn<QList<double>>("bbox");
    QTest::addColumn<QStringList>("assetKeys");
    QTest::addColumn<QStringList>("rolesOfA");
    QTest::addColumn<QString>("hrefOfA");

    QTest::newRow("numbers where strings are expected")
        << QByteArray(R"({"id":42,"collection":7,"assets":{"a":{"href":3,"title":1,"type":2,"roles":"data"}}})")
        << QString() << QString() << QList<double>() << QStringList { QStringLiteral("a") } << QStringList()
        << QStringLiteral("https://catalog.example/api/stac/v1/search?token=abc");
    QTest::newRow("bbox with a string and a number")
        << QByteArray(R"({"id":"i","bbox":["x",1]})") << QStringLiteral("i") << QString() << QList<double> { 0.0, 1.0 }
        << QStringList() << QStringList() << QString();
    QTest::newRow("bbox count not validated")
        << QByteArray(R"({"id":"i","bbox":[1.5,-2,3]})") << QStringLiteral("i") << QString()
        << QList<double> { 1.5, -2.0, 3.0 } << QStringList() << QStringList() << QString();
    QTest::newRow("bbox not an array") << QByteArray(R"({"id":"i","bbox":"1,2,3,4"})") << QStringLiteral("i")
                                       << QString() << QList<double>() << QStringList() << QStringList() << QString();
    QTest::newRow("roles keep their places")
        << QByteArray(
               R"({"id":"i","assets":{"a":{"href":"https://x.example/a.tif","roles":["data",5,null,"Visual"]}}})")
        << QStringLiteral("i") << QString() << QList<double>() << QStringList { QStringLiteral("a") }
        << QStringList { QStringLiteral("data"), QString(), QString(), QStringLiteral("Visual") }
        << QStringLiteral("https://x.example/a.tif");
    QTest::newRow("non-object asset is an empty asset")
        << QByteArray(R"({"id":"i","assets":{"a":"https://x.example/a.tif","b":{}}})") << QStringLiteral("i")
        << QString() << QList<double>() << QStringList { QStringLiteral("a"), QStringLiteral("b") } << QStringList()
        << QStringLiteral("https://catalog.example/api/stac/v1/search?token=abc");
    QTest::newRow("assets not an object")
        << QByteArray(R"({"id":"i","assets":[{"href":"a.tif"}]})") << QStringLiteral("i") << QString()
        << QList<double>() << QStringList() << QStringList() << QString();
    QTest::newRow("ids are taken as sent")
        << QByteArray(R"({"id":"  spaced  ","collection":"C"})") << QStringLiteral("  spaced  ") << QStringLiteral("C")
        << QList<double>() << QStringList() << QStringList() << QString();
}

void TestStacItemCollection::itemFallbacks()
{
    QFETCH(QByteArray, feature);
    QFETCH(QString, id);
    QFETCH(QString, collection);
    QFETCH(QList<double>, bbox);
    QFETCH(QStringList, assetKeys);
    QFETCH(QStringList, rolesOfA);
    QFETCH(QString, hrefOfA);

    const QByteArray page = QByteArrayLiteral(R"({"features":[)") + feature + QByteArrayLiteral("]}");
    const StacSearchResult result = StacClient::parseItemCollection(page, searchPage);
    QCOMPARE(result.items.size(), 1);
    const StacItem &item = result.items.constFirst();
    QCOMPARE(item.id, id);
    QCOMPARE(item.collection, collection);
    QCOMPARE(item.bbox, bbox);
    QCOMPARE(item.assets.keys(), assetKeys);
    QCOMPARE(item.raw, QJsonDocument::fromJson(feature).object());
    if (item.assets.contains(QStringLiteral("a"))) {
        const StacAsset &asset = item.assets.value(QStringLiteral("a"));
        QCOMPARE(asset.roles, rolesOfA);
        QCOMPARE(asset.href.toString(QUrl::FullyEncoded), hrefOfA);
        QCOMPARE(asset.title, QString());
    }
}

void TestStacItemCollection::hrefResolution_data()
{
    QTest::addColumn<QString>("pageUrl");
    QTest::addColumn<QString>("href");
    QTest::addColumn<QString>("resolved");

    QTest::newRow("absolute") << QStringLiteral("https://a.example/v1/search")
                              << QStringLiteral("http://b.example/x.tif") << QStringLiteral("http://b.example/x.tif");
    QTest::newRow("bare file name is a sibling")
        << QStringLiteral("https://a.example/v1/items/one.json?sig=2") << QStringLiteral("B04.TIF")
        << QStringLiteral("https://a.example/v1/items/B04.TIF");
    QTest::newRow("dot segments") << QStringLiteral("https://a.example/v1/items/one.json")
                                  << QStringLiteral("../data/B04.tif")
                                  << QStringLiteral("https://a.example/v1/data/B04.tif");
    QTest::newRow("query only") << QStringLiteral("https://a.example/v1/search?token=1") << QStringLiteral("?token=2")
                                << QStringLiteral("https://a.example/v1/search?token=2");
    QTest::newRow("empty is the page without fragment")
        << QStringLiteral("https://a.example/v1/search?token=1#top") << QString()
        << QStringLiteral("https://a.example/v1/search?token=1");
    QTest::newRow("tolerant parsing encodes spaces")
        << QStringLiteral("https://a.example/v1/search") << QStringLiteral("my band.tif")
        << QStringLiteral("https://a.example/v1/my%20band.tif");
    QTest::newRow("other schemes pass unchanged")
        << QStringLiteral("https://a.example/v1/search") << QStringLiteral("s3://bucket/key/B04.tif")
        << QStringLiteral("s3://bucket/key/B04.tif");
}

void TestStacItemCollection::hrefResolution()
{
    QFETCH(QString, pageUrl);
    QFETCH(QString, href);
    QFETCH(QString, resolved);

    QJsonObject asset;
    if (!href.isNull())
        asset.insert(QLatin1String("href"), href);
    QJsonObject link { { QLatin1String("rel"), QLatin1String("next") } };
    if (!href.isNull())
        link.insert(QLatin1String("href"), href);
    const QJsonObject feature { { QLatin1String("id"), QLatin1String("i") },
        { QLatin1String("assets"), QJsonObject { { QLatin1String("a"), asset } } } };
    const QJsonObject page { { QLatin1String("features"), QJsonArray { feature } },
        { QLatin1String("links"), QJsonArray { link } } };

    const StacSearchResult result = StacClient::parseItemCollection(compact(page), QUrl(pageUrl));
    QCOMPARE(result.items.constFirst().assets.value(QStringLiteral("a")).href.toString(QUrl::FullyEncoded), resolved);
    QCOMPARE(result.nextPage.toString(QUrl::FullyEncoded), resolved);
}

void TestStacItemCollection::invalidBodies_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("message");

    const QByteArray recorded = readStacFixture(QStringLiteral("planetary-computer-naip-page1-next-post-token.json"));
    QTest::newRow("truncated recorded page")
        << recorded.left(recorded.size() / 2) << QStringLiteral("Invalid STAC JSON: unterminated string");
    QTest::newRow("top-level array") << QByteArray(R"([{"type":"FeatureCollection"}])")
                                     << QStringLiteral("Invalid STAC JSON: no error occurred");
    // Qt's parser itself refuses a scalar at the top level.
    QTest::newRow("bare string") << QByteArray(R"("features")") << QStringLiteral("Invalid STAC JSON: illegal value");
    QTest::newRow("empty body") << QByteArray() << QStringLiteral("Invalid STAC JSON: illegal value");
}

void TestStacItemCollection::invalidBodies()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, message);

    // The text after the prefix is Qt's own wording for the parser's state.
    QJsonParseError parserState;
    QJsonDocument::fromJson(body, &parserState);
    QCOMPARE(message, QStringLiteral("Invalid STAC JSON: ") + parserState.errorString());
    QCOMPARE(parseFailure(body), message);
}

QTEST_GUILESS_MAIN(TestStacItemCollection)
#include "tst_stacitemcollection.moc"
