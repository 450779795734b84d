#include "AdtsHeader.h"
#include "ParameterSets.h"
#include "SegmentBytes.h"
#include "TestMain.h"

using Kind = SegmentBytes::Kind;
Q_DECLARE_METATYPE(SegmentBytes::Kind)

namespace {

QByteArray hex(const char *text)
{
    return QByteArray::fromHex(text);
}

QByteArray tag(const QByteArray &frames)
{
    return QByteArrayLiteral("ID3\x04") + QByteArray(5, '\0') + char(frames.size()) + frames;
}

QByteArray timeFrame(const QByteArray &time)
{
    const QByteArray owner =
        QByteArrayLiteral("com.apple.streaming.transportStreamTimestamp") + '\0';
    return QByteArrayLiteral("PRIV") + QByteArray(3, '\0') + char(owner.size() + time.size())
        + QByteArray(2, '\0') + owner + time;
}

} // namespace

class tst_SegmentBytes : public QObject
{
    Q_OBJECT

private slots:
    void tellsKinds_data();
    void tellsKinds();
    void tellsWhatIsWhole_data();
    void tellsWhatIsWhole();
    void readsTimesInTags();
    void survivesCutTags();
    void readsAdtsHeaders();
    void survivesAnyAdtsHeader();
    void readsParameterSets();
    void survivesAnyRecord();
};

void tst_SegmentBytes::tellsKinds_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<Kind>("kind");
    QTest::newRow("nothing") << QByteArray() << Kind::Unknown;
    QTest::newRow("text") << QByteArray("#EXTM3U\n") << Kind::Unknown;
    QTest::newRow("stream") << QByteArray(376, 'G') << Kind::TransportStream;
    QTest::newRow("no second sync") << "G" + QByteArray(300, 'x') << Kind::Unknown;
    QTest::newRow("boxes") << hex("00000008") + "styp" << Kind::Mp4;
    QTest::newRow("webm") << hex("1a45dfa3") << Kind::WebM;
    QTest::newRow("cluster") << hex("1f43b675") << Kind::WebM;
    QTest::newRow("adts") << hex("fff150800000") << Kind::Adts;
    QTest::newRow("mp3") << hex("fffb90640000") << Kind::Mp3;
    QTest::newRow("ac3") << hex("0b770000004000") << Kind::Ac3;
    QTest::newRow("eac3") << hex("0b770000008000") << Kind::Eac3;
    QTest::newRow("adts behind a tag") << tag("frame") + hex("fff150800000") << Kind::Adts;
}

void tst_SegmentBytes::tellsKinds()
{
    QFETCH(QByteArray, bytes);
    QTEST(SegmentBytes::kindOf(bytes), "kind");
}

void tst_SegmentBytes::tellsWhatIsWhole_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("isWhole");
    QTest::newRow("nothing") << QByteArray() << false;
    QTest::newRow("two packets") << QByteArray(376, 'G') << true;
    QTest::newRow("one and a half") << QByteArray(282, 'G') << false;
    const QByteArray box = hex("0000000c") + "mdat" + "1234";
    QTest::newRow("a box") << box << true;
    QTest::newRow("two boxes") << box + box << true;
    QTest::newRow("a cut box") << box + box.left(11) << false;
    QTest::newRow("a cut header") << box + box.left(5) << false;
    QTest::newRow("a large box") << hex("00000001") + "mdat" + hex("0000000000000011") + "1"
                                 << true;
    QTest::newRow("too large") << hex("00000001") + "mdat" + hex("ffffffffffffffff") + "1" << false;
    QTest::newRow("less than its header") << hex("00000007") + "mdat" << false;
    QTest::newRow("to the end of the file") << hex("00000000") + "mdat" << false;
    QTest::newRow("sound") << hex("fff15080000000") << false;
}

void tst_SegmentBytes::tellsWhatIsWhole()
{
    QFETCH(QByteArray, bytes);
    QTEST(SegmentBytes::isWhole(bytes), "isWhole");
}

void tst_SegmentBytes::readsTimesInTags()
{
    const QByteArray time = hex("00000001ffffffff");
    const QByteArray one = tag(timeFrame(time));
    QCOMPARE(*SegmentBytes::id3Time(one + "x"), 0x1ffffffffLL);
    QCOMPARE(SegmentBytes::id3Bytes(one + one + "x"), 2 * one.size());
    // More than 33 bits are none of the clock's.
    QCOMPARE(*SegmentBytes::id3Time(tag(timeFrame(hex("ffffffff00000005")))), 0x100000005LL);
    QVERIFY(!SegmentBytes::id3Time(tag(timeFrame(hex("0000000000")))));
    QVERIFY(!SegmentBytes::id3Time("no tag"));
    QCOMPARE(
        *SegmentBytes::id3Time(tag("TIT2" + hex("00000001") + QByteArray(2, '\0') + "a") + one),
        0x1ffffffffLL);
}

