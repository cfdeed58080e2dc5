#include "formats/formatsmessages.h"
#include "formats/pmtilesheader.h"

#include <QTest>

#include <array>

using namespace Norvane::Cloud;

namespace {

using Sections = std::array<quint64, 6>;

struct HeaderFields {
    QByteArray magic = QByteArrayLiteral("PMTiles");
    int version = 3;
    // Root directory, metadata and tile data, each as offset and length.
    Sections sections { 127, 25, 152, 247, 399, 67 };
    int tileType = 1;
    int minimumZoom = 0;
    int maximumZoom = 0;
};

template <typename Value> HeaderFields with(Value HeaderFields::*member, const Value &value)
{
    HeaderFields fields;
    fields.*member = value;
    return fields;
}

// Bytes the probe does not read are filled with a pattern, so a reader that strays into them gives wrong values.
QByteArray headerBytes(const HeaderFields &fields)
{
    QByteArray bytes(127, '\xa5');
    bytes.replace(0, 7, fields.magic);
    bytes[7] = char(fields.version);
    const int positions[] = { 8, 16, 24, 32, 56, 64 };
    for (int section = 0; section < 6; ++section) {
        for (int index = 0; index < 8; ++index)
            bytes[positions[section] + index] = char((fields.sections[section] >> (8 * index)) & 0xff);
    }
    bytes[99] = char(fields.tileType);
    bytes[100] = char(fields.minimumZoom);
    bytes[101] = char(fields.maximumZoom);
    return bytes;
}

PmTilesProbeResult judged(const QByteArray &header, qint64 contentLength, bool acceptsRanges, bool remote)
{
    PmTilesProbeResult result;
    result.contentLength = contentLength;
    result.acceptsRanges = acceptsRanges;
    result.remote = remote;
    applyPmTilesHeader(result, header);
    return result;
}

QString readable(const char *kind, const char *where)
{
    return QLatin1String(FormatsMessages::pmTilesReadable).arg(QLatin1String(kind), QLatin1String(where));
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
        QTest::addColumn<bool>("headerValid");
        QTest::addColumn<bool>("fieldsFilled");
        QTest::addColumn<QString>("diagnostic");

        const qint64 size = 466; // the tile data of the base header ends exactly here
        const auto row = [](const char *name, const HeaderFields &fields, qint64 length, bool ranges, bool valid,
                             bool filled, const QString &diagnostic) {
            QTest::newRow(name) << fields << length << ranges << valid << filled << diagnostic;
        };
        const HeaderFields base;
        const QString vector = readable("vector", "HTTP");
        const auto sections = [](const Sections &values) { return with(&HeaderFields::sections, values); };

        row("valid vector", base, size, true, true, true, vector);
        row("webp is raster", with(&HeaderFields::tileType, 4), size, true, true, true, readable("raster", "HTTP"));
        row("no ranges", base, size, false, true, true, notReadable);
        row("version 2", with(&HeaderFields::version, 2), size, true, false, false, notReadable);
        row("lower-case magic", with(&HeaderFields::magic, QByteArray("pmtiles")), size, true, false, false,
            notReadable);

        // Each section may end exactly at the archive's end, not one byte later; the tests are made unsigned.
        row("tile data one byte past", sections({ 127, 25, 152, 247, 399, 68 }), size, true, false, true, notReadable);
        row("root directory one byte past", sections({ 466, 1, 152, 247, 399, 67 }), size, true, false, true,
            notReadable);
        row("empty root directory at the end", sections({ 466, 0, 152, 247, 399, 67 }), size, true, true, true, vector);
        row("empty metadata past the end", sections({ 127, 25, 467, 0, 399, 67 }), size, true, false, true,
            notReadable);
        row("wrapping metadata length", sections({ 127, 25, 152, ~0ULL - 100, 399, 67 }), size, true, false, true,
            notReadable);
        row("top-bit tile data offset", sections({ 127, 25, 152, 247, 1ULL << 63, 67 }), size, true, false, true,
            notReadable);
        // The base header's zooms are both 0.
        row("reversed zooms", with(&HeaderFields::minimumZoom, 1), size, true, false, true, notReadable);

        row("unknown length", base, -1, true, false, false, tooSmall);
        row("126 bytes", base, 126, true, false, false, tooSmall);
        row("127 bytes, empty sections", sections({ 127, 0, 127, 0, 127, 0 }), 127, true, true, true, vector);
        row("too small outranks no ranges", base, 100, false, false, false, tooSmall);
    }

    void headerRules()
    {
        QFETCH(HeaderFields, fields);
        QFETCH(qint64, contentLength);
        QFETCH(bool, acceptsRanges);
        QFETCH(bool, headerValid);
        QFETCH(bool, fieldsFilled);

        const PmTilesProbeResult result = judged(headerBytes(fields), contentLength, acceptsRanges, true);

        QCOMPARE(result.headerValid, headerValid);
        QCOMPARE(result.cloudReadable, headerValid && acceptsRanges);
        QTEST(result.diagnostic, "diagnostic");
        QCOMPARE(result.contentLength, contentLength);
        QCOMPARE(result.specificationVersion, contentLength >= 127 ? fields.version : 0);
        QList<qint64> expected(9, 0);
        if (fieldsFilled) {
            expected = { fields.tileType, fields.minimumZoom, fields.maximumZoom };
            for (const quint64 value : fields.sections)
                expected.append(qint64(value)); // bit for bit, so a top-bit value reads negative
        }
        QCOMPARE((QList<qint64> { result.tileType, result.minimumZoom, result.maximumZoom, result.rootDirectoryOffset,
                     result.rootDirectoryLength, result.metadataOffset, result.metadataLength, result.tileDataOffset,
                     result.tileDataLength }),
            expected);
        QCOMPARE(result.tileKind, fieldsFilled ? pmTilesTileKind(fields.tileType) : QString());
    }

    void localArchiveAndShortHeader()
    {
        QCOMPARE(judged(headerBytes(HeaderFields()), 466, true, false).diagnostic, readable("vector", "local"));
        const PmTilesProbeResult result = judged(headerBytes(HeaderFields()).left(126), 466, true, true);
        QCOMPARE(result.diagnostic, tooSmall);
        QVERIFY(!result.headerValid);
    }

    void tileKinds()
    {
        QStringList kinds;
        for (const int tileType : { 0, 1, 2, 3, 4, 5, 6, 255 })
            kinds.append(pmTilesTileKind(tileType));
        QCOMPARE(
            kinds.join(QLatin1Char(' ')), QStringLiteral("unknown vector raster raster raster raster unknown unknown"));
    }
};

QTEST_GUILESS_MAIN(PmTilesHeaderTest)
#include "tst_pmtilesheader.moc"
