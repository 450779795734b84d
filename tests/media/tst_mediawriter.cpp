#include "MediaFiles.h"
#include "MediaWriter.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cmath>
#include <memory>

namespace {

constexpr double frameS = 0.04; // of the test picture
constexpr int seconds = 8;

/// A writer to a file of its own.
class Written final
{
public:
    Written(const QVector<Rendition> &tracks, const QString &folder)
        : m_writer(tracks, [this, folder](const QString &extension) {
            m_file.setFileName(folder + QLatin1String("/out.") + extension);
            return m_file.open(QIODevice::WriteOnly) ? output() : std::nullopt;
        })
    {
    }

    MediaWriter *operator->() { return &m_writer; }

    /// Hands in a segment; the number counts for nothing here.
    bool take(int track, const QByteArray &content, double startS = -1, int run = 0,
              bool hasLaterRun = false)
    {
        TrackSegment segment;
        segment.hasLaterRun = hasLaterRun;
        segment.startUs = startS < 0 ? TrackSegment::unknown : qint64(startS * 1e6);
        segment.run = run;
        return m_writer.take(track, segment, content);
    }

    bool takeInit(int track, const QByteArray &content)
    {
        TrackSegment segment;
        segment.role = TrackSegment::Role::Initialisation;
        return m_writer.take(track, segment, content);
    }

    bool finish()
    {
        const bool isWhole = m_writer.finish();
        m_file.close();
        return isWhole;
    }

    [[nodiscard]] QString path() const { return m_file.fileName(); }

private:
    std::optional<MediaFile::Output> output()
    {
        MediaFile::Output output;
        output.write = [this](const char *data, qint64 bytes) {
            return m_file.write(data, bytes) == bytes;
        };
        output.seek = [this](qint64 position) { return m_file.seek(position); };
        return output;
    }

    QFile m_file;
    MediaWriter m_writer;
};

Rendition picture()
{
    return {};
}

Rendition sound()
{
    Rendition rendition;
    rendition.kind = Rendition::Kind::Sound;
    return rendition;
}

QStringList words(const char *text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '));
}

} // namespace

class tst_MediaWriter : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void keepsEveryPacketOfBoxes();
    void keepsEveryFrameOfTransportStreams();
    void readsTablesOnceInARun();
    void alignsClocksThatHaveNothingInCommon();
    void goesOnBehindADiscontinuity();
    void takesUpSoundOfALaterRun();
    void takesUpATrackOfALaterRun();
    void goesOnWhereTheClockJumpsBack();
    void followsTheClockWhereItWraps();
    void takesPackedSound();
    void leavesAGapForWhatIsMissing();
    void writesWebM();
    void describesVp9InMp4_data();
    void describesVp9InMp4();
    void keepsLosslessSound();
    void goesOnWithAnotherPicture();
    void leavesOutSoundOfAnotherFormat_data();
    void leavesOutSoundOfAnotherFormat();
    void endsWhereAllIsOfAnotherFormat();
    void endsWhereThePictureIsOfAnotherCodec();
    void refusesWhatIsEncrypted();
    void endsInOrderWhateverComes_data();
    void endsInOrderWhateverComes();
    void opensNothingThatASegmentNames();

private:
    [[nodiscard]] QByteArray bytes(const QString &name) const
    {
        const QByteArray content = readFile(m_folder.filePath(name));
        Q_ASSERT(!content.isEmpty());
        return content;
    }
    void checkTimes(const QString &path, double durationS, double toleranceS = frameS);

    QTemporaryDir m_folder;
};

void tst_MediaWriter::initTestCase()
{
    QVERIFY(m_folder.isValid());
    const QString folder = m_folder.path();
    MediaFiles::ffmpeg(MediaFiles::testInputs(seconds, QStringLiteral("320x180"))
                           + MediaFiles::usualCodecs() + words("source.mp4"),
                       folder);
    MediaFiles::ffmpeg(words("-i source.mp4 -c copy -f hls -hls_time 2 -hls_list_size 0 "
                             "-hls_segment_filename t%d.ts t.m3u8"),
                       folder);
    MediaFiles::ffmpeg(words("-i source.mp4 -c copy -f dash -seg_duration 2 -use_template 1 "
                             "-init_seg_name i$RepresentationID$.mp4 "
                             "-media_seg_name m$RepresentationID$-$Number$.mp4 d.mpd"),
                       folder);
}

