#include "PublicSuffix.h"
#include "TestMain.h"

#include <QFile>

class tst_PublicSuffix : public QObject
{
    Q_OBJECT

private slots:
    void domains_data()
    {
        QTest::addColumn<QString>("domain");
        QTest::addColumn<bool>("isSuffix");
        const auto row = [](const char *domain, bool isSuffix) {
            QTest::newRow(domain) << QString::fromUtf8(domain) << isSuffix;
        };
        row("com", true);
        row("example.com", false);
        row("co.uk", true);
        row("CO.UK", true);
        row("b.co.uk", false);
        row("github.io", true); // a firm's, not a registry's
        row("one.github.io", false);
        row("test", true); // nobody's
        row("example.test", false);
        row("anything.ck", true); // by a rule for all below
        row("www.ck", false); // and its exception
        row("рф", true);
        row("xn--p1ai", true);
        row("公司.cn", true);
        row("xn--55qx5d.cn", true);
        row("例.公司.cn", false);
        row("xn--fsq.xn--55qx5d.cn", false);
        row("a_b.com", false);
        row("a_b c.co.uk", false);
        row("", true);
    }

    void domains()
    {
        QFETCH(QString, domain);
        QTEST(PublicSuffix::isOne(domain), "isSuffix");
    }

    /// An update of it counts, whatever the libraries have brought.
    void theSystemsListCounts()
    {
        QFile file(QStringLiteral("/usr/share/publicsuffix/public_suffix_list.dat"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        int count = 0;
        while (!file.atEnd()) {
            const QString line = QString::fromUtf8(file.readLine()).trimmed();
            if (line.isEmpty() || line.startsWith(QLatin1String("//")))
                continue;
            ++count;
            const bool isException = line.startsWith(QLatin1Char('!'));
            const QString domain = isException
                ? line.mid(1)
                : QString(line).replace(QLatin1String("*."), QLatin1String("anything."));
            QVERIFY2(PublicSuffix::isOne(domain) != isException, qPrintable(line));
        }
        QVERIFY(count > 5000);
    }
};

CLIPWEIR_TEST_MAIN(tst_PublicSuffix)
#include "tst_publicsuffix.moc"
