#ifndef OUTPUTFILE_H
#define OUTPUTFILE_H

#include <QFile>
#include <QString>

/// A file that a run writes, and that no other run writes meanwhile: it holds an advisory lock
/// (flock) from open() to close(). What is written reaches the system at once.
///
/// Symbolic links are followed to their end, dangling ones included, and stay. Devices and pipes
/// are written as they are and not locked; nothing here waits for a reader of a pipe.
class OutputFile final
{
public:
    enum class Mode {
        Update, ///< writes anywhere in the file that is there, or begins one; reads it, too
        Append, ///< adds to the file that is there, or begins one
        /// Begins a new file. One that is there is removed first, so that its other names keep
        /// what it holds and neither a pipe nor its permissions are in the way; devices are not.
        /// Where it cannot be removed (the folder is not to be written) it is emptied instead.
        Replace
    };

    OutputFile() = default;
    Q_DISABLE_COPY(OutputFile)

    /// Opens and locks the file, and closes the one before. Returns false, and leaves alone what is
    /// there, when another run is writing it or it cannot be opened; errorString() says why.
    [[nodiscard]] bool open(const QString &path, Mode mode);

    /// Closes the file and gives the lock up.
    void close() { m_file.close(); }

    /// Goes back to the first byte, to write over what is there. Returns false when that cannot be.
    [[nodiscard]] bool rewind();

    /// Goes to a byte, to read or write there. Returns false when that cannot be.
    [[nodiscard]] bool seek(qint64 position) { return m_file.seek(position); }

    /// The next bytes of a file that is opened for Update; fewer at its end, none after an error.
    [[nodiscard]] QByteArray read(qint64 bytes) { return m_file.read(bytes); }

    /// Cuts the file to a number of bytes. Returns false when that cannot be.
    [[nodiscard]] bool resize(qint64 bytes) { return m_file.resize(bytes); }

    /// Returns whether all of the bytes are written.
    [[nodiscard]] bool write(const char *data, qint64 bytes)
    {
        return m_file.write(data, bytes) == bytes;
    }

    [[nodiscard]] bool isOpen() const { return m_file.isOpen(); }
    [[nodiscard]] qint64 size() const { return m_file.size(); } ///< in bytes
    [[nodiscard]] qint64 pos() const { return m_file.pos(); } ///< in bytes
    [[nodiscard]] QString path() const { return m_file.fileName(); }

    /// Whether the file could not be opened because another run is writing it.
    [[nodiscard]] bool isTaken() const { return m_isTaken; }

    /// Why the last thing that failed did.
    [[nodiscard]] QString errorString() const;

    /// Whether another run, or another object of this one, is writing the file.
    [[nodiscard]] static bool isBeingWritten(const QString &path);

    /// Whether a file stands under that path with at least so many bytes.
    [[nodiscard]] static bool isInPlace(const QString &path, qint64 bytes);

private:
    QFile m_file;
    QString m_openError;
    bool m_isTaken = false;
};

#endif
