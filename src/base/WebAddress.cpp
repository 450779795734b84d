#include "WebAddress.h"

#include <QNetworkReply>

namespace {

/// Nothing else ends the part of an address that names user and host: a password may hold quotes
/// and spaces.
bool endsAuthority(QChar c)
{
    return c == QLatin1Char('/') || c == QLatin1Char('?') || c == QLatin1Char('#');
}

bool isDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

/// Reads what follows the "://" of an address, character by character, and tells whether an "@"
/// ends a user's name and password there. With spaces before it, it may as well stand in text that
/// follows the address: a host's name has no spaces, while a password may have some. In doubt it is
/// taken for a password, since a text with a hole is better than half a password kept.
class CredentialsReader final
{
public:
    /// Whether an "@" that comes next is the end of credentials.
    [[nodiscard]] bool isEndOfCredentials() const
    {
        if (!m_hasBlank)
            return true;
        if (m_length == 0)
            return false; // the address has ended before it began
        if (m_isAfterBlank && !m_hasPassword)
            return false; // somebody is mentioned in the text
        return m_hasColon || (!m_hasPoint && m_hasLaterColon);
    }

    void take(QChar c)
    {
        m_isAfterBlank = c.isSpace();
        if (m_hasBlank)
            m_hasLaterColon = m_hasLaterColon || c == QLatin1Char(':');
        else
            takeBeforeBlank(c);
    }

private:
    /// Up to the first space it may be a host and its port.
    void takeBeforeBlank(QChar c)
    {
        if (c.isSpace()) {
            m_hasBlank = true;
            m_hasLaterColon = m_isColonLast;
            return;
        }
        ++m_length;
        m_hasPassword = m_hasPassword || (m_isColonSeen && !isDigit(c));
        m_hasColon = m_isColonSeen; // with something behind it
        m_hasPoint = m_hasPoint || (!m_isColonSeen && c == QLatin1Char('.'));
        m_isColonLast = c == QLatin1Char(':');
        m_isColonSeen = m_isColonSeen || m_isColonLast;
    }

    bool m_hasBlank = false;
    bool m_isAfterBlank = false;
    bool m_hasLaterColon = false; ///< behind the first space, or right before it
    int m_length = 0; ///< of what stands before the first space, as what follows
    bool m_isColonSeen = false;
    bool m_isColonLast = false;
    bool m_hasColon = false;
    bool m_hasPassword = false; ///< what is behind the colon is no port
    bool m_hasPoint = false; ///< as a host's name has
};

} // namespace

bool WebAddress::isWeb(const QUrl &url)
{
    // The toolkit keeps schemes in lower case.
    return url.isValid() && !url.host().isEmpty()
        && (url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https"));
}

QUrl WebAddress::redirectTarget(const QNetworkReply &reply)
{
    const QVariant target = reply.attribute(QNetworkRequest::RedirectionTargetAttribute);
    return target.isNull() ? QUrl() : reply.url().resolved(target.toUrl());
}

QString WebAddress::withoutCredentials(const QString &text)
{
    const QLatin1String mark("://");
    int at = text.indexOf(mark);
    if (at < 0 || text.indexOf(QLatin1Char('@'), at) < 0)
        return text;

    QString result;
    result.reserve(text.size());
    int copiedTo = 0;
    while (at >= 0) {
        const int begin = at + mark.size();
        int end = begin;
        int lastAt = -1;
        CredentialsReader reader;
        for (; end < text.size() && !endsAuthority(text.at(end)); ++end) {
            const QChar c = text.at(end);
            if (c == QLatin1Char('@') && reader.isEndOfCredentials())
                lastAt = end;
            reader.take(c);
        }
        if (lastAt >= 0) {
            result += text.midRef(copiedTo, begin - copiedTo);
            copiedTo = lastAt + 1;
        }
        // The next mark may begin with the last character looked at.
        at = text.indexOf(mark, qMax(begin, end - 1));
    }
    result += text.midRef(copiedTo);
    return result;
}
