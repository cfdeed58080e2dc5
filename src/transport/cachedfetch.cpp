#include "transport/cachedfetch.h"

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

// A hit, or a miss whose key the caller now owns (or, with claiming off, simply a miss).
bool lookUp(CloudRangeCache &cache, const QString &key, bool claimKey, FetchClaim &claim, CloudRangeResponse &response)
{
    bool hit = cache.get(key, response);
    while (!hit && claimKey) {
        if (!cache.beginFetch(key)) {
            claim.claim(cache, key);
            // The read that owned the key before may have stored it between our miss and our claim; looking only
            // when something is there keeps the statistics of an ordinary miss as they are.
            return cache.holds(key) && cache.get(key, response);
        }
        hit = cache.get(key, response);
    }
    return hit;
}

} // namespace

CloudRangeResponse readThroughCache(CloudRangeCache *cache,
    const QString &key,
    const CachedFetchRules &rules,
    const std::function<CloudRangeResponse()> &fetch,
    const std::function<void(CloudRangeResponse &)> &accept)
{
    const bool lookUpAndStore = cache && rules.lookUpAndStore;
    FetchClaim claim;
    CloudRangeResponse response;
    if (lookUpAndStore && lookUp(*cache, key, rules.claimKey, claim, response)) {
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
