// The JSON documents of the flat interface: what the readers make of every kind of member, and the exact text
// of every written document (key order, 64-bit integers, no member left out or null).

#include "flat/flatdocuments.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

#include <limits>
#include <stdexcept>

using namespace Norvane::Cloud;

Q_DECLARE_METATYPE(Norvane::Cloud::CloudCacheOptions)

namespace {

// Input documents as the flat functions receive them: zero-terminated UTF-16, or null.
struct InputText {
    explicit InputText(const QString &text, bool isNull = false)
        : units(text.utf16(), text.utf16() + text.size() + 1)
        , null(isNull)
    {
    }
    const char16_t *get() const { return null ? nullptr : reinterpret_cast<const char16_t *>(units.data()); }
    std::vector<ushort> units;
    bool null;
};

// Raw string literals stay out of macro arguments: the moc preprocessor does not read them as literals there.
QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

QString failureOf(const std::function<void()> &call)
{
    try {
        call();
    } catch (const std::invalid_argument &error) {
        return QString::fromUtf8(error.what());
    }
    return QString();
}

QJsonObject parsed(const QString &text)
{
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

} // namespace

class TestFlatDocuments : public QObject {
    Q_OBJECT

private slots:
    void cacheOptions_data();
    void cacheOptions();
    void malformedDocumentsFailWithTheirMessage_data();
    void malformedDocumentsFailWithTheirMessage();
    void headers();
    void mergedHeadersReplaceExactNamesOnly();
    void searchRequest_data();
    void searchRequest();
    void searchRequestMembers();

    void cacheStatisticsDocumentIsExact();
    void probeDocumentsOfDefaultRecords_data();
    void probeDocumentsOfDefaultRecords();
    void cogProbeDocument();
    void pmTilesProbeDocumentKeepsTopBitValues();
    void geoParquetProbeDocument();
    void assetKeepsCatalogueMembersAndResolvedHref();
    void searchResultDocument();
    void cogLayerDocument();
};

void TestFlatDocuments::cacheOptions_data()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<bool>("isNull");
    QTest::addColumn<CloudCacheOptions>("expected");

    const CloudCacheOptions defaults;
    QTest::newRow("null") << QString() << true << defaults;
    QTest::newRow("empty") << QString() << false << defaults;
    QTest::newRow("empty object") << QStringLiteral("{}") << false << defaults;
    QTest::newRow("unknown and differently cased keys ignored")
        << text(R"({"MaximumMemoryBytes":5,"memoryenabled":false,"other":[1]})") << false << defaults;

    CloudCacheOptions all;
    all.directory = QStringLiteral("/tmp/c\u00e9che");
    all.maximumMemoryBytes = 1000;
    all.maximumDiskBytes = 2000;
    all.maximumAgeSeconds = 0;
    all.memoryEnabled = false;
    all.diskEnabled = false;
    QTest::newRow("every member") << text(
        R"({"directory":"/tmp/c\u00e9che","maximumMemoryBytes":1000,"maximumDiskBytes":2000,)"
        R"("maximumAgeSeconds":0,"memoryEnabled":false,"diskEnabled":false})")
                                  << false << all;

    CloudCacheOptions memoryZero;
    memoryZero.maximumMemoryBytes = 0;
    QTest::newRow("limit as string gives 0") << text(R"({"maximumMemoryBytes":"1000"})") << false << memoryZero;
    QTest::newRow("limit as null gives 0") << text(R"({"maximumMemoryBytes":null})") << false << memoryZero;
    QTest::newRow("limit with fraction gives 0") << text(R"({"maximumMemoryBytes":10.5})") << false << memoryZero;
    QTest::newRow("limit beyond 64 bits gives 0")
        << text(R"({"maximumMemoryBytes":9223372036854775808})") << false << memoryZero;

