#ifndef NETDOMMANAGER_H
#define NETDOMMANAGER_H

#include <QPair>

#include "PageSnapshot.h"
#include "ParseData.h"
#include "SizeProbe.h"

#include <functional>

/// Finds media that a page names only in its markup: in the player description of a plug-in's
/// parameters, or as plain addresses in its source. Sizes are asked of the servers in nested event
/// loops, so the owner looks at its own state again after each scan.
class NetDomManager final
{
public:
    /// By the options of the command line.
    NetDomManager();

    /// @param pageUrl what relative addresses are resolved by
    NetDomManager(const SizeProbe &probe, const QString &pageUrl);

    void setDomInfo(const PageSnapshot &snapshot);
    void setParseInfo(const ParseData &data);

    /// Ends a scan early: asked after every wait.
    void setStopCheck(const std::function<bool()> &isStopped);

    /// Scans the "param" elements of the document. Returns the record with what was added.
    ParseData getDomVideoInfo();

    /// Scans the record's pageSource. Returns the record with what was added.
    ParseData getPageSourceVideoInfo();

    /// Looks at what the snapshot's media elements name. Returns the record with what was added.
    ParseData getMediaElementInfo();

    /// Width and height that stand for a stream of that quality name.
    [[nodiscard]] static QPair<int, int> getSolution(const QString &name);

private:
    [[nodiscard]] QByteArray playerDescription() const;
    void addStream(const QString &address, const QString &quality);
    void addSourceAddress(const QString &address);
    void append(const VideoFile &file);
    [[nodiscard]] bool isStopped() const;

    const SizeProbe m_sizeProbe;
    const QString m_pageUrl;
    PageSnapshot m_snapshot;
    ParseData m_data;
    std::function<bool()> m_isStopped;
};

#endif
