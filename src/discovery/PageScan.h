#ifndef PAGESCAN_H
#define PAGESCAN_H

#include "PageSnapshot.h"
#include "ParseData.h"
#include "SizeProbe.h"

#include <functional>

class NetDomManager;

/// Looks through a page's snapshot for media and adds what it finds to the record. Servers are
/// asked for sizes in nested event loops, in which the record may grow; once the scan is stopped
/// the record stays as it is.
class PageScan final
{
public:
    /// @param record not owned; outlives the scan
    /// @param pageUrl what relative addresses are resolved by
    /// @param isStopped asked after every wait
    PageScan(ParseData &record, const SizeProbe &probe, const QString &pageUrl,
             const std::function<bool()> &isStopped);

    /// Scans the "param" elements, then the source, which the record takes over.
    void scan(const PageSnapshot &snapshot);
    void scanParams(const PageSnapshot &snapshot);

private:
    void take(const PageSnapshot &snapshot, ParseData (NetDomManager::*scanner)());

    ParseData &m_record;
    const SizeProbe m_probe;
    const QString m_pageUrl;
    const std::function<bool()> m_isStopped;
};

#endif
