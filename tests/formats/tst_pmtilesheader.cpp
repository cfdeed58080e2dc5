#include "formats/formatsmessages.h"
#include "formats/pmtilesheader.h"

#include <QFile>
#include <QTest>

using namespace Norvane::Cloud;

namespace {

struct HeaderFields {
    QByteArray magic = QByteArrayLiteral("PMTiles");
    int version = 3;
    quint64 rootDirectoryOffset = 127;
    quint64 rootDirectoryLength = 25;
    quint64 metadataOffset = 152;
    quint64 metadataLength = 247;
    quint64 tileDataOffset = 399;
    quint64 tileDataLength = 67;
    int tileType = 1;
    int minimumZoom = 0;
    int maximumZoom = 0;
};

void putLittleEndian64(QByteArray &bytes, int position, quint64 value)
{
    for (int index = 0; index < 8; ++index)
        bytes[position + index] = char((value >> (8 * index)) & 0xff);
}

// Bytes the probe does not read are filled with a pattern, so a reader that strays into them gives wrong values.
QByteArray headerBytes(const HeaderFields &fields)
{
    QByteArray bytes(127, '\xa5');
    bytes.replace(0, 7, fields.magic.left(7));
    bytes[7] = char(fields.version);
    putLittleEndian64(bytes, 8, fields.rootDirectoryOffset);
    putLittleEndian64(bytes, 16, fields.rootDirectoryLength);
    putLittleEndian64(bytes, 24, fields.metadataOffset);
    putLittleEndian64(bytes, 32, fields.metadataLength);
    putLittleEndian64(bytes, 56, fields.tileDataOffset);
    putLittleEndian64(bytes, 64, fields.tileDataLength);
    bytes[99] = char(fields.tileType);
    bytes[100] = char(fields.minimumZoom);
    bytes[101] = char(fields.maximumZoom);
    return bytes;
}

PmTilesProbeResult described(qint64 contentLength, bool acceptsRanges, bool remote)
{
    PmTilesProbeResult result;
    result.contentLength = contentLength;
    result.acceptsRanges = acceptsRanges;
    result.remote = remote;
    return result;
}

const QString notReadable = QLatin1String(FormatsMessages::pmTilesNotReadable);
const QString tooSmall = QLatin1String(FormatsMessages::pmTilesTooSmall);

} // namespace

Q_DECLARE_METATYPE(HeaderFields)

