#include "flat/lasterror.h"

#include <limits>

namespace Norvane::Cloud {

namespace {

QString &threadLastError()
{
    thread_local QString text;
    return text;
}

} // namespace

const QString &lastError()
{
    return threadLastError();
}

void setLastError(const QString &message)
{
    // Kept within what a signed 32-bit length counts, so reading it back can never fail.
    threadLastError() = message.left(std::numeric_limits<qint32>::max());
}

void clearLastError()
{
    threadLastError().clear();
}

} // namespace Norvane::Cloud
