#ifndef STREAMPIECES_H
#define STREAMPIECES_H

#include "Presentation.h"

#include <QSet>
#include <QString>

/// The addresses that streams are made of, so that what a player fetches of a stream is not taken
/// for a video of its own. Of a rendition that is not looked into it is concluded from those that
/// are what its segments are called: numbers aside, they are called alike.
class StreamPieces final
{
public:
    /// Takes in the playlists and the segments that a presentation names.
    /// @param presentation is ready
    /// @param own where its manifest is, which is no piece
    void add(const Presentation &presentation, const QSet<QString> &own);

    [[nodiscard]] bool isPlaylist(const QString &address) const;
    [[nodiscard]] bool isSegment(const QString &address) const;

    /// Whether that is what only segments are called or typed.
    [[nodiscard]] static bool isSegmentKind(const QString &address, const QString &contentType);

private:
    void addSegments(const TrackSource &track, const Rendition &rendition,
                     const QVector<Rendition> &others);

    QSet<QString> m_playlists; ///< addresses
    QSet<QString> m_segments; ///< shapes of addresses
    QSet<QString> m_folders; ///< shapes of the addresses of playlists, without the last name
    QSet<QString> m_names; ///< shapes of segments' addresses behind those
};

#endif
