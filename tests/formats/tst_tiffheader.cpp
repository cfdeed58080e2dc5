#include "formats/formatsmessages.h"
#include "formats/tiffheader.h"

#include <QFile>
#include <QTest>

using namespace Norvane::Cloud;

namespace {

QByteArray unsignedBytes(quint64 value, int size, bool bigEndian)
{
    QByteArray bytes(size, '\0');
    for (int index = 0; index < size; ++index) {
        const int shift = bigEndian ? 8 * (size - 1 - index) : 8 * index;
        bytes[index] = char((value >> shift) & 0xff);
    }
    return bytes;
}

// A classic header: order mark, version 42, 32-bit offset, then eight unused bytes.
QByteArray classicHeader(const QByteArray &order, quint64 firstIfd, int version = 42)
{
    const bool bigEndian = order == "MM";
    return order + unsignedBytes(quint64(version), 2, bigEndian) + unsignedBytes(firstIfd, 4, bigEndian)
        + QByteArray(8, 'x');
}

QByteArray bigTiffHeader(const QByteArray &order, quint64 firstIfd, quint64 offsetSize = 8, quint64 reserved = 0)
{
    const bool bigEndian = order == "MM";
    return order + unsignedBytes(43, 2, bigEndian) + unsignedBytes(offsetSize, 2, bigEndian)
        + unsignedBytes(reserved, 2, bigEndian) + unsignedBytes(firstIfd, 8, bigEndian);
}

CogProbeResult inspected(bool acceptsRanges, qint64 contentLength)
{
    CogProbeResult result;
    result.url = QUrl(QStringLiteral("http://127.0.0.1/a.tif"));
    result.contentLength = contentLength;
    result.etag = QByteArrayLiteral("\"e\"");
    result.contentType = QByteArrayLiteral("image/tiff");
    result.acceptsRanges = acceptsRanges;
    return result;
}

const QString nearSentence = QLatin1String(FormatsMessages::tiffFirstIfdNear);
const QString farSentence = QLatin1String(FormatsMessages::tiffFirstIfdFar);
const QString invalidOffsetSentence = QLatin1String(FormatsMessages::tiffFirstIfdInvalid);
const QString noRangesSentence = QLatin1String(FormatsMessages::rangesNotAdvertised);
const QString byteOrderSentence = QLatin1String(FormatsMessages::tiffByteOrderInvalid);
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
        QTest::addColumn<QByteArray>("byteOrder");
        QTest::addColumn<bool>("bigTiff");
        QTest::addColumn<qint64>("firstIfdOffset");
        QTest::addColumn<bool>("headerValid");
        QTest::addColumn<bool>("nearStart");
        QTest::addColumn<bool>("cloudReadable");
        QTest::addColumn<QString>("diagnostic");

        const QByteArray ii = QByteArrayLiteral("II");
        const QByteArray mm = QByteArrayLiteral("MM");
        const qint64 large = 1000000;
        const quint64 topBit = quint64(1) << 63;

        QTest::newRow("II classic at 8") << classicHeader(ii, 8) << true << large << ii << false << qint64(8) << true
                                         << true << true << nearSentence;
        QTest::newRow("MM classic at 8") << classicHeader(mm, 8) << true << large << mm << false << qint64(8) << true
                                         << true << true << nearSentence;
        QTest::newRow("classic lower bound 7 fails") << classicHeader(ii, 7) << true << large << ii << false
                                                     << qint64(7) << false << true << false << invalidOffsetSentence;
        QTest::newRow("classic offset 4 is near but invalid")
            << classicHeader(mm, 4) << true << large << mm << false << qint64(4) << false << true << false
            << invalidOffsetSentence;
        QTest::newRow("classic offset 0") << classicHeader(ii, 0) << true << large << ii << false << qint64(0) << false
                                          << true << false << invalidOffsetSentence;
        QTest::newRow("near start bound 16384") << classicHeader(ii, 16384) << true << large << ii << false
                                                << qint64(16384) << true << true << true << nearSentence;
        QTest::newRow("one past the near bound 16385") << classicHeader(mm, 16385) << true << large << mm << false
                                                       << qint64(16385) << true << false << true << farSentence;
        QTest::newRow("largest classic offset, unknown length")
            << classicHeader(ii, 0xffffffffu) << true << qint64(-1) << ii << false << qint64(0xffffffffu) << true
            << false << true << farSentence;
        QTest::newRow("offset just inside the object") << classicHeader(ii, 999) << true << qint64(1000) << ii << false
                                                       << qint64(999) << true << true << true << nearSentence;
        QTest::newRow("offset at the object's end") << classicHeader(ii, 1000) << true << qint64(1000) << ii << false
                                                    << qint64(1000) << true << true << false << nearSentence;
        QTest::newRow("far offset beyond the object")
            << classicHeader(mm, 20000) << true << qint64(20000) << mm << false << qint64(20000) << true << false
            << false << farSentence;
        QTest::newRow("unknown length bounds nothing") << classicHeader(ii, 8) << true << qint64(-1) << ii << false
                                                       << qint64(8) << true << true << true << nearSentence;

