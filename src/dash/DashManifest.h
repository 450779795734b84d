#ifndef DASHMANIFEST_H
#define DASHMANIFEST_H

#include "Rendition.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QUrl>
#include <QVector>

#include <optional>

/// A manifest of DASH (ISO/IEC 23009-1), as far as it is needed to fetch what it presents. A value;
/// read on any thread.
///
/// What comes from outside is bounded: the text by XmlLimits, periods, representations and entries
/// by the numbers below, times so that they can be reckoned with. No entity is expanded and nothing
/// is fetched from here.
struct DashManifest
{
    static constexpr qint64 maxBytes = 64 * 1024 * 1024; ///< of the document
    static constexpr int maxPeriods = 1000;
    static constexpr int maxRepresentations = 10000; ///< in all periods together
    static constexpr qint64 maxSegments = 1000000; ///< that may follow one another
    static constexpr int maxBases = 8; ///< that are kept for a representation
    static constexpr qint64 maxTime = qint64(1) << 60; ///< in any unit
    static constexpr qint64 unknown = -1;

    /// Bytes of a file, or all of it.
    struct Range
    {
        qint64 firstByte = 0;
        qint64 byteCount = 0; ///< 0 for all that follows
    };

    /// Segments of a timeline that follow one another with the same duration.
    struct TimelineEntry
    {
        qint64 time = 0; ///< of the first, in units of the timescale
        qint64 duration = 0; ///< of each, likewise; above 0
        qint64 count = 1; ///< unknown for as many as there are up to the end
    };

    struct ListEntry
    {
        QString media; ///< empty for the base itself
        Range range;
    };

    /// How a representation's segments are named and when they are.
    struct Addressing
    {
        enum class Kind {
            Single, ///< the base is all there is of it
            Indexed, ///< the base has an index at a known place
            List,
            Template
        };

        Kind kind = Kind::Single;
        qint64 timescale = 1; ///< units a second
        qint64 timeOffset = 0; ///< which of the media's times is the period's start, in those units
        qint64 duration = 0; ///< of a segment, in those units; 0 while unknown
        qint64 startNumber = 1;
        qint64 endNumber = unknown; ///< the last, if it is told
        bool hasTimeline = false;
        QVector<TimelineEntry> timeline;
        QVector<ListEntry> list;
        QString media; ///< a template
        bool hasInitialisation = false;
        QString initialisation; ///< a template, or an address; empty for the base itself
        Range initialisationRange;
        Range index;
    };

    struct Representation
    {
        Rendition rendition;
        QString mimeType;
        QVector<QUrl> bases; ///< where the same is to be had; at least one
        Addressing addressing;
        bool isProtected = false;
        bool isForTricks = false; ///< pictures for winding and the like
    };

    struct Period
    {
        QString id; ///< empty where it has none, or one that another before it has
        qint64 startUs = 0;
        qint64 durationUs = unknown;
        QVector<Representation> representations;
    };

    bool isDynamic = false;
    QDateTime availabilityStart; ///< when the presentation's time 0 was
    QDateTime serverTime; ///< what the clock showed when it was made, if it says so
    qint64 durationUs = unknown;
    qint64 updatePeriodUs = unknown; ///< how long it holds at least; unknown: for ever
    qint64 windowUs = unknown; ///< how long segments stay; unknown: for ever
    QUrl location; ///< where the next one is; empty for where this one was
    QVector<Period> periods;

    /// What is wrong with a document.
    struct Fault
    {
        bool isUnsupported = false; ///< in order, but of a kind that is not fetched; else malformed
        QString reason;
    };

    /// Reads a document. @param address where it came from, after redirects
    /// Returns nothing when it cannot be used, and why in fault.
    [[nodiscard]] static std::optional<DashManifest> parse(const QByteArray &document,
                                                           const QUrl &address, Fault &fault);

    /// Microseconds for a time in units of so many a second; what is beyond reason is cut down.
    [[nodiscard]] static qint64 toUs(qint64 time, qint64 timescale);

    /// Microseconds for a duration as XML Schema writes it; unknown for what is none.
    [[nodiscard]] static qint64 durationOf(const QString &text);
};

#endif
