#include "EventCheck.h"
#include "HostEvents.h"
#include "JsonRenderer.h"
#include "MessageCatcher.h"
#include "TestMain.h"
#include "TextRenderer.h"

#include <QJsonDocument>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

Q_DECLARE_METATYPE(HostEvent)

namespace {

struct Row
{
    const char *name;
    HostEvent event;
    QByteArray line; ///< null for none
};

event::RunEnded ended()
{
    event::RunEnded event;
    event.runClass = RunClass::Complete;
    event.path = QStringLiteral("/v.mp4");
    event.bytes = 5000000000;
    event.sha256 = QByteArray(32, '\xab');
    event.startedAt = QDateTime::fromMSecsSinceEpoch(1000);
    event.analysedAt = event.startedAt.addMSecs(1);
    event.endedAt = event.startedAt.addMSecs(2);
    return event;
}

const std::vector<Row> &rows()
{
    using namespace event;
    static const QByteArray record = "{\"fileList\":[{\"height\":1,\"nSize\":5000000000,"
                                     "\"strFormat\":\"\",\"urlType\":\"http\",\"videoUrl\":"
                                     "\"http://h/v\",\"width\":2}],\"playList\":[],"
                                     "\"selectedVideo\":0,\"thumbUrl\":\"\","
                                     "\"title\":\"\xc3\xa9\"}";
    static const std::vector<Row> table{
        {"parsing", ParsingBegun{QStringLiteral("http://h/p?a=1")},
         "\"http://h/p?a=1\" parsing... "},
        {"candidate", CandidateFound{QStringLiteral("http://h/v.mp4")},
         "videoUrl: \"http://h/v.mp4\" "},
        {"record", RecordMade{record}, "\"" + record + "\" "},
        {"parse failed", ParsingFailed{}, "parse failed "},
        {"exiting", Exiting{}, "exiting... "},
        {"exit flag", ExitFlagSet{}, "set ExitFlag "},
        {"memory", MemoryDetached{}, "detach sharememory "},
        {"display", DisplayMissing{}, "no display can be reached "},
        {"engine", EngineMissing{QStringLiteral("/usr/lib/engine")},
         "no page engine is installed at \"/usr/lib/engine\" "},
        {"save path", SavePathUnreadable{}, "the path of --saveto is not UTF-8 "},
        {"Flash", FlashVersion{QStringLiteral("32.0.0")}, "You have Flash player 32.0.0 installed"},
        {"usage", UsageLine{QStringLiteral("Usage:")}, "Usage:"},
        {"empty usage line", UsageLine{}, ""},
        {"video begun", DownloadBegun{What::Video}, "start download video ... "},
        {"thumb begun", DownloadBegun{What::Thumb}, "start download thumb ... "},
        {"bytes", Progress{4294967296, -1}, "\"downloaded:4294967296/-1\" "},
        {"fragments", Progress{3, 12, Unit::Fragments}, "\"downloaded:3/12\" "},
        {"video succeeded", DownloadEnded{What::Video, Outcome::Succeeded},
         "video download finished:success "},
        {"video failed", DownloadEnded{What::Video, Outcome::Failed},
         "video download finished:failed "},
        {"video canceled", DownloadEnded{What::Video, Outcome::Canceled},
         "video download finished:canceled "},
        {"thumb succeeded", DownloadEnded{What::Thumb, Outcome::Succeeded},
         "thumb download finished:success "},
        {"thumb failed", DownloadEnded{What::Thumb, Outcome::Failed},
         "thumb download finished:failed "},
        {"thumb canceled", DownloadEnded{What::Thumb, Outcome::Canceled},
         "thumb download finished:canceled "},
        {"parts succeeded", PartsEnded{true}, "video download success "},
        {"parts failed", PartsEnded{false}, "video download failed "},
        {"parts finished", PartsFinished{}, "video download finished "},
        {"output folder", OutputFolder{QStringLiteral("/a b")}, "\"/a b\" "},
        {"rtmpdump", RtmpdumpStarted{{QStringLiteral("--flv"), QStringLiteral("a b")}},
         "(\"--flv\", \"a b\") "},
        {"rtmpdump alone", RtmpdumpStarted{}, "() "},
        {"option", StreamOptionSet{QStringLiteral("a%2"), QStringLiteral("%1")},
         "\"setOption: a%2=%1\" "},
        {"proxy", StreamProxySet{2, QStringLiteral("p%1"), 80},
         "\"setOption: proxy proxyType =2 proxyHost = p%1 proxyPort = 80\" "},
        {"get", PageAsked{QStringLiteral("http://h/m")}, "Get page: \"http://h/m\" "},
        {"post", PageAsked{QStringLiteral("http://h/m"), true}, "Post page: \"http://h/m\" "},
        {"redirect", PageRedirected{QStringLiteral("/m")}, "Redirect to:  \"/m\" "},
        {"manifest", ManifestBegun{}, "Processing manifest info.... "},
        {"no manifest", ManifestMissing{QStringLiteral("m")}, "\"access m failed!\" "},
        {"broken XML", XmlBroken{7, 9}, "Error:Parse error at line: 7 column 9 "},
        {"renditions", RenditionsFound{{-2, 300}}, "\"all quality: -2  300 \" "},
        {"no renditions", RenditionsFound{}, "\"all quality:\" "},
        {"rendition", RenditionChosen{300}, "\"select quality:300\" "},
        {"no rendition", RenditionMissing{}, "select quality:-1 "},
        {"bootstrap failed", BootstrapFailed{}, "UpdateBootstrapInfo error! "},
        {"no bootstrap", BootstrapMissing{}, "manifest xml not contains bootstrap! "},
        {"broken bootstrap", BootstrapBroken{},
         "stream box is not start abst, is not f4f stream! "},
        {"empty stream", StreamEmpty{}, "stream fragCount = 0, no stream data! "},
        {"fragments counted", FragmentsCounted{5}, "\"FragCount:5\" "},
        {"retried", DownloadRetried{1, 3, 2000, RunClass::BrokenOff}, QByteArray()},
        {"resumed", DownloadResumed{4294967296}, QByteArray()},
        {"begun again", DownloadBegunAgain{QStringLiteral("it has changed")}, QByteArray()},
        {"parts missing", PartsMissing{1, 12}, QByteArray()},
        {"refused", StreamRefused{RunClass::Protected, QStringLiteral("a key")},
         "stream refused: \"a key\" "},
        {"warning", Warning{QStringLiteral("a\nb\u0001")}, QByteArray()},
        {"half a character", Warning{QString(QChar(0xd800))}, QByteArray()},
        {"ended", ended(), QByteArray()},
        {"ended early", RunEnded{}, QByteArray()},
    };
    return table;
}

std::optional<QString> kindOf(const HostEvent &event)
{
    return QStringLiteral("kind %1").arg(event.index());
}

/// JSON with single quotes for its double ones.
QByteArray json(QByteArray text)
{
    return text.replace('\'', '"');
}

/// The event as it is written.
QJsonObject envelopeOf(const HostEvent &event)
{
    QJsonObject object = JsonRenderer::objectOf(event);
    object.insert(QStringLiteral("version"), JsonRenderer::version);
    object.insert(QStringLiteral("elapsedMs"), 0);
    return object;
}

/// Restores the shipped manner of telling.
struct OtherRenderer final
{
    explicit OtherRenderer(HostEvents::Renderer renderer) { HostEvents::setRenderer(renderer); }
    ~OtherRenderer() { HostEvents::setRenderer(TextRenderer::lineOf); }
    Q_DISABLE_COPY(OtherRenderer)
};

} // namespace

