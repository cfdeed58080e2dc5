// Without a Qt application object the nested event loop of an exchange could never deliver a reply: the reader
// must refuse at once instead of hanging. This program deliberately creates no QCoreApplication.

#include <norvanecloud/rangetransport.h>

#include "transport/transportmessages.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTest>

#include <stdexcept>

using namespace Norvane::Cloud;

class TestHttpRangeReaderWithoutApplication : public QObject {
    Q_OBJECT

private slots:
    void readAndInspectRefuseAtOnce()
    {
        QVERIFY(!QCoreApplication::instance());
        QTemporaryDir directory;
        QVERIFY(directory.isValid());
        CloudCacheOptions options;
        options.directory = directory.path();
        HttpRangeReader reader(std::make_shared<CloudRangeCache>(options));
        // Port 9 on loopback: nothing is ever sent, so no server is needed.
        const QUrl url(QStringLiteral("http://127.0.0.1:9/object.bin"));

        bool policyAsked = false;
        CloudRangeRequest request;
        request.url = url;
        request.length = 16;
        request.context.resourcePolicy = [&](const auto &, const QString &, const QString &) {
            policyAsked = true;
            return Norvane::Core::Operations::OperationResourcePolicyDecision();
        };
        QString readFailure;
        try {
            reader.read(request);
        } catch (const std::runtime_error &error) {
            readFailure = QString::fromUtf8(error.what());
        }
        QCOMPARE(readFailure, QString::fromLatin1(TransportMessages::noApplicationObject));
        QVERIFY(!policyAsked);

        QString inspectFailure;
        try {
            reader.inspect(url, {});
        } catch (const std::runtime_error &error) {
            inspectFailure = QString::fromUtf8(error.what());
        }
        QCOMPARE(inspectFailure, QString::fromLatin1(TransportMessages::noApplicationObject));
    }

    void argumentsAreStillCheckedFirst()
    {
        HttpRangeReader reader(
            std::make_shared<CloudRangeCache>(CloudCacheOptions { QString(), 0, 0, 0, false, false }));
        QString failure;
        try {
            reader.read(QUrl(), 0, 16);
        } catch (const std::invalid_argument &error) {
            failure = QString::fromUtf8(error.what());
        }
        QCOMPARE(failure, QString::fromLatin1(TransportMessages::urlInvalid));
    }
};

QTEST_APPLESS_MAIN(TestHttpRangeReaderWithoutApplication)
#include "tst_httprangereader_noapplication.moc"
