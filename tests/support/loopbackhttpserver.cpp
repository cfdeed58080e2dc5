#include "loopbackhttpserver.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QHostAddress>
#include <QLocale>
#include <QMutex>
#include <QMutexLocker>
#include <QPointer>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QWaitCondition>

namespace Norvane::Cloud::Testing {

namespace {

bool sameName(const QByteArray &left, const QByteArray &right)
{
    return left.compare(right, Qt::CaseInsensitive) == 0;
}

bool hasHeaderIn(const HeaderList &headers, const QByteArray &name)
{
    for (const auto &field : headers) {
        if (sameName(field.first, name))
            return true;
    }
    return false;
}

void replaceHeader(HeaderList &headers, const QByteArray &name, const QByteArray &value)
{
    bool replaced = false;
    for (auto it = headers.begin(); it != headers.end();) {
        if (sameName(it->first, name)) {
            if (replaced) {
                it = headers.erase(it);
                continue;
            }
            it->first = name;
            it->second = value;
            replaced = true;
        }
        ++it;
    }
    if (!replaced)
        headers.emplaceBack(name, value);
}

void removeHeader(HeaderList &headers, const QByteArray &name)
{
    headers.removeIf([&name](const QPair<QByteArray, QByteArray> &field) { return sameName(field.first, name); });
}

QByteArray reasonPhraseFor(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 204:
        return "No Content";
    case 206:
        return "Partial Content";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 303:
        return "See Other";
    case 304:
        return "Not Modified";
    case 307:
        return "Temporary Redirect";
    case 308:
        return "Permanent Redirect";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 416:
        return "Range Not Satisfiable";
    case 500:
        return "Internal Server Error";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

QByteArray httpDate(const QDateTime &time)
{
    return QLocale::c().toString(time.toUTC(), QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'")).toLatin1();
}

struct ServedObject {
    QByteArray content;
    QByteArray contentType;
    QByteArray etag;
    QByteArray lastModified;
};

// A single "bytes=a-b", "bytes=a-" or "bytes=-n". Anything else counts as no usable Range (whole object, like
// servers that do not support the form).
struct ParsedRange {
    bool present = false;
    bool satisfiable = false;
    qint64 first = 0;
    qint64 last = 0;
};

ParsedRange parseRange(const QByteArray &value, qint64 size)
{
    ParsedRange range;
    const QByteArray trimmed = value.trimmed();
    if (!trimmed.startsWith("bytes=") || trimmed.contains(','))
        return range;
    const QByteArray rangeText = trimmed.mid(6).trimmed();
    const int dash = rangeText.indexOf('-');
    if (dash < 0)
        return range;
    const QByteArray firstText = rangeText.left(dash).trimmed();
    const QByteArray lastText = rangeText.mid(dash + 1).trimmed();
    bool firstOk = false;
    bool lastOk = false;
    if (firstText.isEmpty()) {
        const qint64 suffix = lastText.toLongLong(&lastOk);
        if (!lastOk || suffix < 0)
            return range;
        range.present = true;
        range.satisfiable = suffix > 0 && size > 0;
        range.first = qMax<qint64>(0, size - suffix);
        range.last = size - 1;
        return range;
    }
    const qint64 first = firstText.toLongLong(&firstOk);
    qint64 last = size - 1;
    if (!lastText.isEmpty())
        last = lastText.toLongLong(&lastOk);
    else
        lastOk = true;
    if (!firstOk || !lastOk || first < 0 || (!lastText.isEmpty() && last < first))
        return range;
    range.present = true;
    range.satisfiable = first < size;
    range.first = first;
    range.last = qMin(last, size - 1);
    return range;
}

struct ConnectionState {
    QByteArray buffer;
    // Set while a request on this connection is stalled or the connection is being closed: later requests wait.
    bool held = false;
};

// How a served object answers a GET or HEAD, with the path's faults applied to the ranged answer.
LoopbackResponse objectAnswer(
    const LoopbackRequest &request, const RouteBehaviour &behaviour, const ServedObject &object)
{
    LoopbackResponse response;
    if (request.method != "GET" && request.method != "HEAD") {
        response.status = 405;
        response.headers.emplaceBack("Allow", "GET, HEAD");
        return response;
    }
    const qint64 size = object.content.size();
    response.headers.emplaceBack("Content-Type", object.contentType);
    if (!object.etag.isEmpty())
        response.headers.emplaceBack("ETag", object.etag);
    if (!object.lastModified.isEmpty())
        response.headers.emplaceBack("Last-Modified", object.lastModified);
    if (behaviour.acceptRanges)
        response.headers.emplaceBack("Accept-Ranges", *behaviour.acceptRanges);

    const ParsedRange range = request.hasHeader("Range") && !behaviour.ignoreRange
        ? parseRange(request.header("Range"), size)
        : ParsedRange();
    if (!range.present) {
        response.status = 200;
        response.body = object.content;
        return response;
    }
    if (!range.satisfiable) {
        response.status = 416;
        response.headers.emplaceBack("Content-Range", "bytes */" + QByteArray::number(size));
        return response;
    }
    response.status = 206;
    if (behaviour.contentRange) {
        response.headers.emplaceBack("Content-Range", *behaviour.contentRange);
    } else if (!behaviour.omitContentRange) {
        response.headers.emplaceBack("Content-Range",
            "bytes " + QByteArray::number(range.first) + '-' + QByteArray::number(range.last) + '/'
                + QByteArray::number(size));
    }
    response.body = object.content.mid(range.first, range.last - range.first + 1);
    if (behaviour.bodyLengthDelta > 0) {
        QByteArray extra = object.content.mid(range.last + 1, behaviour.bodyLengthDelta);
        extra.append(QByteArray(behaviour.bodyLengthDelta - extra.size(), 'x'));
        response.body.append(extra);
    } else if (behaviour.bodyLengthDelta < 0) {
        response.body.chop(qMin<qint64>(-behaviour.bodyLengthDelta, response.body.size()));
    }
    return response;
}

} // namespace

QByteArray LoopbackRequest::header(const QByteArray &name) const
{
    for (const auto &field : headers) {
        if (sameName(field.first, name))
            return field.second;
    }
    return QByteArray();
}

bool LoopbackRequest::hasHeader(const QByteArray &name) const
{
    return hasHeaderIn(headers, name);
}

QList<QByteArray> LoopbackRequest::headerValues(const QByteArray &name) const
{
    QList<QByteArray> values;
    for (const auto &field : headers) {
        if (sameName(field.first, name))
            values.append(field.second);
    }
    return values;
}

class LoopbackHttpServer::Private {
public:
    // Shared with the test thread; guarded by mutex.
    mutable QMutex mutex;
    mutable QWaitCondition requestLogged;
    QString root;
    QHash<QString, ServedObject> objects;
    QHash<QString, RouteBehaviour> behaviours;
    QHash<QString, Handler> handlers;
    QList<LoopbackRequest> log;
    QString errorString;
    quint16 port = 0;
    QByteArray certificatePem;
    QByteArray privateKeyPem;

    // Owned by the test thread, living in the server thread.
    QThread *thread = nullptr;
    QObject *worker = nullptr;

    // Touched on the server thread only.
    QTcpServer *server = nullptr;
    QHash<QTcpSocket *, ConnectionState> connections;
    QList<QPair<QPointer<QTcpSocket>, LoopbackRequest>> stalled;

    void acceptConnections();
    void readFrom(QTcpSocket *socket);
    bool takeRequest(ConnectionState &state, LoopbackRequest &request);
    void answer(QTcpSocket *socket, const LoopbackRequest &request, bool allowStall);
    LoopbackResponse buildResponse(const LoopbackRequest &request, const RouteBehaviour &behaviour, bool &found);
    bool findObject(const QString &path, ServedObject &object);
    void release();
    void closeAll();
};

void LoopbackHttpServer::Private::acceptConnections()
{
    while (server->hasPendingConnections()) {
        QTcpSocket *socket = server->nextPendingConnection();
        connections.insert(socket, ConnectionState());
        QObject::connect(socket, &QTcpSocket::readyRead, worker, [this, socket] { readFrom(socket); });
        QObject::connect(socket, &QTcpSocket::disconnected, worker, [this, socket] {
            connections.remove(socket);
            socket->deleteLater();
        });
    }
}

bool LoopbackHttpServer::Private::takeRequest(ConnectionState &state, LoopbackRequest &request)
{
    const int headerEnd = state.buffer.indexOf("\r\n\r\n");
    if (headerEnd < 0)
        return false;
    const QList<QByteArray> lines = state.buffer.left(headerEnd).split('\n');
    HeaderList headers;
    qint64 contentLength = 0;
    for (int index = 1; index < lines.size(); ++index) {
        const QByteArray line = lines.at(index).trimmed();
        const int colon = line.indexOf(':');
        if (colon <= 0)
            continue;
        headers.emplaceBack(line.left(colon).trimmed(), line.mid(colon + 1).trimmed());
        if (sameName(headers.last().first, "Content-Length"))
            contentLength = headers.last().second.toLongLong();
    }
    const qint64 total = headerEnd + 4 + contentLength;
    if (state.buffer.size() < total)
        return false;

    const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
    request.method = requestLine.value(0);
    request.target = requestLine.value(1);
    const int question = request.target.indexOf('?');
    const QByteArray pathPart = question < 0 ? request.target : request.target.left(question);
    request.path = QUrl::fromPercentEncoding(pathPart);
    request.query = question < 0 ? QString() : QString::fromLatin1(request.target.mid(question + 1));
    request.headers = headers;
    request.body = state.buffer.mid(headerEnd + 4, contentLength);
    state.buffer.remove(0, total);
    return true;
}

void LoopbackHttpServer::Private::readFrom(QTcpSocket *socket)
{
    auto stateIt = connections.find(socket);
    if (stateIt == connections.end())
        return;
    stateIt->buffer.append(socket->readAll());
    while (true) {
        stateIt = connections.find(socket);
        if (stateIt == connections.end() || stateIt->held)
            return;
        LoopbackRequest request;
        if (!takeRequest(*stateIt, request))
            return;
        {
            QMutexLocker locker(&mutex);
            log.append(request);
            requestLogged.wakeAll();
        }
        answer(socket, request, true);
    }
}

bool LoopbackHttpServer::Private::findObject(const QString &path, ServedObject &object)
{
    QString rootCopy;
    {
        QMutexLocker locker(&mutex);
        const auto it = objects.constFind(path);
        if (it != objects.constEnd()) {
            object = *it;
            return true;
        }
        rootCopy = root;
    }
    if (rootCopy.isEmpty())
        return false;
    const QString cleanRoot = QDir::cleanPath(rootCopy);
    const QString filePath = QDir::cleanPath(cleanRoot + QLatin1Char('/') + path);
    if (!filePath.startsWith(cleanRoot + QLatin1Char('/')))
        return false;
    const QFileInfo info(filePath);
    if (!info.isFile())
        return false;
    QFile file(filePath);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    object.content = file.readAll();
    object.contentType = LoopbackHttpServer::contentTypeFor(info.fileName());
    const QDateTime modified = info.lastModified();
    object.etag
        = '"' + QByteArray::number(modified.toSecsSinceEpoch(), 16) + '-' + QByteArray::number(info.size(), 16) + '"';
    object.lastModified = httpDate(modified);
    return true;
}

LoopbackResponse LoopbackHttpServer::Private::buildResponse(
    const LoopbackRequest &request, const RouteBehaviour &behaviour, bool &found)
{
    LoopbackResponse response;
    found = true;
    if (behaviour.redirectStatus != 0) {
        response.status = behaviour.redirectStatus;
        response.headers.emplaceBack("Location", behaviour.redirectLocation);
        // Qt 6.4 sometimes sends the request again, or loses the final answer's headers, when a redirect arrives
        // on a connection it may keep; closing it makes the redirect deterministic.
        response.headers.emplaceBack("Connection", "close");
        return response;
    }
    if (behaviour.fixedStatus != 0) {
        response.status = behaviour.fixedStatus;
        response.headers.emplaceBack("Content-Type", "text/plain");
        response.body = behaviour.fixedBody;
        return response;
    }
    ServedObject object;
    if (!findObject(request.path, object)) {
        found = false;
        response.status = 404;
        response.headers.emplaceBack("Content-Type", "text/plain");
        response.body = "Not Found";
        return response;
    }
    return objectAnswer(request, behaviour, object);
}

void LoopbackHttpServer::Private::answer(QTcpSocket *socket, const LoopbackRequest &request, bool allowStall)
{
    RouteBehaviour behaviour;
    Handler handler;
    {
        QMutexLocker locker(&mutex);
        behaviour = behaviours.value(request.path);
        handler = handlers.value(request.path);
    }
    auto stateIt = connections.find(socket);
    if (stateIt == connections.end())
        return;
    if (allowStall && behaviour.stallBeforeHeaders) {
        stateIt->held = true;
        stalled.emplaceBack(QPointer<QTcpSocket>(socket), request);
        return;
    }

    LoopbackResponse response;
    if (handler) {
        response = handler(request);
    } else {
        bool found = true;
        response = buildResponse(request, behaviour, found);
    }
    for (const auto &field : behaviour.extraHeaders)
        replaceHeader(response.headers, field.first, field.second);

    bool answerClosesConnection = false;
    for (const auto &field : response.headers) {
        if (sameName(field.first, "Connection") && sameName(field.second, "close"))
            answerClosesConnection = true;
    }
    const bool closeAfterBody = behaviour.omitContentLength || behaviour.closeAfterBodyBytes >= 0
        || sameName(request.header("Connection"), "close") || answerClosesConnection;
    if (behaviour.omitContentLength)
        removeHeader(response.headers, "Content-Length");
    else if (!hasHeaderIn(response.headers, "Content-Length"))
        response.headers.emplaceBack("Content-Length", QByteArray::number(response.body.size()));
    if (!hasHeaderIn(response.headers, "Connection"))
        response.headers.emplaceBack("Connection", closeAfterBody ? "close" : "keep-alive");

    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + ' '
        + (response.reasonPhrase.isEmpty() ? reasonPhraseFor(response.status) : response.reasonPhrase) + "\r\n";
    for (const auto &field : response.headers)
        head += field.first + ": " + field.second + "\r\n";
    head += "\r\n";

    // HEAD answers, 204 and 304 carry no body even though Content-Length describes one.
    const bool bodyAllowed = request.method != "HEAD" && response.status != 204 && response.status != 304;
    QByteArray body = bodyAllowed ? response.body : QByteArray();

    if (behaviour.stallAfterBodyBytes >= 0 && bodyAllowed) {
        socket->write(head + body.left(behaviour.stallAfterBodyBytes));
        socket->flush();
        stateIt->held = true;
        return;
    }
    if (behaviour.closeAfterBodyBytes >= 0 && bodyAllowed)
        body = body.left(behaviour.closeAfterBodyBytes);
    socket->write(head + body);
    if (closeAfterBody) {
        stateIt->held = true;
        socket->disconnectFromHost();
    }
}

void LoopbackHttpServer::Private::release()
{
    const auto held = stalled;
    stalled.clear();
    for (const auto &entry : held) {
        QTcpSocket *socket = entry.first.data();
        if (!socket)
            continue;
        auto stateIt = connections.find(socket);
        if (stateIt == connections.end())
            continue;
        stateIt->held = false;
        answer(socket, entry.second, false);
        readFrom(socket);
    }
}

void LoopbackHttpServer::Private::closeAll()
{
    stalled.clear();
    const auto sockets = connections.keys();
    connections.clear();
    for (QTcpSocket *socket : sockets) {
        QObject::disconnect(socket, nullptr, worker, nullptr);
        socket->abort();
        delete socket;
    }
    if (server) {
        server->close();
        delete server;
        server = nullptr;
    }
}

LoopbackHttpServer::LoopbackHttpServer()
    : d(std::make_unique<Private>())
{
}

LoopbackHttpServer::~LoopbackHttpServer()
{
    stop();
}

bool LoopbackHttpServer::start()
{
    if (d->thread)
        return true;
    d->thread = new QThread;
    d->thread->setObjectName(QStringLiteral("LoopbackHttpServer"));
    d->worker = new QObject;
    d->worker->moveToThread(d->thread);
    d->thread->start();
    bool listening = false;
    QMetaObject::invokeMethod(
        d->worker,
        [this, &listening] {
            if (d->certificatePem.isEmpty()) {
                d->server = new QTcpServer(d->worker);
            } else {
                auto *tlsServer = new QSslServer(d->worker);
                QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
                configuration.setLocalCertificate(QSslCertificate(d->certificatePem, QSsl::Pem));
                configuration.setPrivateKey(QSslKey(d->privateKeyPem, QSsl::Rsa, QSsl::Pem));
                configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
                tlsServer->setSslConfiguration(configuration);
                d->server = tlsServer;
            }
            // A TLS server queues a connection only once its handshake is done, after newConnection.
            QObject::connect(
                d->server, &QTcpServer::pendingConnectionAvailable, d->worker, [this] { d->acceptConnections(); });
            listening = d->server->listen(QHostAddress::LocalHost, 0);
            QMutexLocker locker(&d->mutex);
            d->port = listening ? d->server->serverPort() : 0;
            d->errorString = listening ? QString() : d->server->errorString();
        },
        Qt::BlockingQueuedConnection);
    if (!listening)
        stop();
    return listening;
}

void LoopbackHttpServer::stop()
{
    if (!d->thread)
        return;
    QMetaObject::invokeMethod(
        d->worker, [this] { d->closeAll(); }, Qt::BlockingQueuedConnection);
    d->thread->quit();
    d->thread->wait();
    delete d->worker;
    d->worker = nullptr;
    delete d->thread;
    d->thread = nullptr;
    QMutexLocker locker(&d->mutex);
    d->port = 0;
}

bool LoopbackHttpServer::isListening() const
{
    QMutexLocker locker(&d->mutex);
    return d->port != 0;
}

QString LoopbackHttpServer::errorString() const
{
    QMutexLocker locker(&d->mutex);
    return d->errorString;
}

quint16 LoopbackHttpServer::port() const
{
    QMutexLocker locker(&d->mutex);
    return d->port;
}

QUrl LoopbackHttpServer::url(const QString &path) const
{
    const QString scheme = d->certificatePem.isEmpty() ? QStringLiteral("http") : QStringLiteral("https");
    return QUrl(QStringLiteral("%1://127.0.0.1:%2%3").arg(scheme).arg(port()).arg(path));
}

void LoopbackHttpServer::setTlsCredentials(const QByteArray &certificatePem, const QByteArray &privateKeyPem)
{
    d->certificatePem = certificatePem;
    d->privateKeyPem = privateKeyPem;
}

void LoopbackHttpServer::serveDirectory(const QString &root)
{
    QMutexLocker locker(&d->mutex);
    d->root = root;
}

void LoopbackHttpServer::serveBytes(const QString &path, const QByteArray &content, const QByteArray &contentType)
{
    ServedObject object;
    object.content = content;
    object.contentType = contentType.isEmpty() ? contentTypeFor(path) : contentType;
    object.etag
        = "\"mem-" + QByteArray::number(qHash(content), 16) + '-' + QByteArray::number(content.size(), 16) + '"';
    object.lastModified = "Mon, 02 Jan 2023 10:00:00 GMT";
    QMutexLocker locker(&d->mutex);
    d->objects.insert(path, object);
}

void LoopbackHttpServer::setBehaviour(const QString &path, const RouteBehaviour &behaviour)
{
    QMutexLocker locker(&d->mutex);
    d->behaviours.insert(path, behaviour);
}

void LoopbackHttpServer::clearBehaviour(const QString &path)
{
    QMutexLocker locker(&d->mutex);
    d->behaviours.remove(path);
}

void LoopbackHttpServer::setHandler(const QString &path, Handler handler)
{
    QMutexLocker locker(&d->mutex);
    d->handlers.insert(path, std::move(handler));
}

void LoopbackHttpServer::clearHandler(const QString &path)
{
    QMutexLocker locker(&d->mutex);
    d->handlers.remove(path);
}

void LoopbackHttpServer::releaseStalledRequests()
{
    if (!d->thread)
        return;
    QMetaObject::invokeMethod(
        d->worker, [this] { d->release(); }, Qt::BlockingQueuedConnection);
}

QList<LoopbackRequest> LoopbackHttpServer::requests() const
{
    QMutexLocker locker(&d->mutex);
    return d->log;
}

int LoopbackHttpServer::requestCount() const
{
    QMutexLocker locker(&d->mutex);
    return int(d->log.size());
}

int LoopbackHttpServer::requestCount(const QString &path) const
{
    QMutexLocker locker(&d->mutex);
    int count = 0;
    for (const auto &request : d->log) {
        if (request.path == path)
            ++count;
    }
    return count;
}

void LoopbackHttpServer::clearRequests()
{
    QMutexLocker locker(&d->mutex);
    d->log.clear();
}

bool LoopbackHttpServer::waitForRequests(int count, int timeoutMilliseconds) const
{
    QDeadlineTimer deadline(timeoutMilliseconds);
    QMutexLocker locker(&d->mutex);
    while (d->log.size() < count) {
        if (!d->requestLogged.wait(&d->mutex, deadline))
            return d->log.size() >= count;
    }
    return true;
}

quint16 LoopbackHttpServer::unusedPort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

LoopbackResponse LoopbackHttpServer::objectResponse(
    const LoopbackRequest &request, const QByteArray &content, const QByteArray &contentType)
{
    return objectAnswer(request, RouteBehaviour(), ServedObject { content, contentType, {}, {} });
}

QByteArray LoopbackHttpServer::contentTypeFor(const QString &fileName)
{
    const QString suffix = QFileInfo(fileName).suffix().toLower();
    if (suffix == QLatin1String("tif") || suffix == QLatin1String("tiff"))
        return "image/tiff";
    if (suffix == QLatin1String("pmtiles"))
        return "application/vnd.pmtiles";
    if (suffix == QLatin1String("parquet"))
        return "application/vnd.apache.parquet";
    if (suffix == QLatin1String("json"))
        return "application/json";
    return "application/octet-stream";
}

} // namespace Norvane::Cloud::Testing
