#include "CookieJar.h"

#include "CookieStore.h"

CookieJar::CookieJar(QObject *parent)
    : MemoryCookieJar(parent)
{
    CookieStore::instance().load();
}

QList<QNetworkCookie> CookieJar::cookies() const
{
    return CookieStore::instance().cookies();
}

bool CookieJar::insertCookie(const QNetworkCookie &cookie)
{
    return CookieStore::instance().insert(cookie);
}

bool CookieJar::deleteCookie(const QNetworkCookie &cookie)
{
    return CookieStore::instance().remove(cookie);
}
