// Security properties: credentials carried in headers are part of the cache key, so an answer fetched with one
// set of credentials is never served to a request with other credentials or none (through the reader, the STAC
// client and the flat interface, in memory and on disk); an HTTPS URL is never redirected to plain HTTP; the
// cache folder and its entry files are private to the user.

#include <norvanecloud/flat.h>
#include <norvanecloud/rangetransport.h>
#include <norvanecloud/stac.h>

#include "hardeningtesting.h"
#include "loopbackhttpserver.h"

#include <QDir>
#include <QFile>
#include <QMutex>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSemaphore>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <memory>

#include <sys/stat.h>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;

namespace {

QByteArray fixture(const QString &path)
{
    QFile file(QStringLiteral(NORVANE_TEST_DATA_DIR) + path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Answers a "bytes=a-b" range of content with 206, or the whole content with 200.
LoopbackResponse rangeAnswer(const QByteArray &rangeHeader, const QByteArray &content)
{
    LoopbackRequest request;
    request.method = "GET";
    if (!rangeHeader.isEmpty())
        request.headers.append({ "Range", rangeHeader });
    return LoopbackHttpServer::objectResponse(request, content, "application/octet-stream");
}

int permissionBits(const QString &path)
{
    struct stat status { };
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return -1;
    return int(status.st_mode & 07777);
}

QString flatText(const std::function<int32_t(char16_t *, int32_t)> &call)
{
    char16_t buffer[16384];
    const int32_t length = call(buffer, int32_t(std::size(buffer)));
    if (length < 0) {
        char16_t error[1024];
        NorvaneCloud_LastError(error, int32_t(std::size(error)));
        return QStringLiteral("failed: ") + QString::fromUtf16(error);
    }
    return QString::fromUtf16(buffer, qMin<int32_t>(length, int32_t(std::size(buffer)) - 1));
}

// An HTTPS server on 127.0.0.1 with the self-signed certificate of this folder, in its own thread: it serves one
// object with ranges and redirects two paths, one to itself and one to a plain HTTP URL.
class LoopbackTlsServer final : public QThread {
public:
    LoopbackTlsServer(QByteArray content, QUrl plainTarget)
        : content(std::move(content))
        , plainTarget(std::move(plainTarget))
    {
    }
    ~LoopbackTlsServer() override
    {
        quit();
        wait();
    }

    bool startListening()
    {
        start();
        ready.acquire();
        return listeningPort != 0;
    }
    QUrl url(const QString &path) const
    {
        return QUrl(QStringLiteral("https://127.0.0.1:%1%2").arg(listeningPort).arg(path));
    }
    QStringList paths() const
    {
        QMutexLocker locker(&logMutex);
        return log;
    }

protected:
    void run() override
    {
        QSslServer server;
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.setLocalCertificate(certificate());
        QFile keyFile(QStringLiteral(NORVANE_HARDENING_SOURCE_DIR "/loopback-tls.key"));
        keyFile.open(QIODevice::ReadOnly);
        configuration.setPrivateKey(QSslKey(keyFile.readAll(), QSsl::Rsa));
        configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
        server.setSslConfiguration(configuration);
        QObject::connect(&server, &QTcpServer::pendingConnectionAvailable, &server, [this, &server] {
            while (QTcpSocket *socket = server.nextPendingConnection())
                serve(socket);
        });
        if (server.listen(QHostAddress::LocalHost, 0))
            listeningPort = server.serverPort();
        ready.release();
        if (listeningPort != 0)
            exec();
    }

private:
    void serve(QTcpSocket *socket)
    {
        auto received = std::make_shared<QByteArray>();
        QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, received] {
            received->append(socket->readAll());
            while (received->contains("\r\n\r\n")) {
                const qsizetype end = received->indexOf("\r\n\r\n");
                const QList<QByteArray> lines = received->left(end).split('\n');
                received->remove(0, end + 4);
                const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
                QByteArray range;
                for (const QByteArray &line : lines) {
                    if (line.toLower().startsWith("range:"))
                        range = line.mid(6).trimmed();
                }
                const QString path = QString::fromLatin1(requestLine.value(1));
                {
                    QMutexLocker locker(&logMutex);
                    log.append(path);
                }
                socket->write(answer(requestLine.value(0), path, range));
            }
        });
    }

    QByteArray answer(const QByteArray &method, const QString &path, const QByteArray &range) const
    {
        LoopbackResponse response;
        if (path == QLatin1String("/object.bin")) {
            response = rangeAnswer(range, content);
        } else if (path == QLatin1String("/to-https")) {
            response.status = 302;
            response.headers = { { "Location", url(QStringLiteral("/object.bin")).toEncoded() } };
        } else if (path == QLatin1String("/to-http")) {
            response.status = 302;
            response.headers = { { "Location", plainTarget.toEncoded() } };
        } else {
            response.status = 404;
        }
        QByteArray bytes = "HTTP/1.1 " + QByteArray::number(response.status) + " X\r\n";
        for (const auto &header : std::as_const(response.headers))
            bytes += header.first + ": " + header.second + "\r\n";
        bytes += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n\r\n";
        if (method != "HEAD")
            bytes += response.body;
        return bytes;
    }

    const QByteArray content;
    const QUrl plainTarget;
    QSemaphore ready;
    std::atomic<quint16> listeningPort { 0 };
    mutable QMutex logMutex;
    QStringList log;

public:
    static QSslCertificate certificate()
    {
        QFile file(QStringLiteral(NORVANE_HARDENING_SOURCE_DIR "/loopback-tls.crt"));
        file.open(QIODevice::ReadOnly);
        return QSslCertificate(file.readAll());
    }
};

} // namespace

