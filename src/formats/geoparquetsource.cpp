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
    const auto markerAt = [&](qint64 offset) {
        return reader->read(rangeRequest(url, offset, parquetMarkerLength, headers)).data == marker;
    };
    result.headerValid = markerAt(0);
    result.footerValid = markerAt(result.contentLength - parquetMarkerLength);

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
