#pragma once

// One request of an exchange on a connection of its own: connect (plain, through an HTTP proxy, or TLS), send the
// request, read the answer until it is done, the deadline passes or the caller cancels, then close.

#include "transport/httpexchange.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QUrl>

namespace Norvane::Cloud::HttpExchange {

/// The method's name on the request line: "GET", "HEAD" or "POST".
QByteArray methodName(Method method);
bool isHttps(const QUrl &url);
/// The URL's port, or the default port of its scheme.
quint16 portOf(const QUrl &url);

/// One request of an exchange: where it goes and what it carries.
struct Hop {
    QUrl url;
    Method method = Method::Get;
    QByteArray body;
    bool withCallerHeaders = true;
};

/// What one request brought back.
struct HopAnswer {
    /// Only a finished transfer has more than its ending.
    Answer answer;
    /// The answer's Location field; empty when it has none.
    QByteArray location;
};

/// Sends hop with the headers, cancellation test, event loop flags and body limit of request, and waits in a nested
/// event loop until the answer is done, the deadline passes or the cancellation test returns true. The connection is
/// closed before the call returns, whatever the server still sends.
HopAnswer transfer(const Request &request, const Hop &hop, const QDeadlineTimer &deadline);

} // namespace Norvane::Cloud::HttpExchange
