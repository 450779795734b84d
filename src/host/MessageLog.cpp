#include "MessageLog.h"

#include "EventStream.h"
#include "HostEvents.h"
#include "HostLine.h"
#include "HostPipe.h"
#include "VideoPreference.h"
#include "WebAddress.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QMutex>
#include <QMutexLocker>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace {

std::atomic_bool isLogOpen{false};

QBasicMutex messageMutex; // one line at a time; static destructors may still write some

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

/// The log's path as the system wants it; empty until it is made. Guarded by messageMutex, and left
/// to the end of the process for the same reason.
QByteArray &logPath()
{
    static auto *const path = new QByteArray;
    return *path;
}

/// Opens the log for one line. Not by the toolkit's file: what it has to say about an odd one would
/// reach the host, since this is called while a message is being handled.
int openLogFile()
{
    return ::open(logPath().constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK,
                  0666);
}

void appendToLog(const QByteArray &logText)
{
    if (!isLogOpen || !QCoreApplication::instance())
        return;
    const QString now = QTime::currentTime().toString(QStringLiteral("hh:mm:ss.zzz "));
    int fd = openLogFile();
    if (fd < 0 && errno == ENOENT) {
        // The first line, or somebody took the folder away: asking for the path makes it.
        logPath() =
            QFile::encodeName(CVideoPreference::instance()->GetLogFullPath(QStringLiteral("log")));
        fd = openLogFile();
    }
    if (fd < 0)
        return;
    const QByteArray line = now.toLatin1() + logText + '\n';
    while (::write(fd, line.constData(), static_cast<size_t>(line.size())) < 0 && errno == EINTR) {
    }
    ::close(fd);
}

void handleMessage(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    SimpleLoggingHandler(type, message.toUtf8().constData());
}

} // namespace

void SimpleLoggingHandler(QtMsgType type, const char *text)
{
    // A message that arises while one is being written would wait for itself.
    thread_local bool isWriting = false;
    if (isWriting)
        return;
    isWriting = true;

    // Warnings may hold text of a page, too, and forge no line either.
    const QString line = HostLine::onOneLine(QString::fromUtf8(text));
    QMutexLocker locker(&messageMutex);
    if (type == QtDebugMsg) {
        HostPipe::write(STDERR_FILENO, line.toUtf8() + '\n');
    }
    // The host needs the addresses as they are; the log keeps no passwords.
    const QByteArray logText = logTextOf(type, WebAddress::withoutCredentials(line).toUtf8());
    if (type == QtFatalMsg) {
        locker.unlock(); // somebody may have a last line to say
        std::abort();
    }
    appendToLog(logText);
    locker.unlock();
    if (EventStream::isOpen() && (type == QtWarningMsg || type == QtCriticalMsg))
        HostEvents::send(event::Warning{WebAddress::withoutCredentials(line)});
    isWriting = false;
}

/// Host lines are debug messages: no logging rule of the environment may silence them.
void MessageLog::install()
{
    std::signal(SIGPIPE, SIG_IGN); // a host that stops reading ends nothing
    std::signal(SIGXFSZ, SIG_IGN); // a limit on file sizes makes a write fail, as a full disk does
    static QLoggingCategory::CategoryFilter previousFilter = nullptr;
    qInstallMessageHandler(handleMessage);
    previousFilter = QLoggingCategory::installFilter([](QLoggingCategory *category) {
        if (previousFilter) // not yet known while the filter is being installed
            previousFilter(category);
        if (qstrcmp(category->categoryName(), "default") == 0)
            category->setEnabled(QtDebugMsg, true);
    });
}

bool MessageLog::open()
{
    const bool isThere = QDir(CVideoPreference::instance()->GetOutDir()).exists();
    const QMutexLocker locker(&messageMutex);
    logPath().clear();
    isLogOpen = isThere && CVideoPreference::instance()->GetLog();
    return isThere;
}

void MessageLog::close()
{
    isLogOpen = false;
}

bool MessageLog::isHostWaitedFor()
{
    return HostPipe::isWaitedFor();
}
