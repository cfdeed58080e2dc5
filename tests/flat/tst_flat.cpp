// The flat interface: the documents it reads and writes and its frame (result buffers, last error, order of checks)
// called in process, two clients sharing a cache folder, and a C host without a Qt application object driving the
// shared library against nginx (linking that host is what checks the exported names).

#include "faultserver.h"
#include "flat/callframe.h"
#include "flat/flatdocuments.h"
#include "nginxserver.h"
#include "stac/stacsearchrequest.h"
#include <norvanecloud/flat.h>

#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <thread>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;
using Text = std::function<QString()>;
Q_DECLARE_METATYPE(Text)
#define ROW(name, text, expected) QTest::newRow(name) << Text([=] { return QString(text); }) << QString(expected)

namespace {

// The test's client, and the buffer of the calls in the table (a failed call must leave it untouched).
NorvaneCloudClient *c = nullptr;
char16_t b[8], large[1 << 16];
constexpr char16_t untouched = u'\xaaaa';

QString lastErrorText()
{
    char16_t buffer[256];
    return QString::fromUtf16(buffer, qMin(NorvaneCloud_LastError(buffer, 256), 255));
}

// A catalogue page, a slow catalogue, and a COG that answers by credentials: little-endian for alice, big-endian
// for bob, 403 for anyone else.
FaultReply serve(const FaultRequest &request)
{
    const QByteArray key = request.target + ' ' + request.header("Authorization");
    QFile file(QStringLiteral(NORVANE_TEST_DATA_DIR "/")
        + (key.startsWith("/stac/search ")           ? "stac/planetary-computer-naip-page1-next-post-token.json"
                : key == "/private.tif Bearer alice" ? "tiff/bigtiff-cog-le-ifd-at-16.tiff"
                : key == "/private.tif Bearer bob"   ? "tiff/bigendian-mm-rgb-strip-ifd-at-776.tiff"
                                                     : ""));
    FaultReply reply = file.open(QIODevice::ReadOnly) ? objectReply(request, file.readAll()) : httpReply(403, {}, {});
    reply.delayMilliseconds = key.startsWith("/slow/") ? 5000 : 0;
    return reply;
}

} // namespace

class TestFlat : public QObject {
    Q_OBJECT

    std::unique_ptr<FaultServer> server = std::make_unique<FaultServer>(serve);
    QTemporaryDir folder;
    const std::u16string options = QStringLiteral("{\"directory\":\"%1\"}").arg(folder.path()).toStdU16String();
    int requestsBefore = 0;

    std::u16string at(const char *path) const { return server->url(path).toString().toStdU16String(); }
    // A failed call's answer, the requests it sent and its last error. The error belongs to the failing thread
    // alone, survives being read (the full length back; of five units, four copied and terminated, nothing beyond)
    // and a null client being destroyed; the call's buffer stays untouched, and the next success clears the error.
    QString failed(int32_t answer) const
    {
        NorvaneCloud_DestroyClient(nullptr);
        const QString error = lastErrorText();
        QString elsewhere = "unread";
        std::thread([&elsewhere] { elsewhere = lastErrorText(); }).join();
        std::u16string five(6, untouched);
        const bool kept = elsewhere.isEmpty()
            && NorvaneCloud_LastError(five.data(), 5) + NorvaneCloud_LastError(five.data(), 0) == 2 * error.size()
            && five == error.left(4).toStdU16String() + u'\0' + untouched
            && std::u16string(b, 8) == std::u16string(8, untouched) && NorvaneCloud_ClearCache(c) == 1
            && NorvaneCloud_LastError(nullptr, 0) == 0;
        return QString::number(answer) + ", " + QString::number(server->requestCount() - requestsBefore)
            + " sent: " + error + (kept ? "" : " (frame broken)");
    }

private slots:
    void init() { QVERIFY(c = NorvaneCloud_CreateClient(options.c_str())); }
    void cleanup() { NorvaneCloud_DestroyClient(c); }

