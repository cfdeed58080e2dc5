#pragma once

// The calling thread's last-error text: empty until a flat call of this thread fails, set by the call frames and
// read by the host. Reading never changes it.

#include <QString>

namespace Norvane::Cloud {

const QString &lastError();
void setLastError(const QString &message);
void clearLastError();

} // namespace Norvane::Cloud
