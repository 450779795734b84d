#ifndef NETWORKCELL_H
#define NETWORKCELL_H

#include "NetworkFaults.h"
#include "WatchedRun.h"

#include <QPointer>

/// A run one of whose transfers meets a fault of the network.
class NetworkCell final : public FaultCell
{
public:
    enum Stage { Page, Probe, Video, ResumedVideo, Thumbnail, Manifest, Bootstrap, Fragment };

    /// @param expected the outcome that is hoped for: a run that is to find no video waits less
    /// long
    NetworkCell(Stage stage, const NetworkFault &fault, const QString &expected);

    void begin() override;
    [[nodiscard]] bool watch() override;
    [[nodiscard]] QString outcome() const override;

private:
    [[nodiscard]] bool isStream() const { return m_stage >= Manifest; }
    [[nodiscard]] QString videoPath() const;
    void servePage();
    void serveVideo();
    void serveStream();
    void serveFaulty(const QByteArray &path, const HttpReply &good);
    void sendFaulty(QTcpSocket *socket, const HttpRequest &request, const HttpReply &good);
    [[nodiscard]] QString judgeVideo(const QString &result) const;
    [[nodiscard]] QString judgeThumbnail() const;
    [[nodiscard]] qint64 stopAfterBytes() const;
    [[nodiscard]] QString judgeStream(const QString &result) const;

    const Stage m_stage;
    const NetworkFault &m_fault;
    const bool m_isVideoHopedFor;
    ScriptedServer m_server;
    QString m_page;
    qint64 m_sentBytes = 0; ///< of faulty answers
    QPointer<QTcpSocket> m_waitingVideo; ///< waits for the end of the thumbnail
    HttpReply m_videoReply;
};

#endif
