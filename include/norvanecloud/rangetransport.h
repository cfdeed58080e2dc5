#pragma once

// Range transport: the records of range requests and answers, the two-tier range cache and the synchronous
// HTTP(S) range reader that every other part of the library reads through.

#include <norvanecloud/norvanecloud_export.h>

#include <norvane/core/operationcontext.h>

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>

namespace Norvane::Cloud {

/// One byte range of one remote object.
struct NORVANECLOUD_EXPORT CloudRangeRequest {
    /// Address of the object (HTTP or HTTPS).
    QUrl url;
    /// First byte wanted, counted from 0; must be 0 or more.
    qint64 offset = 0;
    /// Number of bytes wanted; must be 1 or more, and offset + length must not exceed 2^63 - 1.
    qint64 length = 0;
    /// Extra request headers. A name given here replaces the reader's own header of that name. Part of the cache key.
    QHash<QByteArray, QByteArray> headers;
    /// Consult the shared cache before the network and store what was downloaded.
    bool useCache = true;
    /// Optional; called before the exchange and every 25 ms during it. True cancels the read.
    std::function<bool()> cancellationRequested;
    /// Cancellation, progress reporting and resource policy for this read.
    Norvane::Core::Operations::OperationContext context;
};

/// The bytes of one range and what the server said about the object.
struct NORVANECLOUD_EXPORT CloudRangeResponse {
    QByteArray data;
    qint64 offset = 0;
    /// Total size of the object; -1 when unknown.
    qint64 totalSize = -1;
    qint32 statusCode = 0;
    QByteArray etag;
    QByteArray lastModified;
    QByteArray contentType;
    /// The server showed byte-range support (status 206, or "Accept-Ranges: bytes").
    bool acceptsRanges = false;
    /// Set by the cache when it answered; never written to disk.
    bool fromCache = false;
};

/// The result of inspecting an object with HEAD. statusCode comes last here.
struct NORVANECLOUD_EXPORT CloudResourceMetadata {
    /// The URL the answer came from, after redirects.
    QUrl url;
    qint64 contentLength = -1;
    QByteArray etag;
    QByteArray lastModified;
    QByteArray contentType;
    bool acceptsRanges = false;
    qint32 statusCode = 0;
};

/// Configuration of one CloudRangeCache, fixed at its construction.
struct NORVANECLOUD_EXPORT CloudCacheOptions {
    /// Folder of the disk tier; empty lets the cache choose "Norvane/Cloud" below the user's cache location.
    QString directory;
    /// Limit on the bytes held in memory; below 1 the memory tier stores nothing.
    qint64 maximumMemoryBytes = 67108864;
    /// Limit on the entry file bytes on disk; below 1 the disk tier stores nothing.
    qint64 maximumDiskBytes = 1073741824;
    /// Age after which an entry is no longer served; 0 means entries never expire.
    qint64 maximumAgeSeconds = 86400;
    bool memoryEnabled = true;
    bool diskEnabled = true;
};

/// Counters and levels of a CloudRangeCache.
struct NORVANECLOUD_EXPORT CloudCacheStatistics {
    qint64 memoryHits = 0;
    qint64 diskHits = 0;
    qint64 misses = 0;
    qint64 writes = 0;
    qint64 evictions = 0;
    qint64 networkRequests = 0;
    /// Body bytes received, including any read ahead beyond the range before a whole-object answer was cut off.
    qint64 networkBytes = 0;
    qint64 cacheBytesServed = 0;
    /// Current bytes held in memory (a level).
    qint64 memoryBytes = 0;
    /// Current bytes of entry files on disk as the cache accounts for them (a level).
    qint64 diskBytes = 0;
};

/// A two-tier cache of byte ranges (and other answers) keyed by text: a memory tier with least-recently-used
/// eviction and a folder of ".nvc" entry files that outlive the process. Always held through shared ownership.
///
/// Thread-safe: one mutex guards every operation, disk work included. The disk tier never throws; a folder or
/// file that cannot be used degrades to "not stored" or "not found".
///
/// The folder rules: the disk tier is used only when its folder (created private to the user when missing) is a
/// folder that the user owns and that neither group nor others may write; otherwise the cache keeps entries in
/// memory only. Only files named as a key's entry (64 lower-case hexadecimal digits and ".nvc") belong to the
/// tier: other files are never measured, trimmed or cleared. An entry is a regular file reached without a symbolic
/// link; anything else under an entry name (a link, a FIFO, a device, a folder) is a damaged entry, like a corrupt
/// file, an entry stored more than a minute in the future or one that does not hold the range asked for: it is
/// deleted where possible and missed. A store writes a new file beside the entry and renames it over the name, so
/// it never writes through a link.
class NORVANECLOUD_EXPORT CloudRangeCache final {
public:
    /// Validates the limits, resolves and creates the folder, measures the entry files there and trims them to
    /// the disk limit. Throws std::invalid_argument "Cloud cache limits cannot be negative".
    explicit CloudRangeCache(CloudCacheOptions options = CloudCacheOptions());
    /// Releases memory only; entry files stay.
    ~CloudRangeCache();
    CloudRangeCache(const CloudRangeCache &) = delete;
    CloudRangeCache &operator=(const CloudRangeCache &) = delete;
    CloudRangeCache(CloudRangeCache &&) = delete;
    CloudRangeCache &operator=(CloudRangeCache &&) = delete;

