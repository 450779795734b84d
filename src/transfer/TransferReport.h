#ifndef TRANSFERREPORT_H
#define TRANSFERREPORT_H

#include "RunClass.h"

#include <QByteArray>
#include <QString>

/// What can be said of a transfer that has ended, beyond its outcome.
struct TransferReport
{
    /// What became of it: Complete only if all of it has come for certain, as far as that can be
    /// told. Of a transfer that has succeeded it may tell that something is missing all the same.
    RunClass runClass = RunClass::BrokenOff;
    QByteArray sha256{}; ///< of a file that is complete; empty when it is not known
    QString path{}; ///< where the bytes are, if that is not where they were to go
};

#endif
