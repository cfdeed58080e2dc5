#include <norvanecloud/rangetransport.h>

#include "transport/cachedisktier.h"
#include "transport/cachememorytier.h"
#include "transport/transportmessages.h"

#include <QDateTime>
#include <QSet>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace Norvane::Cloud {

namespace {

qint64 currentMilliseconds()
{
    return QDateTime::currentMSecsSinceEpoch();
}

// Checked before any effect: the disk tier creates, measures and trims its folder when it is constructed.
CloudCacheOptions validated(CloudCacheOptions options)
{
    if (options.maximumMemoryBytes < 0 || options.maximumDiskBytes < 0 || options.maximumAgeSeconds < 0)
        throw std::invalid_argument(TransportMessages::cacheLimitsNegative);
    options.directory = CacheDiskTier::resolveFolder(options.directory);
    return options;
}

} // namespace

class CloudRangeCache::Private {
public:
    explicit Private(CloudCacheOptions cacheOptions)
        : options(validated(std::move(cacheOptions)))
        , memory(options)
        , disk(options)
    {
    }

    const CloudCacheOptions options;
    // The standard primitives rather than QMutex and QWaitCondition: waiting on those happens inside Qt, where a
    // thread sanitizer cannot see the mutex being released, so every run of the fetch coordination under it would
    // report false races.
    mutable std::mutex mutex;
    CacheMemoryTier memory;
    CacheDiskTier disk;
    std::condition_variable fetchFinished;
    QSet<QString> inFlight;
    // The tiers count their evictions and hold their levels; these are the other counters.
    CloudCacheStatistics statistics;
};

CloudRangeCache::CloudRangeCache(CloudCacheOptions options)
    : d(std::make_unique<Private>(std::move(options)))
{
}

CloudRangeCache::~CloudRangeCache() = default;

const CloudCacheOptions &CloudRangeCache::options() const
{
    return d->options;
}

bool CloudRangeCache::get(const QString &key, CloudRangeResponse &response)
{
    const std::lock_guard locker(d->mutex);
    if (d->memory.read(key, currentMilliseconds(), response)) {
        ++d->statistics.memoryHits;
        return true;
    }
    if (std::optional<CacheDiskEntry> entry = d->disk.read(key, currentMilliseconds())) {
        ++d->statistics.diskHits;
        d->memory.write(key, entry->response, entry->storedAtMilliseconds);
        response = std::move(entry->response);
        response.fromCache = true;
        return true;
    }
    ++d->statistics.misses;
    return false;
}

void CloudRangeCache::put(const QString &key, const CloudRangeResponse &response)
{
    if (response.data.isEmpty())
        return;
    const std::lock_guard locker(d->mutex);
    const qint64 storedAt = currentMilliseconds();
    const bool inMemory = d->memory.write(key, response, storedAt);
    const bool onDisk = d->disk.write(key, response, storedAt);
    if (inMemory || onDisk)
        ++d->statistics.writes;
}

void CloudRangeCache::remove(const QString &key)
{
    const std::lock_guard locker(d->mutex);
    d->memory.remove(key);
    d->disk.remove(key);
}

void CloudRangeCache::clear()
{
    const std::lock_guard locker(d->mutex);
    d->memory.clear();
    d->disk.clear();
}

CloudCacheStatistics CloudRangeCache::statistics() const
{
    const std::lock_guard locker(d->mutex);
    CloudCacheStatistics snapshot = d->statistics;
    snapshot.evictions = d->memory.evictions() + d->disk.evictions();
    snapshot.memoryBytes = d->memory.bytes();
    snapshot.diskBytes = d->disk.bytes();
    return snapshot;
}

bool CloudRangeCache::beginFetch(const QString &key)
{
    std::unique_lock locker(d->mutex);
    if (!d->inFlight.contains(key)) {
        d->inFlight.insert(key);
        return false;
    }
    d->fetchFinished.wait(locker, [&] { return !d->inFlight.contains(key); });
    return true;
}

void CloudRangeCache::finishFetch(const QString &key)
{
    const std::lock_guard locker(d->mutex);
    d->inFlight.remove(key);
    d->fetchFinished.notify_all();
}

bool CloudRangeCache::holds(const QString &key) const
{
    const std::lock_guard locker(d->mutex);
    return d->memory.holds(key, currentMilliseconds()) || d->disk.holds(key);
}

void CloudRangeCache::recordCacheTransfer(qint64 bytes)
{
    const std::lock_guard locker(d->mutex);
    d->statistics.cacheBytesServed += std::max<qint64>(bytes, 0);
}

void CloudRangeCache::recordNetworkTransfer(qint64 bytes)
{
    const std::lock_guard locker(d->mutex);
    ++d->statistics.networkRequests;
    d->statistics.networkBytes += std::max<qint64>(bytes, 0);
}

} // namespace Norvane::Cloud
