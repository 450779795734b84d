#ifndef ADOBEDOWNLOADTHREAD_H
#define ADOBEDOWNLOADTHREAD_H

#include "HdsSession.h"
#include "StopFlag.h"

#include <QByteArray>
#include <QString>
#include <QThread>

#include <atomic>
#include <memory>

class ConnectionPool;

/// One worker: obtains one fragment, from the cache folder or else from the network, and ends.
///
/// The object belongs to the thread that made it. Once the thread has ended its results may be
/// read there; until then only Cancel() may be called.
class CAdobeDownloadThread final : public QThread
{
    Q_OBJECT

public:
    /// @param pool lends the worker its connection; may be null
    /// @param session the stream
    explicit CAdobeDownloadThread(
        const std::shared_ptr<ConnectionPool> &pool = nullptr, QObject *parent = nullptr,
        const std::shared_ptr<HdsSession> &session = HdsSession::ofProcess());

    /// Stops the worker and waits for it.
    ~CAdobeDownloadThread() override;

    void setFragNum(int fragNum);
    [[nodiscard]] int GetFragNum() const;

    /// Has the fragment fetched even if the cache folder holds it; to be called before the start.
    void SetAfresh();
    [[nodiscard]] bool IsAfresh() const;

    /// Memory for the fragment to arrive in; to be given before the start.
    void SetBuffer(QByteArray buffer);

    /// The fragment's bytes; empty when it was given up or cancelled.
    [[nodiscard]] QByteArray GetFragUrlContent() const;

    /// Whether the fragment is there as a whole, as far as that can be told.
    [[nodiscard]] bool IsComplete() const;

    /// Whether the cache file holds the same bytes.
    [[nodiscard]] bool IsCached() const;

    /// Asks the worker to stop, which ends a wait for the network too. Safe on any thread.
    void Cancel();

signals:
    /// The worker noticed that it was cancelled and is about to end.
    void CancleFragment(int fragNum); // sic: part of the interface

protected:
    void run() override;

private:
    void DownloaderFragment();
    QByteArray GetFragContent();
    QByteArray fetch(const QString &url);

    const std::shared_ptr<HdsSession> m_session;
    StopFlag m_stop;
    std::shared_ptr<ConnectionPool> m_pool;
    int m_fragNum = 0;
    bool m_isAfresh = false;
    QByteArray m_buffer;
    QByteArray m_content; // written by the worker, read once m_isDone is set
    bool m_isComplete = false; // likewise
    bool m_isCached = false; // likewise
    std::atomic_bool m_isDone = false;
};

#endif
