// Item-collection parsing on recorded STAC API pages and on small pages that exercise the lenient fallbacks.

#include <norvanecloud/stac.h>

#include "stactestdata.h"

#include <QJsonArray>
#include <QJsonParseError>
#include <QTest>

#include <stdexcept>

using namespace Norvane::Cloud;

namespace {

const QUrl searchPage(QStringLiteral("https://catalog.example/api/stac/v1/search?token=abc"));

StacSearchResult parse(const QByteArray &body, const QUrl &pageUrl = searchPage)
{
    return StacClient::parseItemCollection(body, pageUrl);
}

// One line per record, so that a table row can state every field the parser fills.
QString describe(const StacSearchResult &result)
{
    return QStringLiteral("matched %1 returned %2 next %3 %4 %5")
        .arg(result.matched)
        .arg(result.returned)
        .arg(QString::fromLatin1(result.nextMethod), result.nextPage.toString(QUrl::FullyEncoded),
            QString::fromUtf8(compact(result.nextBody)));
}

QString describe(const StacItem &item)
{
    QJsonArray bbox;
    for (double coordinate : item.bbox)
        bbox.append(coordinate);
    return QStringLiteral("'%1' in '%2' bbox %3 geometry '%4' properties %5")
        .arg(item.id, item.collection, QString::fromUtf8(QJsonDocument(bbox).toJson(QJsonDocument::Compact)),
            item.geometry.value(QLatin1String("type")).toString())
        .arg(item.properties.size());
}

QString describe(const StacAsset &asset)
{
    return QStringLiteral("%1 '%2' '%3' [%4]")
        .arg(asset.href.toString(QUrl::FullyEncoded), asset.title, asset.mediaType, asset.roles.join(u','));
}

} // namespace

class TestStacItemCollection : public QObject {
    Q_OBJECT

private slots:
    void recordedPages_data();
    void recordedPages();
    void recordedItems();
    void pageFallbacks_data();
    void pageFallbacks();
    void itemFallbacks_data();
    void itemFallbacks();
    void invalidBodies_data();
    void invalidBodies();
};

void TestStacItemCollection::recordedPages_data()
{
    QTest::addColumn<QString>("fixture");
    QTest::addColumn<int>("assets");
    QTest::addColumn<QString>("lastId");
    QTest::addColumn<QString>("paging");

    QTest::newRow("earth-search cql2 filter, POST next with token only")
        << QStringLiteral("earth-search-v1-cql2-filter-page1-next-post-body.json") << 197
        << QStringLiteral("S2B_T24MVV_20250731T130245_L2A")
        << QStringLiteral("matched 115912757 returned 10 next POST https://earth-search.aws.element84.com/v1/search "
                          R"({"next":"2025-07-31T13:03:25.899000Z,S2B_T24MVV_20250731T130245_L2A,sentinel-2-c1-l2a"})");
    QTest::newRow("planetary computer items endpoint, GET next with token query")
        << QStringLiteral("planetary-computer-aster-l1t-items-page1-next-get-token.json") << 81
        << QStringLiteral("AST_L1T_00312272006013647_20150517144406")
        << QStringLiteral("matched -1 returned 10 next GET "
                          "https://planetarycomputer.microsoft.com/api/stac/v1/collections/aster-l1t/items"
                          "?collections=aster-l1t&token=next:aster-l1t:AST_L1T_00312272006013647_20150517144406 {}");
}

void TestStacItemCollection::recordedPages()
{
    QFETCH(QString, fixture);
    QFETCH(int, assets);
    QFETCH(QString, lastId);
    QFETCH(QString, paging);

    const QByteArray body = readStacFixture(fixture);
    const StacSearchResult result = parse(body);
    int assetCount = 0;
    for (const StacItem &item : result.items)
        assetCount += item.assets.size();
    QCOMPARE(assetCount, assets);
    QCOMPARE(result.items.constLast().id, lastId);
    QCOMPARE(describe(result), paging);
    QCOMPARE(result.raw, QJsonDocument::fromJson(body).object());
}

void TestStacItemCollection::recordedItems()
{
    const QString cog = QStringLiteral("'image/tiff; application=geotiff; profile=cloud-optimized'");
    const StacItem sentinel
        = parse(readStacFixture(QStringLiteral("earth-search-v1-multi-collection-page1-next-post-body.json")))
              .items.constFirst();
    QCOMPARE(describe(sentinel),
        QStringLiteral("'S2A_13TDE_20231008_0_L2A' in 'sentinel-2-l2a' bbox [-106.18316062292897,39.65576169772817,"
                       "-104.88456877606482,40.650789813976196] geometry 'Polygon' properties 41"));
    QCOMPARE(describe(sentinel.assets.value(QStringLiteral("visual"))),
        QStringLiteral("https://sentinel-cogs.s3.us-west-2.amazonaws.com/sentinel-s2-l2a-cogs/13/T/DE/2023/10/"
                       "S2A_13TDE_20231008_0_L2A/TCI.tif 'True color image' %1 [visual]")
            .arg(cog));

    // A real item whose assets all carry bare file names, served as the only feature of a page.
    const QByteArray page = QByteArrayLiteral(R"({"features":[)")
        + readStacFixture(QStringLiteral("usgs-landsat-c2-l2-item-relative-asset-hrefs.json")) + "]}";
    const StacItem landsat
        = parse(page, QUrl(QStringLiteral("https://landsat.example/047/027/items.json?sig=1"))).items.constFirst();
    const StacAsset red = landsat.assets.value(QStringLiteral("red"));
    QCOMPARE(describe(red),
        QStringLiteral("https://landsat.example/047/027/LC08_L2SP_047027_20201204_20210313_02_T1_SR_B4.TIF 'Red Band' "
                       "%1 [data,reflectance]")
            .arg(cog));
    QCOMPARE(red.raw.value(QLatin1String("href")).toString(),
        QStringLiteral("LC08_L2SP_047027_20201204_20210313_02_T1_SR_B4.TIF"));
    QCOMPARE(landsat.raw, QJsonDocument::fromJson(page).object().value(QLatin1String("features"))[0].toObject());
}

