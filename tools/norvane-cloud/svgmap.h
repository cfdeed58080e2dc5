#pragma once

// The picture of a window read: an SVG document a browser shows.

#include "viewportwindow.h"

#include <QByteArray>

namespace NorvaneCloudTool {

/// The level's extent and tile grid, the tiles read (one colour per merged request, hatched where the cache served
/// them), the window's outline, and a legend naming each merged request's bytes.
QByteArray windowMapSvg(const WindowRead &read);

} // namespace NorvaneCloudTool
