#include "GetProgram.h"

#include "OutputPipe.h"
#include "SafeText.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QHostInfo>

#include <cstdio>

#include <unistd.h>

namespace {

void printError(const QString &text)
{
    std::fprintf(stderr, "clipweir-get: %s\n", text.toUtf8().constData());
}

void print(const QString &text)
{
    std::fputs(text.toUtf8().constData(), stdout);
}

} // namespace

GetProgram::GetProgram(GetOptions options)
    : m_options(std::move(options))
    , m_summary(m_options.isSimulation)
{
}

GetProgram::~GetProgram() = default;

int GetProgram::exec()
{
    switch (m_options.wish) {
    case GetOptions::Wish::ShowHelp:
        print(GetOptions::helpText());
        return 0;
    case GetOptions::Wish::ShowVersion:
        print(QStringLiteral("clipweir-get " CLIPWEIR_VERSION "\n"));
        return 0;
    case GetOptions::Wish::Complain:
        printError(m_options.complaint + QStringLiteral(" (--help tells more)"));
        return misuse;
    case GetOptions::Wish::Fetch:
        break;
    }
    if (!prepare())
        return m_refusal;
    connectAll();
    // The loop must be there to be left.
    QMetaObject::invokeMethod(&*m_scheduler, &Scheduler::start, Qt::QueuedConnection);
    const int killed = QCoreApplication::exec();
    finish();
    return killed != 0 ? killed : m_summary.exitCode();
}

void GetProgram::finish()
{
    if (m_report && !m_report->finish(m_summary, m_clock.elapsed())) {
        m_summary.addFailure(RunClass::Disk);
        m_console->complain(
            QStringLiteral("%1 cannot be written").arg(SafeText::line(m_options.report)));
    }
    if (m_json)
        m_json->finish(m_summary);
    m_console->finish(m_summary);
}

bool GetProgram::refuse(int exitCode, const QString &reason)
{
    printError(reason);
    m_refusal = exitCode;
    return false;
}

bool GetProgram::prepare()
{
    PageList pages;
    for (const QString &address : qAsConst(m_options.addresses)) {
        if (!pages.add(address))
            return refuse(misuse, pages.reason());
    }
    if (!readLists(pages))
        return false;
    m_pages = pages.addresses();
    if (m_pages.isEmpty() && m_options.lists.isEmpty())
        return refuse(RunClasses::exitCodeOf(RunClass::NoPageUrl),
                      QStringLiteral("no page address (--help tells more)"));
    const QFileInfo folder(m_options.folder);
    if (!m_options.isSimulation && (!QDir().mkpath(m_options.folder) || !folder.isWritable()))
        return refuse(
            RunClasses::exitCodeOf(RunClass::NoOutputFolder),
            QStringLiteral("no files can be made in %1").arg(SafeText::line(m_options.folder)));
    if (!m_options.archive.isEmpty() && !m_archive.open(m_options.archive))
        return refuse(RunClasses::exitCodeOf(RunClass::Disk),
                      QStringLiteral("%1 cannot be kept").arg(SafeText::line(m_options.archive)));
    if (m_options.isSimulation)
        m_place.scratchFolder = m_scratch.emplace().path();
    m_place.environment = QProcessEnvironment::systemEnvironment();
    return findProgram() && findProxy() && takeCookies() && beginReport();
}

bool GetProgram::readLists(PageList &pages)
{
    for (const QString &path : qAsConst(m_options.lists)) {
        QFile file(path);
        const bool isOpen = path == QLatin1String("-")
            ? file.open(STDIN_FILENO, QIODevice::ReadOnly)
            : file.open(QIODevice::ReadOnly);
        const QString name = SafeText::line(path);
        if (!isOpen)
            return refuse(misuse, QStringLiteral("%1: %2").arg(name, file.errorString()));
        if (!pages.addList(file))
            return refuse(misuse, QStringLiteral("%1: %2").arg(name, pages.reason()));
    }
    return true;
}

