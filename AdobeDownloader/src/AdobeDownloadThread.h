#ifndef ADOBEDOWNLOADTHREAD_H
#define ADOBEDOWNLOADTHREAD_H

#include "HdsSession.h"
#include "SegmentWorker.h"

#include <memory>

class ConnectionPool;

/// One worker: obtains one fragment, from the cache folder or else from the network, and ends.
class CAdobeDownloadThread final : public SegmentWorker
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

    /// Sets the fragment, as the stream describes it now; to be called before the start.
    void setFragNum(int fragNum);
    [[nodiscard]] int GetFragNum() const { return static_cast<int>(segment().number); }

    // What every worker does, by the names that this one has for it.

    [[nodiscard]] QByteArray GetFragUrlContent() const { return content(); }
    [[nodiscard]] bool IsCached() const { return isCached(); }
    void Cancel() { cancel(); }

signals:
    /// The worker noticed that it was cancelled and is about to end.
    void CancleFragment(int fragNum); // sic: part of the interface

private:
    const std::shared_ptr<HdsSession> m_session;
};

#endif
