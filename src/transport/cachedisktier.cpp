#include "transport/cachedisktier.h"

#include "transport/cacheexpiry.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <QStringList>

#include <algorithm>
#include <utility>

namespace Norvane::Cloud {

namespace {

constexpr QFileDevice::Permissions privateFilePermissions = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
constexpr QFileDevice::Permissions privateFolderPermissions
    = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner;

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

} // namespace

std::vector<CacheDiskTier::EntryFile> CacheDiskTier::listEntryFiles(const QString &folder)
{
    std::vector<EntryFile> files;
    QDirIterator iterator(folder, entryFilePatterns(), entryFileFilters);
    while (iterator.hasNext()) {
        iterator.next();
        const QFileInfo info = iterator.fileInfo();
        files.push_back({ info.filePath(), info.fileName(), info.size(), info.lastModified().toMSecsSinceEpoch() });
    }
    return files;
}

QString CacheDiskTier::resolveFolder(const QString &directory)
{
    if (!directory.isEmpty())
        return directory;
    QString base = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    if (base.isEmpty())
        base = QDir::tempPath();
    return QDir(base).filePath(QStringLiteral("Norvane/Cloud"));
}

CacheDiskTier::CacheDiskTier(const CloudCacheOptions &options)
    : folder(options.directory)
    , folderPrefix(folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/'))
    , enabled(options.diskEnabled)
    , maximumBytes(options.maximumDiskBytes)
    , maximumAgeSeconds(options.maximumAgeSeconds)
{
    if (!enabled)
        return;
    makePrivatePath(folder);
    // One listing serves both the measurement and, when the folder is over its limit, the trim.
    std::vector<EntryFile> files = listEntryFiles(folder);
    for (const EntryFile &file : files)
        accountedBytes += file.size;
    remember(std::move(files));
    trim();
}

std::optional<CacheDiskEntry> CacheDiskTier::read(const QString &key, qint64 nowMilliseconds)
{
    if (!enabled)
        return std::nullopt;
    QFile file(pathOf(key));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    std::optional<CacheDiskEntry> decoded = readCacheDiskEntry(file);
    // The cache never stores an empty range: an entry that decodes to one is the header of a file whose rest reads as
    // zeros (a read racing an in-place rewrite by another program, or blocks lost in a crash).
    if (decoded && !decoded->response.data.isEmpty()
        && !isCacheEntryExpired(decoded->storedAtMilliseconds, nowMilliseconds, maximumAgeSeconds)) {
        // The modification time is the entry's recency for the trim; failing to set it only makes the entry older.
        file.setFileTime(QDateTime::currentDateTimeUtc(), QFileDevice::FileModificationTime);
        return decoded;
    }
    const qint64 size = file.size();
    file.close();
    if (file.remove())
        accountedBytes -= size;
    return std::nullopt;
}

bool CacheDiskTier::holds(const QString &key) const
{
    return enabled && QFileInfo::exists(pathOf(key));
}

bool CacheDiskTier::write(const QString &key, const CloudRangeResponse &response, qint64 storedAtMilliseconds)
{
    if (!stores())
        return false;
    // The folder may have been removed while the cache ran.
    makePrivatePath(folder);
    const QString path = pathOf(key);
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
    accountedBytes += size - previousSize;
    trim();
    return true;
}

void CacheDiskTier::remove(const QString &key)
{
    const QString path = pathOf(key);
    const QFileInfo info(path);
    if (!info.exists())
        return;
    const qint64 size = info.size();
    if (QFile::remove(path))
        accountedBytes -= size;
}

void CacheDiskTier::clear()
{
    if (enabled) {
        QDirIterator iterator(folder, entryFilePatterns(), entryFileFilters);
        while (iterator.hasNext())
            QFile::remove(iterator.next());
    }
    accountedBytes = 0;
    candidates.clear();
    nextCandidate = 0;
}

void CacheDiskTier::remember(std::vector<EntryFile> files)
{
    // Modification time ascending, equal times by name descending: the order of QDir::Time | QDir::Reversed.
    std::sort(files.begin(), files.end(), [](const EntryFile &left, const EntryFile &right) {
        if (left.modifiedMilliseconds != right.modifiedMilliseconds)
            return left.modifiedMilliseconds < right.modifiedMilliseconds;
        return left.name > right.name;
    });
    candidates = std::move(files);
    nextCandidate = 0;
}

bool CacheDiskTier::deleteIfUnchanged(const EntryFile &file)
{
    // A file served or rewritten since the listing is now newer than every remembered candidate, so it is not the
    // oldest any more; the next listing puts it where it belongs. A file already gone was accounted when it went.
    const QFileInfo info(file.path);
    if (!info.isFile() || info.lastModified().toMSecsSinceEpoch() != file.modifiedMilliseconds)
        return false;
    const qint64 size = info.size();
    if (!QFile::remove(file.path))
        return false;
    accountedBytes -= size;
    ++evicted;
    return true;
}

void CacheDiskTier::trim()
{
    // The trim stops before the first file when the account is within the limit: no listing is needed then.
    if (!stores() || accountedBytes <= maximumBytes)
        return;
    bool listed = false;
    while (accountedBytes > maximumBytes) {
        if (nextCandidate >= candidates.size()) {
            // The remembered candidates ran out while the account is still over: list once more, at most once.
            if (listed)
                return;
            remember(listEntryFiles(folder));
            listed = true;
            if (candidates.empty())
                return;
        }
        deleteIfUnchanged(candidates[nextCandidate++]);
    }
}

} // namespace Norvane::Cloud
