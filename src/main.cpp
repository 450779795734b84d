#include "FlashVersion.h"
#include "HostLine.h"
#include "Sandbox.h"
#include "ShareMemoryManager.h"
#include "StopSignals.h"
#include "VideoPreference.h"
#include "WebAddress.h"
#include "browser.h"

#include <QApplication>
#include <QDateTime>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QLoggingCategory>
#include <QMutex>
#include <QMutexLocker>
#include <QNetworkProxyFactory>
#include <QTextCodec>
#include <QTimer>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <poll.h>
#include <unistd.h>

void SimpleLoggingHandler(QtMsgType type, const char *text);

namespace {

enum ExitCode { NoArguments = -1001, NoPageUrl = -1010, NoOutputFolder = -1011 };

/// Set once the output folder is known to exist: the log must not make a folder that the caller
/// may have misspelt.
std::atomic_bool isLogOpen{false};

/// What the engine's media framework thinks of its sinks.
constexpr char soundRanks[] = "GST_PLUGIN_FEATURE_RANK";

QBasicMutex messageMutex; // one line at a time; static destructors may still write some

/// Writes all of the bytes, in one call unless the system splits it.
void writeAll(int fd, const QByteArray &bytes)
{
    const char *data = bytes.constData();
    size_t left = static_cast<size_t>(bytes.size());
    while (left > 0) {
        const ssize_t written = ::write(fd, data, left);
        if (written >= 0) {
            data += written;
            left -= static_cast<size_t>(written);
        } else if (errno == EAGAIN) {
            pollfd writable{fd, POLLOUT, 0};
            ::poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            return; // nobody reads the lines any more; the run goes on
        }
    }
}

QByteArray logTextOf(QtMsgType type, const QByteArray &message)
{
    switch (type) {
    case QtWarningMsg:
        return "Warning: " + message;
    case QtCriticalMsg:
        return "Critical: " + message;
    case QtFatalMsg:
        return "Fatal: " + message;
    case QtInfoMsg:
        return "Info: " + message;
    case QtDebugMsg:
        break;
    }
    return "Debug: " + message;
}

void appendToLog(const QByteArray &logText)
{
    if (!isLogOpen || !QCoreApplication::instance())
        return;
    const QString now = QTime::currentTime().toString(QStringLiteral("hh:mm:ss.zzz "));
    QFile file(CVideoPreference::instance()->GetLogFullPath(QStringLiteral("log")));
    if (file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered))
        file.write(now.toLatin1() + logText + '\n');
}

void handleMessage(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    SimpleLoggingHandler(type, message.toUtf8().constData());
}

/// Host lines are debug messages: no logging rule of the environment may silence them.
void installMessageHandler()
{
    static QLoggingCategory::CategoryFilter previousFilter = nullptr;
    qInstallMessageHandler(handleMessage);
    previousFilter = QLoggingCategory::installFilter([](QLoggingCategory *category) {
        if (previousFilter) // not yet known while the filter is being installed
            previousFilter(category);
        if (qstrcmp(category->categoryName(), "default") == 0)
            category->setEnabled(QtDebugMsg, true);
    });
}

/// The toolkit's platform by the arguments or the environment; empty when none is chosen.
QByteArray chosenPlatform(int argc, char *argv[])
{
    QByteArray platform = qgetenv("QT_QPA_PLATFORM");
    for (int i = 1; i + 1 < argc; ++i) {
        if (qstrcmp(argv[i], "-platform") == 0 || qstrcmp(argv[i], "--platform") == 0)
            platform = argv[i + 1];
    }
    return platform;
}

/// What must stand before the application object is made.
void prepareProcess(int argc, char *argv[])
{
    installMessageHandler();
    std::signal(SIGPIPE, SIG_IGN); // a host that stops reading does not end the download
    std::signal(SIGXFSZ, SIG_IGN); // a limit on file sizes makes a write fail, as a full disk does
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    QNetworkProxyFactory::setUseSystemConfiguration(false);
    const bool hasDisplay =
        !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
    if (!hasDisplay && chosenPlatform(argc, argv).isEmpty())
        qputenv("QT_QPA_PLATFORM", "offscreen");
}

/// Nobody hears a page that is not shown, and looking for somewhere to play its sound leaves
/// folders and shared memory of the sound servers behind.
void muteHiddenPage()
{
    if (CVideoPreference::instance()->GetShow())
        return;
    QByteArray ranks = qgetenv(soundRanks);
    for (const char *const sink : {"pulsesink", "pipewiresink", "jackaudiosink", "alsasink",
                                   "oss4sink", "osssink", "openalsink"})
        ranks += QByteArray(ranks.isEmpty() ? "" : ",") + sink + ":NONE";
    qputenv(soundRanks, ranks);
}

/// Lets messages reach the log file, if logging is on and its folder can exist.
bool openLog()
{
    const bool isThere = QDir(CVideoPreference::instance()->GetOutDir()).exists();
    isLogOpen = isThere && CVideoPreference::instance()->GetLog();
    return isThere;
}

/// Puts the walls up around the calling thread and all that it starts; the log tells of gaps.
void confine(bool usesDisplay)
{
    const auto *const preference = CVideoPreference::instance();
    Sandbox sandbox(preference->GetOutDir(), usesDisplay);
    if (preference->GetShow())
        sandbox.allowSound();
    const QStringList gaps = sandbox.confine();
    for (const QString &gap : gaps)
        qWarning("the page run is confined in part only: %s", qUtf8Printable(gap));
}

