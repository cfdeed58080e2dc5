// The norvane-cloud tool run as a user runs it, against nginx serving the test data.
#include <faultserver.h>
#include <nginxserver.h>
#include <norvanecloud/flat.h>

#include <QDir>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <vector>

using FlatProbe = int32_t (*)(NorvaneCloudClient *, const char16_t *, const char16_t *, char16_t *, int32_t);

class ToolTest : public QObject {
    Q_OBJECT

    Norvane::Cloud::Testing::NginxServer server { QStringLiteral(NORVANE_TEST_DATA_DIR) };
    QTemporaryDir scratch;

    struct Run {
        int exitCode;
        QByteArray out;
        QString err;
    };

    // %u is the server's root URL, %d the test data folder, %c a cache folder of this run.
    QString expand(QString text) const
    {
        return text.replace(QLatin1String("%u"), server.url(QString()).toString())
            .replace(QLatin1String("%d"), QStringLiteral(NORVANE_TEST_DATA_DIR))
            .replace(QLatin1String("%c"), scratch.filePath(QStringLiteral("cache")));
    }

    // environment: "NAME=value" entries added to the tool's.
    Run run(const QString &commandLine, const QStringList &environment = {}) const
    {
        QStringList arguments;
        for (const QString &word : commandLine.split(QLatin1Char(' '), Qt::SkipEmptyParts))
            arguments.append(expand(word));
        QProcess process;
        process.setEnvironment(QProcess::systemEnvironment() + environment);
        process.start(QStringLiteral(NORVANE_CLOUD_TOOL), arguments);
        process.waitForFinished(-1);
        const int exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        return { exitCode, process.readAllStandardOutput(), QString::fromUtf8(process.readAllStandardError()) };
    }

    static void row(const char *name, const char *arguments, int exitCode, const char *expected)
    {
        QTest::newRow(name) << QString::fromUtf8(arguments) << exitCode << QString::fromUtf8(expected);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(scratch.isValid());
        // The tool's default cache folder lands in the scratch folder, never in the user's.
        qputenv("XDG_CACHE_HOME", scratch.path().toUtf8());
        for (const char *proxy : { "http_proxy", "https_proxy", "no_proxy", "HTTP_PROXY", "HTTPS_PROXY", "NO_PROXY" })
            qunsetenv(proxy);
        QVERIFY2(server.start(), qPrintable(server.errorString()));
    }

