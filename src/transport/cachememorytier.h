#pragma once

// The memory tier of the range cache: responses by key, bounded by their bytes, the least recently used dropped
// first. Not thread-safe: the cache that owns it holds its mutex around every call.

#include <norvanecloud/rangetransport.h>

#include <QHash>
#include <QString>

#include <list>

namespace Norvane::Cloud {

class CacheMemoryTier final {
public:
    /// Takes the limits and switches of options: memoryEnabled, maximumMemoryBytes, maximumAgeSeconds.
    explicit CacheMemoryTier(const CloudCacheOptions &options);

    /// On a hit, response becomes the stored one with fromCache set and the entry the most recent. An expired
    /// entry is dropped and misses; a disabled tier always misses.
    bool read(const QString &key, qint64 nowMilliseconds, CloudRangeResponse &response);
    /// Whether read would hit, without counting, dropping or changing recency.
    bool holds(const QString &key, qint64 nowMilliseconds) const;
    /// Stores (or replaces) the entry as the most recent, then drops the least recent ones until the tier is within
    /// its limit, possibly this one. False when the tier stores nothing: disabled, or a limit below 1.
    bool write(const QString &key, const CloudRangeResponse &response, qint64 storedAtMilliseconds);
    /// Drops the key, whether or not the tier is enabled.
    void remove(const QString &key);
    void clear();

    qint64 bytes() const { return heldBytes; }
    /// Entries dropped by keeping the tier within its limit, since construction.
    qint64 evictions() const { return evicted; }

private:
    struct Entry {
        CloudRangeResponse response;
        qint64 storedAtMilliseconds = 0;
        // Where the key sits in the recency list, so a touch moves it without a search.
        std::list<QString>::iterator recencyPosition;
    };

    void drop(QHash<QString, Entry>::iterator position);
    void trim();

    bool enabled;
    qint64 maximumBytes;
    qint64 maximumAgeSeconds;
    QHash<QString, Entry> entries;
    // Most recently used first; holds exactly the keys of entries.
    std::list<QString> recency;
    qint64 heldBytes = 0;
    qint64 evicted = 0;
};

} // namespace Norvane::Cloud
