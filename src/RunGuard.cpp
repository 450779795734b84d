#include "RunGuard.h"

#include "CsvLog.h"
#include "EndTimer.h"
#include "HostLine.h"
#include "ShareMemoryManager.h"

#include <QMutexLocker>
#include <QThread>

#include <cstdlib>
#include <system_error>

using namespace std::chrono_literals;

namespace {

constexpr unsigned long watchIntervalMs = 100;
constexpr auto stopGrace = 500ms; // a living main thread obeys a stop request long before
constexpr auto slowGrace = 3s; // alive, or closing already, it should be through by then
constexpr auto stuckGrace = 10s; // a heavy page may keep the engine busy for seconds
constexpr auto lineGrace = 200ms; // for a host that does not read

} // namespace

RunGuard::RunGuard(qint64 deadlineMs)
    : m_lastBeat(Clock::now())
    , m_deadline(m_lastBeat + std::chrono::milliseconds(deadlineMs))
{
    try {
        m_thread = std::thread([this] { watch(); });
    } catch (const std::system_error &error) {
        qWarning("the run goes on without a guard: %s", error.what());
    }
}

RunGuard::~RunGuard()
{
    {
        const QMutexLocker locker(&m_mutex);
        m_isStopped = true;
    }
    m_stopped.wakeAll();
    if (m_thread.joinable())
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
        locker.unlock(); // reading the stop flag may wait for another process
        const bool isEndAsked = ShareMemoryManager::GetInstance()->GetExitFlag();
        locker.relock();
        const auto now = Clock::now();
        if (isEndAsked && !m_isEndAsked) {
            m_isEndAsked = true;
            m_endAskedAt = now;
        }
        if (m_isStopped || !isEndDue(now))
            continue;
        const QString line = lastLine();
        m_state = State::ForcingEnd;
        const ParseData record = m_record;
        const bool hasRow = m_isRowWritten;
        locker.unlock();
        endProcess(record, hasRow, line);
    }
}

/// Whether the main thread has had all the time that it may take.
bool RunGuard::isEndDue(Clock::time_point now) const
{
    const auto silence = now - m_lastBeat;
    const auto askedFor = m_isEndAsked ? now - m_endAskedAt : Clock::duration::zero();
    if (m_state == State::EndClaimed)
        return silence > (m_isEndAsked ? Clock::duration(slowGrace) : Clock::duration(stuckGrace));
    const bool isStopIgnored = qMin(silence, askedFor) > stopGrace || askedFor > slowGrace;
    const bool isOverdue = silence > stuckGrace && now - m_deadline > stuckGrace;
    return isStopIgnored || isOverdue;
}

/// What the main thread would have told the host by now; nothing if it has.
QString RunGuard::lastLine() const
{
    if (m_state == State::EndClaimed)
        return {};
    return m_isEndAsked ? QStringLiteral("exiting...") : QStringLiteral("parse failed");
}

void RunGuard::endProcess(const ParseData &record, bool hasRow, const QString &line)
{
    if (!hasRow) {
        ParseData copy = record;
        CsvLog(copy).saveDownloadResult();
    }
    EndTimer::endWithin(lineGrace, EXIT_SUCCESS);
    const bool hadBlock = ShareMemoryManager::GetInstance()->RemoveShareMemData();
    if (!line.isEmpty())
        HostLine::sendText(line);
    if (hadBlock)
        HostLine::sendText(QStringLiteral("detach sharememory"));
    std::_Exit(EXIT_SUCCESS);
}
