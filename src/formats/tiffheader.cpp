#include "formats/tiffheader.h"

#include "formats/formatsmessages.h"

#include <QtEndian>

#include <limits>

namespace Norvane::Cloud {

namespace {

// The caller has checked that the bytes reach position + sizeof(Unsigned).
template <typename Unsigned> Unsigned readUnsigned(const QByteArray &bytes, int position, bool bigEndian)
{
    const char *source = bytes.constData() + position;
    return bigEndian ? qFromBigEndian<Unsigned>(source) : qFromLittleEndian<Unsigned>(source);
}

} // namespace

void applyTiffHeader(CogProbeResult &result, const QByteArray &headerBytes)
{
    result.firstIfdOffset = -1;
    result.tiffHeaderValid = false;
    result.bigTiff = false;
    result.firstIfdNearStart = false;
    result.cloudReadable = false;

    bool bigEndian = false;
    if (headerBytes.startsWith("II")) {
        result.byteOrder = QByteArrayLiteral("II");
    } else if (headerBytes.startsWith("MM")) {
        result.byteOrder = QByteArrayLiteral("MM");
        bigEndian = true;
    } else {
        result.byteOrder.clear();
        result.diagnostic = QLatin1String(FormatsMessages::tiffByteOrderInvalid);
        return;
    }

    const auto unsupported = [&result] { result.diagnostic = QLatin1String(FormatsMessages::tiffUnsupported); };
    if (headerBytes.size() < 4) {
        unsupported();
        return;
    }
    const quint16 version = readUnsigned<quint16>(headerBytes, 2, bigEndian);
    // Set before the version is judged, so an unusable BigTIFF header still says it claimed to be one.
    result.bigTiff = version == 43;

    qint64 offset = -1;
    bool passes = false;
    if (version == 42 && headerBytes.size() >= 8) {
        offset = qint64(readUnsigned<quint32>(headerBytes, 4, bigEndian));
        passes = offset >= 8;
    } else if (version == 43 && headerBytes.size() >= 16 && readUnsigned<quint16>(headerBytes, 4, bigEndian) == 8
        && readUnsigned<quint16>(headerBytes, 6, bigEndian) == 0) {
        const quint64 raw = readUnsigned<quint64>(headerBytes, 8, bigEndian);
        offset = raw > quint64(std::numeric_limits<qint64>::max()) ? -1 : qint64(raw);
        passes = offset >= 16;
    } else {
        unsupported();
        return;
    }

    result.firstIfdOffset = offset;
    result.tiffHeaderValid = passes;
    result.firstIfdNearStart = offset >= 0 && offset <= tiffNearStartLimit;
    result.cloudReadable = result.tiffHeaderValid && result.acceptsRanges
        && (result.contentLength < 0 || result.firstIfdOffset < result.contentLength);

    if (!result.acceptsRanges)
        result.diagnostic = QLatin1String(FormatsMessages::rangesNotAdvertised);
    else if (!result.tiffHeaderValid)
        result.diagnostic = QLatin1String(FormatsMessages::tiffFirstIfdInvalid);
    else if (result.firstIfdOffset > tiffNearStartLimit)
        result.diagnostic = QLatin1String(FormatsMessages::tiffFirstIfdFar);
    else
        result.diagnostic = QLatin1String(FormatsMessages::tiffFirstIfdNear);
}

} // namespace Norvane::Cloud
