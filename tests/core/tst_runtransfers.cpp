#include "RunTransfers.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QSignalSpy>
#include <QTemporaryDir>

class tst_RunTransfers : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_folder;

    static QString text(const char *latin1) { return QString::fromLatin1(latin1); }

    [[nodiscard]] RunOptions options() const
    {
        setArguments({text("--url"), text("http://h/runtransfers"), text("--saveto"),
                      m_folder->filePath(text("v.mp4"))});
        return RunOptions::ofCommandLine();
    }

    [[nodiscard]] QByteArray read(const QString &path) const
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private slots:
    void init() { m_folder = std::make_unique<QTemporaryDir>(); }

    void bringsAFileAndItsPicture()
    {
        ScriptedServer server;
        server.serve("/v.mp4", QByteArray(5000, 'v'), "video/mp4");
        server.serve("/t.jpg", QByteArray(300, 't'), "image/jpeg");
        const RunOptions wanted = options();
        RunTransfers transfers(wanted);
        const QSignalSpy file(&transfers, &RunTransfers::fileEnded);
        const QSignalSpy thumb(&transfers, &RunTransfers::thumbEnded);
        transfers.startThumb(server.address("/t.jpg"));
        transfers.startFile(server.address("/v.mp4"), wanted.paths.video(), 5000);
        QTRY_COMPARE(file.count(), 1);
        QTRY_COMPARE(thumb.count(), 1);
        QCOMPARE(file.first().first().toInt(), int(Transfer::Outcome::Succeeded));
        QCOMPARE(thumb.first().first().toInt(), int(Transfer::Outcome::Succeeded));
        QCOMPARE(read(wanted.paths.video()), QByteArray(5000, 'v'));
        QCOMPARE(read(wanted.paths.thumb()), QByteArray(300, 't'));
        QVERIFY(!transfers.isStreaming());
    }

    void tellsWhatFails()
    {
        ScriptedServer server;
        RunTransfers transfers(options());
        const QSignalSpy file(&transfers, &RunTransfers::fileEnded);
        const QSignalSpy stream(&transfers, &RunTransfers::streamEnded);
        transfers.startFile(server.address("/none.mp4"), options().paths.video(), 0);
        QTRY_COMPARE(file.count(), 1);
        QCOMPARE(file.first().first().toInt(), int(Transfer::Outcome::Failed));
        transfers.startStream(server.address("/none.f4m"));
        QTRY_COMPARE(stream.count(), 1);
        QCOMPARE(stream.first().first().toInt(), int(Transfer::Outcome::Failed));
        QVERIFY(!transfers.isStreaming());
    }

    void aStreamCanBeCanceledWhileItIsWaitedFor()
    {
        ScriptedServer server;
        server.hold("/held.f4m");
        RunTransfers transfers(options());
        transfers.cancelStream(); // there is none
        const QSignalSpy stream(&transfers, &RunTransfers::streamEnded);
        bool wasStreaming = false;
        connect(&transfers, &RunTransfers::streamActive, this, [&] {
            wasStreaming = transfers.isStreaming();
            if (!server.requests().isEmpty())
                transfers.cancelStream();
        });
        transfers.startStream(server.address("/held.f4m"));
        QTRY_COMPARE(stream.count(), 1);
        QCOMPARE(stream.first().first().toInt(), int(Transfer::Outcome::Canceled));
        QVERIFY(wasStreaming);
        QVERIFY(!transfers.isStreaming());
    }

    void maySendNothingOnceItIsGone()
    {
        ScriptedServer server;
        server.hold("/v.mp4");
        auto transfers = std::make_unique<RunTransfers>(options());
        transfers->startFile(server.address("/v.mp4"), options().paths.video(), 0);
        QTRY_COMPARE(server.requests().size(), 1);
        transfers.reset();
    }
};

CLIPWEIR_TEST_MAIN(tst_RunTransfers)
#include "tst_runtransfers.moc"
