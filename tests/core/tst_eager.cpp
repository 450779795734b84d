#include "FakeEngine.h"
#include "RunTimes.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "browser.h"

using namespace std::chrono_literals;

/// In place of the shipped ones: no tick comes by itself.
const RunTimes &runTimes()
{
    static constexpr RunTimes times{1h, 1h, 10s, 50ms, 1s};
    return times;
}

namespace {

const QString video = QStringLiteral("http://127.0.0.1:1/v.mp4");
const QString type = QStringLiteral("video/mp4");
constexpr qint64 enough = 6000000;

} // namespace

/// When a search with "--eager" looks at what it has found.
class tst_Eager : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryWorkFolder> m_folder;
    std::shared_ptr<const QStringList> m_calls;
    FakeEngine *m_engine = nullptr;
    std::unique_ptr<Browser> m_browser;

    void begin(const QString &option)
    {
        setCommandLine(QStringLiteral("--timeout 1000 --url %1 %2").arg(uniquePageUrl(), option));
        auto engine = std::make_unique<FakeEngine>();
        m_engine = engine.get();
        m_calls = engine->calls();
        m_browser = std::make_unique<Browser>(std::move(engine), RunOptions::ofCommandLine());
        m_browser->loadPage();
    }

    [[nodiscard]] bool isLookedAt() const
    {
        return m_calls->contains(QStringLiteral("requestSnapshot"));
    }

    [[nodiscard]] bool isLookDue() const
    {
        return m_browser->findChild<SearchClock *>()->isTickDue();
    }

private slots:
    void init() { m_folder = std::make_unique<TemporaryWorkFolder>(); }

    void cleanup()
    {
        m_browser->endRun();
        m_browser.reset();
        m_folder.reset();
    }

    void aFoundVideoIsLookedAt()
    {
        begin(QStringLiteral("--eager"));
        emit m_engine->replySeen(video, enough, type);
        QVERIFY(!isLookedAt());
        QTRY_VERIFY(isLookedAt());
    }

    void withoutTheOptionTheTickIsWaitedFor()
    {
        begin(QString());
        emit m_engine->replySeen(video, enough, type);
        QVERIFY(!isLookDue());
    }

    void aCandidateThatIsNotGoodEnoughIsNoReason()
    {
        begin(QStringLiteral("--eager"));
        emit m_engine->replySeen(video, 2000000, type);
        QVERIFY(!isLookDue());
        emit m_engine->replySeen(video, enough, type);
        QVERIFY(isLookDue());
    }

    void whatIsNoMediaPutsNothingOff()
    {
        begin(QStringLiteral("--eager"));
        emit m_engine->replySeen(QStringLiteral("http://127.0.0.1:1/x"), enough,
                                 QStringLiteral("text/html"));
        QVERIFY(!isLookDue());
    }

    void aVideoThatGoesOnComingIsNoFurtherWish()
    {
        begin(QStringLiteral("--eager"));
        QTimer progress; // far more often than the pause is long
        connect(&progress, &QTimer::timeout, this,
                [this] { emit m_engine->replySeen(video, enough, type); });
        progress.start(1);
        QTRY_VERIFY(isLookedAt());
    }

    void aSnapshotEndsTheSearch()
    {
        begin(QStringLiteral("--eager"));
        m_engine->answerWith(PageSnapshot());
        emit m_engine->replySeen(video, enough, type);
        QTRY_VERIFY(m_calls->contains(QStringLiteral("stop")));
    }
};

CLIPWEIR_TEST_MAIN(tst_Eager)
#include "tst_eager.moc"