void tst_MediaWriter::checkTimes(const QString &path, double durationS, double toleranceS)
{
    double first = 1e9;
    for (const QByteArray &stream : {QByteArray("v:0"), QByteArray("a:0")}) {
        const QList<double> decoded = MediaFiles::times(path, stream);
        QVERIFY(!decoded.isEmpty());
        for (int i = 1; i < decoded.size(); ++i)
            QVERIFY2(decoded.at(i) > decoded.at(i - 1), stream + QByteArray::number(i));
        const QList<double> shown = MediaFiles::times(path, stream, true);
        first = std::min(first, *std::min_element(shown.begin(), shown.end()));
        const double end = *std::max_element(shown.begin(), shown.end());
        QVERIFY2(std::abs(end - durationS) <= 2 * toleranceS, QByteArray::number(end));
    }
    QVERIFY2(std::abs(first) < 0.001, QByteArray::number(first));
    QCOMPARE(MediaFiles::complaints(path), QByteArray());
}

void tst_MediaWriter::keepsEveryPacketOfBoxes()
{
    QTemporaryDir out;
    Written file({picture(), sound()}, out.path());
    for (int track : {0, 1})
        QVERIFY(file.takeInit(track, bytes(QStringLiteral("i%1.mp4").arg(track))));
    for (int n = 1; n <= 5; ++n) {
        for (int track : {0, 1}) { // there is more sound than picture, by a segment
            if (track == 1 || n < 5)
                QVERIFY(file.take(track, bytes(QStringLiteral("m%1-%2.mp4").arg(track).arg(n)),
                                  (n - 1) * 2));
        }
    }
    QVERIFY(file.finish());
    const QString source = m_folder.filePath(QStringLiteral("source.mp4"));
    QVERIFY(file.path().endsWith(QLatin1String(".mp4")));
    QCOMPARE(MediaFiles::packets(file.path(), "v:0"), MediaFiles::packets(source, "v:0"));
    QCOMPARE(MediaFiles::packets(file.path(), "a:0"), MediaFiles::packets(source, "a:0"));
    checkTimes(file.path(), seconds);
}

void tst_MediaWriter::keepsEveryFrameOfTransportStreams()
{
    QTemporaryDir out;
    Written file({picture()}, out.path());
    for (int n = 0; n < 4; ++n)
        QVERIFY(file.take(0, bytes(QStringLiteral("t%1.ts").arg(n)), n * 2));
    QVERIFY(file.finish());
    const QString source = m_folder.filePath(QStringLiteral("source.mp4"));
    QCOMPARE(MediaFiles::frames(file.path(), "v:0"), MediaFiles::frames(source, "v:0"));
    QCOMPARE(MediaFiles::packets(file.path(), "a:0"), MediaFiles::packets(source, "a:0"));
    checkTimes(file.path(), seconds);
    QCOMPARE(file->missingSegments(), 0);
    QCOMPARE(file->damagedPackets(), 0);
}

/// Segments that follow one another may leave their tables out.
void tst_MediaWriter::readsTablesOnceInARun()
{
    QTemporaryDir out;
    Written file({picture()}, out.path());
    for (int n = 0; n < 4; ++n) {
        QByteArray segment = bytes(QStringLiteral("t%1.ts").arg(n));
        while (n > 0) { // PAT (0), SDT (17) and PMT (4096) come first
            const int pid = (quint8(segment.at(1)) & 0x1F) << 8 | quint8(segment.at(2));
            if (pid != 0 && pid != 17 && pid != 4096)
                break;
            segment.remove(0, 188);
        }
        QVERIFY(file.take(0, segment, n * 2));
    }
    QVERIFY(file.finish());
    const QString source = m_folder.filePath(QStringLiteral("source.mp4"));
    QCOMPARE(MediaFiles::packets(file.path(), "a:0"), MediaFiles::packets(source, "a:0"));
    QCOMPARE(MediaFiles::packets(file.path(), "v:0").size(),
             MediaFiles::packets(source, "v:0").size());
}

