#include "transport/readcontext.h"

#include "transport/transportmessages.h"

#include <QVariantMap>

#include <stdexcept>

namespace Norvane::Cloud::ReadContext {

using Norvane::Core::Operations::OperationProgress;
using Norvane::Core::Operations::OperationResourceUsage;

namespace {

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

// QUrl::toString() with default options, from the fully encoded form when that is the same text: building both
// forms costs more than the rest of a cache hit. Only percent escapes and international host names differ.
QString displayText(const QUrl &url, const QByteArray &encodedUrl)
{
    if (encodedUrl.contains('%') || encodedUrl.contains("xn--"))
        return url.toString();
    return QString::fromLatin1(encodedUrl);
}

} // namespace

bool isCancelled(const CloudRangeRequest &request)
{
    return request.context.isCancellationRequested()
        || (request.cancellationRequested && request.cancellationRequested());
}

void admit(const CloudRangeRequest &request, const QByteArray &encodedUrl)
{
    const FixedTexts &texts = fixedTexts();
    const QString urlText = displayText(request.url, encodedUrl);
    OperationResourceUsage usage;
    usage.bytes = request.length;
    request.context.enforceResourceUsage(usage, texts.component, urlText);
    if (isCancelled(request))
        throw std::runtime_error(TransportMessages::requestCancelled);
    reportProgress(request, OperationProgress::UnderWay, 0, 0, texts.reading, { { texts.urlName, urlText } });
}

void reportDone(const CloudRangeRequest &request, qint64 bytes, bool fromCache)
{
    const FixedTexts &texts = fixedTexts();
    reportProgress(request, OperationProgress::Done, 100, bytes, fromCache ? texts.fromCache : texts.downloaded,
        fromCache ? texts.cacheHit : texts.cacheMiss);
}

} // namespace Norvane::Cloud::ReadContext
