#include "HdsFixtures.h"
#include "HdsPresentation.h"
#include "MediaFiles.h"
#include "MessageCatcher.h"
#include "Nginx.h"
#include "Packaged.h"
#include "TestMain.h"
#include "TracksTransfer.h"

#include <cmath>
#include <functional>
#include <optional>

namespace {

const QString packager = QStringLiteral("-c copy -f hds -min_frag_duration 1000000 ");
const QString whole = packager + QLatin1Char('.');

/// A stream that becomes a file.
struct Fetched
{
    struct Options
    {
        int height = 0;
        qint64 stopAfter = 0; ///< the number of fragments that it is stopped after; 0 for none
        bool isNameGiven = false;
        QString cacheFolder;
        std::function<void()> onProgress;
    };

    explicit Fetched(const QUrl &address)
        : Fetched(address, Options())
    {
    }

    Fetched(const QUrl &address, const Options &options)
    {
        MediaServers servers;
        servers.net.stallMs = 1000;
        TracksTransfer::Wish wish;
        wish.target = {folder.path(), QStringLiteral("out"), !options.isNameGiven};
        wish.cacheFolder = options.cacheFolder;
        const Presentation::Wish wanted{address, options.height, QString()};
        TracksTransfer transfer(std::make_unique<HdsPresentation>(wanted, servers),
                                address.toEncoded(), wish, servers);
        bool isOver = false;
        QObject::connect(&transfer, &Transfer::ended, &transfer,
                         [this, &isOver](Transfer::Outcome result) {
                             outcome = result;
                             isOver = true;
                         });
        QObject::connect(&transfer, &Transfer::progressed, &transfer, [&](qint64 done) {
            if (options.stopAfter > 0 && done >= options.stopAfter)
                transfer.cancel();
        });
        transfer.start();
        hasEnded = QTest::qWaitFor([&isOver] { return isOver; }, 120 * 1000);
        path = transfer.path();
        missing = transfer.missingSegments();
        report = transfer.report(outcome);
    }

    QTemporaryDir folder;
    bool hasEnded = false;
    Transfer::Outcome outcome = Transfer::Outcome::Failed;
    QString path;
    qint64 missing = -1;
    TransferReport report;
};

bool rises(const QList<double> &times)
{
    return std::is_sorted(times.cbegin(), times.cend());
}

/// The file has every packet of the source, in order.
void checkFile(const QString &path, const QString &source)
{
    for (const QByteArray &stream : {QByteArray("v:0"), QByteArray("a:0")}) {
        QCOMPARE(MediaFiles::packets(path, stream), MediaFiles::packets(source, stream));
        const QList<double> times = MediaFiles::times(path, stream);
        const QList<double> expected = MediaFiles::times(source, stream);
        QVERIFY(rises(times));
        for (int i = 0; i < times.size(); ++i)
            QVERIFY(std::abs((times.at(i) - times.at(0)) - (expected.at(i) - expected.at(0)))
                    < 0.0025); // milliseconds, rounded twice
    }
    QCOMPARE(MediaFiles::complaints(path), QByteArray());
    QString error;
    const QVector<hds::ReadTag> tags = hds::readFlv(readFile(path), error);
    QCOMPARE(error, QString());
    QVERIFY(!tags.isEmpty());
}

/// What stands in a manifest of another packager, in other spellings.
QByteArray respelt(QByteArray manifest)
{
    return manifest.replace("manifest xmlns=", "x:manifest xmlns:x=")
        .replace("</manifest", "</x:manifest")
        .replace("<media", "<x:media")
        .replace("</media", "</x:media")
        .replace("<metadata", "<x:metadata")
        .replace("</metadata", "</x:metadata")
        .replace("<bootstrapInfo", "<x:bootstrapInfo")
        .replace("<duration", "<x:duration")
        .replace("</duration", "</x:duration")
        .replace("bootstrapInfoId", "bootstrapinfoID")
        .replace('"', '\'');
}

} // namespace

/// What ffmpeg's packager makes, up to the file that it becomes.
class tst_HdsPackaged : public QObject
{
    Q_OBJECT

private slots:
    void becomesOneFile_data()
    {
        QTest::addColumn<QString>("manifest");
        for (const char *const name :
             {"as it is", "spelt otherwise", "its bootstrap inside", "its bootstrap as text"})
            QTest::newRow(name) << QString::fromLatin1(name);
    }

    void becomesOneFile()
    {
        QFETCH(QString, manifest);
        Packaged packaged(whole, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QByteArray text = readFile(packaged.path("index.f4m"));
        const QByteArray bootstrap = readFile(packaged.path("stream0.abst"));
        QVERIFY(text.contains(" url=\"stream0.abst\" id=\"bootstrap0\" />"));
        if (manifest.endsWith(QLatin1String("otherwise")))
            text = respelt(text);
        if (manifest.endsWith(QLatin1String("inside")))
            text.replace(" url=\"stream0.abst\" id=\"bootstrap0\" />",
                         " id=\"bootstrap0\">" + bootstrap.toBase64() + "</bootstrapInfo>");
        if (manifest.endsWith(QLatin1String("text")))
            packaged.server.on("/stream0.abst", replyOf(bootstrap.toBase64() + "\r\n"));
        packaged.server.on("/index.f4m", replyOf(text));
        const Fetched fetched(packaged.server.url("/index.f4m"));
        QVERIFY(fetched.hasEnded);
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(0));
        QCOMPARE(fetched.report.runClass, RunClass::Complete);
        QVERIFY(fetched.path.endsWith(QLatin1String("/out.flv")));
        checkFile(fetched.path, packaged.path("whole.mp4"));
        const double duration = MediaFiles::probe(fetched.path, "format=duration").toDouble();
        QVERIFY2(std::abs(duration - 6) < 0.15, QByteArray::number(duration));
    }

