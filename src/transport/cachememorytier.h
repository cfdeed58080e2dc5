#pragma once

// The memory tier of the range cache: responses by key, bounded by their bytes, the least recently used dropped
// first. Not thread-safe: the cache that owns it holds its mutex around every call.

#include <norvanecloud/rangetransport.h>

#include <QHash>
#include <QString>

#include <deque>

namespace Norvane::Cloud {

class CacheMemoryTier final {
public:
    /// Takes the limits and switches of options: memoryEnabled, maximumMemoryBytes, maximumAgeSeconds.
    explicit CacheMemoryTier(const CloudCacheOptions &options);

    /// On a hit, response becomes the stored one with fromCache set and the entry the most recent. An expired
    /// entry is dropped and misses; a disabled tier always misses.
    bool read(const QString &key, qint64 nowMilliseconds, CloudRangeResponse &response);
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
    // The key with its hash: a lookup probing past other keys compares their hashes, held in the table, instead of
    // reading their text from memory of its own.
    struct Key {
        QString text;
        size_t hash = 0;
        friend bool operator==(const Key &left, const Key &right)
        {
            return left.hash == right.hash && left.text == right.text;
        }
        friend size_t qHash(const Key &key, size_t seed) { return key.hash ^ seed; }
    };
    static Key keyOf(const QString &text) { return { text, qHash(text, QHashSeed::globalSeed()) }; }

    struct Entry {
        CloudRangeResponse response;
        qint64 storedAtMilliseconds = 0;
        // The entry's last use in the recency order, larger is more recent: a hit writes here instead of relinking
        // list nodes spread over memory.
        quint64 lastUse = 0;
    };
    struct Use {
        quint64 use;
        Key key;
    };

    void touch(Entry &entry, const Key &key);
    void drop(QHash<Key, Entry>::iterator position);
    void trim();
    void compactUses();

    bool enabled;
    qint64 maximumBytes;
    qint64 maximumAgeSeconds;
    QHash<Key, Entry> entries;
    // Every use of an entry, oldest first. A record whose use is no longer its entry's last is stale: the trim
    // skips it, and the queue is rebuilt from the entries when stale records outnumber live ones.
    std::deque<Use> uses;
    quint64 useCount = 0;
    qint64 heldBytes = 0;
    qint64 evicted = 0;
};

} // namespace Norvane::Cloud
