#include "PageTask.h"

#include "ChildRun.h"
#include "FileKind.h"
#include "RunSwitches.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>

namespace {

constexpr int longestPauseMs = 60000;

/// Where another run may do better: what breaks off in a transfer the run itself has tried again. A
/// run that is in the way may be one of a killed command, which is about to end.
bool isWorthAnotherRun(RunClass runClass)
{
    return runClass == RunClass::PageUnreached || runClass == RunClass::EngineLost
        || runClass == RunClass::Incomplete || runClass == RunClass::Busy;
}

/// Where nothing has come that a later run could go on with.
bool leavesNothing(RunClass runClass)
{
    return runClass == RunClass::NothingFound || runClass == RunClass::Protected
        || runClass == RunClass::Unsupported || runClass == RunClass::PageUnreached;
}

/// A count of an event: never negative, and not more than numbers of JSON can tell apart.
qint64 countOf(const QJsonValue &value)
{
    constexpr double most = 9007199254740992.0;
    return static_cast<qint64>(qBound(0.0, value.toDouble(), most));
}

} // namespace

PageTask::PageTask(const GetOptions &options, const RunPlace &place, int number,
                   const QString &address, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_place(place)
    , m_target(QDir(options.folder).absolutePath())
    , m_folder(options.isSimulation ? place.scratchFolder : m_target, address)
{
    m_facts.address = address;
    m_facts.number = number;
    m_pause.setSingleShot(true);
    connect(&m_pause, &QTimer::timeout, this, &PageTask::beginRun);
}

PageTask::~PageTask() = default;

void PageTask::start()
{
    m_clock.start();
    m_facts.begunAt = QDateTime::currentDateTime();
    const QString before = m_options.isSimulation ? QString() : m_folder.finishDelivery();
    if (!before.isEmpty()) {
        m_facts.path = before;
        m_facts.bytes = QFileInfo(before).size();
        m_facts.thumbPath = m_folder.deliverThumb(before);
        return finish(RunClass::Complete);
    }
    if (!m_folder.make()) {
        m_facts.reason = QStringLiteral("no folder can be made in %1").arg(m_target);
        return finish(RunClass::NoOutputFolder);
    }
    beginRun();
}

void PageTask::stop()
{
    m_isStopping = true;
    if (m_run)
        m_run->stop();
    else if (m_pause.isActive())
        finish(RunClass::Stopped);
}

void PageTask::forget() const
{
    m_folder.remove();
}

void PageTask::beginRun()
{
    m_pause.stop();
    ++m_attempts;
    m_progress = PageProgress();
    m_hasSeenChoice = false;
    m_result = {};
    const QStringList switches =
        RunSwitches::forPage(m_options, m_facts.address, m_folder.videoPath());
    m_run = std::make_unique<ChildRun>(m_place.program, switches, m_place.environment);
    connect(m_run.get(), &ChildRun::eventCame, this,
            [this](const QJsonObject &event, const QByteArray &line) {
                takeEvent(event);
                emit eventCame(line);
            });
    // The run must not go while it tells its end.
    connect(m_run.get(), &ChildRun::ended, this, &PageTask::judgeRun, Qt::QueuedConnection);
    emit changed();
    m_run->start();
}

void PageTask::takeEvent(const QJsonObject &event)
{
    const QString name = event.value(QLatin1String("event")).toString();
    if (name == QLatin1String("record"))
        takeRecord(event.value(QLatin1String("record")).toObject());
    else if (name == QLatin1String("progress"))
        takeProgress(event);
    else if (name == QLatin1String("warning"))
        m_facts.warning = event.value(QLatin1String("text")).toString();
    else if (name == QLatin1String("retry"))
        m_progress.phase = PageProgress::Phase::Waiting;
    else
        return;
    emit changed();
}

void PageTask::takeRecord(const QJsonObject &record)
{
    m_facts.title = record.value(QLatin1String("title")).toString();
    const QJsonArray files = record.value(QLatin1String("fileList")).toArray();
    m_facts.candidates = files.size();
    const int selected = record.value(QLatin1String("selectedVideo")).toInt(-1);
    if (selected >= 0 && selected < files.size()) {
        const QJsonObject file = files.at(selected).toObject();
        m_hasSeenChoice = true;
        m_facts.videoAddress = file.value(QLatin1String("videoUrl")).toString();
        m_facts.format = file.value(QLatin1String("strFormat")).toString();
        m_facts.height = qMax(0, file.value(QLatin1String("height")).toInt());
        m_facts.announcedBytes = countOf(file.value(QLatin1String("nSize")));
    }
    m_progress.phase = PageProgress::Phase::Fetching;
    if (m_options.isSimulation && m_run)
        m_run->stop();
}

void PageTask::takeProgress(const QJsonObject &event)
{
    m_progress.phase = PageProgress::Phase::Fetching;
    m_progress.isInBytes = event.value(QLatin1String("unit")) != QLatin1String("fragments");
    m_progress.done = countOf(event.value(QLatin1String("done")));
    m_progress.total = countOf(event.value(QLatin1String("total")));
    m_progress.rate = event.value(QLatin1String("rate")).toDouble();
}

RunClass PageTask::classOfRun() const
{
    if (m_options.isSimulation && m_hasSeenChoice && !m_isStopping)
        return RunClass::Complete;
    const QString name = m_result.value(QLatin1String("class")).toString();
    for (const RunClasses::Row &row : RunClasses::all()) {
        if (row.name == name)
            return row.runClass;
    }
    // Without a result: it was killed, by us or by something else.
    return m_isStopping ? RunClass::Stopped : RunClass::EngineLost;
}

void PageTask::judgeRun()
{
    m_result = m_run->result();
    const RunClass runClass = classOfRun();
    if (m_result.isEmpty() && runClass == RunClass::EngineLost)
        m_facts.reason = m_run->lastWords();
    m_run.reset();
    m_facts.runClass = runClass;
    if (m_isStopping && runClass != RunClass::Complete)
        return finish(RunClass::Stopped);
    if (runClass == RunClass::Complete)
        return deliver();
    if (!tryAgain())
        finish(runClass);
}

bool PageTask::tryAgain()
{
    if (!isWorthAnotherRun(m_facts.runClass) || m_attempts > m_options.retries)
        return false;
    qint64 pauseMs = m_place.firstPauseMs;
    for (int i = 1; i < m_attempts && pauseMs < longestPauseMs; ++i)
        pauseMs *= 2;
    pauseMs = qMin<qint64>(pauseMs, longestPauseMs);
    m_progress = PageProgress();
    m_progress.phase = PageProgress::Phase::Waiting;
    m_pause.start(static_cast<int>(pauseMs));
    emit retried(m_attempts, m_options.retries, pauseMs, m_facts.runClass);
    return true;
}

void PageTask::deliver()
{
    const QString usual = m_facts.format.isEmpty() ? QStringLiteral("mp4") : m_facts.format;
    if (m_options.isSimulation) {
        m_facts.path = m_target + QLatin1Char('/') + m_options.name.nameFor(m_facts, usual);
        return finish(RunClass::Complete);
    }
    m_facts.bytes = QFileInfo(m_folder.videoPath()).size();
    m_facts.sha256 = m_result.value(QLatin1String("sha256")).toString().toLatin1();
    const QString extension = FileKind::extensionOf(m_folder.videoPath(), usual);
    m_facts.path = m_folder.deliverVideo(m_options.name.nameFor(m_facts, extension));
    if (m_facts.path.isEmpty()) {
        m_facts.bytes = -1;
        m_facts.reason = QStringLiteral("the file cannot be given its name");
        return finish(RunClass::Disk);
    }
    m_facts.thumbPath = m_folder.deliverThumb(m_facts.path);
    finish(RunClass::Complete);
}

void PageTask::finish(RunClass runClass)
{
    if (m_hasEnded)
        return;
    m_hasEnded = true;
    m_pause.stop();
    m_facts.runClass = runClass;
    m_facts.tookMs = m_clock.elapsed();
    if (runClass == RunClass::Complete)
        m_facts.reason.clear();
    else if (leavesNothing(runClass) && !m_options.isSimulation)
        m_folder.remove();
    else
        m_folder.removeIfEmpty();
    emit ended();
}
