// CloudRangeCache: the memory tier's recency and expiry, the counters and levels, the disk tier's entry files,
// their trimming and degradation, and the fetch coordination between threads.

#include <norvanecloud/rangetransport.h>

#include "transport/cloudrangecacheinternals_p.h"
#include "transport/transportmessages.h"

#include <QtTest>

#include <QCryptographicHash>
#include <QDataStream>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QSemaphore>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <atomic>
#include <stdexcept>
#include <thread>

#ifdef Q_OS_UNIX
#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#endif
#ifdef Q_OS_LINUX
#include <sys/syscall.h>
#include <unistd.h>
#endif

using namespace Norvane::Cloud;

namespace {

constexpr qint64 hour = 3600;

QString entryFileName(const QString &key)
{
    return QString::fromLatin1(QCryptographicHash::hash(key.toUtf8(), QCryptographicHash::Sha256).toHex())
        + QStringLiteral(".nvc");
}

CloudRangeResponse makeResponse(qsizetype size, char fill = 'r')
{
    CloudRangeResponse response;
    response.data = QByteArray(size, fill);
    response.offset = 100;
    response.totalSize = 5000;
    response.statusCode = 206;
    response.etag = QByteArrayLiteral("\"tag\"");
    response.lastModified = QByteArrayLiteral("Mon, 02 Mar 2026 10:00:00 GMT");
    response.contentType = QByteArrayLiteral("application/octet-stream");
    response.acceptsRanges = true;
    return response;
}

// Writes an entry file the way the layout is documented, independently of the cache's own writer.
QByteArray handWrittenEntry(
    qint64 storedAt, const CloudRangeResponse &response, qint32 magic = 0x4E564348, qint32 version = 1)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(QDataStream::Qt_6_0);
    stream << magic << version << storedAt << response.data << response.offset << response.totalSize
           << response.statusCode << response.etag << response.lastModified << response.contentType
           << response.acceptsRanges;
    return bytes;
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool setModified(const QString &path, const QDateTime &time)
{
    QFile file(path);
    return file.open(QIODevice::ReadWrite) && file.setFileTime(time, QFileDevice::FileModificationTime);
}

CloudCacheOptions memoryOnly(qint64 maximumMemoryBytes)
{
    CloudCacheOptions options;
    options.maximumMemoryBytes = maximumMemoryBytes;
    options.diskEnabled = false;
    return options;
}

CloudCacheOptions diskOnly(const QString &directory, qint64 maximumDiskBytes = 1 << 30, qint64 maximumAge = hour)
{
    CloudCacheOptions options;
    options.directory = directory;
    options.memoryEnabled = false;
    options.maximumDiskBytes = maximumDiskBytes;
    options.maximumAgeSeconds = maximumAge;
    return options;
}

bool hits(CloudRangeCache &cache, const QString &key)
{
    CloudRangeResponse response;
    return cache.get(key, response);
}

// The recency rules as plainly as they can be written: a list searched on every touch. The cache must decide
// exactly as this model does, whatever structures it keeps.
class ReferenceMemoryTier {
public:
    explicit ReferenceMemoryTier(qint64 limit)
        : limit(limit)
    {
    }

    bool get(const QString &key)
    {
        if (!sizes.contains(key)) {
            ++statistics.misses;
            return false;
        }
        touch(key);
        ++statistics.memoryHits;
        return true;
    }

    void put(const QString &key, qint64 size)
    {
        if (size == 0)
            return;
        statistics.memoryBytes += size - sizes.value(key, 0);
        sizes.insert(key, size);
        touch(key);
        while (statistics.memoryBytes > limit && !recency.isEmpty()) {
            const QString last = recency.takeLast();
            if (sizes.contains(last)) {
                statistics.memoryBytes -= sizes.take(last);
                ++statistics.evictions;
            }
        }
        ++statistics.writes;
    }

    void remove(const QString &key)
    {
        statistics.memoryBytes -= sizes.value(key, 0);
        sizes.remove(key);
        recency.removeAll(key);
    }

    CloudCacheStatistics statistics;

private:
    void touch(const QString &key)
    {
        recency.removeAll(key);
        recency.prepend(key);
    }

    qint64 limit;
    QHash<QString, qint64> sizes;
    QList<QString> recency;
};

// Waits until the clock has just moved on to a new millisecond, so the next few steps very likely share it.
qint64 startOfNextMillisecond()
{
    const qint64 start = QDateTime::currentMSecsSinceEpoch();
    qint64 now = start;
    while (now == start)
        now = QDateTime::currentMSecsSinceEpoch();
    return now;
}

#ifdef Q_OS_LINUX
long currentThreadId()
{
    return long(syscall(SYS_gettid));
}

// A thread of this process is asleep in the kernel (state S), which for the threads below can only mean it is
// blocked in the cache's wait condition.
bool threadIsAsleep(long threadId)
{
    const QByteArray stat = readFile(QStringLiteral("/proc/self/task/%1/stat").arg(threadId));
    const qsizetype end = stat.lastIndexOf(')');
    return end >= 0 && stat.size() > end + 2 && stat.at(end + 2) == 'S';
}
#endif

} // namespace

class TestCloudRangeCache : public QObject {
    Q_OBJECT

private:
    QString folder() const { return temporary->path(); }
    QString entryPath(const QString &key) const { return QDir(folder()).filePath(entryFileName(key)); }
    QScopedPointer<QTemporaryDir> temporary;

private slots:
    void initTestCase()
    {
#ifdef Q_OS_UNIX
        // A permissive mask, so the file and folder permissions below are the cache's doing.
        umask(022);
#endif
    }

    void init()
    {
        temporary.reset(new QTemporaryDir);
        QVERIFY(temporary->isValid());
    }

