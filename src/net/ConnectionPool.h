#ifndef CONNECTIONPOOL_H
#define CONNECTIONPOOL_H

#include <memory>
#include <mutex>
#include <vector>

class QNetworkAccessManager;

/// Network managers that wait for their next request, each with the connections that it keeps open
/// and the thread that serves them. The fragments of a stream come from one server: without the
/// pool each costs a connection of its own, that is a round trip and a slow start.
///
/// Safe on any thread; the pool is destroyed while the application object exists.
class ConnectionPool final
{
public:
    ConnectionPool();
    ~ConnectionPool();
    ConnectionPool(const ConnectionPool &) = delete;
    ConnectionPool &operator=(const ConnectionPool &) = delete;

    /// The manager that was given back last, or a new one. It belongs to the calling thread.
    [[nodiscard]] std::unique_ptr<QNetworkAccessManager> take();

    /// Takes back a manager that belongs to the calling thread, and deletes its replies: none may
    /// be sending a signal.
    void giveBack(std::unique_ptr<QNetworkAccessManager> manager);

private:
    std::mutex m_mutex;
    std::vector<std::unique_ptr<QNetworkAccessManager>> m_idle; // of no thread
};

#endif