class PmTilesHeaderTest : public QObject {
    Q_OBJECT

private slots:
    void headerRules_data()
    {
        QTest::addColumn<HeaderFields>("fields");
        QTest::addColumn<qint64>("contentLength");
        QTest::addColumn<bool>("acceptsRanges");
        QTest::addColumn<bool>("remote");
        QTest::addColumn<bool>("headerValid");
        QTest::addColumn<bool>("fieldsFilled");
        QTest::addColumn<QString>("diagnostic");

        const HeaderFields base;
        const qint64 size = 466;
        QTest::newRow("valid remote vector") << base << size << true << true << true << true
                                             << QStringLiteral("PMTiles v3 vector archive is HTTP range-readable; "
                                                               "directory offsets are valid.");
        QTest::newRow("valid local vector") << base << size << true << false << true << true
                                            << QStringLiteral("PMTiles v3 vector archive is local range-readable; "
                                                              "directory offsets are valid.");
        HeaderFields raster = base;
        raster.tileType = 4;
        QTest::newRow("webp is raster") << raster << size << true << true << true << true
                                        << QStringLiteral("PMTiles v3 raster archive is HTTP range-readable; "
                                                          "directory offsets are valid.");
        HeaderFields unknownType = base;
        unknownType.tileType = 0;
        QTest::newRow("tile type 0 is unknown") << unknownType << size << true << false << true << true
                                                << QStringLiteral("PMTiles v3 unknown archive is local "
                                                                  "range-readable; directory offsets are valid.");
        QTest::newRow("no ranges") << base << size << false << true << true << true << notReadable;

        HeaderFields version2 = base;
        version2.version = 2;
        QTest::newRow("version 2") << version2 << size << true << true << false << false << notReadable;
        HeaderFields badMagic = base;
        badMagic.magic = QByteArrayLiteral("PMTilez");
        QTest::newRow("wrong magic") << badMagic << size << true << true << false << false << notReadable;
        HeaderFields lowerMagic = base;
        lowerMagic.magic = QByteArrayLiteral("pmtiles");
        QTest::newRow("lower-case magic") << lowerMagic << size << true << true << false << false << notReadable;

        // Each section may end exactly at the archive's end, not one byte later.
        HeaderFields tileDataAtEnd = base;
        tileDataAtEnd.tileDataLength = size - 399;
        QTest::newRow("tile data ends at the end") << tileDataAtEnd << size << true << true << true << true
                                                   << QStringLiteral("PMTiles v3 vector archive is HTTP "
                                                                     "range-readable; directory offsets are valid.");
        HeaderFields tileDataPast = base;
        tileDataPast.tileDataLength = size - 399 + 1;
        QTest::newRow("tile data one byte past")
            << tileDataPast << size << true << true << false << true << notReadable;
        HeaderFields rootPast = base;
        rootPast.rootDirectoryOffset = size;
        rootPast.rootDirectoryLength = 1;
        QTest::newRow("root directory one byte past")
            << rootPast << size << true << true << false << true << notReadable;
        HeaderFields rootEmptyAtEnd = base;
        rootEmptyAtEnd.rootDirectoryOffset = size;
        rootEmptyAtEnd.rootDirectoryLength = 0;
        QTest::newRow("empty root directory at the end") << rootEmptyAtEnd << size << true << true << true << true
                                                         << QStringLiteral("PMTiles v3 vector archive is HTTP "
                                                                           "range-readable; directory offsets are "
                                                                           "valid.");
        HeaderFields metadataPast = base;
        metadataPast.metadataOffset = size + 1;
        metadataPast.metadataLength = 0;
        QTest::newRow("metadata offset past the end")
            << metadataPast << size << true << true << false << true << notReadable;
        // A length that would wrap an unsigned sum back into range must still fail.
        HeaderFields wrapping = base;
        wrapping.metadataLength = ~quint64(0) - 100;
        QTest::newRow("wrapping metadata length") << wrapping << size << true << true << false << true << notReadable;
        HeaderFields topBit = base;
        topBit.tileDataOffset = (quint64(1) << 63) | 399;
        QTest::newRow("top-bit tile data offset") << topBit << size << true << true << false << true << notReadable;

        HeaderFields reversedZooms = base;
        reversedZooms.minimumZoom = 10;
        reversedZooms.maximumZoom = 5;
        QTest::newRow("reversed zooms") << reversedZooms << size << true << true << false << true << notReadable;
        HeaderFields equalZooms = base;
        equalZooms.minimumZoom = 14;
        equalZooms.maximumZoom = 14;
        QTest::newRow("equal zooms") << equalZooms << size << true << false << true << true
                                     << QStringLiteral("PMTiles v3 vector archive is local range-readable; "
                                                       "directory offsets are valid.");

        QTest::newRow("unknown length") << base << qint64(-1) << true << true << false << false << tooSmall;
        QTest::newRow("126 bytes") << base << qint64(126) << true << true << false << false << tooSmall;
        HeaderFields exactly127 = base;
        exactly127.rootDirectoryLength = 0;
        exactly127.metadataOffset = 127;
        exactly127.metadataLength = 0;
        exactly127.tileDataOffset = 127;
        exactly127.tileDataLength = 0;
        QTest::newRow("127 bytes, empty sections") << exactly127 << qint64(127) << true << true << true << true
                                                   << QStringLiteral("PMTiles v3 vector archive is HTTP "
                                                                     "range-readable; directory offsets are valid.");
        QTest::newRow("too small outranks no ranges")
            << base << qint64(100) << false << true << false << false << tooSmall;
    }

