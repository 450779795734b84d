#include "HdsFixtures.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"

namespace {

const QByteArray userPassword("userx:passw0rd");

HttpReply redirectTo(const QString &address)
{
    HttpReply reply;
    reply.status = 302;
    reply.headers = {{"Location", address.toUtf8()}};
    return reply;
}

bool isLoggedIn(const HttpRequest &request)
{
    return request.header("Authorization") == "Basic " + userPassword.toBase64();
}

/// Lets nobody through without the password.
ScriptedServer::Handler guarded(const HttpReply &reply)
{
    return [reply](const HttpRequest &request) {
        if (isLoggedIn(request))
            return reply;
        HttpReply refusal;
        refusal.status = 401;
        refusal.headers = {{"WWW-Authenticate", "Basic realm=\"clips\""}};
        return refusal;
    };
}

QString withPassword(const ScriptedServer &server, const QByteArray &target)
{
    return server.address(target).replace(QLatin1String("://"),
                                          QLatin1String("://") + QString::fromUtf8(userPassword)
                                              + QLatin1Char('@'));
}

} // namespace

/// Runs whose page address, and others, hold a user name and a password.
class tst_RunCredentials : public QObject
{
    Q_OBJECT

    ScriptedServer m_server;
    ScriptedServer m_other{QHostAddress(QStringLiteral("127.0.0.2"))};

    /// What a run keeps holds no credentials, nor does what it says of itself to servers.
    void checkNothingKept(const ProgramRun &run)
    {
        for (const QString &path : filesBelow(run.folder())) {
            QVERIFY2(!path.contains(QLatin1String("passw0rd")), qPrintable(path));
            if (QFileInfo(run.path(path)).isDir())
                continue;
            const QByteArray content = run.fileContent(path);
            QVERIFY2(!content.contains("passw0rd"), qPrintable(path));
            QVERIFY2(!content.contains("userx"), qPrintable(path));
        }
        for (const ScriptedServer *const server : {&m_server, &m_other}) {
            for (const HttpRequest &request : server->requests()) {
                const QByteArray referer = request.header("Referer");
                QVERIFY2(!referer.contains("passw0rd") && !referer.contains('@'), referer);
                QVERIFY(!request.target.contains("passw0rd"));
                QVERIFY(!request.header("Cookie").contains("passw0rd"));
            }
        }
        for (const HttpRequest &request : m_other.requests())
            QVERIFY(!request.hasHeader("Authorization"));
    }

    bool wasLoggedIn(const QByteArray &path, bool byDownloader) const
    {
        for (const HttpRequest &request : m_server.requestsFor(path)) {
            if (isLoggedIn(request) && isFromDownloader(request) == byDownloader)
                return true;
        }
        return false;
    }

private slots:
    void init()
    {
        m_server.clearRequests();
        m_other.clearRequests();
        m_other.onOther([](const HttpRequest &) { return mediaReply("x", "text/plain"); });
    }

