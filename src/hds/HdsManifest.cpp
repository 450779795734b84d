#include "HdsManifest.h"

#include "HdsMetadata.h"
#include "ManifestAddress.h"
#include "XmlLimits.h"

#include <QHash>
#include <QTextCodec>
#include <QXmlStreamReader>

#include <cmath>

namespace {

constexpr double maxKbits = 1e9;
constexpr double maxDurationS = 1e9;
constexpr int maxPixels = 100000;

using Attributes = QHash<QString, QString>; // by name in small letters

/// What stands in the document, before it is known what it refers to.
struct Written
{
    struct Media
    {
        Attributes attributes;
        QByteArray metadata;
    };

    struct Bootstrap
    {
        Attributes attributes;
        QByteArray bytes;
    };

    QVector<Media> media;
    QVector<Bootstrap> bootstraps;
    QString base;
    QString duration;
    bool protectsAll = false; ///< what names no header of its own
    bool isBeyond = false; ///< the limits
};

bool isOurs(const QStringRef &space)
{
    return space.isEmpty() || space.startsWith(QLatin1String(ManifestAddress::hdsNamespace));
}

QByteArray decoded(const QString &text)
{
    return QByteArray::fromBase64(text.toLatin1());
}

class DocumentReader final
{
public:
    explicit DocumentReader(const QString &text)
        : m_xml(text)
    {
    }

    std::optional<Written> read(QString &reason)
    {
        if (!m_xml.readNextStartElement() || name() != QLatin1String("manifest")
            || !isOurs(m_xml.namespaceUri())) {
            reason = QStringLiteral("it is no manifest");
            return std::nullopt;
        }
        readChildren(Attributes());
        if (m_written.isBeyond)
            reason = QStringLiteral("it has more renditions than can be");
        else if (m_xml.hasError())
            reason = QStringLiteral("it is not well-formed");
        else
            return m_written;
        return std::nullopt;
    }

private:
    [[nodiscard]] QString name() const { return m_xml.name().toString().toLower(); }

    /// @param common attributes that hold for all media elements where they do not say otherwise
    void readChildren(const Attributes &common)
    {
        while (!m_written.isBeyond && m_xml.readNextStartElement()) {
            if (isOurs(m_xml.namespaceUri()))
                readElement(name(), common);
            else
                m_xml.skipCurrentElement();
        }
    }

    void readElement(const QString &name, const Attributes &common)
    {
        if (name == QLatin1String("media"))
            readMedia(common);
        else if (name == QLatin1String("bootstrapinfo"))
            readBootstrap();
        else if (name == QLatin1String("drmadditionalheader")
                 || name == QLatin1String("drmadditionalheaderset"))
            readProtection();
        else if (name == QLatin1String("baseurl"))
            m_written.base = text().trimmed();
        else if (name == QLatin1String("duration"))
            m_written.duration = text().trimmed();
        else
            readChildren(name == QLatin1String("adaptiveset") ? attributes(common) : common);
    }

    void readMedia(const Attributes &common)
    {
        Written::Media media;
        media.attributes = attributes(common);
        while (m_xml.readNextStartElement()) {
            if (isOurs(m_xml.namespaceUri()) && name() == QLatin1String("metadata"))
                media.metadata = decoded(text());
            else
                m_xml.skipCurrentElement();
        }
        m_written.media += media;
        m_written.isBeyond = m_written.media.size() > HdsManifest::maxMedia;
    }

    void readBootstrap()
    {
        Written::Bootstrap bootstrap;
        bootstrap.attributes = attributes();
        bootstrap.bytes = decoded(text());
        m_written.bootstraps += bootstrap;
        m_written.isBeyond = m_written.bootstraps.size() > HdsManifest::maxMedia;
    }

    /// One without an id holds for all that names none.
    void readProtection()
    {
        m_written.protectsAll |= attributes().value(QStringLiteral("id")).isEmpty();
        m_xml.skipCurrentElement();
    }

    /// Those of the element at hand, in the place of those that it has in common with others.
    [[nodiscard]] Attributes attributes(const Attributes &common = Attributes()) const
    {
        Attributes all = common;
        const QXmlStreamAttributes own = m_xml.attributes();
        for (const QXmlStreamAttribute &one : own) {
            if (isOurs(one.namespaceUri()))
                all.insert(one.name().toString().toLower(), one.value().trimmed().toString());
        }
        return all;
    }

    QString text() { return m_xml.readElementText(QXmlStreamReader::IncludeChildElements); }

    QXmlStreamReader m_xml;
    Written m_written;
};

/// A number of an attribute; 0 without one that makes sense.
double numberOf(const QString &text, double most)
{
    bool isNumber = false;
    const double number = text.toDouble(&isNumber);
    return isNumber && number > 0 && number <= most ? number : 0;
}

/// What relative addresses are relative to: the folder that the manifest names, or itself.
QUrl baseOf(const QString &written, const QUrl &address)
{
    if (written.isEmpty())
        return address;
    QUrl base = address.resolved(QUrl(written));
    const QString path = base.path(QUrl::FullyEncoded);
    if (!path.mid(path.lastIndexOf(QLatin1Char('/')) + 1).contains(QLatin1Char('.'))
        && !path.endsWith(QLatin1Char('/')))
        base.setPath(path + QLatin1Char('/'), QUrl::StrictMode);
    return base;
}

/// Makes renditions of what is written.
class Maker final
{
public:
    Maker(const Written &written, const QUrl &address)
        : m_written(written)
        , m_address(address)
        , m_base(baseOf(written.base, address))
    {
        for (int i = written.bootstraps.size() - 1; i >= 0; --i) // the first of a name counts
            m_bootstraps.insert(written.bootstraps.at(i).attributes.value(QStringLiteral("id")), i);
    }

