#pragma once

// What the format sources share when they inspect an object and read its bytes.

#include <norvanecloud/rangetransport.h>

namespace Norvane::Cloud {

/// Every probe result starts with the same five facts of the object's inspection; the last-modified value and
/// the status code are not kept.
template <typename ProbeResult> void copyInspection(ProbeResult &result, const CloudResourceMetadata &metadata)
{
    result.url = metadata.url;
    result.contentLength = metadata.contentLength;
    result.etag = metadata.etag;
    result.contentType = metadata.contentType;
    result.acceptsRanges = metadata.acceptsRanges;
}

/// A read of length bytes at offset through the shared cache, with the caller's extra headers and a default
/// operation context.
inline CloudRangeRequest rangeRequest(
    const QUrl &url, qint64 offset, qint64 length, const QHash<QByteArray, QByteArray> &headers)
{
    CloudRangeRequest request;
    request.url = url;
    request.offset = offset;
    request.length = length;
    request.headers = headers;
    request.useCache = true;
    return request;
}

} // namespace Norvane::Cloud
