#pragma once

// Small helpers shared by the format source tests and benchmarks: test data paths, caches that stay in memory,
// the recorded tile tables of the generated COGs, and exception capture.

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

/// One tile of a generated COG as recorded in its ".tiles.tsv" table.
struct CogTile {
    int ifd = 0;
    int tile = 0;
    qint64 offset = 0;
    qint64 length = 0;
};

/// The tiles recorded beside a generated COG ("cogs/<name>.tif" reads "cogs/<name>.tiles.tsv"), all
/// directories, in file order. Empty when the table is missing.
inline QList<CogTile> recordedTiles(const QString &cogRelativePath)
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
        CogTile tile;
        tile.ifd = columns[0].toInt();
        tile.tile = columns[5].toInt();
        tile.offset = columns[6].toLongLong();
        tile.length = columns[7].toLongLong();
        tiles.append(tile);
    }
    return tiles;
}

inline QList<CogTile> recordedTilesOfDirectory(const QString &cogRelativePath, int ifd)
{
    QList<CogTile> tiles;
    for (const CogTile &tile : recordedTiles(cogRelativePath)) {
        if (tile.ifd == ifd)
            tiles.append(tile);
    }
    return tiles;
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

/// The what() text of the exception of type Exception that call throws; "(no exception)" when it returns and
/// "(other exception)" for any other exception.
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
