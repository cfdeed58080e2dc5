#include <norvanecloud/rangetransport.h>

#include "transport/cachedfetch.h"
#include "transport/cachekey.h"
#include "transport/exchangelog.h"
#include "transport/httpexchange.h"
#include "transport/rangeanswer.h"
#include "transport/readcontext.h"
#include "transport/requestcheck.h"
#include "transport/transportmessages.h"

#include <limits>
#include <stdexcept>

namespace Norvane::Cloud {

namespace {

using Headers = QList<QPair<QByteArray, QByteArray>>;

void requireValidUrl(const QUrl &url)
{
    if (!url.isValid() || url.scheme().isEmpty())
        throw std::invalid_argument(TransportMessages::urlInvalid);
}

// The reader's own headers, sent to every origin.
Headers readerHeaders(const QByteArray &userAgent, Headers extra)
{
    Headers headers { { QByteArrayLiteral("User-Agent"), userAgent },
        { QByteArrayLiteral("Accept-Encoding"), QByteArrayLiteral("identity") } };
    return headers + extra;
}

// Set after the reader's own, and header names match without regard to letter case: a caller's "range" replaces
// the reader's "Range".
Headers callerHeaders(const QHash<QByteArray, QByteArray> &headers)
{
    Headers list;
    for (auto it = headers.cbegin(); it != headers.cend(); ++it)
        list.append({ it.key(), it.value() });
    return list;
}

// The request's own arguments, before any effect.
void checkArguments(const CloudRangeRequest &request)
{
    requireValidUrl(request.url);
    RequestCheck::requireSendable(request.url, request.headers);
    if (request.offset < 0)
        throw std::invalid_argument(TransportMessages::offsetNegative);
    if (request.length < 1)
        throw std::invalid_argument(TransportMessages::lengthNotPositive);
    if (request.offset > std::numeric_limits<qint64>::max() - request.length)
        throw std::invalid_argument(TransportMessages::rangeOverflows);
}

// One GET of the range, and the check of what it brought. The Content-Range the answer came with is kept between
// the two: the check runs after the transfer was counted.
class RangeDownload {
public:
    RangeDownload(
        const CloudRangeRequest &rangeRequest, int readerTimeoutMilliseconds, const QByteArray &readerUserAgent)
        : request(rangeRequest)
        , lastByte(request.offset + request.length - 1)
        , timeoutMilliseconds(readerTimeoutMilliseconds)
        , userAgent(readerUserAgent)
    {
    }

    CloudRangeResponse download()
    {
        HttpExchange::Request exchange;
        exchange.url = request.url;
        const QByteArray range = "bytes=" + QByteArray::number(request.offset) + '-' + QByteArray::number(lastByte);
        exchange.headers = readerHeaders(userAgent, { { QByteArrayLiteral("Range"), range } });
        exchange.callerHeaders = callerHeaders(request.headers);
        exchange.timeoutMilliseconds = timeoutMilliseconds;
        exchange.cancellationRequested = [this] { return ReadContext::isCancelled(request); };
        exchange.bodyBytesTaken = [this](qint32 statusCode) { return bodyBytesTaken(statusCode); };
        const HttpExchange::Answer answer = HttpExchange::exchangeOrThrow(exchange);

        contentRange = answer.contentRange;
        CloudRangeResponse response;
        response.statusCode = answer.statusCode;
        response.offset = request.offset;
        response.totalSize = RangeAnswer::totalSize(answer.contentRange, answer.contentLength, answer.statusCode);
        response.etag = answer.etag;
        response.lastModified = answer.lastModified;
        response.contentType = answer.contentType;
        response.acceptsRanges = response.statusCode == 206 || RangeAnswer::acceptsByteRanges(answer.acceptRanges);
        response.data = answer.body;
        return response;
    }

    // No more than the checks need: a range one byte too long is wrong already, a whole object is of use only from
    // offset 0 and only up to the length asked for, and any other answer fails by its status alone.
    qint64 bodyBytesTaken(qint32 statusCode) const
    {
        if (statusCode == 206)
            return request.length + 1;
        if (statusCode == 200)
            return request.offset == 0 ? request.length : 0;
        return 0;
    }

