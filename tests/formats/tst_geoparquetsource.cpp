#include "formats/formatsmessages.h"
#include "formatstesting.h"
#include "loopbackhttpserver.h"

#include <norvanecloud/formats.h>

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;

namespace {

const QString readable = QString::fromLatin1(FormatsMessages::parquetReadable);
const QString notReadable = QString::fromLatin1(FormatsMessages::parquetNotReadable);
const QString tooSmall = QString::fromLatin1(FormatsMessages::parquetTooSmall);

QList<QByteArray> rangesRead(const LoopbackHttpServer &server)
{
    QList<QByteArray> ranges;
    for (const LoopbackRequest &request : server.requests()) {
        if (request.method == "GET")
            ranges.append(request.header("Range"));
    }
    return ranges;
}

} // namespace

Q_DECLARE_METATYPE(RouteBehaviour)

class GeoParquetSourceTest : public QObject {
    Q_OBJECT

    QTemporaryDir cacheFolder;
    LoopbackHttpServer server;
    std::unique_ptr<GeoParquetSource> source;

private slots:
    void initTestCase()
    {
        QVERIFY(cacheFolder.isValid());
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        server.serveDirectory(QStringLiteral(NORVANE_TEST_DATA_DIR));
    }

    void init()
    {
        source = std::make_unique<GeoParquetSource>(memoryOnlyCache(cacheFolder.path()));
        server.clearRequests();
    }

    void cleanupTestCase() { server.stop(); }

    void realFiles_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<bool>("headerValid");
        QTest::addColumn<bool>("footerValid");

