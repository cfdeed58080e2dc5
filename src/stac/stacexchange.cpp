#include "stac/stacexchange.h"

#include "stac/stacmessages.h"
#include "transport/cachedfetch.h"
#include "transport/cachekey.h"
#include "transport/httpexchange.h"
#include "transport/requestcheck.h"

#include <stdexcept>

namespace Norvane::Cloud::StacExchange {

namespace {

// Larger answers are refused rather than held: a hostile catalogue could otherwise fill the host's memory.
constexpr qint64 maximumAnswerBytes = 64 * 1024 * 1024;

HttpExchange::Request requestOf(const QUrl &catalogUrl,
    const QUrl &url,
    const QByteArray &method,
    const QByteArray &body,
    const QHash<QByteArray, QByteArray> &headers,
    int timeoutMilliseconds)
{
    HttpExchange::Request request;
    request.url = url;
    request.method = method == "POST" ? HttpExchange::Method::Post : HttpExchange::Method::Get;
    request.body = body;
    // Configured headers come last, so a configured Accept, User-Agent or Content-Type wins.
    request.headers = { { QByteArrayLiteral("Content-Type"), QByteArrayLiteral("application/json") },
        { QByteArrayLiteral("Accept"), QByteArrayLiteral("application/geo+json, application/json") },
        { QByteArrayLiteral("User-Agent"), QByteArrayLiteral("Norvane.Cloud/1") } };
    for (auto header = headers.constBegin(); header != headers.constEnd(); ++header)
        request.callerHeaders.append({ header.key(), header.value() });
    request.callerOrigin = catalogUrl;
    request.timeoutMilliseconds = timeoutMilliseconds;
    request.loopFlags = QEventLoop::ExcludeUserInputEvents;
    // One byte more than allowed tells an answer that is too large; a failure's body is not read.
    request.bodyBytesTaken
        = [](qint32 statusCode) { return statusCode >= 200 && statusCode <= 299 ? maximumAnswerBytes + 1 : 0; };
    return request;
}

// The whole answer as the cache keeps it; only a status in 200-299 without a network error is one.
CloudRangeResponse answerOf(const HttpExchange::Request &request)
{
    const HttpExchange::Answer answer = HttpExchange::exchange(request);
    if (answer.ending != HttpExchange::Ending::Finished)
        throw std::runtime_error(StacMessages::requestTimedOut);
    if (answer.error != QNetworkReply::NoError || answer.statusCode < 200 || answer.statusCode > 299)
        throw std::runtime_error(QString::fromLatin1(StacMessages::requestFailed)
                                     .arg(QString::number(answer.statusCode), answer.errorText)
                                     .toStdString());
    if (answer.body.size() > maximumAnswerBytes)
        throw std::runtime_error(StacMessages::answerTooLarge);
    CloudRangeResponse response;
    response.data = answer.body;
    response.offset = 0;
    response.totalSize = response.data.size();
    response.statusCode = answer.statusCode;
    response.contentType = answer.contentType;
    return response;
}

} // namespace

QByteArray run(CloudRangeCache &cache,
    const QUrl &catalogUrl,
    const QUrl &url,
    const QByteArray &method,
    const QByteArray &body,
    const QHash<QByteArray, QByteArray> &headers,
    int timeoutMilliseconds)
{
    RequestCheck::requireSendable(url, headers);
    // STAC answers are looked up and stored, but identical requests running at once each go to the network, and
    // their traffic is not counted as range transfers.
    const CachedFetchRules rules { true, false, false };
    // A cached answer needs no event loop; only the network does, and the exchange checks for it.
    return readThroughCache(&cache, answerCacheKey(method, url, body, headers), rules, [&] {
        return answerOf(requestOf(catalogUrl, url, method, body, headers, timeoutMilliseconds));
    }).data;
}

} // namespace Norvane::Cloud::StacExchange
