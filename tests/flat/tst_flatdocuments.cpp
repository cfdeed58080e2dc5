// The JSON documents of the flat interface: what the readers make of every kind of member, and the exact text
// of every written document (key order, 64-bit integers, no member left out or null).

#include "flat/flatdocuments.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

#include <functional>
#include <limits>
#include <stdexcept>

using namespace Norvane::Cloud;

namespace {

// Input documents as the flat functions receive them: zero-terminated UTF-16; a null QString stands for null.
struct Input {
    explicit Input(const QString &text)
        : units(reinterpret_cast<const char16_t *>(text.utf16()), static_cast<size_t>(text.size()))
        , null(text.isNull())
    {
    }
    const char16_t *get() const { return null ? nullptr : units.c_str(); }
    std::u16string units;
    bool null;
};

// Raw string literals stay out of macro arguments: the moc preprocessor does not read them as literals there.
QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

QJsonObject parsed(const char *utf8)
{
    return QJsonDocument::fromJson(utf8).object();
}

// Every field as "name=value", after the changes (given in that form) are applied: one comparison shows them all.
QString described(const CloudCacheOptions &options, const QString &changes = QString())
{
    QMap<QString, QVariant> fields { { "directory", options.directory },
        { "maximumMemoryBytes", options.maximumMemoryBytes }, { "maximumDiskBytes", options.maximumDiskBytes },
        { "maximumAgeSeconds", options.maximumAgeSeconds }, { "memoryEnabled", options.memoryEnabled },
        { "diskEnabled", options.diskEnabled } };
    for (const QString &change : changes.split(u' ', Qt::SkipEmptyParts))
        fields.insert(change.section(u'=', 0, 0), change.section(u'=', 1));
    QStringList pairs;
    for (auto field = fields.cbegin(); field != fields.cend(); ++field)
        pairs.append(field.key() + u'=' + field.value().toString());
    return pairs.join(u' ');
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

} // namespace

class TestFlatDocuments : public QObject {
    Q_OBJECT

private slots:
    void cacheOptions_data();
    void cacheOptions();
    void malformedDocumentsFailWithTheirMessage_data();
    void malformedDocumentsFailWithTheirMessage();
    void headersAndPerCallMerge();
    void searchRequest_data();
    void searchRequest();
    void searchRequestObjectsAndTexts();

    void cacheStatisticsKeepAll64Bits();
    void cogProbeDocument();
    void pmTilesProbeDocument();
    void geoParquetProbeDocument();
    void searchResultDocument();
    void cogLayerDocument();
};

void TestFlatDocuments::cacheOptions_data()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<QString>("changes");

    QTest::newRow("null") << QString() << QString();
    QTest::newRow("empty") << QStringLiteral("") << QString();
    QTest::newRow("empty object") << QStringLiteral("{}") << QString();
    QTest::newRow("differently cased keys ignored")
        << text(R"({"MaximumMemoryBytes":5,"memoryenabled":false})") << QString();
    QTest::newRow("every member") << text(R"({"directory":"/tmp/c\u00e9che","maximumMemoryBytes":1000,)"
                                          R"("maximumDiskBytes":2000,"maximumAgeSeconds":0,"memoryEnabled":false,)"
                                          R"("diskEnabled":false})")
                                  << text("directory=/tmp/c\u00e9che maximumMemoryBytes=1000 maximumDiskBytes=2000 "
                                          "maximumAgeSeconds=0 memoryEnabled=false diskEnabled=false");
    QTest::newRow("limit as string gives 0") << text(R"({"maximumMemoryBytes":"1000"})") << "maximumMemoryBytes=0";
    QTest::newRow("limit with fraction gives 0") << text(R"({"maximumMemoryBytes":10.5})") << "maximumMemoryBytes=0";
    QTest::newRow("limit beyond 64 bits gives 0")
        << text(R"({"maximumMemoryBytes":9223372036854775808})") << "maximumMemoryBytes=0";
    QTest::newRow("exponent taken as whole number")
        << text(R"({"maximumDiskBytes":5e9})") << "maximumDiskBytes=5000000000";
    QTest::newRow("integers above 2^53 exact")
        << text(R"({"maximumDiskBytes":9007199254740993,"maximumMemoryBytes":9223372036854775807})")
        << "maximumDiskBytes=9007199254740993 maximumMemoryBytes=9223372036854775807";
    QTest::newRow("age 1.5 gives 0") << text(R"({"maximumAgeSeconds":1.5})") << "maximumAgeSeconds=0";
    QTest::newRow("flag as number 1 is off") << text(R"({"memoryEnabled":1})") << "memoryEnabled=false";
    QTest::newRow("directory as number is empty") << text(R"({"directory":42})") << QString();
}