        // Missing range support outranks every offset sentence, but not the two header refusals.
        QTest::newRow("no ranges, valid header") << classicHeader(ii, 8) << false << large << ii << false << qint64(8)
                                                 << true << true << false << noRangesSentence;
        QTest::newRow("no ranges, invalid offset") << classicHeader(ii, 4) << false << large << ii << false << qint64(4)
                                                   << false << true << false << noRangesSentence;
        QTest::newRow("no ranges, far offset") << classicHeader(ii, 50000) << false << large << ii << false
                                               << qint64(50000) << true << false << false << noRangesSentence;
        QTest::newRow("no ranges, not a TIFF")
            << QByteArray("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16) << false << large << QByteArray() << false << qint64(-1)
            << false << false << false << byteOrderSentence;
        QTest::newRow("no ranges, unsupported version") << classicHeader(ii, 8, 44) << false << large << ii << false
                                                        << qint64(-1) << false << false << false << unsupportedSentence;

        QTest::newRow("PNG signature") << QByteArray("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16) << true << large
                                       << QByteArray() << false << qint64(-1) << false << false << false
                                       << byteOrderSentence;
        QTest::newRow("ZIP signature") << QByteArray("PK\x03\x04\x14\0\0\0\x08\0\0\0\0\0\0\0", 16) << true << large
                                       << QByteArray() << false << qint64(-1) << false << false << false
                                       << byteOrderSentence;
        QTest::newRow("mixed order mark IM")
            << QByteArray("IM*\0\x08\0\0\0\0\0\0\0\0\0\0\0", 16) << true << large << QByteArray() << false << qint64(-1)
            << false << false << false << byteOrderSentence;
        QTest::newRow("lower-case ii") << QByteArray("ii*\0\x08\0\0\0\0\0\0\0\0\0\0\0", 16) << true << large
                                       << QByteArray() << false << qint64(-1) << false << false << false
                                       << byteOrderSentence;
        // "MM" followed by a little-endian 42 reads as version 0x2A00.
        QTest::newRow("MM with a little-endian version")
            << QByteArray("MM*\0\0\0\0\x08\0\0\0\0\0\0\0\0", 16) << true << large << mm << false << qint64(-1) << false
            << false << false << unsupportedSentence;
        QTest::newRow("version 41") << classicHeader(ii, 8, 41) << true << large << ii << false << qint64(-1) << false
                                    << false << false << unsupportedSentence;

        QTest::newRow("BigTIFF II at 16") << bigTiffHeader(ii, 16) << true << large << ii << true << qint64(16) << true
                                          << true << true << nearSentence;
        QTest::newRow("BigTIFF MM at 16") << bigTiffHeader(mm, 16) << true << large << mm << true << qint64(16) << true
                                          << true << true << nearSentence;
        QTest::newRow("BigTIFF lower bound 15 fails") << bigTiffHeader(mm, 15) << true << large << mm << true
                                                      << qint64(15) << false << true << false << invalidOffsetSentence;
        QTest::newRow("BigTIFF offset 8 fails") << bigTiffHeader(ii, 8) << true << large << ii << true << qint64(8)
                                                << false << true << false << invalidOffsetSentence;
        QTest::newRow("BigTIFF offset size 4") << bigTiffHeader(ii, 16, 4) << true << large << ii << true << qint64(-1)
                                               << false << false << false << unsupportedSentence;
        QTest::newRow("BigTIFF reserved word 1") << bigTiffHeader(mm, 16, 8, 1) << true << large << mm << true
                                                 << qint64(-1) << false << false << false << unsupportedSentence;
        QTest::newRow("BigTIFF top-bit offset") << bigTiffHeader(ii, topBit | 16) << true << large << ii << true
                                                << qint64(-1) << false << false << false << invalidOffsetSentence;
        QTest::newRow("BigTIFF top-bit offset without ranges")
            << bigTiffHeader(mm, ~quint64(0)) << false << large << mm << true << qint64(-1) << false << false << false
            << noRangesSentence;
        QTest::newRow("BigTIFF largest signed offset, unknown length")
            << bigTiffHeader(ii, topBit - 1) << true << qint64(-1) << ii << true << std::numeric_limits<qint64>::max()
            << true << false << true << farSentence;
        QTest::newRow("BigTIFF largest signed offset, known length")
            << bigTiffHeader(mm, topBit - 1) << true << large << mm << true << std::numeric_limits<qint64>::max()
            << true << false << false << farSentence;
        QTest::newRow("BigTIFF 32-bit-only offset bytes are not used")
            << (QByteArrayLiteral("II") + unsignedBytes(43, 2, false) + unsignedBytes(8, 2, false)
                   + unsignedBytes(0, 2, false) + unsignedBytes(0x4000, 4, false) + unsignedBytes(1, 4, false))
            << true << qint64(-1) << ii << true << qint64(0x0000000100004000) << true << false << true << farSentence;

        // Inputs shorter than a header are judged on what they hold.
        QTest::newRow("empty input") << QByteArray() << true << large << QByteArray() << false << qint64(-1) << false
                                     << false << false << byteOrderSentence;
        QTest::newRow("order mark only") << ii << true << large << ii << false << qint64(-1) << false << false << false
                                         << unsupportedSentence;
        QTest::newRow("BigTIFF cut at 12 bytes") << bigTiffHeader(ii, 16).left(12) << true << large << ii << true
                                                 << qint64(-1) << false << false << false << unsupportedSentence;
    }

    void headerRules()
    {
        QFETCH(QByteArray, header);
        QFETCH(bool, acceptsRanges);
        QFETCH(qint64, contentLength);

        CogProbeResult result = inspected(acceptsRanges, contentLength);
        applyTiffHeader(result, header);

        QTEST(result.byteOrder, "byteOrder");
        QTEST(result.bigTiff, "bigTiff");
        QTEST(result.firstIfdOffset, "firstIfdOffset");
        QTEST(result.tiffHeaderValid, "headerValid");
        QTEST(result.firstIfdNearStart, "nearStart");
        QTEST(result.cloudReadable, "cloudReadable");
        QTEST(result.diagnostic, "diagnostic");

        // The inspection's facts are never touched by the header.
        const CogProbeResult before = inspected(acceptsRanges, contentLength);
        QCOMPARE(result.url, before.url);
        QCOMPARE(result.contentLength, before.contentLength);
        QCOMPARE(result.etag, before.etag);
        QCOMPARE(result.contentType, before.contentType);
        QCOMPARE(result.acceptsRanges, before.acceptsRanges);
    }

    void bytesPastTheHeaderAreIgnored()
    {
        CogProbeResult exact = inspected(true, -1);
        applyTiffHeader(exact, bigTiffHeader("MM", 4096));
        CogProbeResult longer = inspected(true, -1);
        applyTiffHeader(longer, bigTiffHeader("MM", 4096) + QByteArray(100, '\xff'));
        QCOMPARE(longer.firstIfdOffset, exact.firstIfdOffset);
        QCOMPARE(longer.diagnostic, exact.diagnostic);
        QCOMPARE(exact.firstIfdOffset, qint64(4096));
    }

    // The first 16 bytes of real files, judged as a probe would with ranges and the file's size.
    void realFiles_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QByteArray>("byteOrder");
        QTest::addColumn<bool>("bigTiff");
        QTest::addColumn<qint64>("firstIfdOffset");
        QTest::addColumn<QString>("diagnostic");

        const QByteArray ii = QByteArrayLiteral("II");
        const QByteArray mm = QByteArrayLiteral("MM");
        QTest::newRow("rio-cogeo ghost header")
            << "tiff/cog-ghost-header-deflate-2ifd.tif" << ii << false << qint64(192) << nearSentence;
        QTest::newRow("strip GeoTIFF") << "tiff/geotiff-strip-51px-ifd-at-8.tif" << ii << false << qint64(8)
                                       << nearSentence;
        QTest::newRow("tiled int16") << "tiff/geotiff-tiled-int16-band-tags.tif" << ii << false << qint64(8)
                                     << nearSentence;
        QTest::newRow("BigTIFF COG") << "tiff/bigtiff-cog-le-ifd-at-16.tiff" << ii << true << qint64(16)
                                     << nearSentence;
        QTest::newRow("big-endian zstd") << "tiff/bigendian-mm-zstd-ifd-at-8.tiff" << mm << false << qint64(8)
                                         << nearSentence;
        QTest::newRow("DEM with IFD at the end")
            << "tiff/geotiff-float32-dem-ifd-at-end.tif" << ii << false << qint64(61942) << farSentence;
        QTest::newRow("model transformation")
            << "tiff/geotiff-model-transformation.tif" << ii << false << qint64(8) << nearSentence;
        QTest::newRow("zstd RGBA COG") << "tiff/cog-ghost-header-zstd-rgba-5ifd.tiff" << ii << false << qint64(192)
                                       << nearSentence;
        QTest::newRow("BigTIFF strips") << "tiff/bigtiff-le-strip-ifd-at-end.tif" << ii << true << qint64(12304)
                                        << nearSentence;
        QTest::newRow("big-endian strips")
            << "tiff/bigendian-mm-rgb-strip-ifd-at-776.tiff" << mm << false << qint64(776) << nearSentence;
        QTest::newRow("generated LE JPEG COG")
            << "cogs/cog-le-jpeg-1024-64tiles.tif" << ii << false << qint64(192) << nearSentence;
        QTest::newRow("generated LE BigTIFF COG")
            << "cogs/cog-bigtiff-le-deflate-overview.tif" << ii << true << qint64(200) << nearSentence;
        QTest::newRow("generated BE TIFF")
            << "cogs/cog-be-deflate-overviews.tif" << mm << false << qint64(192) << nearSentence;
        QTest::newRow("generated BE BigTIFF")
            << "cogs/cog-bigtiff-be-deflate-overviews.tif" << mm << true << qint64(200) << nearSentence;
    }

