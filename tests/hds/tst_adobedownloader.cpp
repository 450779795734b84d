#include "AdobeData.h"
#include "AdobeDownloadThread.h"
#include "AdobeOutputFile.h"
#include "AdobeUtils.h"
#include "CookieStore.h"
#include "HdsRun.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QEventLoop>
#include <QPointer>
#include <QRegularExpression>

namespace {

QByteArray fragmentPath(int number)
{
    return "/dir/sSeg1-Frag" + QByteArray::number(number);
}

/// A server of a manifest and its numbered fragments.
class StreamServer : public ScriptedServer
{
public:
    explicit StreamServer(int fragmentCount, int paddingBytes = 0)
        : m_count(fragmentCount)
    {
        on("/dir/m.f4m", replyOf(hds::manifest("s", hds::simpleBootstrap(fragmentCount))));
        for (int n = 1; n <= fragmentCount; ++n)
            on(fragmentPath(n), replyOf(hds::numberedFragment(n, paddingBytes)));
    }

    QString manifest() const { return address("/dir/m.f4m"); }

    /// The numbers of the fragments asked for, in the order of the requests.
    QList<int> fragmentsAsked() const
    {
        QList<int> numbers;
        for (const HttpRequest &request : requests()) {
            const int at = request.path().indexOf("-Frag");
            if (at >= 0)
                numbers += request.path().mid(at + 5).toInt();
        }
        return numbers;
    }

    QByteArrayList all() const { return contentsOf(numbersFrom(1, m_count)); }

private:
    int m_count;
};

/// Answers on a connection that has been held, and closes it.
void answer(QTcpSocket *socket, const QByteArray &body)
{
    socket->write(ScriptedServer::headOf(replyOf(body)) + body);
    socket->disconnectFromHost();
}

QList<int> sorted(QList<int> numbers)
{
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

} // namespace

class tst_AdobeDownloader : public QObject
{
    Q_OBJECT

private slots:
    void init() { CookieStore::instance().clear(); }

    void runsOfAnyLength_data()
    {
        QTest::addColumn<int>("fragments");
        QTest::addColumn<int>("pannel");
        for (const int fragments : {1, 2, 7, 8, 9, 10, 40}) {
            for (const int pannel : {1, 2, 8, 100}) {
                QTest::newRow(qPrintable(QStringLiteral("%1 by %2").arg(fragments).arg(pannel)))
                    << fragments << pannel;
            }
        }
    }

    void runsOfAnyLength()
    {
        QFETCH(int, fragments);
        QFETCH(int, pannel);
        StreamServer server(fragments);
        HdsRun run;
        const MessageCatcher catcher;
        QCOMPARE(run.run(server.manifest(), {QStringLiteral("--pannel"), QString::number(pannel)}),
                 1);
        QVERIFY(run.started);
        QCOMPARE(run.contents(), server.all());
        QVERIFY(server.maxAtOnce() <= pannel);
        QCOMPARE(sorted(server.fragmentsAsked()), numbersFrom(1, fragments));
        QCOMPARE(run.cacheFiles().size(), fragments);
        const QString size = QString::number(run.output().size());
        QCOMPARE(catcher.linesWith(QStringLiteral("downloaded:%1/%1").arg(size)),
                 QStringList{QStringLiteral("\"downloaded:%1/%1\" ").arg(size)});
        QVERIFY(catcher.lines().contains(QStringLiteral("\"downloaded:%1/%1\" ").arg(fragments)));
        QTest::qWait(0);
        QCOMPARE(run.ends->size(), 1);
    }

    void noMoreWorkersThanPlaces_data()
    {
        QTest::addColumn<int>("pannel");
        QTest::addColumn<int>("expected");
        QTest::newRow("1") << 1 << 1;
        QTest::newRow("3") << 3 << 3;
        QTest::newRow("8") << 8 << 8;
        QTest::newRow("none still goes on") << 0 << 1;
        QTest::newRow("negative") << -5 << 1;
    }

    void noMoreWorkersThanPlaces()
    {
        QFETCH(int, pannel);
        QFETCH(int, expected);
        StreamServer server(20);
        for (int n = 1; n <= 20; ++n) {
            HttpReply reply = replyOf(hds::numberedFragment(n));
            reply.delayMs = 30;
            server.on(fragmentPath(n), reply);
        }
        HdsRun run;
        QCOMPARE(run.run(server.manifest(), {QStringLiteral("--pannel"), QString::number(pannel)}),
                 1);
        QCOMPARE(server.maxAtOnce(), expected);
        QCOMPARE(run.contents(), server.all());
    }

    void eightStartAtOnce()
    {
        StreamServer server(10);
        for (int n = 1; n <= 10; ++n)
            server.hold(fragmentPath(n));
        HdsRun run;
        int active = 0;
        connect(run.downloader.get(), &CAdobeDownloader::AdobeActive, this,
                [&active](bool isActive) { active += isActive; });
        run.start(server.manifest());
        QVERIFY(active >= 8);
        QTRY_COMPARE(sorted(server.fragmentsAsked()), numbersFrom(1, 8));
        QCOMPARE(run.downloader->FindThreadIndex(8), 7);
        QCOMPARE(run.downloader->FindThreadIndex(9), -1);
        run.downloader->Cancel();
        QCOMPARE(run.wait(), -1);
        QCOMPARE(sorted(server.fragmentsAsked()), numbersFrom(1, 8));
    }

