#include "RunTransfers.h"

#include "ContentHash.h"
#include "FileTransfer.h"
#include "HdsTransfer.h"
#include "HttpTransfer.h"
#include "StreamSetup.h"
#include "TracksTransfer.h"

#include <QFileInfo>

namespace {

constexpr qint64 beginningBytes = 10240; // what --partial leaves of a file, too

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
    if (FileTransfer::isFor(path, m_options))
        m_file = std::make_unique<FileTransfer>(url, path, sizeBytes, m_options);
    else
        m_file = HttpTransfer::ofVideo(url, path, sizeBytes, m_options);
    connect(m_file.get(), &Transfer::ended, this, [this, path](Transfer::Outcome outcome) {
        endVideo(*m_file, outcome, path);
        emit fileEnded(static_cast<int>(outcome));
    });
    m_file->start();
}

/// Notes what became of the video. To a strict caller what is not complete has failed.
void RunTransfers::endVideo(const Transfer &transfer, Transfer::Outcome &outcome,
                            const QString &path)
{
    m_videoReport = transfer.report(outcome);
    const bool isComplete = m_videoReport.runClass == RunClass::Complete;
    if (m_options.isStrict && outcome == Transfer::Outcome::Succeeded && !isComplete)
        outcome = Transfer::Outcome::Failed;
    if (m_options.tellsEvents && isComplete && m_videoReport.sha256.isEmpty())
        m_videoReport.sha256 =
            ContentHash::ofFile(m_videoReport.path.isEmpty() ? path : m_videoReport.path);
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
    runStream(std::make_unique<HdsTransfer>(HdsTransfer::Wish{
                  m_options.pageUrl, manifestUrl, m_options.proxy,
                  fileNameOf(m_options.paths.video()), m_options.paths.folder(), m_options.stallS}),
              m_options.paths.video());
}

void RunTransfers::startManifest(const VideoFile &stream, const QString &path)
{
    const bool isGiven = m_options.paths.isVideoGiven() && path == m_options.paths.video();
    const QFileInfo file(path);
    const MediaServers servers = StreamSetup::servers(m_options);
    TracksTransfer::Wish wish;
    wish.target.folder = file.absolutePath();
    wish.target.name = isGiven ? file.fileName() : file.completeBaseName();
    wish.target.followsContainer = !isGiven;
    if (m_options.continues)
        wish.cacheFolder = m_options.paths.folder() + QLatin1String("/streamtmp");
    wish.places = m_options.connections;
    wish.isStrict = m_options.isStrict;
    wish.enoughBytes = m_options.wantsBeginningOnly ? beginningBytes : 0;
    auto presentation =
        StreamSetup::presentation(stream.manifest, stream.address(), servers, m_options);
    runStream(std::make_unique<TracksTransfer>(std::move(presentation), stream.address().toUtf8(),
                                               wish, servers),
              path);
}

void RunTransfers::runStream(std::unique_ptr<Transfer> stream, const QString &path)
{
    m_stream = std::move(stream);
    connect(m_stream.get(), &Transfer::progressed, this, &RunTransfers::streamActive);
    connect(m_stream.get(), &Transfer::ended, this, [this, path](Transfer::Outcome outcome) {
        m_isStreaming = false;
        endVideo(*m_stream, outcome, path);
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
