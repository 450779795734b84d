#include "HdsFixtures.h"
#include "HdsStream.h"
#include "Nginx.h"
#include "PageRun.h"
#include "TestMain.h"

namespace {

/// A page whose script asks for addresses, in order.
QByteArray askingPage(const QList<QByteArray> &addresses)
{
    QByteArray script;
    for (const QByteArray &address : addresses)
        script += "var x = new XMLHttpRequest(); x.open('GET', '" + address + "'); x.send();";
    return "<title>stream</title><script>" + script + "</script>";
}

QByteArray getPageLine(const QString &address)
{
    return "Get page: \"" + address.toUtf8() + "\" \n";
}

/// Without the requests of fragments and the progress, whose order and number are left to time.
QByteArray withoutFragments(const QByteArray &errorOutput)
{
    QByteArray result;
    for (const QByteArray &line : withoutProgress(errorOutput).split('\n')) {
        if (!line.isEmpty() && !(line.startsWith("Get page:") && line.contains("-Frag")))
            result += line + '\n';
    }
    return result;
}

} // namespace

/// Whole runs whose page plays a stream of fragments.
class tst_RunHds : public QObject
{
    Q_OBJECT

    ScriptedServer *m_server = nullptr;
    QString m_page;

    /// Scripts a page that asks for a manifest of so many fragments, and the fragments.
    void serveStream(ScriptedServer &server, int fragmentCount)
    {
        m_server = &server;
        m_page = server.address("/page");
        server.on("/page", htmlReply(askingPage({"/s/m.f4m"})));
        server.on(
            "/s/m.f4m",
            mediaReply(hds::manifest("stream", hds::simpleBootstrap(fragmentCount)), "video/f4m"));
        for (int i = 1; i <= fragmentCount; ++i)
            server.on(fragmentPath(i), mediaReply(hds::numberedFragment(i), "video/f4f"));
    }

    static QByteArray fragmentPath(int number)
    {
        return "/s/streamSeg1-Frag" + QByteArray::number(number);
    }

    QString flvPath() const { return option("tmp/") + pageHash(m_page) + option(".flv"); }

    /// The number of tags in the file, which must be sound.
    int tagCount(const ProgramRun &run) const
    {
        QString error;
        const auto tags = hds::readFlv(run.fileContent(flvPath()), error);
        return error.isEmpty() ? tags.size() : -1;
    }

    /// The lines from the start of a run to the request for the manifest.
    QByteArray manifestLines(const ProgramRun &run) const
    {
        const QByteArray folder = run.path(option("tmp")).toUtf8();
        return parsingLine(m_page) + composedLine(folder)
            + composedLine("setOption: manifest=" + m_server->address("/s/m.f4m").toUtf8())
            + composedLine("setOption: outFile=" + pageHash(m_page).toUtf8() + ".flv")
            + composedLine("setOption: outDir=" + folder)
            + fixedLine("Processing manifest info....")
            + getPageLine(m_server->address("/s/m.f4m"));
    }

    /// The lines from the start of a run to the first request for a fragment.
    QByteArray startLines(const ProgramRun &run, int fragmentCount) const
    {
        return manifestLines(run) + composedLine("all quality: 800 ")
            + composedLine("select quality:800")
            + composedLine("FragCount:" + QByteArray::number(fragmentCount));
    }

