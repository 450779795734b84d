#include "EngineCookies.h"

#include "CookieStore.h"

#include <QDateTime>
#include <QHash>
#include <QJsonObject>
#include <QNetworkCookie>

namespace {

QByteArray keyOf(const QNetworkCookie &cookie)
{
    return cookie.name() + '\n' + cookie.domain().toUtf8() + '\n' + cookie.path().toUtf8();
}

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

QJsonArray EngineCookies::given()
{
    CookieStore::instance().load();
    QJsonArray array;
    const QList<QNetworkCookie> cookies = CookieStore::instance().cookies();
    for (const QNetworkCookie &cookie : cookies) {
        m_given += keyOf(cookie);
        array += toEngine(cookie);
    }
    return array;
}

void EngineCookies::takeBack(const QJsonArray &cookies)
{
    CookieStore &store = CookieStore::instance();
    const QList<QNetworkCookie> known = store.cookies();
    QHash<QByteArray, QNetworkCookie> removed;
    for (const QNetworkCookie &cookie : known) {
        if (m_given.contains(keyOf(cookie)))
            removed.insert(keyOf(cookie), cookie);
    }
    for (const QJsonValue &value : cookies) {
        const QNetworkCookie cookie = fromEngine(value.toObject());
        removed.remove(keyOf(cookie));
        if (!known.contains(cookie))
            store.insert(cookie);
    }
    for (const QNetworkCookie &cookie : qAsConst(removed))
        store.remove(cookie);
    store.save();
}
