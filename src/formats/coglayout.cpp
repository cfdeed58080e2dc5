#include "formats/coglayout.h"

#include "formats/formatsmessages.h"

namespace Norvane::Cloud {

namespace {

// The smallest offset of written data, or -1 when the image has none.
qint64 firstDataOffset(const CogImageMetadata &image)
{
    qint64 first = -1;
    for (qsizetype index = 0; index < image.tileOffsets.size(); ++index) {
        if (image.tileByteCounts.value(index) > 0 && (first < 0 || image.tileOffsets[index] < first))
            first = image.tileOffsets[index];
    }
    return first;
}

bool offsetsIncrease(const CogImageMetadata &image)
{
    qint64 previous = -1;
    for (qsizetype index = 0; index < image.tileOffsets.size(); ++index) {
        if (image.tileByteCounts.value(index) <= 0)
            continue;
        if (image.tileOffsets[index] <= previous)
            return false;
        previous = image.tileOffsets[index];
    }
    return true;
}

} // namespace

QStringList cogLayoutViolations(const CogStructureResult &structure)
{
    QStringList violations;
    if (structure.images.isEmpty())
        return violations;
    const CogImageMetadata &main = structure.images.first();
    const qint64 mainData = firstDataOffset(main);
    bool hasOverviews = false;
    bool overviewsTiled = true;
    bool overviewDataFirst = true;
    bool offsetsOrdered = true;
    qint64 lastIfd = -1;
    qint64 firstData = -1;
    for (const CogImageMetadata &image : structure.images) {
        const bool overview = image.reducedResolution && !image.mask;
        const qint64 data = firstDataOffset(image);
        hasOverviews = hasOverviews || overview;
        overviewsTiled = overviewsTiled && (!overview || image.tiled);
        overviewDataFirst = overviewDataFirst && !(overview && data >= 0 && mainData >= 0 && data > mainData);
        offsetsOrdered = offsetsOrdered && offsetsIncrease(image);
        lastIfd = qMax(lastIfd, image.ifdOffset);
        if (data >= 0 && (firstData < 0 || data < firstData))
            firstData = data;
    }

    const auto check = [&violations](bool holds, const char *rule) {
        if (!holds)
            violations.append(QLatin1String(rule));
    };
    check(main.tiled, FormatsMessages::layoutMainNotTiled);
    check(hasOverviews || (main.width <= main.tileWidth && main.height <= main.tileHeight),
        FormatsMessages::layoutNoOverviews);
    check(overviewsTiled, FormatsMessages::layoutOverviewNotTiled);
    check(firstData < 0 || lastIfd < firstData, FormatsMessages::layoutIfdAfterData);
    check(overviewDataFirst, FormatsMessages::layoutOverviewDataAfter);
    check(offsetsOrdered, FormatsMessages::layoutOffsetsUnordered);
    return violations;
}

} // namespace Norvane::Cloud
