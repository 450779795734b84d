#ifndef FFMPEGOUTPUT_H
#define FFMPEGOUTPUT_H

#include <QByteArray>
#include <QSize>
#include <QString>

/// The play time and the picture size that ffmpeg's description of a media file names. Its text
/// may come from inside the file, so it may say anything.
class FfmpegOutput final
{
public:
    /// Searches one more chunk of output, by itself and up to its first NUL byte. A value that has
    /// been found stays. The time it takes is linear in the chunk's length.
    void read(const QByteArray &chunk);

    /// In whole seconds; 0 while it is unknown.
    [[nodiscard]] int duration() const { return m_duration; }

    /// In pixels; 0 x 0 while it is unknown.
    [[nodiscard]] QSize pictureSize() const { return m_pictureSize; }

private:
    void readDuration(const QString &text);
    void readPictureSize(const QString &text);

    int m_duration = 0;
    QSize m_pictureSize{0, 0};
};

#endif
