// The shared test servers answer as the other tests assume: ranges, HEAD, faults, request log, nginx start-up.

#include "loopbackhttpserver.h"
#include "nginxserver.h"

#include <QEventLoop>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTest>
#include <QTimer>

using namespace Norvane::Cloud::Testing;

Q_DECLARE_METATYPE(RouteBehaviour)

namespace {

const QString pmtilesPath = QStringLiteral("/pmtiles/test-fixture-1-mvt-z0.pmtiles");

QByteArray fixture(const QString &path)
{
    QFile file(QStringLiteral(NORVANE_TEST_DATA_DIR) + path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

struct Fetched {
    int status = 0;
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    QByteArray body;
    QNetworkReply *reply = nullptr;
    QByteArray header(const QByteArray &name) const { return headers.value(name.toLower()); }
    QHash<QByteArray, QByteArray> headers;
};

Fetched fetch(const QUrl &url,
    const QByteArray &method = QByteArrayLiteral("GET"),
    const QByteArray &range = QByteArray(),
    const QByteArray &body = QByteArray())
{
    QNetworkAccessManager manager;
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    if (!range.isEmpty())
        request.setRawHeader("Range", range);
    // A custom "HEAD" verb would leave Qt waiting for the body Content-Length announces.
    QNetworkReply *reply = method == "HEAD" ? manager.head(request) : manager.sendCustomRequest(request, method, body);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(10000, &loop, &QEventLoop::quit);
    loop.exec();
    Fetched result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.error = reply->error();
    result.body = reply->readAll();
    for (const auto &pair : reply->rawHeaderPairs())
        result.headers.insert(pair.first.toLower(), pair.second);
    if (!reply->isFinished())
        result.error = QNetworkReply::TimeoutError;
    reply->abort();
    delete reply;
    return result;
}

} // namespace

class TestLoopbackHttpServer : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        server = std::make_unique<LoopbackHttpServer>();
        QVERIFY2(server->start(), qPrintable(server->errorString()));
        server->serveDirectory(QStringLiteral(NORVANE_TEST_DATA_DIR));
    }
    void cleanup() { server.reset(); }

    void servesRangesAndWholeObjects_data()
    {
        QTest::addColumn<QByteArray>("range");
        QTest::addColumn<int>("status");
        QTest::addColumn<qint64>("first");
        QTest::addColumn<qint64>("length");
        QTest::addColumn<bool>("expectContentRange");
        QTest::newRow("bounded") << QByteArray("bytes=0-15") << 206 << qint64(0) << qint64(16) << true;
        QTest::newRow("open end") << QByteArray("bytes=100-") << 206 << qint64(100) << qint64(-1) << true;
        QTest::newRow("suffix") << QByteArray("bytes=-10") << 206 << qint64(-10) << qint64(10) << true;
        QTest::newRow("no range") << QByteArray() << 200 << qint64(0) << qint64(-1) << false;
    }
    void servesRangesAndWholeObjects()
    {
        QFETCH(QByteArray, range);
        QFETCH(int, status);
        QFETCH(qint64, first);
        QFETCH(qint64, length);
        QFETCH(bool, expectContentRange);
        const QByteArray content = fixture(pmtilesPath);
        QVERIFY(!content.isEmpty());
        const qint64 start = first < 0 ? content.size() + first : first;
        const QByteArray expected = content.mid(start, length);

        const Fetched answer = fetch(server->url(pmtilesPath), "GET", range);
        QCOMPARE(answer.status, status);
        QCOMPARE(answer.body, expected);
        QCOMPARE(answer.header("content-type"), QByteArray("application/vnd.pmtiles"));
        QCOMPARE(answer.header("accept-ranges"), QByteArray("bytes"));
        QVERIFY(!answer.header("etag").isEmpty());
        QVERIFY(!answer.header("last-modified").isEmpty());
        const QByteArray contentRange = "bytes " + QByteArray::number(start) + '-'
            + QByteArray::number(start + expected.size() - 1) + '/' + QByteArray::number(content.size());
        QCOMPARE(answer.header("content-range"), expectContentRange ? contentRange : QByteArray());
    }

    void answersHeadMissingAndUnsatisfiable()
    {
        const QByteArray content = fixture(pmtilesPath);
        const Fetched head = fetch(server->url(pmtilesPath), "HEAD");
        QCOMPARE(head.status, 200);
        QCOMPARE(head.header("content-length"), QByteArray::number(content.size()));
        QVERIFY(head.body.isEmpty());

        QCOMPARE(fetch(server->url(QStringLiteral("/missing.tif"))).status, 404);

        const Fetched beyond
            = fetch(server->url(pmtilesPath), "GET", "bytes=" + QByteArray::number(content.size()) + "-");
        QCOMPARE(beyond.status, 416);
        QCOMPARE(beyond.header("content-range"), "bytes */" + QByteArray::number(content.size()));
    }