        QTest::newRow("GeoParquet 1.1 countries") << "geoparquet-v1.1.0-example-countries.parquet" << true << true;
        QTest::newRow("GeoParquet WKB points") << "geoparquet-point-wkb.parquet" << true << true;
        QTest::newRow("GeoParquet native polygons") << "geoparquet-v1.1.0-polygon-native.parquet" << true << true;
        QTest::newRow("plain Parquet") << "plain-alltypes-not-geo.parquet" << true << true;
        QTest::newRow("native geometry type") << "parquet-native-geometry-logical-type.parquet" << true << true;
        QTest::newRow("encrypted columns, plain footer")
            << "encrypted-columns-plaintext-footer-par1.parquet.encrypted" << true << true;
        QTest::newRow("encrypted footer PARE") << "encrypted-uniform-footer-pare.parquet.encrypted" << false << false;
    }

    void realFiles()
    {
        QFETCH(QString, file);
        QFETCH(bool, headerValid);
        QFETCH(bool, footerValid);
        const QString path = QStringLiteral("/parquet/") + file;
        const qint64 size = QFileInfo(testDataPath(QStringLiteral("parquet/") + file)).size();

        const GeoParquetProbeResult result = source->probe(server.url(path), { { "X-Parquet", "p" } });

        QCOMPARE(result.url, server.url(path));
        QCOMPARE(result.contentLength, size);
        QVERIFY(!result.etag.isEmpty());
        QCOMPARE(result.contentType, LoopbackHttpServer::contentTypeFor(file));
        QVERIFY(result.acceptsRanges);
        QCOMPARE(result.headerValid, headerValid);
        QCOMPARE(result.footerValid, footerValid);
        QCOMPARE(result.cloudReadable, headerValid && footerValid);
        QCOMPARE(result.diagnostic, result.cloudReadable ? readable : notReadable);

        QCOMPARE(server.requests().first().method, QByteArray("HEAD"));
        QCOMPARE(rangesRead(server),
            (QList<QByteArray> {
                "bytes=0-3", "bytes=" + QByteArray::number(size - 4) + '-' + QByteArray::number(size - 1) }));
        for (const LoopbackRequest &request : server.requests())
            QCOMPARE(request.header("X-Parquet"), QByteArray("p"));
    }

    void servedObjects_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<RouteBehaviour>("behaviour");
        QTest::addColumn<bool>("headerValid");
        QTest::addColumn<bool>("footerValid");
        QTest::addColumn<QString>("diagnostic");
        QTest::addColumn<int>("rangeReads");

        RouteBehaviour normal;
        RouteBehaviour noRanges;
        noRanges.acceptRanges.reset();
        RouteBehaviour noLength;
        noLength.omitContentLength = true;

        QTest::newRow("two markers, 8 bytes") << QByteArray("PAR1PAR1") << normal << true << true << readable << 2;
        QTest::newRow("7 bytes") << QByteArray("PAR1AR1") << normal << false << false << tooSmall << 0;
        QTest::newRow("empty object") << QByteArray() << normal << false << false << tooSmall << 0;
        QTest::newRow("unknown length") << QByteArray("PAR1....PAR1") << noLength << false << false << tooSmall << 0;
        QTest::newRow("lower-case markers")
            << QByteArray("par1....par1") << normal << false << false << notReadable << 2;
        QTest::newRow("footer only") << QByteArray("PAR2....PAR1") << normal << false << true << notReadable << 2;
        QTest::newRow("no range support") << QByteArray("PAR1....PAR1") << noRanges << true << true << notReadable << 2;
    }

    void servedObjects()
    {
        QFETCH(QByteArray, content);
        QFETCH(RouteBehaviour, behaviour);
        QFETCH(int, rangeReads);
        const QString path = QStringLiteral("/served/%1.parquet").arg(QString::fromLatin1(QTest::currentDataTag()));
        server.serveBytes(path, content, "application/vnd.apache.parquet");
        server.setBehaviour(path, behaviour);

        const GeoParquetProbeResult result = source->probe(server.url(path), {});

        QTEST(result.headerValid, "headerValid");
        QTEST(result.footerValid, "footerValid");
        QTEST(result.diagnostic, "diagnostic");
        QCOMPARE(result.cloudReadable, result.diagnostic == readable);
        QCOMPARE(rangesRead(server).size(), rangeReads);
    }

    void wholeObjectAnswerToTheFooterReadFails()
    {
        RouteBehaviour wholeObject;
        wholeObject.ignoreRange = true;
        server.serveBytes(QStringLiteral("/whole.parquet"), QByteArray("PAR1....PAR1"));
        server.setBehaviour(QStringLiteral("/whole.parquet"), wholeObject);
        QCOMPARE(
            thrownMessage<std::runtime_error>([&] { source->probe(server.url(QStringLiteral("/whole.parquet")), {}); }),
            QByteArray("HTTP server ignored the byte-range request"));
    }

    void redirectReportsTheFinalUrlAndReadsAtTheGivenOne()
    {
        RouteBehaviour redirect;
        redirect.redirectStatus = 301;
        redirect.redirectLocation = server.url(QStringLiteral("/parquet/geoparquet-point-wkb.parquet")).toEncoded();
        // Closing after the redirect: on a kept-alive connection Qt 6.4 sometimes sends the redirected request twice
        // and merges both answers' headers into the final reply ("Content-Length: 0, 1361").
        redirect.extraHeaders = { { "Connection", "close" } };
        server.setBehaviour(QStringLiteral("/moved.parquet"), redirect);

        const GeoParquetProbeResult result = source->probe(server.url(QStringLiteral("/moved.parquet")), {});

        QCOMPARE(result.url, server.url(QStringLiteral("/parquet/geoparquet-point-wkb.parquet")));
        QCOMPARE(result.contentLength, qint64(1361));
        QVERIFY(result.cloudReadable);
        QList<QByteArray> rangesAtTheGivenUrl;
        for (const LoopbackRequest &request : server.requests()) {
            if (request.method == "GET" && request.path == QStringLiteral("/moved.parquet"))
                rangesAtTheGivenUrl.append(request.header("Range"));
        }
        QCOMPARE(rangesAtTheGivenUrl, (QList<QByteArray> { "bytes=0-3", "bytes=1357-1360" }));
    }

    void repeatedProbeSendsOnlyTheInspection()
    {
        const QUrl url = server.url(QStringLiteral("/parquet/plain-alltypes-not-geo.parquet"));
        QVERIFY(source->probe(url, {}).cloudReadable);
        QVERIFY(source->probe(url, {}).cloudReadable);
        QCOMPARE(server.requestCount(), 4);
        QCOMPARE(rangesRead(server).size(), 2);
    }

    void lengthLargerThanTheObjectFailsInTheFooterRead()
    {
        server.setHandler(QStringLiteral("/longer.parquet"), [](const LoopbackRequest &request) {
            LoopbackResponse response;
            if (request.method == "HEAD") {
                response.headers = { { "Content-Length", "100" }, { "Accept-Ranges", "bytes" } };
            } else {
                response.status = 416;
                response.headers = { { "Content-Range", "bytes */12" } };
            }
            return response;
        });
        const QByteArray message = thrownMessage<std::runtime_error>(
            [&] { source->probe(server.url(QStringLiteral("/longer.parquet")), {}); });
        QVERIFY2(message.startsWith("HTTP request failed (416)") || message == "Unexpected HTTP status: 416",
            message.constData());
    }

    void movedSourceProbes()
    {
        GeoParquetSource moved(std::move(*source));
        QVERIFY(moved.probe(server.url(QStringLiteral("/parquet/geoparquet-point-wkb.parquet")), {}).cloudReadable);
        GeoParquetSource assigned(memoryOnlyCache(cacheFolder.path()));
        assigned = std::move(moved);
        QVERIFY(assigned.probe(server.url(QStringLiteral("/parquet/geoparquet-point-wkb.parquet")), {}).cloudReadable);
        QCOMPARE(rangesRead(server).size(), 2);
        QCOMPARE(assigned.gdalVirtualPath(QUrl(QStringLiteral("https://example.com/a.parquet"))),
            QStringLiteral("/vsicurl/https://example.com/a.parquet"));
    }
};

QTEST_GUILESS_MAIN(GeoParquetSourceTest)
#include "tst_geoparquetsource.moc"
