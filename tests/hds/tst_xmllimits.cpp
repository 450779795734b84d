#include "TestMain.h"
#include "XmlLimits.h"

#include <QRegularExpression>

#include <functional>

namespace {

/// An element of that name whose start tag holds what is made of each number below a count.
QString tagOf(int count, const std::function<QString(int)> &attribute)
{
    QString tag = QStringLiteral("<a");
    for (int i = 0; i < count; ++i)
        tag += QLatin1Char(' ') + attribute(i);
    return tag + QStringLiteral("/>");
}

/// An element around what is made of each number below a count.
QString elementOf(int count, const std::function<QString(int)> &child)
{
    QString element = QStringLiteral("<a>");
    for (int i = 0; i < count; ++i)
        element += child(i);
    return element + QStringLiteral("</a>");
}

QString numbered(const char *pattern, int number)
{
    return QString::fromLatin1(pattern).replace(QLatin1Char('#'), QString::number(number));
}

} // namespace

class tst_XmlLimits : public QObject
{
    Q_OBJECT

private slots:
    void accepted_data()
    {
        QTest::addColumn<QString>("xml");
        QTest::newRow("one element") << QStringLiteral("<a/>");
        QTest::newRow("doctype") << QStringLiteral("<!DOCTYPE a><a/>");
        QTest::newRow("doctype with white space") << QStringLiteral("<!DOCTYPE \n a\t><a/>");
        QTest::newRow("doctype with a prefix") << QStringLiteral("<!DOCTYPE x:a><a/>");
        QTest::newRow("doctype after a comment") << QStringLiteral("<!-- ' --><!DOCTYPE a><a/>");
        QTest::newRow("doctype in a comment") << QStringLiteral("<!--<!DOCTYPE a []>--><a/>");
        QTest::newRow("doctype in text") << QStringLiteral("<a><![CDATA[<!DOCTYPE a []>]]></a>");
        QTest::newRow("doctype in an instruction") << QStringLiteral("<?x <!DOCTYPE a []>?><a/>");
        QTest::newRow("deep") << QStringLiteral("<a>").repeated(64)
                + QStringLiteral("</a>").repeated(64);
        QTest::newRow("20001 elements")
            << elementOf(20000, [](int) { return QStringLiteral("<b/>"); });
        QTest::newRow("half a million nodes")
            << elementOf(250000, [](int) { return QStringLiteral("<b c=''/>"); });
        QTest::newRow("256 attributes") << tagOf(256, [](int i) { return numbered("a#='>'", i); });
        QTest::newRow("many quotes in text")
            << QStringLiteral("<a>") + QString(100000, QLatin1Char('"')) + QStringLiteral("</a>");
        QTest::newRow("2000 names") << elementOf(1999, [](int i) { return numbered("<b#/>", i); });
        QTest::newRow("255 namespaces")
            << elementOf(255, [](int i) { return numbered("<b xmlns='u#'/>", i); });
        QTest::newRow("255 prefixes")
            << elementOf(255, [](int i) { return numbered("<b xmlns:p#='u'/>", i); });
        QTest::newRow("the same namespace again and again")
            << elementOf(10000, [](int) { return QStringLiteral("<p:b xmlns:p='u'/>"); });
    }

    void accepted()
    {
        QFETCH(QString, xml);
        QVERIFY(XmlLimits::accepts(xml));
    }