/// A transport stream of ffmpeg begins at 1.4 s, boxes at 0.
void tst_MediaWriter::alignsClocksThatHaveNothingInCommon()
{
    QTemporaryDir out;
    Written file({picture(), sound()}, out.path());
    QVERIFY(file.takeInit(1, bytes(QStringLiteral("i1.mp4"))));
    for (int n = 0; n < 4; ++n) {
        QVERIFY(file.take(0, bytes(QStringLiteral("t%1.ts").arg(n)), n * 2));
        QVERIFY(file.take(1, bytes(QStringLiteral("m1-%1.mp4").arg(n + 1)), n * 2));
    }
    QVERIFY(file.take(1, bytes(QStringLiteral("m1-5.mp4")), 8));
    QVERIFY(file.finish());
    const QString source = m_folder.filePath(QStringLiteral("source.mp4"));
    QCOMPARE(MediaFiles::packets(file.path(), "a:0"), MediaFiles::packets(source, "a:0"));
    checkTimes(file.path(), seconds);
}

void tst_MediaWriter::goesOnBehindADiscontinuity()
{
    QTemporaryDir out;
    Written file({picture()}, out.path());
    for (int run = 0; run < 3; ++run) {
        for (int n = 0; n < 4; ++n)
            QVERIFY(file.take(0, bytes(QStringLiteral("t%1.ts").arg(n)), run * 8 + n * 2, run));
    }
    QVERIFY(file.finish());
    checkTimes(file.path(), 3 * seconds, 0.1);
    const QString source = m_folder.filePath(QStringLiteral("source.mp4"));
    const QList<QByteArray> sounds = MediaFiles::packets(source, "a:0");
    QCOMPARE(MediaFiles::packets(file.path(), "a:0"), sounds + sounds + sounds);
    QCOMPARE(MediaFiles::frames(file.path(), "v:0").size(), 3 * seconds * 25);
}

/// Such as behind a silent advertisement.
void tst_MediaWriter::takesUpSoundOfALaterRun()
{
    MediaFiles::ffmpeg(words("-i source.mp4 -an -c copy -f hls -hls_time 2 -hls_list_size 0 "
                             "-hls_segment_filename silent%d.ts silent.m3u8"),
                       m_folder.path());
    QTemporaryDir out;
    Written file({picture()}, out.path());
    for (int n = 0; n < 4; ++n)
        QVERIFY(file.take(0, bytes(QStringLiteral("silent%1.ts").arg(n)), n * 2, 0, true));
    for (int n = 0; n < 4; ++n)
        QVERIFY(file.take(0, bytes(QStringLiteral("t%1.ts").arg(n)), 8 + n * 2, 1));
    QVERIFY(file.finish());
    QCOMPARE(file->damagedPackets(), 0);
    const QString source = m_folder.filePath(QStringLiteral("source.mp4"));
    QCOMPARE(MediaFiles::packets(file.path(), "a:0"), MediaFiles::packets(source, "a:0"));
    QVERIFY(std::abs(MediaFiles::times(file.path(), "a:0").constFirst() - seconds) < 0.1);
    QCOMPARE(MediaFiles::frames(file.path(), "v:0").size(), 2 * seconds * 25);
    QCOMPARE(MediaFiles::complaints(file.path()), QByteArray());
}

/// Its playlist leaves out what the other one has before, and so tells other times.
void tst_MediaWriter::takesUpATrackOfALaterRun()
{
    QTemporaryDir out;
    Written file({picture(), sound()}, out.path());
    for (int track : {0, 1})
        QVERIFY(file.takeInit(track, bytes(QStringLiteral("i%1.mp4").arg(track))));
    const auto part = [this](int track, int n) {
        return bytes(QStringLiteral("m%1-%2.mp4").arg(track).arg(n));
    };
    for (int n = 0; n < 4; ++n) {
        QVERIFY(file.take(1, part(1, n + 1), n * 2, 1));
        QVERIFY(file.take(0, part(0, n + 1), n * 2, 0, true));
    }
    QVERIFY(file.take(1, part(1, 5), 8, 1));
    for (int n = 0; n < 4; ++n)
        QVERIFY(file.take(0, part(0, n + 1), 8 + n * 2, 1));
    QVERIFY(file.finish());
    QCOMPARE(file->damagedPackets(), 0);
    const QString source = m_folder.filePath(QStringLiteral("source.mp4"));
    const QList<QByteArray> pictures = MediaFiles::packets(source, "v:0");
    QCOMPARE(MediaFiles::packets(file.path(), "v:0"), pictures + pictures);
    QCOMPARE(MediaFiles::packets(file.path(), "a:0"), MediaFiles::packets(source, "a:0"));
    QVERIFY(std::abs(MediaFiles::times(file.path(), "a:0").constFirst() - seconds) < 0.1);
}

