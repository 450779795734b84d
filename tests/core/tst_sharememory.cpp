#include "MessageCatcher.h"
#include "ProgramRun.h"
#include "ShareMemoryManager.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "VideoPreference.h"

#include <QCryptographicHash>

namespace {

ShareMemoryManager *manager()
{
    return ShareMemoryManager::GetInstance();
}

QString keyOf(const QString &pageUrl)
{
    const QByteArray digest =
        QCryptographicHash::hash(pageUrl.toUtf8(), QCryptographicHash::Md5).toHex().toUpper();
    return QStringLiteral("SM_") + QString::fromLatin1(digest);
}

/// The block as a host sees it.
class HostBlock final
{
public:
    explicit HostBlock(const QString &pageUrl)
        : m_memory(keyOf(pageUrl))
    {
    }

    [[nodiscard]] bool attach() { return m_memory.attach(); }
    [[nodiscard]] bool create(int size) { return m_memory.create(size); }
    [[nodiscard]] int size() const { return m_memory.size(); }

    [[nodiscard]] int byte(int at = 0)
    {
        m_memory.lock();
        const int value = static_cast<const uchar *>(m_memory.constData())[at];
        m_memory.unlock();
        return value;
    }

    void setByte(char value, int at = 0)
    {
        m_memory.lock();
        static_cast<char *>(m_memory.data())[at] = value;
        m_memory.unlock();
    }

private:
    QSharedMemory m_memory;
};

} // namespace

class tst_ShareMemory : public QObject
{
    Q_OBJECT

private:
    /// The files that stand for the block and its lock in the system, as far as they are there.
    QStringList keyFiles() const
    {
        QStringList files;
        const QString block = QSharedMemory(keyOf(m_pageUrl)).nativeKey();
        const QString lock =
            QString(block).replace(QLatin1String("sharedmemory"), QLatin1String("systemsem"));
        for (const QString &path : {block, lock}) {
            if (QFile::exists(path))
                files += path;
        }
        return files;
    }

    const QString m_pageUrl = uniquePageUrl() + QLatin1String("/a");

private slots:
    void initTestCase()
    {
        setArguments({QStringLiteral("--url"), m_pageUrl});
        QVERIFY(!HostBlock(m_pageUrl).attach());
        // The key is that of the command line at the first call.
        QVERIFY(manager());
        setArguments({});
    }

    void cleanup() { manager()->detach(); }

    void makingTheManagerMakesNoBlock() { QVERIFY(!HostBlock(m_pageUrl).attach()); }

    void withoutABlockTheFlagIsFalseAndNothingIsSaid()
    {
        const MessageCatcher catcher;
        QVERIFY(!manager()->attach());
        QVERIFY(!manager()->detach());
        QVERIFY(!manager()->readShareMemData());
        QVERIFY(!manager()->GetExitFlag());
        manager()->DeleteShareMemData();
        QCOMPARE(catcher.lines(), QStringList());
        QVERIFY(!HostBlock(m_pageUrl).attach());
    }

    void blockIsOneByteThatHoldsZero()
    {
        const MessageCatcher catcher;
        QVERIFY(manager()->CreateShareMemData());
        HostBlock host(m_pageUrl);
        QVERIFY(host.attach());
        QCOMPARE(host.size(), 1);
        QCOMPARE(host.byte(), 0);
        QVERIFY(!manager()->GetExitFlag());
        QCOMPARE(catcher.lines(), QStringList());
    }

    void attachAndDetachReportWhatTheyDid()
    {
        HostBlock host(m_pageUrl);
        QVERIFY(host.create(1));
        QVERIFY(manager()->attach());
        QVERIFY(manager()->attach());
        QVERIFY(manager()->detach());
        QVERIFY(!manager()->detach());
    }

    void flagIsReadAfreshAtEveryCall()
    {
        QVERIFY(manager()->CreateShareMemData());
        HostBlock host(m_pageUrl);
        QVERIFY(host.attach());
        host.setByte(1);
        QVERIFY(manager()->GetExitFlag());
        host.setByte(0);
        QVERIFY(!manager()->GetExitFlag());
        host.setByte(2); // any byte but 0 is true
        QVERIFY(manager()->GetExitFlag());
    }

    void settingTheFlagWritesTheByte()
    {
        HostBlock host(m_pageUrl);
        QVERIFY(manager()->SetExitFlag(true)); // makes the block that is missing
        QVERIFY(host.attach());
        QCOMPARE(host.byte(), 1);
        QVERIFY(manager()->GetExitFlag());
        QVERIFY(manager()->SetExitFlag(false));
        QCOMPARE(host.byte(), 0);
        QVERIFY(!manager()->GetExitFlag());
    }

