#pragma once

// The memory tier of the range cache: responses by key, bounded by their bytes, the least recently used dropped
// first. Not thread-safe: the cache that owns it holds its mutex around every call.

#include <norvanecloud/rangetransport.h>

#include <QHash>
#include <QString>

#include <array>
#include <deque>
#include <memory>

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
    // A key as the table holds it: 32 bytes inside the table's node, so a lookup compares keys without following a
    // pointer to their text. The reader's keys are 64 hexadecimal digits, held as their value; any other key is
    // held as the SHA-256 digest of its text.
    struct Key {
        std::array<quint64, 4> digest {};
        friend bool operator==(const Key &left, const Key &right) { return left.digest == right.digest; }
        // The words are digest output already: one of them spreads the keys as well as any hash would.
        friend size_t qHash(const Key &key, size_t seed) { return size_t(key.digest[0]) ^ seed; }
    };
    static Key keyOf(const QString &text);

    // The ETag, Last-Modified and Content-Type of a response. The ranges of one object carry the same values, so the
    // entries share one copy: a hit copies arrays that the last hit touched too.
    struct HeaderValues {
        QByteArray etag;
        QByteArray lastModified;
        QByteArray contentType;
    };

    // A response as the tier holds it: the fields a hit copies, in as few cache lines as they fit.
    struct Entry {
        QByteArray data;
        qint64 offset = 0;
        qint64 totalSize = -1;
        qint64 storedAtMilliseconds = 0;
        // The entry's last use in the recency order, larger is more recent: a hit writes here instead of relinking
        // list nodes spread over memory.
        quint64 lastUse = 0;
        std::shared_ptr<const HeaderValues> headers;
        qint32 statusCode = 0;
        bool acceptsRanges = false;
    };
    struct Use {
        quint64 use;
        Key key;
    };

    void touch(Entry &entry, const Key &key);
    Entry entryOf(const CloudRangeResponse &response, qint64 storedAtMilliseconds);
    std::shared_ptr<const HeaderValues> sharedHeaderValues(const CloudRangeResponse &response);
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
    // The header values the entries hold, one copy of each combination, by an unambiguous text of all three. A
    // combination no entry holds any more is dropped whenever the use queue is compacted.
    QHash<QByteArray, std::shared_ptr<const HeaderValues>> headerValues;
    qint64 heldBytes = 0;
    qint64 evicted = 0;
};

} // namespace Norvane::Cloud
