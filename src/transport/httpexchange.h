#pragma once

// The synchronous HTTP exchange of the library: one request and its redirects, run in a nested event loop on the
// calling thread, bounded as a whole by a time-out and an optional cancellation test, receiving no more of a body
// than the caller takes. The range reader and the STAC client both talk to servers through it: the reader with the
// exchange's own failure messages, STAC with its own.

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
    /// The library's own headers, sent on every request of the exchange. Set in this order; a header replaces an
    /// earlier one of the same name, whatever its letter case.
    QList<QPair<QByteArray, QByteArray>> headers;
    /// The caller's headers, set after the library's own, but sent only while a request goes to the origin (scheme,
    /// host and port) of callerOrigin: credentials never follow a redirect to another origin.
    QList<QPair<QByteArray, QByteArray>> callerHeaders;
    /// Where the caller's headers may go; empty: the origin of url.
    QUrl callerOrigin;
    /// Sent with Post only.
    QByteArray body;
    int timeoutMilliseconds = 30000;
    /// Polled every 25 ms while waiting; may be empty.
    std::function<bool()> cancellationRequested;
    /// The events the nested loop delivers while it waits.
    QEventLoop::ProcessEventsFlags loopFlags = QEventLoop::AllEvents;
    /// How many body bytes of an answer with the given status the caller takes; the exchange stops receiving once
    /// that many arrived (0: as soon as the status is known). Empty or negative: the whole body.
    std::function<qint64(qint32 statusCode)> bodyBytesTaken;
};

/// How the wait ended. Only a finished exchange has an answer; the others aborted the request.
enum class Ending { Finished, TimedOut, Cancelled };

/// What the server answered, as far as the exchange took it.
struct Answer {
    Ending ending = Ending::Finished;
    /// The exchange's verdict, in the network library's terms; anything but NoError (a refused connection, a 4xx or
    /// 5xx status, a malformed answer or a header over 64 KiB, a refused redirect...) is a failure that the caller
    /// words with errorText.
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    QString errorText;
    /// 0 when there is none, as for a failed connection.
    qint32 statusCode = 0;
    /// The URL the answer came from, after redirects.
    QUrl url;
    /// What was received of the body: all of it, or the bytes that had arrived when the exchange stopped receiving.
    QByteArray body;
    /// The exchange stopped receiving before the server finished sending.
    bool bodyCut = false;
    QByteArray acceptRanges;
    QByteArray contentLength;
    QByteArray contentRange;
    QByteArray contentType;
    QByteArray etag;
    QByteArray lastModified;
};

/// Sends request and waits until the answer is complete or taken, the time-out passes or the cancellation test
/// returns true, cancellation taking precedence over the time-out. Follows redirects (at most 20) except from HTTPS
/// to plain HTTP. Each request goes on a connection of its own, closed before the call returns: whatever the server
/// sends, the call returns within the time-out and leaves nothing running. Throws only for a missing application
/// object, before any network object is made.
Answer exchange(const Request &request);

/// exchange(), with every other end than a finished answer without a network error thrown as std::runtime_error
/// "HTTP request cancelled", "HTTP request timed out" or "HTTP request failed (<status>): <error text>".
Answer exchangeOrThrow(const Request &request);

} // namespace Norvane::Cloud::HttpExchange