    /// The options as held, with the folder resolved.
    const CloudCacheOptions &options() const;
    /// True and response overwritten (fromCache set) on a hit; false and response untouched on a miss.
    bool get(const QString &key, CloudRangeResponse &response);
    /// Stores in the enabled tiers; a response with empty data is ignored.
    void put(const QString &key, const CloudRangeResponse &response);
    /// Drops the key from both tiers. No counter moves.
    void remove(const QString &key);
    /// Empties both tiers; the counters keep their values.
    void clear();
    CloudCacheStatistics statistics() const;

    // The library's own readers share one fetch per key and count their transfers with these; they are not
    // exported, so a host never calls them.

    /// Like get, for the library's readers: a hit whose offset or data size differs from the range asked for
    /// (expectedSize -1: any hit holds) is a damaged entry, dropped from both tiers and missed. With countMiss false
    /// a miss counts nothing, so a reader can look again after claiming a key without a second miss. On a miss
    /// response may have changed.
    NORVANECLOUD_NO_EXPORT bool find(
        const QString &key, qint64 expectedOffset, qint64 expectedSize, bool countMiss, CloudRangeResponse &response);

    /// How beginFetch ended.
    enum class FetchTurn {
        /// The caller now owns the fetch of key and must call finishFetch.
        Claimed,
        /// Another thread's fetch of key ended while the caller waited; nothing is claimed: look in the cache again.
        Waited,
        /// The calling thread itself owns the fetch of key (a slot run by the nested event loop of that fetch):
        /// nothing is claimed and nothing awaited; fetch without claiming.
        OwnedByThisThread,
    };
    /// Claims key, or waits for another thread's fetch of it. While waiting, cancellationRequested (when set) is
    /// tested at least every 25 ms and timeoutMilliseconds (0: no limit) bounds the wait; they end it by throwing
    /// std::runtime_error "HTTP request cancelled" or "HTTP request timed out".
    NORVANECLOUD_NO_EXPORT FetchTurn beginFetch(
        const QString &key, const std::function<bool()> &cancellationRequested, int timeoutMilliseconds);
    /// Ends the caller's fetch of key and wakes every waiter, of any key, to look again.
    NORVANECLOUD_NO_EXPORT void finishFetch(const QString &key);
    NORVANECLOUD_NO_EXPORT void recordCacheTransfer(qint64 bytes);
    NORVANECLOUD_NO_EXPORT void recordNetworkTransfer(qint64 bytes);

private:
    class Private;
    std::unique_ptr<Private> d;
};

/// Reads byte ranges of HTTP(S) objects synchronously through a shared CloudRangeCache, and inspects objects
/// with HEAD. Every request goes on a connection of its own, in a nested event loop on the calling thread, and the
/// connection is closed before the call returns; the time-out bounds the whole call, redirects included. Redirects
/// are followed except from HTTPS to HTTP; the caller's headers are not sent to another origin (scheme, host or
/// port) than the URL's.
///
/// A call that goes to the network needs a Qt application object (QCoreApplication or derived) in the process:
/// without one it throws std::runtime_error "HTTP exchange requires a Qt application object" at once. Ranges the
/// cache holds are served without one.
/// Calls do not modify the reader, so several threads may read through one reader while no setter runs.
class NORVANECLOUD_EXPORT HttpRangeReader final {
public:
    /// A null cache makes the reader create its own with default options.
    explicit HttpRangeReader(std::shared_ptr<CloudRangeCache> cache = nullptr);
    ~HttpRangeReader();
    HttpRangeReader(const HttpRangeReader &) = delete;
    HttpRangeReader &operator=(const HttpRangeReader &) = delete;
    HttpRangeReader(HttpRangeReader &&) = delete;
    HttpRangeReader &operator=(HttpRangeReader &&) = delete;

    std::shared_ptr<CloudRangeCache> cache() const;
    /// Replaces the cache; with a null cache read never touches a cache.
    void setCache(std::shared_ptr<CloudRangeCache> cache);
    int timeoutMilliseconds() const;
    /// Throws std::invalid_argument "HTTP timeout must be positive" below 1; the value then stays as it was.
    void setTimeoutMilliseconds(int timeoutMilliseconds);
    QByteArray userAgent() const;
    void setUserAgent(const QByteArray &userAgent);

    /// The key (64 lower-case hexadecimal digits) under which read caches the request: a SHA-256 digest of the
    /// encoded URL, the range and the headers.
    static QString cacheKey(const CloudRangeRequest &request);

    /// Reads exactly request.length bytes, from the cache or the network. Of an answer with the whole object (200)
    /// no more is received than the range needs: request.length bytes at offset 0, nothing at another. Throws
    /// std::invalid_argument for bad arguments and std::runtime_error for cancellation, time-out, network failures and
    /// answers that do not match the request; exceptions of the operation context pass through unchanged.
    /// Before the cache is consulted, a URL whose scheme is not http or https is refused with "Cloud URL must use
    /// HTTP or HTTPS", and a header with an empty name or with CR, LF or NUL in its name or value with "HTTP header
    /// name is empty", "HTTP header name contains CR, LF or NUL" or "HTTP header value contains CR, LF or NUL".
    CloudRangeResponse read(const CloudRangeRequest &request) const;
    /// read() of a request with the three values and every other field at its default.
    CloudRangeResponse read(const QUrl &url, qint64 offset, qint64 length) const;
    /// One HEAD exchange; never uses the cache. Refuses URLs and headers as read() does.
    CloudResourceMetadata inspect(const QUrl &url, const QHash<QByteArray, QByteArray> &headers) const;

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace Norvane::Cloud
