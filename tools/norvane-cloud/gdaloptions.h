#pragma once

// GDAL configuration options that let GDAL open one object the way the tool reads it: the allowed extensions cover
// the object's name, and the tool's headers and time-out reach GDAL's HTTP layer.

#include "commandline.h"

#include <QHash>

namespace NorvaneCloudTool {

/// The value of CPL_VSIL_CURL_ALLOWED_EXTENSIONS that admits the location's name: the library's ".tif,.tiff" for
/// TIFF names, the name's own extension for any other, and GDAL's "{noext}" for a name without one.
QByteArray allowedExtensionsFor(const QString &location);

/// The headers as GDAL_HTTP_HEADERS reads them: "Name: value" items separated by commas, an item that holds a
/// comma or a double quote written as a quoted string.
QByteArray gdalHeaders(const QHash<QByteArray, QByteArray> &headers);

/// The library's COG options with cacheSize, the allowed extensions of the location (when it is not empty), the
/// global headers as GDAL_HTTP_HEADERS (when there are any) and the time-out as GDAL_HTTP_TIMEOUT and
/// GDAL_HTTP_CONNECTTIMEOUT in whole seconds, rounded up (with a location, or when it is not the tool's default).
QHash<QByteArray, QByteArray> gdalAccessOptions(const QString &location, const GlobalOptions &global, qint64 cacheSize);

/// GDAL options as "--config KEY VALUE" pairs, sorted by key, each value a single shell word (single-quoted unless
/// it is plain), so that the pairs can be pasted into a command line.
QStringList gdalConfigPairs(const QHash<QByteArray, QByteArray> &options);

} // namespace NorvaneCloudTool
