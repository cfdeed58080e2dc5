#include "formats/formatsmessages.h"
#include "formats/tiffheader.h"
#include "formatstesting.h"

#include <QTest>

using namespace Norvane::Cloud;

namespace {

QByteArray unsignedBytes(quint64 value, int size, bool bigEndian)
{
    QByteArray bytes(size, '\0');
    for (int index = 0; index < size; ++index)
        bytes[index] = char((value >> (bigEndian ? 8 * (size - 1 - index) : 8 * index)) & 0xff);
    return bytes;
}

// Order mark, version, 32-bit offset, then eight unused bytes.
QByteArray classic(const QByteArray &order, quint64 firstIfd, int version = 42)
{
    const bool bigEndian = order == "MM";
    return order + unsignedBytes(version, 2, bigEndian) + unsignedBytes(firstIfd, 4, bigEndian) + QByteArray(8, 'x');
}

QByteArray bigTiff(const QByteArray &order, quint64 firstIfd, quint64 offsetSize = 8, quint64 reserved = 0)
{
    const bool bigEndian = order == "MM";
    return order + unsignedBytes(43, 2, bigEndian) + unsignedBytes(offsetSize, 2, bigEndian)
        + unsignedBytes(reserved, 2, bigEndian) + unsignedBytes(firstIfd, 8, bigEndian);
}

// The header facts of a result in one line, e.g. "MM BigTIFF ifd=16 valid near readable".
QString facts(const CogProbeResult &result)
{
    QString text = result.byteOrder.isEmpty() ? QStringLiteral("--") : QString::fromLatin1(result.byteOrder);
    text += result.bigTiff ? QStringLiteral(" BigTIFF") : QString();
    text += QStringLiteral(" ifd=") + QString::number(result.firstIfdOffset);
    text += result.tiffHeaderValid ? QStringLiteral(" valid") : QString();
    text += result.firstIfdNearStart ? QStringLiteral(" near") : QString();
    return text + (result.cloudReadable ? QStringLiteral(" readable") : QString());
}

CogProbeResult judged(const QByteArray &header, bool acceptsRanges, qint64 contentLength)
{
    CogProbeResult result;
    result.acceptsRanges = acceptsRanges;
    result.contentLength = contentLength;
    applyTiffHeader(result, header);
    return result;
}

const QString nearSentence = QLatin1String(FormatsMessages::tiffFirstIfdNear);
const QString farSentence = QLatin1String(FormatsMessages::tiffFirstIfdFar);
const QString invalidSentence = QLatin1String(FormatsMessages::tiffFirstIfdInvalid);
const QString noRangesSentence = QLatin1String(FormatsMessages::rangesNotAdvertised);
const QString notTiffSentence = QLatin1String(FormatsMessages::tiffByteOrderInvalid);
const QString unsupportedSentence = QLatin1String(FormatsMessages::tiffUnsupported);

} // namespace

class TiffHeaderTest : public QObject {
    Q_OBJECT

private slots:
    void headerRules_data()
    {
        QTest::addColumn<QByteArray>("header");
        QTest::addColumn<bool>("acceptsRanges");
        QTest::addColumn<qint64>("contentLength");
        QTest::addColumn<QString>("facts");
        QTest::addColumn<QString>("diagnostic");

        const auto row = [](const char *name, const QByteArray &header, bool ranges, qint64 length, const char *facts,
                             const QString &diagnostic) {
            QTest::newRow(name) << header << ranges << length << QString::fromLatin1(facts) << diagnostic;
        };
        const qint64 large = 1000000;
        const quint64 topBit = quint64(1) << 63;
        const QByteArray png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);

        row("II at 8", classic("II", 8), true, large, "II ifd=8 valid near readable", nearSentence);
        row("MM at 8", classic("MM", 8), true, large, "MM ifd=8 valid near readable", nearSentence);
        row("classic lower bound 7 fails", classic("II", 7), true, large, "II ifd=7 near", invalidSentence);
        row("near bound 16384", classic("II", 16384), true, large, "II ifd=16384 valid near readable", nearSentence);
        row("16385 is not near", classic("MM", 16385), true, large, "MM ifd=16385 valid readable", farSentence);
        row("offset at the object's end", classic("II", 1000), true, 1000, "II ifd=1000 valid near", nearSentence);
        row("unknown length bounds nothing", classic("II", 0xffffffffu), true, -1, "II ifd=4294967295 valid readable",
            farSentence);

