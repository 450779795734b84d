#ifndef LANDLOCK_H
#define LANDLOCK_H

#include <QString>
#include <QStringList>
#include <QVector>

/// A set of rules for the kernel's file system sandbox, which a thread enters for good, with all
/// that it starts later. What no rule allows is refused: reading, writing,
/// starting programs, serving over TCP and, from the kernel that can, controlling devices and
/// sending signals to processes outside. Connections over TCP are free unless they are confined.
/// What is open already stays usable.
///
/// Not for use by several threads at once.
class Landlock final
{
public:
    /// What a rule allows on a file, or on a folder and everything below it.
    enum class Access {
        Read, ///< read files, list folders
        Write, ///< as Read; also make, write and remove files, and make folders
        Device, ///< read, write and control device files
        Remove, ///< remove files, but make, read and write none
        Run ///< as Read; also start programs
    };

    Landlock();
    ~Landlock();
    Q_DISABLE_COPY(Landlock)

    /// The version of the interface that this kernel offers; 0 for none.
    [[nodiscard]] static int offeredVersion();

    /// Allows sockets of the abstract kind that processes outside have opened; call it before
    /// allow().
    void allowAbstractSockets();

    /// Refuses connections over TCP but to these ports, on whatever host, from the kernel that can
    /// (version 4); call it before allow().
    void confineConnections(const QVector<quint16> &ports);

    /// Adds a rule. A path that does not exist, or that cannot be opened, is left out: what is not
    /// there needs no rule. Links are followed.
    void allow(const QString &path, Access access);

    /// Confines the calling thread, which must have given up new privileges.
    /// Returns false when the kernel does not offer that or refuses; nothing is refused then.
    [[nodiscard]] bool enforce();

    /// Whether that version can confine connections.
    [[nodiscard]] static bool confinesConnections(int version);

    /// What that version leaves open, a phrase each.
    [[nodiscard]] static QStringList gapsOf(int version);

private:
    void create();
    void allowPorts() const;

    const int m_version;
    bool m_mayUseAbstractSockets = false;
    bool m_areConnectionsConfined = false;
    QVector<quint16> m_ports; ///< that may be connected to, if connections are confined
    int m_rules = -1; ///< descriptor of the kernel's object
};

#endif
