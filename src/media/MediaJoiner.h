#ifndef MEDIAJOINER_H
#define MEDIAJOINER_H

#include "TrackSource.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <optional>

/// Makes one file of the segments of all tracks of a presentation.
class MediaJoiner
{
public:
    /// Where the file's bytes go. Each returns whether that has been done.
    struct Output
    {
        std::function<bool(const char *data, qint64 bytes)> write;
        std::function<bool(qint64 position)> seek; ///< from the beginning; empty: not possible
    };

    /// Makes the file ready to be written, now that it is known what kind it is.
    /// @param extension without a dot
    using Open = std::function<std::optional<Output>(const QString &extension)>;

    MediaJoiner() = default;
    virtual ~MediaJoiner() = default;
    Q_DISABLE_COPY(MediaJoiner)

    /// Takes a segment of a track; those of one track come in their order, those of different ones
    /// in about the order of their times. An empty one never came: the file goes on without it.
    /// Returns false when the file cannot be gone on with, for good; error() says why.
    [[nodiscard]] virtual bool take(int track, const TrackSegment &segment,
                                    const QByteArray &content) = 0;

    /// No segment follows in that track.
    [[nodiscard]] virtual bool endTrack(int track) = 0;

    /// Stores what waits and ends the file. Returns whether it is whole and of use; what came
    /// before is playable in any case.
    [[nodiscard]] virtual bool finish() = 0;

    [[nodiscard]] virtual QString error() const = 0;

    /// Whether anything has come that the file could be made of.
    [[nodiscard]] virtual bool hasContent() const = 0;

    /// Whether the file has been begun.
    [[nodiscard]] virtual bool isBegun() const = 0;

    /// Whether it ends because what has come is encrypted with a key that only a licence gives.
    [[nodiscard]] virtual bool isProtected() const = 0;

    /// Media segments from which nothing could be taken, those that never came included.
    [[nodiscard]] virtual qint64 missingSegments() const = 0;

    /// Packets that are left out because they are damaged, or have no place in the file.
    [[nodiscard]] virtual qint64 damagedPackets() const = 0;
};

#endif