    void negativeLimitsAreRejectedBeforeAnyEffect_data()
    {
        QTest::addColumn<qint64>("memory");
        QTest::addColumn<qint64>("disk");
        QTest::addColumn<qint64>("age");
        QTest::newRow("memory") << qint64(-1) << qint64(0) << qint64(0);
        QTest::newRow("disk") << qint64(0) << qint64(-1) << qint64(0);
        QTest::newRow("age") << qint64(0) << qint64(0) << qint64(-1);
        QTest::newRow("all, large") << std::numeric_limits<qint64>::min() << qint64(-5) << qint64(-7);
    }

    void negativeLimitsAreRejectedBeforeAnyEffect()
    {
        QFETCH(qint64, memory);
        QFETCH(qint64, disk);
        QFETCH(qint64, age);
        CloudCacheOptions options;
        options.directory = QDir(folder()).filePath(QStringLiteral("never/made"));
        options.maximumMemoryBytes = memory;
        options.maximumDiskBytes = disk;
        options.maximumAgeSeconds = age;
        try {
            CloudRangeCache cache(options);
            QFAIL("no exception");
        } catch (const std::invalid_argument &error) {
            QCOMPARE(QString::fromUtf8(error.what()), QString::fromUtf8(TransportMessages::cacheLimitsNegative));
        }
        QVERIFY(!QFileInfo::exists(options.directory));
    }

