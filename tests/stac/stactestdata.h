#pragma once

// Helpers the STAC test programs share: recorded pages from tests/data/stac and exception texts.

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

inline QByteArray readStacFixture(const QString &name)
{
    QFile file(QStringLiteral(NORVANE_TEST_DATA_DIR "/stac/") + name);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot open fixture %s", qPrintable(name));
    return file.readAll();
}

inline QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// The text of the Exception the operation throws; empty when it throws nothing.
template <typename Exception, typename Operation> QString failureOf(Operation operation)
{
    try {
        operation();
    } catch (const Exception &error) {
        return QString::fromUtf8(error.what());
    }
    return QString();
}
