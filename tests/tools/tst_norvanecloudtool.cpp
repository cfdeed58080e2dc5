// Runs the norvane-cloud tool as a user would, against a loopback server over the real test data.
#include <loopbackhttpserver.h>
#include <norvanecloud/flat.h>

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <vector>

using Norvane::Cloud::Testing::LoopbackHttpServer;
using Norvane::Cloud::Testing::RouteBehaviour;

namespace {

struct ToolRun {
    int exitCode = -1;
    QByteArray rawOut;
    QString out;
    QString err;
};

QString dataPath(const QString &relative)
{
    return QStringLiteral(NORVANE_TEST_DATA_DIR "/") + relative;
}

} // namespace

class NorvaneCloudToolTest : public QObject {
    Q_OBJECT

private:
    LoopbackHttpServer server;
    QTemporaryDir cacheFolder;

    ToolRun run(QStringList arguments, bool withCacheFolder = true)
    {
        if (withCacheFolder)
            arguments << QStringLiteral("--cache-dir") << cacheFolder.filePath(QStringLiteral("cache"));
        QProcess process;
        process.start(QStringLiteral(NORVANE_CLOUD_TOOL), arguments);
        if (!process.waitForFinished(120000))
            qFatal("norvane-cloud did not finish");
        const QByteArray standardOutput = process.readAllStandardOutput();
        return ToolRun { process.exitCode(), standardOutput, QString::fromUtf8(standardOutput),
            QString::fromUtf8(process.readAllStandardError()) };
    }

    QString url(const QString &path) const { return server.url(path).toString(); }

    // The flat interface's own document for the same probe, made in this process.
    QString flatDocument(
        int32_t (*function)(NorvaneCloudClient *, const char16_t *, const char16_t *, char16_t *, int32_t),
        const QString &location)
    {
        QTemporaryDir folder;
        const QString options = QStringLiteral("{\"directory\":\"%1\"}").arg(folder.path());
        NorvaneCloudClient *client = NorvaneCloud_CreateClient(reinterpret_cast<const char16_t *>(options.utf16()));
        const auto *text = reinterpret_cast<const char16_t *>(location.utf16());
        const int32_t length = function(client, text, nullptr, nullptr, 0);
        std::vector<char16_t> buffer(size_t(std::max(length, 0)) + 1);
        function(client, text, nullptr, buffer.data(), int32_t(buffer.size()));
        NorvaneCloud_DestroyClient(client);
        return QString::fromUtf16(buffer.data(), length);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(cacheFolder.isValid());
        server.serveDirectory(QStringLiteral(NORVANE_TEST_DATA_DIR));
        QVERIFY2(server.start(), qPrintable(server.errorString()));
    }

