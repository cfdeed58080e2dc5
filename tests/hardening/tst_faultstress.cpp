// A server that misbehaves at random: it stalls before or during the body, closes mid-body, sends short or long
// bodies, lies in or leaves out Content-Range, ignores the range or fails with a status. Four threads read through
// one cache; each read must return exactly the source's bytes or throw one of the documented messages, a read
// answered by a misbehaving server must never succeed, and afterwards every entry the cache holds, in memory and
// on disk, must equal the source. The faults come from a fixed seed, so a failure can be repeated.

#include <norvanecloud/rangetransport.h>

#include "hardeningtesting.h"
#include "loopbackhttpserver.h"

#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;

namespace {

constexpr int threadCount = 4;
constexpr int readsPerThread = 120;
constexpr qsizetype objectSize = 64 * 1024;
// Short, so the stalls cost little; a healthy loopback answer takes a few milliseconds.
constexpr int timeoutMilliseconds = 400;

enum class Fault {
    None,
    StallBeforeHeaders,
    StallMidBody,
    CloseMidBody,
    ShortBody,
    LongBody,
    WrongContentRange,
    MalformedContentRange,
    NoContentRange,
    RangeIgnored,
    ServerError,
    NoContentLength,
    Count
};

const char *faultName(Fault fault)
{
    static const char *names[] = { "none", "stall before headers", "stall mid-body", "close mid-body", "short body",
        "long body", "wrong Content-Range", "malformed Content-Range", "no Content-Range", "range ignored",
        "server error", "no Content-Length" };
    return names[int(fault)];
}

RouteBehaviour behaviourFor(Fault fault, qint64 offset, qint64 length, QRandomGenerator &generator)
{
    RouteBehaviour behaviour;
    const qint64 cut = generator.bounded(qint32(length));
    switch (fault) {
    case Fault::None:
    case Fault::Count:
        break;
    case Fault::StallBeforeHeaders:
        behaviour.stallBeforeHeaders = true;
        break;
    case Fault::StallMidBody:
        behaviour.stallAfterBodyBytes = cut;
        break;
    case Fault::CloseMidBody:
        behaviour.closeAfterBodyBytes = cut;
        break;
    case Fault::ShortBody:
        behaviour.bodyLengthDelta = -1 - cut;
        break;
    case Fault::LongBody:
        behaviour.bodyLengthDelta = 1 + cut;
        break;
    case Fault::WrongContentRange:
        behaviour.contentRange = QByteArrayLiteral("bytes ") + QByteArray::number(offset + 1) + '-'
            + QByteArray::number(offset + length) + '/' + QByteArray::number(objectSize);
        break;
    case Fault::MalformedContentRange: {
        static const QByteArray values[] = { "bytes", "bytes -/", "bytes */64", "bits 0-1/2", "", "bytes 0-x/y",
            "bytes 99999999999999999999-1/2", "\xff\xfe" };
        behaviour.contentRange = values[generator.bounded(int(std::size(values)))];
        break;
    }
    case Fault::NoContentRange:
        behaviour.omitContentRange = true;
        break;
    case Fault::RangeIgnored:
        behaviour.ignoreRange = true;
        break;
    case Fault::ServerError:
        behaviour.fixedStatus = generator.bounded(2) ? 500 : 404;
        behaviour.fixedBody = QByteArrayLiteral("no");
        break;
    case Fault::NoContentLength:
        behaviour.omitContentLength = true;
        break;
    }
    return behaviour;
}

// Whether a read answered by the network with this fault may return bytes at all.
bool mayReturnBytes(Fault fault, qint64 offset)
{
    switch (fault) {
    case Fault::None:
    case Fault::NoContentLength:
        return true;
    case Fault::RangeIgnored:
        // A whole object is cut to the range when the range starts at 0.
        return offset == 0;
    default:
        return false;
    }
}

} // namespace

class TestFaultStress : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void misbehavingServerNeverCorruptsTheCache();

private:
    LoopbackHttpServer server;
    QByteArray source;
    QTemporaryDir root;
};

void TestFaultStress::initTestCase()
{
    QVERIFY(root.isValid());
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    source = seededBytes(objectSize, 9);
    for (int thread = 0; thread < threadCount; ++thread)
        server.serveBytes(QStringLiteral("/object-%1.bin").arg(thread), source, "application/octet-stream");
}

