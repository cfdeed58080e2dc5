#include "transport/exchangelog.h"

#include "transport/httptransfer.h"

#include <QElapsedTimer>

namespace Norvane::Cloud::ExchangeLog {

Q_LOGGING_CATEGORY(exchangeCategory, "norvane.cloud.exchange", QtWarningMsg)

namespace {

// %1 method, %2 URL, %3 " bytes=first-last" or nothing, %4 how it ended, %5 body bytes, %6 milliseconds.
constexpr char exchangeLine[] = "%1 %2%3: %4, %5 bytes, %6 ms";
// %1 URL, %2 " bytes=first-last", %3 bytes served.
constexpr char cacheHitLine[] = "GET %1%2: cache hit, %3 bytes";
constexpr char timedOut[] = "timed out";
constexpr char cancelled[] = "cancelled";
// %1 the network library's error text: no status arrived.
constexpr char failed[] = "failed (%1)";

QString rangeOf(const HttpExchange::Request &request)
{
    for (const auto &[name, value] : request.headers) {
        if (name.compare("Range", Qt::CaseInsensitive) == 0)
            return QLatin1Char(' ') + QString::fromLatin1(value);
    }
    return QString();
}

QString endingOf(const HttpExchange::Answer &answer)
{
    if (answer.ending == HttpExchange::Ending::TimedOut)
        return QString::fromLatin1(timedOut);
    if (answer.ending == HttpExchange::Ending::Cancelled)
        return QString::fromLatin1(cancelled);
    if (answer.statusCode == 0)
        return QString::fromLatin1(failed).arg(answer.errorText);
    return QString::number(answer.statusCode);
}

} // namespace

HttpExchange::Answer logged(
    const HttpExchange::Request &request, HttpExchange::Answer (*exchange)(const HttpExchange::Request &request))
{
    if (!exchangeCategory().isInfoEnabled())
        return exchange(request);
    QElapsedTimer clock;
    clock.start();
    HttpExchange::Answer answer = exchange(request);
    const QString line = QString::fromLatin1(exchangeLine)
                             .arg(QString::fromLatin1(HttpExchange::methodName(request.method)), request.url.toString(),
                                 rangeOf(request), endingOf(answer))
                             .arg(answer.body.size())
                             .arg(clock.elapsed());
    qCInfo(exchangeCategory, "%s", qUtf8Printable(line));
    return answer;
}

void cacheHit(const QUrl &url, qint64 offset, qint64 length, qint64 bytes)
{
    if (!exchangeCategory().isInfoEnabled())
        return;
    const QString range = QStringLiteral(" bytes=%1-%2").arg(offset).arg(offset + length - 1);
    qCInfo(exchangeCategory, "%s",
        qUtf8Printable(QString::fromLatin1(cacheHitLine).arg(url.toString(), range).arg(bytes)));
}

} // namespace Norvane::Cloud::ExchangeLog
