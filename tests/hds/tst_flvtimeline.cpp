#include "FlvTimeline.h"
#include "HdsFixtures.h"
#include "TestMain.h"

namespace {

const QByteArray fileHeader("FLV\x01\x05\x00\x00\x00\x09\x00\x00\x00\x00", 13);

QVector<FlvTag> walkAll(const QByteArray &tags)
{
    int skipped = 0;
    return FlvTag::walk(tags, 0, tags.size(), skipped);
}

/// Collects what a timeline writes for one fragment after the other.
class Writer
{
public:
    explicit Writer(int windowMs = 1000)
        : m_timeline(windowMs)
    {
    }

    Writer &operator<<(const QByteArray &fragment)
    {
        m_timeline.append(m_flv, fragment, walkAll(fragment));
        return *this;
    }

    QVector<hds::ReadTag> tags()
    {
        QString error;
        const auto read = hds::readFlv(fileHeader + m_flv, error);
        if (!error.isEmpty())
            qWarning("%s", qUtf8Printable(error));
        return error.isEmpty() ? read : QVector<hds::ReadTag>();
    }

    QVector<qint64> times()
    {
        QVector<qint64> result;
        for (const auto &tag : tags())
            result += tag.timestampMs;
        return result;
    }

    QByteArrayList names()
    {
        QByteArrayList result;
        for (const auto &tag : tags())
            result += tag.data.mid(tag.type == 9 ? 5 : tag.type == 8 ? 2 : 0);
        return result;
    }

private:
    QByteArray m_flv;
    FlvTimeline m_timeline;
};

using Times = QVector<qint64>;

} // namespace

class tst_FlvTimeline : public QObject
{
    Q_OBJECT

private slots:
    void walk()
    {
        const QByteArray data =
            "pad" + hds::audioTag(5, "a") + hds::tag(18, 6, "s") + hds::videoTag(0x1234567, "v");
        int skipped = -1;
        const auto tags = FlvTag::walk(data, 3, data.size(), skipped);
        QCOMPARE(skipped, 0);
        QCOMPARE(tags.size(), 3);
        QCOMPARE(tags.at(0).offset, 3);
        QCOMPARE(tags.at(0).type, FlvTag::Audio);
        QCOMPARE(tags.at(0).data(data),
                 QByteArray("\xaf\x01"
                            "a"));
        QCOMPARE(tags.at(1).type, FlvTag::Script);
        QCOMPARE(tags.at(2).timestampMs, 0x1234567);
    }

    void everyCutKeepsTheWholeTagsBefore()
    {
        const QByteArray first = hds::audioTag(0, "one");
        const QByteArray data = first + hds::videoTag(10, "two");
        for (int size = 0; size <= data.size(); ++size) {
            const QByteArray cut(data.constData(), size);
            int expected = 0;
            if (size >= first.size() - 4) // the back-pointer is written anew anyway
                ++expected;
            if (size >= data.size() - 4)
                ++expected;
            QCOMPARE(walkAll(cut).size(), expected);
        }
    }

    void theEndIsNotPassed()
    {
        const QByteArray data = hds::audioTag(0, "one") + hds::audioTag(1, "two");
        int skipped = 0;
        QCOMPARE(FlvTag::walk(data, 0, data.size() - 5, skipped).size(), 1);
        QCOMPARE(FlvTag::walk(data, 0, 0, skipped).size(), 0);
    }

    void unknownTagsAreSkipped_data()
    {
        QTest::addColumn<int>("type");
        QTest::newRow("0") << 0;
        QTest::newRow("encrypted audio") << (8 | 0x20);
        QTest::newRow("encrypted video") << (9 | 0x20);
        QTest::newRow("encrypted script") << (18 | 0x20);
        QTest::newRow("reserved bits") << (9 | 0xC0);
        QTest::newRow("10") << 10;
    }

    void unknownTagsAreSkipped()
    {
        QFETCH(int, type);
        const QByteArray data =
            hds::audioTag(0, "a") + hds::tag(type, 1, "junk") + hds::videoTag(2, "v");
        int skipped = 0;
        const auto tags = FlvTag::walk(data, 0, data.size(), skipped);
        QCOMPARE(tags.size(), 2);
        QCOMPARE(skipped, 1);
        QCOMPARE(tags.at(1).type, FlvTag::Video);
    }

