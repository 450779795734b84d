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

    static void setOptions(const TemporaryWorkFolder &work, const char *flags,
                           const char *pageUrl = "http://a/")
    {
        setCommandLine(QStringLiteral("--url %1 --saveto ").arg(QLatin1String(pageUrl))
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

    void theLogStaysWhereItBegan()
    {
        const TemporaryWorkFolder work;
        setOptions(work, "--log");
        const int status = runApart(work.path(QStringLiteral("err")), [&work] {
            if (!MessageLog::open())
                return;
            qDebug("the first");
            setCommandLine(QStringLiteral("--url http://b/ --saveto ")
                           + work.path(QStringLiteral("v.mp4 --log")));
            qDebug("the second");
        });
        QCOMPARE(status, 0);
        QCOMPARE(logText(), QByteArray("Debug: the first\nDebug: the second\n"));
        QVERIFY(!QFile::exists(work.path(QStringLiteral("logs"))));
    }

    void openingBeginsAnotherLog()
    {
        const TemporaryWorkFolder work;
        const int status = runApart(work.path(QStringLiteral("err")), [&work] {
            setOptions(work, "--log");
            bool isOpen = MessageLog::open();
            qDebug("elsewhere");
            setOptions(work, "--log", "http://b/");
            isOpen = isOpen && MessageLog::open();
            if (isOpen)
                qDebug("here");
        });
        QCOMPARE(status, 0);
        setOptions(work, "--log", "http://b/");
        QCOMPARE(logText(), QByteArray("Debug: here\n"));
    }

    void aLogFolderThatIsTakenAwayComesAgain()
    {
        const TemporaryWorkFolder work;
        setOptions(work, "--log");
        const QString folder = work.path(QStringLiteral("out/logs"));
        const int status = runApart(work.path(QStringLiteral("err")), [&folder] {
            if (!MessageLog::open())
                return;
            qDebug("lost");
            QDir(folder).removeRecursively();
            qDebug("kept");
            qDebug("kept, too");
        });
        QCOMPARE(status, 0);
        QCOMPARE(logText(), QByteArray("Debug: kept\nDebug: kept, too\n"));
    }

    void aLogThatIsOnlyOpenedMakesNoFolder()
    {
        const TemporaryWorkFolder work;
        setOptions(work, "--log");
        const int status = runApart(work.path(QStringLiteral("err")), [] {
            if (!MessageLog::open())
                ::_exit(1);
        });
        QCOMPARE(status, 0);
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
