#pragma once

// The record behind a flat handle. The public header declares the handle as an opaque struct; this is that struct,
// so the library and its hosts speak of one client under one name.

#include <norvanecloud/flat.h>
#include <norvanecloud/formats.h>
#include <norvanecloud/rangetransport.h>

#include <QByteArray>
#include <QHash>

#include <memory>

/// One cache and one source of each format on it, plus the default request headers and the time-out of every
/// exchange. Members are built in declaration order and end in reverse, so the sources go before their cache.
struct NorvaneCloudClient {
    explicit NorvaneCloudClient(const Norvane::Cloud::CloudCacheOptions &options);

    std::shared_ptr<Norvane::Cloud::CloudRangeCache> cache;
    Norvane::Cloud::CogSource cog;
    Norvane::Cloud::GeoParquetSource geoParquet;
    Norvane::Cloud::PmTilesSource pmTiles;
    QHash<QByteArray, QByteArray> headers;
    int timeoutMilliseconds = 30000;
};

namespace Norvane::Cloud {

/// The client a handle points to; throws std::invalid_argument "Cloud client is null" for a null handle.
NorvaneCloudClient &clientFromHandle(NorvaneCloudClient *handle);

} // namespace Norvane::Cloud
