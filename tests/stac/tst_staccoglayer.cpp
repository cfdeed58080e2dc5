// Choosing the asset of an item that opens as a COG over HTTP(S): the candidate test, the score, the key-order
// tie-break and the layer that comes out, on recorded items and on made-up ones.

#include <norvanecloud/stac.h>

#include "stac/staccoglayer.h"

#include <QFile>
#include <QJsonDocument>
#include <QTemporaryDir>
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

StacSearchResult parseFixture(const QString &name, const QUrl &pageUrl)
{
    return StacClient::parseItemCollection(readStacFixture(name), pageUrl);
}

// A single recorded item, served as the only feature of a page at pageUrl.
StacItem parseItemFixture(const QString &name, const QUrl &pageUrl)
{
    const QByteArray page = QByteArrayLiteral(R"({"features":[)") + readStacFixture(name) + QByteArrayLiteral("]}");
    return StacClient::parseItemCollection(page, pageUrl).items.constFirst();
}

StacAsset asset(const QString &href, const QString &mediaType, const QStringList &roles = {})
{
    StacAsset made;
    made.href = QUrl(href);
    made.mediaType = mediaType;
    made.roles = roles;
    made.raw = QJsonObject { { QLatin1String("href"), href }, { QLatin1String("type"), mediaType } };
    return made;
}

const QString cogType = QStringLiteral("image/tiff; application=geotiff; profile=cloud-optimized");
const QUrl earthSearch(QStringLiteral("https://earth-search.aws.element84.com/v1/search"));

} // namespace

class TestStacCogLayer : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void score_data();
    void score();
    void recordedItems_data();
    void recordedItems();
    void layerFromRecordedItem();
    void givenKeys_data();
    void givenKeys();
    void tiesGoToTheFirstKey();
    void itemIdChecks_data();
    void itemIdChecks();
    void titleFallsBackToTheItemId();

private:
    QTemporaryDir cacheFolder;
    std::shared_ptr<CloudRangeCache> cache;
};

void TestStacCogLayer::initTestCase()
{
    QVERIFY(cacheFolder.isValid());
    CloudCacheOptions options;
    options.directory = cacheFolder.path();
    options.diskEnabled = false;
    cache = std::make_shared<CloudRangeCache>(options);
}

void TestStacCogLayer::score_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("href");
    QTest::addColumn<QString>("mediaType");
    QTest::addColumn<QStringList>("roles");
    QTest::addColumn<int>("expected");

    const QString tif = QStringLiteral("https://x.example/b.tif");
    const QString data = QStringLiteral("data");
    const QString visual = QStringLiteral("visual");

    QTest::newRow("data and visual roles, COG type")
        << QStringLiteral("b") << tif << cogType << QStringList { visual, data } << 90;
    QTest::newRow("data role, COG type") << QStringLiteral("B04") << tif << cogType << QStringList { data } << 70;
    QTest::newRow("visual role, COG type, key visual")
        << QStringLiteral("visual") << tif << cogType << QStringList { visual } << 60;
    QTest::newRow("no roles, plain TIFF type")
        << QStringLiteral("b") << tif << QStringLiteral("image/tiff") << QStringList() << 0;
    QTest::newRow("key data earns its bonus")
        << QStringLiteral("data") << tif << QStringLiteral("image/tiff") << QStringList() << 10;
    QTest::newRow("key bonus ignores case")
        << QStringLiteral("Visual") << tif << QStringLiteral("image/tiff") << QStringList() << 10;
    QTest::newRow("key must match whole")
        << QStringLiteral("visual-jp2") << tif << QStringLiteral("image/tiff") << QStringList() << 0;
    QTest::newRow("roles ignore case") << QStringLiteral("b") << tif << QStringLiteral("image/tiff")
                                       << QStringList { QStringLiteral("DATA"), QStringLiteral("VISUAL") } << 60;
    QTest::newRow("roles are whole entries")
        << QStringLiteral("b") << tif << QStringLiteral("image/tiff")
        << QStringList { QStringLiteral("data-mask"), QStringLiteral("visuals") } << 0;
    QTest::newRow("upper-case .TIF without type")
        << QStringLiteral("b") << QStringLiteral("https://x.example/B4.TIF") << QString() << QStringList { data } << 40;
    QTest::newRow(".tiff with query") << QStringLiteral("b") << QStringLiteral("https://x.example/a.tiff?sig=1")
                                      << QString() << QStringList() << 0;
    QTest::newRow("geotiff type on an extensionless path")
        << QStringLiteral("b") << QStringLiteral("https://x.example/download?id=4") << QStringLiteral("IMAGE/GEOTIFF")
        << QStringList() << 0;
    QTest::newRow("upper-case HTTP scheme")
        << QStringLiteral("b") << QStringLiteral("HTTP://x.example/b.tif") << cogType << QStringList { data } << 70;
    QTest::newRow("s3 scheme is not a candidate")
        << QStringLiteral("data") << QStringLiteral("s3://bucket/b.tif") << cogType << QStringList { data } << -1;
    QTest::newRow("relative href is not a candidate")
        << QStringLiteral("data") << QStringLiteral("b.tif") << cogType << QStringList { data } << -1;
    QTest::newRow("PNG thumbnail over HTTPS")
        << QStringLiteral("thumbnail") << QStringLiteral("https://x.example/t.png") << QStringLiteral("image/png")
        << QStringList { data } << -1;
    QTest::newRow("jp2 with data role") << QStringLiteral("red-jp2") << QStringLiteral("https://x.example/B04.jp2")
                                        << QStringLiteral("image/jp2") << QStringList { data } << -1;
}

