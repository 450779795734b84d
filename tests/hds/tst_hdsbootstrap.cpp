#include "HdsBootstrap.h"
#include "HdsFixtures.h"
#include "TestMain.h"

#include <QElapsedTimer>

using hds::FragmentRun;
using hds::SegmentRun;

namespace {

using Segments = QVector<SegmentRun>;
using Fragments = QVector<FragmentRun>;

constexpr quint32 untold = 0xFFFFFFFF;

std::optional<HdsBootstrap> parsed(const QByteArray &answer, qint64 durationUs = 0)
{
    QString reason;
    const auto bootstrap = HdsBootstrap::parse(answer, durationUs, reason);
    if (bootstrap.has_value() == !reason.isEmpty())
        qFatal("what cannot be read has a reason, and nothing else");
    return bootstrap;
}

/// The fragments as "segment-fragment", of each span its first and its last.
QByteArray outlined(const HdsBootstrap &bootstrap)
{
    QByteArray text;
    for (const HdsBootstrap::Span &span : bootstrap.spans) {
        const auto nameOf = [&span](qint64 offset) {
            return QByteArray::number(span.segmentOf(offset)) + '-'
                + QByteArray::number(span.fragment + offset);
        };
        text += nameOf(0) + ".." + nameOf(span.count - 1) + ' ';
    }
    return text.trimmed();
}

} // namespace

Q_DECLARE_METATYPE(hds::SegmentRun)
Q_DECLARE_METATYPE(hds::FragmentRun)

class tst_HdsBootstrap : public QObject
{
    Q_OBJECT

private slots:
    void runTables_data()
    {
        QTest::addColumn<Segments>("segments");
        QTest::addColumn<Fragments>("fragments");
        QTest::addColumn<int>("mediaTime"); // ms
        QTest::addColumn<bool>("isLive");
        QTest::addColumn<QByteArray>("expected");
        const auto row = [](const char *name, const Segments &segments, const Fragments &fragments,
                            int mediaTime, bool isLive, const char *expected) {
            QTest::newRow(name) << segments << fragments << mediaTime << isLive
                                << QByteArray(expected);
        };
        row("one segment", {{1, 20}}, {{1, 0, 100}}, 0, false, "1-1..1-20");
        row("fragments from 101", {{1, 20}}, {{101, 0, 100}}, 0, false, "1-101..1-120");
        row("segments by their numbers", {{5, 10}, {7, 4}}, {{1, 0, 100}}, 0, false,
            "5-1..6-20 7-21..7-24");
        row("numbers of segments that are skipped", {{1, 2}, {9, 1}}, {{1, 0, 100}}, 0, false,
            "1-1..8-16 9-17..9-17");
        row("a run for the shorter last one", {{1, 3}}, {{1, 0, 100}, {3, 200, 50}}, 0, false,
            "1-1..1-2 1-3..1-3");
        row("more fragments than in the segment", {{1, 2}}, {{1, 0, 100}, {5, 400, 100}}, 0, false,
            "1-1..2-4 3-5..3-5");
        row("equal segments, as many as time takes", {{1, 10}}, {{1, 0, 100}}, 2950, false,
            "1-1..3-30");
        row("one fragment in each segment", {{1, 1}}, {{1, 0, 100}}, 720, false, "1-1..7-7");
        row("time that is a little long", {{1, 25}}, {{1, 0, 100}}, 2590, false, "1-1..1-25");
        row("the end of the stream, without a number", {{1, 3}}, {{1, 0, 100}, {0, 0, 0, 0}}, 0,
            true, "1-1..1-3");
        row("the end of the stream, with its number", {{1, untold}}, {{1, 0, 100}, {8, 700, 0, 0}},
            0, true, "1-1..1-7");
        row("numbers that are left out", {{1, 20}}, {{1, 0, 100}, {4, 300, 0, 3}, {11, 900, 100}},
            0, false, "1-1..1-3 1-11..1-20");
        row("time that begins anew", {{1, 5}}, {{1, 900, 100}, {3, 1100, 0, 2}, {3, 0, 100}}, 0,
            false, "1-1..1-2 1-3..1-5");
        row("an entry for each fragment", {{1, 3}}, {{1, 0, 90}, {2, 90, 80}, {3, 170, 90}}, 0,
            false, "1-1..1-1 1-2..1-2 1-3..1-3");
        row("live, by its entries", {{1, untold}}, {{4, 300, 100}, {5, 400, 100}}, 400, true,
            "1-4..1-4 1-5..1-5");
        row("live, by its clock", {{1, 40}}, {{10, 900, 100}}, 1500, true, "1-10..1-15");
        row("live, by its segments", {{1, 5}}, {{10, 900, 100}}, 0, true, "1-10..1-14");
        row("only the clock", {{1, untold}}, {{1, 0, 100}}, 1010, false, "1-1..1-10");
        row("segments that are none", {{1, 0}, {2, 3}}, {{1, 0, 100}}, 0, false, "2-1..2-3");
        row("segments that fall", {{3, 2}, {1, 7}}, {{1, 0, 100}}, 0, false, "3-1..3-2");
        row("fragments that fall", {{1, 5}}, {{3, 0, 100}, {2, 100, 100}}, 0, false, "1-3..1-7");
        row("fragments that overlap", {{1, 5}},
            {{1, 0, 100}, {9, 800, 0, 1}, {5, 400, 100}, {9, 800, 100}}, 0, false,
            "1-1..2-8 2-9..2-9");
        row("no segments", {}, {{1, 0, 100}, {5, 400, 100}}, 0, false, "1-1..1-4 1-5..1-5");
        row("the largest numbers", {{untold - 1, untold}}, {{untold, 0, untold}}, 0, false,
            "4294967294-4294967295..4294967294-4294967295");
    }

