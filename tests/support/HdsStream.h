#ifndef HDSSTREAM_H
#define HDSSTREAM_H

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

/// An HTTP Dynamic Streaming stream made by ffmpeg: a source file and its fragments, in a folder
/// of its own, ready to be served.
class HdsStream final
{
public:
    /// @param folder is created when it is not there
    explicit HdsStream(const QString &folder);

    /// Encodes a test picture and a test tone and cuts them into fragments.
    /// @param encoding ffmpeg's output options; "-vn" or "-an" leaves one of the two out. Bit rates
    ///                 must be given, since the stream needs them.
    bool make(const QStringList &encoding, int seconds, int fragmentMs);

    /// The file that the fragments were cut from.
    [[nodiscard]] QString sourceFile() const;

    /// The number of fragments.
    [[nodiscard]] int fragmentCount() const;

    /// A manifest with the bootstrap inside it.
    /// @param prefix goes before the stream's name, such as "folder/" or an address
    [[nodiscard]] QByteArray manifest(const QString &prefix = QString()) const;

    /// Writes manifest() to a file in the folder.
    bool writeManifest(const QString &name, const QString &prefix = QString()) const;

    /// What one packet of a file is: its time from that of the stream's first packet, in
    /// milliseconds, and its size and hash.
    struct Packet
    {
        qint64 timeMs;
        QByteArray payload;
        bool operator==(const Packet &other) const
        {
            return timeMs == other.timeMs && payload == other.payload;
        }
    };

    /// The packets of a file's stream ("v" or "a"), in order, as ffmpeg reads them.
    [[nodiscard]] static QList<Packet> packets(const QString &file, const QString &stream);

    /// What ffmpeg has to say against a file when it decodes it; empty for a sound one.
    [[nodiscard]] static QByteArray complaints(const QString &file);

private:
    QString m_folder;
};

#endif
