#include <norvanecloud/formats.h>

#include "formats/formatsmessages.h"
#include "formats/gdalaccess.h"
#include "formats/probecommon.h"

namespace Norvane::Cloud {

namespace {

constexpr qint64 parquetMarkerLength = 4;
// A file holds at least its two markers.
constexpr qint64 parquetMinimumLength = 2 * parquetMarkerLength;

} // namespace

GeoParquetSource::GeoParquetSource(std::shared_ptr<CloudRangeCache> cache)
    : reader(std::make_unique<HttpRangeReader>(std::move(cache)))
{
}

GeoParquetSource::~GeoParquetSource() = default;
GeoParquetSource::GeoParquetSource(GeoParquetSource &&other) noexcept = default;
GeoParquetSource &GeoParquetSource::operator=(GeoParquetSource &&other) noexcept = default;

HttpRangeReader &GeoParquetSource::rangeReader()
{
    return *reader;
}

const HttpRangeReader &GeoParquetSource::rangeReader() const
{
    return *reader;
}

GeoParquetProbeResult GeoParquetSource::probe(const QUrl &url, const QHash<QByteArray, QByteArray> &headers) const
{
    const CloudResourceMetadata metadata = reader->inspect(url, headers);
    GeoParquetProbeResult result;
    copyInspection(result, metadata);

    // Without a known length there is no end to read the footer marker from.
    if (result.contentLength < parquetMinimumLength) {
        result.diagnostic = QLatin1String(FormatsMessages::parquetTooSmall);
        return result;
    }

    // Both markers are read at the URL as given, not where the inspection was redirected to.
    const QByteArray marker = QByteArrayLiteral("PAR1");
    const CloudRangeResponse header = reader->read(rangeRequest(url, 0, parquetMarkerLength, headers));
    result.headerValid = header.data == marker;
    // A server that answered the first range with the whole object would refuse the footer read as well; the
    // verdict stands without it.
    if (header.statusCode != 200) {
        const qint64 footerOffset = result.contentLength - parquetMarkerLength;
        result.footerValid = reader->read(rangeRequest(url, footerOffset, parquetMarkerLength, headers)).data == marker;
    }

    result.cloudReadable = result.acceptsRanges && result.headerValid && result.footerValid;
    result.diagnostic
        = QLatin1String(result.cloudReadable ? FormatsMessages::parquetReadable : FormatsMessages::parquetNotReadable);
    return result;
}

QString GeoParquetSource::gdalVirtualPath(const QUrl &url) const
{
    return cloudObjectGdalVirtualPath(url);
}

} // namespace Norvane::Cloud
