#ifndef FRAMEREADER_H
#define FRAMEREADER_H

#include "DevTools.h"
#include "PageSnapshot.h"

#include <QObject>
#include <QTimer>
#include <QVector>

/// Reads the documents of all frames of a page, cross-site ones included, from script worlds of its
/// own, which the page's scripts do not see. Ends a script that holds it up. Main thread.
class FrameReader final : public QObject
{
    Q_OBJECT

public:
    using Take = std::function<void(const QJsonValue &value)>;

    /// @param tools outlives this object
    explicit FrameReader(DevTools &tools, QObject *parent = nullptr);

    /// @param session of the page    Before the first read().
    void setSession(const QString &session) { m_session = session; }

    /// A cross-site frame of the page is there, or gone; its document lives in a process of its
    /// own.
    void addSite(const QString &session);
    void removeSite(const QString &session);

    /// Reads the page, which ready() tells within two seconds. While it is being read, this does
    /// nothing.
    void read();

    /// Runs a script in a frame reader's world of the page's main frame.
    /// @param take gets the script's value; called once, unless the page hangs
    void evaluate(const QString &script, const Take &take);

    /// Tells nothing any more.
    void stop();

signals:
    void ready(const PageSnapshot &snapshot);

private:
    void readSession(const QString &session);
    void readFrame(const QString &session, const QString &frame, int place);
    void evaluateIn(const QString &session, const QString &frame, const QString &script,
                    const Take &take);
    void begin() { ++m_pending; }
    void end();
    void tell();

    DevTools &m_tools;
    const QString m_script;
    QString m_session;
    QStringList m_sites; ///< sessions of cross-site frames
    QVector<QJsonObject> m_parts; ///< of the frames, the page's own first
    int m_round = 0; ///< answers of an earlier one are not heard any more
    int m_pending = 0;
    bool m_isReading = false;
    QTimer m_patience; ///< with the page's scripts
    QTimer m_limit;
};

#endif
