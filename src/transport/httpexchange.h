#pragma once

// The synchronous HTTP exchange under HttpRangeReader: one prepared request, run to completion in a nested event
// loop on the calling thread, bounded by a time-out and an optional cancellation test.

#include <QNetworkReply>

#include <functional>
#include <memory>

class QNetworkAccessManager;
class QNetworkRequest;

namespace Norvane::Cloud::HttpExchange {

enum class Method { Get, Head };

/// Throws std::runtime_error when the process has no QCoreApplication: without one the nested event loop would
/// never deliver the reply. Called before any network object is made.
void requireApplicationObject();

/// Sends request with manager and waits until the reply finishes, timeoutMilliseconds pass or
/// cancellationRequested (polled every 25 ms, may be empty) returns true. Returns the finished reply, which may
/// carry a network error; the caller owns it and must destroy it before the manager. Throws std::runtime_error
/// "HTTP request cancelled" or "HTTP request timed out", cancellation taking precedence; the reply is then aborted
/// and deleted later.
std::unique_ptr<QNetworkReply> exchange(int timeoutMilliseconds,
    QNetworkAccessManager &manager,
    const QNetworkRequest &request,
    Method method,
    const std::function<bool()> &cancellationRequested);

/// Throws std::runtime_error "HTTP request failed (<status>): <error text>" for a reply that finished with an error.
[[noreturn]] void failWithNetworkError(const QNetworkReply &reply);

} // namespace Norvane::Cloud::HttpExchange