    void headerRules()
    {
        QFETCH(HeaderFields, fields);
        QFETCH(qint64, contentLength);
        QFETCH(bool, acceptsRanges);
        QFETCH(bool, remote);
        QFETCH(bool, headerValid);
        QFETCH(bool, fieldsFilled);

        PmTilesProbeResult result = described(contentLength, acceptsRanges, remote);
        applyPmTilesHeader(result, headerBytes(fields));

        QCOMPARE(result.headerValid, headerValid);
        QCOMPARE(result.cloudReadable, headerValid && acceptsRanges);
        QTEST(result.diagnostic, "diagnostic");
        QCOMPARE(result.contentLength, contentLength);
        QCOMPARE(result.acceptsRanges, acceptsRanges);
        QCOMPARE(result.remote, remote);
        if (contentLength >= 127)
            QCOMPARE(result.specificationVersion, fields.version);
        else
            QCOMPARE(result.specificationVersion, 0);

        if (fieldsFilled) {
            QCOMPARE(result.rootDirectoryOffset, qint64(fields.rootDirectoryOffset));
            QCOMPARE(result.rootDirectoryLength, qint64(fields.rootDirectoryLength));
            QCOMPARE(result.metadataOffset, qint64(fields.metadataOffset));
            QCOMPARE(result.metadataLength, qint64(fields.metadataLength));
            QCOMPARE(result.tileDataOffset, qint64(fields.tileDataOffset));
            QCOMPARE(result.tileDataLength, qint64(fields.tileDataLength));
            QCOMPARE(result.tileType, fields.tileType);
            QCOMPARE(result.minimumZoom, fields.minimumZoom);
            QCOMPARE(result.maximumZoom, fields.maximumZoom);
            QCOMPARE(result.tileKind, pmTilesTileKind(fields.tileType));
        } else {
            const PmTilesProbeResult untouched;
            QCOMPARE(result.rootDirectoryOffset, untouched.rootDirectoryOffset);
            QCOMPARE(result.rootDirectoryLength, untouched.rootDirectoryLength);
            QCOMPARE(result.metadataOffset, untouched.metadataOffset);
            QCOMPARE(result.metadataLength, untouched.metadataLength);
            QCOMPARE(result.tileDataOffset, untouched.tileDataOffset);
            QCOMPARE(result.tileDataLength, untouched.tileDataLength);
            QCOMPARE(result.tileType, 0);
            QCOMPARE(result.minimumZoom, 0);
            QCOMPARE(result.maximumZoom, 0);
            QVERIFY(result.tileKind.isEmpty());
        }
    }

    void topBitOffsetReadsNegative()
    {
        HeaderFields fields;
        fields.tileDataOffset = ~quint64(0);
        PmTilesProbeResult result = described(466, true, true);
        applyPmTilesHeader(result, headerBytes(fields));
        QCOMPARE(result.tileDataOffset, qint64(-1));
        QVERIFY(!result.headerValid);
    }

    void tileKinds_data()
    {
        QTest::addColumn<int>("tileType");
        QTest::addColumn<QString>("kind");
        QTest::newRow("0") << 0 << QStringLiteral("unknown");
        QTest::newRow("1 mvt") << 1 << QStringLiteral("vector");
        QTest::newRow("2 png") << 2 << QStringLiteral("raster");
        QTest::newRow("3 jpeg") << 3 << QStringLiteral("raster");
        QTest::newRow("4 webp") << 4 << QStringLiteral("raster");
        QTest::newRow("5 avif") << 5 << QStringLiteral("raster");
        QTest::newRow("6 mlt") << 6 << QStringLiteral("unknown");
        QTest::newRow("255") << 255 << QStringLiteral("unknown");
    }

