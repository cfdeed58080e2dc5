// Replays what the fuzzers ran on through the same entry points (fuzz/fuzzentries.h) in the normal suite: every
// input kept under regressions/<target>/ (inputs that crashed or tripped a check once, and edge inputs picked by
// hand: extreme integers, wrapped offsets, lone surrogates, truncated records), and every real file of tests/data
// given to every target as it is. A failing replay aborts the program, which CTest
// reports with the input's name printed just before.

#include "fuzzentries.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTest>

#include <cstdio>

using namespace Norvane::Cloud::Fuzzing;

Q_DECLARE_METATYPE(Target)

namespace {

const Target allTargets[] = { Target::TiffHeader, Target::PmTilesHeader, Target::ItemCollection, Target::CacheDiskEntry,
    Target::FlatDocuments };

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TestFuzzRegressions : public QObject {
    Q_OBJECT

private slots:
    void keptInputsReplayCleanly_data();
    void keptInputsReplayCleanly();
    void realFilesReplayCleanly_data();
    void realFilesReplayCleanly();
};

void TestFuzzRegressions::keptInputsReplayCleanly_data()
{
    QTest::addColumn<Target>("target");
    QTest::addColumn<QString>("path");
    const QDir regressions(QStringLiteral(NORVANE_HARDENING_REGRESSIONS_DIR));
    int kept = 0;
    for (const Target target : allTargets) {
        const QDir folder(regressions.filePath(targetName(target)));
        for (const QString &name : folder.entryList(QDir::Files, QDir::Name)) {
            QTest::addRow("%s/%s", qPrintable(targetName(target)), qPrintable(name)) << target << folder.filePath(name);
            ++kept;
        }
    }
    if (kept == 0)
        QTest::newRow("no kept inputs") << Target::TiffHeader << QString();
}

void TestFuzzRegressions::keptInputsReplayCleanly()
{
    QFETCH(Target, target);
    QFETCH(QString, path);
    QVERIFY2(!path.isEmpty(), "the regressions folder holds no inputs");
    QVERIFY(QFile::exists(path));
    std::fprintf(stderr, "replaying %s\n", qPrintable(path));
    run(target, readFile(path));
}

void TestFuzzRegressions::realFilesReplayCleanly_data()
{
    QTest::addColumn<QString>("path");
    QDirIterator files(QStringLiteral(NORVANE_TEST_DATA_DIR), QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString path = files.next();
        if (!path.endsWith(QLatin1String(".md")) && !path.endsWith(QLatin1String(".tsv")))
            QTest::newRow(qPrintable(QDir(QStringLiteral(NORVANE_TEST_DATA_DIR)).relativeFilePath(path))) << path;
    }
}

void TestFuzzRegressions::realFilesReplayCleanly()
{
    QFETCH(QString, path);
    const QByteArray bytes = readFile(path);
    QVERIFY(!bytes.isEmpty() || QFileInfo(path).size() == 0);
    for (const Target target : allTargets)
        run(target, bytes);
}

QTEST_GUILESS_MAIN(TestFuzzRegressions)

#include "tst_fuzzregressions.moc"