    void zeroLimitsStoreNothingAndNeverExpire()
    {
        const QString key = QStringLiteral("left from an earlier run");
        QVERIFY(writeFile(entryPath(key), handWrittenEntry(1, makeResponse(30))));
        CloudCacheOptions options;
        options.directory = folder();
        options.maximumMemoryBytes = 0;
        options.maximumDiskBytes = 0;
        options.maximumAgeSeconds = 0;
        CloudRangeCache cache(options);

        cache.put(QStringLiteral("new"), makeResponse(10));
        CloudRangeResponse response;
        QVERIFY(!cache.get(QStringLiteral("new"), response));
        QCOMPARE(QDir(folder()).entryList(QDir::Files).size(), 1);

        // Stored at 1 ms after the epoch and still served: age 0 means no expiry. A zero disk limit never trims.
        QVERIFY(cache.get(key, response));
        QCOMPARE(response.data, makeResponse(30).data);
        QVERIFY(QFileInfo::exists(entryPath(key)));
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.writes, 0);
        QCOMPARE(statistics.diskHits, 1);
        QCOMPARE(statistics.misses, 1);
        QCOMPARE(statistics.evictions, 0);
        QCOMPARE(statistics.memoryBytes, 0);
    }

    void emptyDataIsIgnored()
    {
        CloudCacheOptions options = diskOnly(folder());
        options.memoryEnabled = true;
        CloudRangeCache cache(options);
        CloudRangeResponse response = makeResponse(0);
        cache.put(QStringLiteral("k"), response);
        QCOMPARE(cache.statistics().writes, 0);
        QVERIFY(QDir(folder()).isEmpty());
        QVERIFY(!hits(cache, QStringLiteral("k")));
    }

    void hitCopiesTheStoredResponse()
    {
        CloudRangeCache cache(memoryOnly(1000));
        CloudRangeResponse stored = makeResponse(12, 'm');
        stored.acceptsRanges = false;
        cache.put(QStringLiteral("k"), stored);
        CloudRangeResponse response;
        QVERIFY(cache.get(QStringLiteral("k"), response));
        QCOMPARE(response.data, stored.data);
        QCOMPARE(response.offset, stored.offset);
        QCOMPARE(response.totalSize, stored.totalSize);
        QCOMPARE(response.etag, stored.etag);
        QCOMPARE(response.acceptsRanges, false);
        QCOMPARE(response.fromCache, true);
        QCOMPARE(cache.statistics().memoryHits, 1);
    }

    void touchOnHitDecidesTheVictim_data()
    {
        QTest::addColumn<bool>("touchA");
        QTest::addColumn<QString>("evicted");
        QTest::addColumn<QString>("kept");
        QTest::newRow("A read before C") << true << QStringLiteral("B") << QStringLiteral("A");
        QTest::newRow("nothing read") << false << QStringLiteral("A") << QStringLiteral("B");
    }

    void touchOnHitDecidesTheVictim()
    {
        QFETCH(bool, touchA);
        QFETCH(QString, evicted);
        QFETCH(QString, kept);
        CloudRangeCache cache(memoryOnly(100));
        cache.put(QStringLiteral("A"), makeResponse(40));
        cache.put(QStringLiteral("B"), makeResponse(40));
        if (touchA)
            QVERIFY(hits(cache, QStringLiteral("A")));
        cache.put(QStringLiteral("C"), makeResponse(40));

        QCOMPARE(cache.statistics().evictions, 1);
        QCOMPARE(cache.statistics().memoryBytes, 80);
        QVERIFY(!hits(cache, evicted));
        QVERIFY(hits(cache, kept));
        QVERIFY(hits(cache, QStringLiteral("C")));
    }

    void entryLargerThanTheLimitEmptiesTheTier()
    {
        CloudRangeCache cache(memoryOnly(100));
        cache.put(QStringLiteral("A"), makeResponse(40));
        cache.put(QStringLiteral("B"), makeResponse(40));
        cache.put(QStringLiteral("X"), makeResponse(150));
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.writes, 3);
        QCOMPARE(statistics.evictions, 3);
        QCOMPARE(statistics.memoryBytes, 0);
        for (const char *key : { "A", "B", "X" })
            QVERIFY(!hits(cache, QString::fromLatin1(key)));
    }

    void replacingAnEntryReaccountsItsSize()
    {
        CloudRangeCache cache(memoryOnly(100));
        cache.put(QStringLiteral("A"), makeResponse(40));
        cache.put(QStringLiteral("B"), makeResponse(40));
        cache.put(QStringLiteral("A"), makeResponse(10, 'n'));
        QCOMPARE(cache.statistics().memoryBytes, 50);
        // The replacement touched A, so B is the older one.
        cache.put(QStringLiteral("C"), makeResponse(60));
        QVERIFY(!hits(cache, QStringLiteral("B")));
        CloudRangeResponse response;
        QVERIFY(cache.get(QStringLiteral("A"), response));
        QCOMPARE(response.data, QByteArray(10, 'n'));
    }

    void memoryTierDecidesAsTheReferenceModel()
    {
        constexpr qint64 limit = 100;
        CloudRangeCache cache(memoryOnly(limit));
        ReferenceMemoryTier reference(limit);
        QRandomGenerator random(20261122);
        for (int step = 0; step < 5000; ++step) {
            const QString key = QStringLiteral("k%1").arg(random.bounded(9));
            const int operation = random.bounded(100);
            if (operation < 45) {
                const qint64 size = random.bounded(70);
                cache.put(key, makeResponse(size));
                reference.put(key, size);
            } else if (operation < 92) {
                QCOMPARE(hits(cache, key), reference.get(key));
            } else {
                cache.remove(key);
                reference.remove(key);
            }
            const CloudCacheStatistics actual = cache.statistics();
            const CloudCacheStatistics &expected = reference.statistics;
            QCOMPARE(actual.memoryHits, expected.memoryHits);
            QCOMPARE(actual.misses, expected.misses);
            QCOMPARE(actual.writes, expected.writes);
            QCOMPARE(actual.evictions, expected.evictions);
            QCOMPARE(actual.memoryBytes, expected.memoryBytes);
        }
        QVERIFY(reference.statistics.evictions > 100);
    }

    void expiredDiskEntryIsMissedAndDeleted()
    {
        const QString key = QStringLiteral("old");
        const qint64 twoHoursAgo = QDateTime::currentMSecsSinceEpoch() - 2 * hour * 1000;
        QVERIFY(writeFile(entryPath(key), handWrittenEntry(twoHoursAgo, makeResponse(50))));
        const qint64 fileSize = QFileInfo(entryPath(key)).size();
        CloudRangeCache cache(diskOnly(folder(), 1 << 20, hour));
        QCOMPARE(cache.statistics().diskBytes, fileSize);

        QVERIFY(!hits(cache, key));
        QVERIFY(!QFileInfo::exists(entryPath(key)));
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.misses, 1);
        QCOMPARE(statistics.diskHits, 0);
        QCOMPARE(statistics.evictions, 0);
        QCOMPARE(statistics.diskBytes, 0);
    }

    void expiryIsExactAtTheExtremes_data()
    {
        QTest::addColumn<qint64>("maximumAgeSeconds");
        QTest::addColumn<qint64>("storedAt");
        QTest::addColumn<bool>("served");
        constexpr qint64 lowest = std::numeric_limits<qint64>::min();
        constexpr qint64 highest = std::numeric_limits<qint64>::max();
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        QTest::newRow("no limit, stored at the lowest time") << qint64(0) << lowest << true;
        QTest::newRow("an hour, stored at the lowest time") << hour << lowest << false;
        // About 292 million years of age against a limit a thousand times longer.
        QTest::newRow("largest limit, stored at the lowest time") << highest << lowest << true;
        QTest::newRow("an hour, stored in the far future") << hour << highest << true;
        QTest::newRow("an hour, 59 minutes ago") << hour << now - 59 * 60 * 1000 << true;
        QTest::newRow("an hour, 61 minutes ago") << hour << now - 61 * 60 * 1000 << false;
    }

    void expiryIsExactAtTheExtremes()
    {
        QFETCH(qint64, maximumAgeSeconds);
        QFETCH(qint64, storedAt);
        QFETCH(bool, served);
        const QString key = QStringLiteral("k");
        QVERIFY(writeFile(entryPath(key), handWrittenEntry(storedAt, makeResponse(10))));
        CloudRangeCache cache(diskOnly(folder(), 1 << 20, maximumAgeSeconds));
        QCOMPARE(hits(cache, key), served);
        QCOMPARE(QFileInfo::exists(entryPath(key)), served);
    }

    void expiredMemoryEntryIsDroppedWithoutEviction()
    {
        // An entry taken over from disk keeps its stored time. Stored exactly one age limit ago, it is still
        // served in this millisecond and expired in the next one, so no sleeping is needed.
        constexpr qint64 maximumAgeSeconds = 60;
        const QString key = QStringLiteral("ageing");
        CloudCacheOptions options = diskOnly(folder(), 1 << 20, maximumAgeSeconds);
        options.memoryEnabled = true;
        CloudRangeCache cache(options);
        qint64 storedAt = 0;
        bool takenOver = false;
        for (int attempt = 0; attempt < 100 && !takenOver; ++attempt) {
            storedAt = startOfNextMillisecond() - maximumAgeSeconds * 1000;
            QVERIFY(writeFile(entryPath(key), handWrittenEntry(storedAt, makeResponse(20))));
            takenOver = hits(cache, key);
        }
        QVERIFY(takenOver);
        const CloudCacheStatistics before = cache.statistics();
        QCOMPARE(before.diskHits, 1);
        QCOMPARE(before.memoryBytes, 20);
        while (QDateTime::currentMSecsSinceEpoch() <= storedAt + maximumAgeSeconds * 1000) { }

        QVERIFY(!hits(cache, key));
        const CloudCacheStatistics after = cache.statistics();
        QCOMPARE(after.memoryHits, 0);
        QCOMPARE(after.misses, before.misses + 1);
        QCOMPARE(after.evictions, 0);
        QCOMPARE(after.memoryBytes, 0);
        // The file carried the same stored time, so it went as well. It was written behind the cache's back, so
        // the account drops below what the cache had measured.
        QVERIFY(!QFileInfo::exists(entryPath(key)));
        QCOMPARE(after.diskBytes, before.diskBytes - handWrittenEntry(storedAt, makeResponse(20)).size());
    }

    void diskHitIsTakenOverIntoMemory()
    {
        const QString key = QStringLiteral("k");
        {
            CloudRangeCache writer(diskOnly(folder()));
            writer.put(key, makeResponse(64));
        }
        CloudCacheOptions options = diskOnly(folder());
        options.memoryEnabled = true;
        options.maximumMemoryBytes = 1000;
        CloudRangeCache cache(options);
        QVERIFY(hits(cache, key));
        QVERIFY(QFile::remove(entryPath(key)));
        QVERIFY(hits(cache, key));
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.diskHits, 1);
        QCOMPARE(statistics.memoryHits, 1);
        QCOMPARE(statistics.memoryBytes, 64);
    }

    void diskHitLargerThanTheMemoryLimitIsEvictedAtOnce()
    {
        const QString key = QStringLiteral("big");
        QVERIFY(writeFile(entryPath(key), handWrittenEntry(QDateTime::currentMSecsSinceEpoch(), makeResponse(200))));
        CloudCacheOptions options = diskOnly(folder());
        options.memoryEnabled = true;
        options.maximumMemoryBytes = 100;
        CloudRangeCache cache(options);
        CloudRangeResponse response;
        QVERIFY(cache.get(key, response));
        QCOMPARE(response.data.size(), 200);
        QCOMPARE(cache.statistics().evictions, 1);
        QCOMPARE(cache.statistics().memoryBytes, 0);
    }

    void entryFileIsByteExact()
    {
        CloudRangeCache cache(diskOnly(folder()));
        const QString key = QStringLiteral("https://example.invalid/a.tif\n0:100");
        CloudRangeResponse stored = makeResponse(100);
        stored.fromCache = true;
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        cache.put(key, stored);
        const qint64 after = QDateTime::currentMSecsSinceEpoch();

        const QByteArray bytes = readFile(entryPath(key));
        const qint64 expectedSize = 4 + 4 + 8 + (4 + 100) + 8 + 8 + 4 + (4 + stored.etag.size())
            + (4 + stored.lastModified.size()) + (4 + stored.contentType.size()) + 1;
        QCOMPARE(bytes.size(), expectedSize);
        QCOMPARE(cache.statistics().diskBytes, expectedSize);
        QVERIFY(bytes.startsWith("NVCH"));

        QDataStream stream(bytes);
        stream.setVersion(QDataStream::Qt_6_0);
        qint32 magic = 0, version = 0, statusCode = 0;
        qint64 storedAt = 0, offset = 0, totalSize = 0;
        QByteArray data, etag, lastModified, contentType;
        qint8 acceptsRanges = -1;
        stream >> magic >> version >> storedAt >> data >> offset >> totalSize >> statusCode >> etag >> lastModified
            >> contentType >> acceptsRanges;
        QCOMPARE(stream.status(), QDataStream::Ok);
        QVERIFY(stream.atEnd());
        QCOMPARE(magic, 0x4E564348);
        QCOMPARE(version, 1);
        QVERIFY(storedAt >= before && storedAt <= after);
        QCOMPARE(data, stored.data);
        QCOMPARE(offset, stored.offset);
        QCOMPARE(totalSize, stored.totalSize);
        QCOMPARE(statusCode, stored.statusCode);
        QCOMPARE(etag, stored.etag);
        QCOMPARE(lastModified, stored.lastModified);
        QCOMPARE(contentType, stored.contentType);
        QCOMPARE(acceptsRanges, qint8(1));
    }

    void handWrittenEntryIsServedByANewCache()
    {
        const QString key = QStringLiteral("from another process");
        CloudRangeResponse stored = makeResponse(33, 'h');
        stored.totalSize = -1;
        stored.etag = QByteArray();
        const QDateTime longAgo = QDateTime::currentDateTimeUtc().addDays(-30);
        QVERIFY(writeFile(entryPath(key), handWrittenEntry(QDateTime::currentMSecsSinceEpoch() - 1000, stored)));
        QVERIFY(setModified(entryPath(key), longAgo));

        CloudRangeCache cache(diskOnly(folder()));
        QCOMPARE(cache.statistics().diskBytes, QFileInfo(entryPath(key)).size());
        CloudRangeResponse response;
        QVERIFY(cache.get(key, response));
        QCOMPARE(response.data, stored.data);
        QCOMPARE(response.totalSize, qint64(-1));
        QVERIFY(response.etag.isEmpty());
        QCOMPARE(response.contentType, stored.contentType);
        QCOMPARE(response.fromCache, true);
        QCOMPARE(cache.statistics().diskHits, 1);
        // Serving an entry makes it recent for the trim.
        QVERIFY(QFileInfo(entryPath(key)).lastModified() > longAgo.addDays(29));
    }

    void badEntryFilesAreDeletedAsMisses_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        const QByteArray good = handWrittenEntry(now, makeResponse(40));
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("short") << good.left(good.size() - 1);
        QTest::newRow("cut in the data") << good.left(30);
        QTest::newRow("wrong magic") << handWrittenEntry(now, makeResponse(40), 0x4E564349);
        QTest::newRow("wrong version") << handWrittenEntry(now, makeResponse(40), 0x4E564348, 2);
        QByteArray corrupt = good;
        corrupt[16] = '\x7F'; // data length far beyond the end
        QTest::newRow("corrupt length") << corrupt;
        QTest::newRow("expired") << handWrittenEntry(now - 3 * hour * 1000, makeResponse(40));
    }

    void badEntryFilesAreDeletedAsMisses()
    {
        QFETCH(QByteArray, bytes);
        const QString key = QStringLiteral("bad");
        QVERIFY(writeFile(entryPath(key), bytes));
        CloudCacheOptions options = diskOnly(folder(), 1 << 20, hour);
        options.memoryEnabled = true;
        CloudRangeCache cache(options);
        QCOMPARE(cache.statistics().diskBytes, bytes.size());

        CloudRangeResponse response = makeResponse(1, 'u');
        QVERIFY(!cache.get(key, response));
        QCOMPARE(response.data, QByteArrayLiteral("u"));
        QVERIFY(!QFileInfo::exists(entryPath(key)));
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.misses, 1);
        QCOMPARE(statistics.diskHits + statistics.memoryHits + statistics.writes + statistics.evictions, 0);
        QCOMPARE(statistics.diskBytes, 0);
        QCOMPARE(statistics.memoryBytes, 0);
    }

    void constructionTrimsOldestFirst()
    {
        // Five entries of equal size, written newest first so creation order and age disagree.
        const QDateTime base = QDateTime::currentDateTimeUtc().addDays(-1);
        qint64 entrySize = 0;
        for (int age = 0; age < 5; ++age) {
            const QString key = QStringLiteral("age%1").arg(age);
            QVERIFY(
                writeFile(entryPath(key), handWrittenEntry(QDateTime::currentMSecsSinceEpoch(), makeResponse(100))));
            QVERIFY(setModified(entryPath(key), base.addSecs(-60 * age)));
            entrySize = QFileInfo(entryPath(key)).size();
        }
        // Foreign files, older than every entry: never deleted, never counted.
        const QString notes = QDir(folder()).filePath(QStringLiteral("notes.txt"));
        const QString partial = QDir(folder()).filePath(QStringLiteral("x.nvc.partial"));
        const QString folderLikeEntry = QDir(folder()).filePath(QStringLiteral("sub.nvc"));
        QVERIFY(writeFile(notes, QByteArray(5000, 'n')));
        QVERIFY(writeFile(partial, QByteArray(5000, 'p')));
        QVERIFY(QDir(folder()).mkdir(QStringLiteral("sub.nvc")));
        for (const QString &path : { notes, partial })
            QVERIFY(setModified(path, base.addDays(-10)));

        CloudRangeCache cache(diskOnly(folder(), 3 * entrySize + entrySize / 2));
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.evictions, 2);
        QCOMPARE(statistics.diskBytes, 3 * entrySize);
        QVERIFY(!QFileInfo::exists(entryPath(QStringLiteral("age4"))));
        QVERIFY(!QFileInfo::exists(entryPath(QStringLiteral("age3"))));
        for (const char *kept : { "age0", "age1", "age2" })
            QVERIFY(QFileInfo::exists(entryPath(QString::fromLatin1(kept))));
        QCOMPARE(readFile(notes), QByteArray(5000, 'n'));
        QCOMPARE(readFile(partial), QByteArray(5000, 'p'));
        QVERIFY(QFileInfo(folderLikeEntry).isDir());
    }

    void putOverTheDiskLimitDeletesTheLeastRecentlyServed_data()
    {
        QTest::addColumn<bool>("serveOldest");
        QTest::addColumn<QStringList>("deleted");
        QTest::newRow("nothing served") << false << QStringList { QStringLiteral("old") };
        QTest::newRow("oldest served") << true << QStringList { QStringLiteral("middle") };
    }

    void putOverTheDiskLimitDeletesTheLeastRecentlyServed()
    {
        QFETCH(bool, serveOldest);
        QFETCH(QStringList, deleted);
        const QDateTime now = QDateTime::currentDateTimeUtc();
        const QStringList keys { QStringLiteral("old"), QStringLiteral("middle"), QStringLiteral("young") };
        for (int index = 0; index < keys.size(); ++index) {
            QVERIFY(writeFile(
                entryPath(keys[index]), handWrittenEntry(QDateTime::currentMSecsSinceEpoch(), makeResponse(100))));
            QVERIFY(setModified(entryPath(keys[index]), now.addSecs(-3000 + 1000 * index)));
        }
        const qint64 entrySize = QFileInfo(entryPath(keys[0])).size();
        CloudRangeCache cache(diskOnly(folder(), 3 * entrySize + 10));
        QCOMPARE(cache.statistics().evictions, 0);
        if (serveOldest)
            QVERIFY(hits(cache, QStringLiteral("old")));

        cache.put(QStringLiteral("new"), makeResponse(100));
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.writes, 1);
        QCOMPARE(statistics.evictions, 1);
        QCOMPARE(statistics.diskBytes, 3 * entrySize);
        for (const QString &key : keys)
            QCOMPARE(QFileInfo::exists(entryPath(key)), !deleted.contains(key));
        QVERIFY(QFileInfo::exists(entryPath(QStringLiteral("new"))));
    }

    void newEntryLargerThanTheDiskLimitGoesLast()
    {
        CloudRangeCache cache(diskOnly(folder(), 500));
        cache.put(QStringLiteral("a"), makeResponse(100));
        cache.put(QStringLiteral("b"), makeResponse(100));
        // Older than the new entry beyond doubt: equal times would be ordered by name.
        for (const char *key : { "a", "b" })
            QVERIFY(setModified(entryPath(QString::fromLatin1(key)), QDateTime::currentDateTimeUtc().addSecs(-60)));
        cache.put(QStringLiteral("huge"), makeResponse(1000));
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.writes, 3);
        QCOMPARE(statistics.evictions, 3);
        QCOMPARE(statistics.diskBytes, 0);
        QVERIFY(QDir(folder()).entryList(QDir::Files).isEmpty());
    }

    void clearEmptiesBothTiersAndKeepsTheCounters()
    {
        CloudCacheOptions options = diskOnly(folder());
        options.memoryEnabled = true;
        CloudRangeCache cache(options);
        cache.put(QStringLiteral("a"), makeResponse(10));
        cache.put(QStringLiteral("b"), makeResponse(20));
        QVERIFY(hits(cache, QStringLiteral("a")));
        QVERIFY(!hits(cache, QStringLiteral("c")));
        const QString foreign = QDir(folder()).filePath(QStringLiteral("keep.me"));
        QVERIFY(writeFile(foreign, "x"));

        cache.clear();
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.memoryBytes, 0);
        QCOMPARE(statistics.diskBytes, 0);
        QCOMPARE(statistics.writes, 2);
        QCOMPARE(statistics.memoryHits, 1);
        QCOMPARE(statistics.misses, 1);
        QCOMPARE(QDir(folder()).entryList(QDir::Files), QStringList { QStringLiteral("keep.me") });
        QVERIFY(!hits(cache, QStringLiteral("a")));
    }

    void diskTierOffStillRemovesFilesButNeverClearsThem()
    {
        {
            CloudRangeCache writer(diskOnly(folder()));
            writer.put(QStringLiteral("a"), makeResponse(10));
            writer.put(QStringLiteral("b"), makeResponse(10));
        }
        CloudCacheOptions options = memoryOnly(1000);
        options.directory = folder();
        CloudRangeCache cache(options);
        cache.put(QStringLiteral("c"), makeResponse(10));
        cache.remove(QStringLiteral("a"));
        QVERIFY(!QFileInfo::exists(entryPath(QStringLiteral("a"))));
        cache.clear();
        QVERIFY(QFileInfo::exists(entryPath(QStringLiteral("b"))));
        QCOMPARE(cache.statistics().diskBytes, 0);
        QCOMPARE(cache.statistics().memoryBytes, 0);
    }

    void removeDropsBothTiersWithoutCounting()
    {
        CloudCacheOptions options = diskOnly(folder());
        options.memoryEnabled = true;
        CloudRangeCache cache(options);
        cache.put(QStringLiteral("a"), makeResponse(10));
        cache.put(QStringLiteral("b"), makeResponse(20));
        const qint64 fileOfB = QFileInfo(entryPath(QStringLiteral("b"))).size();
        const CloudCacheStatistics before = cache.statistics();

        cache.remove(QStringLiteral("never stored"));
        QCOMPARE(cache.statistics().memoryBytes, before.memoryBytes);
        QCOMPARE(cache.statistics().diskBytes, before.diskBytes);

        cache.remove(QStringLiteral("a"));
        const CloudCacheStatistics after = cache.statistics();
        QCOMPARE(after.memoryBytes, 20);
        QCOMPARE(after.diskBytes, fileOfB);
        QCOMPARE(after.writes, before.writes);
        QCOMPARE(after.evictions, 0);
        QVERIFY(!QFileInfo::exists(entryPath(QStringLiteral("a"))));
        QVERIFY(!hits(cache, QStringLiteral("a")));
    }

    void defaultFolderIsBelowTheUserCacheLocation()
    {
        CloudCacheOptions options;
        options.diskEnabled = false;
        CloudRangeCache cache(options);
        const QString base = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
        QVERIFY(!base.isEmpty());
        QCOMPARE(cache.options().directory, QDir(base).filePath(QStringLiteral("Norvane/Cloud")));
        QCOMPARE(cache.options().maximumMemoryBytes, CloudCacheOptions().maximumMemoryBytes);
    }

