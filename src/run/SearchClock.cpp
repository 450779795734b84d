#include "SearchClock.h"

#include "RunTimes.h"

#include <limits>

using std::chrono::milliseconds;

SearchClock::SearchClock(QObject *parent)
    : QObject(parent)
{
    for (QTimer *const timer : {&m_tick, &m_deadline, &m_quiet, &m_soon})
        timer->setTimerType(Qt::PreciseTimer);
    m_soon.setSingleShot(true);
    connect(&m_soon, &QTimer::timeout, this, &SearchClock::ticked);
    connect(&m_tick, &QTimer::timeout, this, &SearchClock::ticked);
    connect(&m_deadline, &QTimer::timeout, this, &SearchClock::timedOut);
    connect(&m_quiet, &QTimer::timeout, this, &SearchClock::timedOut);
}

std::optional<milliseconds> SearchClock::limitOf(int seconds)
{
    const milliseconds limit = std::chrono::seconds(seconds);
    if (seconds < 0 || limit.count() >= std::numeric_limits<int>::max())
        return {};
    return limit;
}

void SearchClock::start(std::optional<milliseconds> limit)
{
    m_tick.start(runTimes().analysisTick);
    if (limit) {
        m_deadline.start(*limit);
        m_quiet.start(*limit);
    }
}

void SearchClock::restartQuietPeriod()
{
    m_quiet.start(runTimes().quietPeriod);
}

void SearchClock::tickSoon()
{
    m_soon.start(runTimes().eagerPause);
}

void SearchClock::stop()
{
    for (QTimer *const timer : {&m_tick, &m_deadline, &m_quiet, &m_soon})
        timer->stop();
}

std::optional<milliseconds> SearchClock::timeLeft() const
{
    std::optional<milliseconds> left;
    for (const QTimer *const timer : {&m_deadline, &m_quiet}) {
        const milliseconds rest = timer->remainingTimeAsDuration();
        if (timer->isActive() && (!left || rest < *left))
            left = rest;
    }
    return left;
}
