#include "RunTimes.h"
#include "SearchClock.h"
#include "TestMain.h"

#include <QSignalSpy>

using namespace std::chrono_literals;

/// In place of the shipped ones, whose tick takes long to wait for.
const RunTimes &runTimes()
{
    static constexpr RunTimes times{20ms, 20s, 10s, 200ms, 1s};
    return times;
}

class tst_SearchClock : public QObject
{
    Q_OBJECT

private slots:
    void limits_data()
    {
        QTest::addColumn<int>("seconds");
        QTest::addColumn<qint64>("limitMs"); // -1 for none
        QTest::newRow("none at all") << 0 << qint64(0);
        QTest::newRow("usual") << 120 << qint64(120000);
        QTest::newRow("longest") << 2147483 << qint64(2147483000);
        QTest::newRow("longer than a timer takes") << 2147484 << qint64(-1);
        QTest::newRow("negative") << -1 << qint64(-1);
    }

    void limits()
    {
        QFETCH(int, seconds);
        QFETCH(qint64, limitMs);
        const auto limit = SearchClock::limitOf(seconds);
        QCOMPARE(limit ? qint64(limit->count()) : -1, limitMs);
    }

    void ticksSoonOnce()
    {
        SearchClock clock;
        QSignalSpy ticked(&clock, &SearchClock::ticked);
        QVERIFY(!clock.isTickDue());
        clock.tickSoon();
        clock.tickSoon();
        QVERIFY(clock.isTickDue());
        QTRY_COMPARE(ticked.count(), 1);
        QVERIFY(!clock.isTickDue());
        clock.tickSoon();
        clock.stop();
        QVERIFY(!clock.isTickDue());
    }

    void endsAtTheDeadline()
    {
        SearchClock clock;
        QSignalSpy timedOut(&clock, &SearchClock::timedOut);
        clock.start(10ms);
        QTRY_VERIFY(!timedOut.isEmpty());
        QVERIFY(clock.timeLeft().has_value()); // it goes on until it is stopped
        clock.stop();
        QVERIFY(!clock.timeLeft().has_value());
    }

    void aQuietPeriodEndsASearchWithoutALimit()
    {
        SearchClock clock;
        clock.start({});
        QVERIFY(!clock.timeLeft().has_value());
        clock.restartQuietPeriod();
        QVERIFY(clock.timeLeft().has_value());
        QVERIFY(*clock.timeLeft() <= 20s && *clock.timeLeft() > 10s);
    }

    void aQuietPeriodMovesNoDeadline()
    {
        SearchClock clock;
        clock.start(15s);
        clock.restartQuietPeriod();
        QVERIFY(clock.timeLeft().has_value());
        QVERIFY(*clock.timeLeft() <= 15s);
    }

    void ticksUntilItIsStopped()
    {
        SearchClock clock;
        QSignalSpy ticked(&clock, &SearchClock::ticked);
        clock.start({});
        QTRY_VERIFY(ticked.count() >= 2);
    }
};

CLIPWEIR_TEST_MAIN(tst_SearchClock)
#include "tst_searchclock.moc"
