#ifndef MEDIASINK_H
#define MEDIASINK_H

#include "MediaJoiner.h"
#include "Rendition.h"
#include "SegmentSink.h"

#include <QString>

#include <memory>
#include <optional>
#include <vector>

class MergedSource;

/// The file that the tracks of a presentation become.
class MediaSink final : public SegmentSink
{
public:
    /// Where the file goes.
    struct Target
    {
        QString folder;
        QString name;
        bool followsContainer = true; ///< whether the container's extension is added to the name
    };

    /// @param source the segments of the tracks; outlives this object
    /// @param tracks what each of the tracks is
    MediaSink(const MergedSource &source, const QVector<Rendition> &tracks, const Target &target);
    ~MediaSink() override;

    [[nodiscard]] bool conclude() override;

    /// The file's path; before the container is known, that of the usual one.
    [[nodiscard]] QString path() const override;

    /// Media segments that are missing from the file, as far as it has been written.
    [[nodiscard]] qint64 missingSegments() const;

    /// Packets that are left out because they are damaged.
    [[nodiscard]] qint64 damagedPackets() const;

    /// Why the file could not be gone on with, or is of no use; none while it can.
    [[nodiscard]] std::optional<RunClass> obstacle() const;

    /// Whether what has come is encrypted, so that there is no file of use.
    [[nodiscard]] bool isProtected() const;

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
