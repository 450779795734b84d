#include "StreamSetup.h"

#include "DashPresentation.h"
#include "HdsPresentation.h"
#include "HlsPresentation.h"

MediaServers StreamSetup::servers(const RunOptions &options)
{
    MediaServers servers;
    servers.net = options.netSettings();
    if (!servers.net.pageHeaders)
        servers.net.pageHeaders = std::make_shared<PageHeaders>(QUrl(options.pageUrl));
    return servers;
}

std::unique_ptr<Presentation> StreamSetup::presentation(ManifestAddress::Kind kind,
                                                        const QString &address,
                                                        const MediaServers &servers,
                                                        const RunOptions &options)
{
    const Presentation::Wish wish{QUrl(address), options.quality, options.language};
    if (kind == ManifestAddress::Kind::Dash)
        return std::make_unique<DashPresentation>(wish, servers);
    if (kind == ManifestAddress::Kind::Hds)
        return std::make_unique<HdsPresentation>(wish, servers);
    return std::make_unique<HlsPresentation>(wish, servers);
}
