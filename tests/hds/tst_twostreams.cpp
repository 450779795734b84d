#include "AdobeDownloader.h"
#include "CookieStore.h"
#include "HdsFixtures.h"
#include "HdsSession.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QDir>
#include <QPointer>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <memory>

namespace {

QByteArray fragmentPath(int number)
{
    return "/dir/sSeg1-Frag" + QByteArray::number(number);
}

/// A server of a stream whose fragments differ from those of other streams by what fills them.
class StreamServer : public ScriptedServer
{
public:
    StreamServer(int fragmentCount, int paddingBytes)
        : m_paddingBytes(paddingBytes)
    {
        on("/dir/m.f4m", replyOf(hds::manifest("s", hds::simpleBootstrap(fragmentCount))));
        for (int n = 1; n <= fragmentCount; ++n)
            on(fragmentPath(n), replyOf(hds::numberedFragment(n, paddingBytes)));
    }

    /// The first fragment does not come before release().
    void holdFirst()
    {
        onRaw(fragmentPath(1),
              [this](const HttpRequest &, QTcpSocket *socket) { m_first = socket; });
    }

    void release()
    {
        const HttpReply reply = replyOf(hds::numberedFragment(1, m_paddingBytes));
        m_first->write(headOf(reply) + reply.body);
        m_first->disconnectFromHost();
    }

    [[nodiscard]] bool isFirstAsked() const { return !m_first.isNull(); }

private:
    int m_paddingBytes;
    QPointer<QTcpSocket> m_first;
};

/// One download with a session of its own, into a folder of its own.
struct Stream
{
    explicit Stream(const StreamServer &server, const QStringList &more)
    {
        session->options.parseParams(QStringList{QString(), QStringLiteral("--manifest"),
                                                 server.address("/dir/m.f4m"),
                                                 QStringLiteral("--outDir"), folder.path()}
                                     + more);
    }

    /// What lies in the folder besides the cache, by name: one file at most.
    [[nodiscard]] QStringList files() const
    {
        return QDir(folder.path()).entryList(QDir::Files, QDir::Name);
    }

    [[nodiscard]] QByteArray output() const
    {
        QFile file(folder.filePath(files().value(0)));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    [[nodiscard]] int cacheFiles() const
    {
        return QDir(folder.filePath(QStringLiteral("f4ftmp"))).entryList(QDir::Files).size();
    }

    /// The end's code; -99 when there is none.
    [[nodiscard]] int end()
    {
        const bool hasEnded = !ends.isEmpty() || ends.wait(60000);
        return hasEnded ? ends.constFirst().constFirst().toInt() : -99;
    }

    QTemporaryDir folder;
    std::shared_ptr<HdsSession> session = std::make_shared<HdsSession>();
    CAdobeDownloader downloader{session};
    QSignalSpy ends{&downloader, &CAdobeDownloader::finished};
};

const QStringList firstWishes{QStringLiteral("--outFile"),   QStringLiteral("first.flv"),
                              QStringLiteral("--auth"),      QStringLiteral("t=1"),
                              QStringLiteral("--pannel"),    QStringLiteral("3"),
                              QStringLiteral("--userAgent"), QStringLiteral("first")};
const QStringList secondWishes{QStringLiteral("--pannel"), QStringLiteral("2"),
                               QStringLiteral("--userAgent"), QStringLiteral("second"),
                               QStringLiteral("--delete")};

QString option(const HdsSession &session, const char *key)
{
    return const_cast<HdsSession &>(session).options.GetOption(QLatin1String(key)).toString();
}

} // namespace

/// Two streams that are downloaded at once in one process.
class tst_TwoStreams : public QObject
{
    Q_OBJECT

    static QByteArray singleRun(const StreamServer &server, const QStringList &wishes)
    {
        Stream stream(server, wishes);
        const bool isDone = stream.downloader.Download() && stream.end() == 1;
        return isDone ? stream.output() : QByteArray();
    }

private slots:
    void init() { CookieStore::instance().clear(); }