    // Success and a layout that is not valid (3) print on standard output; a failure (1) prints the library's message
    // and a usage error (2) the usage, both on standard error.
    void commandLine_data()
    {
        QTest::addColumn<QString>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("expected");
        const char *cog = "probe %u/tiff/cog-ghost-header-deflate-2ifd.tif";
        row("cog facts", cog, 0, "url                   %u/tiff/cog-ghost-header-deflate-2ifd.tif\ncontent length  ");
        row("cog diagnostic last", cog, 0,
            "cloud readable        yes\ndiagnostic            TIFF is range-readable and its first IFD is near the "
            "start.\n");
        row("pmtiles", "probe %u/pmtiles/test-fixture-1-mvt-z0.pmtiles", 0,
            "tile type       1 (vector)\nzoom            0 to 0\nroot directory  offset 127, length 25\n");
        row("local pmtiles", "probe %d/pmtiles/test-fixture-1-mvt-z0.pmtiles", 0,
            "diagnostic      PMTiles v3 vector archive is local range-readable; directory offsets are valid.\n");
        row("parquet", "probe %u/parquet/geoparquet-v1.1.0-example-countries.parquet", 0,
            "header marker   yes\nfooter marker   yes\ncloud readable  yes\n");
        const char *info = "info %u/tiff/cog-ghost-header-deflate-2ifd.tif --validate";
        const char *strips = "info %d/tiff/bigtiff-le-strip-ifd-at-end.tif --validate";
        row("info", info, 0,
            "size        19711\nbyte order  II (little-endian)\nformat      classic TIFF\nimages      2\n\nimage 0\n");
        row("info valid", info, 0,
            "image 1\nkind                  overview\nIFD offset            812\nsize                  50 x 50\ntiles"
            "                 128 x 128, 1 of them\nbands                 3\nbits/sample           8,8,8 (unsigned,"
            "unsigned,unsigned)\ncompression           deflate\npredictor             1\nphotometric           2\n"
            "planar configuration  1\n\nlayout valid: every cloud-optimised layout rule holds\n");
        row("info local strips", strips, 3, "format      BigTIFF\nimages      1\n");
        row("info broken rules", strips, 3,
            "strips                64 x 64, 1 of them\nbands                 3\nbits/sample           8,8,8 (unsigned,"
            "unsigned,unsigned)\ncompression           none\npredictor             1\nphotometric           2\n"
            "planar configuration  1\n\nlayout not valid:\n  - Main image is not tiled\n  - Image file directory lies "
            "after image data\n");
        row("info json", "info %d/tiff/geotiff-strip-51px-ifd-at-8.tif --json --validate", 3,
            "\"tileByteCounts\":[7803],\"tileHeight\":51,\"tileOffsets\":[465],\"tileWidth\":51,\"tiled\":false,\"width"
            "\":51}],\"layoutValid\":false,\"layoutViolations\":[\"Main image is not tiled\"]");
        row("info not a TIFF", "info %u/stac/earth-search-v1-cop-dem-glo-30-page1-next-post-body.json", 1,
            "TIFF header is invalid\n");
        row("gdal-path", "gdal-path https://example.com/scene.tif", 0, "/vsicurl/https://example.com/scene.tif\n");
        row("gdal-options", "gdal-options --cache-size 1048576", 0,
            "--config CPL_VSIL_CURL_ALLOWED_EXTENSIONS .tif,.tiff --config CPL_VSIL_CURL_CACHE_SIZE 1048576 --config "
            "GDAL_DISABLE_READDIR_ON_OPEN EMPTY_DIR --config VSI_CACHE FALSE\n");
        // The tiles gdal_translate -srcwin 200 300 300 100 (and, for level 1, -oo OVERVIEW_LEVEL=0 -srcwin 100 250
        // 156 10) read from this file, as nginx logged GDAL 3.6.2's requests.
        row("window tiles", "viewport %u/cogs/cog-le-jpeg-1024-64tiles.tif --window 200,300,300,100 --no-cache", 0,
            "tiles met         columns 1-3, rows 2-3: 6 with data\ntile ranges       68323:1729 70060:1683 71751:1391 "
            "80646:1657 82311:2004 84323:1679\noverview level    0\nrequested ranges  6\nmerged ranges     2\n");
        row("window of level 1", "viewport %u/cogs/cog-le-jpeg-1024-64tiles.tif --window 100,250,156,10 --level 1", 0,
            "tile ranges       11007:2867 13882:3005 22382:2248 24638:3570\noverview level    1\n");
        row("window outside", "viewport %u/cogs/cog-le-jpeg-1024-64tiles.tif --window 900,0,200,10", 1,
            "window 900,0,200,10 lies outside level 0, which is 1024 x 1024 pixels\n");
        row("no such level", "viewport %u/cogs/cog-le-jpeg-1024-64tiles.tif --window 0,0,1,1 --level 2", 1,
            "level 2 does not exist: the object has levels 0 to 1\n");
        row("empty window", "viewport http://x/a.tif --window 0,0,0,5", 2,
            "norvane-cloud: --window needs X,Y,W,H in pixels: X and Y at least 0, W and H at least 1; got \"0,0,0,5\"");
        row("gdal-options pmtiles", "gdal-options https://example.com/t.pmtiles", 0, "EXTENSIONS .pmtiles --config");
        row("gdal-options parquet", "gdal-options https://example.com/d.parquet?v=1", 0,
            "EXTENSIONS .parquet --config");
        row("gdal-options no extension", "gdal-options https://example.com/scene --timeout 1500 --header X-Key:k1,2", 0,
            "--config CPL_VSIL_CURL_ALLOWED_EXTENSIONS '{noext}' --config CPL_VSIL_CURL_CACHE_SIZE 268435456 --config "
            "GDAL_DISABLE_READDIR_ON_OPEN EMPTY_DIR --config GDAL_HTTP_CONNECTTIMEOUT 2 --config GDAL_HTTP_HEADERS "
            "'\"X-Key: k1,2\"' --config GDAL_HTTP_TIMEOUT 2 --config VSI_CACHE FALSE\n");
        row("missing object", "read %u/missing.bin 0 10", 1, "HTTP request failed (404): ");
        row("negative offset", "read %u/tiff/bigtiff-cog-le-ifd-at-16.tiff -5 10", 2,
            "norvane-cloud: OFFSET must be at least 0, got -5\n");
        row("zero length", "read %u/a.tif 0 0", 2, "norvane-cloud: LENGTH must be at least 1, got 0\n");
        row("read of a path", "read /tmp/a.tif 0 1", 2, "URL must be an http or https URL, got \"/tmp/a.tif\"\n");
        row("no ranges", "viewport %u/a.tif --gap 0", 2, "norvane-cloud: no ranges to read: give --range or");
        row("wide level", "viewport %u/a.tif --range 0:1 --level 4294967297", 2,
            "--level must be from -1 to 2147483647, got 4294967297\n");
        row("three bbox numbers", "stac search http://x/ --bbox 1,2,3", 2,
            "norvane-cloud: --bbox takes 4 or 6 numbers");
        row("zero limit", "stac search http://x/ --limit 0", 2, "--limit must be from 1 to 2147483647, got 0\n");
        row("wide limit", "stac search http://x/ --limit 4294967297", 2, "2147483647, got 4294967297\n");
        row("wide item", "stac layer http://x/ --item 4294967296 --json", 2,
            "--item must be from 0 to 2147483647, got 4294967296\n");
        row("version", "--version", 0, "norvane-cloud 1.0.0\n");
        row("local cog", "probe %d/tiff/cog-ghost-header-deflate-2ifd.tif", 0,
            "url                   file://%d/tiff/cog-ghost-header-deflate-2ifd.tif\ncontent length        19711\n");
        row("local parquet", "probe %d/parquet/geoparquet-v1.1.0-example-countries.parquet", 0,
            "footer marker   yes\ncloud readable  yes\n");
        row("no local archive", "probe /nonexistent/a.pmtiles", 1, "PMTiles local archive does not exist\n");
        row("info of another scheme", "info ftp://x/a.tif", 1, "Cloud URL must use HTTP or HTTPS\n");
        row("info of a local archive", "info %d/pmtiles/stamen-toner-raster-png-z0-3.pmtiles", 0,
            "remote          no\ncontent length  716052\n");
        row("no command", "", 2, "Usage: norvane-cloud COMMAND [options]\n");
        row("unknown command", "fly", 2, "norvane-cloud: unknown command \"fly\"\n\nUsage: norvane-cloud COMMAND");
        row("missing argument", "read http://x/a", 2, "norvane-cloud: missing argument\n\nUsage: norvane-cloud read");
        row("unknown option", "probe a.tif --fast", 2,
            "norvane-cloud: unknown option --fast\n\nUsage: norvane-cloud probe");
        row("not a number", "read http://x/a zero 1", 2, "norvane-cloud: OFFSET must be a whole number, got \"zero\"");
        row("unknown format", "probe http://x/a.bin", 2, "cannot tell the format of http://x/a.bin from its name;");
        row("layer without item", "stac layer http://x/", 2,
            "norvane-cloud: --item N is required\n\nUsage: norvane-cloud stac layer");
        row("zero time-out", "--timeout 0 demo", 2, "--timeout must be a positive number of milliseconds\n");
        for (const char *command : { "probe", "info", "read", "viewport", "stac search", "stac layer", "gdal-path",
                 "gdal-options", "cache stats", "cache clear", "demo", "completion" }) {
            const QString help = QString::fromLatin1(command) + QStringLiteral(" --help");
            QTest::newRow(qPrintable(help)) << help << 0 << QStringLiteral("Usage: norvane-cloud ") + help.chopped(7);
        }
        row("demo from the cache", "demo", 0,
            "cache hits        1\nHTTP requests made: 0\n\n== 7. Search the STAC catalogue");
        row("demo info", "demo", 0,
            "1\n\nlayout valid: every cloud-optimised layout rule holds\n\n== 3. Probe a PMTiles");
        row("demo next page", "demo", 0, "\nmt_m_4511355_sw_12_060_20231117_20240103  naip  ");
        row("demo to the end", "demo", 0, "TIFF is range-readable and its first IFD is near the start.\n\n== 10. GDAL");
        row("demo window", "demo", 0,
            "tiles met         column 1, rows 0-1: 2 with data\ntile ranges       10696:3470 "
            "17632:2075\n");
        row("demo finished", "demo", 0, "\n\nDemo finished; the sample server has stopped.\n");
    }

