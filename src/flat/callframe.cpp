#include "flat/callframe.h"

#include <algorithm>

namespace Norvane::Cloud {

QString textArgument(const char16_t *text)
{
    if (text == nullptr)
        return QString();
    return QString::fromUtf16(text);
}

QUrl urlArgument(const char16_t *text)
{
    return QUrl(textArgument(text), QUrl::TolerantMode);
}

qint32 copyResultText(const QString &text, char16_t *buffer, qint32 capacity)
{
    const qint32 length = static_cast<qint32>(text.size());
    if (buffer == nullptr || capacity <= 0)
        return length;
    const qint32 copied = std::min(capacity - 1, length);
    std::copy_n(reinterpret_cast<const char16_t *>(text.utf16()), copied, buffer);
    buffer[copied] = u'\0';
    return length;
}

} // namespace Norvane::Cloud
