#include "demoserver.h"

#include <QCryptographicHash>
#include <QHash>
#include <QHostAddress>
#include <QMutex>
#include <QMutexLocker>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

#include <limits>
#include <optional>

namespace NorvaneCloudTool {

namespace {

using HeaderList = QList<QPair<QByteArray, QByteArray>>;

struct Route {
    QByteArray contentType;
    QByteArray content;
    QByteArray etag;
    DemoServer::Handler handler;
};

struct Request {
    QByteArray method;
    QString path;
    QByteArray range;
    QByteArray body;
};

struct Response {
    int status = 200;
    HeaderList headers;
    QByteArray body;
};

// True once the header block and as many body bytes as Content-Length announces have arrived.
bool parseRequest(const QByteArray &received, Request &request)
{
    const qsizetype headerEnd = received.indexOf("\r\n\r\n");
    if (headerEnd < 0)
        return false;
    const QList<QByteArray> lines = received.left(headerEnd).split('\n');
    qint64 bodyLength = 0;
    for (qsizetype index = 1; index < lines.size(); ++index) {
        const qsizetype colon = lines.at(index).indexOf(':');
        const QByteArray name = lines.at(index).left(colon).trimmed().toLower();
        const QByteArray value = lines.at(index).mid(colon + 1).trimmed();
        if (name == "content-length")
            bodyLength = value.toLongLong();
        else if (name == "range")
            request.range = value;
    }
    if (received.size() - headerEnd - 4 < bodyLength)
        return false;
    const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
    request.method = requestLine.value(0);
    request.path = QString::fromLatin1(requestLine.value(1).split('?').first());
    request.body = received.mid(headerEnd + 4, bodyLength);
    return true;
}

// One range "bytes=first-last" or "bytes=first-". Any other form is answered with the whole object, as servers do
// with range forms they do not support.
bool parseRange(const QByteArray &value, qint64 &first, qint64 &last)
{
    if (!value.startsWith("bytes=") || value.contains(','))
        return false;
    const QByteArray range = value.mid(6);
    const qsizetype dash = range.indexOf('-');
    bool firstValid = false;
    bool lastValid = true;
    first = range.left(dash).toLongLong(&firstValid);
    last = range.endsWith('-') ? std::numeric_limits<qint64>::max() : range.mid(dash + 1).toLongLong(&lastValid);
    return dash > 0 && firstValid && lastValid && last >= first;
}

Response objectResponse(const Route &route, const Request &request)
{
    Response response;
    response.headers = { { "Content-Type", route.contentType }, { "ETag", route.etag }, { "Accept-Ranges", "bytes" } };
    const qint64 size = route.content.size();
    qint64 first = 0;
    qint64 last = 0;
    if (!parseRange(request.range, first, last)) {
        response.body = route.content;
    } else if (first >= size) {
        response.status = 416;
        response.headers.append({ "Content-Range", "bytes */" + QByteArray::number(size) });
    } else {
        last = qMin(last, size - 1);
        response.status = 206;
        response.headers.append({ "Content-Range",
            "bytes " + QByteArray::number(first) + '-' + QByteArray::number(last) + '/' + QByteArray::number(size) });
        response.body = route.content.mid(first, last - first + 1);
    }
    return response;
}

// A HEAD answer carries the headers of the GET answer, Content-Length included, without its body.
QByteArray serialise(const Response &response, bool headOnly)
{
    static const QHash<int, QByteArray> reasons { { 200, "OK" }, { 206, "Partial Content" }, { 404, "Not Found" },
        { 405, "Method Not Allowed" }, { 416, "Range Not Satisfiable" } };
    QByteArray bytes
        = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + reasons.value(response.status) + "\r\n";
    for (const auto &field : response.headers)
        bytes += field.first + ": " + field.second + "\r\n";
    bytes += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\nConnection: close\r\n\r\n";
    return headOnly ? bytes : bytes + response.body;
}

} // namespace

class DemoServer::Private {
public:
    QThread thread;
    QObject context;
    QTcpServer *server = nullptr;
    quint16 port = 0;
    QString errorString;
    // Guards the routes, set by the caller, and the counts, kept by the server's thread.
    mutable QMutex mutex;
    QHash<QString, Route> routes;
    QHash<QString, int> requestCounts;