void TestStacCogLayer::score()
{
    QFETCH(QString, key);
    QFETCH(QString, href);
    QFETCH(QString, mediaType);
    QFETCH(QStringList, roles);
    QFETCH(int, expected);

    const StacAsset candidate = asset(href, mediaType, roles);
    QCOMPARE(StacCogLayers::score(key, candidate), expected);
    QCOMPARE(StacCogLayers::isHttpCogCandidate(candidate), expected >= 0);
}

void TestStacCogLayer::recordedItems_data()
{
    QTest::addColumn<QString>("fixture");
    QTest::addColumn<QString>("pageUrl");
    QTest::addColumn<int>("itemIndex");
    QTest::addColumn<QString>("assetKey");
    QTest::addColumn<QString>("failure");

    // Sentinel-2: the data bands (70) beat the visual composite (60), the thumbnail and the s3 jp2 copies.
    QTest::newRow("sentinel-2 data band over visual")
        << QStringLiteral("earth-search-v1-multi-collection-page1-next-post-body.json") << earthSearch.toString() << 0
        << QStringLiteral("aot") << QString();
    QTest::newRow("landsat assets all on s3")
        << QStringLiteral("earth-search-v1-multi-collection-page1-next-post-body.json") << earthSearch.toString() << 1
        << QString() << QStringLiteral("STAC item does not contain an HTTP COG asset");
    QTest::newRow("copernicus DEM on s3")
        << QStringLiteral("earth-search-v1-cop-dem-glo-30-page1-next-post-body.json") << earthSearch.toString() << 0
        << QString() << QStringLiteral("STAC item does not contain an HTTP COG asset");
    // Three equal data COGs: upper-case keys in code-unit order.
    QTest::newRow("aster three equal bands")
        << QStringLiteral("planetary-computer-aster-l1t-items-page1-next-get-token.json")
        << QStringLiteral("https://planetarycomputer.microsoft.com/api/stac/v1/collections/aster-l1t/items") << 0
        << QStringLiteral("SWIR") << QString();
    QTest::newRow("naip image over preview and tilejson")
        << QStringLiteral("planetary-computer-naip-page1-next-post-token.json")
        << QStringLiteral("https://planetarycomputer.microsoft.com/api/stac/v1/search") << 9 << QStringLiteral("image")
        << QString();
}

void TestStacCogLayer::recordedItems()
{
    QFETCH(QString, fixture);
    QFETCH(QString, pageUrl);
    QFETCH(int, itemIndex);
    QFETCH(QString, assetKey);
    QFETCH(QString, failure);

    const StacItem item = parseFixture(fixture, QUrl(pageUrl)).items.at(itemIndex);
    StacClient client(QUrl(QStringLiteral("https://stac.example/v1")), cache);
    QString thrown;
    StacCogLayer layer;
    try {
        layer = client.cogLayer(item, QString());
    } catch (const std::runtime_error &error) {
        thrown = QString::fromUtf8(error.what());
    }
    QCOMPARE(thrown, failure);
    QCOMPARE(layer.assetKey, assetKey);
    if (failure.isEmpty()) {
        QCOMPARE(layer.sourceUrl, item.assets.value(assetKey).href);
        QCOMPARE(layer.itemId, item.id);
    }
}