    void deletingClearsAndLeavesTheBlock()
    {
        QVERIFY(manager()->SetExitFlag(true));
        HostBlock host(m_pageUrl);
        QVERIFY(host.attach());
        const MessageCatcher catcher;
        manager()->DeleteShareMemData();
        QCOMPARE(catcher.lines(), QStringList{QStringLiteral("detach sharememory ")});
        QCOMPARE(host.byte(), 0);
        QVERIFY(!manager()->detach());
    }

    void flagIsFalseOnceTheBlockVanished()
    {
        QVERIFY(manager()->SetExitFlag(true));
        QVERIFY(manager()->GetExitFlag());
        manager()->DeleteShareMemData(); // nobody else holds it
        QVERIFY(!HostBlock(m_pageUrl).attach());
        QVERIFY(!manager()->GetExitFlag());
        QVERIFY(manager()->SetExitFlag(false));
    }

    void deletingLeavesNothingInTheSystem()
    {
        QVERIFY(manager()->CreateShareMemData());
        QCOMPARE(keyFiles().size(), 2);
        manager()->DeleteShareMemData();
        QCOMPARE(keyFiles(), QStringList());
    }

    void whatAKilledRunLeftIsTakenAway()
    {
        QProcess killed;
        killed.start(QStringLiteral(CLIPWEIR_PROGRAM), {QStringLiteral("--url"), m_pageUrl});
        QByteArray output;
        QTRY_VERIFY_WITH_TIMEOUT((output += killed.readAllStandardError()).contains("parsing..."),
                                 30000);
        killed.kill();
        QVERIFY(killed.waitForFinished());
        QCOMPARE(keyFiles().size(), 2);
        QVERIFY(manager()->CreateShareMemData());
        manager()->DeleteShareMemData();
        QCOMPARE(keyFiles(), QStringList());
    }

    void aHostThatStaysAttachedKeepsItsLock()
    {
        QVERIFY(manager()->CreateShareMemData());
        HostBlock host(m_pageUrl);
        QVERIFY(host.attach());
        host.setByte(1);
        manager()->DeleteShareMemData();
        QCOMPARE(host.byte(), 0); // it makes a new one
        QVERIFY(manager()->CreateShareMemData());
        host.setByte(1);
        QVERIFY(manager()->GetExitFlag());
        host.setByte(0);
        QVERIFY(!manager()->GetExitFlag());
    }

    void aStaleRequestIsClearedFirst()
    {
        HostBlock stale(m_pageUrl);
        QVERIFY(stale.create(1));
        stale.setByte(1);
        const MessageCatcher catcher;
        QVERIFY(manager()->CreateShareMemData());
        QCOMPARE(catcher.lines(), QStringList{QStringLiteral("detach sharememory ")});
        QCOMPARE(stale.byte(), 0);
        QVERIFY(!manager()->GetExitFlag());
    }

    void aLargerBlockIsClearedAsAWhole()
    {
        HostBlock host(m_pageUrl);
        QVERIFY(host.create(3));
        for (int i = 0; i < 3; ++i)
            host.setByte(7, i);
        QVERIFY(manager()->GetExitFlag()); // the first byte counts
        QVERIFY(manager()->SetExitFlag(true));
        QCOMPARE(host.byte(0), 1);
        QCOMPARE(host.byte(2), 7);
        manager()->DeleteShareMemData();
        for (int i = 0; i < 3; ++i)
            QCOMPARE(host.byte(i), 0);
        QVERIFY(manager()->SetExitFlag(false));
    }

    void aSecondProgramSetsTheFlag_data()
    {
        QTest::addColumn<QString>("pageUrl");
        QTest::addColumn<bool>("isReached");
        QTest::newRow("the same address") << m_pageUrl << true;
        QTest::newRow("another letter case")
            << m_pageUrl.left(m_pageUrl.size() - 1) + QLatin1Char('A') << false;
        QTest::newRow("a slash more") << m_pageUrl + QLatin1Char('/') << false;
    }

    void aSecondProgramSetsTheFlag()
    {
        QFETCH(QString, pageUrl);
        QFETCH(bool, isReached);
        QVERIFY(manager()->CreateShareMemData());
        ProgramRun second;
        QVERIFY(second.run({QStringLiteral("--url"), pageUrl, QStringLiteral("--exit")}));
        QVERIFY(second.endedNormally());
        QCOMPARE(second.exitCode(), 0);
        QCOMPARE(second.errorOutput(), QByteArray("set ExitFlag \n"));
        QCOMPARE(manager()->GetExitFlag(), isReached);
        manager()->DeleteShareMemData();
        manager()->SetExitFlag(false);
    }

    void aRequestWithNobodyListeningLeavesNoBlock()
    {
        ProgramRun second;
        QVERIFY(second.run({QStringLiteral("--url"), m_pageUrl, QStringLiteral("--exit")}));
        QCOMPARE(second.exitCode(), 0);
        QVERIFY(!HostBlock(m_pageUrl).attach());
        QVERIFY(!manager()->GetExitFlag());
    }
};

CLIPWEIR_TEST_MAIN(tst_ShareMemory)
#include "tst_sharememory.moc"
