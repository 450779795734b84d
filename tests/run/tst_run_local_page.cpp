#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"

/// A page that is a file of this machine and lies where the sandbox of a run lets nothing be read.
class tst_RunLocalPage : public QObject
{
    Q_OBJECT

    const QByteArray m_video = testBytes(5300000);

private slots:
    void isReadInTheSandbox_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("isLink");
        QTest::newRow("escaped") << QString::fromUtf8("p\xc3\xa4ge 1.html") << false;
        QTest::newRow("through a link") << option("page.html") << true;
    }

    void isReadInTheSandbox()
    {
        QFETCH(QString, name);
        QFETCH(bool, isLink);
        ScriptedServer server;
        server.on("/v.mp4", mediaReply(m_video));
        const QTemporaryDir folder;
        const QString file = folder.filePath(name);
        writeFile(file, videoPage(server.address("/v.mp4").toUtf8()));
        const QString link = folder.filePath(option("link.html"));
        if (isLink)
            QVERIFY(QFile::link(file, link));
        const QString page = QUrl::fromLocalFile(isLink ? link : file).toString(QUrl::FullyEncoded);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("20")}));
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + recordLine(server.address("/v.mp4"), m_video.size(), "mp4")
                     + fixedLine("start download video ...")
                     + fixedLine("video download finished:success")
                     + fixedLine("detach sharememory"));
        QCOMPARE(run.fileContent(option("tmp/") + pageHash(page) + option(".mp4")).size(),
                 m_video.size());
    }
};

CLIPWEIR_TEST_MAIN(tst_RunLocalPage)
#include "tst_run_local_page.moc"