void TestStacCogLayer::layerFromRecordedItem()
{
    // Relative hrefs become HTTPS COGs once resolved against an HTTPS page; the first data band in key order wins.
    const QUrl pageUrl(QStringLiteral("https://landsat.example/collection02/level-2/047/027/item.json"));
    const StacItem item
        = parseItemFixture(QStringLiteral("usgs-landsat-c2-l2-item-relative-asset-hrefs.json"), pageUrl);

    StacClient client(QUrl(QStringLiteral("https://stac.example/v1")), cache);
    const QHash<QByteArray, QByteArray> headers { { QByteArrayLiteral("Authorization"), QByteArrayLiteral("Bearer t") },
        { QByteArrayLiteral("x-trace"), QByteArrayLiteral("1") } };
    client.setHeaders(headers);
    const StacCogLayer layer = client.cogLayer(item, QString());

    QCOMPARE(layer.itemId, QStringLiteral("LC08_L2SP_047027_20201204_02_T1"));
    QCOMPARE(layer.collection, QString());
    QCOMPARE(layer.assetKey, QStringLiteral("atran"));
    const QString href = QStringLiteral(
        "https://landsat.example/collection02/level-2/047/027/LC08_L2SP_047027_20201204_20210313_02_T1_ST_ATRAN.TIF");
    QCOMPARE(layer.sourceUrl, QUrl(href));
    QCOMPARE(layer.gdalVirtualPath, QStringLiteral("/vsicurl/") + href);
    QCOMPARE(layer.title, QStringLiteral("Atmospheric Transmittance Band"));
    QCOMPARE(layer.mediaType, cogType);
    QCOMPARE(layer.roles, QStringList { QStringLiteral("data") });
    QCOMPARE(layer.bbox, item.bbox);
    QCOMPARE(layer.bbox.size(), 4);
    QCOMPARE(layer.geometry, item.geometry);
    QCOMPARE(layer.itemProperties.value(QLatin1String("platform")).toString(), QStringLiteral("landsat-8"));
    QCOMPARE(layer.assetMetadata.value(QLatin1String("href")).toString(),
        QStringLiteral("LC08_L2SP_047027_20201204_20210313_02_T1_ST_ATRAN.TIF"));
    QCOMPARE(layer.requestHeaders, headers);

    // The same item read from a local file has no HTTP asset at all.
    const StacItem local = parseItemFixture(QStringLiteral("usgs-landsat-c2-l2-item-relative-asset-hrefs.json"),
        QUrl::fromLocalFile(QStringLiteral("/data/landsat/item.json")));
    QVERIFY_THROWS_EXCEPTION(std::runtime_error, client.cogLayer(local, QString()));
}

void TestStacCogLayer::givenKeys_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("failure");

    QTest::newRow("visual composite by name") << QStringLiteral("visual") << QString();
    QTest::newRow("score-0 asset by name") << QStringLiteral("plain") << QString();
    QTest::newRow("key case matters") << QStringLiteral("Visual")
                                      << QStringLiteral("Requested STAC asset does not exist");
    QTest::newRow("key is not trimmed") << QStringLiteral(" visual")
                                        << QStringLiteral("Requested STAC asset does not exist");
    QTest::newRow("thumbnail is no COG") << QStringLiteral("thumbnail")
                                         << QStringLiteral("Requested STAC asset is not an HTTP COG candidate");
    QTest::newRow("s3 copy is no HTTP COG")
        << QStringLiteral("visual-jp2") << QStringLiteral("Requested STAC asset is not an HTTP COG candidate");
}

void TestStacCogLayer::givenKeys()
{
    QFETCH(QString, key);
    QFETCH(QString, failure);

    StacItem item
        = parseFixture(QStringLiteral("earth-search-v1-multi-collection-page1-next-post-body.json"), earthSearch)
              .items.constFirst();
    item.assets.insert(QStringLiteral("plain"), asset(QStringLiteral("https://x.example/plain.tif"), QString()));

    StacClient client(QUrl(QStringLiteral("https://stac.example/v1")), cache);
    QString thrown;
    StacCogLayer layer;
    try {
        layer = client.cogLayer(item, key);
    } catch (const std::invalid_argument &error) {
        thrown = QString::fromUtf8(error.what());
    }
    QCOMPARE(thrown, failure);
    if (failure.isEmpty()) {
        QCOMPARE(layer.assetKey, key);
        QCOMPARE(layer.sourceUrl, item.assets.value(key).href);
    }
    // Without a key the plain asset (score 0) loses to the data bands.
    QCOMPARE(client.cogLayer(item, QString()).assetKey, QStringLiteral("aot"));
}

