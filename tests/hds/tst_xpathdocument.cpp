#include "TestMain.h"
#include "XPathDocument.h"
#include "XmlLimits.h"

#include <QTemporaryDir>

class tst_XPathDocument : public QObject
{
    Q_OBJECT

private slots:
    void manyQueriesOfOneDocument()
    {
        XPathDocument document(QStringLiteral("<a><b c='1'>x</b><b c='2'>y<d>z</d></b></a>"));
        QVERIFY(document.isUsable());
        QCOMPARE(document.strings(QStringLiteral("//b/@c/string()")),
                 (QStringList{QStringLiteral("1"), QStringLiteral("2")}));
        QVERIFY(document.strings(QStringLiteral("//((")).isEmpty());
        QCOMPARE(document.select(QStringLiteral("//b")), 2);
        QCOMPARE(document.stringsAt(1, QStringLiteral("d/string()")),
                 QStringList{QStringLiteral("z")});
        QCOMPARE(document.strings(QStringLiteral("a/b[1]/string()")),
                 QStringList{QStringLiteral("x")});
        QCOMPARE(document.stringsAt(0, QStringLiteral("@c/string()")),
                 QStringList{QStringLiteral("1")});
        QVERIFY(document.stringsAt(2, QStringLiteral("@c/string()")).isEmpty());
        QVERIFY(document.stringsAt(-1, QStringLiteral("@c/string()")).isEmpty());
    }

    void declaredEncodingIsThatOfTheBytesNotOfTheText()
    {
        const QString text = QString::fromUtf8("\xc3\xa9\xe4\xb8\xad");
        XPathDocument document(QStringLiteral("<?xml version='1.0' encoding='ISO-8859-1'?><a>")
                               + text + QStringLiteral("</a>"));
        QCOMPARE(document.strings(QStringLiteral("/a/string()")), QStringList{text});
        XPathDocument marked(QChar(0xFEFF) + QStringLiteral("<a>") + text + QStringLiteral("</a>"));
        QCOMPARE(marked.strings(QStringLiteral("/a/string()")), QStringList{text});
    }

    void unusableText_data()
    {
        QTest::addColumn<QString>("xml");
        QTest::newRow("nothing") << QString();
        QTest::newRow("white space") << QStringLiteral(" \n");
        QTest::newRow("declaration only") << QStringLiteral("<?xml version='1.0'?>");
        QTest::newRow("declaration without end") << QStringLiteral("<?xml version='1.0'");
        QTest::newRow("no XML") << QStringLiteral("{\"a\": 1}");
        QTest::newRow("not closed") << QStringLiteral("<a><b></a>");
        QTest::newRow("two roots") << QStringLiteral("<a/><a/>");
        QTest::newRow("entities") << QStringLiteral("<!DOCTYPE a [<!ENTITY e 'x'>]><a>&e;</a>");
        QTest::newRow("external entity")
            << QStringLiteral("<!DOCTYPE a [<!ENTITY e SYSTEM 'file:///etc/hostname'>]><a>&e;</a>");
        QTest::newRow("too deep") << QStringLiteral("<a>").repeated(65)
                + QStringLiteral("</a>").repeated(65);
    }

    void unusableText()
    {
        QFETCH(QString, xml);
        XPathDocument document(xml);
        QVERIFY(!document.isUsable());
        QVERIFY(document.strings(QStringLiteral("//a/string()")).isEmpty());
        QCOMPARE(document.select(QStringLiteral("//a")), 0);
        QVERIFY(document.stringsAt(0, QStringLiteral("string()")).isEmpty());
    }

    void limitsAreWideEnough()
    {
        XPathDocument deep(QStringLiteral("<a>").repeated(64)
                           + QStringLiteral("</a>").repeated(64));
        QCOMPARE(deep.select(QStringLiteral("//a")), 64);
        XPathDocument many(QStringLiteral("<a>") + QStringLiteral("<b/>").repeated(200000)
                           + QStringLiteral("</a>"));
        QCOMPARE(many.select(QStringLiteral("//b")), 200000);
        QCOMPARE(many.stringsAt(199999, QStringLiteral("name()")),
                 QStringList{QStringLiteral("b")});
    }

    void aDoctypeThatOnlyNamesTheRoot()
    {
        XPathDocument document(
            QStringLiteral("<?xml version='1.0'?>\n<!DOCTYPE a>\n<a><b>x</b></a>"));
        QCOMPARE(document.strings(QStringLiteral("//b/string()")),
                 QStringList{QStringLiteral("x")});
        XPathDocument entity(QStringLiteral("<!DOCTYPE a><a>&e;</a>"));
        QVERIFY(!entity.isUsable());
    }

    /// The engine has numbers for so many names only; beyond them it took one for another.
    void asManyNamesAsThereMayBe()
    {
        QString xml = QStringLiteral("<a>");
        for (int i = 1; i < XmlLimits::maxNames; ++i)
            xml += QStringLiteral("<a%1/>").arg(i);
        XPathDocument document(xml + QStringLiteral("</a>"));
        const QStringList names = document.strings(QStringLiteral("//*/name()"));
        QCOMPARE(names.size(), int(XmlLimits::maxNames));
        for (int i = 1; i < names.size(); ++i)
            QCOMPARE(names.at(i), QStringLiteral("a%1").arg(i));
    }

    /// The engine has numbers for so many namespaces only; beyond them it crashed.
    void asManyNamespacesAsThereMayBe()
    {
        QString xml = QStringLiteral("<a>");
        for (int i = 0; i < XmlLimits::maxNamespaces - 1; ++i)
            xml += QStringLiteral("<p%1:b xmlns:p%1='u%1'/>").arg(i);
        XPathDocument document(xml + QStringLiteral("</a>"));
        const QStringList spaces = document.strings(QStringLiteral("//*/string(namespace-uri())"));
        QCOMPARE(spaces.size(), int(XmlLimits::maxNamespaces));
        for (int i = 1; i < spaces.size(); ++i)
            QCOMPARE(spaces.at(i), QStringLiteral("u%1").arg(i - 1));
        QCOMPARE(document.strings(QStringLiteral("//*/name()")).constLast(),
                 QStringLiteral("p%1:b").arg(XmlLimits::maxNamespaces - 2));
    }

    void noOtherDocumentIsRead()
    {
        const QTemporaryDir folder;
        QFile file(folder.filePath(QStringLiteral("secret.xml")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("<secret>s</secret>");
        file.close();
        XPathDocument document(QStringLiteral("<a>x</a>"));
        const QString address = QUrl::fromLocalFile(file.fileName()).toString();
        QVERIFY(
            document.strings(QStringLiteral("doc(\"%1\")/secret/string()").arg(address)).isEmpty());
        QCOMPARE(document.strings(QStringLiteral("string(doc-available(\"%1\"))").arg(address)),
                 QStringList{QStringLiteral("false")});
        QCOMPARE(document.strings(QStringLiteral("/a/string()")), QStringList{QStringLiteral("x")});
    }
};

CLIPWEIR_TEST_MAIN(tst_XPathDocument)
#include "tst_xpathdocument.moc"
