#ifndef SEGMENTINDEX_H
#define SEGMENTINDEX_H

#include <QByteArray>
#include <QVector>

#include <optional>

/// The index of the segments in one file: a "sidx" box (ISO/IEC 14496-12, section 8.16.3).
struct SegmentIndex
{
    struct Reference
    {
        qint64 bytes = 0;
        qint64 duration = 0; ///< in units of the timescale
    };

    static constexpr int maxReferences = 65535; ///< what the box has room for

    qint64 timescale = 1; ///< units a second
    qint64 firstTime = 0; ///< of the first segment, in those units
    qint64 firstByte = 0; ///< of the first segment, counted from the first of the bytes given
    QVector<Reference> references; ///< segments, one behind the other

    /// The index that the first such box among the bytes holds; none when there is no whole one,
    /// when it makes no sense, or when it leads to other indexes.
    [[nodiscard]] static std::optional<SegmentIndex> parse(const QByteArray &bytes);
};

#endif
