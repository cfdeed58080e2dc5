#pragma once

// The demo's sample server: HTTP/1.1 on 127.0.0.1, in-memory objects served with single byte ranges, and computed
// answers for the catalogue routes. One request per connection.

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>

namespace NorvaneCloudTool {

class DemoServer final {
public:
    /// Computes the body of an answer from the body of the request.
    using Handler = std::function<QByteArray(const QByteArray &requestBody)>;

    DemoServer();
    /// Stops the server.
    ~DemoServer();
    DemoServer(const DemoServer &) = delete;
    DemoServer &operator=(const DemoServer &) = delete;

    /// Serves content for GET and HEAD at path (without query), whole or as one byte range. Without an ETag one is
    /// made from a digest of the content.
    void serveObject(const QString &path,
        const QByteArray &content,
        const QByteArray &contentType,
        const QByteArray &etag = QByteArray());
    /// Answers every request to path with 200 and the handler's body. The handler runs on the server's thread.
    void serveComputed(const QString &path, const QByteArray &contentType, Handler handler);

    /// Listens on a port chosen by the system, in a thread of its own so that it answers while the caller blocks.
    /// False, with errorString() set, when it cannot listen.
    bool start();
    /// Closes the listening socket and every connection, and ends the thread.
    void stop();
    QString errorString() const;
    /// "http://127.0.0.1:<port>" plus path.
    QUrl url(const QString &path) const;
    /// Requests received for path so far.
    int requestCount(const QString &path) const;

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace NorvaneCloudTool