    void aPageBehindAPassword()
    {
        const QByteArray video = testBytes(6000000);
        const QString text = withPassword(m_server, "/text.mp4");
        const QString thumb = withPassword(m_server, "/thumb.png");
        HttpReply reply = htmlReply(videoPage(
            "/v.mp4",
            "<title>A clip</title><meta property=\"og:image\" content=\"" + thumb.toUtf8()
                + "\"><link rel=stylesheet href='" + m_other.address("/style").toUtf8()
                + "'><script src='/redirected'></script><!-- \"" + text.toUtf8() + "\" -->"));
        reply.headers += qMakePair(QByteArray("Set-Cookie"), QByteArray("c=1; Max-Age=9000"));
        m_server.on("/page", guarded(reply));
        m_server.on("/v.mp4", guarded(mediaReply(video)));
        m_server.on("/text.mp4", guarded(mediaReply(testBytes(1100000))));
        m_server.on("/thumb.png", guarded(mediaReply("picture", "image/png")));
        m_server.on("/redirected", guarded(redirectTo(m_other.address("/script"))));

        const QString page = withPassword(m_server, "/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--log"), option("--thumb")}));
        // The host gets what it gave, and addresses that it can use.
        QVERIFY2(run.errorOutput().startsWith(parsingLine(page)), run.errorOutput());
        QVERIFY2(run.errorOutput().contains("videoUrl: \"" + text.toUtf8() + "\" "),
                 run.errorOutput());
        QVERIFY2(run.errorOutput().contains(fixedLine("video download finished:success")),
                 run.errorOutput());
        const QString files = option("tmp/") + pageHash(page);
        QVERIFY(run.fileContent(files + option(".mp4")) == video);
        QVERIFY(wasLoggedIn("/page", false));
        QVERIFY(wasLoggedIn("/v.mp4", true));
        QVERIFY(wasLoggedIn("/text.mp4", true));
        QVERIFY(!m_other.requestsFor("/style").isEmpty());
        QVERIFY(!m_other.requestsFor("/script").isEmpty());
        QVERIFY(m_other.requestsFor("/style").constFirst().hasHeader("Referer"));
        checkNothingKept(run);

        const QByteArray log =
            run.fileContent(option("tmp/logs/") + pageHash(page) + option(".log"));
        QVERIFY2(
            log.contains("Debug: \"" + m_server.address("/page").toUtf8() + "\" parsing... \n"),
            log);
        QVERIFY2(log.contains("videoUrl: \"" + m_server.address("/text.mp4").toUtf8() + "\" \n"),
                 log);
        QVERIFY2(run.fileContent(csvPath()).contains(",\"" + m_server.address("/page").toUtf8()
                                                     + "\",Y,"),
                 run.fileContent(csvPath()));
        QVERIFY(run.fileContent(option("cookies.txt")).contains("\tc\t1\n"));
    }

    void theTitleRepeatsTheAddress()
    {
        const QByteArray video = testBytes(6000000);
        const QString page = withPassword(m_server, "/page");
        m_server.on("/page",
                    htmlReply(videoPage("/v.mp4", "<title>See " + page.toUtf8() + " now</title>")));
        m_server.on("/v.mp4", mediaReply(video));
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--log")}));
        QVERIFY(run.errorOutput().contains("\"title\":\"See " + page.toUtf8() + " now\""));
        checkNothingKept(run);
        QVERIFY(run.fileContent(csvPath()).contains(",\"See " + m_server.address("/page").toUtf8()
                                                    + " now\","));
    }

    /// A password follows a redirect to no other host, nor does a redirect's own get written down.
    void redirects()
    {
        const QByteArray video = testBytes(6000000);
        m_server.on("/v.mp4", [&](const HttpRequest &request) {
            return isFromDownloader(request) ? redirectTo(m_other.address("/v.mp4"))
                                             : mediaReply(video);
        });
        m_other.on("/v.mp4", redirectTo(withPassword(m_server, "/real.mp4")));
        m_server.on("/real.mp4", guarded(mediaReply(video)));
        m_server.on("/page", htmlReply(videoPage("/v.mp4")));
        m_server.on("/start", redirectTo(withPassword(m_server, "/page")));
        const QString page = withPassword(m_server, "/start");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--log")}));
        QVERIFY2(run.errorOutput().contains(fixedLine("video download finished:success")),
                 run.errorOutput());
        QVERIFY(!m_other.requestsFor("/v.mp4").isEmpty());
        QVERIFY(wasLoggedIn("/real.mp4", true));
        checkNothingKept(run);
    }

    void aStreamBehindAPassword()
    {
        m_server.on("/page",
                    guarded(htmlReply("<script>var x=new XMLHttpRequest();x.open('GET','"
                                      + withPassword(m_server, "/s/m.f4m").toUtf8()
                                      + "');x.send()</script>")));
        m_server.on("/s/m.f4m", [this](const HttpRequest &request) {
            return isFromDownloader(request) ? redirectTo(withPassword(m_server, "/s/n.f4m"))
                                             : mediaReply("x", "video/f4m");
        });
        m_server.on("/s/n.f4m", guarded(mediaReply(hds::manifest("v", hds::simpleBootstrap(2)))));
        m_server.on("/s/vSeg1-Frag1", guarded(mediaReply(hds::numberedFragment(1))));
        m_server.on("/s/vSeg1-Frag2", guarded(mediaReply(hds::numberedFragment(2))));
        const QString page = withPassword(m_server, "/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--log"), option("--f4f")}));
        QVERIFY2(run.errorOutput().contains(fixedLine("video download finished:success")),
                 run.errorOutput());
        QVERIFY(run.errorOutput().contains("Redirect to:  \""
                                           + withPassword(m_server, "/s/n.f4m").toUtf8()));
        QVERIFY(wasLoggedIn("/s/vSeg1-Frag1", true));
        for (const HttpRequest &request : m_server.requests())
            QVERIFY(!isFromDownloader(request) || !request.hasHeader("Referer"));
        checkNothingKept(run);
    }

    /// A proxy is given by its number; what stands in place of one, a password included, is kept
    /// nowhere.
    void aProxyWithAPassword()
    {
        const QByteArray video = testBytes(6000000);
        m_server.on("/page", htmlReply(videoPage("/v.mp4")));
        m_server.on("/v.mp4", mediaReply(video));
        const QString page = m_server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--log"), option("--proxy"),
                         option("3:userx:passw0rd@127.0.0.1:1")}));
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:success")));
        QVERIFY(!run.errorOutput().contains("passw0rd"));
        checkNothingKept(run);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunCredentials)
#include "tst_run_credentials.moc"
