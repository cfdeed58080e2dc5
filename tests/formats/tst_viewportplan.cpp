#include "formats/formatsmessages.h"
#include "formats/viewportplan.h"

#include <QRandomGenerator>
#include <QTest>

#include <limits>
#include <stdexcept>

using namespace Norvane::Cloud;

using Ranges = QList<CogByteRange>;

namespace {

constexpr qint64 largest = std::numeric_limits<qint64>::max();

CogByteRange range(qint64 offset, qint64 length)
{
    CogByteRange byteRange;
    byteRange.offset = offset;
    byteRange.length = length;
    return byteRange;
}

QList<QPair<qint64, qint64>> pairs(const Ranges &ranges)
{
    QList<QPair<qint64, qint64>> result;
    for (const CogByteRange &byteRange : ranges)
        result.append({ byteRange.offset, byteRange.length });
    return result;
}

} // namespace

Q_DECLARE_METATYPE(Ranges)

class ViewportPlanTest : public QObject {
    Q_OBJECT

private slots:
    void merging_data()
    {
        QTest::addColumn<Ranges>("ranges");
        QTest::addColumn<qint64>("coalesceGap");
        QTest::addColumn<Ranges>("merged");

        QTest::newRow("touching ranges merge with gap 0")
            << Ranges { range(0, 100), range(100, 50) } << qint64(0) << Ranges { range(0, 150) };
        QTest::newRow("one-byte hole stays apart with gap 0")
            << Ranges { range(0, 100), range(101, 50) } << qint64(0) << Ranges { range(0, 100), range(101, 50) };
        QTest::newRow("hole of exactly the default gap merges")
            << Ranges { range(0, 100), range(4196, 10) } << qint64(4096) << Ranges { range(0, 4206) };
        QTest::newRow("hole one past the default gap")
            << Ranges { range(0, 100), range(4197, 10) } << qint64(4096) << Ranges { range(0, 100), range(4197, 10) };
        QTest::newRow("contained range") << Ranges { range(0, 1000), range(10, 20) } << qint64(0)
                                         << Ranges { range(0, 1000) };
        QTest::newRow("contained range given first")
            << Ranges { range(10, 20), range(0, 1000) } << qint64(0) << Ranges { range(0, 1000) };
        QTest::newRow("repeated range") << Ranges { range(500, 10), range(500, 10), range(500, 10) } << qint64(0)
                                        << Ranges { range(500, 10) };
        QTest::newRow("descending input") << Ranges { range(9000, 10), range(5000, 10), range(1000, 10) } << qint64(100)
                                          << Ranges { range(1000, 10), range(5000, 10), range(9000, 10) };
        QTest::newRow("equal offsets, different lengths")
            << Ranges { range(0, 10), range(0, 300), range(0, 20) } << qint64(0) << Ranges { range(0, 300) };
        QTest::newRow("overlap extends the merged range")
            << Ranges { range(0, 100), range(50, 100), range(140, 20) } << qint64(0) << Ranges { range(0, 160) };
        // The hole is measured from the end of the whole merged range, not from the last range added to it.
        QTest::newRow("hole measured from the merged end")
            << Ranges { range(0, 1000), range(10, 10), range(1050, 10) } << qint64(50) << Ranges { range(0, 1060) };
        QTest::newRow("chain of small holes grows without bound") << Ranges { range(0, 10), range(20, 10),
            range(40, 10), range(60, 10) } << qint64(10) << Ranges { range(0, 70) };
        QTest::newRow("huge gap merges everything") << Ranges { range(largest - 1, 1), range(0, 1),
            range(1LL << 40, 5) } << largest << Ranges { range(0, largest) };
        QTest::newRow("huge holes with the default gap") << Ranges { range(0, 1), range(largest - 1, 1),
            range(1LL << 40, 5) } << qint64(4096) << Ranges { range(0, 1), range(1LL << 40, 5), range(largest - 1, 1) };
        QTest::newRow("range ending at the largest offset")
            << Ranges { range(1, largest - 1), range(0, 1) } << qint64(0) << Ranges { range(0, largest) };
        QTest::newRow("single range") << Ranges { range(7, 3) } << qint64(4096) << Ranges { range(7, 3) };
    }

    void merging()
    {
        QFETCH(Ranges, ranges);
        QFETCH(qint64, coalesceGap);
        QFETCH(Ranges, merged);
        QCOMPARE(pairs(coalesceByteRanges(ranges, coalesceGap)), pairs(merged));
    }