    CloudCacheOptions exponent;
    exponent.maximumDiskBytes = 5000000000;
    QTest::newRow("exponent taken as whole number") << text(R"({"maximumDiskBytes":5e9})") << false << exponent;
    CloudCacheOptions fraction;
    fraction.maximumDiskBytes = 25;
    QTest::newRow("whole number written with fraction") << text(R"({"maximumDiskBytes":25.0})") << false << fraction;
    CloudCacheOptions exact;
    exact.maximumDiskBytes = 9007199254740993;
    exact.maximumMemoryBytes = std::numeric_limits<qint64>::max();
    QTest::newRow("integers above 2^53 exact")
        << text(R"({"maximumDiskBytes":9007199254740993,"maximumMemoryBytes":9223372036854775807})") << false << exact;
    CloudCacheOptions negative;
    negative.maximumDiskBytes = -1;
    QTest::newRow("negative passes through") << text(R"({"maximumDiskBytes":-1})") << false << negative;

    CloudCacheOptions ageZero;
    ageZero.maximumAgeSeconds = 0;
    QTest::newRow("age 1.5 gives 0") << text(R"({"maximumAgeSeconds":1.5})") << false << ageZero;

    CloudCacheOptions memoryOff;
    memoryOff.memoryEnabled = false;
    QTest::newRow("flag as number 1 is off") << text(R"({"memoryEnabled":1})") << false << memoryOff;
    QTest::newRow("flag as text is off") << text(R"({"memoryEnabled":"true"})") << false << memoryOff;
    CloudCacheOptions diskOn;
    QTest::newRow("flag true") << text(R"({"diskEnabled":true})") << false << diskOn;

    CloudCacheOptions noDirectory;
    QTest::newRow("directory as number is empty") << text(R"({"directory":42})") << false << noDirectory;
}

void TestFlatDocuments::cacheOptions()
{
    QFETCH(QString, document);
    QFETCH(bool, isNull);
    QFETCH(CloudCacheOptions, expected);

    const InputText input(document, isNull);
    const CloudCacheOptions options = cacheOptionsFromJson(input.get());
    QCOMPARE(options.directory, expected.directory);
    QCOMPARE(options.maximumMemoryBytes, expected.maximumMemoryBytes);
    QCOMPARE(options.maximumDiskBytes, expected.maximumDiskBytes);
    QCOMPARE(options.maximumAgeSeconds, expected.maximumAgeSeconds);
    QCOMPARE(options.memoryEnabled, expected.memoryEnabled);
    QCOMPARE(options.diskEnabled, expected.diskEnabled);
}

void TestFlatDocuments::malformedDocumentsFailWithTheirMessage_data()
{
    QTest::addColumn<QString>("document");

    QTest::newRow("array") << QStringLiteral("[]");
    QTest::newRow("array of object") << QStringLiteral("[{}]");
    QTest::newRow("text after the object") << QStringLiteral("{} x");
    QTest::newRow("second object") << QStringLiteral("{}{}");
    QTest::newRow("not JSON") << QStringLiteral("maximumMemoryBytes=1");
    QTest::newRow("number") << QStringLiteral("42");
    QTest::newRow("string") << QStringLiteral("\"{}\"");
    QTest::newRow("null literal") << QStringLiteral("null");
    QTest::newRow("trailing comma") << text(R"({"a":1,})");
    QTest::newRow("only white space") << QStringLiteral("  ");
}

void TestFlatDocuments::malformedDocumentsFailWithTheirMessage()
{
    QFETCH(QString, document);
    const InputText input(document);

    QCOMPARE(failureOf([&] { cacheOptionsFromJson(input.get()); }),
        QStringLiteral("Cloud client options must be a JSON object"));
    QCOMPARE(failureOf([&] { headersFromJson(input.get()); }), QStringLiteral("Cloud headers must be a JSON object"));
    QCOMPARE(failureOf([&] {
        mergedHeaders({ { "A", "1" } }, input.get());
    }),
        QStringLiteral("Cloud headers must be a JSON object"));
    QCOMPARE(failureOf([&] { searchRequestFromJson(input.get()); }),
        QStringLiteral("STAC search request must be a JSON object"));
}

