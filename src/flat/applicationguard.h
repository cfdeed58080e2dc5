#pragma once

#include <QMutex>

#include <memory>
#include <mutex>
#include <string>

class QCoreApplication;

namespace Norvane::Cloud {

/// Gives one networked call a Qt application object when the host has none.
///
/// A temporary application object exists only while the call that made it holds the process-wide mutex, and
/// every guard decides whether the process has an application object while holding that same mutex. A call on
/// another thread therefore never sees a temporary object: it waits until the call that made it has destroyed it
/// and released the mutex, and then makes its own. Only an application object owned by the host lets a call
/// proceed without keeping the mutex; with one present the mutex is held just for the check and calls run side
/// by side.
///
/// QCoreApplication sets the process's C locale from the environment when it is constructed. A temporary one is
/// an implementation detail of the call, so the guard puts back the locale the host had once it is gone.
class ApplicationGuard final {
public:
    ApplicationGuard() noexcept;
    ~ApplicationGuard();
    ApplicationGuard(const ApplicationGuard &) = delete;
    ApplicationGuard &operator=(const ApplicationGuard &) = delete;
    ApplicationGuard(ApplicationGuard &&) = delete;
    ApplicationGuard &operator=(ApplicationGuard &&) = delete;

    /// True when this guard made the application object the call runs with.
    bool ownsApplication() const { return application != nullptr; }
    /// True when this guard keeps other networked calls waiting.
    bool holdsMutex() const { return mutexHeld; }

private:
    // QCoreApplication keeps references to the argument count and vector, so both live as long as it does.
    int argumentCount = 1;
    char programName[32] = {};
    char *arguments[2] = { nullptr, nullptr };
    std::unique_lock<QMutex> lock;
    bool mutexHeld = false;
    std::unique_ptr<QCoreApplication> application;
    std::string hostLocale;
};

} // namespace Norvane::Cloud
