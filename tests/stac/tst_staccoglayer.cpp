// Choosing the asset of an item that opens as a COG over HTTP(S): the candidate test, the score, the key-order
// tie-break and the layer that comes out, on recorded items and on made-up ones.

#include <norvanecloud/stac.h>

#include "stac/staccoglayer.h"
#include "stactestdata.h"

#include <QTemporaryDir>
#include <QTest>

#include <stdexcept>

using namespace Norvane::Cloud;

Q_DECLARE_METATYPE(StacItem)

namespace {

const QString cogType = QStringLiteral("image/tiff; application=geotiff; profile=cloud-optimized");
const QString tiffType = QStringLiteral("image/tiff");

StacItem recordedItem(const QString &fixture, int index)
{
    return StacClient::parseItemCollection(
        readStacFixture(fixture), QUrl(QStringLiteral("https://stac.example/search")))
        .items.at(index);
}

StacAsset asset(const QString &href, const QString &mediaType, const QStringList &roles = {})
{
    StacAsset made;
    made.href = QUrl(href);
    made.mediaType = mediaType;
    made.roles = roles;
    return made;
}

} // namespace

class TestStacCogLayer : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void score_data();
    void score();
    void choice_data();
    void choice();

private:
    QTemporaryDir cacheFolder;
    std::unique_ptr<StacClient> client;
};

