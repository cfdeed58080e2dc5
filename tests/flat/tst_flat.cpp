// The flat interface: the documents it reads and writes, its frame (result buffers, last error, order of checks)
// called in process, a C host without a Qt application object driving the shared library, and the names the
// shared library exports.

#include "faultserver.h"
#include "flat/applicationguard.h"
#include "flat/flatdocuments.h"
#include "flat/norvanecloudclient.h"
#include "nginxserver.h"
#include "stac/stacsearchrequest.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <thread>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;
using FlatCall = std::function<int32_t(NorvaneCloudClient *, char16_t *, int32_t)>;
Q_DECLARE_METATYPE(FlatCall)

// A table row's flat call, given the test's client c and an output buffer b of capacity n.
#define CALL(...)                                                                                                      \
    FlatCall([=]([[maybe_unused]] NorvaneCloudClient *c, [[maybe_unused]] char16_t *b, [[maybe_unused]] int32_t n) {   \
        return int32_t(__VA_ARGS__);                                                                                   \
    })

namespace {

constexpr char16_t untouched = u'\xaaaa';

// Input text as a flat function takes it; a null QString stands for a null pointer.
const char16_t *input(const QString &text)
{
    return text.isNull() ? nullptr : reinterpret_cast<const char16_t *>(text.utf16());
}

QString lastErrorText()
{
    char16_t buffer[256];
    return QString::fromUtf16(buffer, qMin(NorvaneCloud_LastError(buffer, 256), 255));
}

// The whole text of a call, after a size query as a host makes one, or "failed: " and the last error.
QString callText(const std::function<int32_t(char16_t *, int32_t)> &call)
{
    const int32_t length = call(nullptr, 0);
    std::u16string buffer(size_t(qMax(length, 0)) + 1, u'\0');
    if (length < 0 || call(buffer.data(), length + 1) != length)
        return QStringLiteral("failed: ") + lastErrorText();
    return QString::fromStdU16String(buffer.substr(0, size_t(length)));
}

// One QString column per name and one row per entry: its name, then its texts (null pointer: null QString).
void addRows(std::initializer_list<const char *> columns, std::initializer_list<std::array<const char *, 4>> rows)
{
    for (const char *column : columns)
        QTest::addColumn<QString>(column);
    for (const auto &row : rows) {
        QTestData &data = QTest::newRow(row[0]);
        for (size_t index = 1; index <= columns.size(); ++index)
            data << (row[index] ? QString::fromUtf8(row[index]) : QString());
    }
}

// The options as compact JSON, with the members of a changes document laid over them.
QByteArray described(const CloudCacheOptions &options, const QString &changes = QStringLiteral("{}"))
{
    QJsonObject object { { "directory", options.directory }, { "maximumMemoryBytes", options.maximumMemoryBytes },
        { "maximumDiskBytes", options.maximumDiskBytes }, { "maximumAgeSeconds", options.maximumAgeSeconds },
        { "memoryEnabled", options.memoryEnabled }, { "diskEnabled", options.diskEnabled } };
    const QJsonObject changed = QJsonDocument::fromJson(changes.toUtf8()).object();
    for (auto change = changed.begin(); change != changed.end(); ++change)
        object.insert(change.key(), change.value());
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// Two catalogue pages, a slow one, and a COG that answers by credentials: little-endian for alice, big-endian for
// bob, 403 for anyone else.
FaultReply serve(const FaultRequest &request)
{
    const auto bytes = [](const char *name) {
        QFile file(QStringLiteral(NORVANE_TEST_DATA_DIR "/") + QLatin1String(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    };
    const QByteArray authorization = request.header("Authorization"), target = request.target;
    if (target == "/private.tif" && (authorization == "Bearer alice" || authorization == "Bearer bob"))
        return objectReply(request,
            bytes(authorization == "Bearer alice" ? "tiff/bigtiff-cog-le-ifd-at-16.tiff"
                                                  : "tiff/bigendian-mm-rgb-strip-ifd-at-776.tiff"));
    FaultReply reply = httpReply(target.endsWith("/search") ? 200 : 403, {},
        bytes(target == "/stac/search" ? "stac/planetary-computer-naip-page1-next-post-token.json"
                                       : "stac/planetary-computer-search-ids-no-match-empty.json"));
    reply.delayMilliseconds = target == "/slow/search" ? 5000 : 0;
    return reply;
}

} // namespace

class TestFlat : public QObject {
    Q_OBJECT

    std::unique_ptr<FaultServer> server = std::make_unique<FaultServer>(serve);
    QTemporaryDir folder;
    NorvaneCloudClient *client = nullptr;

    std::u16string at(const char *path) const { return server->url(path).toString().toStdU16String(); }
    NorvaneCloudClient *newClient() const
    {
        return NorvaneCloud_CreateClient(input(QStringLiteral("{\"directory\":\"%1\"}").arg(folder.path())));
    }

private slots:
    void init() { QVERIFY(client = newClient()); }
    void cleanup() { NorvaneCloud_DestroyClient(client); }

    // Objects come from nginx, the catalogue from the fault server. A locale in the host's environment shows whether
    // a temporary application object leaves it changed.
    void cHostWithoutApplicationObject()
    {
        NginxServer nginx(QStringLiteral(NORVANE_TEST_DATA_DIR));
        QVERIFY2(nginx.start(), qPrintable(nginx.errorString()));
        QProcess host;
        qputenv("LANG", "C.UTF-8");
        qunsetenv("LC_ALL");
        qputenv("LSAN_OPTIONS", "suppressions=" NORVANE_TEST_DATA_DIR "/../flat/lsan.supp:print_suppressions=0");
        const int requestsBefore = server->requestCount();
        host.start(NORVANE_FLAT_C_HOST,
            { nginx.url(QString()).toString(), server->url("/stac").toString(), folder.path(),
                NORVANE_TEST_DATA_DIR "/pmtiles/test-fixture-1-mvt-z0.pmtiles" });
        QVERIFY(host.waitForFinished(-1));
        const QByteArray output = host.readAllStandardOutput();
        QVERIFY2(host.exitStatus() == QProcess::NormalExit && host.exitCode() == 0,
            (output + host.readAllStandardError()).constData());
        QCOMPARE(output, "0 failed\n");
        const FaultRequest search = server->requests().value(requestsBefore);
        QCOMPARE(search.body + ' ' + search.header("Authorization"), "{\"limit\":100} Bearer t");
    }

    void cacheOptionsDocument_data()
    {
        addRows({ "document", "changes" },
            { { { "null", nullptr, "{}" } }, { { "empty", "", "{}" } }, { { "empty object", "{}", "{}" } },
                { { "every member",
                    R"({"directory":"/c\u00e9","maximumMemoryBytes":1,"maximumDiskBytes":2,"maximumAgeSeconds":0,)"
                    R"("memoryEnabled":false,"diskEnabled":false})",
                    R"({"directory":"/c\u00e9","maximumMemoryBytes":1,"maximumDiskBytes":2,"maximumAgeSeconds":0,)"
                    R"("memoryEnabled":false,"diskEnabled":false})" } },
                { { "keys are case-sensitive", R"({"MaximumMemoryBytes":5,"memoryenabled":false})", "{}" } },
                { { "limit as text is 0", R"({"maximumMemoryBytes":"1000"})", R"({"maximumMemoryBytes":0})" } },
                { { "exponent, above 2^53", R"({"maximumDiskBytes":5e9,"maximumMemoryBytes":9007199254740993})",
                    R"({"maximumDiskBytes":5000000000,"maximumMemoryBytes":9007199254740993})" } },
                { { "beyond 64 bits is 0", R"({"maximumDiskBytes":9223372036854775808})",
                    R"({"maximumDiskBytes":0})" } },
                { { "age 1.5 is 0", R"({"maximumAgeSeconds":1.5})", R"({"maximumAgeSeconds":0})" } },
                { { "flag 1 is off", R"({"memoryEnabled":1})", R"({"memoryEnabled":false})" } },
                { { "directory as number is empty", R"({"directory":42})", "{}" } } });
    }
    void cacheOptionsDocument()
    {
        QFETCH(QString, document);
        QFETCH(QString, changes);
        QCOMPARE(described(cacheOptionsFromJson(input(document))), described(CloudCacheOptions(), changes));
    }

    // The decoded request, seen through the body a search sends.
    void searchRequestDocument_data()
    {
        addRows({ "document", "body" },
            { { { "null", nullptr, R"({"limit":100})" } },
                { { "every member",
                    R"({"collections":["a"],"bbox":[1,2.5,3,4],"intersects":{"type":"Point"},"datetime":"2020/..",)"
                    R"("limit":7,"query":{"gsd":1},"filter":{"op":"="},"filterLanguage":"cql2","filter-lang":"x"})",
                    R"({"bbox":[1,2.5,3,4],"collections":["a"],"datetime":"2020/..","filter":{"op":"="},)"
                    R"("filter-lang":"cql2","intersects":{"type":"Point"},"limit":7,"query":{"gsd":1}})" } },
                { { "wrong kinds", R"({"collections":"a","bbox":{},"intersects":[1],"datetime":5,"query":"q"})",
                    R"({"limit":100})" } },
                { { "collection number, coordinate text", R"({"collections":["a",7],"bbox":[1.5,"x",3,4]})",
                    R"({"bbox":[1.5,0,3,4],"collections":["a",""],"limit":100})" } },
                { { "limit 2.5e1", R"({"limit":2.5e1})", R"({"limit":25})" } },
                { { "limit as text", R"({"limit":"25"})", R"({"limit":0})" } },
                { { "limit 2.5", R"({"limit":2.5})", R"({"limit":0})" } },
                { { "largest 32-bit limit", R"({"limit":2147483647})", R"({"limit":2147483647})" } },
                { { "limit beyond 32 bits", R"({"limit":2147483648})", R"({"limit":0})" } } });
    }
    void searchRequestDocument()
    {
        QFETCH(QString, document);
        QFETCH(QString, body);
        QCOMPARE(StacSearchRequests::body(searchRequestFromJson(input(document))), body.toUtf8());
    }

    void headersDocumentAndPerCallMerge_data()
    {
        addRows({ "defaults", "perCall", "merged" },
            { { { "values not text are empty", nullptr, R"({"X-Count":42,"X-Null":null,"X-\u00c4":"\u00e9"})",
                  "X-Count= X-Null= X-Ä=é" } },
                { { "per call replaces the same name only", R"({"Authorization":"client","X-Trace":"1"})",
                    R"({"Authorization":"call","x-trace":"2"})", "Authorization=call X-Trace=1 x-trace=2" } },
                { { "null per call keeps the defaults", R"({"A":"1"})", nullptr, "A=1" } } });
    }
    void headersDocumentAndPerCallMerge()
    {
        QFETCH(QString, defaults);
        QFETCH(QString, perCall);
        QFETCH(QString, merged);
        const HeaderMap headers = mergedHeaders(headersFromJson(input(defaults)), input(perCall));
        QStringList pairs;
        for (auto header = headers.cbegin(); header != headers.cend(); ++header)
            pairs << QString::fromUtf8(header.key() + '=' + header.value());
        pairs.sort();
        QCOMPARE(pairs.join(u' '), merged);
    }

    // Members come out sorted, 64-bit integers exact, URLs fully encoded, nothing left out; an asset keeps what the
    // catalogue sent with the decoded members laid over it. (URLs here have no "//": moc reads it in a raw string as
    // the start of a comment.)
    void writtenDocuments_data()
    {
        QTest::addColumn<QString>("written");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const QString &written, const char *expected) {
            QTest::newRow(name) << written << QString::fromUtf8(expected);
        };
        row("cache statistics", cacheStatisticsToJson({ 1, 2, 3, 4, 5, 9007199254740993, INT64_MAX, 8, INT64_MIN, 10 }),
            R"({"cacheBytesServed":8,"diskBytes":10,"diskHits":2,"evictions":5,"memoryBytes":-9223372036854775808,)"
            R"("memoryHits":1,"misses":3,"networkBytes":9223372036854775807,"networkRequests":9007199254740993,)"
            R"("writes":4})");
        row("COG probe",
            cogProbeToJson({ QUrl("http:h/a b/\u00e9?x=1 2"), 9007199254740993, -1, "", "W\xe9", "image/tiff", true,
                false, true, false, true, "d" }),
            R"({"acceptsRanges":true,"bigTiff":true,"byteOrder":"","cloudReadable":true,"contentLength":9007199254740993,)"
            R"("contentType":"image/tiff","diagnostic":"d","etag":"Wé","firstIfdNearStart":false,)"
            R"("firstIfdOffset":-1,"tiffHeaderValid":false,"url":"http:h/a%20b/%C3%A9?x=1%202"})");
        row("GeoParquet probe",
            geoParquetProbeToJson({ QUrl("https:h/p"), 4294967296, "W/1", "x/y", false, true, false, true, "f" }),
            R"({"acceptsRanges":false,"cloudReadable":true,"contentLength":4294967296,"contentType":"x/y",)"
            R"("diagnostic":"f","etag":"W/1","footerValid":false,"headerValid":true,"url":"https:h/p"})");
        row("PMTiles probe",
            pmTilesProbeToJson({ QUrl("file:t.pmtiles"), 1, "e", "x/y", true, false, 3, 127, 20, 30, 40, INT64_MIN + 1,
                9007199254740997, -1, 255, 2, "raster", false, true, "ok" }),
            R"({"acceptsRanges":true,"cloudReadable":true,"contentLength":1,"contentType":"x/y","diagnostic":"ok",)"
            R"("etag":"e","headerValid":false,"maximumZoom":255,"metadataLength":40,"metadataOffset":30,)"
            R"("minimumZoom":-1,"remote":false,"rootDirectoryLength":20,"rootDirectoryOffset":127,)"
            R"("specificationVersion":3,"tileDataLength":9007199254740997,"tileDataOffset":-9223372036854775807,)"
            R"("tileKind":"raster","tileType":2,"url":"file:t.pmtiles"})");
        const auto json = [](const char *text) { return QJsonDocument::fromJson(text).object(); };
        const StacAsset visual { QUrl("https:h/v.tif"), "V", "", "image/tiff", { "data", "visual" },
            json(R"({"href":"./v.tif","type":"image/tiff","eo:bands":[1],"title":"old"})") };
        const StacItem item { "i1", "c", { -180, -90.5 }, json(R"({"type":"Point"})"), json(R"({"p":1})"),
            { { "visual", visual }, { "B04", StacAsset { QUrl("https:h/b.tif"), {}, {}, {}, {}, {} } } },
            QJsonArray { 1 }, json(R"({"id":"i1","big":9007199254740993})") };
        row("search result",
            searchResultToJson({ { item }, QUrl(), "POST", json(R"({"next":"t"})"), 9007199254740993, 1, json("{}") }),
            R"({"items":[{"assets":{"B04":{"description":"","href":"https:h/b.tif","mediaType":"","roles":[],)"
            R"("title":""},"visual":{"description":"","eo:bands":[1],"href":"https:h/v.tif","mediaType":)"
            R"("image/tiff","roles":["data","visual"],"title":"V","type":"image/tiff"}},"bbox":[-180,-90.5],)"
            R"("collection":"c","geometry":{"type":"Point"},"id":"i1","links":[1],"properties":{"p":1},"raw":)"
            R"({"big":9007199254740993,"id":"i1"}}],"matched":9007199254740993,"nextBody":{"next":"t"},)"
            R"("nextMethod":"POST","nextPage":"","raw":{},"returned":1})");
        row("COG layer",
            cogLayerToJson({ "item", "col", "v", QUrl("https:h/v.tif"), "/vsicurl/v", "T", "image/tiff", { "r" },
                { 1, 2 }, json(R"({"g":1})"), json(R"({"i":2})"), json(R"({"a":3})"), { { "Auth", "B\xe9" } } }),
            R"({"assetKey":"v","assetMetadata":{"a":3},"bbox":[1,2],"collection":"col","gdalVirtualPath":)"
            R"("/vsicurl/v","geometry":{"g":1},"itemId":"item","itemProperties":{"i":2},"mediaType":"image/tiff",)"
            R"("requestHeaders":{"Auth":"Bé"},"roles":["r"],"sourceUrl":"https:h/v.tif","title":"T"})");
    }
    void writtenDocuments()
    {
        QFETCH(QString, written);
        QFETCH(QString, expected);
        QCOMPARE(written, expected);
    }

    // A text function returns the full length whatever fits; what it copies is always terminated.
    void resultBuffer_data()
    {
        addRows({ "capacity", "written" },
            { { { "null buffer", nullptr, nullptr } }, { { "capacity 0", "0", nullptr } },
                { { "negative capacity", "-7", nullptr } }, { { "capacity 1: terminator only", "1", "" } },
                { { "capacity 5: four units", "5", "/vsi" } }, { { "exact fit", "24", "/vsicurl/http://h/a.tif" } } });
    }
    void resultBuffer()
    {
        QFETCH(QString, capacity);
        QFETCH(QString, written);
        std::u16string buffer(32, untouched);
        char16_t *const target = capacity.isNull() ? nullptr : buffer.data();
        QCOMPARE(NorvaneCloud_CogGdalVirtualPath(client, u"http://h/a.tif", target, capacity.toInt()), 23);
        const std::u16string expected = written.isNull() ? u"" : written.toStdU16String() + u'\0';
        QCOMPARE(buffer, expected + std::u16string(32 - expected.size(), untouched));
    }

    void failedCalls_data()
    {
        QTest::addColumn<FlatCall>("call");
        QTest::addColumn<int>("answer");
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("silent");
        const auto row
            = [](const char *name, const FlatCall &call, int answer, const char *message, bool silent = true) {
                  QTest::newRow(name) << call << answer << QString::fromUtf8(message) << silent;
              };
        const char *nullClient = "Cloud client is null", *badHeaders = "Cloud headers must be a JSON object",
                   *notHttp = "Cloud object URL must use HTTP or HTTPS",
                   *outOfRange = "STAC item index is out of range";
        const std::u16string cog = at("/private.tif"), stac = at("/stac");
        const char16_t *bad = u"[{\"Authorization\":\"Bearer alice\"}]";
        row("options an array", CALL(NorvaneCloud_CreateClient(u"[{}]") != nullptr), 0,
            "Cloud client options must be a JSON object");
        row("time-out, null client", CALL(NorvaneCloud_SetTimeout(nullptr, 5000)), 0, nullClient);
        row("time-out 0", CALL(NorvaneCloud_SetTimeout(c, 0)), 0, "HTTP timeout must be positive");
        row("headers before handle", CALL(NorvaneCloud_SetHeadersJson(nullptr, u"{} x")), 0, badHeaders);
        row("clear, null client", CALL(NorvaneCloud_ClearCache(nullptr)), 0, nullClient);
        row("statistics, null client", CALL(NorvaneCloud_CacheStatisticsJson(nullptr, b, n)), -1, nullClient);
        row("COG path, null URL", CALL(NorvaneCloud_CogGdalVirtualPath(c, nullptr, b, n)), -1,
            "COG URL must use HTTP or HTTPS");
        row("GeoParquet path, null URL", CALL(NorvaneCloud_GeoParquetGdalVirtualPath(c, nullptr, b, n)), -1, notHttp);
        row("PMTiles path, local path", CALL(NorvaneCloud_PmTilesGdalVirtualPath(c, u"/a.pmtiles", b, n)), -1, notHttp);
        row("inspect, missing archive", CALL(NorvaneCloud_PmTilesInspectJson(c, u"/none/a", nullptr, b, n)), -1,
            "PMTiles local archive does not exist");
        row("probe, client before headers", CALL(NorvaneCloud_CogProbeJson(nullptr, cog.c_str(), bad, b, n)), -1,
            nullClient);
        row("COG probe headers", CALL(NorvaneCloud_CogProbeJson(c, cog.c_str(), bad, b, n)), -1, badHeaders);
        row("GeoParquet probe headers", CALL(NorvaneCloud_GeoParquetProbeJson(c, cog.c_str(), bad, b, n)), -1,
            badHeaders);
        row("PMTiles probe headers", CALL(NorvaneCloud_PmTilesProbeJson(c, cog.c_str(), bad, b, n)), -1, badHeaders);
        row("PMTiles inspect headers", CALL(NorvaneCloud_PmTilesInspectJson(c, cog.c_str(), bad, b, n)), -1,
            badHeaders);
        row("search, catalogue before request", CALL(NorvaneCloud_StacSearchJson(c, nullptr, u"[]", b, n)), -1,
            "STAC catalog URL is invalid");
        row("search, request a null literal", CALL(NorvaneCloud_StacSearchJson(c, stac.c_str(), u"null", b, n)), -1,
            "STAC search request must be a JSON object");
        row("search, client time-out",
            CALL((NorvaneCloud_SetTimeout(c, 500), NorvaneCloud_StacSearchJson(c, at("/slow").c_str(), nullptr, b, n))),
            -1, "STAC request timed out", false);
        row("resolve, client first",
            CALL(NorvaneCloud_StacResolveCogLayerJson(nullptr, nullptr, u"[]", nullptr, -1, b, n)), -1, nullClient);
        row("resolve, index -1 before the asset",
            CALL(NorvaneCloud_StacResolveCogLayerJson(c, stac.c_str(), nullptr, u"none", -1, b, n)), -1, outOfRange,
            false);
        row("resolve, index past the page",
            CALL(NorvaneCloud_StacResolveCogLayerJson(c, stac.c_str(), nullptr, nullptr, 10, b, n)), -1, outOfRange,
            false);
    }
    // A failure answers 0, -1 or null, leaves the buffer untouched and sets the last error, which reading or
    // destroying a null client does not change and the next success clears; a silent failure sends nothing.
    void failedCalls()
    {
        QFETCH(FlatCall, call);
        QFETCH(int, answer);
        QFETCH(QString, message);
        QFETCH(bool, silent);
        const int requestsBefore = server->requestCount();
        std::u16string buffer(8, untouched);
        QCOMPARE(call(client, buffer.data(), 8), answer);
        NorvaneCloud_DestroyClient(nullptr);
        QCOMPARE(lastErrorText(), message);
        QCOMPARE(lastErrorText(), message);
        QCOMPARE(buffer, std::u16string(8, untouched));
        QVERIFY(!silent || server->requestCount() == requestsBefore);
        QCOMPARE(NorvaneCloud_ClearCache(client), 1);
        QCOMPARE(NorvaneCloud_LastError(nullptr, 0), 0);
    }

    void refusedTimeoutLeavesEveryReaderAsItWas()
    {
        QCOMPARE(NorvaneCloud_SetTimeout(client, 1234), 1);
        QCOMPARE(NorvaneCloud_SetTimeout(client, INT32_MIN), 0);
        const NorvaneCloudClient &record = *client;
        QCOMPARE(QList<int>({ record.timeoutMilliseconds, record.cog.rangeReader().timeoutMilliseconds(),
                     record.geoParquet.rangeReader().timeoutMilliseconds(),
                     record.pmTiles.rangeReader().timeoutMilliseconds() }),
            QList<int>({ 1234, 1234, 1234, 1234 }));
    }

    // Credentials are part of every cache key, in memory and in the folder the two clients share.
    void clientsSharingAFolderKeepTheirCredentialsApart()
    {
        NorvaneCloudClient *bob = newClient();
        QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"{\"Authorization\":\"Bearer alice\"}"), 1);
        QCOMPARE(NorvaneCloud_SetHeadersJson(bob, u"{\"Authorization\":\"Bearer bob\"}"), 1);
        const auto byteOrder = [this](NorvaneCloudClient *who, const char16_t *headers) {
            const QString probe = callText([&](char16_t *buffer, int32_t capacity) {
                return NorvaneCloud_CogProbeJson(who, at("/private.tif").c_str(), headers, buffer, capacity);
            });
            return probe.startsWith(u'{') ? QJsonDocument::fromJson(probe.toUtf8())["byteOrder"].toString()
                                          : probe.section(u':', 0, 1);
        };
        QCOMPARE(byteOrder(client, nullptr), "II");
        QCOMPARE(byteOrder(bob, nullptr), "MM");
        QCOMPARE(byteOrder(client, u"{\"Authorization\":\"Bearer bob\"}"), "MM");
        QCOMPARE(byteOrder(client, nullptr), "II");
        QCOMPARE(NorvaneCloud_SetHeadersJson(bob, u"{\"Authorization\":\"Bearer alice\"} x"), 0);
        QCOMPARE(byteOrder(bob, nullptr), "MM");
        QCOMPARE(NorvaneCloud_SetHeadersJson(bob, u"{\"X-Other\":\"1\"}"), 1);
        QCOMPARE(byteOrder(bob, nullptr), "failed: HTTP request failed (403)");
        NorvaneCloud_DestroyClient(bob);
        QCOMPARE(NorvaneCloud_ClearCache(client), 1);
        const QString statistics
            = callText([this](char16_t *b, int32_t n) { return NorvaneCloud_CacheStatisticsJson(client, b, n); });
        QVERIFY2(statistics.contains(R"("diskBytes":0,)") && statistics.contains(R"("memoryBytes":0,)"),
            qPrintable(statistics));
    }

