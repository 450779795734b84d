// Whole runs whose files lie in places of all kinds: the sandbox is made around wherever they are.

#include "ConfinedRun.h"
#include "TestMain.h"

#include <unistd.h>

class tst_RunFolders : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_server = std::make_unique<ScriptedServer>(); }
    void foldersOfAllKinds_data();
    void foldersOfAllKinds();
    void linkedFilesAreFollowed();
    void cachesAreTheRunsOwn();
    void settingsAndCookiesAreReached();

private:
    std::unique_ptr<ScriptedServer> m_server;
    const QByteArray m_video = testBytes(6 * 1024 * 1024);
};

void tst_RunFolders::foldersOfAllKinds_data()
{
    QTest::addColumn<QString>("saveTo");
    QTest::addColumn<QString>("video");
    QTest::addColumn<QString>("variable");
    QTest::addColumn<QString>("value");

    const QString plain = option("%1/out/v.mp4");
    const auto with = [&plain](const char *variable, const char *value) {
        QTest::newRow(variable[0] == '-' ? "plain"
                                         : (QByteArray(variable) + '=' + value).constData())
            << plain << plain << option(variable) << option(value);
    };
    QTest::newRow("relative") << option("out/v.mp4") << plain << QString() << QString();
    QTest::newRow("the working folder")
        << option("v.mp4") << option("%1/v.mp4") << QString() << QString();
    QTest::newRow("with a detour")
        << option("out/../out/./v.mp4") << plain << QString() << QString();
    QTest::newRow("a link") << option("%1/linked/v.mp4") << plain << QString() << QString();
    QTest::newRow("the home folder")
        << option("%1/home/v.mp4") << option("%1/home/v.mp4") << QString() << QString();
    QTest::newRow("the root folder")
        << option("/%2.mp4") << option("/%2.mp4") << QString() << QString();
    QTest::newRow("the default") << QString() << option("%1/tmp/%3.mp4") << QString() << QString();
    with("TMPDIR", "/var/tmp");
    with("HOME", "");
    with("HOME", "/proc/none");
    with("XDG_CACHE_HOME", "/proc/none");
    with("XDG_CACHE_HOME", "relative");
    with("XDG_DATA_HOME", "/proc/none");
    with("XDG_RUNTIME_DIR", "");
    with("CLIPWEIR_COOKIES", "");
    with("CLIPWEIR_COOKIES", "/dev/null");
    with("CLIPWEIR_COOKIES", "jar.txt");
}

