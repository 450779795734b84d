#include "AdobeData.h"
#include "AdobeParser.h"
#include "AdobePreference.h"
#include "HdsFixtures.h"
#include "MessageCatcher.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <memory>

namespace {

const char f4mSpace[] = "http://ns.adobe.com/f4m/1.0";

/// A manifest around the given elements, in the published namespace.
QByteArray inManifest(const QByteArray &elements)
{
    return QByteArray("<?xml version=\"1.0\"?><manifest xmlns=\"") + f4mSpace + "\">" + elements
        + "</manifest>";
}

QByteArray inlineBootstrap(int fragmentCount, const QByteArray &id = "b")
{
    return "<bootstrapInfo id=\"" + id + "\">\n " + hds::simpleBootstrap(fragmentCount).toBase64()
        + " \n</bootstrapInfo>";
}

} // namespace

class tst_AdobeParser : public QObject
{
    Q_OBJECT

    std::unique_ptr<ScriptedServer> m_server;
    std::unique_ptr<QTemporaryDir> m_folder;

    static QVariant media(const char *key)
    {
        return CAdobeData::GetInstance()->GetMedia().value(QLatin1String(key));
    }

    static QVariant option(const char *key)
    {
        return CAdobePreference::GetInstance()->GetOption(QLatin1String(key));
    }

    static void setOption(const char *key, const QVariant &value)
    {
        CAdobePreference::GetInstance()->SetOption(QLatin1String(key), value);
    }

    void serve(const QByteArray &path, const QByteArray &body)
    {
        m_server->on(path, replyOf(body));
    }

    /// Serves a manifest and runs the whole stage over it.
    bool parse(const QByteArray &manifest)
    {
        serve("/dir/main.f4m", manifest);
        return CAdobeParser().parseManifest();
    }

private slots:
    void init()
    {
        m_server = std::make_unique<ScriptedServer>();
        m_folder = std::make_unique<QTemporaryDir>();
        qputenv("CLIPWEIR_COOKIES", m_folder->filePath(QStringLiteral("cookies.txt")).toUtf8());
        CAdobePreference::GetInstance()->Reset();
        CAdobeData::GetInstance()->Reset();
        setOption("manifest", m_server->address("/dir/main.f4m?token=1"));
    }

    void wholeStage()
    {
        const MessageCatcher catcher;
        QVERIFY(parse(hds::manifest("stream", hds::simpleBootstrap(20), "meta")));
        QCOMPARE(media("url"), QVariant(QStringLiteral("stream")));
        QCOMPARE(media("bitrate"), QVariant(800));
        QCOMPARE(media("metadata").toByteArray(), QByteArray("meta"));
        QCOMPARE(media("bootstrap").toByteArray(), hds::simpleBootstrap(20));
        QCOMPARE(media("baseUrl").toString(), m_server->address("/dir/"));
        QCOMPARE(media("bootstrapInfoId"), QVariant(QStringLiteral("b0")));
        QCOMPARE(media("streamid"), QVariant(QString()));
        QCOMPARE(media("bootstrapinfoid"), QVariant(QString()));
        QCOMPARE(CAdobeData::GetInstance()->GetFragCount(), 20);
        QCOMPARE(
            catcher.lines(),
            (QStringList{
                QStringLiteral("Processing manifest info.... "),
                QStringLiteral("Get page: \"%1\" ").arg(m_server->address("/dir/main.f4m?token=1")),
                QStringLiteral("\"all quality: 800 \" "), QStringLiteral("\"select quality:800\" "),
                QStringLiteral("\"FragCount:20\" ")}));
    }

    void manifestThatCannotBeFetched()
    {
        const MessageCatcher catcher;
        QVERIFY(!CAdobeParser().parseManifest());
        QCOMPARE(catcher.lines().constLast(),
                 QStringLiteral("\"access %1 failed!\" ")
                     .arg(m_server->address("/dir/main.f4m?token=1")));
        QVERIFY(!parse(QByteArray()));
    }

