#ifndef QWEBPAGEPROXY_H
#define QWEBPAGEPROXY_H

#include <QWebPage>

/// The page of a run: a fixed user agent, script dialogs that never wait for anybody, and scripts
/// that can be interrupted once the host wants the run to end.
class QWebPageProxy final : public QWebPage
{
    Q_OBJECT

public:
    explicit QWebPageProxy(QObject *parent = nullptr);
    ~QWebPageProxy() override;

    /// Loads an address into the main frame.
    void load(const QUrl &url);

    /// Takes from the scripts of all frames, also of those that they make, what reaches servers
    /// past the page's network manager, and so past its proxy. To be called before anything is
    /// loaded.
    void forbidSockets();

    /// Has the scripts of all frames that ask for a class by its name be told of as a failure. To
    /// be called before anything is loaded.
    void watchFor(const QString &className);

    /// From now on no script of the page runs, not even those that wait for its end.
    void stopScripts();

    bool shouldInterruptJavaScript() override;

signals:
    void pageLoadState(bool isOk);

    /// A script has written to the console, as the engine does when it understands or finds
    /// something not.
    void consoleMessage(const QString &text);

public slots:
    void pageLoaded(bool isOk);

private slots:
    void addFrame(QWebFrame *frame);

protected:
    QString userAgentForUrl(const QUrl &url) const override;
    QString chooseFile(QWebFrame *frame, const QString &suggestedFile) override;
    void javaScriptAlert(QWebFrame *frame, const QString &text) override;
    bool javaScriptConfirm(QWebFrame *frame, const QString &text) override;
    bool javaScriptPrompt(QWebFrame *frame, const QString &text, const QString &defaultValue,
                          QString *result) override;
    void javaScriptConsoleMessage(const QString &text, int line, const QString &source) override;

private:
    void runInAllFrames(const QString &script);

    QStringList m_scripts; ///< run in every frame before its own
};

#endif
