#include "program.h"

#include "DisplayProbe.h"
#include "EndTimer.h"
#include "Engines.h"
#include "EventStream.h"
#include "HostEvents.h"
#include "LeftFiles.h"
#include "MediaLibrary.h"
#include "MessageLog.h"
#include "ProcessMemory.h"
#include "RunLimits.h"
#include "Sandbox.h"
#include "ShareMemoryManager.h"
#include "StopSignals.h"
#include "Usage.h"
#include "VideoPreference.h"
#include "browser.h"

#include <QGuiApplication>
#include <QNetworkProxyFactory>
#include <QTextCodec>
#include <QUrl>

#include <algorithm>

namespace {

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

/// Whether the page shall be shown; asked before there is an application object.
bool isPageShown(int argc, char *argv[])
{
    return std::any_of(argv, argv + argc, [](const char *argument) {
        return CVideoPreference::instance()->isSameOptionKey(QString::fromLocal8Bit(argument),
                                                             QStringLiteral("show"));
    });
}

/// What must stand before the application object is made.
void prepareProcess(int argc, char *argv[])
{
    MessageLog::install();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    QNetworkProxyFactory::setUseSystemConfiguration(false);
    const bool hasDisplay =
        !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
    // A hidden page needs no display, and one that is named may not be there.
    const bool wantsDisplay = hasDisplay && isPageShown(argc, argv);
    if (!wantsDisplay && chosenPlatform(argc, argv).isEmpty())
        qputenv("QT_QPA_PLATFORM", "offscreen");
}

bool usesDisplay(int argc, char *argv[])
{
    const QByteArray platform = chosenPlatform(argc, argv);
    return !platform.startsWith("offscreen") && !platform.startsWith("minimal");
}

/// The end of a run that does not begin. Returns its exit code.
int refuse(RunClass runClass, int exitCode)
{
    event::RunEnded ended;
    ended.runClass = runClass;
    ended.exitCode = exitCode & 0xff; // as the system tells it
    ended.endedAt = QDateTime::currentDateTime();
    HostEvents::send(ended);
    return exitCode;
}

/// What is left of a run that the toolkit cannot start for, up to its exit code.
int endWithoutDisplay(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const auto *const preference = CVideoPreference::instance();
    if (!preference->GetInfoFlag() && preference->GetPageUrl().isEmpty())
        return refuse(RunClass::NoPageUrl, NoPageUrl);
    if (!MessageLog::open() && !preference->GetInfoFlag())
        return refuse(RunClass::NoOutputFolder, NoOutputFolder);
    HostEvents::send(event::DisplayMissing{});
    return refuse(RunClass::NoDisplay, NoDisplay);
}

/// Puts the sandbox up around the calling thread and all that it starts; the log tells of gaps.
void confine(const RunOptions &options, bool hasDisplay)
{
    const QString folder = options.paths.folder();
    Sandbox sandbox(folder, hasDisplay);
    for (const QString &path :
         {options.paths.video(), options.paths.thumb(), folder + QLatin1String("/logs"),
          folder + QLatin1String("/f4ftmp"), folder + QLatin1String("/streamtmp")})
        sandbox.allowLinkTarget(path);
    if (options.isShown)
        sandbox.allowSound();
    const QNetworkProxy proxy = options.proxy.toNetworkProxy();
    if (proxy.type() != QNetworkProxy::NoProxy)
        sandbox.confineToProxy(proxy.port());
    const QUrl page(options.pageUrl);
    if (page.isLocalFile())
        sandbox.allowReading(page.toLocalFile());
    if (options.followsManifests)
        sandbox.allowReading(MediaLibrary::path());
    const QStringList gaps = sandbox.confine();
    for (const QString &gap : gaps)
        qWarning("the page run is confined in part only: %s", qUtf8Printable(gap));
}

/// Whether the path that the video shall get can be taken for text. Bytes that cannot would make
/// another path, which the caller would look for in vain.
bool isSavePathReadable(int argc, char *argv[])
{
    const auto *const preference = CVideoPreference::instance();
    const auto isKey = [preference](const char *argument) {
        return preference->isSameOptionKey(QString::fromLocal8Bit(argument),
                                           QStringLiteral("saveto"));
    };
    char **const end = argv + argc;
    char **const key = std::find_if(argv, end, isKey);
    if (key == end || key + 1 == end)
        return true;
    QTextCodec::ConverterState state;
    const char *const path = *(key + 1);
    QTextCodec::codecForName("UTF-8")->toUnicode(path, static_cast<int>(qstrlen(path)), &state);
    return state.invalidChars == 0 && state.remainingChars == 0;
}

enum class Preparation { None, EngineMissing, Done };

/// Makes ready for a page run, if that is what the arguments ask for: chooses the engine, makes the
/// stop flag and puts the sandbox up.
///
/// This needs the options, so an application object, and comes before the toolkit's own: that one
/// starts threads, which would be left outside.
Preparation preparePageRun(int argc, char *argv[], std::unique_ptr<EngineFactory> &engines)
{
    const QCoreApplication application(argc, argv);
    const auto *const preference = CVideoPreference::instance();
    if (preference->GetExitFlag() || preference->GetInfoFlag() || preference->GetPageUrl().isEmpty()
        || !isSavePathReadable(argc, argv) || !MessageLog::open())
        return Preparation::None;
    const RunOptions options = RunOptions::ofCommandLine();
    engines = Engines::makeFactory(options);
    if (!engines)
        return Preparation::EngineMissing;
    engines->prepare(options); // what it starts shall have nothing of the following
    StopSignals::install();
    RunLimits::install();
    ShareMemoryManager::GetInstance()->CreateShareMemData();
    LeftFiles::removeAll();
    if (options.isConfined)
        confine(options, usesDisplay(argc, argv));
    MessageLog::close(); // what the toolkit says while it starts is no part of the run
    return Preparation::Done;
}

} // namespace

