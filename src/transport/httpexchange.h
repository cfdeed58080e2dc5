#pragma once

// The synchronous HTTP exchange of the library: one request, run to completion in a nested event loop on the
// calling thread, bounded by a time-out and an optional cancellation test. The range reader and the STAC client
// both talk to servers through it: the reader with the exchange's own failure messages, STAC with its own.

#include <QByteArray>
#include <QEventLoop>
#include <QList>
#include <QNetworkReply>
#include <QPair>
#include <QString>
#include <QUrl>

#include <functional>

namespace Norvane::Cloud::HttpExchange {

enum class Method { Get, Head, Post };

/// What to send and how long to wait for it.
struct Request {
    QUrl url;
    Method method = Method::Get;
    /// Set in this order; a header replaces an earlier one of the same name, whatever its letter case.
    QList<QPair<QByteArray, QByteArray>> headers;
    /// Sent with Post only.
    QByteArray body;
    int timeoutMilliseconds = 30000;
    /// Polled every 25 ms while waiting; may be empty.
    std::function<bool()> cancellationRequested;
    /// The events the nested loop delivers while it waits.
    QEventLoop::ProcessEventsFlags loopFlags = QEventLoop::AllEvents;
};

/// How the wait ended. Only a finished exchange has an answer; the others aborted the request.
enum class Ending { Finished, TimedOut, Cancelled };

/// What the server answered, copied from the finished reply before the network objects go.
struct Answer {
    Ending ending = Ending::Finished;
    /// The network library's verdict; anything but NoError (a refused connection, a 4xx or 5xx status...) is a
    /// failure that the caller words.
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    QString errorText;
    /// 0 when the reply carries none, as for a failed connection.
    qint32 statusCode = 0;
    /// The URL the answer came from, after redirects.
    QUrl url;
    QByteArray body;
    QByteArray acceptRanges;
    QByteArray contentLength;
    QByteArray contentRange;
    QByteArray contentType;
    QByteArray etag;
    QByteArray lastModified;
};

/// Throws std::runtime_error when the process has no QCoreApplication: without one the nested event loop would
/// never deliver the reply. Called before any network object is made.
void requireApplicationObject();

/// Sends request and waits until the reply finishes, the time-out passes or the cancellation test returns true,
/// cancellation taking precedence over the time-out. Follows redirects except from HTTPS to plain HTTP. Throws
/// only for a missing application object.
Answer exchange(const Request &request);

/// exchange(), with every other end than a finished answer without a network error thrown as std::runtime_error
/// "HTTP request cancelled", "HTTP request timed out" or "HTTP request failed (<status>): <error text>".
Answer exchangeOrThrow(const Request &request);

} // namespace Norvane::Cloud::HttpExchange
