#include "FallbackEngine.h"

#include <utility>

namespace {

constexpr int quietMs = 3000;

} // namespace

FallbackEngine::FallbackEngine(std::unique_ptr<PageEngine> first, const Make &makeSecond,
                               QObject *parent)
    : PageEngine(parent)
    , m_makeSecond(makeSecond)
{
    m_quiet.setSingleShot(true);
    m_quiet.setInterval(quietMs);
    connect(&m_quiet, &QTimer::timeout, this, &FallbackEngine::onQuiet);
    take(std::move(first));
}

FallbackEngine::~FallbackEngine()
{
    m_engine->disconnect(this);
}

void FallbackEngine::take(std::unique_ptr<PageEngine> engine)
{
    m_engine = std::move(engine);
    m_engine->setCandidateCheck([this] { return hasCandidate(); });
    const PageEngine *const source = m_engine.get();
    connect(source, &PageEngine::requestSeen, this, &PageEngine::requestSeen);
    connect(source, &PageEngine::replySeen, this, &PageEngine::replySeen);
    connect(source, &PageEngine::sizeUntold, this, &PageEngine::sizeUntold);
    connect(source, &PageEngine::replyEnded, this, &PageEngine::replyEnded);
    connect(source, &PageEngine::windowClosed, this, &PageEngine::windowClosed);
    connect(source, &PageEngine::lost, this, &PageEngine::lost);
    connect(source, &PageEngine::loaded, this, &FallbackEngine::onLoaded);
    connect(source, &PageEngine::snapshot, this, &FallbackEngine::onSnapshot);
    connect(source, &PageEngine::requestSeen, this, &FallbackEngine::onLife);
    connect(source, &PageEngine::replySeen, this, &FallbackEngine::onLife);
    // From inside the engine, which does not survive what follows there.
    connect(source, &PageEngine::outgrown, this, &FallbackEngine::goOver, Qt::QueuedConnection);
}

void FallbackEngine::setProxy(const QNetworkProxy &proxy)
{
    m_proxy = proxy;
    m_engine->setProxy(proxy);
}

void FallbackEngine::setShown(bool isShown)
{
    m_engine->setShown(isShown);
}

void FallbackEngine::load(const QUrl &url)
{
    m_url = url;
    m_engine->load(url);
}

void FallbackEngine::layOutWhole()
{
    m_engine->layOutWhole();
}

void FallbackEngine::requestSnapshot()
{
    m_engine->requestSnapshot();
}

void FallbackEngine::stop()
{
    m_isStopped = true;
    m_quiet.stop();
    m_engine->stop();
}

void FallbackEngine::saveCookies()
{
    m_engine->saveCookies();
}

void FallbackEngine::withCookies(const std::function<void()> &step)
{
    m_engine->withCookies(step);
}

void FallbackEngine::close()
{
    m_isStopped = true;
    m_engine->close();
}

/// The first one's end of loading would begin the time after which a quiet page has no more.
void FallbackEngine::onLoaded(bool isOk)
{
    if (!m_isFirst) {
        emit loaded(isOk);
        return;
    }
    m_isLoadHeldBack = true;
    m_isLoadOk = isOk;
    if (hasCandidate())
        return tellLoaded(); // who hears of it lays the page out, which costs a picture of it
    layOutWhole();
    m_quiet.start();
}

void FallbackEngine::tellLoaded()
{
    m_quiet.stop();
    if (std::exchange(m_isLoadHeldBack, false))
        emit loaded(m_isLoadOk);
}

void FallbackEngine::onLife()
{
    if (!m_isLoadHeldBack)
        return;
    if (hasCandidate())
        tellLoaded();
    else
        m_quiet.start();
}

/// What the traffic does not show the document may.
void FallbackEngine::onQuiet()
{
    if (m_isStopped || !m_isFirst)
        return;
    m_isJudging = true;
    m_engine->requestSnapshot();
}

void FallbackEngine::onSnapshot(const PageSnapshot &page)
{
    const bool isJudging = std::exchange(m_isJudging, false);
    m_isTelling = true;
    emit snapshot(page);
    m_isTelling = false;
    if (isJudging && hasCandidate())
        tellLoaded();
    else if (isJudging && m_wish.isEmpty())
        m_wish = QStringLiteral("it has loaded and is quiet, and no video has been found");
    // Queued, for the engine that has told may be waiting to go on.
    if (!m_wish.isEmpty())
        QMetaObject::invokeMethod(
            this, [this, wish = std::exchange(m_wish, QString())] { goOver(wish); },
            Qt::QueuedConnection);
}

void FallbackEngine::goOver(const QString &reason)
{
    if (!m_isFirst || m_isStopped || hasCandidate())
        return;
    if (m_isTelling) {
        m_wish = reason;
        return;
    }
    qWarning("the page is opened in the other engine: %s", qUtf8Printable(reason));
    m_isFirst = false;
    m_isLoadHeldBack = false;
    m_quiet.stop();
    m_engine->disconnect(this);
    m_engine->saveCookies();
    m_engine->stop();
    // It may be what has called this.
    m_engine.release()->deleteLater();
    take(m_makeSecond());
    m_engine->setProxy(m_proxy);
    m_engine->load(m_url);
}
