#pragma once

// The JSON documents of the flat interface: readers of the host's documents (client options, headers, search
// requests) and writers of the result documents. Plain functions without state, so they are tested and fuzzed
// without a client or a network.
//
// Readers take zero-terminated UTF-16 text; a null pointer or empty text reads as an object without members, so
// every field keeps its default. Readers throw std::invalid_argument with their document's message when the text
// is not exactly one JSON object; writers never fail. Written documents are compact JSON with the members of
// every object in ascending key order, every member present, and 64-bit integers exact to the last digit.

#include <norvanecloud/formats.h>
#include <norvanecloud/rangetransport.h>
#include <norvanecloud/stac.h>

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QString>

namespace Norvane::Cloud {

using HeaderMap = QHash<QByteArray, QByteArray>;

/// The object held by the text; failureMessage is thrown for anything else (array, scalar, syntax error,
/// trailing text).
QJsonObject jsonObjectFromText(const char16_t *text, const char *failureMessage);

CloudCacheOptions cacheOptionsFromJson(const char16_t *text);
HeaderMap headersFromJson(const char16_t *text);
/// The client's headers with the per-call document laid over them; the defaults are not changed.
HeaderMap mergedHeaders(const HeaderMap &defaults, const char16_t *perCallText);
StacSearchRequest searchRequestFromJson(const char16_t *text);

QString cacheStatisticsToJson(const CloudCacheStatistics &statistics);
QString cogProbeToJson(const CogProbeResult &result);
QString geoParquetProbeToJson(const GeoParquetProbeResult &result);
QString pmTilesProbeToJson(const PmTilesProbeResult &result);
QJsonObject stacAssetToJson(const StacAsset &asset);
QJsonObject stacItemToJson(const StacItem &item);
QString searchResultToJson(const StacSearchResult &result);
QString cogLayerToJson(const StacCogLayer &layer);

} // namespace Norvane::Cloud
