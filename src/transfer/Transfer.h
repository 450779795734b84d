#ifndef TRANSFER_H
#define TRANSFER_H

#include "TransferReport.h"

#include <QObject>

/// One thing that a run brings to disk: a file, or a stream of segments that becomes one. Whoever
/// has it knows neither the protocol nor the threads behind it. It belongs to the main thread and
/// may be destroyed at any time but from a slot of progressed(): that stops it.
class Transfer : public QObject
{
    Q_OBJECT

public:
    enum class Outcome { Canceled = -1, Failed = 0, Succeeded = 1 };
    Q_ENUM(Outcome)

    using QObject::QObject;

    /// Starts it, once. ended() may come from inside this call, as may nested event loops.
    virtual void start() = 0;

    /// Ends it; what is on the disk stays. Legal at any time: before start() that call then ends at
    /// once, after the end this does nothing.
    virtual void cancel() = 0;

    /// What became of it. After its end, and while ended() is being told.
    /// @param outcome as ended() tells it
    [[nodiscard]] virtual TransferReport report(Outcome outcome) const
    {
        return {outcome == Outcome::Succeeded ? RunClass::Complete : RunClass::BrokenOff};
    }

signals:
    /// How far it has come, in bytes, or in segments where the bytes are not known before the end.
    /// @param total 0 while unknown
    void progressed(qint64 done, qint64 total);

    /// The end. Sent once.
    void ended(Transfer::Outcome outcome);
};

#endif
