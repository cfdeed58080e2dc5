#include "formats/viewportplan.h"

#include "formats/formatsmessages.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace Norvane::Cloud {

namespace {
constexpr qint64 largestOffset = std::numeric_limits<qint64>::max();
}

bool isValidByteRange(const CogByteRange &range)
{
    return range.offset >= 0 && range.length >= 1 && range.offset <= largestOffset - range.length;
}

void validateByteRanges(const QList<CogByteRange> &ranges)
{
    for (const CogByteRange &range : ranges) {
        if (!isValidByteRange(range))
            throw std::invalid_argument(FormatsMessages::viewportRangeInvalid);
    }
}

QList<CogByteRange> coalesceByteRanges(QList<CogByteRange> ranges, qint64 coalesceGap)
{
    std::sort(ranges.begin(), ranges.end(),
        [](const CogByteRange &left, const CogByteRange &right) { return left.offset < right.offset; });

    QList<CogByteRange> merged;
    for (const CogByteRange &range : std::as_const(ranges)) {
        if (merged.isEmpty()) {
            merged.append(range);
            continue;
        }
        CogByteRange &current = merged.last();
        // Valid ranges end at or before the largest offset, so neither end nor the hole can overflow.
        const qint64 currentEnd = current.offset + current.length;
        const qint64 rangeEnd = range.offset + range.length;
        if (range.offset - currentEnd > coalesceGap)
            merged.append(range);
        else if (rangeEnd > currentEnd)
            current.length = rangeEnd - current.offset;
    }
    return merged;
}

qint64 sumOfLengths(const QList<CogByteRange> &ranges)
{
    qint64 sum = 0;
    for (const CogByteRange &range : ranges) {
        if (range.length > largestOffset - sum)
            return largestOffset;
        sum += range.length;
    }
    return sum;
}

int viewportPercent(qint64 completed, qint64 total)
{
    if (total <= 0 || completed <= 0)
        return 0;
    if (completed >= total)
        return 99;
    // completed * 100 / total without a wider integer type: add completed a hundred times, carrying whole totals.
    // Both stay below 2^63, so their unsigned sum cannot wrap.
    const quint64 divisor = quint64(total);
    quint64 remainder = 0;
    int percent = 0;
    for (int step = 0; step < 100; ++step) {
        remainder += quint64(completed);
        while (remainder >= divisor) {
            remainder -= divisor;
            ++percent;
        }
    }
    return std::min(99, percent);
}

} // namespace Norvane::Cloud
