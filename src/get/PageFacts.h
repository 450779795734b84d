#ifndef PAGEFACTS_H
#define PAGEFACTS_H

#include "RunClass.h"

#include <QDateTime>
#include <QString>

/// What is known of a page and of what became of it. Texts are as the page has them.
struct PageFacts
{
    QString address;
    int number = 0; ///< in the order of the list, from 1
    QString title;
    QString videoAddress;
    QString format; ///< as the run's record has it
    int height = 0; ///< of the picture; 0 when it is not known
    qint64 announcedBytes = 0; ///< 0 when that is not known
    int candidates = 0; ///< videos that the page offered
    QDateTime begunAt; ///< local time; invalid when it did not begin

    // What became of it.
    RunClass runClass = RunClass::Stopped;
    bool isSkipped = false; ///< it was done by an earlier command
    QString path; ///< of the file; empty when there is none
    QString thumbPath; ///< the same of the page's picture
    qint64 bytes = -1; ///< of the file; negative when there is none
    QByteArray sha256;
    qint64 tookMs = 0;
    QString reason; ///< more than the class tells, or empty
    QString warning; ///< the last one of its run, which may have nothing to do with the end

    [[nodiscard]] bool hasArrived() const { return runClass == RunClass::Complete; }
};

#endif
