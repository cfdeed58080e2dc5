#pragma once

// Interpretation of the 127-byte PMTiles v3 header, kept apart from the network and the file system so it can be
// tested and fuzzed on bytes alone.

#include <norvanecloud/formats.h>

#include <QByteArray>
#include <QString>

namespace Norvane::Cloud {

/// Size of the fixed header at the start of every v3 archive.
inline constexpr qint64 pmTilesHeaderLength = 127;
/// Content type reported for local archives, which have no server to name one.
inline constexpr char pmTilesContentType[] = "application/vnd.pmtiles";

/// "vector" for tile type 1, "raster" for 2 to 5 (PNG, JPEG, WebP, AVIF), "unknown" for everything else.
QString pmTilesTileKind(int tileType);

/// Fills the header fields, headerValid, cloudReadable and diagnostic of a probe result whose contentLength,
/// acceptsRanges and remote are already final, from the archive's first bytes. An archive whose content length is
/// unknown or below 127, or fewer than 127 header bytes, gets the "too small" diagnostic and no header field.
/// Never throws.
void applyPmTilesHeader(PmTilesProbeResult &result, const QByteArray &headerBytes);

} // namespace Norvane::Cloud