#ifdef Q_OS_UNIX
    void createdFoldersAndEntryFilesArePrivate()
    {
        const QString top = QDir(folder()).filePath(QStringLiteral("made"));
        const QString directory = QDir(top).filePath(QStringLiteral("by/cache"));
        CloudRangeCache cache(diskOnly(directory));
        for (const QString &path : { top, QFileInfo(directory).path(), directory }) {
            struct stat info { };
            QCOMPARE(::stat(QFile::encodeName(path).constData(), &info), 0);
            QCOMPARE(info.st_mode & 0777, mode_t(0700));
        }
        const QString replaced = QDir(directory).filePath(entryFileName(QStringLiteral("replaced")));
        QVERIFY(writeFile(replaced, "loose"));
        QVERIFY(QFile::setPermissions(replaced, QFile::Permissions(0x6644)));
        for (const char *key : { "new", "replaced" }) {
            cache.put(QString::fromLatin1(key), makeResponse(10));
            struct stat info { };
            const QString path = QDir(directory).filePath(entryFileName(QString::fromLatin1(key)));
            QCOMPARE(::stat(QFile::encodeName(path).constData(), &info), 0);
            QCOMPARE(info.st_mode & 0777, mode_t(0600));
        }
        // The folder given by the host keeps its own permissions.
        struct stat info { };
        QCOMPARE(::stat(QFile::encodeName(folder()).constData(), &info), 0);
        const mode_t before = info.st_mode & 0777;
        CloudRangeCache onExisting(diskOnly(folder()));
        onExisting.put(QStringLiteral("x"), makeResponse(5));
        QCOMPARE(::stat(QFile::encodeName(folder()).constData(), &info), 0);
        QCOMPARE(info.st_mode & 0777, before);
    }
