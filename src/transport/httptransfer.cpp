#include "transport/httptransfer.h"

#include "transport/httpanswerparser.h"

#include <QEventLoop>
#include <QNetworkProxyFactory>
#include <QSslSocket>
#include <QTcpSocket>
#include <QTimer>

#include <algorithm>
#include <memory>

namespace Norvane::Cloud::HttpExchange {

namespace {

// What the socket may hold ahead of the exchange taking it.
constexpr qint64 readAheadBytes = 256 * 1024;

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

// The connection and the wait; what arrives goes to the parser.
class Transfer {
public:
    Transfer(const Request &exchangeRequest, const Hop &exchangeHop, const QDeadlineTimer &exchangeDeadline)
        : request(exchangeRequest)
        , hop(exchangeHop)
        , deadline(exchangeDeadline)
        , parser(hop.method, request.bodyBytesTaken)
    {
    }

    HopAnswer run()
    {
        QTimer timeoutTimer;
        timeoutTimer.setSingleShot(true);
        // A coarse timer may fire up to 5 % early, which would end a slow exchange before its time-out.
        timeoutTimer.setTimerType(Qt::PreciseTimer);
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
        return { answer(), parser.field("Location") };
    }

private:
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
        parser.take(socket->readAll());
        if (parser.isDone())
            end(Ending::Finished);
    }

    void closed()
    {
        if (ended)
            return;
        receive();
        if (ended)
            return;
        parser.takeClose();
        end(Ending::Finished);
    }

    // The connection failed: the parser's answer so far, with the connection's verdict.
    void fail(QNetworkReply::NetworkError error, const QString &text)
    {
        if (ended)
            return;
        connectionError = error;
        connectionErrorText = text;
        end(Ending::Finished);
    }

    void end(Ending transferEnding)
    {
        if (ended)
            return;
        ended = true;
        ending = transferEnding;
        loop.quit();
    }

    Answer answer() const
    {
        if (ending != Ending::Finished) {
            Answer aborted;
            aborted.ending = ending;
            return aborted;
        }
        Answer finished = parser.answer();
        finished.url = hop.url;
        if (connectionError != QNetworkReply::NoError) {
            finished.error = connectionError;
            finished.errorText = connectionErrorText;
        }
        return finished;
    }

    const Request &request;
    const Hop &hop;
    const QDeadlineTimer &deadline;
    QEventLoop loop;
    std::unique_ptr<QTcpSocket> socket;
    QNetworkProxy proxy { QNetworkProxy::DefaultProxy };
    AnswerParser parser;
    QNetworkReply::NetworkError connectionError = QNetworkReply::NoError;
    QString connectionErrorText;
    Ending ending = Ending::Finished;
    bool ended = false;
};

} // namespace

bool isHttps(const QUrl &url)
{
    return url.scheme() == QLatin1String("https");
}

quint16 portOf(const QUrl &url)
{
    return quint16(url.port(isHttps(url) ? 443 : 80));
}

HopAnswer transfer(const Request &request, const Hop &hop, const QDeadlineTimer &deadline)
{
    return Transfer(request, hop, deadline).run();
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

} // namespace Norvane::Cloud::HttpExchange
