// The disk tier under faults made from outside while reads go on: the folder swapped for a file, removed, a file
// size limit (a full disk, which stops root too), entry files truncated, overwritten with garbage or replaced by
// folders, and other writers rewriting entries in place or through their own cache. Every read must return the
// source's bytes, the disk tier must never throw, and entries the fault did not touch must stay intact.

#include <norvanecloud/rangetransport.h>

#include "hardeningtesting.h"
#include "loopbackhttpserver.h"
#include "transport/cachediskentry.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QSaveFile>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

#include <sys/resource.h>

using namespace Norvane::Cloud;
using namespace Norvane::Cloud::Testing;

namespace {

const QString objectPath = QStringLiteral("/object.bin");
constexpr qsizetype objectSize = 96 * 1024;
constexpr int keyCount = 16;
constexpr qint64 rangeLength = 1500;

enum class Fault {
    FolderReplacedByFile,
    FolderRemoved,
    FileSizeLimit,
    EntriesTruncated,
    EntriesOverwrittenWithGarbage,
    EntriesZeroedAfterHeader,
    EntriesReplacedByFolders,
};

qint64 rangeOffset(int key)
{
    return qint64(key) * 4099;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

QHash<QString, QByteArray> entryFiles(const QString &folder)
{
    QHash<QString, QByteArray> files;
    const QDir directory(folder);
    for (const QString &name : directory.entryList({ QStringLiteral("*.nvc") }, QDir::Files))
        files.insert(name, readFile(directory.filePath(name)));
    return files;
}

CloudCacheOptions diskOnly(const QString &folder)
{
    CloudCacheOptions options;
    options.directory = folder;
    options.memoryEnabled = false;
    return options;
}

// Keeps the file size limit for its lifetime; SIGXFSZ is ignored meanwhile, so an oversized write fails with EFBIG
// instead of ending the process.
class FileSizeLimit final {
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &original);
        previousHandler = std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit limited = original;
        limited.rlim_cur = bytes;
        active = setrlimit(RLIMIT_FSIZE, &limited) == 0;
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &original);
        std::signal(SIGXFSZ, previousHandler);
    }
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;
    bool isActive() const { return active; }

private:
    struct rlimit original { };
    void (*previousHandler)(int) = nullptr;
    bool active = false;
};

} // namespace

Q_DECLARE_METATYPE(Fault)

class TestDiskFaults : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void faultCostsOnlyTheEntriesItTouches_data();
    void faultCostsOnlyTheEntriesItTouches();
    void folderPathThroughAFileNeverThrows();
    void folderRemovedWhileThreadsRead();
    void otherWritersRewritingEntriesNeverShowWrongBytes();

private:
    CloudRangeRequest request(int key, int round = 0) const;
    QByteArray expected(int key, int round = 0) const;
    // Reads every key of the round and checks the bytes; returns how many came from the cache.
    int readAll(const HttpRangeReader &reader, int round = 0);
    CloudRangeResponse entryResponse(int key) const;

    LoopbackHttpServer server;
    QByteArray source;
    QTemporaryDir root;
};

void TestDiskFaults::initTestCase()
{
    QVERIFY(root.isValid());
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    source = seededBytes(objectSize, 20261122);
    server.serveBytes(objectPath, source, QByteArrayLiteral("application/octet-stream"));
}

CloudRangeRequest TestDiskFaults::request(int key, int round) const
{
    CloudRangeRequest request;
    request.url = server.url(objectPath);
    // A later round reads other ranges, so its reads have to store new entries.
    request.offset = rangeOffset(key) + round * 7;
    request.length = rangeLength;
    return request;
}

QByteArray TestDiskFaults::expected(int key, int round) const
{
    return source.mid(rangeOffset(key) + round * 7, rangeLength);
}

