#pragma once

// A small HTTP/1.1 server on 127.0.0.1 for tests and demos: serves files and in-memory objects with byte ranges,
// injects faults per path, answers computed routes and records every request it receives.

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>

namespace Norvane::Cloud::Testing {

/// Header fields in the order they were sent or are to be sent.
using HeaderList = QList<QPair<QByteArray, QByteArray>>;

/// One request as the server received it.
struct LoopbackRequest {
    QByteArray method;
    /// Percent-decoded path, e.g. "/tiff/a b.tif".
    QString path;
    /// Query without the "?", still encoded; empty when there was none.
    QString query;
    /// The request target exactly as sent on the request line.
    QByteArray target;
    /// Raw header fields in order of arrival, names as sent.
    HeaderList headers;
    QByteArray body;

    /// Value of the first header of that name, compared case-insensitively; empty when absent.
    QByteArray header(const QByteArray &name) const;
    bool hasHeader(const QByteArray &name) const;
    /// Every value sent under that name, in order.
    QList<QByteArray> headerValues(const QByteArray &name) const;
};

/// An answer built by a handler. Content-Length and Connection are added when the list lacks them; a
/// "Connection: close" header makes the server close the connection after the answer.
struct LoopbackResponse {
    int status = 200;
    /// Empty: the usual phrase for the status.
    QByteArray reasonPhrase;
    HeaderList headers;
    QByteArray body;
};

/// Faults and variations for one path. Every field left at its default means "behave like a normal server".
/// Route faults that change what is sent (status, redirect, Content-Range, body length) apply to served files and
/// objects; the delivery faults (stalls, cuts, headers, Content-Length) apply to every answer of the path,
/// handler answers included.
struct RouteBehaviour {
    /// Non-zero: answer every request with this status and fixedBody instead of the object.
    int fixedStatus = 0;
    QByteArray fixedBody;

    /// Non-zero (301, 302, 307, 308): redirect to redirectLocation with an empty body, closing the connection (Qt 6.4
    /// may send a request twice when a redirect arrives on a connection it keeps).
    int redirectStatus = 0;
    QByteArray redirectLocation;

    /// Set: send this Content-Range value on a 206 instead of the true one (any bytes, malformed allowed).
    std::optional<QByteArray> contentRange;
    /// Send no Content-Range at all on a 206.
    bool omitContentRange = false;
    /// Answer a ranged GET with 200 and the whole object, as a server without range support does.
    bool ignoreRange = false;
    /// Bytes added to (positive) or removed from (negative) the body of a ranged answer; the headers still
    /// describe the requested range, Content-Length matches what is really sent.
    qint64 bodyLengthDelta = 0;
    /// Value of "Accept-Ranges"; std::nullopt leaves the header out. Default "bytes".
    std::optional<QByteArray> acceptRanges = QByteArrayLiteral("bytes");

    /// Added to the answer; a name already present (case-insensitive) is replaced.
    HeaderList extraHeaders;
    /// Send no Content-Length; the connection is closed after the body to delimit it.
    bool omitContentLength = false;

    /// Receive the request but send nothing until releaseStalledRequests() or stop().
    bool stallBeforeHeaders = false;
    /// Non-negative: send the headers and this many body bytes, then stall until stop().
    qint64 stallAfterBodyBytes = -1;
    /// Non-negative: send the headers and this many body bytes, then close the connection.
    qint64 closeAfterBodyBytes = -1;
};

/// The server. It runs in its own thread, so it keeps answering while the calling thread blocks in a nested event
/// loop. Configuration calls and the request log are thread-safe; handlers run on the server thread.
class LoopbackHttpServer final {
public:
    using Handler = std::function<LoopbackResponse(const LoopbackRequest &)>;
    // Short names for tests.
    using Request = LoopbackRequest;
    using Response = LoopbackResponse;

    LoopbackHttpServer();
    /// Stops the server.
    ~LoopbackHttpServer();
    LoopbackHttpServer(const LoopbackHttpServer &) = delete;
    LoopbackHttpServer &operator=(const LoopbackHttpServer &) = delete;

    /// Makes start() listen for HTTPS with this certificate and private key (PEM); url() then gives "https" URLs.
    /// Clients must trust the certificate (for Qt: add it to the default QSslConfiguration's CA certificates).
    void setTlsCredentials(const QByteArray &certificatePem, const QByteArray &privateKeyPem);

    /// Listens on 127.0.0.1 on a port chosen by the system. False (see errorString()) when that fails.
    bool start();
    /// Closes every connection (stalled ones included) and the listening socket, and ends the thread.
    void stop();
    bool isListening() const;
    QString errorString() const;
    quint16 port() const;
    /// "http://127.0.0.1:<port>" (or "https://") plus the path (which should start with "/"; it may carry a query).
    QUrl url(const QString &path) const;

    /// Serves the files below root for GET and HEAD at "/<relative path>".
    void serveDirectory(const QString &root);
    /// Serves bytes held in memory at path, like a file. An empty contentType is chosen from the extension.
    void serveBytes(const QString &path, const QByteArray &content, const QByteArray &contentType = QByteArray());
    /// Sets (replaces) the faults of path; the path is matched exactly, without the query.
    void setBehaviour(const QString &path, const RouteBehaviour &behaviour);
    void clearBehaviour(const QString &path);
    /// Answers every request to path (any method) with the handler's response. Runs on the server thread.
    void setHandler(const QString &path, Handler handler);
    void clearHandler(const QString &path);
    /// Answers the requests held by stallBeforeHeaders, with the path's behaviour as it is now (stalls ignored).
    void releaseStalledRequests();

    /// The log of every complete request received, oldest first.
    QList<LoopbackRequest> requests() const;
    int requestCount() const;
    /// Requests whose path equals path.
    int requestCount(const QString &path) const;
    void clearRequests();
    /// Blocks until at least count requests have been logged; false when timeoutMilliseconds passes first.
    bool waitForRequests(int count, int timeoutMilliseconds = 10000) const;

    /// A port on 127.0.0.1 that nothing listens on at the moment of the call (for refused connections).
    static quint16 unusedPort();
    /// How a served object answers request: the whole content, or one byte range (206, or 416 when it lies past
    /// the end), with "Accept-Ranges: bytes". For handlers that decide per request, by credentials for example.
    static LoopbackResponse objectResponse(
        const LoopbackRequest &request, const QByteArray &content, const QByteArray &contentType);
    /// The Content-Type served for a file name.
    static QByteArray contentTypeFor(const QString &fileName);

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace Norvane::Cloud::Testing
