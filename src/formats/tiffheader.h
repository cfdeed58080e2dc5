#pragma once

// Interpretation of the first 16 bytes of a TIFF or BigTIFF object, kept apart from the network so it can be
// tested and fuzzed on bytes alone.

#include <norvanecloud/formats.h>

#include <QByteArray>

namespace Norvane::Cloud {

/// The number of bytes the COG probe reads: enough for the BigTIFF header, which is the longer one.
inline constexpr qint64 tiffHeaderReadLength = 16;
/// First IFD offsets up to this value (inclusive) count as near the start of the object.
inline constexpr qint64 tiffNearStartLimit = 16384;

/// Fills the header facts, cloudReadable and diagnostic of a probe result whose inspection fields (url,
/// contentLength, etag, contentType, acceptsRanges) are already set, from the object's first bytes. Bytes past the
/// sixteenth are ignored; a shorter input is judged on the bytes it has, missing ones making the header
/// unsupported. Never throws.
void applyTiffHeader(CogProbeResult &result, const QByteArray &headerBytes);

} // namespace Norvane::Cloud
