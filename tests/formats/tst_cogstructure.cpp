// COG structure: the directories of real TIFFs against what GDAL reports (tests/data/cog-structure.gdal.tsv, made
// by scripts/record-cog-structure.sh), hostile inputs, the layout rules, and the remote walk through the cache.

#include "formats/cogstructure.h"

#include "faultserver.h"

#include <QFile>
#include <QTest>

#include <stdexcept>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;

namespace {

QString dataPath(const QString &name)
{
    return QStringLiteral(NORVANE_TEST_DATA_DIR "/") + name;
}

// One line per image in the columns of the GDAL table after the file name, the image index shown as overview or not.
QString describe(const CogStructureResult &structure)
{
    QStringList images;
    for (const CogImageMetadata &image : structure.images) {
        QStringList fields { QString::number(image.reducedResolution),
            QString::fromLatin1(structure.byteOrder) + (structure.bigTiff ? " BigTIFF" : " classic") };
        for (const qint64 value : { image.ifdOffset, image.width, image.height, qint64(image.samplesPerPixel),
                 qint64(image.bitsPerSample.value(0)), qint64(image.sampleFormat.value(0)), qint64(image.compression),
                 qint64(image.predictor), qint64(image.photometric), qint64(image.planarConfiguration), image.tileWidth,
                 image.tileHeight })
            fields.append(QString::number(value));
        for (const QList<qint64> &values : { image.tileOffsets, image.tileByteCounts }) {
            QStringList texts;
            for (const qint64 value : values)
                texts.append(QString::number(value));
            fields.append(texts.join(u','));
        }
        images.append(fields.join(u'\t'));
    }
    return images.join(u'\n');
}

// A little-endian classic TIFF of one-byte 1 x 1 images, each in one strip (54 bytes of directory, the first at 8),
// the entry at index replaced, added at the end or removed when entry is empty; the last directory links to next.
QByteArray tiff(int index = -1, const QList<quint32> &entry = {}, quint32 next = 0, int directories = 1)
{
    QList<QList<quint32>> entries { { 256, 3, 1, 1 }, { 257, 3, 1, 1 }, { 273, 4, 1, 8 }, { 279, 4, 1, 1 } };
    if (entry.isEmpty() && index >= 0)
        entries.removeAt(index);
    else if (!entry.isEmpty())
        index < entries.size() ? void(entries[index] = entry) : entries.append(entry);
    QByteArray bytes("II*\0\x08\0\0\0", 8);
    const auto put = [&bytes](quint64 value, int size) {
        for (int byte = 0; byte < size; ++byte)
            bytes += char(value >> (8 * byte));
    };
    for (int directory = 0; directory < directories; ++directory) {
        put(quint64(entries.size()), 2);
        for (const QList<quint32> &fields : entries) {
            for (int field = 0; field < 4; ++field)
                put(fields[field], field < 2 ? 2 : 4);
        }
        put(directory + 1 < directories ? quint64(bytes.size()) + 4 : next, 4);
    }
    return bytes;
}

template <typename Call> QString failureOf(Call call)
{
    try {
        call();
    } catch (const std::invalid_argument &error) {
        return QStringLiteral("invalid argument: ") + QString::fromUtf8(error.what());
    } catch (const std::runtime_error &error) {
        return QString::fromUtf8(error.what());
    }
    return {};
}

} // namespace