    // Readers: empty text reads as no document, integers are exact to 64 bits, a limit must fit in 32. Writers: members
    // sorted, 64-bit integers exact, URLs fully encoded, nothing left out; an asset keeps what the catalogue sent with
    // the decoded members laid over it. (No "//" in raw strings: moc reads a comment.) Then failed calls, the
    // handle checked before the headers document; the time-out row shows the client's time-out reaching its
    // catalogue exchanges.
    void texts_data()
    {
        QTest::addColumn<Text>("text");
        QTest::addColumn<QString>("expected");
        const auto options = [](const char16_t *text) {
            const CloudCacheOptions o = cacheOptionsFromJson(text);
            return QString::asprintf("%s|%lld|%lld|%lld|%d|%d", qPrintable(o.directory), o.maximumMemoryBytes,
                o.maximumDiskBytes, o.maximumAgeSeconds, o.memoryEnabled, o.diskEnabled);
        };
        ROW("options empty", options(u""), options(nullptr));
        ROW("options every member",
            options(uR"({"directory":"/c\u00e9","maximumMemoryBytes":9007199254740993,"maximumDiskBytes":5e9,)"
                    uR"("maximumAgeSeconds":0,"memoryEnabled":false,"diskEnabled":false})"),
            "/cé|9007199254740993|5000000000|0|0|0");
        // Integers exact from their text, however written; a fraction or more than 64 bits reads as 0.
        ROW("options integers exact",
            options(uR"({"maximumMemoryBytes":9223372036854775807.0,"maximumDiskBytes":9007199254740993e0,)"
                    uR"("maximumAgeSeconds":1e19})"),
            "|9223372036854775807|9007199254740993|0|1|1");
        ROW("options integers, fraction",
            options(uR"({"maximumMemoryBytes":-92233720368547758.08e2,"maximumAgeSeconds":1.0000000000000000001})"),
            "|-9223372036854775808|1073741824|0|1|1");
        const auto search = [](const char16_t *text) {
            return QString::fromUtf8(StacSearchRequests::body(searchRequestFromJson(text)));
        };
        ROW("search every member",
            search(
                uR"({"collections":["a"],"bbox":[1,2.5,3,4],"intersects":{"type":"Point"},"datetime":"2020/..",)"
                uR"("limit":2.5e1,"query":{"gsd":1},"filter":{"op":"="},"filterLanguage":"cql2","filter-lang":"x"})"),
            R"({"bbox":[1,2.5,3,4],"collections":["a"],"datetime":"2020/..","filter":{"op":"="},)"
            R"("filter-lang":"cql2","intersects":{"type":"Point"},"limit":25,"query":{"gsd":1}})");
        ROW("search limit beyond 32 bits", search(uR"({"limit":2147483648})"), R"({"limit":0})");
        ROW("search limit with a fraction", search(uR"({"limit":2.1474836470000000001e9})"), R"({"limit":0})");
        // Arguments are taken unit for unit: no byte-order mark is dropped, and none swaps the units after it.
        const auto units = [](const QString &text) {
            QStringList hex;
            for (const QChar unit : text)
                hex << QString::number(unit.unicode(), 16);
            return hex.join(u' ');
        };
        ROW("text, U+FEFF and U+FFFE kept", units(textArgument(u"\uFEFFa")) + ", " + units(textArgument(u"\uFFFEa")),
            "feff 61, fffe 61");
        // Result lengths a signed 32-bit count cannot hold fail instead of turning negative.
        const auto length = [](qsizetype units) {
            try {
                return QString::number(resultLength(units));
            } catch (const std::exception &error) {
                return QString::fromUtf8(error.what());
            }
        };
        ROW("result lengths", length(2147483647) + ", " + length(2147483648),
            "2147483647, Result text is longer than 2147483647 UTF-16 units");
        ROW("cache statistics", cacheStatisticsToJson({ 1, 2, 3, 4, 5, 6, INT64_MAX, 8, INT64_MIN, 10 }),
            R"({"cacheBytesServed":8,"diskBytes":10,"diskHits":2,"evictions":5,"memoryBytes":-9223372036854775808,)"
            R"("memoryHits":1,"misses":3,"networkBytes":9223372036854775807,"networkRequests":6,"writes":4})");
        ROW("COG probe",
            cogProbeToJson({ QUrl("http:h/a b/\u00e9?x=1 2"), 9007199254740993, -1, "", "W\xe9", "image/tiff", true,
                false, true, false, true, "d" }),
            R"({"acceptsRanges":true,"bigTiff":true,"byteOrder":"","cloudReadable":true,"contentLength":9007199254740993,)"
            R"("contentType":"image/tiff","diagnostic":"d","etag":"Wé","firstIfdNearStart":false,)"
            R"("firstIfdOffset":-1,"tiffHeaderValid":false,"url":"http:h/a%20b/%C3%A9?x=1%202"})");
        ROW("GeoParquet probe",
            geoParquetProbeToJson({ QUrl("https:h/p"), 4294967296, "W/1", "x/y", false, true, false, true, "f" }),
            R"({"acceptsRanges":false,"cloudReadable":true,"contentLength":4294967296,"contentType":"x/y",)"
            R"("diagnostic":"f","etag":"W/1","footerValid":false,"headerValid":true,"url":"https:h/p"})");
        ROW("PMTiles probe",
            pmTilesProbeToJson({ QUrl("file:t.pmtiles"), 1, "e", "x/y", true, false, 3, 127, 20, 30, 40, INT64_MIN + 1,
                9007199254740997, -1, 255, 2, "raster", false, true, "ok" }),
            R"({"acceptsRanges":true,"cloudReadable":true,"contentLength":1,"contentType":"x/y","diagnostic":"ok",)"
            R"("etag":"e","headerValid":false,"maximumZoom":255,"metadataLength":40,"metadataOffset":30,)"
            R"("minimumZoom":-1,"remote":false,"rootDirectoryLength":20,"rootDirectoryOffset":127,)"
            R"("specificationVersion":3,"tileDataLength":9007199254740997,"tileDataOffset":-9223372036854775807,)"
            R"("tileKind":"raster","tileType":2,"url":"file:t.pmtiles"})");
        const auto json = [](const char *text) { return QJsonDocument::fromJson(text).object(); };
        const StacAsset visual { QUrl("https:h/v.tif"), "V", "", "image/tiff", { "data", "visual" },
            json(R"({"href":"./v.tif","eo:bands":[1],"title":"old"})") };
        const StacItem item { "i1", "c", { -180, -90.5 }, json(R"({"type":"Point"})"), json(R"({"p":1})"),
            { { "visual", visual } }, {}, json(R"({"id":"i1"})") };
        ROW("search result",
            searchResultToJson({ { item }, QUrl(), "POST", json(R"({"next":"t"})"), 9007199254740993, 1, json("{}") }),
            R"({"items":[{"assets":{"visual":{"description":"","eo:bands":[1],"href":"https:h/v.tif","mediaType":)"
            R"("image/tiff","roles":["data","visual"],"title":"V"}},"bbox":[-180,-90.5],"collection":"c","geometry":)"
            R"({"type":"Point"},"id":"i1","links":[],"properties":{"p":1},"raw":{"id":"i1"}}],"matched":)"
            R"(9007199254740993,"nextBody":{"next":"t"},"nextMethod":"POST","nextPage":"","raw":{},"returned":1})");
        ROW("COG layer",
            cogLayerToJson({ "item", "col", "v", QUrl("https:h/v.tif"), "/vsicurl/v", "T", "image/tiff", { "r" },
                { 1, 2 }, json(R"({"g":1})"), json(R"({"i":2})"), json(R"({"a":3})"), { { "Auth", "B\xe9" } } }),
            R"({"assetKey":"v","assetMetadata":{"a":3},"bbox":[1,2],"collection":"col","gdalVirtualPath":)"
            R"("/vsicurl/v","geometry":{"g":1},"itemId":"item","itemProperties":{"i":2},"mediaType":"image/tiff",)"
            R"("requestHeaders":{"Auth":"Bé"},"roles":["r"],"sourceUrl":"https:h/v.tif","title":"T"})");
        const std::u16string cog = at("/private.tif"), stac = at("/stac"), slow = at("/slow");
        ROW("options an array", failed(NorvaneCloud_CreateClient(u"[{}]") != nullptr),
            "0, 0 sent: Cloud client options must be a JSON object");
        ROW("PMTiles path, local path", failed(NorvaneCloud_PmTilesGdalVirtualPath(c, u"/a.pmtiles", b, 8)),
            "-1, 0 sent: Cloud object URL must use HTTP or HTTPS");
        ROW("probe, client before headers", failed(NorvaneCloud_CogProbeJson(nullptr, cog.c_str(), u"[]", b, 8)),
            "-1, 0 sent: Cloud client is null");
        ROW("probe headers", failed(NorvaneCloud_GeoParquetProbeJson(c, cog.c_str(), u"[]", b, 8)),
            "-1, 0 sent: Cloud headers must be a JSON object");
        ROW("search, request a null literal", failed(NorvaneCloud_StacSearchJson(c, stac.c_str(), u"null", b, 8)),
            "-1, 0 sent: STAC search request must be a JSON object");
        ROW("search, file catalogue", failed(NorvaneCloud_StacSearchJson(c, u"file:///etc", nullptr, b, 8)),
            "-1, 0 sent: Cloud URL must use HTTP or HTTPS");
        ROW("search, header value with CR LF",
            failed((NorvaneCloud_SetHeadersJson(c, uR"({"X":"1\r\nY: 2"})"),
                NorvaneCloud_StacSearchJson(c, stac.c_str(), nullptr, b, 8))),
            "-1, 0 sent: HTTP header value contains CR, LF or NUL");
        ROW("probe, header name empty", failed(NorvaneCloud_CogProbeJson(c, cog.c_str(), uR"({"":"1"})", b, 8)),
            "-1, 0 sent: HTTP header name is empty");
        ROW("search, client time-out",
            failed((NorvaneCloud_SetTimeout(c, 500), NorvaneCloud_StacSearchJson(c, slow.c_str(), nullptr, b, 8))),
            "-1, 1 sent: STAC request timed out");
        ROW("resolve, index past the page",
            failed(NorvaneCloud_StacResolveCogLayerJson(c, stac.c_str(), nullptr, nullptr, 10, b, 8)),
            "-1, 1 sent: STAC item index is out of range");
    }
    void texts()
    {
        QFETCH(Text, text);
        std::fill_n(b, 8, untouched);
        requestsBefore = server->requestCount();
        QTEST(text(), "expected");
    }

