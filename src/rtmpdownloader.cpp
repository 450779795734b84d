#include "rtmpdownloader.h"

#include <QCoreApplication>
#include <QFile>

#include "HostEvents.h"
#include "RtmpdumpOutput.h"

RtmpDownloader::RtmpDownloader()
{
    connect(&m_process, &QProcess::readyReadStandardOutput, this, &RtmpDownloader::onStdoutReady);
    connect(&m_process, &QProcess::readyReadStandardError, this, &RtmpDownloader::onStdoutReady);
    connect(&m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            &RtmpDownloader::onProcessFinished);
}

RtmpDownloader::~RtmpDownloader()
{
    m_process.disconnect(this);
    m_process.kill();
    m_process.waitForFinished();
}

void RtmpDownloader::download(const QMap<QString, QString> &params, const QString &filePath,
                              qint64 resumeOffset, qint64 sizeLimit)
{
    m_params = params;
    m_filePath = filePath;
    m_resumeOffset = resumeOffset;
    m_sizeLimit = sizeLimit;
    ++m_attempts;
    m_watchesWriteFailure = true;
    m_isCancelled = false;

    const QStringList list = arguments();
    HostEvents::send(event::RtmpdumpStarted{list});
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.start(QCoreApplication::applicationDirPath() + QLatin1String("/rtmpdump"), list);
}

void RtmpDownloader::cancel()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_isCancelled = true;
    m_process.kill();
}

void RtmpDownloader::onStdoutReady()
{
    const QByteArray chunk = m_process.readAll();
    if (chunk.isEmpty())
        return;
    reportProgress(chunk);
    if (m_watchesWriteFailure && RtmpdumpOutput::tellsWriteFailure(chunk)) {
        m_watchesWriteFailure = false;
        m_process.kill();
    }
}

void RtmpDownloader::onProcessFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    const bool isSaved = exitStatus == QProcess::NormalExit && exitCode == 0;
    // A program that failed by itself just before it was to be killed is not restarted either.
    const bool isStopped = exitStatus == QProcess::CrashExit || (m_isCancelled && !isSaved);
    if (!m_watchesWriteFailure && !m_isCancelled) {
        QFile::remove(m_filePath); // a file that stays is overwritten by the new start
        startAfresh();
    } else if (isStopped || isSaved) {
        onStdoutReady();
        emit finished(isSaved ? 0 : -1);
    } else if (m_attempts <= 1) {
        startAfresh();
    }
}

QStringList RtmpDownloader::arguments() const
{
    QMap<QString, QString> options = m_params;
    options[QStringLiteral("flv")] = m_filePath;
    QStringList list;
    for (auto option = options.cbegin(); option != options.cend(); ++option)
        list << QLatin1String("--") + option.key() << option.value();
    if (m_resumeOffset != 0)
        list << QStringLiteral("--resume");
    return list;
}

void RtmpDownloader::reportProgress(const QByteArray &chunk)
{
    const std::optional<RtmpdumpOutput::Status> status = RtmpdumpOutput::status(chunk);
    if (!status)
        return;
    emit progress(status->received(), status->total());
    if (m_sizeLimit > 0 && status->receivedBytes > static_cast<double>(m_sizeLimit))
        m_process.kill();
}

/// Downloads to the same file again, from the beginning and without a limit.
void RtmpDownloader::startAfresh()
{
    download(m_params, m_filePath, 0, -1);
}
