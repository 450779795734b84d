#include "AdtsHeader.h"

#include <array>

namespace {

constexpr int shortHeaderBytes = 7;
constexpr int longHeaderBytes = 9;
constexpr std::array<int, 13> sampleRates{96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                          22050, 16000, 12000, 11025, 8000,  7350};
constexpr std::array<int, 8> channelCounts{0, 1, 2, 3, 4, 5, 6, 8};

} // namespace

std::optional<AdtsHeader> AdtsHeader::parse(const uint8_t *data, int bytes)
{
    // Bits: sync 12, version 1, layer 2, no checksum 1; profile 2, rate 4, private 1, channels 3,
    // original 1, home 1, copyright 2; frame length 13, fullness 11, frames less one 2.
    if (bytes < shortHeaderBytes || data[0] != 0xFF || (data[1] & 0xF6) != 0xF0)
        return std::nullopt;
    const int profile = data[2] >> 6;
    const int rate = data[2] >> 2 & 0xF;
    const int channels = (data[2] & 1) << 2 | data[3] >> 6;
    const int frameBytes = (data[3] & 3) << 11 | data[4] << 3 | data[5] >> 5;
    AdtsHeader header;
    header.headerBytes = data[1] & 1 ? shortHeaderBytes : longHeaderBytes;
    const bool isOneBlock = (data[6] & 3) == 0;
    if (rate >= static_cast<int>(sampleRates.size()) || frameBytes <= header.headerBytes
        || !isOneBlock)
        return std::nullopt;
    header.frameBytes = frameBytes;
    header.sampleRate = sampleRates.at(static_cast<std::size_t>(rate));
    header.channels = channelCounts.at(static_cast<std::size_t>(channels));
    // Bits: object type 5, which is the profile plus one; rate 4, channels 4, and three zeros.
    header.config.append(static_cast<char>((profile + 1) << 3 | rate >> 1));
    header.config.append(static_cast<char>((rate & 1) << 7 | channels << 3));
    return header;
}
