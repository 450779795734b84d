#ifndef ADOBECOOKIEJAR_H
#define ADOBECOOKIEJAR_H

#include <QNetworkCookieJar>

/// A cookie jar over the process-wide CookieStore: every jar of a process holds the same cookies,
/// so a download carries the session of its page. A jar belongs to one thread; jars of different
/// threads may be used at the same time.
class CAdobeCookieJar final : public QNetworkCookieJar
{
    Q_OBJECT

public:
    /// Loads the stored cookies.
    explicit CAdobeCookieJar(QObject *parent = nullptr);

    /// All cookies, in no particular order.
    [[nodiscard]] QList<QNetworkCookie> mycookies() const;

    /// Writes changed cookies to the file. Returns false when it cannot be written.
    bool save();

    /// Takes over cookies that other processes saved. Returns false when the file cannot be read.
    bool load();

    QList<QNetworkCookie> cookiesForUrl(const QUrl &url) const override;
    bool insertCookie(const QNetworkCookie &cookie) override;
    bool deleteCookie(const QNetworkCookie &cookie) override;

protected:
    bool validateCookie(const QNetworkCookie &cookie, const QUrl &url) const override;
};

#endif
