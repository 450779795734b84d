#include "EventStream.h"
#include "HostEvents.h"
#include "MessageLog.h"
#include "ShareMemoryManager.h"
#include "Usage.h"
#include "VideoPreference.h"
#include "program.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QTextCodec>

#include <cstdio>
#include <cstdlib>

#include <dlfcn.h>

namespace {

/// Options are looked for in the whole argument list, the program's path included.
bool isExitRequest(int argc, char *argv[])
{
    for (int i = 0; i < argc; ++i) {
        if (CVideoPreference::instance()->isSameOptionKey(QString::fromLocal8Bit(argv[i]),
                                                          QStringLiteral("exit")))
            return true;
    }
    return false;
}

/// Asks the run of that page to end.
int requestExit(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    if (CVideoPreference::instance()->GetLog())
        MessageLog::open();
    HostEvents::send(event::ExitFlagSet{});
    ShareMemoryManager::GetInstance()->SetExitFlag(true);
    return 0;
}

/// Loads the part of the program that has the engine; it lies beside the program.
decltype(&runProgram) loadProgram()
{
    const QString folder = QFileInfo(QStringLiteral("/proc/self/exe")).canonicalPath();
    const QString path = folder + QLatin1String("/" CLIPWEIR_MODULE);
    void *const module = ::dlopen(QFile::encodeName(path).constData(), RTLD_LAZY | RTLD_GLOBAL);
    void *const entry = module ? ::dlsym(module, "runProgram") : nullptr;
    return reinterpret_cast<decltype(&runProgram)>(entry);
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc >= 2 && !isExitRequest(argc, argv)) {
        if (const auto run = loadProgram())
            return run(argc, argv);
        std::fprintf(stderr, "clipweir cannot be started: %s\n", ::dlerror());
        return EXIT_FAILURE;
    }
    EventStream::openIfWanted(argc, argv);
    MessageLog::install();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    if (argc >= 2)
        return requestExit(argc, argv);
    printUsage();
    return NoArguments;
}
