#ifndef SEGMENTSINK_H
#define SEGMENTSINK_H

#include "OutputFile.h"
#include "RunClass.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <map>
#include <optional>
#include <vector>

/// The file that a stream becomes: takes segments in any order and writes them in ascending order,
/// each at most once. What becomes of a segment there is its subclass's business. Main thread only.
class SegmentSink
{
public:
    virtual ~SegmentSink();

    /// Begins a new file and forgets what belonged to the one before.
    /// @param first the segment that the file starts with; the file waits for it
    void begin(qint64 first);

    /// Closes the file and forgets the segments that still wait.
    void end();

    /// Takes a segment's content, in the place of what was there under that number. An empty one
    /// stands for a segment that was given up: the file goes on without it.
    void take(qint64 number, const QByteArray &content);

    /// As take() with the content of a file, which is read when the segment is written.
    /// @param bytes the size of that file; one of another size, or that cannot be read, makes the
    ///              segment a lost one
    void takeFile(qint64 number, const QString &path, qint64 bytes);

    /// Writes every segment up to the last one whose turn has come. Returns how many, or -1 when
    /// the file cannot be written; that is final for this file.
    int write(qint64 last);

    /// Is asked after each segment that write() writes; false makes it return. It must not call
    /// back into this object.
    void setGoOn(const std::function<bool()> &goOn) { m_goOn = goOn; }

    /// The segment whose turn has come, but whose file holds it no more, if there is one. It is
    /// waited for until it is handed in again.
    [[nodiscard]] bool hasLost() const { return m_hasLost; }
    [[nodiscard]] qint64 lost() const { return m_next; } ///< only when there is one

    /// The number of the segment whose turn it is.
    [[nodiscard]] qint64 next() const { return m_next; }

    /// The bytes of the segments that wait in memory.
    [[nodiscard]] qint64 heldBytes() const { return m_heldBytes; }

    /// The memory of a segment that has been written, for the next one to arrive in: fresh memory
    /// costs the system more than the copy into it. Empty when there is none.
    [[nodiscard]] QByteArray takeSpare();

    /// Whether the file stands under its name with everything that was written: somebody may have
    /// removed or replaced it meanwhile.
    [[nodiscard]] bool isInPlace() const;

    /// Why the file could not be written: Busy, or Disk; none as long as it could.
    [[nodiscard]] std::optional<RunClass> failure() const { return m_failure; }

    /// To be called once the stream's last segment has been written. Returns whether the file is of
    /// any use; why not is a warning.
    [[nodiscard]] virtual bool conclude();

    /// The file's path.
    [[nodiscard]] virtual QString path() const = 0;

    /// What the log calls a segment.
    [[nodiscard]] virtual QString nameOf(qint64 number) const;

protected:
    SegmentSink() = default;
    Q_DISABLE_COPY(SegmentSink)

    /// Called when a new file begins, before its first segment.
    virtual void reset() { }

    /// Writes what comes before the first segment. Returns false when the file cannot be written.
    [[nodiscard]] virtual bool writeHead() { return true; }

    /// Writes a segment; an empty one never came. Returns false when the file cannot be written.
    [[nodiscard]] virtual bool writeSegment(qint64 number, QByteArray &content) = 0;

    /// Whether the file is opened by openFile() once more is known of it, such as its name, and not
    /// before the first segment is written.
    [[nodiscard]] virtual bool opensLate() const { return false; }
    [[nodiscard]] bool openFile(); ///< returns false when that cannot be

    /// Called before a file that has been opened, or would have been yet, is closed, however the
    /// stream ends.
    virtual void beforeClose() { }

    /// Why the last thing that failed did.
    [[nodiscard]] virtual QString errorText() const { return m_file.errorString(); }

    /// Writes bytes at the end of the file, or where it was sought. Returns whether all are
    /// written.
    [[nodiscard]] bool writeBytes(const QByteArray &bytes);
    [[nodiscard]] bool writeBytes(const char *data, qint64 bytes);

    /// Goes to a position in the file. Returns false when that cannot be, as with a pipe.
    [[nodiscard]] bool seekTo(qint64 position) { return m_file.seek(position); }

private:
    /// A segment that waits for its turn.
    struct Waiting
    {
        QByteArray content;
        QString file; ///< where the content is, if it was left there
        qint64 fileBytes = 0;
    };

    bool readBack(Waiting &segment);
    bool writeNext(Waiting &segment);

    std::map<qint64, Waiting> m_waiting; // by number
    qint64 m_next = 1;
    qint64 m_heldBytes = 0;
    std::vector<QByteArray> m_spares;
    OutputFile m_file;
    std::function<bool()> m_goOn;
    bool m_hasLost = false;
    bool m_hasFailed = false;
    std::optional<RunClass> m_failure;
};

#endif
