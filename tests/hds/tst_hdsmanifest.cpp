#include "HdsFixtures.h"
#include "HdsManifest.h"
#include "TestMain.h"

namespace {

const QUrl address(QStringLiteral("http://h.test/a/m.f4m?t=1"));

std::optional<HdsManifest> parsed(const QByteArray &document, const QUrl &from = address)
{
    QString reason;
    const auto manifest = HdsManifest::parse(document, from, reason);
    if (manifest.has_value() == !reason.isEmpty())
        qFatal("what cannot be read has a reason, and nothing else");
    return manifest;
}

QByteArray document(const QByteArray &content)
{
    return "<manifest xmlns='http://ns.adobe.com/f4m/1.0'>" + content + "</manifest>";
}

QByteArray encoded(const char *text)
{
    return QByteArray(text).toBase64();
}

} // namespace

class tst_HdsManifest : public QObject
{
    Q_OBJECT

private slots:
    void spellings_data()
    {
        QTest::addColumn<QByteArray>("text");
        const QByteArray bytes = encoded("box");
        QTest::newRow("as published")
            << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
               "<manifest xmlns=\"http://ns.adobe.com/f4m/1.0\"><baseURL>http://h.test/a/</baseURL>"
               "<duration>12.5</duration><bootstrapInfo profile=\"named\" id=\"b\">"
                + bytes
                + "</bootstrapInfo><media url=\"s\" bitrate=\"800\" width=\"64\" height=\"48\" "
                  "bootstrapInfoId=\"b\"/></manifest>";
        QTest::newRow("other quotes, another version")
            << "<manifest xmlns='http://ns.adobe.com/f4m/3.0'><duration>12.5</duration>"
               "<bootstrapInfo id='b'>"
                + bytes
                + "</bootstrapInfo><media url='s' bitrate='800' width='64' height='48' "
                  "bootstrapInfoId='b'/></manifest>";
        QTest::newRow("a prefix")
            << "<f:manifest xmlns:f='http://ns.adobe.com/f4m/2.0' xmlns:g='http://ns.adobe.com/f4m/"
               "2.0'><g:duration>12.5</g:duration><g:bootstrapInfo id='b'>"
                + bytes
                + "</g:bootstrapInfo><f:media url='s' bitrate='800' width='64' height='48' "
                  "bootstrapInfoId='b'/></f:manifest>";
        QTest::newRow("no namespace")
            << "<manifest><duration> 12.5\n</duration><media url='s' bitrate='800' width='64' "
               "height='48' bootstrapInfoId='b'/><bootstrapInfo id='b'>"
                + bytes + "</bootstrapInfo></manifest>";
        QTest::newRow("any letter case")
            << "<Manifest><DURATION>12.5</DURATION><BootstrapInfo ID='b'>" + bytes
                + "</BootstrapInfo><Media URL='s' BitRate='800' Width='64' HEIGHT='48' "
                  "bootstrapinfoid='b'/></Manifest>";
        QTest::newRow("CDATA and comments")
            << "<!-- a --><manifest><duration>12<!-- b -->.5</duration><bootstrapInfo id='b'>"
               "<![CDATA["
                + bytes
                + "]]></bootstrapInfo><media url='s' bitrate='800' width='64' height='48' "
                  "bootstrapInfoId='b'/></manifest>";
        QTest::newRow("a set of renditions")
            << "<manifest xmlns='http://ns.adobe.com/f4m/3.0'><duration>12.5</duration>"
               "<adaptiveSet bootstrapInfoId='b' bitrate='800' width='1'><media url='s' width='64' "
               "height='48'/></adaptiveSet><bootstrapInfo id='b'>"
                + bytes + "</bootstrapInfo></manifest>";
        QTest::newRow("among what is unknown")
            << "<manifest xmlns='http://ns.adobe.com/f4m/1.0' xmlns:x='urn:x'><x:media url='t'/>"
               "<x:duration>7</x:duration><duration>12.5</duration><new><media x:url='t' url='s' "
               "bitrate='800' width='64' height='48' bootstrapInfoId='b'><moov>AA==</moov>"
               "</media></new><bootstrapInfo id='b'>"
                + bytes + "</bootstrapInfo></manifest>";
    }