class tst_HostEvents : public QObject
{
    Q_OBJECT

private slots:
    void line_data()
    {
        QTest::addColumn<HostEvent>("event");
        QTest::addColumn<QByteArray>("line");
        for (const Row &row : rows())
            QTest::newRow(row.name) << row.event << row.line;
    }

    void line()
    {
        QFETCH(HostEvent, event);
        QFETCH(QByteArray, line);
        const MessageCatcher catcher;
        HostEvents::send(event);
        if (line.isNull()) {
            QCOMPARE(catcher.lines(), QStringList());
            return;
        }
        QCOMPARE(catcher.lines().size(), 1);
        QCOMPARE(catcher.lines().constFirst().toUtf8(), line);
    }

    void everyKindFitsTheSchema()
    {
        QByteArray lines;
        QSet<QString> names;
        for (const Row &row : rows()) {
            const QJsonObject object = envelopeOf(row.event);
            names += object.value(QStringLiteral("event")).toString();
            const QByteArray line = QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
            if (std::holds_alternative<event::RunEnded>(row.event))
                QVERIFY(EventCheck::isValid(line)); // nothing may follow it
            else
                lines += line;
        }
        QVERIFY(EventCheck::isValid(lines));
        QCOMPARE(static_cast<size_t>(names.size()), std::variant_size_v<HostEvent>);
    }

