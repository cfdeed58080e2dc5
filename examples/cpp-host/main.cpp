// A host that uses the classes: probes a PMTiles archive (local path or URL) through a cache of its own and
// prints what it found, then the GDAL path a host would hand to GDAL.
#include <norvanecloud/formats.h>

#include <QCoreApplication>
#include <QDir>
#include <QTextStream>

#include <exception>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv); // network reads need an application object
    QTextStream out(stdout);
    if (argc < 2) {
        QTextStream(stderr) << "usage: norvane-cpp-host LOCATION [CACHE_DIR]\n";
        return 2;
    }
    const QString location = QString::fromLocal8Bit(argv[1]);

    Norvane::Cloud::CloudCacheOptions options;
    options.directory = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QDir::temp().filePath(QStringLiteral("cpp-host"));
    auto cache = std::make_shared<Norvane::Cloud::CloudRangeCache>(options);

    try {
        const Norvane::Cloud::PmTilesSource source(cache);
        const Norvane::Cloud::PmTilesProbeResult result = source.probe(location, {});
        out << "tile kind:   " << result.tileKind << '\n'
            << "zoom:        " << result.minimumZoom << '-' << result.maximumZoom << '\n'
            << "readable:    " << (result.cloudReadable ? "yes" : "no") << '\n'
            << "diagnostic:  " << result.diagnostic << '\n'
            << "GDAL path:   " << source.gdalPath(location) << '\n'
            << "cache writes: " << source.cacheStatistics().writes << '\n';
        return 0;
    } catch (const std::exception &error) {
        QTextStream(stderr) << "error: " << error.what() << '\n';
        return 1;
    }
}
