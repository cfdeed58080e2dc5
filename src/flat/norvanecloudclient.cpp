#include "flat/norvanecloudclient.h"

#include "flat/flatmessages.h"

#include <stdexcept>

NorvaneCloudClient::NorvaneCloudClient(const Norvane::Cloud::CloudCacheOptions &options)
    : cache(std::make_shared<Norvane::Cloud::CloudRangeCache>(options))
    , cog(cache)
    , geoParquet(cache)
    , pmTiles(cache)
{
}

namespace Norvane::Cloud {

NorvaneCloudClient &clientFromHandle(NorvaneCloudClient *handle)
{
    if (handle == nullptr)
        throw std::invalid_argument(FlatMessages::clientNull);
    return *handle;
}

} // namespace Norvane::Cloud