    // Credentials are part of every cache key, in memory and in the folder the two clients share; a refused headers
    // document leaves the old ones, an accepted one replaces them; clearing empties both tiers.
    void clientsSharingAFolderKeepTheirCredentialsApart()
    {
        NorvaneCloudClient *other = NorvaneCloud_CreateClient(options.c_str());
        const auto order = [this](NorvaneCloudClient *who, const char16_t *headers = nullptr) {
            const int32_t length = NorvaneCloud_CogProbeJson(who, at("/private.tif").c_str(), headers, large, 1 << 16);
            return length < 0
                ? lastErrorText().section(u':', 0, 0)
                : QJsonDocument::fromJson(QString::fromUtf16(large, length).toUtf8())["byteOrder"].toString();
        };
        const char16_t *alice = u"{\"Authorization\":\"Bearer alice\"}", *bob = u"{\"Authorization\":\"Bearer bob\"}";
        QCOMPARE(NorvaneCloud_SetHeadersJson(c, alice) + NorvaneCloud_SetHeadersJson(other, bob), 2);
        // A braced list runs its elements in order.
        const QStringList seen { order(c), order(other), order(c, bob), order(c),
            QString::number(NorvaneCloud_SetHeadersJson(other, u"{\"Authorization\":\"Bearer alice\"} x")),
            order(other), QString::number(NorvaneCloud_SetHeadersJson(other, u"{\"X-Other\":\"1\"}")), order(other) };
        QCOMPARE(seen.join(u' '), "II MM MM II 0 MM 1 HTTP request failed (403)");
        NorvaneCloud_DestroyClient(other);
        const int32_t length = (NorvaneCloud_ClearCache(c), NorvaneCloud_CacheStatisticsJson(c, large, 1 << 16));
        const QJsonObject statistics = QJsonDocument::fromJson(QString::fromUtf16(large, length).toUtf8()).object();
        QCOMPARE(statistics["diskBytes"].toInteger() + statistics["memoryBytes"].toInteger(), 0);
    }

