#include "PageRun.h"
#include "PrivateFolder.h"
#include "TestFiles.h"
#include "TestMain.h"

namespace {

/// One way in which a page can ask for an address, "%1" in the markup.
struct Way
{
    const char *name;
    const char *markup;
    bool isTakenOnTheWeb = true; ///< whether the engine asks for an address of the web there
};

/// What a page can embed. Each is one way; scripts send on whatever they could read.
const Way embeddings[] = {
    {"image", "<img src='%1'>"},
    {"image-button", "<input type=image src='%1'>"},
    {"background", "<div style='background:url(%1);width:9px;height:9px'>x</div>"},
    {"stylesheet", "<link rel=stylesheet href='%1'>"},
    {"import", "<style>@import url('%1');</style>"},
    {"font",
     "<style>@font-face{font-family:f;src:url('%1')}</style><p style='font-family:f'>x</p>"},
    {"script", "<script src='%1'></script>"},
    {"frame", "<iframe src='%1'></iframe>"},
    {"object", "<object data='%1' type='text/html'></object>"},
    {"embed", "<embed src='%1' type='image/svg+xml'>"},
    {"video", "<video src='%1' autoplay></video>"},
    {"audio", "<audio src='%1' autoplay></audio>"},
    {"source", "<video autoplay><source src='%1' type='video/mp4'></video>"},
    {"pushed-video", "<video src='push%1' autoplay></video>", false}, // schemes of the player's own
    {"multi-video", "<video src='multi%1' autoplay></video>", false},
    {"split-video", "<audio src='split%1' autoplay></audio>", false},
    {"poster", "<video poster='%1'></video>"},
    {"vector-image", "<svg><image xlink:href='%1' width='9' height='9'/></svg>"},
    {"request",
     "<script>var r=new XMLHttpRequest();r.open('GET','%1');"
     "r.onload=function(){send(this.responseText)};r.send();</script>"},
    {"waiting-request",
     "<script>try{var w=new XMLHttpRequest();w.open('GET','%1',false);w.send();"
     "send(w.responseText)}catch(e){}</script>"},
    {"worker", "<script>try{new Worker('%1')}catch(e){}</script>"},
    {"events", "<script>try{new EventSource('%1')}catch(e){}</script>"},
    {"scripted-frame",
     "<iframe id=sf></iframe><script>document.getElementById('sf')"
     ".contentWindow.location='%1'</script>"},
    {"scripted-image", "<script>new Image().src='%1'</script>"},
};

/// Documents that name an address where only XML or a playlist can, "%1" in the text.
const Way documents[] = {
    {"entity", "<?xml version='1.0'?><!DOCTYPE a [<!ENTITY e SYSTEM '%1'>]><a>&e;</a>", false},
    {"dtd", "<?xml version='1.0'?><!DOCTYPE a SYSTEM '%1'><a/>", false},
    {"parameter-entity", "<?xml version='1.0'?><!DOCTYPE a [<!ENTITY % e SYSTEM '%1'>%e;]><a/>",
     false},
    {"transform", "<?xml version='1.0'?><?xml-stylesheet type='text/xsl' href='%1'?><a/>"},
    {"xml-style", "<?xml version='1.0'?><?xml-stylesheet type='text/css' href='%1'?><a/>"},
    {"include", "<a xmlns:xi='http://www.w3.org/2001/XInclude'><xi:include href='%1'/></a>", false},
};

const char sendScript[] = "<script>function send(t){var i=new XMLHttpRequest();"
                          "i.open('POST','/sent');i.send(t)}</script>";

QByteArray filled(const char *markup, const QString &address)
{
    return QByteArray(markup).replace("%1", address.toUtf8());
}

HttpReply redirectTo(const QByteArray &address)
{
    HttpReply reply;
    reply.status = 302;
    reply.headers = {{"Location", address}};
    return reply;
}

HttpReply xmlReply(const QByteArray &text)
{
    return mediaReply(text, "application/xml");
}

/// Outside the sandbox, which would stop what these tests look for.
QStringList openRun(const QString &page, const QStringList &more)
{
    return QStringList{option("--url"), page, option("--nosandbox")} + more;
}

QStringList openRun(const QString &page)
{
    return openRun(page, {option("--timeout"), option("600")});
}

/// Has a page ask for "/late" of a server when it has had time for all else.
QByteArray lateScript(const ScriptedServer &server)
{
    return "<script>setTimeout(function(){new Image().src='" + server.address("/late").toUtf8()
        + "'},1500)</script>";
}

bool isAsked(const ScriptedServer &server, const QByteArray &path)
{
    return QTest::qWaitFor([&] { return !server.requestsFor(path).isEmpty(); }, 60000);
}

bool stop(ProgramRun &run)
{
    run.process().terminate();
    return run.waitForEnd();
}

} // namespace