void TestFlatDocuments::headers()
{
    QVERIFY(headersFromJson(nullptr).isEmpty());
    QVERIFY(headersFromJson(u"").isEmpty());

    const InputText input(text(R"({"Authorization":"Bearer x","X-Count":42,"x-count":"small",)"
                               R"("X-Flag":true,"X-Null":null,"X-List":["a"],"X-\u00c4":"\u00e9"})"));
    const HeaderMap headers = headersFromJson(input.get());
    const HeaderMap expected { { "Authorization", "Bearer x" }, { "X-Count", "" }, { "x-count", "small" },
        { "X-Flag", "" }, { "X-Null", "" }, { "X-List", "" }, { "X-\xc3\x84", "\xc3\xa9" } };
    QCOMPARE(headers, expected);
}

void TestFlatDocuments::mergedHeadersReplaceExactNamesOnly()
{
    const HeaderMap defaults { { "Authorization", "client" }, { "X-Trace", "1" } };
    QCOMPARE(mergedHeaders(defaults, nullptr), defaults);
    QCOMPARE(mergedHeaders(defaults, u""), defaults);

    const HeaderMap merged = mergedHeaders(defaults, u"{\"Authorization\":\"call\",\"x-trace\":\"2\"}");
    const HeaderMap expected { { "Authorization", "call" }, { "X-Trace", "1" }, { "x-trace", "2" } };
    QCOMPARE(merged, expected);
}

void TestFlatDocuments::searchRequest_data()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<QStringList>("collections");
    QTest::addColumn<QList<double>>("bbox");
    QTest::addColumn<int>("limit");

    QTest::newRow("empty object") << QStringLiteral("{}") << QStringList() << QList<double>() << 100;
    QTest::newRow("collections with a number")
        << text(R"({"collections":["a",7,"b"]})") << QStringList { "a", "", "b" } << QList<double>() << 100;
    QTest::newRow("collections not an array")
        << text(R"({"collections":"a"})") << QStringList() << QList<double>() << 100;
    QTest::newRow("bbox with a string") << text(R"({"bbox":[1.5,"x",3,4]})") << QStringList()
                                        << QList<double> { 1.5, 0, 3, 4 } << 100;
    QTest::newRow("bbox of wrong length kept")
        << text(R"({"bbox":[1,2,3]})") << QStringList() << QList<double> { 1, 2, 3 } << 100;
    QTest::newRow("bbox not an array") << text(R"({"bbox":{"a":1}})") << QStringList() << QList<double>() << 100;
    QTest::newRow("limit 25.0") << text(R"({"limit":25.0})") << QStringList() << QList<double>() << 25;
    QTest::newRow("limit 2.5e1") << text(R"({"limit":2.5e1})") << QStringList() << QList<double>() << 25;
    QTest::newRow("limit as string") << text(R"({"limit":"25"})") << QStringList() << QList<double>() << 0;
    QTest::newRow("limit 2.5") << text(R"({"limit":2.5})") << QStringList() << QList<double>() << 0;
    QTest::newRow("limit null") << text(R"({"limit":null})") << QStringList() << QList<double>() << 0;
    QTest::newRow("limit negative") << text(R"({"limit":-3})") << QStringList() << QList<double>() << -3;
    QTest::newRow("limit largest 32-bit")
        << text(R"({"limit":2147483647})") << QStringList() << QList<double>() << 2147483647;
    QTest::newRow("limit beyond 32 bits") << text(R"({"limit":2147483648})") << QStringList() << QList<double>() << 0;
    QTest::newRow("limit below 32 bits") << text(R"({"limit":-2147483649})") << QStringList() << QList<double>() << 0;
}

