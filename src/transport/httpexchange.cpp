#include "transport/httpexchange.h"

#include "transport/exchangelog.h"
#include "transport/transportmessages.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QNetworkProxyFactory>
#include <QSslSocket>
#include <QTcpSocket>
#include <QTimer>

#include <memory>
#include <stdexcept>

// HTTP/1.1 is spoken here on a socket of the calling thread, not through Qt's network access manager: the manager's
// transfer thread reads an answer's header one byte per system call for as long as bytes keep coming, and cannot be
// stopped from outside while it does, so a hostile server could hold it (and the manager's destruction) far beyond
// any time-out.

namespace Norvane::Cloud::HttpExchange {

namespace {

constexpr int maximumRedirects = 20;
// Status line and header fields together; far above what object stores and catalogues send.
constexpr qint64 maximumHeaderBytes = 64 * 1024;
// A chunk's size line: a hexadecimal number and perhaps an extension.
constexpr qint64 maximumChunkLineBytes = 1024;
// What the socket may hold ahead of the exchange taking it.
constexpr qint64 readAheadBytes = 256 * 1024;

// Without an application object the nested event loop would never deliver the reply.
void requireApplicationObject()
{
    if (!QCoreApplication::instance())
        throw std::runtime_error(TransportMessages::noApplicationObject);
}

bool isHttps(const QUrl &url)
{
    return url.scheme() == QLatin1String("https");
}

quint16 portOf(const QUrl &url)
{
    return quint16(url.port(isHttps(url) ? 443 : 80));
}

bool sameOrigin(const QUrl &first, const QUrl &second)
{
    return first.scheme() == second.scheme() && first.host() == second.host() && portOf(first) == portOf(second);
}

bool isRedirect(qint32 statusCode)
{
    return statusCode == 301 || statusCode == 302 || statusCode == 303 || statusCode == 307 || statusCode == 308;
}

// One request of an exchange: where it goes and what it carries.
struct Hop {
    QUrl url;
    Method method = Method::Get;
    QByteArray body;
    bool withCallerHeaders = true;
};

using Fields = QList<QPair<QByteArray, QByteArray>>;

// A later field replaces an earlier one of the same name, whatever its letter case, keeping the earlier place.
void setField(Fields &fields, const QByteArray &name, const QByteArray &value)
{
    for (auto &field : fields) {
        if (field.first.compare(name, Qt::CaseInsensitive) == 0) {
            field.second = value;
            return;
        }
    }
    fields.append({ name, value });
}

QByteArray methodName(Method method)
{
    switch (method) {
    case Method::Head:
        return QByteArrayLiteral("HEAD");
    case Method::Post:
        return QByteArrayLiteral("POST");
    case Method::Get:
        break;
    }
    return QByteArrayLiteral("GET");
}

// The HTTP proxy that plain HTTP to url goes through, as the application's proxy settings say; a proxy of no type
// when there is none. HTTPS and other kinds of proxy are the socket's own business: it tunnels through them.
QNetworkProxy plainHttpProxy(const QUrl &url)
{
    if (!isHttps(url)) {
        for (const QNetworkProxy &proxy : QNetworkProxyFactory::proxyForQuery(QNetworkProxyQuery(url))) {
            if (proxy.type() == QNetworkProxy::HttpProxy || proxy.type() == QNetworkProxy::HttpCachingProxy)
                return proxy;
            if (proxy.type() == QNetworkProxy::NoProxy)
                break;
        }
    }
    return QNetworkProxy(QNetworkProxy::DefaultProxy);
}

bool isHttpProxy(const QNetworkProxy &proxy)
{
    return proxy.type() != QNetworkProxy::DefaultProxy;
}

QByteArray requestBytes(const Request &request, const Hop &hop, const QNetworkProxy &proxy)
{
    QUrl authority = hop.url;
    authority.setUserInfo({});
    // A proxy is given the whole URL.
    QByteArray target = isHttpProxy(proxy)
        ? authority.toEncoded(QUrl::RemoveFragment)
        : hop.url.toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority | QUrl::RemoveFragment);
    if (!target.startsWith('/') && !isHttpProxy(proxy))
        target.prepend('/');
    Fields fields { { QByteArrayLiteral("Host"), authority.authority(QUrl::FullyEncoded).toLatin1() } };
    if (isHttpProxy(proxy) && !proxy.user().isEmpty()) {
        const QByteArray credentials = (proxy.user() + u':' + proxy.password()).toUtf8().toBase64();
        fields.append({ QByteArrayLiteral("Proxy-Authorization"), "Basic " + credentials });
    }
    for (const auto &[name, value] : request.headers)
        setField(fields, name, value);
    if (hop.withCallerHeaders) {
        for (const auto &[name, value] : request.callerHeaders)
            setField(fields, name, value);
    }
    setField(fields, QByteArrayLiteral("Connection"), QByteArrayLiteral("close"));
    if (hop.method == Method::Post)
        setField(fields, QByteArrayLiteral("Content-Length"), QByteArray::number(hop.body.size()));
    QByteArray bytes = methodName(hop.method) + ' ' + target + " HTTP/1.1\r\n";
    for (const auto &[name, value] : fields)
        bytes += name + ": " + value + "\r\n";
    return bytes + "\r\n" + (hop.method == Method::Post ? hop.body : QByteArray());
}

// One request on its own connection, and its answer as it arrives: status line, header fields and the body in any
// of HTTP/1.1's three framings, taken no further than the caller wants.
class Transfer {
public:
    Transfer(const Request &exchangeRequest, const Hop &exchangeHop, const QDeadlineTimer &exchangeDeadline)
        : request(exchangeRequest)
        , hop(exchangeHop)
        , deadline(exchangeDeadline)
    {
        answer.url = hop.url;
        answer.errorText = QString::fromLatin1(TransportMessages::noErrorText);
    }

