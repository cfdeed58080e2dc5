#include "flat/lasterror.h"

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
    threadLastError() = message;
}

void clearLastError()
{
    threadLastError().clear();
}

} // namespace Norvane::Cloud