    void runTables()
    {
        QFETCH(Segments, segments);
        QFETCH(Fragments, fragments);
        QFETCH(int, mediaTime);
        QFETCH(bool, isLive);
        QFETCH(QByteArray, expected);
        hds::Bootstrap made;
        made.segments = segments;
        made.fragments = fragments;
        made.mediaTime = static_cast<quint64>(mediaTime);
        made.isLive = isLive;
        const auto bootstrap = parsed(made.abst());
        QVERIFY(bootstrap);
        QCOMPARE(outlined(*bootstrap), expected);
        const FragmentRun last = fragments.constLast();
        QCOMPARE(bootstrap->isLive, isLive && last.discontinuity != 0);
    }

    void times()
    {
        hds::Bootstrap made;
        made.segments = {{1, 6}};
        made.fragments = {{1, 500, 100}, {4, 800, 50}};
        const auto bootstrap = parsed(made.abst());
        QVERIFY(bootstrap);
        QCOMPARE(bootstrap->spans.constFirst().startUs, qint64(500000));
        QCOMPARE(bootstrap->spans.constFirst().durationUs, qint64(100000));
        QCOMPARE(bootstrap->spans.constLast().startUs, qint64(800000));
        QCOMPARE(bootstrap->endUs(), qint64(950000));
        QVERIFY(!bootstrap->isLastDoubtful);
    }

    /// As servers and manifests have it.
    void forms_data()
    {
        QTest::addColumn<QByteArray>("answer");
        const QByteArray box = hds::simpleBootstrap(7);
        QByteArray large = box;
        large = hds::largeBox("abst", large.mid(8));
        QTest::newRow("the box itself") << box;
        QTest::newRow("the box with a large size") << large;
        QTest::newRow("a size of 0: to the end") << hds::int32(0) + box.mid(4);
        QTest::newRow("behind another box") << hds::box("free", "x") + box;
        QTest::newRow("base64") << box.toBase64();
        QTest::newRow("base64 in lines") << "\r\n  " + box.toBase64().insert(20, "\r\n\t ") + '\n';
    }

    void forms()
    {
        QFETCH(QByteArray, answer);
        const auto bootstrap = parsed(answer);
        QVERIFY(bootstrap);
        QCOMPARE(outlined(*bootstrap), QByteArray("1-1..1-7"));
    }

    void takesTheFirstTableOfUse()
    {
        hds::Bootstrap made;
        made.segments = {{1, 7}};
        made.fragments = {{1, 0, 100}};
        hds::Bootstrap other;
        other.segments = {{8, 90}};
        other.fragments = {{50, 0, 100}};
        hds::Bootstrap empty;
        QByteArray box = made.abst();
        const QByteArray tables = QByteArray(1, '\1') + made.asrt() + '\1' + made.afrt();
        QVERIFY(box.endsWith(tables));
        box.chop(tables.size());
        box += '\3' + empty.asrt() + made.asrt() + other.asrt() + '\4' + hds::box("free", "")
            + empty.afrt() + made.afrt() + other.afrt();
        const auto bootstrap = parsed(hds::box("abst", box.mid(8)));
        QVERIFY(bootstrap);
        QCOMPARE(outlined(*bootstrap), QByteArray("1-1..1-7"));
    }

