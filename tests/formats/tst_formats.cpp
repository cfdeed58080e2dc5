// The format sources. Header rules, the viewport reading plan, the GDAL strings and the TIFF directory walk are pure
// functions; probes and reads go to the real files in tests/data served by nginx, and to a scripted server for answers
// nginx never gives. Results are compared as one line of words, so a failing row shows everything that differs.

#include "faultserver.h"
#include "formats/cogstructure.h"
#include "formats/pmtilesheader.h"
#include "formats/tiffheader.h"
#include "formats/viewportplan.h"
#include "nginxserver.h"
#include "transport/cachekey.h"

#include <norvanecloud/formats.h>

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QTest>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;
using namespace Norvane::Core::Operations;

using Call = std::function<QString()>;
Q_DECLARE_METATYPE(Call)

// A row's call runs when the row runs, so that what it throws becomes the row's outcome.
#define ROW(name, call, expected) QTest::newRow(name) << Call([=] { return call; }) << QString(expected)
#define TABLE (QTest::addColumn<Call>("call"), QTest::addColumn<QString>("expected"))
// QFETCH declares a variable; reading the cell directly keeps the check one expression.
#define CHECK QTEST(outcome(*static_cast<const Call *>(QTest::qData("call", qMetaTypeId<Call>()))), "expected")

class FormatsTest : public QObject {
    Q_OBJECT

    std::shared_ptr<CloudRangeCache> cache;
    NginxServer nginx { QStringLiteral(NORVANE_TEST_DATA_DIR) };
    FaultServer fault { faultyObject };

    static inline const QString nearStart = "TIFF is range-readable and its first IFD is near the start.";
    static inline const QString farFromStart
        = "TIFF is range-readable, but its first IFD is not near the start; COG layout is unlikely.";
    static inline const QString badIfd = "TIFF header contains an invalid first IFD offset.";
    static inline const QString notTiff = "Not a supported TIFF or BigTIFF stream.";
    static inline const QString noRanges = "Server does not advertise HTTP byte-range support.";
    static inline const QString pmBad = "PMTiles requires HTTP byte ranges and a valid v3 archive header.";
    static inline const QString pmGood = " archive is %1 range-readable; directory offsets are valid.";
    static inline const QString pqGood = "GeoParquet is range-readable and has valid Parquet boundary markers.";
    static inline const QString pqBad = "GeoParquet requires HTTP byte ranges and valid PAR1 header/footer markers.";

    // The call's text, or the message of what it threw.
    static QString outcome(const Call &call)
    {
        try {
            return call();
        } catch (const std::exception &error) {
            return QString::fromUtf8(error.what());
        }
    }

    static QString dataPath(const QString &name) { return QStringLiteral(NORVANE_TEST_DATA_DIR "/") + name; }
    static QString flag(bool on, const QString &word) { return on && !word.isEmpty() ? ' ' + word : QString(); }

