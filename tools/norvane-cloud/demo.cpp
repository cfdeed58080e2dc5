#include "demo.h"

#include "demoserver.h"
#include "gdaloptions.h"
#include "output.h"
#include "toolmessages.h"
#include "viewportwindow.h"

#include <norvanecloud/formats.h>
#include <norvanecloud/stac.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTemporaryDir>

namespace NorvaneCloudTool {

using namespace Norvane::Cloud;

namespace {

// The recorded catalogue pages name their own API; the demo serves them under this path instead.
const QString recordedCatalogRoot = QStringLiteral("https://planetarycomputer.microsoft.com/api/stac/v1");
const QString catalogPath = QStringLiteral("/stac/v1");
const QString cogPath = QStringLiteral("/samples/demo-cog.tif");
const QString pmTilesPath = QStringLiteral("/samples/demo.pmtiles");
const QString parquetPath = QStringLiteral("/samples/demo-countries.parquet");

QByteArray resource(const QString &name)
{
    QFile file(QStringLiteral(":/demo/") + name);
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error(ToolMessages::sampleMissing.arg(name).toStdString());
    return file.readAll();
}

// Points the page's links at the sample server and every TIFF asset at the bundled COG, so that following a
// next page, resolving a layer and probing it all stay on loopback.
QByteArray pageForSampleServer(const QByteArray &recorded, const DemoServer &server)
{
    const QString serverRoot = server.url(catalogPath).toString();
    QJsonObject page = QJsonDocument::fromJson(recorded).object();
    QJsonArray links = page.value(QStringLiteral("links")).toArray();
    for (auto link = links.begin(); link != links.end(); ++link) {
        QJsonObject object = link->toObject();
        object.insert(QStringLiteral("href"),
            object.value(QStringLiteral("href")).toString().replace(recordedCatalogRoot, serverRoot));
        *link = object;
    }
    page.insert(QStringLiteral("links"), links);
    QJsonArray features = page.value(QStringLiteral("features")).toArray();
    for (auto feature = features.begin(); feature != features.end(); ++feature) {
        QJsonObject item = feature->toObject();
        QJsonObject assets = item.value(QStringLiteral("assets")).toObject();
        for (auto asset = assets.begin(); asset != assets.end(); ++asset) {
            QJsonObject object = asset->toObject();
            if (object.value(QStringLiteral("type")).toString().contains(QLatin1String("tiff")))
                object.insert(QStringLiteral("href"), server.url(cogPath).toString());
            *asset = object;
        }
        item.insert(QStringLiteral("assets"), assets);
        *feature = item;
    }
    page.insert(QStringLiteral("features"), features);
    return QJsonDocument(page).toJson(QJsonDocument::Compact);
}

void serveSamples(DemoServer &server)
{
    server.serveObject(
        cogPath, resource(QStringLiteral("tiff/cog-ghost-header-deflate-2ifd.tif")), QByteArrayLiteral("image/tiff"));
    server.serveObject(pmTilesPath, resource(QStringLiteral("pmtiles/test-fixture-1-mvt-z0.pmtiles")),
        QByteArrayLiteral("application/vnd.pmtiles"));
    server.serveObject(parquetPath, resource(QStringLiteral("parquet/geoparquet-v1.1.0-example-countries.parquet")),
        QByteArrayLiteral("application/vnd.apache.parquet"));
    const QByteArray firstPage = pageForSampleServer(
        resource(QStringLiteral("stac/planetary-computer-naip-page1-next-post-token.json")), server);
    const QByteArray secondPage = pageForSampleServer(
        resource(QStringLiteral("stac/planetary-computer-naip-page2-next-and-previous-post-token.json")), server);
    // The recorded API pages by a token in the POST body of the next link.
    server.serveComputed(catalogPath + QStringLiteral("/search"), QByteArrayLiteral("application/geo+json"),
        [firstPage, secondPage](const QByteArray &requestBody) {
            const QJsonObject body = QJsonDocument::fromJson(requestBody).object();
            return body.contains(QStringLiteral("token")) ? secondPage : firstPage;
        });
}

} // namespace

int runDemo(const GlobalOptions &global, Console &console)
{
    QTextStream &out = console.out;
    DemoServer server;
    if (!server.start())
        throw std::runtime_error(ToolMessages::sampleServerNotStarted.arg(server.errorString()).toStdString());
    serveSamples(server);

    // A fresh cache folder shows the first reads going to the network; --cache-dir keeps one instead.
    QTemporaryDir scratch;
    CloudCacheOptions cacheOptions;
    cacheOptions.directory
        = global.cacheDirectory.isEmpty() ? scratch.filePath(QStringLiteral("cache")) : global.cacheDirectory;
    const auto cache = std::make_shared<CloudRangeCache>(cacheOptions);
    out << "Sample server: " << server.url(QStringLiteral("/")).toString() << '\n'
        << "Cache folder:  " << cache->options().directory << '\n';

    int step = 0;
    const auto begin = [&out, &step](const QString &title) {
        out << '\n' << "== " << ++step << ". " << title << '\n';
        out.flush();
    };
    CogSource cog(cache);
    PmTilesSource pmTiles(cache);
    GeoParquetSource geoParquet(cache);
    for (HttpRangeReader *reader : { &cog.rangeReader(), &pmTiles.rangeReader(), &geoParquet.rangeReader() })
        reader->setTimeoutMilliseconds(global.timeoutMilliseconds);

    const QUrl cogUrl = server.url(cogPath);
    begin(QStringLiteral("Probe a Cloud Optimized GeoTIFF: %1").arg(cogUrl.toString()));
    printProbe(out, cog.probe(cogUrl, global.headers));

    begin(QStringLiteral("Inspect the COG's structure and validate its layout (norvane-cloud info --validate)"));
    const CogStructureResult structure = cog.structure(cogUrl, global.headers);
    printStructure(out, structure);
    printLayoutVerdict(out, structure);

    begin(QStringLiteral("Probe a PMTiles archive: %1").arg(server.url(pmTilesPath).toString()));
    printProbe(out, pmTiles.probe(server.url(pmTilesPath).toString(), global.headers));

    begin(QStringLiteral("Probe a GeoParquet object: %1").arg(server.url(parquetPath).toString()));
    printProbe(out, geoParquet.probe(server.url(parquetPath), global.headers));

    CogViewportRequest viewport;
    viewport.url = cogUrl;
    viewport.ranges = rangesFromFile(QStringLiteral(":/demo/demo-cog.tiles"), QStringLiteral("demo"));
    viewport.headers = global.headers;
    viewport.overviewLevel = 0;
    begin(QStringLiteral("Read a viewport of %1 tiles in coalesced requests").arg(viewport.ranges.size()));
    const int requestsBefore = server.requestCount(cogPath);
    printViewportSummary(out, cog.readViewport(viewport));
    out << "HTTP requests made: " << server.requestCount(cogPath) - requestsBefore << '\n';

    begin(QStringLiteral("Read the same viewport again: served by the cache"));
    const int requestsBeforeRepeat = server.requestCount(cogPath);
    printViewportSummary(out, cog.readViewport(viewport));
    out << "HTTP requests made: " << server.requestCount(cogPath) - requestsBeforeRepeat << '\n';

    const QUrl catalogUrl = server.url(catalogPath);
    StacClient stac(catalogUrl, cache);
    stac.setTimeoutMilliseconds(global.timeoutMilliseconds);
    stac.setHeaders(global.headers);
    StacSearchRequest search;
    search.collections = QStringList { QStringLiteral("naip") };
    search.limit = 10;
    begin(QStringLiteral("Search the STAC catalogue %1").arg(catalogUrl.toString()));
    const StacSearchResult firstPage = stac.search(search);
    printStacItems(out, firstPage.items);
    out << "next page: " << firstPage.nextMethod << ' ' << firstPage.nextPage.toString() << '\n';

    begin(QStringLiteral("Follow the next page (%1)").arg(QString::fromLatin1(firstPage.nextMethod)));
    const StacSearchResult secondPage = stac.fetchNext(firstPage);
    printStacItems(out, secondPage.items);

    begin(QStringLiteral("Resolve the COG layer of the first item and probe it"));
    const StacCogLayer layer = stac.cogLayer(firstPage.items.value(0), QString());
    printCogLayer(out, layer);
    out << "probe: " << cog.probe(layer.sourceUrl, layer.requestHeaders).diagnostic << '\n';

    begin(QStringLiteral("GDAL access strings"));
    out << "COG:        " << cog.gdalVirtualPath(cogUrl) << '\n'
        << "PMTiles:    " << pmTiles.gdalPath(server.url(pmTilesPath).toString()) << '\n'
        << "GeoParquet: " << geoParquet.gdalVirtualPath(server.url(parquetPath)) << '\n';
    out << "options:   ";
    for (const QString &pair : gdalConfigPairs(cog.recommendedGdalOptions(256LL * 1024 * 1024)))
        out << ' ' << pair;
    out << '\n';

    // The map outlives the demo, so that it can be opened afterwards; each run replaces the last one's.
    const QDir mapFolder(QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + QStringLiteral("/demo"));
    mapFolder.mkpath(QStringLiteral("."));
    WindowRead window;
    window.url = cogUrl;
    window.window = PixelWindow { 70, 10, 20, 80 };
    begin(QStringLiteral("Read the pixel window 70,10,20,80 of level 0 and draw its map (viewport --window --map)"));
    CogViewportRequest windowRequest;
    windowRequest.headers = global.headers;
    readWindow(cog, window, windowRequest);
    const QString mapPath = mapFolder.filePath(QStringLiteral("window-map.svg"));
    writeWindowMap(mapPath, window);
    printWindowRead(out, window, mapPath);
    out << "Open the map in a browser: " << QUrl::fromLocalFile(mapPath).toString() << '\n';

    begin(QStringLiteral("Cache statistics"));
    printCacheStatistics(out, cache->options(), cache->statistics());

    server.stop();
    out << "\nDemo finished; the sample server has stopped.\n";
    return 0;
}

} // namespace NorvaneCloudTool
