#include "AdobeData.h"
#include "AdobeParser.h"
#include "AdobePreference.h"
#include "HdsFixtures.h"
#include "MessageCatcher.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QTemporaryDir>

using hds::FragmentRun;
using hds::SegmentRun;

namespace {

constexpr quint32 highest = 0xFFFFFFFF;

} // namespace

Q_DECLARE_METATYPE(hds::SegmentRun)
Q_DECLARE_METATYPE(hds::FragmentRun)

class tst_AdobeBootstrap : public QObject
{
    Q_OBJECT

    static QVariant option(const char *key)
    {
        return CAdobePreference::GetInstance()->GetOption(QLatin1String(key));
    }

    static void setBootstrap(const QByteArray &bootstrap)
    {
        CAdobeData::GetInstance()->SetMedia({{QStringLiteral("bootstrap"), bootstrap}});
    }

    static int count() { return CAdobeData::GetInstance()->GetFragCount(); }

private slots:
    void init()
    {
        CAdobePreference::GetInstance()->Reset();
        CAdobeData::GetInstance()->Reset();
    }

    void countAndStart_data()
    {
        using Segments = QVector<SegmentRun>;
        using Fragments = QVector<FragmentRun>;
        QTest::addColumn<Segments>("segments");
        QTest::addColumn<Fragments>("fragments");
        QTest::addColumn<bool>("isLive");
        QTest::addColumn<int>("expectedCount");
        QTest::addColumn<int>("startSegment");
        QTest::addColumn<int>("startFragment");
        QTest::newRow("one entry")
            << Segments{{1, 20}} << Fragments{{1, 0, 100}} << false << 20 << 1 << 0;
        QTest::newRow("segment gap")
            << Segments{{1, 10}, {3, 5}} << Fragments{{1, 0, 100}} << false << 25 << 1 << 0;
        QTest::newRow("fragments from 101")
            << Segments{{1, 20}} << Fragments{{101, 0, 100}} << false << 120 << 1 << 100;
        QTest::newRow("end marker is not counted")
            << Segments{{1, 20}} << Fragments{{1, 0, 100}, {0, 0, 0, 0}} << false << 20 << 1 << 0;
        QTest::newRow("end marker ends a live stream")
            << Segments{{1, 20}, {2, 5}} << Fragments{{1, 0, 100}, {30, 0, 0, 0}} << true << 25 << 1
            << 0;
        QTest::newRow("other discontinuity")
            << Segments{{1, 20}} << Fragments{{1, 0, 100}, {30, 0, 0, 2}} << false << 30 << 1 << 0;
        QTest::newRow("live") << Segments{{1, 120}} << Fragments{{1, 0, 100}} << true << 120 << 1
                              << 118;
        QTest::newRow("live, last segment")
            << Segments{{1, 60}, {7, 60}} << Fragments{{1, 0, 100}} << true << 420 << 7 << 418;
        QTest::newRow("live, short")
            << Segments{{1, 1}} << Fragments{{1, 0, 100}} << true << 1 << 1 << 0;
        QTest::newRow("live, open segment")
            << Segments{{1, highest}} << Fragments{{1, 0, 100}, {200, 0, 100}} << true << 200 << 1
            << 198;
        QTest::newRow("raised to the last fragment")
            << Segments{{1, 20}} << Fragments{{1, 0, 100}, {50, 0, 100}} << false << 50 << 1 << 0;
        QTest::newRow("segment 0")
            << Segments{{0, 20}} << Fragments{{1, 0, 100}} << false << 20 << 1 << 0;
        QTest::newRow("fragment 0")
            << Segments{{1, 20}} << Fragments{{0, 0, 100}} << false << 19 << 1 << 0;
        QTest::newRow("only the end marker")
            << Segments{{1, 20}} << Fragments{{0, 0, 0, 0}} << false << 20 << 1 << 0;
        QTest::newRow("largest numbers")
            << Segments{{0x7FFFFFFF, 0x7FFFFFFF}} << Fragments{{highest, 0, 100}} << false
            << 0x7FFFFFFF << 0x7FFFFFFF << 0x7FFFFFFF;
        QTest::newRow("sums that would overflow")
            << Segments{{1, 0x7FFFFFFF}, {0x7FFFFFFF, 0x7FFFFFFF}, {0x80000000U, 0x80000000U}}
            << Fragments{{1, 0, 100}} << false << 1 << 1 << 0;
    }

