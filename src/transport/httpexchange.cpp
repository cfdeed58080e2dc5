#include "transport/httpexchange.h"

#include "transport/exchangelog.h"
#include "transport/httpanswerparser.h"
#include "transport/httptransfer.h"
#include "transport/requestcheck.h"
#include "transport/transportmessages.h"

#include <QCoreApplication>
#include <QDeadlineTimer>

#include <stdexcept>

// HTTP/1.1 is spoken on a socket of the calling thread (see httptransfer.cpp), not through Qt's network access
// manager: the manager's transfer thread reads an answer's header one byte per system call for as long as bytes keep
// coming, and cannot be stopped from outside while it does, so a hostile server could hold it (and the manager's
// destruction) far beyond any time-out.

namespace Norvane::Cloud::HttpExchange {

namespace {

constexpr int maximumRedirects = 20;

// Without an application object the nested event loop would never deliver the reply.
void requireApplicationObject()
{
    if (!QCoreApplication::instance())
        throw std::runtime_error(TransportMessages::noApplicationObject);
}

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
    Hop hop { request.url, request.method, request.body, RequestCheck::isSameOrigin(request.url, callerOrigin) };
    for (int redirects = 0;; ++redirects) {
        if (!RequestCheck::usesHttp(hop.url)) {
            return failed(Answer(), QNetworkReply::ProtocolUnknownError, TransportMessages::schemeUnsupported);
        }
        auto [answer, location] = transfer(request, hop, deadline);
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
        hop.withCallerHeaders = hop.withCallerHeaders && RequestCheck::isSameOrigin(target, callerOrigin);
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
