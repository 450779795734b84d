#ifndef ENGINEFACTORY_H
#define ENGINEFACTORY_H

#include "PageEngine.h"
#include "RunOptions.h"

#include <memory>

/// Makes the page engines of one kind. Main thread.
class EngineFactory
{
public:
    EngineFactory() = default;
    virtual ~EngineFactory() = default;
    Q_DISABLE_COPY(EngineFactory)

    /// Does what an engine needs while the process may still do everything: before the sandbox goes
    /// up and before there are any threads. It is the place to start a child process, or to set
    /// what a library reads from the environment. Once at most, and not without a page run.
    virtual void prepare(const RunOptions &options) = 0;

    /// An engine without a page yet, from inside the sandbox.
    [[nodiscard]] virtual std::unique_ptr<PageEngine> make(const RunOptions &options) = 0;
};

#endif