#endif

    void unusableFolderDegradesToNotStored_data()
    {
        QTest::addColumn<QString>("relativeFolder");
        QTest::addColumn<QString>("blocker");
        QTest::newRow("folder is a regular file") << QStringLiteral("cache") << QStringLiteral("cache");
        QTest::newRow("folder below a regular file") << QStringLiteral("file/cache") << QStringLiteral("file");
    }

    void unusableFolderDegradesToNotStored()
    {
        QFETCH(QString, relativeFolder);
        QFETCH(QString, blocker);
        const QString blockerPath = QDir(folder()).filePath(blocker);
        QVERIFY(writeFile(blockerPath, "not a folder"));
        CloudCacheOptions options = diskOnly(QDir(folder()).filePath(relativeFolder));
        options.maximumMemoryBytes = 1000;

        CloudRangeCache cache(options);
        cache.put(QStringLiteral("k"), makeResponse(10));
        QVERIFY(!hits(cache, QStringLiteral("k")));
        cache.remove(QStringLiteral("k"));
        cache.clear();
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.writes, 0);
        QCOMPARE(statistics.diskBytes, 0);
        QCOMPARE(statistics.misses, 1);
        QCOMPARE(readFile(blockerPath), QByteArrayLiteral("not a folder"));

        // The memory tier does not depend on the folder.
        CloudCacheOptions withMemory = options;
        withMemory.memoryEnabled = true;
        CloudRangeCache memoryStillWorks(withMemory);
        memoryStillWorks.put(QStringLiteral("k"), makeResponse(10));
        QCOMPARE(memoryStillWorks.statistics().writes, 1);
        QVERIFY(hits(memoryStillWorks, QStringLiteral("k")));
    }

    void vanishedFolderIsMadeAgainByPut()
    {
        const QString directory = QDir(folder()).filePath(QStringLiteral("cache"));
        CloudRangeCache cache(diskOnly(directory));
        cache.put(QStringLiteral("a"), makeResponse(10));
        QVERIFY(QDir(directory).removeRecursively());

        QVERIFY(!hits(cache, QStringLiteral("a")));
        cache.put(QStringLiteral("b"), makeResponse(10));
        QCOMPARE(cache.statistics().writes, 2);
        QVERIFY(hits(cache, QStringLiteral("b")));
    }

    void folderSwappedForAFileLeavesOldEntriesIntact()
    {
        const QString directory = QDir(folder()).filePath(QStringLiteral("cache"));
        const QString away = QDir(folder()).filePath(QStringLiteral("moved"));
        CloudRangeCache cache(diskOnly(directory));
        cache.put(QStringLiteral("a"), makeResponse(10, 'a'));
        const QByteArray entry = readFile(QDir(directory).filePath(entryFileName(QStringLiteral("a"))));
        const CloudCacheStatistics before = cache.statistics();

        QVERIFY(QDir().rename(directory, away));
        QVERIFY(writeFile(directory, "in the way"));
        cache.put(QStringLiteral("b"), makeResponse(10));
        QVERIFY(!hits(cache, QStringLiteral("a")));
        cache.remove(QStringLiteral("a"));
        cache.clear();
        QCOMPARE(cache.statistics().writes, before.writes);
        QCOMPARE(readFile(directory), QByteArrayLiteral("in the way"));

        QVERIFY(QFile::remove(directory));
        QVERIFY(QDir().rename(away, directory));
        QCOMPARE(readFile(QDir(directory).filePath(entryFileName(QStringLiteral("a")))), entry);
        CloudRangeResponse response;
        QVERIFY(cache.get(QStringLiteral("a"), response));
        QCOMPARE(response.data, QByteArray(10, 'a'));
    }

