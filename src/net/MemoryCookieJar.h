#ifndef MEMORYCOOKIEJAR_H
#define MEMORYCOOKIEJAR_H

#include <QNetworkCookieJar>

/// A cookie jar that lasts as long as the object, and the rules that all jars share: which server
/// may set a cookie, and which request it goes along with (RFC 6265, sections 5.3 and 5.4).
class MemoryCookieJar : public QNetworkCookieJar
{
    Q_OBJECT

public:
    using QNetworkCookieJar::QNetworkCookieJar;

    /// The cookies for an address, those with longer paths first.
    QList<QNetworkCookie> cookiesForUrl(const QUrl &url) const override;

protected:
    bool validateCookie(const QNetworkCookie &cookie, const QUrl &url) const override;

    /// All that the jar has.
    [[nodiscard]] virtual QList<QNetworkCookie> cookies() const;
};

#endif
