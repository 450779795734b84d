#ifndef MEDIARULES_H
#define MEDIARULES_H

#include "ParseData.h"

/// Which answers of a page's servers are candidates, and from when on one of them is so likely the
/// video that nothing more need be looked for. Content types are compared in their letter case.
class MediaRules final
{
public:
    /// @param expectedBytes the video's size if it is known, which then decides alone; else 0
    explicit MediaRules(qint64 expectedBytes);

    /// Whether an answer is worth noting: by its type and size, or by its address alone.
    /// @param size in bytes, 0 while unknown
    [[nodiscard]] static bool isCandidate(const QString &url, qint64 size,
                                          const QString &contentType);

    /// Notes an answer in the record if it is a candidate, or what it tells more of one that is
    /// there: its type, and its size unless that is so small that the answer may be a piece of the
    /// file. Returns whether it is a candidate.
    static bool note(ParseData &record, const QString &url, qint64 size,
                     const QString &contentType);

    /// Whether the candidate is big enough to stop looking for more.
    [[nodiscard]] bool isFound(const VideoFile &file) const;

private:
    const qint64 m_expectedBytes;
};

#endif
