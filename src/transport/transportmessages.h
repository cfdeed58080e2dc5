#pragma once

// Every message text of the range transport, once. Tests pin them exactly.

#include <QtGlobal>

namespace Norvane::Cloud::TransportMessages {

inline constexpr char cacheLimitsNegative[] = "Cloud cache limits cannot be negative";

inline constexpr char urlInvalid[] = "Cloud URL is invalid";
inline constexpr char offsetNegative[] = "Cloud range offset cannot be negative";
inline constexpr char lengthNotPositive[] = "Cloud range length must be positive";
inline constexpr char rangeOverflows[] = "Cloud byte range overflows";
inline constexpr char timeoutNotPositive[] = "HTTP timeout must be positive";
inline constexpr char urlSchemeNotHttp[] = "Cloud URL must use HTTP or HTTPS";
inline constexpr char headerNameEmpty[] = "HTTP header name is empty";
inline constexpr char headerNameBreaksLine[] = "HTTP header name contains CR, LF or NUL";
inline constexpr char headerValueBreaksLine[] = "HTTP header value contains CR, LF or NUL";

inline constexpr char requestCancelled[] = "HTTP request cancelled";
inline constexpr char requestTimedOut[] = "HTTP request timed out";
// %1 status code, %2 the network library's error text.
inline constexpr char requestFailed[] = "HTTP request failed (%1): %2";
// %1 status code.
inline constexpr char unexpectedStatus[] = "Unexpected HTTP status: %1";
inline constexpr char contentRangeMismatch[] = "HTTP Content-Range does not match the requested byte range";
inline constexpr char rangeIgnored[] = "HTTP server ignored the byte-range request";
// %1 bytes received, %2 bytes expected.
inline constexpr char lengthMismatch[] = "HTTP range returned %1 bytes; expected %2";
// Error texts of the exchange, worded by requestFailed. noErrorText stands beside a status that is not a failure of
// the exchange itself, such as a 3xx without a Location.
inline constexpr char noErrorText[] = "Unknown error";
// %1 the server's reason phrase.
inline constexpr char serverReplied[] = "Server replied: %1";
inline constexpr char closedBeforeAnswer[] = "Connection closed before an answer";
inline constexpr char answerIncomplete[] = "Connection closed before the answer was complete";
inline constexpr char malformedAnswer[] = "Malformed HTTP answer";
inline constexpr char headerTooLarge[] = "HTTP answer header exceeds 64 KiB";
inline constexpr char tooManyRedirects[] = "Too many redirects";
inline constexpr char schemeUnsupported[] = "URL scheme is not HTTP or HTTPS";
inline constexpr char redirectInsecure[] = "Redirect from HTTPS to HTTP refused";
inline constexpr char noApplicationObject[] = "HTTP exchange requires a Qt application object";

// What the range reader tells the host's operation context: its component name and its progress messages.
inline constexpr char readerComponent[] = "Norvane.Cloud.HttpRangeReader";
inline constexpr char progressReading[] = "Reading cloud byte range";
inline constexpr char progressFromCache[] = "Cloud byte range served from cache";
inline constexpr char progressDownloaded[] = "Cloud byte range downloaded";

} // namespace Norvane::Cloud::TransportMessages
