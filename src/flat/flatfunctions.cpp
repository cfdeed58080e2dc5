// The sixteen exported flat functions. Each one converts its arguments, calls one operation of the exported
// classes inside a call frame, and hands back text, a flag or a handle. Networked functions hold an
// ApplicationGuard from before their frame until they return.

#include <norvanecloud/flat.h>

#include "flat/applicationguard.h"
#include "flat/callframe.h"
#include "flat/flatdocuments.h"
#include "flat/flatmessages.h"
#include "flat/norvanecloudclient.h"

#include <norvanecloud/stac.h>

#include <stdexcept>

using namespace Norvane::Cloud;

namespace {

// A probe holds an application guard for its whole run, checks the handle, merges the per-call headers into the
// client's (a malformed headers text fails here, before any exchange), reads the location as the source takes it
// and writes the probe's document.
template <typename Source, typename Location, typename Result>
int32_t probeReturningText(NorvaneCloudClient *client,
    Source NorvaneCloudClient::*source,
    Location (*location)(const char16_t *),
    const char16_t *locationText,
    const char16_t *headersJson,
    QString (*document)(const Result &),
    char16_t *buffer,
    int32_t capacity)
{
    const ApplicationGuard guard;
    return callReturningText(buffer, capacity, [&] {
        const NorvaneCloudClient &record = clientFromHandle(client);
        const HeaderMap headers = mergedHeaders(record.headers, headersJson);
        return document((record.*source).probe(location(locationText), headers));
    });
}

// A catalogue call holds an application guard for its whole run, checks the handle, searches the catalogue with
// the client's headers and time-out, and writes a document from the first page.
template <typename Document>
int32_t searchReturningText(NorvaneCloudClient *client,
    const char16_t *catalogUrl,
    const char16_t *searchRequestJson,
    char16_t *buffer,
    int32_t capacity,
    Document document)
{
    const ApplicationGuard guard;
    return callReturningText(buffer, capacity, [&] {
        const NorvaneCloudClient &record = clientFromHandle(client);
        StacClient stac(urlArgument(catalogUrl), record.cache);
        stac.setTimeoutMilliseconds(record.timeoutMilliseconds);
        stac.setHeaders(record.headers);
        return document(stac, stac.search(searchRequestFromJson(searchRequestJson)));
    });
}

} // namespace

