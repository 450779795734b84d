#include "EngineProcess.h"

#include <cerrno>

#include <poll.h>
#include <unistd.h>

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr milliseconds patience{300};
constexpr int chunkBytes = 1 << 18;
constexpr int maxMessageBytes = 256 << 20;
constexpr int maxUnsentBytes = 64 << 20; // of an engine that does not listen

QString textOf(EngineKeeper::End end)
{
    switch (end) {
    case EngineKeeper::End::Asked:
    case EngineKeeper::End::OfItself:
        break;
    case EngineKeeper::End::OverMemory:
        return QStringLiteral("it takes more memory than it may");
    case EngineKeeper::End::NotStarted:
        return QStringLiteral("it cannot be started");
    }
    return QStringLiteral("it has ended");
}

} // namespace

EngineProcess::EngineProcess(std::unique_ptr<EngineKeeper> keeper, QObject *parent)
    : QObject(parent)
    , m_keeper(std::move(keeper))
    , m_chunk(chunkBytes, Qt::Uninitialized)
{
    if (!m_keeper) {
        QMetaObject::invokeMethod(
            this, [this] { emit ended(textOf(EngineKeeper::End::NotStarted)); },
            Qt::QueuedConnection);
        return;
    }
    m_readable = std::make_unique<QSocketNotifier>(m_keeper->readFd(), QSocketNotifier::Read);
    m_writable = std::make_unique<QSocketNotifier>(m_keeper->writeFd(), QSocketNotifier::Write);
    m_writable->setEnabled(false);
    connect(m_readable.get(), &QSocketNotifier::activated, this, &EngineProcess::readOn);
    connect(m_writable.get(), &QSocketNotifier::activated, this, &EngineProcess::writeOn);
    m_keeper->begin();
}

void EngineProcess::send(const QByteArray &message)
{
    if (!m_keeper)
        return;
    const bool isFirst = m_unsent.isEmpty();
    m_unsent += message;
    m_unsent += '\0';
    if (isFirst)
        writeOn();
    else if (m_unsent.size() - m_sent > maxUnsentBytes)
        give(QStringLiteral("it does not listen"));
}

void EngineProcess::writeOn()
{
    while (m_sent < m_unsent.size()) {
        const ssize_t count = ::write(m_keeper->writeFd(), m_unsent.constData() + m_sent,
                                      static_cast<size_t>(m_unsent.size() - m_sent));
        if (count <= 0 && errno != EINTR)
            break; // a broken pipe is noticed by who reads
        m_sent += static_cast<int>(qMax<ssize_t>(0, count));
    }
    if (m_sent > m_unsent.size() / 2) { // so that no byte is moved often
        m_unsent.remove(0, m_sent);
        m_sent = 0;
    }
    m_writable->setEnabled(!m_unsent.isEmpty());
}

void EngineProcess::readOn()
{
    const ssize_t count =
        ::read(m_keeper->readFd(), m_chunk.data(), static_cast<size_t>(m_chunk.size()));
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count <= 0)
        return give(QString());
    m_arrived.append(m_chunk.constData(), static_cast<int>(count));
    takeMessages();
    if (m_arrived.size() > maxMessageBytes)
        give(QStringLiteral("its messages are too long"));
}

/// Receivers may wait for further messages: what is left to take is always in the members.
void EngineProcess::takeMessages()
{
    int end = 0;
    while ((end = m_arrived.indexOf('\0', m_searched)) >= 0) {
        const QByteArray message = m_arrived.mid(m_taken, end - m_taken);
        m_taken = end + 1;
        m_searched = m_taken;
        emit received(message);
    }
    m_arrived.remove(0, m_taken);
    m_taken = 0;
    m_searched = m_arrived.size();
}

bool EngineProcess::receiveBefore(Clock::time_point lastMoment)
{
    const auto left =
        std::chrono::duration_cast<milliseconds>(lastMoment - Clock::now()) + milliseconds(1);
    if (lastMoment <= Clock::now())
        return false;
    pollfd line{m_keeper->readFd(), POLLIN, 0};
    if (::poll(&line, 1, static_cast<int>(left.count())) > 0)
        readOn();
    if (m_keeper && !m_unsent.isEmpty())
        writeOn();
    return true;
}

void EngineProcess::end()
{
    if (m_keeper)
        letGo(milliseconds::zero());
}

/// @param reason empty when the keeper knows it
void EngineProcess::give(const QString &reason)
{
    if (!m_keeper)
        return;
    // One that has closed its line is about to end, and its keeper to see why.
    const EngineKeeper::End end = letGo(reason.isEmpty() ? patience : milliseconds::zero());
    emit ended(reason.isEmpty() ? textOf(end) : reason);
}

EngineKeeper::End EngineProcess::letGo(milliseconds endsWithin)
{
    // They may be what has called this.
    for (auto *const notifier : {&m_readable, &m_writable}) {
        (*notifier)->setEnabled(false);
        notifier->release()->deleteLater();
    }
    const EngineKeeper::End end = m_keeper->end(endsWithin);
    m_keeper.reset();
    m_unsent.clear();
    m_sent = 0;
    m_arrived.clear();
    m_taken = 0;
    m_searched = 0;
    return end;
}
