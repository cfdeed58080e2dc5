#pragma once

// What every request must be before anything is done for it, cache look-ups included: only http and https leave
// the library (a URL from a remote catalogue must not make it read local files or other services), and no header
// can end its line early and smuggle in headers or a request of its own.

#include <QByteArray>
#include <QHash>
#include <QUrl>

namespace Norvane::Cloud::RequestCheck {

/// Throws std::invalid_argument "Cloud URL must use HTTP or HTTPS" for any other scheme, then "HTTP header name is
/// empty", "HTTP header name contains CR, LF or NUL" or "HTTP header value contains CR, LF or NUL" for the first
/// header that breaks the rule.
void requireSendable(const QUrl &url, const QHash<QByteArray, QByteArray> &headers);

} // namespace Norvane::Cloud::RequestCheck