    void invalidRanges_data()
    {
        QTest::addColumn<Ranges>("ranges");
        QTest::addColumn<bool>("valid");

        QTest::newRow("length 0") << Ranges { range(0, 0) } << false;
        QTest::newRow("negative length") << Ranges { range(0, -5) } << false;
        QTest::newRow("negative offset") << Ranges { range(-1, 10) } << false;
        QTest::newRow("offset at the largest value") << Ranges { range(largest, 1) } << false;
        QTest::newRow("end one past the largest value") << Ranges { range(2, largest - 1) } << false;
        QTest::newRow("end exactly at the largest value") << Ranges { range(1, largest - 1) } << true;
        QTest::newRow("largest length from 0") << Ranges { range(0, largest) } << true;
        QTest::newRow("bad range after good ones") << Ranges { range(0, 1), range(5, 5), range(10, 0) } << false;
        QTest::newRow("all good") << Ranges { range(0, 1), range(5, 5), range(10, 1) } << true;
    }

    void invalidRanges()
    {
        QFETCH(Ranges, ranges);
        QFETCH(bool, valid);
        try {
            validateByteRanges(ranges);
            QVERIFY(valid);
        } catch (const std::invalid_argument &error) {
            QVERIFY(!valid);
            QCOMPARE(QByteArray(error.what()), QByteArray(FormatsMessages::viewportRangeInvalid));
        }
    }

    void sumSaturates()
    {
        QCOMPARE(sumOfLengths({ range(0, 100), range(0, 100), range(50, 20) }), qint64(220));
        QCOMPARE(sumOfLengths({ range(0, largest), range(0, largest) }), largest);
        QCOMPARE(sumOfLengths({ range(0, largest - 1), range(0, 1) }), largest);
    }

    void percent_data()
    {
        QTest::addColumn<qint64>("completed");
        QTest::addColumn<qint64>("total");
        QTest::addColumn<int>("percent");
        QTest::newRow("nothing yet") << qint64(0) << qint64(1000) << 0;
        QTest::newRow("half") << qint64(500) << qint64(1000) << 50;
        QTest::newRow("rounds down") << qint64(999) << qint64(1000) << 99;
        QTest::newRow("all read stays at 99") << qint64(1000) << qint64(1000) << 99;
        QTest::newRow("one third") << qint64(1) << qint64(3) << 33;
        QTest::newRow("no total") << qint64(0) << qint64(0) << 0;
        QTest::newRow("huge values do not overflow") << largest / 2 << largest << 49;
        QTest::newRow("huge and complete") << largest << largest << 99;
    }

    void percent()
    {
        QFETCH(qint64, completed);
        QFETCH(qint64, total);
        QTEST(viewportPercent(completed, total), "percent");
    }

    // For many random inputs: every requested range lies in exactly one merged range, merged ranges ascend, keep
    // holes wider than the gap between them, and every merged byte belongs to a requested range or a hole no wider
    // than the gap.
    void randomInputsKeepTheMergeInvariants()
    {
        QRandomGenerator random(20240611);
        for (int round = 0; round < 300; ++round) {
            const qint64 coalesceGap = random.bounded(3) == 0 ? 0 : random.bounded(2000);
            Ranges ranges;
            const int count = 1 + random.bounded(60);
            for (int index = 0; index < count; ++index)
                ranges.append(range(random.bounded(100000), 1 + random.bounded(3000)));

            const Ranges merged = coalesceByteRanges(ranges, coalesceGap);
            QVERIFY(!merged.isEmpty());
            for (int index = 1; index < merged.size(); ++index) {
                const qint64 previousEnd = merged[index - 1].offset + merged[index - 1].length;
                QVERIFY(merged[index].offset - previousEnd > coalesceGap);
            }
            for (const CogByteRange &requested : std::as_const(ranges)) {
                int containing = 0;
                for (const CogByteRange &read : merged) {
                    if (read.offset <= requested.offset
                        && read.offset + read.length >= requested.offset + requested.length)
                        ++containing;
                }
                QCOMPARE(containing, 1);
            }
            for (const CogByteRange &read : merged) {
                bool startsARange = false;
                bool endsARange = false;
                for (const CogByteRange &requested : std::as_const(ranges)) {
                    startsARange = startsARange || requested.offset == read.offset;
                    endsARange = endsARange || requested.offset + requested.length == read.offset + read.length;
                }
                QVERIFY(startsARange);
                QVERIFY(endsARange);
            }
        }
    }
};

QTEST_GUILESS_MAIN(ViewportPlanTest)
#include "tst_viewportplan.moc"
