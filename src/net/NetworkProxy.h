#ifndef NETWORKPROXY_H
#define NETWORKPROXY_H

#include <QNetworkProxy>

class QNetworkAccessManager;
class QNetworkReply;

/// The rules on proxies that all clients share: how a proxy that the caller named becomes one for a
/// network manager, and what a request through it must not do. Safe on any thread.
class NetworkProxy final
{
public:
    NetworkProxy() = delete;

    /// Connections are direct without a host and with the types 0 and 2 (numbered as
    /// QNetworkProxy::ProxyType: the default and none); the settings of the system and of the
    /// environment are never asked. A type or port outside its range becomes an HTTP proxy or port
    /// 0: a caller who asked for a proxy must never get a direct connection instead.
    [[nodiscard]] static QNetworkProxy fromSetting(int type, const QString &host, int port);

    /// Bounds what a reply that the manager has just made holds unread, in bytes; not behind a
    /// SOCKS 5 proxy. The toolkit's client of such proxies reads whatever comes, limit or none, and
    /// wakes nobody for what it has kept back; when the proxy closes the connection it drops that.
    /// There an answer waits in memory while its reader is busy.
    static void limitUnread(QNetworkReply &reply, const QNetworkAccessManager &manager,
                            qint64 bytes);
};

#endif