void TestStacCogLayer::initTestCase()
{
    QVERIFY(cacheFolder.isValid());
    CloudCacheOptions options;
    options.directory = cacheFolder.path();
    options.diskEnabled = false;
    client = std::make_unique<StacClient>(
        QUrl(QStringLiteral("https://stac.example/v1")), std::make_shared<CloudRangeCache>(options));
    // Configured headers travel with every layer, unlike the fixed headers of the catalogue exchange.
    client->setHeaders({ { "Authorization", "Bearer t" } });
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

    QTest::newRow("data and visual roles, COG type") << "b" << tif << cogType << QStringList { visual, data } << 90;
    QTest::newRow("data role, COG type") << "B04" << tif << cogType << QStringList { data } << 70;
    QTest::newRow("visual role, COG type, key Visual") << "Visual" << tif << cogType << QStringList { visual } << 60;
    QTest::newRow("key data earns its bonus") << "data" << tif << tiffType << QStringList() << 10;
    QTest::newRow("key must match whole") << "visual-jp2" << tif << tiffType << QStringList() << 0;
    QTest::newRow("roles ignore case, whole entries only")
        << "b" << tif << tiffType << QStringList { QStringLiteral("DATA"), QStringLiteral("visuals") } << 40;
    QTest::newRow("upper-case .TIF without type")
        << "b" << QStringLiteral("HTTP://x.example/B4.TIF") << QString() << QStringList { visual } << 20;
    QTest::newRow(".tiff with query") << "b" << QStringLiteral("https://x.example/a.tiff?sig=1") << QString()
                                      << QStringList() << 0;
    QTest::newRow("geotiff type on an extensionless path") << "b" << QStringLiteral("https://x.example/download?id=4")
                                                           << QStringLiteral("IMAGE/GEOTIFF") << QStringList() << 0;
    QTest::newRow("s3 scheme is not a candidate")
        << "data" << QStringLiteral("s3://bucket/b.tif") << cogType << QStringList { data } << -1;
    QTest::newRow("PNG thumbnail over HTTPS") << "thumbnail" << QStringLiteral("https://x.example/t.png")
                                              << QStringLiteral("image/png") << QStringList { data } << -1;
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

void TestStacCogLayer::choice_data()
{
    QTest::addColumn<StacItem>("item");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("outcome");

    const QString earthSearch = QStringLiteral("earth-search-v1-multi-collection-page1-next-post-body.json");
    const QString noCog = QStringLiteral("runtime error: STAC item does not contain an HTTP COG asset");
    const QString noId = QStringLiteral("invalid argument: STAC item id is empty");
    const QString none;
    // Sentinel-2: the data bands (70) beat the visual composite (60), the thumbnail and the s3 jp2 copies.
    QTest::newRow("sentinel-2 data band over visual") << recordedItem(earthSearch, 0) << none << QStringLiteral("aot");
    QTest::newRow("sentinel-2 visual by name")
        << recordedItem(earthSearch, 0) << QStringLiteral("visual") << QStringLiteral("visual");
    QTest::newRow("sentinel-2 s3 copy by name")
        << recordedItem(earthSearch, 0) << QStringLiteral("blue-jp2")
        << QStringLiteral("invalid argument: Requested STAC asset is not an HTTP COG candidate");
    QTest::newRow("landsat assets all on s3") << recordedItem(earthSearch, 1) << none << noCog;
    // Three equal data COGs (TIR, SWIR, VNIR in the JSON): the first in key order wins, not the first sent.
    QTest::newRow("aster three equal bands")
        << recordedItem(QStringLiteral("planetary-computer-aster-l1t-items-page1-next-get-token.json"), 0) << none
        << QStringLiteral("SWIR");
    QTest::newRow("naip image over preview and tilejson")
        << recordedItem(QStringLiteral("planetary-computer-naip-page1-next-post-token.json"), 9) << none
        << QStringLiteral("image");

    // Relative hrefs become HTTPS COGs once resolved against an HTTPS page; the first data band in key order wins.
    const QByteArray landsat = QByteArrayLiteral(R"({"features":[)")
        + readStacFixture(QStringLiteral("usgs-landsat-c2-l2-item-relative-asset-hrefs.json")) + "]}";
    QTest::newRow("landsat with relative hrefs")
        << StacClient::parseItemCollection(landsat, QUrl(QStringLiteral("https://landsat.example/047/item.json")))
               .items.constFirst()
        << none << QStringLiteral("atran");

    StacItem made;
    made.id = QStringLiteral(" x ");
    made.assets.insert(QStringLiteral("plain"), asset(QStringLiteral("https://x.example/p.tif"), QString()));
    made.assets.insert(QStringLiteral("data"), asset(QStringLiteral("https://x.example/d.tif"), cogType));
    QTest::newRow("padded id kept as stored") << made << none << QStringLiteral("data");
    QTest::newRow("score-0 asset by name") << made << QStringLiteral("plain") << QStringLiteral("plain");
    QTest::newRow("key case matters") << made << QStringLiteral("Plain")
                                      << QStringLiteral("invalid argument: Requested STAC asset does not exist");
    made.id = QStringLiteral(" \t\n");
    QTest::newRow("white-space id") << made << none << noId;
    StacItem bare;
    QTest::newRow("empty id is checked before the key") << bare << QStringLiteral("none") << noId;
    bare.id = QStringLiteral("x");
    QTest::newRow("no assets") << bare << none << noCog;
}

void TestStacCogLayer::choice()
{
    QFETCH(StacItem, item);
    QFETCH(QString, key);
    QFETCH(QString, outcome);

    StacCogLayer layer;
    try {
        layer = client->cogLayer(item, key);
    } catch (const std::invalid_argument &error) {
        QCOMPARE(QStringLiteral("invalid argument: ") + QString::fromUtf8(error.what()), outcome);
        return;
    } catch (const std::runtime_error &error) {
        QCOMPARE(QStringLiteral("runtime error: ") + QString::fromUtf8(error.what()), outcome);
        return;
    }
    const StacAsset chosen = item.assets.value(outcome);
    QCOMPARE(layer.assetKey, outcome);
    QCOMPARE(layer.itemId, item.id);
    QCOMPARE(layer.collection, item.collection);
    QCOMPARE(layer.sourceUrl, chosen.href);
    QCOMPARE(layer.gdalVirtualPath, QStringLiteral("/vsicurl/") + chosen.href.toString());
    // Made-up assets carry no title, recorded ones do.
    QCOMPARE(layer.title, chosen.title.isEmpty() ? item.id : chosen.title);
    QCOMPARE(layer.mediaType, chosen.mediaType);
    QCOMPARE(layer.roles, chosen.roles);
    QCOMPARE(layer.bbox, item.bbox);
    QCOMPARE(layer.geometry, item.geometry);
    QCOMPARE(layer.itemProperties, item.properties);
    QCOMPARE(layer.assetMetadata, chosen.raw);
    QCOMPARE(layer.requestHeaders, client->headers());
}

QTEST_GUILESS_MAIN(TestStacCogLayer)
#include "tst_staccoglayer.moc"
