#include "ProgramRun.h"

#include "EventCheck.h"
#include "PageRun.h"

#include <QDir>
#include <QFile>
#include <QSet>
#include <QSharedMemory>
#include <QTest>

#include <unistd.h>

namespace {

/// Where the media framework keeps what it knows of its plug-ins, in a cache folder.
const QLatin1String registryFolder("gstreamer-1.0");

/// What a first run has learnt of them, for all others.
const QLatin1String sharedFolder(CLIPWEIR_MEDIA_REGISTRY);

/// A link or, on another file system, a copy.
bool share(const QString &from, const QString &to)
{
    return ::link(qPrintable(from), qPrintable(to)) == 0 || QFile::copy(from, to);
}

/// Takes away the stop flag that a killed run of the page has left; one that is used stays.
void removeStopFlag(const QString &pageAddress)
{
    QSharedMemory block(QStringLiteral("SM_") + pageHash(pageAddress));
    // Looking for one that is not there would leave a lock.
    if (QFile::exists(block.nativeKey()) && block.attach())
        block.detach(); // the last one to let go removes it
}

} // namespace

QString ProgramRun::program()
{
    return qEnvironmentVariableIsSet("CLIPWEIR_SHIPPED_RUNS")
        ? QStringLiteral(CLIPWEIR_PROGRAM)
        : QStringLiteral(CLIPWEIR_QUICK_PROGRAM);
}

void ProgramRun::forgetOtherTests(const QStringList &arguments)
{
    static QSet<QString> known;
    for (const QString &argument : arguments) {
        if (!argument.startsWith(QLatin1String("http")) || known.contains(argument))
            continue;
        known.insert(argument);
        removeStopFlag(argument);
    }
}

ProgramRun::ProgramRun()
    : m_environment(QProcessEnvironment::systemEnvironment())
{
    m_environment.insert(QStringLiteral("HOME"), m_folder.path());
    m_environment.insert(QStringLiteral("XDG_CONFIG_HOME"), path(QStringLiteral("config")));
    m_environment.insert(QStringLiteral("XDG_DATA_HOME"), path(QStringLiteral("data")));
    m_environment.insert(QStringLiteral("XDG_CACHE_HOME"), m_cacheFolder.path());
    m_environment.insert(QStringLiteral("CLIPWEIR_COOKIES"), path(QStringLiteral("cookies.txt")));
    m_process.setWorkingDirectory(m_folder.path());
    QObject::connect(&m_process, &QProcess::readyReadStandardError, &m_process,
                     [this] { m_errorOutput += m_process.readAllStandardError(); });
}

ProgramRun::~ProgramRun()
{
    kill();
    removeStopFlag(m_pageAddress); // which the deadline of a run that is held up leaves
}

void ProgramRun::setEnvironment(const QString &name, const QString &value)
{
    m_environment.insert(name, value);
}

void ProgramRun::setLauncher(const QStringList &launcher)
{
    m_launcher = launcher;
}

QString ProgramRun::cacheFolder() const
{
    const QString folder = m_environment.value(QStringLiteral("XDG_CACHE_HOME"));
    if (QDir::isAbsolutePath(folder))
        return folder + QLatin1Char('/');
    return m_environment.value(QStringLiteral("HOME")) + QStringLiteral("/.cache/");
}

/// Looking at all plug-ins takes several times as long as the rest of a run. The framework replaces
/// the file when it is out of date.
void ProgramRun::takeRegistry() const
{
    if (!m_knowsPlugins)
        return;
    const QDir shared(sharedFolder);
    const QStringList files = shared.entryList(QDir::Files);
    for (const QString &file : files) {
        for (const char *const owner : {"", "clipweir/"}) {
            const QString folder = cacheFolder() + QLatin1String(owner) + registryFolder;
            if (QDir().mkpath(folder))
                share(shared.filePath(file), folder + QLatin1Char('/') + file);
        }
    }
}

bool ProgramRun::shareRegistry() const
{
    const QDir learnt(cacheFolder() + QLatin1String("clipweir/") + registryFolder);
    const QStringList files = learnt.entryList({QStringLiteral("registry.*.bin")}, QDir::Files);
    if (files.size() != 1 || !QDir().mkpath(sharedFolder))
        return false;
    const QString target = sharedFolder + QLatin1Char('/') + files.constFirst();
    QFile::remove(target);
    return share(learnt.filePath(files.constFirst()), target);
}

void ProgramRun::forgetPlugins()
{
    m_knowsPlugins = false;
}

namespace {

/// The arguments with the engine that the test is run over.
QStringList overEngine(const QStringList &arguments)
{
    const QString engine = qEnvironmentVariable("CLIPWEIR_ENGINE");
    if (engine.isEmpty() || !arguments.contains(QStringLiteral("--url")))
        return arguments;
    return arguments + QStringList{QStringLiteral("--engine")}
    + engine.split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace

void ProgramRun::start(const QStringList &arguments)
{
    takeRegistry();
    forgetOtherTests(arguments);
    m_errorOutput.clear();
    m_events.clear();
    m_tellsEvents = arguments.contains(QStringLiteral("--events"));
    m_pageAddress = arguments.value(arguments.indexOf(QStringLiteral("--url")) + 1);
    m_process.setProcessEnvironment(m_environment);
    QStringList words = m_launcher + QStringList{program()} + overEngine(arguments);
    const QString program = words.takeFirst();
    m_process.start(program, words);
}

void ProgramRun::startUnderHost(const QStringList &arguments)
{
    takeRegistry();
    forgetOtherTests(arguments);
    m_process.setProcessEnvironment(m_environment);
    m_process.setStandardErrorFile(path(QStringLiteral("lines")));
    m_process.start(QStringLiteral("/bin/sh"),
                    QStringList{QStringLiteral("-c"),
                                QStringLiteral("\"$@\" & echo $! >pid.new; mv pid.new pid; wait"),
                                QStringLiteral("host"), program()}
                        + overEngine(arguments));
}

void ProgramRun::startOther(const QString &program, const QStringList &arguments)
{
    takeRegistry();
    forgetOtherTests(arguments);
    m_errorOutput.clear();
    m_tellsEvents = false;
    m_process.setProcessEnvironment(m_environment);
    m_process.start(program, arguments);
}

bool ProgramRun::waitForEnd(int timeoutMs)
{
    const bool hasEnded =
        QTest::qWaitFor([this] { return m_process.state() == QProcess::NotRunning; }, timeoutMs);
    if (!hasEnded)
        kill();
    else if (!endedNormally())
        removeStopFlag(m_pageAddress);
    m_errorOutput += m_process.readAllStandardError();
    return hasEnded && (!m_tellsEvents || takeEvents());
}

bool ProgramRun::takeEvents()
{
    const QByteArray output = m_process.readAllStandardOutput();
    m_events = EventCheck::eventsOf(output);
    return EventCheck::isValid(output);
}

QList<QJsonObject> ProgramRun::events(const char *name) const
{
    QList<QJsonObject> found;
    for (const QJsonObject &event : m_events) {
        if (event.value(QStringLiteral("event")) == QLatin1String(name))
            found += event;
    }
    return found;
}

void ProgramRun::kill()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill();
    m_process.waitForFinished();
    removeStopFlag(m_pageAddress);
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

QString ProgramRun::cachePath(const QString &relative) const
{
    return m_cacheFolder.filePath(relative);
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
