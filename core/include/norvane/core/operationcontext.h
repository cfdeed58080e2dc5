#pragma once

// The host's operation context: cancellation, progress reporting and resource policy for long operations.
// Library code receives an OperationContext and calls isCancellationRequested, reportProgress and
// enforceResourceUsage on it; a host installs a progress sink and a resource policy to take part.

#include <norvane/core/norvanecore_export.h>

#include <QString>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <stdexcept>

namespace Norvane::Core::Operations {

/// A shared cancellation flag. Copies and assigned tokens share the flag of their source, so cancelling
/// any of them is seen by all. Thread-safe: any thread may cancel while another polls.
class NORVANECORE_EXPORT OperationCancellationToken final {
public:
    /// A fresh token that is not cancelled.
    OperationCancellationToken();
    OperationCancellationToken(const OperationCancellationToken &other);
    /// Makes this token share the source's flag: from now on it reports the source's cancellation.
    OperationCancellationToken &operator=(const OperationCancellationToken &other);
    OperationCancellationToken(OperationCancellationToken &&other) noexcept;
    OperationCancellationToken &operator=(OperationCancellationToken &&other) noexcept;
    ~OperationCancellationToken();

    /// Requests cancellation of every operation that watches this flag.
    void requestCancellation() const;
    bool isCancellationRequested() const;

private:
    class State;
    std::shared_ptr<State> state;
};

/// One progress report.
struct NORVANECORE_EXPORT OperationProgress {
    /// What state holds: UnderWay while the operation runs, Done once it has finished. The field stays a plain
    /// 32-bit number, so a host may use values of its own.
    enum State : qint32 {
        UnderWay = 2,
        Done = 4,
    };

    qint32 state = 0;
    qint32 percent = 0;
    qint64 completed = 0;
    qint64 total = 0;
    QString message;
    QVariantMap details;
};

/// What an operation is about to use; bytes is the number of bytes about to be transferred.
struct NORVANECORE_EXPORT OperationResourceUsage {
    qint64 bytes = 0;
};

/// The answer of a resource policy. A refusal is reported by throwing OperationRefusedError, so a returned
/// decision always lets the operation proceed.
struct NORVANECORE_EXPORT OperationResourcePolicyDecision {
    bool allowed = true;
    QString reason;
};

/// Thrown by OperationContext::enforceResourceUsage when the installed policy refuses a usage.
class NORVANECORE_EXPORT OperationRefusedError : public std::runtime_error {
public:
    explicit OperationRefusedError(const QString &reason);
};

using OperationProgressSink = std::function<void(const OperationProgress &progress)>;
using OperationResourcePolicy = std::function<OperationResourcePolicyDecision(
    const OperationResourceUsage &usage, const QString &component, const QString &resource)>;

/// The context handed to a long operation. A default-constructed context never reports cancellation,
/// accepts every progress report and lets every usage pass.
struct NORVANECORE_EXPORT OperationContext {
    OperationCancellationToken cancellationToken;
    /// Called synchronously, on the operation's thread, for every progress report; may be empty.
    OperationProgressSink progressSink;
    /// Asked before resources are used; may be empty (everything passes). A decision with allowed false
    /// is turned into OperationRefusedError, and the policy may also throw on its own.
    OperationResourcePolicy resourcePolicy;

    bool isCancellationRequested() const;
    void reportProgress(const OperationProgress &progress) const;
    /// Returns the policy's decision when it allows the usage; throws OperationRefusedError otherwise.
    OperationResourcePolicyDecision enforceResourceUsage(
        const OperationResourceUsage &usage, const QString &component, const QString &resource) const;
};

} // namespace Norvane::Core::Operations
