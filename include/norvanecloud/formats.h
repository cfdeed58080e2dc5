#pragma once

// Format sources: Cloud Optimized GeoTIFF probes and coalesced viewport reads, PMTiles v3 probes and range reads,
// GeoParquet probes, and the GDAL access strings for all three.

#include <norvanecloud/rangetransport.h>

#include <QList>
#include <QStringList>

namespace Norvane::Cloud {

/// What a COG probe found. Field names are also the keys of the flat interface's probe document.
struct NORVANECLOUD_EXPORT CogProbeResult {
    /// The object's URL as the inspection reported it (after redirects).
    QUrl url;
    qint64 contentLength = -1;
    /// -1 when no offset was read, or a BigTIFF offset does not fit a signed 64-bit integer.
    qint64 firstIfdOffset = -1;
    /// "II", "MM", or empty when neither.
    QByteArray byteOrder;
    QByteArray etag;
    QByteArray contentType;
    bool acceptsRanges = false;
    bool tiffHeaderValid = false;
    bool bigTiff = false;
    bool firstIfdNearStart = false;
    bool cloudReadable = false;
    QString diagnostic;
};

/// One byte range of a COG object (a tile).
struct NORVANECLOUD_EXPORT CogByteRange {
    qint64 offset = 0;
    qint64 length = 0;
};

/// The tiles of one view: byte ranges in any order, overlaps and repeats allowed.
struct NORVANECLOUD_EXPORT CogViewportRequest {
    QUrl url;
    QList<CogByteRange> ranges;
    QHash<QByteArray, QByteArray> headers;
    /// Carried into the result and the progress details, never interpreted.
    qint32 overviewLevel = -1;
    /// Largest hole in bytes between two ranges that are still fetched by one read; 0 merges only overlapping or
    /// touching ranges.
    qint64 coalesceGap = 4096;
    Norvane::Core::Operations::OperationContext context;
};

/// The merged reads of one view. Every requested range lies wholly inside exactly one response; cut a tile out
/// of the response whose offset is at most the tile's and whose end reaches the tile's end.
struct NORVANECLOUD_EXPORT CogViewportResult {
    /// One response per merged range, in ascending order of offset.
    QList<CloudRangeResponse> responses;
    qint32 overviewLevel = -1;
    qint64 requestedBytes = 0;
    qint64 bytesRead = 0;
    qint32 requestedRanges = 0;
    qint32 coalescedRanges = 0;
    qint32 cacheHits = 0;
};

/// One image file directory (IFD) of a TIFF or BigTIFF object, as the file stores it. Tag values are read when
/// stored as SHORT, LONG or LONG8; a tag of another type counts as absent. Absent tags take their TIFF default
/// (photometric, which has none, stays -1).
struct NORVANECLOUD_EXPORT CogImageMetadata {
    /// Where the directory starts in the object.
    qint64 ifdOffset = -1;
    qint64 width = 0;
    qint64 height = 0;
    /// False for an image stored in strips.
    bool tiled = false;
    /// The tile size; for strips the image width and the rows per strip (at most the image height).
    qint64 tileWidth = 0;
    qint64 tileHeight = 0;
    qint32 samplesPerPixel = 1;
    /// One value per sample.
    QList<qint32> bitsPerSample;
    /// One value per sample: 1 unsigned integer, 2 signed integer, 3 floating point.
    QList<qint32> sampleFormat;
    qint32 compression = 1;
    qint32 predictor = 1;
    qint32 photometric = -1;
    /// 1 samples interleaved per pixel, 2 one plane per sample.
    qint32 planarConfiguration = 1;
    /// An overview of the main image.
    bool reducedResolution = false;
    /// A transparency mask.
    bool mask = false;
    /// One entry per tile or strip, in the file's order (row by row, plane after plane); offset and count 0 mark
    /// a tile that was never written.
    QList<qint64> tileOffsets;
    QList<qint64> tileByteCounts;
};

/// The image file directories of a TIFF or BigTIFF object, in the order of their chain.
struct NORVANECLOUD_EXPORT CogStructureResult {
    /// The object's URL as the inspection reported it (after redirects), or the local file's URL.
    QUrl url;
    /// "II" or "MM".
    QByteArray byteOrder;
    bool bigTiff = false;
    qint64 contentLength = -1;
    /// The main image first; overviews and masks follow as the file chains them.
    QList<CogImageMetadata> images;
};

/// Cloud Optimized GeoTIFF access: probe, coalesced viewport reads and GDAL access strings.
/// Owns one HttpRangeReader on the given cache. Neither copyable nor movable. Operations that touch the network
/// block and need a Qt application object (see HttpRangeReader).
class NORVANECLOUD_EXPORT CogSource final {
public:
    /// An empty cache makes the reader create its own with default options.
    explicit CogSource(std::shared_ptr<CloudRangeCache> cache = {});
    ~CogSource();
    CogSource(const CogSource &) = delete;
    CogSource &operator=(const CogSource &) = delete;
    CogSource(CogSource &&) = delete;
    CogSource &operator=(CogSource &&) = delete;

