// The disk tier with 1 MiB entries (whole overview tiles or merged viewport reads): a hit decodes a whole entry
// file, a put writes one through a save file. 256 entry files (256 MiB) are built once per process in a temporary
// folder, the memory tier is off, so every get and put goes to the folder.
//
// Run:  bench_cache_large_entries --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <norvanecloud/rangetransport.h>

#include "cachebenchdata.h"

#include <benchmark/benchmark.h>

#include <QTemporaryDir>

#include <memory>
#include <vector>

using namespace Norvane::Cloud;
using CacheBenchData::keyOf;
using CacheBenchData::responseOf;

namespace {

constexpr qsizetype entryBytes = 1024 * 1024;
constexpr int entryCount = 256;

CloudCacheOptions diskOptions(const QString &directory)
{
    CloudCacheOptions options;
    options.directory = directory;
    options.memoryEnabled = false;
    // Room for every file this program writes, so no put ever trims.
    options.maximumDiskBytes = qint64(4) * entryCount * entryBytes;
    return options;
}

struct EntryFolder {
    QTemporaryDir directory;
    std::vector<QString> keys;
};

// Written directly rather than through the cache's puts, byte for byte what the cache writes.
EntryFolder &entryFolder()
{
    static std::unique_ptr<EntryFolder> folder;
    if (!folder) {
        folder = std::make_unique<EntryFolder>();
        CacheBenchData::writeEntryFiles(folder->directory.path(), "large", entryCount, entryBytes, folder->keys);
    }
    return *folder;
}

void diskHitOneMebibyte(benchmark::State &state)
{
    EntryFolder &folder = entryFolder();
    if (int(folder.keys.size()) != entryCount) {
        state.SkipWithError("could not build the entry folder");
        return;
    }
    CloudRangeCache cache(diskOptions(folder.directory.path()));
    CloudRangeResponse response;
    size_t next = 0;
    for (auto _ : state) {
        const bool hit = cache.get(folder.keys[next], response);
        benchmark::DoNotOptimize(hit);
        if (++next == folder.keys.size())
            next = 0;
    }
    if (cache.statistics().misses != 0 || response.data.size() != entryBytes)
        state.SkipWithError("a hit missed or came back short");
    state.SetBytesProcessed(qint64(state.iterations()) * entryBytes);
}

void diskPutOneMebibyte(benchmark::State &state)
{
    EntryFolder &folder = entryFolder();
    if (int(folder.keys.size()) != entryCount) {
        state.SkipWithError("could not build the entry folder");
        return;
    }
    CloudRangeCache cache(diskOptions(folder.directory.path()));
    // Sixteen keys of their own, repeated, so each put replaces a file and the folder stays the same size.
    std::vector<QString> keys;
    for (int index = 0; index < 16; ++index)
        keys.push_back(keyOf("put", index));
    const CloudRangeResponse response = responseOf(3, entryBytes);
    size_t next = 0;
    for (auto _ : state) {
        cache.put(keys[next], response);
        if (++next == keys.size())
            next = 0;
    }
    const CloudCacheStatistics statistics = cache.statistics();
    if (statistics.writes != qint64(state.iterations()) || statistics.evictions != 0)
        state.SkipWithError("a put was not stored, or one trimmed the folder");
    state.SetBytesProcessed(qint64(state.iterations()) * entryBytes);
}

} // namespace

BENCHMARK(diskHitOneMebibyte)->Unit(benchmark::kMicrosecond);
BENCHMARK(diskPutOneMebibyte)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
