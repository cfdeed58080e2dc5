// HttpRangeReader::cacheKey, the SHA-256 over URL, range and headers that every cached read computes first, for a
// request without extra headers and for one carrying the two headers a signed request typically adds.
//
// Run:  bench_cachekey --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <norvanecloud/rangetransport.h>

#include <benchmark/benchmark.h>

using namespace Norvane::Cloud;

namespace {

void cacheKeyOfRequest(benchmark::State &state)
{
    CloudRangeRequest request;
    request.url = QUrl(QStringLiteral("https://sentinel-cogs.s3.us-west-2.amazonaws.com/sentinel-s2-l2a-cogs/36/Q/WD/"
                                      "2020/7/S2A_36QWD_20200701_0_L2A/B04.tif"));
    request.length = 16384;
    for (int index = 0; index < state.range(0); ++index)
        request.headers.insert(QByteArray("X-Norvane-Bench-") + QByteArray::number(index),
            QByteArray("AWS4-HMAC-SHA256 Credential=AKIDEXAMPLE/20260302/us-west-2/s3/aws4_request"));
    qint64 offset = 0;
    for (auto _ : state) {
        // A new offset each time, so nothing about the previous key can be reused.
        request.offset = offset;
        offset += 16384;
        const QString key = HttpRangeReader::cacheKey(request);
        benchmark::DoNotOptimize(key.constData());
    }
    if (HttpRangeReader::cacheKey(request).size() != 64)
        state.SkipWithError("a key is not 64 hexadecimal digits");
}

} // namespace

BENCHMARK(cacheKeyOfRequest)->ArgName("headers")->Arg(0)->Arg(2);

BENCHMARK_MAIN();
