// The loopback test server does what the other tests take for granted: the faults really reach the wire, a stalled
// request is held until released, and the request log is complete and correct.

#include "loopbackhttpserver.h"

#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTest>
#include <QTimer>

using namespace Norvane::Cloud::Testing;

Q_DECLARE_METATYPE(RouteBehaviour)

namespace {

const QString pmtilesPath = QStringLiteral("/pmtiles/test-fixture-1-mvt-z0.pmtiles");

struct Fetched {
    int status = 0;
    QByteArray body;
    QHash<QByteArray, QByteArray> headers; // names lower-cased
};

Fetched fetch(const QUrl &url, const QByteArray &method, const QByteArray &range, const QByteArray &body = {})
{
    QNetworkAccessManager manager;
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    if (!range.isEmpty())
        request.setRawHeader("Range", range);
    // A custom "HEAD" verb would leave Qt waiting for the body Content-Length announces.
    std::unique_ptr<QNetworkReply> reply(
        method == "HEAD" ? manager.head(request) : manager.sendCustomRequest(request, method, body));
    QEventLoop loop;
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(10000, &loop, &QEventLoop::quit);
    loop.exec();
    Fetched result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.body = reply->readAll();
    for (const auto &pair : reply->rawHeaderPairs())
        result.headers.insert(pair.first.toLower(), pair.second);
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

    void logsEveryRequestWithItsHeadersAndBody()
    {
        server->setHandler(QStringLiteral("/search"), [](const LoopbackRequest &request) {
            LoopbackResponse response;
            response.body = "{\"echo\":" + QByteArray::number(request.body.size()) + '}';
            return response;
        });
        const Fetched posted = fetch(server->url(QStringLiteral("/search?page=2")), "POST", "bytes=1-2", "{\"a\":1}");
        QCOMPARE(posted.body, QByteArray("{\"echo\":7}"));
        fetch(server->url(pmtilesPath), "HEAD", {});

        QVERIFY(server->waitForRequests(2));
        const QList<LoopbackRequest> log = server->requests();
        QCOMPARE(log.size(), 2);
        QCOMPARE(log.at(0).method, QByteArray("POST"));
        QCOMPARE(log.at(0).path, QStringLiteral("/search"));
        QCOMPARE(log.at(0).query, QStringLiteral("page=2"));
        QCOMPARE(log.at(0).body, QByteArray("{\"a\":1}"));
        QCOMPARE(log.at(0).headerValues("RANGE"), QList<QByteArray>({ "bytes=1-2" }));
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
        RouteBehaviour contentRange;
        contentRange.contentRange = QByteArray("bytes 5-20/99");
        QTest::newRow("lying content-range")
            << contentRange << 206 << QByteArray("content-range") << QByteArray("bytes 5-20/99") << 16;
        RouteBehaviour shorter;
        shorter.bodyLengthDelta = -6;
        QTest::newRow("short body") << shorter << 206 << QByteArray("content-range") << QByteArray("bytes 0-15/") << 10;
        RouteBehaviour whole;
        whole.ignoreRange = true;
        whole.acceptRanges = std::nullopt;
        QTest::newRow("ignores range") << whole << 200 << QByteArray("accept-ranges") << QByteArray() << 468;
        RouteBehaviour noLength;
        noLength.omitContentLength = true;
        QTest::newRow("no content-length") << noLength << 206 << QByteArray("content-length") << QByteArray() << 16;
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
        QCOMPARE(answer.body.size(), bodySize);
        if (headerValue.isEmpty())
            QVERIFY(!answer.headers.contains(headerName));
        else
            QVERIFY2(
                answer.headers.value(headerName).startsWith(headerValue), answer.headers.value(headerName).constData());
    }

    void stalledRequestIsHeldUntilReleased()
    {
        RouteBehaviour behaviour;
        behaviour.stallBeforeHeaders = true;
        server->setBehaviour(pmtilesPath, behaviour);
        QNetworkAccessManager manager;
        std::unique_ptr<QNetworkReply> reply(manager.get(QNetworkRequest(server->url(pmtilesPath))));
        QVERIFY(server->waitForRequests(1));
        QVERIFY(!reply->isFinished());
        // The answer follows the behaviour as it is at release time.
        RouteBehaviour failing;
        failing.fixedStatus = 500;
        server->setBehaviour(pmtilesPath, failing);
        server->releaseStalledRequests();
        QTRY_VERIFY(reply->isFinished());
        QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 500);
    }

private:
    std::unique_ptr<LoopbackHttpServer> server;
};

QTEST_GUILESS_MAIN(TestLoopbackHttpServer)
#include "tst_loopbackhttpserver.moc"
