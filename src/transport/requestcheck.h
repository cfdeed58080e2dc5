#pragma once

// What every request must be before anything is done for it, cache look-ups included: only http and https leave
// the library (a URL from a remote catalogue must not make it read local files or other services), and no header
// can end its line early and smuggle in headers or a request of its own.

#include <QByteArray>
#include <QHash>
#include <QUrl>

namespace Norvane::Cloud::RequestCheck {

/// Whether the URL's scheme is http or https, the only ones that leave the library.
bool usesHttp(const QUrl &url);

/// Throws std::invalid_argument "Cloud URL must use HTTP or HTTPS" for any other scheme, then "HTTP header name is
/// empty", "HTTP header name contains CR, LF or NUL" or "HTTP header value contains CR, LF or NUL" for the first
/// header that breaks the rule.
void requireSendable(const QUrl &url, const QHash<QByteArray, QByteArray> &headers);

/// Whether the two URLs share scheme, host and port (the scheme's own port when none is given): where a caller's
/// headers may go.
bool isSameOrigin(const QUrl &first, const QUrl &second);

/// Where the reads after an inspection go: where the inspection ended up when that is the origin the caller named,
/// so a redirect is followed once; else the URL the caller gave, so each read follows the redirect again and the
/// caller's headers stay with their origin.
QUrl readLocation(const QUrl &given, const QUrl &inspected);

} // namespace Norvane::Cloud::RequestCheck
