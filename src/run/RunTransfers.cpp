#include "RunTransfers.h"

#include "HdsTransfer.h"
#include "HttpTransfer.h"

namespace {

QString fileNameOf(const QString &path)
{
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

} // namespace

RunTransfers::RunTransfers(const RunOptions &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
{
}

void RunTransfers::startFile(const QString &url, const QString &path, qint64 sizeBytes)
{
    m_file = HttpTransfer::ofVideo(url, path, sizeBytes, m_options);
    connect(m_file.get(), &Transfer::ended, this,
            [this](Transfer::Outcome outcome) { emit fileEnded(static_cast<int>(outcome)); });
    m_file->start();
}

void RunTransfers::startThumb(const QString &url)
{
    m_thumb = HttpTransfer::ofThumb(url, m_options);
    connect(m_thumb.get(), &Transfer::ended, this,
            [this](Transfer::Outcome outcome) { emit thumbEnded(static_cast<int>(outcome)); });
    m_thumb->start();
}

void RunTransfers::startStream(const QString &manifestUrl)
{
    m_stream = std::make_unique<HdsTransfer>(HdsTransfer::Wish{
        m_options.pageUrl, manifestUrl, m_options.proxy, fileNameOf(m_options.paths.video()),
        m_options.paths.folder(), m_options.stallS});
    connect(m_stream.get(), &Transfer::progressed, this, &RunTransfers::streamActive);
    connect(m_stream.get(), &Transfer::ended, this, [this](Transfer::Outcome outcome) {
        m_isStreaming = false;
        emit streamEnded(static_cast<int>(outcome));
    });
    m_isStreaming = true;
    m_stream->start();
}

void RunTransfers::cancelStream()
{
    if (m_stream)
        m_stream->cancel();
}