    void theSchemaIsStrict_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("no JSON") << QByteArray("exiting...");
        QTest::newRow("no object") << QByteArray("[]");
        QTest::newRow("no version") << json("{'event':'exiting','elapsedMs':1}");
        QTest::newRow("no such event") << json("{'version':1,'event':'exit','elapsedMs':1}");
        QTest::newRow("a member too many")
            << json("{'version':1,'event':'exiting','elapsedMs':1,'more':1}");
        QTest::newRow("a member missing") << json("{'version':1,'event':'page','elapsedMs':1}");
        QTest::newRow("another type") << json("{'version':1,'event':'page','elapsedMs':1,'url':1}");
        QTest::newRow("no such class")
            << json("{'version':1,'event':'retry','elapsedMs':1,'kind':'video','attempt':1,"
                    "'most':1,'pauseMs':1,'cause':'fine'}");
        QTest::newRow("after the result")
            << QJsonDocument(envelopeOf(event::RunEnded{})).toJson(QJsonDocument::Compact) + '\n'
                + json("{'version':1,'event':'exiting','elapsedMs':1}");
    }

    void theSchemaIsStrict()
    {
        QFETCH(QByteArray, line);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("do not fit the schema")));
        QVERIFY(!EventCheck::isValid(line + '\n'));
    }

    void valuesOfAResult()
    {
        QCOMPARE(QJsonDocument(JsonRenderer::objectOf(ended())).toJson(QJsonDocument::Compact),
                 json("{'analysedAt':'1970-01-01T00:00:01.001Z','bytes':5000000000,"
                      "'class':'complete','classCode':0,'endedAt':'1970-01-01T00:00:01.002Z',"
                      "'event':'result','exitCode':0,'path':'/v.mp4','sha256':'"
                      + QByteArray("ab").repeated(32)
                      + "','startedAt':'1970-01-01T00:00:01.000Z'}"));
    }

    void everyKindHasARow()
    {
        std::set<size_t> kinds;
        for (const Row &row : rows())
            kinds.insert(row.event.index());
        QCOMPARE(kinds.size(), std::variant_size_v<HostEvent>);
    }

    void noTextForgesALine()
    {
        const QString text = QStringLiteral("a\nexiting... ");
        const MessageCatcher catcher;
        HostEvents::send(event::UsageLine{text});
        HostEvents::send(event::CandidateFound{text});
        QCOMPARE(catcher.lines(),
                 (QStringList{QStringLiteral("a\\nexiting... "),
                              QStringLiteral("videoUrl: \"a\\nexiting... \" ")}));
    }

    void anotherRendererSpeaksForAll()
    {
        const MessageCatcher catcher;
        {
            const OtherRenderer renderer(kindOf);
            HostEvents::send(event::ParsingBegun{});
            HostEvents::send(event::CandidateFound{});
        }
        HostEvents::send(event::Exiting{});
        QCOMPARE(catcher.lines(),
                 (QStringList{QStringLiteral("kind 0"), QStringLiteral("kind 1"),
                              QStringLiteral("exiting... ")}));
    }

    void nothingFollowsTheLastLineOfARun()
    {
        const MessageCatcher catcher;
        HostEvents::send(event::ParsingBegun{});
        std::atomic_bool isOver{false};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&isOver] {
                while (!isOver)
                    HostEvents::send(event::Progress{});
            });
        const bool haveBegun =
            QTest::qWaitFor([&catcher] { return catcher.lines().size() > 100; }, 20000);
        HostEvents::sendLast(event::Exiting{});
        HostEvents::sendLast(event::ParsingFailed{});
        HostEvents::send(event::MemoryDetached{});
        isOver = true;
        for (std::thread &thread : threads)
            thread.join();
        HostEvents::send(event::Progress{});
        QVERIFY(haveBegun);
        QCOMPARE(
            catcher.lines().mid(catcher.lines().size() - 2),
            (QStringList{QStringLiteral("exiting... "), QStringLiteral("detach sharememory ")}));
        QCOMPARE(catcher.linesWith(QStringLiteral("exiting")).size(), 1);

        HostEvents::send(event::ParsingBegun{});
        HostEvents::send(event::Progress{});
        QCOMPARE(catcher.lines().last(), QStringLiteral("\"downloaded:0/0\" "));
    }

    void linesOfThreadsStayWhole()
    {
        constexpr int threadCount = 4;
        constexpr int linesEach = 250;
        const MessageCatcher catcher;
        std::vector<std::thread> threads;
        threads.reserve(threadCount);
        for (int i = 0; i < threadCount; ++i)
            threads.emplace_back([] {
                for (int sent = 0; sent < linesEach; ++sent)
                    HostEvents::send(event::Progress{sent, linesEach});
            });
        for (std::thread &thread : threads)
            thread.join();

        QStringList expected;
        for (int sent = 0; sent < linesEach; ++sent)
            for (int i = 0; i < threadCount; ++i)
                expected += QStringLiteral("\"downloaded:%1/%2\" ").arg(sent).arg(linesEach);
        QStringList lines = catcher.lines();
        std::sort(lines.begin(), lines.end());
        std::sort(expected.begin(), expected.end());
        QCOMPARE(lines, expected);
    }
};

CLIPWEIR_TEST_MAIN(tst_HostEvents)
#include "tst_hostevents.moc"
