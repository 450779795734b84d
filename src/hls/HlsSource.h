#ifndef HLSSOURCE_H
#define HLSSOURCE_H

#include "HlsKeyRing.h"
#include "HlsLoader.h"
#include "HlsTimeline.h"
#include "Presentation.h"
#include "TrackSource.h"

#include <QElapsedTimer>
#include <QTimer>
#include <QUrl>
#include <QVector>

#include <memory>

/// The segments of one HLS rendition, from the beginning of its media playlist's window on, which
/// is read again while it grows (RFC 8216, section 6.3.4). Where the stream is whole and has a twin
/// on another server, the twin's segments stand in for those that cannot be had. Main thread; it
/// may be destroyed at any time but from a slot of its signals.
class HlsSource final : public TrackSource
{
    Q_OBJECT

public:
    /// @param keys of the presentation; shared with the segments, on their workers' threads
    HlsSource(const MediaServers &servers, const std::shared_ptr<HlsKeyRing> &keys,
              QObject *parent = nullptr);

    /// Begins, once: fetches the playlist. opened() or failed() follows, never from inside this
    /// call.
    /// @param addresses of the same playlist, the best first; at least one
    /// @param imports the variables of the master that names it
    void open(const QVector<QUrl> &addresses, const HlsVariables &imports);

    /// As open() with a playlist that has just come from that address.
    void open(const HlsPlaylist &playlist, const QUrl &address);

    /// Looks for no more segments. Before opened() no signal follows any more; later changed() does
    /// if that makes it end.
    void finish();

    // Once it is open.

    /// What the first segment's discontinuity sequence number is, and when it begins, in
    /// milliseconds since 1970; 0 when the playlist does not say.
    [[nodiscard]] qint64 firstRun() const;
    [[nodiscard]] qint64 firstDateMs() const;

    /// Where the presentation begins, which other renditions may do earlier than this one.
    /// @param firstRun the discontinuity sequence number that is run 0
    /// @param startUs when this one's first segment begins, microseconds on the presentation's
    /// clock
    void setOrigin(qint64 firstRun, qint64 startUs);

    /// The duration of all segments that are known, in microseconds.
    [[nodiscard]] qint64 durationUs() const;

    [[nodiscard]] qint64 first() const override { return 1; }
    [[nodiscard]] qint64 last() const override;
    [[nodiscard]] bool isEnded() const override { return m_isEnded; }
    [[nodiscard]] TrackSegment trackSegment(qint64 number) const override;

signals:
    void opened();
    void failed(Presentation::Failure failure, const QString &reason);

private:
    void onLoaded(const HlsPlaylist &playlist, const QUrl &address);
    void onMissed(Presentation::Failure failure, const QString &reason);
    [[nodiscard]] bool isRefused(const HlsPlaylist &playlist);
    void takeNews(const HlsPlaylist &playlist);
    void seekTwin();
    void onTwinLoaded(const HlsPlaylist &playlist);
    [[nodiscard]] QString twinAddress(const HlsTimeline::Entry &entry) const;
    void reloadLater(bool hasNews);
    void reload();
    void end(const QString &why);
    void fail(Presentation::Failure failure, const QString &reason);
    void setPlace(TrackSegment &track, const HlsTimeline::Entry &entry) const;
    void setOpening(Segment &segment, const HlsKey &key, const HlsTimeline::Entry &entry,
                    qint64 sequence) const;

    const MediaServers m_servers;
    const std::shared_ptr<HlsKeyRing> m_keys;
    HlsLoader m_loader;
    QTimer m_reload;
    QElapsedTimer m_sinceAsked; // for the playlist
    QElapsedTimer m_sinceCome;
    QVector<QUrl> m_addresses; // of this playlist and its twins
    QUrl m_address; // that is asked for news
    HlsLoader m_twinLoader;
    HlsPlaylist m_twin; // without segments unless there is one
    HlsVariables m_imports;
    HlsTimeline m_timeline;
    qint64 m_targetMs = 0;
    qint64 m_originRun = 0;
    qint64 m_originUs = 0;
    bool m_isOpen = false;
    bool m_isEnded = false;
};

#endif
