#pragma once

// Documents from the host read with their numbers exact: QJsonDocument keeps only a double for a number written with
// a fraction or an exponent, so the integers are read again from the text they were written with.

#include <QJsonObject>

namespace Norvane::Cloud {

// A host document: its members, and its numbers as the texts they were written with.
struct HostDocument {
    QJsonObject members;
    QJsonObject numberTexts;

    /// An integer member, read exactly: a whole number within 64 bits however it is written (25, 25.0, 2.5e1);
    /// anything else, a number with a fraction or beyond 64 bits included, yields 0.
    qint64 integerMember(const char *key) const;
    /// The same, within 32 bits; 0 beyond them.
    qint32 integer32Member(const char *key) const;
};

/// The JSON object of a host's document text (empty for null or empty text), or std::invalid_argument with
/// failureMessage.
HostDocument hostDocument(const char16_t *text, const char *failureMessage);

} // namespace Norvane::Cloud
