#include "HlsLoader.h"

#include "HlsLimits.h"

namespace {

constexpr int mostTries = 3; // at each address
constexpr int firstPauseMs = 100; // three times as long before each further try

} // namespace

HlsLoader::HlsLoader(const MediaServers &servers, QObject *parent)
    : QObject(parent)
    , m_request(servers)
{
    m_pause.setSingleShot(true);
    connect(&m_pause, &QTimer::timeout, this, &HlsLoader::ask);
    connect(&m_request, &MediaRequest::ended, this, &HlsLoader::onEnded);
}

void HlsLoader::load(const QVector<QUrl> &addresses, const HlsVariables &imports)
{
    m_pause.stop();
    m_addresses = addresses;
    m_imports = imports;
    m_index = 0;
    m_tries = 0;
    m_isLoading = true;
    ask();
}

void HlsLoader::cancel()
{
    m_pause.stop();
    m_isLoading = false;
}

void HlsLoader::ask()
{
    ++m_tries;
    m_request.start({m_addresses.at(m_index), 0, 0, HlsLimits::playlistBytes});
}

void HlsLoader::onEnded()
{
    using Failure = Presentation::Failure;
    if (!m_isLoading)
        return;
    if (!m_request.hasSucceeded()) {
        onMissed(Failure::Unreachable, m_request.errorText(), m_request.isAbsent());
        return;
    }
    const HlsPlaylist playlist =
        HlsPlaylist::parse(m_request.takeBody(), m_request.url(), m_imports);
    if (playlist.kind == HlsPlaylist::Kind::None) {
        onMissed(Failure::Malformed, QLatin1String("not a playlist: ") + playlist.error, false);
        return;
    }
    m_isLoading = false;
    emit loaded(playlist, m_addresses.at(m_index));
}

void HlsLoader::onMissed(Presentation::Failure failure, const QString &reason, bool isFinal)
{
    const QString address = m_addresses.at(m_index).toString(QUrl::RemoveUserInfo);
    if (!isFinal && m_tries < mostTries) {
        int pauseMs = firstPauseMs;
        for (int i = 1; i < m_tries; ++i)
            pauseMs *= 3;
        m_pause.start(pauseMs);
    } else if (m_index + 1 < m_addresses.size()) {
        qWarning("%s: %s", qUtf8Printable(address), qUtf8Printable(reason));
        ++m_index;
        m_tries = 0;
        m_pause.start(0);
    } else {
        m_isLoading = false;
        emit failed(failure, address + QLatin1String(": ") + reason);
    }
}