    // Objects come from nginx, the catalogue from the fault server, the cache folder from the environment. A locale
    // in the environment shows whether a temporary application object leaves the host's C locale changed.
    void cHostWithoutApplicationObject()
    {
        NginxServer nginx(QStringLiteral(NORVANE_TEST_DATA_DIR));
        QVERIFY2(nginx.start(), qPrintable(nginx.errorString()));
        qputenv("LC_ALL", "C.UTF-8");
        qputenv("XDG_CACHE_HOME", folder.path().toUtf8());
        qputenv("LSAN_OPTIONS", "suppressions=" NORVANE_TEST_DATA_DIR "/../flat/lsan.supp:print_suppressions=0");
        QProcess host;
        host.start(NORVANE_FLAT_C_HOST,
            { nginx.url(QString()).toString(), server->url("/stac").toString(),
                NORVANE_TEST_DATA_DIR "/pmtiles/test-fixture-1-mvt-z0.pmtiles" });
        const QByteArray output = host.waitForFinished(-1) ? host.readAllStandardOutput() : QByteArray();
        // Nothing on stderr either: temporary application objects are made on other threads than the first.
        const QByteArray errors = host.readAllStandardError();
        QVERIFY2(host.exitStatus() == QProcess::NormalExit && host.exitCode() == 0 && output == "0 failed\n"
                && errors.isEmpty(),
            (output + errors).constData());
        const FaultRequest search = server->requests().constLast();
        QCOMPARE(search.body + ' ' + search.header("Authorization"), "{\"limit\":100} Bearer t");
    }
};

QTEST_GUILESS_MAIN(TestFlat)
#include "tst_flat.moc"