void TestFlatDocuments::cacheOptions()
{
    QFETCH(QString, document);
    QFETCH(QString, changes);
    QCOMPARE(described(cacheOptionsFromJson(Input(document).get())), described(CloudCacheOptions(), changes));
}

void TestFlatDocuments::malformedDocumentsFailWithTheirMessage_data()
{
    QTest::addColumn<QString>("document");

    QTest::newRow("array") << QStringLiteral("[{}]");
    QTest::newRow("text after the object") << QStringLiteral("{} x");
    QTest::newRow("not JSON") << QStringLiteral("maximumMemoryBytes=1");
    QTest::newRow("null literal") << QStringLiteral("null");
}

void TestFlatDocuments::malformedDocumentsFailWithTheirMessage()
{
    QFETCH(QString, document);
    const Input input(document);

    QCOMPARE(failureOf([&] { cacheOptionsFromJson(input.get()); }),
        QStringLiteral("Cloud client options must be a JSON object"));
    QCOMPARE(failureOf([&] { headersFromJson(input.get()); }), QStringLiteral("Cloud headers must be a JSON object"));
    QCOMPARE(failureOf([&] { mergedHeaders({}, input.get()); }), QStringLiteral("Cloud headers must be a JSON object"));
    QCOMPARE(failureOf([&] { searchRequestFromJson(input.get()); }),
        QStringLiteral("STAC search request must be a JSON object"));
}

void TestFlatDocuments::headersAndPerCallMerge()
{
    QVERIFY(headersFromJson(nullptr).isEmpty());
    const Input document(text(R"({"Authorization":"Bearer x","X-Count":42,"x-count":"small","X-Null":null,)"
                              R"("X-List":["a"],"X-\u00c4":"\u00e9"})"));
    const HeaderMap expected { { "Authorization", "Bearer x" }, { "X-Count", "" }, { "x-count", "small" },
        { "X-Null", "" }, { "X-List", "" }, { "X-\xc3\x84", "\xc3\xa9" } };
    QCOMPARE(headersFromJson(document.get()), expected);

    // Per-call headers replace defaults of exactly the same name only; the defaults themselves stay.
    const HeaderMap defaults { { "Authorization", "client" }, { "X-Trace", "1" } };
    QCOMPARE(mergedHeaders(defaults, u""), defaults);
    const HeaderMap merged { { "Authorization", "call" }, { "X-Trace", "1" }, { "x-trace", "2" } };
    QCOMPARE(mergedHeaders(defaults, u"{\"Authorization\":\"call\",\"x-trace\":\"2\"}"), merged);
}

void TestFlatDocuments::searchRequest_data()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<QStringList>("collections");
    QTest::addColumn<QList<double>>("bbox");
    QTest::addColumn<int>("limit");

    const QStringList none;
    const QList<double> noBox;
    QTest::newRow("null") << QString() << none << noBox << 100;
    QTest::newRow("collections with a number")
        << text(R"({"collections":["a",7,"b"]})") << QStringList { "a", "", "b" } << noBox << 100;
    QTest::newRow("bbox with a string") << text(R"({"bbox":[1.5,"x",3,4]})") << none << QList<double> { 1.5, 0, 3, 4 }
                                        << 100;
    QTest::newRow("limit 2.5e1") << text(R"({"limit":2.5e1})") << none << noBox << 25;
    QTest::newRow("limit as string") << text(R"({"limit":"25"})") << none << noBox << 0;
    QTest::newRow("limit 2.5") << text(R"({"limit":2.5})") << none << noBox << 0;
    QTest::newRow("limit largest 32-bit") << text(R"({"limit":2147483647})") << none << noBox << 2147483647;
    QTest::newRow("limit beyond 32 bits") << text(R"({"limit":2147483648})") << none << noBox << 0;
    QTest::newRow("limit below 32 bits") << text(R"({"limit":-2147483649})") << none << noBox << 0;
}

