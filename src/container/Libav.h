#ifndef LIBAV_H
#define LIBAV_H

// What this layer uses of the libraries that take media apart and put it together. Only sources of
// the layer include this.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
}

#include <cstdint>
#include <limits>
#include <memory>

namespace libav {

constexpr int64_t noTime = std::numeric_limits<int64_t>::min(); ///< what the library marks it by
constexpr AVRational microseconds{1, 1000000};

/// A time that is moved; noTime where there is none, or where it would be so far off that what is
/// reckoned with it could not be told.
inline int64_t movedBy(int64_t time, int64_t offset)
{
    constexpr int64_t farthest = std::numeric_limits<int64_t>::max() / 2;
    int64_t moved = 0;
    if (time == noTime || offset == noTime || __builtin_add_overflow(time, offset, &moved)
        || moved > farthest || moved < -farthest)
        return noTime;
    return moved;
}

struct FreePacket
{
    void operator()(AVPacket *packet) const { av_packet_free(&packet); }
};
using Packet = std::unique_ptr<AVPacket, FreePacket>;

struct FreeFormat
{
    void operator()(AVCodecParameters *format) const { avcodec_parameters_free(&format); }
};
using Format = std::shared_ptr<AVCodecParameters>; ///< of a stream: its codec and what goes with it

inline Format copyOf(const AVCodecParameters &format)
{
    Format copy(avcodec_parameters_alloc(), FreeFormat());
    if (!copy || avcodec_parameters_copy(copy.get(), &format) < 0)
        return nullptr;
    return copy;
}

} // namespace libav

#endif
