#include "HlsSource.h"

#include "HlsCipher.h"

#include <limits>

namespace {

constexpr qint64 shortestReloadMs = 500;
constexpr qint64 longestReloadMs = 60 * 1000;
constexpr qint64 milliseconds = 1000;
constexpr qint64 roundingUs = 50 * 1000; // in durations of the same segment

bool isSameKey(const HlsKey *one, const HlsKey *other)
{
    return one && other ? *one == *other : one == other;
}

bool isSameMap(const HlsMap *one, const HlsMap *other)
{
    if (!one || !other)
        return one == other;
    return one->firstByte == other->firstByte && one->byteCount == other->byteCount
        && isSameKey(one->key.get(), other->key.get());
}

/// Whether a segment is the same on another server, as far as playlists tell.
bool isTwin(const HlsSegment &one, const HlsSegment &other)
{
    return one.sequence == other.sequence && one.firstByte == other.firstByte
        && one.byteCount == other.byteCount && one.discontinuity == other.discontinuity
        && qAbs(one.durationUs - other.durationUs) <= roundingUs
        && isSameKey(one.key.get(), other.key.get()) && isSameMap(one.map.get(), other.map.get());
}

} // namespace

HlsSource::HlsSource(const MediaServers &servers, const std::shared_ptr<HlsKeyRing> &keys,
                     QObject *parent)
    : TrackSource(parent)
    , m_servers(servers)
    , m_keys(keys)
    , m_loader(servers)
    , m_twinLoader(servers)
{
    m_reload.setSingleShot(true);
    connect(&m_reload, &QTimer::timeout, this, &HlsSource::reload);
    connect(&m_loader, &HlsLoader::loaded, this, &HlsSource::onLoaded);
    connect(&m_loader, &HlsLoader::failed, this, &HlsSource::onMissed);
    connect(&m_twinLoader, &HlsLoader::loaded, this, &HlsSource::onTwinLoaded);
}

void HlsSource::open(const QVector<QUrl> &addresses, const HlsVariables &imports)
{
    m_addresses = addresses;
    m_imports = imports;
    m_sinceCome.start();
    m_sinceAsked.start();
    m_loader.load(addresses, imports);
}

void HlsSource::open(const HlsPlaylist &playlist, const QUrl &address)
{
    m_sinceAsked.start();
    QMetaObject::invokeMethod(
        this,
        [this, playlist, address] {
            if (!m_isEnded)
                onLoaded(playlist, address);
        },
        Qt::QueuedConnection);
}

void HlsSource::finish()
{
    m_loader.cancel();
    m_twinLoader.cancel();
    m_reload.stop();
    if (m_isEnded)
        return;
    m_isEnded = true;
    if (m_isOpen)
        emit changed();
}

void HlsSource::onLoaded(const HlsPlaylist &playlist, const QUrl &address)
{
    m_address = address;
    if (isRefused(playlist))
        return;
    if (m_isOpen || !playlist.segments.empty()) {
        m_sinceCome.start();
        takeNews(playlist);
        return;
    }
    // A live stream may be announced before it has anything.
    m_targetMs = qMin(playlist.targetDurationS * milliseconds, longestReloadMs);
    if (playlist.isEnded
        || (m_sinceCome.isValid() && m_sinceCome.hasExpired(m_servers.patienceMs())))
        fail(Presentation::Failure::Unsupported, QStringLiteral("the playlist has no segments"));
    else
        reloadLater(false);
}

/// Whether a playlist is none that is fetched. In the course of a stream that is its end, and what
/// came before stays.
bool HlsSource::isRefused(const HlsPlaylist &playlist)
{
    using Failure = Presentation::Failure;
    const QString protection = playlist.protection();
    if (playlist.kind != HlsPlaylist::Kind::Media)
        fail(Failure::Unsupported, QStringLiteral("a master playlist where segments should be"));
    else if (!protection.isEmpty())
        fail(Failure::Protected, QLatin1String("protected by ") + protection);
    else if (playlist.isIFramesOnly)
        fail(Failure::Unsupported, QStringLiteral("a playlist of key frames alone"));
    else
        return false;
    return true;
}

void HlsSource::takeNews(const HlsPlaylist &playlist)
{
    const bool hasNews = m_timeline.take(playlist);
    m_targetMs = qMin(playlist.targetDurationS, longestReloadMs / milliseconds) * milliseconds;
    const bool wasOpen = m_isOpen;
    m_isOpen = true;
    m_isEnded = playlist.isEnded || m_timeline.isFull();
    if (m_timeline.isFull())
        qWarning("%s: too many segments, the rest is left out",
                 qUtf8Printable(m_address.toString(QUrl::RemoveUserInfo)));
    if (!m_isEnded)
        reloadLater(hasNews);
    else if (!wasOpen)
        seekTwin();
    if (!wasOpen)
        emit opened();
    else if (hasNews || m_isEnded)
        emit changed();
}

/// Of a stream that is whole: the windows of live ones need not hold the same.
void HlsSource::seekTwin()
{
    QVector<QUrl> others = m_addresses;
    others.removeAll(m_address);
    if (!others.isEmpty())
        m_twinLoader.load(others, m_imports);
}

void HlsSource::onTwinLoaded(const HlsPlaylist &playlist)
{
    std::size_t same = 0;
    for (const HlsTimeline::Entry &entry : m_timeline.entries()) {
        if (entry.kind != HlsTimeline::Kind::Media)
            continue;
        if (same >= playlist.segments.size() || !isTwin(entry.segment, playlist.segments[same]))
            return;
        ++same;
    }
    if (same == playlist.segments.size())
        m_twin = playlist;
}

