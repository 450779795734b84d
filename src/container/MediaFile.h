#ifndef MEDIAFILE_H
#define MEDIAFILE_H

#include "MediaJoiner.h"
#include "MediaPacket.h"

#include <QString>
#include <QVector>

#include <memory>

/// The file that packets become: the container, its head and its end. Packets are stored as they
/// are.
///
/// MP4 is written in fragments: what has been written can be played however the run ends, and what
/// is held in memory does not grow with the length.
class MediaFile final
{
public:
    enum class Container { Mp4, Matroska, WebM };

    using Output = MediaJoiner::Output;

    /// One stream of it.
    struct Stream
    {
        libav::Format format;
        AVRational unit{1, 1}; ///< that of the packets' times, as a hint
        QString language; ///< as the manifest has it; may be empty
    };

    MediaFile();
    ~MediaFile();
    Q_DISABLE_COPY(MediaFile)

    /// The container for streams of such formats: MP4 for all that it is used for, else WebM for
    /// what that takes, else Matroska. VP9, AV1 and Opus are left in the family they come in.
    /// @param isWebM whether they come in WebM
    [[nodiscard]] static Container containerFor(const QVector<libav::Format> &formats, bool isWebM);

    /// Without a dot.
    [[nodiscard]] static QString extensionOf(Container container);

    /// Begins the file. Returns false when that cannot be; error() says why.
    [[nodiscard]] bool begin(Container container, const QVector<Stream> &streams,
                             const Output &output);
    [[nodiscard]] bool isBegun() const { return m_isBegun; }

    /// Writes a packet.
    /// Those of one stream come in their order; one that does not follow the one before in time
    /// follows it by the smallest step.
    /// @param offsetUs is added to the times of the packet
    [[nodiscard]] bool write(int stream, MediaPacket &&packet, qint64 offsetUs);

    /// Writes what is held and the end. Returns whether everything has been written.
    [[nodiscard]] bool end();

    [[nodiscard]] QString error() const { return m_error; }

private:
    struct Context;

    bool addStream(const Stream &stream);
    void setTimes(int stream, MediaPacket &packet, qint64 offsetUs);
    bool fail(const char *what, int code);

    std::unique_ptr<Context> m_context;
    bool m_isBegun = false;
    QVector<int64_t> m_lastDts; // by stream
    QString m_error;
};

#endif
