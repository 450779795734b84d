#include "HttpTransfer.h"
#include "MessageCatcher.h"
#include "ScriptedServer.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <functional>

namespace {

constexpr int endTimeoutMs = 30000;

} // namespace

class tst_HttpTransfer : public QObject
{
    Q_OBJECT

    using Outcomes = QList<Transfer::Outcome>;

    const QString m_pageUrl = uniquePageUrl();
    std::unique_ptr<TemporaryWorkFolder> m_work;
    std::unique_ptr<ScriptedServer> m_server;
    std::unique_ptr<MessageCatcher> m_lines;
    std::unique_ptr<Transfer> m_transfer;
    Outcomes m_outcomes;
    RunOptions m_options;
    QString m_video;
    QString m_thumb;

    void useOptions(const QString &words)
    {
        setCommandLine(QStringLiteral("--url %1 %2").arg(m_pageUrl, words));
        m_options = RunOptions::ofCommandLine();
        setCommandLine(QString()); // nothing may ask for them again
    }

    void take(std::unique_ptr<Transfer> transfer)
    {
        m_transfer = std::move(transfer);
        connect(m_transfer.get(), &Transfer::ended, this,
                [this](Transfer::Outcome outcome) { m_outcomes += outcome; });
    }

    void takeVideo(const QByteArray &target, qint64 totalBytes)
    {
        take(HttpTransfer::ofVideo(m_server->address(target), m_video, totalBytes, m_options));
    }

    void takeThumb(const QByteArray &target)
    {
        take(HttpTransfer::ofThumb(m_server->address(target), m_options));
    }

    /// The outcomes, once there is one and all that was under way has come.
    Outcomes outcomes()
    {
        if (!QTest::qWaitFor([this] { return !m_outcomes.isEmpty(); }, endTimeoutMs))
            return {};
        QCoreApplication::processEvents();
        return m_outcomes;
    }

    static bool reaches(const QString &path, qint64 bytes)
    {
        return QTest::qWaitFor([&] { return QFileInfo(path).size() >= bytes; }, endTimeoutMs);
    }

private slots:
    void initTestCase() { qputenv("CLIPWEIR_COOKIES", "/dev/null"); }

    void init()
    {
        m_work = std::make_unique<TemporaryWorkFolder>();
        m_server = std::make_unique<ScriptedServer>();
        m_lines = std::make_unique<MessageCatcher>();
        m_outcomes.clear();
        useOptions(QString());
        m_video = m_work->path(QStringLiteral("v.mp4"));
        m_thumb = m_options.paths.thumb();
    }

    void cleanup()
    {
        m_transfer.reset();
        m_lines.reset();
        m_server.reset();
        m_work.reset();
    }

    void aVideoComes()
    {
        m_server->on("/v", replyOf(QByteArray(700, 'v')));
        takeVideo("/v", 700);
        const QSignalSpy progress(m_transfer.get(), &Transfer::progressed);
        m_transfer->start();
        QCOMPARE(outcomes(), Outcomes{Transfer::Outcome::Succeeded});
        QCOMPARE(readFile(m_video), QByteArray(700, 'v'));
        QCOMPARE(progress.constLast(), (QVariantList{qint64(700), qint64(700)}));
        QStringList lines = m_lines->lines(); // a busy machine makes more of them
        lines.removeDuplicates();
        QCOMPARE(lines,
                 (QStringList{QStringLiteral("\"downloaded:0/700\" "),
                              QStringLiteral("\"downloaded:700/700\" ")}));
    }

    void progressWithoutALengthHasNoTotal()
    {
        m_server->onRaw("/v", [](const HttpRequest &, QTcpSocket *socket) {
            socket->write("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nbody");
            socket->disconnectFromHost();
        });
        takeVideo("/v", 0);
        qint64 received = 0;
        qint64 unknown = -1;
        connect(m_transfer.get(), &Transfer::progressed, this, [&](qint64 done, qint64 total) {
            received = done;
            unknown = qMax(unknown, total < done ? total : qint64(0));
        });
        m_transfer->start();
        QCOMPARE(outcomes(), Outcomes{Transfer::Outcome::Succeeded});
        QCOMPARE(received, qint64(4));
        QCOMPARE(unknown, qint64(0));
    }

    void theOptionsAreThoseGiven()
    {
        useOptions(QStringLiteral("--size 5"));
        writeFile(m_video, "ab");
        m_server->serve("/v", "abcde", "video/mp4");
        takeVideo("/v", 5);
        m_transfer->start();
        QCOMPARE(outcomes(), Outcomes{Transfer::Outcome::Succeeded});
        QCOMPARE(m_server->requests().at(0).header("Range"), QByteArray("bytes=2-"));
        QCOMPARE(readFile(m_video), QByteArray("abcde"));
    }

