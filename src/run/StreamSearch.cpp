#include "StreamSearch.h"

#include "ManifestSniff.h"
#include "PageText.h"
#include "StreamSetup.h"
#include "WebAddress.h"

#include <QEventLoop>

#include <algorithm>
#include <limits>

namespace {

constexpr int maxAddresses = 64; // a page that names more names no stream by them
constexpr int patienceMs = 15 * 1000; // for one of them
constexpr int finishMs = 30 * 1000; // for all that are left at the end
constexpr int lookMs = 50;
constexpr qint64 usPerSecond = 1000 * 1000;

// What a stream that does not tell is compared with others by.
constexpr qint64 assumedBandwidth = 2 * 1000 * 1000; // bits per second
constexpr qint64 assumedSeconds = 3600; // of one that goes on
constexpr qint64 bitsPerByte = 8;

QString plain(const QString &address)
{
    return QUrl(address).toString(QUrl::FullyEncoded | QUrl::RemoveFragment);
}

/// What the file will be called, as well as the manifest tells.
QString formatOf(ManifestAddress::Kind kind, const QVector<Rendition> &chosen)
{
    if (kind == ManifestAddress::Kind::Hds)
        return QStringLiteral("flv");
    const bool isWebM = std::any_of(chosen.cbegin(), chosen.cend(), [](const Rendition &one) {
        return one.codecs.contains(QLatin1String("vp8"))
            || one.codecs.contains(QLatin1String("vp08"))
            || one.codecs.contains(QLatin1String("vorbis"))
            || one.codecs.split(QLatin1Char(',')).contains(QLatin1String("vp9"));
    });
    return isWebM ? QStringLiteral("webm") : QStringLiteral("mp4");
}

VideoFile streamAt(const QString &address, ManifestAddress::Kind kind)
{
    using Kind = ManifestAddress::Kind;
    VideoFile stream;
    stream.urlType = kind == Kind::Hls ? QStringLiteral("hls")
        : kind == Kind::Dash           ? QStringLiteral("dash")
                                       : QStringLiteral("hds");
    stream.urls.insert(stream.urlType, address);
    stream.contentType = kind == Kind::Hls ? QStringLiteral("application/vnd.apple.mpegurl")
        : kind == Kind::Dash               ? QStringLiteral("application/dash+xml")
                                           : QStringLiteral("application/f4m+xml");
    stream.strFormat = formatOf(kind, {});
    stream.manifest = kind;
    return stream;
}

qint64 weightOf(qint64 bandwidth, qint64 durationUs)
{
    const qint64 bitsPerSecond = bandwidth > 0 ? bandwidth : assumedBandwidth;
    const qint64 seconds = durationUs > 0 ? durationUs / usPerSecond + 1 : assumedSeconds;
    const qint64 most = std::numeric_limits<qint64>::max() / seconds;
    return qMin(bitsPerSecond / bitsPerByte, most) * seconds;
}

} // namespace

