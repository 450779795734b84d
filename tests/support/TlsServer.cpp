#include "TlsServer.h"

#include "TestFiles.h"

#include <QDir>
#include <QProcess>

bool TlsServer::start(const QByteArray &serverText)
{
    const QString key = m_folder.filePath(QStringLiteral("key.pem"));
    if (!QDir().mkpath(certificateFolder())
        || QProcess::execute(
               QStringLiteral("openssl"),
               {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes"),
                QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-subj"),
                QStringLiteral("/CN=") + QString::fromUtf8(certificateName()),
                QStringLiteral("-addext"), QStringLiteral("subjectAltName=IP:127.0.0.1"),
                QStringLiteral("-keyout"), key, QStringLiteral("-out"), certificateFile()})
            != 0)
        return false;
    m_server.setServerText("listen 127.0.0.1:%PORT2% ssl;\nssl_certificate "
                           + certificateFile().toUtf8() + ";\nssl_certificate_key " + key.toUtf8()
                           + ";\n" + serverText);
    return m_server.start();
}

void TlsServer::put(const QString &name, const QByteArray &content) const
{
    writeFile(m_server.rootFolder() + QLatin1Char('/') + name, content);
}

QString TlsServer::http(const char *path) const
{
    return m_server.address(QLatin1String(path));
}

QString TlsServer::https(const char *path) const
{
    return QLatin1String("https://") + QString::fromLatin1(secureHost()) + QLatin1String(path);
}

QByteArray TlsServer::secureHost() const
{
    return "127.0.0.1:" + QByteArray::number(m_server.secondPort());
}

QString TlsServer::certificateFile() const
{
    return certificateFolder() + QLatin1String("/certificate.pem");
}

QString TlsServer::certificateFolder() const
{
    return m_folder.filePath(QStringLiteral("certificates"));
}
