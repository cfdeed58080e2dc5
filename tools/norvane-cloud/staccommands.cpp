#include "commands.h"

#include "flatdocument.h"
#include "output.h"
#include "toolmessages.h"

#include <norvanecloud/stac.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace NorvaneCloudTool {

using namespace Norvane::Cloud;

namespace {

StacSearchRequest searchRequestOf(const Invocation &invocation)
{
    StacSearchRequest request;
    if (invocation.has(QStringLiteral("collections")))
        request.collections
            = invocation.value(QStringLiteral("collections")).split(QLatin1Char(','), Qt::SkipEmptyParts);
    if (invocation.has(QStringLiteral("bbox"))) {
        for (const QString &number : invocation.value(QStringLiteral("bbox")).split(QLatin1Char(','))) {
            bool ok = false;
            request.bbox.append(number.trimmed().toDouble(&ok));
            if (!ok)
                throw UsageError(ToolMessages::bboxNotNumbers, invocation.command);
        }
    }
    request.datetime = invocation.value(QStringLiteral("datetime"));
    if (invocation.has(QStringLiteral("limit")))
        request.limit = int(
            wholeNumber(invocation.value(QStringLiteral("limit")), QStringLiteral("--limit"), invocation.command));
    return request;
}

// The same request as the flat interface's search request document.
QString searchRequestDocument(const StacSearchRequest &request)
{
    QJsonObject document { { QStringLiteral("limit"), request.limit } };
    if (!request.collections.isEmpty())
        document.insert(QStringLiteral("collections"), QJsonArray::fromStringList(request.collections));
    if (!request.bbox.isEmpty())
        document.insert(QStringLiteral("bbox"),
            QJsonArray::fromVariantList(QVariantList(request.bbox.begin(), request.bbox.end())));
    if (!request.datetime.isEmpty())
        document.insert(QStringLiteral("datetime"), request.datetime);
    return QString::fromUtf8(QJsonDocument(document).toJson(QJsonDocument::Compact));
}

std::unique_ptr<StacClient> stacClientFor(const Invocation &invocation)
{
    auto client = std::make_unique<StacClient>(urlArgument(invocation.words.at(2)), makeCache(invocation.global));
    client->setTimeoutMilliseconds(invocation.global.timeoutMilliseconds);
    client->setHeaders(invocation.global.headers);
    return client;
}

} // namespace

int stacSearchCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 3);
    const StacSearchRequest request = searchRequestOf(invocation);
    if (invocation.has(QStringLiteral("json"))) {
        const QString requestDocument = searchRequestDocument(request);
        console.out << flatDocument(
            invocation.global, [&](NorvaneCloudClient *client, char16_t *buffer, int32_t capacity) {
                return NorvaneCloud_StacSearchJson(
                    client, utf16(invocation.words.at(2)), utf16(requestDocument), buffer, capacity);
            }) << '\n';
        return 0;
    }
    const qint64 maximumPages = wholeNumber(invocation.value(QStringLiteral("max-pages"), QStringLiteral("1")),
        QStringLiteral("--max-pages"), invocation.command);
    if (maximumPages < 1)
        throw UsageError(ToolMessages::maximumPagesNotPositive, invocation.command);

    const std::unique_ptr<StacClient> client = stacClientFor(invocation);
    StacSearchResult page = client->search(request);
    QList<StacItem> items = page.items;
    qint64 pages = 1;
    console.err << "page 1: " << page.items.size() << " items\n";
    while (pages < maximumPages && page.nextPage.isValid()) {
        page = client->fetchNext(page);
        ++pages;
        items.append(page.items);
        console.err << "page " << pages << ": " << page.items.size() << " items\n";
    }
    printStacItems(console.out, items);
    console.out << '\n' << items.size() << " items on " << pages << (pages == 1 ? " page" : " pages");
    if (page.matched >= 0)
        console.out << "; the catalogue reports " << page.matched << " matching";
    console.out << (page.nextPage.isValid() ? "; more pages follow" : "; no further page") << '\n';
    return 0;
}

int stacLayerCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 3);
    if (!invocation.has(QStringLiteral("item")))
        throw UsageError(ToolMessages::itemRequired, invocation.command);
    const qint64 index
        = wholeNumber(invocation.value(QStringLiteral("item")), QStringLiteral("--item"), invocation.command);
    const StacSearchRequest request = searchRequestOf(invocation);
    const QString assetKey = invocation.value(QStringLiteral("asset"));
    if (invocation.has(QStringLiteral("json"))) {
        const QString requestDocument = searchRequestDocument(request);
        console.out << flatDocument(
            invocation.global, [&](NorvaneCloudClient *client, char16_t *buffer, int32_t capacity) {
                return NorvaneCloud_StacResolveCogLayerJson(client, utf16(invocation.words.at(2)),
                    utf16(requestDocument), utf16(assetKey), int(index), buffer, capacity);
            }) << '\n';
        return 0;
    }
    const std::unique_ptr<StacClient> client = stacClientFor(invocation);
    const StacSearchResult page = client->search(request);
    if (index < 0 || index >= page.items.size()) {
        console.err << QString(ToolMessages::itemNotOnFirstPage).arg(index).arg(page.items.size()) << '\n';
        return 1;
    }
    printCogLayer(console.out, client->cogLayer(page.items.at(int(index)), assetKey));
    return 0;
}

} // namespace NorvaneCloudTool
