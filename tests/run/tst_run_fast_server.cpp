#include "Nginx.h"
#include "PageRun.h"
#include "TestMain.h"

namespace {

constexpr qint64 videoBytes = qint64(1) << 30;

// What the engine may be sent before its transfer is cut short. The system's socket buffers take
// several MiB on their own; without an end in time it would be hundreds.
constexpr qint64 maxPageBytes = 32 << 20;

/// The size of the answers to one path, in the order of an access log in the common format.
QList<qint64> sentBytes(const QByteArray &log, const QByteArray &path)
{
    QList<qint64> sizes;
    const QList<QByteArray> lines = log.split('\n');
    for (const QByteArray &line : lines) {
        const QList<QByteArray> parts = line.split('"');
        if (parts.size() > 2 && parts.at(1).contains(' ' + path + ' '))
            sizes += parts.at(2).simplified().split(' ').last().toLongLong();
    }
    return sizes;
}

} // namespace

/// A video from a server much faster than any progress report.
class tst_RunFastServer : public QObject
{
    Q_OBJECT

private slots:
    void cutsTheTransferOfThePageInTime_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("player") << QByteArray(R"(<video src="/v.mp4" autoplay></video>)");
        QTest::newRow("script") << QByteArray(
            R"(<script>var r = new XMLHttpRequest(); r.open("GET", "/v.mp4"); r.send();</script>)");
    }

    void cutsTheTransferOfThePageInTime()
    {
        QFETCH(QByteArray, body);
        const QTemporaryDir logs;
        Nginx server;
        const QString logPath = logs.filePath(QStringLiteral("sizes.log"));
        server.setServerText("access_log " + logPath.toUtf8() + " combined;");
        const QDir root(server.rootFolder());
        QFile page(root.filePath(QStringLiteral("page.html")));
        QVERIFY(page.open(QIODevice::WriteOnly));
        page.write("<html><body>" + body + "</body></html>");
        page.close();
        QFile video(root.filePath(QStringLiteral("v.mp4")));
        QVERIFY(video.open(QIODevice::WriteOnly));
        QVERIFY(video.resize(videoBytes)); // sparse, so it costs no disk
        QVERIFY(server.start());

        // The program's own transfer is cut short too, by its option.
        ProgramRun program;
        QVERIFY(program.run({QStringLiteral("--url"), server.address(QStringLiteral("/page.html")),
                             QStringLiteral("--partial")}));
        QVERIFY2(program.errorOutput().contains("\"nSize\":1073741824"), program.errorOutput());
        server.stop();

        QFile log(logPath);
        QVERIFY(log.open(QIODevice::ReadOnly));
        const QList<qint64> sizes = sentBytes(log.readAll(), "/v.mp4");
        QVERIFY(!sizes.isEmpty());
        QVERIFY2(sizes.first() < maxPageBytes, QByteArray::number(sizes.first()));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunFastServer)
#include "tst_run_fast_server.moc"