    void eachComesAsItDoesAlone()
    {
        StreamServer firstServer(30, 20000);
        StreamServer secondServer(12, 300);
        const QByteArray firstAlone = singleRun(firstServer, firstWishes);
        const QByteArray secondAlone = singleRun(secondServer, secondWishes);
        QVERIFY(firstAlone.size() > 30 * 20000 && !secondAlone.isEmpty());
        firstServer.clearRequests();
        secondServer.clearRequests();

        // Both are under way before either can write anything.
        firstServer.holdFirst();
        secondServer.holdFirst();
        Stream first(firstServer, firstWishes);
        Stream second(secondServer, secondWishes);
        QVERIFY(first.downloader.Download());
        QVERIFY(second.downloader.Download());
        QTRY_VERIFY(firstServer.isFirstAsked() && secondServer.isFirstAsked());
        QTRY_COMPARE(first.cacheFiles(), 29);
        QTRY_COMPARE(second.cacheFiles(), 11);
        secondServer.release();
        QCOMPARE(second.end(), 1);
        QVERIFY(first.ends.isEmpty());
        QVERIFY(first.files().isEmpty());
        firstServer.release();
        QCOMPARE(first.end(), 1);

        QVERIFY(first.output() == firstAlone);
        QVERIFY(second.output() == secondAlone);
        QCOMPARE(first.files(), QStringList{QStringLiteral("first.flv")});
        QCOMPARE(first.cacheFiles(), 30);
        QCOMPARE(second.cacheFiles(), 0);
        QVERIFY(firstServer.maxAtOnce() <= 3 && secondServer.maxAtOnce() <= 2);
        QCOMPARE(firstServer.requests().size(), 31);
        QCOMPARE(secondServer.requests().size(), 13);
        for (const HttpRequest &request : firstServer.requests()) {
            QCOMPARE(request.header("User-Agent"), QByteArray("first"));
            QVERIFY(request.target == "/dir/m.f4m" || request.target.endsWith("?t=1"));
        }
        for (const HttpRequest &request : secondServer.requests()) {
            QCOMPARE(request.header("User-Agent"), QByteArray("second"));
            QVERIFY(!request.target.contains('?'));
        }
    }

    void whatOneWritesIntoItsOptionsIsItsOwn()
    {
        StreamServer liveServer(1, 0);
        hds::Bootstrap live;
        live.isLive = true;
        live.segments = {{1, 5}};
        live.fragments = {{1, 0, 100}};
        liveServer.on("/dir/m.f4m", replyOf(hds::manifest("s", live.abst())));
        for (int n = 1; n <= 5; ++n)
            liveServer.on(fragmentPath(n), replyOf(hds::numberedFragment(n)));
        StreamServer server(3, 0);
        Stream first(liveServer, {});
        Stream second(server, {QStringLiteral("--outFile"), QStringLiteral("second.flv")});
        QVERIFY(first.downloader.Download());
        QVERIFY(second.downloader.Download());
        QCOMPARE(first.end(), 1);
        QCOMPARE(second.end(), 1);
        QCOMPARE(option(*first.session, "bLive"), QStringLiteral("true"));
        QCOMPARE(option(*first.session, "metadata"), QStringLiteral("false"));
        QCOMPARE(first.files(), QStringList{option(*first.session, "outFile")});
        QCOMPARE(option(*second.session, "bLive"), QStringLiteral("false"));
        QCOMPARE(option(*second.session, "metadata"), QStringLiteral("true"));
        QCOMPARE(second.files(), QStringList{QStringLiteral("second.flv")});

        const HdsSession &process = *HdsSession::ofProcess();
        QCOMPARE(CAdobePreference::GetInstance(), &process.options);
        QCOMPARE(CAdobeData::GetInstance(), &process.data);
        QCOMPARE(CAdobeOutputFile::GetInstance(), &process.output);
        for (const char *const key : {"manifest", "outFile"})
            QCOMPARE(option(process, key), QString());
        QCOMPARE(option(process, "bLive"), QStringLiteral("false"));
        QCOMPARE(process.data.GetFragCount(), 0);
    }

    void cancellingOneLeavesTheOtherAlone()
    {
        StreamServer firstServer(20, 5000);
        StreamServer secondServer(20, 700);
        const QByteArray secondAlone = singleRun(secondServer, secondWishes);
        firstServer.holdFirst();
        secondServer.holdFirst();
        Stream first(firstServer, firstWishes);
        Stream second(secondServer, secondWishes);
        QVERIFY(first.downloader.Download());
        QVERIFY(second.downloader.Download());
        QTRY_VERIFY(firstServer.isFirstAsked() && secondServer.isFirstAsked());
        first.downloader.Cancel();
        QCOMPARE(first.end(), -1);
        QVERIFY(second.ends.isEmpty());
        secondServer.release();
        QCOMPARE(second.end(), 1);
        QVERIFY(second.output() == secondAlone);
        QVERIFY(first.files().isEmpty());
    }

    void oneMayBeDestroyedWhileTheOtherReadsItsManifest()
    {
        StreamServer firstServer(20, 5000);
        firstServer.holdFirst();
        StreamServer secondServer(20, 700);
        const QByteArray secondAlone = singleRun(secondServer, secondWishes);
        auto first = std::make_unique<Stream>(firstServer, firstWishes);
        QVERIFY(first->downloader.Download());
        QTRY_VERIFY(firstServer.isFirstAsked());
        connect(&secondServer, &ScriptedServer::requestReceived, this, [&first] { first.reset(); });
        Stream second(secondServer, secondWishes);
        QVERIFY(second.downloader.Download());
        QVERIFY(!first);
        QCOMPARE(second.end(), 1);
        QVERIFY(second.output() == secondAlone);
    }
};

CLIPWEIR_TEST_MAIN(tst_TwoStreams)
#include "tst_twostreams.moc"
