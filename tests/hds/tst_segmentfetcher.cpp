#include "CookieStore.h"
#include "ScriptedServer.h"
#include "SegmentFetcher.h"
#include "SegmentSink.h"
#include "SegmentSource.h"
#include "SegmentWorker.h"
#include "TestMain.h"

#include <QDir>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <atomic>
#include <memory>

namespace {

/// A stream of so many segments, from any number on, that may grow.
class TestSource : public SegmentSource
{
public:
    qint64 first() const override { return firstNumber; }
    qint64 last() const override { return lastNumber; }
    bool isEnded() const override { return hasEnded; }

    Segment segment(qint64 number) const override
    {
        Segment segment;
        segment.number = number;
        segment.address = address + QString::number(number);
        if (!cacheFolder.isEmpty())
            segment.cacheFile = cacheFolder + QLatin1Char('/') + QString::number(number);
        if (change)
            change(segment);
        return segment;
    }

    void grow(qint64 newLast, bool isLast)
    {
        lastNumber = newLast;
        hasEnded = isLast;
        emit changed();
    }

    qint64 firstNumber = 1;
    qint64 lastNumber = 0;
    bool hasEnded = true;
    QString address; ///< without the number
    QString cacheFolder; ///< empty for none
    std::function<void(Segment &)> change;
};

/// Writes the segments as they are, one after the other, with a mark for one that never came.
class TestSink : public SegmentSink
{
public:
    explicit TestSink(const QString &path)
        : m_path(path)
    {
    }

    ~TestSink() override { end(); }

    QString path() const override { return m_path; }

    QByteArray content() const
    {
        QFile file(m_path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private:
    void reset() override { ++resets; }
    bool writeHead() override { return writeBytes("<"); }
    bool writeSegment(qint64, QByteArray &content) override
    {
        return writeBytes(content.isEmpty() ? QByteArray("-") : content);
    }

    QString m_path;

public:
    int resets = 0;
};

/// Asks for a segment as a small client does.
SegmentWorker::Answer get(const Segment &segment, const QByteArray &, const StopFlag &stop)
{
    QNetworkAccessManager manager;
    QNetworkRequest request{QUrl(segment.address)};
    if (segment.byteCount > 0) {
        const qint64 end = segment.firstByte + segment.byteCount - 1;
        request.setRawHeader("Range",
                             QByteArrayLiteral("bytes=") + QByteArray::number(segment.firstByte)
                                 + '-' + QByteArray::number(end));
    }
    const std::unique_ptr<QNetworkReply> reply(manager.get(request));
    QEventLoop loop;
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, reply.get(), [&] {
        if (stop.isRaised())
            reply->abort();
    });
    watch.start(10);
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    return {reply->isOpen() ? reply->readAll() : QByteArray(),
            reply->error() == QNetworkReply::NoError,
            reply->header(QNetworkRequest::ContentLengthHeader).isValid()};
}

QByteArray pathOf(int number)
{
    return "/s" + QByteArray::number(number);
}

QByteArray bodyOf(int number)
{
    return "[" + QByteArray::number(number) + "]";
}

/// The file of the segments from one number to another.
QByteArray fileOf(int first, int last)
{
    QByteArray file("<");
    for (int n = first; n <= last; ++n)
        file += bodyOf(n);
    return file;
}

} // namespace

class tst_SegmentFetcher : public QObject
{
    Q_OBJECT

    /// One stream of one server.
    struct Stream
    {
        explicit Stream(int last)
        {
            for (int n = 1; n <= last; ++n)
                server.on(pathOf(n), replyOf(bodyOf(n)));
            source.lastNumber = last;
            source.address = server.address("/s");
            source.cacheFolder = folder.filePath(QStringLiteral("cache"));
            QDir().mkpath(source.cacheFolder);
            makeFetcher();
        }

        /// A new fetcher of the same stream.
        void makeFetcher()
        {
            ends.clear();
            fetcher = std::make_unique<SegmentFetcher>(
                source, sink, [](QObject *parent) { return new SegmentWorker(get, parent); });
            connect(fetcher.get(), &SegmentFetcher::ended, fetcher.get(),
                    [this](Transfer::Outcome outcome) { ends += outcome; });
        }

        QStringList cacheFiles() const
        {
            return QDir(source.cacheFolder).entryList(QDir::Files, QDir::Name);
        }

        /// A server that keeps the first segment back until release().
        void holdFirst()
        {
            server.onRaw(pathOf(1),
                         [this](const HttpRequest &, QTcpSocket *socket) { first = socket; });
        }

        void release()
        {
            first->write(ScriptedServer::headOf(replyOf(bodyOf(1))) + bodyOf(1));
            first->disconnectFromHost();
        }