    void accept(QTcpSocket *socket);
    QByteArray respond(const Request &request);
};

void DemoServer::Private::accept(QTcpSocket *socket)
{
    auto received = std::make_shared<QByteArray>();
    QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, received] {
        // Once answered the socket is closing: anything more that arrives is not read.
        if (socket->state() != QAbstractSocket::ConnectedState)
            return;
        *received += socket->readAll();
        Request request;
        if (!parseRequest(*received, request))
            return;
        socket->write(respond(request));
        socket->disconnectFromHost();
    });
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
}

QByteArray DemoServer::Private::respond(const Request &request)
{
    std::optional<Route> route;
    {
        QMutexLocker lock(&mutex);
        ++requestCounts[request.path];
        if (routes.contains(request.path))
            route = routes.value(request.path);
    }
    Response response;
    if (!route) {
        response = { 404, { { "Content-Type", "text/plain" } }, "Not Found" };
    } else if (route->handler) {
        response = { 200, { { "Content-Type", route->contentType } }, route->handler(request.body) };
    } else if (request.method != "GET" && request.method != "HEAD") {
        response = { 405, { { "Allow", "GET, HEAD" } }, {} };
    } else {
        response = objectResponse(*route, request);
    }
    return serialise(response, request.method == "HEAD");
}

DemoServer::DemoServer()
    : d(std::make_unique<Private>())
{
    d->context.moveToThread(&d->thread);
}

DemoServer::~DemoServer()
{
    stop();
}

void DemoServer::serveObject(
    const QString &path, const QByteArray &content, const QByteArray &contentType, const QByteArray &etag)
{
    const QByteArray digest
        = etag.isEmpty() ? QCryptographicHash::hash(content, QCryptographicHash::Sha1).toHex().left(16) : QByteArray();
    const QByteArray tag = etag.isEmpty() ? '"' + digest + '-' + QByteArray::number(content.size(), 16) + '"' : etag;
    QMutexLocker lock(&d->mutex);
    d->routes.insert(path, Route { contentType, content, tag, {} });
}

void DemoServer::serveComputed(const QString &path, const QByteArray &contentType, Handler handler)
{
    QMutexLocker lock(&d->mutex);
    d->routes.insert(path, Route { contentType, {}, {}, std::move(handler) });
}

bool DemoServer::start()
{
    d->thread.start();
    QMetaObject::invokeMethod(
        &d->context,
        [this] {
            d->server = new QTcpServer;
            if (!d->server->listen(QHostAddress::LocalHost, 0)) {
                d->errorString = d->server->errorString();
                return;
            }
            d->port = d->server->serverPort();
            QObject::connect(d->server, &QTcpServer::newConnection, d->server, [this] {
                while (QTcpSocket *socket = d->server->nextPendingConnection())
                    d->accept(socket);
            });
        },
        Qt::BlockingQueuedConnection);
    if (d->port == 0)
        stop();
    return d->port != 0;
}

void DemoServer::stop()
{
    if (!d->thread.isRunning())
        return;
    // Accepted sockets are children of the listening server and go with it.
    QMetaObject::invokeMethod(
        &d->context,
        [this] {
            delete d->server;
            d->server = nullptr;
        },
        Qt::BlockingQueuedConnection);
    d->thread.quit();
    d->thread.wait();
}

QString DemoServer::errorString() const
{
    return d->errorString;
}

QUrl DemoServer::url(const QString &path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(d->port).arg(path));
}

int DemoServer::requestCount(const QString &path) const
{
    QMutexLocker lock(&d->mutex);
    return d->requestCounts.value(path);
}

} // namespace NorvaneCloudTool
