#ifndef FAKEENGINE_H
#define FAKEENGINE_H

#include "PageEngine.h"

#include <QStringList>

#include <memory>

/// An engine without a page. It notes what is asked of it, and the test says by its signals what a
/// page would do.
class FakeEngine final : public PageEngine
{
public:
    using PageEngine::PageEngine;

    /// What was asked so far, in order, but for cookies; readable after the engine's end.
    [[nodiscard]] std::shared_ptr<const QStringList> calls() const { return m_calls; }

    [[nodiscard]] QNetworkProxy proxy() const { return m_proxy; }
    [[nodiscard]] int savesOfCookies() const { return m_savesOfCookies; }

    /// From now on snapshots are told from inside requestSnapshot(); else the test tells them.
    void answerWith(const PageSnapshot &snapshot)
    {
        m_snapshot = std::make_unique<PageSnapshot>(snapshot);
    }

    void setProxy(const QNetworkProxy &proxy) override
    {
        m_proxy = proxy;
        note("setProxy");
    }

    void setShown(bool isShown) override { note(isShown ? "show" : "hide"); }

    void load(const QUrl &url) override { *m_calls += QLatin1String("load ") + url.toString(); }

    void layOutWhole() override { note("layOutWhole"); }

    void requestSnapshot() override
    {
        note("requestSnapshot");
        if (m_snapshot)
            emit snapshot(*m_snapshot);
    }

    void stop() override { note("stop"); }
    void saveCookies() override { ++m_savesOfCookies; }
    void close() override { note("close"); }

private:
    void note(const char *call) { *m_calls += QLatin1String(call); }

    const std::shared_ptr<QStringList> m_calls = std::make_shared<QStringList>();
    QNetworkProxy m_proxy;
    std::unique_ptr<PageSnapshot> m_snapshot;
    int m_savesOfCookies = 0;
};

#endif
