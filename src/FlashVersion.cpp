#include "FlashVersion.h"

#include <QFile>
#include <QUrl>
#include <QWebFrame>
#include <QWebSettings>

#include "PluginGuard.h"

/// A resource inside a static library is linked in only when its name is mentioned. The macro
/// cannot stand inside a namespace.
static void useResource()
{
    Q_INIT_RESOURCE(flashver);
}

CFlashVersion::CFlashVersion()
{
    m_page.setPluginFactory(new PluginGuard(this));
}

void CFlashVersion::load()
{
    QWebSettings *const settings = QWebSettings::globalSettings();
    settings->setDefaultTextEncoding(QStringLiteral("UTF-8"));
    for (const QWebSettings::WebAttribute attribute :
         {QWebSettings::AutoLoadImages, QWebSettings::DnsPrefetchEnabled,
          QWebSettings::JavascriptEnabled, QWebSettings::PluginsEnabled,
          QWebSettings::JavascriptCanOpenWindows, QWebSettings::ZoomTextOnly})
        settings->setAttribute(attribute, true);

    // Queued, as the engine may finish inside setHtml(), before the caller waits for the signal.
    connect(&m_page, &QWebPage::loadFinished, this, &CFlashVersion::finishLoading,
            Qt::QueuedConnection);
    m_page.mainFrame()->setHtml(loadHtml(), QUrl());
}

QString CFlashVersion::loadHtml() const
{
    useResource();
    QFile file(QStringLiteral(":/res/flashver.htm"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromLatin1(file.readAll());
}

QString CFlashVersion::getVersion() const
{
    return m_version;
}

void CFlashVersion::finishLoading(bool isLoaded)
{
    Q_UNUSED(isLoaded) // what the page wrote so far counts
    m_version = m_page.mainFrame()->toPlainText().trimmed();
    emit versionInfoReady();
}
