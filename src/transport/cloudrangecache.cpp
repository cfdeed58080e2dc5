#include <norvanecloud/rangetransport.h>

#include "transport/cachediskentry.h"
#include "transport/cloudrangecacheinternals_p.h"
#include "transport/transportmessages.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSet>
#include <QStandardPaths>
#include <QStringList>

#include <algorithm>
#include <condition_variable>
#include <limits>
#include <list>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Norvane::Cloud {

namespace {

constexpr QFileDevice::Permissions privateFilePermissions = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
constexpr QFileDevice::Permissions privateFolderPermissions
    = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner;

qint64 currentMilliseconds()
{
    return QDateTime::currentMSecsSinceEpoch();
}

// Exact for every input: storedAt comes from files that may be corrupt, and the age limit may be any non-negative
// number, so neither the age nor the limit in milliseconds may be computed in signed 64 bits.
bool isExpired(qint64 storedAtMilliseconds, qint64 nowMilliseconds, qint64 maximumAgeSeconds)
{
    if (maximumAgeSeconds <= 0 || storedAtMilliseconds >= nowMilliseconds)
        return false;
    // The difference of two signed 64-bit numbers always fits in an unsigned one.
    const quint64 ageMilliseconds = quint64(nowMilliseconds) - quint64(storedAtMilliseconds);
    if (quint64(maximumAgeSeconds) > std::numeric_limits<quint64>::max() / 1000)
        return false;
    return ageMilliseconds > quint64(maximumAgeSeconds) * 1000;
}

// Like QDir::mkpath, but every folder made here is private to the user: entries may hold data that was fetched
// with credentials. Folders that already exist keep their permissions.
void makePrivatePath(const QString &path)
{
    const QString absolute = QDir::cleanPath(QDir(path).absolutePath());
    QStringList missing;
    QString current = absolute;
    while (!QFileInfo(current).exists()) {
        missing.prepend(current);
        const QString parent = QFileInfo(current).path();
        if (parent == current)
            break;
        current = parent;
    }
    const QDir root;
    for (const QString &folder : std::as_const(missing)) {
        if (!root.mkdir(folder, privateFolderPermissions) && !QFileInfo(folder).isDir())
            return;
    }
}

const QStringList &entryFilePatterns()
{
    static const QStringList patterns { QStringLiteral("*.nvc") };
    return patterns;
}

constexpr QDir::Filters entryFileFilters = QDir::Files | QDir::Hidden | QDir::NoSymLinks;

struct DiskFile {
    QString path;
    QString name;
    qint64 size = 0;
    qint64 modifiedMilliseconds = 0;
};

std::vector<DiskFile> listEntryFiles(const QString &folder)
{
    std::vector<DiskFile> files;
    QDirIterator iterator(folder, entryFilePatterns(), entryFileFilters);
    while (iterator.hasNext()) {
        iterator.next();
        const QFileInfo info = iterator.fileInfo();
        files.push_back({ info.filePath(), info.fileName(), info.size(), info.lastModified().toMSecsSinceEpoch() });
    }
    return files;
}

// Modification time ascending, equal times by name descending: the order of QDir::Time | QDir::Reversed.
void sortOldestFirst(std::vector<DiskFile> &files)
{
    std::sort(files.begin(), files.end(), [](const DiskFile &left, const DiskFile &right) {
        if (left.modifiedMilliseconds != right.modifiedMilliseconds)
            return left.modifiedMilliseconds < right.modifiedMilliseconds;
        return left.name > right.name;
    });
}

struct MemoryEntry {
    CloudRangeResponse response;
    qint64 storedAtMilliseconds = 0;
    // Where the key sits in the recency list, so a touch moves it without a search.
    std::list<QString>::iterator recencyPosition;
};

} // namespace

class CloudRangeCache::Private {
public:
    explicit Private(CloudCacheOptions cacheOptions)
        : options(std::move(cacheOptions))
    {
    }

    qint64 memoryLimit() const { return options.maximumMemoryBytes; }
    qint64 diskLimit() const { return options.maximumDiskBytes; }
    bool memoryStores() const { return options.memoryEnabled && options.maximumMemoryBytes >= 1; }
    bool diskStores() const { return options.diskEnabled && options.maximumDiskBytes >= 1; }

    QString diskPath(const QString &key) const { return folderPrefix + cacheDiskFileName(key); }

    void setUpDisk();
    void touch(MemoryEntry &entry);
    void dropFromMemory(QHash<QString, MemoryEntry>::iterator position);
    void storeInMemory(const QString &key, const CloudRangeResponse &response, qint64 storedAtMilliseconds);
    void trimMemory();
    bool readFromDisk(const QString &key, CacheDiskEntry &entry, qint64 nowMilliseconds);
    bool writeToDisk(const QString &key, const CloudRangeResponse &response, qint64 storedAtMilliseconds);
    void trimDisk();
    void trimDisk(std::vector<DiskFile> files);
    void removeFromDisk(const QString &key);
    void clearDisk();

