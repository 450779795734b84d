#include "RunLife.h"

#include "RecordReport.h"

namespace {

constexpr int intervalMs = 250;

} // namespace

RunLife::RunLife(const ParseData &record, const RunOptions &options, QObject *parent)
    : QObject(parent)
    , m_record(record)
    , m_options(options)
    , m_verdict(options)
{
    connect(&m_timer, &QTimer::timeout, this, [this] {
        show();
        emit looked();
    });
}

void RunLife::begin(qint64 deadlineMs)
{
    m_guard = std::make_unique<RunGuard>(deadlineMs, m_options.memoryBytes, [this] {
        QMetaObject::invokeMethod(this, &RunLife::memoryFull, Qt::QueuedConnection);
    });
    show();
    m_timer.start(intervalMs);
}

void RunLife::show()
{
    if (m_guard)
        m_guard->beat(std::make_shared<RecordReport>(m_record, m_options, m_verdict));
}

void RunLife::note(RunGuard::Step step)
{
    if (m_guard)
        m_guard->note(step);
}

void RunLife::claimEnd()
{
    show();
    if (m_guard)
        m_guard->claimEnd();
}