    static QByteArray dataBytes(const QString &name)
    {
        QFile file(dataPath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    static QString numbers(const QList<qint64> &values, char separator = ' ')
    {
        QStringList texts;
        for (const qint64 value : values)
            texts.append(QString::number(value));
        return texts.join(QLatin1Char(separator));
    }

    static QString facts(const CogProbeResult &r)
    {
        return (r.byteOrder.isEmpty() ? "--" : r.byteOrder) + flag(r.bigTiff, "BigTIFF") + ' '
            + QString::number(r.firstIfdOffset) + flag(r.tiffHeaderValid, "valid") + flag(r.firstIfdNearStart, "near")
            + flag(r.cloudReadable, "readable") + ": " + r.diagnostic;
    }

    static QString facts(const PmTilesProbeResult &r)
    {
        return numbers({ r.contentLength, r.specificationVersion, r.rootDirectoryOffset, r.rootDirectoryLength,
                   r.metadataOffset, r.metadataLength, r.tileDataOffset, r.tileDataLength, r.tileType, r.minimumZoom,
                   r.maximumZoom })
            + flag(true, r.tileKind) + flag(r.headerValid, "valid") + flag(r.cloudReadable, "readable") + ": "
            + r.diagnostic;
    }

    static QString facts(const GeoParquetProbeResult &r)
    {
        return QString::number(r.contentLength) + flag(r.headerValid, "header") + flag(r.footerValid, "footer")
            + flag(r.cloudReadable, "readable") + ": " + r.diagnostic;
    }

    // The images in the columns of the GDAL table after the file name, the image index shown as overview or not.
    static QString describe(const CogStructureResult &structure)
    {
        QStringList images;
        for (const CogImageMetadata &i : structure.images)
            images << QString::number(i.reducedResolution) + '\t' + structure.byteOrder
                    + (structure.bigTiff ? " BigTIFF\t" : " classic\t")
                    + numbers({ i.ifdOffset, i.width, i.height, i.samplesPerPixel, i.bitsPerSample.value(0),
                                  i.sampleFormat.value(0), i.compression, i.predictor, i.photometric,
                                  i.planarConfiguration, i.tileWidth, i.tileHeight },
                        '\t')
                    + '\t' + numbers(i.tileOffsets, ',') + '\t' + numbers(i.tileByteCounts, ',');
        return images.join(QLatin1Char('\n'));
    }

    static QString walk(const QByteArray &bytes)
    {
        return describe(readCogStructure([bytes](qint64 at, qint64 n) { return bytes.mid(at, n); }, bytes.size()));
    }

    // A little-endian classic TIFF of one-byte 1 x 1 images, each in one strip (54 bytes of directory, the first at
    // 8), the entry at index replaced, added at the end or removed when entry is empty; the last directory links to
    // next.
    static QByteArray tiff(int index = -1, const QList<quint32> &entry = {}, quint32 next = 0, int directories = 1)
    {
        QList<QList<quint32>> entries { { 256, 3, 1, 1 }, { 257, 3, 1, 1 }, { 273, 4, 1, 8 }, { 279, 4, 1, 1 } };
        if (index >= 0 && entry.isEmpty())
            entries.removeAt(index);
        else if (index >= 0)
            index < entries.size() ? void(entries[index] = entry) : entries.append(entry);
        QByteArray bytes;
        QDataStream out(&bytes, QIODevice::WriteOnly);
        out.setByteOrder(QDataStream::LittleEndian);
        out << quint16(0x4949) << quint16(42) << quint32(8);
        for (int directory = 1; directory <= directories; ++directory) {
            out << quint16(entries.size());
            for (const QList<quint32> &e : entries)
                out << quint16(e[0]) << quint16(e[1]) << e[2] << e[3];
            out << (directory < directories ? quint32(bytes.size() + 4) : next);
        }
        return bytes;
    }

    // The layout rules a file breaks after the change to its images (of the valid COG: main image, overviews 1 and 2).
    static QString violations(const std::function<void(QList<CogImageMetadata> &)> &change,
        const QString &file = QStringLiteral("cogs/cog-be-deflate-overviews.tif"))
    {
        CogStructureResult cog = CogSource::structureOfFile(dataPath(file));
        change ? change(cog.images) : void();
        return CogSource::layoutViolations(cog).join(QLatin1Char('\n'));
    }

    // The first bytes of an object of contentLength bytes (-1: unknown), served without ranges when the length is
    // given below -1.
    static QString tiffHead(const char *hex, qint64 contentLength = 99999)
    {
        CogProbeResult result;
        result.contentLength = contentLength < -1 ? -contentLength : contentLength;
        result.acceptsRanges = contentLength >= -1;
        applyTiffHeader(result, QByteArray::fromHex(hex));
        return facts(result);
    }

    // "version rootOffset rootLength metadataOffset metadataLength tileOffset tileLength tileType minZoom maxZoom" of
    // a remote archive; "=" stands for these fields read back as given. Bytes the probe does not read hold a
    // pattern, so a read at a wrong place shows.
    static QString pmHead(const char *fields, qint64 contentLength = 466)
    {
        const QList<QByteArray> words = ("PMTiles " + QByteArray(fields)).split(' ');
        QByteArray bytes = words[0] + QByteArray(120, '\xa5');
        const int positions[] = { 7, 8, 16, 24, 32, 56, 64, 99, 100, 101 };
        for (int field = 0; field < 10; ++field)
            for (int index = 0; index < (field == 0 || field > 6 ? 1 : 8); ++index)
                bytes[positions[field] + index] = char(words[field + 1].toULongLong() >> (8 * index));
        PmTilesProbeResult result;
        result.contentLength = contentLength;
        result.acceptsRanges = result.remote = true;
        applyPmTilesHeader(result, bytes);
        return facts(result).replace(' ' + QString(fields) + ' ', " = ");
    }

    // "offset+length" per range, separated by spaces.
    static QList<CogByteRange> parsedRanges(const QString &text)
    {
        QList<CogByteRange> ranges;
        for (const QString &range : text.split(QLatin1Char(' '), Qt::SkipEmptyParts))
            ranges.append({ range.section('+', 0, 0).toLongLong(), range.section('+', 1).toLongLong() });
        return ranges;
    }

    static QString plan(const QString &ranges, qint64 coalesceGap)
    {
        validateByteRanges(parsedRanges(ranges));
        QStringList merged;
        for (const CogByteRange &range : coalesceByteRanges(parsedRanges(ranges), coalesceGap))
            merged << QStringLiteral("%1+%2").arg(range.offset).arg(range.length);
        return merged.join(QLatin1Char(' '));
    }

    // The tiles of a COG in reverse file order, from the table GDAL wrote beside it.
    static QString tiles(const QString &file)
    {
        QStringList words;
        for (const QByteArray &line : dataBytes(file.chopped(3) + "tiles.tsv").trimmed().split('\n').mid(1))
            words.prepend(line.split('\t').value(6) + '+' + line.split('\t').value(7));
        return words.join(QLatin1Char(' '));
    }

    // "/<mode>/<name>" serves the data file of that name, or the name's own bytes when there is none: honestly
    // ("ranges"), with 206 answers but no Accept-Ranges ("silent"), or always whole and without Accept-Ranges
    // ("whole"); "bare" answers 200 without a length.
    static FaultReply faultyObject(const FaultRequest &request)
    {
        const QString mode = QString::fromLatin1(request.target).section('/', 1, 1);
        const QString name = QString::fromLatin1(request.target).section('/', 2);
        FaultRequest asked = request;
        if (mode == "whole")
            asked.headers.clear();
        FaultReply reply = objectReply(asked, QFile::exists(dataPath(name)) ? dataBytes(name) : name.toLatin1());
        if (mode != "ranges")
            reply.bytes.replace("Accept-Ranges: bytes\r\n", "");
        return mode == "bare" ? FaultReply { "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" } : reply;
    }

    // Paths under /ranges/, /silent/ and /whole/ go to the scripted server, which also counts the requests, other
    // paths starting with / to nginx; the rest are local files. The source follows the file name.
    QString probe(const QString &path) const
    {
        const bool scripted = QStringList { "ranges", "silent", "whole" }.contains(path.section('/', 1, 1));
        const QUrl url = scripted ? fault.url(path.toLatin1()) : nginx.url(path);
        const int before = fault.requestCount();
        const QString text = outcome([&] {
            if (path.contains(".pmtiles"))
                return facts(PmTilesSource(cache).probe(path.startsWith('/') ? url.toString() : dataPath(path), {}));
            return path.contains(".tif") ? facts(CogSource(cache).probe(url, {}))
                                         : facts(GeoParquetSource(cache).probe(url, {}));
        });
        return text + (scripted ? QStringLiteral("; requests: %1").arg(fault.requestCount() - before) : QString());
    }

    // With plant, a range of another size is first stored under the key of the range asked for.
    QString pmRange(const QString &file, qint64 offset, qint64 length, bool plant = false) const
    {
        if (plant) {
            const QUrl url = QUrl::fromLocalFile(dataPath(file));
            CloudRangeResponse other;
            other.data = "short";
            other.offset = offset;
            cache->put(rangeCacheKey(url.toEncoded(), offset, length, {}), other);
        }
        const CloudRangeResponse r = PmTilesSource(cache).readRange(dataPath(file), offset, length, {});
        return (r.data == dataBytes(file).mid(offset, length) ? "file bytes" : "other bytes")
            + QStringLiteral(" of %1, %2 ").arg(r.totalSize).arg(r.statusCode) + r.contentType
            + (PmTilesSource(cache).readRange(dataPath(file), offset, length, {}).fromCache ? ", cached" : "");
    }

    // Walked twice: one inspection, then aligned blocks read with the caller's headers, and then all from the cache.
    QString remoteWalk(const QString &path) const
    {
        const CogSource source(cache);
        const QUrl url = fault.url(path.toLatin1());
        const int before = fault.requestCount();
        const CogStructureResult remote = source.structure(url, { { "Authorization", "Bearer a" } });
        source.structure(url, { { "Authorization", "Bearer a" } });
        const bool same = describe(remote) == describe(CogSource::structureOfFile(dataPath(path.section('/', 2))));
        QStringList words { QString::number(remote.contentLength) + (remote.url == url && same ? " same" : " other") };
        for (const FaultRequest &request : fault.requests().mid(before))
            words << request.method + ' ' + request.header("Range")
                    + (request.header("Authorization") == "Bearer a" ? "" : " unauthorised");
        return words.join(QStringLiteral(", "));
    }

    // The view read twice from nginx, cancelled when progress reaches cancelAt bytes, more than 1 MiB at once refused:
    // "bytes matching the file, bytes read, bytes requested, merged ranges, requested ranges, cache hits of the second
    // read; requests" of the cache. With log, the first read's progress reports ("percent message") and response
    // offsets follow.
    QString viewport(QString file, QString ranges, qint64 gap, qint64 cancelAt = -1, bool log = false) const
    {
        CogViewportRequest request;
        request.url = file.contains('/') ? nginx.url('/' + file) : QUrl(file);
        request.ranges = parsedRanges(ranges);
        request.coalesceGap = gap;
        request.context.resourcePolicy = [](const OperationResourceUsage &use, const QString &who, auto &&) {
            return OperationResourcePolicyDecision { use.bytes <= 1048576, who + ' ' + QString::number(use.bytes) };
        };
        QStringList events;
        request.context.progressSink
            = [&events, token = request.context.cancellationToken, cancelAt](const OperationProgress &p) {
                  events << QString::number(p.percent) + ' ' + p.message;
                  p.completed == cancelAt ? token.requestCancellation() : void();
              };
        const QString text = outcome([&] {
            const CogViewportResult r = CogSource(cache).readViewport(request);
            qint64 matching = 0;
            for (const CloudRangeResponse &s : r.responses) {
                matching += s.data == dataBytes(file).mid(s.offset, s.data.size()) ? s.data.size() : 0;
                events << QString::number(s.offset);
            }
            return numbers({ matching, r.bytesRead, r.requestedBytes, r.coalescedRanges, r.requestedRanges,
                       CogSource(cache).readViewport(request).cacheHits })
                + (log ? ", " + events.join(", ") : QString());
        });
        return text + QStringLiteral("; requests: %1").arg(cache->statistics().networkRequests);
    }

private slots:
    void initTestCase() { QVERIFY2(nginx.start(), qPrintable(nginx.errorString())); }

    // A fresh cache for every row, in memory only, so that no row is served from an earlier one.
    void init()
    {
        CloudCacheOptions memoryOnly;
        memoryOnly.diskEnabled = false;
        cache = std::make_shared<CloudRangeCache>(memoryOnly);
    }

    // TIFF: byte order, BigTIFF, first IFD, valid, near, readable. PMTiles: length, the fields as pmHead takes them
    // ("=" when read back as given), tile kind, valid, readable.
    void headerRules_data()
    {
        TABLE;
        ROW("IFD at 7", tiffHead("49492a0007000000"), "II 7 near: " + badIfd);
        ROW("IFD at 16384", tiffHead("49492a0000400000"), "II 16384 valid near readable: " + nearStart);
        ROW("IFD at the object's end", tiffHead("49492a00e8030000", 1000), "II 1000 valid near: " + nearStart);
        ROW("no ranges", tiffHead("49492a0004000000", -99999), "II 4 near: " + noRanges);
        ROW("PNG", tiffHead("89504e470d0a1a0a"), "-- -1: Not a TIFF stream: invalid byte-order marker.");
        ROW("version 44", tiffHead("49492c0008000000"), "II -1: " + notTiff);
        ROW("Big, IFD 15", tiffHead("4d4d002b00080000000000000000000f"), "MM BigTIFF 15 near: " + badIfd);
        ROW("Big, offsets of 4", tiffHead("49492b00040000001000000000000000"), "II BigTIFF -1: " + notTiff);
        ROW("Big, top-bit IFD", tiffHead("49492b00080000001000000000000080"), "II BigTIFF -1: " + badIfd);
        ROW("Big, 64-bit IFD", tiffHead("4d4d002b000800000000000100004000", -1),
            "MM BigTIFF 4294983680 valid readable: " + farFromStart);
        ROW("tile data 1 byte past", pmHead("3 127 25 152 247 399 68 1 0 0"), "466 = vector: " + pmBad);
        ROW("metadata length wraps", pmHead("3 127 25 152 18446744073709551515 399 67 1 0 0"),
            "466 3 127 25 152 -101 399 67 1 0 0 vector: " + pmBad);
        ROW("top-bit offset", pmHead("3 127 25 152 247 9223372036854775808 0 1 0 0"),
            "466 3 127 25 152 247 -9223372036854775808 0 1 0 0 vector: " + pmBad);
        ROW("reversed zooms", pmHead("3 127 25 152 247 399 67 1 10 5"), "466 = vector: " + pmBad);
        ROW("version 2", pmHead("2 127 25 152 247 399 67 1 0 0"), "466 2 0 0 0 0 0 0 0 0 0: " + pmBad);
        ROW("127 bytes, AVIF", pmHead("3 127 0 127 0 127 0 5 0 0", 127),
            "127 = raster valid readable: PMTiles v3 raster" + pmGood.arg("HTTP"));
        ROW("126 bytes", pmHead("3 127 25 152 247 399 67 1 0 0", 126),
            "126 0 0 0 0 0 0 0 0 0 0: Object is too small to contain a PMTiles v3 header.");
    }
    void headerRules() { CHECK; }

    void tiffStructure_data()
    {
        TABLE;
        const QString invalid = "TIFF header is invalid", outside = "TIFF image file directory lies outside the object";
        const QString noTag = "TIFF image file directory lacks a required tag";
        ROW("empty", walk({}), invalid);
        ROW("BigTIFF offsets of 4", walk({ "II+\0\x04\0\0\0\x10\0\0\0\0\0\0\0", 16 }), invalid);
        ROW("first offset 0", walk({ "II*\0\0\0\0\0", 8 }), "TIFF has no image file directory");
        ROW("MM directory past the end", walk({ "MM\0*\0\0\0\xff", 8 }), outside);
        ROW("entries past the end", walk({ "II*\0\x08\0\0\0\xff\xff", 10 }), outside);
        ROW("65536 BigTIFF entries", walk({ "II+\0\x08\0\0\0\x10\0\0\0\0\0\0\0\0\0\x01\0\0\0\0\0", 24 }),
            "TIFF image file directory has more entries than supported");
        ROW("links to itself", walk(tiff(-1, {}, 8)), "TIFF image file directory chain loops");
        ROW("257 directories", walk(tiff(-1, {}, 0, 257)), "TIFF has more image file directories than supported");
        ROW("16 Mi + 1 values", walk(tiff(2, { 273, 4, 0x1000001, 8 })), "TIFF tag values exceed the supported total");
        ROW("values past the end", walk(tiff(2, { 273, 4, 3, 52 })), "TIFF tag values lie outside the object");
        ROW("no width", walk(tiff(0)), noTag);
        ROW("width as text", walk(tiff(0, { 256, 2, 1, 1 })), noTag);
        ROW("width 0", walk(tiff(0, { 256, 3, 1, 0 })),
            "TIFF image has an invalid size, tile size or number of samples");
        ROW("2 strips for 1", walk(tiff(2, { 273, 3, 2, 0x80008 })),
            "TIFF tile or strip count does not match the image");
        ROW("strip past the end", walk(tiff(3, { 279, 4, 1, 55 })), "TIFF tile or strip data lies outside the object");
        ROW("short read", describe(readCogStructure([](qint64, qint64 n) { return QByteArray(n - 1, 'I'); }, 100)),
            "TIFF object could not be read completely");
        // No bits, format, compression, predictor, photometric or planar tags, and the largest RowsPerStrip.
        ROW("absent tags", walk(tiff(4, { 278, 4, 1, 0xffffffff })),
            "0\tII classic\t8\t1\t1\t1\t1\t1\t1\t1\t-1\t1\t1\t1\t8\t1");
        ROW("overview not tiled", violations([](auto &i) { i[1].tiled = false; }), "Overview is not tiled");
        ROW("offsets unordered", violations([](auto &i) { std::swap(i[0].tileOffsets[1], i[0].tileOffsets[2]); }),
            "Tile offsets of an image are not in increasing order");
        ROW("overview data last", violations([](auto &i) { i[2].tileOffsets[0] = i[0].tileOffsets.last() + 1; }),
            "Overview data does not lie before full-resolution data");
        ROW("only masks", violations([](auto &i) { i[1].mask = i[2].mask = true; }),
            "Image larger than one tile has no overviews");
        ROW("strip image, directory last", violations({}, "tiff/bigtiff-le-strip-ifd-at-end.tif"),
            "Main image is not tiled\nImage file directory lies after image data");
        // A tile never written (offset and count 0) is neither data ahead of the directories nor out of order.
        ROW("unwritten tile", violations([](auto &i) { i[0].tileOffsets[0] = i[0].tileByteCounts[0] = 0; }), "");
        ROW("remote walk", remoteWalk("/ranges/tiff/bigtiff-cog-le-ifd-at-16.tiff"),
            "394592 same, HEAD , GET bytes=0-16383, GET bytes=196608-212991, HEAD ");
        ROW("remote, no length", remoteWalk("/bare/a"), "COG object length is unknown");
        ROW("no local file", violations({}, "none.tif"), "COG local file could not be opened");
    }
    void tiffStructure() { CHECK; }

    // Every image of every file in the GDAL table.
    void realFilesMatchGdal()
    {
        QMap<QString, QStringList> expected;
        for (const QByteArray &line : dataBytes(QStringLiteral("cog-structure.gdal.tsv")).split('\n')) {
            const QStringList fields = QString::fromUtf8(line).split(u'\t');
            if (fields.size() == 17 && !line.startsWith('#'))
                expected[fields[0]].append(QString::number(fields[1] != u'0') + u'\t' + fields.mid(2).join(u'\t'));
        }
        QCOMPARE(expected.size(), 14);
        for (auto file = expected.cbegin(); file != expected.cend(); ++file)
            QCOMPARE(file.key() + '\n' + describe(CogSource::structureOfFile(dataPath(file.key()))),
                file.key() + '\n' + file->join('\n'));
    }

    void plansAndStrings_data()
    {
        TABLE;
        const QString invalid = "COG viewport contains an invalid byte range", refused = "URL must use HTTP or HTTPS";
        ROW("touching ranges, gap 0", plan("0+100 100+50", 0), "0+150");
        ROW("hole of exactly the gap", plan("0+100 4196+10", 4096), "0+4206");
        ROW("hole one past the gap", plan("0+100 4197+10", 4096), "0+100 4197+10");
        ROW("contained and repeated", plan("0+1000 10+20 10+20", 0), "0+1000");
        ROW("descending input", plan("9000+10 5000+10 1000+10", 100), "1000+10 5000+10 9000+10");
        ROW("hole from the merged end", plan("0+1000 10+10 1050+10", 50), "0+1060");
        ROW("largest gap", plan("9223372036854775806+1 0+1 1099511627776+5", 9223372036854775807),
            "0+9223372036854775807");
        ROW("end at the largest offset", plan("1+9223372036854775806", 0), "1+9223372036854775806");
        ROW("offset at the largest value", plan("9223372036854775807+1", 0), invalid);
        ROW("length 0 after a good range", plan("0+1 10+0", 0), invalid);
        ROW("negative offset", plan("-1+10", 0), invalid);
        // Requested ranges may overlap, so their sum is not bounded by the object's size.
        ROW("requested bytes saturate", numbers({ sumOfLengths(parsedRanges("0+9223372036854775807 0+1")) }),
            "9223372036854775807");
        ROW("percent without overflow", numbers({ viewportPercent(4611686018427387903, 9223372036854775807) }), "49");
        ROW("COG s3", CogSource(cache).gdalVirtualPath(QUrl("s3://b/a")), "COG " + refused);
        ROW("GeoParquet s3", GeoParquetSource(cache).gdalVirtualPath(QUrl("s3://b/a")), "Cloud object " + refused);
        ROW("PMTiles URL", PmTilesSource(cache).gdalPath("HTTPS://e/a b.pmtiles"), "/vsicurl/https://e/a%20b.pmtiles");
        ROW("relative file", PmTilesSource(cache).gdalPath("w.pmtiles"), QDir::currentPath() + "/w.pmtiles");
        ROW("GDAL cache 0", CogSource(cache).recommendedGdalOptions(0)[""], "GDAL COG cache size must be positive");
    }
    void plansAndStrings() { CHECK; }

    void served_data()
    {
        TABLE;
        const QString pmValid = "468 3 127 25 152 247 399 69 1 0 0 vector valid";
        ROW("big-endian BigTIFF", probe("/cogs/cog-bigtiff-be-deflate-overviews.tif"),
            "MM BigTIFF 200 valid near readable: " + nearStart);
        ROW("COG without ranges", probe("/whole/tiff/geotiff-strip-51px-ifd-at-8.tif"),
            "II 8 valid near: " + noRanges + "; requests: 2");
        ROW("PMTiles answered with 206", probe("/silent/pmtiles/test-fixture-1-mvt-z0.pmtiles"),
            pmValid + " readable: PMTiles v3 vector" + pmGood.arg("HTTP") + "; requests: 2");
        ROW("PMTiles answered whole", probe("/whole/pmtiles/test-fixture-1-mvt-z0.pmtiles"),
            pmValid + ": " + pmBad + "; requests: 2");
        ROW("tile data up to the end", probe("/pmtiles/test-fixture-mlt-no-tiles.pmtiles"),
            "690 3 127 25 152 538 690 0 6 0 0 unknown valid readable: PMTiles v3 unknown" + pmGood.arg("HTTP"));
        ROW("footer PARE", probe("/parquet/encrypted-uniform-footer-pare.parquet.encrypted"), "5708: " + pqBad);
        ROW("7 bytes", probe("/ranges/PAR1AR1"), "7: Object is too small to be a Parquet file.; requests: 1");
        ROW("8 bytes", probe("/ranges/PAR1PAR1"), "8 header footer readable: " + pqGood + "; requests: 3");
        ROW("GeoParquet without ranges", probe("/silent/parquet/geoparquet-point-wkb.parquet"),
            "1361 header footer: " + pqBad + "; requests: 3");
        ROW("GeoParquet answered whole", probe("/whole/parquet/geoparquet-point-wkb.parquet"),
            "1361 header: " + pqBad + "; requests: 2");
        const QString file = "pmtiles/unclustered-png-z1.pmtiles",
                      outside = "PMTiles local range is out of bounds"; // 278 bytes
        ROW("whole local file", pmRange(file, 0, 278), "file bytes of 278, 200 application/vnd.pmtiles, cached");
        ROW("damaged cached range", pmRange(file, 10, 20, true),
            "file bytes of 278, 200 application/vnd.pmtiles, cached");
        ROW("offset at the end", pmRange(file, 278, 1), outside);
        ROW("largest length", pmRange(file, 10, 9223372036854775807), outside);
        const QString jpeg = "cogs/cog-le-jpeg-1024-64tiles.tif", three = "1000+10 5000+10 9000+10";
        const QString be = "cogs/cog-be-deflate-overviews.tif", bigTiff = "cogs/cog-bigtiff-le-deflate-overview.tif";
        ROW("URL without scheme", viewport("a.tif", three, 0), "COG viewport URL is invalid; requests: 0");
        ROW("no ranges", viewport(jpeg, "", 0), "COG viewport requires at least one byte range; requests: 0");
        ROW("negative gap", viewport(jpeg, three, -1), "COG viewport coalesce gap cannot be negative; requests: 0");
        ROW("invalid range", viewport(jpeg, "0+1 5+0", 0), "COG viewport contains an invalid byte range; requests: 0");
        ROW("more than the policy allows", viewport(jpeg, "0+1048577", 0),
            "Norvane.Cloud.CogSource 1048577; requests: 0");
        ROW("cancelled at once", viewport(jpeg, three, 0, 0), "COG viewport request cancelled; requests: 0");
        ROW("cancelled after a read", viewport(jpeg, three, 0, 10), "COG viewport request cancelled; requests: 1");
        // GDAL writes a 4-byte leader and trailer around each tile.
        ROW("JPEG tiles 8 apart, gap 7", viewport(jpeg, tiles(jpeg), 7), "142520 142520 142520 80 80 80; requests: 80");
        ROW("big-endian, default gap", viewport(be, tiles(be), 4096), "153814 153814 153654 1 21 1; requests: 1");
        ROW("progress, then responses in file order", viewport(jpeg, "5000+10 1000+10 3000+10", 0, -1, true),
            "30 30 30 3 3 3, 0 Reading COG viewport, 33 Reading COG viewport, 66 Reading COG viewport, 99 Reading COG "
            "viewport, 100 COG viewport ready, 1000, 3000, 5000; requests: 3");
        ROW("BigTIFF, gap 0", viewport(bigTiff, tiles(bigTiff), 0), "143138 143138 143138 5 5 5; requests: 5");
    }
    void served() { CHECK; }

    // Probe and structure read where a redirect to another origin leads, but the caller's credentials stay behind.
    void credentialsStayWithTheirOrigin()
    {
        const QByteArray path = "/ranges/cogs/cog-le-jpeg-1024-64tiles.tif";
        FaultServer mover([this, path](const FaultRequest &) {
            return httpReply(302, { { "Location", fault.url(path).toEncoded() } }, {});
        });
        const QHash<QByteArray, QByteArray> secret { { "Authorization", "Bearer a" } };
        const int before = fault.requestCount();
        QCOMPARE(CogSource(cache).probe(mover.url(path), secret).url, fault.url(path));
        QCOMPARE(CogSource(cache).structure(mover.url(path), secret).images.size(), 2);
        QVERIFY(fault.requestCount() > before);
        for (const FaultRequest &request : fault.requests().mid(before))
            QCOMPARE(request.method + ' ' + request.header("Authorization"), request.method + ' ');
    }
};

QTEST_GUILESS_MAIN(FormatsTest)
#include "tst_formats.moc"
