#include "PageRun.h"
#include "ProgramRun.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QFile>

#include <cstring>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int watchedS = 90;

void writeText(const char *path, const QByteArray &text)
{
    QFile file(QString::fromLatin1(path));
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        qFatal("cannot write %s", path);
}

/// A network of this process and its children alone, whose counters begin at nothing.
void enterOwnNetwork()
{
    const QByteArray user = QByteArray::number(::geteuid());
    const QByteArray group = QByteArray::number(::getegid());
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        qFatal("there is no network to be had for the test alone: %s", std::strerror(errno));
    writeText("/proc/self/setgroups", "deny");
    writeText("/proc/self/uid_map", user + ' ' + user + " 1");
    writeText("/proc/self/gid_map", group + ' ' + group + " 1");
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq loopback{};
    std::strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP;
    if (::ioctl(socket, SIOCSIFFLAGS, &loopback) != 0)
        qFatal("the network does not come up");
    ::close(socket);
}

/// A number of the kernel's, such as "Tcp" "ActiveOpens".
qint64 counter(const QByteArray &protocol, const QByteArray &name)
{
    QFile file(QStringLiteral("/proc/self/net/snmp"));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    QByteArrayList names;
    const QByteArrayList lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        if (!line.startsWith(protocol + ':'))
            continue;
        const QByteArrayList words = line.split(' ');
        if (names.isEmpty())
            names = words;
        else
            return words.value(names.indexOf(name)).toLongLong();
    }
    return -1;
}

} // namespace

/// The current engine asks nobody but the servers that the page names, however long it runs.
class tst_EngineSilence : public QObject
{
    Q_OBJECT

private slots:
    void nobodyElseIsAsked()
    {
        ScriptedServer server;
        server.on("/page",
                  htmlReply("<title>Quiet</title><input type=password name=p><form></form>"
                            "<p>Some text in a language of its own.</p><script>"
                            "setInterval(() => fetch('/tick'), 3000)</script>"));
        int connections = 0;
        connect(&server, &ScriptedServer::requestReceived, this, [&connections] { ++connections; });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), server.address("/page"), option("--engine"),
                         option("chromium"), option("--no-click"), option("--timeout"),
                         QString::number(watchedS)},
                        (watchedS + 60) * 1000));
        QVERIFY(run.errorOutput().contains(fixedLine("parse failed")));
        QVERIFY2(connections >= watchedS / 6, "the page has not run all the time");
        for (const HttpRequest &request : server.requests())
            QVERIFY2(request.path() == "/page" || request.path() == "/tick"
                         || request.path() == "/favicon.ico",
                     request.target.constData());
        QCOMPARE(counter("Udp", "OutDatagrams"), qint64(0));
        // As many as the page's requests; one that is not used carries none.
        const qint64 opened = counter("Tcp", "ActiveOpens");
        QVERIFY2(
            opened >= connections && opened <= connections + 2,
            qPrintable(
                QStringLiteral("%1 connections for %2 requests").arg(opened).arg(connections)));
    }
};

int main(int argc, char *argv[])
{
    enterOwnNetwork();
    return runTest([] { return std::make_unique<tst_EngineSilence>(); }, argc, argv);
}

#include "tst_engine_silence.moc"