    Answer run()
    {
        QTimer timeoutTimer;
        timeoutTimer.setSingleShot(true);
        QObject::connect(&timeoutTimer, &QTimer::timeout, &loop, [this] { end(Ending::TimedOut); });
        timeoutTimer.start(std::max<qint64>(deadline.remainingTime(), 0));
        QTimer pollTimer;
        if (request.cancellationRequested) {
            QObject::connect(&pollTimer, &QTimer::timeout, &loop, [this] {
                if (request.cancellationRequested())
                    end(Ending::Cancelled);
            });
            pollTimer.start(25);
        }
        if (request.cancellationRequested && request.cancellationRequested())
            end(Ending::Cancelled);
        else
            connect();
        if (!ended)
            loop.exec(request.loopFlags);
        // Closed at once, whatever the server still sends: nothing of this transfer outlives the call.
        if (socket)
            socket->abort();
        if (answer.ending == Ending::Finished)
            return answer;
        Answer aborted;
        aborted.ending = answer.ending;
        return aborted;
    }

    QByteArray location() const
    {
        for (const auto &[name, value] : fields) {
            if (name.compare("Location", Qt::CaseInsensitive) == 0)
                return value;
        }
        return {};
    }

private:
    enum class Stage { StatusLine, Fields, Body, ChunkSize, ChunkData, ChunkEnd, Trailers };

    void connect()
    {
        if (isHttps(hop.url)) {
            auto *secure = new QSslSocket;
            socket.reset(secure);
            QObject::connect(
                secure, &QSslSocket::encrypted, &loop, [this] { socket->write(requestBytes(request, hop, proxy)); });
            observe();
            secure->connectToHostEncrypted(hop.url.host(), portOf(hop.url));
        } else {
            socket = std::make_unique<QTcpSocket>();
            QObject::connect(socket.get(), &QTcpSocket::connected, &loop,
                [this] { socket->write(requestBytes(request, hop, proxy)); });
            observe();
            proxy = plainHttpProxy(hop.url);
            if (isHttpProxy(proxy)) {
                socket->setProxy(QNetworkProxy::NoProxy);
                socket->connectToHost(proxy.hostName(), proxy.port());
            } else {
                socket->connectToHost(hop.url.host(), portOf(hop.url));
            }
        }
    }

    void observe()
    {
        socket->setReadBufferSize(readAheadBytes);
        QObject::connect(socket.get(), &QTcpSocket::readyRead, &loop, [this] { receive(); });
        QObject::connect(socket.get(), &QTcpSocket::disconnected, &loop, [this] { closed(); });
        QObject::connect(socket.get(), &QTcpSocket::errorOccurred, &loop, [this](QAbstractSocket::SocketError error) {
            if (error == QAbstractSocket::RemoteHostClosedError)
                closed();
            else
                fail(QNetworkReply::UnknownNetworkError, socket->errorString());
        });
    }

    void receive()
    {
        if (ended)
            return;
        received += socket->readAll();
        parse();
        received.remove(0, position);
        position = 0;
    }

    // The server closed the connection: the end of a body framed by the connection, or an answer cut short.
    void closed()
    {
        if (ended)
            return;
        receive();
        if (ended)
            return;
        if (stage == Stage::Body && remaining < 0)
            end(Ending::Finished);
        else if (stage == Stage::StatusLine && received.isEmpty())
            fail(QNetworkReply::RemoteHostClosedError, QString::fromLatin1(TransportMessages::closedBeforeAnswer));
        else
            fail(QNetworkReply::RemoteHostClosedError, QString::fromLatin1(TransportMessages::answerIncomplete));
    }

