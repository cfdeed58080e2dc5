#pragma once

// Reading of STAC item-collection pages: pure functions of the body and the URL it came from.

#include <norvanecloud/stac.h>

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QUrl>

namespace Norvane::Cloud::StacItemCollection {

/// Parses one page. Throws std::runtime_error "Invalid STAC JSON: %1" when the body is not a JSON object.
StacSearchResult parse(const QByteArray &body, const QUrl &pageUrl);

StacItem parseItem(const QJsonObject &feature, const QUrl &pageUrl);
StacAsset parseAsset(const QJsonObject &asset, const QUrl &pageUrl);
/// Every element as a double (0.0 for a non-number); an empty list for a value that is not an array.
QList<double> numberList(const QJsonValue &value);
/// A link or asset "href" resolved against the page it appeared on.
QUrl resolveHref(const QString &href, const QUrl &pageUrl);

} // namespace Norvane::Cloud::StacItemCollection
