#include "HdsFixtures.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "WatchedRun.h"

#include <QDir>
#include <QElapsedTimer>
#include <QRandomGenerator>

#include <algorithm>

namespace {

constexpr int usualKills = 12; // in the suite, of each kind; CLIPWEIR_KILLS asks for more
constexpr int killsInARow = 3; // before a run is let through to its end
constexpr int maxStarts = 40;
constexpr int maxRounds = 50;
constexpr int lastMomentMs = 3500; // the kill comes at any moment until then
constexpr int videoBytes = 6000000;
constexpr int fragmentCount = 40;
constexpr int fragmentPadding = 20000;

/// A run that is killed now and then and started again until it reports success.
class KillCell : public FaultCell
{
public:
    explicit KillCell(quint32 seed)
        : m_random(seed)
    {
    }

    void begin() override
    {
        serve();
        startAgain();
    }

    bool watch() override
    {
        if (!m_run.hasEnded()) {
            // A run that has told of its success is only tidying up.
            const bool isDone = m_run.program().errorOutput().contains("finished:success");
            if (!isDone && m_kills < killsInARow && m_sinceStart.hasExpired(m_killAtMs)) {
                m_run.program().process().kill();
                m_run.program().process().waitForFinished();
                m_isKilled = true;
                ++m_kills;
            }
            return false;
        }
        // The kill may have come right after the success of which nobody had read yet.
        const bool isDone =
            !m_isKilled && m_run.program().errorOutput().contains("finished:success");
        if (isDone || m_starts >= maxStarts)
            return true;
        startAgain();
        return false;
    }

    QString outcome() const override
    {
        const QString result = m_run.result();
        if (result != QLatin1String("success"))
            return result;
        const QStringList temporary = QDir(m_run.program().path(option("tmp/f4ftmp")))
                                          .entryList({option("*.*")}, QDir::Files);
        const QStringList left = leftovers() + temporary;
        if (!left.isEmpty())
            return option("it leaves ") + left.join(QLatin1Char(' '));
        const QByteArray file = m_run.program().fileContent(path());
        return file == expected() ? QString() : option("the file is another one");
    }

    int kills() const { return m_kills; }

protected:
    virtual void serve() = 0;
    virtual QStringList arguments() const = 0;
    virtual QString path() const = 0;
    virtual QByteArray expected() const = 0;

    ScriptedServer m_server;

private:
    /// Those that no later run takes away.
    QStringList leftovers() const
    {
        QStringList found = m_run.leftovers().split(option(", "), Qt::SkipEmptyParts);
        const auto goLater = std::remove_if(found.begin(), found.end(), [](const QString &name) {
            return name.startsWith(QLatin1String("clipweir_keyfile_"));
        });
        found.erase(goLater, found.end());
        return found;
    }

    void startAgain()
    {
        ++m_starts;
        m_isKilled = false;
        m_killAtMs = m_random.bounded(lastMomentMs);
        m_sinceStart.start();
        m_run.start(arguments());
    }

    QRandomGenerator m_random;
    QElapsedTimer m_sinceStart;
    int m_killAtMs = 0;
    bool m_isKilled = false;
    int m_kills = 0;
    int m_starts = 0;
};

/// A download from a slow server.
class DownloadCell final : public KillCell
{
public:
    using KillCell::KillCell;

protected:
    void serve() override
    {
        servePage(m_server, m_video, [this](const HttpRequest &request) {
            HttpReply reply = ScriptedServer::rangeReply(request, m_video, "video/mp4");
            reply.pieceBytes = 64 * 1024;
            reply.pieceDelayMs = 20;
            return reply;
        });
    }

    QStringList arguments() const override
    {
        return {option("--url"), m_server.address("/page"), option("--timeout"),
                option("2"),     option("--size"),          QString::number(videoBytes)};
    }

    QString path() const override
    {
        return option("tmp/") + pageHash(m_server.address("/page")) + option(".mp4");
    }