        // Missing range support outranks every offset sentence, but not the two header refusals.
        row("no ranges, valid", classic("II", 8), false, large, "II ifd=8 valid near", noRangesSentence);
        row("no ranges, invalid offset", classic("II", 4), false, large, "II ifd=4 near", noRangesSentence);
        row("no ranges, far offset", classic("II", 50000), false, large, "II ifd=50000 valid", noRangesSentence);
        row("no ranges, not a TIFF", png, false, large, "-- ifd=-1", notTiffSentence);
        row("no ranges, version 44", classic("II", 8, 44), false, large, "II ifd=-1", unsupportedSentence);

        row("PNG signature", png, true, large, "-- ifd=-1", notTiffSentence);
        row("mixed order mark IM", QByteArray("IM*\0\x08\0\0\0\0\0\0\0\0\0\0\0", 16), true, large, "-- ifd=-1",
            notTiffSentence);
        // "MM" followed by a little-endian 42 reads as version 0x2A00.
        row("MM with a little-endian version", QByteArray("MM*\0\0\0\0\x08\0\0\0\0\0\0\0\0", 16), true, large,
            "MM ifd=-1", unsupportedSentence);

        row("BigTIFF at 16", bigTiff("II", 16), true, large, "II BigTIFF ifd=16 valid near readable", nearSentence);
        row("BigTIFF lower bound 15 fails", bigTiff("MM", 15), true, large, "MM BigTIFF ifd=15 near", invalidSentence);
        row("BigTIFF offset size 4", bigTiff("II", 16, 4), true, large, "II BigTIFF ifd=-1", unsupportedSentence);
        row("BigTIFF reserved word 1", bigTiff("MM", 16, 8, 1), true, large, "MM BigTIFF ifd=-1", unsupportedSentence);
        row("BigTIFF top-bit offset", bigTiff("II", topBit | 16), true, large, "II BigTIFF ifd=-1", invalidSentence);
        row("BigTIFF largest signed offset", bigTiff("MM", topBit - 1), true, -1,
            "MM BigTIFF ifd=9223372036854775807 valid readable", farSentence);
        row("BigTIFF offset uses all eight bytes",
            bigTiff("II", 0).left(8) + unsignedBytes(0x4000, 4, false) + unsignedBytes(1, 4, false), true, -1,
            "II BigTIFF ifd=4294983680 valid readable", farSentence);

        // Real files, whole: bytes past the header are ignored.
        const auto file = [](const char *name) { return Testing::testDataBytes(QString::fromLatin1(name)); };
        const QByteArray ghost = file("tiff/cog-ghost-header-deflate-2ifd.tif");
        row("rio-cogeo ghost header", ghost, true, ghost.size(), "II ifd=192 valid near readable", nearSentence);
        const QByteArray bigEndian = file("cogs/cog-bigtiff-be-deflate-overviews.tif");
        row("generated BE BigTIFF", bigEndian, true, bigEndian.size(), "MM BigTIFF ifd=200 valid near readable",
            nearSentence);
        const QByteArray dem = file("tiff/geotiff-float32-dem-ifd-at-end.tif");
        row("DEM with IFD at the end", dem, true, dem.size(), "II ifd=61942 valid readable", farSentence);
    }

    void headerRules()
    {
        QFETCH(QByteArray, header);
        QFETCH(bool, acceptsRanges);
        QFETCH(qint64, contentLength);

        const CogProbeResult result = judged(header, acceptsRanges, contentLength);

        QTEST(facts(result), "facts");
        QTEST(result.diagnostic, "diagnostic");
        // The inspection's facts are never touched by the header.
        QCOMPARE(result.acceptsRanges, acceptsRanges);
        QCOMPARE(result.contentLength, contentLength);
    }
};

QTEST_GUILESS_MAIN(TiffHeaderTest)
#include "tst_tiffheader.moc"
