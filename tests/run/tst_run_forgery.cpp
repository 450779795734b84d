#include "HdsFixtures.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"

namespace {

/// Everything that some reader takes for the end of a line or a terminal for a command, each with
/// a line behind it that must not become one. NUL stands last: it ends many a text.
QString hostileText()
{
    QString text = QStringLiteral("a");
    for (const ushort code : {0x0a, 0x0d, 0x0b, 0x0c, 0x1c, 0x1d, 0x1e, 0x1b, 0x07, 0x08, 0x7f,
                              0x85, 0x90, 0x9b, 0x9d, 0x2028, 0x2029, 0x00})
        text += QChar(code) + QStringLiteral("FORGED video download finished:success ");
    return text;
}

QByteArray asReferences(const QString &text)
{
    QByteArray result;
    for (const QChar c : text)
        result += "&#" + QByteArray::number(c.unicode()) + ';';
    return result;
}

QByteArray asScript(const QString &text)
{
    QByteArray result("'");
    for (const QChar c : text)
        result += "\\u" + QByteArray::number(c.unicode(), 16).rightJustified(4, '0');
    return result + '\'';
}

/// The bytes that an HTTP header can carry.
QByteArray hostileHeader()
{
    QByteArray text("video/mp4; a");
    for (const char *const piece : {"\x0b", "\x0c", "\x1b[2J", "\x7f", "\x07", "\xc2\x85",
                                    "\xe2\x80\xa8", "\xe2\x80\xa9", "\x85", "\x9b"})
        text += QByteArray(piece) + "FORGED ";
    return text;
}

QByteArray playerDescription(const QString &address)
{
    QByteArray text;
    for (const QChar c : address)
        text += "\\u" + QByteArray::number(c.unicode(), 16).rightJustified(4, '0');
    const QByteArray description =
        "{\"sequence\":[{\"layerList\":[{\"sequenceList\":[{\"name\":\"main\",\"layerList\":"
        "[{\"name\":\"video\",\"param\":{\"sdURL\":\""
        + text + "\"}}]}]}]}]}";
    return "<object><param name=\"flashvars\" value=\"sequence=" + description.toPercentEncoding()
        + "\"></object>";
}

/// What is wrong with the log, if anything: every line begins with time and kind.
QByteArray faultInLog(const QByteArray &log)
{
    static const QRegularExpression shape(
        QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} (Debug|Info|Warning|Critical): (?!FORGED)"));
    if (!log.endsWith('\n'))
        return "no line end";
    for (const QByteArray &line : log.left(log.size() - 1).split('\n')) {
        if (!shape.match(QString::fromUtf8(line)).hasMatch())
            return line;
    }
    return firstControl(log);
}

} // namespace

/// Text of pages, servers and manifests that tries to become a line of its own.
class tst_RunForgery : public QObject
{
    Q_OBJECT

    static QString logPath(const QString &page)
    {
        return option("tmp/logs/") + pageHash(page) + option(".log");
    }

    /// Checks what a run has written; the video ends with the given word.
    static void checkRun(const ProgramRun &run, const QString &page, const char *result)
    {
        const QByteArray lines = run.errorOutput();
        QCOMPARE(firstControl(lines), QByteArray());
        int results = 0;
        for (const QByteArray &line : run.errorLines()) {
            QVERIFY2(!line.startsWith("FORGED"), line);
            QVERIFY2(line.endsWith(' '), line);
            results += line.startsWith("video download finished:");
        }
        QCOMPARE(results, 1);
        QVERIFY2(lines.endsWith(fixedLine(QByteArray("video download finished:") + result)
                                + fixedLine("detach sharememory")),
                 lines);

        const QByteArray log = run.fileContent(logPath(page));
        QCOMPARE(faultInLog(log), QByteArray());
        QVERIFY(log.count('\n') >= lines.count('\n'));

        const QByteArray csv = run.fileContent(csvPath());
        QCOMPARE(csv.count('\n'), 2);
        QCOMPARE(firstControl(csv, true), QByteArray());
        const QByteArray row = csv.split('\n').at(1);
        QVERIFY2(row.startsWith(pageHash(page).toUtf8() + ",\""), row);
    }

private slots:
    void thePage_data()
    {
        QTest::addColumn<QByteArray>("head");
        const QByteArray raw = hostileText().toUtf8();
        const QByteArray references = asReferences(hostileText());
        QTest::newRow("title") << "<title>" + raw + "</title>";
        QTest::newRow("title by references") << "<title>" + references + "</title>";
        QTest::newRow("title by script")
            << "<script>document.title=" + asScript(hostileText()) + "</script>";
        QTest::newRow("shared title")
            << "<meta property=\"og:title\" content=\"" + references + "\">";
        QTest::newRow("shared title by references twice")
            << "<meta property=\"og:title\" content=\""
                + QByteArray(references).replace("&", "&amp;") + "\">";
        QTest::newRow("picture") << "<meta property=\"og:image\" content=\"http://h/" + raw + "\">";
        QTest::newRow("picture by escapes")
            << "<meta property=\"og:image\" content=\"http://h/" + raw.toPercentEncoding() + "\">";
        QTest::newRow("dialogs and console") << "<script>var t=" + asScript(hostileText())
                + ";console.log(t);console.error(t);console.warn(t);alert(t);confirm(t);prompt(t);"
                  "window.status=t;throw t</script>";
        QTest::newRow("broken script") << "<script>" + raw + "</script>";
        QTest::newRow("links") << "<link rel=stylesheet href='/" + raw.toPercentEncoding()
                + "'><link rel=stylesheet href='/" + references + "'>";
    }

