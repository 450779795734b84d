#include "HdsSource.h"

#include "AdobeOutputFile.h"
#include "AdobeParser.h"

HdsSource::HdsSource(const CAdobeParser &parser, const CAdobeData &data)
    : m_parser(parser)
    , m_data(data)
{
}

qint64 HdsSource::first() const
{
    return qint64(m_parser.StartFragment()) + 1;
}

qint64 HdsSource::last() const
{
    return m_data.GetFragCount();
}

Segment HdsSource::segment(qint64 number) const
{
    return fragment(m_data, static_cast<int>(number));
}

Segment HdsSource::fragment(const CAdobeData &data, int fragNum)
{
    const int segment = data.GetSegmentFromFragment(fragNum).toInt();
    Segment fragment;
    fragment.number = fragNum;
    fragment.address = data.GetFragUrl(segment, fragNum);
    fragment.cacheFile = data.GetFragCacheFile(segment, fragNum);
    fragment.isWhole = &CAdobeOutputFile::IsWhole;
    return fragment;
}