    void parse()
    {
        while (!ended) {
            if (stage == Stage::Body || stage == Stage::ChunkData) {
                if (!takeBody())
                    return;
                continue;
            }
            const qsizetype lineEnd = received.indexOf('\n', position);
            if (!withinLineLimits(lineEnd) || lineEnd < 0)
                return;
            QByteArray line = received.mid(position, lineEnd - position);
            position = lineEnd + 1;
            if (line.endsWith('\r'))
                line.chop(1);
            takeLine(line);
        }
    }

    // The header block (and trailer) is bounded as a whole, a chunk's size line on its own.
    bool withinLineLimits(qsizetype lineEnd)
    {
        const qint64 lineBytes = (lineEnd < 0 ? received.size() : lineEnd + 1) - position;
        if (stage == Stage::ChunkSize || stage == Stage::ChunkEnd) {
            if (lineBytes <= maximumChunkLineBytes)
                return true;
            fail(QNetworkReply::ProtocolFailure, QString::fromLatin1(TransportMessages::malformedAnswer));
            return false;
        }
        if (headerBytes + lineBytes <= maximumHeaderBytes) {
            headerBytes += lineEnd < 0 ? 0 : lineBytes;
            return true;
        }
        fail(QNetworkReply::ProtocolFailure, QString::fromLatin1(TransportMessages::headerTooLarge));
        return false;
    }

    void takeLine(const QByteArray &line)
    {
        switch (stage) {
        case Stage::StatusLine:
            return takeStatusLine(line);
        case Stage::Fields:
            return line.isEmpty() ? startBody() : takeField(line);
        case Stage::ChunkSize:
            return takeChunkSize(line);
        case Stage::ChunkEnd:
            if (!line.isEmpty())
                return fail(QNetworkReply::ProtocolFailure, QString::fromLatin1(TransportMessages::malformedAnswer));
            stage = Stage::ChunkSize;
            return;
        case Stage::Trailers:
            if (line.isEmpty())
                end(Ending::Finished);
            return;
        case Stage::Body:
        case Stage::ChunkData:
            return;
        }
    }

    void takeStatusLine(const QByteArray &line)
    {
        const QList<QByteArray> parts = line.split(' ');
        bool ok = false;
        const int status = parts.value(1).toInt(&ok);
        if (!line.startsWith("HTTP/1.") || !ok || status < 100 || status > 999)
            return fail(QNetworkReply::ProtocolFailure, QString::fromLatin1(TransportMessages::malformedAnswer));
        answer.statusCode = status;
        reasonPhrase = parts.mid(2).join(' ');
        stage = Stage::Fields;
    }

    void takeField(const QByteArray &line)
    {
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0)
            return fail(QNetworkReply::ProtocolFailure, QString::fromLatin1(TransportMessages::malformedAnswer));
        fields.append({ line.left(colon).trimmed(), line.mid(colon + 1).trimmed() });
    }

    QByteArray field(const char *name) const
    {
        for (const auto &[fieldName, value] : fields) {
            if (fieldName.compare(name, Qt::CaseInsensitive) == 0)
                return value;
        }
        return {};
    }

    void startBody()
    {
        // An interim answer (100 Continue and the like) is followed by the real one.
        if (answer.statusCode < 200) {
            fields.clear();
            stage = Stage::StatusLine;
            return;
        }
        answer.acceptRanges = field("Accept-Ranges");
        answer.contentLength = field("Content-Length");
        answer.contentRange = field("Content-Range");
        answer.contentType = field("Content-Type");
        answer.etag = field("ETag");
        answer.lastModified = field("Last-Modified");
        if (answer.statusCode >= 400) {
            answer.error
                = answer.statusCode >= 500 ? QNetworkReply::UnknownServerError : QNetworkReply::UnknownContentError;
            answer.errorText
                = QString::fromLatin1(TransportMessages::serverReplied).arg(QString::fromLatin1(reasonPhrase));
        }
        bodyLimit = isRedirect(answer.statusCode) ? 0
            : request.bodyBytesTaken              ? request.bodyBytesTaken(answer.statusCode)
                                                  : -1;
        const bool noBody = hop.method == Method::Head || answer.statusCode == 204 || answer.statusCode == 304;
        if (noBody)
            return end(Ending::Finished);
        if (field("Transfer-Encoding").toLower().contains("chunked")) {
            stage = Stage::ChunkSize;
        } else {
            bool ok = false;
            remaining = answer.contentLength.toLongLong(&ok);
            remaining = ok && remaining >= 0 ? remaining : -1;
            stage = Stage::Body;
        }
        if (remaining == 0)
            return end(Ending::Finished);
        if (bodyLimit == 0)
            cut();
    }

