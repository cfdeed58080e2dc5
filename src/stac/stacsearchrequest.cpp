#include "stac/stacsearchrequest.h"

#include "stac/stacmessages.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <stdexcept>

namespace Norvane::Cloud::StacSearchRequests {

void validate(const StacSearchRequest &request)
{
    if (request.limit < 1)
        throw std::invalid_argument(StacMessages::limitNotPositive);
    if (!request.bbox.isEmpty() && request.bbox.size() != 4 && request.bbox.size() != 6)
        throw std::invalid_argument(StacMessages::bboxWrongSize);
    if (!request.bbox.isEmpty() && !request.intersects.isEmpty())
        throw std::invalid_argument(StacMessages::bboxWithIntersects);
}

QByteArray body(const StacSearchRequest &request)
{
    // QJsonObject keeps its keys sorted and the compact writer prints doubles in their shortest round-trip
    // form, which together give the byte-exact body (and therefore a stable cache key).
    QJsonObject object;
    if (!request.bbox.isEmpty()) {
        QJsonArray bbox;
        for (double coordinate : request.bbox)
            bbox.append(coordinate);
        object.insert(QLatin1String("bbox"), bbox);
    }
    if (!request.collections.isEmpty())
        object.insert(QLatin1String("collections"), QJsonArray::fromStringList(request.collections));
    if (!request.datetime.isEmpty())
        object.insert(QLatin1String("datetime"), request.datetime);
    if (!request.filter.isEmpty())
        object.insert(QLatin1String("filter"), request.filter);
    if (!request.filterLanguage.isEmpty())
        object.insert(QLatin1String("filter-lang"), request.filterLanguage);
    if (!request.intersects.isEmpty())
        object.insert(QLatin1String("intersects"), request.intersects);
    object.insert(QLatin1String("limit"), request.limit);
    if (!request.query.isEmpty())
        object.insert(QLatin1String("query"), request.query);
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QUrl searchUrl(const QUrl &catalogUrl)
{
    QUrl url = catalogUrl;
    QString path = url.path(QUrl::FullyDecoded);
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    path += QLatin1String("search");
    url.setPath(path, QUrl::DecodedMode);
    return url;
}

} // namespace Norvane::Cloud::StacSearchRequests