    void realFiles()
    {
        QFETCH(QString, file);
        QFile object(QStringLiteral(NORVANE_TEST_DATA_DIR "/") + file);
        QVERIFY2(object.open(QIODevice::ReadOnly), qPrintable(object.fileName()));

        CogProbeResult result = inspected(true, object.size());
        applyTiffHeader(result, object.read(tiffHeaderReadLength));

        QTEST(result.byteOrder, "byteOrder");
        QTEST(result.bigTiff, "bigTiff");
        QTEST(result.firstIfdOffset, "firstIfdOffset");
        QVERIFY(result.tiffHeaderValid);
        QVERIFY(result.cloudReadable);
        QTEST(result.diagnostic, "diagnostic");
    }

    // Every prefix and every single-byte change of a valid header must give one of the six sentences and keep the
    // fields consistent with it; this is the property a fuzzer checks, run here over a fixed neighbourhood.
    void everyMutationGivesAConsistentResult()
    {
        const QList<QByteArray> seeds = { classicHeader("II", 8), classicHeader("MM", 20000), bigTiffHeader("II", 16),
            bigTiffHeader("MM", quint64(1) << 62) };
        const QStringList sentences = { nearSentence, farSentence, invalidOffsetSentence, noRangesSentence,
            byteOrderSentence, unsupportedSentence };
        int checked = 0;
        for (const QByteArray &seed : seeds) {
            QList<QByteArray> inputs;
            for (int size = 0; size <= seed.size(); ++size)
                inputs.append(seed.left(size));
            for (int position = 0; position < seed.size(); ++position) {
                for (const char value : { '\0', '\x08', '\x2a', '\x2b', '\x40', '\x80', '\xff' }) {
                    QByteArray mutated = seed;
                    mutated[position] = value;
                    inputs.append(mutated);
                }
            }
            for (const QByteArray &input : std::as_const(inputs)) {
                for (const bool acceptsRanges : { true, false }) {
                    CogProbeResult result = inspected(acceptsRanges, 30000);
                    applyTiffHeader(result, input);
                    QVERIFY(sentences.contains(result.diagnostic));
                    QVERIFY(!result.cloudReadable || (result.tiffHeaderValid && acceptsRanges));
                    QVERIFY(!result.tiffHeaderValid || result.firstIfdOffset >= 8);
                    QVERIFY(!result.firstIfdNearStart || result.firstIfdOffset >= 0);
                    QVERIFY(!result.bigTiff || !result.tiffHeaderValid || result.firstIfdOffset >= 16);
                    if (result.byteOrder.isEmpty())
                        QCOMPARE(result.diagnostic, byteOrderSentence);
                    ++checked;
                }
            }
        }
        QVERIFY(checked > 500);
    }
};

QTEST_GUILESS_MAIN(TiffHeaderTest)
#include "tst_tiffheader.moc"
