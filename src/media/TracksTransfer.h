#ifndef TRACKSTRANSFER_H
#define TRACKSTRANSFER_H

#include "MediaServers.h"
#include "Presentation.h"
#include "Transfer.h"

#include <QTimer>

#include <memory>
#include <optional>

class MergedSource;
class SegmentFetcher;

/// Brings the chosen renditions of a presentation to disk, as one file.
///
/// progressed() tells how many segments have been written, and of how many; the latter is 0 while a
/// live presentation goes on. It is sent often, also while nothing comes, so that a receiver can
/// look whether it is to be cancelled; it may call cancel(). The host is told of each number of
/// segments once and, at the end, of the file's bytes.
class TracksTransfer final : public Transfer
{
    Q_OBJECT

public:
    struct Wish
    {
        TrackSink::Target target;
        QString cacheFolder; ///< where segments wait for a later run; empty for nowhere
        int places = 8; ///< how many segments are fetched at once
        bool isStrict = false; ///< a file that lacks a segment is no success
        /// Stop, as failed, with the first segments that have more than so many bytes; 0 for all.
        qint64 enoughBytes = 0;
    };

    /// @param binding tells this presentation from others in the cache: its manifest's address
    TracksTransfer(std::unique_ptr<Presentation> presentation, const QByteArray &binding,
                   const Wish &wish, const MediaServers &servers, QObject *parent = nullptr);
    ~TracksTransfer() override;

    void start() override;

    /// Ends it; the file is finished with what it has, so that it can be played.
    void cancel() override;

    [[nodiscard]] TransferReport report(Outcome outcome) const override;

    /// Why nothing could be fetched at all, or was of no use, if the presentation is to blame.
    [[nodiscard]] std::optional<Presentation::Failure> failure() const { return m_failure; }

    /// Segments that the file lacks.
    [[nodiscard]] qint64 missingSegments() const;

    /// The file's path, once it is known; its extension may follow from what is in it.
    [[nodiscard]] QString path() const;

private:
    void onReady();
    void onFailed(Presentation::Failure failure, const QString &reason);
    void tellProgress();
    void refuse(const QString &reason);
    void stopIfEnough();
    [[nodiscard]] RunClass classOr(RunClass otherwise) const;
    void onEnded(Outcome outcome);
    void end(Outcome outcome);

    const std::unique_ptr<Presentation> m_presentation;
    const QByteArray m_binding;
    const Wish m_wish;
    const MediaServers m_servers;
    std::unique_ptr<MergedSource> m_source;
    std::unique_ptr<TrackSink> m_sink;
    std::unique_ptr<SegmentFetcher> m_fetcher;
    QTimer m_heartbeat; // until there is a fetcher
    std::optional<Presentation::Failure> m_failure;
    bool m_isStarted = false;
    bool m_isCancelled = false;
    bool m_hasEnough = false;
    bool m_hasEnded = false;
};

#endif
