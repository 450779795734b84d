#ifndef TLSSERVER_H
#define TLSSERVER_H

#include "Nginx.h"

#include <QTemporaryDir>

/// A web server on the loopback address that also speaks https, with a certificate of its own that
/// nobody has reason to believe.
class TlsServer final
{
public:
    TlsServer() = default;
    Q_DISABLE_COPY(TlsServer)

    /// Makes the certificate and starts the server. @param serverText more for its server block
    bool start(const QByteArray &serverText = QByteArray());

    /// Puts a file below the addresses. @param name without a slash at its front
    void put(const QString &name, const QByteArray &content) const;

    /// Addresses of a path, which begins with a slash.
    [[nodiscard]] QString http(const char *path) const;
    [[nodiscard]] QString https(const char *path) const;

    /// Host and port of the https addresses.
    [[nodiscard]] QByteArray secureHost() const;

    /// The certificate as a file, and the folder that has nothing else.
    [[nodiscard]] QString certificateFile() const;
    [[nodiscard]] QString certificateFolder() const;

    /// What the certificate calls its owner, who also issued it.
    [[nodiscard]] static QByteArray certificateName() { return "a test of clipweir"; }

private:
    QTemporaryDir m_folder;
    Nginx m_server;
};

#endif
