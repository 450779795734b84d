#include "ParseData.h"

#include "HostLine.h"
#include "PageText.h"
#include "RunOptions.h"
#include "utils.h"

#include <QByteArrayList>
#include <QJsonArray>
#include <QJsonDocument>
#include <QVariant>

#include <algorithm>

namespace {

constexpr int maxFileNameBytes = 255; // what common file systems take

/// "name.ext", with the name cut so that the whole fits into a file name.
QString fittingFileName(QString name, const QString &ext)
{
    const int maxNameBytes = maxFileNameBytes - ext.toUtf8().size() - 1;
    name.truncate(maxNameBytes); // a character takes a byte at least
    while (name.toUtf8().size() > maxNameBytes)
        name.chop(name.size() > 1 && name.at(name.size() - 2).isHighSurrogate() ? 2 : 1);
    if (!name.isEmpty() && name.at(name.size() - 1).isHighSurrogate())
        name.chop(1);
    return QStringLiteral("%1.%2").arg(name, ext);
}

/// The name without what a terminal takes for a command, or some reader for the end of a line.
QString withoutControls(QString name)
{
    const auto end = std::remove_if(name.begin(), name.end(), HostLine::breaksLine);
    name.truncate(static_cast<int>(end - name.begin()));
    return name;
}

/// The text as a JSON string.
QByteArray jsonText(const QString &text)
{
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

/// Written by hand because the toolkit's JSON numbers are doubles, which do not hold every size.
QByteArray jsonObject(const VideoFile &file)
{
    return "{\"height\":" + QByteArray::number(file.height) + ",\"nSize\":"
        + QByteArray::number(file.nSize) + ",\"strFormat\":" + jsonText(file.strFormat)
        + ",\"urlType\":" + jsonText(file.urlType) + ",\"videoUrl\":" + jsonText(file.address())
        + ",\"width\":" + QByteArray::number(file.width) + '}';
}

VideoFile fromVariantMap(const QVariantMap &map)
{
    VideoFile file;
    file.urlType = map.value(QStringLiteral("urlType")).toString();
    file.urls.insert(file.urlType, map.value(QStringLiteral("videoUrl")).toString());
    file.strFormat = map.value(QStringLiteral("strFormat")).toString();
    file.height = map.value(QStringLiteral("height")).toInt();
    file.width = map.value(QStringLiteral("width")).toInt();
    file.nSize = map.value(QStringLiteral("nSize")).toLongLong();
    return file;
}

} // namespace

VideoFile VideoFile::fromAddress(const QString &url)
{
    VideoFile file;
    file.strFormat = Utils::getFormatFromUrl(url);
    file.urlType =
        url.startsWith(QLatin1String("rtmp")) ? QStringLiteral("rtmp") : QStringLiteral("http");
    file.urls.insert(file.urlType, url);
    return file;
}

QString VideoFile::address() const
{
    return urls.value(urlType);
}

bool ParseData::add(const QString &url)
{
    if (contains(url))
        return false;
    fileList += VideoFile::fromAddress(url);
    return true;
}

bool ParseData::contains(const QString &url) const
{
    return std::any_of(fileList.cbegin(), fileList.cend(),
                       [&url](const VideoFile &file) { return file.address() == url; });
}

VideoFile *ParseData::get(const QString &url)
{
    const auto found =
        std::find_if(fileList.begin(), fileList.end(),
                     [&url](const VideoFile &file) { return file.address() == url; });
    return found == fileList.end() ? nullptr : &*found;
}

void ParseData::remove(const std::function<bool(const VideoFile &)> &isUnwanted)
{
    fileList.erase(std::remove_if(fileList.begin(), fileList.end(), isUnwanted), fileList.end());
}

void ParseData::setVideoSize(const QString &url, qint64 sizeBytes)
{
    const auto found =
        std::find_if(fileList.begin(), fileList.end(), [&url](const VideoFile &file) {
            return file.nSize == 0 && file.address() == url;
        });
    if (found != fileList.end())
        found->nSize = sizeBytes;
}

bool ParseData::isPlayList() const
{
    return !fileList.isEmpty();
}

int ParseData::getTimeUsed() const
{
    if (startTime.isNull() || endTime.isNull())
        return 0;
    return static_cast<int>(startTime.secsTo(endTime));
}

QString ParseData::getThumbUrl() const
{
    return Utils::parseThumb(pageSource);
}

QString ParseData::getHtmlTitle() const
{
    return Utils::parseTitle(pageSource);
}

QString ParseData::getCanonicalUrl() const
{
    return PageText::canonicalAddress(pageSource);
}

QString ParseData::getSmartVideoFullPath() const
{
    return smartVideoFullPath(RunOptions::ofCommandLine().paths.folder());
}

QString ParseData::smartVideoFullPath(const QString &folder) const
{
    const QString name = withoutControls(Utils::SafeFileName(getHtmlTitle(), QLatin1Char('_')));
    if (name.isEmpty() || selectedVideo < 0)
        return {};
    const QString format = fileList.at(selectedVideo).strFormat;
    const QString ext = format.isEmpty() ? QStringLiteral("mp4") : format;
    return folder + QLatin1Char('/') + fittingFileName(name, ext);
}

QString ParseData::getVideoFullPath() const
{
    return getVideoFullPath(RunOptions::ofCommandLine());
}

QString ParseData::getVideoFullPath(const RunOptions &options) const
{
    const QString smartPath =
        options.usesSmartName ? smartVideoFullPath(options.paths.folder()) : QString();
    return smartPath.isEmpty() ? options.paths.video() : smartPath;
}

QByteArray ParseData::toJson() const
{
    QByteArrayList files;
    for (const VideoFile &file : fileList)
        files += jsonObject(file);
    QByteArrayList pages;
    for (const QString &page : playList)
        pages += jsonText(page);
    return "{\"fileList\":[" + files.join(',') + "],\"playList\":[" + pages.join(',')
        + "],\"selectedVideo\":" + QByteArray::number(selectedVideo) + ",\"thumbUrl\":"
        + jsonText(getThumbUrl()) + ",\"title\":" + jsonText(getHtmlTitle()) + '}';
}

void ParseData::fromJson(const QByteArray &document)
{
    const QVariantMap root = QJsonDocument::fromJson(document).toVariant().toMap();
    const QVariantList pages = root.value(QStringLiteral("playList")).toList();
    for (const QVariant &page : pages)
        playList += page.toString();
    const QVariantList files = root.value(QStringLiteral("fileList")).toList();
    for (const QVariant &file : files)
        fileList += fromVariantMap(file.toMap());
}
