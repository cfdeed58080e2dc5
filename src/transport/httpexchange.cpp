#include "transport/httpexchange.h"

#include "transport/exchangelog.h"
#include "transport/transportmessages.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QTimer>

#include <stdexcept>

namespace Norvane::Cloud::HttpExchange {

namespace {

QNetworkReply *send(QNetworkAccessManager &manager, const Request &request)
{
    QNetworkRequest networkRequest(request.url);
    networkRequest.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    for (const auto &[name, value] : request.headers)
        networkRequest.setRawHeader(name, value);
    switch (request.method) {
    case Method::Head:
        return manager.head(networkRequest);
    case Method::Post:
        return manager.post(networkRequest, request.body);
    case Method::Get:
        break;
    }
    return manager.get(networkRequest);
}

Answer answerOf(const QNetworkReply &reply)
{
    Answer answer;
    answer.error = reply.error();
    answer.errorText = reply.errorString();
    answer.statusCode = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    answer.url = reply.url();
    answer.acceptRanges = reply.rawHeader(QByteArrayLiteral("Accept-Ranges"));
    answer.contentLength = reply.rawHeader(QByteArrayLiteral("Content-Length"));
    answer.contentRange = reply.rawHeader(QByteArrayLiteral("Content-Range"));
    answer.contentType = reply.rawHeader(QByteArrayLiteral("Content-Type"));
    answer.etag = reply.rawHeader(QByteArrayLiteral("ETag"));
    answer.lastModified = reply.rawHeader(QByteArrayLiteral("Last-Modified"));
    return answer;
}

} // namespace

void requireApplicationObject()
{
    if (!QCoreApplication::instance())
        throw std::runtime_error(TransportMessages::noApplicationObject);
}

// One exchange, unlogged: exchange() runs it through the exchange log.
static Answer exchangeOnce(const Request &request)
{
    requireApplicationObject();
    // The reply is a child of the manager, which deletes it when this function returns.
    QNetworkAccessManager manager;
    QNetworkReply *reply = send(manager, request);

    QEventLoop loop;
    QTimer timeoutTimer;
    timeoutTimer.setSingleShot(true);
    QTimer pollTimer;
    pollTimer.setInterval(25);

    const std::function<bool()> &cancellationRequested = request.cancellationRequested;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QObject::connect(&timeoutTimer, &QTimer::timeout, &loop, &QEventLoop::quit);
    if (cancellationRequested) {
        QObject::connect(&pollTimer, &QTimer::timeout, &loop, [&loop, &cancellationRequested] {
            if (cancellationRequested())
                loop.quit();
        });
    }
    timeoutTimer.start(request.timeoutMilliseconds);
    if (cancellationRequested)
        pollTimer.start();
    // A reply that failed while being created has already emitted finished; the loop would wait for nothing.
    if (!reply->isFinished())
        loop.exec(request.loopFlags);

    const bool cancelled = cancellationRequested && cancellationRequested();
    if (timeoutTimer.isActive() && !cancelled) {
        timeoutTimer.stop();
        pollTimer.stop();
        Answer answer = answerOf(*reply);
        answer.body = reply->readAll();
        return answer;
    }
    reply->abort();
    Answer aborted;
    aborted.ending = cancelled ? Ending::Cancelled : Ending::TimedOut;
    return aborted;
}

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
