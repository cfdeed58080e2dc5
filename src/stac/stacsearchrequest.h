#pragma once

// Turning a StacSearchRequest into what goes on the wire: validation, the JSON body and the search URL.
// Pure functions, so the exact bytes can be tested without a server.

#include <norvanecloud/stac.h>

#include <QByteArray>
#include <QUrl>

namespace Norvane::Cloud::StacSearchRequests {

/// Throws std::invalid_argument for the first rule the request breaks: limit, then bbox size, then bbox
/// together with intersects.
void validate(const StacSearchRequest &request);
/// Compact JSON with the members in ascending key order; each optional member only when it is set.
QByteArray body(const StacSearchRequest &request);
/// The catalogue URL with "search" appended as a further path segment; query and fragment stay.
QUrl searchUrl(const QUrl &catalogUrl);

} // namespace Norvane::Cloud::StacSearchRequests
