#include "flat/callframe.h"

#include "flat/flatmessages.h"

#include <QStringView>

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace Norvane::Cloud {

QString textArgument(const char16_t *text)
{
    if (text == nullptr)
        return QString();
    // Not QString::fromUtf16: it takes a leading U+FEFF or U+FFFE as a byte-order mark, drops it and may swap the
    // bytes of every unit after it.
    return QStringView(text).toString();
}

QUrl urlArgument(const char16_t *text)
{
    return QUrl(textArgument(text), QUrl::TolerantMode);
}

qint32 resultLength(qsizetype units)
{
    if (units > std::numeric_limits<qint32>::max())
        throw std::length_error(FlatMessages::resultTooLong);
    return static_cast<qint32>(units);
}

qint32 copyResultText(const QString &text, char16_t *buffer, qint32 capacity)
{
    const qint32 length = resultLength(text.size());
    if (buffer == nullptr || capacity <= 0)
        return length;
    const qint32 copied = std::min(capacity - 1, length);
    std::copy_n(reinterpret_cast<const char16_t *>(text.utf16()), copied, buffer);
    buffer[copied] = u'\0';
    return length;
}

} // namespace Norvane::Cloud
