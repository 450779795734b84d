#ifndef ENGINEPROCESS_H
#define ENGINEPROCESS_H

#include "EngineKeeper.h"

#include <QByteArray>
#include <QObject>
#include <QSocketNotifier>

#include <chrono>
#include <memory>

/// The messages to and from an engine that is a program of its own: texts, each ended by a zero
/// byte. It neither waits for the engine nor keeps more than a bounded amount for it. Main thread,
/// with an event loop.
class EngineProcess final : public QObject
{
    Q_OBJECT

public:
    /// Starts the engine, unless it has been started.
    /// @param keeper null for an engine that ends at once
    explicit EngineProcess(std::unique_ptr<EngineKeeper> keeper, QObject *parent = nullptr);

    /// Sends a message, without its zero. One to an engine that is gone is dropped.
    void send(const QByteArray &message);

    /// Passes on what comes, as the event loop would, until a time has passed or the condition
    /// holds. Returns whether it holds. No event of anybody else is handled meanwhile.
    template <typename Condition>
    bool waitFor(std::chrono::milliseconds limit, const Condition &condition)
    {
        const auto lastMoment = std::chrono::steady_clock::now() + limit;
        while (!condition() && m_keeper && receiveBefore(lastMoment)) { }
        return condition();
    }

    /// Ends the engine, if it is there, and waits until it is gone. ended() is not sent.
    void end();

signals:
    void received(const QByteArray &message);

    /// The engine is gone, or cannot be spoken with any more and has been ended.
    void ended(const QString &reason);

private:
    void readOn();
    void writeOn();
    void takeMessages();
    [[nodiscard]] bool receiveBefore(std::chrono::steady_clock::time_point lastMoment);
    void give(const QString &reason);
    EngineKeeper::End letGo(std::chrono::milliseconds endsWithin);

    std::unique_ptr<EngineKeeper> m_keeper; ///< null once the engine has ended
    std::unique_ptr<QSocketNotifier> m_readable;
    std::unique_ptr<QSocketNotifier> m_writable;
    QByteArray m_arrived; ///< from m_taken on, what has not been passed on
    int m_taken = 0;
    int m_searched = 0; ///< for the end of a message
    QByteArray m_unsent; ///< from m_sent on
    int m_sent = 0;
    QByteArray m_chunk;
};

#endif
