#include "RunLife.h"
#include "TestMain.h"

#include <QSignalSpy>

class tst_RunLife : public QObject
{
    Q_OBJECT

private slots:
    void doesNothingBeforeItBegins()
    {
        const ParseData record;
        RunLife life(record, RunOptions());
        life.note(RunGuard::DownloadBegun);
        life.show();
        life.claimEnd();
    }

    void looksAgainAndAgain()
    {
        const ParseData record;
        RunLife life(record, RunOptions());
        const QSignalSpy looked(&life, &RunLife::looked);
        life.begin(100000);
        QTRY_VERIFY(looked.count() >= 2);
        life.claimEnd();
    }

    void tellsThatMemoryIsFull()
    {
        const ParseData record;
        RunOptions options;
        options.memoryBytes = 1; // any process takes more
        RunLife life(record, options);
        const QSignalSpy full(&life, &RunLife::memoryFull);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("memory")));
        life.begin(100000);
        life.note(RunGuard::MemoryHeeded); // or the guard would end this process
        QTRY_COMPARE(full.count(), 1);
        life.claimEnd();
    }
};

CLIPWEIR_TEST_MAIN(tst_RunLife)
#include "tst_runlife.moc"
