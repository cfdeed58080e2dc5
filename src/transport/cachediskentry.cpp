#include "transport/cachediskentry.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QDataStream>
#include <QIODevice>

namespace Norvane::Cloud {

namespace {

void prepareStream(QDataStream &stream)
{
    stream.setVersion(QDataStream::Qt_6_0);
    stream.setByteOrder(QDataStream::BigEndian);
}

} // namespace

bool writeCacheDiskEntry(QIODevice &device, const CloudRangeResponse &response, qint64 storedAtMilliseconds)
{
    QDataStream stream(&device);
    prepareStream(stream);
    stream << cacheDiskEntryMagic << cacheDiskEntryVersion << storedAtMilliseconds;
    stream << response.data << response.offset << response.totalSize << response.statusCode;
    stream << response.etag << response.lastModified << response.contentType << response.acceptsRanges;
    return stream.status() == QDataStream::Ok;
}

QByteArray encodeCacheDiskEntry(const CloudRangeResponse &response, qint64 storedAtMilliseconds)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    writeCacheDiskEntry(buffer, response, storedAtMilliseconds);
    return bytes;
}

std::optional<CacheDiskEntry> readCacheDiskEntry(QIODevice &device)
{
    QDataStream stream(&device);
    prepareStream(stream);
    qint32 magic = 0;
    qint32 version = 0;
    stream >> magic >> version;
    // A foreign file stops here: reading on could mean reading a large file for nothing.
    if (stream.status() != QDataStream::Ok || magic != cacheDiskEntryMagic || version != cacheDiskEntryVersion)
        return std::nullopt;

    CacheDiskEntry entry;
    CloudRangeResponse &response = entry.response;
    stream >> entry.storedAtMilliseconds;
    stream >> response.data >> response.offset >> response.totalSize >> response.statusCode;
    stream >> response.etag >> response.lastModified >> response.contentType >> response.acceptsRanges;
    if (stream.status() != QDataStream::Ok)
        return std::nullopt;
    return entry;
}

std::optional<CacheDiskEntry> decodeCacheDiskEntry(const QByteArray &bytes)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    return readCacheDiskEntry(buffer);
}

QString cacheDiskFileName(const QString &key)
{
    const QByteArray digest = QCryptographicHash::hash(key.toUtf8(), QCryptographicHash::Sha256).toHex();
    return QLatin1String(digest) + QLatin1String(".nvc");
}

} // namespace Norvane::Cloud
