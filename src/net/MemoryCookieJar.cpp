#include "MemoryCookieJar.h"

#include "PublicSuffix.h"

#include <QDateTime>
#include <QHostAddress>
#include <QNetworkCookie>
#include <QUrl>

#include <algorithm>

namespace {

/// Whether a cookie's domain names the host. With a dot before it, it names those below it, too,
/// but for public suffixes. A host of numbers has no parent domain, though its text may end like
/// another one's (section 5.1.3). What ends with a dot is on no list, and so it may be a public
/// suffix.
bool namesHost(const QString &domain, const QString &host)
{
    const QLatin1Char dot('.');
    if (!domain.startsWith(dot))
        return domain == host;
    if (domain.midRef(1) == host)
        return true;
    return host.endsWith(domain) && !domain.endsWith(dot) && QHostAddress(host).isNull()
        && !PublicSuffix::isOne(domain.mid(1));
}

/// Section 5.1.4.
bool coversPath(const QString &folder, const QString &path)
{
    if (path.isEmpty())
        return folder == QLatin1String("/");
    return path.startsWith(folder)
        && (path.size() == folder.size() || folder.endsWith(QLatin1Char('/'))
            || path.at(folder.size()) == QLatin1Char('/'));
}

} // namespace

QList<QNetworkCookie> MemoryCookieJar::cookiesForUrl(const QUrl &url) const
{
    const QString host = url.host();
    const QString path = url.path();
    const bool isSecret = url.scheme() == QLatin1String("https");
    const QDateTime now = QDateTime::currentDateTimeUtc();
    QList<QNetworkCookie> matching;
    const QList<QNetworkCookie> all = cookies();
    for (const QNetworkCookie &cookie : all) {
        const bool isExpired = !cookie.isSessionCookie() && cookie.expirationDate() < now;
        if (!isExpired && (isSecret || !cookie.isSecure()) && coversPath(cookie.path(), path)
            && namesHost(cookie.domain(), host))
            matching += cookie;
    }
    std::stable_sort(matching.begin(), matching.end(),
                     [](const QNetworkCookie &one, const QNetworkCookie &other) {
                         return one.path().size() > other.path().size();
                     });
    return matching;
}

bool MemoryCookieJar::validateCookie(const QNetworkCookie &cookie, const QUrl &url) const
{
    return namesHost(cookie.domain(), url.host());
}

QList<QNetworkCookie> MemoryCookieJar::cookies() const
{
    return allCookies();
}
