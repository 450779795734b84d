#ifndef NGINX_H
#define NGINX_H

#include <QProcess>
#include <QTemporaryDir>

/// An nginx of the test's own: it serves one folder on a free loopback port and logs every request.
class Nginx final
{
public:
    /// @param rootFolder the folder to serve; empty for one inside its own temporary folder
    explicit Nginx(const QString &rootFolder = QString());
    ~Nginx();
    Q_DISABLE_COPY(Nginx)

    /// Extra text for the server block; before start().
    void setServerText(const QByteArray &text);

    /// Extra text outside the http block (such as an rtmp block) and for the top of the file (such
    /// as load_module lines); before start(). "%PORT2%" in it becomes a second free port.
    void setOuterText(const QByteArray &top, const QByteArray &blocks);

    /// Starts the server and waits until it accepts connections.
    bool start();
    void stop();

    [[nodiscard]] quint16 port() const;
    [[nodiscard]] quint16 secondPort() const;
    [[nodiscard]] QString address(const QString &path) const; ///< path begins with "/"
    [[nodiscard]] QString rootFolder() const;

    /// The access log, one line a finished request: status, request line, "Range" value followed by
    /// "-".
    [[nodiscard]] QList<QByteArray> accessLog() const;
    [[nodiscard]] QByteArray errorLog() const;

private:
    QTemporaryDir m_folder;
    QString m_rootFolder;
    QByteArray m_serverText;
    QByteArray m_topText;
    QByteArray m_blockText;
    QProcess m_process;
    quint16 m_port = 0;
    quint16 m_secondPort = 0;
};

#endif