bool GetProgram::findProgram()
{
    m_place.program = qEnvironmentVariable("CLIPWEIR_PROGRAM");
    if (m_place.program.isEmpty())
        m_place.program = QFileInfo(QStringLiteral("/proc/self/exe")).canonicalPath()
            + QLatin1String("/clipweir");
    if (QFileInfo(m_place.program).isExecutable())
        return true;
    return refuse(RunClasses::exitCodeOf(RunClass::EngineMissing),
                  QStringLiteral("%1 cannot be started").arg(SafeText::line(m_place.program)));
}

/// Runs take numbers for a proxy's host.
bool GetProgram::findProxy()
{
    if (m_options.proxy.isEmpty())
        return true;
    QStringList parts = m_options.proxy.split(QLatin1Char(':'));
    const QList<QHostAddress> found = QHostInfo::fromName(parts.at(1)).addresses();
    for (const QHostAddress &address : found) {
        if (address.protocol() != QAbstractSocket::IPv4Protocol)
            continue;
        parts[1] = address.toString();
        m_options.proxy = parts.join(QLatin1Char(':'));
        return true;
    }
    return refuse(misuse, QStringLiteral("--proxy: the host is not known"));
}

bool GetProgram::takeCookies()
{
    if (m_options.cookies.isEmpty())
        return true;
    if (!m_cookies.emplace().make(m_options.cookies))
        return refuse(misuse,
                      QStringLiteral("%1 cannot be read").arg(SafeText::line(m_options.cookies)));
    m_place.environment.insert(QStringLiteral("CLIPWEIR_COOKIES"), m_cookies->path());
    return true;
}

bool GetProgram::beginReport()
{
    if (m_options.report.isEmpty() || m_report.emplace(m_options.report).open())
        return true;
    return refuse(RunClasses::exitCodeOf(RunClass::Disk),
                  QStringLiteral("%1 cannot be written").arg(SafeText::line(m_options.report)));
}

void GetProgram::connectAll()
{
    m_clock.start();
    m_scheduler.emplace(m_options, m_place, m_pages, m_archive);
    m_console.emplace(*m_scheduler, Console::mannerFor(m_options, STDOUT_FILENO), STDOUT_FILENO,
                      m_options.isSimulation);
    connect(&*m_console, &Console::readerGone, this, &GetProgram::stop);
    if (m_options.tellsJson) {
        m_json.emplace(*m_scheduler, STDOUT_FILENO);
        connect(&*m_json, &JsonOutput::readerGone, this, &GetProgram::stop);
    }
    connect(&*m_scheduler, &Scheduler::pageEnded, this, [this](const PageFacts &facts) {
        m_summary.add(facts);
        if (m_report)
            m_report->add(facts);
    });
    connect(&*m_scheduler, &Scheduler::archiveFailed, this, [this] {
        m_summary.addFailure(RunClass::Disk);
        m_console->complain(
            QStringLiteral("%1 cannot be written").arg(SafeText::line(m_options.archive)));
    });
    connect(&*m_scheduler, &Scheduler::ended, this, [] { QCoreApplication::exit(0); });
    connect(&m_signals, &SignalWatch::stopAsked, this, &GetProgram::askToStop);
    connect(&m_signals, &SignalWatch::resized, &*m_console, &Console::redraw);
}

void GetProgram::askToStop()
{
    ++m_stopsAsked;
    if (m_stopsAsked > 1) { // impatience: what is at work is killed with the scheduler
        QCoreApplication::exit(RunClasses::exitCodeOf(RunClass::Stopped));
        return;
    }
    m_console->tellStop();
    stop();
}

void GetProgram::stop()
{
    // Not from within what has just been told.
    QMetaObject::invokeMethod(&*m_scheduler, &Scheduler::stop, Qt::QueuedConnection);
}
