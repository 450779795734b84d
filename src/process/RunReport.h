#ifndef RUNREPORT_H
#define RUNREPORT_H

#include "HostEvent.h"

#include <QByteArray>

/// What a run has found so far, for whoever has to end it in its place. Made on the main thread,
/// used on another one.
class RunReport
{
public:
    RunReport() = default;
    virtual ~RunReport() = default;
    Q_DISABLE_COPY(RunReport)

    [[nodiscard]] virtual bool hasCandidates() const = 0;

    /// The record for the host, as JSON.
    [[nodiscard]] virtual QByteArray record() const = 0;

    /// What has become of the run. @param otherwise the class of a run of which nothing is decided
    [[nodiscard]] virtual event::RunEnded ended(RunClass otherwise) const = 0;

    /// Writes the result row of a run that ends here.
    virtual void writeRow() const = 0;
};

#endif
