#ifndef NETWORKPROXY_H
#define NETWORKPROXY_H

#include <QNetworkProxy>

/// The one rule by which a proxy that the caller named becomes one for a network manager. Safe on
/// any thread.
class NetworkProxy final
{
public:
    NetworkProxy() = delete;

    /// Connections are direct without a host and with the types 0 and 2 (numbered as
    /// QNetworkProxy::ProxyType: the default and none); the settings of the system and of the
    /// environment are never asked. A type or port outside its range becomes an HTTP proxy or port
    /// 0: a caller who asked for a proxy must never get a direct connection instead.
    [[nodiscard]] static QNetworkProxy fromSetting(int type, const QString &host, int port);
};

#endif
