#pragma once

// What a range read asks of and tells the host's operation context it runs in: whether it is cancelled, whether its
// resource policy admits it, and its progress.

#include <norvanecloud/rangetransport.h>

#include <QByteArray>
#include <QUrl>

namespace Norvane::Cloud::ReadContext {

/// The operation context asks for cancellation, or the request's own test does.
bool isCancelled(const CloudRangeRequest &request);

/// Before the read starts: the context's resource policy and cancellation (std::runtime_error "HTTP request
/// cancelled"), both as the context throws them; then progress says the read of the URL is under way.
void admit(const CloudRangeRequest &request, const QByteArray &encodedUrl);

/// The read is done: progress says how many bytes it gave and whether they came from the cache.
void reportDone(const CloudRangeRequest &request, qint64 bytes, bool fromCache);

} // namespace Norvane::Cloud::ReadContext
