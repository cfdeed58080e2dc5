#pragma once

// Access to the cache members reserved to the range reader: fetch coordination and the transfer counters.
// Not part of the installed interface.

#include <norvanecloud/rangetransport.h>

#include <QString>

namespace Norvane::Cloud {

class CloudRangeCacheInternals {
public:
    /// False: the caller now owns the fetch of key and must call finishFetch. True: another thread was fetching
    /// it and this call waited until that fetch ended, without claiming the key; look in the cache again.
    static bool beginFetch(CloudRangeCache &cache, const QString &key) { return cache.beginFetch(key); }
    /// Ends the caller's fetch of key and wakes every waiter, of any key, to look again.
    static void finishFetch(CloudRangeCache &cache, const QString &key) { cache.finishFetch(key); }
    /// True when memory holds an unexpired entry for key or its entry file exists. Counts nothing and changes
    /// nothing, so a reader can look again after claiming a key without adding a miss to the statistics.
    static bool holds(CloudRangeCache &cache, const QString &key);
    static void recordCacheTransfer(CloudRangeCache &cache, qint64 bytes) { cache.recordCacheTransfer(bytes); }
    static void recordNetworkTransfer(CloudRangeCache &cache, qint64 bytes) { cache.recordNetworkTransfer(bytes); }
};

} // namespace Norvane::Cloud
