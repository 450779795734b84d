#include "EngineCookies.h"

#include "CookieStore.h"

#include <QDateTime>
#include <QHash>
#include <QJsonObject>
#include <QNetworkCookie>

namespace {

QJsonObject toEngine(const QNetworkCookie &cookie)
{
    QJsonObject object{{QStringLiteral("name"), QString::fromUtf8(cookie.name())},
                       {QStringLiteral("value"), QString::fromUtf8(cookie.value())},
                       {QStringLiteral("path"), cookie.path()},
                       {QStringLiteral("secure"), cookie.isSecure()},
                       {QStringLiteral("httpOnly"), cookie.isHttpOnly()}};
    if (!cookie.isSessionCookie())
        object.insert(QStringLiteral("expires"),
                      double(cookie.expirationDate().toMSecsSinceEpoch()) / 1000);
    // One for a single host is told by an address of it.
    if (cookie.domain().startsWith(QLatin1Char('.')))
        object.insert(QStringLiteral("domain"), cookie.domain());
    else
        object.insert(QStringLiteral("url"),
                      (cookie.isSecure() ? QLatin1String("https://") : QLatin1String("http://"))
                          + cookie.domain() + cookie.path());
    return object;
}

QNetworkCookie fromEngine(const QJsonObject &object)
{
    QNetworkCookie cookie(object.value(QLatin1String("name")).toString().toUtf8(),
                          object.value(QLatin1String("value")).toString().toUtf8());
    cookie.setDomain(object.value(QLatin1String("domain")).toString());
    cookie.setPath(object.value(QLatin1String("path")).toString());
    cookie.setSecure(object.value(QLatin1String("secure")).toBool());
    cookie.setHttpOnly(object.value(QLatin1String("httpOnly")).toBool());
    const double expiry = object.value(QLatin1String("expires")).toDouble(-1);
    if (!object.value(QLatin1String("session")).toBool() && expiry > 0)
        cookie.setExpirationDate(
            QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(expiry * 1000), Qt::UTC));
    return cookie;
}

} // namespace

QJsonArray EngineCookies::given() const
{
    CookieStore::instance().load();
    QJsonArray array;
    const QList<QNetworkCookie> cookies = CookieStore::instance().cookies();
    for (const QNetworkCookie &cookie : cookies)
        array += toEngine(cookie);
    return array;
}

void EngineCookies::noteTaken(const QJsonArray &cookies)
{
    m_taken.clear();
    for (const QJsonValue &value : cookies)
        m_taken += CookieStore::keyOf(fromEngine(value.toObject()));
}

void EngineCookies::takeBack(const QJsonArray &cookies)
{
    CookieStore &store = CookieStore::instance();
    QHash<QByteArray, QNetworkCookie> known;
    const QList<QNetworkCookie> all = store.cookies();
    for (const QNetworkCookie &cookie : all)
        known.insert(CookieStore::keyOf(cookie), cookie);
    for (const QJsonValue &value : cookies) {
        const QNetworkCookie cookie = fromEngine(value.toObject());
        const QByteArray key = CookieStore::keyOf(cookie);
        m_taken.remove(key);
        if (known.value(key) != cookie)
            store.insert(cookie);
    }
    for (const QByteArray &key : qAsConst(m_taken)) { // those that the page has deleted
        if (known.contains(key))
            store.remove(known.value(key));
    }
    noteTaken(cookies);
    store.save();
}
