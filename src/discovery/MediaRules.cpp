#include "MediaRules.h"

#include "utils.h"

namespace {

constexpr qint64 fileSizeFrom = 1048576;
constexpr qint64 acceptedMediaFrom = 1048576;
constexpr qint64 acceptedAnythingFrom = 1073741824;
constexpr qint64 foundAnythingFrom = 10485760;
constexpr qint64 foundMediaFrom = 5242880;

bool isMedia(const QString &contentType)
{
    return contentType.contains(QLatin1String("video/"))
        || contentType.contains(QLatin1String("audio/"));
}

} // namespace

MediaRules::MediaRules(qint64 expectedBytes)
    : m_expectedBytes(expectedBytes)
{
}

bool MediaRules::isCandidate(const QString &url, qint64 size, const QString &contentType)
{
    return (isMedia(contentType) && size >= acceptedMediaFrom) || size >= acceptedAnythingFrom
        || Utils::matchMediaType(url);
}

bool MediaRules::note(ParseData &record, const QString &url, qint64 size,
                      const QString &contentType)
{
    if (!isCandidate(url, size, contentType))
        return false;
    record.add(url);
    VideoFile *const file = record.get(url);
    file->contentType = contentType;
    if (size >= fileSizeFrom)
        file->nSize = size;
    return true;
}

bool MediaRules::isFound(const VideoFile &file) const
{
    if (m_expectedBytes > 0)
        return file.nSize == m_expectedBytes;
    if (file.isStream())
        return true; // its manifest has been read
    return file.nSize >= foundAnythingFrom
        || (isMedia(file.contentType) && file.nSize >= foundMediaFrom);
}
