#include "flat/flatframe.h"

#include "flat/flatmessages.h"

#include <QCoreApplication>

#include <algorithm>
#include <clocale>
#include <cstring>
#include <stdexcept>

namespace Norvane::Cloud {

namespace {

QMutex &applicationMutex()
{
    static QMutex mutex;
    return mutex;
}

QString &threadLastError()
{
    thread_local QString text;
    return text;
}

} // namespace

CloudClient::CloudClient(const CloudCacheOptions &options)
    : cache(std::make_shared<CloudRangeCache>(options))
    , cog(cache)
    , geoParquet(cache)
    , pmTiles(cache)
{
}

ApplicationGuard::ApplicationGuard() noexcept
    : lock(applicationMutex(), std::defer_lock)
{
    static_assert(sizeof(FlatMessages::applicationName) <= sizeof(programName));
    std::memcpy(programName, FlatMessages::applicationName, sizeof(FlatMessages::applicationName));

    // The check runs under the mutex: a temporary object made by another call exists only while that call holds
    // the mutex, so an object seen here belongs to the host.
    lock.lock();
    mutexHeld = true;
    if (QCoreApplication::instance() != nullptr) {
        lock.unlock();
        mutexHeld = false;
        return;
    }
    // Nothing may leave the guard: it runs outside the call's frame. Without an application object the call
    // fails in its exchange with a message of its own.
    try {
        if (const char *locale = std::setlocale(LC_ALL, nullptr))
            hostLocale = locale;
        arguments[0] = programName;
        application = std::make_unique<QCoreApplication>(argumentCount, arguments);
    } catch (const std::exception &) {
        application.reset();
    }
}

ApplicationGuard::~ApplicationGuard()
{
    if (application) {
        application.reset();
        if (!hostLocale.empty())
            std::setlocale(LC_ALL, hostLocale.c_str());
    }
    if (mutexHeld) {
        lock.unlock();
        mutexHeld = false;
    }
}

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

QString textArgument(const char16_t *text)
{
    if (text == nullptr)
        return QString();
    return QString::fromUtf16(text);
}

QUrl urlArgument(const char16_t *text)
{
    return QUrl(textArgument(text), QUrl::TolerantMode);
}

qint32 copyResultText(const QString &text, char16_t *buffer, qint32 capacity)
{
    const qint32 length = static_cast<qint32>(text.size());
    if (buffer == nullptr || capacity <= 0)
        return length;
    const qint32 copied = std::min(capacity - 1, length);
    std::copy_n(reinterpret_cast<const char16_t *>(text.utf16()), copied, buffer);
    buffer[copied] = u'\0';
    return length;
}

CloudClient &clientFromHandle(NorvaneCloudClient *handle)
{
    if (handle == nullptr)
        throw std::invalid_argument(FlatMessages::clientNull);
    return handle->client;
}

} // namespace Norvane::Cloud
