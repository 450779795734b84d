#include "PieceFetcher.h"

#include "HostEvents.h"
#include "PartFile.h"
#include "RetryPause.h"

#include <algorithm>

namespace {

constexpr qint64 mib = 1024 * 1024;
constexpr qint64 usualPieceBytes = 4 * mib; // while nobody knows how fast it goes
constexpr qint64 leastPieceBytes = 1 * mib;
constexpr qint64 mostPieceBytes = 32 * mib;
constexpr double pieceSeconds = 4; // a request costs a round trip
constexpr int lookIntervalMs = 250;
constexpr double bearableSeconds = 0.5; // a wait that is not worth another request
constexpr qint64 leastTakenBytes = 64 * 1024; // the same

// The journal has to have room for what is ahead of the front, and every lane may add to that.
constexpr int mostRunsAhead = PartFile::mostRuns - 64;

} // namespace

PieceFetcher::PieceFetcher(const Wish &wish, PartFile &part, QNetworkCookieJar &cookies,
                           qint64 from)
    : m_wish(wish)
    , m_part(part)
    , m_cookies(cookies)
    , m_map(part.origin().length)
{
    m_map.claim({0, from});
    part.eachRun([this](qint64 first, qint64 end) { m_map.claim({first, end}); });
    m_look.setInterval(lookIntervalMs);
    connect(&m_look, &QTimer::timeout, this, &PieceFetcher::assignAll);
}

PieceFetcher::~PieceFetcher() = default;

int PieceFetcher::placesFor(qint64 bytes)
{
    return static_cast<int>(qMin<qint64>(1000, (bytes + usualPieceBytes - 1) / usualPieceBytes));
}

void PieceFetcher::start()
{
    m_awaitsTakeOver = true;
    const int places = qMin(m_wish.connections - 1, placesFor(m_map.freeBytes()));
    for (int i = 0; i < places; ++i)
        addPlace();
    assignAll();
}

void PieceFetcher::takeOver(const PieceMap::Piece &missing)
{
    if (m_isOver)
        return;
    m_awaitsTakeOver = false;
    m_map.release(missing);
    addPlace();
    assignAll();
}

void PieceFetcher::addPlace()
{
    auto place = std::make_unique<Place>();
    place->lane = std::make_unique<PieceLane>(m_wish.url, m_part, m_wish.net, m_cookies);
    place->pause = std::make_unique<QTimer>();
    place->pause->setSingleShot(true);
    Place *const self = place.get();
    connect(self->lane.get(), &PieceLane::arrived, this, &PieceFetcher::arrived);
    connect(self->lane.get(), &PieceLane::ended, this,
            [this, self](PieceLane::End end) { onEnded(self, end); });
    connect(self->pause.get(), &QTimer::timeout, this, &PieceFetcher::assignAll);
    m_places.push_back(std::move(place));
}

void PieceFetcher::stop()
{
    m_isOver = true;
    m_look.stop();
    for (const auto &place : m_places) {
        place->lane->drop();
        place->pause->stop();
    }
}

/// Gives those who have nothing to do something.
void PieceFetcher::assignAll()
{
    bool isAnyFree = false;
    for (const auto &place : m_places) {
        const bool isFree = !place->isGivenUp && !place->isBusy();
        isAnyFree = (isFree && !assign(*place)) || isAnyFree;
    }
    if (!isAnyFree)
        m_look.stop();
    else if (!m_look.isActive())
        m_look.start();
    endIfIdle();
}

bool PieceFetcher::assign(Place &place)
{
    if (m_part.runCount() >= mostRunsAhead || m_map.freeBytes() == 0)
        return relieve(*place.lane);
    const PieceMap::Piece piece = m_map.firstFree(pieceBytes(*place.lane));
    m_map.claim(piece);
    place.lane->fetch(piece.first, piece.end);
    return true;
}

qint64 PieceFetcher::pieceBytes(const PieceLane &lane) const
{
    const double rate = lane.rate();
    const double wanted = rate > 0 ? rate * pieceSeconds : static_cast<double>(usualPieceBytes);
    const qint64 bytes =
        wanted < static_cast<double>(mostPieceBytes) ? static_cast<qint64>(wanted) : mostPieceBytes;
    // All shall end at about the same time.
    const qint64 share = m_map.freeBytes() / (2 * static_cast<qint64>(m_places.size()));
    return qMax(leastPieceBytes, qMin(bytes, share));
}

/// Takes over from the slowest what it would bring too late, so that both end at the same time.
bool PieceFetcher::relieve(PieceLane &thief)
{
    PieceLane *slowest = nullptr;
    double longest = bearableSeconds;
    for (const auto &place : m_places) {
        PieceLane &lane = *place->lane;
        if (!lane.isBusy() || lane.rate() < 0)
            continue;
        const double seconds =
            static_cast<double>(lane.end() - lane.position()) / qMax(1.0, lane.rate());
        if (seconds > longest) {
            longest = seconds;
            slowest = &lane;
        }
    }
    if (!slowest)
        return false;
    const double slow = qMax(1.0, slowest->rate());
    const double fast = thief.rate() < 0 ? slow : thief.rate();
    const qint64 left = slowest->end() - slowest->position();
    auto kept = static_cast<qint64>(static_cast<double>(left) * slow / (slow + fast));
    if (kept < leastTakenBytes)
        kept = 0;
    if (left - kept < qMin(left, leastTakenBytes))
        return false;
    const PieceMap::Piece piece{slowest->position() + kept, slowest->end()};
    slowest->shorten(piece.first);
    thief.fetch(piece.first, piece.end);
    return true;
}

void PieceFetcher::onEnded(Place *place, PieceLane::End end)
{
    if (m_isOver)
        return;
    // A server may send less than it was asked for; what is left, anybody may bring.
    m_map.release({place->lane->position(), place->lane->end()});
    switch (end) {
    case PieceLane::End::Whole:
        place->attempts = 0;
        return assignAll();
    case PieceLane::End::Broken:
        retry(*place);
        return assignAll();
    case PieceLane::End::Crowded:
        place->isGivenUp = true;
        return assignAll();
    case PieceLane::End::Unwritten:
        m_hasWriteFailed = true;
        break;
    case PieceLane::End::Other:
        break;
    }
    stop();
    emit ended();
}

void PieceFetcher::retry(Place &place)
{
    place.isGivenUp = place.attempts >= m_wish.retries;
    if (place.isGivenUp)
        return;
    const auto pause = RetryPause::of(place.attempts, place.lane->retryAfter());
    ++place.attempts;
    HostEvents::send(
        event::DownloadRetried{place.attempts, m_wish.retries, pause.count(), RunClass::BrokenOff});
    place.pause->start(pause);
}

void PieceFetcher::endIfIdle()
{
    const bool isBusy = std::any_of(m_places.cbegin(), m_places.cend(),
                                    [](const auto &place) { return place->isBusy(); });
    if (isBusy || m_awaitsTakeOver || m_isOver)
        return;
    stop();
    emit ended();
}
