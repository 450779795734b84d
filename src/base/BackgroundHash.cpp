#include "BackgroundHash.h"

#include <cstring>
#include <system_error>

namespace {

constexpr qint64 alwaysAtOnce = 4 * 1024 * 1024; // small files are not worth a thread
constexpr int pieceBytes = 256 * 1024;
constexpr int mostOpen = 16;

} // namespace

BackgroundHash::~BackgroundHash()
{
    if (!m_thread.joinable())
        return;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isOver = true;
    }
    m_hasChanged.notify_all();
    m_thread.join();
}

void BackgroundHash::reset()
{
    awaitAll();
    m_hash.reset();
    m_bytes = 0;
}

void BackgroundHash::add(const char *data, qint64 bytes)
{
    m_bytes += bytes;
    if (!m_thread.joinable() && (m_bytes <= alwaysAtOnce || !startThread()))
        return m_hash.add(data, bytes);
    while (bytes > 0) {
        const auto count = static_cast<int>(qMin<qint64>(bytes, pieceBytes));
        push(data, count);
        data += count;
        bytes -= count;
    }
}

bool BackgroundHash::startThread()
{
    try {
        m_thread = std::thread(&BackgroundHash::work, this);
    } catch (const std::system_error &) {
        return false;
    }
    return true;
}

void BackgroundHash::push(const char *data, int bytes)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_hasChanged.wait(lock, [this] { return m_open < mostOpen; });
    QByteArray piece;
    if (!m_spare.empty()) {
        piece = std::move(m_spare.back());
        m_spare.pop_back();
    }
    lock.unlock();
    piece.resize(bytes);
    std::memcpy(piece.data(), data, static_cast<size_t>(bytes));
    lock.lock();
    m_waiting.push_back(std::move(piece));
    ++m_open;
    lock.unlock();
    m_hasChanged.notify_all();
}

QByteArray BackgroundHash::sum() const
{
    awaitAll();
    return m_hash.sum();
}

void BackgroundHash::awaitAll() const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_hasChanged.wait(lock, [this] { return m_open == 0; });
}

/// The thread's.
void BackgroundHash::work()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_hasChanged.wait(lock, [this] { return m_isOver || !m_waiting.empty(); });
        if (m_isOver)
            return;
        QByteArray piece = std::move(m_waiting.front());
        m_waiting.pop_front();
        lock.unlock();
        m_hash.add(piece.constData(), piece.size());
        lock.lock();
        m_spare.push_back(std::move(piece));
        --m_open;
        m_hasChanged.notify_all();
    }
}
