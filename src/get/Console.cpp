#include "Console.h"

#include "HumanText.h"
#include "OutputPipe.h"
#include "PageLine.h"
#include "SafeText.h"
#include "TextWidth.h"

#include <QDir>

#include <unistd.h>

namespace {

constexpr int drawingMs = 100;
constexpr int mostPathLength = 1000;
constexpr int mostAddressLength = 2000;

/// Whether a number in front is of use.
constexpr int fewPages = 1;

} // namespace

Console::Manner Console::mannerFor(const GetOptions &options, int fd)
{
    if (options.tellsJson)
        return Manner::Silent;
    if (options.isQuiet)
        return Manner::Quiet;
    const QByteArray terminal = qgetenv("TERM");
    const bool isTerminal = ::isatty(fd) == 1 && !terminal.isEmpty() && terminal != "dumb";
    return isTerminal ? Manner::Terminal : Manner::Plain;
}

Console::Console(const Scheduler &scheduler, Manner manner, int fd, bool isSimulation,
                 QObject *parent)
    : QObject(parent)
    , m_scheduler(scheduler)
    , m_manner(manner)
    , m_fd(fd)
    , m_isSimulation(isSimulation)
    , m_hasColours(manner == Manner::Terminal && qEnvironmentVariableIsEmpty("NO_COLOR"))
    , m_screen(fd)
{
    m_clock.start();
    m_soon.setSingleShot(true);
    connect(&m_soon, &QTimer::timeout, this, &Console::redraw);
    connect(&scheduler, &Scheduler::pageBegun, this, &Console::tellBegin);
    connect(&scheduler, &Scheduler::pageChanged, this, &Console::changeSoon);
    connect(&scheduler, &Scheduler::pageRetried, this, &Console::tellRetry);
    connect(&scheduler, &Scheduler::pageEnded, this, &Console::tellEnd);
}

void Console::changeSoon()
{
    if (m_manner == Manner::Terminal && !m_soon.isActive())
        m_soon.start(drawingMs);
}

void Console::redraw()
{
    if (m_manner == Manner::Terminal && !m_hasFinished)
        draw({});
}

void Console::draw(const QStringList &staying)
{
    QStringList passing;
    // The last column stays free: some terminals go to the next line when it is filled.
    const int columns = m_screen.columns() - 1;
    if (!m_hasFinished) {
        const int most = qMax(1, m_screen.rows() - 2);
        for (const PageTask *const page : m_scheduler.atWork()) {
            if (passing.size() < most)
                passing += pageLine(page->facts(), page->progress(), columns);
        }
        if (m_scheduler.pageCount() > fewPages)
            passing += TextWidth::elided(footer(), columns);
    }
    m_screen.draw(staying, passing);
    if (!m_screen.isThere())
        emit readerGone();
}

QString Console::footer() const
{
    double rate = 0;
    for (const PageTask *const page : m_scheduler.atWork())
        rate += page->progress().isInBytes ? page->progress().rate : 0;
    QString text = QStringLiteral("%1 of %2 done").arg(m_ended).arg(m_scheduler.pageCount());
    if (m_failed > 0)
        text += QStringLiteral(", %1 failed").arg(m_failed);
    text += QStringLiteral(", %1 at work").arg(m_scheduler.atWork().size());
    constexpr double mostRate = 9e15;
    if (rate > 0)
        text += QStringLiteral(", %1/s").arg(
            HumanText::bytes(static_cast<qint64>(qMin(rate, mostRate))));
    return text;
}

void Console::say(const QString &line)
{
    if (m_manner == Manner::Terminal)
        draw({line});
    else if (m_manner == Manner::Plain && !OutputPipe::write(m_fd, line.toUtf8() + '\n'))
        emit readerGone();
}

void Console::complain(const QString &text)
{
    if (m_manner == Manner::Terminal)
        say(text);
    else if (!OutputPipe::write(STDERR_FILENO, "clipweir-get: " + text.toUtf8() + '\n'))
        emit readerGone();
}

