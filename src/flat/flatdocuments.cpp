#include "flat/flatdocuments.h"

#include "flat/callframe.h"
#include "flat/flatmessages.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QJsonValue>

#include <algorithm>
#include <limits>
#include <optional>
#include <stdexcept>

namespace Norvane::Cloud {

namespace {

bool isDigit(char character)
{
    return character >= '0' && character <= '9';
}

bool isNumberCharacter(char character)
{
    return isDigit(character) || character == '-' || character == '+' || character == '.' || character == 'e'
        || character == 'E';
}

// The value of a JSON number token when it is a whole number within 64 bits, worked out from its decimal digits:
// through a double, 9007199254740993.0 would come back as ...992, and 9223372036854775807.0 would not fit at all.
std::optional<qint64> exactInteger(const QByteArray &token)
{
    const bool negative = token.startsWith('-');
    QByteArray digits;
    qint64 exponent = 0;
    bool fraction = false;
    qsizetype at = negative ? 1 : 0;
    for (; at < token.size() && token.at(at) != 'e' && token.at(at) != 'E'; ++at) {
        if (token.at(at) == '.') {
            fraction = true;
        } else {
            digits += token.at(at);
            exponent -= fraction ? 1 : 0;
        }
    }
    // The written exponent, saturated far beyond any digit count a document can hold.
    const qint64 bound = qint64(1) << 40;
    const bool exponentNegative = at + 1 < token.size() && token.at(at + 1) == '-';
    qint64 written = 0;
    for (++at; at < token.size(); ++at) {
        if (isDigit(token.at(at)))
            written = std::min(bound, written * 10 + (token.at(at) - '0'));
    }
    exponent += exponentNegative ? -written : written;

    qsizetype first = 0;
    while (first < digits.size() && digits.at(first) == '0')
        ++first;
    if (first == digits.size())
        return 0;
    qsizetype end = digits.size();
    for (; digits.at(end - 1) == '0'; ++exponent)
        --end;
    if (exponent < 0 || end - first + exponent > 19)
        return std::nullopt;
    // At most 19 digits: below 2^64, so the unsigned conversion is exact.
    const quint64 magnitude = (digits.mid(first, end - first) + QByteArray(exponent, '0')).toULongLong();
    const quint64 largest = quint64(std::numeric_limits<qint64>::max()) + (negative ? 1 : 0);
    if (magnitude > largest)
        return std::nullopt;
    return negative ? qint64(0 - magnitude) : qint64(magnitude);
}

// The document with each number turned into a string of its own text behind a "#", and every other string (keys
// included) behind a "'", so that parsing it keeps the exact text of every number and no string can pass for one.
// Only given a document that parsed, where numbers are the only tokens outside strings that start with "-" or a
// digit.
QByteArray numbersAsTexts(const QByteArray &document)
{
    QByteArray tagged;
    tagged.reserve(document.size() + document.size() / 2);
    for (qsizetype at = 0; at < document.size();) {
        const char character = document.at(at);
        qsizetype end = at + 1;
        if (character == '"') {
            for (; end < document.size() && document.at(end) != '"'; ++end)
                end += document.at(end) == '\\' ? 1 : 0;
            tagged += "\"'" + document.mid(at + 1, end - at);
            ++end;
        } else if (character == '-' || isDigit(character)) {
            while (end < document.size() && isNumberCharacter(document.at(end)))
                ++end;
            tagged += "\"#" + document.mid(at, end - at) + '"';
        } else {
            tagged += character;
        }
        at = end;
    }
    return tagged;
}

// A host document: its members, and its numbers as the texts they were written with.
struct HostDocument {
    QJsonObject members;
    QJsonObject numberTexts;

    // An integer member, read exactly: a whole number within 64 bits however it is written (25, 25.0, 2.5e1);
    // anything else, a number with a fraction or beyond 64 bits included, yields 0.
    qint64 integerMember(const char *key) const
    {
        const QString text = numberTexts.value(u'\'' + QLatin1String(key)).toString();
        if (!text.startsWith(u'#'))
            return 0;
        return exactInteger(QStringView(text).mid(1).toLatin1()).value_or(0);
    }

    qint32 integer32Member(const char *key) const
    {
        const qint64 wide = integerMember(key);
        if (wide < std::numeric_limits<qint32>::min() || wide > std::numeric_limits<qint32>::max())
            return 0;
        return static_cast<qint32>(wide);
    }
};

QByteArray documentBytes(const char16_t *text)
{
    return textArgument(text).toUtf8();
}

HostDocument hostDocument(const char16_t *text, const char *failureMessage)
{
    HostDocument document { jsonObjectFromText(text, failureMessage), QJsonObject() };
    if (!document.members.isEmpty())
        document.numberTexts = QJsonDocument::fromJson(numbersAsTexts(documentBytes(text))).object();
    return document;
}

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
    const QJsonDocument document = QJsonDocument::fromJson(documentBytes(text), &error);
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