class TestSecurity : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void otherCredentialsNeverGetCachedBytes_data();
    void otherCredentialsNeverGetCachedBytes();
    void stacAnswersAreKeptPerCredentials();
    void flatClientsSharingAFolderKeepTheirCredentialsApart();
    void httpsIsNeverRedirectedToHttp();
    void cacheFolderAndEntriesArePrivate();

private:
    std::shared_ptr<CloudRangeCache> makeCache(const QString &name, bool memoryEnabled = true) const;

    LoopbackHttpServer server;
    QTemporaryDir root;
    QByteArray aliceBytes;
    QByteArray bobBytes;
};

void TestSecurity::initTestCase()
{
    QVERIFY(root.isValid());
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    aliceBytes = seededBytes(8192, 1);
    bobBytes = seededBytes(8192, 2);
    // One object whose content depends on who asks: the way a private bucket answers different accounts.
    const auto perCredentials = [this](const LoopbackRequest &request, const QByteArray &alice, const QByteArray &bob) {
        const QByteArray authorization = request.header("Authorization");
        const QByteArray apiKey = request.header("X-Api-Key");
        if (authorization == "Bearer alice" || apiKey == "alice")
            return rangeAnswer(request.header("Range"), alice);
        if (authorization == "Bearer bob" || apiKey == "bob")
            return rangeAnswer(request.header("Range"), bob);
        LoopbackResponse refused;
        refused.status = 403;
        return refused;
    };
    server.setHandler(QStringLiteral("/private.bin"),
        [=](const LoopbackRequest &request) { return perCredentials(request, aliceBytes, bobBytes); });
    const QByteArray littleEndian = fixture(QStringLiteral("/tiff/bigtiff-cog-le-ifd-at-16.tiff"));
    const QByteArray bigEndian = fixture(QStringLiteral("/tiff/bigendian-mm-zstd-ifd-at-8.tiff"));
    QVERIFY(!littleEndian.isEmpty() && !bigEndian.isEmpty());
    server.setHandler(QStringLiteral("/private.tif"),
        [=](const LoopbackRequest &request) { return perCredentials(request, littleEndian, bigEndian); });
    server.setHandler(QStringLiteral("/catalogue/search"), [](const LoopbackRequest &request) {
        const QByteArray who = request.header("Authorization").mid(7);
        LoopbackResponse response;
        response.headers = { { "Content-Type", "application/geo+json" } };
        response.body = R"({"type":"FeatureCollection","features":[{"type":"Feature","id":")" + who
            + R"(-item","properties":{},"assets":{}}]})";
        return response;
    });
}

std::shared_ptr<CloudRangeCache> TestSecurity::makeCache(const QString &name, bool memoryEnabled) const
{
    CloudCacheOptions options;
    options.directory = QDir(root.path()).filePath(name);
    options.memoryEnabled = memoryEnabled;
    return std::make_shared<CloudRangeCache>(options);
}

void TestSecurity::otherCredentialsNeverGetCachedBytes_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<QByteArray>("alice");
    QTest::addColumn<QByteArray>("bob");
    QTest::addColumn<bool>("memoryEnabled");
    QTest::newRow("authorization, memory")
        << QByteArray("Authorization") << QByteArray("Bearer alice") << QByteArray("Bearer bob") << true;
    QTest::newRow("authorization, disk") << QByteArray("Authorization") << QByteArray("Bearer alice")
                                         << QByteArray("Bearer bob") << false;
    QTest::newRow("api key, memory") << QByteArray("X-Api-Key") << QByteArray("alice") << QByteArray("bob") << true;
}