QString Console::prefixOf(const PageFacts &facts) const
{
    if (m_scheduler.pageCount() <= fewPages)
        return {};
    return QStringLiteral("[%1/%2] ").arg(facts.number).arg(m_scheduler.pageCount());
}

QString Console::coloured(const char *word, const char *colour) const
{
    const QString text = QString::fromLatin1(word);
    return m_hasColours ? QStringLiteral("\x1b[%1m%2\x1b[0m").arg(QLatin1String(colour), text)
                        : text;
}

void Console::tellBegin(const PageTask *page)
{
    if (m_manner == Manner::Plain)
        say(prefixOf(page->facts()) + QLatin1String("begin ")
            + SafeText::line(page->facts().address));
    else
        changeSoon();
}

void Console::tellRetry(const PageTask *page, int attempt, int most, qint64 pauseMs, RunClass cause)
{
    PageFacts facts = page->facts();
    facts.runClass = cause;
    if (m_manner == Manner::Plain)
        say(prefixOf(facts)
            + QStringLiteral("again %1 of %2 in %3: %4: %5")
                  .arg(QString::number(attempt), QString::number(most),
                       HumanText::duration(pauseMs), HumanText::nameOf(facts),
                       HumanText::reasonOf(facts)));
    else
        changeSoon();
}

QString Console::endText(const PageFacts &facts) const
{
    const QString name = HumanText::nameOf(facts);
    if (!facts.hasArrived())
        return QStringLiteral("%1: %2").arg(name, HumanText::reasonOf(facts));
    // Folders are the user's own, or made of cleaned names.
    const QString relative = QDir().relativeFilePath(facts.path);
    const bool isBelow = !relative.startsWith(QLatin1String("../"));
    const QString path = SafeText::line(isBelow ? relative : facts.path, mostPathLength);
    if (m_isSimulation) {
        QStringList known{SafeText::line(facts.format)};
        if (facts.height > 0)
            known += QStringLiteral("%1p").arg(facts.height);
        if (facts.announcedBytes > 0)
            known += HumanText::bytes(facts.announcedBytes);
        return QStringLiteral("%1 (%2) from %3")
            .arg(path, known.join(QLatin1String(", ")),
                 SafeText::line(facts.videoAddress, mostAddressLength));
    }
    return QStringLiteral("%1 (%2 in %3)")
        .arg(path, HumanText::bytes(facts.bytes), HumanText::duration(facts.tookMs));
}

void Console::tellEnd(const PageFacts &facts)
{
    ++m_ended;
    if (!facts.hasArrived())
        ++m_failed;
    // All that never began would scroll away what did.
    if (!facts.isSkipped && !facts.begunAt.isValid())
        return changeSoon();
    if (m_manner == Manner::Silent)
        return;
    if (m_manner == Manner::Quiet) {
        if (!facts.hasArrived())
            complain(endText(facts));
        return;
    }
    if (facts.isSkipped)
        return say(prefixOf(facts) + coloured("skip", "2") + QLatin1Char(' ')
                   + SafeText::line(facts.address));
    const bool isStopped = facts.runClass == RunClass::Stopped;
    const QString word = facts.hasArrived()
        ? coloured(m_isSimulation ? "would fetch" : "done", "32")
        : coloured(isStopped ? "stopped" : "failed", "31");
    say(prefixOf(facts) + word + QLatin1Char(' ') + endText(facts));
}

void Console::tellStop()
{
    if (m_manner == Manner::Terminal || m_manner == Manner::Plain)
        say(QStringLiteral("Stopping. What has come is kept: the same command goes on with it."));
}

void Console::finish(const Summary &summary)
{
    m_soon.stop();
    m_hasFinished = true;
    if (m_manner == Manner::Quiet || m_manner == Manner::Silent)
        return;
    constexpr int plainColumns = 200;
    const bool isTerminal = m_manner == Manner::Terminal;
    const int columns = isTerminal ? m_screen.columns() - 1 : plainColumns;
    const QStringList lines = m_scheduler.pageCount() > fewPages
        ? summary.table(columns, m_clock.elapsed())
        : QStringList();
    if (isTerminal)
        return draw(lines);
    for (const QString &line : lines)
        say(line);
}
