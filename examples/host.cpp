// A host for clipweir: runs it, shows a progress bar, and prints what was found.
//
// usage: host program page-address [clipweir option ...]
//
// Ctrl-C asks the run to stop by a second run with "--exit"; another Ctrl-C kills it.
// Exit codes: 0 the video arrived, 1 it did not, 130 stopped.
//
// To build it alone:
//   g++ -std=c++17 -fPIC host.cpp -o host $(pkg-config --cflags --libs Qt5Core)

#include <QCoreApplication>
#include <QJsonDocument>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int barWidth = 40;

int interruptPipe[2];

void noteInterrupt(int)
{
    const char byte = 0;
    [[maybe_unused]] const auto ignored = ::write(interruptPipe[1], &byte, 1);
}

void print(const QString &text)
{
    std::fputs(text.toUtf8().constData(), stdout);
    std::fflush(stdout);
}

/// A process that does not get the terminal's Ctrl-C: stopping it is this program's decision.
class DetachedProcess : public QProcess
{
protected:
    void setupChildProcess() override { ::setsid(); }
};

/// One run of the program. Ends the application with the exit code of this one.
class Host
{
public:
    Host(const QString &program, const QString &page);

    void start(const QStringList &options);
    void interrupt();

private:
    void readLines();
    void take(const QString &line);
    void showProgress(qint64 received, qint64 total) const;
    void askToStop();
    void end();

    QString m_program;
    QString m_page;
    DetachedProcess m_run;
    DetachedProcess m_exitRun;
    QJsonDocument m_record;
    QMap<QString, QString> m_results; // by "thumb" and "video"
    bool m_isListening = false; // the run can be asked to stop
    bool m_isStopWanted = false;
};

Host::Host(const QString &program, const QString &page)
    : m_program(program)
    , m_page(page)
{
    m_run.setProcessChannelMode(QProcess::ForwardedOutputChannel);
    QObject::connect(&m_run, &QProcess::readyReadStandardError, &m_run, [this] { readLines(); });
    QObject::connect(&m_run, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), &m_run,
                     [this] { end(); });
    QObject::connect(
        &m_run, &QProcess::errorOccurred, &m_run, [this](QProcess::ProcessError error) {
            if (error != QProcess::FailedToStart)
                return; // finished() follows
            print(m_program + QStringLiteral(" does not start: %1\n").arg(m_run.errorString()));
            QCoreApplication::exit(1);
        });
}

void Host::start(const QStringList &options)
{
    print(QStringLiteral("looking for a video ...\n"));
    m_run.setReadChannel(QProcess::StandardError);
    m_run.start(m_program, QStringList{QStringLiteral("--url"), m_page} + options);
}

void Host::readLines()
{
    while (m_run.canReadLine()) {
        QString line = QString::fromUtf8(m_run.readLine());
        line.chop(1);
        take(line);
    }
}

void Host::take(const QString &line)
{
    static const QRegularExpression progress(
        QStringLiteral("^\"downloaded:(-?[0-9]+)/(-?[0-9]+)\" $"));
    static const QRegularExpression finished(
        QStringLiteral("^(thumb|video) download finished:(success|failed|canceled) $"));

    if (line.startsWith(QLatin1String("\"{")) && line.endsWith(QLatin1String("\" "))) {
        m_record = QJsonDocument::fromJson(line.mid(1, line.size() - 3).toUtf8());
    } else if (line.endsWith(QLatin1String(" parsing... "))) {
        m_isListening = true;
        askToStop();
    } else if (const auto match = progress.match(line); match.hasMatch()) {
        showProgress(match.captured(1).toLongLong(), match.captured(2).toLongLong());
    } else if (const auto result = finished.match(line); result.hasMatch()) {
        m_results[result.captured(1)] = result.captured(2);
    }
}

void Host::showProgress(qint64 received, qint64 total) const
{
    if (total <= 0) { // the server did not say how long the file is
        print(QStringLiteral("\r%1 bytes").arg(received));
        return;
    }
    const double share = qBound(0.0, double(received) / double(total), 1.0);
    const QString bar(int(share * barWidth), QLatin1Char('#'));
    print(QStringLiteral("\r[%1] %2% of %3 bytes")
              .arg(bar, -barWidth)
              .arg(int(share * 100), 3)
              .arg(total));
}

void Host::interrupt()
{
    if (m_isStopWanted)
        m_run.kill();
    m_isStopWanted = true;
    askToStop();
}

void Host::askToStop()
{
    if (m_isStopWanted && m_isListening && m_exitRun.state() == QProcess::NotRunning)
        m_exitRun.start(m_program, {QStringLiteral("--exit"), QStringLiteral("--url"), m_page});
}

void Host::end()
{
    readLines();
    m_exitRun.waitForFinished();
    print(QStringLiteral("\n"));
    for (auto result = m_results.cbegin(); result != m_results.cend(); ++result)
        print(QStringLiteral("%1: %2\n").arg(result.key(), result.value()));
    print(m_record.isNull() ? QStringLiteral("no video was found\n")
                            : QString::fromUtf8(m_record.toJson()));

    int exitCode = 1;
    if (m_results.value(QStringLiteral("video")) == QLatin1String("success")) {
        exitCode = 0;
    } else if (m_isStopWanted) {
        print(QStringLiteral("stopped\n"));
        exitCode = 130;
    } else if (m_run.exitCode() != 0) {
        print(QStringLiteral("the program ended with exit code %1\n").arg(m_run.exitCode()));
    }
    QCoreApplication::exit(exitCode);
}

} // namespace

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 3) {
        print(QStringLiteral("usage: host program page-address [clipweir option ...]\n"));
        return 1;
    }
    if (::pipe2(interruptPipe, O_CLOEXEC) != 0)
        return 1;
    std::signal(SIGINT, noteInterrupt);

    Host host(arguments.at(1), arguments.at(2));
    const QSocketNotifier interrupts(interruptPipe[0], QSocketNotifier::Read);
    QObject::connect(&interrupts, &QSocketNotifier::activated, [&host] {
        char byte = 0;
        if (::read(interruptPipe[0], &byte, 1) == 1)
            host.interrupt();
    });
    host.start(arguments.mid(3));
    return QCoreApplication::exec();
}
