#include "CookieStore.h"

#include <algorithm>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QSaveFile>
#include <QStandardPaths>

namespace {

constexpr int maxCookies = 3000; // the total that RFC 6265, section 6.1, asks of a user agent
constexpr int maxLineBytes = 16 * 1024;
constexpr qint64 maxFileBytes = 16 * 1024 * 1024;
constexpr int lockWaitMs = 500;
constexpr int fieldCount = 7;
const char httpOnlyPrefix[] = "#HttpOnly_";

bool isExpired(const QNetworkCookie &cookie)
{
    return !cookie.isSessionCookie() && cookie.expirationDate() < QDateTime::currentDateTimeUtc();
}

bool hasSeparator(const QByteArray &field)
{
    return std::any_of(field.cbegin(), field.cend(),
                       [](char c) { return c == '\t' || c == '\n' || c == '\r' || c == '\0'; });
}

QByteArray truthText(bool value)
{
    return value ? QByteArrayLiteral("TRUE") : QByteArrayLiteral("FALSE");
}

/// The cookie's line with its line end; empty when the format cannot hold the cookie.
QByteArray lineOf(const QNetworkCookie &cookie)
{
    const QByteArray domain = cookie.domain().toUtf8();
    const QByteArray path = cookie.path().toUtf8();
    if (domain.isEmpty() || hasSeparator(domain) || hasSeparator(path)
        || hasSeparator(cookie.name()) || hasSeparator(cookie.value()))
        return {};

    const QList<QByteArray> fields{
        (cookie.isHttpOnly() ? QByteArray(httpOnlyPrefix) : QByteArray()) + domain,
        truthText(domain.startsWith('.')),
        path,
        truthText(cookie.isSecure()),
        QByteArray::number(cookie.expirationDate().toSecsSinceEpoch()),
        cookie.name(),
        cookie.value(),
    };
    return fields.join('\t') + '\n';
}

/// The domain as cookies carry it: with a leading dot only when it stands for its subdomains, too.
QString domainOf(const QByteArray &field, bool hasSubdomains)
{
    const QString domain = QString::fromUtf8(field).toLower();
    return domain.startsWith(QLatin1Char('.')) && !hasSubdomains ? domain.mid(1) : domain;
}

/// Reads one line; false when it is a comment or no usable cookie.
bool parseLine(QByteArray line, QNetworkCookie &cookie)
{
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    const bool isHttpOnly = line.startsWith(httpOnlyPrefix);
    if (isHttpOnly)
        line.remove(0, static_cast<int>(sizeof(httpOnlyPrefix)) - 1);
    if (line.isEmpty() || line.startsWith('#') || line.contains('\0'))
        return false;

    const QList<QByteArray> fields = line.split('\t');
    if (fields.size() != fieldCount || fields.at(5).isEmpty())
        return false;
    const QString domain = domainOf(fields.at(0), fields.at(1) == "TRUE");
    if (domain.isEmpty() || domain == QLatin1String(".") || domain.startsWith(QLatin1Char('#')))
        return false; // names no host, and the last would make a comment when it is saved
    bool isNumber = false;
    const qint64 expiry = fields.at(4).toLongLong(&isNumber);
    if (!isNumber || expiry <= 0)
        return false;
    const QDateTime expiryDate = QDateTime::fromSecsSinceEpoch(expiry, Qt::UTC);
    if (!expiryDate.isValid())
        return false;

    cookie = QNetworkCookie(fields.at(5), fields.at(6));
    cookie.setDomain(domain);
    cookie.setPath(QString::fromUtf8(fields.at(2)));
    cookie.setSecure(fields.at(3) == "TRUE");
    cookie.setHttpOnly(isHttpOnly);
    cookie.setExpirationDate(expiryDate);
    return !isExpired(cookie);
}

/// Whether there is something under the name that is no file: a device, a pipe or a folder. It must
/// neither be waited for nor be replaced by a file.
bool isNoFile(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() && !info.isFile();
}

/// Reads the whole file; false when it exists but cannot be read to its end.
bool readFile(const QString &path, QList<QNetworkCookie> &cookies)
{
    QFile file(path);
    if (!file.exists())
        return true;
    if (isNoFile(path) || !file.open(QIODevice::ReadOnly) || file.size() > maxFileBytes)
        return false;
    while (!file.atEnd() && cookies.size() < maxCookies) {
        QNetworkCookie cookie;
        const QByteArray line = file.readLine();
        if (line.isEmpty())
            return false; // the end has not been reached: a disk fails
        if (line.size() <= maxLineBytes && parseLine(line, cookie))
            cookies += cookie;
    }
    return true;
}

int indexOf(const QList<QNetworkCookie> &cookies, const QNetworkCookie &wanted)
{
    const auto found =
        std::find_if(cookies.cbegin(), cookies.cend(), [&wanted](const QNetworkCookie &cookie) {
            return cookie.hasSameIdentifier(wanted);
        });
    return found == cookies.cend() ? -1 : static_cast<int>(found - cookies.cbegin());
}

} // namespace

