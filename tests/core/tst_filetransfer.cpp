#include "FileTransfer.h"
#include "HttpDate.h"
#include "MessageCatcher.h"
#include "PageRun.h"
#include "RunTimes.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QCryptographicHash>

#include <functional>
#include <vector>

using namespace std::chrono_literals;

/// In place of the shipped ones: an attempt follows the other at once.
const RunTimes &runTimes()
{
    static constexpr RunTimes times{5s, 20s, 10s, 300ms, 1ms};
    return times;
}

namespace {

constexpr int contentBytes = 300000;
constexpr int leftBytes = 100000;
constexpr int endTimeoutMs = 30000;

/// A file as a server has it.
struct ServedFile
{
    QByteArray content;
    HeaderList headers;
};

using Answer = std::function<HttpReply(const HttpRequest &, const ServedFile &)>;

/// The answer of a server that knows ranges and conditions (RFC 9110, 13.1.5).
HttpReply goodAnswer(const HttpRequest &request, const ServedFile &file)
{
    bool isSame = !request.hasHeader("If-Range");
    for (const auto &header : file.headers)
        isSame = isSame || header.second == request.header("If-Range");
    HttpReply reply = isSame ? ScriptedServer::rangeReply(request, file.content, "video/mp4")
                             : mediaReply(file.content);
    reply.headers += file.headers;
    return reply;
}

HttpReply heedless(const HttpRequest &request, const ServedFile &file)
{
    HttpReply reply = ScriptedServer::rangeReply(request, file.content, "video/mp4");
    reply.headers += file.headers;
    return reply;
}

/// An answer to a request for a range, with another header about it; others are in order.
Answer rangeSaidAs(const char *contentRange)
{
    return [contentRange](const HttpRequest &request, const ServedFile &file) {
        HttpReply reply = goodAnswer(request, file);
        for (auto &header : reply.headers) {
            if (header.first == "Content-Range")
                header.second = contentRange;
        }
        return reply;
    };
}

/// What a server does when a second run asks it for what a first one has a part of.
struct Cell
{
    const char *server; ///< as the papers say it
    const char *run;
    ServedFile before;
    ServedFile now;
    Answer answer;
};

const char takesUp[] = "takes up";
const char beginsAgain[] = "begins again";
const char refuses[] = "ends as `refused`; the part stays";

const std::vector<Cell> &cells()
{
    static const QByteArray content = testBytes(contentBytes);
    static const QByteArray other = QByteArray(contentBytes, 'o');
    static const QByteArray longer = content + "more";
    static const HeaderList tag{{"ETag", "\"1\""}};
    static const HeaderList otherTag{{"ETag", "\"2\""}};
    static const HeaderList weak{{"ETag", "W/\"1\""}};
    static const HeaderList dated{{"Last-Modified", "Sun, 06 Nov 1994 08:49:37 GMT"},
                                  {"Date", "Mon, 07 Nov 1994 08:49:37 GMT"}};
    static const HeaderList otherDate{{"Last-Modified", "Sun, 06 Nov 1994 09:00:00 GMT"},
                                      {"Date", "Mon, 07 Nov 1994 08:49:37 GMT"}};
    static const HeaderList young{{"Last-Modified", "Sun, 06 Nov 1994 08:49:37 GMT"},
                                  {"Date", "Sun, 06 Nov 1994 08:49:37 GMT"}};
    static const auto ofStatus = [](int status) {
        return [status](const HttpRequest &request, const ServedFile &file) {
            HttpReply reply = goodAnswer(request, file);
            if (request.hasHeader("Range"))
                reply.status = status;
            return reply;
        };
    };
    static const std::vector<Cell> table{
        {"has the same file, known by its `ETag`",
         takesUp,
         {content, tag},
         {content, tag},
         goodAnswer},
        {"has the same file, known by its `Last-Modified`",
         takesUp,
         {content, dated},
         {content, dated},
         goodAnswer},
        {"has other bytes of the same length, another `ETag`",
         beginsAgain,
         {content, tag},
         {other, otherTag},
         goodAnswer},
        {"has other bytes of the same length, another `Last-Modified`",
         beginsAgain,
         {content, dated},
         {other, otherDate},
         goodAnswer},
        {"the same, and does not heed `If-Range`",
         beginsAgain,
         {content, tag},
         {other, otherTag},
         heedless},
        {"has another length, another `ETag`",
         beginsAgain,
         {content, tag},
         {longer, otherTag},
         goodAnswer},
        {"has another length, the same `ETag`",
         beginsAgain,
         {content, tag},
         {longer, tag},
         goodAnswer},
        {"has the same bytes, another `ETag`",
         beginsAgain,
         {content, tag},
         {content, otherTag},
         heedless},
        {"has other bytes where the two meet, the same `ETag`",
         beginsAgain,
         {content, tag},
         {other, tag},
         goodAnswer},
        {"gives no validators any more", beginsAgain, {content, tag}, {content, {}}, heedless},
        {"never gave validators", beginsAgain, {content, {}}, {content, {}}, goodAnswer},
        {"gives a weak `ETag` only", beginsAgain, {content, weak}, {content, weak}, goodAnswer},
        {"gives a `Last-Modified` of the same second as its `Date`",
         beginsAgain,
         {content, young},
         {content, young},
         goodAnswer},
        {"gives no ranges",
         beginsAgain,
         {content, tag},
         {content, tag},
         [](const HttpRequest &, const ServedFile &file) {
             HttpReply reply = mediaReply(file.content);
             reply.headers += file.headers;
             return reply;
         }},
        {"has no such range (416)", beginsAgain, {content, tag}, {content, tag}, ofStatus(416)},
        {"says 206 without a `Content-Range`",
         beginsAgain,
         {content, tag},
         {content, tag},
         rangeSaidAs("")},
        {"says 206 with another first byte",
         beginsAgain,
         {content, tag},
         {content, tag},
         rangeSaidAs("bytes 5-299999/300000")},
        {"says 206 with another whole length",
         beginsAgain,
         {content, tag},
         {content, tag},
         rangeSaidAs("bytes 83616-299999/300001")},
        {"says 206 with an unknown whole length",
         beginsAgain,
         {content, tag},
         {content, tag},
         rangeSaidAs("bytes 83616-299999/*")},
        {"says 206 in due form and sends the beginning",
         beginsAgain,
         {content, tag},
         {content, tag},
         [](const HttpRequest &request, const ServedFile &file) {
             HttpReply reply = goodAnswer(request, file);
             reply.body = file.content.left(reply.body.size());
             return reply;
         }},
        {"refuses (403)",
         refuses,
         {content, tag},
         {content, tag},
         [](const HttpRequest &, const ServedFile &) {
             HttpReply reply = mediaReply("no");
             reply.status = 403;
             return reply;
         }},
    };
    return table;
}

} // namespace

