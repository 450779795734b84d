#include "RenditionChoice.h"
#include "TestMain.h"

namespace {

Rendition picture(int height, qint64 bandwidth)
{
    Rendition rendition;
    rendition.height = height;
    rendition.bandwidth = bandwidth;
    return rendition;
}

Rendition sound(const char *language, qint64 bandwidth, bool isDefault = false)
{
    Rendition rendition;
    rendition.kind = Rendition::Kind::Sound;
    rendition.language = QString::fromLatin1(language);
    rendition.bandwidth = bandwidth;
    rendition.isDefault = isDefault;
    return rendition;
}

} // namespace

Q_DECLARE_METATYPE(QVector<Rendition>)

class tst_RenditionChoice : public QObject
{
    Q_OBJECT

private slots:
    void picksPictures_data();
    void picksPictures();
    void picksSounds_data();
    void picksSounds();
    void estimates();
};

void tst_RenditionChoice::picksPictures_data()
{
    QTest::addColumn<QVector<Rendition>>("offered");
    QTest::addColumn<int>("wanted");
    QTest::addColumn<int>("chosen");
    using List = QVector<Rendition>;
    const List usual{picture(360, 1), picture(1080, 5), picture(720, 3), picture(720, 4)};
    QTest::newRow("none") << List() << 0 << -1;
    QTest::newRow("only sound") << List{sound("en", 1)} << 0 << -1;
    QTest::newRow("highest") << usual << 0 << 1;
    QTest::newRow("exact, the higher bandwidth") << usual << 720 << 3;
    QTest::newRow("nearest below") << usual << 400 << 0;
    QTest::newRow("nearest above") << usual << 1000 << 1;
    QTest::newRow("first of two as near") << List{picture(400, 1), picture(600, 9)} << 500 << 0;
    QTest::newRow("9,999 away") << List{picture(1, 1), picture(20001, 2)} << 10000 << 0;
    QTest::newRow("10,000 away is no match") << List{picture(5, 9), picture(7, 1)} << 10007 << 1;
    QTest::newRow("no heights") << List{picture(0, 1), picture(0, 7), picture(0, 7)} << 720 << 1;
    QTest::newRow("a height before none") << List{picture(0, 9), picture(100, 1)} << 0 << 1;
    QTest::newRow("negative wish") << usual << -5 << 1;
    QTest::newRow("negative height") << List{picture(-7, 1)} << 720 << 0;
}

void tst_RenditionChoice::picksPictures()
{
    QFETCH(QVector<Rendition>, offered);
    QFETCH(int, wanted);
    QTEST(RenditionChoice::picture(offered, wanted), "chosen");
}

void tst_RenditionChoice::picksSounds_data()
{
    QTest::addColumn<QVector<Rendition>>("offered");
    QTest::addColumn<QString>("wanted");
    QTest::addColumn<int>("chosen");
    using List = QVector<Rendition>;
    const List usual{sound("en-GB", 1), sound("de", 2, true), sound("en", 1), sound("en", 3)};
    QTest::newRow("none") << List{picture(1, 1)} << QString() << -1;
    QTest::newRow("default") << usual << QString() << 1;
    QTest::newRow("by language") << usual << QStringLiteral("en") << 3;
    QTest::newRow("in any case") << usual << QStringLiteral("EN-gb") << 0;
    QTest::newRow("a form of it") << List{sound("de", 1), sound("en-GB", 1)} << QStringLiteral("en")
                                  << 1;
    QTest::newRow("not by its beginning")
        << List{sound("de", 1), sound("eng", 1)} << QStringLiteral("en") << 0;
    QTest::newRow("unknown language") << usual << QStringLiteral("fr") << 1;
    QTest::newRow("no default") << List{sound("en", 1), sound("de", 9), sound("en", 2)} << QString()
                                << 2;
}

void tst_RenditionChoice::picksSounds()
{
    QFETCH(QVector<Rendition>, offered);
    QFETCH(QString, wanted);
    QTEST(RenditionChoice::sound(offered, wanted), "chosen");
}

void tst_RenditionChoice::estimates()
{
    Rendition rendition = picture(1, 8000);
    QCOMPARE(rendition.estimatedBytes(), 0);
    rendition.durationUs = 2500000;
    QCOMPARE(rendition.estimatedBytes(), 2500);
    rendition.bandwidth = std::numeric_limits<qint64>::max();
    rendition.durationUs = std::numeric_limits<qint64>::max();
    QVERIFY(rendition.estimatedBytes() > 0);
}

CLIPWEIR_TEST_MAIN(tst_RenditionChoice)

#include "tst_renditionchoice.moc"