    void spellings()
    {
        QFETCH(QByteArray, text);
        for (const QByteArray &before : {QByteArray(), QByteArray("\xef\xbb\xbf")}) {
            const auto manifest = parsed(before + text);
            QVERIFY(manifest);
            QCOMPARE(manifest->durationUs, qint64(12500000));
            QCOMPARE(manifest->media.size(), 1);
            const HdsManifest::Media &media = manifest->media.constFirst();
            QCOMPARE(media.address, QUrl(QStringLiteral("http://h.test/a/s?t=1")));
            QCOMPARE(media.bootstrap, QByteArray("box"));
            QCOMPARE(media.rendition.bandwidth, qint64(800000));
            QCOMPARE(media.rendition.width, 64);
            QCOMPARE(media.rendition.height, 48);
            QCOMPARE(media.rendition.durationUs, qint64(12500000));
            QVERIFY(media.rendition.kind == Rendition::Kind::Picture);
            QVERIFY(!media.isProtected && !media.isAlternate && media.manifest.isEmpty());
        }
    }

    void addresses_data()
    {
        QTest::addColumn<QByteArray>("base");
        QTest::addColumn<QByteArray>("url");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *base, const char *url,
                            const char *expected) {
            QTest::newRow(name) << QByteArray(base) << QByteArray(url)
                                << QString::fromLatin1(expected);
        };
        row("relative", "", "s", "http://h.test/a/s?t=1");
        row("up", "", "../s", "http://h.test/s?t=1");
        row("from the root", "", "/v/s", "http://h.test/v/s?t=1");
        row("empty", "", "", "http://h.test/a/m.f4m?t=1");
        row("a query of its own", "", "s?u=2", "http://h.test/a/s?u=2");
        row("another server, which is told nothing", "", "http://g.test/s", "http://g.test/s");
        row("another port", "", "//h.test:81/s", "http://h.test:81/s");
        row("a base", "http://g.test/v/", "s", "http://g.test/v/s");
        row("a base without a slash", "http://g.test/v", "s", "http://g.test/v/s");
        row("a base that is a file", "http://g.test/v/m.f4m", "s", "http://g.test/v/s");
        row("a relative base", "../v/", "s", "http://h.test/v/s?t=1");
        row("blanks around it", "  \n http://g.test/v/ ", " s ", "http://g.test/v/s");
        row("of this machine", "", "file:///etc/passwd", "file:///etc/passwd");
        row("another protocol", "", "rtmp://h.test/s", "rtmp://h.test/s");
    }

    void addresses()
    {
        QFETCH(QByteArray, base);
        QFETCH(QByteArray, url);
        QFETCH(QString, expected);
        if (!base.isEmpty())
            base = "<baseURL>" + base + "</baseURL>";
        const auto manifest = parsed(document(base + "<media url='" + url + "'/>"));
        QVERIFY(manifest);
        QCOMPARE(manifest->media.constFirst().address.toString(QUrl::FullyEncoded), expected);
    }

    void bootstraps_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("expected"); // of each rendition
        const QByteArray a = "<bootstrapInfo id='a'>" + encoded("A") + "</bootstrapInfo>";
        const QByteArray b = "<bootstrapInfo id='b' url='b.abst'/>";
        const QByteArray plain = "<bootstrapInfo>" + encoded("P") + "</bootstrapInfo>";
        const QByteArray mediaA = "<media url='1' bootstrapInfoId='a'/>";
        const QByteArray mediaB = "<media url='2' bootstrapinfoId='b'/>";
        const QByteArray media = "<media url='3'/>";
        const QByteArray mediaC = "<media url='4' bootstrapInfoId='c'/>";
        const auto row = [](const char *name, const QByteArray &content, const char *expected) {
            QTest::newRow(name) << content << QString::fromLatin1(expected);
        };
        row("each its own", a + b + mediaA + mediaB, "A b.abst");
        row("in any order", mediaB + mediaA + b + a, "b.abst A");
        row("one for all that name none", a + plain + media + mediaA + media, "P A P");
        row("the only one", a + media + mediaC, "A A");
        row("the first of several", a + b + media + mediaC, "A -");
        row("the first of a name", a + "<bootstrapInfo id='a' url='x'/>" + mediaA, "A");
        row("an address goes before what is inside",
            "<bootstrapInfo url='x.abst'>QQ==</bootstrapInfo>" + media, "x.abst");
        row("none", media, "-");
    }

    void bootstraps()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, expected);
        const auto manifest = parsed(document(content));
        QVERIFY(manifest);
        QStringList found;
        for (const HdsManifest::Media &one : manifest->media) {
            QVERIFY(one.bootstrap.isEmpty() || one.bootstrapAddress.isEmpty());
            found += !one.bootstrap.isEmpty()    ? QString::fromLatin1(one.bootstrap)
                : one.bootstrapAddress.isEmpty() ? QStringLiteral("-")
                                                 : one.bootstrapAddress.fileName();
        }
        QCOMPARE(found.join(QLatin1Char(' ')), expected);
    }

    void protection_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("expected");
        const QByteArray both = "<media url='1' drmAdditionalHeaderId='d'/><media url='2'/>";
        QTest::newRow("none") << QByteArray("<media url='1'/>") << QStringLiteral("0");
        QTest::newRow("one of two")
            << "<drmAdditionalHeader id='d' url='x'/>" + both << QStringLiteral("10");
        QTest::newRow("whose header is elsewhere") << both << QStringLiteral("10");
        QTest::newRow("all") << "<drmAdditionalHeader>eA==</drmAdditionalHeader>" + both
                             << QStringLiteral("11");
        QTest::newRow("a set") << QByteArray("<media url='1' drmAdditionalHeaderSetId='d'/>"
                                             "<drmAdditionalHeaderSet id='d'/>")
                               << QStringLiteral("1");
        QTest::newRow("any letter case")
            << QByteArray("<DRMadditionalHEADER/><media url='1'/>") << QStringLiteral("1");
    }

    void protection()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, expected);
        const auto manifest = parsed(document(content));
        QVERIFY(manifest);
        QString found;
        for (const HdsManifest::Media &one : manifest->media)
            found += one.isProtected ? QLatin1Char('1') : QLatin1Char('0');
        QCOMPARE(found, expected);
    }

    void kinds()
    {
        const auto manifest = parsed(document(
            "<media url='1' type='audio+video'/><media url='2' type='audio' alternate='true' "
            "lang='de' label='D'/><media url='3' type='data'/><media href='c.f4m' bitrate='1.5'/>"
            "<media bitrate='5'/>"));
        QVERIFY(manifest);
        QCOMPARE(manifest->media.size(), 4); // what names nothing is none
        QVERIFY(manifest->media.at(0).rendition.kind == Rendition::Kind::Picture);
        QVERIFY(manifest->media.at(1).rendition.kind == Rendition::Kind::Sound);
        QVERIFY(manifest->media.at(1).isAlternate);
        QCOMPARE(manifest->media.at(1).rendition.language, QStringLiteral("de"));
        QVERIFY(manifest->media.at(2).rendition.kind == Rendition::Kind::Text);
        const HdsManifest::Media &child = manifest->media.at(3);
        QCOMPARE(child.manifest, QUrl(QStringLiteral("http://h.test/a/c.f4m?t=1")));
        QCOMPARE(child.rendition.bandwidth, qint64(1500));
    }

    void numbersThatAreNone()
    {
        const auto manifest = parsed(document(
            "<duration>1e300</duration><media url='1' bitrate='-1' width='x' height='1e9'/>"
            "<media url='2' bitrate='nan' height='inf'/>"));
        QVERIFY(manifest);
        QCOMPARE(manifest->durationUs, qint64(0));
        for (const HdsManifest::Media &one : manifest->media) {
            QCOMPARE(one.rendition.bandwidth, qint64(0));
            QCOMPARE(one.rendition.height, 0);
        }
    }

    void refused_data()
    {
        QTest::addColumn<QByteArray>("text");
        const QByteArray media = "<media url='1'/>";
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("a page") << QByteArray("<!DOCTYPE html><html><body/></html>");
        QTest::newRow("another namespace") << "<manifest xmlns='urn:x'>" + media + "</manifest>";
        QTest::newRow("another root") << "<smil>" + media + "</smil>";
        QTest::newRow("no renditions") << document("<duration>5</duration>");
        QTest::newRow("not well-formed") << "<manifest>" + media;
        QTest::newRow("a prefix that is none") << QByteArray("<f:manifest><f:media/></f:manifest>");
        QTest::newRow("an entity")
            << "<!DOCTYPE manifest [<!ENTITY e SYSTEM 'file:///etc/passwd'>]><manifest>" + media
                + "<baseURL>&e;</baseURL></manifest>";
        QTest::newRow("an entity that is declared nowhere")
            << "<manifest>" + media + "<baseURL>&e;</baseURL></manifest>";
        QTest::newRow("too many renditions") << document(media.repeated(1001));
        QTest::newRow("too many bootstraps")
            << document(media + QByteArray("<bootstrapInfo/>").repeated(1001));
        QTest::newRow("too deep") << document(QByteArray("<a>").repeated(100) + media
                                              + QByteArray("</a>").repeated(100));
        QTest::newRow("zeros") << QByteArray(5000, '\0');
    }

    void refused()
    {
        QFETCH(QByteArray, text);
        QVERIFY(!parsed(text));
    }

    void cutAnywhere()
    {
        const QByteArray whole = hds::manifest("s", hds::simpleBootstrap(3), "meta").trimmed();
        QVERIFY(parsed(whole));
        for (int size = 0; size < whole.size(); ++size)
            QVERIFY(!parsed(whole.left(size)));
    }
};

CLIPWEIR_TEST_MAIN(tst_HdsManifest)
#include "tst_hdsmanifest.moc"
