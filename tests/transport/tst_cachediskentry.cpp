// The entry file codec of the range cache's disk tier, without a cache: the byte layout is pinned against bytes
// assembled by hand, so a change to the stream version or field order cannot slip through a round trip.

#include "transport/cachediskentry.h"

#include <QtEndian>
#include <QtTest>

using namespace Norvane::Cloud;

namespace {

QByteArray bigEndian32(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

QByteArray bigEndian64(quint64 value)
{
    QByteArray bytes(8, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

QByteArray array(const QByteArray &value)
{
    if (value.isNull())
        return bigEndian32(0xFFFFFFFFu);
    return bigEndian32(quint32(value.size())) + value;
}

CloudRangeResponse sampleResponse()
{
    CloudRangeResponse response;
    response.data = QByteArrayLiteral("0123456789");
    response.offset = 4096;
    response.totalSize = 1234567890123;
    response.statusCode = 206;
    response.etag = QByteArrayLiteral("\"abc\"");
    response.lastModified = QByteArrayLiteral("Tue, 01 Jan 2030 00:00:00 GMT");
    response.contentType = QByteArrayLiteral("image/tiff");
    response.acceptsRanges = true;
    return response;
}

QByteArray sampleBytes(qint64 storedAt)
{
    const CloudRangeResponse response = sampleResponse();
    return bigEndian32(0x4E564348u) + bigEndian32(1) + bigEndian64(quint64(storedAt)) + array(response.data)
        + bigEndian64(quint64(response.offset)) + bigEndian64(quint64(response.totalSize))
        + bigEndian32(quint32(response.statusCode)) + array(response.etag) + array(response.lastModified)
        + array(response.contentType) + QByteArray(1, '\1');
}

} // namespace

class TestCacheDiskEntry : public QObject {
    Q_OBJECT

private slots:
    void encodingMatchesTheHandWrittenLayout()
    {
        const QByteArray encoded = encodeCacheDiskEntry(sampleResponse(), 1700000000123);
        QCOMPARE(encoded, sampleBytes(1700000000123));
        QVERIFY(encoded.startsWith("NVCH"));
    }

    void fromCacheIsNotStored()
    {
        CloudRangeResponse response = sampleResponse();
        response.fromCache = true;
        QCOMPARE(encodeCacheDiskEntry(response, 5), sampleBytes(5));
    }

    void nullAndEmptyArraysKeepTheirOwnForm()
    {
        CloudRangeResponse response;
        response.data = QByteArrayLiteral("x");
        response.etag = QByteArray(""); // empty but not null: length 0
        const QByteArray encoded = encodeCacheDiskEntry(response, 0);
        const QByteArray tail = bigEndian32(1) + "x" + bigEndian64(0) + bigEndian64(quint64(-1)) + bigEndian32(0)
            + bigEndian32(0) + bigEndian32(0xFFFFFFFFu) + bigEndian32(0xFFFFFFFFu) + QByteArray(1, '\0');
        QVERIFY(encoded.endsWith(tail));
        QCOMPARE(encoded.size(), 16 + tail.size());
    }

    void decodingRestoresEveryField()
    {
        const std::optional<CacheDiskEntry> entry = decodeCacheDiskEntry(sampleBytes(-42));
        QVERIFY(entry.has_value());
        const CloudRangeResponse expected = sampleResponse();
        QCOMPARE(entry->storedAtMilliseconds, qint64(-42));
        QCOMPARE(entry->response.data, expected.data);
        QCOMPARE(entry->response.offset, expected.offset);
        QCOMPARE(entry->response.totalSize, expected.totalSize);
        QCOMPARE(entry->response.statusCode, expected.statusCode);
        QCOMPARE(entry->response.etag, expected.etag);
        QCOMPARE(entry->response.lastModified, expected.lastModified);
        QCOMPARE(entry->response.contentType, expected.contentType);
        QCOMPARE(entry->response.acceptsRanges, true);
        QCOMPARE(entry->response.fromCache, false);
    }

    void trailingBytesAreIgnored()
    {
        const std::optional<CacheDiskEntry> entry = decodeCacheDiskEntry(sampleBytes(7) + "garbage after the end");
        QVERIFY(entry.has_value());
        QCOMPARE(entry->response.contentType, sampleResponse().contentType);
    }

    void badBytesAreRejected_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const QByteArray good = sampleBytes(1);
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("magic only") << good.left(4);
        QTest::newRow("cut inside the data") << good.left(30);
        QTest::newRow("cut before the flag") << good.left(good.size() - 1);
        QByteArray magic = good;
        magic[3] = 'X';
        QTest::newRow("wrong magic") << magic;
        QByteArray littleEndianMagic = good;
        littleEndianMagic.replace(0, 4, "HCVN");
        QTest::newRow("magic in the wrong byte order") << littleEndianMagic;
        QByteArray version = good;
        version.replace(4, 4, bigEndian32(2));
        QTest::newRow("version 2") << version;
        QByteArray hugeLength = good;
        hugeLength.replace(16, 4, bigEndian32(0x7FFFFFF0u));
        QTest::newRow("data length beyond the end") << hugeLength;
        QTest::newRow("text file") << QByteArrayLiteral("just some text that is long enough to fill every field");
    }

    void badBytesAreRejected()
    {
        QFETCH(QByteArray, bytes);
        QVERIFY(!decodeCacheDiskEntry(bytes).has_value());
    }

    void fileNameIsTheDigestOfTheUtf8Key_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("fileName");
        QTest::newRow("ascii") << QStringLiteral(
            "abc") << QStringLiteral("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad.nvc");
        QTest::newRow("empty") << QString()
                               << QStringLiteral(
                                      "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855.nvc");
        // U+00E9 must be hashed as its two UTF-8 bytes, not as Latin-1.
        QTest::newRow("non-ascii") << QString(QChar(0xE9))
                                   << QString::fromLatin1(
                                          QCryptographicHash::hash("\xC3\xA9", QCryptographicHash::Sha256).toHex())
                + QStringLiteral(".nvc");
    }

    void fileNameIsTheDigestOfTheUtf8Key()
    {
        QFETCH(QString, key);
        QFETCH(QString, fileName);
        QCOMPARE(cacheDiskFileName(key), fileName);
    }
};

QTEST_GUILESS_MAIN(TestCacheDiskEntry)
#include "tst_cachediskentry.moc"
