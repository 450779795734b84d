#include "httpHead.h"

#include <algorithm>
#include <limits>

#include <QDir>
#include <QRegExp>

namespace {

/// ffmpeg writes a line in many small pieces, one right after the other, and would be read in the
/// middle of one if there were no wait for the rest.
constexpr int pauseMs = 50;
constexpr qint64 maxChunkBytes = 64 * 1024;

/// The seconds that "h:m:s" stands for, with any number of parts; a part that is no number counts
/// as 0. Held within the range of an int, as the text may come from inside a media file.
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

HttpHead::HttpHead(const QString &url)
    : m_url(url)
{
    m_pause.setSingleShot(true);
    m_pause.setInterval(pauseMs);
    connect(&m_pause, &QTimer::timeout, this, &HttpHead::readChunk);
    connect(&m_process, &QProcess::readyReadStandardOutput, this, &HttpHead::onStdoutReady);
    connect(&m_process, &QProcess::readyReadStandardError, this, &HttpHead::onStdoutReady);
    connect(&m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            &HttpHead::onProcessFinished);
}

HttpHead::~HttpHead()
{
    m_process.disconnect(this);
    m_process.kill();
    m_process.waitForFinished();
}

void HttpHead::callffmpeg()
{
    const QString folder = QDir(QStringLiteral("./import/bin")).absolutePath();
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    // Without an output ffmpeg describes its input and ends with an error, which is all we want.
    m_process.start(folder + QLatin1String("/ffmpeg"), {QStringLiteral("-i"), m_url},
                    QIODevice::ReadWrite);
}

int HttpHead::getVideoDuration() const
{
    return m_duration;
}

QSize HttpHead::getVideoSolution() const
{
    return {m_width, m_height};
}

void HttpHead::onStdoutReady()
{
    if (m_process.bytesAvailable() < maxChunkBytes)
        m_pause.start();
    else
        readChunk();
}

void HttpHead::onProcessFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    Q_UNUSED(exitCode)
    Q_UNUSED(exitStatus)
    readChunk();
    emit getHeadInfoFinished();
}

void HttpHead::readChunk()
{
    m_pause.stop();
    const QByteArray chunk = m_process.readAll();
    if (chunk.isEmpty())
        return;
    const QString text = QString::fromLatin1(chunk.constData()); // up to the first NUL
    if (m_duration == 0)
        readDuration(text);
    if (m_width == 0)
        readPictureSize(text);
}

void HttpHead::readDuration(const QString &text)
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

void HttpHead::readPictureSize(const QString &text)
{
    QRegExp expression(QStringLiteral(":?\\s*(\\d{2,9})x(\\d{2,9})\\s*"));
    if (expression.indexIn(text) < 0)
        return;
    m_width = expression.cap(1).toInt();
    m_height = expression.cap(2).toInt();
}
