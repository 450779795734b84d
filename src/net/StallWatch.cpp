#include "StallWatch.h"

#include <QNetworkReply>

#include <limits>

StallWatch::StallWatch(QNetworkReply *reply, qint64 limitMs)
    : QObject(reply)
    , m_limitMs(static_cast<int>(qBound<qint64>(0, limitMs, std::numeric_limits<int>::max())))
{
    if (m_limitMs == 0 || reply->isFinished())
        return;
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &StallWatch::onTimeout);
    connect(reply, &QNetworkReply::metaDataChanged, this, &StallWatch::noteLife);
    connect(reply, &QNetworkReply::redirected, this, &StallWatch::noteLife);
    connect(reply, &QNetworkReply::readyRead, this, &StallWatch::noteLife);
    connect(reply, &QNetworkReply::downloadProgress, this, &StallWatch::noteLife);
    connect(reply, &QNetworkReply::uploadProgress, this, &StallWatch::noteLife);
    connect(reply, &QNetworkReply::finished, &m_timer, &QTimer::stop);
    noteLife();
}

qint64 StallWatch::limitOf(int seconds)
{
    return qMax(seconds, 0) * qint64(1000);
}

QString StallWatch::errorText()
{
    return QStringLiteral("The server has fallen silent");
}

void StallWatch::noteLife()
{
    m_isLastLook = false;
    m_timer.start(m_limitMs);
}

void StallWatch::onTimeout()
{
    if (m_isLastLook) {
        emit stalled();
        return;
    }
    // The thread may have been busy for the whole time: what arrived meanwhile is heard first.
    m_isLastLook = true;
    m_timer.start(0);
}
