#ifndef SOCKSRELAY_H
#define SOCKSRELAY_H

#include <QObject>
#include <QTcpServer>
#include <QThread>

#include <atomic>

class QTcpSocket;

/// A SOCKS 5 proxy on a loopback port of its own, for one test: it takes connections to IPv4
/// addresses, passes bytes on as they come, and closes each side once the other has closed and its
/// last bytes are through. It works on a thread of its own, whatever the test's thread does.
class SocksRelay final
{
public:
    SocksRelay();
    ~SocksRelay();
    Q_DISABLE_COPY(SocksRelay)

    [[nodiscard]] quint16 port() const { return m_port; }

    /// How many connections to other servers have been asked for.
    [[nodiscard]] int connectionCount() const { return m_connectionCount; }

private:
    void listen();
    void acceptConnection();
    void readGreeting(QTcpSocket *client);
    void readRequest(QTcpSocket *client);

    QThread m_thread;
    QTcpServer *m_server; // of the thread, which ends it
    quint16 m_port = 0;
    std::atomic<int> m_connectionCount = 0;
};

#endif
