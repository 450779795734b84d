#include "FileTransfer.h"
#include "MessageCatcher.h"
#include "PageRun.h"
#include "RunTimes.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>

#include <csignal>
#include <functional>

#include <sys/resource.h>

using namespace std::chrono_literals;

/// In place of the shipped ones: an attempt follows the other at once.
const RunTimes &runTimes()
{
    static constexpr RunTimes times{5s, 20s, 10s, 300ms, 1ms};
    return times;
}

namespace {

constexpr int mib = 1024 * 1024;
constexpr int contentBytes = 14 * mib + 12345;
constexpr int firstPieceBytes = 4 * mib;
constexpr int connections = 4;
constexpr int endTimeoutMs = 30000;

/// What a server makes of a request that it would else answer in due form.
using Change = std::function<void(const HttpRequest &, HttpReply &)>;

qint64 firstByteOf(const HttpRequest &request)
{
    return request.header("Range").mid(6).split('-').constFirst().toLongLong();
}

void sayRange(HttpReply &reply, const QByteArray &contentRange)
{
    for (auto &header : reply.headers) {
        if (header.first == "Content-Range")
            header.second = contentRange;
    }
}

void sendToTheEnd(const HttpRequest &request, HttpReply &reply, const QByteArray &content)
{
    if (reply.status != 206)
        return;
    const auto first = static_cast<int>(firstByteOf(request));
    reply.body = content.mid(first);
    sayRange(reply, "bytes " + QByteArray::number(first) + "-14692408/14692409");
}

void refuse(HttpReply &reply, int status)
{
    reply = mediaReply("no");
    reply.status = status;
}

} // namespace

Q_DECLARE_METATYPE(Change)

/// FileTransfer with several connections: how it shares the work, and what servers do meanwhile.
class tst_FilePieces : public QObject
{
    Q_OBJECT

    const QByteArray m_content = testBytes(contentBytes);
    std::unique_ptr<TemporaryWorkFolder> m_folder;
    std::unique_ptr<ScriptedServer> m_server;
    std::unique_ptr<MessageCatcher> m_lines;
    QString m_path;
    RunOptions m_options;
    std::unique_ptr<FileTransfer> m_transfer;
    QList<Transfer::Outcome> m_outcomes;

    static HttpReply goodAnswer(const HttpRequest &request, const QByteArray &content,
                                const QByteArray &etag)
    {
        const bool isSame = !request.hasHeader("If-Range") || request.header("If-Range") == etag;
        HttpReply reply = isSame ? ScriptedServer::rangeReply(request, content, "video/mp4")
                                 : mediaReply(content);
        if (!etag.isEmpty())
            reply.headers += qMakePair(QByteArray("ETag"), etag);
        return reply;
    }

    void serve(const QByteArray &content, const Change &change = {},
               const QByteArray &etag = "\"1\"")
    {
        m_server->on("/v", [content, change, etag](const HttpRequest &request) {
            HttpReply reply = goodAnswer(request, content, etag);
            if (change)
                change(request, reply);
            return reply;
        });
    }

    void begin()
    {
        m_outcomes.clear();
        m_transfer = std::make_unique<FileTransfer>(m_server->address("/v"), m_path, 0, m_options);
        connect(m_transfer.get(), &Transfer::ended, this,
                [this](Transfer::Outcome outcome) { m_outcomes += outcome; });
        m_transfer->start();
    }

    /// The class of a transfer, once it has ended.
    RunClass transfer()
    {
        begin();
        if (!QTest::qWaitFor([this] { return !m_outcomes.isEmpty(); }, endTimeoutMs))
            return RunClass::EngineLost; // as good as any that no transfer has
        return m_transfer->report(m_outcomes.constFirst()).runClass;
    }

    QString part() const { return m_path + QStringLiteral(".part"); }

    QJsonObject journal() const
    {
        return QJsonDocument::fromJson(readFile(part() + QStringLiteral(".json"))).object();
    }

    /// Whether the file is there, nothing else, and the sum that is told is its.
    bool hasArrived(const QByteArray &content) const
    {
        const QByteArray sum = m_transfer->report(Transfer::Outcome::Succeeded).sha256;
        return readFile(m_path) == content
            && filesBelow(m_folder->path()) == QStringList{QStringLiteral("v.mp4")}
        && sum == QCryptographicHash::hash(content, QCryptographicHash::Sha256);
    }