void TestFlatDocuments::searchRequest()
{
    QFETCH(QString, document);
    QFETCH(QStringList, collections);
    QFETCH(QList<double>, bbox);
    QFETCH(int, limit);

    const InputText input(document);
    const StacSearchRequest request = searchRequestFromJson(input.get());
    QCOMPARE(request.collections, collections);
    QCOMPARE(request.bbox, bbox);
    QCOMPARE(request.limit, limit);
}

void TestFlatDocuments::searchRequestMembers()
{
    const StacSearchRequest defaults = searchRequestFromJson(nullptr);
    QCOMPARE(defaults.limit, 100);
    QVERIFY(defaults.collections.isEmpty() && defaults.bbox.isEmpty() && defaults.intersects.isEmpty());
    QVERIFY(defaults.datetime.isEmpty() && defaults.query.isEmpty() && defaults.filter.isEmpty());
    QVERIFY(defaults.filterLanguage.isEmpty());

    const InputText full(text(
        R"({"intersects":{"type":"Point","coordinates":[1,2]},"datetime":"2020-01-01/..","query":{"eo:cloud_cover":)"
        R"({"lt":10}},"filter":{"op":"=","args":[1,1]},"filterLanguage":"cql2-json","filter-lang":"ignored"})"));
    const StacSearchRequest request = searchRequestFromJson(full.get());
    const auto intersects = parsed(text(R"({"type":"Point","coordinates":[1,2]})"));
    QCOMPARE(request.intersects, intersects);
    QCOMPARE(request.datetime, QStringLiteral("2020-01-01/.."));
    const auto query = parsed(text(R"({"eo:cloud_cover":{"lt":10}})"));
    QCOMPARE(request.query, query);
    const auto filter = parsed(text(R"({"op":"=","args":[1,1]})"));
    QCOMPARE(request.filter, filter);
    QCOMPARE(request.filterLanguage, QStringLiteral("cql2-json"));

    const InputText wrongKinds(
        text(R"({"intersects":[1],"datetime":5,"query":"q","filter":true,"filterLanguage":{}})"));
    const StacSearchRequest fallback = searchRequestFromJson(wrongKinds.get());
    QVERIFY(fallback.intersects.isEmpty());
    QVERIFY(fallback.datetime.isEmpty());
    QVERIFY(fallback.query.isEmpty());
    QVERIFY(fallback.filter.isEmpty());
    QVERIFY(fallback.filterLanguage.isEmpty());
}

void TestFlatDocuments::cacheStatisticsDocumentIsExact()
{
    CloudCacheStatistics statistics;
    statistics.memoryHits = 1;
    statistics.diskHits = 2;
    statistics.misses = 3;
    statistics.writes = 4;
    statistics.evictions = 5;
    statistics.networkRequests = 9007199254740993;
    statistics.networkBytes = std::numeric_limits<qint64>::max();
    statistics.cacheBytesServed = 1234567890123456789;
    statistics.memoryBytes = std::numeric_limits<qint64>::min();
    statistics.diskBytes = 9007199254740995;

    const auto filled
        = text(R"({"cacheBytesServed":1234567890123456789,"diskBytes":9007199254740995,"diskHits":2,"evictions":5,)"
               R"("memoryBytes":-9223372036854775808,"memoryHits":1,"misses":3,)"
               R"("networkBytes":9223372036854775807,"networkRequests":9007199254740993,"writes":4})");
    QCOMPARE(cacheStatisticsToJson(statistics), filled);
    const auto fresh = text(R"({"cacheBytesServed":0,"diskBytes":0,"diskHits":0,"evictions":0,"memoryBytes":0,)"
                            R"("memoryHits":0,"misses":0,"networkBytes":0,"networkRequests":0,"writes":0})");
    QCOMPARE(cacheStatisticsToJson(CloudCacheStatistics()), fresh);
}

