#include "HlsCipher.h"
#include "HlsRun.h"
#include "Packaged.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QDir>
#include <QRegularExpression>

namespace {

QByteArray joined(const QMap<qint64, QByteArray> &parts)
{
    QByteArray all;
    for (const QByteArray &part : parts)
        all += part;
    return all;
}

/// The content of a file that another program decrypts.
QByteArray decrypted(const QString &name, const QByteArray &iv, const QString &folder)
{
    return outputOf(QStringLiteral("openssl"),
                    {QStringLiteral("enc"), QStringLiteral("-d"), QStringLiteral("-aes-128-cbc"),
                     QStringLiteral("-K"), QString::fromLatin1(Packaged::key.toHex()),
                     QStringLiteral("-iv"), QString::fromLatin1(iv.toHex()), QStringLiteral("-in"),
                     name},
                    folder);
}

} // namespace

/// Playlists of ffmpeg's packager in all its kinds, read and fetched to the byte.
class tst_HlsStreams : public QObject
{
    Q_OBJECT

private slots:
    void toTheByte_data()
    {
        QTest::addColumn<QString>("output");
        QTest::addColumn<QString>("files"); // that make up the whole, in their order
        QTest::addColumn<int>("segments");
        const QString hls = QStringLiteral("-f hls -hls_time 1 -hls_playlist_type vod ");
        QTest::newRow("transport stream")
            << hls + QLatin1String("-hls_segment_filename s%02d.ts l.m3u8") << "s*.ts" << 6;
        QTest::newRow("ranges of one file")
            << hls + QLatin1String("-hls_flags single_file -hls_segment_filename s.ts l.m3u8")
            << "s.ts" << 6;
        QTest::newRow("fragmented MP4") << hls
                + QLatin1String("-hls_segment_type fmp4 -hls_fmp4_init_filename s-init.m4s "
                                "-hls_segment_filename s1%02d.m4s l.m3u8")
                                        << "s*.m4s" << 7;
        QTest::newRow("ranges of one fragmented MP4") << hls
                + QLatin1String("-hls_segment_type fmp4 -hls_flags single_file "
                                "-hls_segment_filename s.m4s l.m3u8")
                                                      << "s.m4s" << 7;
        QTest::newRow("an event that is over")
            << QStringLiteral("-f hls -hls_time 1 -hls_playlist_type event -start_number 90 "
                              "-hls_segment_filename s%02d.ts l.m3u8")
            << "s*.ts" << 6;
        QTest::newRow("discontinuities of the time of day") << hls
                + QLatin1String("-hls_flags program_date_time+discont_start -hls_segment_filename "
                                "s%02d.ts l.m3u8") << "s*.ts"
                                                            << 6;
    }

    void toTheByte()
    {
        QFETCH(QString, output);
        QFETCH(QString, files);
        QFETCH(int, segments);
        Packaged packaged(output);
        QVERIFY(packaged.isMade);
        const MediaServers servers;
        HlsPresentation presentation({packaged.server.url("/l.m3u8"), 0, QString()}, servers);
        const Opening opening(presentation);
        QVERIFY2(opening.isReady, qUtf8Printable(opening.reason));
        QVERIFY(!presentation.isLive());
        QVERIFY(qAbs(presentation.chosen().constFirst().durationUs - 6000000) < 100000);
        const auto parts = fetchAll(*presentation.tracks().constFirst(), servers);
        QCOMPARE(parts.size(), segments);
        // The initialisation of a single file stands at its head, as the first part does.
        QByteArray expected = packaged.filesOf(files);
        if (files == QLatin1String("s*.m4s")) // whose first name sorts behind the digits'
            expected = packaged.filesOf(QStringLiteral("s-init.m4s"))
                + packaged.filesOf(QStringLiteral("s1*.m4s"));
        const QByteArray whole = joined(parts);
        // What lies behind the last segment of a file, such as an index, is none of the stream.
        QVERIFY(whole.size() > expected.size() * 9 / 10);
        QVERIFY(expected.startsWith(whole)
                && (!files.contains(QLatin1Char('*')) || whole == expected));
    }

    void aServerThatKnowsNoRanges()
    {
        Packaged packaged(QStringLiteral("-f hls -hls_time 1 -hls_playlist_type vod "
                                         "-hls_flags single_file -hls_segment_filename s.ts "
                                         "l.m3u8"));
        QVERIFY(packaged.isMade);
        const QByteArray file = readFile(packaged.path("s.ts"));
        packaged.server.on("/s.ts", replyOf(file));
        const MediaServers servers;
        HlsPresentation presentation({packaged.server.url("/l.m3u8"), 0, QString()}, servers);
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(joined(fetchAll(*presentation.tracks().constFirst(), servers)), file);
        QCOMPARE(packaged.server.requestsFor("/s.ts").size(), 6);
    }

