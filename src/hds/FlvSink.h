#ifndef FLVSINK_H
#define FLVSINK_H

#include "AdobeOutputFile.h"
#include "FlvTimeline.h"
#include "TrackSink.h"

#include <QByteArray>

#include <memory>

class MergedSource;

/// The FLV file that the fragments of an HDS stream become: their tags as they are, in order, with
/// times from 0. A fragment that never came leaves a gap.
class FlvSink final : public TrackSink
{
public:
    /// @param source the fragments; outlives this object
    /// @param metadata the data of the script tag that the file begins with; may be empty
    FlvSink(const MergedSource &source, const QByteArray &metadata, const Target &target);

    [[nodiscard]] bool conclude() override;
    [[nodiscard]] QString path() const override;
    [[nodiscard]] QString nameOf(qint64 number) const override;

    [[nodiscard]] qint64 mediaBytes() const override { return m_mediaBytes; }
    [[nodiscard]] qint64 missingSegments() const override { return m_missing; }
    [[nodiscard]] qint64 damagedPackets() const override { return m_damaged; }
    [[nodiscard]] std::optional<RunClass> obstacle() const override;
    [[nodiscard]] bool isProtected() const override { return m_isProtected; }

private:
    void reset() override;
    [[nodiscard]] bool opensLate() const override { return true; }
    [[nodiscard]] bool writeHead() override;
    [[nodiscard]] bool writeSegment(qint64 number, QByteArray &content) override;
    void beforeClose() override;
    [[nodiscard]] QString errorText() const override;
    [[nodiscard]] bool writeTags(QByteArray &fragment, const CAdobeOutputFile::Content &content);
    void noteLoss(const CAdobeOutputFile::Content &content);

    const MergedSource &m_source;
    const QByteArray m_metadata;
    const Target m_target;
    std::unique_ptr<FlvTimeline> m_timeline;
    QByteArray m_tags; // of one fragment: its memory serves the next one
    qint64 m_gapMs = 0; // how long what has come last lasts, and what is missing since
    qint64 m_mediaBytes = 0;
    qint64 m_missing = 0;
    qint64 m_damaged = 0;
    bool m_hasSound = false;
    bool m_hasPicture = false;
    bool m_isBegun = false; // the file
    bool m_isProtected = false;
};

#endif