void TestStacItemCollection::pageFallbacks_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("paging");

    const QString none = QStringLiteral("matched -1 returned 0 next GET  {}");
    QTest::newRow("context counts win over the feature count")
        << QByteArray(R"({"features":[{"id":"a"},{"id":"b"},{"id":"c"}],"context":{"matched":1234,"returned":10}})")
        << QStringLiteral("matched 1234 returned 10 next GET  {}");
    QTest::newRow("non-object features still count") << QByteArray(R"({"features":[{"id":"a"},5,"x",null,{}]})")
                                                     << QStringLiteral("matched -1 returned 5 next GET  {}");
    QTest::newRow("counts outside context ignored, count of another type reads as 0")
        << QByteArray(R"({"numberMatched":7,"numberReturned":7,"context":{"matched":"12"}})")
        << QStringLiteral("matched 0 returned 0 next GET  {}");
    QTest::newRow("Next with a capital N is not a next link")
        << QByteArray(R"({"links":[{"rel":"Next","href":"https://other.example/p2"}]})") << none;
    QTest::newRow("first next link wins, method upper-cased")
        << QByteArray(R"({"links":["next",{"rel":"self","href":"/self"},{"rel":"next","href":"/p2","method":"post",)"
                      R"("body":{"token":"one"}},{"rel":"next","href":"/p3","method":"GET"}]})")
        << QStringLiteral(R"(matched -1 returned 0 next POST https://catalog.example/p2 {"token":"one"})");
    QTest::newRow("query-only href replaces the page's query")
        << QByteArray(R"({"links":[{"rel":"next","href":"?token=2"}]})")
        << QStringLiteral("matched -1 returned 0 next GET https://catalog.example/api/stac/v1/search?token=2 {}");
    QTest::newRow("absent href is the page itself")
        << QByteArray(R"({"links":[{"rel":"next"}]})")
        << QStringLiteral("matched -1 returned 0 next GET https://catalog.example/api/stac/v1/search?token=abc {}");
    QTest::newRow("empty method kept empty, href read tolerantly")
        << QByteArray(R"({"links":[{"rel":"next","href":"my p2","method":""}]})")
        << QStringLiteral("matched -1 returned 0 next  https://catalog.example/api/stac/v1/my%20p2 {}");
    QTest::newRow("method of another type means GET")
        << QByteArray(R"({"links":[{"rel":"next","href":"p2","method":1,"body":[1]}]})")
        << QStringLiteral("matched -1 returned 0 next GET https://catalog.example/api/stac/v1/p2 {}");
}

void TestStacItemCollection::pageFallbacks()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, paging);

    QCOMPARE(describe(parse(body)), paging);
}

void TestStacItemCollection::itemFallbacks_data()
{
    QTest::addColumn<QByteArray>("feature");
    QTest::addColumn<QString>("item");
    QTest::addColumn<QString>("assetA");

    const QString empty = QStringLiteral("'' in '' bbox [] geometry '' properties 0");
    QTest::newRow("numbers where strings are expected")
        << QByteArray(R"({"id":42,"collection":7,"geometry":null,"properties":[1],)"
                      R"("assets":{"a":{"href":3,"title":1,"type":2,"roles":"data"}}})")
        << empty << searchPage.toString() + QStringLiteral(" '' '' []");
    QTest::newRow("bbox with a string and a number")
        << QByteArray(R"({"bbox":["x",1]})") << QStringLiteral("'' in '' bbox [0,1] geometry '' properties 0")
        << QString();
    QTest::newRow("bbox not an array, ids taken as sent")
        << QByteArray(R"({"id":"  i ","collection":"C","bbox":"1,2,3,4"})")
        << QStringLiteral("'  i ' in 'C' bbox [] geometry '' properties 0") << QString();
    QTest::newRow("roles keep their places")
        << QByteArray(R"({"assets":{"a":{"href":"https://x.example/a.tif","roles":["data",5,"Visual"]}}})") << empty
        << QStringLiteral("https://x.example/a.tif '' '' [data,,Visual]");
    QTest::newRow("non-object asset is an empty asset") << QByteArray(R"({"assets":{"a":"https://x.example/a.tif"}})")
                                                        << empty << searchPage.toString() + QStringLiteral(" '' '' []");
}

void TestStacItemCollection::itemFallbacks()
{
    QFETCH(QByteArray, feature);
    QFETCH(QString, item);
    QFETCH(QString, assetA);

    const StacSearchResult result = parse(QByteArrayLiteral(R"({"features":[)") + feature + "]}");
    QCOMPARE(result.items.size(), 1);
    const StacItem &parsed = result.items.constFirst();
    QCOMPARE(describe(parsed), item);
    QCOMPARE(parsed.assets.contains(QStringLiteral("a")), !assetA.isEmpty());
    if (!assetA.isEmpty())
        QCOMPARE(describe(parsed.assets.value(QStringLiteral("a"))), assetA);
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
    QCOMPARE(failureOf<std::runtime_error>([&] { parse(body); }), message);
}

QTEST_GUILESS_MAIN(TestStacItemCollection)
#include "tst_stacitemcollection.moc"