    void encrypted_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<int>("firstNumber");
        QTest::addColumn<QByteArray>("iv"); // empty for the number
        QTest::newRow("IV in the playlist")
            << "-hls_key_info_file iv.info" << 0
            << QByteArray::fromHex("000102030405060708090a0b0c0d0e0f");
        QTest::newRow("the key told anew for each segment")
            << "-hls_key_info_file k.info -hls_flags periodic_rekey -start_number 7" << 7
            << QByteArray();
    }

    void encrypted()
    {
        QFETCH(QString, options);
        QFETCH(int, firstNumber);
        QFETCH(QByteArray, iv);
        fetchesEncrypted(options, firstNumber, iv, false);
    }

    void encryptedWithoutAnIv()
    {
        fetchesEncrypted(QStringLiteral("-hls_key_info_file k.info -hls_flags periodic_rekey "
                                        "-start_number 7"),
                         7, QByteArray(), true);
    }

    void separateSound()
    {
        // In the map of streams a bar stands for the blank that keeps its parts apart.
        Packaged packaged(QStringLiteral(
            "-map 0:v -map 1:a -map 1:a -f hls -hls_time 1 -hls_playlist_type vod "
            "-master_pl_name m.m3u8 -hls_segment_filename s%v-%02d.ts -var_stream_map "
            "v:0,agroup:g|a:0,agroup:g,language:en,default:yes|a:1,agroup:g,language:de "
            "l%v.m3u8"));
        QVERIFY(packaged.isMade);
        const MediaServers servers;
        HlsPresentation presentation({packaged.server.url("/m.m3u8"), 0, QStringLiteral("de")},
                                     servers);
        const Opening opening(presentation);
        QVERIFY2(opening.isReady, qUtf8Printable(opening.reason));
        QCOMPARE(presentation.tracks().size(), 2);
        QCOMPARE(presentation.chosen().at(1).language, QStringLiteral("de"));
        QVERIFY(presentation.chosen().at(0).bandwidth > 0);
        QCOMPARE(joined(fetchAll(*presentation.tracks().at(0), servers)),
                 packaged.filesOf(QStringLiteral("s0-*.ts")));
        QCOMPARE(joined(fetchAll(*presentation.tracks().at(1), servers)),
                 packaged.filesOf(QStringLiteral("s2-*.ts")));
        QVERIFY(packaged.server.requestsFor("/l1.m3u8").isEmpty());
    }

private:
    /// @param iv of all segments; empty where their numbers stand for it
    /// @param isIvUntold whether the playlist does not say so
    static void fetchesEncrypted(const QString &options, int firstNumber, const QByteArray &iv,
                                 bool isIvUntold)
    {
        Packaged packaged(QStringLiteral("-f hls -hls_time 1 -hls_playlist_type vod ") + options
                          + QLatin1String(" -hls_segment_filename s%02d.ts l.m3u8"));
        QVERIFY(packaged.isMade);
        QString playlist = QString::fromUtf8(readFile(packaged.path("l.m3u8")));
        QVERIFY(playlist.contains(QLatin1String(",IV=0x")));
        if (isIvUntold)
            playlist.remove(QRegularExpression(QStringLiteral(",IV=0x[0-9a-f]+")));
        packaged.server.on("/l.m3u8", replyOf(playlist.toUtf8()));
        const MediaServers servers;
        HlsPresentation presentation({packaged.server.url("/l.m3u8"), 0, QString()}, servers);
        const Opening opening(presentation);
        QVERIFY2(opening.isReady, qUtf8Printable(opening.reason));
        const auto parts = fetchAll(*presentation.tracks().constFirst(), servers);
        QCOMPARE(parts.size(), 6);
        QCOMPARE(packaged.server.requestsFor("/k.key").size(), 1);
        for (int i = 0; i < parts.size(); ++i) {
            const int number = firstNumber + i;
            const QString name = QStringLiteral("s%1.ts").arg(number, 2, 10, QLatin1Char('0'));
            const QByteArray expected = decrypted(name, iv.isEmpty() ? HlsCipher::ivOf(number) : iv,
                                                  packaged.folder.path());
            QVERIFY(expected.size() > 188 && expected.startsWith('G'));
            QCOMPARE(parts.value(i + 1), expected);
        }
    }
};

CLIPWEIR_TEST_MAIN(tst_HlsStreams)
#include "tst_hlsstreams.moc"
