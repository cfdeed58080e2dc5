#pragma once

// STAC catalogue client: item searches, paging, item-collection parsing and COG layer resolution.

#include <norvanecloud/rangetransport.h>

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QStringList>

namespace Norvane::Cloud {

/// One asset of a STAC item.
struct NORVANECLOUD_EXPORT StacAsset {
    /// The asset's "href" resolved against the URL of the page the item came from.
    QUrl href;
    QString title;
    QString description;
    /// The asset's "type" member as sent.
    QString mediaType;
    QStringList roles;
    /// The asset object exactly as received ("href" unresolved).
    QJsonObject raw;
};

/// One STAC item (a GeoJSON feature).
struct NORVANECLOUD_EXPORT StacItem {
    QString id;
    QString collection;
    QList<double> bbox;
    QJsonObject geometry;
    QJsonObject properties;
    /// Keyed by asset key, in ascending case-sensitive key order.
    QMap<QString, StacAsset> assets;
    QJsonArray links;
    QJsonObject raw;
};

/// The parameters of one item search. Empty members are not sent.
struct NORVANECLOUD_EXPORT StacSearchRequest {
    QStringList collections;
    /// Empty, or exactly 4 or 6 numbers.
    QList<double> bbox;
    /// A GeoJSON geometry; cannot be combined with bbox.
    QJsonObject intersects;
    QString datetime;
    qint32 limit = 100;
    QJsonObject query;
    QJsonObject filter;
    /// Sent as "filter-lang".
    QString filterLanguage;
};

/// One page of an item search.
struct NORVANECLOUD_EXPORT StacSearchResult {
    QList<StacItem> items;
    /// Absolute URL of the next page; an empty, invalid URL means there is none.
    QUrl nextPage;
    /// Upper-cased method for the next page.
    QByteArray nextMethod = QByteArrayLiteral("GET");
    QJsonObject nextBody;
    /// The page's counts: from its "context" object when it has one, otherwise from the top-level "numberMatched"
    /// and "numberReturned". matched is -1 when the page does not say; returned is then the number of items.
    qint64 matched = -1;
    qint64 returned = -1;
    QJsonObject raw;
};

/// Everything needed to open one asset of an item as a COG.
struct NORVANECLOUD_EXPORT StacCogLayer {
    QString itemId;
    QString collection;
    QString assetKey;
    QUrl sourceUrl;
    QString gdalVirtualPath;
    QString title;
    QString mediaType;
    QStringList roles;
    QList<double> bbox;
    QJsonObject geometry;
    QJsonObject itemProperties;
    QJsonObject assetMetadata;
    QHash<QByteArray, QByteArray> requestHeaders;
};

/// A client of one STAC API catalogue. Answers are stored in the shared range cache, keyed by URL, method,
/// body and configured headers, so a repeated identical request makes no network traffic.
///
/// Requests are refused before the cache is consulted as HttpRangeReader::read refuses them: only http and https
/// URLs, and no header with an empty name or with CR, LF or NUL in it.
/// Network operations block and need a Qt application object (answers from the cache need none). The configured
/// headers go only to the catalogue's origin (scheme, host and port): not to a page elsewhere, nor after a redirect
/// to another origin. An answer over 64 MiB fails with std::runtime_error "STAC answer exceeds 64 MiB". Settings
/// must not be changed while an operation runs; separate clients may run on separate threads and share one cache.
class NORVANECLOUD_EXPORT StacClient final {
public:
    /// Throws std::invalid_argument "STAC catalog URL is invalid" for an invalid URL or one without scheme.
    /// An empty cache makes the client create a private one with default options.
    explicit StacClient(QUrl catalogUrl, std::shared_ptr<CloudRangeCache> cache = {});
    ~StacClient();
    StacClient(const StacClient &) = delete;
    StacClient &operator=(const StacClient &) = delete;
    StacClient(StacClient &&) = delete;
    StacClient &operator=(StacClient &&) = delete;

    QUrl catalogUrl() const;
    void setCatalogUrl(const QUrl &catalogUrl);
    QHash<QByteArray, QByteArray> headers() const;
    void setHeaders(const QHash<QByteArray, QByteArray> &headers);
    int timeoutMilliseconds() const;
    /// Throws std::invalid_argument "STAC timeout must be positive" below 1.
    void setTimeoutMilliseconds(int timeoutMilliseconds);

    /// POSTs the search to the catalogue's "search" path and returns the first page.
    StacSearchResult search(const StacSearchRequest &request) const;
    /// GETs one page by URL.
    StacSearchResult fetchPage(const QUrl &pageUrl) const;
    /// Fetches the page after the given one with its next link's method and body.
    StacSearchResult fetchNext(const StacSearchResult &result) const;
    /// Picks the named asset, or the best HTTP COG asset when assetKey is empty. Makes no network request.
    StacCogLayer cogLayer(const StacItem &item, const QString &assetKey) const;

    /// Parses one item-collection page; relative hrefs are resolved against pageUrl. Throws std::runtime_error
    /// "Invalid STAC JSON: %1" for a body that is not a JSON object.
    static StacSearchResult parseItemCollection(const QByteArray &body, const QUrl &pageUrl);

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace Norvane::Cloud
