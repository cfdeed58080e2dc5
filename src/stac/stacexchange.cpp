#include "stac/stacexchange.h"

#include "stac/stacmessages.h"
#include "transport/transportmessages.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>

#include <stdexcept>

namespace Norvane::Cloud::StacExchange {

CloudRangeRequest keyRequest(
    const QUrl &url, const QByteArray &method, const QByteArray &body, const QHash<QByteArray, QByteArray> &headers)
{
    CloudRangeRequest request;
    request.url = url;
    request.offset = 0;
    request.length = body.size();
    request.headers.insert(QByteArrayLiteral("x-norvane-method"), method);
    request.headers.insert(QByteArrayLiteral("x-norvane-body"), body);
    for (auto header = headers.constBegin(); header != headers.constEnd(); ++header)
        request.headers.insert(header.key(), header.value());
    return request;
}

QByteArray run(CloudRangeCache &cache,
    const QUrl &url,
    const QByteArray &method,
    const QByteArray &body,
    const QHash<QByteArray, QByteArray> &headers,
    int timeoutMilliseconds)
{
    const QString key = HttpRangeReader::cacheKey(keyRequest(url, method, body, headers));
    CloudRangeResponse stored;
    if (cache.get(key, stored))
        return stored.data;

    // A cached answer needs no event loop; only the network does.
    if (!QCoreApplication::instance())
        throw std::runtime_error(TransportMessages::noApplicationObject);

    QNetworkAccessManager manager;
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setRawHeader(QByteArrayLiteral("Content-Type"), QByteArrayLiteral("application/json"));
    request.setRawHeader(QByteArrayLiteral("Accept"), QByteArrayLiteral("application/geo+json, application/json"));
    request.setRawHeader(QByteArrayLiteral("User-Agent"), QByteArrayLiteral("Norvane.Cloud/1"));
    for (auto header = headers.constBegin(); header != headers.constEnd(); ++header)
        request.setRawHeader(header.key(), header.value());

    // The reply is a child of the manager, which deletes it when this function returns.
    QNetworkReply *reply = method == "POST" ? manager.post(request, body) : manager.get(request);

    QEventLoop loop;
    QTimer timeout;
    timeout.setSingleShot(true);
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QObject::connect(&timeout, &QTimer::timeout, &loop, &QEventLoop::quit);
    timeout.start(timeoutMilliseconds);
    if (!reply->isFinished())
        loop.exec(QEventLoop::ExcludeUserInputEvents);

    if (!timeout.isActive()) {
        reply->abort();
        throw std::runtime_error(StacMessages::requestTimedOut);
    }
    timeout.stop();

    const int statusCode = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->error() != QNetworkReply::NoError || statusCode < 200 || statusCode > 299)
        throw std::runtime_error(QString::fromLatin1(StacMessages::requestFailed)
                                     .arg(QString::number(statusCode), reply->errorString())
                                     .toStdString());

    CloudRangeResponse answer;
    answer.data = reply->readAll();
    answer.offset = 0;
    answer.totalSize = answer.data.size();
    answer.statusCode = statusCode;
    answer.contentType = reply->rawHeader(QByteArrayLiteral("Content-Type"));
    cache.put(key, answer);
    return answer.data;
}

} // namespace Norvane::Cloud::StacExchange