    void sequenceHeaders_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<bool>("isHeader");
        QTest::newRow("AAC header") << hds::audioHeader(0, "x") << true;
        QTest::newRow("AAC samples") << hds::audioTag(0, "x") << false;
        QTest::newRow("MP3") << hds::tag(8, 0, QByteArray("\x2f\x00", 2)) << false;
        QTest::newRow("AVC header") << hds::videoHeader(0, "x") << true;
        QTest::newRow("AVC picture") << hds::videoTag(0, "x") << false;
        QTest::newRow("AVC end") << hds::tag(9, 0, QByteArray("\x17\x02\x00\x00\x00", 5)) << false;
        QTest::newRow("older video") << hds::tag(9, 0, QByteArray("\x12\x00", 2)) << false;
        QTest::newRow("one byte") << hds::tag(8, 0, "\xaf") << false;
        QTest::newRow("no byte") << hds::tag(9, 0, "") << false;
        QTest::newRow("script") << hds::tag(18, 0, QByteArray("\xaf\x00", 2)) << false;
    }

    void sequenceHeaders()
    {
        QFETCH(QByteArray, data);
        QFETCH(bool, isHeader);
        const auto tags = walkAll(data);
        QCOMPARE(tags.size(), 1);
        QCOMPARE(tags.constFirst().isSequenceHeader(data), isHeader);
    }

    void theFirstTagIsAtZero()
    {
        Writer writer;
        writer << hds::audioTag(5000, "a") + hds::videoTag(5040, "b") + hds::audioTag(5046, "c");
        QCOMPARE(writer.times(), (Times{0, 40, 46}));
    }

    void distancesAreKeptOverFragments()
    {
        Writer writer;
        writer << hds::audioTag(100, "a") + hds::audioTag(123, "b") << hds::audioTag(146, "c")
               << hds::audioTag(1146, "d") + hds::audioTag(1169, "e");
        QCOMPARE(writer.times(), (Times{0, 23, 46, 1046, 1069}));
    }

    void insideAFragmentTagsAreSorted()
    {
        Writer writer;
        writer << hds::videoTag(40, "c") + hds::audioTag(0, "a") + hds::videoTag(40, "d")
                + hds::audioTag(23, "b");
        QCOMPARE(writer.names(), (QByteArrayList{"a", "b", "c", "d"}));
        QCOMPARE(writer.times(), (Times{0, 23, 40, 40}));
    }

    void gapsInsideAFragmentStay()
    {
        Writer writer;
        writer << hds::audioTag(0, "a") + hds::audioTag(90000, "b");
        QCOMPARE(writer.times(), (Times{0, 90000}));
    }

    void fragmentBoundaries_data()
    {
        QTest::addColumn<int>("next"); // the last tag before it is at 10000
        QTest::addColumn<int>("expected");
        QTest::newRow("goes on") << 10023 << 10023;
        QTest::newRow("same time") << 10000 << 10000;
        QTest::newRow("end of the window") << 11000 << 11000;
        QTest::newRow("gap") << 11001 << 10040;
        QTest::newRow("large gap") << 0x7FFFFFFF << 10040;
        QTest::newRow("overlap takes the last time") << 9900 << 10000;
        QTest::newRow("largest overlap") << 9500 << 10000;
        QTest::newRow("restart") << 9499 << 10040;
        QTest::newRow("restart at zero") << 0 << 10040;
    }

    void fragmentBoundaries()
    {
        QFETCH(int, next);
        QFETCH(int, expected);
        Writer writer;
        writer << hds::audioTag(0, "a") + hds::audioTag(10000, "b")
               << hds::audioTag(static_cast<quint32>(next), "c");
        QCOMPARE(writer.times(), (Times{0, 10000, expected}));
    }

    void soundAndPictureShiftTogether()
    {
        Writer writer;
        writer << hds::audioTag(0, "a") + hds::videoTag(7, "b")
               << hds::audioTag(50000, "c") + hds::videoTag(50007, "d") + hds::audioTag(50023, "e")
               << hds::audioTag(50046, "f");
        QCOMPARE(writer.times(), (Times{0, 7, 47, 54, 70, 93}));
    }

    void anotherWindow()
    {
        Writer writer(100);
        writer << hds::audioTag(0, "a") << hds::audioTag(100, "b") << hds::audioTag(201, "c")
               << hds::audioTag(150, "d") << hds::audioTag(99, "e");
        // 201 is 101 after the last: 140. 150 then stands for 89, that is 51 before: 180.
        QCOMPARE(writer.times(), (Times{0, 100, 140, 180, 220}));
    }

    void noDriftOverManyOverlappingFragments()
    {
        Writer writer;
        for (quint32 i = 0; i < 500; ++i) {
            // The picture of each fragment reaches 30 ms into the sound of the next.
            writer << hds::audioTag(i * 1000, "a") + hds::videoTag(i * 1000 + 1030, "v");
        }
        const Times times = writer.times();
        QCOMPARE(times.size(), 1000);
        QCOMPARE(times.at(999), qint64(499 * 1000 + 1030));
        QCOMPARE(times.at(998), qint64(499 * 1000 + 30)); // held back by the picture before it
    }

    void timesAboveTheLowBits()
    {
        Writer writer;
        QByteArray fragment;
        for (const quint32 ms : {0U, 0xFFFFFFU, 0x1000000U, 0x1000001U, 0x7FFFFFFFU})
            fragment += hds::audioTag(ms, "x");
        writer << fragment << hds::audioTag(0, "y") << hds::audioTag(30, "z");
        QCOMPARE(writer.times(),
                 (Times{0, 0xFFFFFF, 0x1000000, 0x1000001, 0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF}));
    }

    void repeatedHeadersAreDropped()
    {
        Writer writer;
        const QByteArray headers = hds::videoHeader(0, "V1") + hds::audioHeader(0, "A1");
        writer << headers + hds::videoTag(0, "1") << headers + hds::videoTag(40, "2")
               << hds::videoHeader(80, "V2") + hds::videoTag(80, "3")
               << hds::videoHeader(120, "V2") + hds::audioHeader(120, "A1")
                + hds::videoTag(120, "4")
               << hds::videoHeader(160, "V1") + hds::videoTag(160, "5");
        QCOMPARE(writer.names(), (QByteArrayList{"V1", "A1", "1", "2", "V2", "3", "4", "V1", "5"}));
        QCOMPARE(writer.times(), (Times{0, 0, 0, 40, 80, 80, 120, 160, 160}));
    }

    void headersStampedZeroDoNotMoveTheTimeline()
    {
        Writer writer;
        writer << hds::videoHeader(0, "V") + hds::videoTag(50000, "1")
               << hds::videoHeader(0, "V") + hds::videoTag(50040, "2")
               << hds::videoHeader(0, "W") + hds::videoTag(50080, "3");
        QCOMPARE(writer.names(), (QByteArrayList{"V", "1", "2", "W", "3"}));
        QCOMPARE(writer.times(), (Times{0, 0, 40, 40, 80}));
    }

    void aHeaderCloseToItsSamplesIsTheFirst()
    {
        Writer writer;
        writer << hds::videoHeader(100, "V") + hds::videoTag(140, "1");
        QCOMPARE(writer.times(), (Times{0, 40}));
    }

    void headersOnly()
    {
        Writer writer;
        writer << hds::videoHeader(700, "V") + hds::audioHeader(700, "A")
               << hds::videoTag(710, "1");
        QCOMPARE(writer.times(), (Times{0, 0, 10}));
    }

    void scriptTagsGoAlong()
    {
        Writer writer;
        writer << hds::tag(18, 0, "early") + hds::audioTag(5000, "a")
                + hds::tag(18, 5010, "between") + hds::audioTag(5023, "b")
                + hds::tag(18, 0x7FFFFFFF, "late")
               << hds::tag(18, 9, "alone") << hds::audioTag(5046, "c");
        QCOMPARE(writer.names(),
                 (QByteArrayList{"early", "a", "between", "b", "late", "alone", "c"}));
        QCOMPARE(writer.times(), (Times{0, 0, 10, 23, 23, 23, 46}));
    }

    void scriptTagsBeforeAnyMedia()
    {
        Writer writer;
        writer << hds::tag(18, 100000, "s") << hds::audioTag(5000, "a");
        QCOMPARE(writer.times(), (Times{0, 0}));
    }

    void backPointersAreMade()
    {
        QByteArray wrong = hds::audioTag(0, "abc");
        wrong.replace(wrong.size() - 4, 4, QByteArray("\xde\xad\xbe\xef"));
        Writer writer;
        writer << wrong + wrong << wrong.left(wrong.size() - 3);
        QCOMPARE(writer.tags().size(), 3); // readFlv() checks them
    }

    void emptyTagsAndFragments()
    {
        Writer writer;
        writer << QByteArray() << hds::tag(9, 10, "") << QByteArray() << hds::tag(8, 20, "");
        QCOMPARE(writer.times(), (Times{0, 10}));
    }

    void appendTag()
    {
        QByteArray flv = fileHeader;
        const FlvTimeline timeline(1000);
        timeline.appendTag(flv, FlvTag::Script, "metadata");
        QString error;
        const auto tags = hds::readFlv(flv, error);
        QCOMPARE(error, QString());
        QCOMPARE(tags.size(), 1);
        QCOMPARE(tags.constFirst().type, 18);
        QCOMPARE(tags.constFirst().timestampMs, qint64(0));
        QCOMPARE(tags.constFirst().data, QByteArray("metadata"));
    }
};

CLIPWEIR_TEST_MAIN(tst_FlvTimeline)
#include "tst_flvtimeline.moc"
