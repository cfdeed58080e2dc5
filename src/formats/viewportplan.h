#pragma once

// The reading plan of a COG viewport: range validation and the merge of nearby ranges into few reads. Pure
// functions of their arguments, so they are tested and measured without a network.

#include <norvanecloud/formats.h>

#include <QList>

namespace Norvane::Cloud {

/// Offset at least 0, length at least 1, and the end not beyond the largest signed 64-bit value.
bool isValidByteRange(const CogByteRange &range);

/// Throws std::invalid_argument "COG viewport contains an invalid byte range" for the first range, in list order,
/// that is not valid.
void validateByteRanges(const QList<CogByteRange> &ranges);

/// Sorts a copy of valid ranges by offset and merges, in one pass, every range whose hole to the merged range
/// before it is at most coalesceGap bytes (0: only overlapping or touching ranges). The result is in ascending
/// order of offset and every input range lies wholly inside exactly one merged range. The ranges must be valid and
/// coalesceGap must not be negative.
QList<CogByteRange> coalesceByteRanges(QList<CogByteRange> ranges, qint64 coalesceGap);

/// Sum of the lengths, saturated at the largest signed 64-bit value (requested ranges may overlap, so their sum
/// is not bounded by the object's size).
qint64 sumOfLengths(const QList<CogByteRange> &ranges);

/// min(99, completed * 100 / total) exactly, without overflow; 0 when total or completed is not
/// positive.
int viewportPercent(qint64 completed, qint64 total);

} // namespace Norvane::Cloud
