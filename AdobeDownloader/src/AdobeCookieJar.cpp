#include "AdobeCookieJar.h"

#include "CookieStore.h"

namespace {

/// Lends the base class its matching rules over a list of cookies.
class SnapshotJar final : public QNetworkCookieJar
{
public:
    explicit SnapshotJar(const QList<QNetworkCookie> &cookies) { setAllCookies(cookies); }
};

} // namespace

CAdobeCookieJar::CAdobeCookieJar(QObject *parent)
    : QNetworkCookieJar(parent)
{
    load();
}

QList<QNetworkCookie> CAdobeCookieJar::mycookies() const
{
    return CookieStore::instance().cookies();
}

bool CAdobeCookieJar::save()
{
    return CookieStore::instance().save();
}

bool CAdobeCookieJar::load()
{
    return CookieStore::instance().load();
}

QList<QNetworkCookie> CAdobeCookieJar::cookiesForUrl(const QUrl &url) const
{
    return SnapshotJar(CookieStore::instance().cookies()).cookiesForUrl(url);
}

bool CAdobeCookieJar::insertCookie(const QNetworkCookie &cookie)
{
    return CookieStore::instance().insert(cookie);
}

bool CAdobeCookieJar::deleteCookie(const QNetworkCookie &cookie)
{
    return CookieStore::instance().remove(cookie);
}
