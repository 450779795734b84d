#include "RunVerdict.h"
#include "TestFiles.h"
#include "TestMain.h"

class tst_RunVerdict : public QObject
{
    Q_OBJECT

    static RunVerdict verdict(bool isStrict = true)
    {
        RunOptions options;
        options.isStrict = isStrict;
        return RunVerdict(options);
    }

    static RunClass classOf(const RunVerdict &verdict)
    {
        return verdict.ended(ParseData(), RunClass::EngineLost).runClass;
    }

private slots:
    void nothingDecided()
    {
        QCOMPARE(classOf(verdict()), RunClass::EngineLost);
        QCOMPARE(verdict().ended(ParseData(), RunClass::EngineLost).exitCode, 42);
        QCOMPARE(verdict(false).ended(ParseData(), RunClass::EngineLost).exitCode, 0);
    }

    void theFirstDecisionCounts()
    {
        RunVerdict tested = verdict();
        tested.decide(RunClass::Stopped);
        tested.decide(RunClass::Deadline);
        tested.noteVideoEnded(Transfer::Outcome::Succeeded, {RunClass::Complete});
        QCOMPARE(classOf(tested), RunClass::Stopped);
    }

    void nothingFound()
    {
        RunVerdict unseen = verdict();
        unseen.noteSearchEnded();
        unseen.notePageSeen(); // an empty page that takes the place of the one that never came
        unseen.noteNothingFound();
        QCOMPARE(classOf(unseen), RunClass::PageUnreached);

        RunVerdict seen = verdict();
        seen.notePageSeen();
        RunVerdict lost = seen;
        seen.noteNothingFound();
        QCOMPARE(classOf(seen), RunClass::NothingFound);
        lost.noteEngineLost();
        lost.noteNothingFound();
        QCOMPARE(classOf(lost), RunClass::EngineLost);
    }

    void aVideo()
    {
        const TemporaryWorkFolder folder;
        const QString path = folder.path(QStringLiteral("v.mp4"));
        RunVerdict tested = verdict();
        tested.noteVideoBegun(path);
        QCOMPARE(tested.ended(ParseData(), RunClass::Stopped).path, QString());
        QCOMPARE(tested.ended(ParseData(), RunClass::Stopped).bytes, qint64(-1));
        writeFile(path, "12345");
        tested.noteVideoEnded(Transfer::Outcome::Succeeded, {RunClass::Complete, "sum"});
        const event::RunEnded ended = tested.ended(ParseData(), RunClass::Stopped);
        QCOMPARE(ended.runClass, RunClass::Complete);
        QCOMPARE(ended.path, path);
        QCOMPARE(ended.bytes, qint64(5));
        QCOMPARE(ended.sha256, QByteArray("sum"));
    }

    void halfAVideoHasNoSum()
    {
        RunVerdict tested = verdict();
        tested.noteVideoEnded(Transfer::Outcome::Succeeded, {RunClass::Incomplete, "sum"});
        QCOMPARE(classOf(tested), RunClass::Incomplete);
        QCOMPARE(tested.ended(ParseData(), RunClass::Stopped).sha256, QByteArray());
    }

    void aCanceledVideo()
    {
        RunVerdict tested = verdict();
        tested.noteVideoEnded(Transfer::Outcome::Canceled, {RunClass::BrokenOff});
        QCOMPARE(classOf(tested), RunClass::Stopped);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunVerdict)
#include "tst_runverdict.moc"