        Transfer::Outcome end()
        {
            // An event loop, not QTest::qWaitFor(): that sleeps in between, and the server lives on
            // this thread.
            if (ends.isEmpty())
                QSignalSpy(fetcher.get(), &SegmentFetcher::ended).wait(60000);
            return ends.value(0, Transfer::Outcome(-99));
        }

        QTemporaryDir folder;
        ScriptedServer server;
        QPointer<QTcpSocket> first;
        TestSource source;
        TestSink sink{folder.filePath(QStringLiteral("out"))};
        std::unique_ptr<SegmentFetcher> fetcher;
        QList<Transfer::Outcome> ends;
    };

private slots:
    void initTestCase() { qRegisterMetaType<Transfer::Outcome>("Transfer::Outcome"); }

    void segmentsBecomeAFileInTheirOrder()
    {
        Stream stream(30);
        stream.holdFirst();
        QVERIFY(stream.fetcher->start());
        QTRY_COMPARE(stream.cacheFiles().size(), 29);
        QVERIFY(stream.sink.content().isEmpty());
        stream.release();
        QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(stream.sink.content(), fileOf(1, 30));
        QCOMPARE(stream.server.requests().size(), 30);
        QCOMPARE(stream.sink.resets, 1);
        stream.fetcher->cancel();
        QVERIFY(!stream.fetcher->start());
        QTest::qWait(0);
        QCOMPARE(stream.ends.size(), 1);
    }

    void numbersBeginAnywhere()
    {
        constexpr qint64 farOff = Q_INT64_C(1700000000000);
        Stream stream(0);
        stream.server.onOther([](const HttpRequest &request) { return replyOf(request.path()); });
        stream.source.firstNumber = farOff;
        stream.source.lastNumber = farOff + 2;
        QVERIFY(stream.fetcher->start());
        QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(stream.sink.content(),
                 QByteArray("</s1700000000000/s1700000000001/s1700000000002"));
    }

    void noMoreWorkersThanPlaces_data()
    {
        QTest::addColumn<int>("places");
        QTest::addColumn<int>("expected");
        QTest::newRow("1") << 1 << 1;
        QTest::newRow("3") << 3 << 3;
        QTest::newRow("none") << 0 << 1;
        QTest::newRow("too many") << 1000 << 64;
    }

    void noMoreWorkersThanPlaces()
    {
        QFETCH(int, places);
        QFETCH(int, expected);
        Stream stream(0);
        stream.source.lastNumber = 70;
        for (int n = 1; n <= 70; ++n)
            stream.server.hold(pathOf(n));
        stream.fetcher->setPlaces(places);
        QVERIFY(stream.fetcher->start());
        QCOMPARE(stream.fetcher->indexOf(expected), expected - 1);
        QCOMPARE(stream.fetcher->indexOf(expected + 1), -1);
        QTRY_COMPARE(stream.server.requests().size(), expected);
        stream.fetcher->cancel();
        QVERIFY(stream.ends.isEmpty()); // not from inside the call
        QCOMPARE(stream.end(), Transfer::Outcome::Canceled);
    }

    void aSegmentIsAskedForThirtyOneTimes_data()
    {
        QTest::addColumn<int>("failures");
        QTest::addColumn<QByteArray>("file");
        QTest::newRow("30 failures") << 30 << fileOf(1, 3);
        QTest::newRow("31 failures") << 31 << QByteArray("<[1]-[3]");
    }

    void aSegmentIsAskedForThirtyOneTimes()
    {
        QFETCH(int, failures);
        QFETCH(QByteArray, file);
        Stream stream(3);
        int seen = 0;
        stream.server.on(pathOf(2), [&](const HttpRequest &) {
            return ++seen <= failures ? replyOf("busy", 503) : replyOf(bodyOf(2));
        });
        QVERIFY(stream.fetcher->start());
        QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(seen, 31);
        QCOMPARE(stream.sink.content(), file);
    }

    void whatIsNotToBeHadAnyMoreIsNotAskedFor()
    {
        Stream stream(3);
        stream.source.change = [](Segment &segment) {
            if (segment.number == 2)
                segment.address.clear();
        };
        QVERIFY(stream.fetcher->start());
        QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(stream.sink.content(), QByteArray("<[1]-[3]"));
        QCOMPARE(stream.server.requests().size(), 2);
    }

