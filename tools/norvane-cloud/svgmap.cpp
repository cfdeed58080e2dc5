#include "svgmap.h"

#include <QTextStream>

#include <algorithm>

namespace NorvaneCloudTool {

using namespace Norvane::Cloud;

namespace {

constexpr double drawingSize = 640; // the level's longer side, in SVG units
constexpr double margin = 16;
constexpr double gridTop = 36;
constexpr double legendLineHeight = 18;
constexpr int legendRequestsShown = 12;
const char *const palette[]
    = { "#4e79a7", "#f28e2b", "#59a14f", "#e15759", "#76b7b2", "#edc948", "#b07aa1", "#ff9da7", "#9c755f", "#bab0ac" };

QString number(double value)
{
    return QString::number(value, 'f', 2);
}

QString colourOf(qsizetype request)
{
    return QString::fromLatin1(palette[std::max<qsizetype>(request, 0) % qsizetype(std::size(palette))]);
}

// The merged read that holds the tile: every tile lies wholly inside exactly one response.
qsizetype requestOf(const WindowTile &tile, const CogViewportResult &result)
{
    for (qsizetype index = 0; index < result.responses.size(); ++index) {
        const CloudRangeResponse &response = result.responses.at(index);
        if (response.offset <= tile.range.offset
            && response.offset + response.data.size() >= tile.range.offset + tile.range.length)
            return index;
    }
    return -1;
}

class Drawing {
public:
    explicit Drawing(const WindowRead &read)
        : read(read)
        , scale(drawingSize / double(std::max(read.image.width, read.image.height)))
        , out(&text)
    {
    }

    QByteArray document()
    {
        const qsizetype legendLines = std::min<qsizetype>(read.result.responses.size(), legendRequestsShown) + 3;
        const double width = std::max(read.image.width * scale + 2 * margin, 560.0);
        const double height = gridTop + read.image.height * scale + margin + legendLines * legendLineHeight;
        out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << number(width) << "\" height=\"" << number(height)
            << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
            << "<defs><pattern id=\"cached\" width=\"6\" height=\"6\" patternUnits=\"userSpaceOnUse\" "
               "patternTransform=\"rotate(45)\"><line x1=\"0\" y1=\"0\" x2=\"0\" y2=\"6\" stroke=\"#000\" "
               "stroke-width=\"2\" stroke-opacity=\"0.5\"/></pattern></defs>\n"
            << "<text x=\"" << margin << "\" y=\"22\">"
            << escaped(QStringLiteral("%1 — level %2, %3 x %4 pixels")
                           .arg(read.url.toString(QUrl::FullyEncoded))
                           .arg(read.level)
                           .arg(read.image.width)
                           .arg(read.image.height))
            << "</text>\n<g transform=\"translate(" << margin << ',' << gridTop << ")\">\n";
        drawLevel();
        drawTiles();
        drawGrid();
        drawWindow();
        out << "</g>\n";
        drawLegend(gridTop + read.image.height * scale + margin);
        out << "</svg>\n";
        out.flush();
        return text.toUtf8();
    }

private:
    static QString escaped(const QString &value) { return value.toHtmlEscaped(); }

    void rectangle(const QString &attributes, double x, double y, double width, double height)
    {
        out << "<rect " << attributes << " x=\"" << number(x) << "\" y=\"" << number(y) << "\" width=\""
            << number(width) << "\" height=\"" << number(height) << "\"/>\n";
    }

    void drawLevel()
    {
        const double width = read.image.width * scale;
        const double height = read.image.height * scale;
        rectangle(QStringLiteral("class=\"level\" fill=\"#f4f4f4\" stroke=\"#666\""), 0, 0, width, height);
    }

    // Over the tiles, so that each tile's edges show inside one merged request.
    void drawGrid()
    {
        const double width = read.image.width * scale;
        const double height = read.image.height * scale;
        out << "<path class=\"grid\" fill=\"none\" stroke=\"#999\" stroke-width=\"0.75\" d=\"";
        for (qint64 x = read.image.tileWidth; x < read.image.width; x += read.image.tileWidth)
            out << 'M' << number(x * scale) << " 0V" << number(height);
        for (qint64 y = read.image.tileHeight; y < read.image.height; y += read.image.tileHeight)
            out << 'M' << "0 " << number(y * scale) << 'H' << number(width);
        out << "\"/>\n";
    }

