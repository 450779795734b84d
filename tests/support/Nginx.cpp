#include "Nginx.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

namespace {

quint16 freePort()
{
    QTcpServer server;
    return server.listen(QHostAddress::LocalHost) ? server.serverPort() : quint16(0);
}

bool accepts(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    return socket.waitForConnected(200);
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

const char configuration[] = R"(%TOP%
daemon off;
master_process off;
worker_processes 1;
pid %DIR%/nginx.pid;
error_log %DIR%/error.log;
events { worker_connections 512; }
http {
    include /etc/nginx/mime.types;
    default_type application/octet-stream;
    log_format requests '$status $request $http_range-';
    access_log %DIR%/access.log requests;
    client_body_temp_path %DIR%/body;
    proxy_temp_path %DIR%/proxy;
    fastcgi_temp_path %DIR%/fastcgi;
    uwsgi_temp_path %DIR%/uwsgi;
    scgi_temp_path %DIR%/scgi;
    sendfile on;
    tcp_nopush on;
    server {
        listen 127.0.0.1:%PORT%;
        root %ROOT%;
        %SERVER%
    }
}
%BLOCKS%
)";

} // namespace

Nginx::Nginx(const QString &rootFolder)
    : m_rootFolder(rootFolder)
{
    if (m_rootFolder.isEmpty()) {
        m_rootFolder = m_folder.filePath(QStringLiteral("root"));
        QDir().mkpath(m_rootFolder);
    }
}

Nginx::~Nginx()
{
    stop();
}

void Nginx::setServerText(const QByteArray &text)
{
    m_serverText = text;
}

void Nginx::setOuterText(const QByteArray &top, const QByteArray &blocks)
{
    m_topText = top;
    m_blockText = blocks;
}

bool Nginx::start()
{
    // A free port can be taken by somebody else before nginx has it; another try finds another.
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_port = freePort();
        m_secondPort = freePort();
        QByteArray text(configuration);
        text.replace("%TOP%", m_topText)
            .replace("%BLOCKS%", m_blockText)
            .replace("%SERVER%", m_serverText)
            .replace("%DIR%", m_folder.path().toUtf8())
            .replace("%ROOT%", m_rootFolder.toUtf8())
            .replace("%PORT2%", QByteArray::number(m_secondPort))
            .replace("%PORT%", QByteArray::number(m_port));
        const QString path = m_folder.filePath(QStringLiteral("nginx.conf"));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
            return false;
        file.close();
        m_process.start(QStringLiteral("/usr/sbin/nginx"),
                        {QStringLiteral("-p"), m_folder.path(), QStringLiteral("-c"), path});
        // Without it the process may accept connections and still count as starting.
        if (!m_process.waitForStarted())
            break;
        const bool isUp = QTest::qWaitFor(
            [this] { return m_process.state() == QProcess::NotRunning || accepts(m_port); }, 5000);
        if (isUp && m_process.state() == QProcess::Running)
            return true;
        stop();
    }
    qWarning("nginx does not start: %s %s %s", qUtf8Printable(m_process.errorString()),
             m_process.readAllStandardError().constData(), errorLog().constData());
    return false;
}

void Nginx::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(5000))
        m_process.kill();
}

quint16 Nginx::port() const
{
    return m_port;
}

quint16 Nginx::secondPort() const
{
    return m_secondPort;
}

QString Nginx::address(const QString &path) const
{
    return QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path);
}

QString Nginx::rootFolder() const
{
    return m_rootFolder;
}

QList<QByteArray> Nginx::accessLog() const
{
    QList<QByteArray> lines =
        contentOf(m_folder.filePath(QStringLiteral("access.log"))).split('\n');
    lines.removeAll(QByteArray());
    return lines;
}

QByteArray Nginx::errorLog() const
{
    return contentOf(m_folder.filePath(QStringLiteral("error.log")));
}
