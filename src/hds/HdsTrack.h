#ifndef HDSTRACK_H
#define HDSTRACK_H

#include "HdsBootstrap.h"
#include "TrackSource.h"

#include <QString>
#include <QUrl>

#include <vector>

/// The fragments of one rendition of an HDS stream, as its bootstraps tell them one after the
/// other. Those that follow one another alike are kept as one entry, so that a long stream takes no
/// more memory than its tables.
class HdsTrack final : public TrackSource
{
    Q_OBJECT

public:
    /// @param address what the fragments' addresses begin with; its query goes with each of them.
    ///                Of one that names a manifest its extension is left out
    explicit HdsTrack(const QUrl &address, QObject *parent = nullptr);

    /// Takes over what is new. Fragments that a live stream has withdrawn before they were known
    /// are told as holes. Returns false when that would be too many.
    [[nodiscard]] bool extend(const HdsBootstrap &bootstrap);

    /// Tells what has been added, and whether that was all.
    void publish(bool isEnded);

    [[nodiscard]] qint64 first() const override { return 0; }
    [[nodiscard]] qint64 last() const override { return m_publishedCount - 1; }
    [[nodiscard]] bool isEnded() const override { return m_isEnded; }
    [[nodiscard]] TrackSegment trackSegment(qint64 number) const override;

private:
    struct Entry
    {
        qint64 first = 0; ///< the track's number of the first
        HdsBootstrap::Span span;
        bool isHole = false;
    };

    [[nodiscard]] bool add(const HdsBootstrap::Span &span, bool isHole);

    QString m_begin; // of each address
    QString m_end; // likewise
    std::vector<Entry> m_entries;
    qint64 m_count = 0;
    qint64 m_publishedCount = 0;
    qint64 m_lastFragment = -1; // the number of the last that is known
    bool m_isLastDoubtful = false;
    bool m_isEnded = false;
};

#endif
