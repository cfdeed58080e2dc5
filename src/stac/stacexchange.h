#pragma once

// The one HTTP exchange of the STAC client: a blocking GET or POST whose successful answers are kept in the
// shared range cache under a key that covers URL, method, body and configured headers.

#include <norvanecloud/rangetransport.h>

#include <QByteArray>
#include <QHash>
#include <QUrl>

namespace Norvane::Cloud::StacExchange {

/// The request whose cache key stands for the exchange. It is never sent: the method and the body ride in
/// two pseudo-headers, which configured headers of the same name replace.
CloudRangeRequest keyRequest(
    const QUrl &url, const QByteArray &method, const QByteArray &body, const QHash<QByteArray, QByteArray> &headers);

/// The answer body, from the cache or the network. Only the exact method "POST" sends the body; anything
/// else is a GET. Throws std::runtime_error for a missing application object, the time-out, a network error
/// or a status outside 200-299; nothing is stored then.
QByteArray run(CloudRangeCache &cache,
    const QUrl &url,
    const QByteArray &method,
    const QByteArray &body,
    const QHash<QByteArray, QByteArray> &headers,
    int timeoutMilliseconds);

} // namespace Norvane::Cloud::StacExchange
