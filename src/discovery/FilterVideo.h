#ifndef FILTERVIDEO_H
#define FILTERVIDEO_H

#include "RunOptions.h"
#include "SizeProbe.h"

#include <QList>
#include <QString>

class ParseData;

/// Picks the candidate to download by the caller's wishes: format, then quality, then
/// the largest size. A wish that nothing meets is dropped. Made for one selection.
class CFilterVideo final
{
public:
    /// By the options of the command line.
    /// @param data not owned; must outlive the filter, its fileList must not shrink meanwhile
    explicit CFilterVideo(ParseData *data);

    CFilterVideo(ParseData *data, const RunOptions &options, const SizeProbe &probe);

    /// Sets selectedVideo of the record. Unknown sizes are asked of their servers in nested event
    /// loops. Returns false, and sets nothing, when there is no candidate.
    bool selectVideo();

    void selectAllVideos();
    void selectVideosbyFormat();
    void selectVideosbyQuality();
    void selectVideosbySize();

    /// @param format a CVideoPreference::EFormat
    [[nodiscard]] bool isSameFormat(int format, const QString &strFormat) const;

private:
    template <typename Predicate> void removeCandidates(Predicate isUnwanted);

    ParseData *m_data;
    const int m_wantedFormat; ///< a CVideoPreference::EFormat
    const int m_wantedHeight; ///< pixels; 0 for no wish
    const SizeProbe m_probe;
    QList<qint32> m_candidates; ///< indexes into fileList, ascending
};

#endif
