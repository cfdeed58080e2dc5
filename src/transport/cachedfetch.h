#pragma once

// The one path by which the library reads through the range cache: look the key up, fetch on a miss, check what
// came, store it. Each caller keeps its own rules about claiming keys and counting transfers.

#include <norvanecloud/rangetransport.h>

#include <QString>

#include <functional>

namespace Norvane::Cloud {

struct CachedFetchRules {
    /// Look the key up before fetching and store what was fetched and accepted.
    bool lookUpAndStore = true;
    /// Claim the key on a miss, so that concurrent readers of the same key wait for one fetch instead of each
    /// fetching; the claim is released however the fetch ends.
    bool claimKey = false;
    /// Count the bytes served from the cache, and each fetch with its bytes (before they are checked), in the
    /// cache's transfer statistics.
    bool countTransfers = false;
};

/// What a read asks of the cache beyond the key: the range every hit must hold, and the bounds of a wait for another
/// thread's fetch of the key (with claimKey).
struct CachedFetchExpectation {
    qint64 offset = 0;
    /// The data size of a hit; -1 accepts any hit.
    qint64 size = -1;
    /// Tested at least every 25 ms while waiting; true ends the wait with "HTTP request cancelled".
    std::function<bool()> cancellationRequested;
    /// The longest wait, ended by "HTTP request timed out"; 0 waits without limit.
    int timeoutMilliseconds = 0;
};

/// The response for key: from cache (fromCache set, as the cache returns it) or from fetch, which runs on a miss.
/// accept, when given, checks a fetched response before it is stored, may trim it and throws to refuse it. With
/// no cache nothing is looked up, stored or counted. Exceptions of fetch and accept pass through; nothing is stored
/// then. A hit that does not hold the range of expectation is damaged: dropped, and fetched instead. A read on the
/// thread that owns the key's fetch (re-entered from that fetch's event loop) fetches without claiming.
CloudRangeResponse readThroughCache(CloudRangeCache *cache,
    const QString &key,
    const CachedFetchRules &rules,
    const std::function<CloudRangeResponse()> &fetch,
    const std::function<void(CloudRangeResponse &)> &accept = {},
    const CachedFetchExpectation &expectation = {});

} // namespace Norvane::Cloud
