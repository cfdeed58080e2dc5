#include "transport/cachekey.h"

#include <QCryptographicHash>
#include <QList>

#include <algorithm>

namespace Norvane::Cloud {

QString rangeCacheKey(
    const QByteArray &encodedUrl, qint64 offset, qint64 length, const QHash<QByteArray, QByteArray> &headers)
{
    QByteArray text = encodedUrl;
    text.reserve(text.size() + 48);
    text += '\n';
    text += QByteArray::number(offset);
    text += ':';
    text += QByteArray::number(length);
    if (!headers.isEmpty()) {
        QList<QByteArray> names = headers.keys();
        std::sort(names.begin(), names.end());
        for (const QByteArray &name : names) {
            text += '\n';
            text += name.toLower();
            text += ':';
            text += headers.value(name);
        }
    }
    return QString::fromLatin1(QCryptographicHash::hash(text, QCryptographicHash::Sha256).toHex());
}

QString answerCacheKey(
    const QByteArray &method, const QUrl &url, const QByteArray &body, const QHash<QByteArray, QByteArray> &headers)
{
    QHash<QByteArray, QByteArray> identity;
    identity.insert(QByteArrayLiteral("x-norvane-method"), method);
    identity.insert(QByteArrayLiteral("x-norvane-body"), body);
    identity.insert(headers);
    return rangeCacheKey(url.toEncoded(QUrl::FullyEncoded), 0, body.size(), identity);
}

} // namespace Norvane::Cloud
