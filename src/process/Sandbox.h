#ifndef SANDBOX_H
#define SANDBOX_H

#include <QString>
#include <QStringList>
#include <QVector>

class Landlock;

/// The sandbox of a page run, which opens pages that nobody trusts. Inside it the process may
/// write below its output folder, its own cache folder and the cookie file's folder; read those,
/// the system's libraries and public data and a few named files of the user's; start no program,
/// serve no port and reach no other process. Downloading is not touched.
class Sandbox final
{
public:
    /// @param outputFolder an existing folder
    /// @param usesDisplay whether the toolkit will talk to a display, for which it needs local
    /// sockets and the graphics devices
    Sandbox(const QString &outputFolder, bool usesDisplay);

    /// Names a file or folder of the output folder, which may be a link that leads out of it.
    void allowLinkTarget(const QString &path);

    /// Names one file that may be read, wherever it lies. A folder is none.
    void allowReading(const QString &path);

    /// Lets the run be heard; without this its sound goes nowhere.
    void allowSound();

    /// Confines the run's connections over TCP to a proxy's port and, where the display is reached
    /// over the network, the display's.
    void confineToProxy(quint16 port);

    /// Confines the calling thread and those that it starts later, for good. To be called while
    /// there is no other thread. Makes the run's own folders when they are missing
    /// and sets the variables that keep the toolkit to them. Returns what stays open because the
    /// system does not offer its closing, or because the folders include too much, a phrase each.
    [[nodiscard]] QStringList confine();

private:
    void prepareFolders();
    void prepareMediaFramework() const;
    void addRules(Landlock &rules) const;
    void addSystem(Landlock &rules) const;
    void addUserFiles(Landlock &rules) const;
    void addDisplay(Landlock &rules) const;
    [[nodiscard]] QStringList wideFolders() const;

    const QString m_outputFolder;
    const bool m_usesDisplay;
    QStringList m_linkTargets;
    QVector<quint16> m_ports; ///< that may be connected to; empty for all
    QStringList m_readableFiles;
    bool m_mayPlaySound = false;
    QString m_cacheFolder; ///< empty when it cannot be made
    QString m_cookieFile;
};

#endif
