#include "NetworkProxy.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>

#include <limits>

namespace {

QNetworkProxy::ProxyType typeOf(int type, const QString &host)
{
    if (host.isEmpty())
        return QNetworkProxy::NoProxy;
    switch (type) {
    case QNetworkProxy::DefaultProxy:
    case QNetworkProxy::NoProxy:
        return QNetworkProxy::NoProxy;
    case QNetworkProxy::Socks5Proxy:
    case QNetworkProxy::HttpProxy:
    case QNetworkProxy::HttpCachingProxy:
    case QNetworkProxy::FtpCachingProxy: // carries nothing that is fetched here: requests fail
        return static_cast<QNetworkProxy::ProxyType>(type);
    default:
        return QNetworkProxy::HttpProxy;
    }
}

} // namespace

QNetworkProxy NetworkProxy::fromSetting(int type, const QString &host, int port)
{
    const bool isPort = port >= 0 && port <= std::numeric_limits<quint16>::max();
    return QNetworkProxy(typeOf(type, host), host, static_cast<quint16>(isPort ? port : 0));
}

void NetworkProxy::limitUnread(QNetworkReply &reply, const QNetworkAccessManager &manager,
                               qint64 bytes)
{
    if (manager.proxy().type() != QNetworkProxy::Socks5Proxy)
        reply.setReadBufferSize(bytes);
}
