#include "transport/httpexchange.h"

#include "transport/transportmessages.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QTimer>

#include <stdexcept>

namespace Norvane::Cloud::HttpExchange {

void requireApplicationObject()
{
    if (!QCoreApplication::instance())
        throw std::runtime_error(TransportMessages::noApplicationObject);
}

std::unique_ptr<QNetworkReply> exchange(int timeoutMilliseconds,
    QNetworkAccessManager &manager,
    const QNetworkRequest &request,
    Method method,
    const std::function<bool()> &cancellationRequested)
{
    requireApplicationObject();
    QNetworkReply *reply = method == Method::Head ? manager.head(request) : manager.get(request);

    QEventLoop loop;
    QTimer timeoutTimer;
    timeoutTimer.setSingleShot(true);
    QTimer pollTimer;
    pollTimer.setInterval(25);

    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QObject::connect(&timeoutTimer, &QTimer::timeout, &loop, &QEventLoop::quit);
    if (cancellationRequested) {
        QObject::connect(&pollTimer, &QTimer::timeout, &loop, [&loop, &cancellationRequested] {
            if (cancellationRequested())
                loop.quit();
        });
    }
    timeoutTimer.start(timeoutMilliseconds);
    if (cancellationRequested)
        pollTimer.start();
    // A reply that failed while being created has already emitted finished; the loop would wait for nothing.
    if (!reply->isFinished())
        loop.exec();

    const bool cancelled = cancellationRequested && cancellationRequested();
    if (timeoutTimer.isActive() && !cancelled) {
        timeoutTimer.stop();
        pollTimer.stop();
        return std::unique_ptr<QNetworkReply>(reply);
    }
    reply->abort();
    reply->deleteLater();
    throw std::runtime_error(cancelled ? TransportMessages::requestCancelled : TransportMessages::requestTimedOut);
}

void failWithNetworkError(const QNetworkReply &reply)
{
    const int status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QString message = QString::fromLatin1(TransportMessages::requestFailed).arg(status).arg(reply.errorString());
    throw std::runtime_error(message.toUtf8().toStdString());
}

} // namespace Norvane::Cloud::HttpExchange
