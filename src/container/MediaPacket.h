#ifndef MEDIAPACKET_H
#define MEDIAPACKET_H

#include "Libav.h"

/// A packet on its way from a segment to the file.
struct MediaPacket
{
    enum Stream { Picture, Sound };

    libav::Packet packet; ///< times in the unit below, each of them may be libav::noTime
    AVRational unit{1, 1}; ///< seconds
    Stream stream = Picture;
    libav::Format format; ///< shared by all packets up to the next change
};

#endif
