#include "HdsPresentation.h"

#include "FlvSink.h"
#include "HdsTrack.h"
#include "MediaRequest.h"
#include "RenditionChoice.h"
#include "WebAddress.h"

#include <algorithm>

namespace {

constexpr int tries = 3; // to get a document
constexpr int retryMs = 500;
constexpr int maxChildren = 64;
constexpr qint64 maxChildBytes = 4 * HdsManifest::maxBytes; // of all of them
constexpr qint64 shortestRefreshMs = 500;
constexpr qint64 longestRefreshMs = 60 * 1000;
constexpr qint64 usualRefreshMs =
    4 * 1000; // of a bootstrap that does not say how long fragments are
constexpr qint64 usPerMs = 1000;

/// How long a bootstrap holds: as long as a fragment lasts.
int refreshMsOf(const HdsBootstrap &bootstrap)
{
    const qint64 fragmentMs = bootstrap.spans.constLast().durationUs / usPerMs;
    return static_cast<int>(fragmentMs > 0 ? qBound(shortestRefreshMs, fragmentMs, longestRefreshMs)
                                           : usualRefreshMs);
}

} // namespace

HdsPresentation::HdsPresentation(const Wish &wish, const MediaServers &servers, QObject *parent)
    : Presentation(parent)
    , m_wish(wish)
    , m_servers(servers)
    , m_request(std::make_unique<MediaRequest>(servers))
{
    m_timer.setSingleShot(true);
    connect(m_request.get(), &MediaRequest::ended, this, &HdsPresentation::onEnded);
}

HdsPresentation::~HdsPresentation() = default;

void HdsPresentation::open()
{
    if (m_isOpened || m_isOver)
        return;
    m_isOpened = true;
    ask(m_wish.address, HdsManifest::maxBytes, [this] { onManifest(); });
}

void HdsPresentation::finish()
{
    if (m_isReady)
        end();
    m_isOver = true;
    m_timer.stop();
    m_request->disconnect(this);
}

QVector<TrackSource *> HdsPresentation::tracks() const
{
    return m_track ? QVector<TrackSource *>{m_track} : QVector<TrackSource *>();
}

std::unique_ptr<TrackSink> HdsPresentation::makeSink(const MergedSource &source,
                                                     const TrackSink::Target &target) const
{
    return std::make_unique<FlvSink>(source, m_chosen.metadata, target);
}

void HdsPresentation::fail(Failure failure, const QString &reason)
{
    if (m_isOver || m_isReady)
        return;
    m_isOver = true;
    emit failed(failure, reason);
}

/// Asks for a document, a few times if need be.
void HdsPresentation::ask(const QUrl &url, qint64 maxBytes, const std::function<void()> &onAnswer)
{
    m_asked = url;
    m_askedBytes = maxBytes;
    m_onAnswer = onAnswer;
    m_failures = 0;
    m_request->start({url, 0, 0, maxBytes});
}

void HdsPresentation::onEnded()
{
    if (m_isOver)
        return;
    if (!m_request->hasSucceeded() && !m_isReady && WebAddress::isWeb(m_asked)
        && ++m_failures < tries) {
        m_timer.disconnect(this);
        connect(&m_timer, &QTimer::timeout, this, [this] {
            m_request->start({m_asked, 0, 0, m_askedBytes});
        });
        m_timer.start(retryMs * m_failures);
        return;
    }
    const std::function<void()> onAnswer = m_onAnswer; // it may ask for the next
    onAnswer();
}

void HdsPresentation::onManifest()
{
    if (!m_request->hasSucceeded()) {
        fail(Failure::Unreachable, m_request->errorText());
        return;
    }
    QString reason;
    const auto manifest = HdsManifest::parse(m_request->body(), m_request->url(), reason);
    if (!manifest) {
        fail(Failure::Malformed, reason);
        return;
    }
    m_media = manifest->media;
    for (const HdsManifest::Media &one : qAsConst(m_media)) {
        m_renditions += one.rendition;
        if (one.isAlternate)
            qWarning("a rendition that goes with others is left alone: %s",
                     qUtf8Printable(one.rendition.id));
    }
    choose();
}

