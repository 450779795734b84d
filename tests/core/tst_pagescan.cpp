#include "PageScan.h"
#include "ScriptedServer.h"
#include "TestMain.h"
#include "UntoldSizes.h"

namespace {

const QString pageUrl = QStringLiteral("http://h/page");

HttpReply sized(int bytes)
{
    HttpReply reply;
    reply.body = QByteArray(bytes, 'v');
    return reply;
}

PageSnapshot naming(const QString &address)
{
    PageSnapshot snapshot;
    snapshot.source = QStringLiteral("<a href='%1'>").arg(address);
    return snapshot;
}

} // namespace

/// What asks servers for sizes while a record may change.
class tst_PageScan : public QObject
{
    Q_OBJECT

    const SizeProbe m_probe{NetSettings()};

private slots:
    void addsWhatTheSourceNames()
    {
        ScriptedServer server;
        server.on("/v.mp4", sized(1048576));
        const QString address = server.address("/v.mp4");
        ParseData record;
        PageScan scan(record, m_probe, pageUrl, [] { return false; });
        scan.scan(naming(address));
        scan.scan(naming(address));
        QCOMPARE(record.fileList.size(), 1);
        QCOMPARE(record.fileList.first().address(), address);
        QCOMPARE(record.fileList.first().nSize, qint64(1048576));
    }

    void theSourceIsNotCopied()
    {
        const PageSnapshot snapshot = naming(QStringLiteral("no address"));
        ParseData record;
        PageScan(record, m_probe, pageUrl, [] { return false; }).scan(snapshot);
        QVERIFY(record.pageSource.constData() == snapshot.source.constData());
    }

    void addsWhatThePlayerNames()
    {
        const QByteArray description =
            "{'sequence':[{'layerList':[{'sequenceList':[{'name':'main','layerList':["
            "{'name':'video','param':{'hd720URL':'rtmp://h/v'}}]}]}]}]}";
        const QByteArray encoded = QByteArray(description).replace('\'', '"').toPercentEncoding();
        PageSnapshot snapshot = naming(QStringLiteral("http://127.0.0.1:1/not-read.mp4"));
        snapshot.params = {
            {{QStringLiteral("name"), QStringLiteral("flashvars")},
             {QStringLiteral("value"), QString::fromLatin1("a=1&sequence=" + encoded + "&b=2")}}};
        ParseData record;
        PageScan(record, m_probe, pageUrl, [] { return false; }).scanParams(snapshot);
        QCOMPARE(record.fileList.size(), 1);
        QCOMPARE(record.fileList.first().address(), QStringLiteral("rtmp://h/v"));
        QCOMPARE(record.fileList.first().width, 720);
    }

    void theRecordMayGrowMeanwhile()
    {
        ParseData record;
        ScriptedServer server;
        const QString address = server.address("/v.mp4");
        server.on("/v.mp4", [&record, &address](const HttpRequest &) {
            record.add(QStringLiteral("http://h/other.mp4"));
            record.add(address);
            return sized(1048576);
        });
        PageScan(record, m_probe, pageUrl, [] { return false; }).scan(naming(address));
        QCOMPARE(record.fileList.size(), 2);
        QCOMPARE(record.fileList.at(1).nSize, qint64(0)); // the page's own word stands
    }

    void aStoppedScanAddsNothing()
    {
        bool isStopped = false;
        ParseData record;
        ScriptedServer server;
        server.on("/v.mp4", [&isStopped](const HttpRequest &) {
            isStopped = true;
            return sized(1048576);
        });
        PageScan(record, m_probe, pageUrl, [&isStopped] {
            return isStopped;
        }).scan(naming(server.address("/v.mp4")));
        QCOMPARE(server.requests().size(), 1);
        QVERIFY(record.fileList.isEmpty());
    }

    void untoldSizesAreAskedForOrForgotten()
    {
        ScriptedServer server;
        server.on("/told.mp4", sized(3000));
        ParseData record;
        UntoldSizes sizes;
        for (const char *const path : {"/told.mp4", "/untold.mp4", "/sure.mp4"}) {
            record.add(server.address(path));
            record.get(server.address(path))->nSize = 100;
        }
        for (const char *const path : {"/told.mp4", "/untold.mp4", "/not-a-candidate.mp4"})
            sizes.add(server.address(path));
        sizes.askFor(record, m_probe, [] { return false; });
        sizes.forgetIn(record);
        QCOMPARE(record.fileList.at(0).nSize, qint64(3000));
        QCOMPARE(record.fileList.at(1).nSize, qint64(0));
        QCOMPARE(record.fileList.at(2).nSize, qint64(100));
        QVERIFY(server.requestsFor("/not-a-candidate.mp4").isEmpty());
    }

    void nobodyIsAskedOnceTheRunEnds()
    {
        ScriptedServer server;
        ParseData record;
        record.add(server.address("/v.mp4"));
        UntoldSizes sizes;
        sizes.add(server.address("/v.mp4"));
        sizes.askFor(record, m_probe, [] { return true; });
        QVERIFY(server.requests().isEmpty());
    }
};

CLIPWEIR_TEST_MAIN(tst_PageScan)
#include "tst_pagescan.moc"
