#ifndef PAGEHAND_H
#define PAGEHAND_H

#include "DevTools.h"
#include "FrameReader.h"

#include <QObject>
#include <QTimer>

#include <functional>

/// Does on a page what a visitor does who wants to see its video, when the page has loaded and is
/// quiet and nothing has been found: brings the player into view, once; then, three times at most,
/// answers what lies over the player, presses the largest control that plays, or plays. Main
/// thread.
class PageHand final : public QObject
{
    Q_OBJECT

public:
    /// @param tools    @param reader outlive this object
    PageHand(DevTools &tools, FrameReader &reader, QObject *parent = nullptr);

    /// @param session of the page
    void setSession(const QString &session) { m_session = session; }

    /// The page has loaded. @param isNeeded asked before each step
    void begin(const std::function<bool()> &isNeeded);

    /// The page shows life.
    void wait();

    void stop();

private:
    void step();
    void take(const QJsonObject &deed);
    void press(double x, double y);

    DevTools &m_tools;
    FrameReader &m_reader;
    QString m_session;
    std::function<bool()> m_isNeeded;
    QTimer m_quiet;
    int m_steps = 0;
    bool m_hasScrolled = false;
    bool m_isBusy = false; ///< a step is under way
};

#endif