    void logsEveryRequestWithItsHeadersAndBody()
    {
        server->setHandler(QStringLiteral("/search"), [](const LoopbackRequest &request) {
            LoopbackResponse response;
            response.status = 201;
            response.headers.emplaceBack("Content-Type", "application/json");
            response.body = "{\"echo\":" + QByteArray::number(request.body.size()) + '}';
            return response;
        });
        const Fetched posted = fetch(server->url(QStringLiteral("/search?page=2")), "POST", "bytes=1-2", "{\"a\":1}");
        QCOMPARE(posted.status, 201);
        QCOMPARE(posted.body, QByteArray("{\"echo\":7}"));
        fetch(server->url(pmtilesPath), "HEAD");

        QVERIFY(server->waitForRequests(2));
        const QList<LoopbackRequest> log = server->requests();
        QCOMPARE(log.size(), 2);
        QCOMPARE(log.at(0).method, QByteArray("POST"));
        QCOMPARE(log.at(0).path, QStringLiteral("/search"));
        QCOMPARE(log.at(0).query, QStringLiteral("page=2"));
        QCOMPARE(log.at(0).body, QByteArray("{\"a\":1}"));
        QCOMPARE(log.at(0).header("RANGE"), QByteArray("bytes=1-2"));
        QVERIFY(log.at(0).hasHeader("range"));
        QVERIFY(!log.at(0).hasHeader("X-Absent"));
        QCOMPARE(log.at(1).method, QByteArray("HEAD"));
        QCOMPARE(server->requestCount(pmtilesPath), 1);
        server->clearRequests();
        QCOMPARE(server->requestCount(), 0);
    }

    void injectsAnswerFaults_data()
    {
        QTest::addColumn<RouteBehaviour>("behaviour");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("headerName");
        QTest::addColumn<QByteArray>("headerValue");
        QTest::addColumn<int>("bodySize");

        RouteBehaviour fixed;
        fixed.fixedStatus = 503;
        fixed.fixedBody = "busy";
        QTest::newRow("fixed status") << fixed << 503 << QByteArray("content-type") << QByteArray("text/plain") << 4;
        RouteBehaviour contentRange;
        contentRange.contentRange = QByteArray("bytes 5-20/99");
        QTest::newRow("lying content-range")
            << contentRange << 206 << QByteArray("content-range") << QByteArray("bytes 5-20/99") << 16;
        RouteBehaviour noContentRange;
        noContentRange.omitContentRange = true;
        QTest::newRow("no content-range") << noContentRange << 206 << QByteArray("content-range") << QByteArray() << 16;
        RouteBehaviour shorter;
        shorter.bodyLengthDelta = -6;
        QTest::newRow("short body") << shorter << 206 << QByteArray("content-range") << QByteArray("bytes 0-15/") << 10;
        RouteBehaviour longer;
        longer.bodyLengthDelta = 4;
        QTest::newRow("long body") << longer << 206 << QByteArray("content-length") << QByteArray("20") << 20;
        RouteBehaviour whole;
        whole.ignoreRange = true;
        QTest::newRow("ignores range") << whole << 200 << QByteArray("content-range") << QByteArray() << -1;
        RouteBehaviour oddAccept;
        oddAccept.acceptRanges = QByteArray("bytes, none");
        QTest::newRow("accept-ranges list")
            << oddAccept << 206 << QByteArray("accept-ranges") << QByteArray("bytes, none") << 16;
        RouteBehaviour noAccept;
        noAccept.acceptRanges = std::nullopt;
        QTest::newRow("no accept-ranges") << noAccept << 206 << QByteArray("accept-ranges") << QByteArray() << 16;
        RouteBehaviour extra;
        extra.extraHeaders = { { "ETag", "\"fixed\"" }, { "X-Extra", "1" } };
        QTest::newRow("extra header replaces") << extra << 206 << QByteArray("etag") << QByteArray("\"fixed\"") << 16;
        RouteBehaviour noLength;
        noLength.omitContentLength = true;
        QTest::newRow("no content-length") << noLength << 206 << QByteArray("content-length") << QByteArray() << 16;
        RouteBehaviour redirect;
        redirect.redirectStatus = 307;
        redirect.redirectLocation = "http://127.0.0.1:1/elsewhere";
        QTest::newRow("redirect") << redirect << 307 << QByteArray("location")
                                  << QByteArray("http://127.0.0.1:1/elsewhere") << 0;
    }
    void injectsAnswerFaults()
    {
        QFETCH(RouteBehaviour, behaviour);
        QFETCH(int, status);
        QFETCH(QByteArray, headerName);
        QFETCH(QByteArray, headerValue);
        QFETCH(int, bodySize);
        server->setBehaviour(pmtilesPath, behaviour);
        const Fetched answer = fetch(server->url(pmtilesPath), "GET", "bytes=0-15");
        QCOMPARE(answer.status, status);
        QVERIFY2(answer.header(headerName).startsWith(headerValue), answer.header(headerName).constData());
        if (headerValue.isEmpty())
            QVERIFY(!answer.headers.contains(headerName));
        const QByteArray content = fixture(pmtilesPath);
        QCOMPARE(answer.body.size(), bodySize < 0 ? content.size() : bodySize);
        if (status == 206 && bodySize <= 16)
            QCOMPARE(answer.body, content.left(bodySize));
    }

