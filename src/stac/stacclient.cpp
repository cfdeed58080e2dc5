#include <norvanecloud/stac.h>

#include "formats/gdalaccess.h"
#include "stac/staccoglayer.h"
#include "stac/stacexchange.h"
#include "stac/stacitemcollection.h"
#include "stac/stacmessages.h"
#include "stac/stacsearchrequest.h"

#include <QJsonDocument>

#include <stdexcept>

namespace Norvane::Cloud {

class StacClient::Private {
public:
    QUrl catalogUrl;
    int timeoutMilliseconds = 30000;
    QHash<QByteArray, QByteArray> headers;
    std::shared_ptr<CloudRangeCache> cache;

    QByteArray exchange(const QUrl &url, const QByteArray &method, const QByteArray &body) const
    {
        return StacExchange::run(*cache, catalogUrl, url, method, body, headers, timeoutMilliseconds);
    }
};

StacClient::StacClient(QUrl catalogUrl, std::shared_ptr<CloudRangeCache> cache)
    : d(std::make_unique<Private>())
{
    setCatalogUrl(catalogUrl);
    d->cache = cache ? std::move(cache) : std::make_shared<CloudRangeCache>();
}

StacClient::~StacClient() = default;

QUrl StacClient::catalogUrl() const
{
    return d->catalogUrl;
}

void StacClient::setCatalogUrl(const QUrl &catalogUrl)
{
    if (!catalogUrl.isValid() || catalogUrl.scheme().isEmpty())
        throw std::invalid_argument(StacMessages::catalogUrlInvalid);
    d->catalogUrl = catalogUrl;
}

QHash<QByteArray, QByteArray> StacClient::headers() const
{
    return d->headers;
}

void StacClient::setHeaders(const QHash<QByteArray, QByteArray> &headers)
{
    d->headers = headers;
}

int StacClient::timeoutMilliseconds() const
{
    return d->timeoutMilliseconds;
}

void StacClient::setTimeoutMilliseconds(int timeoutMilliseconds)
{
    if (timeoutMilliseconds < 1)
        throw std::invalid_argument(StacMessages::timeoutNotPositive);
    d->timeoutMilliseconds = timeoutMilliseconds;
}

StacSearchResult StacClient::search(const StacSearchRequest &request) const
{
    StacSearchRequests::validate(request);
    const QUrl url = StacSearchRequests::searchUrl(d->catalogUrl);
    const QByteArray body = d->exchange(url, QByteArrayLiteral("POST"), StacSearchRequests::body(request));
    return parseItemCollection(body, url);
}

StacSearchResult StacClient::fetchPage(const QUrl &pageUrl) const
{
    if (!pageUrl.isValid())
        throw std::invalid_argument(StacMessages::pageUrlInvalid);
    return parseItemCollection(d->exchange(pageUrl, QByteArrayLiteral("GET"), QByteArray()), pageUrl);
}

StacSearchResult StacClient::fetchNext(const StacSearchResult &result) const
{
    if (!result.nextPage.isValid())
        throw std::invalid_argument(StacMessages::noNextPage);
    const QByteArray method = result.nextMethod.toUpper();
    QByteArray body;
    if (method == "POST")
        body = QJsonDocument(result.nextBody).toJson(QJsonDocument::Compact);
    else if (method != "GET")
        throw std::invalid_argument(StacMessages::nextMethodUnsupported);
    return parseItemCollection(d->exchange(result.nextPage, method, body), result.nextPage);
}

StacCogLayer StacClient::cogLayer(const StacItem &item, const QString &assetKey) const
{
    const QString key = StacCogLayers::chooseAssetKey(item, assetKey);
    const StacAsset &asset = item.assets[key];

    StacCogLayer layer;
    layer.itemId = item.id;
    layer.collection = item.collection;
    layer.assetKey = key;
    layer.sourceUrl = asset.href;
    layer.gdalVirtualPath = cogGdalVirtualPath(asset.href);
    layer.title = asset.title.isEmpty() ? item.id : asset.title;
    layer.mediaType = asset.mediaType;
    layer.roles = asset.roles;
    layer.bbox = item.bbox;
    layer.geometry = item.geometry;
    layer.itemProperties = item.properties;
    layer.assetMetadata = asset.raw;
    layer.requestHeaders = d->headers;
    return layer;
}

StacSearchResult StacClient::parseItemCollection(const QByteArray &body, const QUrl &pageUrl)
{
    return StacItemCollection::parse(body, pageUrl);
}

} // namespace Norvane::Cloud
