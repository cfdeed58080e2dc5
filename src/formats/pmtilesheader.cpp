#include "formats/pmtilesheader.h"

#include "formats/formatsmessages.h"

#include <QtEndian>
#include <QtNumeric>

namespace Norvane::Cloud {

namespace {

quint64 readLittleEndian64(const QByteArray &bytes, int position)
{
    // Through a view of exactly eight bytes: with the sanitizers, GCC otherwise takes the pointer for the empty
    // array's one byte and warns about reading past it.
    return qFromLittleEndian<quint64>(QByteArrayView(bytes).sliced(position, 8).data());
}

int readByte(const QByteArray &bytes, int position)
{
    return quint8(bytes.at(position));
}

// Both values come straight from the header, so their sum may wrap even in unsigned arithmetic.
bool sectionFits(quint64 offset, quint64 length, quint64 archiveLength)
{
    quint64 end = 0;
    return !qAddOverflow(offset, length, &end) && end <= archiveLength;
}

} // namespace

QString pmTilesTileKind(int tileType)
{
    switch (tileType) {
    case 1:
        return QStringLiteral("vector");
    case 2:
    case 3:
    case 4:
    case 5:
        return QStringLiteral("raster");
    default:
        return QStringLiteral("unknown");
    }
}

void applyPmTilesHeader(PmTilesProbeResult &result, const QByteArray &headerBytes)
{
    result.headerValid = false;
    result.cloudReadable = false;
    if (result.contentLength < pmTilesHeaderLength || headerBytes.size() < pmTilesHeaderLength) {
        result.diagnostic = QLatin1String(FormatsMessages::pmTilesTooSmall);
        return;
    }

    result.specificationVersion = readByte(headerBytes, 7);
    result.headerValid = headerBytes.startsWith("PMTiles") && result.specificationVersion == 3;

    if (result.headerValid) {
        const quint64 rootDirectoryOffset = readLittleEndian64(headerBytes, 8);
        const quint64 rootDirectoryLength = readLittleEndian64(headerBytes, 16);
        const quint64 metadataOffset = readLittleEndian64(headerBytes, 24);
        const quint64 metadataLength = readLittleEndian64(headerBytes, 32);
        const quint64 tileDataOffset = readLittleEndian64(headerBytes, 56);
        const quint64 tileDataLength = readLittleEndian64(headerBytes, 64);
        // Stored bit for bit: a value with the top bit set reads negative, which shows it can never be valid.
        result.rootDirectoryOffset = qint64(rootDirectoryOffset);
        result.rootDirectoryLength = qint64(rootDirectoryLength);
        result.metadataOffset = qint64(metadataOffset);
        result.metadataLength = qint64(metadataLength);
        result.tileDataOffset = qint64(tileDataOffset);
        result.tileDataLength = qint64(tileDataLength);
        result.tileType = readByte(headerBytes, 99);
        result.minimumZoom = readByte(headerBytes, 100);
        result.maximumZoom = readByte(headerBytes, 101);
        result.tileKind = pmTilesTileKind(result.tileType);

        const quint64 archiveLength = quint64(result.contentLength);
        result.headerValid = sectionFits(rootDirectoryOffset, rootDirectoryLength, archiveLength)
            && sectionFits(metadataOffset, metadataLength, archiveLength)
            && sectionFits(tileDataOffset, tileDataLength, archiveLength) && result.minimumZoom <= result.maximumZoom;
    }

    result.cloudReadable = result.acceptsRanges && result.headerValid;
    if (result.cloudReadable) {
        result.diagnostic = QLatin1String(FormatsMessages::pmTilesReadable)
                                .arg(result.tileKind, result.remote ? QStringLiteral("HTTP") : QStringLiteral("local"));
    } else {
        result.diagnostic = QLatin1String(FormatsMessages::pmTilesNotReadable);
    }
}

} // namespace Norvane::Cloud
