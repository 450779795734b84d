#ifndef ADOBEDOWNLOADTHREAD_H
#define ADOBEDOWNLOADTHREAD_H

#include "StopFlag.h"

#include <QByteArray>
#include <QString>
#include <QThread>

#include <atomic>

/// One worker: obtains one fragment, from the cache folder or else from the network, and ends.
///
/// The object belongs to the thread that made it. Once the thread has ended its results may be
/// read there; until then only Cancel() may be called.
class CAdobeDownloadThread final : public QThread
{
    Q_OBJECT

public:
    explicit CAdobeDownloadThread(QObject *parent = nullptr);

    /// Stops the worker and waits for it.
    ~CAdobeDownloadThread() override;

    void setFragNum(int fragNum);
    [[nodiscard]] int GetFragNum() const;

    /// The fragment's bytes; empty when it was given up or cancelled.
    [[nodiscard]] QByteArray GetFragUrlContent() const;

    /// Whether the cache file holds the same bytes.
    [[nodiscard]] bool IsCached() const;

    /// Asks the worker to stop, which ends a wait for the network too. Safe on any thread.
    void Cancel();

    /// The cache file of a fragment.
    [[nodiscard]] static QString CacheFile(int fragNum);

signals:
    /// The worker noticed that it was cancelled and is about to end.
    void CancleFragment(int fragNum); // sic: part of the interface

protected:
    void run() override;

private:
    void DownloaderFragment();
    QByteArray GetFragContent();
    QByteArray fetch(const QString &url, bool &isComplete) const;

    StopFlag m_stop;
    int m_fragNum = 0;
    QByteArray m_content; // written by the worker, read once m_isDone is set
    bool m_isCached = false; // likewise
    std::atomic_bool m_isDone = false;
};

#endif
