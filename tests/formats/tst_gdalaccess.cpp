#include "formats/formatsmessages.h"
#include "formatstesting.h"

#include <norvanecloud/formats.h>

#include <QDir>
#include <QTest>

#include <stdexcept>

using namespace Norvane::Cloud;
using Norvane::Cloud::Testing::thrownMessage;

// The GDAL strings are pure functions, so the sources here have no cache.
class GdalAccessTest : public QObject {
    Q_OBJECT

    const CogSource cog;
    const PmTilesSource pmTiles;
    const GeoParquetSource geoParquet;

private slots:
    // The three classes share the rule; the empty path column marks a refusal, each with its class's sentence.
    void virtualPaths_data()
    {
        QTest::addColumn<QUrl>("url");
        QTest::addColumn<QString>("path");

        const auto row = [](const char *name, const QUrl &url, const char *path) {
            QTest::newRow(name) << url << QString::fromUtf8(path);
        };
        row("http with port", QUrl(QStringLiteral("http://127.0.0.1:8080/data/scene.tif")),
            "/vsicurl/http://127.0.0.1:8080/data/scene.tif");
        row("space in the path and query", QUrl(QStringLiteral("https://example.com/my data/a.tif?name=a b")),
            "/vsicurl/https://example.com/my%20data/a.tif?name=a%20b");
        row("non-ASCII path", QUrl(QStringLiteral("https://example.com/K\u00f6ln/\u00fcber.tif")),
            "/vsicurl/https://example.com/K%C3%B6ln/%C3%BCber.tif");
        row("query and fragment kept", QUrl(QStringLiteral("https://example.com/a.tif?sig=x%2By&se=2030-01-01#part")),
            "/vsicurl/https://example.com/a.tif?sig=x%2By&se=2030-01-01#part");
        row("upper-case scheme", QUrl(QStringLiteral("HTTPS://example.com/A.TIF")),
            "/vsicurl/https://example.com/A.TIF");

        row("ftp", QUrl(QStringLiteral("ftp://example.com/a.tif")), "");
        row("https-like scheme", QUrl(QStringLiteral("httpsx://example.com/a.tif")), "");
        row("empty", QUrl(), "");
        row("invalid", QUrl(QStringLiteral("http://exa mple.com/a.tif"), QUrl::StrictMode), "");
    }

    void virtualPaths()
    {
        QFETCH(QUrl, url);
        QFETCH(QString, path);
        if (path.isEmpty()) {
            const QByteArray cloudObject(FormatsMessages::cloudObjectUrlNotHttp);
            QCOMPARE(thrownMessage<std::invalid_argument>([&] { cog.gdalVirtualPath(url); }),
                QByteArray(FormatsMessages::cogUrlNotHttp));
            QCOMPARE(thrownMessage<std::invalid_argument>([&] { pmTiles.gdalVirtualPath(url); }), cloudObject);
            QCOMPARE(thrownMessage<std::invalid_argument>([&] { geoParquet.gdalVirtualPath(url); }), cloudObject);
            return;
        }
        QCOMPARE(cog.gdalVirtualPath(url), path);
        QCOMPARE(pmTiles.gdalVirtualPath(url), path);
        QCOMPARE(geoParquet.gdalVirtualPath(url), path);
    }

    void gdalPaths_data()
    {
        QTest::addColumn<QString>("location");
        QTest::addColumn<QString>("path");

        const QString here = QDir::currentPath();
        QTest::newRow("relative file") << "tiles/world.pmtiles" << here + QStringLiteral("/tiles/world.pmtiles");
        QTest::newRow("absolute file with dot segments") << "/data/./x/../world.pmtiles"
                                                         << "/data/world.pmtiles";
        QTest::newRow("address with a space, upper-case scheme")
            << "HTTPS://example.com/my world.pmtiles?x=1&y=2"
            << "/vsicurl/https://example.com/my%20world.pmtiles?x=1&y=2";
        // Not HTTP(S): a drive path parses as a URL with scheme "C", and is taken as a relative path.
        QTest::newRow("drive letter") << "C:/tiles/w.pmtiles" << here + QStringLiteral("/C:/tiles/w.pmtiles");
    }

    void gdalPaths()
    {
        QFETCH(QString, location);
        QTEST(pmTiles.gdalPath(location), "path");
    }

    void recommendedOptions_data()
    {
        QTest::addColumn<qint64>("cacheSize");
        QTest::addColumn<QByteArray>("sizeText");
        QTest::newRow("1 byte") << qint64(1) << QByteArrayLiteral("1");
        QTest::newRow("256 MiB") << qint64(256) * 1024 * 1024 << QByteArrayLiteral("268435456");
        // An empty text marks a refusal.
        QTest::newRow("0") << qint64(0) << QByteArray();
        QTest::newRow("-1") << qint64(-1) << QByteArray();
    }

    void recommendedOptions()
    {
        QFETCH(qint64, cacheSize);
        QFETCH(QByteArray, sizeText);
        if (sizeText.isEmpty()) {
            QCOMPARE(thrownMessage<std::invalid_argument>([&] { cog.recommendedGdalOptions(cacheSize); }),
                QByteArray(FormatsMessages::gdalCacheSizeNotPositive));
            return;
        }
        const QHash<QByteArray, QByteArray> expected {
            { "GDAL_DISABLE_READDIR_ON_OPEN", "EMPTY_DIR" },
            { "CPL_VSIL_CURL_ALLOWED_EXTENSIONS", ".tif,.tiff" },
            { "VSI_CACHE", "FALSE" },
            { "CPL_VSIL_CURL_CACHE_SIZE", sizeText },
        };
        QCOMPARE(cog.recommendedGdalOptions(cacheSize), expected);
    }
};

QTEST_GUILESS_MAIN(GdalAccessTest)
#include "tst_gdalaccess.moc"
