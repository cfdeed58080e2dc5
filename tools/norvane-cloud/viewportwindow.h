#pragma once

// Viewports by pixel window: the image of a level, the tiles a window of it meets, and their coalesced reading.

#include "commandline.h"

#include <norvanecloud/formats.h>

namespace NorvaneCloudTool {

/// A rectangle of pixels of one level, as gdal_translate -srcwin X Y W H gives it.
struct PixelWindow {
    qint64 x = 0;
    qint64 y = 0;
    qint64 width = 0;
    qint64 height = 0;
};

/// One tile (or strip) of a level that a window meets.
struct WindowTile {
    qint64 column = 0;
    qint64 row = 0;
    Norvane::Cloud::CogByteRange range;
};

/// What one window read: the level, the tiles it met that hold data, in the file's order, and the merged reads.
struct WindowRead {
    QUrl url;
    qint64 level = 0;
    Norvane::Cloud::CogImageMetadata image;
    PixelWindow window;
    qint64 firstColumn = 0;
    qint64 lastColumn = 0;
    qint64 firstRow = 0;
    qint64 lastRow = 0;
    QList<WindowTile> tiles;
    Norvane::Cloud::CogViewportResult result;
};

/// "X,Y,W,H" as a window; anything else, or a negative origin, or an empty size is a UsageError of the command.
PixelWindow parseWindow(const QString &text, const QString &command);

/// The image of a level: 0 the full-resolution image, N the N-th reduced-resolution image in the file's order; masks
/// are no level. Throws std::runtime_error naming the levels there are.
const Norvane::Cloud::CogImageMetadata &imageOfLevel(const Norvane::Cloud::CogStructureResult &structure, qint64 level);

/// Fills the read's column and row span and the tiles of its image that meet its window (every plane of a planar
/// image), leaving out tiles that were never written. Throws std::runtime_error when the window does not lie
/// wholly inside the image.
void selectTiles(WindowRead &read);

/// Reads the object's structure, picks the read's level and tiles and reads them with the request's headers, gap
/// and context (its URL, ranges and level are the read's): fills every field of the read but its URL, level and
/// window. Throws std::runtime_error for a level or window the object does not have; failures of the library
/// propagate.
void readWindow(const Norvane::Cloud::CogSource &source, WindowRead &read, Norvane::Cloud::CogViewportRequest request);
/// Writes the read's SVG map; throws std::runtime_error when the file cannot be written.
void writeWindowMap(const QString &path, const WindowRead &read);
/// The level, window, tiles and ranges, then the viewport summary and, when not empty, the map's path.
void printWindowRead(QTextStream &out, const WindowRead &read, const QString &mapPath);

/// `viewport URL --window X,Y,W,H [--level N] [--map FILE.svg] [--gap N]`.
int viewportWindowCommand(const Invocation &invocation, Console &console);

} // namespace NorvaneCloudTool
