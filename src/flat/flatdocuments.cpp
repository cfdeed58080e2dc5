#include "flat/flatdocuments.h"

#include "flat/callframe.h"
#include "flat/flatmessages.h"
#include "flat/hostdocument.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QJsonValue>

#include <stdexcept>

namespace Norvane::Cloud {

namespace {

// QJsonValue(qint64) is stored as an integer and written digit for digit; it must never pass through double.
QJsonValue integerValue(qint64 value)
{
    return QJsonValue(value);
}

QJsonValue urlText(const QUrl &url)
{
    if (url.isEmpty())
        return QString();
    return url.toString(QUrl::FullyEncoded);
}

QJsonValue byteText(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes);
}

QJsonArray numberArray(const QList<double> &numbers)
{
    QJsonArray array;
    for (double number : numbers)
        array.append(number);
    return array;
}

QString documentText(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

// The members every probe document has: the facts of the object's inspection and the verdict on it.
template <typename ProbeResult> QJsonObject probeObject(const ProbeResult &result)
{
    QJsonObject object;
    object.insert(QLatin1String("url"), urlText(result.url));
    object.insert(QLatin1String("contentLength"), integerValue(result.contentLength));
    object.insert(QLatin1String("etag"), byteText(result.etag));
    object.insert(QLatin1String("contentType"), byteText(result.contentType));
    object.insert(QLatin1String("acceptsRanges"), result.acceptsRanges);
    object.insert(QLatin1String("cloudReadable"), result.cloudReadable);
    object.insert(QLatin1String("diagnostic"), result.diagnostic);
    return object;
}

} // namespace

QJsonObject jsonObjectFromText(const char16_t *text, const char *failureMessage)
{
    if (text == nullptr || *text == u'\0')
        return QJsonObject();
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(textArgument(text).toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        throw std::invalid_argument(failureMessage);
    return document.object();
}

CloudCacheOptions cacheOptionsFromJson(const char16_t *text)
{
    const HostDocument document = hostDocument(text, FlatMessages::optionsNotObject);
    const QJsonObject &object = document.members;
    CloudCacheOptions options;
    if (object.contains(QLatin1String("directory")))
        options.directory = object.value(QLatin1String("directory")).toString();
    if (object.contains(QLatin1String("maximumMemoryBytes")))
        options.maximumMemoryBytes = document.integerMember("maximumMemoryBytes");
    if (object.contains(QLatin1String("maximumDiskBytes")))
        options.maximumDiskBytes = document.integerMember("maximumDiskBytes");
    if (object.contains(QLatin1String("maximumAgeSeconds")))
        options.maximumAgeSeconds = document.integerMember("maximumAgeSeconds");
    if (object.contains(QLatin1String("memoryEnabled")))
        options.memoryEnabled = object.value(QLatin1String("memoryEnabled")).toBool(false);
    if (object.contains(QLatin1String("diskEnabled")))
        options.diskEnabled = object.value(QLatin1String("diskEnabled")).toBool(false);
    return options;
}

HeaderMap headersFromJson(const char16_t *text)
{
    const QJsonObject object = jsonObjectFromText(text, FlatMessages::headersNotObject);
    HeaderMap headers;
    for (auto member = object.constBegin(); member != object.constEnd(); ++member) {
        const QJsonValue value = member.value();
        headers.insert(member.key().toUtf8(), value.isString() ? value.toString().toUtf8() : QByteArray());
    }
    return headers;
}

HeaderMap mergedHeaders(const HeaderMap &defaults, const char16_t *perCallText)
{
    const HeaderMap perCall = headersFromJson(perCallText);
    HeaderMap merged = defaults;
    merged.insert(perCall);
    return merged;
}

StacSearchRequest searchRequestFromJson(const char16_t *text)
{
    const HostDocument document = hostDocument(text, FlatMessages::searchRequestNotObject);
    const QJsonObject &object = document.members;
    StacSearchRequest request;
    const QJsonValue collections = object.value(QLatin1String("collections"));
    if (collections.isArray()) {
        for (const QJsonValue &collection : collections.toArray())
            request.collections.append(collection.toString());
    }
    const QJsonValue bbox = object.value(QLatin1String("bbox"));
    if (bbox.isArray()) {
        for (const QJsonValue &coordinate : bbox.toArray())
            request.bbox.append(coordinate.toDouble(0.0));
    }
    request.intersects = object.value(QLatin1String("intersects")).toObject();
    request.datetime = object.value(QLatin1String("datetime")).toString();
    if (object.contains(QLatin1String("limit")))
        request.limit = document.integer32Member("limit");
    request.query = object.value(QLatin1String("query")).toObject();
    request.filter = object.value(QLatin1String("filter")).toObject();
    request.filterLanguage = object.value(QLatin1String("filterLanguage")).toString();
    return request;
}

QString cacheStatisticsToJson(const CloudCacheStatistics &statistics)
{
    QJsonObject object;
    object.insert(QLatin1String("memoryHits"), integerValue(statistics.memoryHits));
    object.insert(QLatin1String("diskHits"), integerValue(statistics.diskHits));
    object.insert(QLatin1String("misses"), integerValue(statistics.misses));
    object.insert(QLatin1String("writes"), integerValue(statistics.writes));
    object.insert(QLatin1String("evictions"), integerValue(statistics.evictions));
    object.insert(QLatin1String("networkRequests"), integerValue(statistics.networkRequests));
    object.insert(QLatin1String("networkBytes"), integerValue(statistics.networkBytes));
    object.insert(QLatin1String("cacheBytesServed"), integerValue(statistics.cacheBytesServed));
    object.insert(QLatin1String("memoryBytes"), integerValue(statistics.memoryBytes));
    object.insert(QLatin1String("diskBytes"), integerValue(statistics.diskBytes));
    return documentText(object);
}

QString cogProbeToJson(const CogProbeResult &result)
{
    QJsonObject object = probeObject(result);
    object.insert(QLatin1String("firstIfdOffset"), integerValue(result.firstIfdOffset));
    object.insert(QLatin1String("byteOrder"), byteText(result.byteOrder));
    object.insert(QLatin1String("tiffHeaderValid"), result.tiffHeaderValid);
    object.insert(QLatin1String("bigTiff"), result.bigTiff);
    object.insert(QLatin1String("firstIfdNearStart"), result.firstIfdNearStart);
    return documentText(object);
}

QString geoParquetProbeToJson(const GeoParquetProbeResult &result)
{
    QJsonObject object = probeObject(result);
    object.insert(QLatin1String("headerValid"), result.headerValid);
    object.insert(QLatin1String("footerValid"), result.footerValid);
    return documentText(object);
}

QString pmTilesProbeToJson(const PmTilesProbeResult &result)
{
    QJsonObject object = probeObject(result);
    object.insert(QLatin1String("headerValid"), result.headerValid);
    object.insert(QLatin1String("specificationVersion"), integerValue(result.specificationVersion));
    object.insert(QLatin1String("rootDirectoryOffset"), integerValue(result.rootDirectoryOffset));
    object.insert(QLatin1String("rootDirectoryLength"), integerValue(result.rootDirectoryLength));
    object.insert(QLatin1String("metadataOffset"), integerValue(result.metadataOffset));
    object.insert(QLatin1String("metadataLength"), integerValue(result.metadataLength));
    object.insert(QLatin1String("tileDataOffset"), integerValue(result.tileDataOffset));
    object.insert(QLatin1String("tileDataLength"), integerValue(result.tileDataLength));
    object.insert(QLatin1String("minimumZoom"), integerValue(result.minimumZoom));
    object.insert(QLatin1String("maximumZoom"), integerValue(result.maximumZoom));
    object.insert(QLatin1String("tileType"), integerValue(result.tileType));
    object.insert(QLatin1String("tileKind"), result.tileKind);
    object.insert(QLatin1String("remote"), result.remote);
    return documentText(object);
}

QJsonObject stacAssetToJson(const StacAsset &asset)
{
    // Everything the catalogue sent stays ("type" and extension members); the decoded members are laid over it.
    QJsonObject object = asset.raw;
    object.insert(QLatin1String("href"), urlText(asset.href));
    object.insert(QLatin1String("title"), asset.title);
    object.insert(QLatin1String("description"), asset.description);
    object.insert(QLatin1String("mediaType"), asset.mediaType);
    object.insert(QLatin1String("roles"), QJsonArray::fromStringList(asset.roles));
    return object;
}

QJsonObject stacItemToJson(const StacItem &item)
{
    QJsonObject assets;
    for (auto asset = item.assets.constBegin(); asset != item.assets.constEnd(); ++asset)
        assets.insert(asset.key(), stacAssetToJson(asset.value()));
    QJsonObject object;
    object.insert(QLatin1String("id"), item.id);
    object.insert(QLatin1String("collection"), item.collection);
    object.insert(QLatin1String("bbox"), numberArray(item.bbox));
    object.insert(QLatin1String("geometry"), item.geometry);
    object.insert(QLatin1String("properties"), item.properties);
    object.insert(QLatin1String("assets"), assets);
    object.insert(QLatin1String("links"), item.links);
    object.insert(QLatin1String("raw"), item.raw);
    return object;
}

QString searchResultToJson(const StacSearchResult &result)
{
    QJsonArray items;
    for (const StacItem &item : result.items)
        items.append(stacItemToJson(item));
    QJsonObject object;
    object.insert(QLatin1String("items"), items);
    object.insert(QLatin1String("nextPage"), urlText(result.nextPage));
    object.insert(QLatin1String("nextMethod"), byteText(result.nextMethod));
    object.insert(QLatin1String("nextBody"), result.nextBody);
    object.insert(QLatin1String("matched"), integerValue(result.matched));
    object.insert(QLatin1String("returned"), integerValue(result.returned));
    object.insert(QLatin1String("raw"), result.raw);
    return documentText(object);
}

QString cogLayerToJson(const StacCogLayer &layer)
{
    QJsonObject requestHeaders;
    for (auto header = layer.requestHeaders.constBegin(); header != layer.requestHeaders.constEnd(); ++header)
        requestHeaders.insert(QString::fromLatin1(header.key()), byteText(header.value()));
    QJsonObject object;
    object.insert(QLatin1String("itemId"), layer.itemId);
    object.insert(QLatin1String("collection"), layer.collection);
    object.insert(QLatin1String("assetKey"), layer.assetKey);
    object.insert(QLatin1String("sourceUrl"), urlText(layer.sourceUrl));
    object.insert(QLatin1String("gdalVirtualPath"), layer.gdalVirtualPath);
    object.insert(QLatin1String("title"), layer.title);
    object.insert(QLatin1String("mediaType"), layer.mediaType);
    object.insert(QLatin1String("roles"), QJsonArray::fromStringList(layer.roles));
    object.insert(QLatin1String("bbox"), numberArray(layer.bbox));
    object.insert(QLatin1String("geometry"), layer.geometry);
    object.insert(QLatin1String("itemProperties"), layer.itemProperties);
    object.insert(QLatin1String("assetMetadata"), layer.assetMetadata);
    object.insert(QLatin1String("requestHeaders"), requestHeaders);
    return documentText(object);
}

} // namespace Norvane::Cloud
