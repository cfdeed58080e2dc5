#include <norvane/core/operationcontext.h>

#include <atomic>
#include <utility>

namespace Norvane::Core::Operations {

class OperationCancellationToken::State {
public:
    std::atomic<bool> cancelled { false };
};

OperationCancellationToken::OperationCancellationToken()
    : state(std::make_shared<State>())
{
}

OperationCancellationToken::OperationCancellationToken(const OperationCancellationToken &other) = default;
OperationCancellationToken &OperationCancellationToken::operator=(const OperationCancellationToken &other) = default;

// A moved-from token keeps a flag of its own, so it stays usable and never shares the new owner's flag.
OperationCancellationToken::OperationCancellationToken(OperationCancellationToken &&other) noexcept
    : state(std::exchange(other.state, std::make_shared<State>()))
{
}

OperationCancellationToken &OperationCancellationToken::operator=(OperationCancellationToken &&other) noexcept
{
    if (this != &other)
        state = std::exchange(other.state, std::make_shared<State>());
    return *this;
}

OperationCancellationToken::~OperationCancellationToken() = default;

void OperationCancellationToken::requestCancellation() const
{
    state->cancelled.store(true, std::memory_order_release);
}

bool OperationCancellationToken::isCancellationRequested() const
{
    return state->cancelled.load(std::memory_order_acquire);
}

OperationRefusedError::OperationRefusedError(const QString &reason)
    : std::runtime_error(reason.toStdString())
{
}

bool OperationContext::isCancellationRequested() const
{
    return cancellationToken.isCancellationRequested();
}

void OperationContext::reportProgress(const OperationProgress &progress) const
{
    if (progressSink)
        progressSink(progress);
}

OperationResourcePolicyDecision OperationContext::enforceResourceUsage(
    const OperationResourceUsage &usage, const QString &component, const QString &resource) const
{
    if (!resourcePolicy)
        return {};
    OperationResourcePolicyDecision decision = resourcePolicy(usage, component, resource);
    if (!decision.allowed)
        throw OperationRefusedError(
            decision.reason.isEmpty() ? QStringLiteral("Operation refused by resource policy") : decision.reason);
    return decision;
}

} // namespace Norvane::Core::Operations
