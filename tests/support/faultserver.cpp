#include "faultserver.h"

#include <QHostAddress>
#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>

namespace Norvane::Cloud::Testing {

QByteArray FaultRequest::header(const QByteArray &name) const
{
    for (const auto &field : headers) {
        if (field.first.compare(name, Qt::CaseInsensitive) == 0)
            return field.second;
    }
    return {};
}

FaultReply httpReply(int status, const QList<QPair<QByteArray, QByteArray>> &headers, const QByteArray &body)
{
    QByteArray bytes = "HTTP/1.1 " + QByteArray::number(status) + " X\r\n";
    bool hasLength = false;
    for (const auto &field : headers) {
        hasLength = hasLength || field.first.compare("Content-Length", Qt::CaseInsensitive) == 0;
        bytes += field.first + ": " + field.second + "\r\n";
    }
    if (!hasLength)
        bytes += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    return { bytes + "Connection: close\r\n\r\n" + body };
}

FaultReply objectReply(const FaultRequest &request, const QByteArray &object)
{
    static const QRegularExpression range(QStringLiteral("^bytes=(\\d+)-(\\d+)$"));
    const auto match = range.match(QString::fromLatin1(request.header("Range")));
    const QByteArray body = request.method == "HEAD" ? QByteArray() : object;
    if (!match.hasMatch())
        return httpReply(
            200, { { "Accept-Ranges", "bytes" }, { "Content-Length", QByteArray::number(object.size()) } }, body);
    const qint64 first = match.captured(1).toLongLong();
    const qint64 last = qMin(match.captured(2).toLongLong(), qint64(object.size()) - 1);
    const QByteArray contentRange = "bytes " + QByteArray::number(first) + '-' + QByteArray::number(last) + '/'
        + QByteArray::number(object.size());
    return httpReply(
        206, { { "Accept-Ranges", "bytes" }, { "Content-Range", contentRange } }, object.mid(first, last - first + 1));
}

class FaultServer::Private {
public:
    Script script;
    QThread thread;
    QObject context;
    QTcpServer *server = nullptr;
    quint16 port = 0;
    mutable QMutex mutex;
    QList<FaultRequest> log;
    int openConnections = 0;

    void accept(QTcpSocket *socket);
    static bool parse(const QByteArray &received, FaultRequest &request);
    void answer(QTcpSocket *socket, const FaultRequest &request);
};

bool FaultServer::Private::parse(const QByteArray &received, FaultRequest &request)
{
    const qsizetype headerEnd = received.indexOf("\r\n\r\n");
    if (headerEnd < 0)
        return false;
    const QList<QByteArray> lines = received.left(headerEnd).split('\n');
    const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
    request = {};
    request.method = requestLine.value(0);
    request.target = requestLine.value(1);
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
            request.headers.append({ lines[i].left(colon).trimmed(), lines[i].mid(colon + 1).trimmed() });
    }
    const qint64 bodyLength = request.header("Content-Length").toLongLong();
    if (received.size() - headerEnd - 4 < bodyLength)
        return false;
    request.body = received.mid(headerEnd + 4, bodyLength);
    return true;
}

void FaultServer::Private::accept(QTcpSocket *socket)
{
    // One request per connection: whatever arrives after it is complete is ignored.
    auto received = std::make_shared<QByteArray>();
    auto answered = std::make_shared<bool>(false);
    QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, received, answered] {
        *received += socket->readAll();
        FaultRequest request;
        if (*answered || !parse(*received, request))
            return;
        *answered = true;
        {
            QMutexLocker lock(&mutex);
            log.append(request);
        }
        answer(socket, request);
    });
    QObject::connect(socket, &QTcpSocket::disconnected, socket, [this, socket] {
        QMutexLocker lock(&mutex);
        --openConnections;
        socket->deleteLater();
    });
    QMutexLocker lock(&mutex);
    ++openConnections;
}

void FaultServer::Private::answer(QTcpSocket *socket, const FaultRequest &request)
{
    const FaultReply reply = script(request);
    QTimer::singleShot(reply.delayMilliseconds, socket, [socket, reply] {
        const QByteArray sent = reply.cutAfterBytes < 0 ? reply.bytes : reply.bytes.left(reply.cutAfterBytes);
        socket->write(sent);
        socket->flush();
        if (!reply.repeat.isEmpty()) {
            // Kept a little ahead of the client, so the server's memory stays small whatever the client takes.
            const auto refill = [socket, repeat = reply.repeat] {
                while (socket->state() == QAbstractSocket::ConnectedState && socket->bytesToWrite() < (1 << 16))
                    socket->write(repeat);
            };
            QObject::connect(socket, &QTcpSocket::bytesWritten, socket, refill);
            refill();
        } else if (!reply.stall)
            socket->disconnectFromHost();
    });
}

FaultServer::FaultServer(Script script)
    : d(std::make_unique<Private>())
{
    d->script = std::move(script);
    d->context.moveToThread(&d->thread);
    d->thread.start();
    QMetaObject::invokeMethod(
        &d->context,
        [this] {
            d->server = new QTcpServer;
            d->server->listen(QHostAddress::LocalHost, 0);
            d->port = d->server->serverPort();
            QObject::connect(d->server, &QTcpServer::newConnection, d->server, [this] {
                while (QTcpSocket *socket = d->server->nextPendingConnection())
                    d->accept(socket);
            });
        },
        Qt::BlockingQueuedConnection);
}

FaultServer::~FaultServer()
{
    QMetaObject::invokeMethod(
        &d->context,
        [this] {
            for (QTcpSocket *socket : d->server->findChildren<QTcpSocket *>())
                socket->abort();
            delete d->server;
        },
        Qt::BlockingQueuedConnection);
    d->thread.quit();
    d->thread.wait();
}

QUrl FaultServer::url(const QByteArray &pathAndQuery) const
{
    return QUrl::fromEncoded("http://127.0.0.1:" + QByteArray::number(d->port) + pathAndQuery);
}

QList<FaultRequest> FaultServer::requests() const
{
    QMutexLocker lock(&d->mutex);
    return d->log;
}

int FaultServer::requestCount() const
{
    QMutexLocker lock(&d->mutex);
    return int(d->log.size());
}

int FaultServer::openConnections() const
{
    QMutexLocker lock(&d->mutex);
    return d->openConnections;
}

quint16 FaultServer::unusedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

} // namespace Norvane::Cloud::Testing