int TestDiskFaults::readAll(const HttpRangeReader &reader, int round)
{
    int fromCache = 0;
    for (int key = 0; key < keyCount; ++key) {
        const ReadOutcome outcome = readOutcome(reader, request(key, round));
        if (!outcome.succeeded) {
            QTest::qFail(
                qPrintable(QStringLiteral("read %1 failed: %2").arg(key).arg(outcome.message)), __FILE__, __LINE__);
            return -1;
        }
        if (outcome.response.data != expected(key, round)) {
            QTest::qFail(qPrintable(QStringLiteral("read %1 returned wrong bytes").arg(key)), __FILE__, __LINE__);
            return -1;
        }
        fromCache += outcome.response.fromCache ? 1 : 0;
    }
    return fromCache;
}

CloudRangeResponse TestDiskFaults::entryResponse(int key) const
{
    CloudRangeResponse response;
    response.data = expected(key);
    response.offset = rangeOffset(key);
    response.totalSize = objectSize;
    response.statusCode = 206;
    response.contentType = QByteArrayLiteral("application/octet-stream");
    response.acceptsRanges = true;
    return response;
}

void TestDiskFaults::faultCostsOnlyTheEntriesItTouches_data()
{
    QTest::addColumn<Fault>("fault");
    QTest::newRow("folder replaced by a file") << Fault::FolderReplacedByFile;
    QTest::newRow("folder removed") << Fault::FolderRemoved;
    QTest::newRow("file size limit during put") << Fault::FileSizeLimit;
    QTest::newRow("entries truncated") << Fault::EntriesTruncated;
    QTest::newRow("entries overwritten with garbage") << Fault::EntriesOverwrittenWithGarbage;
    QTest::newRow("entries zeroed after the header") << Fault::EntriesZeroedAfterHeader;
    QTest::newRow("entries replaced by folders") << Fault::EntriesReplacedByFolders;
}

