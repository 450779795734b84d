#include "AdobeParser.h"

#include "AdobeBrowser.h"
#include "AdobeUtils.h"
#include "HostEvents.h"
#include "XPathDocument.h"

#include <QUrl>

namespace {

constexpr qint64 maxManifestBytes = 64 * 1024 * 1024; // of one manifest or bootstrap
constexpr int defaultMaxChildCharacters = 256 * 1024 * 1024; // of all child manifests together

QByteArray decoded(const QString &text)
{
    return QByteArray::fromBase64(text.trimmed().toLatin1());
}

bool isRtmp(const QString &address)
{
    return address.startsWith(QLatin1String("rtmp"));
}

/// The number that a query found, as GetBitrate() says.
int numberOf(const QStringList &found, int fallback, int preferred)
{
    if (!found.isEmpty())
        return found.constFirst().toInt(nullptr, 10);
    return preferred >= 0 ? preferred : fallback;
}

} // namespace

struct CAdobeParser::Document
{
    explicit Document(const QString &text)
        : xml(text)
        , prolog(GetXmlPath(text, QString()))
        , queries(text)
    {
        mediaCount = queries.select(prolog + QLatin1String("//media"));
        bootstrapAddress = strings(QLatin1String("//bootstrapInfo[1]/@url/string()")).value(0);
        // One inside another is none: the texts of all would else be many times the document.
        const QString outermost = QStringLiteral("//bootstrapInfo[not(ancestor::bootstrapInfo)]/");
        const QStringList ids = strings(outermost + QLatin1String("string(@id)"));
        const QStringList texts = strings(outermost + QLatin1String("string()"));
        for (int i = 0; i < texts.size(); ++i) {
            const QByteArray bootstrap = decoded(texts.at(i));
            if (i == 0)
                firstBootstrap = bootstrap;
            if (!ids.value(i).isEmpty() && !bootstraps.contains(ids.value(i)))
                bootstraps.insert(ids.value(i), bootstrap);
        }
    }

    /// The results of a path over the document.
    QStringList strings(const QString &path) { return queries.strings(prolog + path); }

    /// The results of a path relative to the n-th media element in document order, from 1.
    QStringList ofMedia(int n, const QString &path)
    {
        return queries.stringsAt(n - 1, prolog + path);
    }

    QString xml;
    QString prolog; // of every query: looked for once, since that walks the text
    XPathDocument queries;
    int mediaCount = 0;
    QString bootstrapAddress; // empty: inline
    QByteArray firstBootstrap;
    QHash<QString, QByteArray> bootstraps; // by id
};

CAdobeParser::CAdobeParser(const StopFlag &stop, const Fetch &fetch,
                           const std::shared_ptr<HdsSession> &session)
    : m_stop(stop)
    , m_fetch(fetch)
    , m_session(session)
    , m_maxChildCharacters(defaultMaxChildCharacters)
{
}

CAdobeParser::~CAdobeParser() = default;

QVariant CAdobeParser::option(const char *key) const
{
    return m_session->options.GetOption(QLatin1String(key));
}

void CAdobeParser::SetMaxChildCharacters(int characters)
{
    m_maxChildCharacters = characters;
}

bool CAdobeParser::parseManifest()
{
    HostEvents::send(event::ManifestBegun{});
    const QString address = option("manifest").toString();
    m_manifest = GetManifestContent(address);
    if (m_manifest.isEmpty()) {
        HostEvents::send(event::ManifestMissing{address});
        return false;
    }
    parseManifestXml(); // whatever it found is chosen from
    m_document.reset();
    m_fetchedBootstraps.clear();
    SelectMedia();
    return ParseBootstrap();
}

bool CAdobeParser::parseManifestXml()
{
    return GetChildManifests() && GetMediaStreamInfo();
}

QString CAdobeParser::GetManifestContent(const QString &url)
{
    if (m_fetch)
        return m_fetch(url);
    CAdobeBrowser browser(m_stop, nullptr, nullptr, &m_session->options);
    browser.setMaxContentBytes(maxManifestBytes);
    browser.get(url, true);
    return browser.success() ? browser.content() : QString();
}

