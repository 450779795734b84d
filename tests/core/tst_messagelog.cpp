#include "MessageLog.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "VideoPreference.h"

#include <functional>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

/// The handler is the whole process's, so every test puts it up in a process of its own.
class tst_MessageLog : public QObject
{
    Q_OBJECT

private:
    /// Runs the steps with standard error in a file. Returns the status that the system keeps of
    /// the process.
    static int runApart(const QString &errorFile, const std::function<void()> &steps)
    {
        const pid_t child = ::fork();
        if (child == 0) {
            const int fd = ::open(QFile::encodeName(errorFile).constData(),
                                  O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            ::dup2(fd, STDERR_FILENO);
            MessageLog::install();
            steps();
            ::_exit(0);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        return status;
    }

    static void setOptions(const TemporaryWorkFolder &work, const char *flags)
    {
        setCommandLine(QStringLiteral("--url http://a/ --saveto ")
                       + work.path(QStringLiteral("out/v.mp4 ")) + QLatin1String(flags));
        QDir().mkpath(work.path(QStringLiteral("out")));
    }

    static void sendAll()
    {
        qDebug("a line");
        qWarning("a doubt");
        qCritical("a trouble");
        qInfo("a note");
    }

    /// The log without the times, each of which must be one.
    static QByteArray logText()
    {
        const QRegularExpression time(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} "),
                                      QRegularExpression::MultilineOption);
        const QString log = QString::fromUtf8(
            readFile(CVideoPreference::instance()->GetLogFullPath(QStringLiteral("log"))));
        QString text = log;
        text.remove(time);
        return log.count(time) == log.count(QLatin1Char('\n')) ? text.toUtf8()
                                                               : "no time: " + log.toUtf8();
    }

private slots:
    void everyKindReachesTheLog()
    {
        const TemporaryWorkFolder work;
        setOptions(work, "--log");
        const QString errorFile = work.path(QStringLiteral("err"));
        const int status = runApart(errorFile, [] {
            if (MessageLog::open())
                sendAll();
        });
        QCOMPARE(status, 0);
        QCOMPARE(readFile(errorFile), QByteArray("a line\n"));
        QCOMPARE(logText(),
                 QByteArray("Debug: a line\nWarning: a doubt\nCritical: a trouble\n"
                            "Info: a note\n"));
    }

    void withoutLoggingOnlyTheHostsLinesAreWritten()
    {
        const TemporaryWorkFolder work;
        setOptions(work, "");
        const QString errorFile = work.path(QStringLiteral("err"));
        const int status = runApart(errorFile, [] {
            if (MessageLog::open())
                sendAll();
        });
        QCOMPARE(status, 0);
        QCOMPARE(readFile(errorFile), QByteArray("a line\n"));
        QVERIFY(!QFile::exists(work.path(QStringLiteral("out/logs"))));
    }

    void aFatalMessageEndsTheProcessWithoutALine()
    {
        const TemporaryWorkFolder work;
        setOptions(work, "--log");
        const QString errorFile = work.path(QStringLiteral("err"));
        const int status = runApart(errorFile, [] {
            if (!MessageLog::open())
                return;
            qCritical("the last trouble");
            qFatal("the end");
        });
        QVERIFY(WIFSIGNALED(status));
        QCOMPARE(WTERMSIG(status), SIGABRT);
        QCOMPARE(readFile(errorFile), QByteArray());
        QCOMPARE(logText(), QByteArray("Critical: the last trouble\n"));
    }
};

CLIPWEIR_TEST_MAIN(tst_MessageLog)
#include "tst_messagelog.moc"
