#include "MessageCatcher.h"
#include "NetDomManager.h"
#include "ScriptedServer.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "WebkitSnapshot.h"

#include <QWebFrame>
#include <QWebPage>

namespace {

constexpr qint64 smallest = 1048576;

/// A header that declares a length, and a first byte; nobody waits for the others.
HttpReply lengthOnly(qint64 size)
{
    HttpReply reply;
    reply.body = "x";
    reply.holdAfterBytes = 1;
    reply.headers = {{"Content-Length", QByteArray::number(size)}};
    return reply;
}

QString foundLine(const QString &address)
{
    return QStringLiteral("videoUrl: \"%1\" ").arg(address);
}

QStringList addressesIn(const ParseData &data)
{
    QStringList addresses;
    for (const VideoFile &file : data.fileList)
        addresses += file.address();
    return addresses;
}

/// A player description whose video entry has these parameters ("'" stands for the quote).
QByteArray descriptionOf(const QByteArray &parameters)
{
    return "{'sequence':[{'layerList':[{'sequenceList':[{'name':'main','layerList':["
           "{'name':'video','param':{"
        + parameters + "}}]}]}]}]}";
}

QByteArray parameter(const char *quality, const QString &address)
{
    return '\'' + QByteArray(quality) + "URL':'" + address.toUtf8() + '\'';
}

/// The text of a flashvars attribute that carries one piece of a description.
QByteArray flashVars(const QByteArray &piece)
{
    return "a=1&sequence=" + QByteArray(piece).replace('\'', '"').toPercentEncoding() + "&b=2";
}

QByteArray paramElement(const QByteArray &piece)
{
    return "<param name=\"flashvars\" value=\"" + flashVars(piece) + "\">";
}

} // namespace

class tst_NetDomManager : public QObject
{
    Q_OBJECT

private:
    QString m_pageUrl;
    MessageCatcher *m_lines = nullptr;

    static ParseData scanSource(const QString &source, const ParseData &known = {})
    {
        NetDomManager manager;
        ParseData data = known;
        data.pageSource = source;
        manager.setParseInfo(data);
        return manager.getPageSourceVideoInfo();
    }

    static ParseData scanDom(const QByteArray &body, const ParseData &known = {})
    {
        QWebPage page;
        page.mainFrame()->setHtml(QStringLiteral("<html><body><object>") + QString::fromUtf8(body)
                                  + QStringLiteral("</object></body></html>"));
        NetDomManager manager;
        manager.setDomInfo(WebkitSnapshot::of(*page.mainFrame()));
        manager.setParseInfo(known);
        return manager.getDomVideoInfo();
    }

private slots:
    void initTestCase() { qputenv("CLIPWEIR_COOKIES", "/dev/null"); }

    void init()
    {
        m_pageUrl = uniquePageUrl();
        setArguments({QStringLiteral("--url"), m_pageUrl});
        m_lines = new MessageCatcher;
    }

    void cleanup()
    {
        delete m_lines;
        m_lines = nullptr;
    }

    void solution_data()
    {
        QTest::addColumn<QString>("quality");
        QTest::addColumn<int>("width");
        QTest::newRow("hd1080") << "hd1080" << 1080;
        QTest::newRow("hd720") << "hd720" << 720;
        QTest::newRow("hq") << "hq" << 720;
        QTest::newRow("sd") << "sd" << 640;
        QTest::newRow("hd") << "hd" << 720;
        QTest::newRow("ld") << "ld" << 480;
        QTest::newRow("unknown") << "4k" << 480;
        QTest::newRow("letter case counts") << "HD1080" << 480;
        QTest::newRow("empty") << "" << 480;
    }

    void solution()
    {
        QFETCH(QString, quality);
        QFETCH(int, width);
        QCOMPARE(NetDomManager::getSolution(quality), qMakePair(width, 480));
    }

    void emptyManagerFindsNothing()
    {
        NetDomManager manager;
        QVERIFY(manager.getDomVideoInfo().fileList.isEmpty());
        QVERIFY(manager.getPageSourceVideoInfo().fileList.isEmpty());
        QCOMPARE(m_lines->lines(), QStringList());
    }