    void commandLine()
    {
        QFETCH(QString, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, expected);
        const Run result = run(arguments);
        QCOMPARE(result.exitCode, exitCode);
        const QString output = exitCode == 0 || exitCode == 3 ? QString::fromUtf8(result.out) : result.err;
        QVERIFY2(output.contains(expand(expected)), qPrintable(output));
    }

    void probeJsonIsTheFlatDocument()
    {
        const QString options = QStringLiteral("{\"directory\":\"%1\"}").arg(scratch.filePath(QStringLiteral("flat")));
        const std::unique_ptr<NorvaneCloudClient, void (*)(NorvaneCloudClient *)> client(
            NorvaneCloud_CreateClient(reinterpret_cast<const char16_t *>(options.utf16())), NorvaneCloud_DestroyClient);
        const std::pair<const char *, FlatProbe> probes[] = {
            { "%u/tiff/geotiff-strip-51px-ifd-at-8.tif", NorvaneCloud_CogProbeJson },
            { "%d/pmtiles/stamen-toner-raster-png-z0-3.pmtiles", NorvaneCloud_PmTilesInspectJson },
            { "%u/parquet/plain-alltypes-not-geo.parquet", NorvaneCloud_GeoParquetProbeJson },
        };
        for (const auto &[location, probe] : probes) {
            const QString url = expand(QString::fromUtf8(location));
            const auto *text = reinterpret_cast<const char16_t *>(url.utf16());
            std::vector<char16_t> document(size_t(qMax(probe(client.get(), text, nullptr, nullptr, 0), 0)) + 1);
            const int32_t length = probe(client.get(), text, nullptr, document.data(), int32_t(document.size()));
            QVERIFY2(length > 0, location);
            QCOMPARE(run(QStringLiteral("probe %1 --json").arg(url)).out,
                QString::fromUtf16(document.data(), length).toUtf8() + '\n');
        }
    }