/// A page from the web, everything that it is made of and everything that it leads to, against
/// files of this machine: none is even opened.
class tst_RunLocalFiles : public QObject
{
    Q_OBJECT

    PrivateFolder m_private;

    /// Checks what of a run has reached this machine's files, the host and the server.
    void checkRun(const ScriptedServer &server, const ProgramRun &run)
    {
        QVERIFY(run.endedNormally());
        QCOMPARE(m_private.opened(), QStringList());
        QVERIFY(!run.errorOutput().contains("private-text"));
        for (const HttpRequest &request : server.requests()) {
            QVERIFY(!request.body.contains("private-text"));
            QVERIFY(!request.target.contains("private-text"));
        }
    }

    /// Runs a page until it has asked for "/late", so that it has done all that it does.
    void runPage(const ScriptedServer &server, const QString &page, ProgramRun &run)
    {
        run.start(openRun(page));
        QVERIFY(isAsked(server, "/late"));
        QVERIFY(stop(run));
        checkRun(server, run);
    }

    /// The ways on which the server was not asked for the address of the web.
    template <std::size_t count>
    static QStringList untaken(const ScriptedServer &server, const Way (&ways)[count])
    {
        QStringList names;
        for (const Way &way : ways) {
            if (way.isTakenOnTheWeb && server.requestsFor(QByteArray("/web/") + way.name).isEmpty())
                names += QString::fromLatin1(way.name);
        }
        return names;
    }

private slots:
    void theWatchSeesAnOpen()
    {
        const QString address = m_private.address(option("seen"));
        QCOMPARE(m_private.opened(), QStringList());
        QCOMPARE(readFile(QUrl(address).toLocalFile()), PrivateFolder::secret());
        QCOMPARE(m_private.opened(), QStringList{option("seen")});
    }

    void embedded_data()
    {
        QTest::addColumn<bool>("isRedirected");
        QTest::newRow("named by the page") << false;
        QTest::newRow("named by a redirect") << true;
    }

    void embedded()
    {
        QFETCH(bool, isRedirected);
        ScriptedServer server;
        QByteArray page = QByteArray("<html><body>") + sendScript;
        for (const Way &way : embeddings) {
            const QString name = QString::fromLatin1(way.name);
            const QString file = m_private.address(name);
            const QByteArray web = "/web/" + name.toUtf8();
            if (isRedirected) {
                server.on("/to-file/" + name.toUtf8(), redirectTo(file.toUtf8()));
                server.on("/to-web/" + name.toUtf8(), redirectTo(web));
                page += filled(way.markup, server.address("/to-file/" + name.toUtf8()));
                page += filled(way.markup, server.address("/to-web/" + name.toUtf8()));
            } else {
                page += filled(way.markup, file);
                page += filled(way.markup, server.address(web));
            }
        }
        server.on("/page", htmlReply(page + lateScript(server) + "</body></html>"));
        server.onOther([](const HttpRequest &) { return mediaReply("x", "text/plain"); });
        ProgramRun run;
        runPage(server, server.address("/page"), run);
        QCOMPARE(untaken(server, embeddings).join(QLatin1Char(' ')), QString());
    }

