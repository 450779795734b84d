#include "ShareMemoryManager.h"
#include "StopSignals.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Runs the steps in a process of its own and returns the signal that ended it; 0 when it ended by
/// itself with the exit code 0, -1 with any other.
template <typename Steps> int signalThatEnds(Steps steps)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(steps() ? 0 : 1);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status))
        return WTERMSIG(status);
    return WEXITSTATUS(status) == 0 ? 0 : -1;
}

} // namespace

class tst_StopSignals : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { setArguments({QStringLiteral("--url"), uniquePageUrl()}); }

    void theFirstSignalIsNoted_data()
    {
        QTest::addColumn<int>("number");
        QTest::newRow("interrupt") << SIGINT;
        QTest::newRow("terminate") << SIGTERM;
        QTest::newRow("hang up") << SIGHUP;
    }

    void theFirstSignalIsNoted()
    {
        QFETCH(int, number);
        const auto steps = [number] {
            StopSignals::install();
            if (StopSignals::areReceived() || ShareMemoryManager::GetInstance()->GetExitFlag())
                return false;
            std::raise(number);
            return StopSignals::areReceived() && ShareMemoryManager::GetInstance()->GetExitFlag();
        };
        QCOMPARE(signalThatEnds(steps), 0);
    }

    void anIgnoredHangUpStaysIgnored()
    {
        const auto steps = [] {
            std::signal(SIGHUP, SIG_IGN);
            StopSignals::install();
            std::raise(SIGHUP);
            if (StopSignals::areReceived())
                return false;
            StopSignals::uninstall();
            std::raise(SIGHUP);
            return true;
        };
        QCOMPARE(signalThatEnds(steps), 0);
    }

    void aTerminalMayGoTwice()
    {
        const auto steps = [] {
            StopSignals::install();
            std::raise(SIGHUP);
            std::raise(SIGHUP);
            return StopSignals::areReceived();
        };
        QCOMPARE(signalThatEnds(steps), 0);
    }

    void theSecondSignalEndsTheProcess()
    {
        const auto steps = [] {
            StopSignals::install();
            std::raise(SIGINT);
            std::raise(SIGTERM);
            return true;
        };
        QCOMPARE(signalThatEnds(steps), SIGTERM);
    }
};

CLIPWEIR_TEST_MAIN(tst_StopSignals)
#include "tst_stopsignals.moc"
