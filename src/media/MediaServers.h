#ifndef MEDIASERVERS_H
#define MEDIASERVERS_H

#include "ConnectionPool.h"
#include "HttpClient.h"
#include "NetSettings.h"

#include <QByteArray>

#include <atomic>
#include <memory>

/// How a presentation's servers are asked, the same for manifests, keys and segments. A value that
/// any thread may hold; the pool and what is counted are shared by all copies.
struct MediaServers
{
    NetSettings net;
    HttpClient::Headers headers; ///< with every request, such as Referer and User-Agent
    std::shared_ptr<ConnectionPool> pool = std::make_shared<ConnectionPool>();
    /// How often a server has answered that it does not give what was asked for.
    std::shared_ptr<std::atomic<int>> denials = std::make_shared<std::atomic<int>>(0);

    /// How long a server may be silent, and how long a segment is asked for again, in milliseconds:
    /// the caller's limit or, without one, a minute.
    [[nodiscard]] qint64 patienceMs() const
    {
        constexpr qint64 usualMs = 60 * 1000;
        return net.stallMs > 0 ? net.stallMs : usualMs;
    }
};

#endif