    HdsManifest make() const
    {
        HdsManifest manifest;
        manifest.durationUs = static_cast<qint64>(numberOf(m_written.duration, maxDurationS) * 1e6);
        for (const Written::Media &one : m_written.media) {
            const bool isNamed = one.attributes.contains(QStringLiteral("url"))
                || one.attributes.contains(QStringLiteral("href"));
            if (isNamed)
                manifest.media += media(one, manifest.durationUs);
        }
        return manifest;
    }

private:
    [[nodiscard]] QUrl resolved(const QString &written) const
    {
        return HdsManifest::withQuery(m_base.resolved(QUrl(written)), m_address);
    }

    HdsManifest::Media media(const Written::Media &written, qint64 durationUs) const
    {
        const auto value = [&written](const char *name) {
            return written.attributes.value(QLatin1String(name));
        };
        HdsManifest::Media media;
        media.holder = m_address;
        media.metadata = written.metadata;
        media.isAlternate =
            value("alternate").compare(QLatin1String("true"), Qt::CaseInsensitive) == 0;
        const bool namesHeader = !value("drmadditionalheaderid").isEmpty()
            || !value("drmadditionalheadersetid").isEmpty();
        media.isProtected = namesHeader || m_written.protectsAll;
        media.rendition = rendition(written);
        media.rendition.durationUs = durationUs;
        if (!value("href").isEmpty()) {
            media.manifest = resolved(value("href"));
            media.rendition.id = media.manifest.toString(QUrl::FullyEncoded);
            return media;
        }
        media.address = resolved(value("url"));
        media.rendition.id = media.address.toString(QUrl::FullyEncoded);
        addBootstrap(media, value("bootstrapinfoid"));
        return media;
    }

    static Rendition rendition(const Written::Media &written)
    {
        const auto value = [&written](const char *name) {
            return written.attributes.value(QLatin1String(name));
        };
        const HdsMetadata metadata = HdsMetadata::parse(written.metadata);
        Rendition rendition;
        rendition.kind = kindOf(value("type").toLower(), metadata);
        rendition.name = value("label");
        rendition.language = value("lang");
        rendition.bandwidth = std::llround(numberOf(value("bitrate"), maxKbits) * 1000);
        rendition.width = static_cast<int>(numberOf(value("width"), maxPixels));
        rendition.height = static_cast<int>(numberOf(value("height"), maxPixels));
        if (rendition.height == 0) {
            rendition.width = metadata.width;
            rendition.height = metadata.height;
        }
        return rendition;
    }

    static Rendition::Kind kindOf(const QString &type, const HdsMetadata &metadata)
    {
        if (type.contains(QLatin1String("video")))
            return Rendition::Kind::Picture;
        if (type.contains(QLatin1String("audio")))
            return Rendition::Kind::Sound;
        if (!type.isEmpty())
            return Rendition::Kind::Text;
        return metadata.hasSound && !metadata.hasPicture ? Rendition::Kind::Sound
                                                         : Rendition::Kind::Picture;
    }

    /// The one of that id; else the one without an id; else the only one, or for media that name
    /// none the first.
    void addBootstrap(HdsManifest::Media &media, const QString &id) const
    {
        int found = m_bootstraps.value(id, -1);
        if (found < 0)
            found = m_bootstraps.value(QString(), -1);
        if (found < 0 && (id.isEmpty() || m_written.bootstraps.size() == 1))
            found = m_written.bootstraps.isEmpty() ? -1 : 0;
        if (found < 0)
            return;
        const Written::Bootstrap &bootstrap = m_written.bootstraps.at(found);
        const QString address = bootstrap.attributes.value(QStringLiteral("url"));
        if (address.isEmpty())
            media.bootstrap = bootstrap.bytes;
        else
            media.bootstrapAddress = resolved(address);
    }

    const Written &m_written;
    const QUrl m_address;
    const QUrl m_base;
    QHash<QString, int> m_bootstraps; // by id
};

} // namespace

std::optional<HdsManifest> HdsManifest::parse(const QByteArray &document, const QUrl &address,
                                              QString &reason)
{
    const QTextCodec *const codec =
        QTextCodec::codecForUtfText(document, QTextCodec::codecForName("UTF-8"));
    QString text = codec->toUnicode(document);
    if (text.startsWith(QChar(0xFEFF)))
        text.remove(0, 1);
    if (!XmlLimits::accepts(text)) {
        reason = QStringLiteral("it is not well-formed, or beyond the limits");
        return std::nullopt;
    }
    const std::optional<Written> written = DocumentReader(text).read(reason);
    if (!written)
        return std::nullopt;
    HdsManifest manifest = Maker(*written, address).make();
    if (manifest.media.isEmpty()) {
        reason = QStringLiteral("it has no renditions");
        return std::nullopt;
    }
    return manifest;
}

QUrl HdsManifest::withQuery(const QUrl &address, const QUrl &manifest)
{
    if (address.hasQuery() || !manifest.hasQuery() || address.scheme() != manifest.scheme()
        || address.authority() != manifest.authority())
        return address;
    QUrl full = address;
    full.setQuery(manifest.query(QUrl::FullyEncoded), QUrl::StrictMode);
    return full;
}
