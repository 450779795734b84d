#ifndef ADOBEDOWNLOADER_H
#define ADOBEDOWNLOADER_H

#include "AdobeParser.h"
#include "HdsSource.h"
#include "SegmentFetcher.h"
#include "StopFlag.h"

#include <QObject>

#include <memory>

/// Downloads one HDS stream, as its session's options describe it, into one FLV file.
///
/// Life: Download() reads the manifest in nested event loops, then workers fetch the fragments
/// while the caller's event loop runs. The object lives on the main thread. A run ends exactly
/// once, with finished(), and an object does one run. It may be destroyed at any time but from a
/// slot of AdobeActive(): that stops the workers and waits for them.
class CAdobeDownloader final : public QObject
{
    Q_OBJECT

public:
    explicit CAdobeDownloader(QObject *parent = nullptr);

    /// @param session the stream, for this object alone
    explicit CAdobeDownloader(const std::shared_ptr<HdsSession> &session,
                              QObject *parent = nullptr);
    ~CAdobeDownloader() override;

    /// Starts the download. Returns false when nothing could be started; finished() has then been
    /// sent, unless a run was started before.
    bool Download();

    /// Stops the run, which ends with finished(-1) once all workers have stopped. Legal at any
    /// time: before Download() it makes that end at once, after the end it does nothing.
    void Cancel();

    /// Stops the workers, which ends the run as Cancel() does.
    void Abort();

    /// How many bytes of fragments that wait for an earlier one are held before the next ones are
    /// left to their cache files; 64 MiB unless it is called.
    void SetMaxHeldBytes(qint64 bytes);

    /// Creates the folder of the fragment cache. Returns whether it is there.
    bool MakeOutDir();

    /// Hands out fragments while there are free worker places.
    void AddDownloadThread();

    /// The place of the worker that has the fragment; -1 when none does.
    [[nodiscard]] int FindThreadIndex(int fragNum) const;

signals:
    /// The end of the run: 1 the file is complete, 0 it could not be made, -1 cancelled.
    void finished(int result);

    /// Sent often while the run goes on, also while it only waits, so that a receiver can look
    /// whether it is to be cancelled. The receiver may call Cancel().
    void AdobeActive(bool isActive);

public slots:
    /// Collects finished workers, writes what can be written and hands out the next fragments.
    void OnDownloaderFragmentFinished();

    /// Removes the stopped worker of a cancelled fragment.
    void OnCancelThread(int fragNum);

private:
    const std::shared_ptr<HdsSession> m_session;
    StopFlag m_stop; // for the parser's requests
    std::shared_ptr<CAdobeParser> m_parser;
    HdsSource m_source;
    SegmentFetcher m_fetcher;
    bool m_isStarted = false;
};

#endif