StreamSearch::StreamSearch(const RunOptions &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_servers(StreamSetup::servers(options))
{
    m_patience.setSingleShot(true);
    m_patience.setInterval(patienceMs);
    connect(&m_patience, &QTimer::timeout, this, [this] {
        qWarning("%s is not waited for any longer",
                 qUtf8Printable(WebAddress::withoutCredentials(m_address)));
        endJudging();
    });
}

StreamSearch::~StreamSearch() = default;

void StreamSearch::note(const QString &address, const QString &contentType)
{
    const ManifestAddress::Kind kind = ManifestAddress::kindOf(address, contentType);
    m_knowsHds = m_knowsHds || kind == ManifestAddress::Kind::Hds;
    if (kind != ManifestAddress::Kind::None)
        take({address, kind});
}

void StreamSearch::scan(const PageSnapshot &snapshot)
{
    for (const QString &address : snapshot.media)
        note(address, QString());
    const QUrl page(m_options.pageUrl);
    for (const QString &address : PageText::manifestAddresses(snapshot.source))
        note(page.resolved(QUrl(address)).toString(QUrl::FullyEncoded), QString());
}

void StreamSearch::take(const Waiting &one)
{
    const QString key = plain(one.address);
    if (m_isStopped || m_known.contains(key) || m_known.size() >= maxAddresses
        || !WebAddress::isWeb(QUrl(one.address)))
        return;
    m_known.insert(key);
    m_waiting += one;
    if (!m_isJudging)
        next();
}

/// Judges the next address, if there is any.
void StreamSearch::next()
{
    m_isJudging = false;
    while (!m_waiting.isEmpty()) {
        const Waiting one = m_waiting.takeFirst();
        m_address = one.address;
        m_kind = one.kind;
        if (m_pieces.isPlaylist(m_address) || m_documents.contains(QUrl(m_address)))
            continue;
        m_isJudging = true;
        m_patience.start();
        if (m_prepare)
            m_prepare([this, round = m_round] {
                if (round == m_round)
                    later([this] { sniff(); });
            });
        else
            sniff();
        return;
    }
    emit settled();
}

void StreamSearch::sniff()
{
    m_sniff = std::make_unique<ManifestSniff>(m_servers);
    connect(m_sniff.get(), &ManifestSniff::ended, this, [this] { later([this] { onSniffed(); }); });
    m_sniff->start(QUrl(m_address));
}

/// Has a step done in the event loop, unless what it is about has been left by then: neither a
/// request nor a presentation may go from inside its own signals.
template <typename Step> void StreamSearch::later(const Step &step)
{
    QMetaObject::invokeMethod(
        this,
        [this, step, round = m_round] {
            if (round == m_round)
                step();
        },
        Qt::QueuedConnection);
}

void StreamSearch::onSniffed()
{
    if (m_sniff->isDenied())
        noteRefused(false);
    m_kind = m_sniff->kind();
    const QUrl address = m_sniff->address();
    m_sniff.reset();
    if (m_kind == ManifestAddress::Kind::None || m_documents.contains(address)
        || m_pieces.isPlaylist(address.toString(QUrl::FullyEncoded))) {
        endJudging();
        return;
    }
    m_documents.insert(address);
    m_own = {plain(m_address), plain(address.toString(QUrl::FullyEncoded))};
    m_presentation = StreamSetup::presentation(m_kind, m_address, m_servers, m_options);
    connect(m_presentation.get(), &Presentation::ready, this,
            [this] { later([this] { onReady(); }); });
    connect(m_presentation.get(), &Presentation::failed, this,
            [this](Presentation::Failure failure, const QString &reason) {
                later([this, failure, reason] { onFailed(failure, reason); });
            });
    m_presentation->open();
}

void StreamSearch::onReady()
{
    m_pieces.add(*m_presentation, m_own);
    const VideoFile stream = candidate();
    emit found(stream);
    endJudging();
}

/// What is protected says more than what is not to be had.
void StreamSearch::noteRefused(bool isProtected)
{
    if (m_refused && (!isProtected || m_isProtected))
        return;
    m_refused = streamAt(m_address, m_kind);
    m_isProtected = isProtected;
}

void StreamSearch::onFailed(Presentation::Failure failure, const QString &reason)
{
    qWarning("the stream at %s cannot be fetched: %s",
             qUtf8Printable(WebAddress::withoutCredentials(m_address)), qUtf8Printable(reason));
    noteRefused(failure == Presentation::Failure::Protected);
    endJudging();
}

/// What the record says of the stream.
VideoFile StreamSearch::candidate() const
{
    VideoFile stream = streamAt(m_address, m_kind);
    const QVector<Rendition> chosen = m_presentation->chosen();
    stream.strFormat = formatOf(m_kind, chosen);
    qint64 bandwidth = 0;
    qint64 durationUs = 0;
    for (const Rendition &one : chosen) {
        if (one.kind == Rendition::Kind::Picture && stream.height == 0) {
            stream.width = one.width;
            stream.height = one.height;
        }
        stream.nSize += one.estimatedBytes();
        bandwidth = qMax(bandwidth, one.bandwidth);
        durationUs = qMax(durationUs, one.durationUs);
    }
    stream.duration = static_cast<qint32>(
        qMin<qint64>(durationUs / usPerSecond, std::numeric_limits<qint32>::max()));
    stream.weight = weightOf(bandwidth, durationUs);
    return stream;
}

void StreamSearch::endJudging()
{
    ++m_round;
    m_patience.stop();
    m_sniff.reset();
    m_presentation.reset();
    if (!m_isStopped)
        next();
}

void StreamSearch::finish(const std::function<bool()> &isStopped)
{
    if (!m_isJudging)
        return;
    QEventLoop loop;
    QTimer look;
    QTimer limit;
    limit.setSingleShot(true);
    connect(this, &StreamSearch::settled, &loop, &QEventLoop::quit);
    connect(&limit, &QTimer::timeout, &loop, &QEventLoop::quit);
    connect(&look, &QTimer::timeout, &loop, [&] {
        if (isStopped())
            loop.quit();
    });
    look.start(lookMs);
    limit.start(finishMs);
    loop.exec();
}

void StreamSearch::stop()
{
    m_isStopped = true;
    m_isJudging = false;
    m_waiting.clear();
    ++m_round;
    m_patience.stop();
    // Whoever calls may stand in one of their signals.
    if (m_sniff)
        m_sniff.release()->deleteLater();
    if (m_presentation)
        m_presentation.release()->deleteLater();
}

bool StreamSearch::isPiece(const QString &address, const QString &contentType) const
{
    return StreamPieces::isSegmentKind(address, contentType) || m_pieces.isPlaylist(address)
        || m_pieces.isSegment(address);
}
