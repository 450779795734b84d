#ifndef HLSLOADER_H
#define HLSLOADER_H

#include "HlsPlaylist.h"
#include "MediaRequest.h"
#include "Presentation.h"

#include <QObject>
#include <QTimer>
#include <QUrl>
#include <QVector>

/// Fetches a playlist and reads it, one at a time. What cannot be had is tried a few times more,
/// and then at the next address that has the same. It may be destroyed at any time but from a slot
/// of its signals.
class HlsLoader final : public QObject
{
    Q_OBJECT

public:
    explicit HlsLoader(const MediaServers &servers, QObject *parent = nullptr);

    /// Begins, in the place of what is under way. One of the signals follows, never from inside
    /// this call.
    /// @param addresses of the same playlist, the best first; at least one
    /// @param imports the variables of the master that names it
    void load(const QVector<QUrl> &addresses, const HlsVariables &imports = HlsVariables());

    /// Stops; no signal follows.
    void cancel();

signals:
    /// A playlist that can be used has come.
    /// @param address the one that was asked, which is asked again for news
    void loaded(const HlsPlaylist &playlist, const QUrl &address);

    void failed(Presentation::Failure failure, const QString &reason);

private:
    void ask();
    void onEnded();
    void onMissed(Presentation::Failure failure, const QString &reason, bool isFinal);

    MediaRequest m_request;
    QTimer m_pause;
    QVector<QUrl> m_addresses;
    HlsVariables m_imports;
    int m_index = 0; // of the address
    int m_tries = 0; // at that address
    bool m_isLoading = false;
};

#endif
