#include "transport/cachememorytier.h"

#include "transport/cacheexpiry.h"

namespace Norvane::Cloud {

CacheMemoryTier::CacheMemoryTier(const CloudCacheOptions &options)
    : enabled(options.memoryEnabled)
    , maximumBytes(options.maximumMemoryBytes)
    , maximumAgeSeconds(options.maximumAgeSeconds)
{
}

bool CacheMemoryTier::read(const QString &key, qint64 nowMilliseconds, CloudRangeResponse &response)
{
    if (!enabled)
        return false;
    const auto position = entries.find(key);
    if (position == entries.end())
        return false;
    if (isCacheEntryExpired(position->storedAtMilliseconds, nowMilliseconds, maximumAgeSeconds)) {
        drop(position);
        return false;
    }
    recency.splice(recency.begin(), recency, position->recencyPosition);
    response = position->response;
    response.fromCache = true;
    return true;
}

bool CacheMemoryTier::holds(const QString &key, qint64 nowMilliseconds) const
{
    if (!enabled)
        return false;
    const auto position = entries.constFind(key);
    return position != entries.constEnd()
        && !isCacheEntryExpired(position->storedAtMilliseconds, nowMilliseconds, maximumAgeSeconds);
}

bool CacheMemoryTier::write(const QString &key, const CloudRangeResponse &response, qint64 storedAtMilliseconds)
{
    if (!enabled || maximumBytes < 1)
        return false;
    auto position = entries.find(key);
    if (position == entries.end()) {
        recency.push_front(key);
        position = entries.insert(key, Entry { response, storedAtMilliseconds, recency.begin() });
    } else {
        heldBytes -= position->response.data.size();
        position->response = response;
        position->storedAtMilliseconds = storedAtMilliseconds;
        recency.splice(recency.begin(), recency, position->recencyPosition);
    }
    heldBytes += response.data.size();
    trim();
    return true;
}

void CacheMemoryTier::remove(const QString &key)
{
    const auto position = entries.find(key);
    if (position != entries.end())
        drop(position);
}

void CacheMemoryTier::clear()
{
    entries.clear();
    recency.clear();
    heldBytes = 0;
}

void CacheMemoryTier::drop(QHash<QString, Entry>::iterator position)
{
    heldBytes -= position->response.data.size();
    recency.erase(position->recencyPosition);
    entries.erase(position);
}

void CacheMemoryTier::trim()
{
    while (heldBytes > maximumBytes && !recency.empty()) {
        const auto position = entries.find(recency.back());
        if (position == entries.end()) {
            recency.pop_back();
            continue;
        }
        drop(position);
        ++evicted;
    }
}

} // namespace Norvane::Cloud