void TestSecurity::otherCredentialsNeverGetCachedBytes()
{
    QFETCH(QByteArray, header);
    QFETCH(QByteArray, alice);
    QFETCH(QByteArray, bob);
    QFETCH(bool, memoryEnabled);
    const QString folder = QString::fromLatin1(QTest::currentDataTag());
    HttpRangeReader reader(makeCache(folder, memoryEnabled));
    CloudRangeRequest request;
    request.url = server.url(QStringLiteral("/private.bin"));
    request.offset = 100;
    request.length = 1000;
    const QByteArray aliceRange = aliceBytes.mid(100, 1000);
    const QByteArray bobRange = bobBytes.mid(100, 1000);
    server.clearRequests();

    request.headers = { { header, alice } };
    QCOMPARE(reader.read(request).data, aliceRange);
    QVERIFY(reader.read(request).fromCache);
    QCOMPARE(server.requestCount(), 1);

    request.headers = { { header, bob } };
    const CloudRangeResponse bobs = reader.read(request);
    QVERIFY(!bobs.fromCache);
    QCOMPARE(bobs.data, bobRange);
    QCOMPARE(server.requestCount(), 2);

    // No credentials at all: the server refuses, and nothing cached may stand in for its answer.
    request.headers.clear();
    const ReadOutcome anonymous = readOutcome(reader, request);
    QVERIFY(!anonymous.succeeded);
    QVERIFY2(anonymous.message.startsWith(QStringLiteral("HTTP request failed (403)")), qPrintable(anonymous.message));
    QCOMPARE(server.requestCount(), 3);

    // Another run on the same folder keeps them apart too.
    HttpRangeReader nextRun(makeCache(folder, false));
    request.headers = { { header, bob } };
    QCOMPARE(nextRun.read(request).data, bobRange);
    request.headers = { { header, alice } };
    QCOMPARE(nextRun.read(request).data, aliceRange);
}

void TestSecurity::stacAnswersAreKeptPerCredentials()
{
    const auto cache = makeCache(QStringLiteral("stac"));
    const QUrl catalogue = server.url(QStringLiteral("/catalogue"));
    StacClient alice(catalogue, cache);
    alice.setHeaders({ { "Authorization", "Bearer alice" } });
    StacClient bob(catalogue, cache);
    bob.setHeaders({ { "Authorization", "Bearer bob" } });
    server.clearRequests();

    QCOMPARE(alice.search(StacSearchRequest()).items.value(0).id, QStringLiteral("alice-item"));
    QCOMPARE(alice.search(StacSearchRequest()).items.value(0).id, QStringLiteral("alice-item"));
    QCOMPARE(bob.search(StacSearchRequest()).items.value(0).id, QStringLiteral("bob-item"));
    QCOMPARE(server.requestCount(QStringLiteral("/catalogue/search")), 2);
}

void TestSecurity::flatClientsSharingAFolderKeepTheirCredentialsApart()
{
    const QString options
        = QStringLiteral(R"({"directory":"%1"})").arg(QDir(root.path()).filePath(QStringLiteral("flat")));
    NorvaneCloudClient *alice = NorvaneCloud_CreateClient(reinterpret_cast<const char16_t *>(options.utf16()));
    NorvaneCloudClient *bob = NorvaneCloud_CreateClient(reinterpret_cast<const char16_t *>(options.utf16()));
    QVERIFY(alice && bob);
    QCOMPARE(NorvaneCloud_SetHeadersJson(alice, u"{\"Authorization\":\"Bearer alice\"}"), 1);
    QCOMPARE(NorvaneCloud_SetHeadersJson(bob, u"{\"Authorization\":\"Bearer bob\"}"), 1);
    const QString url = server.url(QStringLiteral("/private.tif")).toString();
    const auto probe = [&url](NorvaneCloudClient *client, const char16_t *headers) {
        return flatText([&](char16_t *buffer, int32_t capacity) {
            return NorvaneCloud_CogProbeJson(
                client, reinterpret_cast<const char16_t *>(url.utf16()), headers, buffer, capacity);
        });
    };
    const QString littleEndian = QStringLiteral(R"("byteOrder":"II")");
    const QString bigEndian = QStringLiteral(R"("byteOrder":"MM")");

    QVERIFY2(probe(alice, nullptr).contains(littleEndian), qPrintable(probe(alice, nullptr)));
    QVERIFY2(probe(bob, nullptr).contains(bigEndian), qPrintable(probe(bob, nullptr)));
    // Per-call headers replace the defaults, and the key follows them.
    QVERIFY(probe(alice, u"{\"Authorization\":\"Bearer bob\"}").contains(bigEndian));
    QVERIFY(probe(bob, u"{\"Authorization\":\"Bearer alice\"}").contains(littleEndian));
    QVERIFY(probe(alice, u"{\"Authorization\":\"\"}").startsWith(QStringLiteral("failed: ")));
    NorvaneCloud_DestroyClient(alice);
    NorvaneCloud_DestroyClient(bob);
}

