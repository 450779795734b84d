#ifndef FLASHVERSION_H
#define FLASHVERSION_H

#include <QObject>
#include <QString>
#include <QWebPage>

/// Finds out which version of the Flash player plug-in the web engine can use, by a small page
/// whose script asks the plug-in and writes the answer into the page.
class CFlashVersion final : public QObject
{
    Q_OBJECT

public:
    CFlashVersion();

    /// Loads the page. versionInfoReady() comes later, from the event loop; there is no time-out.
    void load();

    /// The page's text, from the program's resources; empty when it cannot be read.
    [[nodiscard]] QString loadHtml() const;

    /// Three numbers with points between them, 0.0.0 without a plug-in; empty while it is unknown.
    [[nodiscard]] QString getVersion() const;

signals:
    void versionInfoReady();

private slots:
    void finishLoading(bool isLoaded);

private:
    Q_DISABLE_COPY(CFlashVersion)

    QWebPage m_page;
    QString m_version;
};

#endif