/// Makes ready for a page run, if that is what the arguments ask for: makes the stop flag and puts
/// the walls up. Returns whether it did.
///
/// This needs the options, so an application object, and comes before the toolkit's own: that one
/// starts threads, which would be left outside.
bool preparePageRun(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const auto *const preference = CVideoPreference::instance();
    if (preference->GetExitFlag() || preference->GetInfoFlag() || preference->GetPageUrl().isEmpty()
        || !openLog())
        return false;
    StopSignals::install();
    ShareMemoryManager::GetInstance()->CreateShareMemData();
    muteHiddenPage();
    if (!preference->GetNoSandbox()) {
        const QByteArray platform = chosenPlatform(argc, argv);
        confine(!platform.startsWith("offscreen") && !platform.startsWith("minimal"));
    }
    isLogOpen = false; // what the toolkit says while it starts is no part of the run
    return true;
}

} // namespace

/// Writes a message where it belongs: debug messages are the host's and go to standard error, and
/// with logging on every message goes to the run's log file. Called from any thread.
void SimpleLoggingHandler(QtMsgType type, const char *text)
{
    // A message that arises while one is being written would wait for itself.
    thread_local bool isWriting = false;
    if (isWriting)
        return;
    isWriting = true;

    // Warnings may hold text of a page, too, and forge no line either.
    const QString line = HostLine::onOneLine(QString::fromUtf8(text));
    const QMutexLocker locker(&messageMutex);
    if (type == QtDebugMsg)
        writeAll(STDERR_FILENO, line.toUtf8() + '\n');
    // The host needs the addresses as they are; the log keeps no passwords.
    const QByteArray logText = logTextOf(type, WebAddress::withoutCredentials(line).toUtf8());
    if (type == QtFatalMsg)
        std::abort();
    appendToLog(logText);
    isWriting = false;
}

void printUsage()
{
    static const char *const lines[] = {
        "clipweir: 4.0.0.0001",
        "Usage:",
        "  clipweir --url https://www.example.com/watch/12345",
        "  clipweir --url https://video.example.org/clips/holiday.html",
        "",
        "  --url <url>: page url contains video",
        "  --saveto <fullpath>: save video to full path",
        "  --timeout <wait_time>: timeout for url analysis",
        "  --format mp4: prefer mp4 format(default any)",
        "  --quality 480: prefer 480p format(default 480)",
        "  --proxy: ProxyType:Host:Port",
        "",
        "Flags:",
        "  --thumb: download thumb file",
        "  --partial: only download 100K to save time",
        "  --smartname: use title as filename",
        "  --noresume: disable resume feature, download from beginning",
        "  --keepimage: allow download image in url",
        ("  --log: allow log file(video_output_path\\url.log) and csv "
         "log(video_output_path\\date.csv)"),
        "  --show: show webview frame",
        "  --info: show flash version",
        "  --exit: notify the process should exit asap",
        "  --f4f: support f4f video download",
        " --resume",
        " --size size",
    };
    for (const char *line : lines)
        HostLine::sendPlain(QString::fromLatin1(line));
}

/// Prints the version of the Flash plug-in that the engine can use; an empty one when the engine
/// does not say it in time.
void flashVersion()
{
    constexpr int patienceMs = 1000;
    CFlashVersion probe;
    QEventLoop loop;
    QObject::connect(&probe, &CFlashVersion::versionInfoReady, &loop, &QEventLoop::quit);
    QTimer::singleShot(patienceMs, &loop, &QEventLoop::quit);
    probe.load();
    loop.exec();
    HostLine::sendPlain(
        QStringLiteral("You have Flash player %1 installed").arg(probe.getVersion()));
}

/// Runs one page run to its end and returns the event loop's result.
int exec(QApplication *application)
{
    Browser browser;
    browser.loadPage();
    QObject::connect(application, &QGuiApplication::lastWindowClosed, application,
                     &QCoreApplication::quit);
    QObject::connect(&browser, &Browser::runEnded, application, &QCoreApplication::quit);
    if (browser.isEnded())
        return 0; // a loop started now would never be told to end
    const int result = application->exec();
    browser.endRun(); // a quit from the desktop session has not done it yet
    return result;
}

int main(int argc, char *argv[])
{
    prepareProcess(argc, argv);
    const bool isPrepared = argc > 1 && preparePageRun(argc, argv);
    QApplication application(argc, argv);
    if (argc < 2) {
        printUsage();
        return NoArguments;
    }

    const auto *const preference = CVideoPreference::instance();
    const bool isPageRun = !preference->GetExitFlag() && !preference->GetInfoFlag();
    if (!isPageRun && preference->GetLog())
        openLog();
    if (preference->GetExitFlag()) {
        HostLine::sendText(QStringLiteral("set ExitFlag"));
        ShareMemoryManager::GetInstance()->SetExitFlag(true);
        return 0;
    }
    if (preference->GetInfoFlag()) {
        flashVersion();
        return 0;
    }
    if (preference->GetPageUrl().isEmpty())
        return NoPageUrl;
    if (!openLog() || !isPrepared)
        return NoOutputFolder;

    const int result = exec(&application);
    ShareMemoryManager::GetInstance()->DeleteShareMemData();
    return result;
}
