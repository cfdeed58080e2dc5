// HttpRangeReader against nginx on loopback: an uncached 16 KiB range read beside the same read by one curl process
// per request (the cost of a helper process per read), and a read answered from the memory tier, key hashing,
// policy and progress calls included.
//
// Run:  bench_reader --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
// BM_UncachedReadVersusCurl alternates the two in one run and reports their ratio as the counter curl_per_reader.

#include <norvanecloud/rangetransport.h>

#include "nginxserver.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <chrono>
#include <cstdio>
#include <memory>

using namespace Norvane::Cloud;
using Norvane::Cloud::Testing::NginxServer;

namespace {

constexpr qint64 rangeBytes = 16 * 1024;
const QString objectPath = QStringLiteral("/tiff/bigtiff-cog-le-ifd-at-16.tiff");
constexpr qint64 objectBytes = 394592;

NginxServer *nginx = nullptr;

// Walks through the object so successive reads ask for different ranges.
qint64 offsetFor(qint64 index)
{
    return (index * rangeBytes) % (objectBytes - rangeBytes);
}

CloudRangeRequest uncachedRequest(qint64 offset)
{
    CloudRangeRequest request;
    request.url = nginx->url(objectPath);
    request.offset = offset;
    request.length = rangeBytes;
    request.useCache = false;
    return request;
}

bool curlRead(qint64 offset)
{
    QProcess curl;
    curl.setStandardOutputFile(QProcess::nullDevice());
    curl.start(QStringLiteral("curl"),
        { QStringLiteral("-s"), QStringLiteral("-f"), QStringLiteral("-r"),
            QStringLiteral("%1-%2").arg(offset).arg(offset + rangeBytes - 1), nginx->url(objectPath).toString() });
    return curl.waitForFinished(30000) && curl.exitStatus() == QProcess::NormalExit && curl.exitCode() == 0;
}

std::shared_ptr<CloudRangeCache> temporaryCache(QTemporaryDir &directory, bool diskEnabled)
{
    CloudCacheOptions options;
    options.directory = directory.path();
    options.diskEnabled = diskEnabled;
    return std::make_shared<CloudRangeCache>(options);
}

void BM_UncachedRangeRead16KiB(benchmark::State &state)
{
    QTemporaryDir directory;
    HttpRangeReader reader(temporaryCache(directory, false));
    qint64 index = 0;
    for (auto _ : state) {
        const CloudRangeResponse response = reader.read(uncachedRequest(offsetFor(index++)));
        benchmark::DoNotOptimize(response.data.constData());
    }
    state.SetBytesProcessed(state.iterations() * rangeBytes);
}
BENCHMARK(BM_UncachedRangeRead16KiB)->Unit(benchmark::kMicrosecond);

void BM_CurlProcessRangeRead16KiB(benchmark::State &state)
{
    qint64 index = 0;
    for (auto _ : state) {
        if (!curlRead(offsetFor(index++))) {
            state.SkipWithError("curl failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * rangeBytes);
}
BENCHMARK(BM_CurlProcessRangeRead16KiB)->Unit(benchmark::kMicrosecond);

// Both kinds of read, alternating, so machine load affects them alike; reports mean microseconds of each and their
// ratio.
void BM_UncachedReadVersusCurl(benchmark::State &state)
{
    using Clock = std::chrono::steady_clock;
    QTemporaryDir directory;
    HttpRangeReader reader(temporaryCache(directory, false));
    double readerSeconds = 0;
    double curlSeconds = 0;
    qint64 index = 0;
    for (auto _ : state) {
        const qint64 offset = offsetFor(index++);
        const auto start = Clock::now();
        const CloudRangeResponse response = reader.read(uncachedRequest(offset));
        benchmark::DoNotOptimize(response.data.constData());
        const auto middle = Clock::now();
        if (!curlRead(offset)) {
            state.SkipWithError("curl failed");
            break;
        }
        const auto end = Clock::now();
        readerSeconds += std::chrono::duration<double>(middle - start).count();
        curlSeconds += std::chrono::duration<double>(end - middle).count();
    }
    const double count = double(state.iterations());
    state.counters["reader_us"] = readerSeconds / count * 1e6;
    state.counters["curl_us"] = curlSeconds / count * 1e6;
    state.counters["curl_per_reader"] = readerSeconds > 0 ? curlSeconds / readerSeconds : 0;
}
BENCHMARK(BM_UncachedReadVersusCurl)->Unit(benchmark::kMicrosecond)->Iterations(200);

void BM_CachedMemoryRead(benchmark::State &state)
{
    QTemporaryDir directory;
    HttpRangeReader reader(temporaryCache(directory, false));
    CloudRangeRequest request = uncachedRequest(4096);
    request.useCache = true;
    if (reader.read(request).fromCache) {
        state.SkipWithError("the first read should go to the network");
        return;
    }
    for (auto _ : state) {
        const CloudRangeResponse response = reader.read(request);
        benchmark::DoNotOptimize(response.data.constData());
    }
    state.SetBytesProcessed(state.iterations() * rangeBytes);
}
BENCHMARK(BM_CachedMemoryRead)->Unit(benchmark::kNanosecond);

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    NginxServer server(QStringLiteral(NORVANE_TEST_DATA_DIR));
    if (!server.start()) {
        std::fprintf(stderr, "nginx: %s\n", qPrintable(server.errorString()));
        return 1;
    }
    nginx = &server;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    nginx = nullptr;
    return 0;
}
