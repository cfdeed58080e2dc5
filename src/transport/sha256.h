#pragma once

// SHA-256 for the cache's keys and file names, computed on every cached read: through libcrypto, which uses the
// processor's SHA instructions where it has them, several times faster than QCryptographicHash.

#include <QByteArray>

namespace Norvane::Cloud {

/// The 64 lower-case hexadecimal digits of the SHA-256 digest of bytes.
QByteArray sha256Hex(const QByteArray &bytes);

} // namespace Norvane::Cloud
