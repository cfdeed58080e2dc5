#pragma once

// The keys of the range cache: 64 lower-case hexadecimal digits of a SHA-256 digest. Existing entry files are
// found by these keys, so their text must never change.

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QUrl>

namespace Norvane::Cloud {

/// The key of a byte range: the digest of the fully encoded URL, the offset, the length and the headers (names
/// lower-cased, in byte order of the names as given).
QString rangeCacheKey(
    const QByteArray &encodedUrl, qint64 offset, qint64 length, const QHash<QByteArray, QByteArray> &headers);

/// The key of a whole answer, identified by the method, the URL, the request body and the configured headers. Its
/// text is that of a range of the body's length at offset 0 whose headers are "x-norvane-method" and
/// "x-norvane-body" followed by the configured ones, a configured header replacing one of the same name.
QString answerCacheKey(
    const QByteArray &method, const QUrl &url, const QByteArray &body, const QHash<QByteArray, QByteArray> &headers);

} // namespace Norvane::Cloud
