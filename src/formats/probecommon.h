#pragma once

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

} // namespace Norvane::Cloud
