#include <norvane/core/operationcontext.h>

#include <QTest>

#include <atomic>
#include <thread>

using namespace Norvane::Core::Operations;

class OperationContextTest : public QObject {
    Q_OBJECT

private slots:
    void defaultContextNeverCancelsAcceptsProgressAndAllowsUsage()
    {
        const OperationContext context;
        QVERIFY(!context.isCancellationRequested());
        context.reportProgress(OperationProgress { 2, 50, 1, 2, QStringLiteral("half"), {} });
        const OperationResourcePolicyDecision decision = context.enforceResourceUsage(
            OperationResourceUsage { 1LL << 40 }, QStringLiteral("component"), QStringLiteral("resource"));
        QVERIFY(decision.allowed);
    }

    void assignedTokenSeesTheSourcesCancellation()
    {
        OperationContext source;
        OperationContext target;
        target.cancellationToken = source.cancellationToken;
        QVERIFY(!target.isCancellationRequested());
        source.cancellationToken.requestCancellation();
        QVERIFY(target.isCancellationRequested());

        // An unrelated token is not affected.
        const OperationContext other;
        QVERIFY(!other.isCancellationRequested());
    }

    void cancellationFromAnotherThreadIsSeen()
    {
        OperationContext context;
        std::atomic<bool> seen { false };
        std::thread poller([&] {
            while (!context.isCancellationRequested())
                std::this_thread::yield();
            seen = true;
        });
        context.cancellationToken.requestCancellation();
        poller.join();
        QVERIFY(seen);
    }

    void progressGoesToTheInstalledSinkInOrder()
    {
        OperationContext context;
        QList<qint32> percents;
        context.progressSink = [&](const OperationProgress &progress) { percents.append(progress.percent); };
        context.reportProgress(OperationProgress { 2, 0, 0, 10, {}, {} });
        context.reportProgress(OperationProgress { 4, 100, 10, 10, {}, {} });
        QCOMPARE(percents, (QList<qint32> { 0, 100 }));
    }

    void refusingPolicyThrowsWithItsReason()
    {
        OperationContext context;
        QString seenComponent;
        qint64 seenBytes = 0;
        context.resourcePolicy = [&](const OperationResourceUsage &usage, const QString &component, const QString &) {
            seenComponent = component;
            seenBytes = usage.bytes;
            return OperationResourcePolicyDecision { false, QStringLiteral("over budget") };
        };
        try {
            context.enforceResourceUsage(OperationResourceUsage { 42 }, QStringLiteral("Reader"), QStringLiteral("x"));
            QFAIL("a refusal must throw");
        } catch (const OperationRefusedError &error) {
            QCOMPARE(QString::fromUtf8(error.what()), QStringLiteral("over budget"));
        }
        QCOMPARE(seenComponent, QStringLiteral("Reader"));
        QCOMPARE(seenBytes, 42);
    }
};

QTEST_GUILESS_MAIN(OperationContextTest)
#include "tst_operationcontext.moc"