void TestFlatDocuments::searchRequest()
{
    QFETCH(QString, document);
    QFETCH(QStringList, collections);
    QFETCH(QList<double>, bbox);
    QFETCH(int, limit);

    const StacSearchRequest request = searchRequestFromJson(Input(document).get());
    QCOMPARE(request.collections, collections);
    QCOMPARE(request.bbox, bbox);
    QCOMPARE(request.limit, limit);
}

void TestFlatDocuments::searchRequestObjectsAndTexts()
{
    const Input full(text(R"({"intersects":{"type":"Point"},"datetime":"2020-01-01/..","query":{"gsd":{"lt":10}},)"
                          R"("filter":{"op":"="},"filterLanguage":"cql2-json","filter-lang":"ignored"})"));
    const StacSearchRequest request = searchRequestFromJson(full.get());
    QCOMPARE(request.intersects, parsed("{\"type\":\"Point\"}"));
    QCOMPARE(request.datetime, QStringLiteral("2020-01-01/.."));
    QCOMPARE(request.query, parsed("{\"gsd\":{\"lt\":10}}"));
    QCOMPARE(request.filter, parsed("{\"op\":\"=\"}"));
    QCOMPARE(request.filterLanguage, QStringLiteral("cql2-json"));
}

void TestFlatDocuments::cacheStatisticsKeepAll64Bits()
{
    // Records are filled in declaration order with distinct values, so a value under the wrong key shows.
    const CloudCacheStatistics statistics { 1, 2, 3, 4, 5, 9007199254740993, std::numeric_limits<qint64>::max(),
        1234567890123456789, std::numeric_limits<qint64>::min(), 9007199254740995 };
    const QString expected
        = text(R"({"cacheBytesServed":1234567890123456789,"diskBytes":9007199254740995,"diskHits":2,"evictions":5,)"
               R"("memoryBytes":-9223372036854775808,"memoryHits":1,"misses":3,)"
               R"("networkBytes":9223372036854775807,"networkRequests":9007199254740993,"writes":4})");
    QCOMPARE(cacheStatisticsToJson(statistics), expected);
}

void TestFlatDocuments::cogProbeDocument()
{
    const CogProbeResult result { QUrl(QStringLiteral("http://127.0.0.1:8080/a b/\u00e9.tif?x=1 2")), 9007199254740993,
        16, "II", "\"abc\xe9\"", "image/tiff", true, false, true, false, true,
        QStringLiteral("BigTIFF \"header\"\nfound") };
    QCOMPARE(cogProbeToJson(result),
        QString::fromUtf8("{\"acceptsRanges\":true,\"bigTiff\":true,\"byteOrder\":\"II\",\"cloudReadable\":true,"
                          "\"contentLength\":9007199254740993,\"contentType\":\"image/tiff\","
                          "\"diagnostic\":\"BigTIFF \\\"header\\\"\\nfound\",\"etag\":\"\\\"abc\u00e9\\\"\","
                          "\"firstIfdNearStart\":false,\"firstIfdOffset\":16,\"tiffHeaderValid\":false,"
                          "\"url\":\"http://127.0.0.1:8080/a%20b/%C3%A9.tif?x=1%202\"}"));
}