    static QByteArray endLines(const QByteArray &result)
    {
        return fixedLine("video download finished:" + result) + fixedLine("detach sharememory");
    }

private slots:
    void wholeStreamOfARealEncoder()
    {
        Nginx nginx;
        HdsStream stream(nginx.rootFolder() + option("/s"));
        QVERIFY(stream.make({option("-c:v"), option("libx264"), option("-b:v"), option("300k"),
                             option("-g"), option("25"), option("-c:a"), option("aac"),
                             option("-b:a"), option("64k")},
                            8, 1000));
        QVERIFY(stream.writeManifest(option("m.f4m")));
        QFile page(nginx.rootFolder() + option("/page.html"));
        QVERIFY(page.open(QIODevice::WriteOnly));
        page.write(askingPage({"/s/m.f4m"}));
        page.close();
        QVERIFY(nginx.start());
        m_page = nginx.address(option("/page.html"));

        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f"), option("--log")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QCOMPARE(run.exitCode(), 0);
        const QString flv = run.path(flvPath());
        const QByteArray size = QByteArray::number(QFileInfo(flv).size());
        QCOMPARE(run.errorOutput().count(composedLine("downloaded:" + size + '/' + size)), 1);
        for (const char *const kind : {"v", "a"}) {
            const auto packets = HdsStream::packets(flv, option(kind));
            const auto expected = HdsStream::packets(stream.sourceFile(), option(kind));
            QVERIFY(packets.size() > 10);
            QCOMPARE(packets.size(), expected.size());
            for (int i = 0; i < packets.size(); ++i)
                QCOMPARE(packets.at(i).payload, expected.at(i).payload);
        }
        QCOMPARE(HdsStream::complaints(flv), QByteArray());
        QVERIFY(tagCount(run) > 0);
        QVERIFY(run.fileContent(csvPath()).contains(",Y,"));
    }

    void everyLineOfARun()
    {
        ScriptedServer server;
        serveStream(server, 10);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f")}));
        QCOMPARE(withoutFragments(run.errorOutput()), startLines(run, 10) + endLines("success"));
        QVERIFY(run.errorOutput().contains(composedLine("downloaded:10/10")));
        for (int i = 1; i <= 10; ++i)
            QCOMPARE(server.requestsFor(fragmentPath(i)).size(), 1);
        QVERIFY(tagCount(run) > 0);
    }

    void aFragmentAddressNamesItsManifest()
    {
        ScriptedServer server;
        serveStream(server, 3);
        server.on("/page", htmlReply(askingPage({"/s/Seg1-Frag2?key=1"})));
        server.on("/s/mainfest.f4m",
                  mediaReply(hds::manifest("stream", hds::simpleBootstrap(3)), "application/xml"));
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QCOMPARE(server.requestsFor("/s/mainfest.f4m").first().target,
                 QByteArray("/s/mainfest.f4m?key=1"));
        QCOMPARE(server.requestsFor(fragmentPath(1)).first().target, fragmentPath(1) + "?key=1");
    }

    void thePageAddressItselfIsAManifest()
    {
        ScriptedServer server;
        serveStream(server, 3);
        m_page = server.address("/s/m.f4m");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
    }

    void theFirstStreamOfAPageWinsOnce()
    {
        ScriptedServer server;
        serveStream(server, 3);
        server.on("/page", htmlReply(askingPage({"/s/m.f4m", "/t/m.f4m", "/s/m.f4m?again"})));
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f")}));
        QCOMPARE(withoutFragments(run.errorOutput()), startLines(run, 3) + endLines("success"));
        for (const HttpRequest &request : server.requestsFor("/t/m.f4m"))
            QVERIFY(!isFromDownloader(request));
    }

    void withoutTheFlagAStreamIsNoVideo()
    {
        ScriptedServer server;
        serveStream(server, 3);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--timeout"), option("2")}));
        QCOMPARE(run.errorOutput(),
                 parsingLine(m_page) + fixedLine("parse failed") + fixedLine("detach sharememory"));
    }

    void unusableManifests_data()
    {
        QTest::addColumn<HttpReply>("reply");
        HttpReply missing;
        missing.status = 404;
        QTest::newRow("404") << missing;
        QTest::newRow("empty") << HttpReply();
        QTest::newRow("no XML") << mediaReply("nonsense", "video/f4m");
        QTest::newRow("no bootstrap") << mediaReply("<manifest><media url='a'/></manifest>");
        QTest::newRow("no fragments")
            << mediaReply(hds::manifest("stream", hds::Bootstrap().abst()));
        HttpReply cut = mediaReply(hds::manifest("stream", hds::simpleBootstrap(3)));
        cut.cutAfterBytes = 30;
        QTest::newRow("cut") << cut;
        HttpReply loop;
        loop.status = 302;
        loop.headers = {{"Location", "/s/m.f4m"}};
        QTest::newRow("redirect loop") << loop;
        QTest::newRow("four billion runs") << mediaReply(hds::manifest(
            "stream",
            QByteArray::fromHex("00000064616273740000000000000001") + QByteArray(84, '\xff')));
    }