/// A server that begins again does not always say so.
void tst_MediaWriter::goesOnWhereTheClockJumpsBack()
{
    QTemporaryDir made;
    MediaFiles::ffmpeg(
        QStringList{QStringLiteral("-i"), m_folder.filePath(QStringLiteral("source.mp4"))}
            + words("-c copy -output_ts_offset 100 -f hls -hls_time 2 "
                    "-hls_list_size 0 -hls_segment_filename t%d.ts t.m3u8"),
        made.path());
    QTemporaryDir out;
    Written file({picture()}, out.path());
    for (int n = 0; n < 4; ++n)
        QVERIFY(file.take(0, readFile(made.filePath(QStringLiteral("t%1.ts").arg(n))), n * 2));
    for (int n = 0; n < 4; ++n)
        QVERIFY(file.take(0, bytes(QStringLiteral("t%1.ts").arg(n)), 8 + n * 2));
    QVERIFY(file.finish());
    checkTimes(file.path(), 2 * seconds, 0.1);
    const QString source = m_folder.filePath(QStringLiteral("source.mp4"));
    const QList<QByteArray> sounds = MediaFiles::packets(source, "a:0");
    QCOMPARE(MediaFiles::packets(file.path(), "a:0"), sounds + sounds);
}

void tst_MediaWriter::followsTheClockWhereItWraps()
{
    QTemporaryDir made;
    // 2^33 / 90000 s less 4 s: the clock begins again in the middle.
    MediaFiles::ffmpeg(
        QStringList{QStringLiteral("-i"), m_folder.filePath(QStringLiteral("source.mp4"))}
            + words("-c copy -output_ts_offset 95439.7 -f hls -hls_time 2 "
                    "-hls_list_size 0 -hls_segment_filename t%d.ts t.m3u8"),
        made.path());
    QTemporaryDir out;
    Written file({picture()}, out.path());
    for (int n = 0; n < 4; ++n)
        QVERIFY(file.take(0, readFile(made.filePath(QStringLiteral("t%1.ts").arg(n))), n * 2));
    QVERIFY(file.finish());
    const QString source = m_folder.filePath(QStringLiteral("source.mp4"));
    QCOMPARE(MediaFiles::frames(file.path(), "v:0"), MediaFiles::frames(source, "v:0"));
    checkTimes(file.path(), seconds);
}

/// Sound in frames of its own, with the time in a tag before each segment.
void tst_MediaWriter::takesPackedSound()
{
    QTemporaryDir made;
    MediaFiles::ffmpeg(
        QStringList{QStringLiteral("-i"), m_folder.filePath(QStringLiteral("source.mp4"))}
            + words("-map 0:a -c copy -f segment -segment_time 2 "
                    "-segment_format adts a%d.aac"),
        made.path());
    QTemporaryDir out;
    Written file({picture(), sound()}, out.path());
    for (int n = 0; n < 5; ++n) {
        // The tag: 10 bytes of header, 10 of the frame's, the owner and 8 bytes of time.
        const QByteArray owner =
            QByteArrayLiteral("com.apple.streaming.transportStreamTimestamp") + '\0';
        QByteArray frame = QByteArrayLiteral("PRIV") + QByteArray(3, '\0') + char(owner.size() + 8)
            + QByteArray(2, '\0') + owner + QByteArray(8, '\0');
        const quint64 time = 126000 + quint64(n) * 180000; // 1.4 s, as the picture
        for (int i = 0; i < 8; ++i)
            frame[frame.size() - 8 + i] = char(time >> (56 - 8 * i));
        const QByteArray tag =
            QByteArrayLiteral("ID3\x04") + QByteArray(5, '\0') + char(frame.size()) + frame;
        if (n < 4)
            QVERIFY(file.take(0, bytes(QStringLiteral("t%1.ts").arg(n)), n * 2));
        QVERIFY(
            file.take(1, tag + readFile(made.filePath(QStringLiteral("a%1.aac").arg(n))), n * 2));
    }
    QVERIFY(file.finish());
    const QString source = m_folder.filePath(QStringLiteral("source.mp4"));
    QCOMPARE(MediaFiles::packets(file.path(), "a:0"), MediaFiles::packets(source, "a:0"));
    QCOMPARE(MediaFiles::frames(file.path(), "v:0"), MediaFiles::frames(source, "v:0"));
    checkTimes(file.path(), seconds);
}

