#include "Scheduler.h"

#include "Archive.h"

#include <algorithm>

Scheduler::Scheduler(const GetOptions &options, const RunPlace &place, const QStringList &addresses,
                     Archive &archive, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_place(place)
    , m_archive(archive)
    , m_queue(addresses, options.perHost)
    , m_pageCount(addresses.size())
{
}

Scheduler::~Scheduler() = default;

void Scheduler::start()
{
    fill();
}

void Scheduler::stop()
{
    m_isStopping = true;
    const std::vector<int> rest = m_queue.takeRest();
    for (const int page : rest)
        emit pageEnded(idleFacts(page), {});
    const std::vector<PageTask *> tasks = m_atWork; // they may leave it meanwhile
    for (PageTask *const task : tasks)
        task->stop();
    fill();
}

PageFacts Scheduler::idleFacts(int page) const
{
    PageFacts facts;
    facts.address = m_queue.addressOf(page);
    facts.number = page + 1;
    return facts;
}

/// Begins what may begin. A page may end before its begin returns, so it may be called within
/// itself.
void Scheduler::fill()
{
    if (m_isFilling)
        return;
    m_isFilling = true;
    while (!m_isStopping && static_cast<int>(m_atWork.size()) < m_options.jobs) {
        const std::optional<int> page = m_queue.take();
        if (!page)
            break;
        begin(*page);
    }
    m_isFilling = false;
    if (m_hasEnded || !m_atWork.empty() || !m_queue.isEmpty())
        return;
    m_hasEnded = true;
    emit ended();
}

void Scheduler::begin(int page)
{
    if (!m_options.isSimulation && m_archive.contains(m_queue.addressOf(page))) {
        PageFacts facts = idleFacts(page);
        facts.isSkipped = true;
        facts.runClass = RunClass::Complete;
        // A command may have been killed between the two.
        PageFolder(m_options.folder, facts.address).remove();
        m_queue.release(page);
        emit pageEnded(facts, {});
        return;
    }
    auto *const task = new PageTask(m_options, m_place, page + 1, m_queue.addressOf(page), this);
    m_atWork.push_back(task);
    connect(task, &PageTask::changed, this, [this, task] { emit pageChanged(task); });
    connect(task, &PageTask::eventCame, this,
            [this, task](const QByteArray &line) { emit pageEvent(task, line); });
    connect(task, &PageTask::retried, this,
            [this, task](int attempt, int most, qint64 pauseMs, RunClass cause) {
                emit pageRetried(task, attempt, most, pauseMs, cause);
            });
    connect(task, &PageTask::ended, this, [this, task, page] { finishPage(task, page); });
    emit pageBegun(task);
    task->start();
}

void Scheduler::finishPage(PageTask *task, int page)
{
    m_atWork.erase(std::find(m_atWork.begin(), m_atWork.end(), task));
    m_queue.release(page);
    task->deleteLater();
    PageFacts facts = task->facts();
    if (facts.hasArrived() && !m_options.isSimulation) {
        // In this order: what is in the archive has its name, and no page is fetched for nothing.
        if (m_archive.isOpen() && !m_archive.add(facts.address))
            emit archiveFailed();
        else
            task->forget();
    }
    emit pageEnded(facts, task->result());
    fill();
}