    void aThumbComesToItsPlace()
    {
        m_server->on("/t", replyOf("picture"));
        takeThumb("/t");
        m_transfer->start();
        QCOMPARE(outcomes(), Outcomes{Transfer::Outcome::Succeeded});
        QCOMPARE(readFile(m_thumb), QByteArray("picture"));
    }

    void failure_data()
    {
        QTest::addColumn<bool>("isVideo");
        QTest::newRow("video") << true;
        QTest::newRow("thumb") << false;
    }

    void failure()
    {
        QFETCH(bool, isVideo);
        if (isVideo)
            takeVideo("/none", 4);
        else
            takeThumb("/none");
        m_transfer->start();
        QCOMPARE(outcomes(), Outcomes{Transfer::Outcome::Failed});
        QVERIFY(!QFile::exists(m_thumb));
    }

    void anAddressThatIsNotHttpFailsInsideTheStart()
    {
        take(HttpTransfer::ofVideo(QStringLiteral("rtmp://127.0.0.1/v"), m_video, 0, m_options));
        m_transfer->start();
        QCOMPARE(m_outcomes, Outcomes{Transfer::Outcome::Failed});
    }

    void canceledBeforeTheStart()
    {
        takeVideo("/v", 4);
        m_transfer->cancel();
        QCOMPARE(m_outcomes, Outcomes());
        m_transfer->start();
        QCOMPARE(m_outcomes, Outcomes{Transfer::Outcome::Canceled});
        QVERIFY(m_server->requests().isEmpty());
        QVERIFY(!QFile::exists(m_video));
    }

    void canceledInBetween()
    {
        m_server->on("/v", heldReplyOf("body", 2));
        takeVideo("/v", 4);
        m_transfer->start();
        QVERIFY(reaches(m_video, 2));
        m_transfer->cancel();
        m_transfer->cancel();
        QCOMPARE(outcomes(), Outcomes{Transfer::Outcome::Canceled});
        QCOMPARE(readFile(m_video), QByteArray("bo"));
    }

    void canceledByAReceiverOfProgress()
    {
        HttpReply reply = heldReplyOf(QByteArray(100000, 'v'), 90000);
        reply.pieceBytes = 1000;
        reply.pieceDelayMs = 5;
        m_server->on("/v", reply);
        takeVideo("/v", 100000);
        connect(m_transfer.get(), &Transfer::progressed, m_transfer.get(), &Transfer::cancel);
        m_transfer->start();
        QCOMPARE(outcomes(), Outcomes{Transfer::Outcome::Canceled});
        QVERIFY(QFileInfo(m_video).size() > 0);
    }

    void canceledAfterTheEnd()
    {
        m_server->on("/t", replyOf("picture"));
        takeThumb("/t");
        m_transfer->start();
        QCOMPARE(outcomes(), Outcomes{Transfer::Outcome::Succeeded});
        m_transfer->cancel();
        m_transfer->start(); // only the first one counts
        QCOMPARE(outcomes(), Outcomes{Transfer::Outcome::Succeeded});
        QCOMPARE(readFile(m_thumb), QByteArray("picture"));
        QCOMPARE(m_server->requests().size(), 1);
    }

    void destroyedInBetween()
    {
        m_server->on("/t", heldReplyOf("picture", 2));
        takeThumb("/t");
        m_transfer->start();
        QVERIFY(reaches(m_thumb, 2));
        m_transfer.reset();
        QVERIFY(!QFile::exists(m_thumb));
        QCOMPARE(m_outcomes, Outcomes());
    }

    void destroyedByAReceiverOfTheEnd_data()
    {
        QTest::addColumn<bool>("isCanceled");
        QTest::newRow("that comes by itself") << false;
        QTest::newRow("that is asked for") << true;
    }

    void destroyedByAReceiverOfTheEnd()
    {
        QFETCH(bool, isCanceled);
        m_server->on("/v", isCanceled ? heldReplyOf("body", 2) : replyOf("body"));
        takeVideo("/v", 4);
        connect(m_transfer.get(), &Transfer::ended, this, [this] { m_transfer.reset(); });
        m_transfer->start();
        QVERIFY(reaches(m_video, 2));
        if (isCanceled)
            m_transfer->cancel();
        QCOMPARE(outcomes().size(), 1);
        QVERIFY(!m_transfer);
        QCOMPARE(readFile(m_video), QByteArray(isCanceled ? "bo" : "body"));
    }
};

CLIPWEIR_TEST_MAIN(tst_HttpTransfer)
#include "tst_httptransfer.moc"