    HttpRangeReader &rangeReader();
    const HttpRangeReader &rangeReader() const;

    /// One HEAD inspection plus one 16-byte range read. An object that is not a usable TIFF is reported in the
    /// result (cloudReadable false and a diagnostic); network and argument failures of the reader propagate.
    CogProbeResult probe(const QUrl &url, const QHash<QByteArray, QByteArray> &headers) const;

    /// Validates, sorts and merges the ranges, then reads each merged range through the reader with progress,
    /// cancellation and resource checks on the request's context. Throws std::invalid_argument for a bad request
    /// and std::runtime_error "COG viewport request cancelled"; failures of the reads propagate.
    CogViewportResult readViewport(const CogViewportRequest &request) const;

    /// "/vsicurl/" followed by the fully encoded URL. Throws std::invalid_argument
    /// "COG URL must use HTTP or HTTPS" for any other scheme or an invalid URL.
    QString gdalVirtualPath(const QUrl &url) const;
    /// GDAL configuration options for COG access over HTTP. Throws std::invalid_argument
    /// "GDAL COG cache size must be positive" when cacheSize is below 1.
    QHash<QByteArray, QByteArray> recommendedGdalOptions(qint64 cacheSize) const;

    /// Reads the header and every image file directory of the object: one HEAD inspection for the length, then
    /// range reads of aligned 16 KiB blocks (larger tag arrays in one read of their own) through the reader with
    /// the given headers, so they are cached like every read. Throws std::runtime_error "COG object length is
    /// unknown" when the inspection gives no length, and std::runtime_error with a sentence naming the fault for
    /// a header or directory that cannot be read safely (a directory chain that loops or has more than 256
    /// directories, a directory of more than 65535 entries, counts or offsets outside the object, more than 16 Mi
    /// tag values in all, missing or inconsistent layout tags); failures of the reader propagate.
    CogStructureResult structure(const QUrl &url, const QHash<QByteArray, QByteArray> &headers) const;
    /// The same for a local file, read directly without cache. Throws std::invalid_argument "COG local file could
    /// not be opened", and the data failures of structure().
    static CogStructureResult structureOfFile(const QString &path);
    /// The layout rules of a cloud-optimised file that the structure breaks, each as one fixed sentence in this
    /// order: main image tiled; an image larger than one tile has overviews; overviews tiled; every directory
    /// ahead of the image data; overview data ahead of the full-resolution data; the tile offsets of each image
    /// increasing. Empty when every rule holds. Never throws.
    static QStringList layoutViolations(const CogStructureResult &structure);

private:
    std::unique_ptr<HttpRangeReader> reader;
};

/// What a PMTiles probe found. 64-bit header values are stored bit for bit (a top-bit value reads negative).
struct NORVANECLOUD_EXPORT PmTilesProbeResult {
    QUrl url;
    qint64 contentLength = -1;
    QByteArray etag;
    QByteArray contentType;
    bool acceptsRanges = false;
    bool headerValid = false;
    qint32 specificationVersion = 0;
    qint64 rootDirectoryOffset = 0;
    qint64 rootDirectoryLength = 0;
    qint64 metadataOffset = 0;
    qint64 metadataLength = 0;
    qint64 tileDataOffset = 0;
    qint64 tileDataLength = 0;
    qint32 minimumZoom = 0;
    qint32 maximumZoom = 0;
    qint32 tileType = 0;
    /// "vector", "raster" or "unknown".
    QString tileKind;
    bool remote = false;
    bool cloudReadable = false;
    QString diagnostic;
};

/// PMTiles v3 archives, remote over HTTP(S) or local files: probe and byte-range reads.
/// Movable, not copyable; a moved-from source may only be destroyed or assigned to.
class NORVANECLOUD_EXPORT PmTilesSource final {
public:
    explicit PmTilesSource(std::shared_ptr<CloudRangeCache> cache = {});
    ~PmTilesSource();
    PmTilesSource(const PmTilesSource &) = delete;
    PmTilesSource &operator=(const PmTilesSource &) = delete;
    PmTilesSource(PmTilesSource &&other) noexcept;
    PmTilesSource &operator=(PmTilesSource &&other) noexcept;

