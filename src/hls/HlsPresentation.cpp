#include "HlsPresentation.h"

#include "HlsSource.h"
#include "RenditionChoice.h"

#include <QStringList>

#include <algorithm>

namespace {

constexpr int mostNames = 20; // in a line of the log
constexpr qint64 usPerMs = 1000;

bool isSameStream(const HlsVariant &one, const HlsVariant &other)
{
    return one.bandwidth == other.bandwidth && one.width == other.width
        && one.height == other.height && one.codecs == other.codecs && one.traits == other.traits;
}

Rendition renditionOf(const HlsPlaylist &master, const HlsVariant &variant)
{
    Rendition rendition;
    rendition.kind = variant.isAudioOnly() ? Rendition::Kind::Sound : Rendition::Kind::Picture;
    rendition.id = master.resolve(variant.uri).toString(QUrl::FullyEncoded);
    rendition.codecs = variant.codecs;
    rendition.width = variant.width;
    rendition.height = variant.height;
    rendition.bandwidth =
        variant.averageBandwidth > 0 ? variant.averageBandwidth : variant.bandwidth;
    return rendition;
}

Rendition renditionOf(const HlsPlaylist &master, const HlsRendition &one)
{
    using Type = HlsRendition::Type;
    Rendition rendition;
    rendition.kind = one.type == Type::Audio ? Rendition::Kind::Sound
        : one.type == Type::Video            ? Rendition::Kind::Picture
                                             : Rendition::Kind::Text;
    if (!one.uri.isEmpty())
        rendition.id = master.resolve(one.uri).toString(QUrl::FullyEncoded);
    rendition.name = one.name;
    rendition.language = one.language;
    rendition.isDefault = one.isDefault;
    return rendition;
}

/// The sounds of a group, as indexes into the master's renditions.
QVector<int> soundsOf(const HlsPlaylist &master, const QString &group)
{
    QVector<int> sounds;
    for (std::size_t i = 0; i < master.renditions.size() && !group.isEmpty(); ++i) {
        const HlsRendition &one = master.renditions[i];
        if (one.type == HlsRendition::Type::Audio && one.group == group)
            sounds += static_cast<int>(i);
    }
    return sounds;
}

/// The addresses of a variant's media playlist.
QVector<QUrl> addressesOf(const HlsPlaylist &master, const HlsVariant &variant)
{
    QVector<QUrl> addresses{master.resolve(variant.uri)};
    for (const HlsVariant &other : master.variants) {
        const QUrl address = master.resolve(other.uri);
        if (isSameStream(other, variant) && !address.isEmpty() && !addresses.contains(address))
            addresses += address;
    }
    return addresses;
}

/// The addresses of a sound's media playlist: of its own, then of those that are called alike in
/// the groups of the variant's equals.
QVector<QUrl> addressesOf(const HlsPlaylist &master, const HlsVariant &variant,
                          const HlsRendition &sound)
{
    QVector<QUrl> addresses{master.resolve(sound.uri)};
    for (const HlsVariant &other : master.variants) {
        if (!isSameStream(other, variant))
            continue;
        for (const int index : soundsOf(master, other.audioGroup)) {
            const HlsRendition &one = master.renditions.at(static_cast<std::size_t>(index));
            const QUrl address = master.resolve(one.uri);
            if (!one.uri.isEmpty() && one.name == sound.name && one.language == sound.language
                && !address.isEmpty() && !addresses.contains(address))
                addresses += address;
        }
    }
    return addresses;
}

void nameLeftOut(const HlsPlaylist &master)
{
    QStringList names;
    for (const HlsRendition &one : master.renditions) {
        if (one.type == HlsRendition::Type::Subtitles && names.size() < mostNames)
            names += one.name.isEmpty() ? one.language : one.name;
    }
    if (!names.isEmpty())
        qWarning("subtitles are left out: %s", qUtf8Printable(names.join(QLatin1String(", "))));
    if (master.iFrameVariants > 0)
        qWarning("%d lists of key frames are left out", master.iFrameVariants);
}

} // namespace

HlsPresentation::HlsPresentation(const Wish &wish, const MediaServers &servers, QObject *parent)
    : Presentation(parent)
    , m_wish(wish)
    , m_servers(servers)
    , m_keys(std::make_shared<HlsKeyRing>(servers))
    , m_loader(servers)
{
    connect(&m_loader, &HlsLoader::loaded, this, &HlsPresentation::onLoaded);
    connect(&m_loader, &HlsLoader::failed, this, &HlsPresentation::onFailed);
}

void HlsPresentation::open()
{
    if (!m_isOver)
        m_loader.load({m_wish.address});
}

void HlsPresentation::finish()
{
    m_loader.cancel();
    m_isOver = m_isOver || !m_isReady;
    const QVector<HlsSource *> sources = m_sources;
    for (HlsSource *source : sources)
        source->finish();
}

void HlsPresentation::onLoaded(const HlsPlaylist &playlist, const QUrl &address)
{
    if (playlist.kind == HlsPlaylist::Kind::Master) {
        present(playlist);
        return;
    }
    Rendition only;
    only.id = playlist.address.toString(QUrl::FullyEncoded);
    m_renditions = {only};
    m_chosen = {only};
    addSource()->open(playlist, address);
}

