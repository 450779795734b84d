#include "CookieJar.h"

#include "CookieStore.h"

#include <QHostAddress>

#include <algorithm>

namespace {

/// Lends the base class its matching rules over a list of cookies.
class SnapshotJar final : public QNetworkCookieJar
{
public:
    explicit SnapshotJar(const QList<QNetworkCookie> &cookies) { setAllCookies(cookies); }
};

/// Whether the cookie's domain may name the host, beyond what the base class asks for. A host of
/// numbers has no parent domain, though its text may end like another one's (RFC 6265, section
/// 5.1.3). A domain of one label holds unrelated hosts whether or not it is on the list that the
/// base class has, and so may one that ends with a dot, which is on no list.
bool canNameHost(const QNetworkCookie &cookie, const QUrl &url)
{
    const QString domain = cookie.domain();
    const QString host = url.host();
    if (!domain.startsWith(QLatin1Char('.')) || domain.midRef(1) == host)
        return true;
    return QHostAddress(host).isNull() && domain.indexOf(QLatin1Char('.'), 1) >= 0
        && !domain.endsWith(QLatin1Char('.'));
}

} // namespace

CookieJar::CookieJar(QObject *parent)
    : QNetworkCookieJar(parent)
{
    CookieStore::instance().load();
}

QList<QNetworkCookie> CookieJar::cookiesForUrl(const QUrl &url) const
{
    QList<QNetworkCookie> cookies =
        SnapshotJar(CookieStore::instance().cookies()).cookiesForUrl(url);
    cookies.erase(
        std::remove_if(cookies.begin(), cookies.end(),
                       [&url](const QNetworkCookie &cookie) { return !canNameHost(cookie, url); }),
        cookies.end());
    return cookies;
}

bool CookieJar::insertCookie(const QNetworkCookie &cookie)
{
    return CookieStore::instance().insert(cookie);
}

bool CookieJar::deleteCookie(const QNetworkCookie &cookie)
{
    return CookieStore::instance().remove(cookie);
}

bool CookieJar::validateCookie(const QNetworkCookie &cookie, const QUrl &url) const
{
    return canNameHost(cookie, url) && QNetworkCookieJar::validateCookie(cookie, url);
}
