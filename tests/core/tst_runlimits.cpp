#include "EndTimer.h"
#include "HostPipe.h"
#include "RunLimits.h"
#include "ShareMemoryManager.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <array>
#include <chrono>
#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr auto patience = 20s;
constexpr int stillRunning = 99;

/// Runs the steps in a process of its own and returns its exit code, which the steps give; -1 when
/// it ended otherwise.
template <typename Steps> int exitCodeOf(Steps steps)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(steps());
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Waits for as long as a test may. Returns whether the limits were reached meanwhile.
bool areReachedInTime()
{
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!RunLimits::areReached()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        ::usleep(1000);
    }
    return true;
}

/// Waits longer than any time that these tests set, whatever signals arrive.
int idle()
{
    for (unsigned left = 60; left > 0;)
        left = ::sleep(left);
    return stillRunning;
}

} // namespace

class tst_RunLimits : public QObject
{
    Q_OBJECT

    const QString m_pageUrl = uniquePageUrl();

    void setOptions(const char *options) const
    {
        setCommandLine(QStringLiteral("--url %1 %2").arg(m_pageUrl, QLatin1String(options)));
    }

    /// Lets a host start a run, then kills the host. Returns whether the run saw it.
    static bool seesTheHostsDeath()
    {
        std::array<int, 2> toTest{};
        if (::pipe(toTest.data()) != 0)
            return false;
        const pid_t host = ::fork();
        if (host == 0) {
            if (::fork() == 0) {
                RunLimits::noteStart();
                RunLimits::install();
                char seen = RunLimits::areReached() ? 'e' : 's'; // too early, or started
                ::write(toTest[1], &seen, 1);
                seen = areReachedInTime() ? 'y' : 'n';
                ::write(toTest[1], &seen, 1);
                ::_exit(0);
            }
            ::_exit(idle());
        }
        std::array<char, 2> seen{};
        const bool isStarted = ::read(toTest[0], &seen[0], 1) == 1;
        ::kill(host, SIGKILL);
        ::waitpid(host, nullptr, 0);
        const bool isTold = ::read(toTest[0], &seen[1], 1) == 1;
        ::close(toTest[0]);
        ::close(toTest[1]);
        return isStarted && isTold && seen[0] == 's' && seen[1] == 'y';
    }

private slots:
    void withoutOptionsThereIsNoLimit_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::newRow("none given") << QByteArray();
        QTest::newRow("a deadline of nothing") << QByteArray("--deadline 0");
        QTest::newRow("a negative deadline") << QByteArray("--deadline -1");
        QTest::newRow("a deadline that is no number") << QByteArray("--deadline now");
    }

    void withoutOptionsThereIsNoLimit()
    {
        QFETCH(QByteArray, options);
        setOptions(options.constData());
        QCOMPARE(exitCodeOf([] {
                     RunLimits::noteStart();
                     RunLimits::install();
                     ::usleep(10000);
                     return RunLimits::areReached() ? 1 : 0;
                 }),
                 0);
    }

    void theDeadlineCountsFromTheStart()
    {
        setOptions("--deadline 1");
        QCOMPARE(exitCodeOf([] {
                     RunLimits::noteStart();
                     const auto start = std::chrono::steady_clock::now();
                     RunLimits::install();
                     auto *const manager = ShareMemoryManager::GetInstance();
                     if (RunLimits::areReached() || manager->GetExitFlag())
                         return 1;
                     if (!areReachedInTime() || std::chrono::steady_clock::now() - start < 900ms)
                         return 2;
                     return manager->GetExitFlag() ? 0 : 3;
                 }),
                 0);
    }

    void aDeadlineFarAwayDoesNoHarm()
    {
        setOptions("--deadline 2147483647");
        QCOMPARE(exitCodeOf([] {
                     RunLimits::noteStart();
                     RunLimits::install();
                     ::usleep(10000);
                     return RunLimits::areReached() ? 1 : 0;
                 }),
                 0);
    }

    void aProcessThatDoesNothingAboutItsDeadlineIsEnded()
    {
        setOptions("--deadline 1");
        QCOMPARE(exitCodeOf([] {
                     RunLimits::noteStart();
                     RunLimits::install();
                     return idle();
                 }),
                 0);
    }

    void theHostsDeathIsSeen()
    {
        setOptions("--parent");
        QVERIFY(seesTheHostsDeath());
    }

    void aHostThatLivesEndsNothing()
    {
        setOptions("--parent");
        QCOMPARE(exitCodeOf([] {
                     RunLimits::noteStart();
                     RunLimits::install();
                     ::usleep(10000);
                     return RunLimits::areReached() ? 1 : 0;
                 }),
                 0);
    }

    void theTimerEndsTheProcess_data()
    {
        QTest::addColumn<int>("firstMs");
        QTest::addColumn<int>("secondMs");
        QTest::addColumn<int>("exitCode");
        QTest::newRow("the later is no longer heard") << 50 << 600000 << 1;
        QTest::newRow("the earlier takes its place") << 600000 << 50 << 2;
        QTest::newRow("at once") << 600000 << 0 << 2;
        QTest::newRow("in the past") << 600000 << -1000 << 2;
    }

    void theTimerEndsTheProcess()
    {
        QFETCH(int, firstMs);
        QFETCH(int, secondMs);
        QFETCH(int, exitCode);
        const auto steps = [firstMs, secondMs] {
            EndTimer::endWithin(std::chrono::milliseconds(firstMs), 1);
            EndTimer::endWithin(std::chrono::milliseconds(secondMs), 2);
            return idle();
        };
        QCOMPARE(exitCodeOf(steps), exitCode);
    }

    void theTimerMayWaitOnceMore()
    {
        QCOMPARE(exitCodeOf([] {
                     EndTimer::endWithin(1ms, 1, EndTimer::AtTheEnd::WaitOnce);
                     ::sleep(60); // until the first alarm
                     EndTimer::endWithin(1ms, 2);
                     return idle();
                 }),
                 2);
    }

    void theTimerWaitsForLinesThatAreSlowToCome()
    {
        QCOMPARE(exitCodeOf([] {
                     EndTimer::endWithin(1ms, 1, EndTimer::AtTheEnd::WaitUnlessHeldUp);
                     ::sleep(60); // until the first alarm
                     EndTimer::endWithin(0ms, 2);
                     return idle();
                 }),
                 2);
    }

    void theTimerWaitsForNoHostThatDoesNotRead()
    {
        QCOMPARE(exitCodeOf([] {
                     int ends[2];
                     if (::pipe(ends) != 0)
                         return stillRunning;
                     EndTimer::endWithin(20ms, 9, EndTimer::AtTheEnd::WaitUnlessHeldUp);
                     HostPipe::write(ends[1], QByteArray(1 << 20, 'x'));
                     return stillRunning;
                 }),
                 9);
    }

    void theTimerWaitsNotForEver()
    {
        QCOMPARE(exitCodeOf([] {
                     EndTimer::endWithin(1ms, 8, EndTimer::AtTheEnd::WaitUnlessHeldUp);
                     return idle();
                 }),
                 8);
    }

    void theTimerEndsABusyProcess()
    {
        QCOMPARE(exitCodeOf([] {
                     EndTimer::endWithin(50ms, 7);
                     volatile bool isEndless = true;
                     while (isEndless) { }
                     return stillRunning;
                 }),
                 7);
    }

    void aTimeBeyondAllMeaningDoesNoHarm()
    {
        QCOMPARE(exitCodeOf([] {
                     EndTimer::endWithin(std::chrono::milliseconds::max(), 1);
                     ::usleep(10000);
                     return 5;
                 }),
                 5);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunLimits)
#include "tst_runlimits.moc"