    void answersOutOfOrder()
    {
        // The first fragment is answered after all the others have been.
        StreamServer server(30);
        QPointer<QTcpSocket> first;
        server.onRaw(fragmentPath(1),
                     [&first](const HttpRequest &, QTcpSocket *socket) { first = socket; });
        HdsRun run;
        run.start(server.manifest());
        QTRY_COMPARE(sorted(server.fragmentsAsked()), numbersFrom(1, 30));
        QTRY_COMPARE(run.cacheFiles().size(), 29);
        QVERIFY(run.output().isEmpty());
        QVERIFY(run.ends->isEmpty());
        const QByteArray body = hds::numberedFragment(1);
        first->write("HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(body.size())
                     + "\r\n\r\n" + body);
        QCOMPARE(run.wait(), 1);
        QCOMPARE(run.contents(), server.all());
    }

    void fragmentsThatWaitAreLeftToTheCache()
    {
        constexpr int megabyte = 1024 * 1024;
        StreamServer server(100, megabyte);
        QPointer<QTcpSocket> first;
        server.onRaw(fragmentPath(1),
                     [&first](const HttpRequest &, QTcpSocket *socket) { first = socket; });
        HdsRun run;
        const MessageCatcher catcher;
        run.start(server.manifest());
        QTRY_COMPARE_WITH_TIMEOUT(run.cacheFiles().size(), 99, 60000);
        QVERIFY(CAdobeOutputFile::GetInstance()->HeldBytes() <= 64 * megabyte);
        const QByteArray body = hds::numberedFragment(1);
        first->write("HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(body.size())
                     + "\r\n\r\n" + body);
        QCOMPARE(run.wait(), 1);
        QCOMPARE(run.contents().size(), 200);
        QCOMPARE(run.output().size() / megabyte, 99);
    }

    void aFragmentWhoseCacheFileIsSpoiltIsFetchedAgain_data()
    {
        QTest::addColumn<QByteArray>("spoilt"); // what is left of the file
        QTest::addColumn<bool>("isThere");
        QTest::addColumn<bool>("comesAgain");
        QTest::addColumn<int>("result");
        const QByteArray whole = hds::numberedFragment(20);
        QTest::newRow("gone") << QByteArray() << false << true << 1;
        QTest::newRow("empty") << QByteArray() << true << true << 1;
        QTest::newRow("cut") << whole.left(whole.size() - 1) << true << true << 1;
        QTest::newRow("gone at the server, too") << QByteArray() << false << false << 0;
        QTest::newRow("cut, and gone at the server") << whole.left(40) << true << false << 0;
    }

    void aFragmentWhoseCacheFileIsSpoiltIsFetchedAgain()
    {
        QFETCH(QByteArray, spoilt);
        QFETCH(bool, isThere);
        QFETCH(bool, comesAgain);
        QFETCH(int, result);
        StreamServer server(30);
        int seen = 0;
        server.on(fragmentPath(20), [&seen, comesAgain](const HttpRequest &) {
            return ++seen == 1 || comesAgain ? replyOf(hds::numberedFragment(20))
                                             : replyOf("gone", 404);
        });
        QPointer<QTcpSocket> first;
        server.onRaw(fragmentPath(1),
                     [&first](const HttpRequest &, QTcpSocket *socket) { first = socket; });
        HdsRun run;
        run.downloader->SetMaxHeldBytes(0); // all that wait are left to their files
        run.start(server.manifest());
        QTRY_COMPARE(run.cacheFiles().size(), 29);
        QTRY_COMPARE(run.downloader->FindThreadIndex(30), -1);
        QCOMPARE(CAdobeOutputFile::GetInstance()->HeldBytes(), qint64(0));
        const QString path = run.path(QStringLiteral("f4ftmp/"))
            + run.cacheFiles().filter(QStringLiteral("Frag20")).constFirst();
        QVERIFY(QFile::remove(path));
        if (isThere)
            QVERIFY(CAdobeUtils::WriteFileContent(path, spoilt, false));
        answer(first, hds::numberedFragment(1));
        QCOMPARE(run.wait(), result);
        QCOMPARE(seen, comesAgain ? 2 : 32);
        QCOMPARE(run.contents(), result == 1 ? server.all() : contentsOf(numbersFrom(1, 19)));
        if (result == 1)
            QCOMPARE(QFileInfo(path).size(), qint64(hds::numberedFragment(20).size()));
    }

    void aLostCacheFolderCostsNothingButTheRequests()
    {
        StreamServer server(30);
        QPointer<QTcpSocket> first;
        server.onRaw(fragmentPath(1),
                     [&first](const HttpRequest &, QTcpSocket *socket) { first = socket; });
        HdsRun run;
        run.downloader->SetMaxHeldBytes(0);
        run.start(server.manifest());
        QTRY_COMPARE(run.cacheFiles().size(), 29);
        QTRY_COMPARE(run.downloader->FindThreadIndex(30), -1);
        QVERIFY(QDir(run.path(QStringLiteral("f4ftmp"))).removeRecursively());
        answer(first, hds::numberedFragment(1));
        QCOMPARE(run.wait(), 1);
        QCOMPARE(run.contents(), server.all());
        QCOMPARE(server.fragmentsAsked().size(), 30 + 29);
    }

