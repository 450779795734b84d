#ifndef RTMPDUMPOUTPUT_H
#define RTMPDUMPOUTPUT_H

#include <QByteArray>
#include <QtGlobal>

#include <optional>

/// Reads what rtmpdump prints while it saves a stream. Pure functions, safe on any thread.
class RtmpdumpOutput final
{
public:
    RtmpdumpOutput() = delete;

    struct Status
    {
        double receivedBytes = 0; ///< as printed: any number, or none
        double fraction = 0; ///< of the stream that has been received; likewise

        /// The bytes received, whole and within the range of the type.
        [[nodiscard]] qint64 received() const;

        /// The estimated bytes of the whole stream; 0 while too little is received to tell.
        [[nodiscard]] qint64 total() const;
    };

    /// The first status in a chunk, such as "<carriage return>1024.000 kB / 8.00 sec (5.0%)"; none
    /// without a percentage.
    [[nodiscard]] static std::optional<Status> status(const QByteArray &chunk);

    /// Whether it says that the file could not be written.
    [[nodiscard]] static bool tellsWriteFailure(const QByteArray &chunk);
};

#endif