    void aBodyOfUnknownLength_data()
    {
        QTest::addColumn<QByteArray>("end"); // of what is whole; empty: it cannot be told
        QTest::addColumn<int>("requests");
        QTest::addColumn<int>("cached");
        QTest::newRow("whole") << QByteArray("]") << 1 << 1;
        QTest::newRow("cut") << QByteArray("}") << 2 << 0;
        QTest::newRow("cannot be told") << QByteArray() << 2 << 0;
    }

    void aBodyOfUnknownLength()
    {
        QFETCH(QByteArray, end);
        QFETCH(int, requests);
        QFETCH(int, cached);
        Stream stream(1);
        stream.server.on(pathOf(1), chunkedReplyOf(bodyOf(1)));
        stream.source.change = [end](Segment &segment) {
            if (!end.isEmpty())
                segment.isWhole = [end](const QByteArray &body) { return body.endsWith(end); };
        };
        QVERIFY(stream.fetcher->start());
        QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(stream.server.requests().size(), requests);
        QCOMPARE(stream.cacheFiles().size(), cached);
        QCOMPARE(stream.sink.content(), fileOf(1, 1));
    }

    void partsOfOneFile()
    {
        Stream stream(0);
        const QByteArray body("aaabbbccc");
        stream.server.serve("/all", body, "video/mp4");
        stream.source.lastNumber = 3;
        stream.source.change = [&stream](Segment &segment) {
            segment.address = stream.server.address("/all");
            segment.firstByte = (segment.number - 1) * 3;
            segment.byteCount = 3;
        };
        QVERIFY(stream.fetcher->start());
        QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(stream.sink.content(), "<" + body);
        QCOMPARE(stream.server.requests().size(), 3);
    }

    void whatIsDecodedIsKeptSo()
    {
        Stream stream(4);
        stream.server.on(pathOf(3), replyOf("!"));
        stream.source.change = [](Segment &segment) {
            segment.decode = [](QByteArray &body, const StopFlag &) {
                std::reverse(body.begin(), body.end());
                return body != "!";
            };
        };
        for (int round = 0; round < 2; ++round) {
            QVERIFY(stream.fetcher->start());
            QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
            QCOMPARE(stream.sink.content(), QByteArray("<]1[]2[-]4["));
            QCOMPARE(stream.cacheFiles().size(), 3);
            // The second time it comes from the cache, but for what could not be decoded, which is
            // asked for twice.
            QCOMPARE(stream.server.requests().size(), 5 + 2 * round);
            stream.makeFetcher();
        }
    }

    void whatCannotBeDecodedMayComeRightTheNextTime()
    {
        Stream stream(3);
        int requests = 0;
        stream.server.on(pathOf(2), [&requests](const HttpRequest &) {
            return replyOf(++requests == 1 ? QByteArray("a page") : bodyOf(2));
        });
        stream.source.change = [](Segment &segment) {
            segment.decode = [](QByteArray &body, const StopFlag &) { return body != "a page"; };
        };
        QVERIFY(stream.fetcher->start());
        QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(stream.sink.content(), fileOf(1, 3));
        QCOMPARE(requests, 2);
    }

    void decodingEndsWithTheStop()
    {
        Stream stream(1);
        std::atomic_bool isWaiting = false;
        stream.source.change = [&isWaiting](Segment &segment) {
            segment.decode = [&isWaiting](QByteArray &, const StopFlag &stop) {
                for (isWaiting = true; !stop.isRaised();)
                    QThread::yieldCurrentThread();
                return false;
            };
        };
        QVERIFY(stream.fetcher->start());
        QTRY_VERIFY(isWaiting);
        stream.fetcher->cancel();
        QCOMPARE(stream.end(), Transfer::Outcome::Canceled);
        QVERIFY(stream.cacheFiles().isEmpty());
    }

    void withoutACacheNothingIsKept()
    {
        Stream stream(20);
        stream.source.cacheFolder.clear();
        stream.fetcher->setMaxHeldBytes(0);
        stream.holdFirst();
        QVERIFY(stream.fetcher->start());
        QTRY_COMPARE(stream.fetcher->indexOf(20), -1);
        QTRY_COMPARE(stream.server.requests().size(), 20);
        QTRY_VERIFY(stream.sink.heldBytes() > 0);
        stream.release();
        QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(stream.sink.content(), fileOf(1, 20));
    }

    void whatIsTooMuchToHoldIsLeftToItsFiles()
    {
        Stream stream(20);
        stream.fetcher->setMaxHeldBytes(0);
        stream.fetcher->setDeletesCache(true);
        stream.holdFirst();
        QVERIFY(stream.fetcher->start());
        QTRY_COMPARE(stream.cacheFiles().size(), 19);
        QTRY_COMPARE(stream.fetcher->indexOf(20), -1);
        QCOMPARE(stream.sink.heldBytes(), qint64(0));
        stream.release();
        QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(stream.sink.content(), fileOf(1, 20));
        QVERIFY(stream.cacheFiles().isEmpty());
    }