    void cancelledWhileALostFragmentIsFetchedAgain()
    {
        StreamServer server(10);
        int seen = 0;
        server.onRaw(fragmentPath(5), [&seen](const HttpRequest &, QTcpSocket *socket) {
            if (++seen == 1)
                answer(socket, hds::numberedFragment(5));
        });
        QPointer<QTcpSocket> first;
        server.onRaw(fragmentPath(1),
                     [&first](const HttpRequest &, QTcpSocket *socket) { first = socket; });
        HdsRun run;
        run.downloader->SetMaxHeldBytes(0);
        run.start(server.manifest());
        QTRY_COMPARE(run.cacheFiles().size(), 9);
        QTRY_COMPARE(run.downloader->FindThreadIndex(10), -1);
        QVERIFY(QDir(run.path(QStringLiteral("f4ftmp"))).removeRecursively());
        answer(first, hds::numberedFragment(1));
        QTRY_COMPARE(seen, 2);
        run.downloader->Cancel();
        QCOMPARE(run.wait(), -1);
        QCOMPARE(run.contents(), contentsOf(numbersFrom(1, 4)));
    }

    void cachedFragmentsAreNotFetched()
    {
        StreamServer server(10);
        HdsRun run;
        QCOMPARE(run.run(server.manifest()), 1);
        const QStringList files = run.cacheFiles();
        QCOMPARE(files.size(), 10);
        QFile::remove(run.path(QStringLiteral("f4ftmp/") + files.at(4)));
        QFile empty(run.path(QStringLiteral("f4ftmp/") + files.at(5)));
        QVERIFY(empty.open(QIODevice::WriteOnly | QIODevice::Truncate));
        empty.close();
        server.clearRequests();
        run.makeDownloader();
        QCOMPARE(run.run(server.manifest()), 1);
        QCOMPARE(server.fragmentsAsked().size(), 2);
        QCOMPARE(run.contents(), server.all());
        QCOMPARE(run.cacheFiles(), files);
    }

