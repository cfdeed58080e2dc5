#pragma once

// The memory tier of the range cache: responses by key, bounded by their bytes, the least recently used dropped
// first. Not thread-safe: the cache that owns it holds its mutex around every call.
//
// Laid out for hits in a tier of tens of thousands of entries, where the table, the entries and the data buffers
// no longer fit the processor's caches: the entries live side by side in one array, found through a table of
// small slots, and a key of 64 lowercase hexadecimal digits (every key the reader makes) is held as its 32 bytes
// inside the entry. A hit reads one slot, and then its entry and the start of its data buffer, which every copy
// of the buffer writes, at once; the response's header values are shared between entries, so they are warm.

#include <norvanecloud/rangetransport.h>

#include "transport/largepageallocator.h"

#include <QString>

#include <array>
#include <deque>
#include <vector>

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
    // 64 lowercase hexadecimal digits as their 32 bytes; any other key as its text, with digits zero.
    struct Key {
        std::array<quint64, 4> digits {};
        QString text;
        bool byText = false;
        // The upper half of the key's hash: where its probe starts, and what the table compares before the entry.
        quint32 tag = 0;
    };
    Key keyOf(const QString &text) const;

    // What a hit reads, in two whole cache lines of their own: the response's header values live apart, shared
    // by the entries that have the same.
    struct alignas(64) Entry {
        std::array<quint64, 4> digits {};
        // The entry's last use in the recency order, larger is more recent; 0 for a free entry. A hit writes here
        // instead of relinking list nodes spread over memory.
        quint64 lastUse = 0;
        qint64 storedAtMilliseconds = 0;
        QByteArray data;
        qint64 offset = 0;
        qint64 totalSize = 0;
        QString text;
        quint32 tag = 0;
        qint32 statusCode = 0;
        quint32 headerValues = 0;
        bool acceptsRanges = false;
        bool byText = false;
        bool holds(const Key &key) const
        {
            const quint64 differing = (digits[0] ^ key.digits[0]) | (digits[1] ^ key.digits[1])
                | (digits[2] ^ key.digits[2]) | (digits[3] ^ key.digits[3]);
            return tag == key.tag && differing == 0 && byText == key.byText && (!byText || text == key.text);
        }
    };
    struct Use {
        quint64 use;
        quint32 entry;
    };
    static constexpr quint32 noEntry = ~quint32(0);

    quint32 find(const Key &key) const;
    quint32 insert(const Key &key);
    void store(Entry &entry, const CloudRangeResponse &response);
    void copyOut(const Entry &entry, CloudRangeResponse &response) const;
    void drop(quint32 index);
    void touch(quint32 index);
    bool isStale(const Use &record) const { return entries[record.entry].lastUse != record.use; }
    void trim();
    void compactUses();

    // Header values by number, each with the count of entries that use it. A store reuses the values stored last
    // when all three are the same, null or empty alike, so the ranges of one object share one set.
    struct HeaderValues {
        QByteArray etag;
        QByteArray lastModified;
        QByteArray contentType;
        quint32 users = 0;
    };
    quint32 shareHeaderValues(const CloudRangeResponse &response);
    void releaseHeaderValues(quint32 number);

    // The table: a power-of-two number of slots probed linearly. A slot's key word is 0 when the slot is free, or
    // else the entry's index plus one in its low half and the entry's tag (the upper half of its key's hash) in its
    // high half; the probe starts where the tag points, so probing past other keys, and closing the gap a removal
    // leaves, read only the table. The slot also holds where the entry's data buffer begins: a hit asks the
    // processor for that line and for the entry at once, instead of learning the one from the other.
    struct Slot {
        quint64 keyWord = 0;
        const void *dataStart = nullptr;
    };
    void growTable();
    Slot &placeInTable(quint32 tag, quint32 index);
    Slot &slotOf(quint32 tag, quint32 index);
    void removeFromTable(quint32 tag, quint32 index);

    bool enabled;
    quint64 seed;
    qint64 maximumBytes;
    qint64 maximumAgeSeconds;
    std::vector<Slot, LargePageAllocator<Slot>> table;
    std::vector<Entry, LargePageAllocator<Entry>> entries;
    std::vector<quint32> freeEntries;
    qsizetype liveEntries = 0;
    // Every use of an entry, oldest first. A record whose use is no longer its entry's last is stale: the trim
    // skips it, and stale records are dropped when they outnumber live ones.
    std::deque<Use> uses;
    quint64 useCount = 0;
    qint64 heldBytes = 0;
    qint64 evicted = 0;
    std::vector<HeaderValues> headerValues;
    std::vector<quint32> freeHeaderValues;
    quint32 lastHeaderValues = noEntry;
};

} // namespace Norvane::Cloud
