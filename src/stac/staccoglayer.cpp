#include "stac/staccoglayer.h"

#include "formats/gdalaccess.h"
#include "stac/stacmessages.h"

#include <stdexcept>

namespace Norvane::Cloud::StacCogLayers {

bool isHttpCogCandidate(const StacAsset &asset)
{
    if (!isHttpUrl(asset.href))
        return false;
    if (asset.mediaType.toLower().contains(QLatin1String("tiff")))
        return true;
    const QString path = asset.href.path(QUrl::FullyDecoded).toLower();
    return path.endsWith(QLatin1String(".tif")) || path.endsWith(QLatin1String(".tiff"));
}

int score(const QString &key, const StacAsset &asset)
{
    if (!isHttpCogCandidate(asset))
        return -1;
    const bool data = asset.roles.contains(QLatin1String("data"), Qt::CaseInsensitive);
    const bool visual = asset.roles.contains(QLatin1String("visual"), Qt::CaseInsensitive);
    int total = data && visual ? 60 : data ? 40 : visual ? 20 : 0;
    if (asset.mediaType.toLower().contains(QLatin1String("cloud-optimized")))
        total += 30;
    const QString lowerKey = key.toLower();
    if (lowerKey == QLatin1String("data") || lowerKey == QLatin1String("visual"))
        total += 10;
    return total;
}

QString chooseAssetKey(const StacItem &item, const QString &assetKey)
{
    if (item.id.trimmed().isEmpty())
        throw std::invalid_argument(StacMessages::itemIdEmpty);

    if (!assetKey.isEmpty()) {
        const auto asset = item.assets.constFind(assetKey);
        if (asset == item.assets.constEnd())
            throw std::invalid_argument(StacMessages::assetMissing);
        if (!isHttpCogCandidate(*asset))
            throw std::invalid_argument(StacMessages::assetNotCogCandidate);
        return assetKey;
    }

    QString bestKey;
    int bestScore = -1;
    for (auto asset = item.assets.constBegin(); asset != item.assets.constEnd(); ++asset) {
        const int assetScore = score(asset.key(), asset.value());
        // Strictly greater: among equal scores the first key in map order stays chosen.
        if (assetScore > bestScore) {
            bestScore = assetScore;
            bestKey = asset.key();
        }
    }
    if (bestScore < 0)
        throw std::runtime_error(StacMessages::noCogAsset);
    return bestKey;
}

} // namespace Norvane::Cloud::StacCogLayers