    void unusableManifests()
    {
        QFETCH(HttpReply, reply);
        ScriptedServer server;
        serveStream(server, 0);
        server.on("/s/m.f4m", reply);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("failed")), run.errorOutput());
        QCOMPARE(run.errorOutput().count("video download finished"), 1);
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(run.endedNormally());
    }

    void aFragmentThatFailsThirtyTimesAndThenComes()
    {
        ScriptedServer server;
        serveStream(server, 5);
        int attempts = 0;
        server.on(fragmentPath(3), [&attempts](const HttpRequest &) {
            HttpReply failing;
            failing.status = 503;
            return ++attempts <= 30 ? failing : mediaReply(hds::numberedFragment(3));
        });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QCOMPARE(attempts, 31);
        QCOMPARE(tagCount(run), 10);
    }

    void aFragmentThatNeverComes()
    {
        ScriptedServer server;
        serveStream(server, 5);
        HttpReply cut = mediaReply(hds::numberedFragment(3));
        cut.cutAfterBytes = 20;
        server.on(fragmentPath(3), cut);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QCOMPARE(server.requestsFor(fragmentPath(3)).size(), 31);
        QCOMPARE(tagCount(run), 8);
    }

    void aSecondRunTakesWhatIsInTheCache()
    {
        ScriptedServer server;
        serveStream(server, 6);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f")}));
        const QByteArray flv = run.fileContent(flvPath());
        const QDir cache(run.path(option("tmp/f4ftmp")));
        const QStringList files = cache.entryList({option("*Frag4")}, QDir::Files);
        QCOMPARE(files.size(), 1);
        QVERIFY(QFile::remove(cache.filePath(files.first())));
        server.clearRequests();
        QVERIFY(run.run({option("--url"), m_page, option("--f4f")}));
        QCOMPARE(server.requestsFor(fragmentPath(4)).size(), 1);
        QCOMPARE(server.requestsFor(fragmentPath(3)).size(), 0);
        QVERIFY(run.fileContent(flvPath()) == flv);
    }

    void aSilentManifestFails()
    {
        ScriptedServer server;
        serveStream(server, 3);
        server.hold("/s/m.f4m");
        ProgramRun run;
        QVERIFY(
            run.run({option("--url"), m_page, option("--f4f"), option("--stall"), option("1")}));
        QCOMPARE(run.errorOutput(),
                 manifestLines(run)
                     + composedLine("access " + server.address("/s/m.f4m").toUtf8() + " failed!")
                     + endLines("failed"));
    }

    void aSilentBootstrapFails()
    {
        ScriptedServer server;
        serveStream(server, 3);
        server.on("/s/m.f4m",
                  mediaReply("<manifest><bootstrapInfo id=\"b\" url=\"s.abst\"/>"
                             "<media url=\"stream\" bitrate=\"800\" bootstrapInfoId=\"b\"/>"
                             "</manifest>",
                             "video/f4m"));
        server.hold("/s/s.abst");
        ProgramRun run;
        QVERIFY(
            run.run({option("--url"), m_page, option("--f4f"), option("--stall"), option("1")}));
        QVERIFY2(run.errorOutput().startsWith(manifestLines(run)), run.errorOutput());
        QVERIFY2(run.errorOutput().endsWith(endLines("failed")), run.errorOutput());
        QCOMPARE(server.requestsFor("/s/s.abst").size(), 1);
    }

    void aSilentFragmentIsOneFailedAttempt()
    {
        ScriptedServer server;
        serveStream(server, 5);
        int attempts = 0;
        server.onRaw(fragmentPath(3), [&attempts](const HttpRequest &, QTcpSocket *socket) {
            const QByteArray body = hds::numberedFragment(3);
            ++attempts;
            if (attempts > 1)
                socket->write("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: "
                              + QByteArray::number(body.size()) + "\r\n\r\n");
            if (attempts > 2)
                socket->write(body);
        });
        ProgramRun run;
        QVERIFY(
            run.run({option("--url"), m_page, option("--f4f"), option("--stall"), option("1")}));
        QCOMPARE(withoutFragments(run.errorOutput()), startLines(run, 5) + endLines("success"));
        QCOMPARE(attempts, 3);
        QCOMPARE(tagCount(run), 10);
    }

    void stopsAtEveryMoment_data()
    {
        QTest::addColumn<QByteArray>("heldPath");
        QTest::newRow("the manifest is held") << QByteArray("/s/m.f4m");
        QTest::newRow("the first fragment is held") << fragmentPath(1);
        QTest::newRow("a later fragment is held") << fragmentPath(30);
    }

    void stopsAtEveryMoment()
    {
        QFETCH(QByteArray, heldPath);
        ScriptedServer server;
        serveStream(server, 40);
        if (heldPath == "/s/m.f4m") {
            m_page = server.address("/page");
            server.on("/page", htmlReply(askingPage({"/other.f4m"})));
            server.on("/page", htmlReply(askingPage({"/s/m.f4m"})));
        }
        server.hold(heldPath);
        ProgramRun run;
        run.start({option("--url"), m_page, option("--f4f")});
        QTRY_VERIFY_WITH_TIMEOUT(!server.requestsFor(heldPath).isEmpty(), 20000);
        QVERIFY(askToExit(m_page));
        QVERIFY(run.waitForEnd(20000));
        QVERIFY2(
            run.errorOutput().endsWith(fixedLine("exiting...") + fixedLine("detach sharememory")),
            run.errorOutput());
        QCOMPARE(run.errorOutput().count("exiting..."), 1);
        QVERIFY(!run.errorOutput().contains("finished"));
        QVERIFY(run.endedNormally());
    }

    void anOutputThatCannotBeWrittenFails_data()
    {
        QTest::addColumn<QString>("linkTarget");
        QTest::newRow("full disk") << option("/dev/full");
        QTest::newRow("folder in its place") << option("/");
    }

    void anOutputThatCannotBeWrittenFails()
    {
        QFETCH(QString, linkTarget);
        ScriptedServer server;
        serveStream(server, 5);
        ProgramRun run;
        QVERIFY(QFile::link(linkTarget, run.path(option("out.flv"))));
        QVERIFY(run.run({option("--url"), m_page, option("--f4f"), option("--saveto"),
                         run.path(option("out.flv"))}));
        QVERIFY2(run.errorOutput().endsWith(endLines("failed")), run.errorOutput());
        QVERIFY(run.endedNormally());
        QVERIFY(QFileInfo::exists(linkTarget));
    }

    void cookiesOfThePageReachTheStream()
    {
        ScriptedServer server;
        serveStream(server, 3);
        HttpReply page = htmlReply(askingPage({"/s/m.f4m"}));
        page.headers += qMakePair(QByteArray("Set-Cookie"), QByteArray("sid=9; Path=/"));
        server.on("/page", page);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QCOMPARE(server.requestsFor("/s/m.f4m").last().header("Cookie"), QByteArray("sid=9"));
        QCOMPARE(server.requestsFor(fragmentPath(2)).last().header("Cookie"), QByteArray("sid=9"));
    }

    void theProxyCarriesTheStream()
    {
        ScriptedServer stream;
        serveStream(stream, 3);
        ScriptedServer proxy;
        proxy.onOther([](const HttpRequest &request) {
            if (request.target.endsWith("/page"))
                return htmlReply(askingPage({"/s/m.f4m"}));
            if (request.target.endsWith(".f4m"))
                return mediaReply(hds::manifest("stream", hds::simpleBootstrap(3)), "video/f4m");
            return mediaReply(hds::numberedFragment(request.target.right(1).toInt()));
        });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f"), option("--proxy"),
                         QStringLiteral("3:127.0.0.1:%1").arg(proxy.port())}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QVERIFY(stream.requests().isEmpty());
    }
};

CLIPWEIR_TEST_MAIN(tst_RunHds)
#include "tst_run_hds.moc"
