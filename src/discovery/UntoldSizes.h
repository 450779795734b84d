#ifndef UNTOLDSIZES_H
#define UNTOLDSIZES_H

#include "ParseData.h"
#include "SizeProbe.h"

#include <QSet>

#include <functional>

/// Candidates whose servers did not tell the page how large they are, so that the record holds only
/// what had come of them.
class UntoldSizes final
{
public:
    void add(const QString &address);

    /// Asks the servers, in nested event loops; a probe may be told what the page was not.
    /// @param isStopped asked before every wait
    void askFor(ParseData &record, const SizeProbe &probe, const std::function<bool()> &isStopped);

    /// Takes what is still untold out of the record. It was good enough to find and to select the
    /// file by, but to a host it is no size.
    void forgetIn(ParseData &record) const;

private:
    QSet<QString> m_addresses;
};

#endif