void TestSecurity::httpsIsNeverRedirectedToHttp()
{
    if (!QSslSocket::supportsSsl())
        QSKIP("Qt has no TLS backend with SSL support here");
    QSslConfiguration trusting = QSslConfiguration::defaultConfiguration();
    trusting.addCaCertificate(LoopbackTlsServer::certificate());
    QSslConfiguration::setDefaultConfiguration(trusting);

    const QByteArray content = seededBytes(4096, 3);
    server.serveBytes(QStringLiteral("/plain.bin"), content, "application/octet-stream");
    LoopbackTlsServer tls(content, server.url(QStringLiteral("/plain.bin")));
    QVERIFY(tls.startListening());
    HttpRangeReader reader(makeCache(QStringLiteral("tls")));
    reader.setTimeoutMilliseconds(20000);
    server.clearRequests();

    // TLS works, and a redirect that stays on HTTPS is followed: the refusal below is about the scheme alone.
    QCOMPARE(reader.read(tls.url(QStringLiteral("/object.bin")), 10, 100).data, content.mid(10, 100));
    QCOMPARE(reader.read(tls.url(QStringLiteral("/to-https")), 20, 100).data, content.mid(20, 100));

    const ReadOutcome downgraded = readOutcome(reader, [&] {
        CloudRangeRequest request;
        request.url = tls.url(QStringLiteral("/to-http"));
        request.offset = 30;
        request.length = 100;
        return request;
    }());
    QVERIFY(!downgraded.succeeded);
    QVERIFY2(QRegularExpression(QStringLiteral(R"(\AHTTP request failed \([0-9]+\): )"))
                 .match(downgraded.message)
                 .hasMatch(),
        qPrintable(downgraded.message));
    QString inspectFailure;
    try {
        reader.inspect(tls.url(QStringLiteral("/to-http")), {});
    } catch (const std::runtime_error &error) {
        inspectFailure = QString::fromUtf8(error.what());
    }
    QVERIFY2(inspectFailure.startsWith(QStringLiteral("HTTP request failed (")), qPrintable(inspectFailure));

    QCOMPARE(server.requestCount(), 0);
    // The refused requests did reach the HTTPS server, so the refusal came from its redirect and not from a failed
    // handshake. The network library may send a request again on a fresh connection: presence is what counts.
    const QStringList paths = tls.paths();
    QVERIFY2(paths.contains(QStringLiteral("/to-http")), qPrintable(paths.join(QLatin1Char(' '))));
    QVERIFY2(paths.contains(QStringLiteral("/to-https")), qPrintable(paths.join(QLatin1Char(' '))));
}

void TestSecurity::cacheFolderAndEntriesArePrivate()
{
    // With no umask to help, the permissions must come from the cache itself.
    const mode_t previousMask = ::umask(0);
    const auto restoreMask = qScopeGuard([previousMask] { ::umask(previousMask); });
    const QString top = QDir(root.path()).filePath(QStringLiteral("private"));
    const QString middle = QDir(top).filePath(QStringLiteral("a"));
    const QString folder = QDir(middle).filePath(QStringLiteral("b"));
    CloudCacheOptions options;
    options.directory = folder;
    CloudRangeCache cache(options);
    CloudRangeResponse response;
    response.data = QByteArrayLiteral("secret");
    cache.put(QStringLiteral("one"), response);
    for (const QString &path : { top, middle, folder })
        QCOMPARE(permissionBits(path), 0700);
    const QStringList entries = QDir(folder).entryList({ QStringLiteral("*.nvc") }, QDir::Files);
    QCOMPARE(entries.size(), 1);
    const QString entry = QDir(folder).filePath(entries.constFirst());
    QCOMPARE(permissionBits(entry), 0600);

    // A replaced entry does not inherit what its predecessor was given by someone else.
    QCOMPARE(::chmod(QFile::encodeName(entry).constData(), 0644), 0);
    cache.put(QStringLiteral("one"), response);
    QCOMPARE(permissionBits(entry), 0600);

    // A folder made again after it vanished is private too.
    QVERIFY(QDir(middle).removeRecursively());
    cache.put(QStringLiteral("two"), response);
    QCOMPARE(permissionBits(middle), 0700);
    QCOMPARE(permissionBits(folder), 0700);
    for (const QString &name : QDir(folder).entryList({ QStringLiteral("*.nvc") }, QDir::Files))
        QCOMPARE(permissionBits(QDir(folder).filePath(name)), 0600);
}

QTEST_GUILESS_MAIN(TestSecurity)

#include "tst_security.moc"