void TestFlatDocuments::probeDocumentsOfDefaultRecords_data()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<QString>("expected");

    QTest::newRow("COG") << cogProbeToJson(CogProbeResult())
                         << text(R"({"acceptsRanges":false,"bigTiff":false,"byteOrder":"","cloudReadable":false,)"
                                 R"("contentLength":-1,"contentType":"","diagnostic":"","etag":"",)"
                                 R"("firstIfdNearStart":false,"firstIfdOffset":-1,"tiffHeaderValid":false,"url":""})");
    QTest::newRow("GeoParquet") << geoParquetProbeToJson(GeoParquetProbeResult())
                                << text(R"({"acceptsRanges":false,"cloudReadable":false,"contentLength":-1,)"
                                        R"("contentType":"","diagnostic":"","etag":"","footerValid":false,)"
                                        R"("headerValid":false,"url":""})");
    QTest::newRow("PMTiles") << pmTilesProbeToJson(PmTilesProbeResult())
                             << text(R"({"acceptsRanges":false,"cloudReadable":false,"contentLength":-1,)"
                                     R"("contentType":"","diagnostic":"","etag":"","headerValid":false,)"
                                     R"("maximumZoom":0,"metadataLength":0,"metadataOffset":0,"minimumZoom":0,)"
                                     R"("remote":false,"rootDirectoryLength":0,"rootDirectoryOffset":0,)"
                                     R"("specificationVersion":0,"tileDataLength":0,"tileDataOffset":0,)"
                                     R"("tileKind":"","tileType":0,"url":""})");
    QTest::newRow("COG layer") << cogLayerToJson(StacCogLayer())
                               << text(R"({"assetKey":"","assetMetadata":{},"bbox":[],"collection":"",)"
                                       R"("gdalVirtualPath":"","geometry":{},"itemId":"","itemProperties":{},)"
                                       R"("mediaType":"","requestHeaders":{},"roles":[],"sourceUrl":"","title":""})");
    QTest::newRow("search result") << searchResultToJson(StacSearchResult())
                                   << text(R"({"items":[],"matched":-1,"nextBody":{},"nextMethod":"GET",)"
                                           R"("nextPage":"","raw":{},"returned":-1})");
}

void TestFlatDocuments::probeDocumentsOfDefaultRecords()
{
    QFETCH(QString, document);
    QFETCH(QString, expected);
    QCOMPARE(document, expected);
}

void TestFlatDocuments::cogProbeDocument()
{
    CogProbeResult result;
    result.url = QUrl(QStringLiteral("http://127.0.0.1:8080/a b/\u00e9.tif?x=1 2"));
    result.contentLength = 9007199254740993;
    result.firstIfdOffset = 16;
    result.byteOrder = "II";
    result.etag = "\"abc\xe9\"";
    result.contentType = "image/tiff; application=geotiff";
    result.acceptsRanges = true;
    result.tiffHeaderValid = true;
    result.bigTiff = true;
    result.firstIfdNearStart = true;
    result.cloudReadable = true;
    result.diagnostic = QStringLiteral("BigTIFF \"header\"\nfound");

    const QString expected
        = QString::fromUtf8("{\"acceptsRanges\":true,\"bigTiff\":true,\"byteOrder\":\"II\",\"cloudReadable\":true,"
                            "\"contentLength\":9007199254740993,\"contentType\":\"image/tiff; application=geotiff\","
                            "\"diagnostic\":\"BigTIFF \\\"header\\\"\\nfound\",\"etag\":\"\\\"abc\u00e9\\\"\","
                            "\"firstIfdNearStart\":true,\"firstIfdOffset\":16,\"tiffHeaderValid\":true,"
                            "\"url\":\"http://127.0.0.1:8080/a%20b/%C3%A9.tif?x=1%202\"}");
    QCOMPARE(cogProbeToJson(result), expected);
}

