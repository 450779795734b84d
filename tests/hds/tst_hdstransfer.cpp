#include "CookieStore.h"
#include "HdsFixtures.h"
#include "HdsTransfer.h"
#include "MessageCatcher.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QFile>
#include <QPointer>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <memory>

namespace {

QByteArray fragmentPath(int number)
{
    return "/dir/sSeg1-Frag" + QByteArray::number(number);
}

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1String("\" ");
}

QStringList quotedAll(QStringList texts)
{
    for (QString &text : texts)
        text = quoted(text);
    return texts;
}

} // namespace

class tst_HdsTransfer : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<ScriptedServer> m_server;

    HdsTransfer::Wish wish(const QByteArray &query = QByteArray()) const
    {
        HdsTransfer::Wish wish;
        wish.pageUrl = QStringLiteral("http://page.test/");
        wish.manifest = m_server->address("/dir/m.f4m" + query);
        wish.outFile = QStringLiteral("out.flv");
        wish.outDir = m_folder->path();
        return wish;
    }

    QByteArray output() const
    {
        QFile file(m_folder->filePath(QStringLiteral("out.flv")));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    static Transfer::Outcome endOf(QSignalSpy &ends)
    {
        if (ends.isEmpty())
            ends.wait(60000);
        return ends.value(0).value(0).value<Transfer::Outcome>();
    }

private slots:
    void initTestCase() { qRegisterMetaType<Transfer::Outcome>("Transfer::Outcome"); }

    void init()
    {
        CookieStore::instance().clear();
        m_folder = std::make_unique<QTemporaryDir>();
        m_server = std::make_unique<ScriptedServer>();
        m_server->on("/dir/m.f4m", replyOf(hds::manifest("s", hds::simpleBootstrap(10))));
        for (int n = 1; n <= 10; ++n)
            m_server->on(fragmentPath(n), replyOf(hds::numberedFragment(n)));
    }

    void aStreamBecomesAFile()
    {
        HdsTransfer transfer(wish());
        QSignalSpy ends(&transfer, &Transfer::ended);
        QSignalSpy progress(&transfer, &Transfer::progressed);
        const MessageCatcher catcher;
        transfer.start();
        QCOMPARE(endOf(ends), Transfer::Outcome::Succeeded);
        QString error;
        QCOMPARE(hds::readFlv(output(), error).size(), 20);
        QCOMPARE(error, QString());
        QCOMPARE(progress.constLast(), (QVariantList{qint64(10), qint64(10)}));
        QCOMPARE(catcher.linesWith(QStringLiteral("downloaded:10/10")).size(), 1);
        const int linesToTheEnd = catcher.lines().size();
        transfer.cancel(); // after the end
        transfer.start();
        QCOMPARE(catcher.lines().size(), linesToTheEnd);
        QTest::qWait(0);
        QCOMPARE(ends.size(), 1);
        QCOMPARE(m_server->requestsFor("/dir/m.f4m").size(), 1);
    }

    void whatTheHostIsTold_data()
    {
        QTest::addColumn<QByteArray>("query");
        QTest::addColumn<QString>("proxyHost");
        QTest::addColumn<QString>("outFile");
        QTest::addColumn<QStringList>("options"); // after the manifest's
        const QString dir = QStringLiteral("setOption: outDir=%1");
        const QString file = QStringLiteral("setOption: outFile=out.flv");
        QTest::newRow("plain") << QByteArray() << QString() << QStringLiteral("out.flv")
                               << QStringList{file, dir};
        QTest::newRow("query") << QByteArray("?t=1&u=?2") << QString() << QStringLiteral("out.flv")
                               << QStringList{QStringLiteral("setOption: auth=t=1&u=?2"), file,
                                              dir};
        QTest::newRow("empty query")
            << QByteArray("?") << QString() << QStringLiteral("out.flv")
            << QStringList{QStringLiteral("setOption: auth=true"), file, dir};
        QTest::newRow("query like an option")
            << QByteArray("?--outDir=/etc&--outFile=../evil") << QString()
            << QStringLiteral("out.flv") << QStringList{file, dir};
        QTest::newRow("proxy")
            << QByteArray() << QStringLiteral("127.0.0.9") << QStringLiteral("out.flv")
            << QStringList{QStringLiteral("setOption: proxy proxyType =3 proxyHost = 127.0.0.9 "
                                          "proxyPort = 4"),
                           file, dir};
        QTest::newRow("name like an option")
            << QByteArray() << QString() << QStringLiteral("--a.flv")
            << QStringList{QStringLiteral("setOption: outFile=--a.flv"), dir};
        QTest::newRow("no name") << QByteArray() << QString() << QString()
                                 << QStringList{QStringLiteral("setOption: outFile=true"), dir};
    }

    void whatTheHostIsTold()
    {
        QFETCH(QByteArray, query);
        QFETCH(QString, proxyHost);
        QFETCH(QString, outFile);
        QFETCH(QStringList, options);
        HdsTransfer::Wish wanted = wish(query);
        wanted.proxy.host = proxyHost;
        wanted.proxy.type = 3;
        wanted.proxy.port = 4;
        wanted.outFile = outFile;
        m_server->on("/dir/m.f4m", replyOf(QByteArray()));
        HdsTransfer transfer(wanted);
        QSignalSpy ends(&transfer, &Transfer::ended);
        const MessageCatcher catcher;
        transfer.start();
        QCOMPARE(endOf(ends), Transfer::Outcome::Failed);
        options.last() = options.constLast().arg(m_folder->path());
        const QStringList before{m_folder->path(),
                                 QStringLiteral("setOption: manifest=") + wanted.manifest};
        const QStringList told = quotedAll(before + options);
        QCOMPARE(catcher.lines().mid(0, told.size()), told);
        QCOMPARE(catcher.lines().value(told.size()),
                 QStringLiteral("Processing manifest info.... "));
    }

    void itsQueryGoesWithEveryFragment_data()
    {
        QTest::addColumn<QByteArray>("query");
        QTest::newRow("usual") << QByteArray("?t=a%2Bb");
        QTest::newRow("like an option") << QByteArray("?--outDir=/etc");
    }

    void itsQueryGoesWithEveryFragment()
    {
        QFETCH(QByteArray, query);
        HdsTransfer transfer(wish(query));
        QSignalSpy ends(&transfer, &Transfer::ended);
        transfer.start();
        QCOMPARE(endOf(ends), Transfer::Outcome::Succeeded);
        QCOMPARE(m_server->requestsFor(fragmentPath(7)).constFirst().target,
                 fragmentPath(7) + query);
    }

    void aSilentServerIsLeft()
    {
        m_server->hold("/dir/m.f4m");
        HdsTransfer::Wish wanted = wish();
        wanted.stallS = 1;
        HdsTransfer transfer(wanted);
        QSignalSpy ends(&transfer, &Transfer::ended);
        transfer.start();
        QCOMPARE(ends.size(), 1); // from inside the call
        QCOMPARE(endOf(ends), Transfer::Outcome::Failed);
    }

    void cancelledBeforeItsStart()
    {
        HdsTransfer transfer(wish());
        QSignalSpy ends(&transfer, &Transfer::ended);
        const MessageCatcher catcher;
        transfer.cancel();
        QVERIFY(ends.isEmpty());
        transfer.start();
        QCOMPARE(ends.size(), 1); // from inside the call
        QCOMPARE(endOf(ends), Transfer::Outcome::Canceled);
        QCOMPARE(catcher.lines(), QStringList());
        QVERIFY(m_server->requests().isEmpty());
    }

    void cancelledFromItsProgress()
    {
        for (int n = 1; n <= 10; ++n)
            m_server->hold(fragmentPath(n));
        HdsTransfer transfer(wish());
        QSignalSpy ends(&transfer, &Transfer::ended);
        // It goes on giving notice while it only waits.
        connect(&transfer, &Transfer::progressed, this, [this, &transfer] {
            if (m_server->requests().size() == 9)
                transfer.cancel();
        });
        transfer.start();
        QVERIFY(ends.isEmpty());
        QCOMPARE(endOf(ends), Transfer::Outcome::Canceled);
    }

    void destroyedWhileTheManifestIsRead()
    {
        m_server->hold("/dir/m.f4m");
        auto transfer = std::make_unique<HdsTransfer>(wish());
        connect(m_server.get(), &ScriptedServer::requestReceived, this,
                [&transfer] { transfer.reset(); });
        HdsTransfer *const started = transfer.get();
        started->start();
        QVERIFY(!transfer);
    }

    void destroyedAtItsEnd()
    {
        auto *const transfer = new HdsTransfer(wish(), this);
        const QPointer<HdsTransfer> guarded(transfer);
        connect(transfer, &Transfer::ended, this, [transfer] { delete transfer; });
        transfer->start();
        QTRY_VERIFY(guarded.isNull());
        QVERIFY(!output().isEmpty());
    }
};

CLIPWEIR_TEST_MAIN(tst_HdsTransfer)
#include "tst_hdstransfer.moc"