    void closesMidBody()
    {
        RouteBehaviour behaviour;
        behaviour.closeAfterBodyBytes = 4;
        server->setBehaviour(pmtilesPath, behaviour);
        const Fetched answer = fetch(server->url(pmtilesPath), "GET", "bytes=0-99");
        // Qt 6.4 reports the early close as RemoteHostClosedError or, now and then, as a finished short body.
        QVERIFY2(answer.error == QNetworkReply::RemoteHostClosedError
                || (answer.error == QNetworkReply::NoError && answer.body.size() == 4),
            qPrintable(QString::number(answer.error)));
        QCOMPARE(answer.body, fixture(pmtilesPath).left(answer.body.size()));
    }

    void stalledRequestIsAnsweredOnRelease()
    {
        RouteBehaviour behaviour;
        behaviour.stallBeforeHeaders = true;
        server->setBehaviour(pmtilesPath, behaviour);
        QNetworkAccessManager manager;
        QNetworkReply *reply = manager.get(QNetworkRequest(server->url(pmtilesPath)));
        QVERIFY(server->waitForRequests(1));
        QVERIFY(!reply->isFinished());
        // The answer follows the behaviour as it is at release time.
        RouteBehaviour failing;
        failing.fixedStatus = 500;
        server->setBehaviour(pmtilesPath, failing);
        server->releaseStalledRequests();
        QTRY_VERIFY(reply->isFinished());
        QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 500);
        delete reply;
    }

    void stopReleasesStalledConnections()
    {
        RouteBehaviour behaviour;
        behaviour.stallAfterBodyBytes = 3;
        server->setBehaviour(pmtilesPath, behaviour);
        QNetworkAccessManager manager;
        QNetworkReply *reply = manager.get(QNetworkRequest(server->url(pmtilesPath)));
        QVERIFY(server->waitForRequests(1));
        server->stop();
        QTRY_VERIFY(reply->isFinished());
        // As with a close mid-body, Qt reports an error or a finished short body; never the whole object.
        QVERIFY(reply->error() != QNetworkReply::NoError || reply->readAll().size() == 3);
        delete reply;
    }

    void unusedPortRefuses()
    {
        const Fetched answer
            = fetch(QUrl(QStringLiteral("http://127.0.0.1:%1/x").arg(LoopbackHttpServer::unusedPort())));
        QCOMPARE(answer.error, QNetworkReply::ConnectionRefusedError);
    }

    void nginxServesRangesAndLogsThem()
    {
        NginxServer nginx(QStringLiteral(NORVANE_TEST_DATA_DIR));
        QVERIFY2(nginx.start(), qPrintable(nginx.errorString()));
        const QByteArray content = fixture(pmtilesPath);
        const Fetched answer = fetch(nginx.url(pmtilesPath), "GET", "bytes=10-25");
        QCOMPARE(answer.status, 206);
        QCOMPARE(answer.body, content.mid(10, 16));
        QCOMPARE(answer.header("content-type"), QByteArray("application/vnd.pmtiles"));
        QCOMPARE(fetch(nginx.url(pmtilesPath), "HEAD").status, 200);
        QVERIFY(nginx.waitForAccessLogEntries(2));
        const QList<NginxAccessLogEntry> log = nginx.accessLog();
        QCOMPARE(log.size(), 2);
        QCOMPARE(log.at(0).method, QByteArray("GET"));
        QCOMPARE(log.at(0).uri, pmtilesPath.toUtf8());
        QCOMPARE(log.at(0).status, 206);
        QCOMPARE(log.at(0).bodyBytesSent, qint64(16));
        QCOMPARE(log.at(0).range, QByteArray("bytes=10-25"));
        QCOMPARE(log.at(1).method, QByteArray("HEAD"));
        QCOMPARE(log.at(1).range, QByteArray());
        nginx.clearAccessLog();
        QCOMPARE(nginx.accessLog().size(), 0);
        const QUrl url = nginx.url(pmtilesPath);
        nginx.stop();
        QVERIFY(!nginx.isRunning());
        QCOMPARE(fetch(url).error, QNetworkReply::ConnectionRefusedError);
    }

private:
    std::unique_ptr<LoopbackHttpServer> server;
};

QTEST_GUILESS_MAIN(TestLoopbackHttpServer)
#include "tst_loopbackhttpserver.moc"
