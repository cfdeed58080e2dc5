// CloudRangeCache: the memory tier's recency and expiry, the counters and levels, the disk tier's entry files
// (pinned against bytes assembled by hand), their trimming and degradation, and the fetch coordination.

#include <norvanecloud/rangetransport.h>

#include "transport/cloudrangecacheinternals_p.h"
#include "transport/transportmessages.h"

#include <QtTest>

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QSemaphore>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtEndian>

#include <atomic>
#include <list>
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

qint64 now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

CloudRangeResponse makeResponse(qsizetype size, char fill = 'r')
{
    CloudRangeResponse response;
    response.data = QByteArray(size, fill);
    response.offset = 4096;
    response.totalSize = 1234567890123;
    response.statusCode = 206;
    response.etag = QByteArrayLiteral("\"tag\"");
    response.contentType = QByteArray(""); // empty, not null like lastModified
    response.acceptsRanges = true;
    return response;
}

template <typename Integer> QByteArray bigEndian(Integer value)
{
    QByteArray bytes(sizeof(Integer), '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

// A null array is written as length 0xFFFFFFFF, an empty one as length 0.
QByteArray array(const QByteArray &value)
{
    return value.isNull() ? bigEndian(quint32(0xFFFFFFFF)) : bigEndian(quint32(value.size())) + value;
}

// The entry file layout assembled by hand, so a change of stream version or field order cannot slip through.
QByteArray entryBytes(qint64 storedAt, const CloudRangeResponse &response)
{
    return "NVCH" + bigEndian(qint32(1)) + bigEndian(storedAt) + array(response.data) + bigEndian(response.offset)
        + bigEndian(response.totalSize) + bigEndian(response.statusCode) + array(response.etag)
        + array(response.lastModified) + array(response.contentType) + QByteArray(1, response.acceptsRanges);
}

QByteArray entryBytes(qint64 storedAt, qsizetype size = 40)
{
    return entryBytes(storedAt, makeResponse(size));
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

CloudCacheOptions options(const QString &directory, qint64 memoryBytes, qint64 diskBytes, qint64 maximumAge = hour)
{
    CloudCacheOptions options;
    options.directory = directory;
    options.maximumMemoryBytes = memoryBytes;
    options.memoryEnabled = memoryBytes > 0;
    options.maximumDiskBytes = diskBytes;
    options.diskEnabled = diskBytes > 0;
    options.maximumAgeSeconds = maximumAge;
    return options;
}

bool hits(CloudRangeCache &cache, const QString &key)
{
    CloudRangeResponse response;
    return cache.get(key, response);
}

#ifdef Q_OS_UNIX
mode_t modeOf(const QString &path)
{
    struct stat info { };
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_mode & 0777 : mode_t(-1);
}
#endif

// The recency rules as plainly as they can be written: a list searched on every touch. The cache must decide
// exactly as this model does, whatever structures it keeps.
struct ReferenceMemoryTier {
    qint64 limit;
    QHash<QString, qint64> sizes;
    std::list<QString> recency;
    CloudCacheStatistics statistics;

    void touch(const QString &key)
    {
        recency.remove(key);
        recency.push_front(key);
    }
    bool get(const QString &key)
    {
        const bool found = sizes.contains(key);
        ++(found ? statistics.memoryHits : statistics.misses);
        if (found)
            touch(key);
        return found;
    }
    void put(const QString &key, qint64 size)
    {
        if (size == 0)
            return;
        statistics.memoryBytes += size - sizes.value(key, 0);
        sizes.insert(key, size);
        touch(key);
        while (statistics.memoryBytes > limit) {
            statistics.memoryBytes -= sizes.take(recency.back());
            recency.pop_back();
            ++statistics.evictions;
        }
        ++statistics.writes;
    }
    void remove(const QString &key)
    {
        statistics.memoryBytes -= sizes.take(key);
        recency.remove(key);
    }
};

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
    QString inFolder(const QString &name) const { return QDir(folder()).filePath(name); }
    // The SHA-256 digest of the key's UTF-8 bytes in lower-case hexadecimal, then ".nvc".
    QString entryPath(const QString &key, const QString &in = QString()) const
    {
        return QDir(in.isEmpty() ? folder() : in)
            .filePath(QString::fromLatin1(QCryptographicHash::hash(key.toUtf8(), QCryptographicHash::Sha256).toHex())
                + QStringLiteral(".nvc"));
    }
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

    void negativeLimitsAreRejectedBeforeAnyEffect()
    {
        const QString never = inFolder(QStringLiteral("never/made"));
        for (const CloudCacheOptions &limits :
            { options(never, -1, 1, 0), options(never, 0, -1, 0), options(never, 0, 1, -1) }) {
            try {
                CloudRangeCache cache(limits);
                QFAIL("no exception");
            } catch (const std::invalid_argument &error) {
                QCOMPARE(QString::fromUtf8(error.what()), QString::fromUtf8(TransportMessages::cacheLimitsNegative));
            }
        }
        QVERIFY(!QFileInfo::exists(never));
    }

    void zeroLimitsStoreNothingAndNeverExpire()
    {
        const QString key = QStringLiteral("left from an earlier run");
        QVERIFY(writeFile(entryPath(key), entryBytes(1, 30)));
        CloudCacheOptions zero = options(folder(), 0, 0, 0);
        zero.memoryEnabled = zero.diskEnabled = true;
        CloudRangeCache cache(zero);

        cache.put(QStringLiteral("new"), makeResponse(10));
        QVERIFY(!hits(cache, QStringLiteral("new")));
        QCOMPARE(QDir(folder()).entryList(QDir::Files).size(), 1);
        // Stored 1 ms after the epoch and still served: age 0 means no expiry. A zero disk limit never trims.
        QVERIFY(hits(cache, key));
        QVERIFY(QFileInfo::exists(entryPath(key)));
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.writes, 0);
        QCOMPARE(statistics.diskHits, 1);
        QCOMPARE(statistics.misses, 1);
        QCOMPARE(statistics.memoryBytes, 0);
    }

    void touchOnHitDecidesTheVictimAndALargeEntryEmptiesTheTier()
    {
        CloudRangeCache cache(options(QString(), 100, 0));
        cache.put(QStringLiteral("A"), makeResponse(40));
        cache.put(QStringLiteral("B"), makeResponse(40));
        CloudRangeResponse response;
        QVERIFY(cache.get(QStringLiteral("A"), response));
        QCOMPARE(response.fromCache, true);
        cache.put(QStringLiteral("C"), makeResponse(40));
        QCOMPARE(cache.statistics().evictions, 1);
        QVERIFY(!hits(cache, QStringLiteral("B")));
        QVERIFY(hits(cache, QStringLiteral("A")));

        cache.put(QStringLiteral("X"), makeResponse(150));
        QCOMPARE(cache.statistics().writes, 4);
        QCOMPARE(cache.statistics().evictions, 4);
        QCOMPARE(cache.statistics().memoryBytes, 0);
        QVERIFY(!hits(cache, QStringLiteral("X")));
    }

    void memoryTierDecidesAsTheReferenceModel()
    {
        constexpr qint64 limit = 100;
        CloudRangeCache cache(options(QString(), limit, 0));
        ReferenceMemoryTier reference { limit, {}, {}, {} };
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
            const auto counters = [](const CloudCacheStatistics &statistics) {
                return QList<qint64> { statistics.memoryHits, statistics.misses, statistics.writes,
                    statistics.evictions, statistics.memoryBytes };
            };
            QCOMPARE(counters(cache.statistics()), counters(reference.statistics));
        }
        QVERIFY(reference.statistics.evictions > 100);
    }

    void diskExpiryIsExactAtTheExtremes_data()
    {
        QTest::addColumn<qint64>("maximumAgeSeconds");
        QTest::addColumn<qint64>("storedAt");
        QTest::addColumn<bool>("served");
        constexpr qint64 lowest = std::numeric_limits<qint64>::min();
        constexpr qint64 highest = std::numeric_limits<qint64>::max();
        QTest::newRow("no limit, stored at the lowest time") << qint64(0) << lowest << true;
        QTest::newRow("an hour, stored at the lowest time") << hour << lowest << false;
        // About 292 million years of age against a limit far longer, whose milliseconds overflow 64 bits.
        QTest::newRow("limit of 2^62 s, stored at the lowest time") << (qint64(1) << 62) << lowest << true;
        QTest::newRow("an hour, stored in the far future") << hour << highest << true;
        QTest::newRow("an hour, 59 minutes ago") << hour << now() - 59 * 60 * 1000 << true;
        QTest::newRow("an hour, 61 minutes ago") << hour << now() - 61 * 60 * 1000 << false;
    }

    void diskExpiryIsExactAtTheExtremes()
    {
        QFETCH(qint64, maximumAgeSeconds);
        QFETCH(qint64, storedAt);
        QFETCH(bool, served);
        const QString key = QStringLiteral("k");
        QVERIFY(writeFile(entryPath(key), entryBytes(storedAt)));
        CloudRangeCache cache(options(folder(), 0, 1 << 20, maximumAgeSeconds));
        QCOMPARE(hits(cache, key), served);
        QCOMPARE(QFileInfo::exists(entryPath(key)), served);
        QCOMPARE(cache.statistics().misses, served ? 0 : 1);
        QCOMPARE(cache.statistics().evictions, 0);
    }

    void expiredMemoryEntryIsDroppedWithoutEviction()
    {
        // An entry taken over from disk keeps its stored time. Stored exactly one age limit ago, it is still
        // served in this millisecond and expired in the next one, so no sleeping is needed.
        constexpr qint64 maximumAgeSeconds = 60;
        const QString key = QStringLiteral("ageing");
        CloudRangeCache cache(options(folder(), 1000, 1 << 20, maximumAgeSeconds));
        qint64 storedAt = 0;
        bool takenOver = false;
        for (int attempt = 0; attempt < 100 && !takenOver; ++attempt) {
            const qint64 start = now();
            while (now() == start) { }
            storedAt = now() - maximumAgeSeconds * 1000;
            QVERIFY(writeFile(entryPath(key), entryBytes(storedAt, 20)));
            takenOver = hits(cache, key);
        }
        QVERIFY(takenOver);
        const CloudCacheStatistics before = cache.statistics();
        QCOMPARE(before.diskHits, 1);
        QCOMPARE(before.memoryBytes, 20);
        while (now() <= storedAt + maximumAgeSeconds * 1000) { }

        QVERIFY(!hits(cache, key));
        const CloudCacheStatistics after = cache.statistics();
        QCOMPARE(after.memoryHits, 0);
        QCOMPARE(after.misses, before.misses + 1);
        QCOMPARE(after.evictions, 0);
        QCOMPARE(after.memoryBytes, 0);
        // The file carried the same stored time, so it went as well.
        QVERIFY(!QFileInfo::exists(entryPath(key)));
    }

    void entryFileIsByteExact()
    {
        CloudRangeCache cache(options(folder(), 0, 1 << 20));
        const QString key = QStringLiteral("https://example.invalid/a.tif\n0:100");
        CloudRangeResponse stored = makeResponse(100);
        stored.fromCache = true; // never stored
        const qint64 before = now();
        cache.put(key, stored);
        const qint64 after = now();

        const QByteArray bytes = readFile(entryPath(key));
        const qint64 storedAt = qFromBigEndian<qint64>(bytes.constData() + 8);
        QVERIFY(storedAt >= before && storedAt <= after);
        QCOMPARE(bytes, entryBytes(storedAt, stored));
        const qint64 expectedSize = 4 + 4 + 8 + (4 + 100) + 8 + 8 + 4 + (4 + stored.etag.size()) + 4 + 4 + 1;
        QCOMPARE(bytes.size(), expectedSize);
        QCOMPARE(cache.statistics().diskBytes, expectedSize);
    }

    void entryFromAnotherProcessIsServedAndTakenOver()
    {
        // A key beyond ASCII: the file name is the digest of its UTF-8 bytes.
        const QString key = QStringLiteral("from another process \u00e9");
        const QDateTime longAgo = QDateTime::currentDateTimeUtc().addDays(-30);
        // Bytes after the last field are ignored.
        QVERIFY(writeFile(entryPath(key), entryBytes(now() - 1000, 33) + "after the last field"));
        QVERIFY(setModified(entryPath(key), longAgo));

        CloudRangeCache cache(options(folder(), 1000, 1 << 20));
        QCOMPARE(cache.statistics().diskBytes, QFileInfo(entryPath(key)).size());
        CloudRangeResponse response;
        QVERIFY(cache.get(key, response));
        // Every field came back in its own form, null and empty arrays included.
        QCOMPARE(entryBytes(0, response), entryBytes(0, makeResponse(33)));
        QVERIFY(response.lastModified.isNull() && !response.contentType.isNull());
        QCOMPARE(response.fromCache, true);
        // Serving an entry makes it recent for the trim.
        QVERIFY(QFileInfo(entryPath(key)).lastModified() > longAgo.addDays(29));
        // The hit was taken over into memory.
        QVERIFY(QFile::remove(entryPath(key)));
        QVERIFY(hits(cache, key));
        QCOMPARE(cache.statistics().diskHits, 1);
        QCOMPARE(cache.statistics().memoryHits, 1);
        QCOMPARE(cache.statistics().memoryBytes, 33);
    }

    void badEntryFilesAreDeletedAsMisses_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const QByteArray good = entryBytes(now());
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("short") << good.left(good.size() - 1);
        QTest::newRow("cut inside the data") << good.left(30);
        QTest::newRow("magic in the wrong byte order") << QByteArray(good).replace(0, 4, "HCVN");
        QTest::newRow("wrong version") << QByteArray(good).replace(7, 1, "\2");
        QTest::newRow("corrupt length") << QByteArray(good).replace(16, 1, "\x7F");
        QTest::newRow("expired") << entryBytes(now() - 3 * hour * 1000);
    }

    void badEntryFilesAreDeletedAsMisses()
    {
        QFETCH(QByteArray, bytes);
        const QString key = QStringLiteral("bad");
        QVERIFY(writeFile(entryPath(key), bytes));
        CloudRangeCache cache(options(folder(), 1000, 1 << 20, hour));
        QCOMPARE(cache.statistics().diskBytes, bytes.size());

        QVERIFY(!hits(cache, key));
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
        for (int age = 0; age < 5; ++age) {
            const QString path = entryPath(QStringLiteral("age%1").arg(age));
            QVERIFY(writeFile(path, entryBytes(now(), 100)));
            QVERIFY(setModified(path, base.addSecs(-60 * age)));
        }
        const qint64 entrySize = entryBytes(0, 100).size();
        // Foreign files, older than every entry: never deleted, never counted.
        const QString notes = inFolder(QStringLiteral("notes.txt"));
        const QString partial = inFolder(QStringLiteral("x.nvc.partial"));
        for (const QString &path : { notes, partial }) {
            QVERIFY(writeFile(path, QByteArray(5000, 'f')));
            QVERIFY(setModified(path, base.addDays(-10)));
        }
        QVERIFY(QDir(folder()).mkdir(QStringLiteral("sub.nvc")));

        CloudRangeCache cache(options(folder(), 0, 3 * entrySize + entrySize / 2));
        QCOMPARE(cache.statistics().evictions, 2);
        QCOMPARE(cache.statistics().diskBytes, 3 * entrySize);
        for (int age = 0; age < 5; ++age)
            QCOMPARE(QFileInfo::exists(entryPath(QStringLiteral("age%1").arg(age))), age < 3);
        QCOMPARE(readFile(notes), QByteArray(5000, 'f'));
        QCOMPARE(readFile(partial), QByteArray(5000, 'f'));
        QVERIFY(QFileInfo(inFolder(QStringLiteral("sub.nvc"))).isDir());
    }

    void putOverTheDiskLimitDeletesTheLeastRecentlyServed_data()
    {
        QTest::addColumn<bool>("serveOldest");
        QTest::addColumn<QString>("deleted");
        QTest::newRow("nothing served") << false << QStringLiteral("old");
        QTest::newRow("oldest served") << true << QStringLiteral("middle");
    }

    void putOverTheDiskLimitDeletesTheLeastRecentlyServed()
    {
        QFETCH(bool, serveOldest);
        QFETCH(QString, deleted);
        const QStringList keys { QStringLiteral("old"), QStringLiteral("middle"), QStringLiteral("young") };
        for (int index = 0; index < keys.size(); ++index) {
            QVERIFY(writeFile(entryPath(keys[index]), entryBytes(now(), 100)));
            QVERIFY(setModified(entryPath(keys[index]), QDateTime::currentDateTimeUtc().addSecs(-3000 + 1000 * index)));
        }
        const qint64 entrySize = entryBytes(0, 100).size();
        CloudRangeCache cache(options(folder(), 0, 3 * entrySize + 10));
        QCOMPARE(cache.statistics().evictions, 0);
        if (serveOldest)
            QVERIFY(hits(cache, QStringLiteral("old")));

        cache.put(QStringLiteral("new"), makeResponse(100));
        QCOMPARE(cache.statistics().evictions, 1);
        QCOMPARE(cache.statistics().diskBytes, 3 * entrySize);
        for (const QString &key : keys)
            QCOMPARE(QFileInfo::exists(entryPath(key)), key != deleted);

        // An entry larger than the limit is the newest, so it goes last: the folder ends empty. The others are made
        // older beyond doubt, as equal times would be ordered by name.
        for (const QString &name : QDir(folder()).entryList(QDir::Files))
            QVERIFY(setModified(inFolder(name), QDateTime::currentDateTimeUtc().addSecs(-60)));
        cache.put(QStringLiteral("huge"), makeResponse(1000));
        QCOMPARE(cache.statistics().evictions, 5);
        QCOMPARE(cache.statistics().diskBytes, 0);
        QVERIFY(QDir(folder()).isEmpty());
    }

    void removeAndClearKeepTheCounters()
    {
        CloudRangeCache cache(options(folder(), 1000, 1 << 20));
        cache.put(QStringLiteral("a"), makeResponse(10));
        cache.put(QStringLiteral("b"), makeResponse(20));
        cache.put(QStringLiteral("empty"), makeResponse(0));
        QVERIFY(hits(cache, QStringLiteral("a")));
        const CloudCacheStatistics before = cache.statistics();
        cache.remove(QStringLiteral("never stored"));
        QCOMPARE(cache.statistics().diskBytes, before.diskBytes);

        cache.remove(QStringLiteral("a"));
        QCOMPARE(cache.statistics().memoryBytes, 20);
        QCOMPARE(cache.statistics().diskBytes, QFileInfo(entryPath(QStringLiteral("b"))).size());
        QVERIFY(!QFileInfo::exists(entryPath(QStringLiteral("a"))));
        QVERIFY(writeFile(inFolder(QStringLiteral("keep.me")), "x"));
        cache.clear();
        QVERIFY(!hits(cache, QStringLiteral("b")));
        const CloudCacheStatistics after = cache.statistics();
        QCOMPARE(after.memoryBytes, 0);
        QCOMPARE(after.diskBytes, 0);
        QCOMPARE(after.writes, 2);
        QCOMPARE(after.memoryHits, 1);
        QCOMPARE(after.misses, 1);
        QCOMPARE(after.evictions, 0);
        QCOMPARE(QDir(folder()).entryList(QDir::Files), QStringList { QStringLiteral("keep.me") });
    }

    void diskTierOffStillRemovesFilesButNeverClearsThem()
    {
        QVERIFY(writeFile(entryPath(QStringLiteral("a")), entryBytes(now())));
        QVERIFY(writeFile(entryPath(QStringLiteral("b")), entryBytes(now())));
        CloudRangeCache cache(options(folder(), 1000, 0));
        cache.remove(QStringLiteral("a"));
        QVERIFY(!QFileInfo::exists(entryPath(QStringLiteral("a"))));
        cache.clear();
        QVERIFY(QFileInfo::exists(entryPath(QStringLiteral("b"))));
        QCOMPARE(cache.statistics().diskBytes, 0);
    }

    void defaultFolderIsBelowTheUserCacheLocation()
    {
        CloudRangeCache cache(options(QString(), 10, 0));
        const QString base = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
        QVERIFY(!base.isEmpty());
        QCOMPARE(cache.options().directory, QDir(base).filePath(QStringLiteral("Norvane/Cloud")));
    }

