#include "SocksRelay.h"

#include <QHostAddress>
#include <QTcpSocket>
#include <QtEndian>

namespace {

constexpr int requestBytes = 10; // version, command, reserved, address type, IPv4 address, port
constexpr int addressOffset = 4;
constexpr int portOffset = 8;

const QByteArray noAuthentication = QByteArray::fromHex("0500");
const QByteArray connected = QByteArray::fromHex("05000001000000000000");
const QByteArray connectToIpv4 = QByteArray::fromHex("05010001");

void relay(QTcpSocket *from, QTcpSocket *to)
{
    const auto passOn = [from, to] { to->write(from->readAll()); };
    QObject::connect(from, &QTcpSocket::readyRead, to, passOn);
    QObject::connect(from, &QTcpSocket::disconnected, to, [passOn, to] {
        passOn();
        to->disconnectFromHost(); // once all is written
    });
    passOn();
}

} // namespace

SocksRelay::SocksRelay()
    : m_server(new QTcpServer)
{
    m_server->moveToThread(&m_thread);
    QObject::connect(&m_thread, &QThread::finished, m_server, &QObject::deleteLater);
    m_thread.start();
    QMetaObject::invokeMethod(
        m_server, [this] { listen(); }, Qt::BlockingQueuedConnection);
}

SocksRelay::~SocksRelay()
{
    m_thread.quit();
    m_thread.wait();
}

void SocksRelay::listen()
{
    QObject::connect(m_server, &QTcpServer::newConnection, m_server,
                     [this] { acceptConnection(); });
    if (!m_server->listen(QHostAddress::LocalHost))
        qFatal("no loopback port to listen on");
    m_port = m_server->serverPort();
}

void SocksRelay::acceptConnection()
{
    while (QTcpSocket *client = m_server->nextPendingConnection()) {
        QObject::connect(client, &QTcpSocket::disconnected, client, &QObject::deleteLater);
        QObject::connect(client, &QTcpSocket::readyRead, client,
                         [this, client] { readGreeting(client); });
        readGreeting(client);
    }
}

void SocksRelay::readGreeting(QTcpSocket *client)
{
    const QByteArray head = client->peek(2); // version and how many methods follow
    if (head.size() < 2 || client->bytesAvailable() < 2 + head.at(1))
        return;
    client->read(2 + head.at(1));
    client->write(noAuthentication);
    client->disconnect(SIGNAL(readyRead()));
    QObject::connect(client, &QTcpSocket::readyRead, client,
                     [this, client] { readRequest(client); });
    readRequest(client);
}

void SocksRelay::readRequest(QTcpSocket *client)
{
    if (client->bytesAvailable() < requestBytes)
        return;
    const QByteArray request = client->read(requestBytes);
    client->disconnect(SIGNAL(readyRead()));
    if (!request.startsWith(connectToIpv4)) {
        client->abort();
        return;
    }
    ++m_connectionCount;
    auto *const target = new QTcpSocket(client);
    QObject::connect(target, &QTcpSocket::connected, client, [client, target] {
        client->write(connected);
        relay(client, target);
        relay(target, client);
    });
    target->connectToHost(
        QHostAddress(qFromBigEndian<quint32>(request.constData() + addressOffset)),
        qFromBigEndian<quint16>(request.constData() + portOffset));
}
