#ifndef HLSKEYRING_H
#define HLSKEYRING_H

#include "MediaServers.h"
#include "StopFlag.h"

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <condition_variable>
#include <map>
#include <mutex>

/// The keys of a stream, each fetched once, when it is needed first. Safe on any thread.
class HlsKeyRing final
{
public:
    explicit HlsKeyRing(const MediaServers &servers);

    /// The 16 bytes at an address; waits for them in an event loop of its own, or for another
    /// thread that fetches them already. Empty when they are not to be had, for which nobody asks
    /// again, or soon after a stop.
    [[nodiscard]] QByteArray key(const QUrl &address, const StopFlag &stop);

private:
    struct Entry
    {
        QByteArray bytes;
        bool isBeingFetched = false;
        bool isDecided = false; ///< fetched, or given up
    };

    [[nodiscard]] QByteArray fetch(const QUrl &address, const StopFlag &stop) const;

    const MediaServers m_servers;
    std::mutex m_mutex;
    std::condition_variable m_hasNews;
    std::map<QString, Entry> m_entries; ///< by address
};

#endif