void TestFlatDocuments::pmTilesProbeDocument()
{
    const PmTilesProbeResult result { QUrl::fromLocalFile(QStringLiteral("/data/t.pmtiles")), 1, "e",
        "application/vnd.pmtiles", true, false, 3, 127, 20, 30, 40, std::numeric_limits<qint64>::min() + 1,
        9007199254740997, -1, 255, 2, QStringLiteral("raster"), false, true, QStringLiteral("ok") };
    const QString expected
        = text(R"({"acceptsRanges":true,"cloudReadable":true,"contentLength":1,)"
               R"("contentType":"application/vnd.pmtiles","diagnostic":"ok","etag":"e","headerValid":false,)"
               R"("maximumZoom":255,"metadataLength":40,"metadataOffset":30,"minimumZoom":-1,"remote":false,)"
               R"("rootDirectoryLength":20,"rootDirectoryOffset":127,"specificationVersion":3,)"
               R"("tileDataLength":9007199254740997,"tileDataOffset":-9223372036854775807,)"
               R"("tileKind":"raster","tileType":2,"url":"file:///data/t.pmtiles"})");
    QCOMPARE(pmTilesProbeToJson(result), expected);
}

void TestFlatDocuments::geoParquetProbeDocument()
{
    const GeoParquetProbeResult result { QUrl(QStringLiteral("https://h/p.parquet")), 4294967296, "W/1",
        "application/octet-stream", false, true, false, true, QStringLiteral("footer") };
    const QString expected
        = text(R"({"acceptsRanges":false,"cloudReadable":true,"contentLength":4294967296,)"
               R"("contentType":"application/octet-stream","diagnostic":"footer","etag":"W/1","footerValid":false,)"
               R"("headerValid":true,"url":"https://h/p.parquet"})");
    QCOMPARE(geoParquetProbeToJson(result), expected);
}

// Items keep what the catalogue sent ("raw", and every asset member such as "type"), with the resolved members
// laid over it; the keys of nested objects are sorted too.
void TestFlatDocuments::searchResultDocument()
{
    const StacAsset visual { QUrl(QStringLiteral("https://h/c/v.tif")), QStringLiteral("Visual"), QString(),
        QStringLiteral("image/tiff"), { QStringLiteral("data"), QStringLiteral("visual") },
        parsed(R"({"href":"./v.tif","type":"image/tiff","eo:bands":[{"name":"B1"}],"title":"old"})") };
    const StacAsset band { QUrl(QStringLiteral("https://h/b.tif")), {}, {}, {}, {}, {} };
    const StacItem item { QStringLiteral("i1"), QStringLiteral("c"), { -180, -90.5, 180, 90 },
        parsed(R"({"type":"Point","coordinates":[0,0]})"), parsed(R"({"datetime":"2020-01-01T00:00:00Z"})"),
        { { QStringLiteral("visual"), visual }, { QStringLiteral("B04"), band } },
        QJsonArray { parsed(R"({"rel":"self","href":"x"})") }, parsed(R"({"id":"i1","big":9007199254740993})") };
    const StacSearchResult result { { item }, QUrl(QStringLiteral("https://h/search?token=a b")), "POST",
        parsed(R"({"next":"t"})"), 9007199254740993, 1, parsed(R"({"type":"FeatureCollection"})") };

    const QString expected
        = text(R"({"items":[{"assets":{"B04":{"description":"","href":"https://h/b.tif","mediaType":"","roles":[],)"
               R"("title":""},"visual":{"description":"","eo:bands":[{"name":"B1"}],"href":"https://h/c/v.tif",)"
               R"("mediaType":"image/tiff","roles":["data","visual"],"title":"Visual","type":"image/tiff"}},)"
               R"("bbox":[-180,-90.5,180,90],"collection":"c","geometry":{"coordinates":[0,0],"type":"Point"},)"
               R"("id":"i1","links":[{"href":"x","rel":"self"}],"properties":{"datetime":"2020-01-01T00:00:00Z"},)"
               R"("raw":{"big":9007199254740993,"id":"i1"}}],"matched":9007199254740993,"nextBody":{"next":"t"},)"
               R"("nextMethod":"POST","nextPage":"https://h/search?token=a%20b","raw":{"type":"FeatureCollection"},)"
               R"("returned":1})");
    QCOMPARE(searchResultToJson(result), expected);
}

void TestFlatDocuments::cogLayerDocument()
{
    const StacCogLayer layer { QStringLiteral("item"), QStringLiteral("col"), QStringLiteral("visual"),
        QUrl(QStringLiteral("https://h/v.tif")), QStringLiteral("/vsicurl/https://h/v.tif"),
        QStringLiteral("True colour"), QStringLiteral("image/tiff"), QStringList { QStringLiteral("visual") },
        { 1, 2, 3, 4 }, parsed("{\"type\":\"Point\"}"), parsed("{\"gsd\":10}"), parsed("{\"href\":\"v.tif\"}"),
        { { "Authorization", "Bearer \xe9" }, { "X-\xff", "" } } };
    const QString expected
        = text(R"({"assetKey":"visual","assetMetadata":{"href":"v.tif"},"bbox":[1,2,3,4],"collection":"col",)"
               R"("gdalVirtualPath":"/vsicurl/https://h/v.tif","geometry":{"type":"Point"},"itemId":"item",)"
               R"("itemProperties":{"gsd":10},"mediaType":"image/tiff","requestHeaders":{"Authorization":"Bearer é",)"
               R"("X-ÿ":""},"roles":["visual"],"sourceUrl":"https://h/v.tif","title":"True colour"})");
    QCOMPARE(cogLayerToJson(layer), expected);
}

QTEST_GUILESS_MAIN(TestFlatDocuments)
#include "tst_flatdocuments.moc"