    void inDocuments()
    {
        ScriptedServer server;
        QByteArray page("<html><body>");
        for (const Way &way : documents) {
            const QByteArray name(way.name);
            const QString file = m_private.address(QString::fromUtf8(name));
            server.on("/file-doc/" + name, xmlReply(filled(way.markup, file)));
            server.on("/web-doc/" + name,
                      xmlReply(filled(way.markup, server.address("/web/" + name))));
            page += "<iframe src='/file-doc/" + name + "'></iframe><iframe src='/web-doc/" + name
                + "'></iframe>";
        }
        server.on("/page", htmlReply(page + lateScript(server) + "</body></html>"));
        server.onOther([](const HttpRequest &) { return xmlReply("<x/>"); });
        ProgramRun run;
        runPage(server, server.address("/page"), run);
        QCOMPARE(untaken(server, documents).join(QLatin1Char(' ')), QString());
    }

    void inATransformation()
    {
        ScriptedServer server;
        const auto sheet = [](const QString &address) {
            return xmlReply("<xsl:stylesheet version='1.0' "
                            "xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
                            "<xsl:include href='"
                            + address.toUtf8()
                            + "-include'/>"
                              "<xsl:template match='/'><html xmlns='http://www.w3.org/1999/xhtml'>"
                              "<img src='/done?{document(\""
                            + address.toUtf8()
                            + "\")}'/></html>"
                              "</xsl:template></xsl:stylesheet>");
        };
        const QString file = m_private.address(option("sheet"));
        QCOMPARE(m_private.address(option("sheet-include")), file + option("-include"));
        server.on("/file.xsl", sheet(file));
        server.on("/web.xsl", sheet(server.address("/web/sheet")));
        server.on("/web/sheet", xmlReply("<a>the-public-text</a>"));
        server.on("/web/sheet-include",
                  xmlReply("<xsl:stylesheet version='1.0' "
                           "xmlns:xsl='http://www.w3.org/1999/XSL/Transform'/>"));
        for (const char *const name : {"file", "web"}) {
            server.on(QByteArray("/") + name + ".xml",
                      xmlReply(QByteArray("<?xml-stylesheet type='text/xsl' href='/") + name
                               + ".xsl'?><a/>"));
        }
        server.on("/page",
                  htmlReply("<iframe src='/file.xml'></iframe>"
                            "<iframe src='/web.xml'></iframe>"
                            + lateScript(server)));
        ProgramRun run;
        runPage(server, server.address("/page"), run);
        QVERIFY(!server.requestsFor("/web/sheet").isEmpty());
        QVERIFY(!server.requestsFor("/web/sheet-include").isEmpty());
    }

    void navigation_data()
    {
        QTest::addColumn<QByteArray>("page");
        QTest::newRow("refresh") << QByteArray("<meta http-equiv=refresh content='0;url=%1'>");
        QTest::newRow("script") << QByteArray("<script>window.location='%1'</script>");
        QTest::newRow("replace") << QByteArray("<script>location.replace('%1')</script>");
        QTest::newRow("link") << QByteArray(
            "<a id=l href='%1'>x</a><script>document.getElementById('l').click()</script>");
        QTest::newRow("form") << QByteArray(
            "<form id=f action='%1'></form><script>document.getElementById('f').submit()</script>");
        QTest::newRow("top from a frame")
            << QByteArray("<iframe srcdoc=\"<script>top.location='%1'</script>\"></iframe>");
        QTest::newRow("refresh of a frame") << QByteArray("<iframe src='/refresh?%1'></iframe>");
        QTest::newRow("answer") << QByteArray("%1");
    }

    void navigation()
    {
        QFETCH(QByteArray, page);
        ScriptedServer server;
        const auto answer = [&page](const QString &address) {
            return page == "%1"
                ? redirectTo(address.toUtf8())
                : htmlReply("<html><body>" + filled(page, address) + "</body></html>");
        };
        const QString file = m_private.address(option("page.html"));
        server.on("/to-file", answer(file));
        server.on("/to-web", answer(server.address("/web")));
        server.on("/web", htmlReply("x"));
        server.on("/refresh", [](const HttpRequest &request) {
            return htmlReply("<meta http-equiv=refresh content='0;url="
                             + request.target.mid(int(qstrlen("/refresh?"))) + "'>");
        });
        ProgramRun run;
        run.start(openRun(server.address("/to-file")));
        QVERIFY(isAsked(server, "/to-file"));
        ProgramRun web;
        web.start(openRun(server.address("/to-web")));
        QVERIFY(isAsked(server, "/web"));
        QVERIFY(stop(web));
        QVERIFY(stop(run));
        checkRun(server, run);
        QCOMPARE(run.errorOutput(),
                 parsingLine(server.address("/to-file")) + fixedLine("exiting...")
                     + fixedLine("detach sharememory"));
    }

