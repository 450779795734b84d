#ifndef TRACKSINK_H
#define TRACKSINK_H

#include "SegmentSink.h"

#include <QString>

#include <optional>

/// The file that the tracks of a presentation become, of whatever kind.
class TrackSink : public SegmentSink
{
public:
    /// Where the file goes.
    struct Target
    {
        QString folder;
        QString name;
        bool followsContainer = true; ///< whether the container's extension is added to the name

        /// The file's path. @param extension of the container, without a dot
        [[nodiscard]] QString pathFor(const QString &extension) const
        {
            const QString path = folder + QLatin1Char('/') + name;
            return followsContainer ? path + QLatin1Char('.') + extension : path;
        }
    };

    /// Of the media segments that have been taken.
    [[nodiscard]] virtual qint64 mediaBytes() const = 0;

    /// Media segments that are missing from the file, as far as it has been written.
    [[nodiscard]] virtual qint64 missingSegments() const = 0;

    /// Packets that are left out because they are damaged.
    [[nodiscard]] virtual qint64 damagedPackets() const = 0;

    /// Why the file could not be gone on with, or is of no use; none while it can.
    [[nodiscard]] virtual std::optional<RunClass> obstacle() const = 0;

    /// Whether what has come is encrypted, so that there is no file of use.
    [[nodiscard]] virtual bool isProtected() const = 0;
};

#endif
