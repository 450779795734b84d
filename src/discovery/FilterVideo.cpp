#include "FilterVideo.h"

#include "ParseData.h"

#include <algorithm>

namespace {

constexpr int farthestQuality = 10000; // pixels; a file that far from the wish is no match

} // namespace

CFilterVideo::CFilterVideo(ParseData *data)
    : CFilterVideo(data, RunOptions::ofCommandLine(),
                   SizeProbe(RunOptions::ofCommandLine().netSettings()))
{
}

CFilterVideo::CFilterVideo(ParseData *data, const RunOptions &options, const SizeProbe &probe)
    : m_data(data)
    , m_wantedFormat(options.format)
    , m_wantedHeight(options.quality)
    , m_probe(probe)
{
}

bool CFilterVideo::selectVideo()
{
    selectAllVideos();
    selectVideosbyFormat();
    if (m_candidates.isEmpty())
        selectAllVideos();
    selectVideosbyQuality();
    if (m_candidates.isEmpty())
        selectAllVideos();
    selectVideosbySize();
    if (m_candidates.isEmpty())
        selectAllVideos();
    if (m_candidates.isEmpty())
        return false;
    m_data->selectedVideo = m_candidates.constFirst();
    return true;
}

void CFilterVideo::selectAllVideos()
{
    m_candidates.clear();
    for (int i = 0; i < m_data->fileList.size(); ++i) {
        if (m_data->fileList.at(i).nSize == 0 && !m_data->fileList.at(i).isStream()) {
            // The list may move in memory during the wait: look it up again afterwards.
            const qint64 size = m_probe.sizeOf(m_data->fileList.at(i).address());
            m_data->fileList[i].nSize = size;
        }
        m_candidates += i;
    }
}

bool CFilterVideo::isSameFormat(int format, const QString &strFormat) const
{
    switch (format) {
    case CVideoPreference::FlvFormat:
        return strFormat == QLatin1String("flv");
    case CVideoPreference::Mp4Format:
        return strFormat == QLatin1String("mp4");
    default:
        return strFormat.isEmpty();
    }
}

template <typename Predicate> void CFilterVideo::removeCandidates(Predicate isUnwanted)
{
    m_candidates.erase(std::remove_if(m_candidates.begin(), m_candidates.end(),
                                      [&](qint32 i) { return isUnwanted(m_data->fileList.at(i)); }),
                       m_candidates.end());
}

void CFilterVideo::selectVideosbyFormat()
{
    if (m_wantedFormat == CVideoPreference::AnyFormat)
        return;
    removeCandidates(
        [this](const VideoFile &file) { return !isSameFormat(m_wantedFormat, file.strFormat); });
}

void CFilterVideo::selectVideosbyQuality()
{
    if (m_wantedHeight == 0)
        return;
    int best = -1;
    qint64 bestDistance = farthestQuality;
    for (const qint32 i : qAsConst(m_candidates)) {
        const qint64 height = m_data->fileList.at(i).height;
        const qint64 distance = qAbs(m_wantedHeight - height);
        if (height > 0 && distance < bestDistance) {
            best = i;
            bestDistance = distance;
        }
    }
    if (best >= 0)
        m_candidates = {best};
}

void CFilterVideo::selectVideosbySize()
{
    qint64 largest = 0;
    for (const qint32 i : qAsConst(m_candidates))
        largest = qMax(largest, m_data->fileList.at(i).comparedBytes());
    removeCandidates([&](const VideoFile &file) { return file.comparedBytes() != largest; });
}