class CogStructureTest : public QObject {
    Q_OBJECT

private slots:
    // Every image of every file in the GDAL table, and each file's layout verdict: the files not named here are valid.
    void realFilesMatchGdalAndLayoutRules()
    {
        const QString notTiled = QStringLiteral("Main image is not tiled");
        const QString ifdAfterData = QStringLiteral("Image file directory lies after image data");
        const QMap<QString, QStringList> broken { { "tiff/bigendian-mm-rgb-strip-ifd-at-776.tiff",
                                                      { notTiled, ifdAfterData } },
            { "tiff/bigtiff-cog-le-ifd-at-16.tiff",
                { ifdAfterData, "Overview data does not lie before full-resolution data" } },
            { "tiff/bigtiff-le-strip-ifd-at-end.tif", { notTiled, ifdAfterData } },
            { "tiff/geotiff-float32-dem-ifd-at-end.tif",
                { notTiled, "Image larger than one tile has no overviews", ifdAfterData } },
            { "tiff/geotiff-model-transformation.tif", { notTiled } },
            { "tiff/geotiff-strip-51px-ifd-at-8.tif", { notTiled } } };
        QFile table(dataPath(QStringLiteral("cog-structure.gdal.tsv")));
        QVERIFY(table.open(QIODevice::ReadOnly));
        QMap<QString, QStringList> expected;
        for (const QByteArray &line : table.readAll().split('\n')) {
            const QStringList fields = QString::fromUtf8(line).split(u'\t');
            if (fields.size() == 17 && !line.startsWith('#'))
                expected[fields[0]].append(QString::number(fields[1] != u'0') + u'\t' + fields.mid(2).join(u'\t'));
        }
        QCOMPARE(expected.size(), 14);
        for (auto file = expected.cbegin(); file != expected.cend(); ++file) {
            const CogStructureResult structure = CogSource::structureOfFile(dataPath(file.key()));
            QCOMPARE(file.key() + u'\n' + describe(structure), file.key() + u'\n' + file->join(u'\n'));
            QCOMPARE(file.key() + u'\n' + CogSource::layoutViolations(structure).join(u'\n'),
                file.key() + u'\n' + broken.value(file.key()).join(u'\n'));
        }
    }

    void hostileInputsFailClearly_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("message");
        QTest::newRow("empty") << QByteArray() << "TIFF header is invalid";
        QTest::newRow("PNG") << QByteArray("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16) << "TIFF header is invalid";
        QTest::newRow("BigTIFF offsets of 4")
            << QByteArray("II+\0\x04\0\0\0\x10\0\0\0\0\0\0\0", 16) << "TIFF header is invalid";
        QTest::newRow("first offset 0") << QByteArray("II*\0\0\0\0\0", 8) << "TIFF has no image file directory";
        QTest::newRow("MM directory past the end")
            << QByteArray("MM\0*\0\0\0\xff", 8) << "TIFF image file directory lies outside the object";
        QTest::newRow("entries past the end")
            << QByteArray("II*\0\x08\0\0\0\xff\xff", 10) << "TIFF image file directory lies outside the object";
        QTest::newRow("65536 BigTIFF entries") << QByteArray("II+\0\x08\0\0\0\x10\0\0\0\0\0\0\0\0\0\x01\0\0\0\0\0", 24)
                                               << "TIFF image file directory has more entries than supported";
        QTest::newRow("links to itself") << tiff(-1, {}, 8) << "TIFF image file directory chain loops";
        QTest::newRow("257 directories") << tiff(-1, {}, 0, 257)
                                         << "TIFF has more image file directories than supported";
        QTest::newRow("16 Mi + 1 values")
            << tiff(2, { 273, 4, 0x1000001, 8 }) << "TIFF tag values exceed the supported total";
        QTest::newRow("values past the end") << tiff(2, { 273, 4, 3, 52 }) << "TIFF tag values lie outside the object";
        QTest::newRow("no width") << tiff(0) << "TIFF image file directory lacks a required tag";
        QTest::newRow("width as text") << tiff(0, { 256, 2, 1, 1 }) << "TIFF image file directory lacks a required tag";
        QTest::newRow("width 0") << tiff(0, { 256, 3, 1, 0 })
                                 << "TIFF image has an invalid size, tile size or number of samples";
        QTest::newRow("two strips for one")
            << tiff(2, { 273, 3, 2, 0x80008 }) << "TIFF tile or strip count does not match the image";
        QTest::newRow("strip past the end")
            << tiff(3, { 279, 4, 1, 55 }) << "TIFF tile or strip data lies outside the object";
    }