#ifdef Q_OS_UNIX
    void failedWriteKeepsThePreviousEntry()
    {
        // A file size limit makes the write fail even for root, as a full disk would.
        CloudRangeCache cache(diskOnly(folder()));
        cache.put(QStringLiteral("k"), makeResponse(100, 'o'));
        const QByteArray previous = readFile(entryPath(QStringLiteral("k")));
        const CloudCacheStatistics before = cache.statistics();

        struct rlimit original { };
        QCOMPARE(getrlimit(RLIMIT_FSIZE, &original), 0);
        const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit small = original;
        small.rlim_cur = 4096;
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &small), 0);
        cache.put(QStringLiteral("k"), makeResponse(100000, 'n'));
        const int restored = setrlimit(RLIMIT_FSIZE, &original);
        std::signal(SIGXFSZ, previousHandler);
        QCOMPARE(restored, 0);

        QCOMPARE(readFile(entryPath(QStringLiteral("k"))), previous);
        const CloudCacheStatistics after = cache.statistics();
        QCOMPARE(after.writes, before.writes);
        QCOMPARE(after.diskBytes, before.diskBytes);
        QCOMPARE(QDir(folder()).entryList(QDir::Files | QDir::Hidden).size(), 1);
        CloudRangeResponse response;
        QVERIFY(cache.get(QStringLiteral("k"), response));
        QCOMPARE(response.data, QByteArray(100, 'o'));
    }
