// CloudRangeCache measured where it is used: full. 16 KiB entries, a memory tier at 64, 4096 and 65 536 keys,
// and a disk tier of 65 536 entry files (about 1 GiB) built once per process in a temporary folder.
//
// Run:  bench_cache --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
// The disk benchmarks share one folder and run in registration order: hits first, then puts under the limit,
// then puts over it (which delete the oldest files as they go).

#include <norvanecloud/rangetransport.h>

#include "cachebenchdata.h"

#include <benchmark/benchmark.h>

#include <QByteArray>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

using namespace Norvane::Cloud;
using CacheBenchData::keyOf;
using CacheBenchData::responseOf;

namespace {

constexpr qsizetype entryBytes = 16 * 1024;
constexpr int diskEntryCount = 65536;

std::vector<int> shuffledIndexes(int count)
{
    std::vector<int> indexes(count);
    for (int index = 0; index < count; ++index)
        indexes[index] = index;
    QRandomGenerator random(42);
    std::shuffle(indexes.begin(), indexes.end(), random);
    return indexes;
}

CloudCacheOptions memoryOptions(qint64 maximumMemoryBytes)
{
    CloudCacheOptions options;
    options.maximumMemoryBytes = maximumMemoryBytes;
    options.diskEnabled = false;
    return options;
}

struct FullMemoryTier {
    std::unique_ptr<CloudRangeCache> cache;
    std::vector<QString> keys;
};

// Filled exactly to its limit, so every key is still held.
FullMemoryTier &fullMemoryTier(int keyCount)
{
    static std::map<int, FullMemoryTier> tiers;
    FullMemoryTier &tier = tiers[keyCount];
    if (!tier.cache) {
        tier.cache = std::make_unique<CloudRangeCache>(memoryOptions(qint64(keyCount) * entryBytes));
        for (int index = 0; index < keyCount; ++index) {
            tier.keys.push_back(keyOf("memory", index));
            tier.cache->put(tier.keys.back(), responseOf(index, entryBytes));
        }
    }
    return tier;
}

void memoryHit(benchmark::State &state)
{
    const int keyCount = int(state.range(0));
    FullMemoryTier &tier = fullMemoryTier(keyCount);
    // A reader makes each key just before it asks, so the key asked with is in the processor's cache and the
    // entry found is not: copies of the keys of their own, made in the order they are asked.
    std::vector<QString> order;
    for (int index : shuffledIndexes(keyCount))
        order.emplace_back(tier.keys[index].constData(), tier.keys[index].size());
    CloudRangeResponse response;
    size_t next = 0;
    for (auto _ : state) {
        const bool hit = tier.cache->get(order[next], response);
        benchmark::DoNotOptimize(hit);
        if (++next == order.size())
            next = 0;
    }
    if (tier.cache->statistics().misses != 0)
        state.SkipWithError("a hit missed");
}

// What a hit cannot avoid: copying a QByteArray writes the reference count at the start of its buffer. Here the
// copies alone, of buffers allocated as the tier's are, each copy waiting for the one before (every buffer names
// the next one in its first bytes), so that no two misses of the processor's caches overlap.
void bufferCopyChain(benchmark::State &state)
{
    const int count = int(state.range(0));
    std::vector<QByteArray> buffers;
    for (int index = 0; index < count; ++index)
        buffers.push_back(responseOf(index, entryBytes).data);
    const std::vector<int> order = shuffledIndexes(count);
    for (int position = 0; position < count; ++position) {
        const qint32 next = order[(position + 1) % count];
        std::memcpy(buffers[order[position]].data(), &next, sizeof next);
    }
    qint32 next = order[0];
    for (auto _ : state) {
        const QByteArray copy = buffers[next];
        std::memcpy(&next, copy.constData(), sizeof next);
        benchmark::DoNotOptimize(copy);
    }
}

void memoryPutIntoFullTier(benchmark::State &state)
{
    constexpr int held = 4096;
    // More fresh keys than the tier holds, so each put inserts a new entry and evicts the oldest.
    constexpr int freshKeys = 4 * held;
    CloudRangeCache cache(memoryOptions(qint64(held) * entryBytes));
    for (int index = 0; index < held; ++index)
        cache.put(keyOf("held", index), responseOf(index, entryBytes));
    std::vector<QString> keys;
    std::vector<CloudRangeResponse> responses;
    for (int index = 0; index < freshKeys; ++index) {
        keys.push_back(keyOf("fresh", index));
        responses.push_back(responseOf(index, entryBytes));
    }
    const qint64 evictionsBefore = cache.statistics().evictions;
    size_t next = 0;
    for (auto _ : state) {
        cache.put(keys[next], responses[next]);
        if (++next == keys.size())
            next = 0;
    }
    const CloudCacheStatistics statistics = cache.statistics();
    if (statistics.evictions - evictionsBefore != qint64(state.iterations()))
        state.SkipWithError("a put did not evict exactly one entry");
}

// The 65 536 entry files are written directly, without the cache's flush to disk, so building them takes seconds
// rather than minutes; they are byte for byte what the cache writes.
struct DiskFolder {
    QTemporaryDir directory;
    std::vector<QString> keys;
    qint64 bytes = 0;
};

DiskFolder &diskFolder()
{
    static std::unique_ptr<DiskFolder> folder;
    if (!folder) {
        folder = std::make_unique<DiskFolder>();
        folder->bytes = CacheBenchData::writeEntryFiles(
            folder->directory.path(), "disk", diskEntryCount, entryBytes, folder->keys);
    }
    return *folder;
}

CloudCacheOptions diskOptions(const QString &directory, qint64 maximumDiskBytes)
{
    CloudCacheOptions options;
    options.directory = directory;
    options.memoryEnabled = false;
    options.maximumDiskBytes = maximumDiskBytes;
    return options;
}

void diskHit(benchmark::State &state)
{
    DiskFolder &folder = diskFolder();
    if (int(folder.keys.size()) != diskEntryCount) {
        state.SkipWithError("could not build the entry folder");
        return;
    }
    CloudRangeCache cache(diskOptions(folder.directory.path(), 4 * folder.bytes));
    std::vector<QString> order;
    for (int index : shuffledIndexes(diskEntryCount))
        order.push_back(folder.keys[index]);
    CloudRangeResponse response;
    size_t next = 0;
    for (auto _ : state) {
        const bool hit = cache.get(order[next], response);
        benchmark::DoNotOptimize(hit);
        if (++next == order.size())
            next = 0;
    }
    if (cache.statistics().misses != 0)
        state.SkipWithError("a hit missed");
}

void diskPut(benchmark::State &state, bool overLimit)
{
    DiskFolder &folder = diskFolder();
    if (int(folder.keys.size()) != diskEntryCount) {
        state.SkipWithError("could not build the entry folder");
        return;
    }
    const QString path = folder.directory.path();
    // Over the limit: the limit is what the folder holds now, so every put pushes the account over it and the
    // trim deletes the oldest file. Under it: room for far more than this benchmark writes.
    qint64 limit = 4 * folder.bytes;
    if (overLimit)
        limit = CloudRangeCache(diskOptions(path, limit)).statistics().diskBytes;
    CloudRangeCache cache(diskOptions(path, limit));
    // Under the limit the keys repeat, so the folder does not grow without bound; each put replaces a file.
    std::vector<QString> keys;
    for (int index = 0; index < 512; ++index)
        keys.push_back(keyOf(overLimit ? "over" : "under", index));
    const CloudRangeResponse response = responseOf(7, entryBytes);
    const qint64 evictionsBefore = cache.statistics().evictions;
    // Keys over the limit are always new, across repetitions too, so each put adds a whole file.
    static int round = 0;
    size_t next = 0;
    for (auto _ : state) {
        cache.put(overLimit ? keyOf("over", round++) : keys[next], response);
        if (++next == keys.size())
            next = 0;
    }
    const CloudCacheStatistics statistics = cache.statistics();
    if (statistics.writes != qint64(state.iterations()))
        state.SkipWithError("a put was not stored");
    if (overLimit && statistics.evictions - evictionsBefore != qint64(state.iterations()))
        state.SkipWithError("a put over the limit did not evict exactly one file");
    if (!overLimit && statistics.evictions != evictionsBefore)
        state.SkipWithError("a put under the limit evicted");
}

void diskPutUnderLimit(benchmark::State &state)
{
    diskPut(state, false);
}

void diskPutOverLimit(benchmark::State &state)
{
    diskPut(state, true);
}

} // namespace

BENCHMARK(memoryHit)->Arg(64)->Arg(4096)->Arg(65536);
BENCHMARK(bufferCopyChain)->Arg(64)->Arg(65536);
BENCHMARK(memoryPutIntoFullTier);
BENCHMARK(diskHit);
// 1000 stores each, so a trim that lists the folder now and then is amortized over the same number of stores.
BENCHMARK(diskPutUnderLimit)->Iterations(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(diskPutOverLimit)->Iterations(1000)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