    void aLostSegmentIsFetchedAgain_data()
    {
        QTest::addColumn<bool>("comesAgain");
        QTest::newRow("it comes") << true;
        QTest::newRow("it is gone") << false;
    }

    void aLostSegmentIsFetchedAgain()
    {
        QFETCH(bool, comesAgain);
        Stream stream(10);
        int seen = 0;
        stream.server.on(pathOf(5), [&seen, comesAgain](const HttpRequest &) {
            return ++seen == 1 || comesAgain ? replyOf(bodyOf(5)) : replyOf("gone", 404);
        });
        stream.fetcher->setMaxHeldBytes(0);
        stream.holdFirst();
        QVERIFY(stream.fetcher->start());
        QTRY_COMPARE(stream.cacheFiles().size(), 9);
        QTRY_COMPARE(stream.fetcher->indexOf(10), -1);
        QVERIFY(QFile::remove(stream.source.segment(5).cacheFile));
        QTest::ignoreMessage(
            QtWarningMsg,
            QRegularExpression(QStringLiteral("^segment 5 is not to be read again from ")));
        if (!comesAgain)
            QTest::ignoreMessage(QtWarningMsg, "segment 5 was lost and cannot be fetched again");
        stream.release();
        QCOMPARE(stream.end(),
                 comesAgain ? Transfer::Outcome::Succeeded : Transfer::Outcome::Failed);
        QCOMPARE(stream.sink.content(), fileOf(1, comesAgain ? 10 : 4));
    }

    void aStreamThatGrows()
    {
        Stream stream(9);
        stream.source.lastNumber = 0;
        stream.source.hasEnded = false;
        QVERIFY(stream.fetcher->start()); // though there is nothing yet
        stream.source.grow(3, false);
        QTRY_COMPARE(stream.sink.content(), fileOf(1, 3));
        QTRY_COMPARE(stream.fetcher->indexOf(3), -1);
        QVERIFY(stream.ends.isEmpty());
        stream.source.grow(7, false);
        stream.source.grow(9, false);
        QTRY_COMPARE(stream.sink.content(), fileOf(1, 9));
        QVERIFY(stream.ends.isEmpty());
        stream.source.grow(9, true);
        QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(stream.sink.content(), fileOf(1, 9));
        stream.source.grow(9, true);
        QTest::qWait(0);
        QCOMPARE(stream.ends.size(), 1);
    }

    void aStreamThatEndsWithItsLastSegmentsUnderWay()
    {
        Stream stream(4);
        stream.source.lastNumber = 2;
        stream.source.hasEnded = false;
        stream.holdFirst();
        QVERIFY(stream.fetcher->start());
        QTRY_VERIFY(!stream.first.isNull());
        stream.source.grow(4, true);
        QTRY_COMPARE(stream.server.requests().size(), 4);
        QVERIFY(stream.ends.isEmpty());
        stream.release();
        QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(stream.sink.content(), fileOf(1, 4));
    }

    void aStreamWithoutSegmentsFails_data()
    {
        QTest::addColumn<bool>("mayGrow");
        QTest::newRow("from the start") << false;
        QTest::newRow("to the end") << true;
    }

    void aStreamWithoutSegmentsFails()
    {
        QFETCH(bool, mayGrow);
        Stream stream(0);
        QFile old(stream.sink.path());
        QVERIFY(old.open(QIODevice::WriteOnly)); // is not taken for the stream's
        stream.source.hasEnded = !mayGrow;
        QCOMPARE(stream.fetcher->start(), mayGrow);
        if (mayGrow) {
            QTest::ignoreMessage(QtWarningMsg,
                                 QRegularExpression(QStringLiteral("/out has no segments$")));
            stream.source.grow(0, true);
        } else {
            QCOMPARE(stream.ends.size(), 1); // from inside the call
        }
        QCOMPARE(stream.end(), Transfer::Outcome::Failed);
    }

