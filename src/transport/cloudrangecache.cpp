#include <norvanecloud/rangetransport.h>

#include "transport/cachedisktier.h"
#include "transport/cachememorytier.h"
#include "transport/transportmessages.h"

#include <QDateTime>
#include <QHash>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>
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

// How often a read waiting for another thread's fetch tests its cancellation.
constexpr std::chrono::milliseconds cancellationPollInterval(25);

bool matchesRange(const CloudRangeResponse &response, qint64 expectedOffset, qint64 expectedSize)
{
    return expectedSize < 0 || (response.offset == expectedOffset && response.data.size() == expectedSize);
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
    // Each claimed key with the thread that owns its fetch.
    QHash<QString, std::thread::id> inFlight;
    // The tiers count their evictions and hold their levels; these are the other counters.
    CloudCacheStatistics statistics;

    // A hit (counted) or false; a miss counts nothing and may leave response changed. A hit that does not hold the
    // range asked for is a damaged entry: it is dropped from both tiers, so the network replaces it.
    bool lookUp(const QString &key, qint64 expectedOffset, qint64 expectedSize, CloudRangeResponse &response)
    {
        const qint64 now = currentMilliseconds();
        if (memory.read(key, now, response)) {
            if (matchesRange(response, expectedOffset, expectedSize)) {
                ++statistics.memoryHits;
                return true;
            }
            memory.remove(key);
            disk.remove(key);
            return false;
        }
        std::optional<CacheDiskEntry> entry = disk.read(key, now);
        if (!entry)
            return false;
        if (!matchesRange(entry->response, expectedOffset, expectedSize)) {
            disk.remove(key);
            return false;
        }
        ++statistics.diskHits;
        memory.write(key, entry->response, entry->storedAtMilliseconds);
        response = std::move(entry->response);
        response.fromCache = true;
        return true;
    }
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
    // With no range expected every hit holds, so a miss leaves response untouched.
    if (d->lookUp(key, 0, -1, response))
        return true;
    ++d->statistics.misses;
    return false;
}

bool CloudRangeCache::find(
    const QString &key, qint64 expectedOffset, qint64 expectedSize, bool countMiss, CloudRangeResponse &response)
{
    const std::lock_guard locker(d->mutex);
    if (d->lookUp(key, expectedOffset, expectedSize, response))
        return true;
    if (countMiss)
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

CloudRangeCache::FetchTurn CloudRangeCache::beginFetch(
    const QString &key, const std::function<bool()> &cancellationRequested, int timeoutMilliseconds)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
    std::unique_lock locker(d->mutex);
    const std::thread::id self = std::this_thread::get_id();
    const auto owner = d->inFlight.constFind(key);
    if (owner == d->inFlight.constEnd()) {
        d->inFlight.insert(key, self);
        return FetchTurn::Claimed;
    }
    // A slot run by the nested event loop of this thread's own fetch: waiting would wait for itself.
    if (*owner == self)
        return FetchTurn::OwnedByThisThread;
    while (d->inFlight.contains(key)) {
        // Tested without the mutex held: the test is the host's code and may take its time or use the cache.
        locker.unlock();
        const bool cancelled = cancellationRequested && cancellationRequested();
        locker.lock();
        if (cancelled)
            throw std::runtime_error(TransportMessages::requestCancelled);
        if (timeoutMilliseconds > 0 && Clock::now() >= deadline)
            throw std::runtime_error(TransportMessages::requestTimedOut);
        Clock::time_point wakeUp = Clock::now() + cancellationPollInterval;
        if (timeoutMilliseconds > 0)
            wakeUp = std::min(wakeUp, deadline);
        d->fetchFinished.wait_until(locker, wakeUp, [&] { return !d->inFlight.contains(key); });
    }
    return FetchTurn::Waited;
}

void CloudRangeCache::finishFetch(const QString &key)
{
    const std::lock_guard locker(d->mutex);
    d->inFlight.remove(key);
    d->fetchFinished.notify_all();
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