void TestStacCogLayer::tiesGoToTheFirstKey()
{
    StacItem item;
    item.id = QStringLiteral("tie");
    // Inserted out of order; the map holds them by code unit: "Band" < "band" < "c" < "thumbnail".
    item.assets.insert(QStringLiteral("c"), asset(QStringLiteral("https://x.example/c.tif"), cogType, { "data" }));
    item.assets.insert(QStringLiteral("band"), asset(QStringLiteral("https://x.example/b.tif"), cogType, { "data" }));
    item.assets.insert(QStringLiteral("Band"), asset(QStringLiteral("https://x.example/B.tif"), cogType, { "data" }));
    item.assets.insert(QStringLiteral("thumbnail"),
        asset(QStringLiteral("https://x.example/t.png"), QStringLiteral("image/png"), { "thumbnail" }));

    StacClient client(QUrl(QStringLiteral("https://stac.example/v1")), cache);
    QCOMPARE(client.cogLayer(item, QString()).assetKey, QStringLiteral("Band"));
    item.assets.remove(QStringLiteral("Band"));
    QCOMPARE(client.cogLayer(item, QString()).assetKey, QStringLiteral("band"));
    // A strictly higher score later in key order still wins.
    item.assets.insert(
        QStringLiteral("zeta"), asset(QStringLiteral("https://x.example/z.tif"), cogType, { "data", "visual" }));
    QCOMPARE(client.cogLayer(item, QString()).assetKey, QStringLiteral("zeta"));
}

void TestStacCogLayer::itemIdChecks_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<bool>("withAssets");
    QTest::addColumn<QString>("failure");

    QTest::newRow("three spaces") << QStringLiteral("   ") << true << QStringLiteral("STAC item id is empty");
    QTest::newRow("tab and newline") << QStringLiteral("\t\n") << true << QStringLiteral("STAC item id is empty");
    QTest::newRow("empty, no assets: the id is checked first")
        << QString() << false << QStringLiteral("STAC item id is empty");
    QTest::newRow("id but no assets") << QStringLiteral("x") << false
                                      << QStringLiteral("STAC item does not contain an HTTP COG asset");
    QTest::newRow("padded id kept as stored") << QStringLiteral(" x ") << true << QString();
}

void TestStacCogLayer::itemIdChecks()
{
    QFETCH(QString, id);
    QFETCH(bool, withAssets);
    QFETCH(QString, failure);

    StacItem item;
    item.id = id;
    if (withAssets)
        item.assets.insert(QStringLiteral("data"), asset(QStringLiteral("https://x.example/d.tif"), cogType));

    StacClient client(QUrl(QStringLiteral("https://stac.example/v1")), cache);
    QString thrown;
    StacCogLayer layer;
    try {
        layer = client.cogLayer(item, QString());
    } catch (const std::exception &error) {
        thrown = QString::fromUtf8(error.what());
    }
    QCOMPARE(thrown, failure);
    if (failure.isEmpty())
        QCOMPARE(layer.itemId, id);
}

void TestStacCogLayer::titleFallsBackToTheItemId()
{
    const StacItem item = parseFixture(QStringLiteral("planetary-computer-naip-intersects-single-page-no-next.json"),
        QUrl(QStringLiteral("https://planetarycomputer.microsoft.com/api/stac/v1/search")))
                              .items.constFirst();
    StacClient client(QUrl(QStringLiteral("https://stac.example/v1")), cache);
    QCOMPARE(client.cogLayer(item, QStringLiteral("image")).title, QStringLiteral("RGBIR COG tile"));

    StacItem untitled = item;
    untitled.assets[QStringLiteral("image")].title.clear();
    const StacCogLayer layer = client.cogLayer(untitled, QStringLiteral("image"));
    QCOMPARE(layer.title, QStringLiteral("vt_m_4307308_nw_18_030_20230622_20231113"));
    QVERIFY(layer.requestHeaders.isEmpty());
}

QTEST_GUILESS_MAIN(TestStacCogLayer)
#include "tst_staccoglayer.moc"
