#ifndef PARTFILE_H
#define PARTFILE_H

#include "BackgroundHash.h"
#include "FileOrigin.h"
#include "OutputFile.h"

#include <QElapsedTimer>

#include <map>

class QJsonArray;

/// A file on its way: its bytes gather in NAME.part, and with a journal beside it, NAME.part.json,
/// a later run can go on with them. Only what is whole gets the name. While one run has the part
/// open no other one can.
///
/// The journal tells where the bytes come from, how many of them are certain, and their sum. It is
/// written anew a few times a second; what a run that was killed has added since counts for
/// nothing.
///
/// The bytes from the first one on are the front. Where several connections bring the file there
/// are runs of bytes ahead of it, with gaps before them, which the front takes up when it has
/// reached them. So the sum of the whole is made while the file comes, and not at its end.
class PartFile final
{
public:
    /// What came of taking up bytes that were ahead.
    enum class Joined {
        All, ///< nothing ahead touches the front
        Some, ///< there is more
        Foreign, ///< what is ahead is of something else
        Unreadable
    };

    /// So many bytes before a place tell whether what comes from there on is of the same content:
    /// a server that says it sends the rest and sends something else is found out by them.
    static constexpr qint64 leadBytes = 16 * 1024;

    static constexpr int mostRuns = 200; ///< ahead, that the journal has room for

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

    /// Adds bytes to the front. Returns false when they cannot be written.
    [[nodiscard]] bool write(const char *data, qint64 bytes)
    {
        return writeAt(this->bytes(), data, bytes);
    }

    /// Says that bytes are to come from a position on, and what the same answer has before them:
    /// leadBytes, or all from the first one on. Returns false when something else is there; what is
    /// not there yet is compared when it has come.
    [[nodiscard]] bool beginAt(qint64 position, const QByteArray &lead);

    /// Adds bytes where the front ends, a run ends or beginAt() has begun one. Returns false when
    /// they cannot be written, as where there are some already.
    [[nodiscard]] bool writeAt(qint64 position, const char *data, qint64 bytes);

    /// Whether the front has reached a run.
    [[nodiscard]] bool canJoin() const;

    /// Takes up what the front has reached, which is read for its sum: so many bytes at the most.
    [[nodiscard]] Joined join(qint64 maxBytes);

    /// Calls the function with the first byte of each run ahead and the one past its last.
    template <typename Function> void eachRun(Function function) const
    {
        for (const auto &[first, run] : m_ahead)
            function(first, first + run.bytes);
    }

    [[nodiscard]] int runCount() const { return static_cast<int>(m_ahead.size()); }

    /// Where the first run ahead begins; -1 when there is none.
    [[nodiscard]] qint64 firstAhead() const;

    /// The last bytes of the front, read from the disk; fewer when it fails.
    [[nodiscard]] QByteArray last(qint64 bytes);

    /// Writes the journal, so that what is there now counts.
    void noteInJournal();

    /// Gives the file its name, in the place of what has it. Returns false when that cannot be, and
    /// leaves what is there alone while another run is writing it.
    [[nodiscard]] bool finish();

    [[nodiscard]] bool isTaken() const { return m_isTaken; }
    [[nodiscard]] QString path() const { return m_partPath; } ///< of the part
    [[nodiscard]] const FileOrigin &origin() const { return m_origin; }
    [[nodiscard]] qint64 bytes() const { return m_hash.bytes(); } ///< of the front
    [[nodiscard]] qint64 gatheredBytes() const; ///< with those ahead of it
    [[nodiscard]] QByteArray sum() const { return m_hash.sum(); } ///< SHA-256 of the front

private:
    /// Bytes ahead of the front.
    struct Run
    {
        QByteArray leadSum; ///< of what is before them; empty when it has been compared
        qint64 bytes = 0;
        ContentHash hash{}; ///< of the bytes, if there is a journal that tells it
    };

    using Runs = std::map<qint64, Run>; ///< by their first bytes, none over another

    [[nodiscard]] QString journalPath() const;
    template <typename Hash> [[nodiscard]] bool readInto(Hash &hash, qint64 position, qint64 bytes);
    void takeUpAhead(const QJsonArray &runs);
    [[nodiscard]] QJsonArray runsAsJson() const;
    [[nodiscard]] QByteArray bytesBefore(qint64 position, qint64 bytes);
    [[nodiscard]] Run *runThatEndsAt(qint64 position);
    [[nodiscard]] bool isFree(qint64 position, qint64 bytes) const;

    const QString m_path;
    const QString m_partPath;
    const bool m_keepsJournal;
    OutputFile m_file;
    FileOrigin m_origin;
    BackgroundHash m_hash; ///< of the front
    Runs m_ahead;
    QElapsedTimer m_sinceNote;
    bool m_isTaken = false;
};

#endif