void tst_MediaWriter::leavesAGapForWhatIsMissing()
{
    for (const bool areBoxes : {true, false}) {
        QTemporaryDir out;
        Written file({picture()}, out.path());
        if (areBoxes)
            QVERIFY(file.takeInit(0, bytes(QStringLiteral("i0.mp4"))));
        for (int n = 0; n < 4; ++n) {
            const QString name =
                areBoxes ? QStringLiteral("m0-%1.mp4").arg(n + 1) : QStringLiteral("t%1.ts").arg(n);
            QVERIFY(file.take(0, n == 2 ? QByteArray() : bytes(name), n * 2));
        }
        QVERIFY(file.finish());
        QCOMPARE(file->missingSegments(), 1);
        const QList<double> shown = MediaFiles::times(file.path(), "v:0", true);
        QCOMPARE(shown.size(), 150);
        const double last = *std::max_element(shown.begin(), shown.end());
        QVERIFY2(std::abs(last - (seconds - frameS)) < frameS, QByteArray::number(last));
    }
}

void tst_MediaWriter::writesWebM()
{
    QTemporaryDir made;
    MediaFiles::ffmpeg(MediaFiles::testInputs(4, QStringLiteral("160x90"))
                           + words("-c:v libvpx-vp9 -deadline realtime -cpu-used 8 -g 25 -b:v 100k "
                                   "-c:a libopus -b:a 32k source.webm"),
                       made.path());
    MediaFiles::ffmpeg(
        words("-i source.webm -c copy -f dash -seg_duration 2 -dash_segment_type webm "
              "-init_seg_name i$RepresentationID$.webm "
              "-media_seg_name m$RepresentationID$-$Number$.webm d.mpd"),
        made.path());
    QTemporaryDir out;
    Written file({picture(), sound()}, out.path());
    QByteArray joined[2]; // ffmpeg leaves the end of the sound out
    for (int track : {0, 1}) {
        joined[track] = readFile(made.filePath(QStringLiteral("i%1.webm").arg(track)));
        QVERIFY(file.takeInit(track, joined[track]));
    }
    for (int n = 1; n < 9; ++n) {
        for (int track : {0, 1}) {
            const QByteArray segment =
                readFile(made.filePath(QStringLiteral("m%1-%2.webm").arg(track).arg(n)));
            joined[track] += segment;
            QVERIFY(segment.isEmpty() || file.take(track, segment, (n - 1) * 2));
        }
    }
    QVERIFY(file.finish());
    QVERIFY(file.path().endsWith(QLatin1String(".webm")));
    for (int track : {0, 1}) {
        const QByteArray stream = track == 0 ? "v:0" : "a:0";
        const QString path = made.filePath(QStringLiteral("joined%1.webm").arg(track));
        writeFile(path, joined[track]);
        QVERIFY(MediaFiles::packets(path, stream).size() >= 100);
        QCOMPARE(MediaFiles::packets(file.path(), stream), MediaFiles::packets(path, stream));
    }
    QCOMPARE(MediaFiles::complaints(file.path()), QByteArray());
    QVERIFY(MediaFiles::probe(file.path(), "format=duration").toDouble() > 3.9);
}

void tst_MediaWriter::describesVp9InMp4_data()
{
    QTest::addColumn<QString>("type"); // of the picture's segments
    QTest::newRow("MP4") << QStringLiteral("mp4");
    QTest::newRow("WebM, beside sound that has no place there") << QStringLiteral("webm");
}