    void takeChunkSize(const QByteArray &line)
    {
        bool ok = false;
        const qsizetype extension = line.indexOf(';');
        const qint64 size = line.left(extension < 0 ? line.size() : extension).trimmed().toLongLong(&ok, 16);
        if (!ok || size < 0)
            return fail(QNetworkReply::ProtocolFailure, QString::fromLatin1(TransportMessages::malformedAnswer));
        remaining = size;
        stage = size == 0 ? Stage::Trailers : Stage::ChunkData;
    }

    // Moves what arrived of the body into the answer; false when more must arrive first.
    bool takeBody()
    {
        const qint64 available = received.size() - position;
        const qint64 taken = remaining < 0 ? available : std::min(available, remaining);
        if (taken == 0)
            return false;
        answer.body.append(received.constData() + position, taken);
        position += taken;
        if (remaining >= 0)
            remaining -= taken;
        if (stage == Stage::Body && remaining == 0)
            end(Ending::Finished);
        else if (stage == Stage::ChunkData && remaining == 0)
            stage = Stage::ChunkEnd;
        if (!ended && bodyLimit >= 0 && answer.body.size() >= bodyLimit)
            cut();
        return true;
    }

    void cut()
    {
        answer.bodyCut = true;
        end(Ending::Finished);
    }

    void fail(QNetworkReply::NetworkError error, const QString &text)
    {
        if (ended)
            return;
        answer.error = error;
        answer.errorText = text;
        end(Ending::Finished);
    }

    void end(Ending ending)
    {
        if (ended)
            return;
        ended = true;
        answer.ending = ending;
        loop.quit();
    }

    const Request &request;
    const Hop &hop;
    const QDeadlineTimer &deadline;
    QEventLoop loop;
    std::unique_ptr<QTcpSocket> socket;
    QNetworkProxy proxy { QNetworkProxy::DefaultProxy };
    QByteArray received;
    qsizetype position = 0;
    qint64 headerBytes = 0;
    Stage stage = Stage::StatusLine;
    QByteArray reasonPhrase;
    Fields fields;
    // Body bytes still to come in the framing's current part; -1 until the connection closes.
    qint64 remaining = -1;
    qint64 bodyLimit = -1;
    Answer answer;
    bool ended = false;
};

Answer failed(Answer answer, QNetworkReply::NetworkError error, const char *text)
{
    answer.error = error;
    answer.errorText = QString::fromLatin1(text);
    return answer;
}

// One exchange, unlogged: exchange() runs it through the exchange log.
Answer exchangeOnce(const Request &request)
{
    requireApplicationObject();
    const QDeadlineTimer deadline(request.timeoutMilliseconds);
    const QUrl callerOrigin = request.callerOrigin.isEmpty() ? request.url : request.callerOrigin;
    Hop hop { request.url, request.method, request.body, sameOrigin(request.url, callerOrigin) };
    for (int redirects = 0;; ++redirects) {
        if (hop.url.scheme() != QLatin1String("http") && !isHttps(hop.url)) {
            return failed(Answer(), QNetworkReply::ProtocolUnknownError, TransportMessages::schemeUnsupported);
        }
        Transfer transfer(request, hop, deadline);
        Answer answer = transfer.run();
        const QByteArray location = transfer.location();
        if (answer.ending != Ending::Finished || !isRedirect(answer.statusCode) || location.isEmpty())
            return answer;
        const QUrl target = hop.url.resolved(QUrl::fromEncoded(location));
        if (redirects == maximumRedirects)
            return failed(answer, QNetworkReply::TooManyRedirectsError, TransportMessages::tooManyRedirects);
        if (isHttps(hop.url) && target.scheme() == QLatin1String("http"))
            return failed(answer, QNetworkReply::InsecureRedirectError, TransportMessages::redirectInsecure);
        // As browsers do: a 303, and a 301 or 302 after a POST, continue with a GET without the body.
        const bool becomesGet = answer.statusCode == 303 || (hop.method == Method::Post && answer.statusCode < 303);
        if (becomesGet && hop.method != Method::Head) {
            hop.method = Method::Get;
            hop.body.clear();
        }
        hop.url = target;
        hop.withCallerHeaders = hop.withCallerHeaders && sameOrigin(target, callerOrigin);
    }
}

} // namespace

Answer exchange(const Request &request)
{
    return ExchangeLog::logged(request, exchangeOnce);
}

Answer exchangeOrThrow(const Request &request)
{
    Answer answer = exchange(request);
    if (answer.ending == Ending::Cancelled)
        throw std::runtime_error(TransportMessages::requestCancelled);
    if (answer.ending == Ending::TimedOut)
        throw std::runtime_error(TransportMessages::requestTimedOut);
    if (answer.error != QNetworkReply::NoError) {
        const QString message
            = QString::fromLatin1(TransportMessages::requestFailed).arg(answer.statusCode).arg(answer.errorText);
        throw std::runtime_error(message.toUtf8().toStdString());
    }
    return answer;
}

} // namespace Norvane::Cloud::HttpExchange