void TestFlatDocuments::pmTilesProbeDocumentKeepsTopBitValues()
{
    PmTilesProbeResult result;
    result.url = QUrl::fromLocalFile(QStringLiteral("/data/t.pmtiles"));
    result.contentLength = 1;
    result.etag = "e";
    result.contentType = "application/vnd.pmtiles";
    result.acceptsRanges = true;
    result.headerValid = true;
    result.specificationVersion = 3;
    result.rootDirectoryOffset = 127;
    result.rootDirectoryLength = 2;
    result.metadataOffset = 3;
    result.metadataLength = 4;
    result.tileDataOffset = std::numeric_limits<qint64>::min() + 1;
    result.tileDataLength = 9007199254740997;
    result.minimumZoom = -1;
    result.maximumZoom = 255;
    result.tileType = 2;
    result.tileKind = QStringLiteral("raster");
    result.remote = false;
    result.cloudReadable = true;
    result.diagnostic = QStringLiteral("ok");

    const auto expected
        = text(R"({"acceptsRanges":true,"cloudReadable":true,"contentLength":1,)"
               R"("contentType":"application/vnd.pmtiles","diagnostic":"ok","etag":"e","headerValid":true,)"
               R"("maximumZoom":255,"metadataLength":4,"metadataOffset":3,"minimumZoom":-1,"remote":false,)"
               R"("rootDirectoryLength":2,"rootDirectoryOffset":127,"specificationVersion":3,)"
               R"("tileDataLength":9007199254740997,"tileDataOffset":-9223372036854775807,)"
               R"("tileKind":"raster","tileType":2,"url":"file:///data/t.pmtiles"})");
    QCOMPARE(pmTilesProbeToJson(result), expected);
}

void TestFlatDocuments::geoParquetProbeDocument()
{
    GeoParquetProbeResult result;
    result.url = QUrl(QStringLiteral("https://h/p.parquet"));
    result.contentLength = 4294967296;
    result.etag = "W/\"1\"";
    result.contentType = "application/octet-stream";
    result.acceptsRanges = true;
    result.headerValid = true;
    result.footerValid = false;
    result.cloudReadable = false;
    result.diagnostic = QStringLiteral("footer");

    const QString expected = QString::fromUtf8(
        "{\"acceptsRanges\":true,\"cloudReadable\":false,\"contentLength\":4294967296,"
        "\"contentType\":\"application/octet-stream\",\"diagnostic\":\"footer\",\"etag\":\"W/\\\"1\\\"\","
        "\"footerValid\":false,\"headerValid\":true,\"url\":\"https://h/p.parquet\"}");
    QCOMPARE(geoParquetProbeToJson(result), expected);
}

void TestFlatDocuments::assetKeepsCatalogueMembersAndResolvedHref()
{
    StacAsset asset;
    asset.raw = parsed(text(
        R"({"href":"./B1.TIF","type":"image/tiff; application=geotiff","eo:bands":[{"name":"B1"}],"title":"old"})"));
    asset.href = QUrl(QStringLiteral("https://landsat.example/c2/B1.TIF"));
    asset.title = QStringLiteral("Coastal");
    asset.mediaType = QStringLiteral("image/tiff; application=geotiff");
    asset.roles = QStringList { QStringLiteral("data"), QStringLiteral("reflectance") };

    const QJsonObject object = stacAssetToJson(asset);
    const auto expected
        = text(R"({"description":"","eo:bands":[{"name":"B1"}],"href":"https://landsat.example/c2/B1.TIF",)"
               R"("mediaType":"image/tiff; application=geotiff","roles":["data","reflectance"],)"
               R"("title":"Coastal","type":"image/tiff; application=geotiff"})");
    QCOMPARE(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)), expected);
}

