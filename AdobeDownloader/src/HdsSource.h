#ifndef HDSSOURCE_H
#define HDSSOURCE_H

#include "AdobeData.h"
#include "SegmentSource.h"

class CAdobeParser;

/// The fragments of an HDS stream, as its description tells them. Both know of segments, but what
/// is one to the fetcher is a fragment here; the stream's own segments only stand in addresses.
class HdsSource final : public SegmentSource
{
public:
    /// @param parser knows where the stream begins    @param data its description; both outlive
    /// this object
    HdsSource(const CAdobeParser &parser, const CAdobeData &data);

    [[nodiscard]] qint64 first() const override;
    [[nodiscard]] qint64 last() const override;
    [[nodiscard]] Segment segment(qint64 number) const override;

    /// One fragment of the stream so described.
    [[nodiscard]] static Segment fragment(const CAdobeData &data, int fragNum);

private:
    const CAdobeParser &m_parser;
    const CAdobeData &m_data;
};

#endif