    void cacheFileNames()
    {
        StreamServer server(2);
        HdsRun run;
        QCOMPARE(run.run(server.manifest() + QStringLiteral("?t=1")), 1);
        const QString stem = CAdobeUtils::GetMD5String(server.manifest());
        QCOMPARE(run.cacheFiles(),
                 (QStringList{stem + QStringLiteral("_sSeg1-Frag1"),
                              stem + QStringLiteral("_sSeg1-Frag2")}));
        QFile file(run.path(QStringLiteral("f4ftmp/") + run.cacheFiles().constFirst()));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), hds::numberedFragment(1));
    }

    void theCacheCanBeDeletedAtTheEnd()
    {
        StreamServer server(10);
        server.on(fragmentPath(4), replyOf("", 404)); // has no file
        HdsRun run;
        QCOMPARE(run.run(server.manifest(), {QStringLiteral("--delete")}), 1);
        QVERIFY(run.cacheFiles().isEmpty());
        QCOMPARE(run.contents().size(), 18);
    }

    void aFragmentThatComesAtTheLastAttempt_data()
    {
        QTest::addColumn<int>("failures");
        QTest::addColumn<int>("requests");
        QTest::addColumn<bool>("isThere");
        QTest::newRow("30 failures") << 30 << 31 << true;
        QTest::newRow("31 failures") << 31 << 31 << false;
    }

    void aFragmentThatComesAtTheLastAttempt()
    {
        QFETCH(int, failures);
        QFETCH(int, requests);
        QFETCH(bool, isThere);
        StreamServer server(4);
        int seen = 0;
        server.on(fragmentPath(2), [&seen, failures](const HttpRequest &) {
            return ++seen <= failures ? replyOf("busy", 503) : replyOf(hds::numberedFragment(2));
        });
        HdsRun run;
        QCOMPARE(run.run(server.manifest()), 1);
        QCOMPARE(server.requestsFor(fragmentPath(2)).size(), requests);
        QCOMPARE(run.contents(),
                 contentsOf(isThere ? QList<int>{1, 2, 3, 4} : QList<int>{1, 3, 4}));
        QCOMPARE(run.cacheFiles().size(), isThere ? 4 : 3);
    }

    void faultsOfOneAnswer_data()
    {
        QTest::addColumn<QByteArray>("answer"); // the first one; the next is sound
        const QByteArray body = hds::numberedFragment(2);
        const QByteArray length = QByteArray::number(body.size());
        const QByteArray head = "HTTP/1.1 200 OK\r\nContent-Length: " + length + "\r\n\r\n";
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("half a head") << head.left(20);
        QTest::newRow("no body") << head;
        QTest::newRow("half a body") << head + body.left(body.size() / 2);
        QTest::newRow("one byte less") << head + body.left(body.size() - 1);
        QTest::newRow("empty") << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
        QTest::newRow("half a chunk")
            << QByteArray("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
                + QByteArray::number(body.size(), 16) + "\r\n" + body.left(body.size() - 1);
        QTest::newRow("open end") << QByteArray("HTTP/1.1 200 OK\r\n\r\n")
                + body.left(body.size() - 1);
        QTest::newRow("partial content")
            << QByteArray("HTTP/1.1 206 Partial\r\nContent-Length: " + length + "\r\n\r\n") + body;
        QTest::newRow("not found")
            << QByteArray("HTTP/1.1 404 No\r\nContent-Length: " + length + "\r\n\r\n") + body;
        QTest::newRow("no HTTP") << QByteArray(2000, 'x');
    }

    void faultsOfOneAnswer()
    {
        QFETCH(QByteArray, answer);
        StreamServer server(3);
        int seen = 0;
        server.onRaw(fragmentPath(2), [&](const HttpRequest &, QTcpSocket *socket) {
            const QByteArray body = hds::numberedFragment(2);
            socket->write(++seen == 1 ? answer
                                      : "HTTP/1.1 200 OK\r\nContent-Length: "
                                  + QByteArray::number(body.size()) + "\r\n\r\n" + body);
            socket->disconnectFromHost();
        });
        HdsRun run;
        QCOMPARE(run.run(server.manifest()), 1);
        QVERIFY(seen >= 2);
        QCOMPARE(run.contents(), server.all());
        QCOMPARE(run.cacheFiles().size(), 3);
    }

    void whatIsNeverCompleteIsUsedButNotCached()
    {
        StreamServer server(3);
        const QByteArray cut =
            hds::fragment(hds::audioTag(100, "whole") + hds::audioTag(123, "cut"));
        server.onRaw(fragmentPath(2), [cut](const HttpRequest &, QTcpSocket *socket) {
            socket->write("HTTP/1.1 200 OK\r\n\r\n" + cut.left(cut.size() - 5));
            socket->disconnectFromHost();
        });
        HdsRun run;
        const MessageCatcher catcher;
        QCOMPARE(run.run(server.manifest()), 1);
        QCOMPARE(run.contents(), (QByteArrayList{"a1", "v1", "whole", "a3", "v3"}));
        QCOMPARE(run.cacheFiles().size(), 2);
        // Of its own accord the network library repeats a request whose connection is closed early,
        // so attempts are counted on this side.
        // The same twice is enough.
        QCOMPARE(catcher.linesWith(QStringLiteral("Frag2\"")).size(), 2);
    }

    void whatNeverComesTwiceTheSameIsFetchedToTheLastAttempt()
    {
        StreamServer server(3);
        const QByteArray body =
            hds::fragment(hds::audioTag(100, "whole") + hds::audioTag(123, QByteArray(100, 'x')));
        int seen = 0;
        server.on(fragmentPath(2), [&seen, body](const HttpRequest &) {
            return chunkedReplyOf(body.left(body.size() - 80 + ++seen));
        });
        HdsRun run;
        QCOMPARE(run.run(server.manifest()), 1);
        QCOMPARE(seen, 31);
        QCOMPARE(run.contents(), (QByteArrayList{"a1", "v1", "whole", "a3", "v3"}));
        QCOMPARE(run.cacheFiles().size(), 2);
    }

    void whatComesShorterInBetweenIsNotTheSame()
    {
        StreamServer server(3);
        const QByteArray body = hds::fragment(hds::audioTag(100, "one") + hds::audioTag(123, "two")
                                              + hds::audioTag(146, "three"));
        int seen = 0;
        server.on(fragmentPath(2), [&seen, body](const HttpRequest &) {
            static const int cuts[] = {60, 5, 60, 40, 5};
            return chunkedReplyOf(body.left(body.size() - cuts[qMin(seen++, 4)]));
        });
        HdsRun run;
        QCOMPARE(run.run(server.manifest()), 1);
        QCOMPARE(seen, 5);
        QCOMPARE(run.contents(), (QByteArrayList{"a1", "v1", "one", "two", "a3", "v3"}));
    }

    void anEmptyBodyIsNoAnswer()
    {
        StreamServer server(3);
        server.on(fragmentPath(2), chunkedReplyOf(QByteArray()));
        HdsRun run;
        QCOMPARE(run.run(server.manifest()), 1);
        QCOMPARE(server.requestsFor(fragmentPath(2)).size(), 31);
        QCOMPARE(run.contents(), contentsOf({1, 3}));
    }

    void truncatedAndOddFragments_data()
    {
        QTest::addColumn<QByteArray>("fragment");
        QTest::addColumn<QByteArrayList>("contents");
        const QByteArray tags = hds::audioTag(100, "a2") + hds::videoTag(140, "v2");
        const QByteArray whole = hds::fragment(tags);
        QTest::newRow("cut") << whole.left(whole.size() - 7) << QByteArrayList{"a2"};
        QTest::newRow("mdat of size 0")
            << QByteArray("\0\0\0\0mdat", 8) + tags << QByteArrayList{"a2", "v2"};
        QTest::newRow("mdat too small")
            << QByteArray("\0\0\0\x28mdat", 8) + tags << QByteArrayList{"a2"};
        QTest::newRow("mdat past the end")
            << QByteArray("\x7f\xff\xff\xffmdat", 8) + tags << QByteArrayList{"a2", "v2"};
        QTest::newRow("64-bit mdat")
            << hds::box("moof", "x") + hds::largeBox("mdat", tags) << QByteArrayList{"a2", "v2"};
        QTest::newRow("no mdat") << hds::box("moof", "x") << QByteArrayList{};
        QTest::newRow("junk") << QByteArray(5000, '\xff') << QByteArrayList{};
    }

    void truncatedAndOddFragments()
    {
        QFETCH(QByteArray, fragment);
        QFETCH(QByteArrayList, contents);
        StreamServer server(3);
        server.on(fragmentPath(2), replyOf(fragment));
        HdsRun run;
        QCOMPARE(run.run(server.manifest()), 1);
        QCOMPARE(run.contents(),
                 QByteArrayList({"a1", "v1"}) + contents + QByteArrayList({"a3", "v3"}));
        QCOMPARE(server.requestsFor(fragmentPath(2)).size(), 1);
    }

    void aStreamWithoutMediaFails_data()
    {
        QTest::addColumn<QByteArray>("fragment");
        QTest::newRow("none comes") << QByteArray();
        QTest::newRow("no boxes") << QByteArray(5000, 'x');
        QTest::newRow("script data only") << hds::fragment(hds::tag(18, 0, "data"));
        QTest::newRow("encrypted")
            << hds::fragment(hds::tag(0x28, 0, "sound") + hds::tag(0x29, 0, "picture"));
        QTest::newRow("no tags") << hds::fragment(QByteArray());
    }

    void aStreamWithoutMediaFails()
    {
        QFETCH(QByteArray, fragment);
        StreamServer server(3);
        for (int n = 1; n <= 3; ++n)
            server.on(fragmentPath(n), replyOf(fragment, fragment.isEmpty() ? 404 : 200));
        server.on("/dir/m.f4m", replyOf(hds::manifest("s", hds::simpleBootstrap(3), "metadata")));
        HdsRun run;
        const MessageCatcher catcher;
        QTest::ignoreMessage(
            QtWarningMsg,
            QRegularExpression(QStringLiteral("out.flv holds no sound and no picture$")));
        QCOMPARE(run.run(server.manifest()), 0);
        QVERIFY(catcher.linesWith(QStringLiteral("downloaded:3/3")).size() == 1);
        const QString size = QString::number(run.output().size());
        QVERIFY(catcher.linesWith(QStringLiteral("downloaded:%1/%1").arg(size)).isEmpty());
        QCOMPARE(run.cacheFiles().size(), fragment.isEmpty() ? 0 : 3);
    }

    void oneMediaTagIsEnough()
    {
        StreamServer server(3);
        for (int n = 1; n <= 3; ++n)
            server.on(fragmentPath(n), replyOf("", 404));
        server.on(fragmentPath(2), replyOf(hds::fragment(hds::audioTag(0, "only"))));
        HdsRun run;
        QCOMPARE(run.run(server.manifest()), 1);
        QCOMPARE(run.contents(), QByteArrayList{"only"});
    }

    void redirects_data()
    {
        QTest::addColumn<int>("redirects");
        QTest::addColumn<bool>("isThere");
        QTest::newRow("one") << 1 << true;
        QTest::newRow("four") << 4 << true;
        QTest::newRow("five") << 5 << false;
    }

    void redirects()
    {
        QFETCH(int, redirects);
        QFETCH(bool, isThere);
        StreamServer server(2);
        for (int i = 0; i < redirects; ++i) {
            HttpReply reply = replyOf("moved", 302);
            reply.headers = {{"Location", "/r" + QByteArray::number(i + 1)}};
            server.on(i == 0 ? fragmentPath(2) : "/r" + QByteArray::number(i), reply);
        }
        server.on("/r" + QByteArray::number(redirects), replyOf(hds::numberedFragment(2)));
        HdsRun run;
        QCOMPARE(run.run(server.manifest()), 1);
        QCOMPARE(run.contents(), contentsOf(isThere ? QList<int>{1, 2} : QList<int>{1}));
        QCOMPARE(server.requestsFor(fragmentPath(2)).size(), isThere ? 1 : 31);
    }

    void unusableManifests_data()
    {
        QTest::addColumn<QByteArray>("manifest");
        QTest::newRow("none") << QByteArray();
        QTest::newRow("no manifest") << QByteArray("<html/>");
        QTest::newRow("no bootstrap") << hds::manifest("s", QByteArray());
        hds::Bootstrap empty;
        empty.fragments = {{1, 0, 100}};
        QTest::newRow("no fragments") << hds::manifest("s", empty.abst());
    }

    void unusableManifests()
    {
        QFETCH(QByteArray, manifest);
        ScriptedServer server;
        if (!manifest.isEmpty())
            server.on("/dir/m.f4m", replyOf(manifest));
        HdsRun run;
        run.start(server.address("/dir/m.f4m"));
        QVERIFY(!run.started);
        QCOMPARE(run.ends->size(), 1);
        QCOMPARE(run.wait(), 0);
        QTest::qWait(0);
        QCOMPARE(run.ends->size(), 1);
        QVERIFY(!QFile::exists(run.path(QStringLiteral("out.flv"))));
    }

    void startsWhereTheTableStarts()
    {
        ScriptedServer server;
        hds::Bootstrap bootstrap;
        bootstrap.segments = {{1, 5}};
        bootstrap.fragments = {{101, 0, 100}};
        server.on("/dir/m.f4m", replyOf(hds::manifest("s", bootstrap.abst())));
        server.onOther([](const HttpRequest &request) {
            return replyOf(hds::numberedFragment(request.path().split('g').constLast().toInt()));
        });
        HdsRun run;
        QCOMPARE(run.run(server.address("/dir/m.f4m")), 1);
        QCOMPARE(server.requests().size(), 6);
        QCOMPARE(run.contents(), contentsOf(numbersFrom(101, 105)));
    }

    void aLiveStreamStartsNearItsEdge()
    {
        ScriptedServer server;
        hds::Bootstrap bootstrap;
        bootstrap.isLive = true;
        bootstrap.segments = {{1, 120}};
        bootstrap.fragments = {{1, 0, 100}};
        server.on("/dir/m.f4m", replyOf(hds::manifest("s", bootstrap.abst(), "metadata")));
        server.onOther([](const HttpRequest &request) {
            return replyOf(hds::numberedFragment(request.path().split('g').constLast().toInt()));
        });
        HdsRun run;
        QCOMPARE(run.run(server.address("/dir/m.f4m")), 1);
        QCOMPARE(server.requests().size(), 3);
        QCOMPARE(run.contents(), contentsOf({119, 120}));
        QString error;
        QCOMPARE(hds::readFlv(run.output(), error).size(), 4); // and no metadata
    }

    void fragmentsOfSeveralSegments()
    {
        ScriptedServer server;
        hds::Bootstrap bootstrap;
        bootstrap.segments = {{1, 3}, {2, 3}};
        bootstrap.fragments = {{1, 0, 100}};
        server.on("/dir/m.f4m", replyOf(hds::manifest("s", bootstrap.abst())));
        for (int n = 1; n <= 6; ++n) {
            server.on("/dir/sSeg" + QByteArray::number(n <= 3 ? 1 : 2) + "-Frag"
                          + QByteArray::number(n),
                      replyOf(hds::numberedFragment(n)));
        }
        HdsRun run;
        QCOMPARE(run.run(server.address("/dir/m.f4m")), 1);
        QCOMPARE(run.contents(), contentsOf(numbersFrom(1, 6)));
    }

    void authGoesWithEveryFragment()
    {
        StreamServer server(3);
        HdsRun run;
        QCOMPARE(run.run(server.manifest() + QStringLiteral("?token=a%2Bb%2525"),
                         {QStringLiteral("--auth"), QStringLiteral("token=a%2Bb%2525")}),
                 1);
        QCOMPARE(run.contents(), server.all());
        for (int n = 1; n <= 3; ++n) {
            QCOMPARE(server.requestsFor(fragmentPath(n)).constFirst().target,
                     fragmentPath(n) + "?token=a%2Bb%2525");
        }
    }

    void cookiesReachManifestAndFragments()
    {
        StreamServer server(2);
        QNetworkCookie cookie("sid", "7");
        cookie.setDomain(QStringLiteral("127.0.0.1"));
        cookie.setPath(QStringLiteral("/"));
        HdsRun run;
        CookieStore::instance().insert(cookie);
        QCOMPARE(run.run(server.manifest()), 1);
        QCOMPARE(server.requests().size(), 3);
        for (const HttpRequest &request : server.requests())
            QCOMPARE(request.header("Cookie"), QByteArray("sid=7"));
    }

    void metadataIsWritten()
    {
        StreamServer server(1);
        server.on("/dir/m.f4m",
                  replyOf(hds::manifest("s", hds::simpleBootstrap(1), "the metadata")));
        HdsRun run;
        QCOMPARE(run.run(server.manifest()), 1);
        QString error;
        const auto tags = hds::readFlv(run.output(), error);
        QCOMPARE(tags.size(), 3);
        QCOMPARE(tags.constFirst().data, QByteArray("the metadata"));
    }

    void anOutputThatCannotBeWritten_data()
    {
        QTest::addColumn<QString>("target");
        QTest::newRow("no such folder") << QStringLiteral("/nonexistent/folder/file");
        QTest::newRow("full") << QStringLiteral("/dev/full");
    }

    void anOutputThatCannotBeWritten()
    {
        QFETCH(QString, target);
        StreamServer server(40);
        server.hold(fragmentPath(3)); // a worker is still busy when the write fails
        HdsRun run;
        QVERIFY(QFile::link(target, run.path(QStringLiteral("out.flv"))));
        QCOMPARE(run.run(server.manifest()), 0);
        QTest::qWait(0);
        QCOMPARE(run.ends->size(), 1);
    }

    void withoutACacheFolderTheRunGoesOn()
    {
        StreamServer server(20);
        HdsRun run;
        QFile file(run.path(QStringLiteral("f4ftmp")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();
        QCOMPARE(run.run(server.manifest(), {QStringLiteral("--delete")}), 1);
        QVERIFY(!run.downloader->MakeOutDir());
        QCOMPARE(run.contents(), server.all());
    }

    void noHalfFragmentIsLeftInTheCache()
    {
        StreamServer server(20, 100000);
        server.hold(fragmentPath(10));
        HdsRun run;
        run.start(server.manifest());
        QTRY_VERIFY(run.cacheFiles().size() > 3);
        run.downloader->Cancel();
        QCOMPARE(run.wait(), -1);
        const QString folder = run.path(QStringLiteral("f4ftmp/"));
        for (const QString &name : run.cacheFiles()) {
            const int number = name.mid(name.lastIndexOf(QLatin1Char('g')) + 1).toInt();
            QCOMPARE(QFileInfo(folder + name).size(),
                     qint64(hds::numberedFragment(number, 100000).size()));
        }
        StreamServer sound(20, 100000);
        run.makeDownloader();
        QCOMPARE(run.run(sound.manifest()), 1);
        QCOMPARE(run.contents().size(), 40);
    }

    void cancelAtAnyAnswer_data()
    {
        QTest::addColumn<int>("requests"); // are let through before the cancel
        for (const int requests : {1, 2, 5, 9, 10, 15, 20, 21})
            QTest::newRow(qPrintable(QString::number(requests))) << requests;
    }

    void cancelAtAnyAnswer()
    {
        QFETCH(int, requests);
        StreamServer server(20);
        HdsRun run;
        int seen = 0;
        connect(&server, &ScriptedServer::requestReceived, this, [&] {
            if (++seen == requests)
                run.downloader->Cancel();
        });
        run.start(server.manifest());
        QCOMPARE(run.wait(), -1);
        QTest::qWait(20);
        QCOMPARE(run.ends->size(), 1);
        // What was on its way at the cancel may still arrive; nothing new is started.
        QVERIFY(server.requests().size() <= requests + 8);
    }

    void cancelWhileEveryAnswerIsHeld()
    {
        StreamServer server(20);
        for (int n = 1; n <= 20; ++n)
            server.hold(fragmentPath(n));
        HdsRun run;
        run.start(server.manifest());
        QTRY_COMPARE(server.fragmentsAsked().size(), 8);
        run.downloader->Cancel();
        run.downloader->Cancel();
        QVERIFY(run.ends->isEmpty()); // not from inside the call
        QCOMPARE(run.wait(20000), -1); // well before the server counts as silent
        QCOMPARE(run.ends->size(), 1);
    }

    void cancelWhileTheManifestIsHeld()
    {
        ScriptedServer server;
        server.hold("/dir/m.f4m");
        HdsRun run;
        connect(&server, &ScriptedServer::requestReceived, run.downloader.get(),
                &CAdobeDownloader::Cancel, Qt::QueuedConnection);
        run.start(server.address("/dir/m.f4m"));
        QVERIFY(!run.started);
        QCOMPARE(run.wait(), -1);
        QCOMPARE(run.ends->size(), 1);
    }

    void cancelFromActiveSignals_data()
    {
        QTest::addColumn<int>("ticks");
        for (const int count : {1, 2, 8, 9, 10, 15, 20, 25, 30, 40, 50, 60})
            QTest::newRow(qPrintable(QString::number(count))) << count;
    }

    void cancelFromActiveSignals()
    {
        QFETCH(int, ticks);
        StreamServer server(20);
        HdsRun run;
        int seen = 0;
        connect(run.downloader.get(), &CAdobeDownloader::AdobeActive, this, [&] {
            if (++seen == ticks)
                run.downloader->Cancel();
        });
        run.start(server.manifest(), {QStringLiteral("--delete")});
        const int result = run.wait();
        QVERIFY(result == -1 || (result == 1 && seen < ticks));
        QTest::qWait(0);
        QCOMPARE(run.ends->size(), 1);
    }

    void aWaitingRunStillGivesNotice()
    {
        ScriptedServer server;
        server.hold("/dir/m.f4m");
        HdsRun run;
        int seen = 0;
        connect(run.downloader.get(), &CAdobeDownloader::AdobeActive, this, [&] {
            if (++seen == 3)
                run.downloader->Cancel();
        });
        run.start(server.address("/dir/m.f4m"));
        QCOMPARE(run.wait(), -1);
        QCOMPARE(seen, 3);
    }

    void cancelBeforeAndAfter()
    {
        StreamServer server(2);
        HdsRun run;
        run.downloader->Cancel();
        QVERIFY(run.ends->isEmpty());
        run.start(server.manifest());
        QVERIFY(!run.started);
        QCOMPARE(run.wait(), -1);
        QVERIFY(server.requests().isEmpty());

        run.makeDownloader();
        QCOMPARE(run.run(server.manifest()), 1);
        run.downloader->Cancel();
        run.downloader->Abort();
        QTest::qWait(20);
        QCOMPARE(run.ends->size(), 1);
    }

    void abortEndsTheRunToo()
    {
        StreamServer server(20);
        for (int n = 1; n <= 20; ++n)
            server.hold(fragmentPath(n));
        HdsRun run;
        run.start(server.manifest());
        QTRY_COMPARE(server.fragmentsAsked().size(), 8);
        run.downloader->Abort();
        QCOMPARE(run.wait(), -1);
    }

    void cancelledWorkersReport()
    {
        ScriptedServer server;
        server.hold("/dir/sSeg1-Frag5");
        HdsRun run;
        CAdobePreference::GetInstance()->SetOption(QStringLiteral("outDir"), run.path(QString()));
        CAdobePreference::GetInstance()->SetOption(QStringLiteral("manifest"),
                                                   server.address("/dir/m.f4m"));
        CAdobeData::GetInstance()->Reset();
        CAdobeData::GetInstance()->SetMedia({{QStringLiteral("url"), QStringLiteral("s")}});
        CAdobeData::GetInstance()->SetSegmentTable({QVariantMap{
            {QStringLiteral("firstSegment"), 1}, {QStringLiteral("fragmentsPerSegment"), 9}}});
        CAdobeDownloadThread worker;
        QList<int> cancelled; // a spy would write on the worker's thread
        connect(&worker, &CAdobeDownloadThread::CancleFragment, this,
                [&cancelled](int fragNum) { cancelled += fragNum; });
        worker.setFragNum(5);
        QCOMPARE(worker.GetFragNum(), 5);
        worker.start();
        QTRY_COMPARE(server.requests().size(), 1);
        worker.Cancel();
        QTRY_VERIFY(worker.isFinished());
        QTRY_COMPARE(cancelled, QList<int>{5});
        QVERIFY(worker.GetFragUrlContent().isEmpty());
        QVERIFY(!worker.IsCached());

        CAdobeDownloadThread late;
        connect(&late, &CAdobeDownloadThread::CancleFragment, this,
                [&cancelled](int fragNum) { cancelled += fragNum; });
        late.setFragNum(6);
        late.Cancel();
        late.start();
        QTRY_COMPARE(cancelled, (QList<int>{5, 6}));
        QVERIFY(late.wait());
        QCOMPARE(server.requests().size(), 1);
    }

    void destroyedAtAnyMoment_data()
    {
        QTest::addColumn<int>("requests");
        for (const int requests : {2, 5, 9, 12, 20})
            QTest::newRow(qPrintable(QString::number(requests))) << requests;
    }

    void destroyedAtAnyMoment()
    {
        QFETCH(int, requests);
        StreamServer server(40);
        server.hold(fragmentPath(30));
        HdsRun run;
        run.start(server.manifest());
        QTRY_VERIFY(server.requests().size() >= requests);
        run.downloader.reset();
        QTest::qWait(0);
        QVERIFY(run.ends->isEmpty());
    }

    void destroyedWhileTheManifestIsHeld()
    {
        ScriptedServer server;
        server.hold("/dir/m.f4m");
        HdsRun run;
        auto *downloader = new CAdobeDownloader(this);
        CAdobePreference::GetInstance()->parseParams(
            {QStringLiteral("x"), QStringLiteral("--manifest"), server.address("/dir/m.f4m"),
             QStringLiteral("--outDir"), run.path(QString())});
        connect(&server, &ScriptedServer::requestReceived, this, [downloader] {
            delete downloader; // while Download() waits below
        });
        QVERIFY(!downloader->Download());
    }

    void destroyedInTheEndSignal()
    {
        StreamServer server(3);
        HdsRun run;
        auto *downloader = new CAdobeDownloader(this);
        const QPointer<CAdobeDownloader> guarded(downloader);
        CAdobePreference::GetInstance()->parseParams(
            {QStringLiteral("x"), QStringLiteral("--manifest"), server.manifest(),
             QStringLiteral("--outDir"), run.path(QString())});
        connect(downloader, &CAdobeDownloader::finished, this, [downloader] { delete downloader; });
        QVERIFY(downloader->Download());
        QTRY_VERIFY(guarded.isNull());
    }

    void anEventLoopInsideAnActiveSignal()
    {
        StreamServer server(20);
        HdsRun run;
        connect(run.downloader.get(), &CAdobeDownloader::AdobeActive, this, [] {
            QEventLoop loop;
            QTimer::singleShot(1, &loop, &QEventLoop::quit);
            loop.exec();
        });
        QCOMPARE(run.run(server.manifest()), 1);
        QCOMPARE(run.contents(), server.all());
    }

    void aDownloaderDoesOneRun()
    {
        StreamServer server(5);
        HdsRun run;
        run.start(server.manifest());
        QVERIFY(!run.downloader->Download()); // while it runs
        QCOMPARE(run.wait(), 1);
        QVERIFY(!run.downloader->Download());
        QTest::qWait(20);
        QCOMPARE(run.ends->size(), 1);
        QCOMPARE(server.requestsFor("/dir/m.f4m").size(), 1);
    }

    void aSecondRunIsNotMixedWithTheFirst()
    {
        StreamServer first(6);
        HdsRun run;
        QCOMPARE(run.run(first.manifest()), 1);
        QCOMPARE(run.contents(), first.all());
        StreamServer second(3);
        run.makeDownloader();
        QCOMPARE(run.run(second.manifest()), 1);
        QCOMPARE(run.contents(), second.all());
    }
};

CLIPWEIR_TEST_MAIN(tst_AdobeDownloader)
#include "tst_adobedownloader.moc"
