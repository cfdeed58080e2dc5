#pragma once

// Entries for the cache benchmarks: keys shaped like the reader's, ranges of a chosen size, and folders of entry
// files written directly (byte for byte what the cache writes, without a flush per file, so 65 536 of them take
// seconds instead of minutes).

#include <norvanecloud/rangetransport.h>

#include "transport/cachediskentry.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>

#include <vector>

namespace CacheBenchData {

// 64 hexadecimal digits, like HttpRangeReader::cacheKey.
inline QString keyOf(const char *prefix, int index)
{
    const QByteArray seed = QByteArray(prefix) + QByteArray::number(index);
    return QString::fromLatin1(QCryptographicHash::hash(seed, QCryptographicHash::Sha256).toHex());
}

inline Norvane::Cloud::CloudRangeResponse responseOf(int index, qsizetype size)
{
    Norvane::Cloud::CloudRangeResponse response;
    // A buffer of its own per entry, as ranges from the network would have.
    response.data = QByteArray(size, char('a' + index % 26));
    response.offset = qint64(index) * size;
    response.totalSize = qint64(1) << 32;
    response.statusCode = 206;
    // Header values of their own too: literals would share static data that a hit never has to touch.
    response.etag = QByteArray("\"0123456789abcdef\"");
    response.lastModified = QByteArray("Mon, 02 Mar 2026 10:00:00 GMT");
    response.contentType = QByteArray("image/tiff");
    response.acceptsRanges = true;
    return response;
}

// Writes count entry files of size-byte ranges into folder; appends their keys and returns the bytes written, or
// -1 when a file could not be written.
inline qint64 writeEntryFiles(
    const QString &folder, const char *prefix, int count, qsizetype size, std::vector<QString> &keys)
{
    const qint64 storedAt = QDateTime::currentMSecsSinceEpoch();
    qint64 bytes = 0;
    for (int index = 0; index < count; ++index) {
        const QString key = keyOf(prefix, index);
        const QByteArray entry = Norvane::Cloud::encodeCacheDiskEntry(responseOf(index, size), storedAt);
        QFile file(QDir(folder).filePath(Norvane::Cloud::cacheDiskFileName(key)));
        if (!file.open(QIODevice::WriteOnly) || file.write(entry) != entry.size())
            return -1;
        keys.push_back(key);
        bytes += entry.size();
    }
    return bytes;
}

} // namespace CacheBenchData