    CloudCacheOptions options;
    QString folderPrefix;
    // The standard primitives rather than QMutex and QWaitCondition: waiting on those happens inside Qt, where a
    // thread sanitizer cannot see the mutex being released, so every run of the fetch coordination under it would
    // report false races.
    mutable std::mutex mutex;
    std::condition_variable fetchFinished;
    QSet<QString> inFlight;
    QHash<QString, MemoryEntry> memory;
    // Most recently used first; holds exactly the keys of memory.
    std::list<QString> recency;
    qint64 memoryBytes = 0;
    qint64 diskBytes = 0;
    CloudCacheStatistics statistics;
};

void CloudRangeCache::Private::setUpDisk()
{
    if (options.directory.isEmpty()) {
        QString base = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
        if (base.isEmpty())
            base = QDir::tempPath();
        options.directory = QDir(base).filePath(QStringLiteral("Norvane/Cloud"));
    }
    folderPrefix = options.directory;
    if (!folderPrefix.endsWith(QLatin1Char('/')))
        folderPrefix += QLatin1Char('/');

    diskBytes = 0;
    if (!options.diskEnabled)
        return;
    makePrivatePath(options.directory);
    // One listing serves both the measurement and, when the folder is over its limit, the trim.
    std::vector<DiskFile> files = listEntryFiles(options.directory);
    for (const DiskFile &file : files)
        diskBytes += file.size;
    trimDisk(std::move(files));
}

void CloudRangeCache::Private::touch(MemoryEntry &entry)
{
    recency.splice(recency.begin(), recency, entry.recencyPosition);
}

void CloudRangeCache::Private::dropFromMemory(QHash<QString, MemoryEntry>::iterator position)
{
    memoryBytes -= position->response.data.size();
    recency.erase(position->recencyPosition);
    memory.erase(position);
}

void CloudRangeCache::Private::storeInMemory(
    const QString &key, const CloudRangeResponse &response, qint64 storedAtMilliseconds)
{
    auto position = memory.find(key);
    if (position == memory.end()) {
        recency.push_front(key);
        position = memory.insert(key, MemoryEntry { response, storedAtMilliseconds, recency.begin() });
    } else {
        memoryBytes -= position->response.data.size();
        position->response = response;
        position->storedAtMilliseconds = storedAtMilliseconds;
        touch(*position);
    }
    memoryBytes += response.data.size();
    trimMemory();
}

void CloudRangeCache::Private::trimMemory()
{
    while (memoryBytes > memoryLimit() && !recency.empty()) {
        const auto position = memory.find(recency.back());
        if (position == memory.end()) {
            recency.pop_back();
            continue;
        }
        dropFromMemory(position);
        ++statistics.evictions;
    }
}

bool CloudRangeCache::Private::readFromDisk(const QString &key, CacheDiskEntry &entry, qint64 nowMilliseconds)
{
    QFile file(diskPath(key));
    if (!file.open(QIODevice::ReadOnly))
        return false;
    std::optional<CacheDiskEntry> decoded = readCacheDiskEntry(file);
    // put never stores an empty range: an entry that decodes to one is the header of a file whose rest reads as
    // zeros (a read racing an in-place rewrite by another program, or blocks lost in a crash).
    if (decoded && !decoded->response.data.isEmpty()
        && !isExpired(decoded->storedAtMilliseconds, nowMilliseconds, options.maximumAgeSeconds)) {
        // The modification time is the entry's recency for the trim; failing to set it only makes the entry older.
        file.setFileTime(QDateTime::currentDateTimeUtc(), QFileDevice::FileModificationTime);
        entry = std::move(*decoded);
        return true;
    }
    const qint64 size = file.size();
    file.close();
    if (file.remove())
        diskBytes -= size;
    return false;
}

bool CloudRangeCache::Private::writeToDisk(
    const QString &key, const CloudRangeResponse &response, qint64 storedAtMilliseconds)
{
    // The folder may have been removed while the cache ran.
    makePrivatePath(options.directory);
    const QString path = diskPath(key);
    const QFileInfo previous(path);
    const qint64 previousSize = previous.isFile() ? previous.size() : 0;

    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    // A new file would get the umask's permissions, a replaced one those of its predecessor.
    file.setPermissions(privateFilePermissions);
    // QSaveFile::commit does not notice when flushing its buffer fails (a full disk, a file size limit) and would
    // put the cut file in place of the entry; flushing first finds out, and the discarded save file changes nothing.
    if (!writeCacheDiskEntry(file, response, storedAtMilliseconds) || !file.flush())
        return false;
    const qint64 size = file.size();
    if (!file.commit())
        return false;
    diskBytes += size - previousSize;
    trimDisk();
    return true;
}

void CloudRangeCache::Private::trimDisk()
{
    // The trim stops before the first file when the account is within the limit: no listing is needed then.
    if (!diskStores() || diskBytes <= diskLimit())
        return;
    trimDisk(listEntryFiles(options.directory));
}

void CloudRangeCache::Private::trimDisk(std::vector<DiskFile> files)
{
    if (!diskStores() || diskBytes <= diskLimit())
        return;
    sortOldestFirst(files);
    for (const DiskFile &file : files) {
        if (diskBytes <= diskLimit())
            return;
        if (QFile::remove(file.path)) {
            diskBytes -= file.size;
            ++statistics.evictions;
        }
    }
}

