#ifndef PLUGINGUARD_H
#define PLUGINGUARD_H

#include <memory>

#include <QWebPluginFactory>
#include <QWidget>

/// Keeps a page from starting browser plug-ins where that would crash the process.
///
/// The engine gives a plug-in an X11 window without asking whether there is an X11 display. Where
/// the program runs without one, every plug-in that a page embeds is replaced by an empty widget;
/// pages still see the plug-ins that are installed, with their descriptions.
class PluginGuard final : public QWebPluginFactory
{
    Q_OBJECT

public:
    explicit PluginGuard(QObject *parent = nullptr);

    /// No plug-ins besides those that the engine finds.
    [[nodiscard]] QList<Plugin> plugins() const override;

    /// The widget in a plug-in's place, owned by the guard until the engine takes it; null where
    /// the engine may start the plug-in itself.
    QObject *create(const QString &mimeType, const QUrl &url, const QStringList &argumentNames,
                    const QStringList &argumentValues) const override;

private:
    Q_DISABLE_COPY(PluginGuard)

    const std::unique_ptr<QWidget> m_owner = std::make_unique<QWidget>(); // never shown
};

#endif
