#ifndef HDSPRESENTATION_H
#define HDSPRESENTATION_H

#include "HdsBootstrap.h"
#include "HdsManifest.h"
#include "MediaServers.h"
#include "Presentation.h"

#include <QElapsedTimer>
#include <QTimer>

#include <functional>
#include <memory>

class HdsTrack;
class MediaRequest;

/// A presentation by HTTP Dynamic Streaming: of its renditions one is fetched, with the sound that
/// is in it. A live one is followed: its bootstrap is asked for again, until that is complete or
/// finish() is called.
class HdsPresentation final : public Presentation
{
    Q_OBJECT

public:
    HdsPresentation(const Wish &wish, const MediaServers &servers, QObject *parent = nullptr);
    ~HdsPresentation() override;

    void open() override;
    void finish() override;

    [[nodiscard]] QVector<Rendition> renditions() const override { return m_renditions; }
    [[nodiscard]] QVector<Rendition> chosen() const override { return {m_chosen.rendition}; }
    [[nodiscard]] QVector<TrackSource *> tracks() const override;
    [[nodiscard]] bool isLive() const override { return m_isFollowing; }

    /// An FLV file, which is what fragments are pieces of.
    [[nodiscard]] std::unique_ptr<TrackSink>
    makeSink(const MergedSource &source, const TrackSink::Target &target) const override;

private:
    void ask(const QUrl &url, qint64 maxBytes, const std::function<void()> &onAnswer);
    void onEnded();
    void onManifest();
    void dropUnfit();
    void choose();
    [[nodiscard]] int best() const;
    [[nodiscard]] int nextToRead() const;
    void readChild(int index);
    void onChild(int index);
    void askForBootstrap();
    void begin(const QByteArray &bootstrap);
    void follow();
    void refresh();
    void onRefreshed();
    [[nodiscard]] QByteArray bootstrapIn(const QByteArray &answer, QString &reason) const;
    void end();
    void fail(Failure failure, const QString &reason);

    const Wish m_wish;
    const MediaServers m_servers;
    std::unique_ptr<MediaRequest> m_request;
    std::function<void()> m_onAnswer; // to that
    QTimer m_timer; // until something is asked for again
    QElapsedTimer m_sinceBootstrap;
    QUrl m_asked;
    qint64 m_askedBytes = 0; // that may come of it
    QVector<HdsManifest::Media> m_media; // those that are left
    QVector<Rendition> m_renditions;
    HdsManifest::Media m_chosen;
    HdsTrack *m_track = nullptr; // child of this object
    qint64 m_childBytes = 0;
    int m_children = 0; // that have been read
    int m_failures = 0; // of what is being asked for
    int m_refreshMs = 0;
    bool m_isOpened = false;
    bool m_isReady = false;
    bool m_isFollowing = false;
    bool m_isOver = false;
};

#endif
