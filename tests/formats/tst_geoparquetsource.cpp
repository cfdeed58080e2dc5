#include "formats/formatsmessages.h"
#include "formatstesting.h"
#include "loopbackhttpserver.h"

#include <norvanecloud/formats.h>

#include <QTemporaryDir>

#include <QTest>
#include <utility>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;

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

    // One inspection, then the first and the last four bytes at the given URL, all with the caller's headers.
    // Real files are named by path; other rows serve their content with the row's behaviour.
    void probe_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<RouteBehaviour>("behaviour");
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<QList<QByteArray>>("reads");

        RouteBehaviour noRanges;
        noRanges.acceptRanges.reset();
        RouteBehaviour noLength;
        noLength.omitContentLength = true;
        RouteBehaviour wholeObject;
        wholeObject.ignoreRange = true;
        const QString readable = QLatin1String(FormatsMessages::parquetReadable);
        const QString notReadable = QLatin1String(FormatsMessages::parquetNotReadable);
        const QString tooSmall = QLatin1String(FormatsMessages::parquetTooSmall);
        const QList<QByteArray> markers { "bytes=0-3", "bytes=8-11" };
        const auto row = [](const char *name, const QString &path, const QByteArray &content,
                             const RouteBehaviour &behaviour, const QString &outcome, const QList<QByteArray> &reads) {
            QTest::newRow(name) << path << content << behaviour << outcome << reads;
        };

        row("GeoParquet 1.1 countries", QStringLiteral("/parquet/geoparquet-v1.1.0-example-countries.parquet"), {}, {},
            "29834 header footer readable: " + readable, { "bytes=0-3", "bytes=29830-29833" });
        row("encrypted footer PARE", QStringLiteral("/parquet/encrypted-uniform-footer-pare.parquet.encrypted"), {}, {},
            "5708: " + notReadable, { "bytes=0-3", "bytes=5704-5707" });
        row("two markers, 8 bytes", {}, "PAR1PAR1", {}, "8 header footer readable: " + readable,
            { "bytes=0-3", "bytes=4-7" });
        row("7 bytes", {}, "PAR1AR1", {}, "7: " + tooSmall, {});
        row("unknown length", {}, "PAR1....PAR1", noLength, "-1: " + tooSmall, {});
        row("lower-case markers", {}, "par1....par1", {}, "12: " + notReadable, markers);
        row("footer only", {}, "PAR2....PAR1", {}, "12 footer: " + notReadable, markers);
        row("no range support", {}, "PAR1....PAR1", noRanges, "12 header footer: " + notReadable, markers);
        row("whole object answered", {}, "PAR1....PAR1", wholeObject,
            QStringLiteral("throws: HTTP server ignored the byte-range request"), markers);
    }

    void probe()
    {
        QFETCH(QString, path);
        if (path.isEmpty()) {
            QFETCH(QByteArray, content);
            QFETCH(RouteBehaviour, behaviour);
            path = QStringLiteral("/served/%1.parquet").arg(QString::fromLatin1(QTest::currentDataTag()));
            server.serveBytes(path, content);
            server.setBehaviour(path, behaviour);
        }

        QString outcome;
        try {
            const GeoParquetProbeResult result = source->probe(server.url(path), { { "X-Parquet", "p" } });
            QStringList facts { QString::number(result.contentLength) };
            for (const auto &[flag, name] : { std::pair(result.headerValid, "header"),
                     std::pair(result.footerValid, "footer"), std::pair(result.cloudReadable, "readable") })
                facts << (flag ? QString::fromLatin1(name) : QString());
            outcome = facts.join(QLatin1Char(' ')).simplified() + QStringLiteral(": ") + result.diagnostic;
            QCOMPARE(result.url, server.url(path));
            QVERIFY(!result.etag.isEmpty());
        } catch (const std::runtime_error &error) {
            outcome = QStringLiteral("throws: ") + QLatin1String(error.what());
        }
        QTEST(outcome, "outcome");
        QTEST(rangesOfGets(server, path), "reads");
        QCOMPARE(server.requests().first().method, QByteArray("HEAD"));
        for (const LoopbackRequest &request : server.requests())
            QCOMPARE(request.header("X-Parquet"), QByteArray("p"));
    }

    // Both markers are read at the given URL, through the cache: a repeated probe sends only the inspection.
    void redirectReportsTheFinalUrlAndReadsAtTheGivenOne()
    {
        const QString target = QStringLiteral("/parquet/geoparquet-point-wkb.parquet");
        RouteBehaviour redirect;
        redirect.redirectStatus = 301;
        redirect.redirectLocation = server.url(target).toEncoded();
        server.setBehaviour(QStringLiteral("/moved.parquet"), redirect);

        const GeoParquetProbeResult result = source->probe(server.url(QStringLiteral("/moved.parquet")), {});
        QVERIFY(source->probe(server.url(QStringLiteral("/moved.parquet")), {}).cloudReadable);

        QCOMPARE(result.url, server.url(target));
        QCOMPARE(result.contentLength, qint64(1361));
        QVERIFY(result.cloudReadable);
        QCOMPARE(rangesOfGets(server, QStringLiteral("/moved.parquet")),
            (QList<QByteArray> { "bytes=0-3", "bytes=1357-1360" }));
    }

    void movedSourceProbes()
    {
        GeoParquetSource assigned(nullptr);
        assigned = GeoParquetSource(std::move(*source));
        QVERIFY(assigned.probe(server.url(QStringLiteral("/parquet/geoparquet-point-wkb.parquet")), {}).cloudReadable);
    }
};

QTEST_GUILESS_MAIN(GeoParquetSourceTest)
#include "tst_geoparquetsource.moc"