    void textThatIsNoManifest_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("space") << QByteArray(" ");
        QTest::newRow("no XML") << QByteArray("not found");
        QTest::newRow("HTML") << QByteArray("<html><body><p>x<br></body></html>");
        QTest::newRow("no media") << inManifest(inlineBootstrap(5));
        QTest::newRow("media without attributes")
            << inManifest(inlineBootstrap(5) + "<media></media>");
        QTest::newRow("no bootstrap") << inManifest("<media url=\"s\"/>");
        QTest::newRow("empty bootstrap")
            << inManifest("<bootstrapInfo id=\"b\"> </bootstrapInfo><media url=\"s\"/>");
        QTest::newRow("DOCTYPE with a subset")
            << QByteArray("<!DOCTYPE manifest []><manifest>" + inlineBootstrap(5)
                          + "<media url=\"s\"/></manifest>");
        QTest::newRow("NUL bytes") << QByteArray(1000, '\0');
        QTest::newRow("not UTF-8") << QByteArray(1000, '\xff');
    }

    void textThatIsNoManifest()
    {
        QFETCH(QByteArray, text);
        const MessageCatcher catcher;
        QVERIFY(!parse(text));
        QCOMPARE(catcher.lines().constLast(),
                 QStringLiteral("manifest xml not contains bootstrap! "));
    }

    void aDoctypeThatOnlyNamesTheRoot()
    {
        QVERIFY(parse("<!DOCTYPE manifest><manifest>" + inlineBootstrap(5)
                      + "<media url=\"s\"/></manifest>"));
        QCOMPARE(CAdobeData::GetInstance()->GetFragCount(), 5);
    }

    void everyCutOfAManifest()
    {
        const MessageCatcher catcher;
        const QByteArray whole =
            hds::manifest("stream", hds::simpleBootstrap(20), "meta").trimmed();
        for (int size = 1; size < whole.size(); ++size) {
            CAdobeData::GetInstance()->Reset();
            QVERIFY(!parse(whole.left(size)));
        }
        QVERIFY(parse(whole));
    }

    void queriesUseTheDefaultNamespace()
    {
        QCOMPARE(CAdobeParser::GetXmlPath(QStringLiteral("<m xmlns=\"u:x\" xmlns=\"u:y\">"),
                                          QStringLiteral("//media")),
                 QStringLiteral("declare default element namespace \"u:x\"; //media"));
        QCOMPARE(CAdobeParser::GetXmlPath(QStringLiteral("<m xmlns:p=\"u:x\">"),
                                          QStringLiteral("//media")),
                 QStringLiteral("//media"));
        QCOMPARE(
            CAdobeParser::GetXmlPath(QStringLiteral("<m xmlns=\"\">"), QStringLiteral("//media")),
            QStringLiteral("//media"));
    }

    void manifestWithoutNamespace()
    {
        QVERIFY(parse("<manifest>" + inlineBootstrap(5)
                      + "<media url=\"s\"><metadata>bQ==</metadata></media></manifest>"));
        QCOMPARE(media("url"), QVariant(QStringLiteral("s")));
        QCOMPARE(media("metadata").toByteArray(), QByteArray("m"));
        QCOMPARE(media("bitrate"), QVariant(0));
    }

    void prefixedManifestMatchesNothing()
    {
        QVERIFY(!parse(QByteArray("<f:manifest xmlns:f=\"") + f4mSpace
                       + "\"><f:media url=\"s\"/></f:manifest>"));
    }

    void mediaAsTheRoot()
    {
        CAdobeParser parser;
        QCOMPARE(parser.GetMediaData(
                     QStringLiteral("<media><metadata> bWV0 \nYQ== </metadata></media>"), 1),
                 QByteArray("meta"));
    }

    void attributesOfAMedia()
    {
        CAdobeParser parser;
        const QString xml = QStringLiteral("<m xmlns:x=\"u:x\"><media a=\"1\" b=\"p &amp; q\" "
                                           "x:c=\"3\" d=\"\"/><media A=\"4\"/></m>");
        const auto first = parser.GetMediaAtrriInfo(xml, 1);
        QCOMPARE(first.keys(),
                 (QStringList{QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("d")}));
        QCOMPARE(first.value(QStringLiteral("b")), QVariant(QStringLiteral("p & q")));
        QCOMPARE(first.value(QStringLiteral("d")), QVariant(QString::fromLatin1("")));
        QCOMPARE(parser.GetMediaAtrriInfo(xml, 2).keys(), QStringList{QStringLiteral("A")});
        QVERIFY(parser.GetMediaAtrriInfo(xml, 3).isEmpty());
        QVERIFY(parser.GetMediaAtrriInfo(xml, 0).isEmpty());
    }

    void bitrate()
    {
        CAdobeParser parser;
        const QString xml = QStringLiteral("<m><a b=\"12\" c=\"x\"/></m>");
        QCOMPARE(parser.GetBitrate(xml, QStringLiteral("//a/@b/string()"), 1, 2), 12);
        QCOMPARE(parser.GetBitrate(xml, QStringLiteral("//a/@c/string()"), 1, 2), 0);
        QCOMPARE(parser.GetBitrate(xml, QStringLiteral("//a/@d/string()"), 1, 2), 2);
        QCOMPARE(parser.GetBitrate(xml, QStringLiteral("//a/@d/string()"), 1, 0), 0);
        QCOMPARE(parser.GetBitrate(xml, QStringLiteral("//a/@d/string()"), 1, -1), 1);
        QCOMPARE(parser.GetBitrate(xml, QStringLiteral("//["), 1, -1), 1);
    }

    void baseUrlOfTheManifestWins()
    {
        QVERIFY(parse(inManifest("<baseUrl>http://base/x/</baseUrl>" + inlineBootstrap(5)
                                 + "<media url=\"s\"/>")));
        QCOMPARE(media("baseUrl"), QVariant(QStringLiteral("http://base/x/")));
    }

    void quality_data()
    {
        QTest::addColumn<int>("quality");
        QTest::addColumn<int>("bitrate");
        QTest::addColumn<int>("qualityAfter");
        QTest::newRow("best") << 0 << 1500 << 0;
        QTest::newRow("next") << 1 << 800 << 1;
        QTest::newRow("lowest") << 2 << 300 << 2;
        QTest::newRow("past the lowest") << 3 << 0 << -1;
        QTest::newRow("no such bitrate") << 5 << 0 << -1;
        QTest::newRow("a bitrate") << 800 << 800 << 800;
        QTest::newRow("the lowest bitrate") << 300 << 300 << 300;
        QTest::newRow("negative") << -1 << 1500 << -1;
    }

    void quality()
    {
        QFETCH(int, quality);
        QFETCH(int, bitrate);
        QFETCH(int, qualityAfter);
        setOption("quality", QString::number(quality));
        const MessageCatcher catcher;
        const bool isParsed = parse(
            inManifest(inlineBootstrap(5)
                       + "<media bitrate=\"800\" url=\"m\"/><media bitrate=\"1500\" url=\"h\"/>"
                         "<media bitrate=\"300\" url=\"l\"/>"));
        QCOMPARE(isParsed, bitrate != 0);
        QCOMPARE(media("bitrate").toInt(), bitrate);
        QCOMPARE(option("quality").toInt(), qualityAfter);
        QCOMPARE(catcher.linesWith(QStringLiteral("all quality:")),
                 QStringList{QStringLiteral("\"all quality: 300  800  1500 \" ")});
        const QString line = bitrate == 0 ? QStringLiteral("select quality:-1 ")
                                          : QStringLiteral("\"select quality:%1\" ").arg(bitrate);
        QCOMPARE(catcher.linesWith(QStringLiteral("select quality")), QStringList{line});
    }

    void laterRenditionOfTheSameBitrateWins()
    {
        QVERIFY(parse(
            inManifest(inlineBootstrap(5)
                       + "<media bitrate=\"1\" url=\"a\"/><media bitrate=\"1\" url=\"b\"/>")));
        QCOMPARE(media("url"), QVariant(QStringLiteral("b")));
    }

    void bootstrapById()
    {
        QVERIFY(parse(inManifest(inlineBootstrap(5, "one") + inlineBootstrap(7, "two")
                                 + inlineBootstrap(9, "two")
                                 + "<media bootstrapinfoid=\"two\" url=\"s\"/>")));
        QCOMPARE(CAdobeData::GetInstance()->GetFragCount(), 7);
        QCOMPARE(media("bootstrapinfoid"), QVariant(QStringLiteral("two")));
    }

    void withoutIdTheFirstBootstrap()
    {
        QVERIFY(parse(inManifest(inlineBootstrap(5, "one") + inlineBootstrap(7, "two")
                                 + "<media bootstrapInfoId=\"two\" url=\"s\"/>")));
        QCOMPARE(CAdobeData::GetInstance()->GetFragCount(), 5);
    }

    void aHostileIdSelectsNothing_data()
    {
        QTest::addColumn<QByteArray>("id");
        QTest::newRow("other") << QByteArray("b2");
        QTest::newRow("query") << QByteArray("x&quot;] | //bootstrapInfo[&quot;1");
        QTest::newRow("document") << QByteArray(
            "&quot;]/doc(&quot;file:///etc/hostname&quot;)[&quot;");
        QTest::newRow("wild card") << QByteArray("*");
    }

    void aHostileIdSelectsNothing()
    {
        QFETCH(QByteArray, id);
        QVERIFY(!parse(
            inManifest(inlineBootstrap(5) + "<media url=\"s\" bootstrapinfoid=\"" + id + "\"/>")));
    }

    void externalBootstrap_data()
    {
        QTest::addColumn<QByteArray>("address"); // %P is the server's port
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QString>("author");
        const QString none;
        QTest::newRow("relative") << QByteArray("b/s.abst") << QByteArray("/dir/b/s.abst") << none;
        QTest::newRow("relative, with a query")
            << QByteArray("s.abst?a=b") << QByteArray("/dir/s.abst?a=b") << none;
        QTest::newRow("up") << QByteArray("../s.abst") << QByteArray("/s.abst") << none;
        QTest::newRow("absolute") << QByteArray("http://127.0.0.1:%P/a/../s.abst")
                                  << QByteArray("/a/s.abst?") << none;
        QTest::newRow("without scheme")
            << QByteArray("//127.0.0.1:%P/s.abst") << QByteArray("/s.abst?") << none;
        QTest::newRow("one slash")
            << QByteArray("/127.0.0.1:%P/s.abst") << QByteArray("/s.abst?") << none;
        QTest::newRow("author") << QByteArray("s.abst") << QByteArray("/dir/s.abst?a=b")
                                << QStringLiteral("a=b");
    }

    void externalBootstrap()
    {
        QFETCH(QByteArray, address);
        QFETCH(QByteArray, target);
        QFETCH(QString, author);
        setOption("author", author);
        address.replace("%P", QByteArray::number(m_server->port()));
        serve(target.split('?').constFirst(), hds::simpleBootstrap(6).toBase64() + "\r\n");
        QVERIFY(parse(inManifest("<bootstrapInfo id=\"b\" url=\"" + address + "\">"
                                 + hds::simpleBootstrap(3).toBase64()
                                 + "</bootstrapInfo><media url=\"s\" bitrate=\"1\"/>"
                                   "<media url=\"t\" bitrate=\"2\"/>")));
        QCOMPARE(CAdobeData::GetInstance()->GetFragCount(), 6);
        // Fetched once, though two renditions use it.
        QCOMPARE(m_server->requests().size(), 2);
        QCOMPARE(m_server->requests().constLast().target, target);
    }

    void externalBootstrapThatCannotBeFetched()
    {
        QVERIFY(
            !parse(inManifest("<bootstrapInfo url=\"s.abst\">" + hds::simpleBootstrap(3).toBase64()
                              + "</bootstrapInfo><media url=\"s\"/>")));
    }

    void onlyHttpIsFetched()
    {
        QFile file(m_folder->filePath(QStringLiteral("s.abst")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(hds::simpleBootstrap(3).toBase64());
        file.close();
        QVERIFY(!parse(inManifest("<bootstrapInfo url=\"file://" + file.fileName().toUtf8()
                                  + "\"/><media url=\"s\"/>")));
    }

    void rtmpIsRefused_data()
    {
        QTest::addColumn<QByteArray>("base");
        QTest::newRow("rtmp") << QByteArray("rtmp://h/x/");
        QTest::newRow("rtmpe") << QByteArray("rtmpe://h/x/");
    }

    void rtmpIsRefused()
    {
        QFETCH(QByteArray, base);
        const MessageCatcher catcher;
        QVERIFY(!parse(inManifest("<baseUrl>" + base + "</baseUrl>" + inlineBootstrap(5)
                                  + "<media url=\"s\"/>")));
        QCOMPARE(catcher.lines().constLast(),
                 QStringLiteral("manifest xml not contains bootstrap! "));
        QVERIFY(CAdobeData::GetInstance()->GetMedia().isEmpty());
    }

    void childManifests()
    {
        serve("/dir/low/c.f4m", inManifest(inlineBootstrap(3) + "<media url=\"l\"/>"));
        serve("/mid.f4m", inManifest(inlineBootstrap(4) + "<media url=\"m\" bitrate=\"850\"/>"));
        serve("/dir/high.f4m", inManifest(inlineBootstrap(5) + "<media url=\"h\"/>"));
        const MessageCatcher catcher;
        QVERIFY(parse(inManifest("<media href=\"low/c.f4m\" bitrate=\"300\"/>"
                                 "<media href=\"../mid.f4m\" bitrate=\"800\"/>"
                                 "<media href=\"high.f4m\" bitrate=\"1500\"/>")));
        QCOMPARE(media("url"), QVariant(QStringLiteral("h")));
        QCOMPARE(media("baseUrl").toString(), m_server->address("/dir/"));
        QCOMPARE(CAdobeData::GetInstance()->GetFragCount(), 5);
        // A manifest's own entry has left the table: 800 stood for the one that holds 850.
        QCOMPARE(catcher.linesWith(QStringLiteral("all quality:")),
                 QStringList{QStringLiteral("\"all quality: 300  850  1500 \" ")});
    }

    void bitratesOfChildrenAreThoseInDocumentOrder()
    {
        for (const char *name : {"a", "b", "c"}) {
            serve("/dir/" + QByteArray(name) + ".f4m",
                  inManifest(inlineBootstrap(3) + "<media url=\"" + name + "\"/>"));
        }
        const MessageCatcher catcher;
        QVERIFY(parse(inManifest("<group><media href=\"a.f4m\" bitrate=\"300\"/>"
                                 "<media href=\"b.f4m\" bitrate=\"1500\"/></group>"
                                 "<group><media href=\"c.f4m\" bitrate=\"800\"/></group>")));
        QCOMPARE(media("url"), QVariant(QStringLiteral("b")));
        QCOMPARE(catcher.linesWith(QStringLiteral("all quality:")),
                 QStringList{QStringLiteral("\"all quality: 300  800  1500 \" ")});
    }

    void childManifestsWithoutBitrate()
    {
        for (const char *name : {"a", "b", "c"}) {
            serve("/dir/" + QByteArray(name) + ".f4m",
                  inManifest(inlineBootstrap(3) + "<media url=\"" + name + "\"/>"));
        }
        const MessageCatcher catcher;
        QVERIFY(parse(inManifest("<media href=\"a.f4m\"/><media href=\"b.f4m\"/>"
                                 "<media href=\"c.f4m\"/>")));
        QCOMPARE(media("url"), QVariant(QStringLiteral("c")));
        QCOMPARE(catcher.linesWith(QStringLiteral("all quality:")),
                 QStringList{QStringLiteral("\"all quality: 0  1  2 \" ")});
    }

    void childManifestOfTheBitrateOfARendition()
    {
        // The first child holds a rendition under the second child's key.
        serve("/dir/a.f4m", inManifest(inlineBootstrap(3) + "<media url=\"a\" bitrate=\"2\"/>"));
        serve("/dir/b.f4m", inManifest(inlineBootstrap(4) + "<media url=\"b\" bitrate=\"5\"/>"));
        const MessageCatcher catcher;
        QVERIFY(parse(inManifest("<media href=\"a.f4m\" bitrate=\"1\"/>"
                                 "<media href=\"b.f4m\" bitrate=\"2\"/>")));
        QCOMPARE(catcher.linesWith(QStringLiteral("all quality:")),
                 QStringList{QStringLiteral("\"all quality: 2  5 \" ")});
    }

    void childManifestThatCannotBeFetched()
    {
        serve("/dir/a.f4m", inManifest(inlineBootstrap(3) + "<media url=\"a\"/>"));
        const MessageCatcher catcher;
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("gone.f4m cannot be read: its ")));
        QVERIFY(parse(inManifest("<media href=\"a.f4m\" bitrate=\"1\"/>"
                                 "<media href=\"gone.f4m\" bitrate=\"2\"/>")));
        QCOMPARE(media("url"), QVariant(QStringLiteral("a")));
    }

    void childManifestByRtmp()
    {
        serve("/dir/a.f4m", inManifest(inlineBootstrap(3) + "<media url=\"a\"/>"));
        QVERIFY(parse(inManifest("<media href=\"a.f4m\" bitrate=\"1\"/>"
                                 "<media href=\"rtmp://h/x\" bitrate=\"2\"/>")));
        QCOMPARE(media("url"), QVariant(QStringLiteral("a")));
    }

    void aManifestThatNamesItself()
    {
        QVERIFY(!parse(inManifest("<media href=\"main.f4m\"/>")));
        QCOMPARE(m_server->requests().size(), 2);
    }

    void aSecondRunAddsToTheTable()
    {
        serve("/dir/main.f4m",
              inManifest(inlineBootstrap(5) + "<media bitrate=\"9\" url=\"first\"/>"));
        CAdobeParser parser;
        QVERIFY(parser.parseManifest());
        serve("/dir/main.f4m",
              inManifest(inlineBootstrap(5) + "<media bitrate=\"8\" url=\"second\"/>"));
        QVERIFY(parser.parseManifest());
        QCOMPARE(media("url"), QVariant(QStringLiteral("first")));
    }

    void stopEndsTheStage()
    {
        m_server->hold("/dir/main.f4m");
        const StopFlag stop;
        connect(m_server.get(), &ScriptedServer::requestReceived, this, [stop] { stop.raise(); });
        QVERIFY(!CAdobeParser(stop).parseManifest());
    }

    void manyRenditionsCostTheirSum()
    {
        // One large bootstrap that all of them share is held once, and no step walks the whole
        // document for each of them; either would show as minutes or gigabytes.
        QByteArray elements = inlineBootstrap(5);
        hds::Bootstrap large;
        large.segments = {{1, 5}};
        for (quint32 i = 0; i < 20000; ++i)
            large.fragments += {i + 1, i * 1000, 1000};
        elements += "<bootstrapInfo id=\"x\">" + large.abst().toBase64() + "</bootstrapInfo>";
        for (int i = 1; i <= 8000; ++i) {
            const QByteArray number = QByteArray::number(i);
            elements += "<media bootstrapinfoid=\"x\" bitrate=\"" + number + "\" url=\"s" + number
                + "\" a=\"1\" b=\"2\" c=\"3\"/>";
        }
        const MessageCatcher catcher;
        QVERIFY(parse(inManifest(elements)));
        QCOMPARE(media("url"), QVariant(QStringLiteral("s8000")));
        QCOMPARE(CAdobeData::GetInstance()->GetFragCount(), 20000);
    }

    void manyRenditionsWithoutANamespaceCostTheirSum()
    {
        // The namespace is looked for once: it would else take minutes to find that there is none.
        QByteArray elements = inlineBootstrap(5) + QByteArray(3 * 1024 * 1024, ' ');
        for (int i = 1; i <= 8000; ++i) {
            const QByteArray number = QByteArray::number(i);
            elements += "<media bitrate=\"" + number + "\" url=\"s" + number + "\"/>";
        }
        const MessageCatcher catcher;
        QVERIFY(parse("<manifest>" + elements + "</manifest>"));
        QCOMPARE(media("url"), QVariant(QStringLiteral("s8000")));
    }

    void manyChildrenCostTheirSum()
    {
        constexpr int count = 20000;
        QByteArray elements;
        for (int i = 1; i <= count; ++i) {
            const QByteArray number = QByteArray::number(i);
            elements += "<media href=\"" + number + "\" bitrate=\"" + number + "\"/>";
        }
        const QString last = m_server->address("/dir/" + QByteArray::number(count));
        const MessageCatcher catcher;
        CAdobeParser parser(StopFlag(), [&](const QString &address) {
            if (address.contains(QLatin1String("main.f4m")))
                return QString::fromLatin1(inManifest(elements));
            return address == last
                ? QString::fromLatin1(inManifest(inlineBootstrap(5) + "<media url=\"s\"/>"))
                : QString();
        });
        QVERIFY(parser.parseManifest());
        QCOMPARE(media("bitrate"), QVariant(count));
    }

    void largeManifestsAreRead()
    {
        // More elements and more bytes than a manifest needs, yet nothing that is refused.
        const QByteArray padding = QByteArray("<x/>").repeated(50000);
        QVERIFY(parse(inManifest(inlineBootstrap(5) + "<media url=\"s\"/>" + padding
                                 + QByteArray(5 * 1024 * 1024, ' '))));
        QCOMPARE(CAdobeData::GetInstance()->GetFragCount(), 5);
    }

    void largeChildManifestsAreAllRead()
    {
        QByteArray elements;
        for (const char *name : {"1", "2", "3", "4"}) {
            serve("/dir/" + QByteArray(name),
                  inManifest(inlineBootstrap(3) + "<media url=\"u" + name + "\"/>"
                             + QByteArray(3 * 1024 * 1024, ' ')));
            elements += "<media href=\"" + QByteArray(name) + "\"/>";
        }
        QVERIFY(parse(inManifest(elements)));
        QCOMPARE(media("url"), QVariant(QStringLiteral("u4")));
    }

    void childManifestsOverTheLimitAreLeftOutWithAWarning()
    {
        QByteArray elements;
        for (const char *name : {"1", "2", "3", "4"}) {
            serve("/dir/" + QByteArray(name),
                  inManifest(inlineBootstrap(3) + "<media url=\"u" + name + "\"/>"));
            elements += "<media href=\"" + QByteArray(name) + "\"/>";
        }
        serve("/dir/main.f4m", inManifest(elements));
        const int characters = inManifest(inlineBootstrap(3) + "<media url=\"u1\"/>").size();
        CAdobeParser parser;
        parser.SetMaxChildCharacters(characters + 1);
        const QString warning = QStringLiteral("2 of 4 child manifests are left out: those before "
                                               "them have %1 characters")
                                    .arg(2 * characters);
        QTest::ignoreMessage(QtWarningMsg, qPrintable(warning));
        QVERIFY(parser.parseManifest());
        QCOMPARE(media("url"), QVariant(QStringLiteral("u2")));
        QVERIFY(m_server->requestsFor("/dir/3").isEmpty());
    }

    void manifestsOverTheLimitAreRefusedWithAWarning()
    {
        HttpReply reply = replyOf(inManifest(inlineBootstrap(5) + "<media url=\"s\"/>"));
        reply.headers = {{"Content-Length", QByteArray::number(64 * 1024 * 1024 + 1)}};
        m_server->on("/dir/main.f4m", reply);
        QTest::ignoreMessage(
            QtWarningMsg,
            QRegularExpression(QStringLiteral("is not fetched: its body is over 67108864 bytes")));
        QVERIFY(!CAdobeParser().parseManifest());
    }

    void textsInsideEachOtherAreNotHeldMoreThanOnce()
    {
        // All of the outer ones together would take gigabytes.
        const QByteArray nested = QByteArray("<bootstrapInfo>").repeated(50) + inlineBootstrap(5)
            + QByteArray(16 * 1024 * 1024, ' ') + QByteArray("</bootstrapInfo>").repeated(50);
        QVERIFY(parse(inManifest(nested + "<media url=\"s\"/>")));
        QCOMPARE(CAdobeData::GetInstance()->GetFragCount(), 5);
    }
};

CLIPWEIR_TEST_MAIN(tst_AdobeParser)
#include "tst_adobeparser.moc"