void TestDiskFaults::faultCostsOnlyTheEntriesItTouches()
{
    QFETCH(Fault, fault);
    const QString folder = QDir(root.path()).filePath(QString::fromLatin1(QTest::currentDataTag()));
    const QString away = folder + QStringLiteral(".away");
    auto cache = std::make_shared<CloudRangeCache>(diskOnly(folder));
    HttpRangeReader reader(cache);
    reader.setTimeoutMilliseconds(10000);

    QCOMPARE(readAll(reader), 0);
    const QHash<QString, QByteArray> before = entryFiles(folder);
    QCOMPARE(before.size(), keyCount);
    QCOMPARE(readAll(reader), keyCount);

    QRandomGenerator generator(7);
    std::unique_ptr<FileSizeLimit> limit;
    switch (fault) {
    case Fault::FolderReplacedByFile:
        QVERIFY(QDir().rename(folder, away));
        QVERIFY(writeFile(folder, "in the way"));
        break;
    case Fault::FolderRemoved:
        QVERIFY(QDir(folder).removeRecursively());
        break;
    case Fault::FileSizeLimit:
        // Smaller than any entry, so every put of this phase fails half-way through its save file.
        limit = std::make_unique<FileSizeLimit>(512);
        QVERIFY(limit->isActive());
        break;
    case Fault::EntriesTruncated:
        for (auto entry = before.constBegin(); entry != before.constEnd(); ++entry)
            QVERIFY(writeFile(QDir(folder).filePath(entry.key()),
                entry.value().left(generator.bounded(qint32(entry.value().size())))));
        break;
    case Fault::EntriesOverwrittenWithGarbage: {
        int index = 0;
        for (auto entry = before.constBegin(); entry != before.constEnd(); ++entry, ++index) {
            QByteArray garbage = seededBytes(entry.value().size(), quint32(index));
            // Half of them keep a valid magic and version, so the decoding goes on into the damaged fields.
            if (index % 2 == 0)
                garbage.replace(0, 8, entry.value().left(8));
            QVERIFY(writeFile(QDir(folder).filePath(entry.key()), garbage));
        }
        break;
    }
    case Fault::EntriesZeroedAfterHeader:
        // What a reader sees of an entry that another process is rewriting in place, or what a crash can leave:
        // the first bytes of the new content and zeros after them.
        for (auto entry = before.constBegin(); entry != before.constEnd(); ++entry)
            QVERIFY(writeFile(QDir(folder).filePath(entry.key()),
                entry.value().left(16) + QByteArray(entry.value().size() - 16, '\0')));
        break;
    case Fault::EntriesReplacedByFolders:
        for (auto entry = before.constBegin(); entry != before.constEnd(); ++entry) {
            const QString path = QDir(folder).filePath(entry.key());
            QVERIFY(QFile::remove(path));
            QVERIFY(QDir().mkdir(path));
        }
        break;
    }

    // Old ranges and new ones: the reads go to the network where the tier lost its entry or cannot store.
    const int oldFromCache = readAll(reader);
    const int newFromCache = readAll(reader, 1);
    QCOMPARE(newFromCache, 0);
    if (limit) {
        // Stores over entries that exist: a failed write must leave each of them as it was.
        for (int key = 0; key < keyCount; ++key)
            cache->put(HttpRangeReader::cacheKey(request(key)), entryResponse(key));
    }
    limit.reset();

    switch (fault) {
    case Fault::FolderReplacedByFile: {
        QCOMPARE(oldFromCache, 0);
        QCOMPARE(readFile(folder), QByteArrayLiteral("in the way"));
        QVERIFY(QFile::remove(folder));
        QVERIFY(QDir().rename(away, folder));
        // The entries survived the fault and are served again without the network.
        const int requests = server.requestCount();
        QCOMPARE(readAll(reader), keyCount);
        QCOMPARE(server.requestCount(), requests);
        QCOMPARE(entryFiles(folder), before);
        break;
    }
    case Fault::FileSizeLimit: {
        QCOMPARE(oldFromCache, keyCount);
        QCOMPARE(entryFiles(folder).size(), keyCount);
        const QHash<QString, QByteArray> after = entryFiles(folder);
        for (auto entry = before.constBegin(); entry != before.constEnd(); ++entry)
            QCOMPARE(after.value(entry.key()), entry.value());
        QCOMPARE(QDir(folder).entryList(QDir::Files | QDir::Hidden).size(), keyCount);
        break;
    }
    case Fault::EntriesReplacedByFolders:
        QCOMPARE(oldFromCache, 0);
        // A folder cannot be replaced by a save file; the tier neither throws nor deletes the folder.
        for (auto entry = before.constBegin(); entry != before.constEnd(); ++entry)
            QVERIFY(QFileInfo(QDir(folder).filePath(entry.key())).isDir());
        break;
    default:
        QCOMPARE(oldFromCache, 0);
        break;
    }

    // A new cache on the folder (another run of the host) serves only right bytes too.
    HttpRangeReader nextRun(std::make_shared<CloudRangeCache>(diskOnly(folder)));
    QVERIFY(readAll(nextRun) >= 0);
    QVERIFY(readAll(nextRun, 1) >= 0);
}

void TestDiskFaults::folderPathThroughAFileNeverThrows()
{
    const QString blocker = QDir(root.path()).filePath(QStringLiteral("blocker"));
    QVERIFY(writeFile(blocker, "a file"));
    CloudCacheOptions options = diskOnly(QDir(blocker).filePath(QStringLiteral("sub/cache")));
    auto cache = std::make_shared<CloudRangeCache>(options);
    HttpRangeReader reader(cache);
    QCOMPARE(readAll(reader), 0);
    QCOMPARE(readAll(reader), 0);
    cache->clear();
    QCOMPARE(cache->statistics().writes, 0);
    QCOMPARE(readFile(blocker), QByteArrayLiteral("a file"));
}

