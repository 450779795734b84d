#ifndef ADOBEPARSER_H
#define ADOBEPARSER_H

#include "HdsSession.h"
#include "StopFlag.h"

#include <QByteArray>
#include <QHash>
#include <QMap>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>

class XPathDocument;

/// Reads the manifest named by the option "manifest", chooses a rendition by the option "quality",
/// reads its bootstrap, and leaves what it learned in the session's description and options.
///
/// It lives on the main thread and waits for its requests in nested event loops.
class CAdobeParser final
{
public:
    /// Gives the text at an address; empty when there is none.
    using Fetch = std::function<QString(const QString &address)>;

    /// @param stop ends a wait for the network when it is raised
    /// @param fetch where manifests come from, and bootstraps that a manifest names; if it is
    /// empty, from the network
    /// @param session the stream
    explicit CAdobeParser(const StopFlag &stop = StopFlag(), const Fetch &fetch = Fetch(),
                          const std::shared_ptr<HdsSession> &session = HdsSession::ofProcess());
    ~CAdobeParser();

    /// How many characters of child manifests are fetched before the rest are left out, with a
    /// warning; 256 Mi unless it is called.
    void SetMaxChildCharacters(int characters);
    Q_DISABLE_COPY(CAdobeParser)

    // The manifest (AdobeParser.cpp).

    /// The whole manifest stage. False when no stream can be downloaded; the reason is a debug line
    /// unless it is silence by interface.
    [[nodiscard]] bool parseManifest();

    /// Collects the manifests and reads the renditions of each. False when one is served by RTMP.
    bool parseManifestXml();

    /// The body at an address as text; empty when it cannot be fetched.
    [[nodiscard]] QString GetManifestContent(const QString &url);

    /// A path as a query that finds unprefixed names in the manifest's default namespace.
    [[nodiscard]] static QString GetXmlPath(const QString &xml, const QString &path);

    /// The manifest's base address: the one it states, else that of its own address.
    [[nodiscard]] QString GetBaseUrl(const QString &xml, const QString &manifestUrl);

    /// The number that a query finds; with no result `preferred`, if that is 0 or more, else
    /// `fallback`.
    [[nodiscard]] int GetBitrate(const QString &xml, const QString &query, int fallback,
                                 int preferred);

    /// The attributes of the n-th media element, from 1, by name.
    [[nodiscard]] QMap<QString, QVariant> GetMediaAtrriInfo(const QString &xml, int n); // sic

    /// The decoded metadata of the n-th media element, from 1; empty when it has none.
    [[nodiscard]] QByteArray GetMediaData(const QString &xml, int n);

    /// Fills the table of manifests: the child manifests, or the manifest itself.
    bool GetChildManifests();

    /// Reads the renditions of every manifest in the table, which is empty afterwards. False at
    /// the first that is served by RTMP.
    bool GetMediaStreamInfo();

    /// Reads the renditions of one manifest ("xml", "url", "bitrate") and adds their number to
    /// `count`. False when it is served by RTMP.
    bool SetDetailInfo(QMap<QString, QVariant> &entry, int &count);

    /// The decoded bootstrap that a manifest has inline under an id (empty: its first), or at an
    /// address.
    [[nodiscard]] QByteArray GetBootStrap(const QString &xml, const QString &baseUrl,
                                          const QString &bootstrapId);

    /// Chooses a rendition and copies it to the stream's description.
    void SelectMedia();

    // The bootstrap (AdobeParserBootstrap.cpp).

    /// Reads the bootstrap of the chosen rendition. False, with a debug line, when it has none or
    /// it describes no fragments.
    [[nodiscard]] bool ParseBootstrap();

    /// Fetches the bootstrap again from the option "bootstrapUrl". False when it cannot be fetched.
    [[nodiscard]] bool UpdateBootstrapInfo();

    /// Reads the top-level box of the rendition's bootstrap.
    [[nodiscard]] bool ParseBoxes();

    /// The segment that holds the first fragment to fetch; 1 or more.
    [[nodiscard]] int StartSegment() const;

    /// The number before that of the first fragment to fetch; 0 or more.
    [[nodiscard]] int StartFragment() const;

private:
    /// What is kept of a document while its renditions are read, so that many of them cost no
    /// more than their sum.
    struct Document;

    [[nodiscard]] QVariant option(const char *key) const;
    Document &documentOf(const QString &xml);
    QByteArray externalBootstrap(const QString &address, const QString &baseUrl);

    // Readers of the bootstrap: they share m_pos and never read past the end of m_box.
    void ReadBoxHeader(QByteArray &data, unsigned long long &pos);
    void ParseBootstrapBox();
    void ParseAsrtBox();
    void ParseAfrtBox();
    void ParseSegAndFragTable();
    void readTables(const QByteArray &type, void (CAdobeParser::*readTable)());
    [[nodiscard]] int countFragments() const;
    unsigned int takeByte();
    quint32 takeInt32();
    qint64 takeInt64();
    void skip(quint64 bytes);
    void skipString();
    void skipStrings();
    [[nodiscard]] quint64 bytesLeft() const;
    [[nodiscard]] bool hasRoom(const QVariantList &table, quint64 entryBytes) const;

    StopFlag m_stop;
    const Fetch m_fetch;
    const std::shared_ptr<HdsSession> m_session;
    QString m_manifest;
    QMap<int, QVariant> m_manifests; // still to be read, by bitrate
    QMap<int, QVariant> m_renditions; // by bitrate
    int m_renditionCount = 0;
    int m_maxChildCharacters;
    std::unique_ptr<Document> m_document;
    QHash<QString, QByteArray> m_fetchedBootstraps; // by address

    QByteArray m_box;
    unsigned long long m_pos = 0;
    QByteArray m_boxType;
    unsigned long long m_boxSize = 0;
    QVariantList m_segments;
    QVariantList m_fragments;
    int m_startSegment = 1;
    int m_startFragment = 0;
};

#endif