/// Leaves out what is not fetched.
void HdsPresentation::dropUnfit()
{
    const auto isUnfit = [](const HdsManifest::Media &one) {
        const QUrl &address = one.manifest.isEmpty() ? one.address : one.manifest;
        return one.isAlternate || one.rendition.kind == Rendition::Kind::Text
            || !WebAddress::isWeb(address);
    };
    m_media.erase(std::remove_if(m_media.begin(), m_media.end(), isUnfit), m_media.end());
}

/// Chooses a rendition, as soon as enough is known of them.
void HdsPresentation::choose()
{
    dropUnfit();
    if (m_media.isEmpty()) {
        fail(Failure::Unsupported, QStringLiteral("it offers no rendition over HTTP"));
        return;
    }
    const int child = nextToRead();
    if (child >= 0) {
        readChild(child);
        return;
    }
    m_chosen = m_media.at(best());
    if (m_chosen.isProtected)
        fail(Failure::Protected, QStringLiteral("it is protected (drmAdditionalHeader)"));
    else
        askForBootstrap();
}

/// The rendition that is fetched, by what is known.
int HdsPresentation::best() const
{
    QVector<Rendition> offered;
    for (const HdsManifest::Media &one : m_media)
        offered += one.rendition;
    const int picture = RenditionChoice::picture(offered, m_wish.height);
    return picture >= 0 ? picture : RenditionChoice::sound(offered, m_wish.language);
}

/// The other manifest that must be read next: each, if a height is wished for and the set does not
/// tell that of each; at last the one that is chosen. -1 for none.
int HdsPresentation::nextToRead() const
{
    for (int i = 0; i < m_media.size() && m_wish.height > 0; ++i) {
        if (!m_media.at(i).manifest.isEmpty() && m_media.at(i).rendition.height == 0)
            return i;
    }
    const int chosen = best();
    return m_media.at(chosen).manifest.isEmpty() ? -1 : chosen;
}

void HdsPresentation::readChild(int index)
{
    if (++m_children > maxChildren || m_childBytes >= maxChildBytes) {
        fail(Failure::Malformed, QStringLiteral("it names more manifests than can be"));
        return;
    }
    ask(m_media.at(index).manifest, HdsManifest::maxBytes, [this, index] { onChild(index); });
}

/// Puts the renditions of another manifest in the place of its own; one that cannot be read is left
/// out. A set in a set is none.
void HdsPresentation::onChild(int index)
{
    const HdsManifest::Media set = m_media.takeAt(index);
    m_childBytes += m_request->body().size();
    QString reason = m_request->errorText();
    std::optional<HdsManifest> child;
    if (m_request->hasSucceeded())
        child = HdsManifest::parse(m_request->body(), m_request->url(), reason);
    if (!child)
        qWarning("a rendition is left out, %s: %s", qUtf8Printable(set.rendition.id),
                 qUtf8Printable(reason));
    for (int i = 0; child && i < child->media.size(); ++i) {
        HdsManifest::Media one = child->media.at(i);
        if (!one.manifest.isEmpty() || m_media.size() >= HdsManifest::maxMedia)
            continue;
        one.isProtected |= set.isProtected;
        one.rendition.id = set.rendition.id;
        if (one.rendition.bandwidth == 0)
            one.rendition.bandwidth = set.rendition.bandwidth;
        if (set.rendition.height > 0) {
            one.rendition.width = set.rendition.width;
            one.rendition.height = set.rendition.height;
        }
        if (one.rendition.durationUs == 0)
            one.rendition.durationUs = set.rendition.durationUs;
        m_media.insert(index++, one);
    }
    choose();
}

