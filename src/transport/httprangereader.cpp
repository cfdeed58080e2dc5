#include <norvanecloud/rangetransport.h>

#include "transport/cloudrangecacheinternals_p.h"
#include "transport/httpexchange.h"
#include "transport/transportmessages.h"

#include <QCryptographicHash>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QVariantMap>

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace Norvane::Cloud {

using Norvane::Core::Operations::OperationProgress;
using Norvane::Core::Operations::OperationResourceUsage;

namespace {

void requireValidUrl(const QUrl &url)
{
    if (!url.isValid() || url.scheme().isEmpty())
        throw std::invalid_argument(TransportMessages::urlInvalid);
}

QNetworkRequest prepareRequest(const QUrl &url, const QByteArray &userAgent)
{
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setRawHeader(QByteArrayLiteral("User-Agent"), userAgent);
    request.setRawHeader(QByteArrayLiteral("Accept-Encoding"), QByteArrayLiteral("identity"));
    return request;
}

// Qt matches raw header names without regard to letter case, so a caller's "range" replaces the reader's "Range".
void applyCallerHeaders(QNetworkRequest &request, const QHash<QByteArray, QByteArray> &headers)
{
    for (auto it = headers.cbegin(); it != headers.cend(); ++it)
        request.setRawHeader(it.key(), it.value());
}

qint32 statusCodeOf(const QNetworkReply &reply)
{
    return reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}

qint64 decimalOrUnknown(const QByteArray &text)
{
    bool ok = false;
    const qint64 value = text.toLongLong(&ok, 10);
    return ok ? value : -1;
}

bool acceptsByteRanges(const QNetworkReply &reply)
{
    return reply.rawHeader(QByteArrayLiteral("Accept-Ranges")).compare(QByteArrayLiteral("bytes"), Qt::CaseInsensitive)
        == 0;
}

qint64 totalSizeOf(const QNetworkReply &reply, qint32 statusCode)
{
    const QByteArray contentRange = reply.rawHeader(QByteArrayLiteral("Content-Range"));
    const qsizetype slash = contentRange.lastIndexOf('/');
    qint64 total = slash < 0 ? -1 : decimalOrUnknown(contentRange.mid(slash + 1).trimmed());
    if (total < 0 && statusCode == 200)
        total = decimalOrUnknown(reply.rawHeader(QByteArrayLiteral("Content-Length")));
    return total;
}

bool contentRangeMatches(const QByteArray &rawValue, qint64 first, qint64 last)
{
    const QByteArray value = rawValue.trimmed();
    if (!value.startsWith("bytes "))
        return false;
    const qsizetype dash = value.indexOf('-', 6);
    if (dash < 0)
        return false;
    const qsizetype slash = value.indexOf('/', dash + 1);
    if (slash < 0)
        return false;
    bool firstOk = false;
    bool lastOk = false;
    const qint64 sentFirst = value.mid(6, dash - 6).toLongLong(&firstOk, 10);
    const qint64 sentLast = value.mid(dash + 1, slash - dash - 1).toLongLong(&lastOk, 10);
    return firstOk && lastOk && sentFirst == first && sentLast == last;
}

void reportProgress(const CloudRangeRequest &request,
    qint32 state,
    qint32 percent,
    qint64 completed,
    const QString &message,
    const QVariantMap &details)
{
    OperationProgress progress;
    progress.state = state;
    progress.percent = percent;
    progress.completed = completed;
    progress.total = request.length;
    progress.message = message;
    progress.details = details;
    request.context.reportProgress(progress);
}

// Built once: a cache hit is answered in a few microseconds, and fresh strings and maps would dominate it.
struct FixedTexts {
    QString component = QString::fromLatin1(TransportMessages::readerComponent);
    QString reading = QString::fromLatin1(TransportMessages::progressReading);
    QString fromCache = QString::fromLatin1(TransportMessages::progressFromCache);
    QString downloaded = QString::fromLatin1(TransportMessages::progressDownloaded);
    QString urlName = QStringLiteral("url");
    QVariantMap cacheHit { { QStringLiteral("cacheHit"), true } };
    QVariantMap cacheMiss { { QStringLiteral("cacheHit"), false } };
};

const FixedTexts &fixedTexts()
{
    static const FixedTexts texts;
    return texts;
}

bool cancellationRequested(const CloudRangeRequest &request)
{
    return request.context.isCancellationRequested()
        || (request.cancellationRequested && request.cancellationRequested());
}

// Releases the claim on a key when the owning read ends by any path. Declared before the network objects of the
// read, so they are gone before waiting readers wake.
class FetchClaim {
public:
    FetchClaim() = default;
    FetchClaim(const FetchClaim &) = delete;
    FetchClaim &operator=(const FetchClaim &) = delete;
    ~FetchClaim()
    {
        if (cache)
            CloudRangeCacheInternals::finishFetch(*cache, key);
    }
    void claim(CloudRangeCache &claimedCache, const QString &claimedKey)
    {
        cache = &claimedCache;
        key = claimedKey;
    }

private:
    CloudRangeCache *cache = nullptr;
    QString key;
};

// The cache key of request, given its URL already in fully encoded form.
QString keyFor(const QByteArray &encodedUrl, const CloudRangeRequest &request)
{
    QByteArray text = encodedUrl;
    text.reserve(text.size() + 48);
    text += '\n';
    text += QByteArray::number(request.offset);
    text += ':';
    text += QByteArray::number(request.length);
    if (!request.headers.isEmpty()) {
        QList<QByteArray> names = request.headers.keys();
        std::sort(names.begin(), names.end());
        for (const QByteArray &name : names) {
            text += '\n';
            text += name.toLower();
            text += ':';
            text += request.headers.value(name);
        }
    }
    return QString::fromLatin1(QCryptographicHash::hash(text, QCryptographicHash::Sha256).toHex());
}

// QUrl::toString() with default options, from the fully encoded form when that is the same text: building both
// forms costs more than the rest of a cache hit. Only percent escapes and international host names differ.
QString displayText(const QUrl &url, const QByteArray &encodedUrl)
{
    if (encodedUrl.contains('%') || encodedUrl.contains("xn--"))
        return url.toString();
    return QString::fromLatin1(encodedUrl);
}

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
    return keyFor(request.url.toEncoded(QUrl::FullyEncoded), request);
}

CloudRangeResponse HttpRangeReader::read(const CloudRangeRequest &request) const
{
    requireValidUrl(request.url);
    if (request.offset < 0)
        throw std::invalid_argument(TransportMessages::offsetNegative);
    if (request.length < 1)
        throw std::invalid_argument(TransportMessages::lengthNotPositive);
    if (request.offset > std::numeric_limits<qint64>::max() - request.length)
        throw std::invalid_argument(TransportMessages::rangeOverflows);
    HttpExchange::requireApplicationObject();

    const FixedTexts &texts = fixedTexts();
    const QByteArray encodedUrl = request.url.toEncoded(QUrl::FullyEncoded);
    const QString urlText = displayText(request.url, encodedUrl);
    OperationResourceUsage usage;
    usage.bytes = request.length;
    request.context.enforceResourceUsage(usage, texts.component, urlText);

    if (cancellationRequested(request))
        throw std::runtime_error(TransportMessages::requestCancelled);

    reportProgress(request, TransportMessages::progressUnderWay, 0, 0, texts.reading, { { texts.urlName, urlText } });

    const QString key = keyFor(encodedUrl, request);
    CloudRangeResponse response;
    // A share of its own, so the cache outlives this read whatever happens to the reader's setting.
    const std::shared_ptr<CloudRangeCache> cache = d->cache;
    const bool useCache = request.useCache && cache;

    FetchClaim claim;
    if (useCache) {
        bool hit = cache->get(key, response);
        while (!hit) {
            if (!CloudRangeCacheInternals::beginFetch(*cache, key)) {
                claim.claim(*cache, key);
                // The read that owned the key before may have stored it between our miss and our claim; looking
                // only when something is there keeps the statistics of an ordinary miss as they are.
                if (CloudRangeCacheInternals::holds(*cache, key))
                    hit = cache->get(key, response);
                break;
            }
            hit = cache->get(key, response);
        }
        if (hit) {
            CloudRangeCacheInternals::recordCacheTransfer(*cache, response.data.size());
            reportProgress(
                request, TransportMessages::progressDone, 100, response.data.size(), texts.fromCache, texts.cacheHit);
            return response;
        }
    }

    {
        QNetworkAccessManager manager;
        QNetworkRequest networkRequest = prepareRequest(request.url, d->userAgent);
        networkRequest.setRawHeader(QByteArrayLiteral("Range"),
            "bytes=" + QByteArray::number(request.offset) + '-'
                + QByteArray::number(request.offset + request.length - 1));
        applyCallerHeaders(networkRequest, request.headers);

        const std::unique_ptr<QNetworkReply> reply = HttpExchange::exchange(d->timeoutMilliseconds, manager,
            networkRequest, HttpExchange::Method::Get, [&request] { return cancellationRequested(request); });
        if (reply->error() != QNetworkReply::NoError)
            HttpExchange::failWithNetworkError(*reply);

        response.statusCode = statusCodeOf(*reply);
        response.offset = request.offset;
        response.totalSize = totalSizeOf(*reply, response.statusCode);
        response.etag = reply->rawHeader(QByteArrayLiteral("ETag"));
        response.lastModified = reply->rawHeader(QByteArrayLiteral("Last-Modified"));
        response.contentType = reply->rawHeader(QByteArrayLiteral("Content-Type"));
        response.acceptsRanges = response.statusCode == 206 || acceptsByteRanges(*reply);
        response.data = reply->readAll();

        if (cache)
            CloudRangeCacheInternals::recordNetworkTransfer(*cache, response.data.size());

        if (response.statusCode == 206) {
            if (!contentRangeMatches(reply->rawHeader(QByteArrayLiteral("Content-Range")), request.offset,
                    request.offset + request.length - 1))
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
        response.fromCache = false;
        if (useCache)
            cache->put(key, response);
        reportProgress(
            request, TransportMessages::progressDone, 100, response.data.size(), texts.downloaded, texts.cacheMiss);
    }
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
    HttpExchange::requireApplicationObject();

    QNetworkAccessManager manager;
    QNetworkRequest request = prepareRequest(url, d->userAgent);
    applyCallerHeaders(request, headers);
    const std::unique_ptr<QNetworkReply> reply
        = HttpExchange::exchange(d->timeoutMilliseconds, manager, request, HttpExchange::Method::Head, {});
    if (reply->error() != QNetworkReply::NoError)
        HttpExchange::failWithNetworkError(*reply);

    CloudResourceMetadata metadata;
    metadata.url = reply->url();
    metadata.contentLength = decimalOrUnknown(reply->rawHeader(QByteArrayLiteral("Content-Length")));
    metadata.etag = reply->rawHeader(QByteArrayLiteral("ETag"));
    metadata.lastModified = reply->rawHeader(QByteArrayLiteral("Last-Modified"));
    metadata.contentType = reply->rawHeader(QByteArrayLiteral("Content-Type"));
    metadata.acceptsRanges = acceptsByteRanges(*reply);
    metadata.statusCode = statusCodeOf(*reply);
    return metadata;
}

} // namespace Norvane::Cloud
