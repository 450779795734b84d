#ifndef PLAYERDESCRIPTION_H
#define PLAYERDESCRIPTION_H

#include <QByteArray>
#include <QList>
#include <QString>

/// Reads the description of a page's player: a JSON text inside the plug-in's "flashvars", which
/// names the streams that the player chooses from. Pure functions, safe on any thread.
class PlayerDescription final
{
public:
    PlayerDescription() = delete;

    struct Stream
    {
        QString address; ///< decoded; never empty
        QString quality; ///< "hd1080", "hd720", "hq", "sd" or "ld"
    };

    /// What a flashvars text carries of the description; a description may be spread over several.
    [[nodiscard]] static QByteArray piecesIn(const QString &flashVars);

    /// The streams of a whole description, in its order and from the best quality down. None when
    /// it is no JSON object or has an "error" entry.
    [[nodiscard]] static QList<Stream> streams(const QByteArray &description);
};

#endif
