#ifndef COOKIEJAR_H
#define COOKIEJAR_H

#include <QNetworkCookieJar>

/// A cookie jar over the process-wide CookieStore: every jar of a process holds the same cookies,
/// so a download carries the session of its page. A jar belongs to one thread; jars of different
/// threads may be used at the same time.
class CookieJar : public QNetworkCookieJar
{
    Q_OBJECT

public:
    /// Loads the stored cookies.
    explicit CookieJar(QObject *parent = nullptr);

    QList<QNetworkCookie> cookiesForUrl(const QUrl &url) const override;
    bool insertCookie(const QNetworkCookie &cookie) override;
    bool deleteCookie(const QNetworkCookie &cookie) override;

protected:
    bool validateCookie(const QNetworkCookie &cookie, const QUrl &url) const override;
};

#endif