    void hostileInputsFailClearly()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, message);
        const auto read = [&bytes](qint64 offset, qint64 length) { return bytes.mid(offset, length); };
        QCOMPARE(failureOf([&] { readCogStructure(read, bytes.size()); }), message);
    }

    // A 1 x 1 image without bits, format, compression, predictor, photometric or planar tags, whose one strip
    // has the largest RowsPerStrip.
    void absentTagsTakeTheirDefaults()
    {
        const QByteArray bytes = tiff(4, { 278, 4, 1, 0xffffffff });
        const auto read = [&bytes](qint64 offset, qint64 length) { return bytes.mid(offset, length); };
        QCOMPARE(
            describe(readCogStructure(read, bytes.size())), "0\tII classic\t8\t1\t1\t1\t1\t1\t1\t1\t-1\t1\t1\t1\t8\t1");
    }

    // Each rule broken on its own in a valid COG (main image, then overviews 1 and 2).
    void layoutRules()
    {
        const CogStructureResult cog
            = CogSource::structureOfFile(dataPath(QStringLiteral("cogs/cog-be-deflate-overviews.tif")));
        QCOMPARE(cog.images.size(), 3);
        const auto violations = [&cog](const std::function<void(QList<CogImageMetadata> &)> &change) {
            CogStructureResult changed = cog;
            change(changed.images);
            return CogSource::layoutViolations(changed);
        };
        QCOMPARE(violations([](auto &images) { images[1].tiled = false; }), QStringList { "Overview is not tiled" });
        QCOMPARE(violations([](auto &images) { std::swap(images[0].tileOffsets[1], images[0].tileOffsets[2]); }),
            QStringList { "Tile offsets of an image are not in increasing order" });
        QCOMPARE(violations([](auto &images) { images[2].tileOffsets[0] = images[0].tileOffsets.last() + 1; }),
            QStringList { "Overview data does not lie before full-resolution data" });
        QCOMPARE(violations([](auto &images) { images[1].mask = images[2].mask = true; }),
            QStringList { "Image larger than one tile has no overviews" });
        // A tile never written (offset and count 0) is neither data ahead of the directories nor out of order.
        QCOMPARE(violations([](auto &images) { images[0].tileOffsets[0] = images[0].tileByteCounts[0] = 0; }),
            QStringList());
    }

    // One inspection, then aligned blocks read with the caller's headers; a second walk finds every block cached.
    void remoteWalkReadsCachedBlocks()
    {
        const QString path = dataPath(QStringLiteral("tiff/bigtiff-cog-le-ifd-at-16.tiff"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray object = file.readAll();
        FaultServer server([&object](const FaultRequest &request) { return objectReply(request, object); });
        CloudCacheOptions options;
        options.diskEnabled = false;
        CogSource source(std::make_shared<CloudRangeCache>(options));
        const QHash<QByteArray, QByteArray> headers { { "Authorization", "Bearer a" } };
        const CogStructureResult remote = source.structure(server.url("/a.tif"), headers);
        source.structure(server.url("/a.tif"), headers);
        QCOMPARE(remote.url, server.url("/a.tif"));
        QCOMPARE(remote.contentLength, object.size());
        QCOMPARE(describe(remote), describe(CogSource::structureOfFile(path)));
        QStringList requests;
        for (const FaultRequest &request : server.requests())
            requests.append(QString::fromLatin1(
                request.method + ' ' + request.header("Range") + ' ' + request.header("Authorization")));
        QCOMPARE(requests,
            QStringList({ "HEAD  Bearer a", "GET bytes=0-16383 Bearer a", "GET bytes=196608-212991 Bearer a",
                "HEAD  Bearer a" }));
    }

    void sourceFailures()
    {
        FaultServer server(
            [](const FaultRequest &) { return FaultReply { "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" }; });
        CogSource source;
        QCOMPARE(failureOf([&] { source.structure(server.url(), {}); }), "COG object length is unknown");
        QCOMPARE(failureOf([] { CogSource::structureOfFile(dataPath(QStringLiteral("none.tif"))); }),
            "invalid argument: COG local file could not be opened");
        const auto shortRead = [](qint64, qint64 length) { return QByteArray(length - 1, 'I'); };
        QCOMPARE(failureOf([&] { readCogStructure(shortRead, 100); }), "TIFF object could not be read completely");
    }
};

QTEST_GUILESS_MAIN(CogStructureTest)
#include "tst_cogstructure.moc"
