#ifndef STALLWATCH_H
#define STALLWATCH_H

#include <QObject>
#include <QTimer>

class QNetworkReply;

/// Watches a request for silence: nothing has come for it, neither a header nor a byte of its body,
/// for longer than a limit. A header counts once it is whole. The watch belongs to the reply, on
/// whose thread it lives, and ends with it; that thread needs a running event loop.
class StallWatch final : public QObject
{
    Q_OBJECT

public:
    /// Starts to watch. @param limitMs with 0 or less there is no limit, and nothing is watched
    StallWatch(QNetworkReply *reply, qint64 limitMs);

    /// The limit in milliseconds for a number of seconds as a caller gives it; 0 for none.
    [[nodiscard]] static qint64 limitOf(int seconds);

    /// What a timeout error that comes of silence says.
    [[nodiscard]] static QString errorText();

signals:
    /// The limit has passed. Sent at most once, and never after the end of the request.
    void stalled();

private:
    void noteLife();
    void onTimeout();

    QTimer m_timer;
    int m_limitMs;
    bool m_isLastLook = false;
};

#endif
