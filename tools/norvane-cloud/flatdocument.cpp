#include "flatdocument.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <memory>
#include <stdexcept>
#include <vector>

namespace NorvaneCloudTool {

namespace {

[[noreturn]] void failWithLastError()
{
    const int32_t length = NorvaneCloud_LastError(nullptr, 0);
    std::vector<char16_t> buffer(size_t(length) + 1);
    NorvaneCloud_LastError(buffer.data(), int32_t(buffer.size()));
    throw std::runtime_error(QStringView(buffer.data(), length).toString().toStdString());
}

QString compact(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

const char16_t *utf16(const QString &text)
{
    return reinterpret_cast<const char16_t *>(text.utf16());
}

QString flatDocument(const GlobalOptions &global, const FlatTextCall &call)
{
    QJsonObject options;
    if (!global.cacheDirectory.isEmpty())
        options.insert(QStringLiteral("directory"), global.cacheDirectory);
    if (global.noCache) {
        options.insert(QStringLiteral("memoryEnabled"), false);
        options.insert(QStringLiteral("diskEnabled"), false);
    }
    const std::unique_ptr<NorvaneCloudClient, void (*)(NorvaneCloudClient *)> client(
        NorvaneCloud_CreateClient(utf16(compact(options))), NorvaneCloud_DestroyClient);
    QJsonObject headers;
    for (auto header = global.headers.constBegin(); header != global.headers.constEnd(); ++header)
        headers.insert(QString::fromUtf8(header.key()), QString::fromUtf8(header.value()));
    if (!client || !NorvaneCloud_SetTimeout(client.get(), global.timeoutMilliseconds)
        || !NorvaneCloud_SetHeadersJson(client.get(), utf16(compact(headers))))
        failWithLastError();

    std::vector<char16_t> buffer(64 * 1024);
    int32_t length = call(client.get(), buffer.data(), int32_t(buffer.size()));
    if (length >= int32_t(buffer.size())) {
        buffer.resize(size_t(length) + 1);
        length = call(client.get(), buffer.data(), int32_t(buffer.size()));
    }
    if (length < 0)
        failWithLastError();
    return QStringView(buffer.data(), std::min<qsizetype>(length, qsizetype(buffer.size()) - 1)).toString();
}

} // namespace NorvaneCloudTool
