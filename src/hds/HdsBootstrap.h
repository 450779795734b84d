#ifndef HDSBOOTSTRAP_H
#define HDSBOOTSTRAP_H

#include <QByteArray>
#include <QString>
#include <QVector>

#include <optional>

/// The bootstrap information of an HDS stream (Adobe Flash Video File Format Specification 10.1,
/// section 2.11.2): which fragments there are, when, and in which segments. A value; read on any
/// thread.
///
/// Numbers are those of the run tables: a run of segments goes on up to the first segment of the
/// next one and takes its fragments from where the one before ends, the first of all from the first
/// fragment of the fragment run table; numbers that no run has are no fragments.
struct HdsBootstrap
{
    static constexpr qint64 maxBytes = 16 * 1024 * 1024; ///< of an answer that holds one
    static constexpr qint64 maxFragments = 1000000;

    /// Fragments that follow one another alike.
    struct Span
    {
        qint64 fragment = 1; ///< the number of the first
        qint64 count = 1;
        qint64 startUs = 0; ///< of the first
        qint64 durationUs = 0; ///< of each; 0 while unknown
        qint64 segment = 1; ///< that the first lies in
        qint64 place = 0; ///< of the first within that, from 0
        qint64 perSegment = 1; ///< how many fragments each segment holds

        [[nodiscard]] qint64 segmentOf(qint64 offset) const
        {
            return segment + (place + offset) / perSegment;
        }
    };

    QVector<Span> spans; ///< in ascending order; at least one
    bool isLive = false; ///< whether fragments may follow
    bool isProtected = false; ///< it has a header of digital rights management
    bool isLastDoubtful = false; ///< only the clock tells of the last fragment

    [[nodiscard]] qint64 endUs() const; ///< where the last fragment ends

    /// Reads an answer: the box as it is or as base64 text, white space aside. None when it is no
    /// bootstrap or beyond the limits; why, is told.
    /// @param durationUs of the stream, for tables that leave open where it ends; 0 while unknown
    [[nodiscard]] static std::optional<HdsBootstrap> parse(const QByteArray &answer,
                                                           qint64 durationUs, QString &reason);
};

#endif