    void theWholeRecordIsKept()
    {
        ParseData data;
        data.playList += QStringLiteral("p");
        data.selectedVideo = 3;
        data.succeeded = true;
        data.pageFlag = true;
        data.startTime = QDateTime::currentDateTime();
        const ParseData result = scanSource(QStringLiteral("<title>T</title>"), data);
        QCOMPARE(result.playList, data.playList);
        QCOMPARE(result.selectedVideo, 3);
        QVERIFY(result.succeeded && result.pageFlag);
        QCOMPARE(result.startTime, data.startTime);
        QCOMPARE(result.getHtmlTitle(), QStringLiteral("T"));
    }

    void sourceSize_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<bool>("isKept");
        QTest::newRow("smallest") << smallest << true;
        QTest::newRow("one below") << smallest - 1 << false;
        QTest::newRow("large") << qint64(5000000000) << true;
        QTest::newRow("unknown") << qint64(0) << false;
    }

    void sourceSize()
    {
        QFETCH(qint64, size);
        QFETCH(bool, isKept);
        ScriptedServer server;
        server.on("/v.mp4", lengthOnly(size));
        const QString address = server.address("/v.mp4");
        const ParseData data = scanSource(QStringLiteral("x = \"%1\";").arg(address));
        QCOMPARE(server.requests().size() > 0, true);
        QCOMPARE(addressesIn(data), isKept ? QStringList{address} : QStringList());
        QCOMPARE(m_lines->lines(), isKept ? QStringList{foundLine(address)} : QStringList());
        if (isKept) {
            const VideoFile &file = data.fileList.constFirst();
            QCOMPARE(file.nSize, size);
            QCOMPARE(file.strFormat, QStringLiteral("mp4"));
            QCOMPARE(file.urlType, QStringLiteral("http"));
            QCOMPARE(file.width + file.height + file.duration, 0);
            QCOMPARE(file.contentType, QString());
        }
    }

    void sourceAddress_data()
    {
        QTest::addColumn<QString>("source"); // %1 is the server
        QTest::addColumn<QString>("address"); // empty for none
        QTest::newRow("double quotes") << "a \"%1/v.mp4\" b"
                                       << "%1/v.mp4";
        QTest::newRow("single quotes") << "a '%1/v.flv' b"
                                       << "%1/v.flv";
        QTest::newRow("mixed quotes") << "a '%1/v.flv\" b"
                                      << "%1/v.flv";
        QTest::newRow("percent-encoded as a whole") << "%%22%1%%2Fv.mp4%%22"
                                                    << "%1/v.mp4";
        QTest::newRow("encoded twice") << "\"%1/a%%2520b.mp4\""
                                       << "%1/a b.mp4";
        QTest::newRow("script escapes") << "\"%1\\x2fv.mp4\""
                                        << "%1/v.mp4";
        QTest::newRow("dots are resolved") << "\"%1/a/../v.mp4\""
                                           << "%1/v.mp4";
        QTest::newRow("sound") << "\"%1/v.mp3\""
                               << "%1/v.mp3";
        QTest::newRow("no quotes") << "a %1/v.mp4 b"
                                   << "";
        QTest::newRow("relative") << "\"/v.mp4\""
                                  << "";
        QTest::newRow("query after the extension") << "\"%1/v.mp4?x=1\""
                                                   << "";
        QTest::newRow("letter case counts") << "\"%1/v.MP4\""
                                            << "";
        QTest::newRow("another extension") << "\"%1/v.webm\""
                                           << "";
    }

    void sourceAddress()
    {
        QFETCH(QString, source);
        QFETCH(QString, address);
        ScriptedServer server;
        server.onOther([](const HttpRequest &) { return lengthOnly(smallest); });
        const auto filled = [&server](QString text) {
            return text.replace(QLatin1String("%1"), server.address(""))
                .replace(QLatin1String("%%"), QLatin1String("%"));
        };
        const ParseData data = scanSource(filled(source));
        QCOMPARE(addressesIn(data),
                 address.isEmpty() ? QStringList() : QStringList{filled(address)});
        QCOMPARE(server.requests().isEmpty(), address.isEmpty());
    }

    void anAddressQuotedTwiceGivesOneEntry()
    {
        ScriptedServer server;
        server.onOther([](const HttpRequest &) { return lengthOnly(smallest); });
        const QString a = server.address("/a.mp4");
        const QString b = server.address("/b.mp4");
        const ParseData data = scanSource(QStringLiteral("'%1' '%2' '%1' '%2'").arg(a, b));
        QCOMPARE(addressesIn(data), (QStringList{a, b}));
        QCOMPARE(m_lines->lines(), (QStringList{foundLine(a), foundLine(b)}));
        QCOMPARE(server.requests().size(), 2);
    }

    void aKnownAddressIsNotAskedAgain()
    {
        ScriptedServer server;
        ParseData known;
        known.add(server.address("/a.mp4"));
        const ParseData data =
            scanSource(QStringLiteral("'%1'").arg(server.address("/a.mp4")), known);
        QCOMPARE(data.fileList.size(), 1);
        QCOMPARE(server.requests().size(), 0);
        QCOMPARE(m_lines->lines(), QStringList());
    }

    void flashVarsQuality_data()
    {
        QTest::addColumn<QByteArray>("quality");
        QTest::addColumn<int>("width");
        QTest::newRow("hd1080") << QByteArray("hd1080") << 1080;
        QTest::newRow("hd720") << QByteArray("hd720") << 720;
        QTest::newRow("hq") << QByteArray("hq") << 720;
        QTest::newRow("sd") << QByteArray("sd") << 640;
        QTest::newRow("ld") << QByteArray("ld") << 480;
        QTest::newRow("not looked for") << QByteArray("hd") << 0;
        QTest::newRow("letter case counts") << QByteArray("LD") << 0;
    }

    void flashVarsQuality()
    {
        QFETCH(QByteArray, quality);
        QFETCH(int, width);
        ScriptedServer server;
        server.on("/v.flv", lengthOnly(1000)); // small ones count here
        const QString address = server.address("/v.flv");
        const ParseData data = scanDom(paramElement(descriptionOf(parameter(quality, address))));
        QCOMPARE(addressesIn(data), width > 0 ? QStringList{address} : QStringList());
        if (width > 0) {
            QCOMPARE(data.fileList.constFirst().width, width);
            QCOMPARE(data.fileList.constFirst().height, 480);
            QCOMPARE(data.fileList.constFirst().nSize, qint64(1000));
            QCOMPARE(data.fileList.constFirst().strFormat, QStringLiteral("flv"));
            QCOMPARE(m_lines->lines(), QStringList{foundLine(address)});
        }
    }

    void allQualitiesInTheirOrder()
    {
        const auto stream = [](const char *name) {
            return QStringLiteral("rtmp://h/") + QLatin1String(name);
        };
        QByteArrayList parameters;
        QStringList expected;
        for (const char *quality : {"hd1080", "hd720", "hq", "sd", "ld"}) {
            parameters.prepend(parameter(quality, stream(quality)));
            expected += stream(quality);
        }
        parameters += "'otherURL':'rtmp://h/other'";
        const ParseData data = scanDom(paramElement(descriptionOf(parameters.join(','))));
        QCOMPARE(addressesIn(data), expected);
        for (const VideoFile &file : data.fileList) {
            QCOMPARE(file.urlType, QStringLiteral("rtmp"));
            QCOMPARE(file.nSize, qint64(0)); // nobody to ask
        }
    }

    void streamAddress_data()
    {
        QTest::addColumn<QByteArray>("value"); // as JSON
        QTest::addColumn<QStringList>("addresses");
        QTest::newRow("decoded") << QByteArray("'rtmp%3A//h/a%20b'")
                                 << QStringList{QStringLiteral("rtmp://h/a b")};
        QTest::newRow("empty") << QByteArray("''") << QStringList();
        QTest::newRow("null") << QByteArray("null") << QStringList();
        QTest::newRow("an object") << QByteArray("{}") << QStringList();
        QTest::newRow("not ASCII") << QByteArray("'rtmp://h/\xc3\xa9'")
                                   << QStringList{QString::fromUtf8("rtmp://h/\xc3\xa9")};
    }

    void streamAddress()
    {
        QFETCH(QByteArray, value);
        const ParseData data = scanDom(paramElement(descriptionOf("'ldURL':" + value)));
        QTEST(addressesIn(data), "addresses");
    }

    void aStreamNamedTwiceGivesOneEntry()
    {
        const QString address = QStringLiteral("rtmp://h/v");
        const QByteArray element =
            paramElement(descriptionOf(parameter("sd", address) + ',' + parameter("ld", address)));
        QCOMPARE(addressesIn(scanDom(element)), QStringList{address});
        ParseData known;
        known.add(address);
        QCOMPARE(addressesIn(scanDom(element, known)), QStringList{address});
        QCOMPARE(m_lines->lines().size(), 1);
    }

    void whereFlashVarsStand_data()
    {
        QTest::addColumn<QByteArray>("element"); // @ is the flashvars text
        QTest::addColumn<bool>("isFound");
        const auto row = [](const char *name, const char *element, bool isFound) {
            QTest::newRow(name) << QByteArray(element) << isFound;
        };
        row("ordinary", "<param name='flashvars' value='@'>", true);
        row("any attribute names", "<param x='flashvars' y='@'>", true);
        row("after another attribute", "<param id='p' name='flashvars' value='@'>", true);
        row("value first", "<param value='@' name='flashvars'>", false);
        row("an attribute between", "<param name='flashvars' id='p' value='@'>", false);
        row("letter case counts", "<param name='FlashVars' value='@'>", false);
        row("as an attribute name", "<param flashvars='@'>", false);
        row("said twice: the text after the second", "<param a='flashvars' b='flashvars' c='@'>",
            true);
        row("in an element of another kind", "<embed name='flashvars' value='@'>", false);
        row("said in the element before", "<param name='flashvars'><param value='@'>", false);
        row("deep inside", "<div><div><param name='flashvars' value='@'></div></div>", true);
    }

    void whereFlashVarsStand()
    {
        QFETCH(QByteArray, element);
        QFETCH(bool, isFound);
        const QString address = QStringLiteral("rtmp://h/v");
        const QByteArray text = flashVars(descriptionOf(parameter("ld", address)));
        const ParseData data = scanDom(element.replace('@', text));
        QCOMPARE(addressesIn(data), isFound ? QStringList{address} : QStringList());
    }

    void piecesAreJoinedInDocumentOrder_data()
    {
        QTest::addColumn<int>("cut");
        const int size = descriptionOf(parameter("ld", QStringLiteral("rtmp://h/v"))).size();
        for (int cut = 0; cut <= size; cut += 13)
            QTest::newRow(qPrintable(QString::number(cut))) << cut;
    }

    void piecesAreJoinedInDocumentOrder()
    {
        QFETCH(int, cut);
        const QByteArray description = descriptionOf(parameter("ld", QStringLiteral("rtmp://h/v")));
        const QByteArray first = description.left(cut);
        const QByteArray second = description.mid(cut);
        const QStringList expected{QStringLiteral("rtmp://h/v")};
        QCOMPARE(addressesIn(scanDom(paramElement(first) + "<p>" + paramElement(second))),
                 expected);
        QCOMPARE(addressesIn(scanDom("<param name=\"flashvars\" value=\"" + flashVars(first) + '&'
                                     + flashVars(second) + "\">")),
                 expected);
    }

    void twoWholeDescriptionsDoNotParse()
    {
        const QByteArray element =
            paramElement(descriptionOf(parameter("ld", QStringLiteral("rtmp://h/v"))));
        QVERIFY(scanDom(element + element).fileList.isEmpty());
    }

    void unusableDescription_data()
    {
        QTest::addColumn<QByteArray>("description");
        const QByteArray good = descriptionOf(parameter("ld", QStringLiteral("rtmp://h/v")));
        const auto replaced = [good](const char *before, const char *after) {
            return QByteArray(good).replace(before, after);
        };
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("no JSON") << QByteArray("<html>");
        QTest::newRow("cut") << good.left(good.size() - 1);
        QTest::newRow("an error") << replaced("{'sequence'", "{'error':'no','sequence'");
        QTest::newRow("an error that is null")
            << replaced("{'sequence'", "{'error':null,'sequence'");
        QTest::newRow("an array") << '[' + good + ']';
        QTest::newRow("no main") << replaced("'main'", "'intro'");
        QTest::newRow("no video") << replaced("'video'", "'sound'");
        QTest::newRow("another letter case") << replaced("'video'", "'Video'");
        QTest::newRow("no parameters") << replaced("'param'", "'params'");
        QTest::newRow("nested otherwise") << replaced("'sequenceList'", "'list'");
        QTest::newRow("lists that are none")
            << QByteArray("{'sequence':{'layerList':{'sequenceList':7}}}");
        QTest::newRow("deep") << "{'sequence':" + QByteArray(20000, '[');
    }

    void unusableDescription()
    {
        QFETCH(QByteArray, description);
        QVERIFY(scanDom(paramElement(description)).fileList.isEmpty());
        QCOMPARE(m_lines->lines(), QStringList());
    }

    void theSourceScanDoesNotRepeatTheDomScan()
    {
        ScriptedServer server;
        server.onOther([](const HttpRequest &) { return lengthOnly(smallest); });
        const QString address = server.address("/v.mp4");
        QWebPage page;
        page.mainFrame()->setHtml(
            QString::fromUtf8(paramElement(descriptionOf(parameter("sd", address)))));
        NetDomManager manager;
        manager.setDomInfo(WebkitSnapshot::of(*page.mainFrame()));
        ParseData data;
        data.pageSource = QStringLiteral("'%1'").arg(address);
        manager.setParseInfo(data);
        QCOMPARE(addressesIn(manager.getDomVideoInfo()), QStringList{address});
        QCOMPARE(addressesIn(manager.getPageSourceVideoInfo()), QStringList{address});
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(m_lines->lines(), QStringList{foundLine(address)});
    }

    void aScanEndsEarly_data()
    {
        QTest::addColumn<bool>("isDom");
        QTest::newRow("page source") << false;
        QTest::newRow("document") << true;
    }

    void aScanEndsEarly()
    {
        QFETCH(bool, isDom);
        ScriptedServer server;
        server.onOther([](const HttpRequest &) { return lengthOnly(smallest); });
        const QString a = server.address("/a.mp4");
        const QString b = server.address("/b.mp4");
        const QString c = server.address("/c.mp4");
        QWebPage page;
        page.mainFrame()->setHtml(QString::fromUtf8(paramElement(descriptionOf(
            parameter("hd720", a) + ',' + parameter("sd", b) + ',' + parameter("ld", c)))));
        NetDomManager manager;
        manager.setDomInfo(WebkitSnapshot::of(*page.mainFrame()));
        ParseData data;
        data.pageSource = QStringLiteral("'%1' '%2' '%3'").arg(a, b, c);
        manager.setParseInfo(data);
        manager.setStopCheck([&server] { return server.requests().size() >= 2; });
        const ParseData result =
            isDom ? manager.getDomVideoInfo() : manager.getPageSourceVideoInfo();
        // What was being asked when the stop came is not taken any more.
        QCOMPARE(addressesIn(result), QStringList{a});
        QCOMPARE(server.requests().size(), 2);
        QCOMPARE(m_lines->lines(), QStringList{foundLine(a)});
    }

    void aLineBreakCannotForgeALine()
    {
        scanDom(paramElement(descriptionOf("'ldURL':'rtmp://h/a\\nexiting... '")));
        QCOMPARE(m_lines->lines(),
                 QStringList{foundLine(QStringLiteral("rtmp://h/a\\nexiting... "))});
    }
};

CLIPWEIR_TEST_MAIN(tst_NetDomManager)
#include "tst_netdommanager.moc"
