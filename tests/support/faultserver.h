#pragma once

// A scripted HTTP server on 127.0.0.1 for faults a real server will not produce. Each request is answered with the
// raw bytes a script returns for it (status line, headers and body, malformed or not), optionally after a delay,
// cut short or stalled. One request per connection. Every request is logged.

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QUrl>

#include <functional>
#include <memory>

namespace Norvane::Cloud::Testing {

struct FaultRequest {
    QByteArray method;
    QByteArray target;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    /// First value of the header, name compared case-insensitively; empty when absent.
    QByteArray header(const QByteArray &name) const;
};

struct FaultReply {
    QByteArray bytes;
    int delayMilliseconds = 0;
    /// Non-negative: send only this many bytes, then close (or stall).
    qint64 cutAfterBytes = -1;
    /// Keep the connection open and silent after sending, until the server stops.
    bool stall = false;
    /// Non-empty: after bytes, send this again and again until the client closes the connection.
    QByteArray repeat = {};
};

/// "HTTP/1.1 <status> X", the headers, Content-Length (unless given) and "Connection: close", then the body.
FaultReply httpReply(int status, const QList<QPair<QByteArray, QByteArray>> &headers, const QByteArray &body);
/// What an honest range server sends for request over object: 206 with Content-Range for a "Range: bytes=a-b"
/// header, otherwise 200 with the whole object; "Accept-Ranges: bytes" on both.
FaultReply objectReply(const FaultRequest &request, const QByteArray &object);

class FaultServer final {
public:
    using Script = std::function<FaultReply(const FaultRequest &)>;

    /// Listens at once on a port chosen by the system. The script runs on the server's own thread.
    explicit FaultServer(Script script);
    ~FaultServer();
    FaultServer(const FaultServer &) = delete;
    FaultServer &operator=(const FaultServer &) = delete;

    QUrl url(const QByteArray &pathAndQuery = "/") const;
    QList<FaultRequest> requests() const;
    int requestCount() const;
    /// Connections accepted and not yet closed by either side.
    int openConnections() const;
    /// A loopback port nothing listens on.
    static quint16 unusedPort();

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace Norvane::Cloud::Testing