    void protectedOnes()
    {
        hds::Bootstrap made;
        made.segments = {{1, 7}};
        made.fragments = {{1, 0, 100}};
        QVERIFY(!parsed(made.abst())->isProtected);
        made.drmData = "header";
        QVERIFY(parsed(made.abst())->isProtected);
    }

    void theManifestsDuration()
    {
        hds::Bootstrap made;
        made.segments = {{1, untold}};
        made.fragments = {{1, 0, 100}};
        const auto bootstrap = parsed(made.abst(), 990000);
        QCOMPARE(outlined(*bootstrap), QByteArray("1-1..1-10"));
        QVERIFY(bootstrap->isLastDoubtful);
        made.isLive = true;
        QCOMPARE(outlined(*parsed(made.abst(), 990000)), QByteArray("1-1..1-1"));
    }

    void refused_data()
    {
        QTest::addColumn<QByteArray>("answer");
        hds::Bootstrap many;
        many.segments = {{1, untold}};
        many.fragments = {{1, 0, 1}, {untold, 0, 1}};
        hds::Bootstrap long_;
        long_.segments = {{1, untold}};
        long_.fragments = {{1, 0, 1}};
        long_.mediaTime = ~quint64(0) / 2;
        hds::Bootstrap onlyEnd;
        onlyEnd.segments = {{1, 4}};
        onlyEnd.fragments = {{1, 0, 0, 0}};
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("a page") << QByteArray("<html>try later</html>");
        QTest::newRow("another box") << hds::box("mdat", QByteArray(100, 'x'));
        QTest::newRow("a box shorter than its head") << hds::int32(4) + QByteArray("abst");
        QTest::newRow("a large box shorter than its head")
            << hds::int32(1) + QByteArray("abst") + hds::int64(15) + QByteArray(50, '\0');
        QTest::newRow("only its head") << hds::box("abst", "");
        QTest::newRow("no tables") << hds::Bootstrap().abst();
        QTest::newRow("only an end") << onlyEnd.abst();
        QTest::newRow("billions of fragments") << many.abst();
        QTest::newRow("zeros") << hds::box("abst", QByteArray(100000, '\0'));
    }

    void refused()
    {
        QFETCH(QByteArray, answer);
        QVERIFY(!parsed(answer));
    }

    void cutAnywhere()
    {
        hds::Bootstrap made;
        made.servers = {"a", "b"};
        made.qualities = {"q"};
        made.segments = {{1, 10}, {2, 5}};
        made.fragments = {{1, 0, 100}, {9, 800, 0, 1}, {11, 1000, 90}};
        const QByteArray box = made.abst();
        for (int size = 0; size < box.size(); ++size) {
            const auto bootstrap = parsed(box.left(size));
            for (int i = 0; bootstrap && i < bootstrap->spans.size(); ++i)
                QVERIFY(bootstrap->spans.at(i).count > 0 && bootstrap->spans.at(i).count <= 15);
        }
    }

    /// A count says nothing of what is there.
    void hugeCounts()
    {
        const QByteArray head = hds::simpleBootstrap(3);
        QByteArray box = head;
        const QByteArray count = hds::int32(1);
        for (int at = box.indexOf(count, box.indexOf("asrt")); at >= 0;
             at = box.indexOf(count, at + 4))
            QCOMPARE(box.replace(at, 4, hds::int32(untold)).size(), head.size());
        (void)parsed(box);
    }

    void manyEntries()
    {
        hds::Bootstrap made;
        made.segments.reserve(500000);
        made.fragments.reserve(500000);
        for (quint32 i = 0; i < 500000; ++i) {
            made.segments += {i + 1, 2};
            made.fragments += {2 * i + 1, i * 100, 50};
        }
        const auto bootstrap = parsed(made.abst());
        QVERIFY(bootstrap);
        QCOMPARE(bootstrap->spans.size(), 500000);
        QCOMPARE(bootstrap->spans.constLast().segmentOf(1), qint64(500000));
    }
};

CLIPWEIR_TEST_MAIN(tst_HdsBootstrap)
#include "tst_hdsbootstrap.moc"