QString CAdobeParser::GetXmlPath(const QString &xml, const QString &path)
{
    const QString space = CAdobeUtils::RegexString(xml, QStringLiteral("xmlns=\"([^\"]+)\""));
    if (space.isEmpty())
        return path;
    return QLatin1String("declare default element namespace \"") + space + QLatin1String("\"; ")
        + path;
}

CAdobeParser::Document &CAdobeParser::documentOf(const QString &xml)
{
    if (!m_document || m_document->xml != xml)
        m_document = std::make_unique<Document>(xml);
    return *m_document;
}

QString CAdobeParser::GetBaseUrl(const QString &xml, const QString &manifestUrl)
{
    const QStringList bases = documentOf(xml).strings(QStringLiteral("(//baseUrl)[1]/string()"));
    return bases.isEmpty() ? CAdobeUtils::GetBaseUrl(manifestUrl) : bases.constFirst();
}

int CAdobeParser::GetBitrate(const QString &xml, const QString &query, int fallback, int preferred)
{
    return numberOf(documentOf(xml).strings(query), fallback, preferred);
}

QMap<QString, QVariant> CAdobeParser::GetMediaAtrriInfo(const QString &xml, int n)
{
    // One query for names and values: a name has no space.
    const QStringList pairs = documentOf(xml).queries.stringsAt(
        n - 1, QStringLiteral("@*/concat(name(), \" \", string())"));
    QMap<QString, QVariant> attributes;
    for (const QString &pair : pairs) {
        const int space = pair.indexOf(QLatin1Char(' '));
        const QString name = pair.left(space);
        // A prefix that only the manifest declares cannot be asked for.
        if (!name.contains(QLatin1Char(':')) || name.startsWith(QLatin1String("xml:")))
            attributes.insert(name, pair.mid(space + 1));
    }
    return attributes;
}

QByteArray CAdobeParser::GetMediaData(const QString &xml, int n)
{
    // The path as it stands finds only a media element without anything around it, the first then.
    QStringList found;
    if (n == 1)
        found = documentOf(xml).strings(QStringLiteral("media[1]/metadata/string()"));
    if (found.isEmpty())
        found = documentOf(xml).ofMedia(n, QStringLiteral("metadata/string()"));
    return decoded(found.value(0));
}

bool CAdobeParser::GetChildManifests()
{
    const QString address = option("manifest").toString();
    const QString base = GetBaseUrl(m_manifest, address);
    const QStringList hrefs =
        documentOf(m_manifest).strings(QStringLiteral("//media/@href/string()"));
    m_manifests.clear();
    if (hrefs.isEmpty()) {
        m_manifests.insert(0,
                           QVariantMap{{QStringLiteral("xml"), m_manifest},
                                       {QStringLiteral("url"), address},
                                       {QStringLiteral("bitrate"), 0}});
        return true;
    }

    int charactersLeft = m_maxChildCharacters;
    for (int i = 0; i < hrefs.size() && !m_stop.isRaised(); ++i) {
        if (charactersLeft <= 0) {
            qWarning("%d of %d child manifests are left out: those before them have %d characters",
                     hrefs.size() - i, hrefs.size(), m_maxChildCharacters - charactersLeft);
            break;
        }
        const QString childAddress = QUrl(base).resolved(QUrl(hrefs.at(i))).toString();
        const QString xml = GetManifestContent(childAddress);
        if (xml.isEmpty())
            qWarning("%s cannot be read: its renditions are left out",
                     qUtf8Printable(childAddress));
        charactersLeft -= xml.size();
        const int bitrate = numberOf(
            documentOf(m_manifest).ofMedia(i + 1, QStringLiteral("@bitrate/string()")), i, -1);
        m_manifests.insert(bitrate,
                           QVariantMap{{QStringLiteral("xml"), xml},
                                       {QStringLiteral("url"), childAddress},
                                       {QStringLiteral("bitrate"), bitrate}});
    }
    return true;
}

