#include "flat/applicationguard.h"

#include "flat/flatmessages.h"

#include <QCoreApplication>

#include <atomic>
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

// The handler the process had before a quiet construction began; every message but Qt's warning goes on to it.
std::atomic<QtMessageHandler> hostMessageHandler { nullptr };

void withoutThreadWarning(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (type == QtWarningMsg && message == QLatin1String(FlatMessages::applicationThreadWarning))
        return;
    hostMessageHandler.load()(type, context, message);
}

// Qt warns on stderr when an application object is made on another thread than the first one that used Qt. For a
// temporary object that is the normal case, and the library writes nothing: for just the construction, under the
// process-wide mutex, that one warning is held back.
std::unique_ptr<QCoreApplication> quietApplication(int &argumentCount, char **arguments)
{
    hostMessageHandler.store(qInstallMessageHandler(withoutThreadWarning));
    struct Restore {
        ~Restore()
        {
            // Put back only our own filter: a handler the host installed meanwhile stays.
            const QtMessageHandler current = qInstallMessageHandler(hostMessageHandler.load());
            if (current != withoutThreadWarning)
                qInstallMessageHandler(current);
        }
    } restore;
    return std::make_unique<QCoreApplication>(argumentCount, arguments);
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
        application = quietApplication(argumentCount, arguments);
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
