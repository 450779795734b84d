#include "PluginGuard.h"

#include <QGuiApplication>

PluginGuard::PluginGuard(QObject *parent)
    : QWebPluginFactory(parent)
{
}

QList<QWebPluginFactory::Plugin> PluginGuard::plugins() const
{
    return {};
}

QObject *PluginGuard::create(const QString &mimeType, const QUrl &url,
                             const QStringList &argumentNames,
                             const QStringList &argumentValues) const
{
    Q_UNUSED(mimeType)
    Q_UNUSED(url)
    Q_UNUSED(argumentNames)
    Q_UNUSED(argumentValues)
    if (QGuiApplication::platformName() == QLatin1String("xcb"))
        return nullptr;
    return new QWidget(m_owner.get());
}
