#ifndef PAGETRAFFIC_H
#define PAGETRAFFIC_H

#include "DevTools.h"
#include "RunOptions.h"

#include <QHash>
#include <QJsonArray>
#include <QObject>
#include <QUrl>

#include <memory>

/// All that a page asks servers for, whatever part of it asks: every request and every reply waits
/// until it has been looked at here. Only http and https leave. Pictures are not loaded unless they
/// are wanted, and of long media the page gets the beginning, which is all that a run needs.
///
/// Main thread.
class PageTraffic final : public QObject
{
    Q_OBJECT

public:
    /// @param tools outlives this object
    PageTraffic(DevTools &tools, const RunOptions &options, QObject *parent = nullptr);

    /// From now on everything is looked at.
    void begin();

    /// The name that the engine gives itself at servers. Requests by which it would give another
    /// one get this, too.
    void setUserAgent(const QString &userAgent) { m_userAgent = userAgent; }

    /// Refuses everything from now on.
    void stop() { m_isStopped = true; }

signals:
    void requestSeen(const QString &url);
    void replySeen(const QString &url, qint64 size, const QString &contentType);
    void sizeUntold(const QString &url);
    void replyEnded();

private:
    struct Reply;
    struct Cut;

    void onEvent(const QString &method, const QJsonObject &parameters);
    void onRequest(const QString &id, const QJsonObject &event);
    void onReply(const QString &id, const QJsonObject &event);
    void passOn(const QString &id, const QJsonObject &request);
    void refuse(const QString &id);
    void answer(const QString &id, int status, const QString &contentType, const QByteArray &body);
    void answerFile(const QString &id, const QUrl &url);
    void noteHeaders(const QUrl &url, const QJsonObject &headers) const;
    void cut(const QString &id, const Reply &reply);
    void readOn(const std::shared_ptr<Cut> &cut);
    void finish(const std::shared_ptr<Cut> &cut);

    DevTools &m_tools;
    const RunOptions m_options;
    const QUrl m_pageFile; ///< the page, if it is a file of this machine
    QString m_userAgent;
    QHash<QString, int> m_cuts; ///< how often the reply of an address has been cut
    bool m_isStopped = false;
};

#endif