    HttpRangeReader &rangeReader();
    const HttpRangeReader &rangeReader() const;

    /// location is an HTTP(S) URL or a local file path. Throws std::invalid_argument
    /// "PMTiles local archive does not exist" for a local path that is not a file; network failures propagate.
    PmTilesProbeResult probe(const QString &location, const QHash<QByteArray, QByteArray> &headers) const;
    /// Probes the URL's fully encoded text through the text form.
    PmTilesProbeResult probe(const QUrl &url, const QHash<QByteArray, QByteArray> &headers) const;
    /// One range of a remote or local archive; local reads go through the same cache.
    CloudRangeResponse readRange(
        const QString &location, qint64 offset, qint64 length, const QHash<QByteArray, QByteArray> &headers) const;
    /// The statistics of the reader's cache; all counters 0 when the reader has none.
    CloudCacheStatistics cacheStatistics() const;

    /// Throws std::invalid_argument "Cloud object URL must use HTTP or HTTPS" for other schemes.
    QString gdalVirtualPath(const QUrl &url) const;
    /// The virtual path of an HTTP(S) address, or the absolute file path of anything else. Never throws.
    QString gdalPath(const QString &location) const;

private:
    std::unique_ptr<HttpRangeReader> reader;
};

/// What a GeoParquet probe found.
struct NORVANECLOUD_EXPORT GeoParquetProbeResult {
    QUrl url;
    qint64 contentLength = -1;
    QByteArray etag;
    QByteArray contentType;
    bool acceptsRanges = false;
    bool headerValid = false;
    bool footerValid = false;
    bool cloudReadable = false;
    QString diagnostic;
};

/// GeoParquet objects over HTTP(S): a probe of the "PAR1" markers at both ends.
/// Movable, not copyable; a moved-from source may only be destroyed or assigned to.
class NORVANECLOUD_EXPORT GeoParquetSource final {
public:
    explicit GeoParquetSource(std::shared_ptr<CloudRangeCache> cache = {});
    ~GeoParquetSource();
    GeoParquetSource(const GeoParquetSource &) = delete;
    GeoParquetSource &operator=(const GeoParquetSource &) = delete;
    GeoParquetSource(GeoParquetSource &&other) noexcept;
    GeoParquetSource &operator=(GeoParquetSource &&other) noexcept;

    HttpRangeReader &rangeReader();
    const HttpRangeReader &rangeReader() const;

    /// One inspection and, for objects of 8 bytes or more, two 4-byte range reads at the given URL.
    GeoParquetProbeResult probe(const QUrl &url, const QHash<QByteArray, QByteArray> &headers) const;
    /// Throws std::invalid_argument "Cloud object URL must use HTTP or HTTPS" for other schemes.
    QString gdalVirtualPath(const QUrl &url) const;

private:
    std::unique_ptr<HttpRangeReader> reader;
};

} // namespace Norvane::Cloud
