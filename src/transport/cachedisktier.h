#pragma once

// The disk tier of the range cache: one entry file per key in one folder, private to the user, bounded by the
// bytes of its files, the least recently served dropped first. Entry files outlive the process; the tier never
// throws, and a folder or file it cannot use degrades to "not stored" or "not found". Not thread-safe: the cache
// that owns it holds its mutex around every call.

#include <norvanecloud/rangetransport.h>

#include "transport/cachediskentry.h"

#include <QString>

#include <optional>
#include <vector>

namespace Norvane::Cloud {

class CacheDiskTier final {
public:
    /// The folder a cache uses for directory: directory itself, or "Norvane/Cloud" below the user's cache location
    /// (the temporary folder when there is none) when it is empty.
    static QString resolveFolder(const QString &directory);

    /// Takes the folder (already resolved) and the limits and switches of options. When the tier is enabled, creates
    /// the folder, measures the entry files already there and trims them to the limit. A folder that is not the
    /// user's own, or that group or others may write, disables the tier.
    explicit CacheDiskTier(const CloudCacheOptions &options);

    /// The stored entry of key. An entry that is corrupt, empty, expired or stored more than a minute ahead, or that
    /// is not a regular file reached without a link, is deleted and misses; a served entry's file becomes the most
    /// recent. A disabled tier always misses.
    std::optional<CacheDiskEntry> read(const QString &key, qint64 nowMilliseconds);
    /// Writes the key's entry file atomically, never through a link, then trims the folder to the limit. False when
    /// nothing was stored: the tier is disabled, its limit is below 1, the folder is not private any more or the
    /// file could not be written.
    bool write(const QString &key, const CloudRangeResponse &response, qint64 storedAtMilliseconds);
    /// Deletes the key's entry file, whether or not the tier is enabled.
    void remove(const QString &key);
    /// Deletes every entry file when the tier is enabled; the account is 0 afterwards in any case.
    void clear();

    /// The sum of the entry file sizes as the tier last saw them.
    qint64 bytes() const { return accountedBytes; }
    /// Entry files deleted by keeping the folder within its limit, since construction.
    qint64 evictions() const { return evicted; }

private:
    struct EntryFile {
        QString path;
        QString name;
        qint64 size = 0;
        qint64 modifiedMilliseconds = 0;
    };
    static std::vector<EntryFile> listEntryFiles(const QString &folder);

    bool stores() const { return enabled && maximumBytes >= 1; }
    QString pathOf(const QString &key) const { return folderPrefix + cacheDiskFileName(key); }
    void trim();
    void remember(std::vector<EntryFile> files);
    bool deleteIfUnchanged(const EntryFile &file);

    QString folder;
    QString folderPrefix;
    bool enabled;
    qint64 maximumBytes;
    qint64 maximumAgeSeconds;
    qint64 accountedBytes = 0;
    qint64 evicted = 0;
    // The last listing, oldest first, and the next candidate in it: a full tier trims from here instead of listing
    // the folder on every store. Files written since the listing are newer than every remembered one.
    std::vector<EntryFile> candidates;
    size_t nextCandidate = 0;
};

} // namespace Norvane::Cloud
