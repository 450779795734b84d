#include "NetDomManager.h"

#include "HostEvents.h"
#include "PageText.h"
#include "PlayerDescription.h"
#include "RunOptions.h"
#include "utils.h"

namespace {

constexpr qint64 smallestSourceFileBytes = 1048576;

/// The pieces of the player description that one "param" element carries. The rule is one of
/// position: what follows the attribute that says "flashvars" holds them.
QByteArray descriptionIn(const PageSnapshot::Attributes &param)
{
    QByteArray description;
    bool isFlashVarsNext = false;
    for (const auto &attribute : param) {
        if (isFlashVarsNext)
            description += PlayerDescription::piecesIn(attribute.second);
        isFlashVarsNext = attribute.second == QLatin1String("flashvars");
    }
    return description;
}

} // namespace

NetDomManager::NetDomManager()
    : NetDomManager(SizeProbe(RunOptions::ofCommandLine().netSettings()),
                    RunOptions::ofCommandLine().pageUrl)
{
}

NetDomManager::NetDomManager(const SizeProbe &probe, const QString &pageUrl)
    : m_sizeProbe(probe)
    , m_pageUrl(pageUrl)
{
}

void NetDomManager::setDomInfo(const PageSnapshot &snapshot)
{
    m_snapshot = snapshot;
}

void NetDomManager::setParseInfo(const ParseData &data)
{
    m_data = data;
}

void NetDomManager::setStopCheck(const std::function<bool()> &isStopped)
{
    m_isStopped = isStopped;
}

bool NetDomManager::isStopped() const
{
    return m_isStopped && m_isStopped();
}

QPair<int, int> NetDomManager::getSolution(const QString &name)
{
    constexpr int height = 480; // for every name: the width alone carries the quality
    if (name == QLatin1String("hd1080"))
        return {1080, height};
    if (name == QLatin1String("hd720") || name == QLatin1String("hq")
        || name == QLatin1String("hd"))
        return {720, height};
    if (name == QLatin1String("sd"))
        return {640, height};
    return {480, height};
}

ParseData NetDomManager::getPageSourceVideoInfo()
{
    QStringList addresses = PageText::mediaAddresses(Utils::DecodeUrl(m_data.pageSource));
    Utils::DecodeUrl(addresses);
    Utils::resolved(addresses, m_pageUrl);
    for (const QString &address : qAsConst(addresses)) {
        if (isStopped())
            break;
        if (!m_data.contains(address))
            addSourceAddress(address);
    }
    return m_data;
}

ParseData NetDomManager::getMediaElementInfo()
{
    for (const QString &address : qAsConst(m_snapshot.media)) {
        if (isStopped())
            break;
        if (!m_data.contains(address))
            addSourceAddress(address);
    }
    return m_data;
}

void NetDomManager::addSourceAddress(const QString &address)
{
    VideoFile file = VideoFile::fromAddress(address);
    if (file.urlType == QLatin1String("http")) {
        file.nSize = m_sizeProbe.sizeOf(address);
        if (file.nSize < smallestSourceFileBytes)
            return;
    }
    append(file);
}

QByteArray NetDomManager::playerDescription() const
{
    QByteArray description;
    for (const PageSnapshot::Attributes &param : m_snapshot.params)
        description += descriptionIn(param);
    return description;
}

ParseData NetDomManager::getDomVideoInfo()
{
    const QList<PlayerDescription::Stream> streams =
        PlayerDescription::streams(playerDescription());
    for (const PlayerDescription::Stream &stream : streams) {
        if (isStopped())
            break;
        addStream(stream.address, stream.quality);
    }
    return m_data;
}

void NetDomManager::addStream(const QString &address, const QString &quality)
{
    if (m_data.contains(address))
        return;
    VideoFile file = VideoFile::fromAddress(address);
    const QPair<int, int> solution = getSolution(quality);
    file.width = solution.first;
    file.height = solution.second;
    if (file.urlType == QLatin1String("http"))
        file.nSize = m_sizeProbe.sizeOf(address);
    append(file);
}

void NetDomManager::append(const VideoFile &file)
{
    if (isStopped())
        return; // the run went on without this scan while it waited
    m_data.fileList += file;
    HostEvents::send(event::CandidateFound{file.address()});
}
