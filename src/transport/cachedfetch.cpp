#include "transport/cachedfetch.h"

#include <QElapsedTimer>

#include <algorithm>

namespace Norvane::Cloud {

namespace {

// Releases the claim on a key when the read that owns it ends by any path.
class FetchClaim {
public:
    FetchClaim() = default;
    FetchClaim(const FetchClaim &) = delete;
    FetchClaim &operator=(const FetchClaim &) = delete;
    ~FetchClaim()
    {
        if (cache)
            cache->finishFetch(key);
    }
    void claim(CloudRangeCache &claimedCache, const QString &claimedKey)
    {
        cache = &claimedCache;
        key = claimedKey;
    }

private:
    CloudRangeCache *cache = nullptr;
    QString key;
};

// A hit, or a miss whose key the caller now owns (or, with claiming off or re-entered on the owning thread, simply a
// miss).
bool lookUp(CloudRangeCache &cache,
    const QString &key,
    bool claimKey,
    const CachedFetchExpectation &expectation,
    FetchClaim &claim,
    CloudRangeResponse &response)
{
    const auto find
        = [&](bool countMiss) { return cache.find(key, expectation.offset, expectation.size, countMiss, response); };
    bool hit = find(true);
    if (hit || !claimKey)
        return hit;
    // One time-out for all the waits: each fetch awaited may fail, and the next waiter's fetch be awaited in turn.
    QElapsedTimer waiting;
    waiting.start();
    while (!hit) {
        const int limit = expectation.timeoutMilliseconds;
        const int remaining = limit > 0 ? int(std::max<qint64>(1, limit - waiting.elapsed())) : 0;
        switch (cache.beginFetch(key, expectation.cancellationRequested, remaining)) {
        case CloudRangeCache::FetchTurn::Claimed:
            claim.claim(cache, key);
            // The read that owned the key before may have stored it between our miss and our claim; this look
            // counts no miss, so the statistics of an ordinary miss stay as they are.
            return find(false);
        case CloudRangeCache::FetchTurn::OwnedByThisThread:
            return false;
        case CloudRangeCache::FetchTurn::Waited:
            hit = find(true);
            break;
        }
    }
    return hit;
}

} // namespace

CloudRangeResponse readThroughCache(CloudRangeCache *cache,
    const QString &key,
    const CachedFetchRules &rules,
    const std::function<CloudRangeResponse()> &fetch,
    const std::function<void(CloudRangeResponse &)> &accept,
    const CachedFetchExpectation &expectation)
{
    const bool lookUpAndStore = cache && rules.lookUpAndStore;
    FetchClaim claim;
    CloudRangeResponse response;
    if (lookUpAndStore && lookUp(*cache, key, rules.claimKey, expectation, claim, response)) {
        if (rules.countTransfers)
            cache->recordCacheTransfer(response.data.size());
        return response;
    }

    response = fetch();
    if (cache && rules.countTransfers)
        cache->recordNetworkTransfer(response.data.size());
    if (accept)
        accept(response);
    if (lookUpAndStore)
        cache->put(key, response);
    return response;
}

} // namespace Norvane::Cloud
