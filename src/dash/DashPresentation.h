#ifndef DASHPRESENTATION_H
#define DASHPRESENTATION_H

#include "DashManifest.h"
#include "MediaServers.h"
#include "Presentation.h"
#include "SegmentIndex.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QTimer>

#include <map>
#include <memory>
#include <optional>

class DashSource;
class MediaRequest;

/// A presentation by DASH. A dynamic one is followed: its manifest is asked for again as often as
/// it says, and what the clock makes available is added, until it becomes static or finish() is
/// called.
class DashPresentation final : public Presentation
{
    Q_OBJECT

public:
    DashPresentation(const Wish &wish, const MediaServers &servers, QObject *parent = nullptr);
    ~DashPresentation() override;

    void open() override;
    void finish() override;

    [[nodiscard]] QVector<Rendition> renditions() const override { return m_renditions; }
    [[nodiscard]] QVector<Rendition> chosen() const override { return m_chosen; }
    [[nodiscard]] QVector<TrackSource *> tracks() const override;
    [[nodiscard]] bool isLive() const override { return m_isFollowing; }

private:
    /// What is fetched of a period: an index into its representations by kind, -1 for none.
    struct Choice
    {
        int picture = -1;
        int sound = -1;
    };

    void ask();
    void onManifest();
    void onFirstManifest(const DashManifest &manifest);
    void onUpdate(const std::optional<DashManifest> &manifest);
    void noteTime(const DashManifest &manifest);
    [[nodiscard]] Choice choose(const DashManifest::Period &period) const;
    [[nodiscard]] int pick(const DashManifest::Period &period, Rendition::Kind kind,
                           const QString &codecs) const;
    [[nodiscard]] bool refusesChoices();
    void setChosen();
    void askForIndexes();
    void onIndex(int period, int choice);
    void begin();
    [[nodiscard]] bool extend();
    [[nodiscard]] bool extendBy(DashSource *track, int period, int choice);
    [[nodiscard]] int runOf(const DashManifest::Period &period);
    [[nodiscard]] qint64 nowUs() const;
    void follow();
    void end();
    void fail(Failure failure, const QString &reason);

    const Wish m_wish;
    const MediaServers m_servers;
    std::unique_ptr<MediaRequest> m_request;
    QTimer m_updateTimer; // until the manifest is asked for again
    QTimer m_clockTimer; // until time has made more available
    QElapsedTimer m_sinceManifest;
    QUrl m_address; // of the manifest
    DashManifest m_manifest;
    QVector<Choice> m_choices; // by period
    std::map<QString, int> m_runs; // by period, as far as any has been seen
    /// Those of the first manifest that have one, by period and representation.
    std::map<std::pair<int, int>, std::optional<SegmentIndex>> m_indexes;
    QVector<Rendition> m_renditions;
    QVector<Rendition> m_chosen;
    DashSource *m_picture = nullptr; // children of this object; null when there is none
    DashSource *m_sound = nullptr;
    qint64 m_clockSkewMs = 0; // from this machine's clock to the server's
    int m_failures = 0;
    bool m_isOpened = false;
    bool m_isReady = false;
    bool m_isFollowing = false;
    bool m_isOver = false;
};

#endif