extern "C" {

NorvaneCloudClient *NorvaneCloud_CreateClient(const char16_t *optionsJson)
{
    return callReturning<NorvaneCloudClient *>(
        nullptr, [&] { return new NorvaneCloudClient(cacheOptionsFromJson(optionsJson)); });
}

void NorvaneCloud_DestroyClient(NorvaneCloudClient *client)
{
    delete client;
}

int32_t NorvaneCloud_LastError(char16_t *buffer, int32_t capacity)
{
    return copyResultText(lastError(), buffer, capacity);
}

int32_t NorvaneCloud_SetTimeout(NorvaneCloudClient *client, int32_t milliseconds)
{
    return callReturningFlag([&] {
        NorvaneCloudClient &record = clientFromHandle(client);
        // The first reader refuses a bad value before anything changes, so a failure leaves the client whole.
        record.cog.rangeReader().setTimeoutMilliseconds(milliseconds);
        record.geoParquet.rangeReader().setTimeoutMilliseconds(milliseconds);
        record.pmTiles.rangeReader().setTimeoutMilliseconds(milliseconds);
        record.timeoutMilliseconds = milliseconds;
    });
}

int32_t NorvaneCloud_SetHeadersJson(NorvaneCloudClient *client, const char16_t *headersJson)
{
    return callReturningFlag([&] {
        // The document is read before the handle is looked at, so a malformed one is reported first.
        HeaderMap headers = headersFromJson(headersJson);
        clientFromHandle(client).headers = std::move(headers);
    });
}

int32_t NorvaneCloud_ClearCache(NorvaneCloudClient *client)
{
    return callReturningFlag([&] { clientFromHandle(client).cache->clear(); });
}

int32_t NorvaneCloud_CacheStatisticsJson(NorvaneCloudClient *client, char16_t *buffer, int32_t capacity)
{
    return callReturningText(
        buffer, capacity, [&] { return cacheStatisticsToJson(clientFromHandle(client).cache->statistics()); });
}

int32_t NorvaneCloud_CogGdalVirtualPath(
    NorvaneCloudClient *client, const char16_t *url, char16_t *buffer, int32_t capacity)
{
    return callReturningText(
        buffer, capacity, [&] { return clientFromHandle(client).cog.gdalVirtualPath(urlArgument(url)); });
}

int32_t NorvaneCloud_GeoParquetGdalVirtualPath(
    NorvaneCloudClient *client, const char16_t *url, char16_t *buffer, int32_t capacity)
{
    return callReturningText(
        buffer, capacity, [&] { return clientFromHandle(client).geoParquet.gdalVirtualPath(urlArgument(url)); });
}

int32_t NorvaneCloud_PmTilesGdalVirtualPath(
    NorvaneCloudClient *client, const char16_t *url, char16_t *buffer, int32_t capacity)
{
    return callReturningText(
        buffer, capacity, [&] { return clientFromHandle(client).pmTiles.gdalVirtualPath(urlArgument(url)); });
}

int32_t NorvaneCloud_CogProbeJson(
    NorvaneCloudClient *client, const char16_t *url, const char16_t *headersJson, char16_t *buffer, int32_t capacity)
{
    return probeReturningText(
        client, &NorvaneCloudClient::cog, urlArgument, url, headersJson, cogProbeToJson, buffer, capacity);
}

int32_t NorvaneCloud_GeoParquetProbeJson(
    NorvaneCloudClient *client, const char16_t *url, const char16_t *headersJson, char16_t *buffer, int32_t capacity)
{
    return probeReturningText(client, &NorvaneCloudClient::geoParquet, urlArgument, url, headersJson,
        geoParquetProbeToJson, buffer, capacity);
}

int32_t NorvaneCloud_PmTilesInspectJson(NorvaneCloudClient *client,
    const char16_t *location,
    const char16_t *headersJson,
    char16_t *buffer,
    int32_t capacity)
{
    // The text form: a local archive path reaches the probe as a path, not as a URL.
    return probeReturningText(client, &NorvaneCloudClient::pmTiles, textArgument, location, headersJson,
        pmTilesProbeToJson, buffer, capacity);
}

int32_t NorvaneCloud_PmTilesProbeJson(
    NorvaneCloudClient *client, const char16_t *url, const char16_t *headersJson, char16_t *buffer, int32_t capacity)
{
    return probeReturningText(
        client, &NorvaneCloudClient::pmTiles, urlArgument, url, headersJson, pmTilesProbeToJson, buffer, capacity);
}

int32_t NorvaneCloud_StacSearchJson(NorvaneCloudClient *client,
    const char16_t *catalogUrl,
    const char16_t *searchRequestJson,
    char16_t *buffer,
    int32_t capacity)
{
    return searchReturningText(client, catalogUrl, searchRequestJson, buffer, capacity,
        [](const StacClient &, const StacSearchResult &page) { return searchResultToJson(page); });
}

int32_t NorvaneCloud_StacResolveCogLayerJson(NorvaneCloudClient *client,
    const char16_t *catalogUrl,
    const char16_t *searchRequestJson,
    const char16_t *assetKey,
    int32_t itemIndex,
    char16_t *buffer,
    int32_t capacity)
{
    return searchReturningText(client, catalogUrl, searchRequestJson, buffer, capacity,
        [&](const StacClient &stac, const StacSearchResult &page) {
            if (itemIndex < 0 || itemIndex >= page.items.size())
                throw std::invalid_argument(FlatMessages::itemIndexOutOfRange);
            return cogLayerToJson(stac.cogLayer(page.items.at(itemIndex), textArgument(assetKey)));
        });
}

} // extern "C"