    QByteArray expected() const override { return m_video; }

private:
    const QByteArray m_video = testBytes(videoBytes);
};

/// A stream from a slow server.
class StreamCell final : public KillCell
{
public:
    StreamCell(quint32 seed, const QByteArray &whole)
        : KillCell(seed)
        , m_whole(whole)
    {
    }

    /// The file of a run that nobody disturbs; empty when it fails.
    static QByteArray undisturbed()
    {
        ScriptedServer server;
        serveStream(server, 0);
        ProgramRun run;
        const bool hasEnded = run.run({option("--url"), server.address("/page"), option("--f4f")});
        return hasEnded && run.errorOutput().contains("finished:success")
            ? run.fileContent(pathOf(server))
            : QByteArray();
    }

protected:
    void serve() override { serveStream(m_server, 400); }

    QStringList arguments() const override
    {
        return {option("--url"), m_server.address("/page"), option("--f4f")};
    }

    QString path() const override { return pathOf(m_server); }
    QByteArray expected() const override { return m_whole; }

private:
    static QString pathOf(const ScriptedServer &server)
    {
        return option("tmp/") + pageHash(server.address("/page")) + option(".flv");
    }

    static void serveStream(ScriptedServer &server, int delayMs)
    {
        server.on("/page", htmlReply("<script>new Image().src = '/s/m.f4m';</script>"));
        server.on("/s/m.f4m",
                  mediaReply(hds::manifest("stream", hds::simpleBootstrap(fragmentCount))));
        for (int i = 1; i <= fragmentCount; ++i) {
            HttpReply reply = mediaReply(hds::numberedFragment(i, fragmentPadding));
            reply.delayMs = delayMs;
            server.on("/s/streamSeg1-Frag" + QByteArray::number(i), reply);
        }
    }

    const QByteArray m_whole;
};

int wantedKills()
{
    const int wanted = qEnvironmentVariableIntValue("CLIPWEIR_KILLS");
    return wanted > 0 ? wanted : usualKills;
}

} // namespace

/// Runs that are killed at random moments and started again until they are done.
class tst_FaultsKill : public QObject
{
    Q_OBJECT

    quint32 m_seed = 0;

    using Maker = std::function<std::unique_ptr<KillCell>(quint32 seed)>;

    /// Kills runs until there have been enough, and looks at what came out of each.
    void killRuns(const Maker &make)
    {
        QRandomGenerator seeds(m_seed);
        int kills = 0;
        // A run may be over before its moment, so that there are rounds until there are enough
        // kills.
        for (int round = 0; kills < wantedKills(); ++round) {
            QVERIFY2(round < maxRounds, "the runs end before they are killed");
            const int left = wantedKills() - kills;
            std::vector<std::unique_ptr<FaultCell>> cells;
            for (int i = 0; i < left; i += killsInARow)
                cells.push_back(make(seeds.generate()));
            runTogether(cells);
            for (const auto &cell : cells) {
                QCOMPARE(cell->outcome(), QString());
                kills += static_cast<const KillCell &>(*cell).kills();
            }
        }
        qInfo("%d kills", kills);
    }

private slots:
    void initTestCase()
    {
        bool isChosen = false;
        m_seed = qEnvironmentVariable("CLIPWEIR_SEED").toUInt(&isChosen);
        if (!isChosen)
            m_seed = QRandomGenerator::global()->generate();
        qInfo("CLIPWEIR_SEED=%u", m_seed);
    }

    void download()
    {
        killRuns([](quint32 seed) { return std::make_unique<DownloadCell>(seed); });
    }

    void stream()
    {
        const QByteArray whole = StreamCell::undisturbed();
        QVERIFY(!whole.isEmpty());
        killRuns([&whole](quint32 seed) { return std::make_unique<StreamCell>(seed, whole); });
    }
};

CLIPWEIR_TEST_MAIN(tst_FaultsKill)
#include "tst_faults_kill.moc"