    void aFileThatVanishesIsNoSuccess()
    {
        Stream stream(3);
        bool isGone = false;
        connect(stream.fetcher.get(), &SegmentFetcher::progressed, this,
                [&] { isGone = QFile::remove(stream.sink.path()); });
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("/out has vanished$")));
        QVERIFY(stream.fetcher->start());
        QCOMPARE(stream.end(), Transfer::Outcome::Failed);
    }

    void aFileThatCannotBeWritten()
    {
        Stream stream(30);
        QVERIFY(QFile::link(QStringLiteral("/dev/full"), stream.sink.path()));
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral(" cannot be written: No space ")));
        QVERIFY(stream.fetcher->start());
        QCOMPARE(stream.end(), Transfer::Outcome::Failed);
    }

    void cancelledAtAnyNotice_data()
    {
        QTest::addColumn<int>("notices");
        for (const int notices : {1, 2, 8, 9, 12, 20, 30, 40})
            QTest::newRow(qPrintable(QString::number(notices))) << notices;
    }

    void cancelledAtAnyNotice()
    {
        QFETCH(int, notices);
        Stream stream(20);
        stream.fetcher->setDeletesCache(true);
        int seen = 0;
        connect(stream.fetcher.get(), &SegmentFetcher::active, this, [&] {
            if (++seen == notices)
                stream.fetcher->cancel();
        });
        stream.fetcher->start();
        const Transfer::Outcome outcome = stream.end();
        QVERIFY(outcome == Transfer::Outcome::Canceled
                || (outcome == Transfer::Outcome::Succeeded && seen < notices));
        QTest::qWait(0);
        QCOMPARE(stream.ends.size(), 1);
    }

    void cancelledBeforeItsStart()
    {
        Stream stream(5);
        stream.fetcher->cancel();
        stream.fetcher->prepare();
        QVERIFY(stream.ends.isEmpty());
        QVERIFY(!stream.fetcher->start());
        QCOMPARE(stream.ends.size(), 1);
        QCOMPARE(stream.end(), Transfer::Outcome::Canceled);
        QVERIFY(stream.server.requests().isEmpty());
    }

    void cancelledWhileItWaitsForGrowth()
    {
        Stream stream(2);
        stream.source.hasEnded = false;
        QVERIFY(stream.fetcher->start());
        QTRY_COMPARE(stream.sink.content(), fileOf(1, 2));
        stream.fetcher->cancel();
        QCOMPARE(stream.end(), Transfer::Outcome::Canceled);
    }

    void noticeIsGivenWhileNothingHappens()
    {
        Stream stream(0);
        QSignalSpy notices(stream.fetcher.get(), &SegmentFetcher::active);
        stream.fetcher->prepare();
        QTRY_VERIFY(notices.size() >= 2);
        stream.source.hasEnded = false;
        QVERIFY(stream.fetcher->start());
        notices.clear();
        QTRY_VERIFY(notices.size() >= 2);
    }

    void anEventLoopInsideANotice()
    {
        Stream stream(20);
        connect(stream.fetcher.get(), &SegmentFetcher::active, this, [] {
            QEventLoop loop;
            QTimer::singleShot(1, &loop, &QEventLoop::quit);
            loop.exec();
        });
        QVERIFY(stream.fetcher->start());
        QCOMPARE(stream.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(stream.sink.content(), fileOf(1, 20));
    }

    void destroyedAtAnyMoment_data()
    {
        QTest::addColumn<int>("requests");
        for (const int requests : {1, 5, 9, 20})
            QTest::newRow(qPrintable(QString::number(requests))) << requests;
    }

    void destroyedAtAnyMoment()
    {
        QFETCH(int, requests);
        Stream stream(40);
        stream.server.hold(pathOf(30));
        QVERIFY(stream.fetcher->start());
        QTRY_VERIFY(stream.server.requests().size() >= requests);
        stream.fetcher.reset();
        QTest::qWait(0);
        QVERIFY(stream.ends.isEmpty());
        QVERIFY(!OutputFile::isBeingWritten(stream.sink.path()));
    }

    void destroyedAtItsEnd()
    {
        Stream stream(3);
        connect(stream.fetcher.get(), &SegmentFetcher::ended, this,
                [&stream] { stream.fetcher.reset(); });
        QVERIFY(stream.fetcher->start());
        QTRY_VERIFY(!stream.fetcher);
        QCOMPARE(stream.sink.content(), fileOf(1, 3));
    }

    void twoAtOnce()
    {
        Stream picture(20);
        Stream sound(7);
        picture.holdFirst();
        sound.holdFirst();
        QVERIFY(picture.fetcher->start());
        QVERIFY(sound.fetcher->start());
        QTRY_VERIFY(picture.first && sound.first);
        sound.release();
        QCOMPARE(sound.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(sound.sink.content(), fileOf(1, 7));
        QVERIFY(picture.ends.isEmpty());
        picture.release();
        QCOMPARE(picture.end(), Transfer::Outcome::Succeeded);
        QCOMPARE(picture.sink.content(), fileOf(1, 20));
    }
};

CLIPWEIR_TEST_MAIN(tst_SegmentFetcher)
#include "tst_segmentfetcher.moc"