/// Wherever the folders are, a video arrives and nothing else is said.
void tst_RunFolders::foldersOfAllKinds()
{
    QFETCH(QString, saveTo);
    QFETCH(QString, video);
    QFETCH(QString, variable);
    QFETCH(QString, value);
    if (saveTo.startsWith(option("/%2")) && ::access("/", W_OK) != 0)
        saveTo = video = option("%1/out/v.mp4"); // only root may write there

    const QString page =
        servePage(*m_server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
    ConfinedRun run;
    QVERIFY(QFile::link(run.path("out"), run.path("linked")));
    if (!variable.isEmpty())
        run.set({{variable, value}});
    const QString unique = QFileInfo(run->folder()).fileName();
    const auto placed = [&](QString text) {
        return text.replace(option("%1"), run->folder())
            .replace(option("%2"), unique)
            .replace(option("%3"), pageHash(page));
    };
    const QString path = placed(video);
    QStringList arguments{option("--url"), page, option("--log")};
    if (!saveTo.isEmpty())
        arguments += {option("--saveto"), placed(saveTo)};
    QVERIFY(run->run(arguments));

    const QByteArray expected = parsingLine(page)
        + recordLine(m_server->address("/v.mp4"), m_video.size(), "mp4")
        + fixedLine("start download video ...") + fixedLine("video download finished:success")
        + fixedLine("detach sharememory");
    QVERIFY2(withoutProgress(run->errorOutput()) == expected, run->errorOutput().constData());
    QCOMPARE(readFile(path), m_video);
    const QString logs = QFileInfo(path).path() + option("/logs");
    QVERIFY(QFile::exists(logs + option("/") + pageHash(page) + option(".log")));
    if (saveTo.startsWith(QLatin1Char('/')) && !saveTo.startsWith(option("%1"))) {
        QFile::remove(path);
        QDir(logs).removeRecursively();
    }
}

/// A file or folder of the output folder that the user has replaced with a link.
void tst_RunFolders::linkedFilesAreFollowed()
{
    const QString page =
        servePage(*m_server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
    ConfinedRun run;
    QDir().mkpath(run.path("outside/logs"));
    QVERIFY(QFile::link(run.path("outside/logs"), run.path("out/logs")));
    QVERIFY(QFile::link(run.path("outside/kept"), run.path("out/v.mp4")));
    QVERIFY(run->run({option("--url"), page, option("--noresume"), option("--log"),
                      option("--saveto"), run.path("out/v.mp4")}));
    QCOMPARE(readFile(run.path("outside/kept")), m_video);
    QVERIFY(QFile::exists(run.path("outside/logs/") + pageHash(page) + option(".log")));
}

/// The media framework writes a list of its plug-ins: not to the one that other programs trust.
void tst_RunFolders::cachesAreTheRunsOwn()
{
    const QString page =
        servePage(*m_server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
    ConfinedRun run;
    run->forgetPlugins();
#ifdef CLIPWEIR_SANITIZED
    run->setEnvironment(option("ASAN_OPTIONS"), option("detect_leaks=0")); // as in tst_first_run
#endif
    for (int i = 0; i < 2; ++i) { // with a cold cache, and with a warm one
        QVERIFY(run->run({option("--url"), page, option("--noresume"), option("--saveto"),
                          run.path("out/v.mp4")}));
        QCOMPARE(readFile(run.path("out/v.mp4")), m_video);
        QVERIFY(!withoutProgress(run->errorOutput()).contains("scanner"));
    }
    QCOMPARE(QDir(run.path("home/.cache")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
             QStringList{option("clipweir")});
    const QDir list(run.path("home/.cache/clipweir/gstreamer-1.0"));
    QVERIFY(!list.entryList({option("registry.*.bin")}).isEmpty());
    QVERIFY(QDir(run.path("temporary")).isEmpty());
}

/// A page of a kind that the settings describe ends the run as soon as it asks for its streams.
void tst_RunFolders::settingsAndCookiesAreReached()
{
    HttpReply reply = htmlReply("<html><body><script src='/streams'></script></body></html>");
    reply.headers += qMakePair(QByteArray("Set-Cookie"), QByteArray("kept=1; Max-Age=3600"));
    m_server->on("/watch/7", reply);
    m_server->on("/streams", htmlReply("[]"));
    const QString page = m_server->address("/watch/7");
    ConfinedRun run;
    writeFile(run.path("home/.config/clipweir.conf"),
              "[hulu]\npagePattern=\"http://127.0.0.1:[0-9]+/watch/([0-9]+)\"\n"
              "selectionEndpoint=/streams\n");
    for (int i = 0; i < 2; ++i) {
        QVERIFY(run->run({option("--url"), page, option("--timeout"), option("3600"),
                          option("--saveto"), run.path("out/v.mp4")}));
        QCOMPARE(run->errorOutput(),
                 parsingLine(page) + fixedLine("parse failed") + fixedLine("detach sharememory"));
    }
    const QList<HttpRequest> requests = m_server->requestsFor("/watch/7");
    QVERIFY(requests.size() >= 2);
    QCOMPARE(requests.first().header("Cookie"), QByteArray());
    QCOMPARE(requests.last().header("Cookie"), QByteArray("kept=1"));
    QVERIFY(readFile(run.path("home/cookies/cookies.txt")).contains("\tkept\t1"));
}

CLIPWEIR_TEST_MAIN(tst_RunFolders)
#include "tst_run_folders.moc"