/// Sets the limit that holds even where the guard comes too late.
void limitMemory(qint64 limit)
{
    if (limit > 0)
        ProcessMemory::limitGrowth(limit + ProcessMemory::spareBytes);
}

/// Runs one page run to its end. Returns the event loop's result.
/// @param ended what became of the run
int exec(QGuiApplication *application, EngineFactory &engines, event::RunEnded &ended)
{
    const RunOptions options = RunOptions::ofCommandLine(); // of what the toolkit left of it
    limitMemory(options.memoryBytes);
    Browser browser(engines.make(options), options);
    browser.loadPage();
    QObject::connect(application, &QGuiApplication::lastWindowClosed, application,
                     &QCoreApplication::quit);
    QObject::connect(&browser, &Browser::runEnded, application, &QCoreApplication::quit);
    // After a run that has ended already the loop would never be told to end.
    const int result = browser.isEnded() ? 0 : application->exec();
    browser.endRun(); // a quit from the desktop session has not done it yet
    ended = browser.verdict();
    return result;
}

int runProgram(int argc, char *argv[])
{
    RunLimits::noteStart();
    EventStream::openIfWanted(argc, argv);
    prepareProcess(argc, argv);
    if (usesDisplay(argc, argv) && !DisplayProbe::isUsable(argc, argv))
        return endWithoutDisplay(argc, argv);
    std::unique_ptr<EngineFactory> engines;
    const Preparation preparation =
        argc > 1 ? preparePageRun(argc, argv, engines) : Preparation::None;
    const std::unique_ptr<QGuiApplication> application = Engines::makeApplication(argc, argv);
    if (argc < 2) { // what there was, was the toolkit's
        printUsage();
        return NoArguments;
    }

    const auto *const preference = CVideoPreference::instance();
    if (preference->GetInfoFlag()) {
        if (preference->GetLog())
            MessageLog::open();
        HostEvents::send(event::FlashVersion{Engines::flashVersion()});
        return 0;
    }
    if (preference->GetPageUrl().isEmpty())
        return refuse(RunClass::NoPageUrl, NoPageUrl);
    if (!isSavePathReadable(argc, argv)) {
        HostEvents::send(event::SavePathUnreadable{});
        return refuse(RunClass::NoOutputFolder, NoOutputFolder);
    }
    if (preparation == Preparation::EngineMissing) {
        HostEvents::send(event::EngineMissing{RunOptions::ofCommandLine().chromiumPath});
        return refuse(RunClass::EngineMissing, NoEngine);
    }
    if (!MessageLog::open() || preparation == Preparation::None)
        return refuse(RunClass::NoOutputFolder, NoOutputFolder);

    event::RunEnded ended;
    const int loopResult = exec(application.get(), *engines, ended);
    const int result = preference->GetStrict() ? ended.exitCode : loopResult;
    const bool isEndAsked = ShareMemoryManager::GetInstance()->GetExitFlag();
    ShareMemoryManager::GetInstance()->DeleteShareMemData();
    HostEvents::send(ended);
    StopSignals::uninstall();
    if (isEndAsked)
        EndTimer::endSoon(result);
    return result;
}
