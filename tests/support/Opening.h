#ifndef OPENING_H
#define OPENING_H

#include "Presentation.h"

#include <QtTest>

/// How a presentation's opening ended.
struct Opening
{
    bool isReady = false;
    bool hasFailed = false;
    Presentation::Failure failure = Presentation::Failure::Malformed;
    QString reason;

    /// Opens it and waits.
    explicit Opening(Presentation &presentation)
    {
        QObject::connect(&presentation, &Presentation::ready, &presentation,
                         [this] { isReady = true; });
        QObject::connect(&presentation, &Presentation::failed, &presentation,
                         [this](Presentation::Failure what, const QString &why) {
                             hasFailed = true;
                             failure = what;
                             reason = why;
                         });
        presentation.open();
        const bool isOver = QTest::qWaitFor([this] { return isReady || hasFailed; }, 30 * 1000);
        Q_UNUSED(isOver)
        presentation.disconnect(&presentation);
    }
};

#endif
