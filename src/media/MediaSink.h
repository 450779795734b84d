#ifndef MEDIASINK_H
#define MEDIASINK_H

#include "MediaJoiner.h"
#include "Rendition.h"
#include "TrackSink.h"

#include <QString>

#include <memory>
#include <optional>
#include <vector>

class MergedSource;

/// The file that the tracks of a presentation become.
class MediaSink final : public TrackSink
{
public:
    /// @param source the segments of the tracks; outlives this object
    /// @param tracks what each of the tracks is
    MediaSink(const MergedSource &source, const QVector<Rendition> &tracks, const Target &target);
    ~MediaSink() override;

    [[nodiscard]] bool conclude() override;

    /// The file's path; before the container is known, that of the usual one.
    [[nodiscard]] QString path() const override;

    [[nodiscard]] qint64 mediaBytes() const override;
    [[nodiscard]] qint64 missingSegments() const override;
    [[nodiscard]] qint64 damagedPackets() const override;
    [[nodiscard]] std::optional<RunClass> obstacle() const override;
    [[nodiscard]] bool isProtected() const override;

private:
    void reset() override;
    [[nodiscard]] bool opensLate() const override { return true; }
    [[nodiscard]] bool writeSegment(qint64 number, QByteArray &content) override;
    void beforeClose() override;
    [[nodiscard]] QString errorText() const override;
    std::optional<MediaJoiner::Output> openFor(const QString &extension);
    [[nodiscard]] bool finishFile();
    [[nodiscard]] bool isNoSegment(int track, const TrackSegment &segment,
                                   const QByteArray &content);

    const MergedSource &m_source;
    const QVector<Rendition> m_tracks;
    const Target m_target;
    QString m_extension;
    std::vector<qint64> m_mediaBytes; // written of each track
    std::vector<qint64> m_mediaSegments; // likewise
    std::unique_ptr<MediaJoiner> m_joiner;
    bool m_hasDiskFailed = false;
    bool m_isFinished = false;
    bool m_isWhole = false; // once it is finished
};

#endif
