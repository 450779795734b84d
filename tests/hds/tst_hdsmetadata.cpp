#include "HdsFixtures.h"
#include "HdsMetadata.h"
#include "TestMain.h"

#include <limits>

namespace {

QByteArray text(const QByteArray &value)
{
    return hds::int16(static_cast<quint32>(value.size())) + value;
}

QByteArray number(double value)
{
    quint64 bits = 0;
    memcpy(&bits, &value, sizeof bits);
    return '\0' + hds::int64(bits);
}

QByteArray scriptData(const QByteArray &properties)
{
    return '\2' + text("onMetaData") + '\10' + hds::int32(3) + properties + text("") + '\11';
}

const QByteArray picture =
    text("videocodecid") + number(7) + text("width") + number(640) + text("height") + number(360);

} // namespace

class tst_HdsMetadata : public QObject
{
    Q_OBJECT

private slots:
    void whatIsTold()
    {
        const QByteArray data = scriptData(text("duration") + number(12.5) + picture
                                           + text("audiocodecid") + number(10));
        const HdsMetadata metadata = HdsMetadata::parse(data);
        QCOMPARE(metadata.width, 640);
        QCOMPARE(metadata.height, 360);
        QVERIFY(metadata.hasPicture);
        QVERIFY(metadata.hasSound);
        QCOMPARE(data.mid(metadata.durationAt - 1, 9), number(12.5));
    }

    /// What is not looked at has the length that its kind says.
    void amongValuesOfAllKinds_data()
    {
        QTest::addColumn<QByteArray>("value");
        const QByteArray end = text("") + '\11';
        QTest::newRow("boolean") << QByteArray("\1\1");
        QTest::newRow("text") << '\2' + text("width");
        QTest::newRow("long text") << '\14' + hds::int32(5) + "width";
        QTest::newRow("nothing") << QByteArray("\5");
        QTest::newRow("undefined") << QByteArray("\6");
        QTest::newRow("reference") << QByteArray("\7\0\1", 3);
        QTest::newRow("date") << '\13' + QByteArray(10, '\1');
        QTest::newRow("object") << '\3' + text("width") + number(5) + end;
        QTest::newRow("array by name") << '\10' + hds::int32(9) + text("width") + number(5) + end;
        QTest::newRow("array") << '\12' + hds::int32(2) + number(1) + '\3' + end;
    }

    void amongValuesOfAllKinds()
    {
        QFETCH(QByteArray, value);
        const HdsMetadata metadata = HdsMetadata::parse(scriptData(text("a") + value + picture));
        QCOMPARE(metadata.width, 640);
        QCOMPARE(metadata.height, 360);
    }

    void tellsNothing_data()
    {
        QTest::addColumn<QByteArray>("data");
        const double infinite = std::numeric_limits<double>::infinity();
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("another event") << '\2' + text("onCuePoint") + '\3' + picture;
        QTest::newRow("a text") << '\2' + text("onMetaData") + '\2' + picture;
        QTest::newRow("behind what is unknown") << scriptData(text("a") + '\21' + picture);
        QTest::newRow("behind an array that is longer than all")
            << scriptData(text("a") + '\12' + hds::int32(0xFFFFFFFF) + picture);
        QTest::newRow("behind a text that is longer than all")
            << scriptData(text("a") + '\14' + hds::int32(0xFFFFFFFF) + picture);
        QTest::newRow("in too deep")
            << scriptData(text("a") + ('\3' + text("a")).repeated(100000) + picture);
        QTest::newRow("no height")
            << scriptData(text("height") + number(-1) + text("height") + number(infinite)
                          + text("height") + number(1e6) + text("width") + number(0.5));
    }

    void tellsNothing()
    {
        QFETCH(QByteArray, data);
        const HdsMetadata metadata = HdsMetadata::parse(data);
        QCOMPARE(metadata.width, 0);
        QCOMPARE(metadata.height, 0);
        QVERIFY(!metadata.hasPicture && !metadata.hasSound);
    }

    void cutAnywhere()
    {
        const QByteArray data = scriptData(text("duration") + number(1) + picture);
        for (int size = 0; size < data.size(); ++size) {
            const HdsMetadata metadata = HdsMetadata::parse(data.left(size));
            QVERIFY(metadata.durationAt < 0 || metadata.durationAt + 8 <= size);
            QVERIFY(metadata.width == 0 || metadata.width == 640);
        }
    }
};

CLIPWEIR_TEST_MAIN(tst_HdsMetadata)
#include "tst_hdsmetadata.moc"
