#include "RunGuard.h"

#include "CsvLog.h"
#include "HostLine.h"
#include "ShareMemoryManager.h"

#include <QMutexLocker>
#include <QThread>

#include <cstdlib>

using namespace std::chrono_literals;

namespace {

constexpr unsigned long watchIntervalMs = 200;
constexpr auto stopGrace = 800ms; // a living main thread obeys a stop request long before
constexpr auto stuckGrace = 10s; // a heavy page may keep the engine busy for seconds

} // namespace

RunGuard::RunGuard(qint64 deadlineMs)
    : m_lastBeat(Clock::now())
    , m_deadline(m_lastBeat + std::chrono::milliseconds(deadlineMs))
    , m_thread([this] { watch(); })
{
}

RunGuard::~RunGuard()
{
    {
        const QMutexLocker locker(&m_mutex);
        m_isStopped = true;
    }
    m_stopped.wakeAll();
    m_thread.join();
}

void RunGuard::beat(const ParseData &record)
{
    const QMutexLocker locker(&m_mutex);
    m_lastBeat = Clock::now();
    m_record = record;
}

void RunGuard::claimEnd()
{
    QMutexLocker locker(&m_mutex);
    m_lastBeat = Clock::now();
    if (m_state == State::Running)
        m_state = State::EndClaimed;
    while (m_state == State::ForcingEnd) {
        locker.unlock();
        QThread::msleep(watchIntervalMs); // the process ends meanwhile
        locker.relock();
    }
}

void RunGuard::noteRowWritten()
{
    const QMutexLocker locker(&m_mutex);
    m_isRowWritten = true;
}

void RunGuard::watch()
{
    QMutexLocker locker(&m_mutex);
    while (!m_isStopped) {
        m_stopped.wait(&m_mutex, watchIntervalMs);
        const auto now = Clock::now();
        const auto silence = now - m_lastBeat;
        if (m_isStopped || silence < stopGrace)
            continue;
        const bool isCloseStuck = m_state == State::EndClaimed && silence > stuckGrace;
        const bool isOverdue =
            m_state == State::Running && silence > stuckGrace && now - m_deadline > stuckGrace;
        locker.unlock(); // reading the stop flag may wait for another process
        const bool isStopAsked = ShareMemoryManager::GetInstance()->GetExitFlag();
        locker.relock();
        if (m_isStopped || Clock::now() - m_lastBeat < stopGrace)
            continue;
        const bool isStopIgnored = m_state == State::Running && isStopAsked;
        if (!isCloseStuck && !isOverdue && !isStopIgnored)
            continue;

        const QString line = isCloseStuck ? QString()
            : isStopIgnored               ? QStringLiteral("exiting...")
                                          : QStringLiteral("parse failed");
        m_state = State::ForcingEnd;
        const ParseData record = m_record;
        const bool hasRow = m_isRowWritten;
        locker.unlock();
        endProcess(record, hasRow, line);
    }
}

void RunGuard::endProcess(const ParseData &record, bool hasRow, const QString &line)
{
    if (!line.isEmpty())
        HostLine::sendText(line);
    if (!hasRow) {
        ParseData copy = record;
        CsvLog(copy).saveDownloadResult();
    }
    ShareMemoryManager::GetInstance()->DeleteShareMemData();
    std::_Exit(EXIT_SUCCESS);
}