void TestDiskFaults::folderRemovedWhileThreadsRead()
{
    const QString folder = QDir(root.path()).filePath(QStringLiteral("removed-while-reading"));
    auto cache = std::make_shared<CloudRangeCache>(diskOnly(folder));
    HttpRangeReader reader(cache);
    reader.setTimeoutMilliseconds(20000);

    constexpr int threadCount = 4;
    constexpr int readsPerThread = 150;
    std::atomic<int> running { threadCount };
    std::atomic<int> wrongBytes { 0 };
    std::atomic<int> failures { 0 };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&, thread] {
            QRandomGenerator generator(quint32(100 + thread));
            for (int index = 0; index < readsPerThread; ++index) {
                const int key = generator.bounded(keyCount);
                const ReadOutcome outcome = readOutcome(reader, request(key));
                if (!outcome.succeeded)
                    ++failures;
                else if (outcome.response.data != expected(key))
                    ++wrongBytes;
            }
            --running;
        });
    }
    int removals = 0;
    while (running > 0) {
        const int requests = server.requestCount();
        if (QDir(folder).removeRecursively())
            ++removals;
        // The next network read shows the readers noticed; no point removing an empty folder faster than that.
        server.waitForRequests(requests + 1, 2000);
    }
    for (std::thread &thread : threads)
        thread.join();
    QCOMPARE(failures.load(), 0);
    QCOMPARE(wrongBytes.load(), 0);
    QVERIFY(removals > 0);
    qInfo("%d reads on %d threads, folder removed %d times", threadCount * readsPerThread, threadCount, removals);
}

void TestDiskFaults::otherWritersRewritingEntriesNeverShowWrongBytes()
{
    const QString folder = QDir(root.path()).filePath(QStringLiteral("other-writers"));
    auto cache = std::make_shared<CloudRangeCache>(diskOnly(folder));
    HttpRangeReader reader(cache);
    reader.setTimeoutMilliseconds(20000);
    QCOMPARE(readAll(reader), 0);

    std::atomic<bool> stop { false };
    std::atomic<int> rewrites { 0 };
    // Another process sharing the folder: it stores the same keys through its own cache, and a faulty one replaces
    // entries with cut-short or damaged files. Both replace files atomically (rename), as every writer of this
    // format must: a writer that rewrites an entry in place can be seen half-way by a reader, and the format has
    // no checksum to tell.
    std::thread writer([&] {
        CloudRangeCache other(diskOnly(folder));
        QRandomGenerator generator(99);
        while (!stop) {
            const int key = generator.bounded(keyCount);
            const QString keyText = HttpRangeReader::cacheKey(request(key));
            const QByteArray entry = encodeCacheDiskEntry(entryResponse(key), QDateTime::currentMSecsSinceEpoch());
            QByteArray replacement;
            switch (generator.bounded(3)) {
            case 0:
                other.put(keyText, entryResponse(key));
                break;
            case 1:
                replacement = entry.left(generator.bounded(qint32(entry.size())));
                break;
            default:
                replacement = entry.left(16) + seededBytes(entry.size() - 16, generator.generate());
                break;
            }
            if (!replacement.isNull()) {
                QSaveFile file(QDir(folder).filePath(cacheDiskFileName(keyText)));
                if (file.open(QIODevice::WriteOnly) && file.write(replacement) == replacement.size())
                    file.commit();
            }
            ++rewrites;
        }
    });

    int wrong = 0;
    int failed = 0;
    QRandomGenerator generator(5);
    // At least 1500 reads, and on until the other writer has rewritten entries a few hundred times.
    int reads = 0;
    for (; reads < 1500 || rewrites < 300; ++reads) {
        const int key = generator.bounded(keyCount);
        const ReadOutcome outcome = readOutcome(reader, request(key));
        if (!outcome.succeeded)
            ++failed;
        else if (outcome.response.data != expected(key)) {
            ++wrong;
            qWarning("wrong bytes: key %d, fromCache %d, size %lld, status %d, etag %s", key,
                int(outcome.response.fromCache), qint64(outcome.response.data.size()), outcome.response.statusCode,
                outcome.response.etag.constData());
        }
    }
    stop = true;
    writer.join();
    QCOMPARE(failed, 0);
    QCOMPARE(wrong, 0);
    QVERIFY(rewrites > 0);
    qInfo("%d reads while another writer rewrote entries %d times; %lld cache hits, %d network requests", reads,
        rewrites.load(), cache->statistics().diskHits, server.requestCount(objectPath));
}

QTEST_GUILESS_MAIN(TestDiskFaults)

#include "tst_diskfaults.moc"
