#pragma once

// The image file directories of a TIFF or BigTIFF object, read through a callable so the same walk serves remote
// objects, local files and the fuzzer. Bounded for hostile input: every count and offset is checked against the
// object before anything is allocated for it.

#include <norvanecloud/formats.h>

#include <QByteArray>

#include <functional>

namespace Norvane::Cloud {

/// Returns exactly length bytes of the object from offset; it is only asked for ranges inside the object.
using CogByteReader = std::function<QByteArray(qint64 offset, qint64 length)>;

/// Reads are made in aligned blocks of this size (the last one clamped to the object), or in one read of their
/// own when larger.
inline constexpr qint64 cogStructureBlockBytes = 16384;
inline constexpr int cogStructureMaximumImages = 256;
inline constexpr quint64 cogStructureMaximumEntries = 65535;
/// Over all directories, counting every value of the tags read.
inline constexpr quint64 cogStructureMaximumValues = 16 * 1024 * 1024;

/// Walks the header and the directory chain of an object of objectLength bytes. The result's url is left empty.
/// Throws std::runtime_error with one of the TIFF structure messages of formatsmessages.h; exceptions of read
/// propagate.
CogStructureResult readCogStructure(const CogByteReader &read, qint64 objectLength);

} // namespace Norvane::Cloud
