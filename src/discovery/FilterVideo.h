#ifndef FILTERVIDEO_H
#define FILTERVIDEO_H

#include <QList>
#include <QString>

class ParseData;

/// Picks the candidate to download by the wishes of the command line: format, then quality, then
/// the largest size. A wish that nothing meets is dropped. Made for one selection.
class CFilterVideo final
{
public:
    /// @param data not owned; must outlive the filter, its fileList must not shrink meanwhile
    explicit CFilterVideo(ParseData *data);

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
    QList<qint32> m_candidates; ///< indexes into fileList, ascending
};

#endif