    void tileKinds()
    {
        QFETCH(int, tileType);
        QTEST(pmTilesTileKind(tileType), "kind");
    }

    void shortHeaderBytesAreTooSmall()
    {
        PmTilesProbeResult result = described(466, true, true);
        applyPmTilesHeader(result, headerBytes(HeaderFields()).left(126));
        QCOMPARE(result.diagnostic, tooSmall);
        QVERIFY(!result.headerValid);
    }

    // Header fields of real archives against the facts recorded for them.
    void realArchives_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<int>("version");
        QTest::addColumn<bool>("headerValid");
        QTest::addColumn<QList<qint64>>("sections");
        QTest::addColumn<int>("tileType");
        QTest::addColumn<int>("minimumZoom");
        QTest::addColumn<int>("maximumZoom");
        QTest::addColumn<QString>("tileKind");

        QTest::newRow("fixture 1") << "test-fixture-1-mvt-z0.pmtiles" << 3 << true
                                   << QList<qint64> { 127, 25, 152, 247, 399, 69 } << 1 << 0 << 0
                                   << QStringLiteral("vector");
        QTest::newRow("fixture 2") << "test-fixture-2-mvt-z0.pmtiles" << 3 << true
                                   << QList<qint64> { 127, 25, 152, 247, 399, 67 } << 1 << 0 << 0
                                   << QStringLiteral("vector");
        QTest::newRow("MLT without tiles")
            << "test-fixture-mlt-no-tiles.pmtiles" << 3 << true << QList<qint64> { 127, 25, 152, 538, 690, 0 } << 6 << 0
            << 0 << QStringLiteral("unknown");
        QTest::newRow("unclustered PNG") << "unclustered-png-z1.pmtiles" << 3 << true
                                         << QList<qint64> { 127, 9, 136, 2, 138, 140 } << 2 << 1 << 1
                                         << QStringLiteral("raster");
        QTest::newRow("stamen toner raster")
            << "stamen-toner-raster-png-z0-3.pmtiles" << 3 << true << QList<qint64> { 127, 246, 373, 22, 395, 715657 }
            << 2 << 0 << 3 << QStringLiteral("raster");
        QTest::newRow("not an archive") << "invalid-text-not-pmtiles.pmtiles" << int(' ') << false
                                        << QList<qint64> { 0, 0, 0, 0, 0, 0 } << 0 << 0 << 0 << QString();
        // The version-1 archive starts "PM" then a 16-bit version: byte 7 is part of its metadata length.
        QTest::newRow("legacy v1") << "legacy-v1-tpe-sample-vector.pmtiles" << 0 << false
                                   << QList<qint64> { 0, 0, 0, 0, 0, 0 } << 0 << 0 << 0 << QString();
    }

    void realArchives()
    {
        QFETCH(QString, file);
        QFETCH(QList<qint64>, sections);
        QFile archive(QStringLiteral(NORVANE_TEST_DATA_DIR "/pmtiles/") + file);
        QVERIFY2(archive.open(QIODevice::ReadOnly), qPrintable(archive.fileName()));

        PmTilesProbeResult result = described(archive.size(), true, false);
        applyPmTilesHeader(result, archive.read(pmTilesHeaderLength));

        QTEST(result.specificationVersion, "version");
        QTEST(result.headerValid, "headerValid");
        QCOMPARE(result.cloudReadable, result.headerValid);
        const QList<qint64> found { result.rootDirectoryOffset, result.rootDirectoryLength, result.metadataOffset,
            result.metadataLength, result.tileDataOffset, result.tileDataLength };
        QCOMPARE(found, sections);
        QTEST(result.tileType, "tileType");
        QTEST(result.minimumZoom, "minimumZoom");
        QTEST(result.maximumZoom, "maximumZoom");
        QTEST(result.tileKind, "tileKind");
    }
};

QTEST_GUILESS_MAIN(PmTilesHeaderTest)
#include "tst_pmtilesheader.moc"
