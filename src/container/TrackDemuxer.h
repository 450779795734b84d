#ifndef TRACKDEMUXER_H
#define TRACKDEMUXER_H

#include "MediaPacket.h"
#include "SegmentBytes.h"

#include <QByteArray>
#include <QString>

#include <array>
#include <functional>
#include <memory>
#include <optional>

class MemoryInput;

/// Takes the segments of one track apart, in their order, into packets: those of the first picture
/// and of the first sound that there are. The library reads memory only; nothing in a segment can
/// have it open a file or an address.
///
/// Segments of boxes and of WebM are read each by itself, with the initialisation section in force.
/// Others are read as one stream for as long as they belong together: what begins in a segment may
/// end in the next one, and what is said in the first need not be said again. A segment of that
/// kind is therefore read once the one after it has come, or flush() says that none does.
class TrackDemuxer final
{
public:
    using Take = std::function<void(MediaPacket &&)>;

    /// By which clock the packets' times go.
    enum class Clock {
        None, ///< they begin at 0 with the first segment of a run
        Mpeg, ///< of 33 bits; goes on where it wraps round
        Boxes ///< of the media's own
    };

    /// @param take gets the packets, from inside take() and flush()
    explicit TrackDemuxer(const Take &take);
    ~TrackDemuxer();
    Q_DISABLE_COPY(TrackDemuxer)

    /// What stands before the following segments; empty for nothing.
    void setInitialisation(const QByteArray &section);

    /// Takes a segment. Returns false when nothing can be made of it; error() says why.
    [[nodiscard]] bool take(const QByteArray &segment);

    /// Gives away what waits: no segment follows, or not the next one.
    void flush();

    /// The following segments belong to another run: flushes, and forgets what the ones before
    /// have said.
    void beginRun();

    [[nodiscard]] Clock clock() const { return m_clock; }
    [[nodiscard]] QString error() const { return m_error; }

    /// Whether something was encrypted (ISO/IEC 23001-7); no packet of that is given away.
    [[nodiscard]] bool isProtected() const { return m_isProtected; }

    /// Packets that were left out, because they are damaged or of a stream that is not taken up.
    [[nodiscard]] qint64 damagedPackets() const { return m_damagedPackets; }

private:
    struct Context;
    struct StreamState
    {
        int index = -1; ///< in the context
        libav::Format format;
        QByteArray config; ///< of sound that had its headers taken off
    };

    [[nodiscard]] bool takeBoxes(const QByteArray &segment, SegmentBytes::Kind kind);
    [[nodiscard]] bool takeStreamed(const QByteArray &segment, SegmentBytes::Kind kind);
    [[nodiscard]] bool open(Context &context, SegmentBytes::Kind kind, bool mustProbe);
    void read(Context &context, qint64 until);
    void give(Context &context, libav::Packet packet);
    [[nodiscard]] StreamState *stateOf(Context &context, const AVPacket &packet);
    void adoptFormat(StreamState &state, const AVCodecParameters &format);
    [[nodiscard]] bool takeOffHeader(StreamState &state, AVPacket &packet);
    void unwrap(AVPacket &packet);
    void countTime(AVPacket &packet, AVRational unit);

    const Take m_take;
    QByteArray m_initialisation;
    std::unique_ptr<Context> m_streamed; // for as long as its segments belong together
    SegmentBytes::Kind m_streamedKind = SegmentBytes::Kind::Unknown;
    qint64 m_lastBytes = 0; // of the streamed segment that is not read yet
    std::array<StreamState, 2> m_states; // by MediaPacket::Stream
    Clock m_clock = Clock::None;
    std::optional<int64_t> m_lastTime; // of the clock of 33 bits, unwrapped
    std::optional<qint64> m_packedTime; // at which packed sound begins, in 1/90000 s
    std::optional<int64_t> m_nextPacked; // where its next packet does, in its own unit
    qint64 m_damagedPackets = 0;
    bool m_isProtected = false;
    QString m_error;
};

#endif
