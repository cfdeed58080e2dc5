#pragma once

// When an entry of the range cache, in either tier, is too old to be served.

#include <QtNumeric>

namespace Norvane::Cloud {

/// True when an entry stored at storedAtMilliseconds is older than maximumAgeSeconds at nowMilliseconds; a
/// maximum age of 0 keeps entries for ever, and an entry stored in the future is never expired (the disk tier
/// refuses one stored implausibly far ahead: see isCacheStoreTimeAhead).
///
/// Exact for every input: storedAt comes from files that may be corrupt, and the age limit may be any non-negative
/// number, so neither the age nor the limit in milliseconds may be computed in signed 64 bits.
inline bool isCacheEntryExpired(qint64 storedAtMilliseconds, qint64 nowMilliseconds, qint64 maximumAgeSeconds)
{
    if (maximumAgeSeconds <= 0 || storedAtMilliseconds >= nowMilliseconds)
        return false;
    // The difference of two signed 64-bit numbers always fits in an unsigned one.
    const quint64 ageMilliseconds = quint64(nowMilliseconds) - quint64(storedAtMilliseconds);
    quint64 limitMilliseconds = 0;
    if (qMulOverflow(quint64(maximumAgeSeconds), quint64(1000), &limitMilliseconds))
        return false;
    return ageMilliseconds > limitMilliseconds;
}

/// Clocks of machines sharing a folder, and a clock set back, may differ a little; more than a minute ahead is a
/// corrupt or planted store time, and such an entry would never expire.
inline constexpr qint64 cacheStoreTimeToleranceMilliseconds = 60000;

/// True when storedAtMilliseconds lies more than the tolerance after nowMilliseconds. Exact for every input.
inline bool isCacheStoreTimeAhead(qint64 storedAtMilliseconds, qint64 nowMilliseconds)
{
    return storedAtMilliseconds > nowMilliseconds
        && quint64(storedAtMilliseconds) - quint64(nowMilliseconds) > quint64(cacheStoreTimeToleranceMilliseconds);
}

} // namespace Norvane::Cloud
