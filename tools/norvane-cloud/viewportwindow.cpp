#include "viewportwindow.h"

#include "commandline.h"
#include "commands.h"
#include "output.h"
#include "svgmap.h"
#include "toolmessages.h"

#include <QFile>

#include <limits>

namespace NorvaneCloudTool {

using namespace Norvane::Cloud;

namespace {

qint64 tilesAlong(qint64 pixels, qint64 tileSize)
{
    return (pixels + tileSize - 1) / tileSize;
}

QString windowText(const PixelWindow &window)
{
    return QStringLiteral("%1,%2,%3,%4").arg(window.x).arg(window.y).arg(window.width).arg(window.height);
}

// "column 3" or "columns 1-3".
QString span(const QString &what, qint64 first, qint64 last)
{
    return first == last ? QStringLiteral("%1 %2").arg(what).arg(first)
                         : QStringLiteral("%1s %2-%3").arg(what).arg(first).arg(last);
}

qint64 levelOf(const Invocation &invocation)
{
    return numberIn(invocation.value(QStringLiteral("level"), QStringLiteral("0")), QStringLiteral("--level"), 0,
        std::numeric_limits<int>::max(), invocation.command);
}

// The progress of the read, drawn on the console's bar.
CogViewportRequest requestOf(const Invocation &invocation, ProgressBar &bar)
{
    CogViewportRequest request;
    request.headers = invocation.global.headers;
    if (invocation.has(QStringLiteral("gap")))
        request.coalesceGap
            = numberAtLeast(invocation.value(QStringLiteral("gap")), QStringLiteral("--gap"), 0, invocation.command);
    request.context.progressSink = [&bar](const Norvane::Core::Operations::OperationProgress &progress) {
        bar.show(progress.percent, progress.completed, progress.total, progress.message);
    };
    return request;
}

void addWindowRows(Table &table, const WindowRead &read)
{
    QStringList ranges;
    for (const WindowTile &tile : read.tiles)
        ranges.append(QStringLiteral("%1:%2").arg(tile.range.offset).arg(tile.range.length));
    table.add(QStringLiteral("level"),
        QStringLiteral("%1 (%2 x %3 pixels, %4 %5 x %6)")
            .arg(read.level)
            .arg(read.image.width)
            .arg(read.image.height)
            .arg(read.image.tiled ? QStringLiteral("tiles") : QStringLiteral("strips"))
            .arg(read.image.tileWidth)
            .arg(read.image.tileHeight));
    table.add(QStringLiteral("window"), windowText(read.window));
    table.add(QStringLiteral("tiles met"),
        QStringLiteral("%1, %2: %3 with data")
            .arg(span(QStringLiteral("column"), read.firstColumn, read.lastColumn),
                span(QStringLiteral("row"), read.firstRow, read.lastRow))
            .arg(read.tiles.size()));
    table.add(QStringLiteral("tile ranges"), ranges.join(QLatin1Char(' ')));
}

} // namespace

PixelWindow parseWindow(const QString &text, const QString &command)
{
    const QStringList parts = text.split(QLatin1Char(','));
    QList<qint64> numbers;
    for (const QString &part : parts) {
        bool ok = false;
        numbers.append(part.trimmed().toLongLong(&ok, 10));
        if (!ok)
            throw UsageError(ToolMessages::windowMalformed.arg(text), command);
    }
    if (numbers.size() != 4 || numbers[0] < 0 || numbers[1] < 0 || numbers[2] < 1 || numbers[3] < 1)
        throw UsageError(ToolMessages::windowMalformed.arg(text), command);
    return PixelWindow { numbers[0], numbers[1], numbers[2], numbers[3] };
}

const CogImageMetadata &imageOfLevel(const CogStructureResult &structure, qint64 level)
{
    qint64 overviews = 0;
    const CogImageMetadata *found = nullptr;
    for (const CogImageMetadata &image : structure.images) {
        if (image.mask)
            continue;
        const qint64 imageLevel = image.reducedResolution ? ++overviews : 0;
        if (imageLevel == level && !found)
            found = &image;
    }
    if (!found)
        throw std::runtime_error(QString(ToolMessages::levelMissing).arg(level).arg(overviews).toStdString());
    return *found;
}

void selectTiles(WindowRead &read)
{
    const CogImageMetadata &image = read.image;
    const PixelWindow &window = read.window;
    // Compared so that no sum can overflow, whatever numbers the window was given.
    if (window.x >= image.width || window.width > image.width - window.x || window.y >= image.height
        || window.height > image.height - window.y)
        throw std::runtime_error(ToolMessages::windowOutside.arg(windowText(window))
                                     .arg(read.level)
                                     .arg(image.width)
                                     .arg(image.height)
                                     .toStdString());
    read.firstColumn = window.x / image.tileWidth;
    read.lastColumn = (window.x + window.width - 1) / image.tileWidth;
    read.firstRow = window.y / image.tileHeight;
    read.lastRow = (window.y + window.height - 1) / image.tileHeight;
    const qint64 across = tilesAlong(image.width, image.tileWidth);
    const qint64 perPlane = across * tilesAlong(image.height, image.tileHeight);
    const qint64 planes = image.planarConfiguration == 2 ? image.samplesPerPixel : 1;
    read.tiles.clear();
    for (qint64 plane = 0; plane < planes; ++plane) {
        for (qint64 row = read.firstRow; row <= read.lastRow; ++row) {
            for (qint64 column = read.firstColumn; column <= read.lastColumn; ++column) {
                const qint64 index = plane * perPlane + row * across + column;
                const qint64 length = image.tileByteCounts.value(index);
                if (length > 0)
                    read.tiles.append({ column, row, { image.tileOffsets.value(index), length } });
            }
        }
    }
}

void readWindow(const CogSource &source, WindowRead &read, CogViewportRequest request)
{
    read.image = imageOfLevel(source.structure(read.url, request.headers), read.level);
    selectTiles(read);
    if (read.tiles.isEmpty())
        throw std::runtime_error(std::string(ToolMessages::windowTilesNeverWritten.data()));
    request.url = read.url;
    request.overviewLevel = qint32(read.level);
    for (const WindowTile &tile : read.tiles)
        request.ranges.append(tile.range);
    read.result = source.readViewport(request);
}

void writeWindowMap(const QString &path, const WindowRead &read)
{
    QFile file(path);
    const QByteArray svg = windowMapSvg(read);
    if (!file.open(QIODevice::WriteOnly) || file.write(svg) != svg.size())
        throw std::runtime_error(ToolMessages::outputNotWritten.arg(path, file.errorString()).toStdString());
}

void printWindowRead(QTextStream &out, const WindowRead &read, const QString &mapPath)
{
    Table table;
    addWindowRows(table, read);
    addViewportSummary(table, read.result);
    if (!mapPath.isEmpty())
        table.add(QStringLiteral("map"), mapPath);
    table.print(out);
}

int viewportWindowCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 2);
    if (invocation.has(QStringLiteral("range")) || invocation.has(QStringLiteral("ranges-file")))
        throw UsageError(ToolMessages::windowWithRanges, invocation.command);
    if (!invocation.has(QStringLiteral("window")))
        throw UsageError(ToolMessages::mapWithoutWindow, invocation.command);
    WindowRead read;
    read.window = parseWindow(invocation.value(QStringLiteral("window")), invocation.command);
    read.level = levelOf(invocation);
    read.url = urlArgument(invocation.words.at(1));
    ProgressBar bar(console.err, console.progressOnTerminal);
    const CogViewportRequest request = requestOf(invocation, bar);

    CogSource source(makeCache(invocation.global));
    source.rangeReader().setTimeoutMilliseconds(invocation.global.timeoutMilliseconds);
    readWindow(source, read, request);
    bar.finish();
    const QString mapPath = invocation.value(QStringLiteral("map"));
    if (!mapPath.isEmpty())
        writeWindowMap(mapPath, read);
    printWindowRead(console.out, read, mapPath);
    return 0;
}

} // namespace NorvaneCloudTool
