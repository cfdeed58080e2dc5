#pragma once

// What a server's answer says about a byte range, read from its header values: pure functions, so they are
// tested without a network.

#include <QByteArray>

namespace Norvane::Cloud::RangeAnswer {

/// The decimal number of text, or -1 when it is none.
qint64 decimalOrUnknown(const QByteArray &text);

/// Whether an "Accept-Ranges" value offers byte ranges ("bytes", in any letter case).
bool acceptsByteRanges(const QByteArray &acceptRanges);

/// The object's total size: after the slash of "Content-Range", or for a whole object (status 200) without one
/// its "Content-Length"; -1 when unknown.
qint64 totalSize(const QByteArray &contentRange, const QByteArray &contentLength, qint32 statusCode);

/// Whether a "Content-Range" value names exactly the bytes first to last ("bytes first-last/total").
bool contentRangeMatches(const QByteArray &contentRange, qint64 first, qint64 last);

} // namespace Norvane::Cloud::RangeAnswer
