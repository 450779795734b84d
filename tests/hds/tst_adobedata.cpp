#include "AdobeData.h"
#include "AdobePreference.h"
#include "AdobeUtils.h"
#include "TestMain.h"

#include <QElapsedTimer>

class tst_AdobeData : public QObject
{
    Q_OBJECT

    static CAdobeData *data() { return CAdobeData::GetInstance(); }

    static void setOption(const char *key, const QString &value)
    {
        CAdobePreference::GetInstance()->SetOption(QLatin1String(key), value);
    }

    static void setMediaUrl(const QString &url)
    {
        data()->SetMedia({{QStringLiteral("url"), url}});
    }

    static void setTables(const QVector<QPair<int, int>> &segments, quint32 firstFragment)
    {
        QVariantList table;
        for (const auto &segment : segments) {
            table += QVariantMap{{QStringLiteral("firstSegment"), segment.first},
                                 {QStringLiteral("fragmentsPerSegment"), segment.second}};
        }
        data()->SetSegmentTable(table);
        data()->SetFragmentTable({QVariantMap{{QStringLiteral("firstFragment"), firstFragment}}});
    }

private slots:
    void init()
    {
        CAdobePreference::GetInstance()->Reset();
        data()->Reset();
        setOption("manifest", QStringLiteral("http://h/a/b/main.f4m?x=/y/z"));
    }

    void fragmentAddress_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("expected");
        QTest::newRow("absolute") << QStringLiteral("http://s/v/name")
                                  << QStringLiteral("http://s/v/nameSeg1-Frag7");
        QTest::newRow("relative") << QStringLiteral("v/name")
                                  << QStringLiteral("http://h/a/b/v/nameSeg1-Frag7");
        QTest::newRow("up") << QStringLiteral("../name")
                            << QStringLiteral("http://h/a/nameSeg1-Frag7");
        QTest::newRow("absolute with dots")
            << QStringLiteral("http://s/v/../name") << QStringLiteral("http://s/v/nameSeg1-Frag7");
        QTest::newRow("names a manifest") << QStringLiteral("http://s/v/name.f4m?x")
                                          << QStringLiteral("http://s/v/nameSeg1-Frag7");
        QTest::newRow("the last manifest name") << QStringLiteral("http://s/a.f4m/b.f4m")
                                                << QStringLiteral("http://s/a.f4m/bSeg1-Frag7");
        QTest::newRow("looks like a marker") << QStringLiteral("http://s/%412/%1/%2%3")
                                             << QStringLiteral("http://s/%412/%1/%2%3Seg1-Frag7");
    }

    void fragmentAddress()
    {
        QFETCH(QString, url);
        QFETCH(QString, expected);
        setMediaUrl(url);
        QCOMPARE(data()->GetFragUrl(1, 7), expected);
        setOption("auth", QStringLiteral("t=%1&u=%2"));
        QCOMPARE(data()->GetFragUrl(1, 7), expected + QStringLiteral("?t=%1&u=%2"));
    }

    void fileName_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("name");
        QTest::newRow("plain") << QStringLiteral("name") << QStringLiteral("name");
        QTest::newRow("path") << QStringLiteral("http://s/v/name/") << QStringLiteral("name");
        QTest::newRow("folder") << QStringLiteral("v/name/") << QStringLiteral("name");
        QTest::newRow("extension") << QStringLiteral("v/name.mp4") << QStringLiteral("name");
        QTest::newRow("slash first") << QStringLiteral("/name") << QStringLiteral("_name");
        QTest::newRow("backslash and NUL")
            << QStringLiteral("a\\b") + QChar(0) + QStringLiteral("c") << QStringLiteral("a_b_c");
        QTest::newRow("dots") << QStringLiteral("..") << QStringLiteral("..");
        QTest::newRow("nothing") << QString() << QString();
    }

    void fileName()
    {
        QFETCH(QString, url);
        QFETCH(QString, name);
        setMediaUrl(url);
        const QString hash = CAdobeUtils::GetMD5String(QStringLiteral("http://h/a/b/main.f4m"));
        QCOMPARE(data()->GetBaseFileName(0), hash + QLatin1Char('_') + name);
        QCOMPARE(data()->GetBaseFileName(3),
                 hash + QLatin1Char('_') + name + QStringLiteral("Seg3-Frag"));
    }

    void longFileNamesFitAndDiffer()
    {
        const QString stem = QString::fromUtf8("\xe4\xb8\xad").repeated(300);
        setMediaUrl(stem + QLatin1Char('1'));
        const QString first = data()->GetBaseFileName(2147483647);
        QVERIFY(first.toUtf8().size() < 230);
        setMediaUrl(stem + QLatin1Char('2'));
        QVERIFY(data()->GetBaseFileName(2147483647) != first);
    }

    void segmentOfAFragment_data()
    {
        using Segments = QVector<QPair<int, int>>;
        QTest::addColumn<Segments>("segments");
        QTest::addColumn<int>("fragment");
        QTest::addColumn<int>("expected");
        QTest::newRow("one entry") << Segments{{4, 10}} << 999 << 4;
        const Segments two{{1, 10}, {2, 10}};
        QTest::newRow("first round") << two << 5 << 1;
        QTest::newRow("end of the first round") << two << 10 << 1;
        QTest::newRow("entry before is used") << two << 15 << 2;
        QTest::newRow("past the last") << two << 21 << 2;
        QTest::newRow("before the first") << two << 0 << 2;
        // Position 1 of the list has 5 a segment, position 2 has 7; 3 is past the end.
        const Segments three{{1, 10}, {2, 5}, {4, 7}};
        QTest::newRow("list position 1") << three << 5 << 1;
        QTest::newRow("list position 2") << three << 6 << 2;
        QTest::newRow("list position 2, end") << three << 12 << 2;
        QTest::newRow("list position 3") << three << 13 << 3;
        QTest::newRow("list position 4") << three << 26 << 4;
        QTest::newRow("list position 4, past its end") << three << 27 << 4;
        QTest::newRow("far apart")
            << Segments{{1, 10}, {2147483647, 10}} << 2147483647 << 214748365;
        QTest::newRow("no fragments in a segment")
            << Segments{{1, 0}, {2147483647, 0}} << 5 << 2147483647;
        QTest::newRow("negative numbers")
            << Segments{{-2147483647, 3}, {2147483647, -3}} << 7 << -2147483645;
        QTest::newRow("falling numbers") << Segments{{5, 3}, {2, 3}} << 2 << 5;
    }

    void segmentOfAFragment()
    {
        using Segments = QVector<QPair<int, int>>;
        QFETCH(Segments, segments);
        QFETCH(int, fragment);
        QFETCH(int, expected);
        setTables(segments, 1);
        QCOMPARE(data()->GetSegmentFromFragment(fragment), QVariant(expected));
    }

    void noSegmentTable() { QVERIFY(!data()->GetSegmentFromFragment(1).isValid()); }

    void fragmentsNeedNotBeginAtOne()
    {
        setTables({{1, 10}, {2, 10}}, 101);
        QCOMPARE(data()->GetSegmentFromFragment(110), QVariant(1));
        QCOMPARE(data()->GetSegmentFromFragment(111), QVariant(2));
    }
};

CLIPWEIR_TEST_MAIN(tst_AdobeData)
#include "tst_adobedata.moc"
