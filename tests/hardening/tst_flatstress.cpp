// The flat interface as a host without a Qt application object uses it: a thousand clients created, used and
// destroyed (the sanitizer run checks that nothing leaks), and networked calls on four threads at once, repeated,
// each call making and ending its own temporary application object. It runs against the flat test server process:
// tst_flatstress <server port> <cache folder> [Qt Test arguments].

#include <norvanecloud/flat.h>

#include <QCoreApplication>
#include <QDir>
#include <QString>
#include <QTest>

#include <atomic>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

namespace {

QString serverPort;
QString cacheFolder;

const char16_t *units(const QString &text)
{
    return reinterpret_cast<const char16_t *>(text.utf16());
}

QString url(const QString &path)
{
    return QStringLiteral("http://127.0.0.1:%1%2").arg(serverPort, path);
}

// The text a call produced, or "failed: " and the thread's last error. The length is asked first, as a host that
// does not know the size of a result does; the call is then repeated with a buffer that fits.
QString callText(const std::function<int32_t(char16_t *, int32_t)> &call)
{
    const int32_t needed = call(nullptr, 0);
    if (needed < 0) {
        char16_t error[1024];
        NorvaneCloud_LastError(error, int32_t(std::size(error)));
        return QStringLiteral("failed: ") + QString::fromUtf16(error);
    }
    std::vector<char16_t> buffer(size_t(needed) + 1);
    const int32_t length = call(buffer.data(), int32_t(buffer.size()));
    if (length != needed)
        return QStringLiteral("failed: length %1 after %2").arg(length).arg(needed);
    return QString::fromUtf16(buffer.data(), length);
}

QString lastError()
{
    char16_t error[1024];
    NorvaneCloud_LastError(error, int32_t(std::size(error)));
    return QString::fromUtf16(error);
}

QString optionsFor(const QString &name)
{
    return QStringLiteral(R"({"directory":"%1","maximumMemoryBytes":1048576})").arg(QDir(cacheFolder).filePath(name));
}

} // namespace

class TestFlatStress : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void thousandClientsComeAndGo();
    void networkedCallsOnFourThreadsAtOnce();
};

void TestFlatStress::initTestCase()
{
    QVERIFY(!QCoreApplication::instance());
    QVERIFY(!serverPort.isEmpty());
}

void TestFlatStress::thousandClientsComeAndGo()
{
    const QString options = optionsFor(QStringLiteral("cycles"));
    const QString cog = url(QStringLiteral("/private/cog.tif"));
    for (int cycle = 0; cycle < 1000; ++cycle) {
        NorvaneCloudClient *client = NorvaneCloud_CreateClient(units(options));
        QVERIFY2(client, qPrintable(lastError()));
        QCOMPARE(NorvaneCloud_SetTimeout(client, 20000), 1);
        QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"{\"Authorization\":\"Bearer flat\"}"), 1);
        // A networked call: it makes and ends a temporary application object. The entry usually comes from disk.
        const QString probe = callText([&](char16_t *buffer, int32_t capacity) {
            return NorvaneCloud_CogProbeJson(client, units(cog), nullptr, buffer, capacity);
        });
        QVERIFY2(probe.contains(QLatin1String(R"("cloudReadable":true)")), qPrintable(probe));
        QVERIFY(!QCoreApplication::instance());
        const QString path = callText([&](char16_t *buffer, int32_t capacity) {
            return NorvaneCloud_CogGdalVirtualPath(client, units(cog), buffer, capacity);
        });
        QVERIFY2(path.startsWith(QLatin1String("/vsicurl/")), qPrintable(path));
        QVERIFY(callText([&](char16_t *buffer, int32_t capacity) {
            return NorvaneCloud_CacheStatisticsJson(client, buffer, capacity);
        }).contains(QLatin1String("\"writes\"")));
        // A failure sets the thread's error text, which the next call clears.
        QCOMPARE(NorvaneCloud_SetTimeout(client, 0), 0);
        QCOMPARE(lastError(), QStringLiteral("HTTP timeout must be positive"));
        QCOMPARE(NorvaneCloud_SetHeadersJson(client, u"[1]"), 0);
        if (cycle % 100 == 99)
            QCOMPARE(NorvaneCloud_ClearCache(client), 1);
        NorvaneCloud_DestroyClient(client);
    }
    QVERIFY(!QCoreApplication::instance());
}