    /// Each with a bootstrap of its own.
    void severalRenditions_data()
    {
        QTest::addColumn<int>("height");
        QTest::addColumn<QByteArray>("source");
        QTest::newRow("the highest") << 0 << QByteArray("big.mp4");
        QTest::newRow("the nearest") << 40 << QByteArray("whole.mp4");
    }

    void severalRenditions()
    {
        QFETCH(int, height);
        QFETCH(QByteArray, source);
        Packaged packaged(QStringLiteral("-vf scale=128:96 -c:v libx264 -preset ultrafast -g 50 "
                                         "-bf 0 -c:a copy big.mp4"),
                          Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QVERIFY(packaged.runs(QStringLiteral("-i whole.mp4 -i big.mp4 -map 0:v -map 0:a -map 1:v "
                                             "-map 1:a ")
                              + whole));
        Fetched::Options options;
        options.height = height;
        const Fetched fetched(packaged.server.url("/index.f4m"), options);
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        checkFile(fetched.path, packaged.path(source));
    }

    void oneKindAlone_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QByteArray>("stream");
        QTest::newRow("picture") << "-an " << QByteArray("v:0");
        QTest::newRow("sound") << "-vn " << QByteArray("a:0");
    }

    void oneKindAlone()
    {
        QFETCH(QString, input);
        QFETCH(QByteArray, stream);
        Packaged packaged(input + whole, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const Fetched fetched(packaged.server.url("/index.f4m"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(MediaFiles::packets(fetched.path, stream),
                 MediaFiles::packets(packaged.path("whole.mp4"), stream));
        // The head names what there is.
        QCOMPARE(readFile(fetched.path).mid(4, 1), QByteArray(1, stream == "v:0" ? '\1' : '\4'));
    }

    void fromNginx()
    {
        const Packaged packaged(whole, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        Nginx nginx(packaged.folder.path());
        QVERIFY(nginx.start());
        const Fetched fetched(QUrl(nginx.address(QStringLiteral("/index.f4m?t=1"))));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        checkFile(fetched.path, packaged.path("whole.mp4"));
    }

    /// By the numbers of the run tables, in segments of two fragments.
    void segmentsByTheirNumbers()
    {
        Packaged packaged(whole, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        hds::Bootstrap made;
        made.segments = {{7, 2}, {9, 1}, {11, 1}};
        made.fragments = {{101, 0, 1000}};
        packaged.server.on("/stream0.abst", replyOf(made.abst()));
        const QByteArray names[] = {"7-Frag101", "7-Frag102", "8-Frag103",
                                    "8-Frag104", "9-Frag105", "10-Frag106"};
        QByteArray number = "1";
        for (const QByteArray &name : names) {
            packaged.server.on("/stream0Seg" + name,
                               replyOf(readFile(packaged.path("stream0Seg1-Frag" + number))));
            number = QByteArray::number(number.toInt() + 1);
        }
        packaged.server.on("/stream0Seg11-Frag107", replyOf(hds::fragment("")));
        const Fetched fetched(packaged.server.url("/index.f4m"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(1)); // the last is empty
        checkFile(fetched.path, packaged.path("whole.mp4"));
    }

    void aFragmentThatIsMissing()
    {
        const MessageCatcher messages;
        Packaged packaged(whole, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        packaged.server.on("/stream0Seg1-Frag3", replyOf("", 404));
        const Fetched fetched(packaged.server.url("/index.f4m"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(1));
        QCOMPARE(fetched.report.runClass, RunClass::Incomplete);
        QCOMPARE(MediaFiles::packets(fetched.path, "v:0").size(), 125);
        // What follows keeps its time.
        const QList<double> times = MediaFiles::times(fetched.path, "v:0");
        QVERIFY(std::abs(times.at(50) - times.at(49) - 1.04) < 0.01);
        QVERIFY(std::abs(times.constLast() - 5.96) < 0.01);
    }

    void asksAgainForWhatCameWrong()
    {
        Packaged packaged(whole, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        int asked = 0;
        const QByteArray fragment = readFile(packaged.path("stream0Seg1-Frag2"));
        packaged.server.on("/stream0Seg1-Frag2", [&](const HttpRequest &) {
            HttpReply reply = ++asked == 1 ? replyOf("", 500) : replyOf(fragment);
            if (asked == 2)
                reply.cutAfterBytes = fragment.size() / 2;
            return reply;
        });
        const Fetched fetched(packaged.server.url("/index.f4m"));
        QCOMPARE(fetched.missing, qint64(0));
        QCOMPARE(asked, 3);
        checkFile(fetched.path, packaged.path("whole.mp4"));
    }

    void finishesTheFileWhenItIsStopped()
    {
        Packaged packaged(whole, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        packaged.server.on("/stream0Seg1-Frag4", heldReplyOf("x", 0));
        Fetched::Options options;
        options.stopAfter = 3;
        const Fetched fetched(packaged.server.url("/index.f4m"), options);
        QCOMPARE(fetched.outcome, Transfer::Outcome::Canceled);
        QCOMPARE(MediaFiles::packets(fetched.path, "v:0").size(), 75);
        QCOMPARE(MediaFiles::complaints(fetched.path), QByteArray());
        const double duration = MediaFiles::probe(fetched.path, "format=duration").toDouble();
        QVERIFY2(std::abs(duration - 3) < 0.15, QByteArray::number(duration));
    }

    void asksForNothingThatIsThere()
    {
        Packaged packaged(whole, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QTemporaryDir cache;
        packaged.server.on("/stream0Seg1-Frag4", heldReplyOf("x", 0));
        Fetched::Options options;
        options.cacheFolder = cache.filePath(QStringLiteral("streamtmp"));
        options.stopAfter = 3;
        const Fetched stopped(packaged.server.url("/index.f4m"), options);
        QCOMPARE(stopped.outcome, Transfer::Outcome::Canceled);
        packaged.server.on("/stream0Seg1-Frag4",
                           replyOf(readFile(packaged.path("stream0Seg1-Frag4"))));
        options.stopAfter = 0;
        const Fetched fetched(packaged.server.url("/index.f4m"), options);
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        checkFile(fetched.path, packaged.path("whole.mp4"));
        for (const char *const path :
             {"/stream0Seg1-Frag1", "/stream0Seg1-Frag2", "/stream0Seg1-Frag3"})
            QCOMPARE(packaged.server.requestsFor(path).size(), 1);
    }

    void followsALiveOne()
    {
        Packaged packaged(whole, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        int asked = 0;
        const QByteArray finished = readFile(packaged.path("stream0.abst"));
        packaged.server.on("/stream0.abst", [&](const HttpRequest &) {
            if (++asked > 2)
                return replyOf(finished);
            hds::Bootstrap made;
            made.isLive = true;
            made.segments = {{1, 0xFFFFFFFF}};
            made.fragments = {{1, 0, 1000}};
            made.mediaTime = asked == 1 ? 2000 : 4000;
            return replyOf(made.abst());
        });
        const Fetched fetched(packaged.server.url("/index.f4m"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(0));
        QVERIFY(asked > 2);
        checkFile(fetched.path, packaged.path("whole.mp4"));
    }

    /// No file is left of what cannot be played.
    void encryptedTags()
    {
        const MessageCatcher messages;
        Packaged packaged(whole, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const QByteArray encrypted =
            hds::fragment(hds::tag(18, 0, "script") + hds::tag(0x29, 0, QByteArray(50, 'x'))
                          + hds::tag(0x28, 0, "y"));
        for (int n = 1; n <= 6; ++n)
            packaged.server.on("/stream0Seg1-Frag" + QByteArray::number(n), replyOf(encrypted));
        const Fetched fetched(packaged.server.url("/index.f4m"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Failed);
        QCOMPARE(fetched.report.runClass, RunClass::Protected);
        QVERIFY(!QFileInfo::exists(fetched.path));
    }

    void nothingOfUse_data()
    {
        QTest::addColumn<QByteArray>("fragment");
        QTest::addColumn<int>("runClass");
        QTest::newRow("pages") << QByteArray("<html>") << static_cast<int>(RunClass::BrokenOff);
        QTest::newRow("empty boxes") << hds::fragment("") << static_cast<int>(RunClass::BrokenOff);
        QTest::newRow("zeros") << QByteArray(5000, '\0') << static_cast<int>(RunClass::BrokenOff);
    }

    void nothingOfUse()
    {
        QFETCH(QByteArray, fragment);
        QFETCH(int, runClass);
        const MessageCatcher messages;
        ScriptedServer server;
        server.on("/m.f4m", replyOf(hds::manifest("s", hds::simpleBootstrap(3))));
        server.onOther([&fragment](const HttpRequest &) { return replyOf(fragment); });
        const Fetched fetched(server.url("/m.f4m"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Failed);
        QCOMPARE(static_cast<int>(fetched.report.runClass), runClass);
        QVERIFY(!QFileInfo::exists(fetched.path));
    }

    void aNameThatIsGiven()
    {
        const Packaged packaged(whole, Packaged::Input::Whole);
        Fetched::Options options;
        options.isNameGiven = true;
        const Fetched fetched(packaged.server.url("/index.f4m"), options);
        QVERIFY(fetched.path.endsWith(QLatin1String("/out")));
        QVERIFY(QFileInfo::exists(fetched.path));
    }
};

CLIPWEIR_TEST_MAIN(tst_HdsPackaged)
#include "tst_hdspackaged.moc"