    void readWritesExactlyTheRange()
    {
        QFile original(expand(QStringLiteral("%d/tiff/bigtiff-cog-le-ifd-at-16.tiff")));
        QVERIFY(original.open(QIODevice::ReadOnly));
        const QByteArray bytes = original.readAll();
        QCOMPARE(run(QStringLiteral("read %u/tiff/bigtiff-cog-le-ifd-at-16.tiff 100 37")).out, bytes.mid(100, 37));
        const Run toFile = run(QStringLiteral("read %u/tiff/bigtiff-cog-le-ifd-at-16.tiff 1000 4096 -o %c.bin"));
        QCOMPARE(toFile.err,
            expand(QStringLiteral("wrote 4096 bytes to %c.bin (from the network, HTTP 206, object size 394592)\n")));
        QFile written(expand(QStringLiteral("%c.bin")));
        QVERIFY(written.open(QIODevice::ReadOnly));
        QCOMPARE(written.readAll(), bytes.mid(1000, 4096));
    }

    // The map shows the tiles read, hatched once the cache serves them, as an SVG document that parses.
    void windowMap()
    {
        const QString python = QStandardPaths::findExecutable(QStringLiteral("python3"));
        if (python.isEmpty())
            QSKIP("python3 is not installed; it parses the map");
        for (const QByteArray expected : { "6 0\n", "6 6\n" }) {
            const Run read
                = run(QStringLiteral("viewport %u/cogs/cog-le-jpeg-1024-64tiles.tif --window 200,300,300,100 "
                                     "--cache-dir %c --map %c-map.svg"));
            QVERIFY2(read.out.endsWith(expand(QStringLiteral("map               %c-map.svg\n")).toUtf8()),
                read.err.toUtf8());
            QProcess parser;
            parser.start(python,
                { QStringLiteral("-c"),
                    QStringLiteral("import sys, xml.etree.ElementTree as E\n"
                                   "rects = [r.get('class') for r in "
                                   "E.parse(sys.argv[1]).iter('{http://www.w3.org/2000/svg}rect')]\n"
                                   "print(rects.count('tile'), rects.count('cached'))"),
                    expand(QStringLiteral("%c-map.svg")) });
            parser.waitForFinished(-1);
            QCOMPARE(parser.readAllStandardOutput(), expected);
        }
    }