    // With the host's application object present, networked calls take no lock and run side by side on one client;
    // each thread keeps its own last error.
    void callsOnSeveralThreadsKeepTheirOwnLastError()
    {
        const ApplicationGuard guard;
        QVERIFY(!guard.ownsApplication() && !guard.holdsMutex());
        QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"{\"Authorization\":\"Bearer alice\"}"), 1);
        const std::u16string cog = at("/private.tif"), catalogue = at("/stac");
        QString seen[4];
        QSemaphore failed, checked;
        std::thread threads[4];
        for (int index = 0; index < 4; ++index) {
            threads[index] = std::thread([&, index] {
                for (int round = 0; round < 5; ++round) {
                    if (NorvaneCloud_CogProbeJson(client, cog.c_str(), nullptr, nullptr, 0) <= 0
                        || NorvaneCloud_StacSearchJson(client, catalogue.c_str(), nullptr, nullptr, 0) <= 0)
                        seen[index] = lastErrorText() + u' ';
                }
                index % 2 ? NorvaneCloud_ClearCache(nullptr) : NorvaneCloud_SetTimeout(client, 0);
                failed.release(); // every thread fails before any of them reads its last error
                checked.acquire();
                seen[index] += lastErrorText();
            });
        }
        failed.acquire(4);
        checked.release(4);
        for (std::thread &thread : threads)
            thread.join();
        const QString timeout = "HTTP timeout must be positive", nullClient = "Cloud client is null";
        QCOMPARE(QStringList(seen, seen + 4), QStringList({ timeout, nullClient, timeout, nullClient }));
    }

    // Exactly the sixteen functions, as code under their plain names: none missing, no decorated twin.
    void sharedLibraryExportsTheSixteenFunctionsUndecorated()
    {
        QProcess nm;
        nm.start(NORVANE_NM, { "-D", "--defined-only", NORVANE_SHARED_LIBRARY });
        QVERIFY(nm.waitForFinished(-1) && nm.exitCode() == 0);
        QStringList exported = QString::fromUtf8(nm.readAllStandardOutput()).split(u'\n').filter("NorvaneCloud_");
        exported.replaceInStrings(QRegularExpression("^[0-9a-f]+ "), QString()).sort();
        QCOMPARE(exported.join(u' ').remove("NorvaneCloud_"),
            "T CacheStatisticsJson T ClearCache T CogGdalVirtualPath T CogProbeJson T CreateClient T DestroyClient "
            "T GeoParquetGdalVirtualPath T GeoParquetProbeJson T LastError T PmTilesGdalVirtualPath "
            "T PmTilesInspectJson T PmTilesProbeJson T SetHeadersJson T SetTimeout T StacResolveCogLayerJson "
            "T StacSearchJson");
    }
};

QTEST_GUILESS_MAIN(TestFlat)
#include "tst_flat.moc"