    void countAndStart()
    {
        QFETCH(QVector<SegmentRun>, segments);
        QFETCH(QVector<FragmentRun>, fragments);
        QFETCH(bool, isLive);
        QFETCH(int, expectedCount);
        QFETCH(int, startSegment);
        QFETCH(int, startFragment);
        hds::Bootstrap bootstrap;
        bootstrap.isLive = isLive;
        bootstrap.segments = segments;
        bootstrap.fragments = fragments;
        setBootstrap(bootstrap.abst());
        const MessageCatcher catcher;
        CAdobeParser parser;
        QVERIFY(parser.ParseBootstrap());
        QCOMPARE(count(), expectedCount);
        QCOMPARE(parser.StartSegment(), startSegment);
        QCOMPARE(parser.StartFragment(), startFragment);
        QCOMPARE(catcher.lines(), QStringList{QStringLiteral("\"FragCount:%1\" ").arg(count())});
    }

    void tablesAsRead()
    {
        hds::Bootstrap bootstrap;
        bootstrap.servers = {"s1", "", "s3"};
        bootstrap.qualities = {"high", "low"};
        bootstrap.segments = {{1, 2}, {2, highest}};
        bootstrap.fragments = {{1, Q_UINT64_C(0x100000001), 100}, {2, 5, 0, 3}};
        setBootstrap(bootstrap.abst());
        QVERIFY(CAdobeParser().ParseBootstrap());
        const QVariantList segments = CAdobeData::GetInstance()->GetSegmentTable().toList();
        QCOMPARE(segments.size(), 2);
        QCOMPARE(segments.at(1).toMap(),
                 (QVariantMap{{QStringLiteral("firstSegment"), 2},
                              {QStringLiteral("fragmentsPerSegment"), -1}}));
        const QVariantList fragments = CAdobeData::GetInstance()->GetFragmentTable().toList();
        QCOMPARE(fragments.size(), 2);
        QCOMPARE(fragments.at(0).toMap(),
                 (QVariantMap{{QStringLiteral("firstFragment"), 1U},
                              {QStringLiteral("firstFragmentTimestamp"), Q_INT64_C(0x100000001)},
                              {QStringLiteral("fragmentDuration"), 100U}}));
        QCOMPARE(fragments.at(1).toMap().value(QStringLiteral("discontinuityIndicator")),
                 QVariant(3U));
    }

    void flags_data()
    {
        QTest::addColumn<bool>("isLive");
        QTest::addColumn<bool>("isUpdate");
        for (int bits = 0; bits < 4; ++bits)
            QTest::newRow(qPrintable(QString::number(bits))) << bool(bits & 1) << bool(bits & 2);
    }

    void flags()
    {
        QFETCH(bool, isLive);
        QFETCH(bool, isUpdate);
        hds::Bootstrap bootstrap;
        bootstrap.isLive = isLive;
        bootstrap.isUpdate = isUpdate;
        bootstrap.segments = {{1, 20}};
        bootstrap.fragments = {{1, 0, 100}};
        setBootstrap(bootstrap.abst());
        QVERIFY(CAdobeParser().ParseBootstrap());
        QCOMPARE(option("bLive").toBool(), isLive);
        QCOMPARE(option("metadata").toBool(), !isLive);
        QCOMPARE(option("bTable").toBool(), !isUpdate);
    }

    void theEndMarkerClearsLiveOnly()
    {
        hds::Bootstrap bootstrap;
        bootstrap.isLive = true;
        bootstrap.segments = {{1, 20}};
        bootstrap.fragments = {{1, 0, 100}, {0, 0, 0, 0}};
        setBootstrap(bootstrap.abst());
        QVERIFY(CAdobeParser().ParseBootstrap());
        QCOMPARE(option("bLive"), QVariant(false));
        QCOMPARE(option("metadata"), QVariant(false));
    }

