#ifndef BACKGROUNDHASH_H
#define BACKGROUNDHASH_H

#include "ContentHash.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

/// A ContentHash that leaves its work to a thread of its own, from the first few MiB on: for a fast
/// server the sum takes as long as everything else that is done with the bytes. What waits to be
/// summed up is bounded; whoever adds more waits. Where the system gives no thread, whoever adds
/// does the work.
///
/// To be used on one thread at a time.
class BackgroundHash final
{
public:
    BackgroundHash() = default;
    ~BackgroundHash();
    Q_DISABLE_COPY(BackgroundHash)

    /// Begins again with nothing.
    void reset();

    /// Adds bytes, which are copied where they have to wait.
    void add(const char *data, qint64 bytes);

    /// How much has been added since the beginning.
    [[nodiscard]] qint64 bytes() const { return m_bytes; }

    /// The sum of all that has been added, which is waited for; see ContentHash.
    [[nodiscard]] QByteArray sum() const;

private:
    [[nodiscard]] bool startThread();
    void push(const char *data, int bytes);
    void awaitAll() const;
    void work();

    ContentHash m_hash; ///< the thread's while anything waits, or is at work
    qint64 m_bytes = 0;
    std::thread m_thread;

    // Behind the mutex.
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_hasChanged;
    std::deque<QByteArray> m_waiting;
    std::vector<QByteArray> m_spare; ///< memory to be used again
    int m_open = 0; ///< pieces that wait or are at work
    bool m_isOver = false;
};

#endif
