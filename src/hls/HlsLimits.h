#ifndef HLSLIMITS_H
#define HLSLIMITS_H

#include <QtGlobal>

#include <cstddef>

/// What a playlist may ask for. A day of segments of two seconds is 43,200 of them, and a master
/// has a few dozen variants; each limit leaves much room above that, and keeps what a hostile
/// playlist can cost to a few dozen MiB.
namespace HlsLimits {

constexpr qint64 playlistBytes = 16 * 1024 * 1024;
constexpr int lineBytes = 64 * 1024; ///< also of what becomes of a line once variables are put in
constexpr std::size_t segments = 200 * 1000;
constexpr std::size_t variants = 1000; ///< and renditions, each
constexpr std::size_t keyFormats = 16; ///< that hold at a time
constexpr qint64 variableBytes = 1024 * 1024;
constexpr qint64 substitutedBytes = 64 * 1024 * 1024;
constexpr qint64 segmentSeconds = 7 * 24 * 3600;
constexpr qint64 withdrawnSegments = 1000; ///< that are told one by one
constexpr std::size_t streamSegments = 1000 * 1000; ///< of one stream, however often it is reloaded

} // namespace HlsLimits

#endif