bool CAdobeParser::GetMediaStreamInfo()
{
    // Manifests leave their table here, so that only renditions can be chosen.
    QMap<int, QVariant> manifests;
    manifests.swap(m_manifests);
    for (const QVariant &manifest : qAsConst(manifests)) {
        QMap<QString, QVariant> entry = manifest.toMap();
        if (!SetDetailInfo(entry, m_renditionCount))
            return false;
    }
    return true;
}

bool CAdobeParser::SetDetailInfo(QMap<QString, QVariant> &entry, int &count)
{
    const QString xml = entry.value(QStringLiteral("xml")).toString();
    const QString url = entry.value(QStringLiteral("url")).toString();
    const QString base = GetBaseUrl(xml, url);
    if (isRtmp(base) || isRtmp(url))
        return false;

    const int mediaCount = documentOf(xml).mediaCount;
    for (int n = 1; n <= mediaCount && !m_stop.isRaised(); ++n) {
        QMap<QString, QVariant> rendition = GetMediaAtrriInfo(xml, n);
        if (rendition.isEmpty())
            continue;
        const QString id = rendition.value(QStringLiteral("bootstrapinfoid")).toString();
        const int bitrate =
            rendition.value(QStringLiteral("bitrate"), entry.value(QStringLiteral("bitrate")))
                .toInt();
        rendition.insert(QStringLiteral("metadata"), GetMediaData(xml, n));
        rendition.insert(QStringLiteral("bitrate"), bitrate);
        rendition.insert(QStringLiteral("streamid"),
                         rendition.value(QStringLiteral("streamid")).toString());
        rendition.insert(QStringLiteral("baseUrl"), base);
        rendition.insert(QStringLiteral("url"), rendition.value(QStringLiteral("url")).toString());
        rendition.insert(QStringLiteral("bootstrapinfoid"), id);
        rendition.insert(QStringLiteral("bootstrap"), GetBootStrap(xml, base, id));
        m_renditions.insert(bitrate, rendition);
        ++count;
    }
    return true;
}

QByteArray CAdobeParser::GetBootStrap(const QString &xml, const QString &baseUrl,
                                      const QString &bootstrapId)
{
    const Document &document = documentOf(xml);
    if (!document.bootstrapAddress.isEmpty())
        return externalBootstrap(document.bootstrapAddress, baseUrl);
    return bootstrapId.isEmpty() ? document.firstBootstrap : document.bootstraps.value(bootstrapId);
}

QByteArray CAdobeParser::externalBootstrap(const QString &address, const QString &baseUrl)
{
    const QString author = option("author").toString();
    const QString withAuthor = address + QLatin1Char('?') + author;
    QString target = CAdobeUtils::NormalizePath(withAuthor);
    if (target.isEmpty()) {
        const QString relative = author.isEmpty() ? address : withAuthor;
        target = QUrl(baseUrl).resolved(QUrl(relative)).toString();
    }
    // Renditions share their bootstrap as a rule: once fetched and held is enough.
    if (!m_fetchedBootstraps.contains(target))
        m_fetchedBootstraps.insert(target, decoded(GetManifestContent(target)));
    return m_fetchedBootstraps.value(target);
}

void CAdobeParser::SelectMedia()
{
    const QList<int> bitrates = m_renditions.keys();
    HostEvents::send(event::RenditionsFound{bitrates});

    const int quality = qMax(0, option("quality").toInt());
    int position = bitrates.size() - 1 - quality;
    if (quality >= 1 && m_renditions.contains(quality))
        position = bitrates.indexOf(quality);
    if (position < 0) {
        m_session->options.SetOption(QStringLiteral("quality"), -1);
        m_session->data.SetMedia({});
        HostEvents::send(event::RenditionMissing{});
        return;
    }
    m_session->data.SetMedia(m_renditions.value(bitrates.at(position)).toMap());
    HostEvents::send(event::RenditionChosen{bitrates.at(position)});
}
