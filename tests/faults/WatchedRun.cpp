#include "WatchedRun.h"

#include "PageRun.h"
#include "TestFiles.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTest>

#include <csignal>

#include <sys/sem.h>
#include <sys/shm.h>

namespace {

constexpr int limitMs = 150000; // of one run on a machine that is busy with others
constexpr size_t runsAtOnce = 8; // most of their time is spent waiting

/// The highest amount of memory that a living process has had.
qint64 peakOf(qint64 pid)
{
    const QByteArray status = readFile(QStringLiteral("/proc/%1/status").arg(pid));
    const int at = status.indexOf("VmHWM:");
    return at < 0 ? 0 : status.mid(at + 6, 16).trimmed().split(' ').first().toLongLong() * 1024;
}

/// The processes whose environment names a folder.
QStringList processesOf(const QString &folder)
{
    QStringList found;
    const QStringList pids = QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")});
    for (const QString &pid : pids) {
        if (readFile(QLatin1String("/proc/") + pid + QLatin1String("/environ"))
                .contains(QFile::encodeName(folder)))
            found += QLatin1String("process ") + pid;
    }
    return found;
}

/// The blocks of shared memory that a process has made and nobody uses. Other processes had its
/// number before it. The system's keys are short hashes: another run may have come upon the block,
/// and takes it away when it ends.
QList<int> blocksOf(qint64 pid, qint64 startSeconds)
{
    constexpr int idColumn = 1;
    constexpr int creatorColumn = 4;
    constexpr int usersColumn = 6;
    constexpr int timeColumn = 13;
    QList<int> found;
    const QList<QByteArray> lines =
        readFile(QStringLiteral("/proc/sysvipc/shm")).split('\n').mid(1);
    for (const QByteArray &line : lines) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.value(creatorColumn).toLongLong() == pid && fields.value(usersColumn) == "0"
            && fields.value(timeColumn).toLongLong() >= startSeconds)
            found += fields.value(idColumn).toInt();
    }
    return found;
}

} // namespace

WatchedRun::WatchedRun()
{
    for (const char *name : {"temp", "runtime"}) {
        const QString folder = m_program.path(QString::fromLatin1(name));
        QDir().mkdir(folder);
        QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    m_program.setEnvironment(QStringLiteral("TMPDIR"), m_program.path(QStringLiteral("temp")));
    m_program.setEnvironment(QStringLiteral("XDG_RUNTIME_DIR"),
                             m_program.path(QStringLiteral("runtime")));
}

WatchedRun::~WatchedRun()
{
    for (const int id : blocksOf(m_pid, m_startSeconds))
        ::shmctl(id, IPC_RMID, nullptr);
    constexpr int toolkitsProject = 'Q';
    const QDir temp(m_program.path(QStringLiteral("temp")));
    for (const QString &name : temp.entryList({QStringLiteral("qipc_systemsem_*")})) {
        const key_t key = ::ftok(QFile::encodeName(temp.filePath(name)), toolkitsProject);
        const int id = key == -1 ? -1 : ::semget(key, 0, 0);
        if (id >= 0)
            ::semctl(id, 0, IPC_RMID);
    }
}

void WatchedRun::start(const QStringList &arguments)
{
    m_startSeconds = QDateTime::currentSecsSinceEpoch();
    m_limit.setRemainingTime(limitMs);
    m_program.start(arguments);
    m_program.process().waitForStarted();
    m_pid = m_program.process().processId();
}

bool WatchedRun::hasEnded()
{
    if (m_program.process().state() == QProcess::NotRunning)
        return m_program.waitForEnd(0); // takes in the last of its lines
    m_peakBytes = qMax(m_peakBytes, peakOf(m_pid));
    if (m_limit.hasExpired()) {
        m_isLate = true;
        m_program.process().kill();
        m_program.process().waitForFinished();
    }
    return m_isLate;
}

void WatchedRun::stop()
{
    if (!m_isStopped && m_program.process().state() != QProcess::NotRunning)
        ::kill(static_cast<pid_t>(m_pid), SIGTERM);
    m_isStopped = true;
}

QString WatchedRun::result(bool hasStopFlag) const
{
    const QString broken = QStringLiteral("BROKEN: ");
    const QByteArray output = m_program.errorOutput();
    if (m_isLate)
        return broken + QStringLiteral("it does not end: ") + QString::fromUtf8(output.right(300));
    if (!m_program.endedNormally() || m_program.exitCode() != 0)
        return broken + QStringLiteral("it crashes or has no 0 as its exit code");
    QList<QByteArray> lines = m_program.errorLines();
    const bool isFlagReported = !lines.isEmpty() && lines.last() == "detach sharememory ";
    if (isFlagReported)
        lines.removeLast();
    else if (hasStopFlag)
        return broken + QStringLiteral("the last line is not the protocol's: ")
            + QString::fromUtf8(output.right(200));
    const QByteArray end = lines.isEmpty() ? QByteArray() : lines.takeLast().trimmed();
    const QByteArray prefix("video download finished:");
    if (output.count(prefix) + output.count("parse failed \n") + output.count("exiting... \n") != 1)
        return broken + QStringLiteral("not one end but several, or none");
    if (end == "exiting...")
        return m_isStopped ? QStringLiteral("stopped") : broken + QStringLiteral("nobody asked");
    if (end == "parse failed")
        return QStringLiteral("parse failed");
    if (!end.startsWith(prefix))
        return broken + QStringLiteral("the line before the last is ") + QString::fromUtf8(end);
    return QString::fromUtf8(end.mid(prefix.size()));
}

QString WatchedRun::leftovers() const
{
    QStringList found =
        QDir(m_program.path(QStringLiteral("temp")))
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    found += processesOf(m_program.folder());
    for (const int id : blocksOf(m_pid, m_startSeconds))
        found += QStringLiteral("shared memory %1").arg(id);
    return found.join(QStringLiteral(", "));
}

qint64 WatchedRun::peakBytes() const
{
    return m_peakBytes;
}

void runTogether(const std::vector<std::unique_ptr<FaultCell>> &cells)
{
    size_t next = 0;
    QList<FaultCell *> living;
    const auto step = [&] {
        for (int i = living.size() - 1; i >= 0; --i) {
            if (living.at(i)->watch())
                living.removeAt(i);
        }
        while (next < cells.size() && static_cast<size_t>(living.size()) < runsAtOnce) {
            living += cells.at(next++).get();
            living.last()->begin();
        }
        return living.isEmpty();
    };
    // Each cell has its own limit, which it keeps.
    const bool areDone = QTest::qWaitFor(step, limitMs * static_cast<int>(cells.size()));
    Q_ASSERT(areDone);
    Q_UNUSED(areDone)
}
