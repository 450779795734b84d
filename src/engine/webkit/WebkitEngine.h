#ifndef WEBKITENGINE_H
#define WEBKITENGINE_H

#include "CookieJar.h"
#include "NetworkReplyProxy.h"
#include "PageEngine.h"
#include "RunOptions.h"

#include <memory>

class QWebPageProxy;
class QWebView;

/// The toolkit's engine, in this process. A snapshot is told before requestSnapshot() returns.
class WebkitEngine final : public PageEngine
{
    Q_OBJECT

public:
    /// One at a time: the engine's settings and its cookies are the process's.
    explicit WebkitEngine(const RunOptions &options, QObject *parent = nullptr);
    ~WebkitEngine() override;

    void setProxy(const QNetworkProxy &proxy) override;
    void setShown(bool isShown) override;
    void load(const QUrl &url) override;

    /// Paints the page once, as large as it is but for what would not fit into memory.
    void layOutWhole() override;
    void requestSnapshot() override;
    void stop() override;
    void saveCookies() override;
    void close() override;

private:
    void connectAll();
    void watchForLimits();

    CookieJar m_cookieJar;
    std::unique_ptr<NetworkAccessManagerProxy> m_networkManager;
    std::unique_ptr<QWebView> m_view;
    QWebPageProxy *m_page = nullptr; ///< child of the view
};

#endif
