#include "Leftovers.h"

#include <QDir>
#include <QFile>
#include <QHash>

#include <sys/prctl.h>
#include <unistd.h>

namespace {

struct Process
{
    qint64 parent = 0;
    QByteArray name;
    bool hasEnded = false;
};

/// "number (name) state parent ...", where the name may hold anything.
Process processOf(const QByteArray &stat)
{
    const int nameEnd = stat.lastIndexOf(')');
    const QList<QByteArray> words = stat.mid(nameEnd + 1).simplified().split(' ');
    const int nameBegin = stat.indexOf('(') + 1;
    return {words.value(1).toLongLong(), stat.mid(nameBegin, nameEnd - nameBegin),
            words.value(0) == "Z"};
}

QHash<qint64, Process> allProcesses()
{
    QHash<qint64, Process> processes;
    const QStringList names = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &name : names) {
        bool isNumber = false;
        const qint64 id = name.toLongLong(&isNumber);
        QFile file(QStringLiteral("/proc/%1/stat").arg(name));
        if (isNumber && file.open(QIODevice::ReadOnly))
            processes.insert(id, processOf(file.readAll()));
    }
    return processes;
}

/// Whether a process stands below another one. Who has ended meanwhile breaks the line.
bool isBelow(const QHash<qint64, Process> &processes, qint64 id, qint64 ancestor)
{
    for (int depth = 0; depth < processes.size() && processes.contains(id); ++depth) {
        id = processes.value(id).parent;
        if (id == ancestor)
            return true;
    }
    return false;
}

QStringList processesBelow(qint64 ancestor)
{
    QStringList found;
    const QHash<qint64, Process> processes = allProcesses();
    for (auto it = processes.cbegin(); it != processes.cend(); ++it) {
        if (!it->hasEnded && isBelow(processes, it.key(), ancestor))
            found += QString::number(it.key()) + QLatin1Char(' ') + QString::fromLatin1(it->name);
    }
    return found;
}

QStringList engineFiles()
{
    QStringList found;
    for (const char *const folder : {"/tmp", "/var/tmp", "/dev/shm"}) {
        const QDir dir(QString::fromLatin1(folder));
        const QStringList names =
            dir.entryList({QStringLiteral("*org.chromium*"), QStringLiteral("*google.Chrome*"),
                           QStringLiteral("scoped_dir*")},
                          QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
        for (const QString &name : names)
            found += dir.filePath(name);
    }
    return found;
}

QStringList without(QStringList list, const QStringList &others)
{
    for (const QString &other : others)
        list.removeAll(other);
    return list;
}

} // namespace

Leftovers::Leftovers()
    : m_processesBefore(processesBelow(::getpid()))
    , m_filesBefore(engineFiles())
{
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
}

Leftovers::~Leftovers()
{
    ::prctl(PR_SET_CHILD_SUBREAPER, 0);
}

QStringList Leftovers::processes() const
{
    return without(processesBelow(::getpid()), m_processesBefore);
}

QStringList Leftovers::files() const
{
    return without(engineFiles(), m_filesBefore);
}
