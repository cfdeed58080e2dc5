// Many threads, one cache: 8 threads make 2000 reads each over 64 ranges of one object through one reader and
// one cache that can hold them all. Each range must cross the network exactly once, however the threads race
// for it, and every read must return the source's bytes.

#include <norvanecloud/rangetransport.h>

#include "hardeningtesting.h"
#include "loopbackhttpserver.h"

#include <QHash>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;

namespace {

const QString objectPath = QStringLiteral("/stress.bin");
constexpr int threadCount = 8;
constexpr int readsPerThread = 2000;
constexpr int keyCount = 64;
constexpr qint64 rangeLength = 3000;

qint64 rangeOffset(int key)
{
    return qint64(key) * 2048;
}

} // namespace

class TestCacheStress : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void eachRangeCrossesTheNetworkOnce_data();
    void eachRangeCrossesTheNetworkOnce();

private:
    LoopbackHttpServer server;
    QByteArray source;
    QTemporaryDir root;
};

void TestCacheStress::initTestCase()
{
    QVERIFY(root.isValid());
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    source = seededBytes(rangeOffset(keyCount) + rangeLength, 64);
    server.serveBytes(objectPath, source, QByteArrayLiteral("application/octet-stream"));
}

void TestCacheStress::eachRangeCrossesTheNetworkOnce_data()
{
    QTest::addColumn<bool>("memoryEnabled");
    QTest::addColumn<bool>("diskEnabled");
    QTest::newRow("memory and disk") << true << true;
    QTest::newRow("disk only") << false << true;
}

void TestCacheStress::eachRangeCrossesTheNetworkOnce()
{
    QFETCH(bool, memoryEnabled);
    QFETCH(bool, diskEnabled);
    CloudCacheOptions options;
    options.directory = QDir(root.path()).filePath(QString::fromLatin1(QTest::currentDataTag()));
    options.memoryEnabled = memoryEnabled;
    options.diskEnabled = diskEnabled;
    auto cache = std::make_shared<CloudRangeCache>(options);
    HttpRangeReader reader(cache);
    // Generous: only a lost reply would come near it, and the thread then reports the failure.
    reader.setTimeoutMilliseconds(60000);
    server.clearRequests();

    std::atomic<int> wrongBytes { 0 };
    std::atomic<int> fromNetwork { 0 };
    std::atomic<qint64> bytesFromCache { 0 };
    std::vector<QString> failures(threadCount);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&, thread] {
            QRandomGenerator generator(quint32(1000 + thread));
            CloudRangeRequest request;
            request.url = server.url(objectPath);
            request.length = rangeLength;
            for (int index = 0; index < readsPerThread; ++index) {
                const int key = generator.bounded(keyCount);
                request.offset = rangeOffset(key);
                const ReadOutcome outcome = readOutcome(reader, request);
                if (!outcome.succeeded) {
                    failures[thread] = outcome.message;
                    return;
                }
                if (outcome.response.data != source.mid(request.offset, rangeLength))
                    ++wrongBytes;
                if (outcome.response.fromCache)
                    bytesFromCache += outcome.response.data.size();
                else
                    ++fromNetwork;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    for (const QString &failure : failures)
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    QCOMPARE(wrongBytes.load(), 0);

    // The server's log: one request per range, never two.
    QHash<QByteArray, int> requestsPerRange;
    for (const LoopbackRequest &request : server.requests())
        ++requestsPerRange[request.header("Range")];
    QCOMPARE(requestsPerRange.size(), keyCount);
    for (auto range = requestsPerRange.constBegin(); range != requestsPerRange.constEnd(); ++range)
        QVERIFY2(range.value() == 1, range.key().constData());
    QCOMPARE(server.requestCount(), keyCount);
    QCOMPARE(fromNetwork.load(), keyCount);

    const CloudCacheStatistics statistics = cache->statistics();
    QCOMPARE(statistics.networkRequests, qint64(keyCount));
    QCOMPARE(statistics.networkBytes, qint64(keyCount) * rangeLength);
    QCOMPARE(statistics.writes, qint64(keyCount));
    QCOMPARE(statistics.memoryHits + statistics.diskHits, qint64(threadCount) * readsPerThread - keyCount);
    QCOMPARE(statistics.cacheBytesServed, bytesFromCache.load());
    qInfo("%d reads on %d threads over %d ranges: %d network requests, %lld memory hits, %lld disk hits, "
          "%lld misses",
        threadCount * readsPerThread, threadCount, keyCount, server.requestCount(), statistics.memoryHits,
        statistics.diskHits, statistics.misses);
}

QTEST_GUILESS_MAIN(TestCacheStress)

#include "tst_cachestress.moc"
