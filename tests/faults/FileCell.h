#ifndef FILECELL_H
#define FILECELL_H

#include "PageRun.h"
#include "WatchedRun.h"

#include <QPointer>

#include <vector>

/// A run one of whose files meets a fault of the file system.
class FileCell final : public FaultCell
{
public:
    /// The file that meets the fault.
    enum Target { Video, Thumbnail, Stream, Cache, Log, Csv, Cookies };

    enum Fault {
        FullDevice, ///< the file is a device without space
        FullDisk, ///< the folder is a small file system of its own
        SizeLimit, ///< the system limits the size of files
        FolderInPlace, ///< the file is a folder
        FolderInPlaceMidway, ///< the file is replaced by a folder while it is in use
        FolderGoneMidway, ///< the folder is removed while it is in use
        FileInPlaceOfFolder, ///< the folder is a file
        UnwritableFolder,
        UnwritableFile, ///< the file is there already and may only be read
        FaultCount
    };

    FileCell(Target target, Fault fault);

    void begin() override;
    [[nodiscard]] bool watch() override;
    [[nodiscard]] QString outcome() const override;

private:
    [[nodiscard]] bool isStream() const { return m_target == Stream || m_target == Cache; }
    [[nodiscard]] bool isMidway() const;
    [[nodiscard]] QString folder() const; ///< that of the target
    [[nodiscard]] QString file() const; ///< the target
    [[nodiscard]] QString videoFile() const;
    void serve();
    void serveHeld(const QByteArray &path, const HttpReply &reply);
    void prepareFault();
    void applyMidway();
    [[nodiscard]] bool isInUse() const;
    void release();
    [[nodiscard]] QStringList launcher() const;
    [[nodiscard]] QString judgeVideo(const QString &result) const;

    const Target m_target;
    const Fault m_fault;
    ScriptedServer m_server;
    QString m_page;
    QByteArray m_before; ///< what was in the target before the run
    QPointer<QTcpSocket> m_held; ///< the transfer that waits for the fault
    QByteArray m_heldRest;
    QPointer<QTcpSocket> m_video; ///< waits for the end of the thumbnail
    bool m_isOver = false; ///< what happens midway has happened
};

#endif
