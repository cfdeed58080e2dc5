#pragma once

// Choosing the asset of a STAC item that opens as a Cloud Optimized GeoTIFF over HTTP(S). Pure rules.

#include <norvanecloud/stac.h>

#include <QString>

namespace Norvane::Cloud::StacCogLayers {

/// An HTTP(S) href and either a TIFF media type or a .tif/.tiff file name.
bool isHttpCogCandidate(const StacAsset &asset);
/// -1 for a non-candidate; else 0 to 100 from the roles, a cloud-optimized media type and a data/visual key.
int score(const QString &key, const StacAsset &asset);
/// The key of the asset to open: assetKey itself when given (it must name a candidate), else the highest
/// scoring candidate, ties going to the first key in map order. Throws as the client's cogLayer documents.
QString chooseAssetKey(const StacItem &item, const QString &assetKey);

} // namespace Norvane::Cloud::StacCogLayers
