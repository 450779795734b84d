#include "ConnectionPool.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QThread>

ConnectionPool::ConnectionPool() = default;

ConnectionPool::~ConnectionPool() = default;

std::unique_ptr<QNetworkAccessManager> ConnectionPool::take()
{
    std::unique_ptr<QNetworkAccessManager> manager;
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (!m_idle.empty()) {
            manager = std::move(m_idle.back());
            m_idle.pop_back();
        }
    }
    if (!manager)
        return std::make_unique<QNetworkAccessManager>();
    manager->moveToThread(QThread::currentThread());
    return manager;
}

void ConnectionPool::giveBack(std::unique_ptr<QNetworkAccessManager> manager)
{
    qDeleteAll(manager->findChildren<QNetworkReply *>(QString(), Qt::FindDirectChildrenOnly));
    manager->moveToThread(nullptr); // an object of no thread may be taken over by any
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_idle.push_back(std::move(manager));
}