void tst_MediaWriter::describesVp9InMp4()
{
    QFETCH(QString, type);
    MediaFiles::ffmpeg(words("-f lavfi -i testsrc2=size=64x48:rate=25 -t 2 -c:v libvpx-vp9 -g 25 "
                             "-deadline realtime -cpu-used 8 -f dash -seg_duration 1 "
                             "-init_seg_name v.init -media_seg_name v$Number$.seg "
                             "-dash_segment_type")
                           + QStringList{type, QStringLiteral("v.mpd")},
                       m_folder.path());
    QTemporaryDir out;
    Written file({picture(), sound()}, out.path());
    QVERIFY(file.takeInit(0, bytes(QStringLiteral("v.init"))));
    QVERIFY(file.takeInit(1, bytes(QStringLiteral("i1.mp4"))));
    QVERIFY(file.take(0, bytes(QStringLiteral("v1.seg")), 0));
    QVERIFY(file.take(1, bytes(QStringLiteral("m1-1.mp4")), 0));
    QVERIFY(file.take(0, bytes(QStringLiteral("v2.seg")), 1));
    QVERIFY(file.finish());
    QVERIFY(file.path().endsWith(QLatin1String(".mp4")));
    QCOMPARE(MediaFiles::packets(file.path(), "v:0").size(), 50);
    QCOMPARE(MediaFiles::complaints(file.path()), QByteArray());
}

void tst_MediaWriter::keepsLosslessSound()
{
    MediaFiles::ffmpeg(words("-i source.mp4 -vn -c:a flac -strict -2 -f dash -seg_duration 2 "
                             "-init_seg_name f.mp4 -media_seg_name f$Number$.mp4 f.mpd"),
                       m_folder.path());
    QTemporaryDir out;
    Written file({sound()}, out.path());
    QVERIFY(file.takeInit(0, bytes(QStringLiteral("f.mp4"))));
    QByteArray all = bytes(QStringLiteral("f.mp4"));
    for (int n = 1; QFile::exists(m_folder.filePath(QStringLiteral("f%1.mp4").arg(n))); ++n) {
        const QByteArray segment = bytes(QStringLiteral("f%1.mp4").arg(n));
        QVERIFY(file.take(0, segment, (n - 1) * 2));
        all += segment;
    }
    QVERIFY(file.finish());
    QVERIFY(file.path().endsWith(QLatin1String(".mp4")));
    const QString source = m_folder.filePath(QStringLiteral("flac.mp4"));
    writeFile(source, all);
    QCOMPARE(MediaFiles::packets(file.path(), "a:0"), MediaFiles::packets(source, "a:0"));
    QCOMPARE(MediaFiles::complaints(file.path()), QByteArray());
}

/// A new initialisation section describes another size of picture, and then the first one again.
void tst_MediaWriter::goesOnWithAnotherPicture()
{
    for (const bool areBoxes : {true, false}) {
        QTemporaryDir made;
        MediaFiles::ffmpeg(MediaFiles::testInputs(2, QStringLiteral("160x90"))
                               + MediaFiles::usualCodecs() + words("other.mp4"),
                           made.path());
        MediaFiles::ffmpeg(words("-i other.mp4 -c copy -f dash -seg_duration 2 -use_template 1 "
                                 "-init_seg_name i$RepresentationID$.mp4 "
                                 "-media_seg_name m$RepresentationID$-$Number$.mp4 d.mpd"),
                           made.path());
        MediaFiles::ffmpeg(words("-i other.mp4 -c copy other.ts"), made.path());
        QTemporaryDir out;
        Written file({picture()}, out.path());
        const auto take = [&](const QByteArray &init, const QByteArray &segment, int run) {
            return file.takeInit(0, areBoxes ? init : QByteArray())
                && file.take(0, segment, run * 2, run);
        };
        const QByteArray init = bytes(QStringLiteral("i0.mp4"));
        const QByteArray segment =
            bytes(areBoxes ? QStringLiteral("m0-1.mp4") : QStringLiteral("t0.ts"));
        const QByteArray other = readFile(
            made.filePath(areBoxes ? QStringLiteral("m0-1.mp4") : QStringLiteral("other.ts")));
        QVERIFY(take(init, segment, 0));
        QVERIFY(take(readFile(made.filePath(QStringLiteral("i0.mp4"))), other, 1));
        QVERIFY(take(init, segment, 2));
        QVERIFY(file.finish());
        QCOMPARE(MediaFiles::complaints(file.path()), QByteArray());
        // Decoded one by one, for ffmpeg brings them to one size.
        MediaFiles::ffmpeg({QStringLiteral("-i"), file.path(), QStringLiteral("-map"),
                            QStringLiteral("0:v"), QStringLiteral("-vf"),
                            QStringLiteral("scale=64:36:flags=neighbor"), QStringLiteral("-vsync"),
                            QStringLiteral("passthrough"), QStringLiteral("-f"),
                            QStringLiteral("rawvideo"), QStringLiteral("-pix_fmt"),
                            QStringLiteral("gray"), QStringLiteral("shown.raw")},
                           out.path());
        const QByteArray shown = readFile(out.filePath(QStringLiteral("shown.raw")));
        QCOMPARE(shown.size(), 150 * 64 * 36);
        QCOMPARE(shown.left(50 * 64 * 36), shown.right(50 * 64 * 36));
        QVERIFY(shown.left(50 * 64 * 36) != shown.mid(50 * 64 * 36, 50 * 64 * 36));
    }
}

