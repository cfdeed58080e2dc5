#pragma once

// The strings a host hands to GDAL: "/vsicurl/" virtual paths and the recommended configuration options for COG
// access. Pure functions; nothing here touches the network, a file or a cache.

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QUrl>

namespace Norvane::Cloud {

/// A valid URL whose scheme is "http" or "https" (QUrl keeps schemes in lower case, so any spelling passes).
bool isHttpUrl(const QUrl &url);

/// Whether a PMTiles location names a remote archive: the text parses, tolerantly, as an HTTP(S) URL.
bool isRemoteLocation(const QString &location);

/// "/vsicurl/" followed by the fully encoded URL. Throws std::invalid_argument with refusalMessage when the URL
/// is not an HTTP(S) URL.
QString gdalVirtualPath(const QUrl &url, const char *refusalMessage);
/// The virtual path of a COG, refused with "COG URL must use HTTP or HTTPS".
QString cogGdalVirtualPath(const QUrl &url);
/// The virtual path of a PMTiles or GeoParquet object, refused with "Cloud object URL must use HTTP or HTTPS".
QString cloudObjectGdalVirtualPath(const QUrl &url);

/// The virtual path of an HTTP(S) location, otherwise the absolute path of the text as a file path (which need
/// not exist). Never throws.
QString gdalPathOfLocation(const QString &location);

/// The four GDAL configuration options for COG access. Throws std::invalid_argument
/// "GDAL COG cache size must be positive" when cacheSize is below 1.
QHash<QByteArray, QByteArray> recommendedCogGdalOptions(qint64 cacheSize);

} // namespace Norvane::Cloud
