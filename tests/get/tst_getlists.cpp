#include "Archive.h"
#include "HostQueue.h"
#include "PageList.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QBuffer>
#include <QProcess>

#include <sys/file.h>

namespace {

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

QString page(int number, int host = 1)
{
    return QStringLiteral("http://host%1/%2").arg(host).arg(number);
}

} // namespace

/// What pages there are, which of them are done, and whose turn it is.
class tst_GetLists : public QObject
{
    Q_OBJECT

private slots:
    void lists_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QStringList>("pages");
        const QStringList two{text("http://a/1"), text("https://b/2")};
        QTest::newRow("empty") << QByteArray() << QStringList();
        QTest::newRow("plain") << QByteArray("http://a/1\nhttps://b/2\n") << two;
        QTest::newRow("no last end") << QByteArray("http://a/1\nhttps://b/2") << two;
        QTest::newRow("other ends") << QByteArray("http://a/1\r\nhttps://b/2\r\n") << two;
        QTest::newRow("comments") << QByteArray("# x\n\n  # y\nhttp://a/1 # z\n\thttps://b/2\t#\n")
                                  << two;
        QTest::newRow("a place in a page")
            << QByteArray("http://a/1#t=5\n") << QStringList{text("http://a/1#t=5")};
        QTest::newRow("doubles") << QByteArray("http://a/1\nhttps://b/2\nhttp://a/1\n") << two;
        QTest::newRow("byte order mark")
            << QByteArray("\xef\xbb\xbfhttp://a/1\nhttps://b/2\n") << two;
        QTest::newRow("without a scheme")
            << QByteArray("b/2\nlocalhost:80/x\n")
            << QStringList{text("https://b/2"), text("https://localhost:80/x")};
    }

    void lists()
    {
        QFETCH(QByteArray, content);
        QFETCH(QStringList, pages);
        QBuffer buffer(&content);
        QVERIFY(buffer.open(QIODevice::ReadOnly));
        PageList list;
        QVERIFY2(list.addList(buffer), qPrintable(list.reason()));
        QCOMPARE(list.addresses(), pages);
    }

    void refusedLines_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("file") << QByteArray("file:///etc/passwd");
        QTest::newRow("no host") << QByteArray("http:///x");
        QTest::newRow("control") << QByteArray("http://a/\x1b[0m");
        QTest::newRow("space") << QByteArray("http://a/b c d");
        QTest::newRow("script") << QByteArray("javascript://a/x");
        QTest::newRow("option") << QByteArray("--log");
        QTest::newRow("no text") << QByteArray("http://a/\xff");
        QTest::newRow("too long") << "http://a/" + QByteArray(70000, 'x');
    }

    void refusedLines()
    {
        QFETCH(QByteArray, line);
        QByteArray content = "http://a/1\n" + line + "\nhttp://a/2\n";
        QBuffer buffer(&content);
        QVERIFY(buffer.open(QIODevice::ReadOnly));
        PageList list;
        QVERIFY(!list.addList(buffer));
        QVERIFY2(list.reason().startsWith(text("line 2: ")), qPrintable(list.reason()));
        QVERIFY(list.reason().size() < 300);
        QVERIFY(firstControl(list.reason().toUtf8()).isEmpty());
    }

    void anArchive()
    {
        const TemporaryWorkFolder folder;
        const QString path = folder.path(text("done"));
        {
            Archive archive;
            QVERIFY(!archive.isOpen());
            QVERIFY(!archive.contains(page(1)));
            QVERIFY(archive.open(path));
            QVERIFY(!archive.contains(page(1)));
            QVERIFY(archive.add(page(1)));
            QVERIFY(archive.add(page(2)));
            QVERIFY(archive.add(page(1)));
            QVERIFY(archive.contains(page(1)));
        }
        QCOMPARE(readFile(path), QByteArray("http://host1/1\nhttp://host1/2\n"));
        Archive again;
        QVERIFY(again.open(path));
        QVERIFY(again.contains(page(1)) && again.contains(page(2)) && !again.contains(page(3)));
    }

    void anArchiveOfPeople()
    {
        const TemporaryWorkFolder folder;
        const QString path = folder.path(text("done"));
        writeFile(path, "# mine\n\n  http://host1/1\r\n#http://host1/2\nhttp://host1/3");
        Archive archive;
        QVERIFY(archive.open(path));
        QVERIFY(archive.contains(page(1)));
        QVERIFY(!archive.contains(page(2)));
        // A line without an end may be half an address: it does not count, and spoils no other.
        QVERIFY(!archive.contains(page(3)));
        QVERIFY(archive.add(page(4)));
        QVERIFY(readFile(path).endsWith("#http://host1/2\nhttp://host1/3\nhttp://host1/4\n"));
        QVERIFY(archive.contains(page(3)));
    }

    void anArchiveThatOthersKeep()
    {
        const TemporaryWorkFolder folder;
        const QString path = folder.path(text("done"));
        Archive one;
        Archive other;
        QVERIFY(one.open(path) && other.open(path));
        QVERIFY(one.add(page(1)));
        QVERIFY(other.contains(page(1)));
        QVERIFY(other.add(page(2)));
        QVERIFY(one.contains(page(2)));
        writeFile(path, "http://host1/9\n"); // somebody has written it anew
        QVERIFY(one.contains(page(9)));
        QVERIFY(!one.contains(page(1)));
    }

    void noArchive()
    {
        const TemporaryWorkFolder folder;
        Archive archive;
        QVERIFY(!archive.open(folder.path()));
        QVERIFY(!archive.open(folder.path(text("none/done"))));
        QVERIFY(!archive.open(text("/dev/full")));
        QVERIFY(!archive.isOpen());
        QVERIFY(!archive.add(page(1)));
    }

    void hostsTakeTurns()
    {
        HostQueue queue({page(0), page(1), page(2), page(3, 2), page(4, 2), page(5, 3)}, 2);
        QCOMPARE(*queue.take(), 0);
        QCOMPARE(*queue.take(), 1);
        QCOMPARE(*queue.take(), 3); // the first host has its two
        QCOMPARE(*queue.take(), 4);
        QCOMPARE(*queue.take(), 5);
        QVERIFY(!queue.take());
        QVERIFY(!queue.isEmpty());
        queue.release(3);
        QVERIFY(!queue.take());
        queue.release(1);
        QCOMPARE(*queue.take(), 2);
        QVERIFY(queue.isEmpty());
        queue.release(0);
        queue.release(2);
        QVERIFY(!queue.take());
    }

    void theRestIsInOrder()
    {
        HostQueue queue({page(0), page(1, 2), page(2), page(3, 2)}, 1);
        QCOMPARE(*queue.take(), 0);
        QCOMPARE(queue.takeRest(), (std::vector<int>{1, 2, 3}));
        QVERIFY(queue.isEmpty());
        queue.release(0);
        QVERIFY(!queue.take());
    }

    void manyPages()
    {
        QStringList pages;
        constexpr int count = 200000;
        for (int i = 0; i < count; ++i)
            pages += page(i, i % 3 == 0 ? i : 1);
        HostQueue queue(pages, 1);
        int taken = 0;
        for (auto next = queue.take(); next; next = queue.take()) {
            ++taken;
            queue.release(*next);
        }
        QCOMPARE(taken, count);
    }
};

CLIPWEIR_TEST_MAIN(tst_GetLists)
#include "tst_getlists.moc"