void HlsPresentation::present(const HlsPlaylist &master)
{
    list(master);
    nameLeftOut(master);
    const int index = choose(master);
    if (index < 0) {
        onFailed(Failure::Unsupported, QStringLiteral("no variant can be fetched"));
        return;
    }
    const HlsVariant &variant = master.variants.at(static_cast<std::size_t>(index));
    addTrack(m_renditions.at(index), addressesOf(master, variant), master);
    const int sound = chooseSound(master, variant);
    if (sound < 0)
        return;
    const HlsRendition &one = master.renditions.at(static_cast<std::size_t>(sound));
    addTrack(m_renditions.at(static_cast<int>(master.variants.size()) + sound),
             addressesOf(master, variant, one), master);
}

void HlsPresentation::list(const HlsPlaylist &master)
{
    for (const HlsVariant &variant : master.variants)
        m_renditions += renditionOf(master, variant);
    for (const HlsRendition &one : master.renditions)
        m_renditions += renditionOf(master, one);
}

/// The index of the variant to fetch; -1 when there is none. Bandwidths are compared as the master
/// tells the highest ones, since some tell averages and some do not.
int HlsPresentation::choose(const HlsPlaylist &master) const
{
    QVector<Rendition> offered;
    QVector<int> indexes;
    for (std::size_t i = 0; i < master.variants.size(); ++i) {
        const HlsVariant &variant = master.variants[i];
        if (master.resolve(variant.uri).isEmpty())
            continue;
        offered += renditionOf(master, variant);
        offered.last().bandwidth = variant.bandwidth;
        indexes += static_cast<int>(i);
    }
    int best = RenditionChoice::picture(offered, m_wish.height);
    if (best < 0)
        best = RenditionChoice::sound(offered, QString());
    return best < 0 ? -1 : indexes.at(best);
}

/// The index of the rendition that is fetched beside a variant; -1 when that has its own sound.
int HlsPresentation::chooseSound(const HlsPlaylist &master, const HlsVariant &variant) const
{
    const QVector<int> indexes = soundsOf(master, variant.audioGroup);
    QVector<Rendition> offered;
    for (const int index : indexes)
        offered += renditionOf(master, master.renditions.at(static_cast<std::size_t>(index)));
    const bool hasDefault = std::any_of(offered.cbegin(), offered.cend(),
                                        [](const Rendition &one) { return one.isDefault; });
    for (int i = 0; i < offered.size() && !hasDefault; ++i) {
        if (master.renditions.at(static_cast<std::size_t>(indexes.at(i))).isAutoselect) {
            offered[i].isDefault = true;
            break;
        }
    }
    const int best = RenditionChoice::sound(offered, m_wish.language);
    if (best < 0)
        return -1;
    // Many masters name the very playlist of an audio variant again.
    const QUrl address =
        master.resolve(master.renditions.at(static_cast<std::size_t>(indexes.at(best))).uri);
    const bool isInVariant =
        offered.at(best).id.isEmpty() || address == master.resolve(variant.uri);
    return isInVariant ? -1 : indexes.at(best);
}

void HlsPresentation::addTrack(const Rendition &rendition, const QVector<QUrl> &addresses,
                               const HlsPlaylist &master)
{
    m_chosen += rendition;
    addSource()->open(addresses, master.variables);
}

HlsSource *HlsPresentation::addSource()
{
    auto *const source = new HlsSource(m_servers, m_keys, this);
    connect(source, &HlsSource::opened, this, &HlsPresentation::onOpened);
    connect(source, &HlsSource::failed, this, &HlsPresentation::onFailed);
    m_sources += source;
    return source;
}

void HlsPresentation::onOpened()
{
    if (++m_openSources < m_sources.size() || m_isOver)
        return;
    align();
    setDuration();
    m_isReady = true;
    emit ready();
}

/// Puts the tracks on one clock. Where all say at what time of day they begin, that is heard: the
/// windows of a live stream's playlists need not begin with the same moment.
void HlsPresentation::align()
{
    qint64 firstRun = m_sources.constFirst()->firstRun();
    qint64 firstDateMs = m_sources.constFirst()->firstDateMs();
    for (const HlsSource *source : qAsConst(m_sources)) {
        firstRun = qMin(firstRun, source->firstRun());
        firstDateMs = qMin(firstDateMs, source->firstDateMs());
    }
    constexpr qint64 farthestMs = 3600 * 1000; // more is no window, but another stream's clock
    for (HlsSource *source : qAsConst(m_sources)) {
        const qint64 laterMs = firstDateMs > 0 ? source->firstDateMs() - firstDateMs : 0;
        source->setOrigin(firstRun, laterMs <= farthestMs ? laterMs * usPerMs : 0);
    }
}

void HlsPresentation::setDuration()
{
    if (isLive())
        return;
    const qint64 durationUs = m_sources.constFirst()->durationUs();
    for (Rendition &one : m_renditions)
        one.durationUs = durationUs;
    for (Rendition &one : m_chosen)
        one.durationUs = durationUs;
}

void HlsPresentation::onFailed(Failure failure, const QString &reason)
{
    if (m_isOver)
        return;
    m_isOver = true;
    for (HlsSource *source : qAsConst(m_sources))
        source->finish();
    emit failed(failure, reason);
}

QVector<TrackSource *> HlsPresentation::tracks() const
{
    QVector<TrackSource *> tracks;
    for (HlsSource *source : m_sources)
        tracks += source;
    return tracks;
}

bool HlsPresentation::isLive() const
{
    return std::any_of(m_sources.cbegin(), m_sources.cend(),
                       [](const HlsSource *source) { return !source->isEnded(); });
}
