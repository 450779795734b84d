#ifndef OUTPUTPIPE_H
#define OUTPUTPIPE_H

#include <QByteArray>

/// What a reader gets: a terminal, a pipe or a file.
namespace OutputPipe {

/// Writes all bytes and waits for a reader that is slow. False when the reader has gone or the disk
/// is full.
[[nodiscard]] bool write(int fd, const QByteArray &bytes);

} // namespace OutputPipe

#endif
