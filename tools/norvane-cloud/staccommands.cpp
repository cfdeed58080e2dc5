#include "commands.h"

#include "flatdocument.h"
#include "output.h"
#include "toolmessages.h"

#include <norvanecloud/stac.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <exception>
#include <limits>

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
        if (request.bbox.size() != 4 && request.bbox.size() != 6)
            throw UsageError(ToolMessages::bboxWrongSize, invocation.command);
    }
    request.datetime = invocation.value(QStringLiteral("datetime"));
    if (invocation.has(QStringLiteral("limit")))
        request.limit = int(numberIn(invocation.value(QStringLiteral("limit")), QStringLiteral("--limit"), 1,
            std::numeric_limits<int>::max(), invocation.command));
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

// The catalogue the CATALOG argument names. A URL that already ends in /search names the search endpoint itself, to
// which the client would add another /search.
QUrl catalogueOf(const Invocation &invocation)
{
    QUrl url = httpUrlArgument(invocation.words.at(2), QStringLiteral("CATALOG"), invocation.command);
    const QString path = url.path();
    if (path.endsWith(QLatin1String("/search")))
        url.setPath(path.chopped(int(qstrlen("search"))));
    return url;
}

std::unique_ptr<StacClient> stacClientFor(const Invocation &invocation)
{
    auto client = std::make_unique<StacClient>(catalogueOf(invocation), makeCache(invocation.global));
    client->setTimeoutMilliseconds(invocation.global.timeoutMilliseconds);
    client->setHeaders(invocation.global.headers);
    return client;
}

// The pages of a search up to the largest number asked for. A page that fails ends the search: the items of the
// pages before it are kept and the failure returned.
struct FetchedPages {
    QList<StacSearchResult> pages;
    std::exception_ptr failure;
};

FetchedPages fetchPages(
    const StacClient &client, const StacSearchRequest &request, qint64 maximumPages, Console &console)
{
    FetchedPages fetched;
    try {
        fetched.pages.append(client.search(request));
        console.err << "page 1: " << fetched.pages.last().items.size() << " items\n";
        while (fetched.pages.size() < maximumPages && fetched.pages.last().nextPage.isValid()) {
            fetched.pages.append(client.fetchNext(fetched.pages.last()));
            console.err << "page " << fetched.pages.size() << ": " << fetched.pages.last().items.size() << " items\n";
        }
    } catch (const std::exception &) {
        if (fetched.pages.isEmpty())
            throw;
        fetched.failure = std::current_exception();
    }
    return fetched;
}

// One GeoJSON FeatureCollection of every item fetched, with the catalogue's count of matches when it gave one.
QJsonObject featureCollection(const QList<StacSearchResult> &pages)
{
    QJsonArray features;
    for (const StacSearchResult &page : pages) {
        for (const StacItem &item : page.items)
            features.append(item.raw);
    }
    QJsonObject collection { { QStringLiteral("type"), QStringLiteral("FeatureCollection") },
        { QStringLiteral("features"), features }, { QStringLiteral("numberReturned"), features.size() } };
    if (pages.last().matched >= 0)
        collection.insert(QStringLiteral("numberMatched"), pages.last().matched);
    return collection;
}

void printPages(const QList<StacSearchResult> &pages, bool json, QTextStream &out)
{
    if (json) {
        out << QJsonDocument(featureCollection(pages)).toJson(QJsonDocument::Compact) << '\n';
        return;
    }
    QList<StacItem> items;
    for (const StacSearchResult &page : pages)
        items.append(page.items);
    printStacItems(out, items);
    const StacSearchResult &last = pages.last();
    out << '\n' << items.size() << " items on " << pages.size() << (pages.size() == 1 ? " page" : " pages");
    if (last.matched >= 0)
        out << "; the catalogue reports " << last.matched << " matching";
    out << (last.nextPage.isValid() ? "; more pages follow" : "; no further page") << '\n';
}

} // namespace

int stacSearchCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 3);
    const StacSearchRequest request = searchRequestOf(invocation);
    const qint64 maximumPages = numberAtLeast(invocation.value(QStringLiteral("max-pages"), QStringLiteral("1")),
        QStringLiteral("--max-pages"), 1, invocation.command);
    const std::unique_ptr<StacClient> client = stacClientFor(invocation);
    const FetchedPages fetched = fetchPages(*client, request, maximumPages, console);
    printPages(fetched.pages, invocation.has(QStringLiteral("json")), console.out);
    if (fetched.failure)
        std::rethrow_exception(fetched.failure);
    return 0;
}

int stacLayerCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 3);
    if (!invocation.has(QStringLiteral("item")))
        throw UsageError(ToolMessages::itemRequired, invocation.command);
    const int index = int(numberIn(invocation.value(QStringLiteral("item")), QStringLiteral("--item"), 0,
        std::numeric_limits<int>::max(), invocation.command));
    const StacSearchRequest request = searchRequestOf(invocation);
    const QString assetKey = invocation.value(QStringLiteral("asset"));
    if (invocation.has(QStringLiteral("json"))) {
        const QString requestDocument = searchRequestDocument(request);
        const QString catalogue = catalogueOf(invocation).toString();
        console.out << flatDocument(
            invocation.global, [&](NorvaneCloudClient *client, char16_t *buffer, int32_t capacity) {
                return NorvaneCloud_StacResolveCogLayerJson(
                    client, utf16(catalogue), utf16(requestDocument), utf16(assetKey), index, buffer, capacity);
            }) << '\n';
        return 0;
    }
    const std::unique_ptr<StacClient> client = stacClientFor(invocation);
    const StacSearchResult page = client->search(request);
    if (index >= page.items.size()) {
        console.err << QString(ToolMessages::itemNotOnFirstPage).arg(index).arg(page.items.size()) << '\n';
        return 1;
    }
    printCogLayer(console.out, client->cogLayer(page.items.at(index), assetKey));
    return 0;
}

} // namespace NorvaneCloudTool