#ifdef Q_OS_UNIX
    void createdFoldersAndEntryFilesArePrivate()
    {
        const QString top = inFolder(QStringLiteral("made"));
        const QString directory = QDir(top).filePath(QStringLiteral("by/cache"));
        CloudRangeCache cache(options(directory, 0, 1 << 20));
        for (const QString &path : { top, QFileInfo(directory).path(), directory })
            QCOMPARE(modeOf(path), mode_t(0700));
        // A replaced file would otherwise keep its predecessor's permissions.
        const QString replaced = entryPath(QStringLiteral("replaced"), directory);
        QVERIFY(writeFile(replaced, "loose"));
        QVERIFY(QFile::setPermissions(replaced, QFile::Permissions(0x6644)));
        for (const QString &key : { QStringLiteral("new"), QStringLiteral("replaced") }) {
            cache.put(key, makeResponse(10));
            QCOMPARE(modeOf(entryPath(key, directory)), mode_t(0600));
        }
        // The folder given by the host keeps its own permissions.
        const mode_t before = modeOf(folder());
        CloudRangeCache(options(folder(), 0, 1 << 20)).put(QStringLiteral("x"), makeResponse(5));
        QCOMPARE(modeOf(folder()), before);
    }
#endif

    void vanishedOrSwappedFolderLeavesOldEntriesIntact()
    {
        const QString directory = inFolder(QStringLiteral("cache"));
        const QString away = inFolder(QStringLiteral("moved"));
        CloudRangeCache cache(options(directory, 0, 1 << 20));
        cache.put(QStringLiteral("a"), makeResponse(10, 'a'));
        const QByteArray entry = readFile(entryPath(QStringLiteral("a"), directory));

        // Swapped for a file: nothing is stored, read or deleted, and nothing throws.
        QVERIFY(QDir().rename(directory, away));
        QVERIFY(writeFile(directory, "in the way"));
        cache.put(QStringLiteral("b"), makeResponse(10));
        QVERIFY(!hits(cache, QStringLiteral("a")));
        cache.remove(QStringLiteral("a"));
        cache.clear();
        QCOMPARE(cache.statistics().writes, 1);
        // A new cache below the file cannot make its folder either.
        CloudRangeCache blocked(options(QDir(directory).filePath(QStringLiteral("below")), 0, 1 << 20));
        blocked.put(QStringLiteral("b"), makeResponse(10));
        QCOMPARE(blocked.statistics().writes, 0);
        QCOMPARE(readFile(directory), QByteArrayLiteral("in the way"));

        QVERIFY(QFile::remove(directory));
        QVERIFY(QDir().rename(away, directory));
        QCOMPARE(readFile(entryPath(QStringLiteral("a"), directory)), entry);
        QVERIFY(hits(cache, QStringLiteral("a")));

        // Vanished: the next put makes it again.
        QVERIFY(QDir(directory).removeRecursively());
        cache.put(QStringLiteral("c"), makeResponse(10));
        QCOMPARE(cache.statistics().writes, 2);
        QVERIFY(hits(cache, QStringLiteral("c")));
    }

