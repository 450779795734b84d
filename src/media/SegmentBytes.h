#ifndef SEGMENTBYTES_H
#define SEGMENTBYTES_H

#include <QByteArray>

#include <optional>

/// What can be seen of a segment by its bytes alone. Pure functions; any thread.
class SegmentBytes final
{
public:
    SegmentBytes() = delete;

    enum class Kind {
        Unknown,
        TransportStream, ///< MPEG-2 TS (ISO/IEC 13818-1)
        Mp4, ///< ISO base media file format (ISO/IEC 14496-12)
        WebM, ///< or Matroska
        Adts, ///< packed AAC (ISO/IEC 13818-7)
        Mp3,
        Ac3,
        Eac3
    };

    /// Looks at what comes after any ID3 tags.
    [[nodiscard]] static Kind kindOf(const QByteArray &bytes);

    [[nodiscard]] static bool isPackedAudio(Kind kind) { return kind >= Kind::Adts; }

    /// Whether a segment of a kind whose end can be told does not stop in the middle of something:
    /// of a box, or of a packet of a transport stream.
    [[nodiscard]] static bool isWhole(const QByteArray &bytes);

    /// The size of the ID3v2 tags that the bytes begin with.
    [[nodiscard]] static int id3Bytes(const QByteArray &bytes);

    /// The time of the first sample of packed audio, in units of 1/90000 s, that is told by a tag
    /// before it (RFC 8216, section 3.4); none when there is none.
    [[nodiscard]] static std::optional<qint64> id3Time(const QByteArray &bytes);
};

#endif
