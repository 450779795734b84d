#include "HdsFixtures.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "WatchedRun.h"

#include <QDir>

#include <cerrno>

namespace {

constexpr int videoBytes = 5300000; // from 5 MiB on a video counts as one
constexpr int fragmentCount = 6;
constexpr int samples = 3; // of each kind of call, spread over the run; CLIPWEIR_WALK=1 takes all

/// A kind of call and how it fails.
struct Kind
{
    const char *call;
    int error;
};

const Kind kinds[] = {
    {"write", ENOSPC},         {"read", EIO},     {"open", EMFILE},      {"rename", EIO},
    {"mkdir", ENOSPC},         {"fsync", EIO},    {"ftruncate", ENOSPC}, {"socket", EMFILE},
    {"connect", ECONNREFUSED}, {"send", ENOBUFS}, {"recv", ECONNRESET},  {"thread", EAGAIN},
    {"shmget", ENOSPC},        {"shmat", ENOMEM}, {"semget", ENOSPC},    {"semop", ENOSPC},
};

/// A run in which one call fails, or all from one on.
class CallCell final : public FaultCell
{
public:
    /// @param plan see failing_calls.cpp; empty for none
    CallCell(bool isStream, const QByteArray &plan)
        : m_isStream(isStream)
        , m_plan(plan)
    {
    }

    void begin() override
    {
        serve();
        ProgramRun &program = m_run.program();
        program.setEnvironment(option("LD_PRELOAD"), QStringLiteral(FAILING_CALLS));
        program.setEnvironment(option("CLIPWEIR_FAIL"), QString::fromLatin1(m_plan));
        program.setEnvironment(option("CLIPWEIR_FAIL_UNDER"), program.folder());
        program.setEnvironment(option("CLIPWEIR_FAIL_COUNT"), program.path(option("tmp/counts")));
        QStringList arguments{option("--url"), m_server.address("/page"), option("--timeout"),
                              option("6"), option("--log")};
        arguments += option(m_isStream ? "--f4f" : "--thumb");
        m_run.start(arguments);
    }

    QString outcome() const override
    {
        constexpr int noOutputFolder = 13;
        const ProgramRun &program = m_run.program();
        if (program.endedNormally() && program.exitCode() == noOutputFolder)
            return QString();
        // Without the block of the stop flag the run has no last line about it.
        const bool hasBlock =
            !m_plan.startsWith("shm") && !m_plan.startsWith("sem") && !m_plan.startsWith("open");
        const QString result = m_run.result(hasBlock);
        if (result.startsWith(QLatin1String("BROKEN")))
            return result;
        if (hasBlock && !m_run.leftovers().isEmpty())
            return option("it leaves ") + m_run.leftovers();
        const bool isSuccess = result == QLatin1String("success");
        return isSuccess && !isRight() ? option("success without the right file") : QString();
    }

    /// How often each call was made.
    QHash<QByteArray, int> counts() const
    {
        QHash<QByteArray, int> found;
        for (const QByteArray &line :
             m_run.program().fileContent(option("tmp/counts")).split('\n')) {
            const QList<QByteArray> words = line.split(' ');
            found.insert(words.first(), words.value(1).toInt());
        }
        return found;
    }

    bool isSuccess() const { return m_run.result() == QLatin1String("success") && isWhole(); }

private:
    void serve()
    {
        const QByteArray head =
            "<meta property=\"og:image\" content=\"" + m_server.address("/t.jpg").toUtf8() + "\">";
        HttpReply page =
            htmlReply(m_isStream ? QByteArray("<script>new Image().src='/s/m.f4m'</script>")
                                 : videoPage("/v.mp4", head));
        page.headers +=
            qMakePair(QByteArray("Set-Cookie"), QByteArray("kept=1; Path=/; Max-Age=3600"));
        m_server.on("/page", page);
        m_server.serve("/v.mp4", testBytes(videoBytes), "video/mp4");
        m_server.serve("/t.jpg", testBytes(2000), "image/jpeg");
        m_server.on("/s/m.f4m",
                    mediaReply(hds::manifest("stream", hds::simpleBootstrap(fragmentCount))));
        for (int i = 1; i <= fragmentCount; ++i)
            m_server.on("/s/streamSeg1-Frag" + QByteArray::number(i),
                        mediaReply(hds::numberedFragment(i, 1000)));
    }

    /// Whether the file is what a success promises: the whole, but for fragments of a stream that
    /// the network has not brought in all their attempts.
    bool isRight() const
    {
        const bool isNetwork = m_plan.startsWith("socket") || m_plan.startsWith("connect")
            || m_plan.startsWith("send") || m_plan.startsWith("recv");
        return isWhole() || (m_isStream && isNetwork && tagCount() >= 0);
    }

    /// The number of tags of the stream's file; -1 when it is damaged.
    int tagCount() const
    {
        const QString name = option("tmp/") + pageHash(m_server.address("/page")) + option(".flv");
        QString error;
        const auto tags = hds::readFlv(m_run.program().fileContent(name), error);
        return error.isEmpty() ? tags.size() : -1;
    }

    bool isWhole() const
    {
        const QString name = option("tmp/") + pageHash(m_server.address("/page"));
        if (m_isStream)
            return tagCount() == 2 * fragmentCount;
        return m_run.program().fileContent(name + option(".mp4")) == testBytes(videoBytes);
    }

    const bool m_isStream;
    const QByteArray m_plan;
    ScriptedServer m_server;
};

/// Some numbers from 1 to a count, spread over it; all of them when that is asked for.
QVector<int> numbersTo(int count)
{
    QVector<int> numbers;
    const bool isWalk = qEnvironmentVariableIsSet("CLIPWEIR_WALK");
    const int wanted = isWalk ? count : qMin(count, samples);
    for (int i = 0; i < wanted; ++i)
        numbers += wanted == 1 ? 1 : 1 + i * (count - 1) / (wanted - 1);
    return numbers;
}

} // namespace

/// Whole runs one of whose calls to the system fails: none crashes, hangs or reports a success that
/// is none.
class tst_FaultsCalls : public QObject
{
    Q_OBJECT

    static void failCalls(bool isStream)
    {
        QTest::addColumn<QString>("complaint");
        std::vector<std::unique_ptr<FaultCell>> first;
        first.push_back(std::make_unique<CallCell>(isStream, QByteArray()));
        runTogether(first);
        const auto &undisturbed = static_cast<const CallCell &>(*first.front());
        QTest::newRow("nothing fails")
            << (undisturbed.isSuccess() ? QString() : option("no success"));

        std::vector<std::unique_ptr<FaultCell>> cells;
        QList<QByteArray> names;
        for (const Kind &kind : kinds) {
            const int count = undisturbed.counts().value(kind.call);
            for (const int number : numbersTo(count)) {
                for (const char *const end : {"", "+"}) {
                    names += QByteArray(kind.call) + ':' + QByteArray::number(number) + ':'
                        + QByteArray::number(kind.error) + end;
                    cells.push_back(std::make_unique<CallCell>(isStream, names.last()));
                }
            }
        }
        runTogether(cells);
        for (int i = 0; i < names.size(); ++i)
            QTest::newRow(names.at(i)) << cells.at(static_cast<size_t>(i))->outcome();
    }

    static void judge()
    {
        QFETCH(QString, complaint);
        QCOMPARE(complaint, QString());
    }

private slots:
    void download_data() { failCalls(false); }
    void download() { judge(); }
    void stream_data() { failCalls(true); }
    void stream() { judge(); }
};

CLIPWEIR_TEST_MAIN(tst_FaultsCalls)
#include "tst_faults_calls.moc"
