#ifndef HLSPRESENTATION_H
#define HLSPRESENTATION_H

#include "HlsKeyRing.h"
#include "HlsLoader.h"
#include "Presentation.h"

#include <QVector>

#include <memory>

class HlsSource;

/// What an HLS playlist presents: a master's variants with the sounds that go with them, or the one
/// rendition of a media playlist.
///
/// Of a master one variant is taken, by RenditionChoice::picture(), or by sound() where none has a
/// picture; then one sound of its audio group, by RenditionChoice::sound(). A sound without an
/// address lies in the variant's own segments. Where a group has no default, the first sound that
/// may be taken unasked stands for it. Subtitles and lists of key frames are left out, and the log
/// names them. Variants that are told alike are the same stream from other servers, which are asked
/// when something cannot be had.
class HlsPresentation final : public Presentation
{
    Q_OBJECT

public:
    HlsPresentation(const Wish &wish, const MediaServers &servers, QObject *parent = nullptr);

    void open() override;
    void finish() override;
    [[nodiscard]] QVector<Rendition> renditions() const override { return m_renditions; }
    [[nodiscard]] QVector<Rendition> chosen() const override { return m_chosen; }
    [[nodiscard]] QVector<TrackSource *> tracks() const override;
    [[nodiscard]] bool isLive() const override;

private:
    void onLoaded(const HlsPlaylist &playlist, const QUrl &address);
    void onFailed(Failure failure, const QString &reason);
    void onOpened();
    void present(const HlsPlaylist &master);
    void list(const HlsPlaylist &master);
    [[nodiscard]] int choose(const HlsPlaylist &master) const;
    [[nodiscard]] int chooseSound(const HlsPlaylist &master, const HlsVariant &variant) const;
    void addTrack(const Rendition &rendition, const QVector<QUrl> &addresses,
                  const HlsPlaylist &master);
    HlsSource *addSource();
    void align();
    void setDuration();

    const Wish m_wish;
    const MediaServers m_servers;
    const std::shared_ptr<HlsKeyRing> m_keys;
    HlsLoader m_loader; // of the address that is wished
    QVector<Rendition> m_renditions; // variants, then the master's renditions, in their order
    QVector<Rendition> m_chosen;
    QVector<HlsSource *> m_sources; // children
    int m_openSources = 0;
    bool m_isReady = false;
    bool m_isOver = false; // failed, or not wanted any more before it was ready
};

#endif
