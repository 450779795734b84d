#ifndef FLVTIMELINE_H
#define FLVTIMELINE_H

#include "FlvTag.h"

#include <QByteArray>
#include <QVector>

/// Turns the tags of one fragment after the other into the tags of one FLV file, whose timestamps
/// begin at 0 and never fall.
///
/// Every tag keeps its distance to the first one, sound and picture together. Only between two
/// fragments, when the next one lies too far off, is the timeline shifted, so that it goes on a
/// step after the last tag. Sequence headers are written once until they change.
class FlvTimeline final
{
public:
    /// @param windowMs how far after the last tag a fragment may begin; before it, half of that
    explicit FlvTimeline(int windowMs);

    /// Appends a fragment's tags to `flv`: in ascending order of time, re-timed, each with the
    /// back-pointer that fits it.
    void append(QByteArray &flv, const QByteArray &buffer, QVector<FlvTag> tags);

    /// Lets the next fragment lie so much farther ahead and keep its distance: for what comes
    /// before it may be missing.
    void allowGap(qint64 ms) { m_gapMs = ms; }

    /// The time of the last tag.
    [[nodiscard]] qint64 lastMs() const { return m_lastMs; }

    /// Appends a tag at the current end of the timeline. `data` has at most FlvTag::maxDataBytes.
    void appendTag(QByteArray &flv, FlvTag::Type type, const QByteArray &data) const;

private:
    void dropRepeatedHeaders(const QByteArray &buffer, QVector<FlvTag> &tags);
    void align(const QByteArray &buffer, const QVector<FlvTag> &tags);

    const int m_windowMs;
    bool m_hasStarted = false;
    qint64 m_shiftMs = 0; // from the fragments' timestamps to those of the file
    qint64 m_lastMs = 0; // of the last tag written
    qint64 m_gapMs = 0; // that may be before the next fragment, too
    QByteArray m_audioHeader; // the last sequence headers written
    QByteArray m_videoHeader;
};

#endif
