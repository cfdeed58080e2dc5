#pragma once

// The frame every flat function runs in: text crossing the boundary in both directions, and the calls that turn
// an exception into a failure value and the calling thread's last error, so that none ever reaches the host.

#include "flat/lasterror.h"

#include <QString>
#include <QUrl>

#include <exception>

namespace Norvane::Cloud {

/// Borrowed zero-terminated UTF-16 as a QString, unit for unit; null reads as empty text.
QString textArgument(const char16_t *text);
/// The text parsed as a URL in tolerant mode; nothing checks its validity here.
QUrl urlArgument(const char16_t *text);
/// A count of UTF-16 units as the flat interface returns it; throws std::length_error "Result text is longer than
/// 2147483647 UTF-16 units" when a signed 32-bit length cannot hold it.
qint32 resultLength(qsizetype units);
/// Copies as much of text as fits, always terminated, into a buffer of capacity units; with a null buffer or a
/// capacity below 1 nothing is written. Returns the full length of text; a text too long for resultLength fails
/// before anything is written.
qint32 copyResultText(const QString &text, char16_t *buffer, qint32 capacity);

/// Runs an action with the last error cleared and returns what it returns; an exception of the standard family
/// becomes the last error and the call returns failed instead.
template <typename Result, typename Action> Result callReturning(Result failed, Action &&action) noexcept
{
    clearLastError();
    try {
        return action();
    } catch (const std::exception &error) {
        setLastError(QString::fromUtf8(error.what()));
        return failed;
    }
}

/// Runs an action yielding a QString, copies the text into the buffer and returns its length; on failure -1, and
/// the buffer stays untouched.
template <typename Action> qint32 callReturningText(char16_t *buffer, qint32 capacity, Action &&action) noexcept
{
    return callReturning<qint32>(-1, [&] { return copyResultText(action(), buffer, capacity); });
}

/// Runs an action without a result and returns 1; on failure 0.
template <typename Action> qint32 callReturningFlag(Action &&action) noexcept
{
    return callReturning<qint32>(0, [&] {
        action();
        return 1;
    });
}

} // namespace Norvane::Cloud
