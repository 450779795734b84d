#ifndef MEDIAWRITER_H
#define MEDIAWRITER_H

#include "MediaFile.h"
#include "MediaJoiner.h"
#include "Rendition.h"
#include "TrackDemuxer.h"

#include <QByteArray>
#include <QString>
#include <QVector>

#include <deque>
#include <memory>
#include <vector>

/// Takes the segments apart, lays the tracks' times beside one another, and stores every packet, as
/// it is and in its order.
///
/// The file begins at 0. Within a run, which is what lies between two discontinuities, tracks keep
/// the time that they have to one another: by the presentation's clock where the manifest tells it,
/// else by their own clock where they share one, else each by its beginning. A run begins where the
/// one before has ended. For that the first packets of a run wait until each track has some, or is
/// known to have none.
///
/// A file has one description of a stream. Sound that changes its format beside a picture is left
/// out for as long; where that cannot be, the file ends at the change.
class MediaWriter final : public MediaJoiner
{
public:
    /// As MediaLibrary::Maker says.
    MediaWriter(const QVector<Rendition> &tracks, const Open &open);
    ~MediaWriter() override;

    [[nodiscard]] static std::unique_ptr<MediaJoiner> make(const QVector<Rendition> &tracks,
                                                           const Open &open);

    [[nodiscard]] bool take(int track, const TrackSegment &segment,
                            const QByteArray &content) override;
    [[nodiscard]] bool endTrack(int track) override;
    [[nodiscard]] bool finish() override;
    [[nodiscard]] QString error() const override { return m_error; }
    [[nodiscard]] bool hasContent() const override;
    [[nodiscard]] bool isBegun() const override { return m_file.isBegun(); }
    [[nodiscard]] bool isProtected() const override { return m_isProtected; }
    [[nodiscard]] qint64 missingSegments() const override { return m_missing; }
    [[nodiscard]] qint64 damagedPackets() const override;

private:
    /// The beginning of a run in a track, while it waits for the other tracks.
    struct Waiting
    {
        int run = 0;
        TrackSegment first; ///< the segment it begins with
        TrackDemuxer::Clock clock = TrackDemuxer::Clock::None;
        std::deque<MediaPacket> packets;
    };

    struct Output
    {
        int stream = -1; ///< in the file
        libav::Format format; ///< of the packets that come
        libav::Format begun; ///< as the file describes the stream
        /// Parameter sets that each key frame needs before it, since the description is of others.
        QByteArray parameterSets;
        bool isLeftOut = false; ///< what comes does not play as the stream is described
        qint64 offsetUs = 0; ///< from the packets' times to the file's
        qint64 endUs = 0; ///< where what has been written ends
    };

    struct Track
    {
        Rendition rendition;
        std::unique_ptr<TrackDemuxer> demuxer;
        std::deque<Waiting> waiting; ///< by run
        int entered = -1; ///< the run of the last segment
        int run = -1; ///< that is being written
        qint64 offsetUs = 0; ///< what its outputs have, but where one of them is late for it
        qint64 reachedUs = -1; ///< where the last segment taken begins, as the manifest says
        bool hasEnded = false;
        bool hasLaterRun = false; ///< behind the last segment taken
        bool takesSound = true;
        Output outputs[2]; ///< by MediaPacket::Stream
    };

    /// How a run's clocks are laid onto the file's.
    struct Run
    {
        int number = -1;
        TrackDemuxer::Clock clock = TrackDemuxer::Clock::None;
        qint64 originUs = 0; ///< on that clock, where the presentation's shows 0
        qint64 shiftUs = 0; ///< from the presentation's clock to the file's
    };

    void packetCame(Track &track, MediaPacket &&packet);
    [[nodiscard]] bool settle();
    [[nodiscard]] int nextRun() const;
    [[nodiscard]] bool isAwaited(const Track &track, int run) const;
    [[nodiscard]] bool mayBringMore(const Track &track, int run) const;
    [[nodiscard]] qint64 startOf(int run) const;
    [[nodiscard]] bool join(int run);
    void beginRun(int run, const std::vector<Track *> &joining);
    [[nodiscard]] qint64 positionOf(const Waiting &begin) const;
    [[nodiscard]] bool beginFile();
    [[nodiscard]] bool writeWaiting(Track &track);
    [[nodiscard]] bool store(Track &track, MediaPacket &&packet);
    static void followJump(Track &track, Output &output, qint64 beginUs);
    [[nodiscard]] bool canGoOnWith(Output &output, const MediaPacket &packet);
    [[nodiscard]] bool leaveOut(Output &output, const MediaPacket &packet);
    [[nodiscard]] static bool takeOverSets(Output &output, const MediaPacket &packet);
    [[nodiscard]] bool fail(const QString &error);

    const Open m_open;
    std::vector<Track> m_tracks;
    MediaFile m_file;
    Run m_run;
    qint64 m_heldBytes = 0;
    qint64 m_missing = 0;
    qint64 m_homeless = 0; // packets that have no stream in the file
    bool m_isFinishing = false;
    bool m_isWebM = false;
    bool m_isProtected = false;
    bool m_hasFailed = false;
    QString m_error;
};

#endif
