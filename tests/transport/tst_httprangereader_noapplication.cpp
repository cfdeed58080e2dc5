// Without a Qt application object the nested event loop of an exchange could never deliver a reply: the reader
// must refuse at once instead of hanging. This program deliberately creates no QCoreApplication.

#include <norvanecloud/rangetransport.h>

#include "transport/transportmessages.h"

#include <QCoreApplication>
#include <QTest>

#include <stdexcept>

using namespace Norvane::Cloud;

namespace {

// The refusal must be a runtime_error; argument errors stay invalid_argument.
template <typename Call> QString failureOf(Call &&call)
{
    try {
        call();
    } catch (const std::runtime_error &error) {
        return QString::fromUtf8(error.what());
    } catch (const std::invalid_argument &error) {
        return QStringLiteral("invalid argument: ") + QString::fromUtf8(error.what());
    }
    return QString();
}

} // namespace

class TestHttpRangeReaderWithoutApplication : public QObject {
    Q_OBJECT

private slots:
    void readAndInspectRefuseAtOnce()
    {
        QVERIFY(!QCoreApplication::instance());
        HttpRangeReader reader(
            std::make_shared<CloudRangeCache>(CloudCacheOptions { QString(), 0, 0, 0, false, false }));
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
        const QString refusal = QString::fromLatin1(TransportMessages::noApplicationObject);
        QCOMPARE(failureOf([&] { reader.read(request); }), refusal);
        QVERIFY(!policyAsked);
        QCOMPARE(failureOf([&] { reader.inspect(url, {}); }), refusal);
        // The arguments are still checked first.
        QCOMPARE(failureOf([&] { reader.read(QUrl(), 0, 16); }),
            QStringLiteral("invalid argument: ") + QString::fromLatin1(TransportMessages::urlInvalid));
    }
};

QTEST_APPLESS_MAIN(TestHttpRangeReaderWithoutApplication)
#include "tst_httprangereader_noapplication.moc"
