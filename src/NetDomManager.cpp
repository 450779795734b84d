#include "NetDomManager.h"

#include "HostLine.h"
#include "PageText.h"
#include "VideoPreference.h"
#include "downloader.h"
#include "utils.h"

#include <QJsonDocument>
#include <QWebElementCollection>

namespace {

constexpr qint64 smallestSourceFileBytes = 1048576;

/// The pieces of the player description that one "param" element carries. The rule is one of
/// position: what follows the attribute that says "flashvars" holds them.
QByteArray descriptionIn(const QWebElement &param)
{
    QByteArray description;
    bool isFlashVarsNext = false;
    const QStringList names = param.attributeNames();
    for (const QString &name : names) {
        const QString value = param.attribute(name);
        if (isFlashVarsNext) {
            const QStringList pieces = value.split(QLatin1Char('&'));
            for (const QString &piece : pieces) {
                const QString capture = Utils::RegexString(piece, QStringLiteral("sequence=(.*)"));
                description += QByteArray::fromPercentEncoding(capture.toUtf8());
            }
        }
        isFlashVarsNext = value == QLatin1String("flashvars");
    }
    return description;
}

QVariantList listOf(const QVariant &item, const char *key)
{
    return item.toMap().value(QLatin1String(key)).toList();
}

bool isNamed(const QVariant &item, const char *name)
{
    return item.toMap().value(QStringLiteral("name")).toString() == QLatin1String(name);
}

/// The "param" maps of all video entries of a player description, in its order.
QList<QVariantMap> videoParameters(const QVariantMap &root)
{
    QList<QVariantMap> parameters;
    for (const QVariant &item : listOf(root, "sequence")) {
        for (const QVariant &layer : listOf(item, "layerList")) {
            for (const QVariant &entry : listOf(layer, "sequenceList")) {
                if (!isNamed(entry, "main"))
                    continue;
                for (const QVariant &inner : listOf(entry, "layerList")) {
                    if (isNamed(inner, "video"))
                        parameters += inner.toMap().value(QStringLiteral("param")).toMap();
                }
            }
        }
    }
    return parameters;
}

} // namespace

void NetDomManager::setDomInfo(const QWebElement &element)
{
    m_element = element;
}

void NetDomManager::setParseInfo(const ParseData &data)
{
    m_data = data;
}

void NetDomManager::setStopCheck(const std::function<bool()> &isStopped)
{
    m_isStopped = isStopped;
}

bool NetDomManager::isStopped() const
{
    return m_isStopped && m_isStopped();
}

QPair<int, int> NetDomManager::getSolution(const QString &name)
{
    constexpr int height = 480; // for every name: the width alone carries the quality
    if (name == QLatin1String("hd1080"))
        return {1080, height};
    if (name == QLatin1String("hd720") || name == QLatin1String("hq")
        || name == QLatin1String("hd"))
        return {720, height};
    if (name == QLatin1String("sd"))
        return {640, height};
    return {480, height};
}

ParseData NetDomManager::getPageSourceVideoInfo()
{
    const QString pageUrl = CVideoPreference::instance()->GetPageUrl();
    QStringList addresses = PageText::mediaAddresses(Utils::DecodeUrl(m_data.pageSource));
    Utils::DecodeUrl(addresses);
    Utils::resolved(addresses, pageUrl);
    for (const QString &address : qAsConst(addresses)) {
        if (isStopped())
            break;
        if (!m_data.contains(address))
            addSourceAddress(address);
    }
    return m_data;
}

void NetDomManager::addSourceAddress(const QString &address)
{
    VideoFile file = VideoFile::fromAddress(address);
    if (file.urlType == QLatin1String("http")) {
        file.nSize = Downloader().getUrlFileSize(address);
        if (file.nSize < smallestSourceFileBytes)
            return;
    }
    append(file);
}

QByteArray NetDomManager::playerDescription() const
{
    QByteArray description;
    const QWebElementCollection params = m_element.findAll(QStringLiteral("param"));
    for (const QWebElement &param : params)
        description += descriptionIn(param);
    return description;
}

ParseData NetDomManager::getDomVideoInfo()
{
    const QVariantMap root = QJsonDocument::fromJson(playerDescription()).toVariant().toMap();
    if (root.contains(QStringLiteral("error")))
        return m_data;

    const QStringList qualities = QStringLiteral("hd1080|hd720|hq|sd|ld").split(QLatin1Char('|'));
    const QList<QVariantMap> parameters = videoParameters(root);
    for (const QVariantMap &param : parameters) {
        for (const QString &quality : qualities) {
            if (isStopped())
                return m_data;
            addStream(Utils::DecodeUrl(param.value(quality + QLatin1String("URL")).toString()),
                      quality);
        }
    }
    return m_data;
}

void NetDomManager::addStream(const QString &address, const QString &quality)
{
    if (address.isEmpty() || m_data.contains(address))
        return;
    VideoFile file = VideoFile::fromAddress(address);
    const QPair<int, int> solution = getSolution(quality);
    file.width = solution.first;
    file.height = solution.second;
    if (file.urlType == QLatin1String("http"))
        file.nSize = Downloader().getUrlFileSize(address);
    append(file);
}

void NetDomManager::append(const VideoFile &file)
{
    if (isStopped())
        return; // the run went on without this scan while it waited
    m_data.fileList += file;
    HostLine().text(QStringLiteral("videoUrl:")).quoted(file.address()).send();
}