void TestFlatStress::networkedCallsOnFourThreadsAtOnce()
{
    constexpr int threadCount = 4;
    constexpr int rounds = 25;
    NorvaneCloudClient *shared = NorvaneCloud_CreateClient(units(optionsFor(QStringLiteral("shared"))));
    QVERIFY2(shared, qPrintable(lastError()));
    QCOMPARE(NorvaneCloud_SetHeadersJson(shared, u"{\"Authorization\":\"Bearer flat\"}"), 1);

    const QString cog = url(QStringLiteral("/private/cog.tif"));
    const QString pmTiles = url(QStringLiteral("/pmtiles/test-fixture-1-mvt-z0.pmtiles"));
    const QString geoParquet = url(QStringLiteral("/parquet/geoparquet-point-wkb.parquet"));
    const QString catalogue = url(QStringLiteral("/stac"));
    std::vector<QString> problems(threadCount);
    std::atomic<int> calls { 0 };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&, thread] {
            // Two threads share a client (and its cache), two have their own.
            NorvaneCloudClient *own = nullptr;
            if (thread % 2 == 1) {
                own = NorvaneCloud_CreateClient(units(optionsFor(QStringLiteral("own-%1").arg(thread))));
                NorvaneCloud_SetHeadersJson(own, u"{\"Authorization\":\"Bearer flat\"}");
            }
            NorvaneCloudClient *client = own ? own : shared;
            const auto expect = [&](const QString &text, const char *marker, const char *what) {
                ++calls;
                if (!text.contains(QLatin1String(marker)) && problems[thread].isEmpty())
                    problems[thread] = QStringLiteral("%1: %2").arg(QLatin1String(what), text.left(300));
            };
            for (int round = 0; round < rounds && client; ++round) {
                expect(callText([&](char16_t *buffer, int32_t capacity) {
                    return NorvaneCloud_CogProbeJson(client, units(cog), nullptr, buffer, capacity);
                }),
                    R"("cloudReadable":true)", "COG probe");
                expect(callText([&](char16_t *buffer, int32_t capacity) {
                    return NorvaneCloud_PmTilesProbeJson(client, units(pmTiles), nullptr, buffer, capacity);
                }),
                    R"("headerValid":true)", "PMTiles probe");
                expect(callText([&](char16_t *buffer, int32_t capacity) {
                    return NorvaneCloud_GeoParquetProbeJson(client, units(geoParquet), nullptr, buffer, capacity);
                }),
                    R"("headerValid":true)", "GeoParquet probe");
                expect(callText([&](char16_t *buffer, int32_t capacity) {
                    return NorvaneCloud_StacSearchJson(client, units(catalogue), u"{\"limit\":2}", buffer, capacity);
                }),
                    R"("items":[{)", "STAC search");
                // Own clients go back to the network every few rounds.
                if (own && round % 5 == 4)
                    NorvaneCloud_ClearCache(own);
            }
            if (!client)
                problems[thread] = QStringLiteral("client could not be created");
            NorvaneCloud_DestroyClient(own);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    NorvaneCloud_DestroyClient(shared);
    for (const QString &problem : problems)
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
    QCOMPARE(calls.load(), threadCount * rounds * 4);
    QVERIFY(!QCoreApplication::instance());
}

int main(int argc, char **argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <server port> <cache folder> [Qt Test arguments]\n", argv[0]);
        return 2;
    }
    serverPort = QString::fromLocal8Bit(argv[1]);
    cacheFolder = QString::fromLocal8Bit(argv[2]);
    std::vector<char *> arguments { argv[0] };
    for (int index = 3; index < argc; ++index)
        arguments.push_back(argv[index]);
    TestFlatStress test;
    return QTest::qExec(&test, int(arguments.size()), arguments.data());
}

#include "tst_flatstress.moc"
