#ifndef CHROMIUMENGINE_H
#define CHROMIUMENGINE_H

#include "DevTools.h"
#include "EngineCookies.h"
#include "FrameReader.h"
#include "PageEngine.h"
#include "PageHand.h"
#include "PageTraffic.h"
#include "RunOptions.h"

#include <QTimer>

#include <memory>

/// A current engine, in processes of its own, which end with the analysis. It has no window.
class ChromiumEngine final : public PageEngine
{
    Q_OBJECT

public:
    /// @param keeper of an engine whose switches name the proxy already; null when there is none
    ChromiumEngine(std::unique_ptr<EngineKeeper> keeper, const RunOptions &options,
                   QObject *parent = nullptr);
    ~ChromiumEngine() override;

    void setProxy(const QNetworkProxy &proxy) override;
    void setShown(bool isShown) override;
    void load(const QUrl &url) override;
    void layOutWhole() override;
    void requestSnapshot() override;

    /// Takes the page's cookies over and ends the engine's processes.
    void stop() override;

    /// They are taken over at the stop, or when somebody needs them.
    void saveCookies() override;
    void withCookies(const std::function<void()> &step) override;
    void close() override;

private:
    void onEvent(const QString &method, const QJsonObject &parameters, const QString &session);
    void giveCookies();
    void onVersion(const QJsonObject &version);
    void onTarget(const QString &target);
    void onSession(const QString &session);
    void holdNewTargets(const QString &session, const QStringList &types);
    void prepareFrames(const QString &session);
    void prepare(const QString &session, const QString &type);
    void navigate();
    void tellLoaded(bool isOk);
    void onLife();
    void onSilence();
    void onEnd(const QString &reason);

    DevTools m_tools;
    PageTraffic m_traffic;
    FrameReader m_reader;
    PageHand m_hand;
    const bool m_mayPress;
    EngineCookies m_cookies;
    QTimer m_silence; ///< of a page that is being loaded, where the caller limits it
    QUrl m_url;
    QString m_session; ///< of the page; empty before there is one
    QJsonObject m_userAgent; ///< as the protocol's overrides have it
    bool m_isLoaded = false;
    bool m_isStopped = false;
};

#endif
