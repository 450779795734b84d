#include "ManifestSniff.h"

namespace {

constexpr qint64 maxUnreadBytes = 64 * 1024;

} // namespace

ManifestSniff::ManifestSniff(const MediaServers &servers, QObject *parent)
    : QObject(parent)
    , m_headers(servers.headers)
    , m_client(servers.net)
{
    NetSettings settings = servers.net;
    settings.stallMs = servers.patienceMs();
    m_client.setSettings(settings);
    connect(&m_client, &HttpClient::redirected, this,
            [this](const QUrl &target) { m_address = target; });
    connect(&m_client, &HttpClient::readable, this, &ManifestSniff::readOn);
    connect(&m_client, &HttpClient::ended, this, &ManifestSniff::onEnded);
}

void ManifestSniff::start(const QUrl &address)
{
    m_address = address;
    HttpClient::Request request;
    request.url = address;
    request.headers = m_headers;
    request.redirects.mayLeaveTls = true;
    request.cookies = &m_cookies;
    request.maxUnreadBytes = maxUnreadBytes;
    m_client.start(request);
}

/// Of what is longer the rest is not wanted.
void ManifestSniff::readOn()
{
    if (!m_client.redirectTarget().isEmpty()) {
        m_client.skip();
        return;
    }
    const bool isTaken = m_client.readTo([this](const char *data, qint64 bytes) {
        const qint64 room = ManifestAddress::sniffBytes - m_beginning.size();
        m_beginning.append(data, static_cast<int>(qMin(room, bytes)));
        return m_beginning.size() < ManifestAddress::sniffBytes;
    });
    if (!isTaken)
        m_client.abort();
}

void ManifestSniff::onEnded()
{
    constexpr int statusOk = 200;
    if (m_client.bytesAvailable() > 0 && m_beginning.size() < ManifestAddress::sniffBytes)
        readOn();
    if (m_client.status() == statusOk)
        m_kind = ManifestAddress::kindOfBytes(m_beginning);
    emit ended();
}

bool ManifestSniff::isDenied() const
{
    constexpr int firstError = 400;
    constexpr int notFound = 404;
    constexpr int gone = 410;
    const int status = m_client.status();
    return status >= firstError && status != notFound && status != gone;
}