void TestFlatDocuments::searchResultDocument()
{
    StacItem item;
    item.id = QStringLiteral("i1");
    item.collection = QStringLiteral("c");
    item.bbox = { -180, -90.5, 180, 90 };
    item.geometry = parsed(text(R"({"type":"Point","coordinates":[0,0]})"));
    item.properties = parsed(text(R"({"datetime":"2020-01-01T00:00:00Z"})"));
    StacAsset visual;
    visual.href = QUrl(QStringLiteral("https://h/v.tif"));
    visual.raw = parsed(text(R"({"href":"v.tif"})"));
    StacAsset band;
    band.href = QUrl(QStringLiteral("https://h/b.tif"));
    band.raw = parsed(text(R"({"href":"b.tif"})"));
    item.assets.insert(QStringLiteral("visual"), visual);
    item.assets.insert(QStringLiteral("B04"), band);
    item.links = QJsonArray { parsed(text(R"({"rel":"self","href":"x"})")) };
    item.raw = parsed(text(R"({"id":"i1","big":9007199254740993})"));

    StacSearchResult result;
    result.items = { item };
    result.nextPage = QUrl(QStringLiteral("https://h/search?token=a b"));
    result.nextMethod = "POST";
    result.nextBody = parsed(text(R"({"next":"t"})"));
    result.matched = 9007199254740993;
    result.returned = 1;
    result.raw = parsed(text(R"({"type":"FeatureCollection"})"));

    const auto expected
        = text(R"({"items":[{"assets":{"B04":{"description":"","href":"https://h/b.tif","mediaType":"","roles":[],)"
               R"("title":""},"visual":{"description":"","href":"https://h/v.tif","mediaType":"","roles":[],)"
               R"("title":""}},"bbox":[-180,-90.5,180,90],"collection":"c",)"
               R"("geometry":{"coordinates":[0,0],"type":"Point"},"id":"i1","links":[{"href":"x","rel":"self"}],)"
               R"("properties":{"datetime":"2020-01-01T00:00:00Z"},"raw":{"big":9007199254740993,"id":"i1"}}],)"
               R"("matched":9007199254740993,"nextBody":{"next":"t"},"nextMethod":"POST",)"
               R"("nextPage":"https://h/search?token=a%20b","raw":{"type":"FeatureCollection"},"returned":1})");
    QCOMPARE(searchResultToJson(result), expected);
}

void TestFlatDocuments::cogLayerDocument()
{
    StacCogLayer layer;
    layer.itemId = QStringLiteral("item");
    layer.collection = QStringLiteral("col");
    layer.assetKey = QStringLiteral("visual");
    layer.sourceUrl = QUrl(QStringLiteral("https://h/v.tif"));
    layer.gdalVirtualPath = QStringLiteral("/vsicurl/https://h/v.tif");
    layer.title = QStringLiteral("True colour");
    layer.mediaType = QStringLiteral("image/tiff");
    layer.roles = QStringList { QStringLiteral("visual") };
    layer.bbox = { 1, 2, 3, 4 };
    layer.geometry = parsed(text(R"({"type":"Point"})"));
    layer.itemProperties = parsed(text(R"({"gsd":10})"));
    layer.assetMetadata = parsed(text(R"({"href":"v.tif"})"));
    layer.requestHeaders = { { "Authorization", "Bearer \xe9" }, { "X-\xff", "" } };

    const auto expected = text(R"({"assetKey":"visual","assetMetadata":{"href":"v.tif"},"bbox":[1,2,3,4],)"
                               R"("collection":"col","gdalVirtualPath":"/vsicurl/https://h/v.tif",)"
                               R"("geometry":{"type":"Point"},"itemId":"item","itemProperties":{"gsd":10},)"
                               R"("mediaType":"image/tiff","requestHeaders":{"Authorization":"Bearer é",)"
                               R"("X-ÿ":""},"roles":["visual"],"sourceUrl":"https://h/v.tif",)"
                               R"("title":"True colour"})");
    QCOMPARE(cogLayerToJson(layer), expected);
}

QTEST_GUILESS_MAIN(TestFlatDocuments)
#include "tst_flatdocuments.moc"
