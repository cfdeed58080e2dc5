#pragma once

// A line per HTTP exchange and per range served from the cache, on the logging category "norvane.cloud.exchange"
// at info level. The category is off by default, so the library writes nothing unless its host enables it, for
// instance with QLoggingCategory::setFilterRules("norvane.cloud.exchange.info=true").

#include "transport/httpexchange.h"

#include <QLoggingCategory>

namespace Norvane::Cloud::ExchangeLog {

Q_DECLARE_LOGGING_CATEGORY(exchangeCategory)

/// Runs exchange on request and, when the category is enabled, describes it: method, URL, range, how it ended
/// (status, time-out or cancellation), body bytes and milliseconds taken.
HttpExchange::Answer logged(
    const HttpExchange::Request &request, HttpExchange::Answer (*exchange)(const HttpExchange::Request &request));

/// Describes a range served from the cache, when the category is enabled.
void cacheHit(const QUrl &url, qint64 offset, qint64 length, qint64 bytes);

} // namespace Norvane::Cloud::ExchangeLog
