#ifndef FALLBACKENGINE_H
#define FALLBACKENGINE_H

#include "PageEngine.h"

#include <QTimer>

#include <functional>
#include <memory>

/// Two engines for one page. The first, which costs little, begins; once it is clear that it will
/// not do, the second one loads the page anew. That is when the page wants what the first does not
/// have, and when the page has loaded and was quiet for three seconds without a candidate.
class FallbackEngine final : public PageEngine
{
    Q_OBJECT

public:
    using Make = std::function<std::unique_ptr<PageEngine>()>;

    FallbackEngine(std::unique_ptr<PageEngine> first, const Make &makeSecond,
                   QObject *parent = nullptr);
    ~FallbackEngine() override;

    void setProxy(const QNetworkProxy &proxy) override;
    void setShown(bool isShown) override;
    void load(const QUrl &url) override;
    void layOutWhole() override;
    void requestSnapshot() override;
    void stop() override;
    void saveCookies() override;
    void withCookies(const std::function<void()> &step) override;
    void close() override;

private:
    void take(std::unique_ptr<PageEngine> engine);
    void onLoaded(bool isOk);
    void onLife();
    void onQuiet();
    void onSnapshot(const PageSnapshot &snapshot);
    void tellLoaded();
    void goOver(const QString &reason);

    const Make m_makeSecond;
    std::unique_ptr<PageEngine> m_engine; ///< the one that works
    QNetworkProxy m_proxy;
    QUrl m_url;
    QTimer m_quiet;
    bool m_isFirst = true;
    bool m_isLoadHeldBack = false; ///< the end of the first one's load is not told yet
    bool m_isLoadOk = false;
    bool m_isJudging = false; ///< a last look at what the first one has
    bool m_isTelling = false; ///< of a snapshot, during which much may happen
    QString m_wish; ///< why to go over, once that is told
    bool m_isStopped = false;
};

#endif
