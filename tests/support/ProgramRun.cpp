#include "ProgramRun.h"

#include "PageRun.h"

#include <QFile>
#include <QSharedMemory>
#include <QTest>

ProgramRun::ProgramRun()
    : m_environment(QProcessEnvironment::systemEnvironment())
{
    m_environment.insert(QStringLiteral("HOME"), m_folder.path());
    m_environment.insert(QStringLiteral("XDG_CONFIG_HOME"), path(QStringLiteral("config")));
    m_environment.insert(QStringLiteral("XDG_DATA_HOME"), path(QStringLiteral("data")));
    m_environment.insert(QStringLiteral("XDG_CACHE_HOME"), path(QStringLiteral("cache")));
    m_environment.insert(QStringLiteral("CLIPWEIR_COOKIES"), path(QStringLiteral("cookies.txt")));
    m_process.setWorkingDirectory(m_folder.path());
    QObject::connect(&m_process, &QProcess::readyReadStandardError, &m_process,
                     [this] { m_errorOutput += m_process.readAllStandardError(); });
}

ProgramRun::~ProgramRun()
{
    kill();
}

void ProgramRun::setEnvironment(const QString &name, const QString &value)
{
    m_environment.insert(name, value);
}

void ProgramRun::setLauncher(const QStringList &launcher)
{
    m_launcher = launcher;
}

void ProgramRun::start(const QStringList &arguments)
{
    m_errorOutput.clear();
    m_pageAddress = arguments.value(arguments.indexOf(QStringLiteral("--url")) + 1);
    m_process.setProcessEnvironment(m_environment);
    QStringList words = m_launcher + QStringList{QStringLiteral(CLIPWEIR_PROGRAM)} + arguments;
    const QString program = words.takeFirst();
    m_process.start(program, words);
}

void ProgramRun::startUnderHost(const QStringList &arguments)
{
    m_process.setProcessEnvironment(m_environment);
    m_process.setStandardErrorFile(path(QStringLiteral("lines")));
    m_process.start(QStringLiteral("/bin/sh"),
                    QStringList{QStringLiteral("-c"),
                                QStringLiteral("\"$@\" & echo $! >pid.new; mv pid.new pid; wait"),
                                QStringLiteral("host"), QStringLiteral(CLIPWEIR_PROGRAM)}
                        + arguments);
}

bool ProgramRun::waitForEnd(int timeoutMs)
{
    const bool hasEnded =
        QTest::qWaitFor([this] { return m_process.state() == QProcess::NotRunning; }, timeoutMs);
    if (!hasEnded)
        kill();
    else if (!endedNormally())
        removeStopFlag();
    m_errorOutput += m_process.readAllStandardError();
    return hasEnded;
}

void ProgramRun::kill()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill();
    m_process.waitForFinished();
    removeStopFlag();
}

void ProgramRun::removeStopFlag() const
{
    QSharedMemory block(QStringLiteral("SM_") + pageHash(m_pageAddress));
    if (block.attach())
        block.detach(); // the last one to let go removes it
}

bool ProgramRun::run(const QStringList &arguments, int timeoutMs)
{
    start(arguments);
    return waitForEnd(timeoutMs);
}

bool ProgramRun::waitForOutput(const QByteArray &text, int timeoutMs)
{
    return QTest::qWaitFor([this, &text] { return m_errorOutput.contains(text); }, timeoutMs);
}

QByteArray ProgramRun::errorOutput() const
{
    return m_errorOutput;
}

QList<QByteArray> ProgramRun::errorLines() const
{
    QList<QByteArray> lines = m_errorOutput.split('\n');
    if (lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

QByteArray ProgramRun::standardOutput()
{
    return m_process.readAllStandardOutput();
}

int ProgramRun::exitCode() const
{
    return m_process.exitCode();
}

bool ProgramRun::endedNormally() const
{
    return m_process.exitStatus() == QProcess::NormalExit;
}

QString ProgramRun::folder() const
{
    return m_folder.path();
}

QString ProgramRun::path(const QString &relative) const
{
    return m_folder.path() + QLatin1Char('/') + relative;
}

QByteArray ProgramRun::fileContent(const QString &relative) const
{
    QFile file(path(relative));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QProcess &ProgramRun::process()
{
    return m_process;
}
