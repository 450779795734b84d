#ifndef HLSPLAYLIST_H
#define HLSPLAYLIST_H

#include "HlsVariables.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <memory>
#include <vector>

/// What opens segments (EXT-X-KEY).
struct HlsKey
{
    QString uri; ///< of its 16 bytes, as the playlist names it
    QByteArray iv; ///< 16 bytes; empty where the segment's sequence number stands for it
    QString protection; ///< what the segments are protected by that nobody opens here, else empty

    [[nodiscard]] bool operator==(const HlsKey &other) const;
};

/// What comes before segments (EXT-X-MAP).
struct HlsMap
{
    QString uri; ///< as the playlist names it
    qint64 firstByte = 0; ///< of what is at the address
    qint64 byteCount = 0; ///< 0 for all
    std::shared_ptr<const HlsKey> key; ///< null when it is not encrypted
    qint64 sequence = 0; ///< of the segment that follows, which counts where the key has no IV
};

/// One segment of a media playlist.
struct HlsSegment
{
    QString uri; ///< as the playlist names it
    qint64 firstByte = 0; ///< of what is at the address
    qint64 byteCount = 0; ///< 0 for all
    qint64 durationUs = 0; ///< microseconds
    qint64 sequence = 0; ///< the media sequence number
    qint64 discontinuity = 0; ///< the discontinuity sequence number
    qint64 dateMs = 0; ///< milliseconds since 1970 that it begins at; 0 when not told
    std::shared_ptr<const HlsKey> key; ///< null when it is not encrypted
    std::shared_ptr<const HlsMap> map; ///< null when it needs none
    bool isGap = false; ///< there is nothing at the address
};

/// One quality of a master playlist (EXT-X-STREAM-INF).
struct HlsVariant
{
    QString uri; ///< of its media playlist
    qint64 bandwidth = 0; ///< the highest, bits a second
    qint64 averageBandwidth = 0; ///< 0 when not told
    int width = 0; ///< pixels; 0 when not told
    int height = 0;
    QString codecs;
    QString audioGroup; ///< empty for none
    QByteArray traits; ///< what else tells it from variants that are not the same stream

    /// Whether its codecs are told, and are all of sound.
    [[nodiscard]] bool isAudioOnly() const;
};

/// Another sound, picture or text of a variant (EXT-X-MEDIA).
struct HlsRendition
{
    enum class Type { Audio, Video, Subtitles, ClosedCaptions };

    Type type = Type::Audio;
    QString group;
    QString uri; ///< of its media playlist; empty when the variant has it in its own segments
    QString language;
    QString name;
    bool isDefault = false;
    bool isAutoselect = false;
};

/// A playlist of HTTP Live Streaming, as it was read (RFC 8216, draft-pantos-hls-rfc8216bis). A
/// value.
struct HlsPlaylist
{
    enum class Kind { None, Master, Media };

    Kind kind = Kind::None; ///< None when it cannot be used
    QString error; ///< why it cannot be used; one line
    QUrl address; ///< where it came from: what it names is relative to that
    HlsVariables variables;

    // Of a master.
    std::vector<HlsVariant> variants;
    std::vector<HlsRendition> renditions;
    int iFrameVariants = 0; ///< that are left out

    // Of a media playlist.
    std::vector<HlsSegment> segments;
    qint64 targetDurationS = 0;
    qint64 mediaSequence = 0; ///< of the first segment
    bool isEnded = false; ///< no segment will be added
    bool isEvent = false; ///< none will be removed
    bool isIFramesOnly = false;

    /// Reads a playlist in one pass. Parts of segments are passed over, and so is every tag that is
    /// not known.
    /// @param address where the text came from, after redirects
    /// @param imports the variables of the master that names it
    [[nodiscard]] static HlsPlaylist parse(const QByteArray &text, const QUrl &address,
                                           const HlsVariables &imports = HlsVariables());

    /// What the playlist names, as an address; empty when that is none of the web.
    [[nodiscard]] QUrl resolve(const QString &uri) const;

    /// As resolve(), by the address of the playlist alone.
    [[nodiscard]] static QUrl resolve(const QUrl &address, const QString &uri);

    /// The duration of all its segments, in microseconds.
    [[nodiscard]] qint64 durationUs() const;

    /// What protects some of its segments that nobody opens here; empty when nothing does.
    [[nodiscard]] QString protection() const;
};

#endif
