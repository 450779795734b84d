#ifndef ENGINEKEEPER_H
#define ENGINEKEEPER_H

#include "UniqueFd.h"

#include <QByteArray>
#include <QString>
#include <QVector>

#include <chrono>
#include <memory>

#include <sys/types.h>

/// A small process between the run and an engine that is a program of its own. It is forked while
/// the run may still start processes, starts the engine in a cage when it is told to, and ends it,
/// with all that the engine has started, as soon as the run lets go of it: by an end in order or by
/// its own death, whatever that was.
///
/// The engine speaks through two pipes, its descriptors 3 (to it) and 4 (from it).
class EngineKeeper final
{
public:
    struct Setup
    {
        QByteArray program; ///< path of an executable file, which must not be a script
        QVector<QByteArray> arguments; ///< without the program's name
        QVector<quint16> ports; ///< that may be connected to over TCP; empty for all
        qint64 memoryBytes = 0; ///< that the engine's processes may take; 0 for no limit
    };

    /// Why an engine is there no more.
    enum class End {
        Asked = 0,
        OfItself, ///< it has ended or crashed
        OverMemory,
        NotStarted ///< there is no such program, or it cannot be run
    };

    /// Forks a keeper; null when the system has no process or pipe left. Not while there are
    /// threads, or signal handlers of the run.
    [[nodiscard]] static std::unique_ptr<EngineKeeper> fork(const Setup &setup);

    /// Ends the engine.
    ~EngineKeeper();
    Q_DISABLE_COPY(EngineKeeper)

    /// Starts the engine, unless it has been started.
    void begin();

    /// Ends the engine and waits until none of its processes is left, a second at most. Returns
    /// why it has ended, if it had. Further calls return the same.
    /// @param patience with an engine that is about to end by itself, before it is ended
    End end(std::chrono::milliseconds patience = std::chrono::milliseconds::zero());

    /// The run's ends of the engine's pipes; they do not wait.
    [[nodiscard]] int readFd() const { return m_fromEngine.get(); }
    [[nodiscard]] int writeFd() const { return m_toEngine.get(); }

private:
    EngineKeeper() = default;

    pid_t m_keeper = -1;
    UniqueFd m_lifeline; ///< the keeper ends the engine once this is closed
    UniqueFd m_sign; ///< the keeper's death closes it
    UniqueFd m_toEngine;
    UniqueFd m_fromEngine;
    End m_end = End::Asked;
    bool m_hasBegun = false;
};

#endif
