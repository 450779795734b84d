#include "MediaSink.h"

#include "MediaLibrary.h"
#include "MergedSource.h"

#include <numeric>

MediaSink::MediaSink(const MergedSource &source, const QVector<Rendition> &tracks,
                     const Target &target)
    : m_source(source)
    , m_tracks(tracks)
    , m_target(target)
    , m_extension(QStringLiteral("mp4"))
{
    reset();
}

MediaSink::~MediaSink() = default;

void MediaSink::reset()
{
    m_hasDiskFailed = false;
    m_isFinished = false;
    m_isWhole = false;
    m_mediaBytes.assign(static_cast<std::size_t>(m_tracks.size()), 0);
    m_mediaSegments = m_mediaBytes;
    m_joiner = MediaLibrary::makeJoiner(
        m_tracks, [this](const QString &extension) { return openFor(extension); });
}

std::optional<MediaJoiner::Output> MediaSink::openFor(const QString &extension)
{
    m_extension = extension;
    m_hasDiskFailed = !openFile();
    if (m_hasDiskFailed)
        return std::nullopt;
    MediaJoiner::Output output;
    output.write = [this](const char *data, qint64 bytes) {
        m_hasDiskFailed = m_hasDiskFailed || !writeBytes(data, bytes);
        return !m_hasDiskFailed;
    };
    if (seekTo(0)) // a pipe cannot
        output.seek = [this](qint64 position) { return seekTo(position); };
    return output;
}

bool MediaSink::writeSegment(qint64 number, QByteArray &content)
{
    const MergedSource::Place place = m_source.place(number);
    if (!isNoSegment(place.track, place.segment, content)
        && !m_joiner->take(place.track, place.segment, content))
        return false;
    return !place.isLast || m_joiner->endTrack(place.track);
}

/// Whether the segment need not be there, and is not, or is none of the presentation.
bool MediaSink::isNoSegment(int track, const TrackSegment &segment, const QByteArray &content)
{
    if (content.isEmpty())
        return segment.segment.mayBeAbsent;
    if (segment.role != TrackSegment::Role::Media)
        return false;
    const auto at = static_cast<std::size_t>(track);
    if (segment.isBeyondEnd
        && content.size() > m_mediaBytes.at(at) / 2 / qMax<qint64>(1, m_mediaSegments.at(at)))
        return true;
    m_mediaBytes.at(at) += content.size();
    ++m_mediaSegments.at(at);
    return false;
}

QString MediaSink::errorText() const
{
    const QString ofFile = SegmentSink::errorText();
    if (m_joiner->error().isEmpty())
        return ofFile;
    return m_hasDiskFailed ? m_joiner->error() + QLatin1String(", ") + ofFile : m_joiner->error();
}

bool MediaSink::finishFile()
{
    if (!m_isFinished)
        m_isWhole = m_joiner->finish();
    m_isFinished = true;
    return m_isWhole;
}

void MediaSink::beforeClose()
{
    if (m_isFinished || !m_joiner->hasContent())
        return;
    if (!finishFile())
        qWarning("%s ends early: %s", qUtf8Printable(path()), qUtf8Printable(m_joiner->error()));
}

bool MediaSink::conclude()
{
    if (!finishFile()) {
        qWarning("%s cannot be finished: %s", qUtf8Printable(path()),
                 qUtf8Printable(m_joiner->error()));
        return false;
    }
    if (m_joiner->missingSegments() > 0)
        qWarning("%s is not complete: %lld segments are missing", qUtf8Printable(path()),
                 static_cast<long long>(m_joiner->missingSegments()));
    if (m_joiner->damagedPackets() > 0)
        qWarning("%s is not complete: %lld packets are left out", qUtf8Printable(path()),
                 static_cast<long long>(m_joiner->damagedPackets()));
    return SegmentSink::conclude();
}

QString MediaSink::path() const
{
    return m_target.pathFor(m_extension);
}

qint64 MediaSink::mediaBytes() const
{
    return std::accumulate(m_mediaBytes.begin(), m_mediaBytes.end(), qint64(0));
}

qint64 MediaSink::missingSegments() const
{
    return m_joiner->missingSegments();
}

qint64 MediaSink::damagedPackets() const
{
    return m_joiner->damagedPackets();
}

std::optional<RunClass> MediaSink::obstacle() const
{
    if (m_joiner->isProtected())
        return RunClass::Protected;
    if (m_hasDiskFailed)
        return failure().value_or(RunClass::Disk);
    if (m_joiner->error().isEmpty())
        return failure();
    if (m_joiner->isBegun())
        return RunClass::Incomplete;
    return m_joiner->missingSegments() > 0 ? RunClass::BrokenOff : RunClass::Unsupported;
}

bool MediaSink::isProtected() const
{
    return m_joiner->isProtected();
}
