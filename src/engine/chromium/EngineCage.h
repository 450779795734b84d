#ifndef ENGINECAGE_H
#define ENGINECAGE_H

#include <QByteArray>
#include <QVector>

#include <string>

/// What an engine that is a program of its own is shut into: namespaces of its own for users,
/// mounts, processes and shared memory, a home and a temporary folder that are empty and in memory,
/// the files of the system and none of the user's, and the system calls that it needs. Where the
/// system forbids one of these, the others hold.
///
/// For a process without threads, and to be used in this order: enter() in the process whose child
/// becomes the first of the cage, furnish() in that child, close() in the one that becomes the
/// engine.
class EngineCage final
{
public:
    /// @param program the engine    @param ports that may be connected to over TCP; empty for all
    EngineCage(const QByteArray &program, const QVector<quint16> &ports);

    /// Has the children that are forked from now on live in namespaces of their own.
    void enter();

    /// Makes the empty folders.
    void furnish();

    /// Confines the calling process for good. Returns whether it may go on.
    [[nodiscard]] bool close() const;

    /// Removes what furnish() has made. Nothing of the engine may be running any more.
    void tidy() const;

    /// The engine's switches that depend on the cage.
    [[nodiscard]] QVector<QByteArray> switches() const;
    [[nodiscard]] QVector<QByteArray> environment() const;

private:
    [[nodiscard]] bool mountFolders() const;
    void confineFiles() const;

    const QByteArray m_program;
    const QVector<quint16> m_ports;
    bool m_hasNamespaces = false;
    std::string m_folder; ///< home and temporary folder
    bool m_isFolderOnDisk = false;
};

#endif
