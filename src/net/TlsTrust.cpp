#include "TlsTrust.h"

#include <QDir>
#include <QFileInfo>
#include <QNetworkReply>
#include <QSet>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslError>
#include <QStringList>
#include <QUrl>

#include <memory>
#include <mutex>

namespace {

constexpr int maxNameChars = 200; // a server may write anything there
constexpr int defaultPort = 443;

/// The certificates of a file; none, with a warning, where there are none.
QList<QSslCertificate> certificatesOf(const char *variable, const QString &path)
{
    QList<QSslCertificate> certificates;
    if (QFileInfo(path).isFile()) // a pipe would be waited for
        certificates = QSslCertificate::fromPath(path);
    if (certificates.isEmpty())
        qWarning("%s names no certificates: %s", variable, qUtf8Printable(path));
    return certificates;
}

/// The certificates of all files in a folder, whatever the files are called: most are there under
/// several names.
QList<QSslCertificate> certificatesIn(const char *variable, const QString &folder)
{
    QSet<QString> paths;
    const auto files = QDir(folder).entryInfoList(QDir::Files);
    for (const QFileInfo &file : files)
        paths += file.canonicalFilePath();
    QList<QSslCertificate> certificates;
    for (const QString &path : qAsConst(paths))
        certificates += QSslCertificate::fromPath(path);
    if (certificates.isEmpty())
        qWarning("%s names no certificates: %s", variable, qUtf8Printable(folder));
    return certificates;
}

QString serverOf(const QNetworkReply &reply)
{
    return QStringLiteral("%1:%2").arg(reply.url().host()).arg(reply.url().port(defaultPort));
}

/// Why a certificate is refused, and which one of those that the server showed it is.
QString reasonOf(const QSslError &error)
{
    const QSslCertificate certificate = error.certificate();
    if (certificate.isNull())
        return error.errorString();
    return QStringLiteral("%1 (\"%2\", issued by \"%3\")")
        .arg(error.errorString(), certificate.subjectDisplayName().left(maxNameChars),
             certificate.issuerDisplayName().left(maxNameChars));
}

void warnOfErrors(const QNetworkReply &reply, const QList<QSslError> &errors)
{
    QStringList reasons;
    for (const QSslError &error : errors)
        reasons += reasonOf(error);
    qWarning("the certificate of %s is refused: %s", qUtf8Printable(serverOf(reply)),
             qUtf8Printable(reasons.join(QLatin1String("; "))));
}

/// For what goes wrong before there is a certificate to judge.
void warnOfFailure(const QNetworkReply &reply)
{
    qWarning("no secure connection to %s: %s", qUtf8Printable(serverOf(reply)),
             qUtf8Printable(reply.errorString()));
}

} // namespace

void TlsTrust::useEnvironment()
{
    constexpr char fileVariable[] = "SSL_CERT_FILE";
    constexpr char foldersVariable[] = "SSL_CERT_DIR";
    const QString file = qEnvironmentVariable(fileVariable);
    const QStringList folders =
        qEnvironmentVariable(foldersVariable).split(QLatin1Char(':'), Qt::SkipEmptyParts);
    if (file.isEmpty() && folders.isEmpty())
        return;

    QList<QSslCertificate> certificates;
    if (folders.isEmpty())
        certificates = QSslConfiguration::systemCaCertificates();
    for (const QString &folder : folders)
        certificates += certificatesIn(foldersVariable, folder);
    if (!file.isEmpty())
        certificates += certificatesOf(fileVariable, file);
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setCaCertificates(certificates);
    QSslConfiguration::setDefaultConfiguration(configuration);
}

void TlsTrust::prepareFor(const QUrl &url)
{
    static std::once_flag isDone;
    if (url.scheme() == QLatin1String("https"))
        std::call_once(isDone, useEnvironment);
}

void TlsTrust::reportRefusal(QNetworkReply *reply)
{
    if (reply->isFinished()) { // a synchronous one, which keeps no more than that
        if (reply->error() == QNetworkReply::SslHandshakeFailedError)
            warnOfFailure(*reply);
        return;
    }
    const auto isReported = std::make_shared<bool>(false);
    QObject::connect(reply, &QNetworkReply::sslErrors, reply,
                     [reply, isReported](const QList<QSslError> &errors) {
                         *isReported = true;
                         warnOfErrors(*reply, errors);
                     });
    QObject::connect(reply, &QNetworkReply::errorOccurred, reply,
                     [reply, isReported](QNetworkReply::NetworkError error) {
                         if (error == QNetworkReply::SslHandshakeFailedError && !*isReported)
                             warnOfFailure(*reply);
                     });
}