#ifdef Q_OS_UNIX
    void failedWriteKeepsThePreviousEntry()
    {
        // A file size limit makes the write fail even for root, as a full disk would.
        CloudRangeCache cache(options(folder(), 0, 1 << 20));
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
        QCOMPARE(cache.statistics().writes, before.writes);
        QCOMPARE(cache.statistics().diskBytes, before.diskBytes);
        QCOMPARE(QDir(folder()).entryList(QDir::Files | QDir::Hidden).size(), 1);
    }
#endif

    void transferCountersIgnoreNegativeSizes()
    {
        CloudRangeCache cache(options(QString(), 100, 0));
        for (const qint64 bytes : { qint64(10), qint64(-5) }) {
            CloudRangeCacheInternals::recordCacheTransfer(cache, bytes);
            CloudRangeCacheInternals::recordNetworkTransfer(cache, bytes);
        }
        const CloudCacheStatistics statistics = cache.statistics();
        QCOMPARE(statistics.cacheBytesServed, 10);
        QCOMPARE(statistics.networkRequests, 2);
        QCOMPARE(statistics.networkBytes, 10);
    }

    void secondFetchOfAKeyWaitsForTheFirst()
    {
        CloudRangeCache cache(options(QString(), 1000, 0));
        const QString first = QStringLiteral("first");
        const QString second = QStringLiteral("second");
        QVERIFY(!CloudRangeCacheInternals::beginFetch(cache, first));
        QVERIFY(!CloudRangeCacheInternals::beginFetch(cache, second));

        struct Waiter {
            QSemaphore started;
            QSemaphore returned;
            std::atomic<long> threadId { 0 };
            std::atomic<int> result { -1 };
            std::thread thread;
        };
        Waiter onFirst, onSecond;
        const auto joinAll = qScopeGuard([&] {
            CloudRangeCacheInternals::finishFetch(cache, first);
            CloudRangeCacheInternals::finishFetch(cache, second);
            for (Waiter *waiter : { &onFirst, &onSecond }) {
                if (waiter->thread.joinable())
                    waiter->thread.join();
            }
        });
        // One at a time, so neither thread can be seen asleep on the mutex the other holds.
        for (const auto &[waiter, key] : { std::pair { &onFirst, first }, std::pair { &onSecond, second } }) {
            waiter->thread = std::thread([&cache, waiter = waiter, key = key] {
#ifdef Q_OS_LINUX
                waiter->threadId = currentThreadId();
#endif
                waiter->started.release();
                waiter->result = CloudRangeCacheInternals::beginFetch(cache, key) ? 1 : 0;
                waiter->returned.release();
            });
            QVERIFY(waiter->started.tryAcquire(1, 30000));
#ifdef Q_OS_LINUX
            QTRY_VERIFY_WITH_TIMEOUT(threadIsAsleep(waiter->threadId), 30000);
#endif
        }
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
    }
};

QTEST_GUILESS_MAIN(TestCloudRangeCache)
#include "tst_cloudrangecache.moc"