    void refused_data()
    {
        QTest::addColumn<QByteArray>("bootstrap");
        QTest::addColumn<QString>("line");
        const QString noStart = QStringLiteral("stream box is not start abst, is not f4f stream! ");
        const QString noData = QStringLiteral("stream fragCount = 0, no stream data! ");
        const QByteArray whole = hds::simpleBootstrap(20);
        QTest::newRow("nothing") << QByteArray()
                                 << QStringLiteral("manifest xml not contains bootstrap! ");
        QTest::newRow("other box") << hds::box("moov", whole) << noStart;
        QTest::newRow("no box") << QByteArray("xyz") << noStart;
        QTest::newRow("half a large header") << QByteArray("\0\0\0\1abst\0\0\0\0", 12) << noStart;
        QTest::newRow("header only") << whole.left(8) << noData;
        QTest::newRow("no segments") << [] {
            hds::Bootstrap bootstrap;
            bootstrap.fragments = {{1, 0, 100}};
            return bootstrap.abst();
        }() << noData;
        QTest::newRow("no fragments") << [] {
            hds::Bootstrap bootstrap;
            bootstrap.segments = {{1, 20}};
            return bootstrap.abst();
        }() << noData;
        QTest::newRow("count 0") << [] {
            hds::Bootstrap bootstrap;
            bootstrap.segments = {{1, 0}};
            bootstrap.fragments = {{0, 0, 100}};
            return bootstrap.abst();
        }() << noData;
    }

    void refused()
    {
        QFETCH(QByteArray, bootstrap);
        QFETCH(QString, line);
        setBootstrap(bootstrap);
        const MessageCatcher catcher;
        QVERIFY(!CAdobeParser().ParseBootstrap());
        QCOMPARE(catcher.lines().constLast(), line);
        QCOMPARE(count(), 0);
    }

    void everyCut()
    {
        hds::Bootstrap bootstrap;
        bootstrap.servers = {"server"};
        bootstrap.qualities = {"quality"};
        bootstrap.segments = {{1, 5}, {2, 5}};
        bootstrap.fragments = {{1, 0, 100}, {4, 0, 0, 1}, {0, 0, 0, 0}};
        const QByteArray whole = bootstrap.abst();
        const MessageCatcher catcher;
        for (int size = 0; size < whole.size(); ++size) {
            // A copy of its own: what is read past it shows under the address sanitizer.
            const QByteArray cut(whole.constData(), size);
            setBootstrap(cut);
            const bool isParsed = CAdobeParser().ParseBootstrap();
            QCOMPARE(isParsed, count() > 0);
            QVERIFY(count() <= 10);
        }
    }

    void whatWasReadBeforeACutIsUsed()
    {
        hds::Bootstrap bootstrap;
        bootstrap.segments = {{1, 30}};
        bootstrap.fragments = {{1, 0, 100}, {40, 0, 100}};
        QByteArray cut = bootstrap.abst();
        cut.chop(1);
        setBootstrap(cut);
        QVERIFY(CAdobeParser().ParseBootstrap());
        QCOMPARE(count(), 30);
        QCOMPARE(CAdobeData::GetInstance()->GetFragmentTable().toList().size(), 1);
    }

    void everyByteAtItsHighest()
    {
        const QByteArray whole = hds::simpleBootstrap(20);
        const MessageCatcher catcher;
        for (int i = 8; i < whole.size(); ++i) {
            QByteArray changed = whole;
            changed[i] = '\xff';
            setBootstrap(changed);
            const bool isParsed = CAdobeParser().ParseBootstrap();
            QCOMPARE(isParsed, count() > 0);
        }
    }

