#include "FileOrigin.h"

#include "ContentRange.h"
#include "HttpClient.h"
#include "HttpDate.h"
#include "WebAddress.h"

namespace {

constexpr int maxValidatorBytes = 1024; // what is longer is kept by no server

QByteArray strongEtag(const HttpClient &answer)
{
    const QByteArray etag = answer.header("ETag").trimmed();
    const bool isStrong = etag.size() >= 2 && etag.startsWith('"') && etag.endsWith('"');
    return isStrong && etag.size() <= maxValidatorBytes ? etag : QByteArray();
}

QByteArray modified(const HttpClient &answer)
{
    return answer.header("Last-Modified").trimmed();
}

/// A file may change twice in the second that it was last modified in (RFC 9110, 8.8.2.2).
QByteArray certainModified(const HttpClient &answer)
{
    const QDateTime time = HttpDate::parse(modified(answer));
    const QDateTime now = HttpDate::parse(answer.header("Date"));
    return time.isValid() && now.isValid() && time.secsTo(now) >= 1 ? modified(answer)
                                                                    : QByteArray();
}

QByteArray textOf(const QJsonObject &object, const char *name)
{
    return object.value(QLatin1String(name)).toString().toLatin1().left(maxValidatorBytes);
}

} // namespace

FileOrigin FileOrigin::of(const HttpClient &answer, const QString &url)
{
    FileOrigin origin;
    origin.address = WebAddress::withoutCredentials(url);
    if (answer.isPacked())
        return origin; // ranges would be those of the packed bytes
    origin.etag = strongEtag(answer);
    origin.lastModified = certainModified(answer);
    origin.length = answer.status() == 206 ? ContentRange::of(answer.header("Content-Range")).size
                                           : answer.declaredLength();
    return origin;
}

bool FileOrigin::isProvable() const
{
    return length > 0 && !condition().isEmpty();
}

QByteArray FileOrigin::condition() const
{
    return etag.isEmpty() ? lastModified : etag;
}

bool FileOrigin::agreesWith(const HttpClient &answer, qint64 firstByte) const
{
    const ContentRange range = ContentRange::of(answer.header("Content-Range"));
    const bool isSame =
        etag.isEmpty() ? modified(answer) == lastModified : strongEtag(answer) == etag;
    return isProvable() && answer.status() == 206 && !answer.isPacked() && isSame
        && range.first == firstByte && range.size == length && range.last < length;
}

QJsonObject FileOrigin::toJson() const
{
    return {{QStringLiteral("address"), address},
            {QStringLiteral("etag"), QString::fromLatin1(etag)},
            {QStringLiteral("lastModified"), QString::fromLatin1(lastModified)},
            {QStringLiteral("length"), length}};
}

FileOrigin FileOrigin::fromJson(const QJsonObject &object)
{
    FileOrigin origin;
    origin.address = object.value(QStringLiteral("address")).toString();
    origin.etag = textOf(object, "etag");
    origin.lastModified = textOf(object, "lastModified");
    const double length = object.value(QStringLiteral("length")).toDouble(-1);
    constexpr double maxExact = 9007199254740992.0; // 2^53
    origin.length = length > 0 && length <= maxExact ? static_cast<qint64>(length) : -1;
    // What came from elsewhere goes into a header.
    for (const QByteArray &validator : {origin.etag, origin.lastModified}) {
        for (const char c : validator) {
            if (c < ' ' || c > '~')
                return {};
        }
    }
    return origin;
}
