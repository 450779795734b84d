#ifndef STOPFLAG_H
#define STOPFLAG_H

#include <atomic>
#include <memory>

/// A request to stop that several objects, on any threads, share. Copies share one state; once
/// raised it stays raised.
class StopFlag final
{
public:
    StopFlag()
        : m_isRaised(std::make_shared<std::atomic_bool>(false))
    {
    }

    void raise() const { m_isRaised->store(true); }
    [[nodiscard]] bool isRaised() const { return m_isRaised->load(); }

private:
    std::shared_ptr<std::atomic_bool> m_isRaised;
};

#endif
