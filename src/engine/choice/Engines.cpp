#include "Engines.h"

#include "ChromiumEngineFactory.h"

#ifdef CLIPWEIR_WEBKIT
#include "FallbackEngine.h"
#include "FlashVersion.h"
#include "WebkitEngineFactory.h"

#include <QApplication>
#include <QEventLoop>
#include <QTimer>
#endif

#ifdef CLIPWEIR_WEBKIT
namespace {

/// Makes engines that begin as QtWebKit.
class FallbackEngineFactory final : public EngineFactory
{
public:
    void prepare(const RunOptions &options) override
    {
        m_webkit.prepare(options);
        m_chromium.prepare(options);
    }

    [[nodiscard]] std::unique_ptr<PageEngine> make(const RunOptions &options) override
    {
        return std::make_unique<FallbackEngine>(
            m_webkit.make(options), [this, options] { return m_chromium.make(options); });
    }

private:
    WebkitEngineFactory m_webkit;
    ChromiumEngineFactory m_chromium{false};
};

} // namespace
#endif

std::unique_ptr<QGuiApplication> Engines::makeApplication(int &argc, char *argv[])
{
#ifdef CLIPWEIR_WEBKIT
    return std::make_unique<QApplication>(argc, argv); // the view is a widget
#else
    return std::make_unique<QGuiApplication>(argc, argv);
#endif
}

std::unique_ptr<EngineFactory> Engines::makeFactory(const RunOptions &options)
{
#ifdef CLIPWEIR_WEBKIT
    if (options.engine == CVideoPreference::Engine::Webkit)
        return std::make_unique<WebkitEngineFactory>();
    if (options.engine == CVideoPreference::Engine::Auto) {
        if (ChromiumEngineFactory::isInstalled(options))
            return std::make_unique<FallbackEngineFactory>();
        qWarning("no page engine is installed at %s: QtWebKit has to do",
                 qUtf8Printable(options.chromiumPath));
        return std::make_unique<WebkitEngineFactory>();
    }
#endif
    if (!ChromiumEngineFactory::isInstalled(options))
        return nullptr;
    return std::make_unique<ChromiumEngineFactory>(true);
}

QString Engines::flashVersion()
{
#ifdef CLIPWEIR_WEBKIT
    constexpr int patienceMs = 1000;
    CFlashVersion probe;
    QEventLoop loop;
    QObject::connect(&probe, &CFlashVersion::versionInfoReady, &loop, &QEventLoop::quit);
    QTimer::singleShot(patienceMs, &loop, &QEventLoop::quit);
    probe.load();
    loop.exec();
    return probe.getVersion();
#else
    return QStringLiteral("0.0.0"); // no other engine runs plug-ins
#endif
}
