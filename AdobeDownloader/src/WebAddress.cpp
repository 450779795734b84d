#include "WebAddress.h"

#include <QNetworkReply>

namespace {

/// Nothing else ends the part of an address that names user and host: a password may hold quotes
/// and blanks. Where an address stops before any of these, text behind it may be lost up to an "@";
/// that is better than half a password kept.
bool endsAuthority(QChar c)
{
    return c == QLatin1Char('/') || c == QLatin1Char('?') || c == QLatin1Char('#');
}

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
        for (; end < text.size() && !endsAuthority(text.at(end)); ++end) {
            if (text.at(end) == QLatin1Char('@'))
                lastAt = end;
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
