#ifndef ADTSHEADER_H
#define ADTSHEADER_H

#include <QByteArray>

#include <cstdint>
#include <optional>

/// The header of a frame of AAC in a stream (ADTS, ISO/IEC 13818-7, section 6.2), and what takes
/// its place in a file: the AudioSpecificConfig (ISO/IEC 14496-3, section 1.6.2.1).
struct AdtsHeader
{
    int headerBytes = 0; ///< 7, or 9 with a checksum
    int frameBytes = 0; ///< with the header
    int sampleRate = 0; ///< Hz
    int channels = 0; ///< 0 where the frame itself tells them
    QByteArray config; ///< the AudioSpecificConfig

    /// The header that the bytes begin with; none when it makes no sense or lies not within them.
    [[nodiscard]] static std::optional<AdtsHeader> parse(const uint8_t *data, int bytes);
};

#endif
