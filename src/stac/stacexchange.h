#pragma once

// The HTTP exchange of the STAC client: a blocking GET or POST through the library's one exchange, with STAC's own
// headers, status rule and messages, whose successful answers are kept in the shared range cache under a key that
// covers URL, method, body and configured headers.

#include <norvanecloud/rangetransport.h>

#include <QByteArray>
#include <QHash>
#include <QUrl>

namespace Norvane::Cloud::StacExchange {

/// The answer body, from the cache or the network. Only the exact method "POST" sends the body; anything
/// else is a GET. The configured headers go only to the origin of catalogUrl. Throws std::runtime_error for a
/// missing application object, the time-out, a network error, a status outside 200-299 or an answer over 64 MiB;
/// nothing is stored then.
QByteArray run(CloudRangeCache &cache,
    const QUrl &catalogUrl,
    const QUrl &url,
    const QByteArray &method,
    const QByteArray &body,
    const QHash<QByteArray, QByteArray> &headers,
    int timeoutMilliseconds);

} // namespace Norvane::Cloud::StacExchange
