#pragma once

// The frame every flat function shares: the client record behind a handle, text crossing the boundary, the
// per-thread last error, the two call frames that turn exceptions into return values, and the guard that gives
// networked calls a Qt application object.

#include <norvanecloud/flat.h>
#include <norvanecloud/formats.h>
#include <norvanecloud/rangetransport.h>

#include <QByteArray>
#include <QHash>
#include <QMutex>
#include <QString>
#include <QUrl>

#include <exception>
#include <memory>
#include <mutex>
#include <string>

class QCoreApplication;

namespace Norvane::Cloud {

/// What a flat client handle stands for: one cache and one source of each format on it, plus the default request
/// headers and the time-out of every exchange. Members are built in declaration order and end in reverse.
struct CloudClient {
    explicit CloudClient(const CloudCacheOptions &options);

    std::shared_ptr<CloudRangeCache> cache;
    CogSource cog;
    GeoParquetSource geoParquet;
    PmTilesSource pmTiles;
    QHash<QByteArray, QByteArray> headers;
    int timeoutMilliseconds = 30000;
};

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

/// The calling thread's last-error text; empty until a flat call of this thread fails.
const QString &lastError();
void setLastError(const QString &message);
void clearLastError();

/// Borrowed zero-terminated UTF-16 as a QString; null reads as empty text.
QString textArgument(const char16_t *text);
/// The text parsed as a URL in tolerant mode; nothing checks its validity here.
QUrl urlArgument(const char16_t *text);
/// Copies as much of text as fits, always terminated, into a buffer of capacity units; with a null buffer or a
/// capacity below 1 nothing is written. Returns the full length of text.
qint32 copyResultText(const QString &text, char16_t *buffer, qint32 capacity);

/// The record behind a handle; throws std::invalid_argument "Cloud client is null" for a null handle.
CloudClient &clientFromHandle(NorvaneCloudClient *handle);

/// Runs an action yielding a QString: clears the last error, copies the text into the buffer and returns its
/// length; an exception of the standard family becomes the last error and -1, and the buffer stays untouched.
template <typename Action> qint32 callReturningText(char16_t *buffer, qint32 capacity, Action &&action) noexcept
{
    clearLastError();
    try {
        return copyResultText(action(), buffer, capacity);
    } catch (const std::exception &error) {
        setLastError(QString::fromUtf8(error.what()));
        return -1;
    }
}

/// Runs an action without a result: clears the last error and returns 1; an exception of the standard family
/// becomes the last error and 0.
template <typename Action> qint32 callReturningFlag(Action &&action) noexcept
{
    clearLastError();
    try {
        action();
        return 1;
    } catch (const std::exception &error) {
        setLastError(QString::fromUtf8(error.what()));
        return 0;
    }
}

} // namespace Norvane::Cloud

/// The opaque handle of the flat interface wraps the client record.
struct NorvaneCloudClient {
    explicit NorvaneCloudClient(const Norvane::Cloud::CloudCacheOptions &options)
        : client(options)
    {
    }

    Norvane::Cloud::CloudClient client;
};
