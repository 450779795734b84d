#include "HlsLimits.h"
#include "HlsTimeline.h"
#include "TestMain.h"

namespace {

using Kind = HlsTimeline::Kind;

HlsPlaylist parsed(const QByteArray &text, const char *address = "http://h.test/d/l.m3u8")
{
    return HlsPlaylist::parse("#EXTM3U\n#EXT-X-TARGETDURATION:4\n" + text,
                              QUrl(QString::fromLatin1(address)));
}

/// A window of segments of two seconds that are named by their numbers.
HlsPlaylist window(qint64 first, qint64 last, const QByteArray &prefix = "s")
{
    QByteArray text = "#EXT-X-MEDIA-SEQUENCE:" + QByteArray::number(first) + '\n';
    for (qint64 n = first; n <= last; ++n)
        text += "#EXTINF:2,\n" + prefix + QByteArray::number(n) + '\n';
    return parsed(text);
}

/// What the entries are, as words.
QString wordsOf(const HlsTimeline &timeline)
{
    QStringList words;
    for (const HlsTimeline::Entry &entry : timeline.entries()) {
        switch (entry.kind) {
        case Kind::Media:
            words += entry.segment.uri;
            break;
        case Kind::Map:
            words += QLatin1Char('[') + entry.segment.map->uri + QLatin1Char(']');
            break;
        case Kind::Withdrawn:
            words += QStringLiteral("-");
            break;
        }
    }
    return words.join(QLatin1Char(' '));
}

} // namespace

class tst_HlsTimeline : public QObject
{
    Q_OBJECT

private slots:
    void growsWithItsWindow()
    {
        HlsTimeline timeline;
        QVERIFY(timeline.take(window(5, 7)));
        QVERIFY(!timeline.take(window(5, 7)));
        QVERIFY(timeline.take(window(6, 8)));
        QVERIFY(timeline.take(window(8, 9)));
        QCOMPARE(wordsOf(timeline), QStringLiteral("s5 s6 s7 s8 s9"));
        for (std::size_t i = 0; i < 5; ++i)
            QCOMPARE(timeline.entries().at(i).startUs, qint64(i) * 2000000);
    }

    void whatWasWithdrawnUnseenKeepsItsPlace()
    {
        HlsTimeline timeline;
        QVERIFY(timeline.take(window(5, 6)));
        QVERIFY(timeline.take(window(9, 10)));
        QCOMPARE(wordsOf(timeline), QStringLiteral("s5 s6 - - s9 s10"));
        QCOMPARE(timeline.entries().at(2).segment.sequence, qint64(7));
        QCOMPARE(timeline.entries().at(3).segment.sequence, qint64(8));
        QCOMPARE(timeline.entries().at(4).startUs, qint64(12000000)); // two of the longest before
    }

    void veryManyWithdrawnAreToldBySome()
    {
        HlsTimeline timeline;
        QVERIFY(timeline.take(window(5, 6)));
        QVERIFY(
            timeline.take(window(Q_INT64_C(4000000000000000000), Q_INT64_C(4000000000000000001))));
        QCOMPARE(qint64(timeline.entries().size()), HlsLimits::withdrawnSegments + 4);
        QVERIFY(
            timeline.take(window(Q_INT64_C(4000000000000000001), Q_INT64_C(4000000000000000002))));
    }

    void anOldPlaylistAddsNothing()
    {
        HlsTimeline timeline;
        QVERIFY(timeline.take(window(5, 9)));
        QVERIFY(!timeline.take(window(4, 7)));
        QVERIFY(!timeline.take(window(5, 9)));
        QVERIFY(!timeline.take(parsed("")));
        QVERIFY(timeline.take(window(8, 10)));
        QCOMPARE(wordsOf(timeline), QStringLiteral("s5 s6 s7 s8 s9 s10"));
    }

    void anOldPlaylistMayBeSignedAnew()
    {
        HlsTimeline timeline;
        QVERIFY(timeline.take(parsed("#EXTINF:2,\na?t=1\n#EXTINF:2,\nb?t=1\n")));
        QVERIFY(!timeline.take(parsed("#EXTINF:2,\na?t=2\n#EXTINF:2,\nb?t=2\n")));
    }

