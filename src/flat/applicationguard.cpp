#include "flat/applicationguard.h"

#include "flat/flatmessages.h"

#include <QCoreApplication>

#include <clocale>
#include <cstring>
#include <exception>

namespace Norvane::Cloud {

namespace {

QMutex &applicationMutex()
{
    static QMutex mutex;
    return mutex;
}

} // namespace

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

} // namespace Norvane::Cloud