void CloudRangeCache::Private::removeFromDisk(const QString &key)
{
    const QString path = diskPath(key);
    const QFileInfo info(path);
    if (!info.exists())
        return;
    const qint64 size = info.size();
    if (QFile::remove(path))
        diskBytes -= size;
}

void CloudRangeCache::Private::clearDisk()
{
    QDirIterator iterator(options.directory, entryFilePatterns(), entryFileFilters);
    while (iterator.hasNext())
        QFile::remove(iterator.next());
}

CloudRangeCache::CloudRangeCache(CloudCacheOptions options)
    : d(std::make_unique<Private>(std::move(options)))
{
    const CloudCacheOptions &held = d->options;
    if (held.maximumMemoryBytes < 0 || held.maximumDiskBytes < 0 || held.maximumAgeSeconds < 0)
        throw std::invalid_argument(TransportMessages::cacheLimitsNegative);
    d->setUpDisk();
}

CloudRangeCache::~CloudRangeCache() = default;

const CloudCacheOptions &CloudRangeCache::options() const
{
    return d->options;
}

bool CloudRangeCacheInternals::holds(CloudRangeCache &cache, const QString &key)
{
    const std::lock_guard locker(cache.d->mutex);
    if (cache.d->options.memoryEnabled) {
        const auto position = cache.d->memory.constFind(key);
        if (position != cache.d->memory.constEnd()
            && !isExpired(position->storedAtMilliseconds, currentMilliseconds(), cache.d->options.maximumAgeSeconds))
            return true;
    }
    return cache.d->options.diskEnabled && QFileInfo::exists(cache.d->diskPath(key));
}

bool CloudRangeCache::get(const QString &key, CloudRangeResponse &response)
{
    const std::lock_guard locker(d->mutex);
    if (d->options.memoryEnabled) {
        const auto position = d->memory.find(key);
        if (position != d->memory.end()) {
            if (!isExpired(position->storedAtMilliseconds, currentMilliseconds(), d->options.maximumAgeSeconds)) {
                d->touch(*position);
                response = position->response;
                response.fromCache = true;
                ++d->statistics.memoryHits;
                return true;
            }
            d->dropFromMemory(position);
        }
    }
    if (d->options.diskEnabled) {
        CacheDiskEntry entry;
        if (d->readFromDisk(key, entry, currentMilliseconds())) {
            ++d->statistics.diskHits;
            if (d->options.memoryEnabled && d->options.maximumMemoryBytes > 0)
                d->storeInMemory(key, entry.response, entry.storedAtMilliseconds);
            response = std::move(entry.response);
            response.fromCache = true;
            return true;
        }
    }
    ++d->statistics.misses;
    return false;
}

void CloudRangeCache::put(const QString &key, const CloudRangeResponse &response)
{
    if (response.data.isEmpty())
        return;
    const std::lock_guard locker(d->mutex);
    const qint64 storedAt = currentMilliseconds();
    bool stored = false;
    if (d->memoryStores()) {
        d->storeInMemory(key, response, storedAt);
        stored = true;
    }
    if (d->diskStores() && d->writeToDisk(key, response, storedAt))
        stored = true;
    if (stored)
        ++d->statistics.writes;
}

void CloudRangeCache::remove(const QString &key)
{
    const std::lock_guard locker(d->mutex);
    const auto position = d->memory.find(key);
    if (position != d->memory.end())
        d->dropFromMemory(position);
    d->removeFromDisk(key);
}

void CloudRangeCache::clear()
{
    const std::lock_guard locker(d->mutex);
    d->memory.clear();
    d->recency.clear();
    d->memoryBytes = 0;
    if (d->options.diskEnabled)
        d->clearDisk();
    d->diskBytes = 0;
}

CloudCacheStatistics CloudRangeCache::statistics() const
{
    const std::lock_guard locker(d->mutex);
    CloudCacheStatistics snapshot = d->statistics;
    snapshot.memoryBytes = d->memoryBytes;
    snapshot.diskBytes = d->diskBytes;
    return snapshot;
}

bool CloudRangeCache::beginFetch(const QString &key)
{
    std::unique_lock locker(d->mutex);
    if (!d->inFlight.contains(key)) {
        d->inFlight.insert(key);
        return false;
    }
    d->fetchFinished.wait(locker, [&] { return !d->inFlight.contains(key); });
    return true;
}

void CloudRangeCache::finishFetch(const QString &key)
{
    const std::lock_guard locker(d->mutex);
    d->inFlight.remove(key);
    d->fetchFinished.notify_all();
}

void CloudRangeCache::recordCacheTransfer(qint64 bytes)
{
    const std::lock_guard locker(d->mutex);
    d->statistics.cacheBytesServed += std::max<qint64>(bytes, 0);
}

void CloudRangeCache::recordNetworkTransfer(qint64 bytes)
{
    const std::lock_guard locker(d->mutex);
    ++d->statistics.networkRequests;
    d->statistics.networkBytes += std::max<qint64>(bytes, 0);
}

} // namespace Norvane::Cloud
