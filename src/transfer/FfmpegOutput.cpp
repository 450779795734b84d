#include "FfmpegOutput.h"

#include <QRegExp>
#include <QStringList>

#include <algorithm>
#include <limits>

namespace {

/// The seconds that "h:m:s" stands for, with any number of parts; a part that is no number counts
/// as 0. Held within the range of an int.
int secondsOf(const QString &text)
{
    constexpr qint64 least = std::numeric_limits<int>::min();
    constexpr qint64 most = std::numeric_limits<int>::max();
    const QStringList parts = text.split(QLatin1Char(':'));
    qint64 seconds = 0;
    qint64 unit = 1;
    for (auto part = parts.crbegin(); part != parts.crend(); ++part) {
        seconds = qBound(least, seconds + part->toInt() * unit, most);
        unit = std::min(unit * 60, most);
    }
    return static_cast<int>(seconds);
}

} // namespace

void FfmpegOutput::read(const QByteArray &chunk)
{
    const QString text = QString::fromLatin1(chunk); // up to the first NUL
    if (m_duration == 0)
        readDuration(text);
    if (m_pictureSize.width() == 0)
        readPictureSize(text);
}

void FfmpegOutput::readDuration(const QString &text)
{
    QRegExp expression(QStringLiteral("Duration:([^,]+)"));
    if (expression.indexIn(text) < 0)
        return;
    QString time = expression.cap(1).trimmed();
    const int point = time.indexOf(QLatin1Char('.'));
    if (point > 0)
        time.truncate(point);
    time = time.trimmed().replace(QLatin1Char(' '), QLatin1Char(':'));
    if (!time.isEmpty())
        m_duration = secondsOf(time);
}

void FfmpegOutput::readPictureSize(const QString &text)
{
    // Nothing around the numbers: white space before them would be tried from its every character.
    QRegExp expression(QStringLiteral("(\\d{2,9})x(\\d{2,9})"));
    if (expression.indexIn(text) >= 0)
        m_pictureSize = {expression.cap(1).toInt(), expression.cap(2).toInt()};
}
