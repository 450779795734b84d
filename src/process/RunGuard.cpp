#include "RunGuard.h"

#include "CrashSignals.h"
#include "EndTimer.h"
#include "HostEvents.h"
#include "MessageLog.h"
#include "ProcessMemory.h"
#include "RunLimits.h"
#include "RunTimes.h"
#include "ShareMemoryManager.h"

#include <QMutexLocker>
#include <QThread>

#include <cstdlib>
#include <optional>
#include <system_error>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr unsigned long watchIntervalMs = 100;
constexpr auto starvedFrom = 2s; // a look that takes so long tells that the process did not run
constexpr auto stopGrace = 500ms; // a living main thread obeys a stop request long before
constexpr auto slowGrace = 3s; // alive, it should be through by then
constexpr auto closeGrace = 1s; // nothing is lost by leaving out the rest of a close
constexpr auto memoryGrace = 500ms; // a page may take gigabytes in a second
constexpr auto lineGrace = 200ms; // for a host that does not read

} // namespace

RunGuard::RunGuard(qint64 deadlineMs, qint64 memoryBytes, std::function<void()> endAnalysis)
    : m_memoryLimit(memoryBytes)
    , m_endAnalysis(std::move(endAnalysis))
    , m_lastBeat(Clock::now())
    , m_deadline(m_lastBeat + std::chrono::milliseconds(deadlineMs))
{
    try {
        m_thread = std::thread([this] { watch(); });
        CrashSignals::install(); // somebody must be there who tidies up
    } catch (const std::system_error &error) {
        qWarning("the run goes on without a guard: %s", error.what());
    }
}

RunGuard::~RunGuard()
{
    CrashSignals::uninstall();
    {
        const QMutexLocker locker(&m_mutex);
        m_isStopped = true;
    }
    m_stopped.wakeAll();
    if (m_thread.joinable())
        m_thread.join();
}

void RunGuard::beat(std::shared_ptr<const RunReport> report)
{
    const QMutexLocker locker(&m_mutex);
    m_lastBeat = Clock::now();
    m_report.swap(report);
}

void RunGuard::note(Step step)
{
    const QMutexLocker locker(&m_mutex);
    m_steps |= step;
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

void RunGuard::watch()
{
    QMutexLocker locker(&m_mutex);
    while (!m_isStopped) {
        const auto before = Clock::now();
        m_stopped.wait(&m_mutex, watchIntervalMs);
        locker.unlock(); // reading the stop flag may wait for another process
        const Signs signs = look();
        locker.relock();
        const auto now = Clock::now();
        if (now - before > starvedFrom)
            startAnew(now);
        noteSigns(signs, now);
        if (m_isStopped)
            return;
        if (isEndDue(now))
            endProcess(locker);
        if (m_isMemoryFull && m_memoryFullAt == now)
            endAnalysisOverMemory(locker);
    }
}

RunGuard::Signs RunGuard::look() const
{
    return {ShareMemoryManager::GetInstance()->GetExitFlag(), MessageLog::isHostWaitedFor(),
            m_memoryLimit > 0 ? ProcessMemory::residentBytes() : 0};
}

void RunGuard::noteSigns(const Signs &signs, Clock::time_point now)
{
    if (signs.isEndAsked && !m_isEndAsked) {
        m_isEndAsked = true;
        m_endAskedAt = now;
    }
    if (signs.isHostWaitedFor)
        m_lastHeldUp = now;
    const bool isAnalysing = m_state == State::Running && !has(DownloadBegun);
    if (isAnalysing && !m_isMemoryFull && m_memoryLimit > 0 && signs.memoryBytes > m_memoryLimit) {
        m_isMemoryFull = true;
        m_memoryFullAt = now;
    }
}

/// The process was stopped, or the machine had no time for it: no thread could do anything.
void RunGuard::startAnew(Clock::time_point now)
{
    m_lastBeat = now;
    m_endAskedAt = now;
    m_memoryFullAt = qMax(m_memoryFullAt, now - 1ms);
}

void RunGuard::endAnalysisOverMemory(QMutexLocker &locker)
{
    locker.unlock();
    qWarning("the analysis ends because the page takes more than %lld MiB of memory",
             static_cast<long long>(m_memoryLimit / ProcessMemory::bytesPerMiB));
    m_endAnalysis();
    locker.relock();
}

/// Whether the main thread has had all the time that it may take.
bool RunGuard::isEndDue(Clock::time_point now) const
{
    if (CrashSignals::received() != 0)
        return true;
    if (m_state == State::EndClaimed)
        return m_isEndAsked ? now - m_lastBeat > closeGrace : isSilent(now);
    return isStopIgnored(now) || (!has(DownloadBegun) && isAnalysisOverdue(now));
}

bool RunGuard::isStopIgnored(Clock::time_point now) const
{
    if (!m_isEndAsked)
        return false;
    const auto askedFor = now - m_endAskedAt;
    return qMin(now - m_lastBeat, askedFor) > stopGrace || askedFor > slowGrace;
}

bool RunGuard::isAnalysisOverdue(Clock::time_point now) const
{
    if (m_isMemoryFull && !has(MemoryHeeded) && now - m_memoryFullAt > memoryGrace)
        return true;
    return isSilent(now) && now - m_deadline > runTimes().stuckGrace;
}

/// Whether the main thread does nothing, though nobody holds it up.
bool RunGuard::isSilent(Clock::time_point now) const
{
    return now - qMax(m_lastBeat, m_lastHeldUp) > runTimes().stuckGrace;
}

/// What the main thread would have told the host by now, and has not.
std::vector<HostEvent> RunGuard::lastEvents() const
{
    if (has(LastLineSent))
        return {};
    if (m_isEndAsked)
        return {event::Exiting{}};
    const bool hasCandidates = m_report && m_report->hasCandidates();
    if (!hasCandidates && !has(DownloadBegun))
        return {event::ParsingFailed{}};
    std::vector<HostEvent> events;
    if (m_report && !has(RecordSent))
        events.emplace_back(event::RecordMade{m_report->record()});
    events.emplace_back(event::DownloadEnded{event::What::Video, event::Outcome::Failed});
    return events;
}

void RunGuard::endProcess(QMutexLocker &locker)
{
    const std::vector<HostEvent> events = lastEvents();
    m_state = State::ForcingEnd;
    const std::shared_ptr<const RunReport> report = m_report;
    const bool hasRow = has(RowWritten);
    const bool isAsked = m_isEndAsked;
    locker.unlock();

    const bool hasCrashed = CrashSignals::received() != 0;
    std::optional<event::RunEnded> ended;
    if (report)
        ended =
            report->ended(isAsked && !hasCrashed ? RunLimits::stopClass() : RunClass::EngineLost);
    const int exitCode = ended ? ended->exitCode : EXIT_SUCCESS;
    if (report && !hasRow)
        report->writeRow();
    if (!hasCrashed) // whose own patience bounds this
        EndTimer::endWithin(lineGrace, exitCode, EndTimer::AtTheEnd::WaitUnlessHeldUp);
    const bool hadBlock = ShareMemoryManager::GetInstance()->RemoveShareMemData();
    for (const HostEvent &event : events) {
        if (&event == &events.back())
            HostEvents::sendLast(event); // the main thread may come back to life
        else
            HostEvents::send(event);
    }
    if (hadBlock)
        HostEvents::send(event::MemoryDetached{});
    if (ended)
        HostEvents::send(*ended);
    if (hasCrashed)
        CrashSignals::endProcess();
    std::_Exit(exitCode);
}