    void playlists_data()
    {
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QStringList>("options");
        const QByteArray hlsType("application/vnd.apple.mpegurl");
        const QByteArray hls("#EXTM3U\n#EXT-X-TARGETDURATION:9\n#EXTINF:9,\n%1\n"
                             "#EXT-X-ENDLIST\n");
        const QStringList open{option("--nosandbox")};
        QTest::newRow("M3U8") << hlsType << hls << open;
        QTest::newRow("M3U8, in the sandbox") << hlsType << hls << QStringList();
        QTest::newRow("M3U8 that calls itself a video") << QByteArray("video/mp4") << hls << open;
        QTest::newRow("M3U8 of variants")
            << hlsType << QByteArray("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000\n%1\n") << open;
        QTest::newRow("list") << QByteArray("text/uri-list") << QByteArray("%1\r\n") << open;
        QTest::newRow("ASX") << QByteArray("video/x-ms-asf")
                             << QByteArray("[Reference]\r\nRef1=%1\r\n") << open;
        QTest::newRow("SMIL") << QByteArray("application/smil")
                              << QByteArray("<smil><body><video src='%1'/></body></smil>") << open;
        QTest::newRow("DASH") << QByteArray("application/dash+xml")
                              << QByteArray("<MPD xmlns='urn:mpeg:dash:schema:mpd:2011' "
                                            "profiles='urn:mpeg:dash:profile:isoff-main:2011' "
                                            "type='static'><Period><AdaptationSet mimeType="
                                            "'video/mp4'><Representation id='1' bandwidth='1'>"
                                            "<BaseURL>%1</BaseURL></Representation>"
                                            "</AdaptationSet></Period></MPD>")
                              << open;
    }

    /// Some of the media framework's plug-ins would open what a playlist names: the test is the
    /// same whether a machine has them, and whether its user prefers them.
    void playlists()
    {
        QFETCH(QByteArray, type);
        QFETCH(QByteArray, text);
        QFETCH(QStringList, options);
        ScriptedServer server;
        const QString page = server.address("/page");
        const QString file = m_private.address(option("segment.ts"));
        server.on("/list", mediaReply(filled(text.constData(), file), type));
        server.on("/page", htmlReply(videoPage("/list") + lateScript(server)));
        ProgramRun run;
        run.setEnvironment(option("GST_PLUGIN_FEATURE_RANK"), option("hlsdemux:MAX,dashdemux:MAX"));
        run.start(QStringList{option("--url"), page} + options);
        QVERIFY(isAsked(server, "/late"));
        QVERIFY(stop(run));
        checkRun(server, run);
        QVERIFY(!server.requestsFor("/list").isEmpty());
    }

    /// A video, a picture and candidates of the page's text whose servers point to files.
    void redirectedDownloads()
    {
        ScriptedServer server;
        const QString file = m_private.address(option("v.mp4"));
        const QByteArray video = testBytes(6000000);
        int probes = 0;
        server.on("/page",
                  htmlReply(videoPage("/v.mp4",
                                      "<meta property=\"og:image\" content=\""
                                          + server.address("/thumb.jpg").toUtf8() + "\">")
                            + "<!-- \"" + server.address("/text.mp4").toUtf8() + "\" -->"));
        server.on("/thumb.jpg", redirectTo(file.toUtf8()));
        server.on("/text.mp4", [&](const HttpRequest &) {
            ++probes;
            return redirectTo(file.toUtf8());
        });
        server.on("/v.mp4", [&](const HttpRequest &request) {
            return isFromDownloader(request) ? redirectTo(file.toUtf8()) : mediaReply(video);
        });
        ProgramRun run;
        QVERIFY(run.run(openRun(server.address("/page"), {option("--thumb"), option("--log")})));
        checkRun(server, run);
        QVERIFY(probes > 0);
        QCOMPARE(server.requestsFor("/thumb.jpg").size(), 1);
        QVERIFY(!run.errorOutput().contains("thumb download finished:success"));
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:failed")));
        const QString name = option("tmp/") + pageHash(server.address("/page"));
        QVERIFY(!QFile::exists(run.path(name + option(".thumb"))));
        QCOMPARE(run.fileContent(name + option(".mp4")), QByteArray());
    }