void tst_MediaWriter::leavesOutSoundOfAnotherFormat_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::newRow("rate") << QByteArray("-ar 22050 other.ts");
    QTest::newRow("channels") << QByteArray("-ac 2 other.ts");
    QTest::newRow("codec") << QByteArray("-c:a ac3 other.ts");
}

/// The picture goes on meanwhile, and the sound behind it.
void tst_MediaWriter::leavesOutSoundOfAnotherFormat()
{
    QFETCH(QByteArray, options);
    QTemporaryDir made;
    MediaFiles::ffmpeg(MediaFiles::testInputs(2, QStringLiteral("320x180"))
                           + MediaFiles::usualCodecs() + words(options.constData()),
                       made.path());
    QTemporaryDir out;
    Written file({picture()}, out.path());
    QVERIFY(file.take(0, bytes(QStringLiteral("t0.ts")), 0));
    QVERIFY(file.take(0, readFile(made.filePath(QStringLiteral("other.ts"))), 2, 1));
    QVERIFY(file.take(0, bytes(QStringLiteral("t1.ts")), 4, 2));
    QVERIFY(file.finish());
    QVERIFY(file->damagedPackets() > 20);
    QCOMPARE(file->missingSegments(), qint64(0));
    QCOMPARE(MediaFiles::packets(file.path(), "v:0").size(), 150);
    const QList<double> sounds = MediaFiles::times(file.path(), "a:0");
    QCOMPARE(std::count_if(sounds.cbegin(), sounds.cend(),
                           [](double time) { return time > 2.1 && time < 3.9; }),
             0);
    QVERIFY(sounds.constLast() > 5.8);
    QCOMPARE(MediaFiles::complaints(file.path()), QByteArray());
}

/// Without a picture there is nothing left to go on with.
void tst_MediaWriter::endsWhereAllIsOfAnotherFormat()
{
    QTemporaryDir made;
    for (const char *const output : {"-ar 44100 one.aac", "-ar 22050 other.aac"})
        MediaFiles::ffmpeg(words("-f lavfi -i sine=duration=2 -c:a aac") + words(output),
                           made.path());
    QTemporaryDir out;
    Written file({sound()}, out.path());
    QVERIFY(file.take(0, readFile(made.filePath(QStringLiteral("one.aac"))), 0));
    (void)file.take(0, readFile(made.filePath(QStringLiteral("other.aac"))), 2, 1);
    QVERIFY(!file.finish());
    QVERIFY(file->error().contains(QLatin1String("sound changes its format")));
    // What came before is there.
    QCOMPARE(MediaFiles::packets(file.path(), "a:0").size(),
             MediaFiles::packets(made.filePath(QStringLiteral("one.aac")), "a:0").size());
    QCOMPARE(MediaFiles::complaints(file.path()), QByteArray());
}

void tst_MediaWriter::endsWhereThePictureIsOfAnotherCodec()
{
    QTemporaryDir made;
    MediaFiles::ffmpeg(words("-f lavfi -i testsrc2=size=320x180:rate=25:duration=2 -c:v mpeg2video "
                             "other.ts"),
                       made.path());
    QTemporaryDir out;
    Written file({picture()}, out.path());
    QVERIFY(file.take(0, bytes(QStringLiteral("t0.ts")), 0));
    (void)file.take(0, readFile(made.filePath(QStringLiteral("other.ts"))), 2, 1);
    QVERIFY(!file.finish());
    QVERIFY(file->error().contains(QLatin1String("picture changes its format")));
    QCOMPARE(MediaFiles::packets(file.path(), "v:0").size(), 50);
    QCOMPARE(MediaFiles::complaints(file.path()), QByteArray());
}

