#ifndef PARTFILE_H
#define PARTFILE_H

#include "ContentHash.h"
#include "FileOrigin.h"
#include "OutputFile.h"

#include <QElapsedTimer>

/// A file on its way: its bytes gather in NAME.part, and with a journal beside it, NAME.part.json,
/// a later run can go on with them. Only what is whole gets the name. While one run has the part
/// open no other one can.
///
/// The journal tells where the bytes come from, how many of them are certain, and their sum. It is
/// written anew a few times a second; what a run that was killed has added since counts for
/// nothing.
class PartFile final
{
public:
    /// @param path the name that the whole file gets    @param keepsJournal for later runs
    PartFile(const QString &path, bool keepsJournal);
    ~PartFile();
    Q_DISABLE_COPY(PartFile)

    /// Opens the part, or makes one. Returns false when another run is writing the part or the file
    /// itself, or when it cannot be opened; isTaken() tells one from the other.
    [[nodiscard]] bool open();

    /// Takes up what the journal knows of an earlier run, if all of it is still as it was. The part
    /// is read to see that, which takes its time. Returns whether there is anything.
    [[nodiscard]] bool takeUp();

    /// Begins with nothing, for bytes from there. Returns false when the disk does not do it.
    [[nodiscard]] bool begin(const FileOrigin &origin);

    /// Adds bytes. Returns false when they cannot be written.
    [[nodiscard]] bool write(const char *data, qint64 bytes);

    /// The last bytes, read from the disk; fewer when it fails.
    [[nodiscard]] QByteArray last(qint64 bytes);

    /// Writes the journal, so that what is there now counts.
    void noteInJournal();

    /// Gives the file its name, in the place of what has it. Returns false when that cannot be, and
    /// leaves what is there alone while another run is writing it.
    [[nodiscard]] bool finish();

    [[nodiscard]] bool isTaken() const { return m_isTaken; }
    [[nodiscard]] QString path() const { return m_partPath; } ///< of the part
    [[nodiscard]] const FileOrigin &origin() const { return m_origin; }
    [[nodiscard]] qint64 bytes() const { return m_hash.bytes(); }
    [[nodiscard]] QByteArray sum() const { return m_hash.sum(); } ///< SHA-256 of the bytes

private:
    [[nodiscard]] QString journalPath() const;
    [[nodiscard]] bool holds(qint64 bytes, const QByteArray &sum);

    const QString m_path;
    const QString m_partPath;
    const bool m_keepsJournal;
    OutputFile m_file;
    FileOrigin m_origin;
    ContentHash m_hash; ///< of all bytes in the part
    QElapsedTimer m_sinceNote;
    bool m_isTaken = false;
};

#endif
