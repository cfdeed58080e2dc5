// The sixteen exported flat functions. Each one converts its arguments, calls one operation of the exported
// classes inside a call frame, and hands back text, a flag or a handle. Networked functions hold an
// ApplicationGuard from before their frame until they return.

#include <norvanecloud/flat.h>

#include "flat/flatdocuments.h"
#include "flat/flatframe.h"
#include "flat/flatmessages.h"

#include <norvanecloud/stac.h>

#include <new>
#include <stdexcept>

using namespace Norvane::Cloud;

namespace {

std::unique_ptr<StacClient> stacClientFor(const CloudClient &client, const char16_t *catalogUrl)
{
    auto stac = std::make_unique<StacClient>(urlArgument(catalogUrl), client.cache);
    stac->setTimeoutMilliseconds(client.timeoutMilliseconds);
    stac->setHeaders(client.headers);
    return stac;
}

// A probe holds an application guard for its whole run, checks the handle, merges the per-call headers into the
// client's (a malformed headers text fails here, before any exchange) and writes the probe's document.
template <typename Probe>
int32_t probeReturningText(
    NorvaneCloudClient *client, const char16_t *headersJson, char16_t *buffer, int32_t capacity, Probe probe)
{
    const ApplicationGuard guard;
    return callReturningText(buffer, capacity, [&] {
        const CloudClient &record = clientFromHandle(client);
        return probe(record, mergedHeaders(record.headers, headersJson));
    });
}

} // namespace

extern "C" {

NorvaneCloudClient *NorvaneCloud_CreateClient(const char16_t *optionsJson)
{
    clearLastError();
    try {
        return new NorvaneCloudClient(cacheOptionsFromJson(optionsJson));
    } catch (const std::exception &error) {
        setLastError(QString::fromUtf8(error.what()));
        return nullptr;
    }
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
        CloudClient &record = clientFromHandle(client);
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
        QHash<QByteArray, QByteArray> headers = headersFromJson(headersJson);
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
        client, headersJson, buffer, capacity, [&](const CloudClient &record, const auto &headers) {
            return cogProbeToJson(record.cog.probe(urlArgument(url), headers));
        });
}

int32_t NorvaneCloud_GeoParquetProbeJson(
    NorvaneCloudClient *client, const char16_t *url, const char16_t *headersJson, char16_t *buffer, int32_t capacity)
{
    return probeReturningText(
        client, headersJson, buffer, capacity, [&](const CloudClient &record, const auto &headers) {
            return geoParquetProbeToJson(record.geoParquet.probe(urlArgument(url), headers));
        });
}

int32_t NorvaneCloud_PmTilesInspectJson(NorvaneCloudClient *client,
    const char16_t *location,
    const char16_t *headersJson,
    char16_t *buffer,
    int32_t capacity)
{
    return probeReturningText(
        client, headersJson, buffer, capacity, [&](const CloudClient &record, const auto &headers) {
            // The text form: a local archive path reaches the probe as a path, not as a URL.
            return pmTilesProbeToJson(record.pmTiles.probe(textArgument(location), headers));
        });
}

int32_t NorvaneCloud_PmTilesProbeJson(
    NorvaneCloudClient *client, const char16_t *url, const char16_t *headersJson, char16_t *buffer, int32_t capacity)
{
    return probeReturningText(
        client, headersJson, buffer, capacity, [&](const CloudClient &record, const auto &headers) {
            return pmTilesProbeToJson(record.pmTiles.probe(urlArgument(url), headers));
        });
}

int32_t NorvaneCloud_StacSearchJson(NorvaneCloudClient *client,
    const char16_t *catalogUrl,
    const char16_t *searchRequestJson,
    char16_t *buffer,
    int32_t capacity)
{
    const ApplicationGuard guard;
    return callReturningText(buffer, capacity, [&] {
        const CloudClient &record = clientFromHandle(client);
        const std::unique_ptr<StacClient> stac = stacClientFor(record, catalogUrl);
        return searchResultToJson(stac->search(searchRequestFromJson(searchRequestJson)));
    });
}

int32_t NorvaneCloud_StacResolveCogLayerJson(NorvaneCloudClient *client,
    const char16_t *catalogUrl,
    const char16_t *searchRequestJson,
    const char16_t *assetKey,
    int32_t itemIndex,
    char16_t *buffer,
    int32_t capacity)
{
    const ApplicationGuard guard;
    return callReturningText(buffer, capacity, [&] {
        const CloudClient &record = clientFromHandle(client);
        const std::unique_ptr<StacClient> stac = stacClientFor(record, catalogUrl);
        const StacSearchResult page = stac->search(searchRequestFromJson(searchRequestJson));
        if (itemIndex < 0 || itemIndex >= page.items.size())
            throw std::invalid_argument(FlatMessages::itemIndexOutOfRange);
        return cogLayerToJson(stac->cogLayer(page.items.at(itemIndex), textArgument(assetKey)));
    });
}

} // extern "C"
