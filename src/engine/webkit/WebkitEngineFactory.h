#ifndef WEBKITENGINEFACTORY_H
#define WEBKITENGINEFACTORY_H

#include "EngineFactory.h"

/// Makes engines that live in this process.
class WebkitEngineFactory final : public EngineFactory
{
public:
    /// Tells the engine's media framework which of its elements it may not use.
    void prepare(const RunOptions &options) override;

    [[nodiscard]] std::unique_ptr<PageEngine> make(const RunOptions &options) override;
};

#endif
