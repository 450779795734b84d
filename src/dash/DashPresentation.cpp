#include "DashPresentation.h"

#include "DashSource.h"
#include "MediaRequest.h"
#include "RenditionChoice.h"

#include <QDateTime>
#include <QLocale>

#include <algorithm>

namespace {

constexpr int firstTries = 3; // to get the first manifest, or an index
constexpr int retryMs = 500;
constexpr int shortestUpdateMs = 500;
constexpr int longestUpdateMs = 60 * 1000;
constexpr int usualUpdateMs = 5 * 1000; // of a manifest that does not say how long it holds
constexpr int clockMs = 500; // how late it is noticed that time has made a segment available
constexpr qint64 maxIndexBytes = 16 * 1024 * 1024;
constexpr int codecFamily = 4; // characters: "avc1", "mp4a"

QString keyOf(const DashManifest::Period &period)
{
    return period.id.isEmpty() ? QString::number(period.startUs) : QLatin1Char('#') + period.id;
}

/// The date that a server gives its answers (RFC 9110, section 5.6.7).
QDateTime httpDate(const QByteArray &header)
{
    QDateTime date = QLocale::c().toDateTime(QString::fromLatin1(header.trimmed()),
                                             QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'"));
    date.setTimeSpec(Qt::UTC);
    return date;
}

} // namespace

DashPresentation::DashPresentation(const Wish &wish, const MediaServers &servers, QObject *parent)
    : Presentation(parent)
    , m_wish(wish)
    , m_servers(servers)
    , m_request(std::make_unique<MediaRequest>(servers))
    , m_address(wish.address)
{
    m_updateTimer.setSingleShot(true);
    m_clockTimer.setInterval(clockMs);
    connect(&m_updateTimer, &QTimer::timeout, this, &DashPresentation::ask);
    connect(&m_clockTimer, &QTimer::timeout, this, [this] {
        if (!extend())
            end();
    });
}

DashPresentation::~DashPresentation() = default;

void DashPresentation::open()
{
    if (m_isOpened || m_isOver)
        return;
    m_isOpened = true;
    ask();
}

void DashPresentation::finish()
{
    if (m_isReady)
        end();
    m_isOver = true;
    m_updateTimer.stop();
    m_clockTimer.stop();
    m_request->disconnect(this);
}

QVector<TrackSource *> DashPresentation::tracks() const
{
    QVector<TrackSource *> tracks;
    for (DashSource *const track : {m_picture, m_sound}) {
        if (track)
            tracks += track;
    }
    return tracks;
}

void DashPresentation::fail(Failure failure, const QString &reason)
{
    if (m_isOver || m_isReady)
        return;
    m_isOver = true;
    emit failed(failure, reason);
}

void DashPresentation::ask()
{
    m_request->disconnect(this);
    connect(m_request.get(), &MediaRequest::ended, this, &DashPresentation::onManifest);
    m_request->start({m_address, 0, 0, DashManifest::maxBytes});
}

void DashPresentation::onManifest()
{
    if (m_isOver)
        return;
    if (!m_request->hasSucceeded() && !m_isReady) {
        if (++m_failures < firstTries)
            m_updateTimer.start(retryMs * m_failures);
        else
            fail(Failure::Unreachable, m_request->errorText());
        return;
    }
    DashManifest::Fault fault;
    std::optional<DashManifest> manifest;
    if (m_request->hasSucceeded())
        manifest = DashManifest::parse(m_request->body(), m_request->url(), fault);
    if (manifest)
        noteTime(*manifest);
    if (m_isReady)
        onUpdate(manifest);
    else if (manifest)
        onFirstManifest(*manifest);
    else
        fail(fault.isUnsupported ? Failure::Unsupported : Failure::Malformed, fault.reason);
}

void DashPresentation::noteTime(const DashManifest &manifest)
{
    m_sinceManifest.start();
    if (!manifest.location.isEmpty())
        m_address = manifest.location;
    const QDateTime date = manifest.serverTime.isValid()
        ? manifest.serverTime
        : httpDate(m_request->header(QByteArrayLiteral("Date")));
    if (date.isValid())
        m_clockSkewMs = date.toMSecsSinceEpoch() - QDateTime::currentMSecsSinceEpoch();
}

void DashPresentation::onFirstManifest(const DashManifest &manifest)
{
    m_manifest = manifest;
    m_failures = 0;
    const QVector<DashManifest::Period> &periods = m_manifest.periods;
    int first = 0; // that offers anything
    while (first + 1 < periods.size() && periods.at(first).representations.isEmpty())
        ++first;
    for (const DashManifest::Representation &one : periods.at(first).representations) {
        if (!one.isForTricks)
            m_renditions += one.rendition;
        if (one.rendition.kind == Rendition::Kind::Text)
            qWarning("subtitles are left alone: %s", qUtf8Printable(one.rendition.id));
    }
    setChosen();
    for (const DashManifest::Period &period : periods)
        m_choices += choose(period);
    if (m_chosen.isEmpty())
        fail(Failure::Unsupported, QStringLiteral("it offers no picture and no sound"));
    else if (!refusesChoices())
        askForIndexes();
}

/// Of each kind the rendition of the first period that has one, which is what the whole is known
/// by: one without sound may stand before the others.
void DashPresentation::setChosen()
{
    for (const Rendition::Kind kind : {Rendition::Kind::Picture, Rendition::Kind::Sound}) {
        for (const DashManifest::Period &period : qAsConst(m_manifest.periods)) {
            const int index = pick(period, kind, QString());
            if (index < 0)
                continue;
            m_chosen += period.representations.at(index).rendition;
            break;
        }
    }
}

DashPresentation::Choice DashPresentation::choose(const DashManifest::Period &period) const
{
    Choice choice;
    for (const Rendition &one : m_chosen) {
        // They go to one file, so they should be of one kind of codec.
        const int fit = pick(period, one.kind, one.codecs.left(codecFamily));
        const int index = fit >= 0 ? fit : pick(period, one.kind, QString());
        (one.kind == Rendition::Kind::Sound ? choice.sound : choice.picture) = index;
    }
    return choice;
}

/// The rendition of a kind that is wished for, among those whose codecs begin so; -1 without any.
int DashPresentation::pick(const DashManifest::Period &period, Rendition::Kind kind,
                           const QString &codecs) const
{
    QVector<Rendition> offered;
    QVector<int> places;
    for (int i = 0; i < period.representations.size(); ++i) {
        const DashManifest::Representation &one = period.representations.at(i);
        if (one.isForTricks || one.rendition.kind != kind
            || !one.rendition.codecs.startsWith(codecs))
            continue;
        offered += one.rendition;
        places += i;
    }
    const int chosen = kind == Rendition::Kind::Picture
        ? RenditionChoice::picture(offered, m_wish.height)
        : RenditionChoice::sound(offered, m_wish.language);
    return chosen < 0 ? -1 : places.at(chosen);
}

/// Whether something that is chosen cannot be fetched, which has then been told.
bool DashPresentation::refusesChoices()
{
    for (int i = 0; i < m_choices.size(); ++i) {
        for (const int index : {m_choices.at(i).picture, m_choices.at(i).sound}) {
            if (index < 0 || !m_manifest.periods.at(i).representations.at(index).isProtected)
                continue;
            fail(Failure::Protected, QStringLiteral("it is protected (ContentProtection)"));
            return true;
        }
    }
    return false;
}

/// Asks for the indexes of what is chosen, one after the other, and begins when all are there.
void DashPresentation::askForIndexes()
{
    for (int i = 0; i < m_choices.size(); ++i) {
        for (const int index : {m_choices.at(i).picture, m_choices.at(i).sound}) {
            if (index < 0 || m_indexes.count({i, index}) > 0)
                continue;
            const DashManifest::Representation &one =
                m_manifest.periods.at(i).representations.at(index);
            if (one.addressing.kind != DashManifest::Addressing::Kind::Indexed)
                continue;
            m_indexes[{i, index}] = std::nullopt;
            m_request->disconnect(this);
            connect(m_request.get(), &MediaRequest::ended, this,
                    [this, i, index] { onIndex(i, index); });
            m_request->start({one.bases.constFirst(), one.addressing.index.firstByte,
                              one.addressing.index.byteCount, maxIndexBytes});
            return;
        }
    }
    begin();
}

/// Without its index a file would be one segment. @param choice of the period's representations
void DashPresentation::onIndex(int period, int choice)
{
    if (m_request->hasSucceeded()) {
        m_indexes[{period, choice}] = SegmentIndex::parse(m_request->body());
        m_failures = 0;
    } else if (++m_failures < firstTries) {
        m_indexes.erase({period, choice});
        QTimer::singleShot(retryMs * m_failures, this, [this] {
            if (!m_isOver)
                askForIndexes();
        });
        return;
    }
    askForIndexes();
}

void DashPresentation::begin()
{
    for (const Rendition &one : qAsConst(m_chosen)) {
        DashSource *&track = one.kind == Rendition::Kind::Sound ? m_sound : m_picture;
        track = new DashSource(this);
    }
    m_isFollowing = m_manifest.isDynamic;
    if (!extend()) {
        fail(Failure::Malformed, QStringLiteral("it has more segments than can be"));
        return;
    }
    const QVector<TrackSource *> all = tracks();
    const bool isEmpty = std::all_of(all.cbegin(), all.cend(),
                                     [](const TrackSource *one) { return one->last() < 0; });
    if (isEmpty && !m_isFollowing) {
        fail(Failure::Unsupported, QStringLiteral("it has no segments"));
        return;
    }
    m_isReady = true;
    if (m_isFollowing)
        follow();
    emit ready();
}

int DashPresentation::runOf(const DashManifest::Period &period)
{
    const auto known = m_runs.find(keyOf(period));
    if (known != m_runs.end())
        return known->second;
    const auto run = static_cast<int>(m_runs.size());
    m_runs.emplace(keyOf(period), run);
    return run;
}

/// Adds what the manifest has and the clock allows. Returns false when that would be too much.
bool DashPresentation::extend()
{
    bool isWithin = true;
    for (int i = 0; i < m_manifest.periods.size() && isWithin; ++i) {
        isWithin = extendBy(m_picture, i, m_choices.at(i).picture)
            && extendBy(m_sound, i, m_choices.at(i).sound);
    }
    const bool isComplete =
        !m_manifest.isDynamic || (m_manifest.durationUs >= 0 && nowUs() >= m_manifest.durationUs);
    for (DashSource *const track : {m_picture, m_sound}) {
        if (track && isWithin)
            track->publish(isComplete);
    }
    if (isComplete) {
        m_isFollowing = false;
        m_clockTimer.stop();
        m_updateTimer.stop();
    }
    return isWithin;
}

bool DashPresentation::extendBy(DashSource *track, int period, int choice)
{
    if (!track || choice < 0)
        return true;
    DashSource::Part part;
    part.period = &m_manifest.periods.at(period);
    part.run = runOf(*part.period);
    part.representation = &part.period->representations.at(choice);
    const auto index = m_indexes.find({period, choice});
    if (index != m_indexes.end() && index->second)
        part.index = &*index->second;
    part.isFinal = !m_manifest.isDynamic;
    part.isLast = !m_manifest.isDynamic && period + 1 == m_manifest.periods.size();
    if (m_manifest.isDynamic) {
        part.untilUs = nowUs();
        if (m_manifest.windowUs >= 0)
            part.fromUs = std::max<qint64>(0, nowUs() - m_manifest.windowUs);
    }
    return track->extend(part);
}

/// Where the presentation's clock is by the server's.
qint64 DashPresentation::nowUs() const
{
    const QDateTime start = m_manifest.availabilityStart;
    const qint64 now = QDateTime::currentMSecsSinceEpoch() + m_clockSkewMs;
    return start.isValid() ? std::max<qint64>(0, now - start.toMSecsSinceEpoch()) * 1000 : 0;
}

/// Sees to it that the manifest is asked for again in time.
void DashPresentation::follow()
{
    const qint64 told = m_manifest.updatePeriodUs / 1000;
    const qint64 waitMs = m_manifest.updatePeriodUs < 0
        ? usualUpdateMs
        : qBound<qint64>(shortestUpdateMs, told, longestUpdateMs);
    m_updateTimer.start(static_cast<int>(waitMs));
    m_clockTimer.start();
}

void DashPresentation::onUpdate(const std::optional<DashManifest> &manifest)
{
    if (!m_isFollowing)
        return;
    if (!manifest) {
        if (m_sinceManifest.elapsed() > m_servers.patienceMs()) {
            qWarning("the manifest is no longer to be had: %s",
                     qUtf8Printable(m_request->errorText()));
            end();
        } else {
            m_updateTimer.start(retryMs);
        }
        return;
    }
    m_manifest = *manifest;
    m_choices.clear();
    m_indexes.clear();
    for (const DashManifest::Period &period : qAsConst(m_manifest.periods)) {
        Choice choice = choose(period);
        for (int *const index : {&choice.picture, &choice.sound}) {
            if (*index >= 0 && period.representations.at(*index).isProtected) {
                qWarning("a period is left out: it is protected");
                *index = -1;
            }
        }
        m_choices += choice;
    }
    if (!extend())
        end();
    else if (m_isFollowing)
        follow();
}

/// No segments follow those that are known.
void DashPresentation::end()
{
    m_isFollowing = false;
    m_updateTimer.stop();
    m_clockTimer.stop();
    for (DashSource *const track : {m_picture, m_sound}) {
        if (track)
            track->publish(true);
    }
}
