#pragma once

// Every message text of the format sources, once. Tests pin them exactly.

namespace Norvane::Cloud::FormatsMessages {

// COG probe diagnostics, in the order of their precedence after the header checks.
inline constexpr char tiffByteOrderInvalid[] = "Not a TIFF stream: invalid byte-order marker.";
inline constexpr char tiffUnsupported[] = "Not a supported TIFF or BigTIFF stream.";
inline constexpr char rangesNotAdvertised[] = "Server does not advertise HTTP byte-range support.";
inline constexpr char tiffFirstIfdInvalid[] = "TIFF header contains an invalid first IFD offset.";
inline constexpr char tiffFirstIfdFar[]
    = "TIFF is range-readable, but its first IFD is not near the start; COG layout is unlikely.";
inline constexpr char tiffFirstIfdNear[] = "TIFF is range-readable and its first IFD is near the start.";

// COG viewport reads.
inline constexpr char viewportUrlInvalid[] = "COG viewport URL is invalid";
inline constexpr char viewportNoRanges[] = "COG viewport requires at least one byte range";
inline constexpr char viewportGapNegative[] = "COG viewport coalesce gap cannot be negative";
inline constexpr char viewportRangeInvalid[] = "COG viewport contains an invalid byte range";
inline constexpr char viewportCancelled[] = "COG viewport request cancelled";
inline constexpr char viewportComponent[] = "Norvane.Cloud.CogSource";
inline constexpr char viewportProgressReading[] = "Reading COG viewport";
inline constexpr char viewportProgressReady[] = "COG viewport ready";

// GDAL access strings.
inline constexpr char cogUrlNotHttp[] = "COG URL must use HTTP or HTTPS";
inline constexpr char cloudObjectUrlNotHttp[] = "Cloud object URL must use HTTP or HTTPS";
inline constexpr char gdalCacheSizeNotPositive[] = "GDAL COG cache size must be positive";

// PMTiles.
inline constexpr char pmTilesTooSmall[] = "Object is too small to contain a PMTiles v3 header.";
// %1 tile kind, %2 "HTTP" or "local".
inline constexpr char pmTilesReadable[] = "PMTiles v3 %1 archive is %2 range-readable; directory offsets are valid.";
inline constexpr char pmTilesNotReadable[] = "PMTiles requires HTTP byte ranges and a valid v3 archive header.";
inline constexpr char pmTilesLocalMissing[] = "PMTiles local archive does not exist";
inline constexpr char pmTilesLocalOutOfBounds[] = "PMTiles local range is out of bounds";
inline constexpr char pmTilesLocalOpenFailed[] = "PMTiles local range could not be opened";
inline constexpr char pmTilesLocalTruncated[] = "PMTiles local range was truncated";

// GeoParquet.
inline constexpr char parquetTooSmall[] = "Object is too small to be a Parquet file.";
inline constexpr char parquetReadable[] = "GeoParquet is range-readable and has valid Parquet boundary markers.";
inline constexpr char parquetNotReadable[]
    = "GeoParquet requires HTTP byte ranges and valid PAR1 header/footer markers.";

// COG structure: the header and image file directories.
inline constexpr char cogLengthUnknown[] = "COG object length is unknown";
inline constexpr char cogFileNotOpened[] = "COG local file could not be opened";
inline constexpr char tiffReadShort[] = "TIFF object could not be read completely";
inline constexpr char tiffHeaderInvalid[] = "TIFF header is invalid";
inline constexpr char tiffNoIfd[] = "TIFF has no image file directory";
inline constexpr char tiffIfdOutside[] = "TIFF image file directory lies outside the object";
inline constexpr char tiffIfdLoop[] = "TIFF image file directory chain loops";
inline constexpr char tiffTooManyIfds[] = "TIFF has more image file directories than supported";
inline constexpr char tiffIfdTooLarge[] = "TIFF image file directory has more entries than supported";
inline constexpr char tiffValuesOutside[] = "TIFF tag values lie outside the object";
inline constexpr char tiffTooManyValues[] = "TIFF tag values exceed the supported total";
inline constexpr char tiffTagMissing[] = "TIFF image file directory lacks a required tag";
inline constexpr char tiffImageLayoutInvalid[] = "TIFF image has an invalid size, tile size or number of samples";
inline constexpr char tiffBlockCountWrong[] = "TIFF tile or strip count does not match the image";
inline constexpr char tiffDataOutside[] = "TIFF tile or strip data lies outside the object";

// COG layout rules, in the order they are checked.
inline constexpr char layoutMainNotTiled[] = "Main image is not tiled";
inline constexpr char layoutNoOverviews[] = "Image larger than one tile has no overviews";
inline constexpr char layoutOverviewNotTiled[] = "Overview is not tiled";
inline constexpr char layoutIfdAfterData[] = "Image file directory lies after image data";
inline constexpr char layoutOverviewDataAfter[] = "Overview data does not lie before full-resolution data";
inline constexpr char layoutOffsetsUnordered[] = "Tile offsets of an image are not in increasing order";

} // namespace Norvane::Cloud::FormatsMessages
