#ifndef VIDEOPARTS_H
#define VIDEOPARTS_H

#include "HostEvent.h"
#include "Transfer.h"

#include <QString>

/// The parts in which a video comes, one today, and what becomes of them.
class VideoParts final
{
public:
    explicit VideoParts(int expected);

    /// Counts a part that has ended.
    /// @param outcome a Transfer::Outcome; any other number is as good as a failure
    void add(int outcome);

    [[nodiscard]] bool haveAllEnded() const;

    /// Tells the host how the video ended, and joins its parts if there are several and all have
    /// come. Returns whether the video is there.
    bool report(const QString &videoPath) const;

    /// Joins the part files, whose names are the video's with "_0", "_1" and so on appended.
    /// Returns whether the video's file could be written; a part that is missing is left out.
    static bool join(const QString &videoPath, int count);

    /// Tells the host how something ended; says nothing of an outcome that is none.
    static void reportEnd(event::What what, int outcome);

private:
    const int m_expected;
    int m_succeeded = 0;
    int m_failed = 0;
    int m_lastOutcome = 0;
};

#endif
