#ifndef HDSMETADATA_H
#define HDSMETADATA_H

#include <QByteArray>

/// What a stream's metadata tells of it: the event "onMetaData" with its properties, as the data of
/// an FLV script tag (Adobe Flash Video File Format Specification 10.1, sections E.4.4 and E.5), in
/// AMF 0. A value; read on any thread.
struct HdsMetadata
{
    int width = 0; ///< pixels; 0 while unknown
    int height = 0; ///< pixels; 0 while unknown
    bool hasPicture = false; ///< as far as it names a codec or a size
    bool hasSound = false; ///< as far as it names a codec
    int durationAt = -1; ///< where the duration's eight bytes stand; -1 when it has none

    /// Reads as far as it can be read: what comes behind something unknown is not seen, and what is
    /// no metadata at all tells nothing.
    [[nodiscard]] static HdsMetadata parse(const QByteArray &data);
};

#endif
