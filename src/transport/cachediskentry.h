#pragma once

// The entry file of the range cache's disk tier: a QDataStream record (Qt 6.0 format, big-endian) holding the
// magic "NVCH", the format version, the store time and the fields of a CloudRangeResponse except fromCache.
// Pure functions of bytes and devices, so the format is tested and fuzzed without a cache or a folder.

#include <norvanecloud/rangetransport.h>

#include <QByteArray>
#include <QString>

#include <optional>

QT_BEGIN_NAMESPACE
class QIODevice;
QT_END_NAMESPACE

namespace Norvane::Cloud {

/// The bytes "NVCH" read as a big-endian 32-bit integer.
inline constexpr qint32 cacheDiskEntryMagic = 0x4E564348;
inline constexpr qint32 cacheDiskEntryVersion = 1;

/// One decoded entry file. The response's fromCache is always false: it is never stored.
struct CacheDiskEntry {
    /// Milliseconds since the Unix epoch when the entry was stored.
    qint64 storedAtMilliseconds = 0;
    CloudRangeResponse response;
};

/// Writes one entry at the device's position. False when the device refused a write.
bool writeCacheDiskEntry(QIODevice &device, const CloudRangeResponse &response, qint64 storedAtMilliseconds);
QByteArray encodeCacheDiskEntry(const CloudRangeResponse &response, qint64 storedAtMilliseconds);

/// Reads one entry from the device's position. Empty when the bytes are short or corrupt, or the magic or the
/// format version is wrong; bytes after the last field are ignored. Expiry is the caller's business.
std::optional<CacheDiskEntry> readCacheDiskEntry(QIODevice &device);
std::optional<CacheDiskEntry> decodeCacheDiskEntry(const QByteArray &bytes);

/// The entry file name of a key: the SHA-256 digest of its UTF-8 bytes in lower-case hexadecimal, then ".nvc".
QString cacheDiskFileName(const QString &key);

} // namespace Norvane::Cloud
