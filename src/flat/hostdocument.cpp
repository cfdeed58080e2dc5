#include "flat/hostdocument.h"

#include "flat/callframe.h"
#include "flat/flatdocuments.h"

#include <QJsonDocument>

#include <algorithm>
#include <limits>
#include <optional>

namespace Norvane::Cloud {

namespace {

bool isDigit(char character)
{
    return character >= '0' && character <= '9';
}

bool isNumberCharacter(char character)
{
    return isDigit(character) || character == '-' || character == '+' || character == '.' || character == 'e'
        || character == 'E';
}

// The value of a JSON number token when it is a whole number within 64 bits, worked out from its decimal digits:
// through a double, 9007199254740993.0 would come back as ...992, and 9223372036854775807.0 would not fit at all.
std::optional<qint64> exactInteger(const QByteArray &token)
{
    const bool negative = token.startsWith('-');
    QByteArray digits;
    qint64 exponent = 0;
    bool fraction = false;
    qsizetype at = negative ? 1 : 0;
    for (; at < token.size() && token.at(at) != 'e' && token.at(at) != 'E'; ++at) {
        if (token.at(at) == '.') {
            fraction = true;
        } else {
            digits += token.at(at);
            exponent -= fraction ? 1 : 0;
        }
    }
    // The written exponent, saturated far beyond any digit count a document can hold.
    const qint64 bound = qint64(1) << 40;
    const bool exponentNegative = at + 1 < token.size() && token.at(at + 1) == '-';
    qint64 written = 0;
    for (++at; at < token.size(); ++at) {
        if (isDigit(token.at(at)))
            written = std::min(bound, written * 10 + (token.at(at) - '0'));
    }
    exponent += exponentNegative ? -written : written;

    qsizetype first = 0;
    while (first < digits.size() && digits.at(first) == '0')
        ++first;
    if (first == digits.size())
        return 0;
    qsizetype end = digits.size();
    for (; digits.at(end - 1) == '0'; ++exponent)
        --end;
    if (exponent < 0 || end - first + exponent > 19)
        return std::nullopt;
    // At most 19 digits: below 2^64, so the unsigned conversion is exact.
    const quint64 magnitude = (digits.mid(first, end - first) + QByteArray(exponent, '0')).toULongLong();
    const quint64 largest = quint64(std::numeric_limits<qint64>::max()) + (negative ? 1 : 0);
    if (magnitude > largest)
        return std::nullopt;
    return negative ? qint64(0 - magnitude) : qint64(magnitude);
}

// The document with each number turned into a string of its own text behind a "#", and every other string (keys
// included) behind a "'", so that parsing it keeps the exact text of every number and no string can pass for one.
// Only given a document that parsed, where numbers are the only tokens outside strings that start with "-" or a
// digit.
QByteArray numbersAsTexts(const QByteArray &document)
{
    QByteArray tagged;
    tagged.reserve(document.size() + document.size() / 2);
    for (qsizetype at = 0; at < document.size();) {
        const char character = document.at(at);
        qsizetype end = at + 1;
        if (character == '"') {
            for (; end < document.size() && document.at(end) != '"'; ++end)
                end += document.at(end) == '\\' ? 1 : 0;
            tagged += "\"'" + document.mid(at + 1, end - at);
            ++end;
        } else if (character == '-' || isDigit(character)) {
            while (end < document.size() && isNumberCharacter(document.at(end)))
                ++end;
            tagged += "\"#" + document.mid(at, end - at) + '"';
        } else {
            tagged += character;
        }
        at = end;
    }
    return tagged;
}

} // namespace

qint64 HostDocument::integerMember(const char *key) const
{
    const QString text = numberTexts.value(u'\'' + QLatin1String(key)).toString();
    if (!text.startsWith(u'#'))
        return 0;
    return exactInteger(QStringView(text).mid(1).toLatin1()).value_or(0);
}

qint32 HostDocument::integer32Member(const char *key) const
{
    const qint64 wide = integerMember(key);
    if (wide < std::numeric_limits<qint32>::min() || wide > std::numeric_limits<qint32>::max())
        return 0;
    return static_cast<qint32>(wide);
}

HostDocument hostDocument(const char16_t *text, const char *failureMessage)
{
    HostDocument document { jsonObjectFromText(text, failureMessage), QJsonObject() };
    if (!document.members.isEmpty())
        document.numberTexts = QJsonDocument::fromJson(numbersAsTexts(textArgument(text).toUtf8())).object();
    return document;
}

} // namespace Norvane::Cloud
