#ifndef SEGMENTWORKER_H
#define SEGMENTWORKER_H

#include "Segment.h"
#include "StopFlag.h"

#include <QThread>

#include <atomic>
#include <functional>
#include <utility>

/// One worker: obtains one segment, from its cache file or else from the network, and ends.
///
/// The object belongs to the thread that made it. Once the thread has ended its results may be
/// read there; until then only cancel() may be called.
class SegmentWorker : public QThread
{
    Q_OBJECT

public:
    static constexpr qint64 maxBytes = 256 * 1024 * 1024; ///< of a segment

    /// What one attempt to fetch a segment brought.
    struct Answer
    {
        QByteArray body;
        bool isSuccess = false;
        bool isLengthKnown = false; ///< the server told the length, and that much has come
    };

    /// Asks a server for a segment, or for the part of it that is named, and waits for the end.
    /// Soon after a stop it returns. Called on the worker's thread.
    /// @param buffer memory for the body, of which it takes over what is of use
    using Fetch =
        std::function<Answer(const Segment &segment, QByteArray buffer, const StopFlag &stop)>;

    explicit SegmentWorker(const Fetch &fetch, QObject *parent = nullptr);

    /// Stops the worker and waits for it.
    ~SegmentWorker() override;

    // To be called before the start.

    void setSegment(const Segment &segment) { m_segment = segment; }

    /// Has the segment fetched even if there is a cache file of it.
    void setAfresh() { m_isAfresh = true; }

    /// Memory for the segment to arrive in.
    void setBuffer(QByteArray buffer) { m_buffer = std::move(buffer); }

    [[nodiscard]] const Segment &segment() const { return m_segment; }
    [[nodiscard]] bool isAfresh() const { return m_isAfresh; }

    /// Asks the worker to stop, which ends a wait for the network too. Safe on any thread.
    void cancel() { m_stop.raise(); }

    // The results.

    /// The segment's content; empty when it was given up or cancelled.
    [[nodiscard]] QByteArray content() const { return m_isDone ? m_content : QByteArray(); }

    /// Whether the segment is there as a whole, as far as that can be told.
    [[nodiscard]] bool isComplete() const { return m_isDone && m_isComplete; }

    /// Whether the cache file holds the same bytes.
    [[nodiscard]] bool isCached() const { return m_isDone && m_isCached; }

signals:
    /// The worker noticed that it was cancelled and is about to end.
    void cancelled(qint64 number);

protected:
    void run() override;

    /// Stops the worker and waits for it: to be called by the destructor of a subclass.
    void end();

private:
    QByteArray obtain();
    QByteArray fetchDecoded();
    QByteArray fetch();

    const Fetch m_fetch;
    StopFlag m_stop;
    Segment m_segment;
    bool m_isAfresh = false;
    QByteArray m_buffer;
    QByteArray m_content; // written by the worker, read once m_isDone is set
    bool m_isComplete = false; // likewise
    bool m_isCached = false; // likewise
    std::atomic_bool m_isDone = false;
};

#endif