    // GDAL opens a private object whose name has no extension with the options the tool prints, as a user pastes them.
    void gdalOpensWithTheOptions()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("gdalinfo")).isEmpty())
            QSKIP("gdalinfo is not installed (Debian: gdal-bin); GDAL options not tried");
        QVERIFY(QDir().mkpath(scratch.filePath(QStringLiteral("private"))));
        QVERIFY(QFile::copy(expand(QStringLiteral("%d/cogs/cog-le-jpeg-1024-64tiles.tif")),
            scratch.filePath(QStringLiteral("private/scene"))));
        Norvane::Cloud::Testing::NginxServer privateServer { scratch.filePath(QStringLiteral("private")) };
        privateServer.requireHeader("X-Key", "k1,2");
        QVERIFY2(privateServer.start(), qPrintable(privateServer.errorString()));
        QProcess shell;
        shell.start(QStringLiteral("sh"),
            { QStringLiteral("-c"),
                QStringLiteral("eval gdalinfo $(\"$0\" gdal-options --header 'X-Key: k1,2' $1) /vsicurl/$1"),
                QStringLiteral(NORVANE_CLOUD_TOOL), privateServer.url(QStringLiteral("/scene")).toString() });
        shell.waitForFinished(-1);
        QVERIFY2(shell.readAllStandardOutput().contains("Size is 1024, 1024\n"), shell.readAllStandardError());
    }

    // -o reads chunk by chunk through the cache, with a percentage line each when standard error is no terminal.
    void readToFileInChunks()
    {
        const QString read = QStringLiteral("read %u/tiff/bigtiff-cog-le-ifd-at-16.tiff 1000 4096 --chunk-size 1000 "
                                            "-o %c-chunks.bin --cache-dir %c");
        QCOMPARE(run(read).err,
            expand(QStringLiteral("read 24% (1000 of 4096 bytes)\nread 48% (2000 of 4096 bytes)\nread 73% (3000 of "
                                  "4096 bytes)\nread 97% (4000 of 4096 bytes)\nread 100% (4096 of 4096 bytes)\nwrote "
                                  "4096 bytes to %c-chunks.bin (from the network, HTTP 206, object size 394592)\n")));
        QVERIFY(run(read).err.endsWith(QStringLiteral("(from the cache, HTTP 206, object size 394592)\n")));
        QFile written(expand(QStringLiteral("%c-chunks.bin")));
        QVERIFY(written.open(QIODevice::ReadOnly));
        QCOMPARE(written.readAll(), run(QStringLiteral("read %u/tiff/bigtiff-cog-le-ifd-at-16.tiff 1000 4096")).out);
    }

    void verboseDescribesEachExchange()
    {
        const QString read = QStringLiteral("-v read %u/tiff/bigtiff-cog-le-ifd-at-16.tiff 0 16 --cache-dir %c-v");
        const QString network = run(read).err; // the milliseconds vary
        QVERIFY2(network.startsWith(expand(QStringLiteral("GET %u/tiff/bigtiff-cog-le-ifd-at-16.tiff bytes=0-15: 206, "
                                                          "16 bytes, ")))
                && network.endsWith(QStringLiteral(" ms\n")) && network.count(QLatin1Char('\n')) == 1,
            qPrintable(network));
        QCOMPARE(run(read).err,
            expand(QStringLiteral("GET %u/tiff/bigtiff-cog-le-ifd-at-16.tiff bytes=0-15: cache hit, 16 bytes\n")));
        QCOMPARE(
            run(QStringLiteral("read %u/tiff/bigtiff-cog-le-ifd-at-16.tiff 0 16 --cache-dir %c-v")).err, QString());
    }

    // The proxy receives the request in absolute form; a host in no_proxy is reached directly.
    void proxyVariables()
    {
        using namespace Norvane::Cloud::Testing;
        FaultServer proxy([](const FaultRequest &request) { return objectReply(request, "proxied bytes"); });
        const QString proxyVariable = QStringLiteral("http_proxy=") + proxy.url().toString();
        QCOMPARE(run(QStringLiteral("read http://norvane.invalid/a.tif 0 7 --no-cache"), { proxyVariable }).out,
            QByteArray("proxied"));
        QCOMPARE(proxy.requests().value(0).target, QByteArray("http://norvane.invalid/a.tif"));
        const Run direct = run(QStringLiteral("read %u/tiff/bigtiff-cog-le-ifd-at-16.tiff 0 2 --no-cache"),
            { proxyVariable, QStringLiteral("no_proxy=127.0.0.1") });
        QCOMPARE(direct.out, QByteArray("II"));
        QCOMPARE(proxy.requestCount(), 1);
    }

    // Page 1 names a next page that fails. A catalogue URL ending in /search is the search endpoint.
    void stacPages()
    {
        using namespace Norvane::Cloud::Testing;
        auto base = std::make_shared<QByteArray>();
        FaultServer catalogue([base](const FaultRequest &request) {
            if (request.target != "/v1/search")
                return httpReply(500, {}, "down");
            return httpReply(200, {},
                R"({"type":"FeatureCollection","numberMatched":3,"features":[{"type":"Feature","id":"a","properties":{},)"
                R"("assets":{}}],"links":[{"rel":"next","href":")"
                    + *base + R"(/v1/page2"}]})");
        });
        *base = catalogue.url("").toEncoded();
        const QString search = QStringLiteral("stac search %1/v1/search --no-cache --max-pages ").arg(QString(*base));
        QCOMPARE(run(search + QStringLiteral("1 --json")).out,
            QByteArray(R"({"features":[{"assets":{},"id":"a","properties":{},"type":"Feature"}],"numberMatched":3,)"
                       R"("numberReturned":1,"type":"FeatureCollection"})"
                       "\n"));
        const Run failed = run(search + QStringLiteral("2"));
        QCOMPARE(failed.exitCode, 1);
        QCOMPARE(failed.out,
            QByteArray("id  collection  datetime  assets\na                              0\n\n1 items on "
                       "1 page; the catalogue reports 3 matching; more pages follow\n"));
        QVERIFY2(failed.err.startsWith(QStringLiteral("page 1: 1 items\nSTAC request failed (500): ")),
            qPrintable(failed.err));
        QCOMPARE(catalogue.requests().value(0).target, QByteArray("/v1/search"));
    }

    // The completion script, sourced into bash, completes command words and each command's options.
    void bashCompletion_data()
    {
        QTest::addColumn<QString>("words");
        QTest::addColumn<QString>("expected");
        QTest::newRow("second word") << QStringLiteral("stac se") << QStringLiteral("search\n");
        QTest::newRow("option") << QStringLiteral("--timeout 5 read u 0 1 --ch") << QStringLiteral("--chunk-size\n");
        QTest::newRow("global option") << QStringLiteral("cache stats --verb") << QStringLiteral("--verbose\n");
    }

    void bashCompletion()
    {
        QFETCH(QString, words);
        QProcess bash;
        bash.start(QStringLiteral("bash"),
            { QStringLiteral("-c"),
                QStringLiteral(
                    "source <(\"$0\" completion); "
                    "COMP_WORDS=(norvane-cloud %1); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _norvane_cloud; echo "
                    "\"${COMPREPLY[*]}\"")
                    .arg(words),
                QStringLiteral(NORVANE_CLOUD_TOOL) });
        QVERIFY(bash.waitForFinished(-1));
        QTEST(QString::fromUtf8(bash.readAllStandardOutput()), "expected");
    }

    // The disk cache outlives the process: a second run finds every merged range, until the cache is cleared.
    void cacheAcrossRuns()
    {
        const QString viewport = QStringLiteral("viewport %u/tiff/cog-ghost-header-deflate-2ifd.tif --range 5807:4881 "
                                                "--range 10696:3470 --range 17632:2075 --gap 0 --cache-dir %c");
        QVERIFY(run(viewport).out.endsWith("requested ranges  3\nmerged ranges     3\nrequested bytes   10426\n"
                                           "bytes read        10426\ncache hits        0\n"));
        QVERIFY(run(viewport).out.endsWith("cache hits        3\n"));
        QVERIFY(run(QStringLiteral("cache stats --cache-dir %c"))
                    .out.contains(expand("folder                   %c\n").toUtf8()));
        const QByteArray cleared = run(QStringLiteral("cache clear --cache-dir %c")).out;
        QVERIFY2(cleared.startsWith("cleared ") && !cleared.startsWith("cleared 0 "), cleared.constData());
        QVERIFY(cleared.endsWith(expand(QStringLiteral(" bytes of entry files in %c\n")).toUtf8()));
        QVERIFY(run(QStringLiteral("cache stats --json --cache-dir %c")).out.contains("\"diskBytes\":0,"));
    }
};

QTEST_GUILESS_MAIN(ToolTest)
#include "tst_tool.moc"
