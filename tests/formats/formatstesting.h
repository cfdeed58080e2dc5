#pragma once

// Helpers shared by the format source tests and benchmarks.

#include <norvanecloud/formats.h>

#include <QByteArray>
#include <QFile>
#include <QList>
#include <QString>

#include <functional>
#include <memory>

namespace Norvane::Cloud::Testing {

inline QString testDataPath(const QString &relativePath)
{
    return QStringLiteral(NORVANE_TEST_DATA_DIR "/") + relativePath;
}

inline QByteArray testDataBytes(const QString &relativePath)
{
    QFile file(testDataPath(relativePath));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// A cache that keeps everything in memory, so request counts do not depend on earlier runs.
inline std::shared_ptr<CloudRangeCache> memoryOnlyCache(const QString &folder)
{
    CloudCacheOptions options;
    options.directory = folder;
    options.diskEnabled = false;
    return std::make_shared<CloudRangeCache>(options);
}

inline CogByteRange byteRange(qint64 offset, qint64 length)
{
    CogByteRange range;
    range.offset = offset;
    range.length = length;
    return range;
}

inline QByteArray rangeHeader(qint64 offset, qint64 length)
{
    return "bytes=" + QByteArray::number(offset) + '-' + QByteArray::number(offset + length - 1);
}

/// One tile of a generated COG as recorded in its ".tiles.tsv" table.
struct CogTile {
    int ifd = 0;
    qint64 offset = 0;
    qint64 length = 0;
};

/// The tiles recorded beside a generated COG ("cogs/<name>.tif" reads "cogs/<name>.tiles.tsv") in file order, of
/// one directory or (ifd -1) of all. Empty when the table is missing or malformed.
inline QList<CogTile> recordedTiles(const QString &cogRelativePath, int ifd = -1)
{
    QString tablePath = testDataPath(cogRelativePath);
    tablePath.chop(4);
    QFile table(tablePath + QStringLiteral(".tiles.tsv"));
    QList<CogTile> tiles;
    if (!table.open(QIODevice::ReadOnly | QIODevice::Text))
        return tiles;
    while (!table.atEnd()) {
        const QByteArray line = table.readLine().trimmed();
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        const QList<QByteArray> columns = line.split('\t');
        if (columns.size() != 8)
            return {};
        const CogTile tile { columns[0].toInt(), columns[6].toLongLong(), columns[7].toLongLong() };
        if (ifd < 0 || tile.ifd == ifd)
            tiles.append(tile);
    }
    return tiles;
}

inline QList<CogTile> recordedTilesOfDirectory(const QString &cogRelativePath, int ifd)
{
    return recordedTiles(cogRelativePath, ifd);
}

/// A viewport over the given tiles, asked for in reverse file order (overviews before full resolution).
inline CogViewportRequest viewportOfTiles(const QUrl &url, const QList<CogTile> &tiles, qint64 coalesceGap)
{
    CogViewportRequest request;
    request.url = url;
    request.coalesceGap = coalesceGap;
    for (auto tile = tiles.crbegin(); tile != tiles.crend(); ++tile)
        request.ranges.append(byteRange(tile->offset, tile->length));
    return request;
}

/// The bytes of one requested range cut out of a viewport result the way a caller does it: from the response that
/// starts at or before the range and reaches its end. Empty when no response holds the range.
inline QByteArray cutRange(const CogViewportResult &result, qint64 offset, qint64 length)
{
    for (const CloudRangeResponse &response : result.responses) {
        if (response.offset <= offset && response.offset + response.data.size() >= offset + length)
            return response.data.mid(offset - response.offset, length);
    }
    return {};
}

/// The Range headers of the GET requests a loopback server logged (only those for path unless it is empty).
template <typename Server> QList<QByteArray> rangesOfGets(const Server &server, const QString &path = QString())
{
    QList<QByteArray> ranges;
    for (const auto &request : server.requests()) {
        if (request.method == "GET" && (path.isEmpty() || request.path == path))
            ranges.append(request.header("Range"));
    }
    return ranges;
}

/// The what() text of the Exception that call throws, "(no exception)" or "(other exception)".
template <typename Exception> QByteArray thrownMessage(const std::function<void()> &call)
{
    try {
        call();
    } catch (const Exception &error) {
        return QByteArray(error.what());
    } catch (...) {
        return QByteArrayLiteral("(other exception)");
    }
    return QByteArrayLiteral("(no exception)");
}

} // namespace Norvane::Cloud::Testing