    /// Leaves what a run does that is ended when there are bytes ahead of gaps: each connection
    /// has brought some of its first piece.
    void leaveGaps()
    {
        serve(m_content, [](const HttpRequest &request, HttpReply &reply) {
            reply.holdAfterBytes = firstByteOf(request) == 0 ? mib : mib / 2;
        });
        begin();
        constexpr int lastBegin = 7 * mib; // of those pieces
        QTRY_VERIFY_WITH_TIMEOUT(
            requests().size() == connections && QFileInfo(part()).size() > lastBegin, endTimeoutMs);
        m_transfer->cancel();
        QCOMPARE(m_outcomes, QList{Transfer::Outcome::Canceled});
        m_transfer.reset();
        QVERIFY(!journal().value(QStringLiteral("ahead")).toArray().isEmpty());
        m_server->clearRequests();
    }

    QList<HttpRequest> requests() const { return m_server->requestsFor("/v"); }

private slots:
    void initTestCase()
    {
        qputenv("CLIPWEIR_COOKIES", "/dev/null");
        qRegisterMetaType<Transfer::Outcome>("Transfer::Outcome");
    }

    void init()
    {
        m_folder = std::make_unique<TemporaryWorkFolder>();
        m_server = std::make_unique<ScriptedServer>();
        m_lines = std::make_unique<MessageCatcher>();
        m_path = m_folder->path(QStringLiteral("v.mp4"));
        m_options = RunOptions();
        m_options.fileConnections = connections;
        m_options.continues = true;
    }

    void cleanup()
    {
        m_transfer.reset();
        m_lines.reset();
        m_server.reset();
        m_folder.reset();
    }

    void pieces_data()
    {
        QTest::addColumn<bool>("continues");
        QTest::newRow("alone") << false;
        QTest::newRow("with --continue") << true;
    }

    void pieces()
    {
        QFETCH(bool, continues);
        m_options.continues = continues;
        serve(m_content, [](const HttpRequest &, HttpReply &reply) { reply.bodyDelayMs = 50; });
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY(hasArrived(m_content));
        const QList<HttpRequest> asked = requests();
        QVERIFY(asked.size() >= connections);
        QCOMPARE(asked.at(0).header("Range"), QByteArray("bytes=0-4194303"));
        QVERIFY(!asked.at(0).hasHeader("If-Range"));
        for (int i = 1; i < asked.size(); ++i) {
            QVERIFY(firstByteOf(asked.at(i)) >= firstPieceBytes - PartFile::leadBytes);
            QCOMPARE(asked.at(i).header("If-Range"), QByteArray("\"1\""));
        }
        QVERIFY(m_server->maxAtOnce() > 1);
    }

    void sizes_data()
    {
        QTest::addColumn<int>("bytes");
        QTest::newRow("none") << 0;
        QTest::newRow("one byte") << 1;
        QTest::newRow("one less than a piece") << firstPieceBytes - 1;
        QTest::newRow("one piece") << firstPieceBytes;
        QTest::newRow("one more than a piece") << firstPieceBytes + 1;
        QTest::newRow("two pieces") << 2 * firstPieceBytes;
    }

    void sizes()
    {
        QFETCH(int, bytes);
        serve(m_content.left(bytes));
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY(hasArrived(m_content.left(bytes)));
        QVERIFY(requests().size() <= 1 + (bytes > firstPieceBytes ? 4 : bytes == 0 ? 1 : 0));
    }

    void thePartlyDownloadIsOverOne()
    {
        m_options.wantsBeginningOnly = true;
        serve(m_content, [](const HttpRequest &, HttpReply &reply) {
            reply.pieceBytes = 64 * 1024;
            reply.pieceDelayMs = 20;
        });
        QCOMPARE(transfer(), RunClass::Stopped);
        QVERIFY(!requests().constFirst().hasHeader("Range"));
    }

