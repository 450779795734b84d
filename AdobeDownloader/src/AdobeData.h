#ifndef ADOBEDATA_H
#define ADOBEDATA_H

#include "AdobePreference.h"

#include <QString>
#include <QVariant>
#include <QVector>

/// The description of the stream being downloaded: what the parsers found, and the addresses and
/// file names that follow from it and from the options.
///
/// Main thread only, as workers are told what they need to know of it.
class CAdobeData final
{
public:
    /// @param options those of the stream; they outlive this object
    explicit CAdobeData(CAdobePreference &options = *CAdobePreference::GetInstance());

    /// That of the process, for downloads that are given none of their own.
    static CAdobeData *GetInstance();

    /// The address of a fragment. Fragments and segments are numbered as in the stream's tables.
    [[nodiscard]] QString GetFragUrl(int segment, int fragment) const;

    /// The beginning of the stream's file names, the segment included when it is above 0. It is
    /// one path component, whatever the manifest says.
    [[nodiscard]] QString GetBaseFileName(int segment) const;

    /// The path of a fragment's cache file.
    [[nodiscard]] QString GetFragCacheFile(int segment, int fragment) const;

    /// The number of the segment that holds a fragment; invalid when there is no segment table.
    [[nodiscard]] QVariant GetSegmentFromFragment(int fragment) const;

    /// The number of the stream's last fragment; 0 when nothing is known.
    [[nodiscard]] int GetFragCount() const;
    void SetFragCount(int count);

    /// Lists of maps with the keys "firstSegment" and "fragmentsPerSegment".
    [[nodiscard]] QVariant GetSegmentTable() const;
    void SetSegmentTable(const QVariantList &table);

    /// Lists of maps with the keys "firstFragment", "firstFragmentTimestamp", "fragmentDuration"
    /// and sometimes "discontinuityIndicator".
    [[nodiscard]] QVariant GetFragmentTable() const;
    void SetFragmentTable(const QVariantList &table);

    /// The chosen rendition, a map; empty when none was chosen.
    [[nodiscard]] QVariantMap GetMedia() const;
    void SetMedia(const QVariantMap &media);

    /// Forgets the stream.
    void Reset();

private:
    Q_DISABLE_COPY(CAdobeData)

    [[nodiscard]] QString option(const char *key) const;

    CAdobePreference &m_options;
    int m_fragCount = 0;
    QVariant m_segmentTable;
    QVariant m_fragmentTable;
    QVariant m_media;
    // Both taken from the tables when they are set: looking a fragment up walks plain numbers.
    QVector<int> m_fragmentsPerSegment;
    qint64 m_firstFragment = 1;
};

#endif