    void tablesOverTheLimitAreCutWithAWarning()
    {
        constexpr int limit = 1000000;
        hds::Bootstrap bootstrap;
        bootstrap.segments = {{1, 5}};
        bootstrap.fragments.reserve(limit + 1);
        for (quint32 i = 1; i <= limit; ++i)
            bootstrap.fragments += {i, 0, 100};
        setBootstrap(bootstrap.abst());
        QVERIFY(CAdobeParser().ParseBootstrap());
        QCOMPARE(count(), limit);

        bootstrap.fragments += {limit + 1, 0, 100};
        setBootstrap(bootstrap.abst());
        QTest::ignoreMessage(QtWarningMsg,
                             "a table of the bootstrap is cut: it has more than 1000000 entries");
        QVERIFY(CAdobeParser().ParseBootstrap());
        QCOMPARE(count(), limit);
    }

    void hugeCountsCostNothing_data()
    {
        QTest::addColumn<QByteArray>("table");
        const QByteArray head = QByteArray(4, '\0'); // version and flags
        QTest::newRow("asrt") << hds::box("asrt", head + QByteArray(1, '\0') + hds::int32(highest));
        QTest::newRow("asrt with strings")
            << hds::box("asrt", head + QByteArray(1, '\xff') + QByteArray(20, 'x'));
        QTest::newRow("afrt") << hds::box("afrt",
                                          head + hds::int32(1000) + QByteArray(1, '\0')
                                              + hds::int32(highest) + QByteArray(40, '\0'));
    }

    void hugeCountsCostNothing()
    {
        QFETCH(QByteArray, table);
        QByteArray whole = hds::simpleBootstrap(20);
        const int at = whole.indexOf(table.mid(4, 4)) - 4;
        setBootstrap(whole.left(at) + table);
        const MessageCatcher catcher;
        const bool isParsed = CAdobeParser().ParseBootstrap();
        QCOMPARE(isParsed, count() > 0);
        QVERIFY(CAdobeData::GetInstance()->GetSegmentTable().toList().size() <= 1);
        QVERIFY(CAdobeData::GetInstance()->GetFragmentTable().toList().size() <= 2);
    }

    void overlappingTablesHoldNoMoreThanTheBytesDo_data()
    {
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<QByteArray>("head");
        const QByteArray head = QByteArray(4, '\0'); // version and flags
        QTest::newRow("asrt") << QByteArray("asrt") << head + '\0' + hds::int32(highest);
        QTest::newRow("afrt") << QByteArray("afrt")
                              << head + hds::int32(1000) + '\0' + hds::int32(highest);
    }

    void overlappingTablesHoldNoMoreThanTheBytesDo()
    {
        QFETCH(QByteArray, type);
        QFETCH(QByteArray, head);
        // Each table says that it ends before its first entry, and reads to the end all the same.
        QByteArray whole = hds::simpleBootstrap(20);
        const int at = whole.indexOf(type) - 4;
        whole[at - 1] = '\xff'; // number of tables
        whole.insert(at, hds::box(type, head).repeated(254));
        setBootstrap(whole);
        const MessageCatcher catcher;
        const bool isParsed = CAdobeParser().ParseBootstrap();
        QCOMPARE(isParsed, count() > 0);
        const CAdobeData *const data = CAdobeData::GetInstance();
        QVERIFY(data->GetSegmentTable().toList().size() <= whole.size() / 8);
        QVERIFY(data->GetFragmentTable().toList().size() <= whole.size() / 16);
    }

    void otherTablesAreSkippedBySize_data()
    {
        QTest::addColumn<QByteArray>("other");
        QTest::newRow("compact") << hds::box("free", QByteArray(13, 'x'));
        QTest::newRow("large") << hds::largeBox("free", QByteArray(13, 'x'));
        QTest::newRow("empty") << hds::box("free", QByteArray());
        QTest::newRow("declared 0") << QByteArray("\0\0\0\0free", 8);
    }

    void otherTablesAreSkippedBySize()
    {
        QFETCH(QByteArray, other);
        hds::Bootstrap bootstrap;
        bootstrap.segments = {{1, 20}};
        bootstrap.fragments = {{1, 0, 100}};
        QByteArray whole = bootstrap.abst();
        const int at = whole.indexOf("asrt") - 4;
        whole[at - 1] = 2; // number of segment run tables
        whole.insert(at, other);
        setBootstrap(whole);
        QVERIFY(CAdobeParser().ParseBootstrap());
        QCOMPARE(count(), 20);
    }