void tst_MediaWriter::refusesWhatIsEncrypted()
{
    QTemporaryDir made;
    MediaFiles::ffmpeg(
        QStringList{QStringLiteral("-i"), m_folder.filePath(QStringLiteral("source.mp4"))}
            + words("-c copy -an -encryption_scheme cenc-aes-ctr "
                    "-encryption_key 76a6c65c5ea762046bd749a2e632ccbb "
                    "-encryption_kid a7e61c373e219033c21091fa607bf3b8 encrypted.mp4"),
        made.path());
    const QByteArray whole = readFile(made.filePath(QStringLiteral("encrypted.mp4")));
    QTemporaryDir out;
    Written file({picture()}, out.path());
    QVERIFY(!file.take(0, whole));
    QVERIFY(!file.finish());
    QVERIFY(file->isProtected());
    QVERIFY(filesBelow(out.path()).isEmpty());
}

void tst_MediaWriter::endsInOrderWhateverComes_data()
{
    QTest::addColumn<QByteArray>("init");
    QTest::addColumn<QByteArray>("segment");
    const QByteArray init = bytes(QStringLiteral("i0.mp4"));
    const QByteArray boxes = bytes(QStringLiteral("m0-1.mp4"));
    const QByteArray stream = bytes(QStringLiteral("t0.ts"));
    QTest::newRow("nothing known") << QByteArray() << QByteArray("not media at all");
    QTest::newRow("a page") << init << QByteArray("<html><body>Not found</body></html>");
    QTest::newRow("boxes without their beginning") << QByteArray() << boxes;
    QTest::newRow("a beginning alone") << init << init;
    for (const int part : {3, 5, 9, 20, 50}) {
        QTest::addRow("boxes, one of %d parts", part) << init << boxes.left(boxes.size() / part);
        QTest::addRow("the beginning, one of %d parts", part)
            << init.left(init.size() / part) << boxes;
        QTest::addRow("a stream, one of %d parts", part)
            << QByteArray() << stream.left(stream.size() / part);
    }
    QTest::newRow("a playlist") << QByteArray() << QByteArray("#EXTM3U\n/etc/passwd\n");
    QTest::newRow("one byte") << QByteArray() << QByteArray("G");
    QTest::newRow("sync alone") << QByteArray() << QByteArray(188 * 4, 'G');
}

void tst_MediaWriter::endsInOrderWhateverComes()
{
    QFETCH(QByteArray, init);
    QFETCH(QByteArray, segment);
    QTemporaryDir out;
    Written file({picture()}, out.path());
    (void)file.takeInit(0, init);
    for (int n = 0; n < 3; ++n)
        (void)file.take(0, segment, n * 2, n / 2);
    const bool isWhole = file.finish();
    QCOMPARE(isWhole, QFile::exists(file.path()) && file->isBegun());
    if (!isWhole)
        QVERIFY(!file->error().isEmpty());
}

/// A box may name another file as the place of its samples.
void tst_MediaWriter::opensNothingThatASegmentNames()
{
    QTemporaryDir out;
    const QString secret = out.filePath(QStringLiteral("secret"));
    writeFile(secret, QByteArray(100000, 'S'));
    // A "dref" whose entry is said to be elsewhere: an "alis" or "url " box with flags 0.
    QByteArray init = bytes(QStringLiteral("i0.mp4"));
    const int at = init.indexOf("url ");
    QVERIFY(at > 0);
    init[at + 7] = 0; // not "in this file"
    Written file({picture()}, out.path());
    QVERIFY(file.takeInit(0, init));
    (void)file.take(0, bytes(QStringLiteral("m0-1.mp4")), 0);
    (void)file.finish();
    if (file->isBegun())
        QVERIFY(!readFile(file.path()).contains("SSSSSSSS"));
}

CLIPWEIR_TEST_MAIN(tst_MediaWriter)

#include "tst_mediawriter.moc"
