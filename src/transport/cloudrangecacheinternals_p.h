#pragma once

// Access to the cache members reserved to the range reader: fetch coordination and the transfer counters.
// Not part of the installed interface.

#include <norvanecloud/rangetransport.h>

#include <QString>

namespace Norvane::Cloud {

class CloudRangeCacheInternals {
public:
    /// Waits while another thread fetches key, then claims it. True when the caller waited, so it should look
    /// in the cache again before fetching.
    static bool beginFetch(CloudRangeCache &cache, const QString &key) { return cache.beginFetch(key); }
    /// Releases the claim of beginFetch and wakes the threads waiting for key.
    static void finishFetch(CloudRangeCache &cache, const QString &key) { cache.finishFetch(key); }
    static void recordCacheTransfer(CloudRangeCache &cache, qint64 bytes) { cache.recordCacheTransfer(bytes); }
    static void recordNetworkTransfer(CloudRangeCache &cache, qint64 bytes) { cache.recordNetworkTransfer(bytes); }
};

} // namespace Norvane::Cloud
