#ifndef MEDIAFILES_H
#define MEDIAFILES_H

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

/// Media for tests, made by ffmpeg, and what ffmpeg and ffprobe say of media. A call that fails
/// ends the test program.
class MediaFiles final
{
public:
    MediaFiles() = delete;

    /// Runs ffmpeg in a folder, without its usual chatter.
    static void ffmpeg(const QStringList &arguments, const QString &folder);

    /// What makes a picture that moves and a tone, as two inputs of ffmpeg.
    [[nodiscard]] static QStringList testInputs(int seconds, const QString &size);

    /// What makes H.264 with B frames, a key frame every second, and AAC of those.
    [[nodiscard]] static QStringList usualCodecs();

    /// The packets of a stream of the file ("v:0", "a:0"), in their order: a hash of each.
    [[nodiscard]] static QList<QByteArray> packets(const QString &path, const QByteArray &stream);

    /// The times of those packets, as they are decoded (or shown), in seconds.
    [[nodiscard]] static QList<double> times(const QString &path, const QByteArray &stream,
                                             bool areShown = false);

    /// Hashes of the decoded frames of a stream.
    [[nodiscard]] static QList<QByteArray> frames(const QString &path, const QByteArray &stream);

    /// What ffmpeg has to complain of when it decodes all of the file.
    [[nodiscard]] static QByteArray complaints(const QString &path);

    /// One value of ffprobe, such as "format=duration".
    [[nodiscard]] static QByteArray probe(const QString &path, const QByteArray &entry);
};

#endif
