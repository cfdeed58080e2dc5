#pragma once

// Helpers shared by the hardening tests: reproducible objects to serve, the documented failure messages of a range
// read, and reads that report their outcome instead of throwing.

#include <norvanecloud/rangetransport.h>

#include "transport/transportmessages.h"

#include <QByteArray>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

#include <exception>
#include <stdexcept>

namespace Norvane::Cloud::Testing {

/// Bytes from a fixed seed, so a failing run can be repeated exactly.
inline QByteArray seededBytes(qsizetype size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (qsizetype index = 0; index < size; ++index)
        bytes[index] = char(generator.bounded(256));
    return bytes;
}

/// The outcome of one range read: the response, or the text of the exception it threw and its kind.
struct ReadOutcome {
    CloudRangeResponse response;
    bool succeeded = false;
    bool runtimeError = false;
    QString message;
};

inline ReadOutcome readOutcome(const HttpRangeReader &reader, const CloudRangeRequest &request)
{
    ReadOutcome outcome;
    try {
        outcome.response = reader.read(request);
        outcome.succeeded = true;
    } catch (const std::runtime_error &error) {
        outcome.runtimeError = true;
        outcome.message = QString::fromUtf8(error.what());
    } catch (const std::exception &error) {
        outcome.message = QString::fromUtf8(error.what());
    }
    return outcome;
}

/// The documented message a read failed with, as its template (with %1 and %2), when the server or the network
/// misbehaved; empty for any other text.
inline QString documentedNetworkFailure(const QString &message)
{
    const auto pattern = [](const char *text) {
        // %1 is always a decimal number, %2 any text.
        QString expression;
        const QStringList parts = QString::fromLatin1(text).split(QStringLiteral("%1"));
        for (qsizetype index = 0; index < parts.size(); ++index) {
            if (index > 0)
                expression += QStringLiteral("-?[0-9]+");
            const QStringList pieces = parts.at(index).split(QStringLiteral("%2"));
            for (qsizetype piece = 0; piece < pieces.size(); ++piece) {
                if (piece > 0)
                    expression += QStringLiteral(".*");
                expression += QRegularExpression::escape(pieces.at(piece));
            }
        }
        return QRegularExpression(
            QStringLiteral("\\A") + expression + QStringLiteral("\\z"), QRegularExpression::DotMatchesEverythingOption);
    };
    static const char *const documented[] = {
        TransportMessages::requestTimedOut,
        TransportMessages::requestFailed,
        TransportMessages::unexpectedStatus,
        TransportMessages::contentRangeMismatch,
        TransportMessages::rangeIgnored,
        TransportMessages::lengthMismatch,
    };
    for (const char *text : documented) {
        if (pattern(text).match(message).hasMatch())
            return QString::fromLatin1(text);
    }
    return QString();
}

} // namespace Norvane::Cloud::Testing