#endif

    void transferCountersIgnoreNegativeSizes_data()
    {
        QTest::addColumn<qint64>("bytes");
        QTest::addColumn<qint64>("counted");
        QTest::newRow("positive") << qint64(1234) << qint64(1234);
        QTest::newRow("zero") << qint64(0) << qint64(0);
        QTest::newRow("negative") << qint64(-5) << qint64(0);
    }

    void transferCountersIgnoreNegativeSizes()
    {
        QFETCH(qint64, bytes);
        QFETCH(qint64, counted);
        CloudRangeCache cache(memoryOnly(100));
        CloudRangeCacheInternals::recordCacheTransfer(cache, 10);
        CloudRangeCacheInternals::recordCacheTransfer(cache, bytes);
        CloudRangeCacheInternals::recordNetworkTransfer(cache, bytes);
        CloudRangeCacheInternals::recordNetworkTransfer(cache, 7);
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.cacheBytesServed, 10 + counted);
        QCOMPARE(statistics.networkRequests, 2);
        QCOMPARE(statistics.networkBytes, 7 + counted);
        QCOMPARE(statistics.misses + statistics.writes + statistics.memoryHits, 0);
    }

    void secondFetchOfAKeyWaitsForTheFirst()
    {
        CloudRangeCache cache(memoryOnly(1000));
        const QString first = QStringLiteral("first");
        const QString second = QStringLiteral("second");
        QVERIFY(!CloudRangeCacheInternals::beginFetch(cache, first));
        QVERIFY(!CloudRangeCacheInternals::beginFetch(cache, second));

        struct Waiter {
            QSemaphore started;
            QSemaphore returned;
            std::atomic<long> threadId { 0 };
            std::atomic<int> result { -1 };
        };
        Waiter onFirst, onSecond;
        const auto wait = [&cache](Waiter &waiter, const QString &key) {
#ifdef Q_OS_LINUX
            waiter.threadId = currentThreadId();
#endif
            waiter.started.release();
            waiter.result = CloudRangeCacheInternals::beginFetch(cache, key) ? 1 : 0;
            waiter.returned.release();
        };
        // One at a time, so neither thread can be seen asleep on the mutex the other holds.
        std::thread firstThread, secondThread;
        const auto joinAll = qScopeGuard([&] {
            CloudRangeCacheInternals::finishFetch(cache, first);
            CloudRangeCacheInternals::finishFetch(cache, second);
            for (std::thread *thread : { &firstThread, &secondThread }) {
                if (thread->joinable())
                    thread->join();
            }
        });
        firstThread = std::thread(wait, std::ref(onFirst), first);
        QVERIFY(onFirst.started.tryAcquire(1, 30000));
#ifdef Q_OS_LINUX
        QTRY_VERIFY_WITH_TIMEOUT(threadIsAsleep(onFirst.threadId), 30000);
#endif
        secondThread = std::thread(wait, std::ref(onSecond), second);
        QVERIFY(onSecond.started.tryAcquire(1, 30000));
#ifdef Q_OS_LINUX
        QTRY_VERIFY_WITH_TIMEOUT(threadIsAsleep(onSecond.threadId), 30000);
#endif
        QVERIFY(!onFirst.returned.tryAcquire(1, 20));

        // A key nobody fetches is claimed at once while the others wait.
        QVERIFY(!CloudRangeCacheInternals::beginFetch(cache, QStringLiteral("free")));

        // Ending the second fetch wakes every waiter; only the waiter of that key returns.
        CloudRangeCacheInternals::finishFetch(cache, second);
        QVERIFY(onSecond.returned.tryAcquire(1, 30000));
        QCOMPARE(onSecond.result.load(), 1);
        QVERIFY(!onFirst.returned.tryAcquire(1, 20));
        QCOMPARE(onFirst.result.load(), -1);

        CloudRangeCacheInternals::finishFetch(cache, first);
        QVERIFY(onFirst.returned.tryAcquire(1, 30000));
        QCOMPARE(onFirst.result.load(), 1);
        // A waiter does not take the key over: the next caller owns the fetch.
        QVERIFY(!CloudRangeCacheInternals::beginFetch(cache, first));
        CloudRangeCacheInternals::finishFetch(cache, first);
    }

