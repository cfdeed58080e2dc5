// Throughput of item-collection parsing on a page of about 1 MiB made of recorded features, and the cost of a
// search answered from the cache (the loopback server answers once; every timed search is a cache hit).

#include <norvanecloud/stac.h>

#include <faultserver.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <stdexcept>

using namespace Norvane::Cloud;

namespace {

QByteArray readStacFixture(const char *name)
{
    QFile file(QStringLiteral(NORVANE_TEST_DATA_DIR "/stac/") + QLatin1String(name));
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error("missing fixture");
    return file.readAll();
}

// The recorded cql2-filter page (10 features from four collections, ~130 KB) with its features repeated until
// the page reaches 1 MiB.
QByteArray largePage()
{
    QJsonObject page
        = QJsonDocument::fromJson(readStacFixture("earth-search-v1-cql2-filter-page1-next-post-body.json")).object();
    const QJsonArray recorded = page.value(QLatin1String("features")).toArray();
    QJsonArray features;
    QByteArray body;
    while (body.size() < 1024 * 1024) {
        for (const QJsonValue &feature : recorded)
            features.append(feature);
        page.insert(QLatin1String("features"), features);
        body = QJsonDocument(page).toJson(QJsonDocument::Compact);
    }
    return body;
}

void parseLargePage(benchmark::State &state)
{
    const QByteArray body = largePage();
    const QUrl pageUrl(QStringLiteral("https://earth-search.aws.element84.com/v1/search"));
    qsizetype items = 0;
    for (auto _ : state) {
        const StacSearchResult result = StacClient::parseItemCollection(body, pageUrl);
        items = result.items.size();
        benchmark::DoNotOptimize(result.items.constData());
    }
    state.SetBytesProcessed(qint64(state.iterations()) * body.size());
    state.counters["page_bytes"] = double(body.size());
    state.counters["items"] = double(items);
}
BENCHMARK(parseLargePage)->Unit(benchmark::kMillisecond);

void cachedSearch(benchmark::State &state)
{
    const QByteArray page = readStacFixture("planetary-computer-naip-page1-next-post-token.json");
    Testing::FaultServer server([page](const Testing::FaultRequest &) {
        return Testing::httpReply(200, { { "Content-Type", "application/geo+json" } }, page);
    });

    QTemporaryDir folder;
    CloudCacheOptions options;
    options.directory = folder.path();
    StacClient client(server.url("/v1"), std::make_shared<CloudRangeCache>(options));
    StacSearchRequest request;
    request.collections = QStringList { QStringLiteral("naip") };
    request.limit = 10;
    client.search(request);

    for (auto _ : state) {
        const StacSearchResult result = client.search(request);
        benchmark::DoNotOptimize(result.items.constData());
    }
    if (server.requestCount() != 1)
        state.SkipWithError("a timed search reached the server");
    state.SetBytesProcessed(qint64(state.iterations()) * page.size());
}
BENCHMARK(cachedSearch)->Unit(benchmark::kMicrosecond);

} // namespace
