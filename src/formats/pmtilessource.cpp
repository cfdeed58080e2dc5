#include <norvanecloud/formats.h>

#include "formats/formatsmessages.h"
#include "formats/gdalaccess.h"
#include "formats/pmtilesheader.h"
#include "formats/probecommon.h"
#include "transport/cachedfetch.h"
#include "transport/cachekey.h"

#include <QFile>
#include <QFileInfo>

#include <stdexcept>

namespace Norvane::Cloud {

namespace {

QFileInfo existingLocalArchive(const QString &location)
{
    QFileInfo info(location);
    if (!info.isFile())
        throw std::invalid_argument(FormatsMessages::pmTilesLocalMissing);
    return info;
}

} // namespace

PmTilesSource::PmTilesSource(std::shared_ptr<CloudRangeCache> cache)
    : reader(std::make_unique<HttpRangeReader>(std::move(cache)))
{
}

PmTilesSource::~PmTilesSource() = default;
PmTilesSource::PmTilesSource(PmTilesSource &&other) noexcept = default;
PmTilesSource &PmTilesSource::operator=(PmTilesSource &&other) noexcept = default;

HttpRangeReader &PmTilesSource::rangeReader()
{
    return *reader;
}

const HttpRangeReader &PmTilesSource::rangeReader() const
{
    return *reader;
}

PmTilesProbeResult PmTilesSource::probe(const QString &location, const QHash<QByteArray, QByteArray> &headers) const
{
    PmTilesProbeResult result;
    result.remote = isRemoteLocation(location);
    if (result.remote) {
        const CloudResourceMetadata metadata = reader->inspect(QUrl(location, QUrl::TolerantMode), headers);
        copyInspection(result, metadata);
    } else {
        const QFileInfo info = existingLocalArchive(location);
        result.url = QUrl::fromLocalFile(info.absoluteFilePath());
        result.contentLength = info.size();
        result.contentType = QByteArray(pmTilesContentType);
        result.acceptsRanges = true;
    }

    // Read at the location as given, not where the inspection was redirected to.
    const CloudRangeResponse header = readRange(location, 0, pmTilesHeaderLength, headers);
    // A server that advertises nothing but answers with 206 does serve ranges; a server that sends no length in
    // the inspection may still name the total in Content-Range.
    result.acceptsRanges = result.acceptsRanges || header.acceptsRanges;
    if (result.contentLength < pmTilesHeaderLength && header.totalSize >= pmTilesHeaderLength)
        result.contentLength = header.totalSize;

    applyPmTilesHeader(result, header.data);
    return result;
}

PmTilesProbeResult PmTilesSource::probe(const QUrl &url, const QHash<QByteArray, QByteArray> &headers) const
{
    return probe(url.toString(QUrl::FullyEncoded), headers);
}

CloudRangeResponse PmTilesSource::readRange(
    const QString &location, qint64 offset, qint64 length, const QHash<QByteArray, QByteArray> &headers) const
{
    if (isRemoteLocation(location))
        return reader->read(rangeRequest(QUrl(location, QUrl::TolerantMode), offset, length, headers));

    const QFileInfo info = existingLocalArchive(location);
    const qint64 fileSize = info.size();
    if (offset < 0 || length < 1 || offset > fileSize || length > fileSize - offset)
        throw std::invalid_argument(FormatsMessages::pmTilesLocalOutOfBounds);

    // Local reads consult and fill the reader's cache whatever the caller asks, and claim and count nothing: only the
    // cache's own lookup and store counters move.
    const QString path = info.absoluteFilePath();
    const QString key = rangeCacheKey(QUrl::fromLocalFile(path).toEncoded(QUrl::FullyEncoded), offset, length, headers);
    const std::shared_ptr<CloudRangeCache> cache = reader->cache();
    return readThroughCache(
        cache.get(), key, CachedFetchRules { true, false, false },
        [&path, offset, length, fileSize] {
            QFile file(path);
            if (!file.open(QIODevice::ReadOnly) || !file.seek(offset))
                throw std::runtime_error(FormatsMessages::pmTilesLocalOpenFailed);
            CloudRangeResponse response;
            response.data = file.read(length);
            if (response.data.size() < length)
                throw std::runtime_error(FormatsMessages::pmTilesLocalTruncated);
            response.offset = offset;
            response.totalSize = fileSize;
            response.statusCode = 200;
            response.acceptsRanges = true;
            response.contentType = QByteArray(pmTilesContentType);
            return response;
        },
        {}, CachedFetchExpectation { offset, length, {}, 0 });
}

CloudCacheStatistics PmTilesSource::cacheStatistics() const
{
    const std::shared_ptr<CloudRangeCache> cache = reader->cache();
    return cache ? cache->statistics() : CloudCacheStatistics();
}

QString PmTilesSource::gdalVirtualPath(const QUrl &url) const
{
    return cloudObjectGdalVirtualPath(url);
}

QString PmTilesSource::gdalPath(const QString &location) const
{
    return gdalPathOfLocation(location);
}

} // namespace Norvane::Cloud
