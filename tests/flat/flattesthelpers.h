#pragma once

// Calling the flat functions from C++ tests: UTF-16 arguments and results read with a size query first.

#include <norvanecloud/flat.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <string>
#include <vector>

namespace FlatTest {

/// Zero-terminated UTF-16 that outlives the call it is passed to.
inline std::u16string utf16(const QString &text)
{
    return std::u16string(reinterpret_cast<const char16_t *>(text.utf16()), static_cast<size_t>(text.size()));
}

inline QString lastErrorText()
{
    const int32_t length = NorvaneCloud_LastError(nullptr, 0);
    std::vector<char16_t> buffer(static_cast<size_t>(length) + 1);
    NorvaneCloud_LastError(buffer.data(), length + 1);
    return QString::fromUtf16(buffer.data(), length);
}

/// The outcome of one text function: its return value, the text, or the last error after a failure.
struct TextResult {
    int32_t length = -1;
    QString text;
    QString error;

    QJsonObject object() const { return QJsonDocument::fromJson(text.toUtf8()).object(); }
};

/// Asks for the length with a null buffer, then calls again with a buffer that fits. A failure of either call
/// ends the outcome there.
template <typename Call> TextResult callText(Call call)
{
    TextResult result;
    result.length = call(nullptr, 0);
    if (result.length < 0) {
        result.error = lastErrorText();
        return result;
    }
    std::vector<char16_t> buffer(static_cast<size_t>(result.length) + 1, u'\xffff');
    const int32_t second = call(buffer.data(), result.length + 1);
    if (second != result.length) {
        result.length = second;
        result.error = lastErrorText();
        return result;
    }
    result.text = QString::fromUtf16(buffer.data(), result.length);
    return result;
}

} // namespace FlatTest
