// Whole downloads of streams that another program made, served by a real web server.
#include "HdsRun.h"
#include "HdsStream.h"
#include "Nginx.h"
#include "TestMain.h"

class tst_HdsStreams : public QObject
{
    Q_OBJECT

    QTemporaryDir m_root;
    std::unique_ptr<Nginx> m_server;

    static QStringList words(const char *text)
    {
        return QString::fromLatin1(text).split(QLatin1Char(' '));
    }

    QString folder(const QString &name) const { return m_root.filePath(name); }

    /// Compares a downloaded file with the file its stream was cut from.
    static void compareWithSource(const HdsRun &run, const HdsStream &stream, bool hasVideo,
                                  bool hasAudio)
    {
        QString error;
        const auto tags = hds::readFlv(run.output(), error);
        QCOMPARE(error, QString());
        QVERIFY(!tags.isEmpty());
        QCOMPARE(tags.constFirst().timestampMs, qint64(0));
        const QString file = run.path(QStringLiteral("out.flv"));
        QCOMPARE(HdsStream::complaints(file), QByteArray());
        for (const auto &part :
             {qMakePair(QStringLiteral("v"), hasVideo), qMakePair(QStringLiteral("a"), hasAudio)}) {
            if (!part.second)
                continue;
            const auto expected = HdsStream::packets(stream.sourceFile(), part.first);
            const auto actual = HdsStream::packets(file, part.first);
            QVERIFY(expected.size() > 10);
            QCOMPARE(actual.size(), expected.size());
            for (int i = 0; i < actual.size(); ++i) {
                QCOMPARE(actual.at(i).payload, expected.at(i).payload);
                QCOMPARE(actual.at(i).timeMs, expected.at(i).timeMs);
            }
        }
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_root.isValid());
        // The web server reads the folder as another user.
        QVERIFY(QFile::setPermissions(m_root.path(),
                                      QFile::permissions(m_root.path()) | QFileDevice::ReadOther
                                          | QFileDevice::ExeOther));
        m_server = std::make_unique<Nginx>(m_root.path());
        QVERIFY(m_server->start());
    }

    void everyPacketOnceInOrder_data()
    {
        QTest::addColumn<QStringList>("encoding");
        QTest::addColumn<int>("seconds");
        QTest::addColumn<int>("fragmentMs");
        QTest::addColumn<bool>("hasVideo");
        QTest::addColumn<bool>("hasAudio");
        QTest::newRow("H.264 and AAC")
            << words("-c:v libx264 -preset ultrafast -bf 2 -g 25 -b:v 300k -c:a aac -b:a 64k") << 12
            << 1000 << true << true;
        QTest::newRow("MP3 and an older video codec")
            << words("-c:v flv1 -g 25 -b:v 300k -c:a libmp3lame -b:a 64k") << 12 << 1000 << true
            << true;
        QTest::newRow("audio only")
            << words("-vn -c:a aac -b:a 64k") << 12 << 1000 << false << true;
        QTest::newRow("MP3 only") << words("-vn -c:a libmp3lame -b:a 64k") << 12 << 1000 << false
                                  << true;
        QTest::newRow("video only")
            << words("-an -c:v libx264 -preset ultrafast -bf 2 -g 25 -b:v 300k") << 12 << 1000
            << true << false;
        QTest::newRow("one fragment")
            << words("-c:v libx264 -preset ultrafast -b:v 300k -c:a aac -b:a 64k") << 4 << 60000
            << true << true;
        QTest::newRow("many short fragments")
            << words("-c:v libx264 -preset ultrafast -bf 0 -g 5 -b:v 300k -c:a aac -b:a 64k") << 20
            << 200 << true << true;
    }

    void everyPacketOnceInOrder()
    {
        QFETCH(QStringList, encoding);
        QFETCH(int, seconds);
        QFETCH(int, fragmentMs);
        QFETCH(bool, hasVideo);
        QFETCH(bool, hasAudio);
        const QString name = QString::fromLatin1(QTest::currentDataTag()).remove(QLatin1Char(' '));
        HdsStream stream(folder(name));
        QVERIFY(stream.make(encoding, seconds, fragmentMs));
        QVERIFY(stream.writeManifest(QStringLiteral("main.f4m")));
        HdsRun run;
        QCOMPARE(run.run(m_server->address(QStringLiteral("/%1/main.f4m").arg(name))), 1);
        QCOMPARE(run.cacheFiles().size(), stream.fragmentCount());
        compareWithSource(run, stream, hasVideo, hasAudio);

        // A second run takes everything from the cache and comes to the same file.
        const QByteArray before = run.output();
        const int requests = m_server->accessLog().size();
        run.makeDownloader();
        QCOMPARE(run.run(m_server->address(QStringLiteral("/%1/main.f4m").arg(name))), 1);
        QCOMPARE(run.output(), before);
        QTRY_COMPARE(m_server->accessLog().size(), requests + 1);
    }

    void twoLevelsAndThreeRenditions_data()
    {
        QTest::addColumn<int>("quality");
        QTest::addColumn<int>("chosen");
        QTest::newRow("best") << 0 << 2;
        QTest::newRow("second") << 1 << 1;
        QTest::newRow("lowest") << 2 << 0;
    }

    void twoLevelsAndThreeRenditions()
    {
        QFETCH(int, quality);
        QFETCH(int, chosen);
        const QStringList names{QStringLiteral("low"), QStringLiteral("mid"),
                                QStringLiteral("high")};
        const QStringList rates{QStringLiteral("150k"), QStringLiteral("400k"),
                                QStringLiteral("900k")};
        QByteArray top = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                         "<manifest xmlns=\"http://ns.adobe.com/f4m/2.0\">\n";
        for (int i = 0; i < names.size(); ++i) {
            HdsStream stream(folder(names.at(i)));
            if (stream.fragmentCount() == 0) {
                QVERIFY(stream.make(words("-c:v libx264 -preset ultrafast -g 25 -c:a aac -b:a 64k")
                                        + QStringList{QStringLiteral("-b:v"), rates.at(i)},
                                    5, 1000));
                QVERIFY(stream.writeManifest(QStringLiteral("main.f4m"),
                                             names.at(i) + QLatin1Char('/')));
            }
            top += "<media href=\"" + names.at(i).toUtf8() + "/main.f4m\" bitrate=\""
                + rates.at(i).toUtf8().chopped(1) + "\"/>\n";
        }
        QFile file(folder(QStringLiteral("top.f4m")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(top + "</manifest>\n");
        file.close();
        HdsRun run;
        QCOMPARE(run.run(m_server->address(QStringLiteral("/top.f4m")),
                         {QStringLiteral("--quality"), QString::number(quality)}),
                 1);
        compareWithSource(run, HdsStream(folder(names.at(chosen))), true, true);
    }

    void aMissingFragmentLeavesTheRestPlayable()
    {
        HdsStream stream(folder(QStringLiteral("gap")));
        QVERIFY(stream.make(words("-c:v libx264 -preset ultrafast -bf 0 -g 25 -b:v 300k "
                                  "-c:a aac -b:a 64k"),
                            8, 2000));
        QVERIFY(stream.writeManifest(QStringLiteral("main.f4m")));
        QVERIFY(QFile::remove(folder(QStringLiteral("gap/stream0Seg1-Frag2"))));
        HdsRun run;
        QCOMPARE(run.run(m_server->address(QStringLiteral("/gap/main.f4m"))), 1);
        QString error;
        const auto tags = hds::readFlv(run.output(), error);
        QCOMPARE(error, QString());
        QCOMPARE(HdsStream::complaints(run.path(QStringLiteral("out.flv"))), QByteArray());
        // Two of eight seconds are missing, and no hole is left in their place.
        QVERIFY(tags.constLast().timestampMs > 5500 && tags.constLast().timestampMs < 6500);
    }
};

CLIPWEIR_TEST_MAIN(tst_HdsStreams)
#include "tst_hdsstreams.moc"