    void aTableOfAnySizeEndsTheWalk_data()
    {
        QTest::addColumn<QByteArray>("size");
        QTest::newRow("below its header") << hds::int32(4);
        QTest::newRow("past the end") << hds::int32(highest);
    }

    void aTableOfAnySizeEndsTheWalk()
    {
        QFETCH(QByteArray, size);
        QByteArray whole = hds::simpleBootstrap(20);
        whole.replace(whole.indexOf("afrt") - 4, 4, size);
        setBootstrap(whole);
        QVERIFY(CAdobeParser().ParseBootstrap()); // the table itself is there
        QCOMPARE(count(), 20);
        whole.replace(whole.indexOf("asrt") - 4, 4, size);
        setBootstrap(whole);
        QVERIFY(!CAdobeParser().ParseBootstrap()); // what follows it is not found
    }

    void severalTablesGoIntoOne()
    {
        hds::Bootstrap bootstrap;
        bootstrap.segments = {{1, 10}};
        bootstrap.fragments = {{1, 0, 100}};
        QByteArray whole = bootstrap.abst();
        const int at = whole.indexOf("asrt") - 4;
        whole[at - 1] = 2;
        hds::Bootstrap second;
        second.segments = {{2, 7}};
        whole.insert(at + bootstrap.asrt().size(), second.asrt());
        setBootstrap(whole);
        QVERIFY(CAdobeParser().ParseBootstrap());
        QCOMPARE(count(), 17);
    }

    void parsedAgainTheTablesStartAfresh()
    {
        setBootstrap(hds::simpleBootstrap(20));
        CAdobeParser parser;
        QVERIFY(parser.ParseBoxes());
        QVERIFY(parser.ParseBoxes());
        QCOMPARE(count(), 20);
        QCOMPARE(CAdobeData::GetInstance()->GetSegmentTable().toList().size(), 1);
    }

    void refresh()
    {
        const QTemporaryDir folder;
        qputenv("CLIPWEIR_COOKIES", folder.filePath(QStringLiteral("cookies.txt")).toUtf8());
        ScriptedServer server;
        HttpReply reply;
        reply.body = "\r\n " + hds::simpleBootstrap(33) + " \n";
        server.on("/live.abst", reply);
        CAdobeData::GetInstance()->SetMedia(
            {{QStringLiteral("bootstrapUrl"), QStringLiteral("x")}, {QStringLiteral("k"), 1}});

        const MessageCatcher catcher;
        QVERIFY(!CAdobeParser().ParseBootstrap());
        QCOMPARE(catcher.lines().constLast(), QStringLiteral("UpdateBootstrapInfo error! "));

        CAdobePreference::GetInstance()->SetOption(QStringLiteral("bootstrapUrl"),
                                                   server.address("/live.abst"));
        QVERIFY(CAdobeParser().ParseBootstrap());
        QCOMPARE(count(), 33);
        const QVariantMap media = CAdobeData::GetInstance()->GetMedia();
        QCOMPARE(media.value(QStringLiteral("bootstrap")).toByteArray(), hds::simpleBootstrap(33));
        QCOMPARE(media.value(QStringLiteral("k")), QVariant(1));
    }

    void refreshWithoutContentComesToAnEnd()
    {
        const QTemporaryDir folder;
        qputenv("CLIPWEIR_COOKIES", folder.filePath(QStringLiteral("cookies.txt")).toUtf8());
        ScriptedServer server;
        server.on("/live.abst", HttpReply());
        CAdobePreference::GetInstance()->SetOption(QStringLiteral("bootstrapUrl"),
                                                   server.address("/live.abst"));
        const MessageCatcher catcher;
        QVERIFY(!CAdobeParser().UpdateBootstrapInfo());
        QCOMPARE(server.requests().size(), 31);
    }
};

CLIPWEIR_TEST_MAIN(tst_AdobeBootstrap)
#include "tst_adobebootstrap.moc"
