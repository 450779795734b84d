#include "PageScan.h"

#include "NetDomManager.h"

PageScan::PageScan(ParseData &record, const SizeProbe &probe, const QString &pageUrl,
                   const std::function<bool()> &isStopped)
    : m_record(record)
    , m_probe(probe)
    , m_pageUrl(pageUrl)
    , m_isStopped(isStopped)
{
}

void PageScan::scan(const PageSnapshot &snapshot)
{
    if (!snapshot.source.isEmpty())
        m_record.pageSource = snapshot.source;
    if (snapshot.hasRootAttributes)
        scanParams(snapshot);
    if (!snapshot.source.isEmpty() && !m_isStopped())
        take(snapshot, &NetDomManager::getPageSourceVideoInfo);
    if (!snapshot.media.isEmpty() && !m_isStopped())
        take(snapshot, &NetDomManager::getMediaElementInfo);
}

void PageScan::scanParams(const PageSnapshot &snapshot)
{
    take(snapshot, &NetDomManager::getDomVideoInfo);
}

/// Runs a scanner over a copy of the record, in which the texts are shared, and takes over what it
/// added.
void PageScan::take(const PageSnapshot &snapshot, ParseData (NetDomManager::*scanner)())
{
    NetDomManager manager(m_probe, m_pageUrl);
    manager.setDomInfo(snapshot);
    manager.setParseInfo(m_record);
    manager.setStopCheck(m_isStopped);
    const int knownFiles = m_record.fileList.size();
    const ParseData scanned = (manager.*scanner)();
    if (m_isStopped())
        return;
    for (int i = knownFiles; i < scanned.fileList.size(); ++i) {
        const VideoFile &file = scanned.fileList.at(i);
        if (!m_record.contains(file.address()))
            m_record.fileList += file;
    }
}