#ifdef Q_OS_LINUX
    void waitersFindTheOwnersResult()
    {
        // The reader's loop: get, beginFetch, get again after waiting. Only the owner stores; every waiter is
        // asleep before the owner finishes, so each must find the stored answer.
        CloudRangeCache cache(memoryOnly(1 << 20));
        const QString key = QStringLiteral("shared");
        QVERIFY(!CloudRangeCacheInternals::beginFetch(cache, key));
        constexpr int waiterCount = 4;
        std::atomic<int> served { 0 };
        std::atomic<int> owned { 0 };
        std::vector<std::thread> threads;
        const auto joinAll = qScopeGuard([&] {
            CloudRangeCacheInternals::finishFetch(cache, key);
            for (std::thread &thread : threads)
                thread.join();
        });
        for (int index = 0; index < waiterCount; ++index) {
            QSemaphore started;
            std::atomic<long> threadId { 0 };
            threads.emplace_back([&] {
                threadId = currentThreadId();
                started.release();
                CloudRangeResponse response;
                while (!cache.get(key, response)) {
                    if (!CloudRangeCacheInternals::beginFetch(cache, key)) {
                        ++owned;
                        CloudRangeCacheInternals::finishFetch(cache, key);
                        return;
                    }
                }
                if (response.data == QByteArray(50, 'w'))
                    ++served;
            });
            QVERIFY(started.tryAcquire(1, 30000));
            QTRY_VERIFY_WITH_TIMEOUT(threadIsAsleep(threadId), 30000);
        }
        cache.put(key, makeResponse(50, 'w'));
        CloudRangeCacheInternals::finishFetch(cache, key);
        for (std::thread &thread : threads)
            thread.join();
        threads.clear();
        QCOMPARE(owned.load(), 0);
        QCOMPARE(served.load(), waiterCount);
        QCOMPARE(cache.statistics().writes, 1);
        QCOMPARE(cache.statistics().memoryHits, waiterCount);
        QCOMPARE(cache.statistics().misses, waiterCount);
    }
#endif
};

QTEST_GUILESS_MAIN(TestCloudRangeCache)
#include "tst_cloudrangecache.moc"