CookieStore &CookieStore::instance()
{
    static CookieStore store;
    return store;
}

QList<QNetworkCookie> CookieStore::cookies() const
{
    const std::lock_guard locker(m_mutex);
    return m_cookies;
}

bool CookieStore::insert(const QNetworkCookie &cookie)
{
    const std::lock_guard locker(m_mutex);
    const int index = indexOf(m_cookies, cookie);
    const bool isGone = isExpired(cookie);
    if (index >= 0 && !isGone && m_cookies.at(index) == cookie)
        return true; // servers repeat their cookies with every answer
    if (index >= 0)
        m_cookies.removeAt(index);
    if (index >= 0 || !isGone)
        m_changedKeys.insert(keyOf(cookie));
    if (isGone)
        return false;
    if (m_cookies.size() >= maxCookies)
        m_cookies.removeFirst();
    m_cookies += cookie;
    return true;
}

QByteArray CookieStore::keyOf(const QNetworkCookie &cookie)
{
    return cookie.name() + '\n' + cookie.domain().toUtf8() + '\n' + cookie.path().toUtf8();
}

bool CookieStore::remove(const QNetworkCookie &cookie)
{
    const std::lock_guard locker(m_mutex);
    const int index = indexOf(m_cookies, cookie);
    if (index < 0)
        return false;
    m_cookies.removeAt(index);
    m_changedKeys.insert(keyOf(cookie));
    return true;
}

bool CookieStore::load()
{
    const QString path = filePath();
    const FileStamp stamp = stampOf(path);
    const std::lock_guard locker(m_mutex);
    if (stamp == m_seenStamp)
        return true;
    QList<QNetworkCookie> stored;
    if (!readFile(path, stored))
        return false;
    m_seenStamp = stamp;
    for (const QNetworkCookie &cookie : qAsConst(stored)) {
        if (m_changedKeys.contains(keyOf(cookie)))
            continue;
        const int index = indexOf(m_cookies, cookie);
        if (index >= 0)
            m_cookies[index] = cookie;
        else if (m_cookies.size() < maxCookies)
            m_cookies += cookie;
    }
    return true;
}

bool CookieStore::save()
{
    QList<QNetworkCookie> current;
    QSet<QByteArray> changedKeys;
    {
        const std::lock_guard locker(m_mutex);
        if (m_changedKeys.isEmpty())
            return true;
        current = m_cookies;
        changedKeys.swap(m_changedKeys);
    }

    const QString path = filePath();
    const bool isWritten = writeFile(path, current, changedKeys);
    const std::lock_guard locker(m_mutex);
    if (!isWritten)
        m_changedKeys += changedKeys;
    return isWritten;
}

bool CookieStore::writeFile(const QString &path, const QList<QNetworkCookie> &current,
                            const QSet<QByteArray> &changedKeys)
{
    if (isNoFile(path) || !QDir().mkpath(QFileInfo(path).absolutePath()))
        return false;
    QLockFile lock(path + QLatin1String(".lock"));
    QList<QNetworkCookie> stored;
    if (!lock.tryLock(lockWaitMs) || !readFile(path, stored))
        return false;

    QByteArray content = QByteArrayLiteral("# Netscape HTTP Cookie File\n");
    for (const QNetworkCookie &cookie : qAsConst(stored)) {
        if (!changedKeys.contains(keyOf(cookie)))
            content += lineOf(cookie);
    }
    for (const QNetworkCookie &cookie : current) {
        if (!cookie.isSessionCookie() && changedKeys.contains(keyOf(cookie)))
            content += lineOf(cookie);
    }

    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly)
        && file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)
        && file.write(content) == content.size() && file.commit();
}

QString CookieStore::filePath()
{
    const QString chosen = qEnvironmentVariable("CLIPWEIR_COOKIES");
    if (!chosen.isEmpty())
        return chosen;
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
        + QLatin1String("/clipweir/cookies.txt");
}

void CookieStore::clear()
{
    const std::lock_guard locker(m_mutex);
    m_cookies.clear();
    m_changedKeys.clear();
    m_seenStamp = FileStamp();
}

CookieStore::FileStamp CookieStore::stampOf(const QString &path)
{
    const QFileInfo info(path);
    return {info.lastModified(), info.exists() ? info.size() : -1};
}
