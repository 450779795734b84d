#ifndef SEGMENTFETCHER_H
#define SEGMENTFETCHER_H

#include "Transfer.h"

#include <QList>
#include <QObject>
#include <QTimer>

#include <functional>

class SegmentSink;
class SegmentSource;
class SegmentWorker;

/// Brings a stream's segments to its file: keeps workers busy with the next ones of the source and
/// hands the sink what they bring. What becomes too much to be held is left to the cache files, and
/// fetched again if they are spoilt.
///
/// It lives on the main thread, in the caller's event loop, and owns its workers; they report to it
/// by queued signals only. It does one stream and ends exactly once, whatever comes first. It may
/// be destroyed at any time but from a slot of active(): that stops the workers and waits for them.
/// Several can go on at once, each with a source and a sink of its own.
class SegmentFetcher final : public QObject
{
    Q_OBJECT

public:
    using MakeWorker = std::function<SegmentWorker *(QObject *parent)>;

    /// @param source    @param sink outlive this object
    /// @param makeWorker makes workers, which know how to ask the stream's servers
    SegmentFetcher(SegmentSource &source, SegmentSink &sink, const MakeWorker &makeWorker,
                   QObject *parent = nullptr);
    ~SegmentFetcher() override;

    // To be called before the start.

    /// How many segments are fetched at once: 8 unless it is called, at least 1 and at most 64.
    void setPlaces(int places);

    /// How many bytes of segments that wait for an earlier one are held before the next ones are
    /// left to their cache files; 64 MiB unless it is called.
    void setMaxHeldBytes(qint64 bytes);

    /// So many bytes of segments that wait and have no cache file keep further ones from being
    /// asked for.
    void setFullBytes(qint64 bytes);

    /// Whether the cache files are removed once the file is complete.
    void setDeletesCache(bool deletes);

    /// Begins to give notice while the source is made ready, which may take long.
    void prepare();

    /// Starts. Returns false when there is nothing to fetch or it was cancelled before: ended() has
    /// then been sent, unless it was started before.
    bool start();

    /// Stops; the end is sent once all workers have stopped. Legal at any time: before start() it
    /// makes that end at once, after the end it does nothing.
    void cancel();

    /// The place of the worker that has the segment; -1 when none does.
    [[nodiscard]] int indexOf(qint64 number) const;

public slots:
    /// Hands out segments while there are free places.
    void handOut();

    /// Collects finished workers, writes what can be written and hands out the next segments.
    void collect();

    /// Removes the worker of a segment, if it has stopped.
    void removeStopped(qint64 number);

signals:
    /// Sent often until the end, also while nothing happens, so that a receiver can look whether it
    /// is to be cancelled. The receiver may call cancel().
    void active();

    /// Segments have been written.
    void progressed();

    /// The end.
    void ended(Transfer::Outcome outcome);

private:
    enum class State {
        Idle,
        Preparing,
        Fetching,
        Stopping, // the outcome is known, workers are still running
        Ended
    };

    bool startWorker(qint64 number, bool isAfresh);
    bool fetchLost();
    void collectFinished();
    void hand(const SegmentWorker &worker);
    bool writeCollected();
    void complete();
    void deleteCache();
    void cancelWorkers();
    void removeWorker(int index);
    void stop(Transfer::Outcome outcome);
    void endSoonIfStopped();
    void endIfStopped();
    [[nodiscard]] bool isFetching() const { return m_state == State::Fetching; }
    [[nodiscard]] bool canGoOn() const;

    SegmentSource &m_source;
    SegmentSink &m_sink;
    const MakeWorker m_makeWorker;
    QList<SegmentWorker *> m_workers; // children of this object
    QTimer m_heartbeat;
    State m_state = State::Idle;
    Transfer::Outcome m_outcome = Transfer::Outcome::Failed; // in the states Stopping and Ended
    qint64 m_next = 0; // the segment to be handed out next
    int m_places;
    qint64 m_maxHeldBytes;
    qint64 m_fullBytes;
    bool m_deletesCache = false;
    bool m_isCancelled = false;
    bool m_isCollecting = false;
    bool m_hasNews = false; // since the last look: a worker ended or the source changed
};

#endif
