#include "HttpDate.h"

#include <QLocale>

namespace {

constexpr qint64 longestPauseS = 24 * 60 * 60; // more is as good as never

} // namespace

QDateTime HttpDate::parse(const QByteArray &text)
{
    QDateTime time = QLocale::c().toDateTime(QString::fromLatin1(text.trimmed()),
                                             QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'"));
    time.setTimeSpec(Qt::UTC);
    return time;
}

std::optional<std::chrono::seconds> HttpDate::pauseOf(const QByteArray &retryAfter,
                                                      const QDateTime &now)
{
    bool isNumber = false;
    const qint64 seconds = retryAfter.trimmed().toLongLong(&isNumber);
    const QDateTime time = parse(retryAfter);
    if (!isNumber && !time.isValid())
        return {};
    const qint64 pause = isNumber ? seconds : now.secsTo(time);
    return std::chrono::seconds(qBound<qint64>(0, pause, longestPauseS));
}
