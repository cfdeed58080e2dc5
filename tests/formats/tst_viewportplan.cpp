#include "formats/formatsmessages.h"
#include "formats/viewportplan.h"
#include "formatstesting.h"

#include <QTest>

#include <limits>
#include <stdexcept>

using namespace Norvane::Cloud;
using Norvane::Cloud::Testing::byteRange;

using Ranges = QList<CogByteRange>;

namespace {

constexpr qint64 largest = std::numeric_limits<qint64>::max();

// "offset+length" per range, so a failing comparison shows the ranges.
QStringList texts(const Ranges &ranges)
{
    QStringList result;
    for (const CogByteRange &range : ranges)
        result.append(QStringLiteral("%1+%2").arg(range.offset).arg(range.length));
    return result;
}

} // namespace

Q_DECLARE_METATYPE(Ranges)

class ViewportPlanTest : public QObject {
    Q_OBJECT

private slots:
    void plan_data()
    {
        QTest::addColumn<Ranges>("ranges");
        QTest::addColumn<qint64>("coalesceGap");
        QTest::addColumn<QStringList>("merged");

        const auto row = [](const char *name, const Ranges &ranges, qint64 gap, const QStringList &merged) {
            QTest::newRow(name) << ranges << gap << merged;
        };
        row("touching ranges merge with gap 0", { byteRange(0, 100), byteRange(100, 50) }, 0, { "0+150" });
        row("one-byte hole stays apart with gap 0", { byteRange(0, 100), byteRange(101, 50) }, 0,
            { "0+100", "101+50" });
        row("hole of exactly the gap merges", { byteRange(0, 100), byteRange(4196, 10) }, 4096, { "0+4206" });
        row("hole one past the gap", { byteRange(0, 100), byteRange(4197, 10) }, 4096, { "0+100", "4197+10" });
        row("contained range", { byteRange(0, 1000), byteRange(10, 20) }, 0, { "0+1000" });
        row("repeated range", { byteRange(500, 10), byteRange(500, 10), byteRange(500, 10) }, 0, { "500+10" });
        row("descending input", { byteRange(9000, 10), byteRange(5000, 10), byteRange(1000, 10) }, 100,
            { "1000+10", "5000+10", "9000+10" });
        row("overlap extends the merged range", { byteRange(0, 100), byteRange(50, 100), byteRange(140, 20) }, 0,
            { "0+160" });
        // The hole is measured from the end of the whole merged range, not from the last range added to it.
        row("hole measured from the merged end", { byteRange(0, 1000), byteRange(10, 10), byteRange(1050, 10) }, 50,
            { "0+1060" });
        row("huge gap merges everything", { byteRange(largest - 1, 1), byteRange(0, 1), byteRange(1LL << 40, 5) },
            largest, { "0+9223372036854775807" });
        row("huge holes with the default gap", { byteRange(0, 1), byteRange(largest - 1, 1), byteRange(1LL << 40, 5) },
            4096, { "0+1", "1099511627776+5", "9223372036854775806+1" });
        row("range ending at the largest offset", { byteRange(1, largest - 1), byteRange(0, 1) }, 0,
            { "0+9223372036854775807" });

        // Validation comes first; a merge only ever sees valid ranges.
        const QStringList invalid { QString::fromLatin1(FormatsMessages::viewportRangeInvalid) };
        row("length 0", { byteRange(0, 0) }, 0, invalid);
        row("negative length", { byteRange(0, -5) }, 0, invalid);
        row("negative offset", { byteRange(-1, 10) }, 0, invalid);
        row("offset at the largest value", { byteRange(largest, 1) }, 0, invalid);
        row("end one past the largest value", { byteRange(2, largest - 1) }, 0, invalid);
        row("bad range after good ones", { byteRange(0, 1), byteRange(5, 5), byteRange(10, 0) }, 0, invalid);
    }

    void plan()
    {
        QFETCH(Ranges, ranges);
        QFETCH(qint64, coalesceGap);
        const QByteArray refusal = Testing::thrownMessage<std::invalid_argument>([&] { validateByteRanges(ranges); });
        QTEST(refusal == "(no exception)" ? texts(coalesceByteRanges(ranges, coalesceGap))
                                          : QStringList { QString::fromLatin1(refusal) },
            "merged");
    }

    void sumSaturates()
    {
        QCOMPARE(sumOfLengths({ byteRange(0, 100), byteRange(0, 100), byteRange(50, 20) }), qint64(220));
        QCOMPARE(sumOfLengths({ byteRange(0, largest), byteRange(0, largest) }), largest);
        QCOMPARE(sumOfLengths({ byteRange(0, largest - 1), byteRange(0, 1) }), largest);
    }

    void percent()
    {
        QCOMPARE(viewportPercent(500, 1000), 50);
        QCOMPARE(viewportPercent(999, 1000), 99);
        QCOMPARE(viewportPercent(1000, 1000), 99); // 100 belongs to the final report only
        QCOMPARE(viewportPercent(0, 0), 0);
        QCOMPARE(viewportPercent(largest / 2, largest), 49);
        QCOMPARE(viewportPercent(largest, largest), 99);
    }
};

QTEST_GUILESS_MAIN(ViewportPlanTest)
#include "tst_viewportplan.moc"
