#include "Nginx.h"
#include "PageRun.h"
#include "TestMain.h"

#include <QSharedMemory>

namespace {

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

/// Whole runs against a real server with a real clip and a real picture.
class tst_RunPage : public QObject
{
    Q_OBJECT

    Nginx m_nginx;
    QByteArray m_clip;
    QByteArray m_picture;

    static bool ffmpeg(const QStringList &arguments)
    {
        return QProcess::execute(option("ffmpeg"),
                                 QStringList{option("-v"), option("error"), option("-y")}
                                     + arguments)
            == 0;
    }

    QByteArray pageText(const QByteArray &title) const
    {
        return "<html><head><title>" + title + "</title><meta property=\"og:image\" content=\""
            + m_nginx.address(option("/thumb.jpg")).toUtf8()
            + "\"></head><body><video src=\"clip.mp4\" autoplay></video></body></html>";
    }

    QString addPage(const QString &name, const QByteArray &title) const
    {
        return writeFile(m_nginx.rootFolder() + name, pageText(title)) ? m_nginx.address(name)
                                                                       : QString();
    }

    QByteArray record(const QByteArray &title) const
    {
        return recordLine(m_nginx.address(option("/clip.mp4")), m_clip.size(), "mp4",
                          m_nginx.address(option("/thumb.jpg")).toUtf8(), title);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_nginx.start());
        const QString root = m_nginx.rootFolder();
        // Noise does not compress, so that a short clip has a size that counts as found.
        QVERIFY(ffmpeg({option("-f"), option("lavfi"), option("-i"),
                        option("nullsrc=s=640x360:r=25:d=6,geq=random(1)*255:128:128"),
                        option("-f"), option("lavfi"), option("-i"), option("sine=d=6"),
                        option("-c:v"), option("libx264"), option("-preset"), option("ultrafast"),
                        option("-pix_fmt"), option("yuv420p"), option("-c:a"), option("aac"),
                        option("-movflags"), option("+faststart"), root + option("/clip.mp4")}));
        QVERIFY(
            ffmpeg({option("-f"), option("lavfi"), option("-i"), option("testsrc2=s=320x240:d=1"),
                    option("-frames:v"), option("1"), root + option("/thumb.jpg")}));
        m_clip = readFile(root + option("/clip.mp4"));
        m_picture = readFile(root + option("/thumb.jpg"));
        QVERIFY(m_clip.size() > 6000000);
    }

