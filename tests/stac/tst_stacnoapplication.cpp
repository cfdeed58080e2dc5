// The STAC exchange without a Qt application object: the network is refused with the transport's message, while
// an answer already in the cache needs no event loop and is served.

#include <norvanecloud/stac.h>

#include "stac/stacexchange.h"
#include "stac/stacsearchrequest.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTest>

#include <stdexcept>

using namespace Norvane::Cloud;

class TestStacNoApplication : public QObject {
    Q_OBJECT

private slots:
    void networkNeedsAnApplicationObject();
    void cachedAnswerNeedsNone();

private:
    std::shared_ptr<CloudRangeCache> makeCache();
    QTemporaryDir folder;
};

std::shared_ptr<CloudRangeCache> TestStacNoApplication::makeCache()
{
    CloudCacheOptions options;
    options.directory = folder.path();
    options.diskEnabled = false;
    return std::make_shared<CloudRangeCache>(options);
}

void TestStacNoApplication::networkNeedsAnApplicationObject()
{
    QVERIFY(!QCoreApplication::instance());
    // Nothing listens here; the refusal must come before any connection attempt.
    StacClient client(QUrl(QStringLiteral("http://127.0.0.1:9/v1")), makeCache());
    QString message;
    try {
        client.search(StacSearchRequest());
    } catch (const std::runtime_error &error) {
        message = QString::fromUtf8(error.what());
    }
    QCOMPARE(message, QStringLiteral("HTTP exchange requires a Qt application object"));
}

void TestStacNoApplication::cachedAnswerNeedsNone()
{
    const std::shared_ptr<CloudRangeCache> cache = makeCache();
    const QUrl catalog(QStringLiteral("http://127.0.0.1:9/v1"));
    const QUrl searchUrl = StacSearchRequests::searchUrl(catalog);
    const QByteArray body = StacSearchRequests::body(StacSearchRequest());

    CloudRangeResponse stored;
    stored.data = QByteArrayLiteral(R"({"features":[{"id":"cached"}],"context":{"matched":1}})");
    stored.totalSize = stored.data.size();
    stored.statusCode = 200;
    cache->put(HttpRangeReader::cacheKey(StacExchange::keyRequest(searchUrl, "POST", body, {})), stored);

    StacClient client(catalog, cache);
    const StacSearchResult result = client.search(StacSearchRequest());
    QCOMPARE(result.items.size(), 1);
    QCOMPARE(result.items.constFirst().id, QStringLiteral("cached"));
    QCOMPARE(result.matched, 1);
}

int main(int argc, char **argv)
{
    TestStacNoApplication test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_stacnoapplication.moc"