    void drawTiles()
    {
        for (const WindowTile &tile : read.tiles) {
            const qsizetype request = requestOf(tile, read.result);
            const bool cached = request >= 0 && read.result.responses.at(request).fromCache;
            const double x = tile.column * read.image.tileWidth * scale;
            const double y = tile.row * read.image.tileHeight * scale;
            const double width = std::min(read.image.tileWidth, read.image.width - tile.column * read.image.tileWidth);
            const double height = std::min(read.image.tileHeight, read.image.height - tile.row * read.image.tileHeight);
            out << "<rect class=\"tile\" fill=\"" << colourOf(request) << "\" fill-opacity=\"0.8\" x=\"" << number(x)
                << "\" y=\"" << number(y) << "\" width=\"" << number(width * scale) << "\" height=\""
                << number(height * scale) << "\"><title>"
                << QStringLiteral("tile column %1, row %2: %3 bytes at %4, request %5 (%6)")
                       .arg(tile.column)
                       .arg(tile.row)
                       .arg(tile.range.length)
                       .arg(tile.range.offset)
                       .arg(request + 1)
                       .arg(cached ? QStringLiteral("from the cache") : QStringLiteral("from the network"))
                << "</title></rect>\n";
            if (cached)
                rectangle(
                    QStringLiteral("class=\"cached\" fill=\"url(#cached)\""), x, y, width * scale, height * scale);
        }
    }

    void drawWindow()
    {
        rectangle(QStringLiteral("class=\"window\" fill=\"none\" stroke=\"#d00\" stroke-width=\"2\""),
            read.window.x * scale, read.window.y * scale, read.window.width * scale, read.window.height * scale);
    }

    void legendLine(double top, int line, const QString &swatch, const QString &label)
    {
        const double y = top + line * legendLineHeight;
        rectangle(swatch, margin, y, 12, 12);
        out << "<text x=\"" << margin + 18 << "\" y=\"" << number(y + 10) << "\">" << escaped(label) << "</text>\n";
    }

    void drawLegend(double top)
    {
        int line = 0;
        legendLine(top, line++, QStringLiteral("class=\"key\" fill=\"none\" stroke=\"#d00\" stroke-width=\"2\""),
            QStringLiteral("window %1,%2,%3,%4")
                .arg(read.window.x)
                .arg(read.window.y)
                .arg(read.window.width)
                .arg(read.window.height));
        const QList<CloudRangeResponse> &responses = read.result.responses;
        for (qsizetype index = 0; index < std::min<qsizetype>(responses.size(), legendRequestsShown); ++index) {
            const CloudRangeResponse &response = responses.at(index);
            legendLine(top, line++, QStringLiteral("class=\"key\" fill=\"%1\"").arg(colourOf(index)),
                QStringLiteral("request %1: bytes %2-%3 (%4 bytes), %5")
                    .arg(index + 1)
                    .arg(response.offset)
                    .arg(response.offset + response.data.size() - 1)
                    .arg(response.data.size())
                    .arg(response.fromCache ? QStringLiteral("from the cache") : QStringLiteral("from the network")));
        }
        if (responses.size() > legendRequestsShown)
            legendLine(top, line++, QStringLiteral("class=\"key\" fill=\"none\""),
                QStringLiteral("and %1 more requests").arg(responses.size() - legendRequestsShown));
        legendLine(top, line++, QStringLiteral("class=\"key\" fill=\"url(#cached)\" stroke=\"#666\""),
            QStringLiteral("hatched: served by the cache"));
    }

    const WindowRead &read;
    const double scale;
    QString text;
    QTextStream out;
};

} // namespace

QByteArray windowMapSvg(const WindowRead &read)
{
    return Drawing(read).document();
}

} // namespace NorvaneCloudTool
