#include "transport/cachedisktier.h"

#include "transport/cacheexpiry.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QStringList>
#include <QTemporaryFile>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Norvane::Cloud {

namespace {

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

// A store writes a temporary file of this name, the X's random, and renames it over the entry.
constexpr QLatin1String storeFileName("XXXXXX.part");
constexpr QLatin1String storeFileSuffix(".part");

// A process that ends between a store's write and its rename leaves the temporary file behind, uncounted. No store
// takes an hour.
bool isAbandonedStoreFile(const QFileInfo &info, qint64 nowMilliseconds)
{
    constexpr qint64 hourMilliseconds = 3600 * 1000;
    const QString name = info.fileName();
    return name.size() == storeFileName.size() && name.endsWith(storeFileSuffix)
        && nowMilliseconds - info.lastModified().toMSecsSinceEpoch() > hourMilliseconds;
}

constexpr QDir::Filters entryFileFilters = QDir::Files | QDir::Hidden | QDir::NoSymLinks;

// Other programs' files may end in ".nvc" too: only a key's entry name belongs to the tier.
bool isEntryFileName(const QString &name)
{
    constexpr int digits = 64;
    if (name.size() != digits + 4 || !name.endsWith(QLatin1String(".nvc")))
        return false;
    return std::all_of(name.cbegin(), name.cbegin() + digits,
        [](QChar c) { return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f'); });
}

// Another user who owns the folder, or may write into it, could plant entries or links under entry names.
bool isPrivateFolder(const QString &folder)
{
    struct stat status { };
    return ::stat(QFile::encodeName(folder).constData(), &status) == 0 && S_ISDIR(status.st_mode)
        && status.st_uid == ::geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// The size of the regular file at path itself (a link is not followed); 0 for anything else.
qint64 regularFileSize(const QString &path)
{
    struct stat status { };
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0 || !S_ISREG(status.st_mode))
        return 0;
    return status.st_size;
}

enum class EntryOpening { Opened, Missing, Damaged };

// Opens an entry file for reading only when it is a regular file reached without a symbolic link. O_NONBLOCK keeps a
// FIFO from blocking the open; fstat then tells it, a device or a folder from an entry.
EntryOpening openEntryFile(const QString &path, QFile &file)
{
    const int descriptor = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        return errno == ELOOP ? EntryOpening::Damaged : EntryOpening::Missing;
    struct stat status { };
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(descriptor);
        return EntryOpening::Damaged;
    }
    if (!file.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        ::close(descriptor);
        return EntryOpening::Missing;
    }
    return EntryOpening::Opened;
}

} // namespace

std::vector<CacheDiskTier::EntryFile> CacheDiskTier::listEntryFiles(const QString &folder)
{
    std::vector<EntryFile> files;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    QDirIterator iterator(
        folder, entryFilePatterns() + QStringList { QLatin1Char('*') + storeFileSuffix }, entryFileFilters);
    while (iterator.hasNext()) {
        iterator.next();
        const QFileInfo info = iterator.fileInfo();
        if (isAbandonedStoreFile(info, now))
            QFile::remove(info.filePath());
        if (!isEntryFileName(info.fileName()))
            continue;
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
    enabled = isPrivateFolder(folder);
    if (!enabled)
        return;
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
    const QString path = pathOf(key);
    QFile file;
    const EntryOpening opening = openEntryFile(path, file);
    if (opening == EntryOpening::Missing)
        return std::nullopt;
    if (opening == EntryOpening::Damaged) {
        // Never measured, so nothing to take off the account; a folder under the name stays.
        QFile::remove(path);
        return std::nullopt;
    }
    std::optional<CacheDiskEntry> decoded = readCacheDiskEntry(file);
    // The cache never stores an empty range: an entry that decodes to one is the header of a file whose rest reads as
    // zeros (a read racing an in-place rewrite by another program, or blocks lost in a crash).
    if (decoded && !decoded->response.data.isEmpty()
        && !isCacheStoreTimeAhead(decoded->storedAtMilliseconds, nowMilliseconds)
        && !isCacheEntryExpired(decoded->storedAtMilliseconds, nowMilliseconds, maximumAgeSeconds)) {
        // The modification time is the entry's recency for the trim; failing to set it only makes the entry older.
        file.setFileTime(QDateTime::currentDateTimeUtc(), QFileDevice::FileModificationTime);
        return decoded;
    }
    const qint64 size = file.size();
    file.close();
    if (QFile::remove(path))
        accountedBytes -= size;
    return std::nullopt;
}

bool CacheDiskTier::write(const QString &key, const CloudRangeResponse &response, qint64 storedAtMilliseconds)
{
    if (!stores())
        return false;
    // The folder may have been removed while the cache ran, and made again by someone else.
    makePrivatePath(folder);
    if (!isPrivateFolder(folder))
        return false;
    const QString path = pathOf(key);
    const qint64 previousSize = regularFileSize(path);

    // Written beside the entry, then renamed over its name: a rename replaces a link planted under the name, where
    // QSaveFile would write to the link's target. The temporary name is not an entry name, and QTemporaryFile makes it
    // private to the user (0600), whatever the umask or the permissions of a replaced entry.
    QTemporaryFile file(folderPrefix + storeFileName);
    if (!file.open())
        return false;
    // Flushing finds out when the disk is full or a file size limit hit; the temporary file then goes.
    if (!writeCacheDiskEntry(file, response, storedAtMilliseconds) || !file.flush())
        return false;
    // As QSaveFile did: the entry is on disk before its name points at it; a failure here changes nothing.
    ::fsync(file.handle());
    const qint64 size = file.size();
    if (std::rename(QFile::encodeName(file.fileName()).constData(), QFile::encodeName(path).constData()) != 0)
        return false;
    file.setAutoRemove(false);
    accountedBytes += size - previousSize;
    trim();
    return true;
}

void CacheDiskTier::remove(const QString &key)
{
    const QString path = pathOf(key);
    const qint64 size = regularFileSize(path);
    if (QFile::remove(path))
        accountedBytes -= size;
}

void CacheDiskTier::clear()
{
    if (enabled) {
        QDirIterator iterator(folder, entryFilePatterns(), entryFileFilters);
        while (iterator.hasNext()) {
            const QString path = iterator.next();
            if (isEntryFileName(iterator.fileName()))
                QFile::remove(path);
        }
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