void tst_SegmentBytes::survivesCutTags()
{
    const QByteArray whole = tag(timeFrame(hex("0000000000000001")));
    for (int size = 0; size < whole.size(); ++size) {
        QCOMPARE(SegmentBytes::id3Bytes(whole.left(size)), 0);
        QVERIFY(!SegmentBytes::id3Time(whole.left(size)));
        (void)SegmentBytes::kindOf(whole.left(size));
    }
}

void tst_SegmentBytes::readsAdtsHeaders()
{
    // AAC-LC, 44100 Hz, two channels, 100 bytes
    const QByteArray bytes = hex("fff150800c9ffc");
    const auto header =
        AdtsHeader::parse(reinterpret_cast<const uint8_t *>(bytes.constData()), bytes.size());
    QVERIFY(header);
    QCOMPARE(header->headerBytes, 7);
    QCOMPARE(header->frameBytes, 100);
    QCOMPARE(header->sampleRate, 44100);
    QCOMPARE(header->channels, 2);
    QCOMPARE(header->config, hex("1210"));
    QVERIFY(!AdtsHeader::parse(reinterpret_cast<const uint8_t *>(bytes.constData()), 6));
}

void tst_SegmentBytes::survivesAnyAdtsHeader()
{
    QByteArray bytes = hex("fff150800c9ffc");
    for (int position = 0; position < bytes.size(); ++position) {
        for (int value = 0; value < 256; ++value) {
            QByteArray changed = bytes;
            changed[position] = char(value);
            const auto header = AdtsHeader::parse(
                reinterpret_cast<const uint8_t *>(changed.constData()), changed.size());
            if (header)
                QVERIFY(header->frameBytes > header->headerBytes && header->sampleRate > 0);
        }
    }
}

namespace {

// version, profile, constraints, level, lengths of 4 bytes; one sequence of 3 bytes, one picture's
// of 2
const QByteArray avcRecord = hex("014d400cff"
                                 "e1"
                                 "0003"
                                 "67aabb"
                                 "01"
                                 "0002"
                                 "68cc");

/// 21 bytes of no concern, lengths of 4 bytes; two arrays, of one unit each
QByteArray hevcRecord()
{
    return hex("01") + QByteArray(20, '\0')
        + hex("03"
              "02"
              "20"
              "0001"
              "0002"
              "4001"
              "21"
              "0001"
              "0003"
              "420101");
}

} // namespace

void tst_SegmentBytes::readsParameterSets()
{
    using Codec = ParameterSets::Codec;
    QCOMPARE(ParameterSets::lengthBytes(avcRecord, Codec::H264), 4);
    QCOMPARE(*ParameterSets::units(avcRecord, Codec::H264, 4), hex("0000000367aabb0000000268cc"));
    QVERIFY(!ParameterSets::units(avcRecord, Codec::H264, 2)); // the packets have others
    QVERIFY(!ParameterSets::units(hex("0000000167aabb"), Codec::H264, 4)); // no record
    QCOMPARE(*ParameterSets::units(hevcRecord(), Codec::Hevc, 4),
             hex("00000002400100000003420101"));
    QByteArray two = avcRecord;
    two[4] = char(0xFD); // lengths of 2 bytes
    QCOMPARE(*ParameterSets::units(two, Codec::H264, 2), hex("000367aabb000268cc"));
}

void tst_SegmentBytes::survivesAnyRecord()
{
    using Codec = ParameterSets::Codec;
    for (const bool isAvc : {true, false}) {
        const QByteArray whole = isAvc ? avcRecord : hevcRecord();
        const Codec codec = isAvc ? Codec::H264 : Codec::Hevc;
        for (int size = 0; size < whole.size(); ++size)
            QVERIFY(!ParameterSets::units(whole.left(size), codec, 4));
        for (int position = 0; position < whole.size(); ++position) {
            for (int value = 0; value < 256; ++value) {
                QByteArray changed = whole;
                changed[position] = char(value);
                for (int lengthBytes = 0; lengthBytes <= 4; ++lengthBytes)
                    (void)ParameterSets::units(changed, codec, lengthBytes);
            }
        }
    }
}

CLIPWEIR_TEST_MAIN(tst_SegmentBytes)

#include "tst_segmentbytes.moc"