    void refused_data()
    {
        QTest::addColumn<QString>("xml");
        QTest::addColumn<QString>("reason"); // in the warning
        const auto doctype = [](const char *name, const char *xml) {
            QTest::newRow(name) << QString::fromLatin1(xml) << QStringLiteral("DOCTYPE");
        };
        doctype("empty subset", "<!DOCTYPE a []><a/>");
        doctype("subset", "<!DOCTYPE a [<!ELEMENT a ANY>]><a/>");
        doctype("entity", "<!DOCTYPE a [<!ENTITY e 'x'>]><a>&e;</a>");
        doctype("entities of entities",
                "<!DOCTYPE a [<!ENTITY e 'xxxx'><!ENTITY f '&e;&e;&e;&e;'>]><a>&f;</a>");
        doctype("external entity", "<!DOCTYPE a [<!ENTITY e SYSTEM 'file:///etc/x'>]><a>&e;</a>");
        doctype("parameter entity", "<!DOCTYPE a [<!ENTITY % e SYSTEM 'file:///etc/x'>%e;]><a/>");
        doctype("external subset", "<!DOCTYPE a SYSTEM 'http://h/a.dtd'><a/>");
        doctype("external subset with a >", "<!DOCTYPE a SYSTEM 'http://h/>a.dtd'><a/>");
        doctype("public subset", "<!DOCTYPE a PUBLIC '-//X//Y' 'http://h/a.dtd'><a/>");
        doctype("without a name", "<!DOCTYPE><a/>");
        doctype("without an end", "<!DOCTYPE a");
        doctype("another declaration", "<!ENTITY e 'x'><a/>");

        const auto row = [](const char *name, const QString &xml, const char *reason) {
            QTest::newRow(name) << xml << QString::fromLatin1(reason);
        };
        row("too deep", QStringLiteral("<a>").repeated(65) + QStringLiteral("</a>").repeated(65),
            "deeply");
        row("a million levels", QStringLiteral("<a>").repeated(1000000), "deeply");
        row("too many nodes", elementOf(1000000, [](int) { return QStringLiteral("<b/>"); }),
            "nodes");
        row("too many nodes by attributes",
            elementOf(250001, [](int) { return QStringLiteral("<b c='' d='' e=''/>"); }), "nodes");
        row("too many nodes by comments",
            elementOf(1000000, [](int) { return QStringLiteral("<!---->"); }), "nodes");
        row("257 attributes", tagOf(257, [](int i) { return numbered("a#='>'", i); }),
            "attributes");
        row("a million attributes", tagOf(1000000, [](int i) { return numbered("a#=''", i); }),
            "attributes");
        row("a million attributes after a comment with a quote",
            QStringLiteral("<!-- ' -->")
                + tagOf(1000000, [](int i) { return numbered("a#=\"'>\"", i); }),
            "attributes");
        row("2001 names", elementOf(2000, [](int i) { return numbered("<b#/>", i); }), "names");
        row("2001 names of attributes",
            elementOf(2000, [](int i) { return numbered("<a b#=''/>", i); }), "names");
        row("2001 names of instructions",
            elementOf(2000, [](int i) { return numbered("<?b# ?>", i); }), "names");
        row("257 namespaces", elementOf(257, [](int i) { return numbered("<b xmlns='u#'/>", i); }),
            "namespaces");
        row("257 prefixes", elementOf(257, [](int i) { return numbered("<b xmlns:p#='u'/>", i); }),
            "namespaces");
        row("257 declarations in force",
            elementOf(60,
                      [](int) {
                          return QStringLiteral("<b xmlns:p='u' xmlns:q='v' xmlns:r='w' "
                                                "xmlns:s='x' xmlns:t='y'>");
                      }),
            "namespaces");
    }

    void refused()
    {
        QFETCH(QString, xml);
        QFETCH(QString, reason);
        const QString warning = QStringLiteral("^an XML document of %1 characters is refused: "
                                               ".*%2")
                                    .arg(QString::number(xml.size()), reason);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(warning));
        QVERIFY(!XmlLimits::accepts(xml));
    }

    void whatIsNoXmlIsRefusedWithoutAWord_data()
    {
        QTest::addColumn<QString>("xml");
        QTest::newRow("nothing") << QString();
        QTest::newRow("text") << QStringLiteral("not found");
        QTest::newRow("not closed") << QStringLiteral("<a><b></a>");
        QTest::newRow("open quote") << QStringLiteral("<a b='><c/></a>");
        QTest::newRow("open comment") << QStringLiteral("<a/><!-- ");
        QTest::newRow("entity that is nowhere declared") << QStringLiteral("<a>&e;</a>");
        QTest::newRow("the same, with a doctype") << QStringLiteral("<!DOCTYPE a><a>&e;</a>");
    }

    void whatIsNoXmlIsRefusedWithoutAWord()
    {
        QFETCH(QString, xml);
        QVERIFY(!XmlLimits::accepts(xml));
    }
};

CLIPWEIR_TEST_MAIN(tst_XmlLimits)
#include "tst_xmllimits.moc"
