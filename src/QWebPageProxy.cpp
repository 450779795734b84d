#include "QWebPageProxy.h"

#include "PluginGuard.h"
#include "ShareMemoryManager.h"

#include <QWebFrame>
#include <QWebSettings>

namespace {

/// Sockets connect by themselves. Workers have sockets of their own, in a global object that cannot
/// be reached from here.
constexpr char socketRemoval[] = "delete window.WebSocket; delete window.Worker;"
                                 "delete window.SharedWorker;";

} // namespace

QWebPageProxy::QWebPageProxy(QObject *parent)
    : QWebPage(parent)
{
    setPluginFactory(new PluginGuard(this));
    connect(this, &QWebPage::loadFinished, this, &QWebPageProxy::pageLoaded);
}

QWebPageProxy::~QWebPageProxy()
{
    // A page that is torn down while it loads still reports its end, when nothing of this class is
    // left to hear it.
    disconnect(this, nullptr, this, nullptr);
}

void QWebPageProxy::load(const QUrl &url)
{
    mainFrame()->load(url);
}

void QWebPageProxy::forbidSockets()
{
    runInAllFrames(QLatin1String(socketRemoval));
}

void QWebPageProxy::watchFor(const QString &className)
{
    runInAllFrames(QStringLiteral("Object.defineProperty(window, '%1', {configurable: true, get: "
                                  "function() { console.log(\"Can't find variable: %1\"); }});")
                       .arg(className));
}

void QWebPageProxy::runInAllFrames(const QString &script)
{
    if (m_scripts.isEmpty()) {
        connect(this, &QWebPage::frameCreated, this, &QWebPageProxy::addFrame);
        addFrame(mainFrame());
    }
    m_scripts += script;
}

/// A frame's scripts get a new global object with every document, and no script runs before the
/// engine has told of it.
void QWebPageProxy::addFrame(QWebFrame *frame)
{
    connect(frame, &QWebFrame::javaScriptWindowObjectCleared, frame, [this, frame] {
        for (const QString &script : qAsConst(m_scripts))
            frame->evaluateJavaScript(script);
    });
}

void QWebPageProxy::stopScripts()
{
    settings()->setAttribute(QWebSettings::JavascriptEnabled, false);
}

void QWebPageProxy::pageLoaded(bool isOk)
{
    emit pageLoadState(isOk);
}

QString QWebPageProxy::userAgentForUrl(const QUrl &) const
{
    // Deliberately that of a desktop browser on another system: sites serve it their plain players.
    return QStringLiteral("Mozilla/5.0 (Windows NT 6.1; WOW64) AppleWebKit/535.2 (KHTML, like "
                          "Gecko) Chrome/15.0.874.121 Safari/535.2");
}

bool QWebPageProxy::shouldInterruptJavaScript()
{
    return ShareMemoryManager::GetInstance()->GetExitFlag();
}

QString QWebPageProxy::chooseFile(QWebFrame *, const QString &)
{
    return {}; // nobody sits in front of the page who could choose one
}

void QWebPageProxy::javaScriptAlert(QWebFrame *, const QString &) { }

void QWebPageProxy::javaScriptConsoleMessage(const QString &text, int, const QString &)
{
    emit consoleMessage(text);
}

bool QWebPageProxy::javaScriptConfirm(QWebFrame *, const QString &)
{
    return true;
}

bool QWebPageProxy::javaScriptPrompt(QWebFrame *, const QString &, const QString &, QString *)
{
    return false;
}