class tst_FileTransfer : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryWorkFolder> m_folder;
    std::unique_ptr<ScriptedServer> m_server;
    std::unique_ptr<MessageCatcher> m_lines;
    QString m_path;
    RunOptions m_options;
    std::unique_ptr<FileTransfer> m_transfer;
    QList<Transfer::Outcome> m_outcomes;

    /// Lets the whole of the content pass but its end, once.
    void serveOnce(const ServedFile &file, qint64 bytes)
    {
        m_server->on("/v", [file, bytes](const HttpRequest &request) {
            HttpReply reply = goodAnswer(request, file);
            reply.cutAfterBytes = bytes;
            return reply;
        });
    }

    void serve(const Answer &answer, const ServedFile &file)
    {
        m_server->on("/v",
                     [answer, file](const HttpRequest &request) { return answer(request, file); });
    }

    void begin(qint64 totalBytes = 0)
    {
        m_outcomes.clear();
        m_transfer =
            std::make_unique<FileTransfer>(m_server->address("/v"), m_path, totalBytes, m_options);
        connect(m_transfer.get(), &Transfer::ended, this,
                [this](Transfer::Outcome outcome) { m_outcomes += outcome; });
        m_transfer->start();
    }

    /// The class of a transfer, once it has ended.
    RunClass transfer(qint64 totalBytes = 0)
    {
        begin(totalBytes);
        if (!QTest::qWaitFor([this] { return !m_outcomes.isEmpty(); }, endTimeoutMs))
            return RunClass::EngineLost; // as good as any that no transfer has
        const RunClass runClass = m_transfer->report(m_outcomes.constFirst()).runClass;
        return runClass;
    }

    QString part() const { return m_path + QStringLiteral(".part"); }

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
        m_options.continues = true;
    }

    void cleanup()
    {
        m_transfer.reset();
        m_lines.reset();
        m_server.reset();
        m_folder.reset();
    }

    void thePapersHaveTheTable()
    {
        QByteArray table = "| The server, asked again | The second run |\n|---|---|\n";
        for (const Cell &cell : cells())
            table += QByteArray("| ") + cell.server + " | " + cell.run + " |\n";
        if (!readFile(QStringLiteral(PAPERS_DIR "host-guide.md")).contains(table))
            qWarning("%s", table.constData());
        QVERIFY(readFile(QStringLiteral(PAPERS_DIR "host-guide.md")).contains(table));
    }

    void twoRuns_data()
    {
        QTest::addColumn<int>("index");
        for (size_t i = 0; i < cells().size(); ++i)
            QTest::newRow(cells().at(i).server) << int(i);
    }

    void twoRuns()
    {
        QFETCH(int, index);
        const Cell &cell = cells().at(static_cast<size_t>(index));
        serveOnce(cell.before, leftBytes);
        QCOMPARE(transfer(), RunClass::BrokenOff);
        QCOMPARE(m_outcomes, QList{Transfer::Outcome::Failed});
        QVERIFY(!QFile::exists(m_path));
        const QByteArray left = readFile(part());
        QCOMPARE(left.size(), leftBytes);
        m_transfer.reset();
        m_server->clearRequests();

        serve(cell.answer, cell.now);
        const RunClass second = transfer();
        if (cell.run == refuses) {
            QCOMPARE(second, RunClass::Refused);
            QVERIFY(readFile(part()) == left);
            QVERIFY(!QFile::exists(m_path));
            return;
        }
        QCOMPARE(second, RunClass::Complete);
        QVERIFY(readFile(m_path) == cell.now.content);
        QCOMPARE(filesBelow(m_folder->path()), QStringList{QStringLiteral("v.mp4")});
        QCOMPARE(m_transfer->report(Transfer::Outcome::Succeeded).sha256,
                 QCryptographicHash::hash(cell.now.content, QCryptographicHash::Sha256));
        const QList<HttpRequest> requests = m_server->requestsFor("/v");
        if (cell.run == takesUp) {
            QCOMPARE(requests.size(), 1);
            QCOMPARE(requests.constFirst().header("Range"), QByteArray("bytes=83616-"));
        }
    }

    void whatIsOfAnotherAddressIsBegunAgain()
    {
        const ServedFile file = cells().front().before;
        serveOnce(file, leftBytes);
        QCOMPARE(transfer(), RunClass::BrokenOff);
        m_transfer.reset();
        QFile journal(part() + QStringLiteral(".json"));
        QVERIFY(journal.open(QIODevice::ReadOnly));
        const QByteArray text = journal.readAll();
        journal.close();
        writeFile(journal.fileName(), QByteArray(text).replace("/v\"", "/w\""));
        m_server->clearRequests();
        serve(goodAnswer, file);
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY(!m_server->requestsFor("/v").constFirst().hasHeader("Range"));
        QVERIFY(readFile(m_path) == file.content);
    }

    void aPartThatOnlyLacksItsNameIsProvenByItsEnd()
    {
        const ServedFile file = cells().front().before;
        serveOnce(file, leftBytes);
        QCOMPARE(transfer(), RunClass::BrokenOff);
        m_transfer.reset();
        {
            PartFile whole(m_path, true);
            QVERIFY(whole.open() && whole.takeUp());
            QVERIFY(whole.write(file.content.constData() + leftBytes, contentBytes - leftBytes));
        }
        m_server->clearRequests();
        serve(goodAnswer, file);
        QCOMPARE(transfer(), RunClass::Complete);
        QCOMPARE(m_server->requestsFor("/v").constFirst().header("Range"),
                 QByteArray("bytes=283616-"));
        QVERIFY(readFile(m_path) == file.content);
    }

    void noResumeBeginsAgain()
    {
        const ServedFile file = cells().front().before;
        serveOnce(file, leftBytes);
        QCOMPARE(transfer(), RunClass::BrokenOff);
        m_transfer.reset();
        m_options.resumes = false;
        m_server->clearRequests();
        serve(goodAnswer, file);
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY(!m_server->requestsFor("/v").constFirst().hasHeader("Range"));
    }

    void aSecondRunForTheSameFileIsKeptAway()
    {
        PartFile other(m_path, true);
        QVERIFY(other.open());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("another run")));
        QCOMPARE(transfer(), RunClass::Busy);
        QVERIFY(m_server->requests().isEmpty());
    }

    void anotherKindOfAddress()
    {
        FileTransfer transfer(QStringLiteral("rtmp://h/v"), m_path, 0, m_options);
        const QSignalSpy ended(&transfer, &Transfer::ended);
        transfer.start();
        QCOMPARE(ended.size(), 1);
        QCOMPARE(transfer.report(Transfer::Outcome::Failed).runClass, RunClass::Unsupported);
    }

    void retriesGoOnWhereItStopped()
    {
        m_options.continues = false;
        m_options.retries = 3;
        const ServedFile file = cells().front().before;
        m_server->on("/v", [file](const HttpRequest &request) {
            HttpReply reply = goodAnswer(request, file);
            reply.cutAfterBytes = leftBytes;
            return reply;
        });
        QCOMPARE(transfer(contentBytes), RunClass::Complete);
        QVERIFY(readFile(m_path) == file.content);
        const QList<HttpRequest> requests = m_server->requestsFor("/v");
        QCOMPARE(requests.size(), 4);
        QVERIFY(!requests.at(0).hasHeader("Range"));
        QCOMPARE(requests.at(1).header("Range"), QByteArray("bytes=83616-"));
        QCOMPARE(requests.at(1).header("If-Range"), QByteArray("\"1\""));
        QCOMPARE(requests.at(2).header("Range"), QByteArray("bytes=167232-"));
        QCOMPARE(filesBelow(m_folder->path()), QStringList{QStringLiteral("v.mp4")});
    }

    void retriesEnd()
    {
        m_options.retries = 2;
        HttpReply reply = mediaReply("no");
        reply.status = 503;
        m_server->on("/v", reply);
        QCOMPARE(transfer(), RunClass::Refused);
        QCOMPARE(m_server->requestsFor("/v").size(), 3);
    }

    void whatWillNotPassIsNotRetried()
    {
        m_options.retries = 5;
        HttpReply reply = mediaReply("no");
        reply.status = 404;
        m_server->on("/v", reply);
        QCOMPARE(transfer(), RunClass::Refused);
        QCOMPARE(m_server->requestsFor("/v").size(), 1);
    }

    void aServerThatAsksForAPauseGetsIt()
    {
        m_options.retries = 1;
        const ServedFile file = cells().front().before;
        QElapsedTimer sinceRefusal;
        qint64 pauseMs = 0;
        m_server->on("/v", [&](const HttpRequest &request) {
            if (sinceRefusal.isValid()) {
                pauseMs = sinceRefusal.elapsed();
                return goodAnswer(request, file);
            }
            sinceRefusal.start();
            HttpReply reply = mediaReply("later");
            reply.status = 429;
            reply.headers += qMakePair(QByteArray("Retry-After"), QByteArray("1"));
            return reply;
        });
        QCOMPARE(transfer(), RunClass::Complete);
        QVERIFY2(pauseMs >= 950, qPrintable(QString::number(pauseMs)));
    }

    void aBodyThatMayBeCutIsNoWholeOne()
    {
        HttpReply reply = mediaReply("short");
        reply.withoutLength = true;
        m_server->on("/v", reply);
        QCOMPARE(transfer(contentBytes), RunClass::BrokenOff);
        QVERIFY(!QFile::exists(m_path));
        m_transfer.reset();
        QCOMPARE(transfer(0), RunClass::Complete);
        QCOMPARE(readFile(m_path), QByteArray("short"));
    }

    void aFileThatHasBecomeShorter()
    {
        m_server->on("/v", mediaReply("short"));
        QCOMPARE(transfer(contentBytes), RunClass::Incomplete);
        QCOMPARE(m_outcomes, QList{Transfer::Outcome::Succeeded});
    }

    void canceled()
    {
        const ServedFile file = cells().front().before;
        m_server->on("/v", [file](const HttpRequest &request) {
            HttpReply reply = goodAnswer(request, file);
            reply.holdAfterBytes = leftBytes;
            return reply;
        });
        begin();
        QTRY_COMPARE_WITH_TIMEOUT(QFileInfo(part()).size(), qint64(leftBytes), endTimeoutMs);
        m_transfer->cancel();
        QCOMPARE(m_outcomes, QList{Transfer::Outcome::Canceled});
        m_transfer->cancel();
        m_transfer.reset();
        m_server->clearRequests();
        serve(goodAnswer, file);
        QCOMPARE(transfer(), RunClass::Complete);
        QCOMPARE(m_server->requestsFor("/v").constFirst().header("Range"),
                 QByteArray("bytes=83616-"));
        QVERIFY(readFile(m_path) == file.content);
    }

    void whichPathsItIsFor()
    {
        QVERIFY(FileTransfer::isFor(m_path, m_options));
        QVERIFY(!FileTransfer::isFor(QStringLiteral("/dev/null"), m_options));
        QVERIFY(!FileTransfer::isFor(m_folder->path(), m_options));
        QVERIFY(QFile::link(m_folder->path(QStringLiteral("x")), m_path));
        QVERIFY(!FileTransfer::isFor(m_path, m_options));
        QVERIFY(QFile::remove(m_path));
        QVERIFY(!FileTransfer::isFor(m_path, RunOptions()));
        m_options.continues = false;
        m_options.retries = 1;
        QVERIFY(FileTransfer::isFor(m_path, m_options));
    }
};

CLIPWEIR_TEST_MAIN(tst_FileTransfer)
#include "tst_filetransfer.moc"