void TestFaultStress::misbehavingServerNeverCorruptsTheCache()
{
    CloudCacheOptions options;
    options.directory = root.path();
    auto cache = std::make_shared<CloudRangeCache>(options);
    HttpRangeReader reader(cache);
    reader.setTimeoutMilliseconds(timeoutMilliseconds);

    struct ThreadReport {
        QString problem;
        QSet<QString> failureKinds;
        int succeeded = 0;
        int failed = 0;
        QList<CloudRangeRequest> requests;
    };
    std::vector<ThreadReport> reports(threadCount);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&, thread] {
            // Each thread owns one path, so the fault it sets is the fault its next read meets.
            const QString path = QStringLiteral("/object-%1.bin").arg(thread);
            QRandomGenerator generator(quint32(4242 + thread));
            ThreadReport &report = reports[thread];
            for (int index = 0; index < readsPerThread; ++index) {
                CloudRangeRequest request;
                request.url = server.url(path);
                // Few distinct ranges, so reads also meet entries stored by earlier reads.
                request.offset = generator.bounded(8) * 4096;
                request.length = 1 + generator.bounded(6) * 1000;
                const Fault fault = Fault(generator.bounded(int(Fault::Count)));
                server.setBehaviour(path, behaviourFor(fault, request.offset, request.length, generator));
                const ReadOutcome outcome = readOutcome(reader, request);
                report.requests.append(request);
                const QByteArray expected = source.mid(request.offset, request.length);
                if (outcome.succeeded) {
                    ++report.succeeded;
                    if (outcome.response.data != expected) {
                        report.problem = QStringLiteral("read %1 (%2) returned wrong bytes")
                                             .arg(index)
                                             .arg(QLatin1String(faultName(fault)));
                        return;
                    }
                    if (!outcome.response.fromCache && !mayReturnBytes(fault, request.offset)) {
                        report.problem = QStringLiteral("read %1 succeeded although the server sent: %2")
                                             .arg(index)
                                             .arg(QLatin1String(faultName(fault)));
                        return;
                    }
                } else {
                    ++report.failed;
                    const QString documented = documentedNetworkFailure(outcome.message);
                    if (!outcome.runtimeError || documented.isEmpty()) {
                        report.problem = QStringLiteral("read %1 (%2) failed with an undocumented message: %3")
                                             .arg(index)
                                             .arg(QLatin1String(faultName(fault)), outcome.message);
                        return;
                    }
                    report.failureKinds.insert(documented);
                }
            }
            server.clearBehaviour(path);
        });
    }
    for (std::thread &thread : threads)
        thread.join();

    int succeeded = 0;
    int failed = 0;
    QSet<QString> kinds;
    QSet<QString> keys;
    QList<CloudRangeRequest> requests;
    for (const ThreadReport &report : reports) {
        QVERIFY2(report.problem.isEmpty(), qPrintable(report.problem));
        succeeded += report.succeeded;
        failed += report.failed;
        kinds.unite(report.failureKinds);
        for (const CloudRangeRequest &request : report.requests) {
            if (!keys.contains(HttpRangeReader::cacheKey(request))) {
                keys.insert(HttpRangeReader::cacheKey(request));
                requests.append(request);
            }
        }
    }

    // Nothing corrupt was stored: every entry, in this cache and on disk for the next run, equals the source.
    CloudCacheOptions diskOnly = options;
    diskOnly.memoryEnabled = false;
    CloudRangeCache nextRun(diskOnly);
    int held = 0;
    for (const CloudRangeRequest &request : std::as_const(requests)) {
        const QString key = HttpRangeReader::cacheKey(request);
        const QByteArray expected = source.mid(request.offset, request.length);
        for (CloudRangeCache *tier : { cache.get(), &nextRun }) {
            CloudRangeResponse response;
            if (tier->get(key, response)) {
                ++held;
                QCOMPARE(response.data, expected);
                QCOMPARE(response.offset, request.offset);
            }
        }
    }
    QVERIFY(succeeded > 0);
    QVERIFY(failed > 0);
    QVERIFY(held > 0);
    qInfo("%d reads: %d returned the right bytes, %d failed with documented messages (%s); %d distinct ranges, "
          "%d entries checked, %d requests made",
        succeeded + failed, succeeded, failed, qPrintable(QStringList(kinds.values()).join(QStringLiteral(" | "))),
        int(requests.size()), held, server.requestCount());
}

QTEST_GUILESS_MAIN(TestFaultStress)

#include "tst_faultstress.moc"
