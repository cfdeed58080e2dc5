#include <norvanecloud/formats.h>

#include "formats/coglayout.h"
#include "formats/cogstructure.h"
#include "formats/formatsmessages.h"
#include "formats/gdalaccess.h"
#include "formats/probecommon.h"
#include "formats/tiffheader.h"
#include "formats/viewportplan.h"
#include "transport/requestcheck.h"

#include <QFile>
#include <QFileInfo>

#include <stdexcept>

namespace Norvane::Cloud {

using Norvane::Core::Operations::OperationProgress;
using Norvane::Core::Operations::OperationResourceUsage;

namespace {

OperationProgress viewportProgress(OperationProgress::State state,
    qint32 percent,
    qint64 completed,
    qint64 total,
    const char *message,
    QVariantMap details)
{
    OperationProgress progress;
    progress.state = state;
    progress.percent = percent;
    progress.completed = completed;
    progress.total = total;
    progress.message = QLatin1String(message);
    progress.details = std::move(details);
    return progress;
}

OperationResourceUsage usageOfBytes(qint64 bytes)
{
    OperationResourceUsage usage;
    usage.bytes = bytes;
    return usage;
}

} // namespace

CogSource::CogSource(std::shared_ptr<CloudRangeCache> cache)
    : reader(std::make_unique<HttpRangeReader>(std::move(cache)))
{
}

CogSource::~CogSource() = default;

HttpRangeReader &CogSource::rangeReader()
{
    return *reader;
}

const HttpRangeReader &CogSource::rangeReader() const
{
    return *reader;
}

CogProbeResult CogSource::probe(const QUrl &url, const QHash<QByteArray, QByteArray> &headers) const
{
    const CloudResourceMetadata metadata = reader->inspect(url, headers);
    CogProbeResult result;
    copyInspection(result, metadata);

    const QUrl location = RequestCheck::readLocation(url, result.url);
    applyTiffHeader(result, reader->read(rangeRequest(location, 0, tiffHeaderReadLength, headers)).data);
    return result;
}

CogViewportResult CogSource::readViewport(const CogViewportRequest &request) const
{
    if (!request.url.isValid() || request.url.scheme().isEmpty())
        throw std::invalid_argument(FormatsMessages::viewportUrlInvalid);
    if (request.ranges.isEmpty())
        throw std::invalid_argument(FormatsMessages::viewportNoRanges);
    if (request.coalesceGap < 0)
        throw std::invalid_argument(FormatsMessages::viewportGapNegative);

    const auto &context = request.context;
    const QString component = QLatin1String(FormatsMessages::viewportComponent);
    const QString resource = request.url.toString();
    context.enforceResourceUsage(usageOfBytes(0), component, resource);

    validateByteRanges(request.ranges);
    const QList<CogByteRange> merged = coalesceByteRanges(request.ranges, request.coalesceGap);

    CogViewportResult result;
    result.overviewLevel = request.overviewLevel;
    result.requestedRanges = qint32(request.ranges.size());
    result.coalescedRanges = qint32(merged.size());
    result.requestedBytes = sumOfLengths(request.ranges);
    // Merged ranges are disjoint and lie below the largest offset, so their sum cannot overflow.
    const qint64 total = sumOfLengths(merged);

    context.enforceResourceUsage(usageOfBytes(total), component, resource);

    const QString overviewLevelKey = QStringLiteral("overviewLevel");
    const QString cacheHitsKey = QStringLiteral("cacheHits");
    context.reportProgress(
        viewportProgress(OperationProgress::UnderWay, 0, 0, total, FormatsMessages::viewportProgressReading,
            { { overviewLevelKey, result.overviewLevel }, { QStringLiteral("rangeCount"), qint64(merged.size()) } }));

    result.responses.reserve(merged.size());
    for (const CogByteRange &range : merged) {
        if (context.isCancellationRequested())
            throw std::runtime_error(FormatsMessages::viewportCancelled);

        CloudRangeRequest rangeRead = rangeRequest(request.url, range.offset, range.length, request.headers);
        // The read shares the viewport's cancellation (so a cancel interrupts a read under way) and its resource
        // policy, but reports its own progress nowhere: the viewport reports progress for the whole.
        rangeRead.context.cancellationToken = context.cancellationToken;
        rangeRead.context.resourcePolicy = context.resourcePolicy;

        CloudRangeResponse response = reader->read(rangeRead);
        result.bytesRead += response.data.size();
        if (response.fromCache)
            ++result.cacheHits;
        result.responses.append(std::move(response));

        context.reportProgress(viewportProgress(OperationProgress::UnderWay, viewportPercent(result.bytesRead, total),
            result.bytesRead, total, FormatsMessages::viewportProgressReading,
            { { overviewLevelKey, result.overviewLevel }, { cacheHitsKey, result.cacheHits } }));
    }

    context.reportProgress(
        viewportProgress(OperationProgress::Done, 100, result.bytesRead, total, FormatsMessages::viewportProgressReady,
            { { overviewLevelKey, result.overviewLevel }, { QStringLiteral("requestedRanges"), result.requestedRanges },
                { QStringLiteral("coalescedRanges"), result.coalescedRanges }, { cacheHitsKey, result.cacheHits } }));
    return result;
}

QString CogSource::gdalVirtualPath(const QUrl &url) const
{
    return cogGdalVirtualPath(url);
}

QHash<QByteArray, QByteArray> CogSource::recommendedGdalOptions(qint64 cacheSize) const
{
    return recommendedCogGdalOptions(cacheSize);
}

CogStructureResult CogSource::structure(const QUrl &url, const QHash<QByteArray, QByteArray> &headers) const
{
    const CloudResourceMetadata metadata = reader->inspect(url, headers);
    if (metadata.contentLength < 0)
        throw std::runtime_error(FormatsMessages::cogLengthUnknown);
    const QUrl location = RequestCheck::readLocation(url, metadata.url);
    const auto readRange = [this, &location, &headers](qint64 offset, qint64 length) {
        return reader->read(rangeRequest(location, offset, length, headers)).data;
    };
    CogStructureResult result = readCogStructure(readRange, metadata.contentLength);
    result.url = metadata.url;
    return result;
}

CogStructureResult CogSource::structureOfFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw std::invalid_argument(FormatsMessages::cogFileNotOpened);
    CogStructureResult result = readCogStructure(
        [&file](qint64 offset, qint64 length) { return file.seek(offset) ? file.read(length) : QByteArray(); },
        file.size());
    result.url = QUrl::fromLocalFile(QFileInfo(path).absoluteFilePath());
    return result;
}

QStringList CogSource::layoutViolations(const CogStructureResult &structure)
{
    return cogLayoutViolations(structure);
}

} // namespace Norvane::Cloud
