#ifndef MANIFESTSNIFF_H
#define MANIFESTSNIFF_H

#include "CookieJar.h"
#include "HttpClient.h"
#include "ManifestAddress.h"
#include "MediaServers.h"

#include <QByteArray>
#include <QObject>
#include <QUrl>

/// Asks for a document and reads its beginning, to tell whether it is a manifest. Made for one
/// document; main thread. It may be destroyed at any time but from a slot of its signal.
class ManifestSniff final : public QObject
{
    Q_OBJECT

public:
    explicit ManifestSniff(const MediaServers &servers, QObject *parent = nullptr);

    /// Asks, once. ended() follows, never from inside this call.
    void start(const QUrl &address);

    // Once it has ended.

    /// None for what is no manifest, or cannot be had.
    [[nodiscard]] ManifestAddress::Kind kind() const { return m_kind; }

    /// Whether the server has one, or may have, and does not give it.
    [[nodiscard]] bool isDenied() const;

    /// Where the document came from, after redirects.
    [[nodiscard]] QUrl address() const { return m_address; }

signals:
    void ended();

private:
    void readOn();
    void onEnded();

    const HttpClient::Headers m_headers;
    CookieJar m_cookies;
    HttpClient m_client;
    QUrl m_address;
    QByteArray m_beginning;
    ManifestAddress::Kind m_kind = ManifestAddress::Kind::None;
};

#endif