    void wholeRun()
    {
        const QString url = addPage(option("/whole.html"), "A &amp; \"B\"");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), url, option("--thumb"), option("--log")}));

        const QByteArray total = QByteArray::number(m_clip.size());
        const QByteArray head = parsingLine(url) + record("A & \\\"B\\\"")
            + fixedLine("start download thumb ...") + fixedLine("start download video ...");
        QCOMPARE(run.errorOutput().left(head.size()), head);
        QByteArray rest = withoutProgress(run.errorOutput().mid(head.size()));
        QVERIFY(rest.contains(fixedLine("thumb download finished:success")));
        rest.replace(fixedLine("thumb download finished:success"), "");
        QCOMPARE(rest,
                 fixedLine("video download finished:success") + fixedLine("detach sharememory"));
        QVERIFY(run.errorOutput().contains(composedLine("downloaded:0/" + total)));
        QVERIFY(run.errorOutput().contains(composedLine("downloaded:" + total + '/' + total)));
        QCOMPARE(run.exitCode(), 0);

        const QString name = option("tmp/") + pageHash(url);
        QVERIFY(run.fileContent(name + option(".mp4")) == m_clip);
        QVERIFY(run.fileContent(name + option(".thumb")) == m_picture);
        const QList<QByteArray> rows = run.fileContent(csvPath()).split('\n');
        QCOMPARE(rows.at(0),
                 QByteArray("TaskId,Url,State,Time Used(s),FileSize,Duration(s),Width,Height,"
                            "Title,Thumb Path,Video Path"));
        const QByteArray &row = rows.at(1);
        QVERIFY2(row.startsWith(pageHash(url).toUtf8() + ",\"" + url.toUtf8() + "\",Y,"), row);
        QVERIFY2(row.endsWith(',' + total + ",0,0,0,\"A & \"B\"\",\"" + run.path(name).toUtf8()
                              + ".thumb\",\"" + run.path(name).toUtf8() + ".mp4\""),
                 row);
        QCOMPARE(rows.size(), 3);
    }

    void resumesWhatIsOnDisk()
    {
        const QString url = addPage(option("/resume.html"), "x");
        ProgramRun run;
        QVERIFY(QDir(run.folder()).mkdir(option("tmp")));
        const QString name = option("tmp/") + pageHash(url) + option(".mp4");
        QVERIFY(writeFile(run.path(name), m_clip.left(3000000)));
        QVERIFY(run.run({option("--url"), url, option("--size"), QString::number(m_clip.size())}));
        QVERIFY(run.fileContent(name) == m_clip);
        QVERIFY(m_nginx.accessLog().contains("206 GET /clip.mp4 HTTP/1.1 bytes=3000000--"));
        QVERIFY(run.errorOutput().contains(
            composedLine("downloaded:3000000/" + QByteArray::number(m_clip.size()))));
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:success")));
    }

    void aCompleteFileIsNotFetchedAgain()
    {
        const QString url = addPage(option("/complete.html"), "x");
        ProgramRun run;
        QVERIFY(QDir(run.folder()).mkdir(option("tmp")));
        const QString name = option("tmp/") + pageHash(url) + option(".mp4");
        QVERIFY(writeFile(run.path(name), m_clip));
        const int before = m_nginx.accessLog().size();
        QVERIFY(run.run({option("--url"), url, option("--size"), QString::number(m_clip.size())}));
        const QByteArray total = QByteArray::number(m_clip.size());
        QCOMPARE(run.errorOutput(),
                 parsingLine(url) + record("x") + fixedLine("start download video ...")
                     + composedLine("downloaded:" + total + '/' + total)
                     + fixedLine("video download finished:success")
                     + fixedLine("detach sharememory"));
        QVERIFY(run.fileContent(name) == m_clip);
        // The engine asked for the page and its video; nobody else asked for anything.
        QCOMPARE(m_nginx.accessLog().size() - before, 2);
    }

    void noresumeStartsAfresh()
    {
        const QString url = addPage(option("/noresume.html"), "x");
        ProgramRun run;
        QVERIFY(QDir(run.folder()).mkdir(option("tmp")));
        const QString name = option("tmp/") + pageHash(url) + option(".mp4");
        QVERIFY(writeFile(run.path(name), testBytes(1000)));
        QVERIFY(run.run({option("--url"), url, option("--noresume")}));
        QVERIFY(run.fileContent(name) == m_clip);
    }

    void smartNameTakesTheTitle()
    {
        const QString url = addPage(option("/smart.html"), "What? A/B &#x1F3AC; clip");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), url, option("--smartname")}));
        QVERIFY(run.fileContent(QString::fromUtf8("tmp/What_ A_B \xf0\x9f\x8e\xac clip.mp4"))
                == m_clip);
    }

    void savetoNamesTheFile()
    {
        const QString url = addPage(option("/saveto.html"), "x");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), url, option("--thumb"), option("--smartname"),
                         option("--saveto"), run.path(option("mine.bin"))}));
        QVERIFY(run.fileContent(option("mine.bin")) == m_clip);
        QVERIFY(run.fileContent(pageHash(url) + option(".thumb")) == m_picture);
    }

    void partialStopsEarlyAndCountsAsFailed()
    {
        const QString url = addPage(option("/partial.html"), "x");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), url, option("--partial")}));
        QVERIFY2(run.errorOutput().endsWith(fixedLine("video download finished:failed")
                                            + fixedLine("detach sharememory")),
                 run.errorOutput());
        const QByteArray part = run.fileContent(option("tmp/") + pageHash(url) + option(".mp4"));
        QVERIFY(part.size() > 10240);
        QVERIFY(m_clip.startsWith(part));
    }

    void aClosedHostDoesNotEndTheDownload()
    {
        const QString url = addPage(option("/closed.html"), "x");
        ProgramRun run;
        QProcess shell;
        shell.setWorkingDirectory(run.folder());
        shell.start(option("/bin/bash"),
                    {option("-c"), option("\"$0\" --url \"$1\" 2> >(exec 0<&-; sleep 0)"),
                     ProgramRun::program(), url});
        QVERIFY(shell.waitForFinished(60000));
        QVERIFY(run.fileContent(option("tmp/") + pageHash(url) + option(".mp4")) == m_clip);
    }

    void showsTheViewOnRequest()
    {
        const QString url = addPage(option("/show.html"), "x");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), url, option("--show")}));
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:success")));
        QCOMPARE(run.exitCode(), 0);
    }

    void aStaleStopFlagDoesNotStopANewRun()
    {
        const QString url = addPage(option("/stale.html"), "x");
        QSharedMemory stale(QStringLiteral("SM_") + pageHash(url));
        QVERIFY(stale.create(1));
        *static_cast<char *>(stale.data()) = 1;
        ProgramRun run;
        QVERIFY(run.run({option("--url"), url}));
        QVERIFY(run.errorOutput().startsWith(fixedLine("detach sharememory") + parsingLine(url)));
        QVERIFY(run.errorOutput().endsWith(fixedLine("video download finished:success")
                                           + fixedLine("detach sharememory")));
    }

    void twoRunsForOnePage()
    {
        const QString url = addPage(option("/two.html"), "x");
        ProgramRun first;
        ProgramRun second;
        first.start({option("--url"), url});
        second.start({option("--url"), url});
        QVERIFY(first.waitForEnd());
        QVERIFY(second.waitForEnd());
        for (const ProgramRun *run : {&first, &second}) {
            QVERIFY(run->endedNormally());
            QVERIFY(run->errorOutput().contains(fixedLine("video download finished:success")));
            QVERIFY(run->fileContent(option("tmp/") + pageHash(url) + option(".mp4")) == m_clip);
        }
    }

    void twentyRunsAtOnce()
    {
        constexpr int count = 20;
        QTemporaryDir shared;
        std::vector<std::unique_ptr<ProgramRun>> runs;
        for (int i = 0; i < count; ++i) {
            const QString url = addPage(QStringLiteral("/many%1.html").arg(i), "x");
            runs.push_back(std::make_unique<ProgramRun>());
            runs.back()->start({option("--url"), url, option("--log"), option("--saveto"),
                                shared.filePath(QStringLiteral("%1.mp4").arg(i))});
        }
        for (int i = 0; i < count; ++i) {
            auto &run = *runs.at(static_cast<size_t>(i));
            QVERIFY(run.waitForEnd(120000));
            QVERIFY(run.errorOutput().contains(fixedLine("video download finished:success")));
            QVERIFY(readFile(shared.filePath(QStringLiteral("%1.mp4").arg(i))) == m_clip);
        }
        const QString csv = shared.filePath(
            option("logs/") + QDate::currentDate().toString(Qt::ISODate) + option(".csv"));
        const QList<QByteArray> rows = readFile(csv).split('\n');
        QCOMPARE(rows.size(), count + 2);
        QVERIFY(rows.at(0).startsWith("TaskId,"));
        for (int i = 1; i <= count; ++i)
            QVERIFY2(rows.at(i).contains(",Y,"), rows.at(i));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunPage)
#include "tst_run_page.moc"
