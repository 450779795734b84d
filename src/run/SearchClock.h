#ifndef SEARCHCLOCK_H
#define SEARCHCLOCK_H

#include <QObject>
#include <QTimer>

#include <chrono>
#include <optional>

/// When a search looks at what it has found, and when it ends: at its deadline, or as soon as a
/// page that has loaded is quiet for a while. Main thread.
class SearchClock final : public QObject
{
    Q_OBJECT

public:
    explicit SearchClock(QObject *parent = nullptr);

    /// The time that a search may take, for a number of seconds as the caller gives it. Negative
    /// ones, and more than a timer takes, set no limit.
    [[nodiscard]] static std::optional<std::chrono::milliseconds> limitOf(int seconds);

    void start(std::optional<std::chrono::milliseconds> limit);

    /// The page has loaded, or shows life after that: from now on it has to be quiet anew.
    void restartQuietPeriod();

    /// Ticks once when nothing has called this for a moment, besides the ticks that come anyway.
    void tickSoon();

    /// Whether such a tick is to come.
    [[nodiscard]] bool isTickDue() const { return m_soon.isActive(); }

    /// Until the next start() nothing is told.
    void stop();

    /// The time until timedOut() as things are; none when only a page that loads can bring it.
    [[nodiscard]] std::optional<std::chrono::milliseconds> timeLeft() const;

signals:
    void ticked();
    void timedOut();

private:
    QTimer m_tick;
    QTimer m_deadline;
    QTimer m_soon;
    QTimer m_quiet; ///< as the deadline; once the page has loaded, a quiet period
};

#endif
