#include "ManifestAddress.h"
#include "TestMain.h"

using Kind = ManifestAddress::Kind;

Q_DECLARE_METATYPE(ManifestAddress::Kind)

class tst_ManifestAddress : public QObject
{
    Q_OBJECT

private slots:
    void types_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<Kind>("kind");
        QTest::newRow("apple") << "application/vnd.apple.mpegurl" << Kind::Hls;
        QTest::newRow("any case") << "application/x-mpegURL" << Kind::Hls;
        QTest::newRow("audio") << "audio/mpegurl" << Kind::Hls;
        QTest::newRow("parameters") << " Audio/MpegUrl ; charset=UTF-8" << Kind::Hls;
        QTest::newRow("dash") << "application/dash+xml" << Kind::Dash;
        QTest::newRow("dash with profiles")
            << "APPLICATION/DASH+XML;profiles=\"a;b\"" << Kind::Dash;
        QTest::newRow("hds") << "application/f4m+xml" << Kind::Hds;
        QTest::newRow("hds with a charset") << "Application/F4M+XML; charset=utf-8" << Kind::Hds;
        QTest::newRow("hds, as video") << "video/f4m" << Kind::Hds;
        QTest::newRow("none") << "" << Kind::None;
        QTest::newRow("text") << "text/plain" << Kind::None;
        QTest::newRow("longer") << "application/x-mpegurls" << Kind::None;
        QTest::newRow("only a parameter") << "text/plain; application/dash+xml" << Kind::None;
    }

    void types()
    {
        QFETCH(QString, type);
        QFETCH(Kind, kind);
        QCOMPARE(ManifestAddress::kindOfType(type), kind);
        QCOMPARE(ManifestAddress::kindOf(QStringLiteral("http://h/a"), type), kind);
    }

    void addresses_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<Kind>("kind");
        QTest::newRow("playlist") << "http://h/a.m3u8" << Kind::Hls;
        QTest::newRow("any case") << "http://h/a.M3U8" << Kind::Hls;
        QTest::newRow("query") << "https://h/d/a.m3u8?token=x#y" << Kind::Hls;
        QTest::newRow("within the path") << "http://h/a.m3u8/chunk" << Kind::Hls;
        QTest::newRow("path parameter") << "http://h/a.m3u8;id=3" << Kind::Hls;
        QTest::newRow("manifest") << "http://h/a.mpd" << Kind::Dash;
        QTest::newRow("manifest, any case") << "http://h/a.Mpd?x" << Kind::Dash;
        QTest::newRow("second of its kind") << "http://h/a.mpdx.mpd" << Kind::Dash;
        QTest::newRow("hds") << "http://h/a.f4m?x" << Kind::Hds;
        QTest::newRow("hds, any case, path parameter") << "http://h/a.F4M;id=3" << Kind::Hds;
        QTest::newRow("fragment") << "http://h/aSeg1-Frag2" << Kind::None;
        QTest::newRow("longer") << "http://h/a.m3u8x" << Kind::None;
        QTest::newRow("only in the query") << "http://h/a?u=b.m3u8" << Kind::None;
        QTest::newRow("only in the host") << "http://a.mpd/x" << Kind::None;
        QTest::newRow("segment") << "http://h/a.ts" << Kind::None;
        QTest::newRow("empty") << "" << Kind::None;
    }

    void addresses()
    {
        QFETCH(QString, address);
        QFETCH(Kind, kind);
        QCOMPARE(ManifestAddress::kindOfAddress(address), kind);
        QCOMPARE(ManifestAddress::kindOf(address, QStringLiteral("text/plain")), kind);
    }

    void typeGoesBeforeAddress()
    {
        QCOMPARE(ManifestAddress::kindOf(QStringLiteral("http://h/a.m3u8"),
                                         QStringLiteral("application/dash+xml")),
                 Kind::Dash);
    }

    void bytes_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<Kind>("kind");
        QTest::newRow("playlist") << QByteArray("#EXTM3U\n#EXTINF:1,\n") << Kind::Hls;
        QTest::newRow("mark alone") << QByteArray("#EXTM3U") << Kind::Hls;
        QTest::newRow("byte order mark") << QByteArray("\xef\xbb\xbf#EXTM3U\r\n") << Kind::Hls;
        QTest::newRow("blanks before") << QByteArray("\r\n  #EXTM3U\r\n") << Kind::Hls;
        QTest::newRow("cut mark") << QByteArray("#EXTM3") << Kind::None;
        QTest::newRow("manifest") << QByteArray("<MPD xmlns=\"urn:x\" type=\"static\"")
                                  << Kind::None;
        QTest::newRow("manifest, its first element whole")
            << QByteArray("<?xml version=\"1.0\"?>\n<!-- a --><MPD type=\"static\"><Per")
            << Kind::Dash;
        QTest::newRow("prefix") << QByteArray("<d:MPD xmlns:d=\"urn:x\">") << Kind::Dash;
        QTest::newRow("byte order mark before xml")
            << QByteArray("\xef\xbb\xbf<?xml version=\"1.0\"?><MPD>") << Kind::Dash;
        QTest::newRow("hds") << QByteArray(
            "<?xml version='1.0'?><manifest xmlns='http://ns.adobe.com/f4m/1.0'><i")
                             << Kind::Hds;
        QTest::newRow("hds, prefix")
            << QByteArray("<f:manifest xmlns:f=\"http://ns.adobe.com/f4m/3.0\">") << Kind::Hds;
        QTest::newRow("hds, no namespace") << QByteArray("<manifest>") << Kind::Hds;
        QTest::newRow("a manifest of another kind")
            << QByteArray("<manifest xmlns='urn:x'>") << Kind::None;
        QTest::newRow("another element") << QByteArray("<html><MPD>") << Kind::None;
        QTest::newRow("page") << QByteArray("<!DOCTYPE html><html><body>") << Kind::None;
        QTest::newRow("empty") << QByteArray() << Kind::None;
        QTest::newRow("too late") << QByteArray(ManifestAddress::sniffBytes, ' ') + "#EXTM3U"
                                  << Kind::None;
        QTest::newRow("only zeros") << QByteArray(5000, '\0') << Kind::None;
    }

    void bytes()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(Kind, kind);
        QCOMPARE(ManifestAddress::kindOfBytes(bytes), kind);
    }
};

CLIPWEIR_TEST_MAIN(tst_ManifestAddress)
#include "tst_manifestaddress.moc"
