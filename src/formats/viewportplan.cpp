#include "formats/viewportplan.h"

#include "formats/formatsmessages.h"

#include <QtNumeric>

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace Norvane::Cloud {

namespace {
constexpr qint64 largestOffset = std::numeric_limits<qint64>::max();
}

bool isValidByteRange(const CogByteRange &range)
{
    qint64 end = 0;
    return range.offset >= 0 && range.length >= 1 && !qAddOverflow(range.offset, range.length, &end);
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
        if (qAddOverflow(sum, range.length, &sum))
            return largestOffset;
    }
    return sum;
}

int viewportPercent(qint64 completed, qint64 total)
{
    if (total <= 0 || completed <= 0)
        return 0;
    if (completed >= total)
        return 99;
    // From here on completed is below total, so the quotient is at most 99 and needs no cap.
    qint64 hundredfold = 0;
    if (!qMulOverflow(completed, qint64(100), &hundredfold))
        return int(hundredfold / total);

    // Beyond 2^63 / 100 bytes the product needs more than 64 bits, so the same quotient comes from long division
    // over the binary digits of 100: the remainder stays below total and never more than doubles, so it cannot wrap.
    const quint64 divisor = quint64(total);
    quint64 remainder = 0;
    int percent = 0;
    const auto carry = [&] {
        if (remainder >= divisor) {
            remainder -= divisor;
            ++percent;
        }
    };
    for (int bit = 6; bit >= 0; --bit) {
        percent *= 2;
        remainder *= 2;
        carry();
        if ((100 >> bit) & 1) {
            remainder += quint64(completed);
            carry();
        }
    }
    return percent;
}

} // namespace Norvane::Cloud
