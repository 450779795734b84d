// A cookies.txt file and the Set-Cookie lines of an answer. The word "NEXT" keeps the two apart.
#include "AdobeCookieJar.h"
#include "CookieStore.h"
#include "FuzzSupport.h"

#include <QDateTime>
#include <QFile>
#include <QNetworkCookie>
#include <QUrl>

#include <algorithm>

namespace {

constexpr int maxCookies = 3000;

QString path()
{
    return fuzz::filePath(QStringLiteral("cookies.txt"));
}

void writeFile(const QByteArray &content)
{
    QFile file(path());
    FUZZ_CHECK(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
}

QByteArray content()
{
    QFile file(path());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// What a store that has just begun finds in the file.
QList<QNetworkCookie> loaded()
{
    CookieStore::instance().clear();
    FUZZ_CHECK(CookieStore::instance().load());
    return CookieStore::instance().cookies();
}

/// The file that a store with just these cookies writes.
QByteArray saved(const QList<QNetworkCookie> &cookies)
{
    QFile::remove(path());
    CookieStore::instance().clear();
    for (const QNetworkCookie &cookie : cookies)
        CookieStore::instance().insert(cookie);
    FUZZ_CHECK(CookieStore::instance().save());
    return content();
}

void checkCookie(const QNetworkCookie &cookie)
{
    FUZZ_CHECK(!cookie.name().isEmpty() && !cookie.domain().isEmpty());
    FUZZ_CHECK(cookie.domain() != QLatin1String("."));
    FUZZ_CHECK(!cookie.isSessionCookie() && cookie.expirationDate().isValid());
}

/// What is saved is what is loaded, and stays so.
void checkRoundTrip(const QList<QNetworkCookie> &cookies)
{
    const QByteArray first = saved(cookies);
    const QList<QNetworkCookie> again = loaded();
    std::for_each(again.cbegin(), again.cend(), checkCookie);
    FUZZ_CHECK(again.size() <= cookies.size());
    if (!again.isEmpty()) {
        FUZZ_CHECK(saved(again) == first);
        FUZZ_CHECK(loaded() == again);
    }
    const auto lines = first.count('\n');
    FUZZ_CHECK(lines == 0 || lines == again.size() + 1);
}

void checkFile(const QByteArray &text)
{
    writeFile(text);
    const QList<QNetworkCookie> cookies = loaded();
    FUZZ_CHECK(cookies.size() <= maxCookies);
    std::for_each(cookies.cbegin(), cookies.cend(), checkCookie);
    checkRoundTrip(cookies);
}

bool isFor(const QNetworkCookie &cookie, const QUrl &url)
{
    const QString domain = cookie.domain();
    const QString host = url.host();
    const bool isDomain = domain.startsWith(QLatin1Char('.'))
        ? host.endsWith(domain) || host == domain.mid(1)
        : host == domain;
    return isDomain && url.path().startsWith(cookie.path())
        && (!cookie.isSecure() || url.scheme() == QLatin1String("https"));
}

/// Cookies of an answer go to where they belong, also after the file has been read again.
void checkAnswer(const QByteArray &lines)
{
    QFile::remove(path());
    CookieStore::instance().clear();
    CAdobeCookieJar jar;
    const QUrl answered(QStringLiteral("https://www.h.test/dir/page"));
    jar.setCookiesFromUrl(QNetworkCookie::parseCookies(lines), answered);
    FUZZ_CHECK(jar.save());

    const QList<QUrl> urls{answered,
                           QUrl(QStringLiteral("http://www.h.test/dir/page")),
                           QUrl(QStringLiteral("http://h.test/dir/")),
                           QUrl(QStringLiteral("https://x.www.h.test/")),
                           QUrl(QStringLiteral("http://other.test./dir/page")),
                           QUrl(QStringLiteral("http://other.test/dir/page"))};
    for (const QUrl &url : urls) {
        for (const QNetworkCookie &cookie : jar.cookiesForUrl(url))
            FUZZ_CHECK(isFor(cookie, url));
    }
    FUZZ_CHECK(jar.cookiesForUrl(urls.constLast()).isEmpty());
    FUZZ_CHECK(jar.cookiesForUrl(urls.at(urls.size() - 2)).isEmpty());

    QList<QNetworkCookie> kept;
    for (const QNetworkCookie &cookie : jar.mycookies()) {
        if (!cookie.isSessionCookie())
            kept += cookie;
    }
    checkRoundTrip(kept);
    for (const QUrl &url : urls) {
        for (const QNetworkCookie &cookie : jar.cookiesForUrl(url))
            FUZZ_CHECK(isFor(cookie, url));
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    qputenv("CLIPWEIR_COOKIES", path().toUtf8());
    const QList<QByteArray> parts = fuzz::split(fuzz::bytes(data, size), QByteArrayLiteral("NEXT"));
    checkFile(parts.constFirst());
    if (parts.size() > 1)
        checkAnswer(parts.at(1));
    return 0;
}
