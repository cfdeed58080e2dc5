#include "stac/stacitemcollection.h"

#include "stac/stacmessages.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>

#include <stdexcept>

namespace Norvane::Cloud::StacItemCollection {

namespace {

// A count the page may or may not carry; "absent" is told apart from any value the member could hold.
qint64 countOrDefault(const QJsonObject &context, QLatin1String name, qint64 fallback)
{
    const auto member = context.constFind(name);
    return member == context.constEnd() ? fallback : member->toInteger();
}

} // namespace

QUrl resolveHref(const QString &href, const QUrl &pageUrl)
{
    return pageUrl.resolved(QUrl(href, QUrl::TolerantMode));
}

QList<double> numberList(const QJsonValue &value)
{
    const QJsonArray array = value.toArray();
    QList<double> numbers;
    numbers.reserve(array.size());
    for (const QJsonValue &element : array)
        numbers.append(element.toDouble(0.0));
    return numbers;
}

StacAsset parseAsset(const QJsonObject &asset, const QUrl &pageUrl)
{
    StacAsset parsed;
    parsed.href = resolveHref(asset.value(QLatin1String("href")).toString(), pageUrl);
    parsed.title = asset.value(QLatin1String("title")).toString();
    parsed.description = asset.value(QLatin1String("description")).toString();
    parsed.mediaType = asset.value(QLatin1String("type")).toString();
    const QJsonArray roles = asset.value(QLatin1String("roles")).toArray();
    parsed.roles.reserve(roles.size());
    // A non-string role keeps its place as an empty entry, so roles line up with the array.
    for (const QJsonValue &role : roles)
        parsed.roles.append(role.toString());
    parsed.raw = asset;
    return parsed;
}

StacItem parseItem(const QJsonObject &feature, const QUrl &pageUrl)
{
    StacItem item;
    item.id = feature.value(QLatin1String("id")).toString();
    item.collection = feature.value(QLatin1String("collection")).toString();
    item.bbox = numberList(feature.value(QLatin1String("bbox")));
    item.geometry = feature.value(QLatin1String("geometry")).toObject();
    item.properties = feature.value(QLatin1String("properties")).toObject();
    const QJsonObject assets = feature.value(QLatin1String("assets")).toObject();
    for (auto asset = assets.constBegin(); asset != assets.constEnd(); ++asset)
        item.assets.insert(asset.key(), parseAsset(asset.value().toObject(), pageUrl));
    item.links = feature.value(QLatin1String("links")).toArray();
    item.raw = feature;
    return item;
}

StacSearchResult parse(const QByteArray &body, const QUrl &pageUrl)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    // A well-formed array or scalar passes the parser, so its "no error" description is what gets reported.
    if (error.error != QJsonParseError::NoError || !document.isObject())
        throw std::runtime_error(QString::fromLatin1(StacMessages::invalidJson).arg(error.errorString()).toStdString());

    StacSearchResult result;
    result.raw = document.object();

    const QJsonArray features = result.raw.value(QLatin1String("features")).toArray();
    result.items.reserve(features.size());
    for (const QJsonValue &feature : features)
        result.items.append(parseItem(feature.toObject(), pageUrl));

    // Pages of the context extension carry their counts in "context"; current APIs put them at the top level.
    const QJsonValue context = result.raw.value(QLatin1String("context"));
    const bool contextCounts = context.isObject();
    const QJsonObject counts = contextCounts ? context.toObject() : result.raw;
    result.matched = countOrDefault(counts, QLatin1String(contextCounts ? "matched" : "numberMatched"), -1);
    result.returned
        = countOrDefault(counts, QLatin1String(contextCounts ? "returned" : "numberReturned"), result.items.size());

    const QJsonArray links = result.raw.value(QLatin1String("links")).toArray();
    for (const QJsonValue &element : links) {
        const QJsonObject link = element.toObject();
        if (link.value(QLatin1String("rel")).toString() != QLatin1String("next"))
            continue;
        result.nextPage = resolveHref(link.value(QLatin1String("href")).toString(), pageUrl);
        const QJsonValue method = link.value(QLatin1String("method"));
        result.nextMethod = method.isString() ? method.toString().toLatin1().toUpper() : QByteArrayLiteral("GET");
        result.nextBody = link.value(QLatin1String("body")).toObject();
        break;
    }
    return result;
}

} // namespace Norvane::Cloud::StacItemCollection
