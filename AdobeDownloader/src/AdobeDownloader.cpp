#include "AdobeDownloader.h"

#include "AdobeDownloadThread.h"
#include "ConnectionPool.h"

#include <QDir>
#include <QFileInfo>
#include <QPointer>

namespace {

SegmentFetcher::MakeWorker workersOf(const std::shared_ptr<HdsSession> &session)
{
    const auto pool = std::make_shared<ConnectionPool>();
    return [pool, session](QObject *parent) {
        return new CAdobeDownloadThread(pool, parent, session);
    };
}

} // namespace

CAdobeDownloader::CAdobeDownloader(QObject *parent)
    : CAdobeDownloader(HdsSession::ofProcess(), parent)
{
}

CAdobeDownloader::CAdobeDownloader(const std::shared_ptr<HdsSession> &session, QObject *parent)
    : QObject(parent)
    , m_session(session)
    , m_parser(std::make_shared<CAdobeParser>(m_stop, CAdobeParser::Fetch(), session))
    , m_source(*m_parser, session->data)
    , m_fetcher(m_source, session->output, workersOf(session))
{
    connect(&m_fetcher, &SegmentFetcher::active, this, [this] { emit AdobeActive(true); });
    connect(&m_fetcher, &SegmentFetcher::progressed, this,
            [this] { m_session->output.OutProgress(); });
    connect(&m_fetcher, &SegmentFetcher::ended, this,
            [this](Transfer::Outcome outcome) { emit finished(static_cast<int>(outcome)); });
}

CAdobeDownloader::~CAdobeDownloader()
{
    m_stop.raise();
}

bool CAdobeDownloader::Download()
{
    if (m_isStarted)
        return false;
    m_isStarted = true;
    m_fetcher.prepare();
    MakeOutDir(); // without a cache the run goes on

    // The manifest is fetched in nested event loops, in which this object may be destroyed.
    const QPointer<CAdobeDownloader> self(this);
    const std::shared_ptr<CAdobeParser> parser = m_parser;
    m_session->data.Reset();
    const bool isParsed = !m_stop.isRaised() && parser->parseManifest();
    if (!self)
        return false;
    if (!isParsed)
        m_session->data.Reset(); // no fragments: the run ends at once
    const auto option = [this](const char *key) {
        return m_session->options.GetOption(QLatin1String(key));
    };
    m_fetcher.setPlaces(option("pannel").toInt()); // sic: the key is so spelled
    m_fetcher.setDeletesCache(option("delete").toBool());
    return m_fetcher.start();
}

void CAdobeDownloader::Cancel()
{
    Abort();
}

void CAdobeDownloader::Abort()
{
    m_stop.raise();
    m_fetcher.cancel();
}

void CAdobeDownloader::SetMaxHeldBytes(qint64 bytes)
{
    m_fetcher.setMaxHeldBytes(bytes);
}

bool CAdobeDownloader::MakeOutDir()
{
    const QString folder = m_session->options.GetOption(QStringLiteral("outDir")).toString();
    const QString path = QDir(folder + QLatin1String("/f4ftmp")).absolutePath();
    return QDir().mkpath(path) && QFileInfo(path).isDir();
}

void CAdobeDownloader::AddDownloadThread()
{
    m_fetcher.handOut();
}

int CAdobeDownloader::FindThreadIndex(int fragNum) const
{
    return m_fetcher.indexOf(fragNum);
}

void CAdobeDownloader::OnDownloaderFragmentFinished()
{
    m_fetcher.collect();
}

void CAdobeDownloader::OnCancelThread(int fragNum)
{
    m_fetcher.removeStopped(fragNum);
}
