#include "FfmpegOutput.h"
#include "TestMain.h"

class tst_FfmpegOutput : public QObject
{
    Q_OBJECT

private slots:
    void aChunk_data();
    void aChunk();
    void aChunkIsSearchedByItself();
    void aLongChunkTakesLinearTime_data();
    void aLongChunkTakesLinearTime();
};

void tst_FfmpegOutput::aChunk_data()
{
    QTest::addColumn<QByteArray>("chunk");
    QTest::addColumn<int>("duration");
    QTest::addColumn<QSize>("size");
    const QSize none(0, 0);
    QTest::newRow("empty") << QByteArray() << 0 << none;
    QTest::newRow("both") << QByteArray(" Duration: 00:03:25.12, start\nVideo: h264, 640x360 [SAR")
                          << 205 << QSize(640, 360);
    QTest::newRow("white space before the size") << QByteArray(":   12x34  ") << 0 << QSize(12, 34);
    QTest::newRow("ten digits, the last nine count")
        << QByteArray(" 1234567890x12") << 0 << QSize(234567890, 12);
    QTest::newRow("a digit is too little") << QByteArray("1x12 12x1") << 0 << none;
    QTest::newRow("after a NUL") << QByteArray("\0 Duration: 5, 12x34", 20) << 0 << none;
    QTest::newRow("no NUL behind it") << QByteArray::fromRawData("12x345", 5) << 0 << QSize(12, 34);
}

void tst_FfmpegOutput::aChunk()
{
    QFETCH(QByteArray, chunk);
    FfmpegOutput output;
    output.read(chunk);
    QTEST(output.duration(), "duration");
    QTEST(output.pictureSize(), "size");
}

void tst_FfmpegOutput::aChunkIsSearchedByItself()
{
    FfmpegOutput output;
    output.read("Duration: 00:00:07.0");
    output.read("0, 320x240");
    output.read("Duration: 8, 640x480");
    QCOMPARE(output.duration(), 7);
    QCOMPARE(output.pictureSize(), QSize(320, 240));
}

void tst_FfmpegOutput::aLongChunkTakesLinearTime_data()
{
    QTest::addColumn<QByteArray>("piece");
    QTest::newRow("white space") << QByteArray(" \n");
    QTest::newRow("digits") << QByteArray("1234567890x1 ");
    QTest::newRow("colons") << QByteArray("Duration: 1:");
}

void tst_FfmpegOutput::aLongChunkTakesLinearTime()
{
    // A search that starts again from every character takes longer than the test may.
    constexpr int chunkBytes = 4 * 1024 * 1024;
    QFETCH(QByteArray, piece);
    FfmpegOutput output;
    output.read(piece.repeated(chunkBytes / piece.size()) + " 12x34");
    QCOMPARE(output.pictureSize(), QSize(12, 34));
}

CLIPWEIR_TEST_MAIN(tst_FfmpegOutput)
#include "tst_ffmpegoutput.moc"