    /// What a server may do instead of giving pieces as it should: the file arrives all the same.
    void servers_data()
    {
        QTest::addColumn<Change>("change");
        QTest::addColumn<QByteArray>("etag");
        const auto row = [](const char *name, const Change &change,
                            const QByteArray &etag = "\"1\"") {
            QTest::newRow(name) << change << etag;
        };
        const QByteArray content = m_content;
        const auto isFirst = [](const HttpRequest &request) {
            return request.header("Range").startsWith("bytes=0-");
        };
        row("knows no ranges", [content](const HttpRequest &, HttpReply &reply) {
            reply = mediaReply(content);
            reply.headers += qMakePair(QByteArray("ETag"), QByteArray("\"1\""));
        });
        row("knows no ranges and no length", [content](const HttpRequest &, HttpReply &reply) {
            reply = mediaReply(content);
            reply.withoutLength = true;
        });
        row("has no validators", {}, "");
        row("has a weak validator", {}, "W/\"1\"");
        row("does not know how long it is",
            [](const HttpRequest &, HttpReply &reply) { sayRange(reply, "bytes 0-4194303/*"); });
        row("says nothing of the range", [](const HttpRequest &request, HttpReply &reply) {
            if (request.hasHeader("Range"))
                sayRange(reply, "");
        });
        row("sends more than was asked for",
            [content](const HttpRequest &request, HttpReply &reply) {
                if (!request.hasHeader("Range"))
                    return;
                sayRange(reply, "bytes 0-14692408/14692409");
                reply.body = content;
            });
        row("heeds no end of a range", [content](const HttpRequest &request, HttpReply &reply) {
            sendToTheEnd(request, reply, content);
        });
        row("refuses ranges", [](const HttpRequest &request, HttpReply &reply) {
            if (request.hasHeader("Range"))
                refuse(reply, 403);
        });
        row("knows ranges for once",
            [content, isFirst](const HttpRequest &request, HttpReply &reply) {
                if (!isFirst(request))
                    reply = mediaReply(content);
            });
        row("has another validator for every answer",
            [count = std::make_shared<int>(0)](const HttpRequest &, HttpReply &reply) {
                for (auto &header : reply.headers) {
                    if (header.first == "ETag")
                        header.second = '"' + QByteArray::number(++*count) + '"';
                }
            });
        row("lies about what comes later",
            [content, isFirst](const HttpRequest &request, HttpReply &reply) {
                if (request.hasHeader("Range") && !isFirst(request))
                    reply.body = content.left(reply.body.size());
            });
        row("sends fewer than were asked for",
            [content](const HttpRequest &request, HttpReply &reply) {
                const qint64 first = firstByteOf(request);
                constexpr int most = mib;
                if (!request.hasHeader("Range") || reply.status != 206 || reply.body.size() <= most)
                    return;
                reply.body.truncate(most);
                sayRange(reply,
                         "bytes " + QByteArray::number(first) + '-'
                             + QByteArray::number(first + most - 1) + "/14692409");
            });
        for (const int status : {403, 429, 503}) {
            const auto open = std::make_shared<int>(0);
            row(qPrintable(QStringLiteral("gives %1 to all but one").arg(status)),
                [open, status, isFirst](const HttpRequest &request, HttpReply &reply) {
                    if (!isFirst(request) && (*open)++ < connections - 1)
                        refuse(reply, status);
                    else
                        reply.bodyDelayMs = 50;
                });
        }
        const auto broken = std::make_shared<int>(0);
        row("breaks every connection off but the first",
            [broken, isFirst](const HttpRequest &request, HttpReply &reply) {
                if (!isFirst(request) && (*broken)++ < connections)
                    reply.cutAfterBytes = 100000;
            });
    }

    void servers()
    {
        QFETCH(Change, change);
        QFETCH(QByteArray, etag);
        serve(m_content, change, etag);
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY(hasArrived(m_content));
    }

    void aFileThatChangesMeanwhile()
    {
        const QByteArray other(contentBytes, 'o');
        const QByteArray content = m_content;
        bool hasChanged = false;
        m_server->on("/v", [&](const HttpRequest &request) {
            HttpReply reply = hasChanged ? goodAnswer(request, other, "\"2\"")
                                         : goodAnswer(request, content, "\"1\"");
            hasChanged = hasChanged || firstByteOf(request) > firstPieceBytes;
            reply.bodyDelayMs = 20;
            return reply;
        });
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY(hasArrived(other));
    }

    void eachPieceIsRetried()
    {
        m_options.retries = 2;
        int count = 0;
        serve(m_content, [&count](const HttpRequest &, HttpReply &reply) {
            if (++count <= connections + 1)
                reply.cutAfterBytes = reply.body.size() / 2;
        });
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY(hasArrived(m_content));
        for (const HttpRequest &request : requests())
            QVERIFY2(!request.header("Range").endsWith('-'), "asked over one connection");
    }

    void aServerThatDies()
    {
        serve(m_content,
              [](const HttpRequest &, HttpReply &reply) { reply.cutAfterBytes = mib / 2; });
        const RunClass runClass = transfer();
        QCOMPARE(runClass, RunClass::BrokenOff);
        QVERIFY(!QFile::exists(m_path));
        m_transfer.reset();
        QVERIFY(journal().value(QStringLiteral("bytes")).toInt() > 0);
        serve(m_content);
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY(hasArrived(m_content));
    }