    void thePage()
    {
        QFETCH(QByteArray, head);
        ScriptedServer server;
        const QByteArray video = testBytes(6000000);
        server.on("/v.mp4", mediaReply(video));
        server.on("/page", htmlReply(videoPage("/v.mp4", head)));
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--log"), option("--smartname")}));
        checkRun(run, page, "success");
    }

    void candidatesAndHeaders()
    {
        ScriptedServer server;
        const QByteArray video = testBytes(6000000);
        HttpReply reply = mediaReply(video, hostileHeader());
        reply.headers += qMakePair(QByteArray("X-Own"), hostileHeader());
        reply.headers += qMakePair(QByteArray("Set-Cookie"), "n=" + hostileHeader() + "; Path=/");
        reply.headers +=
            qMakePair(QByteArray("Set-Cookie"), "m=1; Max-Age=9000; Path=/" + hostileHeader());
        HttpReply redirect = reply;
        redirect.status = 302;
        redirect.body.clear();
        redirect.headers += qMakePair(QByteArray("Location"), "/v.mp4?" + hostileHeader());
        server.on("/r.mp4", redirect);
        server.on("/v.mp4", reply);
        const QString hostile = server.address("/x.mp4?") + hostileText();
        server.on("/page",
                  htmlReply("<html lang=en><body><video src='/r.mp4' autoplay></video>"
                            + playerDescription(hostile) + "<!-- \""
                            + server.address("/v.mp4?").toUtf8()
                            + hostileText().toUtf8().toPercentEncoding() + ".mp4\" --></body>"));
        server.onOther([](const HttpRequest &) { return HttpReply(); });
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--log")}));
        QVERIFY(run.errorOutput().contains("videoUrl: "));
        checkRun(run, page, "success");
        const QByteArray cookies = run.fileContent(option("cookies.txt"));
        for (const QByteArray &line : cookies.split('\n'))
            QVERIFY2(line.isEmpty() || line.startsWith('#') || line.count('\t') == 6, line);
    }

    void theAddressOfThePage()
    {
        ScriptedServer server;
        const QByteArray video = testBytes(6000000);
        server.on("/v.mp4", mediaReply(video));
        server.onOther([](const HttpRequest &) { return htmlReply(videoPage("/v.mp4")); });
        QString text = hostileText();
        text.chop(text.size() - text.indexOf(QChar(0))); // no argument can hold it
        const QString page = server.address("/page?") + text;
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--log")}));
        checkRun(run, page, "success");
    }

    void theManifest()
    {
        ScriptedServer server;
        QString text = hostileText();
        text.remove(QRegularExpression(QStringLiteral("[^\\n\\r\\x{20}-\\x{ffff}]")));
        const QByteArray name = asReferences(text);
        const QByteArray bootstrap = hds::simpleBootstrap(2).toBase64();
        server.on("/s/m.f4m",
                  mediaReply("<manifest><id>" + name + "</id><bootstrapInfo id='" + name + "'>"
                                 + bootstrap + "</bootstrapInfo><media url='s" + name
                                 + "' streamId='" + name + "' bootstrapinfoid='" + name
                                 + "' bitrate='" + name + "'/></manifest>",
                             "video/f4m"));
        server.on("/page",
                  htmlReply("<title>" + name
                            + "</title><script>var x=new XMLHttpRequest();"
                              "x.open('GET','/s/m.f4m?--outDir='+"
                            + asScript(hostileText()) + ");x.send()</script>"));
        server.onOther([](const HttpRequest &request) {
            HttpReply reply;
            if (request.target.contains("Frag1"))
                reply.body = hds::numberedFragment(1);
            else if (request.target.contains("Frag2"))
                reply.body = hds::numberedFragment(2);
            else
                reply.status = 404;
            return reply;
        });
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--log"), option("--f4f")}));
        QVERIFY(run.errorOutput().contains("Get page: "));
        checkRun(run, page, "success");
        QVERIFY(!run.errorOutput().contains("\"setOption: outDir=true\""));
    }

    /// Warnings are no lines for the host, but the log has them, too.
    void aWarningInTheLog()
    {
        ScriptedServer server;
        server.on("/s/m.f4m", mediaReply(hds::manifest("s", hds::simpleBootstrap(1)), "video/f4m"));
        server.on("/s/sSeg1-Frag1", mediaReply(hds::numberedFragment(1)));
        const QString page = server.address("/s/m.f4m");
        ProgramRun run;
        QString name = hostileText();
        name.truncate(name.indexOf(QChar(0x0c)));
        const QString output = run.path(name + QChar(0x1b) + QChar(0x85) + QChar(0x2028));
        QVERIFY(QDir().mkpath(output)); // a folder where the file should go
        QVERIFY(run.run(
            {option("--url"), page, option("--log"), option("--f4f"), option("--saveto"), output}));
        QCOMPARE(firstControl(run.errorOutput()), QByteArray());
        const QByteArray log = run.fileContent(option("logs/") + pageHash(page) + option(".log"));
        QCOMPARE(faultInLog(log), QByteArray());
        QVERIFY2(log.contains("\\u001b\\u0085\\u2028 cannot be written"), log);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunForgery)
#include "tst_run_forgery.moc"
