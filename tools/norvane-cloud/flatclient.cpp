#include "flatclient.h"

#include <norvanecloud/flat.h>

#include <QJsonDocument>

#include <stdexcept>
#include <vector>

namespace NorvaneCloudTool {

namespace {

QString lastError()
{
    const int32_t length = NorvaneCloud_LastError(nullptr, 0);
    std::vector<char16_t> buffer(size_t(length) + 1);
    NorvaneCloud_LastError(buffer.data(), int32_t(buffer.size()));
    return QString::fromUtf16(buffer.data(), length);
}

[[noreturn]] void failWithLastError()
{
    throw std::runtime_error(lastError().toStdString());
}

// Asks for the length first, then fills a buffer of that size; the second call repeats the work, which the
// client's cache answers.
template <typename Call> QString textResult(Call call)
{
    const int32_t length = call(nullptr, 0);
    if (length < 0)
        failWithLastError();
    std::vector<char16_t> buffer(size_t(length) + 1);
    const int32_t written = call(buffer.data(), int32_t(buffer.size()));
    if (written < 0)
        failWithLastError();
    return QString::fromUtf16(buffer.data(), std::min(written, length));
}

const char16_t *text(const QString &value)
{
    return reinterpret_cast<const char16_t *>(value.utf16());
}

QString compact(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

FlatClient::FlatClient(const GlobalOptions &global)
{
    QJsonObject options;
    if (!global.cacheDirectory.isEmpty())
        options.insert(QStringLiteral("directory"), global.cacheDirectory);
    if (global.noCache) {
        options.insert(QStringLiteral("memoryEnabled"), false);
        options.insert(QStringLiteral("diskEnabled"), false);
    }
    client = NorvaneCloud_CreateClient(text(compact(options)));
    if (!client)
        failWithLastError();
    QJsonObject headers;
    for (auto header = global.headers.constBegin(); header != global.headers.constEnd(); ++header)
        headers.insert(QString::fromUtf8(header.key()), QString::fromUtf8(header.value()));
    if (!NorvaneCloud_SetTimeout(client, global.timeoutMilliseconds)
        || !NorvaneCloud_SetHeadersJson(client, text(compact(headers)))) {
        const QString message = lastError();
        NorvaneCloud_DestroyClient(client);
        throw std::runtime_error(message.toStdString());
    }
}

FlatClient::~FlatClient()
{
    NorvaneCloud_DestroyClient(client);
}

QString FlatClient::cogProbe(const QString &url) const
{
    return textResult([&](char16_t *buffer, int32_t capacity) {
        return NorvaneCloud_CogProbeJson(client, text(url), nullptr, buffer, capacity);
    });
}

QString FlatClient::pmTilesInspect(const QString &location) const
{
    return textResult([&](char16_t *buffer, int32_t capacity) {
        return NorvaneCloud_PmTilesInspectJson(client, text(location), nullptr, buffer, capacity);
    });
}

QString FlatClient::geoParquetProbe(const QString &url) const
{
    return textResult([&](char16_t *buffer, int32_t capacity) {
        return NorvaneCloud_GeoParquetProbeJson(client, text(url), nullptr, buffer, capacity);
    });
}

QString FlatClient::stacSearch(const QString &catalog, const QJsonObject &request) const
{
    const QString requestText = compact(request);
    return textResult([&](char16_t *buffer, int32_t capacity) {
        return NorvaneCloud_StacSearchJson(client, text(catalog), text(requestText), buffer, capacity);
    });
}

QString FlatClient::stacResolveCogLayer(
    const QString &catalog, const QJsonObject &request, const QString &assetKey, int itemIndex) const
{
    const QString requestText = compact(request);
    return textResult([&](char16_t *buffer, int32_t capacity) {
        return NorvaneCloud_StacResolveCogLayerJson(
            client, text(catalog), text(requestText), text(assetKey), itemIndex, buffer, capacity);
    });
}

QString FlatClient::cacheStatistics() const
{
    return textResult(
        [&](char16_t *buffer, int32_t capacity) { return NorvaneCloud_CacheStatisticsJson(client, buffer, capacity); });
}

} // namespace NorvaneCloudTool
