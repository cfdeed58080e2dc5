#include "transport/rangeanswer.h"

namespace Norvane::Cloud::RangeAnswer {

qint64 decimalOrUnknown(const QByteArray &text)
{
    bool ok = false;
    const qint64 value = text.toLongLong(&ok, 10);
    return ok ? value : -1;
}

bool acceptsByteRanges(const QByteArray &acceptRanges)
{
    return acceptRanges.compare(QByteArrayLiteral("bytes"), Qt::CaseInsensitive) == 0;
}

qint64 totalSize(const QByteArray &contentRange, const QByteArray &contentLength, qint32 statusCode)
{
    const qsizetype slash = contentRange.lastIndexOf('/');
    qint64 total = slash < 0 ? -1 : decimalOrUnknown(contentRange.mid(slash + 1).trimmed());
    if (total < 0 && statusCode == 200)
        total = decimalOrUnknown(contentLength);
    return total;
}

bool contentRangeMatches(const QByteArray &contentRange, qint64 first, qint64 last)
{
    const QByteArray value = contentRange.trimmed();
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

} // namespace Norvane::Cloud::RangeAnswer
