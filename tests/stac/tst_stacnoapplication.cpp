// The STAC exchange without a Qt application object: the network is refused with the transport's message, while
// an answer already in the cache needs no event loop and is served.

#include <norvanecloud/stac.h>

#include "stac/stacexchange.h"
#include "stac/stacsearchrequest.h"
#include "stactestdata.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTest>

#include <stdexcept>

using namespace Norvane::Cloud;

class TestStacNoApplication : public QObject {
    Q_OBJECT

private slots:
    void networkNeedsAnApplicationObjectButTheCacheDoesNot();

private:
    QTemporaryDir folder;
};

void TestStacNoApplication::networkNeedsAnApplicationObjectButTheCacheDoesNot()
{
    QVERIFY(!QCoreApplication::instance());
    CloudCacheOptions options;
    options.directory = folder.path();
    options.diskEnabled = false;
    const auto cache = std::make_shared<CloudRangeCache>(options);
    // Nothing listens here; the refusal must come before any connection attempt.
    const QUrl catalog(QStringLiteral("http://127.0.0.1:9/v1"));
    StacClient client(catalog, cache);
    QCOMPARE(failureOf<std::runtime_error>([&] { client.search(StacSearchRequest()); }),
        QStringLiteral("HTTP exchange requires a Qt application object"));

    CloudRangeResponse stored;
    stored.data = QByteArrayLiteral(R"({"features":[{"id":"cached"}]})");
    const CloudRangeRequest key = StacExchange::keyRequest(
        StacSearchRequests::searchUrl(catalog), "POST", StacSearchRequests::body(StacSearchRequest()), {});
    cache->put(HttpRangeReader::cacheKey(key), stored);
    QCOMPARE(client.search(StacSearchRequest()).items.constFirst().id, QStringLiteral("cached"));
}

int main(int argc, char **argv)
{
    TestStacNoApplication test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_stacnoapplication.moc"
