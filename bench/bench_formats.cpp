// Coalescing of tile ranges, and the cost of a 64-tile COG viewport read through coalesced requests versus one
// request per tile, against nginx on the loopback interface.
//
//   cmake -S . -B build -DNORVANE_CLOUD_BUILD_BENCHMARKS=ON && cmake --build build --target bench_formats
//   build/bench/bench_formats

#include "formats/viewportplan.h"
#include "nginxserver.h"

#include <norvanecloud/formats.h>

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <random>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;

namespace {

const QString viewportCog = QStringLiteral("cogs/cog-le-jpeg-1024-64tiles.tif");

// Tiles as a COG lays them out: consecutive, a few hundred bytes to a few KiB each, with small leader/trailer
// holes and now and then a large jump (another overview or band), asked for in shuffled order.
QList<CogByteRange> syntheticTiles(int count)
{
    QRandomGenerator random(1234);
    QList<CogByteRange> ranges;
    ranges.reserve(count);
    qint64 offset = 4096;
    for (int index = 0; index < count; ++index) {
        CogByteRange range;
        range.offset = offset;
        range.length = 200 + random.bounded(8000);
        ranges.append(range);
        offset += range.length + (random.bounded(50) == 0 ? 1000000 : 8);
    }
    std::shuffle(ranges.begin(), ranges.end(), std::mt19937(42));
    return ranges;
}

void BM_CoalesceRanges(benchmark::State &state)
{
    const QList<CogByteRange> ranges = syntheticTiles(int(state.range(0)));
    qint64 merged = 0;
    for (auto _ : state) {
        const QList<CogByteRange> plan = coalesceByteRanges(ranges, 4096);
        merged = plan.size();
        benchmark::DoNotOptimize(plan.constData());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.counters["mergedRanges"] = double(merged);
}
BENCHMARK(BM_CoalesceRanges)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

struct NginxFixture {
    QTemporaryDir cacheFolder;
    NginxServer nginx { QStringLiteral(NORVANE_TEST_DATA_DIR) };
    bool started = false;
    QList<CogByteRange> tiles;

    NginxFixture()
    {
        started = nginx.start();
        const CogImageMetadata fullResolution
            = CogSource::structureOfFile(QStringLiteral(NORVANE_TEST_DATA_DIR "/") + viewportCog).images.value(0);
        for (qsizetype tile = 0; tile < fullResolution.tileOffsets.size(); ++tile)
            tiles.append({ fullResolution.tileOffsets[tile], fullResolution.tileByteCounts[tile] });
    }
};

NginxFixture &fixture()
{
    static NginxFixture instance;
    return instance;
}

// Without a cache every iteration goes to the server.
std::unique_ptr<CogSource> uncachedSource()
{
    CloudCacheOptions options;
    options.directory = fixture().cacheFolder.path();
    options.diskEnabled = false;
    auto source = std::make_unique<CogSource>(std::make_shared<CloudRangeCache>(options));
    source->rangeReader().setCache(nullptr);
    return source;
}

qint64 readCoalesced(const CogSource &source, const QUrl &url, const QList<CogByteRange> &tiles)
{
    CogViewportRequest request;
    request.url = url;
    request.ranges = tiles;
    return source.readViewport(request).coalescedRanges;
}

qint64 readPerTile(const CogSource &source, const QUrl &url, const QList<CogByteRange> &tiles)
{
    for (const CogByteRange &tile : tiles) {
        CloudRangeRequest request;
        request.url = url;
        request.offset = tile.offset;
        request.length = tile.length;
        benchmark::DoNotOptimize(source.rangeReader().read(request).data.constData());
    }
    return tiles.size();
}

bool ready(benchmark::State &state)
{
    if (!fixture().started) {
        state.SkipWithError("nginx did not start");
        return false;
    }
    if (fixture().tiles.size() != 64) {
        state.SkipWithError("tile table of the viewport COG is missing");
        return false;
    }
    return true;
}

void BM_Viewport64TilesCoalesced(benchmark::State &state)
{
    if (!ready(state))
        return;
    const auto source = uncachedSource();
    const QUrl url = fixture().nginx.url(QLatin1Char('/') + viewportCog);
    qint64 requests = 0;
    for (auto _ : state)
        requests = readCoalesced(*source, url, fixture().tiles);
    state.counters["requests"] = double(requests);
}
BENCHMARK(BM_Viewport64TilesCoalesced)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Viewport64TilesOneRequestEach(benchmark::State &state)
{
    if (!ready(state))
        return;
    const auto source = uncachedSource();
    const QUrl url = fixture().nginx.url(QLatin1Char('/') + viewportCog);
    qint64 requests = 0;
    for (auto _ : state)
        requests = readPerTile(*source, url, fixture().tiles);
    state.counters["requests"] = double(requests);
}
BENCHMARK(BM_Viewport64TilesOneRequestEach)->Unit(benchmark::kMillisecond)->UseRealTime();

// Both ways in every iteration, so the ratio comes from one run under the same conditions.
void BM_Viewport64TilesRatio(benchmark::State &state)
{
    if (!ready(state))
        return;
    const auto source = uncachedSource();
    const QUrl url = fixture().nginx.url(QLatin1Char('/') + viewportCog);
    qint64 coalescedNanoseconds = 0;
    qint64 perTileNanoseconds = 0;
    qint64 coalescedRequests = 0;
    qint64 perTileRequests = 0;
    const int logBefore = fixture().nginx.accessLog().size();
    for (auto _ : state) {
        QElapsedTimer timer;
        timer.start();
        coalescedRequests += readCoalesced(*source, url, fixture().tiles);
        coalescedNanoseconds += timer.nsecsElapsed();
        timer.restart();
        perTileRequests += readPerTile(*source, url, fixture().tiles);
        perTileNanoseconds += timer.nsecsElapsed();
    }
    const double iterations = double(state.iterations());
    state.counters["coalescedRequests"] = double(coalescedRequests) / iterations;
    state.counters["perTileRequests"] = double(perTileRequests) / iterations;
    state.counters["coalescedMs"] = double(coalescedNanoseconds) / iterations / 1e6;
    state.counters["perTileMs"] = double(perTileNanoseconds) / iterations / 1e6;
    state.counters["timeRatio"] = coalescedNanoseconds > 0 ? double(perTileNanoseconds) / coalescedNanoseconds : 0;
    // nginx's own count, so the request figures are the server's and not only the library's.
    if (fixture().nginx.waitForAccessLogEntries(logBefore + int(coalescedRequests + perTileRequests)))
        state.counters["nginxRequests"] = double(fixture().nginx.accessLog().size() - logBefore) / iterations;
}
BENCHMARK(BM_Viewport64TilesRatio)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