    // A whole object (200) is accepted for a range at offset 0, trimmed to the length asked for.
    void verify(CloudRangeResponse &response) const
    {
        if (response.statusCode == 206) {
            if (!RangeAnswer::contentRangeMatches(contentRange, request.offset, lastByte))
                throw std::runtime_error(TransportMessages::contentRangeMismatch);
        } else if (response.statusCode == 200) {
            if (request.offset != 0)
                throw std::runtime_error(TransportMessages::rangeIgnored);
            if (response.data.size() > request.length)
                response.data.truncate(request.length);
        } else {
            throw std::runtime_error(
                QString::fromLatin1(TransportMessages::unexpectedStatus).arg(response.statusCode).toStdString());
        }
        if (response.data.size() != request.length) {
            throw std::runtime_error(QString::fromLatin1(TransportMessages::lengthMismatch)
                                         .arg(response.data.size())
                                         .arg(request.length)
                                         .toStdString());
        }
    }

private:
    const CloudRangeRequest &request;
    const qint64 lastByte;
    const int timeoutMilliseconds;
    const QByteArray &userAgent;
    QByteArray contentRange;
};

} // namespace

class HttpRangeReader::Private {
public:
    std::shared_ptr<CloudRangeCache> cache;
    int timeoutMilliseconds = 30000;
    QByteArray userAgent = QByteArrayLiteral("Norvane.Cloud/1");
};

HttpRangeReader::HttpRangeReader(std::shared_ptr<CloudRangeCache> cache)
    : d(std::make_unique<Private>())
{
    d->cache = cache ? std::move(cache) : std::make_shared<CloudRangeCache>();
}

HttpRangeReader::~HttpRangeReader() = default;

std::shared_ptr<CloudRangeCache> HttpRangeReader::cache() const
{
    return d->cache;
}

void HttpRangeReader::setCache(std::shared_ptr<CloudRangeCache> cache)
{
    d->cache = std::move(cache);
}

int HttpRangeReader::timeoutMilliseconds() const
{
    return d->timeoutMilliseconds;
}

void HttpRangeReader::setTimeoutMilliseconds(int timeoutMilliseconds)
{
    if (timeoutMilliseconds < 1)
        throw std::invalid_argument(TransportMessages::timeoutNotPositive);
    d->timeoutMilliseconds = timeoutMilliseconds;
}

QByteArray HttpRangeReader::userAgent() const
{
    return d->userAgent;
}

void HttpRangeReader::setUserAgent(const QByteArray &userAgent)
{
    d->userAgent = userAgent;
}

QString HttpRangeReader::cacheKey(const CloudRangeRequest &request)
{
    return rangeCacheKey(request.url.toEncoded(QUrl::FullyEncoded), request.offset, request.length, request.headers);
}

CloudRangeResponse HttpRangeReader::read(const CloudRangeRequest &request) const
{
    checkArguments(request);
    const QByteArray encodedUrl = request.url.toEncoded(QUrl::FullyEncoded);
    ReadContext::admit(request, encodedUrl);

    // A share of its own, so the cache outlives this read whatever happens to the reader's setting.
    const std::shared_ptr<CloudRangeCache> cache = d->cache;
    // Look up, download, verify, store. The reader claims the key, so that concurrent reads of it share one
    // download, and counts what it serves and what it downloads.
    RangeDownload range(request, d->timeoutMilliseconds, d->userAgent);
    const CachedFetchRules rules { request.useCache, true, true };
    // A hit must hold the range; waiting for another thread's download of it is cancellable and bounded.
    const CachedFetchExpectation expectation { request.offset, request.length,
        [&request] { return ReadContext::isCancelled(request); }, d->timeoutMilliseconds };
    CloudRangeResponse response = readThroughCache(
        cache.get(), rangeCacheKey(encodedUrl, request.offset, request.length, request.headers), rules,
        [&range] { return range.download(); }, [&range](CloudRangeResponse &fetched) { range.verify(fetched); },
        expectation);

    if (response.fromCache)
        ExchangeLog::cacheHit(request.url, request.offset, request.length, response.data.size());
    ReadContext::reportDone(request, response.data.size(), response.fromCache);
    return response;
}

CloudRangeResponse HttpRangeReader::read(const QUrl &url, qint64 offset, qint64 length) const
{
    CloudRangeRequest request;
    request.url = url;
    request.offset = offset;
    request.length = length;
    return read(request);
}

CloudResourceMetadata HttpRangeReader::inspect(const QUrl &url, const QHash<QByteArray, QByteArray> &headers) const
{
    requireValidUrl(url);
    RequestCheck::requireSendable(url, headers);
    HttpExchange::Request exchange;
    exchange.url = url;
    exchange.method = HttpExchange::Method::Head;
    exchange.headers = readerHeaders(d->userAgent, {});
    exchange.callerHeaders = callerHeaders(headers);
    exchange.timeoutMilliseconds = d->timeoutMilliseconds;
    const HttpExchange::Answer answer = HttpExchange::exchangeOrThrow(exchange);

    CloudResourceMetadata metadata;
    metadata.url = answer.url;
    metadata.contentLength = RangeAnswer::decimalOrUnknown(answer.contentLength);
    metadata.etag = answer.etag;
    metadata.lastModified = answer.lastModified;
    metadata.contentType = answer.contentType;
    metadata.acceptsRanges = RangeAnswer::acceptsByteRanges(answer.acceptRanges);
    metadata.statusCode = answer.statusCode;
    return metadata;
}

} // namespace Norvane::Cloud