    void aCandidateThatIsAFileIsNotFetched()
    {
        ScriptedServer server;
        const QString file = m_private.address(option("stream.mp4"));
        const QByteArray description =
            "{\"sequence\":[{\"layerList\":[{\"sequenceList\":[{\"name\":\"main\",\"layerList\":"
            "[{\"name\":\"video\",\"param\":{\"sdURL\":\""
            + file.toUtf8() + "\"}}]}]}]}]}";
        server.on(
            "/page",
            htmlReply("<html lang=en><body><object><param name=\"flashvars\" value=\"sequence="
                      + description.toPercentEncoding() + "\"></object></body></html>"));
        ProgramRun run;
        QVERIFY(run.run(openRun(server.address("/page"))));
        checkRun(server, run);
        QVERIFY2(run.errorOutput().contains("videoUrl: \"" + file.toUtf8()), run.errorOutput());
        QVERIFY(run.errorOutput().endsWith(fixedLine("video download finished:failed")
                                           + fixedLine("detach sharememory")));
        QVERIFY(!QFile::exists(
            run.path(option("tmp/") + pageHash(server.address("/page")) + option(".mp4"))));
    }

    /// The caller may name a file as the page: that one is read, and nothing beside it.
    void aPageOfThisMachine()
    {
        ScriptedServer server;
        server.onOther([](const HttpRequest &) { return mediaReply("x", "text/plain"); });
        QByteArray page = QByteArray("<html><body>") + sendScript;
        for (const Way &way : embeddings) {
            const QString name = QString::fromLatin1(way.name);
            if (name.endsWith(option("video")) || name == option("audio")
                || name == option("source"))
                continue; // the player opens the files of a local page by itself
            page += filled(way.markup, m_private.address(name));
        }
        page += "<img src='" + server.address("/image").toUtf8() + "'>" + lateScript(server)
            + "</body></html>";
        ProgramRun run;
        writeFile(run.path(option("page #1.html")), page);
        const QUrl address = QUrl::fromLocalFile(run.path(option("page #1.html")));
        const QString text = QString::fromUtf8(address.toEncoded());
        runPage(server, text, run);
        QVERIFY(!server.requestsFor("/image").isEmpty());

        server.clearRequests();
        run.start({option("--url"), text});
        QVERIFY(isAsked(server, "/late"));
        QVERIFY(stop(run));
        checkRun(server, run);
        QVERIFY(!server.requestsFor("/image").isEmpty());
    }

    /// What a page carries itself still loads.
    void dataAndBlobsStillLoad()
    {
        ScriptedServer server;
        server.on("/page",
                  htmlReply(QByteArray("<html><body>") + sendScript
                            + "<script src=\"data:text/javascript,send('data')\"></script>"
                              "<script>var b=new XMLHttpRequest();b.open('GET',"
                              "URL.createObjectURL(new Blob(['blob'])));"
                              "b.onload=function(){send(this.responseText)};b.send()</script>"
                            + lateScript(server) + "</body></html>"));
        ProgramRun run;
        runPage(server, server.address("/page"), run);
        QByteArrayList sent;
        for (const HttpRequest &request : server.requestsFor("/sent"))
            sent += request.body;
        std::sort(sent.begin(), sent.end());
        QCOMPARE(sent, (QByteArrayList{"blob", "data"}));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunLocalFiles)
#include "tst_run_local_files.moc"