    /// A connection that stands still does not hold up what others could bring.
    void aSilentConnectionIsRelieved()
    {
        int held = 0;
        serve(m_content, [&held](const HttpRequest &request, HttpReply &reply) {
            if (firstByteOf(request) > 0 && held++ == 0)
                reply.holdAfterBytes = 100000;
        });
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY(hasArrived(m_content));
    }

    void gapsAreFilled_data()
    {
        QTest::addColumn<int>("places");
        QTest::newRow("over many") << connections;
        QTest::newRow("over one") << 1;
    }

    void gapsAreFilled()
    {
        QFETCH(int, places);
        leaveGaps();
        QList<QPair<qint64, qint64>> there{{0, journal().value(QStringLiteral("bytes")).toInt()}};
        for (const QJsonValue &run : journal().value(QStringLiteral("ahead")).toArray()) {
            const qint64 first = run.toObject().value(QStringLiteral("first")).toInt();
            const qint64 bytes = run.toObject().value(QStringLiteral("bytes")).toInt();
            there += {first, first + bytes};
        }
        m_options.fileConnections = places;
        QList<HttpRequest> asked;
        serve(m_content, [&asked](const HttpRequest &request, HttpReply &) { asked += request; });
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY(hasArrived(m_content));
        for (const HttpRequest &request : asked) {
            const qint64 first = firstByteOf(request) + PartFile::leadBytes;
            for (const auto &run : qAsConst(there))
                QVERIFY2(first < run.first || first >= run.second, request.header("Range"));
        }
    }

    void gapsThatTheServerDoesNotHeed()
    {
        leaveGaps();
        m_options.fileConnections = 1;
        const QByteArray content = m_content;
        serve(content, [content](const HttpRequest &request, HttpReply &reply) {
            sendToTheEnd(request, reply, content);
        });
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY(hasArrived(content));
    }

    void destroyedFromItsEnd()
    {
        serve(m_content);
        begin();
        connect(m_transfer.get(), &Transfer::ended, this, [this] { m_transfer.reset(); });
        QTRY_VERIFY_WITH_TIMEOUT(!m_transfer, endTimeoutMs);
        QCOMPARE(m_outcomes, QList{Transfer::Outcome::Succeeded});
        QVERIFY(readFile(m_path) == m_content);
    }

    /// What a second run finds at the server, and what is in its file then.
    void secondRuns_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QByteArray>("etag");
        const QByteArray other(contentBytes, 'o');
        const QByteArray mixed = m_content.left(2 * mib) + other.mid(2 * mib);
        QTest::newRow("other bytes, another validator") << other << QByteArray("\"2\"");
        QTest::newRow("other bytes, the same validator") << other << QByteArray("\"1\"");
        QTest::newRow("other bytes later, the same validator") << mixed << QByteArray("\"1\"");
        QTest::newRow("another length") << m_content + "more" << QByteArray("\"1\"");
        QTest::newRow("no validator") << other << QByteArray();
    }

    void secondRuns()
    {
        QFETCH(QByteArray, content);
        QFETCH(QByteArray, etag);
        leaveGaps();
        serve(content, {}, etag);
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY(hasArrived(content));
    }

    void canceled()
    {
        serve(m_content,
              [](const HttpRequest &, HttpReply &reply) { reply.holdAfterBytes = 200000; });
        begin();
        QTRY_COMPARE_WITH_TIMEOUT(requests().size(), connections, endTimeoutMs);
        QCoreApplication::processEvents();
        QCOMPARE(requests().size(), connections);
        m_transfer->cancel();
        QCOMPARE(m_outcomes, QList{Transfer::Outcome::Canceled});
        m_transfer.reset();
    }

    void aDiskThatDoesNotTakeIt()
    {
        serve(m_content, [](const HttpRequest &request, HttpReply &reply) {
            if (firstByteOf(request) == 0)
                reply.holdAfterBytes = 200000;
        });
        struct rlimit before
        {
        };
        QCOMPARE(::getrlimit(RLIMIT_FSIZE, &before), 0);
        const auto handler = std::signal(SIGXFSZ, SIG_IGN);
        const struct rlimit small
        {
            firstPieceBytes, before.rlim_max
        };
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &small), 0);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("cannot be written")));
        const RunClass runClass = transfer();
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &before), 0);
        std::signal(SIGXFSZ, handler);
        QCOMPARE(runClass, RunClass::Disk);
    }
};

CLIPWEIR_TEST_MAIN(tst_FilePieces)
#include "tst_filepieces.moc"
