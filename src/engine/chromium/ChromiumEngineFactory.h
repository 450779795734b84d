#ifndef CHROMIUMENGINEFACTORY_H
#define CHROMIUMENGINEFACTORY_H

#include "EngineFactory.h"
#include "EngineKeeper.h"

/// Makes the current engine, which is a program that may not be installed.
class ChromiumEngineFactory final : public EngineFactory
{
public:
    /// @param isWantedAtOnce whether the engine starts while the run does, or when it is first used
    explicit ChromiumEngineFactory(bool isWantedAtOnce);
    ~ChromiumEngineFactory() override;

    /// Whether the engine that these options name is there.
    [[nodiscard]] static bool isInstalled(const RunOptions &options);

    void prepare(const RunOptions &options) override;
    [[nodiscard]] std::unique_ptr<PageEngine> make(const RunOptions &options) override;

private:
    const bool m_isWantedAtOnce;
    std::unique_ptr<EngineKeeper> m_keeper;
};

#endif
