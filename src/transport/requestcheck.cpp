#include "transport/requestcheck.h"

#include "transport/httptransfer.h"
#include "transport/transportmessages.h"

#include <stdexcept>

namespace Norvane::Cloud::RequestCheck {

namespace {

bool endsLineEarly(const QByteArray &text)
{
    return text.contains('\r') || text.contains('\n') || text.contains('\0');
}

} // namespace

void requireSendable(const QUrl &url, const QHash<QByteArray, QByteArray> &headers)
{
    if (!usesHttp(url))
        throw std::invalid_argument(TransportMessages::urlSchemeNotHttp);
    for (auto header = headers.constBegin(); header != headers.constEnd(); ++header) {
        if (header.key().isEmpty())
            throw std::invalid_argument(TransportMessages::headerNameEmpty);
        if (endsLineEarly(header.key()))
            throw std::invalid_argument(TransportMessages::headerNameBreaksLine);
        if (endsLineEarly(header.value()))
            throw std::invalid_argument(TransportMessages::headerValueBreaksLine);
    }
}

bool usesHttp(const QUrl &url)
{
    // QUrl keeps schemes in lower case, so every spelling of the two passes.
    return url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https");
}

bool isSameOrigin(const QUrl &first, const QUrl &second)
{
    return first.scheme() == second.scheme() && first.host() == second.host()
        && HttpExchange::portOf(first) == HttpExchange::portOf(second);
}

QUrl readLocation(const QUrl &given, const QUrl &inspected)
{
    return isSameOrigin(given, inspected) ? inspected : given;
}

} // namespace Norvane::Cloud::RequestCheck
