#include "AdobeCookieJar.h"

#include "CookieStore.h"

CAdobeCookieJar::CAdobeCookieJar(QObject *parent)
    : CookieJar(parent)
{
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