    void probePrintsFactsWithTheDiagnosticLast_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("diagnostic");
        QTest::newRow("cog") << "/tiff/cog-ghost-header-deflate-2ifd.tif"
                             << "TIFF is range-readable and its first IFD is near the start.";
        QTest::newRow("pmtiles") << "/pmtiles/test-fixture-1-mvt-z0.pmtiles"
                                 << "PMTiles v3 vector archive is HTTP range-readable; directory offsets are valid.";
        QTest::newRow("parquet") << "/parquet/geoparquet-v1.1.0-example-countries.parquet"
                                 << "GeoParquet is range-readable and has valid Parquet boundary markers.";
    }

    void probePrintsFactsWithTheDiagnosticLast()
    {
        QFETCH(QString, path);
        QFETCH(QString, diagnostic);
        const ToolRun result = run({ QStringLiteral("probe"), url(path) });
        QCOMPARE(result.exitCode, 0);
        const QStringList lines = result.out.trimmed().split(QLatin1Char('\n'));
        QVERIFY(lines.first().startsWith(QLatin1String("url")));
        QVERIFY(lines.first().endsWith(url(path)));
        QVERIFY2(lines.last().startsWith(QLatin1String("diagnostic")), qPrintable(result.out));
        QVERIFY2(lines.last().endsWith(diagnostic), qPrintable(lines.last()));
        // Aligned: every value starts in the same column.
        const int column = lines.first().indexOf(QLatin1String("http://"));
        QCOMPARE(lines.last().indexOf(diagnostic), column);
    }

    void probeOfALocalPmTilesArchive()
    {
        const ToolRun result
            = run({ QStringLiteral("probe"), dataPath(QStringLiteral("pmtiles/test-fixture-1-mvt-z0.pmtiles")) });
        QCOMPARE(result.exitCode, 0);
        QVERIFY(result.out.contains(QLatin1String("PMTiles v3 vector archive is local range-readable")));
    }

    void jsonEqualsTheFlatDocument_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<QString>("path");
        QTest::newRow("cog") << "cog"
                             << "/tiff/geotiff-strip-51px-ifd-at-8.tif";
        QTest::newRow("pmtiles") << "pmtiles"
                                 << "/pmtiles/stamen-toner-raster-png-z0-3.pmtiles";
        QTest::newRow("parquet") << "parquet"
                                 << "/parquet/plain-alltypes-not-geo.parquet";
    }

    void jsonEqualsTheFlatDocument()
    {
        QFETCH(QString, format);
        QFETCH(QString, path);
        const ToolRun result = run({ QStringLiteral("probe"), url(path), QStringLiteral("--json") });
        QCOMPARE(result.exitCode, 0);
        const auto function = format == QLatin1String("cog") ? NorvaneCloud_CogProbeJson
            : format == QLatin1String("pmtiles")             ? NorvaneCloud_PmTilesInspectJson
                                                             : NorvaneCloud_GeoParquetProbeJson;
        QCOMPARE(result.out.trimmed(), flatDocument(function, url(path)));
    }

    void readWritesExactlyTheRange()
    {
        const QString path = QStringLiteral("tiff/bigtiff-cog-le-ifd-at-16.tiff");
        QFile original(dataPath(path));
        QVERIFY(original.open(QIODevice::ReadOnly));
        const QByteArray bytes = original.readAll();

        const ToolRun toStdout = run(
            { QStringLiteral("read"), url(QLatin1Char('/') + path), QStringLiteral("100"), QStringLiteral("37") });
        QCOMPARE(toStdout.exitCode, 0);
        QCOMPARE(toStdout.rawOut, bytes.mid(100, 37));

        QTemporaryDir folder;
        const QString file = folder.filePath(QStringLiteral("range.bin"));
        const ToolRun toFile = run({ QStringLiteral("read"), url(QLatin1Char('/') + path), QStringLiteral("1000"),
            QStringLiteral("4096"), QStringLiteral("-o"), file });
        QCOMPARE(toFile.exitCode, 0);
        QFile written(file);
        QVERIFY(written.open(QIODevice::ReadOnly));
        QCOMPARE(written.readAll(), bytes.mid(1000, 4096));
    }

    void viewportSummarisesMergingAndTheSecondRunHitsTheCache()
    {
        const QStringList arguments { QStringLiteral("viewport"),
            url(QStringLiteral("/tiff/cog-ghost-header-deflate-2ifd.tif")), QStringLiteral("--range"),
            QStringLiteral("5807:4881"), QStringLiteral("--range"), QStringLiteral("10696:3470"),
            QStringLiteral("--range"), QStringLiteral("17632:2075"), QStringLiteral("--gap"), QStringLiteral("0"),
            QStringLiteral("--level"), QStringLiteral("0") };
        const ToolRun first = run(arguments);
        QCOMPARE(first.exitCode, 0);
        QVERIFY2(
            first.out.contains(QRegularExpression(QStringLiteral("requested ranges +3\\n"))), qPrintable(first.out));
        QVERIFY(first.out.contains(QRegularExpression(QStringLiteral("merged ranges +3\\n"))));
        QVERIFY(first.out.contains(QRegularExpression(QStringLiteral("requested bytes +10426\\n"))));
        QVERIFY(first.out.contains(QRegularExpression(QStringLiteral("cache hits +0\\n"))));
        // A new process finds every merged range in the disk cache.
        const ToolRun second = run(arguments);
        QCOMPARE(second.exitCode, 0);
        QVERIFY2(second.out.contains(QRegularExpression(QStringLiteral("cache hits +3\\n"))), qPrintable(second.out));
    }

    void gdalPathAndOptions()
    {
        const ToolRun path = run({ QStringLiteral("gdal-path"), QStringLiteral("https://example.com/a b.tif") });
        QCOMPARE(path.exitCode, 0);
        QCOMPARE(path.out, QStringLiteral("/vsicurl/https://example.com/a%20b.tif\n"));

        const ToolRun options
            = run({ QStringLiteral("gdal-options"), QStringLiteral("--cache-size"), QStringLiteral("1048576") });
        QCOMPARE(options.exitCode, 0);
        QCOMPARE(options.out,
            QStringLiteral("--config CPL_VSIL_CURL_ALLOWED_EXTENSIONS .tif,.tiff "
                           "--config CPL_VSIL_CURL_CACHE_SIZE 1048576 "
                           "--config GDAL_DISABLE_READDIR_ON_OPEN EMPTY_DIR "
                           "--config VSI_CACHE FALSE\n"));
    }

    void cacheStatsAndClear()
    {
        QTemporaryDir folder;
        const QStringList cacheDir { QStringLiteral("--cache-dir"), folder.path() };
        QCOMPARE(run(QStringList { QStringLiteral("read"), url(QStringLiteral("/pmtiles/unclustered-png-z1.pmtiles")),
                         QStringLiteral("0"), QStringLiteral("127"), QStringLiteral("-o"),
                         folder.filePath(QStringLiteral("header.bin")) }
                         + cacheDir,
                     false)
                     .exitCode,
            0);
        const ToolRun stats = run(QStringList { QStringLiteral("cache"), QStringLiteral("stats") } + cacheDir, false);
        QCOMPARE(stats.exitCode, 0);
        QVERIFY(stats.out.contains(folder.path()));
        QVERIFY2(!stats.out.contains(QRegularExpression(QStringLiteral("disk bytes +0\\n"))), qPrintable(stats.out));

        const ToolRun clear = run(QStringList { QStringLiteral("cache"), QStringLiteral("clear") } + cacheDir, false);
        QCOMPARE(clear.exitCode, 0);
        const ToolRun after
            = run(QStringList { QStringLiteral("cache"), QStringLiteral("stats"), QStringLiteral("--json") } + cacheDir,
                false);
        QCOMPARE(after.exitCode, 0);
        QVERIFY2(after.out.contains(QLatin1String("\"diskBytes\":0")), qPrintable(after.out));
    }

    void failuresExitWithOneAndTheLibrarysMessage_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("message");
        QTest::newRow("missing object") << QStringList { QStringLiteral("read"), QStringLiteral("%1/missing.bin"),
            QStringLiteral("0"), QStringLiteral("10") }
                                        << "HTTP request failed (404): ";
        QTest::newRow("bad range") << QStringList { QStringLiteral("read"),
            QStringLiteral("%1/tiff/geotiff-strip-51px-ifd-at-8.tif"), QStringLiteral("-5"), QStringLiteral("10") }
                                   << "Cloud range offset cannot be negative";
        QTest::newRow("not http") << QStringList { QStringLiteral("gdal-path"), QStringLiteral("s3://bucket/a.tif") }
                                  << "COG URL must use HTTP or HTTPS";
        QTest::newRow("local archive missing")
            << QStringList { QStringLiteral("probe"), QStringLiteral("/nonexistent/archive.pmtiles") }
            << "PMTiles local archive does not exist";
    }

    void failuresExitWithOneAndTheLibrarysMessage()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, message);
        for (QString &argument : arguments)
            argument.replace(QLatin1String("%1"), server.url(QString()).toString());
        const ToolRun result = run(arguments);
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.startsWith(message), qPrintable(result.err));
    }

    void usageErrorsExitWithTwoAndTheUsage_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("usage");
        QTest::newRow("no command") << QStringList {} << "Usage: norvane-cloud COMMAND";
        QTest::newRow("unknown command") << QStringList { QStringLiteral("fly") } << "Usage: norvane-cloud COMMAND";
        QTest::newRow("missing argument")
            << QStringList { QStringLiteral("read"), QStringLiteral("http://x/a") } << "Usage: norvane-cloud read";
        QTest::newRow("unknown option") << QStringList { QStringLiteral("probe"), QStringLiteral("a.tif"),
            QStringLiteral("--fast") } << "Usage: norvane-cloud probe";
        QTest::newRow("bad number") << QStringList { QStringLiteral("read"), QStringLiteral("http://x/a"),
            QStringLiteral("zero"), QStringLiteral("1") }
                                    << "Usage: norvane-cloud read";
        QTest::newRow("unknown format") << QStringList { QStringLiteral("probe"),
            QStringLiteral("http://x/object.bin") }
                                        << "Usage: norvane-cloud probe";
        QTest::newRow("stac layer without item") << QStringList { QStringLiteral("stac"), QStringLiteral("layer"),
            QStringLiteral("http://x/") } << "Usage: norvane-cloud stac layer";
    }

    void usageErrorsExitWithTwoAndTheUsage()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, usage);
        const ToolRun result = run(arguments, false);
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.err.contains(usage), qPrintable(result.err));
    }

    void everySubcommandHasHelp_data()
    {
        QTest::addColumn<QStringList>("arguments");
        for (const char *command : { "probe", "read", "viewport", "gdal-path", "gdal-options", "demo" })
            QTest::newRow(command) << QStringList { QString::fromLatin1(command), QStringLiteral("--help") };
        QTest::newRow("stac search") << QStringList { QStringLiteral("stac"), QStringLiteral("search"),
            QStringLiteral("--help") };
        QTest::newRow("stac layer") << QStringList { QStringLiteral("stac"), QStringLiteral("layer"),
            QStringLiteral("--help") };
        QTest::newRow("cache stats") << QStringList { QStringLiteral("cache"), QStringLiteral("stats"),
            QStringLiteral("--help") };
        QTest::newRow("cache clear") << QStringList { QStringLiteral("cache"), QStringLiteral("clear"),
            QStringLiteral("--help") };
    }

    void everySubcommandHasHelp()
    {
        QFETCH(QStringList, arguments);
        const ToolRun result = run(arguments, false);
        QCOMPARE(result.exitCode, 0);
        QVERIFY2(
            result.out.startsWith(QStringLiteral("Usage: norvane-cloud ") + arguments.first()), qPrintable(result.out));
        QVERIFY(result.out.contains(QLatin1String("--timeout MS")));
    }

    void demoRunsEveryStepToTheEnd()
    {
        const ToolRun result = run({ QStringLiteral("demo") }, false);
        QVERIFY2(result.exitCode == 0, qPrintable(result.err));
        for (const char *step : { "== 1. Probe a Cloud Optimized GeoTIFF", "== 2. Probe a PMTiles archive",
                 "== 3. Probe a GeoParquet object", "== 4. Read a viewport of 4 tiles",
                 "== 5. Read the same viewport again", "== 6. Search the STAC catalogue",
                 "== 7. Follow the next page (POST)", "== 8. Resolve the COG layer", "== 9. GDAL access strings",
                 "== 10. Cache statistics", "Demo finished" }) {
            QVERIFY2(result.out.contains(QLatin1String(step)), step);
        }
        // The repeated viewport is served by the cache without a request.
        const int repeat = result.out.indexOf(QLatin1String("== 5."));
        const QString repeatSection = result.out.mid(repeat, result.out.indexOf(QLatin1String("== 6.")) - repeat);
        QVERIFY2(repeatSection.contains(QLatin1String("HTTP requests made: 0")), qPrintable(repeatSection));
        QVERIFY(repeatSection.contains(QRegularExpression(QStringLiteral("cache hits +1\\n"))));
        QVERIFY(
            result.out.contains(QLatin1String("probe: TIFF is range-readable and its first IFD is near the start.")));
    }
};

QTEST_GUILESS_MAIN(NorvaneCloudToolTest)
#include "tst_norvanecloudtool.moc"
