#include "StandIn.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

namespace {

const char head[] = R"(#!/usr/bin/python3
import array, fcntl, json, os, select, sys, termios, time

path = os.path.abspath(sys.argv[0])
args = sys.argv[1:]
waits = 0
with open(path + '.runs', 'a+') as file:
    file.write(json.dumps(args) + '\n')
    file.seek(0)
    run = len(file.readlines())


def say(text):
    os.write(1, text)
    left = array.array('i', [1])
    while left[0]:
        time.sleep(0.001)
        fcntl.ioctl(1, termios.FIONREAD, left)


def is_read(within_ms):
    poll = select.poll()
    poll.register(1, 0)
    return not poll.poll(within_ms)


def wait():
    global waits
    waits += 1
    while not os.path.exists('%s.go%d' % (path, waits)):
        if not is_read(2):
            sys.exit(1)


def hang():
    is_read(None)


)";

} // namespace

StandIn::StandIn(const QString &path)
    : m_path(path)
{
    QDir().mkpath(QFileInfo(path).path());
}

bool StandIn::install(const QByteArray &body)
{
    remove();
    QFile file(m_path);
    const QByteArray text = head + body + '\n';
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size()
        && file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

bool StandIn::link(const QString &program)
{
    remove();
    return QFile::link(program, m_path);
}

void StandIn::proceed()
{
    QFile sign(signPath(++m_signs));
    if (!sign.open(QIODevice::WriteOnly))
        qWarning("cannot make %s", qPrintable(sign.fileName()));
}

void StandIn::remove()
{
    QFile::remove(m_path);
    QFile::remove(logPath());
    for (; m_signs > 0; --m_signs)
        QFile::remove(signPath(m_signs));
}

QList<QStringList> StandIn::runs() const
{
    QFile file(logPath());
    QList<QStringList> runs;
    if (!file.open(QIODevice::ReadOnly))
        return runs;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        const QJsonDocument document = QJsonDocument::fromJson(line);
        if (document.isArray())
            runs += document.toVariant().toStringList();
    }
    return runs;
}

QString StandIn::logPath() const
{
    return m_path + QLatin1String(".runs");
}

QString StandIn::signPath(int number) const
{
    return QStringLiteral("%1.go%2").arg(m_path).arg(number);
}