    void numbersThatBeginAnewAreANewRun()
    {
        HlsTimeline timeline;
        QVERIFY(timeline.take(window(100, 102)));
        QVERIFY(timeline.take(window(0, 1, "t")));
        QVERIFY(!timeline.take(window(0, 1, "t")));
        QVERIFY(timeline.take(window(1, 2, "t")));
        QCOMPARE(wordsOf(timeline), QStringLiteral("s100 s101 s102 t0 t1 t2"));
        QCOMPARE(timeline.entries().at(2).run, qint64(0));
        QCOMPARE(timeline.entries().at(3).run, qint64(1));
        QCOMPARE(timeline.entries().at(5).run, qint64(1));
        QVERIFY(timeline.take(window(0, 1, "u")));
        QCOMPARE(timeline.entries().back().run, qint64(2));
    }

    void mapsStandBeforeWhatNeedsThem()
    {
        const QByteArray i1 = "#EXT-X-MAP:URI=\"i1\"\n";
        const QByteArray i2 = "#EXT-X-MAP:URI=\"i2\"\n";
        HlsTimeline timeline;
        QVERIFY(timeline.take(parsed(i1 + "#EXTINF:2,\na\n" + i1 + "#EXTINF:2,\nb\n" + i2
                                     + "#EXT-X-DISCONTINUITY\n#EXTINF:2,\nc\n")));
        QCOMPARE(wordsOf(timeline), QStringLiteral("[i1] a b [i2] c"));
        QCOMPARE(timeline.entries().at(3).startUs, qint64(4000000));
        QCOMPARE(timeline.entries().at(3).run, qint64(1));
        // The next look says the same again, by its path.
        QVERIFY(timeline.take(parsed("#EXT-X-MEDIA-SEQUENCE:2\n#EXT-X-DISCONTINUITY-SEQUENCE:1\n"
                                     "#EXT-X-MAP:URI=\"/d/i2\"\n#EXTINF:2,\nc\n#EXTINF:2,\nd\n")));
        QCOMPARE(wordsOf(timeline), QStringLiteral("[i1] a b [i2] c d"));
        QVERIFY(timeline.take(
            parsed("#EXT-X-MEDIA-SEQUENCE:3\n#EXT-X-DISCONTINUITY-SEQUENCE:1\n"
                   "#EXT-X-MAP:URI=\"i2\",BYTERANGE=\"5@7\"\n#EXTINF:2,\nd\n#EXTINF:2,\ne\n")));
        QCOMPARE(wordsOf(timeline), QStringLiteral("[i1] a b [i2] c d [i2] e"));
    }

    void runsFollowTheDiscontinuities()
    {
        HlsTimeline timeline;
        QVERIFY(timeline.take(parsed("#EXT-X-DISCONTINUITY-SEQUENCE:7\n#EXTINF:2,\na\n"
                                     "#EXT-X-DISCONTINUITY\n#EXTINF:2,\nb\n")));
        QCOMPARE(timeline.entries().at(0).run, qint64(7));
        QCOMPARE(timeline.entries().at(1).run, qint64(8));
        // They never fall, whatever a later playlist says.
        QVERIFY(timeline.take(parsed("#EXTINF:2,\na\n#EXTINF:2,\nb\n#EXTINF:2,\nc\n")));
        QCOMPARE(timeline.entries().at(2).run, qint64(8));
    }

    void addressesStayRelativeToTheirOwnPlaylist()
    {
        HlsTimeline timeline;
        QVERIFY(timeline.take(parsed("#EXTINF:2,\na\n")));
        QVERIFY(timeline.take(parsed("#EXTINF:2,\na\n#EXTINF:2,\nb\n", "http://o.test/x/l.m3u8")));
        QCOMPARE(timeline.entries().at(0).base.host(), QStringLiteral("h.test"));
        QCOMPARE(timeline.entries().at(1).base.host(), QStringLiteral("o.test"));
    }

    void isBounded()
    {
        HlsTimeline timeline;
        const auto count = qint64(HlsLimits::segments);
        const HlsPlaylist first = window(0, count - 1);
        for (qint64 from = 0; !timeline.isFull(); from += count) {
            QVERIFY(from <= qint64(HlsLimits::streamSegments));
            HlsPlaylist next = first;
            for (HlsSegment &segment : next.segments)
                segment.sequence += from;
            (void)timeline.take(next);
        }
        QCOMPARE(timeline.entries().size(), HlsLimits::streamSegments);
    }
};

CLIPWEIR_TEST_MAIN(tst_HlsTimeline)
#include "tst_hlstimeline.moc"
