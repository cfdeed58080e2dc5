#include "transport/cachememorytier.h"

#include "transport/cacheexpiry.h"

#include <algorithm>
#include <vector>

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
    const Key hashed = keyOf(key);
    const auto position = entries.find(hashed);
    if (position == entries.end())
        return false;
    if (isCacheEntryExpired(position->storedAtMilliseconds, nowMilliseconds, maximumAgeSeconds)) {
        drop(position);
        return false;
    }
    touch(*position, hashed);
    response = position->response;
    response.fromCache = true;
    return true;
}

bool CacheMemoryTier::write(const QString &key, const CloudRangeResponse &response, qint64 storedAtMilliseconds)
{
    if (!enabled || maximumBytes < 1)
        return false;
    const Key hashed = keyOf(key);
    auto position = entries.find(hashed);
    if (position == entries.end()) {
        position = entries.insert(hashed, Entry { response, storedAtMilliseconds });
    } else {
        heldBytes -= position->response.data.size();
        position->response = response;
        position->storedAtMilliseconds = storedAtMilliseconds;
    }
    touch(*position, hashed);
    heldBytes += response.data.size();
    trim();
    return true;
}

void CacheMemoryTier::remove(const QString &key)
{
    const auto position = entries.find(keyOf(key));
    if (position != entries.end())
        drop(position);
}

void CacheMemoryTier::clear()
{
    entries.clear();
    uses.clear();
    heldBytes = 0;
}

void CacheMemoryTier::touch(Entry &entry, const Key &key)
{
    entry.lastUse = ++useCount;
    uses.push_back({ entry.lastUse, key });
    if (uses.size() > 2 * size_t(entries.size()) + 64)
        compactUses();
}

void CacheMemoryTier::compactUses()
{
    std::vector<Use> live;
    live.reserve(entries.size());
    for (auto position = entries.cbegin(); position != entries.cend(); ++position)
        live.push_back({ position->lastUse, position.key() });
    std::sort(live.begin(), live.end(), [](const Use &left, const Use &right) { return left.use < right.use; });
    uses.assign(std::make_move_iterator(live.begin()), std::make_move_iterator(live.end()));
}

void CacheMemoryTier::drop(QHash<Key, Entry>::iterator position)
{
    heldBytes -= position->response.data.size();
    entries.erase(position);
}

void CacheMemoryTier::trim()
{
    while (heldBytes > maximumBytes && !uses.empty()) {
        const Use oldest = std::move(uses.front());
        uses.pop_front();
        const auto position = entries.find(oldest.key);
        if (position == entries.end() || position->lastUse != oldest.use)
            continue;
        drop(position);
        ++evicted;
    }
}

} // namespace Norvane::Cloud
