#ifndef PAGEENGINE_H
#define PAGEENGINE_H

#include "PageSnapshot.h"

#include <QNetworkProxy>
#include <QObject>
#include <QUrl>

#include <functional>

/// A web engine with one page, which nobody needs to see. What the page asks for and gets is told
/// by signals; what its document holds, by snapshots. The engine may live in this process or in
/// another one, so nothing is answered by a return value. Main thread.
///
/// The signals but snapshot() may come from inside the engine's own code: their receivers leave
/// whatever takes the page away, as stop() and close() do, to the event loop.
class PageEngine : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    /// How the engine learns whether the run has found a candidate, which spares it from doing more
    /// for one.
    void setCandidateCheck(const std::function<bool()> &hasCandidate)
    {
        m_hasCandidate = hasCandidate;
    }

    /// All connections go through the proxy, and the page gets nothing that would go round it.
    /// Before the page is loaded.
    virtual void setProxy(const QNetworkProxy &proxy) = 0;

    virtual void setShown(bool isShown) = 0;

    /// Loads the page, once.
    virtual void load(const QUrl &url) = 0;

    /// Lays the whole page out, as if its window were large enough, which makes the engine load
    /// what it leaves out while it cannot be seen.
    virtual void layOutWhole() = 0;

    /// Asks for a snapshot(), which may come from inside this call.
    virtual void requestSnapshot() = 0;

    /// From now on the page gets no network, its scripts stop, and a blank page takes its place.
    virtual void stop() = 0;

    /// Keeps the cookies that the page has got.
    virtual void saveCookies() = 0;

    /// Does a step once the run's own requests have the cookies that the page has got up to now.
    /// That may be from inside this call, and is never when the engine is lost before.
    virtual void withCookies(const std::function<void()> &step)
    {
        saveCookies();
        step();
    }

    /// Ends the page, whose scripts do not see it go.
    virtual void close() = 0;

signals:
    /// The page is about to ask for an address, whether it may have it or not.
    void requestSeen(const QString &url);

    /// An answer has progressed. @param size bytes in all, as far as known, else 0
    void replySeen(const QString &url, qint64 size, const QString &contentType);

    /// What is told as the size of an answer is only what had come of it when it was cut: its
    /// server does not say.
    void sizeUntold(const QString &url);

    /// A request has ended, one way or another. One of them may tell it twice.
    void replyEnded();

    /// The page has loaded, or cannot be.
    void loaded(bool isOk);

    /// The answer to requestSnapshot(); empty when the page has no document.
    void snapshot(const PageSnapshot &snapshot);

    /// The user has closed the window in which the page is shown.
    void windowClosed();

    /// The engine is gone and nothing more will come of it. What is asked of it from then on is
    /// without effect.
    void lost(const QString &reason);

    /// The page wants what this engine does not have. It goes on as well as it can.
    void outgrown(const QString &reason);

protected:
    [[nodiscard]] bool hasCandidate() const { return m_hasCandidate && m_hasCandidate(); }

private:
    std::function<bool()> m_hasCandidate;
};

#endif
