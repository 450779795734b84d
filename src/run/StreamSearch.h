#ifndef STREAMSEARCH_H
#define STREAMSEARCH_H

#include "ManifestAddress.h"
#include "MediaServers.h"
#include "PageSnapshot.h"
#include "ParseData.h"
#include "Presentation.h"
#include "RunOptions.h"
#include "StreamPieces.h"

#include <QObject>
#include <QSet>
#include <QStringList>
#include <QTimer>

#include <functional>
#include <memory>
#include <optional>

class ManifestSniff;

/// Finds the streams of a page. Addresses that may be those of a playlist or a manifest are judged
/// one after the other, in the order in which they were noted, so that a master is known before
/// the playlists that it names: the document itself is asked for, and if its first bytes tell that
/// it is one, it is opened as if it were to be fetched.
///
/// Main thread. Everything that is found out is told from the event loop.
class StreamSearch final : public QObject
{
    Q_OBJECT

public:
    explicit StreamSearch(const RunOptions &options, QObject *parent = nullptr);
    ~StreamSearch() override;

    /// Has a step done as soon as servers can be asked as the page asks them.
    using Prepare = std::function<void(const std::function<void()> &step)>;

    /// What comes before a document is asked for; nothing unless it is set.
    void setPrepare(const Prepare &prepare) { m_prepare = prepare; }

    /// Takes an address that the page has asked for, if it may be that of a manifest.
    /// @param contentType of the answer; empty while there is none
    void note(const QString &address, const QString &contentType);

    /// Takes what a page's elements and its source name.
    void scan(const PageSnapshot &snapshot);

    /// Whether some of the addresses are still to be judged.
    [[nodiscard]] bool isJudging() const { return m_isJudging; }

    /// Waits in a nested event loop until all are judged, within a bound.
    /// @param isStopped looked at a few times a second
    void finish(const std::function<bool()> &isStopped);

    /// Drops what is left; nothing is told any more.
    void stop();

    /// Whether an answer is a piece of a stream and no video of its own.
    [[nodiscard]] bool isPiece(const QString &address, const QString &contentType) const;

    /// Whether a stream of HTTP Dynamic Streaming is looked into, or has been, by its manifest.
    [[nodiscard]] bool knowsHds() const { return m_knowsHds; }

    /// A stream that cannot be fetched, for a run that has found nothing else: its end says why.
    [[nodiscard]] std::optional<VideoFile> refused() const { return m_refused; }

signals:
    /// A stream that can be fetched.
    void found(const VideoFile &stream);

    /// Nothing is left to be judged.
    void settled();

private:
    /// An address, and what is to be expected there.
    struct Waiting
    {
        QString address;
        ManifestAddress::Kind kind = ManifestAddress::Kind::None;
    };

    void take(const Waiting &one);
    void next();
    void sniff();
    void onSniffed();
    void onReady();
    void noteRefused(bool isProtected);
    void onFailed(Presentation::Failure failure, const QString &reason);
    [[nodiscard]] VideoFile candidate() const;
    void endJudging();
    template <typename Step> void later(const Step &step);

    const RunOptions m_options;
    const MediaServers m_servers;
    Prepare m_prepare;
    QSet<QString> m_known; // addresses that have been noted
    QVector<Waiting> m_waiting; // those that are to be judged
    QSet<QUrl> m_documents; // where manifests came from
    StreamPieces m_pieces;
    QString m_address; // that is being judged
    QSet<QString> m_own; // where it comes from
    ManifestAddress::Kind m_kind = ManifestAddress::Kind::None; // of that
    std::unique_ptr<ManifestSniff> m_sniff;
    std::unique_ptr<Presentation> m_presentation;
    QTimer m_patience;
    int m_round = 0; // what is still to come of an earlier one counts no more
    std::optional<VideoFile> m_refused;
    bool m_isProtected = false; // that one
    bool m_knowsHds = false;
    bool m_isJudging = false;
    bool m_isStopped = false;
};

#endif
