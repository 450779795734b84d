#include "httpHead.h"

#include <QDir>

namespace {

/// ffmpeg writes a line in many small pieces, one right after the other, and would be read in the
/// middle of one if there were no wait for the rest.
constexpr int pauseMs = 50;
constexpr qint64 maxChunkBytes = 64 * 1024;

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
    return m_output.duration();
}

QSize HttpHead::getVideoSolution() const
{
    return m_output.pictureSize();
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
    if (!chunk.isEmpty())
        m_output.read(chunk);
}