/// Where another server has the same; empty when none is known to.
QString HlsSource::twinAddress(const HlsTimeline::Entry &entry) const
{
    if (m_twin.segments.empty())
        return {};
    const HlsSegment &twin =
        m_twin.segments.at(static_cast<std::size_t>(entry.segment.sequence - m_twin.mediaSequence));
    const bool isMap = entry.kind == HlsTimeline::Kind::Map;
    return m_twin.resolve(isMap ? twin.map->uri : twin.uri).toString(QUrl::FullyEncoded);
}

/// The next look is due the target duration after the last one began, and half of that where it
/// brought nothing.
void HlsSource::reloadLater(bool hasNews)
{
    const qint64 pauseMs =
        qBound(shortestReloadMs, hasNews ? m_targetMs : m_targetMs / 2, longestReloadMs);
    m_reload.start(static_cast<int>(qMax(qint64(0), pauseMs - m_sinceAsked.elapsed())));
}

void HlsSource::reload()
{
    if (!m_sinceCome.isValid())
        m_sinceCome.start();
    m_sinceAsked.start();
    m_loader.load({m_address}, m_imports);
}

/// A playlist that cannot be had for a while may come again.
void HlsSource::onMissed(Presentation::Failure failure, const QString &reason)
{
    if (m_isOpen && !m_sinceCome.hasExpired(m_servers.patienceMs())) {
        m_sinceAsked.start();
        reloadLater(false);
    } else {
        fail(failure, reason);
    }
}

void HlsSource::fail(Presentation::Failure failure, const QString &reason)
{
    if (m_isOpen) {
        end(reason);
        return;
    }
    m_isEnded = true;
    emit failed(failure, reason);
}

void HlsSource::end(const QString &why)
{
    qWarning("%s: no more segments: %s", qUtf8Printable(m_address.toString(QUrl::RemoveUserInfo)),
             qUtf8Printable(why));
    m_isEnded = true;
    emit changed();
}

qint64 HlsSource::firstRun() const
{
    return m_timeline.entries().front().run;
}

qint64 HlsSource::firstDateMs() const
{
    return m_timeline.entries().front().segment.dateMs;
}

void HlsSource::setOrigin(qint64 firstRun, qint64 startUs)
{
    m_originRun = firstRun;
    m_originUs = startUs;
}

qint64 HlsSource::durationUs() const
{
    const HlsTimeline::Entry &last = m_timeline.entries().back();
    return last.startUs + last.segment.durationUs;
}

qint64 HlsSource::last() const
{
    return static_cast<qint64>(m_timeline.entries().size());
}

TrackSegment HlsSource::trackSegment(qint64 number) const
{
    using Kind = HlsTimeline::Kind;
    const HlsTimeline::Entry &entry = m_timeline.entries().at(static_cast<std::size_t>(number - 1));
    const HlsSegment &media = entry.segment;
    TrackSegment track;
    track.segment.number = number;
    setPlace(track, entry);
    track.isHole = entry.kind != Kind::Map && media.isGap;
    if (track.isHole)
        return track;
    const bool isMap = entry.kind == Kind::Map;
    Segment &segment = track.segment;
    segment.address = HlsPlaylist::resolve(entry.base, isMap ? media.map->uri : media.uri)
                          .toString(QUrl::FullyEncoded);
    segment.firstByte = isMap ? media.map->firstByte : media.firstByte;
    segment.byteCount = isMap ? media.map->byteCount : media.byteCount;
    const QString twin = twinAddress(entry);
    if (!twin.isEmpty())
        segment.otherAddresses += twin;
    if (!isMap) // live streams use names again
        track.cacheKey = "sequence " + QByteArray::number(media.sequence);
    const auto &key = isMap ? media.map->key : media.key;
    if (key) {
        const qint64 sequence = isMap ? media.map->sequence : media.sequence;
        track.cacheKey += ", key " + HlsPlaylist::resolve(entry.base, key->uri).toEncoded() + ' '
            + (key->iv.isEmpty() ? HlsCipher::ivOf(sequence) : key->iv).toHex();
        setOpening(segment, *key, entry, sequence);
    }
    return track;
}

void HlsSource::setPlace(TrackSegment &track, const HlsTimeline::Entry &entry) const
{
    const bool isMap = entry.kind == HlsTimeline::Kind::Map;
    track.role = isMap ? TrackSegment::Role::Initialisation : TrackSegment::Role::Media;
    track.run = static_cast<int>(
        qBound(qint64(0), entry.run - m_originRun, qint64(std::numeric_limits<int>::max())));
    track.hasLaterRun = m_timeline.entries().back().run > entry.run;
    track.startUs = m_originUs + entry.startUs;
    track.durationUs = isMap ? 0 : entry.segment.durationUs;
}

/// Has the segment decrypted on its worker's thread.
void HlsSource::setOpening(Segment &segment, const HlsKey &key, const HlsTimeline::Entry &entry,
                           qint64 sequence) const
{
    const QUrl address = HlsPlaylist::resolve(entry.base, key.uri);
    const QByteArray iv = key.iv.isEmpty() ? HlsCipher::ivOf(sequence) : key.iv;
    segment.decode = [keys = m_keys, address, iv](QByteArray &body, const StopFlag &stop) {
        const QByteArray bytes = keys->key(address, stop);
        return !bytes.isEmpty() && HlsCipher::decrypt(body, bytes, iv);
    };
}