void HdsPresentation::askForBootstrap()
{
    if (!m_chosen.bootstrapAddress.isEmpty()) {
        ask(m_chosen.bootstrapAddress, HdsBootstrap::maxBytes, [this] {
            if (m_request->hasSucceeded())
                begin(m_request->body());
            else
                fail(Failure::Unreachable, m_request->errorText());
        });
    } else if (m_chosen.bootstrap.isEmpty()) {
        fail(Failure::Unsupported, QStringLiteral("it has no bootstrap"));
    } else {
        begin(m_chosen.bootstrap);
    }
}

void HdsPresentation::begin(const QByteArray &bootstrap)
{
    QString reason;
    const auto read = HdsBootstrap::parse(bootstrap, m_chosen.rendition.durationUs, reason);
    if (!read) {
        fail(Failure::Malformed, reason);
        return;
    }
    if (read->isProtected) {
        fail(Failure::Protected, QStringLiteral("it is protected (its bootstrap says so)"));
        return;
    }
    m_track = new HdsTrack(m_chosen.address, this);
    if (!m_track->extend(*read)) {
        fail(Failure::Malformed, QStringLiteral("it has more fragments than can be"));
        return;
    }
    if (read->isLive)
        m_chosen.rendition.durationUs = 0;
    else if (m_chosen.rendition.durationUs == 0)
        m_chosen.rendition.durationUs = read->endUs() - read->spans.constFirst().startUs;
    m_isFollowing = read->isLive;
    m_track->publish(!m_isFollowing);
    m_isReady = true;
    if (m_isFollowing) {
        m_refreshMs = refreshMsOf(*read);
        follow();
    }
    emit ready();
}

/// Sees to it that the bootstrap is asked for again in time.
void HdsPresentation::follow()
{
    m_sinceBootstrap.start();
    m_timer.disconnect(this);
    connect(&m_timer, &QTimer::timeout, this, &HdsPresentation::refresh);
    m_timer.start(m_refreshMs);
}

/// Asks for the bootstrap again, or for the manifest that it is in.
void HdsPresentation::refresh()
{
    const bool isApart = !m_chosen.bootstrapAddress.isEmpty();
    const QUrl holder = isApart ? m_chosen.bootstrapAddress : m_chosen.holder;
    ask(holder, isApart ? HdsBootstrap::maxBytes : HdsManifest::maxBytes,
        [this] { onRefreshed(); });
}

void HdsPresentation::onRefreshed()
{
    if (!m_isFollowing)
        return;
    QString reason = m_request->errorText();
    std::optional<HdsBootstrap> read;
    if (m_request->hasSucceeded())
        read = HdsBootstrap::parse(bootstrapIn(m_request->body(), reason), 0, reason);
    if (!read) {
        if (m_sinceBootstrap.elapsed() > m_servers.patienceMs()) {
            qWarning("the bootstrap is no longer to be had: %s", qUtf8Printable(reason));
            end();
        } else {
            m_timer.start(retryMs);
        }
        return;
    }
    const bool isWithin = m_track->extend(*read);
    if (!isWithin || !read->isLive) {
        end();
        return;
    }
    m_track->publish(false);
    follow();
}

/// The bootstrap in an answer to refresh().
QByteArray HdsPresentation::bootstrapIn(const QByteArray &answer, QString &reason) const
{
    if (!m_chosen.bootstrapAddress.isEmpty())
        return answer;
    const auto manifest = HdsManifest::parse(answer, m_request->url(), reason);
    if (!manifest)
        return {};
    const auto same = std::find_if(
        manifest->media.cbegin(), manifest->media.cend(),
        [this](const HdsManifest::Media &one) { return one.address == m_chosen.address; });
    return same == manifest->media.cend() ? QByteArray() : same->bootstrap;
}

/// No fragments follow those that are known.
void HdsPresentation::end()
{
    m_isFollowing = false;
    m_timer.stop();
    m_track->publish(true);
}
