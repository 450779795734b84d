#ifndef FLVTAG_H
#define FLVTAG_H

#include <QByteArray>
#include <QVector>

/// One FLV tag inside a buffer: an 11-byte header, its data and a 4-byte back-pointer. Layout:
/// Adobe Flash Video File Format Specification 10.1, section E.4.1.
struct FlvTag
{
    enum Type { Audio = 8, Video = 9, Script = 18 };

    static constexpr int headerBytes = 11;
    static constexpr int backPointerBytes = 4;
    static constexpr int maxDataBytes = 0xFFFFFF;

    int offset = 0; ///< of the header in the buffer
    int dataBytes = 0;
    Type type = Script;
    int timestampMs = 0;

    [[nodiscard]] bool isMedia() const { return type != Script; }

    /// Whether the tag holds an AAC or AVC sequence header, that is decoder set-up and no sample.
    [[nodiscard]] bool isSequenceHeader(const QByteArray &buffer) const;

    /// The tag's data, without a copy: valid as long as the buffer is.
    [[nodiscard]] QByteArray data(const QByteArray &buffer) const;

    /// The tags in `buffer` from `begin` up to `end`, in the order they stand. A tag that runs past
    /// the end, its back-pointer aside, ends the walk.
    /// @param skipped the number of tags left out: encrypted or filtered, or of no known type
    [[nodiscard]] static QVector<FlvTag> walk(const QByteArray &buffer, int begin, int end,
                                              int &skipped);
};

Q_DECLARE_TYPEINFO(FlvTag, Q_PRIMITIVE_TYPE);

#endif
