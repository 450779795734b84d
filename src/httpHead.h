#ifndef HTTPHEAD_H
#define HTTPHEAD_H

#include "FfmpegOutput.h"

#include <QObject>
#include <QProcess>
#include <QSize>
#include <QTimer>

/// Learns the play time and the picture size of one media file from what the external program
/// "./import/bin/ffmpeg" (in the working folder) prints about it. Its output is searched in chunks,
/// each by itself; a chunk ends where the program pauses.
///
/// One probe per object. There is no time-out, and a program that cannot be started ends without a
/// signal: the caller must not wait for ever. A running probe ends with its object.
class HttpHead final : public QObject
{
    Q_OBJECT

public:
    /// @param url the file's address or path, as ffmpeg takes it
    explicit HttpHead(const QString &url);
    ~HttpHead() override;

    /// Starts the probe and returns at once.
    void callffmpeg();

    /// In whole seconds; 0 while it is unknown.
    [[nodiscard]] int getVideoDuration() const;

    /// In pixels; 0 x 0 while it is unknown.
    [[nodiscard]] QSize getVideoSolution() const; // sic: part of the interface

signals:
    /// The program has ended, in whatever way.
    void getHeadInfoFinished();

private slots:
    void onStdoutReady();
    void onProcessFinished(int exitCode, QProcess::ExitStatus exitStatus);

private:
    Q_DISABLE_COPY(HttpHead)

    void readChunk();

    QProcess m_process{this};
    QTimer m_pause{this}; // runs from the latest output on; where it ends, a chunk ends
    const QString m_url;
    FfmpegOutput m_output;
};

#endif
