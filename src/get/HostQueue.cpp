#include "HostQueue.h"

#include <QUrl>

#include <algorithm>
#include <vector>

HostQueue::HostQueue(const QStringList &addresses, int perHost)
    : m_addresses(addresses)
    , m_perHost(perHost)
    , m_waiting(addresses.size())
{
    for (int i = 0; i < m_addresses.size(); ++i) {
        Host &host = m_hosts[hostOf(m_addresses.at(i))];
        host.pages.push_back(i);
        if (host.pages.size() == 1)
            m_ready.emplace(i, hostOf(m_addresses.at(i)));
    }
}

QString HostQueue::hostOf(const QString &address)
{
    return QUrl(address).host();
}

std::optional<int> HostQueue::take()
{
    if (m_ready.empty())
        return std::nullopt;
    const auto [page, name] = *m_ready.cbegin();
    m_ready.erase(m_ready.cbegin());
    Host &host = m_hosts[name];
    host.pages.pop_front();
    ++host.atWork;
    --m_waiting;
    if (!host.pages.empty() && host.atWork < m_perHost)
        m_ready.emplace(host.pages.front(), name);
    return page;
}

void HostQueue::release(int page)
{
    const QString name = hostOf(m_addresses.at(page));
    Host &host = m_hosts[name];
    const bool hadRoom = host.atWork < m_perHost;
    --host.atWork;
    if (!hadRoom && !host.pages.empty())
        m_ready.emplace(host.pages.front(), name);
}

std::vector<int> HostQueue::takeRest()
{
    std::vector<int> rest;
    for (Host &host : m_hosts) {
        rest.insert(rest.end(), host.pages.cbegin(), host.pages.cend());
        host.pages.clear();
    }
    std::sort(rest.begin(), rest.end());
    m_ready.clear();
    m_waiting = 0;
    return rest;
}
