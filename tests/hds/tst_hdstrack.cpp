#include "AdobeOutputFile.h"
#include "HdsFixtures.h"
#include "HdsTrack.h"
#include "TestMain.h"

#include <QSignalSpy>

namespace {

HdsBootstrap bootstrapOf(const hds::Bootstrap &made)
{
    QString reason;
    return HdsBootstrap::parse(made.abst(), 0, reason).value_or(HdsBootstrap());
}

HdsBootstrap window(quint32 first, quint32 count)
{
    hds::Bootstrap made;
    made.isLive = true;
    made.segments = {{1, 0xFFFFFFFF}};
    for (quint32 n = first; n < first + count; ++n)
        made.fragments += {n, n * 100, 100};
    return bootstrapOf(made);
}

/// What is asked for, and a bar for each hole.
QString outlined(const HdsTrack &track)
{
    QString text;
    for (qint64 n = track.first(); n <= track.last(); ++n) {
        const TrackSegment segment = track.trackSegment(n);
        if (segment.isHole == segment.segment.address.isEmpty())
            text += segment.isHole ? QStringLiteral("| ")
                                   : QUrl(segment.segment.address).fileName() + QLatin1Char(' ');
    }
    return text.trimmed();
}

} // namespace

class tst_HdsTrack : public QObject
{
    Q_OBJECT

private slots:
    void addresses_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *address, const char *expected) {
            QTest::newRow(name) << QString::fromLatin1(address) << QString::fromLatin1(expected);
        };
        row("a name", "http://h/a/s", "http://h/a/sSeg3-Frag7");
        row("a folder", "http://h/a/", "http://h/a/Seg3-Frag7");
        row("a query", "http://h/s?t=1%26", "http://h/sSeg3-Frag7?t=1%26");
        row("a manifest", "http://h/s.f4m?t=1", "http://h/sSeg3-Frag7?t=1");
        row("signs that are written otherwise", "http://h/a%2Fb%20c",
            "http://h/a%2Fb%20cSeg3-Frag7");
        row("a fragment of the address", "http://h/s#x", "http://h/sSeg3-Frag7");
    }

    void addresses()
    {
        QFETCH(QString, address);
        QFETCH(QString, expected);
        hds::Bootstrap made;
        made.segments = {{3, 2}};
        made.fragments = {{7, 5000, 100}};
        HdsTrack track((QUrl(address)));
        QVERIFY(track.extend(bootstrapOf(made)));
        QCOMPARE(track.last(), qint64(-1)); // nothing is told yet
        const QSignalSpy changes(&track, &SegmentSource::changed);
        track.publish(true);
        QCOMPARE(changes.count(), 1);
        QCOMPARE(track.last(), qint64(1));
        QVERIFY(track.isEnded());
        const TrackSegment first = track.trackSegment(0);
        QCOMPARE(first.segment.address, expected);
        QCOMPARE(first.startUs, qint64(0));
        QCOMPARE(first.durationUs, qint64(100000));
        QVERIFY(!first.segment.mayBeAbsent);
        QVERIFY(first.segment.isWhole(hds::numberedFragment(1)));
        QVERIFY(!first.segment.isWhole(hds::numberedFragment(1).chopped(1)));
        QCOMPARE(track.trackSegment(1).startUs, qint64(100000));
        QCOMPARE(track.segment(1).number, qint64(1));
    }

    void liveWindows()
    {
        HdsTrack track(QUrl(QStringLiteral("http://h/s")));
        const auto extend = [&track](const HdsBootstrap &bootstrap) {
            const bool isWithin = track.extend(bootstrap);
            track.publish(false);
            return isWithin ? outlined(track) : QString();
        };
        QCOMPARE(extend(window(5, 2)), QStringLiteral("sSeg1-Frag5 sSeg1-Frag6"));
        QCOMPARE(extend(window(5, 2)), QStringLiteral("sSeg1-Frag5 sSeg1-Frag6"));
        QCOMPARE(extend(window(6, 2)), QStringLiteral("sSeg1-Frag5 sSeg1-Frag6 sSeg1-Frag7"));
        QCOMPARE(extend(window(10, 1)),
                 QStringLiteral("sSeg1-Frag5 sSeg1-Frag6 sSeg1-Frag7 | | sSeg1-Frag10"));
        QCOMPARE(extend(window(1, 2)), // began anew: what has been cannot come again
                 QStringLiteral("sSeg1-Frag5 sSeg1-Frag6 sSeg1-Frag7 | | sSeg1-Frag10"));
        QCOMPARE(track.trackSegment(3).startUs, qint64(300000));
        QCOMPARE(track.trackSegment(5).startUs, qint64(500000));
    }

    /// What never was is no hole.
    void numbersThatAreLeftOut()
    {
        hds::Bootstrap made;
        made.segments = {{1, 20}};
        made.fragments = {{1, 0, 100}, {3, 200, 0, 1}, {20, 200, 100}};
        HdsTrack track(QUrl(QStringLiteral("http://h/s")));
        QVERIFY(track.extend(bootstrapOf(made)));
        track.publish(true);
        QCOMPARE(outlined(track), QStringLiteral("sSeg1-Frag1 sSeg1-Frag2 sSeg1-Frag20"));
    }

    void segmentsOfAGrowingStream()
    {
        HdsTrack track(QUrl(QStringLiteral("http://h/s")));
        hds::Bootstrap made;
        made.isLive = true;
        made.segments = {{4, 3}};
        for (quint32 n = 1; n <= 7; ++n) {
            made.fragments += {n, n * 100, 100};
            QVERIFY(track.extend(bootstrapOf(made)));
        }
        track.publish(false);
        QCOMPARE(outlined(track),
                 QStringLiteral("sSeg4-Frag1 sSeg4-Frag2 sSeg4-Frag3 sSeg5-Frag4 sSeg5-Frag5 "
                                "sSeg5-Frag6 sSeg6-Frag7"));
    }

    void tooMany()
    {
        HdsTrack track(QUrl(QStringLiteral("http://h/s")));
        HdsBootstrap bootstrap = window(1, 1);
        bootstrap.spans.first().count = HdsBootstrap::maxFragments;
        QVERIFY(track.extend(bootstrap));
        bootstrap.spans.first().fragment += HdsBootstrap::maxFragments;
        QVERIFY(!track.extend(bootstrap));
        track.publish(true);
        QCOMPARE(track.last(), HdsBootstrap::maxFragments - 1);
    }

    void farAhead()
    {
        HdsTrack track(QUrl(QStringLiteral("http://h/s")));
        QVERIFY(track.extend(window(1, 1)));
        QVERIFY(track.extend(window(0xFFFFFF00, 1)));
        track.publish(true);
        QCOMPARE(track.last(), qint64(1001)); // of a thousand it is told that they are missing
    }

    void onlyTheClockTells()
    {
        hds::Bootstrap made;
        made.segments = {{1, 0xFFFFFFFF}};
        made.fragments = {{1, 0, 100}};
        made.mediaTime = 500;
        HdsTrack track(QUrl(QStringLiteral("http://h/s")));
        QVERIFY(track.extend(bootstrapOf(made)));
        track.publish(true);
        QCOMPARE(track.last(), qint64(4));
        QVERIFY(!track.trackSegment(3).segment.mayBeAbsent);
        QVERIFY(track.trackSegment(4).segment.mayBeAbsent);
    }
};

CLIPWEIR_TEST_MAIN(tst_HdsTrack)
#include "tst_hdstrack.moc"
